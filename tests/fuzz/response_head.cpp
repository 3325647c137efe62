// The lines of response heads, as they arrive from a server.
#include "platform/linux/response_head_builder.h"

#include <strings.h>

#include "fuzz/fuzz_target.h"

namespace kovo::test {
namespace {

bool isSame(const HttpResponseHead& one, const HttpResponseHead& other) {
  return one.status == other.status && one.reason == other.reason && one.version == other.version &&
         one.headers == other.headers;
}

void checkHead(const ResponseHeadBuilder& builder) {
  const HttpResponseHead& head = builder.head();
  require(head.status <= 999, "a status has three digits");
  const std::string* length = nullptr;
  for (const Header& header : head.headers) {
    require(!header.first.empty(), "every header has a name");
    require(header.first.find_first_of(":\n") == std::string::npos, "a name is one word");
    require(header.second.find('\n') == std::string::npos, "a value is one line");
    const std::string* found = builder.find(header.first.c_str());
    require(header.first.find('\0') != std::string::npos || found != nullptr, "headers are found");
    if (::strcasecmp(header.first.c_str(), "Content-Length") == 0) {
      require(!header.second.empty() &&
                  header.second.find_first_not_of("0123456789") == std::string::npos,
              "a length is a number");
      require(length == nullptr || *length == header.second, "all lengths are the same");
      length = &header.second;
    }
  }
}

}  // namespace

// The lines of one response or several.
KOVO_FUZZ_TARGET(response_head) {
  ResponseHeadBuilder builder;
  ResponseHeadBuilder withReturns;
  while (!input.isEmpty()) {
    std::string line = input.line();
    const bool accepted = builder.add(line + "\n");
    require(accepted == builder.problem().empty(), "what is refused is given a reason");
    if (!line.empty() && line.back() == '\r') {
      line.pop_back();
    }
    require(withReturns.add(line + "\r\n") == accepted, "both line ends read the same");
    require(isSame(builder.head(), withReturns.head()), "both line ends give the same head");
    if (!accepted) {
      return;
    }
    if (builder.isComplete()) {
      require(builder.head().status >= 200 || builder.head().status == 101,
              "an interim response completes nothing");
      checkHead(builder);
    }
  }
}

}  // namespace kovo::test
