// S3's answers to an initiate request, to a part and to a completion.
#include <vector>

#include "fuzz/fuzz_target.h"
#include "fuzz/uploads.h"
#include "http/query_url.h"
#include "platform/url.h"
#include "upload/amazon_s3_source_factory.h"

using kovo::AmazonS3SourceFactory;
using kovo::test::contains;
using kovo::test::require;

namespace {

constexpr std::uint32_t kParts = 3;
constexpr char kUrl[] = "https://bucket.s3.test:9000/key?versionId=1";

// The texts of all elements of a name, in a document without attributes; false when its tags do
// not match.
bool readElements(const std::string& document, const std::string& name,
                  std::vector<std::string>& texts) {
  std::vector<std::string> open;
  std::size_t at = 0;
  while (at < document.size()) {
    const std::size_t tag = document.find('<', at);
    const std::string text = document.substr(at, tag - at);
    if (contains(text, ">")) {
      return false;
    }
    if (tag == std::string::npos) {
      break;
    }
    const std::size_t end = document.find('>', tag);
    if (end == std::string::npos) {
      return false;
    }
    const std::string inner = document.substr(tag + 1, end - tag - 1);
    if (inner[0] != '/') {
      open.push_back(inner);
    } else if (open.empty() || inner != "/" + open.back()) {
      return false;
    } else {
      if (open.back() == name) {
        texts.push_back(text);
      }
      open.pop_back();
    }
    at = end + 1;
  }
  return open.empty();
}

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
    const auto parts = kovo::splitUrl(factory.getChunkUrl(kUrl, part, part + 1 == kParts));
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
  const std::string document = kovo::test::contentsOf(*source);
  std::vector<std::string> numbers;
  std::vector<std::string> tags;
  require(readElements(document, "PartNumber", numbers) && readElements(document, "ETag", tags),
          "no entity tag breaks the document open");
  require(numbers == std::vector<std::string>{"1", "2", "3"} && tags.size() == kParts,
          "every part is listed once");
}
