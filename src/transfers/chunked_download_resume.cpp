// What a download to a partial file records, what of it a later one may trust, and when it goes.

#include <algorithm>

#include "cache/sqlite_resume_cache.h"
#include "core/kovo_settings.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"
#include "platform/platform_file_stream.h"
#include "transfers/chunked_download.h"

namespace kovo {
namespace {

// Only paths with this suffix take part in resume: it names a partial download.
constexpr char kPartialSuffix[] = "._kstmp";

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

// --- Taking part --------------------------------------------------------------------------------

bool ChunkedDownload::isResumabilityAllowed() const {
  const bool wanted = _engine.getSettings().tryResumableTransfer;
  const bool chunkingEnabled = isChunkingEnabled(true);
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::isResumabilityAllowed",
           "tryResumableTransfer : %d", wanted ? 1 : 0);
  KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::isResumabilityAllowed", "chunkingEnabled : %d",
           chunkingEnabled ? 1 : 0);
  return wanted && chunkingEnabled && _engine.getResumeCache() != nullptr;
}

bool ChunkedDownload::takesPartInResume() const {
  return endsWith(getFilePath(), kPartialSuffix);
}

// --- What an earlier run recorded ---------------------------------------------------------------

std::string ChunkedDownload::getResourceName() const {
  // Without the query: signed links change it from one day to the next, and the entity tag and the
  // size still have to agree.
  const std::string url = getUrl();
  return url.substr(0, url.find_first_of("?#"));
}

void ChunkedDownload::readGeometry() {
  std::uint64_t rangeStart = 0;
  std::uint64_t chunkSize = 0;
  std::uint64_t total = 0;
  if (getResumeCache()->findDownloadGeometry(getFilePath(), getResourceName(), rangeStart,
                                             chunkSize, total) &&
      chunkSize != 0) {
    // The rest is cut as the recorded part was, whatever the setting says today.
    _recordedChunkSize = chunkSize;
    _geometryRecorded = true;
  }
}

void ChunkedDownload::loadRecordedChunks(const std::string& entityTag) {
  const std::string path = getFilePath();
  std::set<std::uint64_t> recorded;
  const bool weak =
      entityTag.size() >= 2 && (entityTag[0] == 'W' || entityTag[0] == 'w') && entityTag[1] == '/';
  // A weak tag does not promise equal bytes.
  if (!weak && !getResumeCache()->getFirstBytesDownlaodedChunks(path, entityTag, recorded)) {
    return;
  }
  _firstBytesLoaded = true;
  KOVO_LOG(KOVO_LOG_WARN, "kovo::ChunkedDownload::processResponseHeader",
           "%ld chunks that are already downloaded for filepath %s, etag %s",
           static_cast<long>(recorded.size()), path.c_str(), entityTag.c_str());
  if (recorded.empty()) {
    KOVO_LOG(KOVO_LOG_INFO, "kovo::ChunkedDownload::processResponseHeader",
             "File modified for filepath: %s", path.c_str());
    recreateOutputFile();
    _resuming = false;
  }
  _chunksDownloadedFirstByte = std::move(recorded);
}

bool ChunkedDownload::recordedChunksAreUsable() {
  std::uint64_t rangeStart = 0;
  std::uint64_t chunkSize = 0;
  std::uint64_t total = 0;
  // Without a note of how they were cut, or with that of another resource, rows prove nothing.
  if (!getResumeCache()->findDownloadGeometry(getFilePath(), getResourceName(), rangeStart,
                                              chunkSize, total) ||
      rangeStart != 0 || total != _totalSize) {
    return false;
  }
  const std::uint64_t size = effectiveChunkSize();
  std::uint64_t fileSize = 0;
  std::int64_t modified = 0;
  std::shared_ptr<KovoError> error;
  if (!getFileStat(getFilePath(), fileSize, modified, error)) {
    return false;
  }
  return std::all_of(_chunksDownloadedFirstByte.begin(), _chunksDownloadedFirstByte.end(),
                     [&](std::uint64_t firstByte) {
                       return firstByte % size == 0 && firstByte < _totalSize &&
                              std::min<std::uint64_t>(firstByte + size, _totalSize) <= fileSize;
                     });
}

// --- What this run records ----------------------------------------------------------------------

void ChunkedDownload::recordChunk(std::uint64_t rangeStart, std::uint64_t rangeEnd) {
  if (!takesPartInResume() || !_totalKnown || !isResumabilityAllowed()) {
    return;
  }
  const std::string entityTag = getEntityTag();
  if (entityTag.empty()) {
    return;
  }
  const std::uint64_t size = effectiveChunkSize();
  const std::uint64_t chunkStart = rangeStart / size * size;
  if (rangeEnd < std::min<std::uint64_t>(chunkStart + size, _totalSize)) {
    return;  // the rest of this chunk is still to come
  }
  SqliteResumeCache& cache = *getResumeCache();
  if (!_geometryRecorded.exchange(true)) {
    cache.setDownloadGeometry(getFilePath(), getResourceName(), 0, size, _totalSize);
  }
  cache.storeDownloadedChunkDetails(getFilePath(), entityTag, chunkStart);
}

void ChunkedDownload::forgetRecordedChunks() {
  SqliteResumeCache* cache = getResumeCache();
  if (cache != nullptr && takesPartInResume()) {
    cache->deleteFromCacheDownload(getFilePath());  // those of another resource too
  }
  _chunksDownloadedFirstByte.clear();
  _recordedChunkSize = 0;
  _geometryRecorded = false;
}

bool ChunkedDownload::keepsPartialFile(Outcome outcome) const {
  return (outcome == Outcome::Cancelled || wasAbandoned()) && takesPartInResume() &&
         isResumabilityAllowed();
}

void ChunkedDownload::deleteRows(Outcome outcome) {
  SqliteResumeCache* cache = getResumeCache();
  if (cache == nullptr && outcome != Outcome::Completed) {
    return;
  }
  const std::string path = getFilePath();
  const char* function = "kovo::ChunkedDownload::~ChunkedDownload";
  KOVO_LOG(KOVO_LOG_WARN, function, "Delete the sqliteResumeTransfer cache for file : %s",
           path.c_str());
  if (cache == nullptr) {
    KOVO_LOG(KOVO_LOG_INFO, function, "File %s completely downloaded", path.c_str());
    return;
  }
  KOVO_LOG(KOVO_LOG_WARN, function, "wasCancelled : %d", isCancelled() ? 1 : 0);
  KOVO_LOG(KOVO_LOG_WARN, function, "wasCancelledDueToError : %d", isCancelledDueToError() ? 1 : 0);
  KOVO_LOG(KOVO_LOG_WARN, function, "isResumabilityAllowed : %d", isResumabilityAllowed() ? 1 : 0);
  if (takesPartInResume()) {  // no other path ever has rows
    cache->deleteFromCacheDownload(path);
  }
}

void ChunkedDownload::syncPartialFile() {
  const std::string path = getFilePath();
  PlatformFileOStream stream;
  if (!_geometryRecorded || !stream.open(path, PlatformFileOStream::OpenExisting)) {
    return;
  }
  // The host may resume, or start the download anew, at any time: chunks that come meanwhile are
  // not covered.
  SqliteResumeCache& cache = *getResumeCache();
  cache.beginDownloadSync(path);
  if (stream.Flush()) {
    cache.markDownloadSynced(path);
  }
}

}  // namespace kovo
