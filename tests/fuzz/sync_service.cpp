// The sync service's answer and the storage provider's headers.
#include <rapidjson/document.h>

#include <algorithm>
#include <stdexcept>
#include <string_view>

#include "fuzz/fuzz_target.h"
#include "fuzz/uploads.h"
#include "platform/url.h"
#include "upload/json_text.h"
#include "upload/secret_redaction.h"
#include "upload/sync_service_source_factory.h"

namespace kovo::test {
namespace {

constexpr std::uint32_t kParts = 3;
constexpr std::size_t kPlantedSecrets = 4;

// A whole answer out of lines, so that few inputs fail before they are of interest.
std::string makeAnswer(FuzzInput& input, std::string& partLink) {
  const auto text = [](const std::string& value) { return "\"" + escapeJson(value) + "\""; };
  const std::string provider = input.line();
  partLink = input.line();
  partLink.resize(std::min(partLink.find('\0'), partLink.size()));
  std::string answer = "{\"cloudProvider\":" + text(provider) +
                       ",\"_links\":{\"multipart\":" + "{\"href\":" + text(partLink) +
                       "},\"finalize\":{\"href\":" + text(input.line()) + "}},";
  const std::string token = input.line();
  const std::string identifier = input.line();
  const std::string place = input.line();
  answer += "\"azure\":{\"token\":" + text(token + "sig=" + kSecret) +
            ",\"bucketName\":" + text(place) + ",\"objectId\":" + text(identifier) + "},";
  answer += "\"aws\":{\"assetARN\":" + text(place) + ",\"uploadId\":" + text(identifier) +
            ",\"authentication\":{\"accessKey\":" + text(token + kSecret) +
            ",\"secretKey\":" + text(kSecret) + ",\"sessionToken\":" + text(token + kSecret) +
            "}}}";
  return answer;
}

void checkPart(SyncServiceSourceFactory& factory, std::uint32_t part, const std::string& partLink) {
  const std::string url = factory.getChunkUrl("http://unused.test/", part, part + 1 == kParts);
  UrlParts parts;
  try {
    parts = splitUrl(url);
  } catch (const std::invalid_argument&) {
    require(false, "a part's URL is one");
  }
  require(parts.scheme == "http" || parts.scheme == "https", "parts go over HTTP");
  require(contains(parts.query, "partNumber=" + std::to_string(part + 1) + "&uploadId=") ||
              contains(parts.query, "&comp=block&blockid="),
          "a part says which one it is");
  if (!partLink.empty()) {
    const UrlParts link = splitUrl(partLink);
    require(parts.host == link.host && parts.port == link.port && parts.path == link.path,
            "parts go where the service says");
  }
  HeaderList headers;
  factory.addRequestHeaders(KOVO_CHUNK_TYPE_CHUNK, "text/plain", url, part, headers);
  for (const auto& header : headers) {
    require(!holdsLineBreak(header), "no header is broken open");
  }
}

void checkDocument(SyncServiceSourceFactory& factory, const std::string& entityTag) {
  const auto source = factory.createFinalisationSource("file", "text/plain", 10'000'000);
  const std::string text = contentsOf(*source);
  rapidjson::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  if (document.HasParseError()) {
    // An entity tag goes through as the provider sent it; half a character in it is its own fault.
    require(contains(entityTag, "\\ud") || contains(entityTag, "\\uD"), "the report is JSON");
    return;
  }
  require(document.MemberCount() == 5 && document["contentLength"].GetUint64() == 10'000'000,
          "nothing but the expected members is reported");
  require(std::string(document["md5"].GetString()) == "md5==", "the file's checksum is reported");
  require(document["segments"].Size() == kParts, "every part is reported once");
}

}  // namespace

// "f" and the fields of an answer line by line, or any other letter, a line and a raw answer. The
// entity tag of the parts comes first.
KOVO_FUZZ_TARGET(sync_service) {
  const bool isOfFields = input.byte() == 'f';
  const std::string entityTag = input.line();
  std::string partLink;
  const std::string answer = isOfFields ? makeAnswer(input, partLink) : input.rest();
  // Words of the input itself are no secrets.
  std::size_t planted = 0;
  for (std::size_t at = answer.find(kSecret); at != std::string::npos;
       at = answer.find(kSecret, at + 1)) {
    ++planted;
  }
  const bool isPlantedAgain = planted != kPlantedSecrets || contains(entityTag, kSecret);

  SyncServiceSourceFactory factory(nullptr, "file", false, 0);
  factory.createInitialisationSource(std::make_unique<SizedSource>(10'000'000));
  bool finishNow = false;
  const bool understood = factory.processInitialisationResponse(202, answer, finishNow);
  require(understood != finishNow, "an answer is understood, or the upload ends");
  if (understood) {
    for (std::uint32_t part = 0; part < kParts; ++part) {
      checkPart(factory, part, partLink);
      factory.processChunkResponseHeader(part, {"ETag", entityTag});
      factory.processChunkResponseHeader(part, {"x-ms-request-id", "id"});
    }
    splitUrl(factory.getFinalisationUrl("http://unused.test/"));
    checkDocument(factory, entityTag);
  }
  if (isOfFields && !isPlantedAgain) {
    // Texts that imitate other documents may hide where a value ends; "sig=" is our own.
    const auto imitators = std::count_if(answer.begin(), answer.end(), [](char c) {
      return std::string_view("<>\\'=").find(c) != std::string_view::npos;
    });
    require(imitators > 1 || !contains(redactSecrets(answer), kSecret), "no key in an error text");
    require(!contains(logged(), kSecret), "no key in a log line");
  }
}

}  // namespace kovo::test
