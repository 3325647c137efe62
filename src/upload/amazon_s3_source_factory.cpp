#include "upload/amazon_s3_source_factory.h"

#include <algorithm>
#include <utility>

#include "body/null_source.h"
#include "body/string_stream_sink.h"
#include "http/kovo_http_utils.h"
#include "http/query_url.h"
#include "log/kovo_log.h"
#include "upload/amazon_s3_source.h"

namespace kovo {
namespace {

// The smallest part that S3 accepts (the last one excepted), and the most parts it takes.
constexpr std::uint64_t kSmallestPart = 5242880;
constexpr std::uint64_t kMostParts = 10000;

// The text between the first opening and the last closing tag, at least one character long. Not a
// regular expression: std::regex recurses once per character, and the body is the server's.
bool findUploadId(const std::string& body, std::string& uploadId) {
  static const std::string kOpening = "<UploadId>";
  static const std::string kClosing = "</UploadId>";
  const std::size_t opening = body.find(kOpening);
  const std::size_t closing = body.rfind(kClosing);
  if (opening == std::string::npos || closing == std::string::npos) {
    return false;
  }
  const std::size_t start = opening + kOpening.size();
  if (closing <= start) {
    return false;
  }
  uploadId = body.substr(start, closing - start);
  return true;
}

// An entity tag as element text. Its quotes stay, as S3 takes them.
std::string escapeXmlText(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (const char character : text) {
    switch (character) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += character;
        break;
    }
  }
  return result;
}

}  // namespace

std::unique_ptr<DataSource> AmazonS3SourceFactory::createChunkSource(
    const std::string& filePath, std::unique_ptr<DataSource> part) {
  return std::make_unique<AmazonS3Source>(std::move(part), filePath);
}

std::unique_ptr<DataSource> AmazonS3SourceFactory::createInitialisationSource(
    std::unique_ptr<DataSource>) {
  return std::make_unique<NullSource>();
}

std::unique_ptr<DataSource> AmazonS3SourceFactory::createFinalisationSource(
    const std::string& filePath, const std::string&, std::uint64_t) {
  std::string document = "<CompleteMultipartUpload>";
  {
    ScopedLock guard(_partsLock);
    for (const auto& [number, entityTag] : _parts) {
      document += "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><ETag>" +
                  escapeXmlText(entityTag) + "</ETag></Part>";
    }
  }
  document += "</CompleteMultipartUpload>";
  return std::make_unique<AmazonS3Source>(std::make_unique<NullSource>(), filePath,
                                          std::move(document));
}

std::unique_ptr<DataSink> AmazonS3SourceFactory::createResponseSink(
    std::shared_ptr<ClientCallbackHandler>) {
  return std::make_unique<StringStreamSink>();
}

std::string AmazonS3SourceFactory::getInitialisationUrl(const std::string& url) const {
  return appendQuery(url, "uploads");
}

std::string AmazonS3SourceFactory::getFinalisationUrl(const std::string& url) const {
  return appendQuery(url, "uploadId=" + encodeQueryValue(_uploadId));
}

std::string AmazonS3SourceFactory::getChunkUrl(const std::string& url, std::uint32_t partIndex,
                                               bool isLast) {
  if (partIndex == kNoPart && isLast) {
    return url;
  }
  const std::uint32_t number = partIndex + 1;
  {
    // A part that is sent again replaces the stored one, and with some encryption modes its entity
    // tag differs from the earlier one.
    ScopedLock guard(_partsLock);
    _parts.erase(number);
  }
  return appendQuery(
      url, "partNumber=" + std::to_string(number) + "&uploadId=" + encodeQueryValue(_uploadId));
}

void AmazonS3SourceFactory::processChunkResponseHeader(std::uint32_t partIndex,
                                                       const Header& header) {
  if (partIndex == kNoPart || !KovoHttpUtils::equalsIgnoreCase(header.first, http::kEntityTag)) {
    return;
  }
  ScopedLock guard(_partsLock);
  _parts.emplace(partIndex + 1, header.second);
}

std::uint64_t AmazonS3SourceFactory::adjustChunkSize(std::uint64_t totalLength,
                                                     std::uint64_t configuredSize) const {
  const std::uint64_t chunk = std::max(configuredSize, kSmallestPart);
  const std::uint64_t parts = (totalLength - 1 + chunk) / chunk;
  return parts <= kMostParts ? chunk : (parts * chunk + kMostParts - 1) / kMostParts;
}

bool AmazonS3SourceFactory::processInitialisationResponse(std::uint32_t status,
                                                          const std::string& body,
                                                          bool& finishNow) {
  _uploadId.clear();
  const bool understood = status < 400 && findUploadId(body, _uploadId);
  if (!understood) {
    KOVO_LOG(KOVO_LOG_ERROR, "AmazonS3SourceFactory::processResponse",
             "MimeSourceFactory Failed to parse chunking support response from S3.");
  }
  finishNow = !understood;
  return understood;
}

bool AmazonS3SourceFactory::holdsAllParts(std::uint32_t partCount) {
  ScopedLock guard(_partsLock);
  return _parts.size() >= partCount;
}

bool AmazonS3SourceFactory::acceptsFinalisation(const std::string& body) const {
  for (std::size_t found = body.find("<Error"); found != std::string::npos;
       found = body.find("<Error", found + 1)) {
    const std::size_t end = found + 6;
    if (end < body.size() && std::string("> /\t\r\n").find(body[end]) != std::string::npos) {
      return false;
    }
  }
  return true;
}

}  // namespace kovo
