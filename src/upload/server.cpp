#include "upload/server.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "cache/sqlite_resume_cache.h"
#include "log/kovo_log.h"
#include "platform/url.h"
#include "upload/amazon_server.h"
#include "upload/azure_server.h"
#include "upload/json_text.h"

namespace kovo {
namespace {

bool isWebLink(const std::string& link) {
  try {
    const UrlParts parts = splitUrl(link);
    return (parts.scheme == "https" || parts.scheme == "http") && !parts.host.empty();
  } catch (const std::invalid_argument&) {
    return false;
  }
}

}  // namespace

Server::~Server() = default;

std::unique_ptr<Server> Server::CreateServer(const std::string& name) {
  // The name comes from the network: its length in the log is bounded.
  KOVO_LOG(KOVO_LOG_INFO, "kovo::Server::CreateServer", "CreateServer called with server: %.256s",
           name.c_str());
  if (name == "azure") {
    return std::make_unique<AzureServer>();
  }
  if (name != "aws") {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::Server::CreateServer",
             "CreateServer is neither aws or azure. Falling back to AmazonServer");
  }
  return std::make_unique<AmazonServer>();
}

void Server::setUpload(bool resumeAllowed, SqliteResumeCache* resumeCache,
                       const std::string& filePath, const std::string& target) {
  _resumeAllowed = resumeAllowed;
  _resumeCache = resumeCache;
  _filePath = filePath;
  _target = target;
}

void Server::bindLinks(JSONSchema& schema) {
  JSONObject& links = schema.object("_links");
  links.object("multipart").string("href", &_multipartHref);
  links.object("finalize").string("href", &_finalizeHref);
}

bool Server::isUsable(std::initializer_list<const std::string*> values) const {
  const auto isPlain = [](const std::string& value) {
    return std::none_of(value.begin(), value.end(), [](unsigned char character) {
      return character < 0x20 || character == 0x7F;
    });
  };
  return isPlain(_multipartHref) && isPlain(_finalizeHref) && isWebLink(_multipartHref) &&
         isWebLink(_finalizeHref) &&
         std::all_of(values.begin(), values.end(),
                     [&isPlain](const std::string* value) { return isPlain(*value); });
}

bool Server::ownsRecordedSegments() const {
  if (!_resumeAllowed || _resumeCache == nullptr) {
    return false;
  }
  return _target.empty() || _resumeCache->isUploadTarget(_filePath, _target);
}

Server::Segments Server::readRecordedSegments() const {
  Segments segments;
  if (ownsRecordedSegments()) {
    std::vector<std::pair<std::int32_t, std::string>> rows;
    _resumeCache->getUploadedChunksEtags(_filePath, rows);
    for (auto& [number, identifier] : rows) {
      segments[number] = std::move(identifier);  // a part sent twice: its later row
    }
  }
  return segments;
}

void Server::loadRecordedSegments() {
  Segments recorded = readRecordedSegments();
  ScopedLock guard(_segmentsLock);
  _segments.merge(recorded);
}

void Server::recordSegment(std::int32_t number, const std::string& identifier) {
  {
    ScopedLock guard(_segmentsLock);
    if (!_segments.emplace(number, identifier).second) {
      return;
    }
  }
  if (ownsRecordedSegments()) {
    _resumeCache->insertUploadedChunkEtag(_filePath, number, identifier);
  }
}

void Server::forgetSegment(std::int32_t number) {
  ScopedLock guard(_segmentsLock);
  _segments.erase(number);
}

Server::Segments Server::collectSegments() {
  Segments recorded = readRecordedSegments();
  ScopedLock guard(_segmentsLock);
  Segments segments = _segments;
  segments.merge(recorded);  // keeps what this run knows where both have a part
  return segments;
}

std::string Server::finalisationTail(const std::string& contentType,
                                     std::uint64_t contentLength) const {
  const std::string type = contentType.empty() ? "application/octet-stream" : contentType;
  return "\"md5\":\"" + escapeJson(_md5Sum) + "\",\"type\":\"" + escapeJson(type) +
         "\",\"contentLength\":" + std::to_string(contentLength) + "}";
}

}  // namespace kovo
