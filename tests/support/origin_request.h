#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kovo::test {

using Headers = std::vector<std::pair<std::string, std::string>>;

/** One request as a FaultOrigin received it. */
struct OriginRequest {
  std::string verb;
  std::string target; /* as sent: path and query */
  std::string path;
  std::string query; /* without the '?' */
  Headers headers;
  std::string body;
  /* All three count from 0. */
  size_t index = 0;        /* over all requests of the origin, in order of arrival */
  size_t connection = 0;   /* over all connections of the origin */
  size_t onConnection = 0; /* over the requests of this connection */

  /** The first header of this name, compared without case. */
  std::optional<std::string> header(std::string_view name) const;

  /** The bytes a "bytes=first-last" Range asks for; the second is absent for "first-". */
  struct Range {
    uint64_t first = 0;
    std::optional<uint64_t> last;
  };
  std::optional<Range> range() const;
  /** First byte asked for; 0 without a Range. */
  uint64_t rangeStart() const { return range() ? range()->first : 0; }
};

}  // namespace kovo::test
