#include "get_options.h"

#include <algorithm>
#include <cctype>

#include "quantity.h"
#include "secrets.h"
#include "sha256.h"
#include "url_list.h"
#include "url_text.h"
#include "usage_error.h"

namespace kovo::cli {

namespace {

constexpr std::uint64_t kLargestChunk = 50U << 20;
constexpr std::uint64_t kLastPosition = INT64_MAX;

ByteRange parseRange(std::string_view text) {
  const std::size_t dash = text.find('-');
  if (dash == std::string_view::npos || dash == 0) {
    throw UsageError("--range: '" + std::string(text) + "' is not A-B or A-");
  }
  ByteRange range;
  range.first = parseNumber(text.substr(0, dash), "--range", 0, kLastPosition - 1);
  const std::string_view last = text.substr(dash + 1);
  if (!last.empty()) range.last = parseNumber(last, "--range", range.first, kLastPosition - 1);
  return range;
}

}  // namespace

OptionTable GetOptions::table() {
  std::vector<Option> rows = {
      {'o', "output", "FILE", "write to FILE, or into the folder FILE; for one URL",
       [this](std::string_view text) { output = text; }},
      {'J', "content-disposition", "", "take the name the server proposes, if it does",
       [this](std::string_view) { remoteName = true; }},
      {'d', "dir", "FOLDER", "write the files into FOLDER, which is made if missing",
       [this](std::string_view text) { folder = text; }},
      {'i', "input-file", "FILE", "read URLs from FILE, one per line; '-': standard input",
       [this](std::string_view text) { urlFile = text; }},
      {'p', "parallel", "N", "URLs that are downloaded at once, 1 to 64 (default 8)",
       [this](std::string_view text) {
         parallel = static_cast<std::uint32_t>(parseNumber(text, "--parallel", 1, 64));
       }},
      {0, "stdout", "", "write the bytes of one URL to standard output",
       [this](std::string_view) { toStdout = true; }},
      {'r', "range", "A-B", "only the bytes from A to B, counted from 0; 'A-': to\nthe end",
       [this](std::string_view text) { range = parseRange(text); }},
      {'f', "force", "", "replace an existing file", [this](std::string_view) { force = true; }},
      {0, "skip-existing", "", "pass over URLs whose file exists already",
       [this](std::string_view) { skipExisting = true; }},
      {0, "sha256", "HEX", "compare with this checksum before naming the file",
       [this](std::string_view text) {
         sha256 = text;
         std::transform(sha256.begin(), sha256.end(), sha256.begin(),
                        [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
         if (!isSha256Text(sha256)) throw UsageError("--sha256: 64 hex digits are needed");
       }},
      {'c', "continue", "", "go on with a partial file (default)",
       [this](std::string_view) { keepPartial = true; }},
      {0, "no-continue", "", "start afresh instead of resuming",
       [this](std::string_view) { keepPartial = false; }},
      {0, "chunk-size", "BYTES", "bytes per request, up to 50M (default 2M)",
       [this](std::string_view text) {
         chunkSize = parseBytes(text, "--chunk-size");
         if (chunkSize < 1 || chunkSize > kLargestChunk) {
           throw UsageError("--chunk-size: from 1 byte to 50M");
         }
       }},
      {0, "cache", "", "keep what is fetched in the cache of ranges; use it",
       [this](std::string_view) { rangeCache = true; }},
      {0, "no-cache", "", "leave that cache alone (default)",
       [this](std::string_view) { rangeCache = false; }},
  };
  return joined(std::move(rows), common.transferTable());
}

std::vector<std::string> GetOptions::urls(const std::vector<std::string>& operands) const {
  if (output == "-") throw UsageError("-o -: use --stdout");
  std::vector<std::string> all = operands;
  if (!urlFile.empty()) {
    const std::vector<std::string> listed = readUrlList(urlFile);
    all.insert(all.end(), listed.begin(), listed.end());
  } else if (operands.empty()) {
    throw UsageError("kovo get needs a URL");
  }
  for (const std::string& url : all) {
    rememberSecretsOfUrl(url);
    requireHttpUrl(url);
  }
  const auto refuse = [](const char* one, const char* other) {
    throw UsageError(std::string(one) + " and " + other + " do not go together");
  };
  if (all.size() > 1) {
    for (const auto& [used, name] :
         {std::pair(!output.empty(), "--output"), std::pair(!sha256.empty(), "--sha256"),
          std::pair(toStdout, "--stdout")}) {
      if (used) refuse(name, "several URLs");
    }
  }
  if (!output.empty() && !folder.empty()) refuse("--output", "--dir");
  if (toStdout) {
    for (const auto& [used, name] :
         {std::pair(!output.empty(), "--output"), std::pair(!folder.empty(), "--dir"),
          std::pair(remoteName, "--content-disposition"), std::pair(common.json, "--json"),
          std::pair(!sha256.empty(), "--sha256")}) {
      if (used) refuse("--stdout", name);
    }
  }
  if (force && skipExisting) refuse("--force", "--skip-existing");
  return all;
}

}  // namespace kovo::cli
