#include "option_table.h"

#include <algorithm>

#include "usage_error.h"

namespace kovo::cli {

const Option* OptionTable::find(std::string_view name) const {
  const auto found = std::find_if(_options.begin(), _options.end(),
                                  [&](const Option& option) { return option.name == name; });
  return found == _options.end() ? nullptr : &*found;
}

const Option* OptionTable::find(char letter) const {
  const auto found = std::find_if(_options.begin(), _options.end(),
                                  [&](const Option& option) { return option.letter == letter; });
  return found == _options.end() ? nullptr : &*found;
}

std::vector<std::string> OptionTable::parse(const std::vector<std::string>& arguments) const {
  std::vector<std::string> operands;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--") {
      operands.insert(operands.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                      arguments.end());
      break;
    }
    if (argument.size() < 2 || argument[0] != '-') {
      operands.push_back(argument);
      continue;
    }
    const auto nextArgument = [&](const std::string& spelling) -> std::string_view {
      if (i + 1 >= arguments.size()) throw UsageError(spelling + " needs a value");
      return arguments[++i];
    };
    if (argument[1] == '-') {
      const std::size_t equals = argument.find('=');
      const std::string spelling = argument.substr(0, equals);
      const Option* const option = find(std::string_view(spelling).substr(2));
      if (option == nullptr) throw UsageError("unknown option " + spelling);
      if (option->value.empty()) {
        if (equals != std::string::npos) throw UsageError(spelling + " takes no value");
        option->accept("");
      } else if (equals != std::string::npos) {
        option->accept(std::string_view(argument).substr(equals + 1));
      } else {
        option->accept(nextArgument(spelling));
      }
      continue;
    }
    for (std::size_t at = 1; at < argument.size(); ++at) {
      const std::string spelling = std::string("-") + argument[at];
      const Option* const option = find(argument[at]);
      if (option == nullptr) throw UsageError("unknown option " + spelling);
      if (option->value.empty()) {
        option->accept("");
        continue;
      }
      const std::string_view attached = std::string_view(argument).substr(at + 1);
      option->accept(attached.empty() ? nextArgument(spelling) : attached);
      break;
    }
  }
  return operands;
}

std::string OptionTable::help() const {
  constexpr std::size_t kColumn = 26;
  std::string text;
  for (const Option& option : _options) {
    std::string left = option.letter != 0 ? std::string("  -") + option.letter + ", " : "      ";
    left.append("--").append(option.name);
    if (!option.value.empty()) left.append(" ").append(option.value);
    text += left;
    std::size_t used = left.size();
    if (used + 2 > kColumn) {
      text += '\n';
      used = 0;
    }
    std::string_view rest = option.help;
    while (true) {
      const std::size_t newline = rest.find('\n');
      text.append(kColumn - used, ' ').append(rest.substr(0, newline)).append("\n");
      if (newline == std::string_view::npos) break;
      rest.remove_prefix(newline + 1);
      used = 0;
    }
  }
  return text;
}

}  // namespace kovo::cli
