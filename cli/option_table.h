#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kovo::cli {

// One option of a command.
struct Option {
  char letter;                                   // 0: none
  std::string_view name;                         // without the dashes
  std::string_view value;                        // what the help calls its value; empty: a flag
  std::string_view help;                         // '\n' continues on the next help line
  std::function<void(std::string_view)> accept;  // gets the value, or "" for a flag
};

// A command's options: parses a command line by them and prints them.
class OptionTable {
 public:
  explicit OptionTable(std::vector<Option> options) : _options(std::move(options)) {}

  // Accepts every option of arguments and returns the rest, the operands. "--" ends the options;
  // a lone "-" is an operand. Throws UsageError.
  std::vector<std::string> parse(const std::vector<std::string>& arguments) const;

  std::string help() const;

 private:
  const Option* find(std::string_view name) const;
  const Option* find(char letter) const;

  std::vector<Option> _options;
};

}  // namespace kovo::cli
