// S3's answers to an initiate request, to a part and to a completion.
#include <algorithm>

#include "fuzz/fuzz_target.h"
#include "fuzz/uploads.h"
#include "http/query_url.h"
#include "platform/url.h"
#include "upload/amazon_s3_source_factory.h"

namespace kovo::test {
namespace {

constexpr std::uint32_t kParts = 3;
constexpr char kUrl[] = "https://bucket.s3.test:9000/key?versionId=1";

}  // namespace

// The status, the entity tag of every part, and the answer.
KOVO_FUZZ_TARGET(s3_upload) {
  const auto status = static_cast<std::uint32_t>(input.number() % 1000);
  const std::string entityTag = input.line();
  const std::string answer = input.rest();

  AmazonS3SourceFactory factory;
  bool finishNow = false;
  const bool understood = factory.processInitialisationResponse(status, answer, finishNow);
  require(understood != finishNow, "an answer is understood, or the upload ends");
  require(!understood || (status < 400 && contains(answer, "<UploadId>")),
          "only an answer with an identifier is understood");
  require(factory.acceptsFinalisation(answer) || contains(answer, "<Error"),
          "only an error document refuses a completion");
  if (!understood) {
    return;
  }
  for (std::uint32_t part = 0; part < kParts; ++part) {
    require(!factory.holdsAllParts(part + 1), "a part is not held before it is sent");
    const auto parts = splitUrl(factory.getChunkUrl(kUrl, part, part + 1 == kParts));
    require(parts.host == "bucket.s3.test" && parts.port == 9000 && parts.path == "/key",
            "a part goes where the client said");
    require(parts.query.find("?versionId=1&partNumber=" + std::to_string(part + 1) +
                             "&uploadId=") == 0 &&
                parts.query.find('&', parts.query.find("uploadId=")) == std::string::npos,
            "an identifier adds no parameter");
    factory.processChunkResponseHeader(part, {"ETag", entityTag});
  }
  require(factory.holdsAllParts(kParts), "all parts are held");
  const auto source = factory.createFinalisationSource("file", "", 1);
  const std::string document = contentsOf(*source);
  // An element for all, three for each part, and nothing that an entity tag adds.
  const std::ptrdiff_t tags = 2 + 6 * kParts;
  require(std::count(document.begin(), document.end(), '<') == tags &&
              std::count(document.begin(), document.end(), '>') == tags,
          "no entity tag breaks the document open");
  std::size_t at = 0;
  for (std::uint32_t part = 1; part <= kParts; ++part) {
    at = document.find("<Part><PartNumber>" + std::to_string(part) + "</PartNumber><ETag>", at);
    require(at != std::string::npos, "every part is listed once");
  }
}

}  // namespace kovo::test
