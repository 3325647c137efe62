// The resume database as anybody may have left it.
#include "cache/sqlite_resume_cache.h"
#include "fuzz/database_fuzz.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo::test {
namespace {

constexpr char kTag[] = "\"tag\"";
constexpr char kUrl[] = "http://host.test/file";
constexpr std::uint64_t kNewRow = 1'000'003;

struct Place {
  const TempDir directory{"kovo-fuzz-resume"};
  const TempDir files{"kovo-fuzz-files"};
  const std::string base = directory.path().string();
  const std::string database = directory.file("sqliteResumeTransfer.db");
  const std::string file = files.file("partial");
  std::string own;

  Place() {
    writeFile(file, "bytes");
    {
      SqliteResumeCache cache(base.c_str());
      cache.setDownloadGeometry(file, kUrl, 0, 100, 1000);
      for (std::uint64_t row = 0; row < 3; ++row) {
        cache.storeDownloadedChunkDetails(file, kTag, row * 100);
      }
      cache.setUploadTarget(file, kUrl);
      cache.insertResponse(file, "{\"answer\":1}", "md5==");
      cache.insertUploadedChunkEtag(file, 1, kTag);
      cache.insertUploadedChunkEtag(file, 2, kTag);
    }
    own = readFile(database);
  }
};

std::set<std::uint64_t> rowsOf(SqliteResumeCache& cache, const Place& place) {
  std::set<std::uint64_t> rows;
  cache.getFirstBytesDownlaodedChunks(place.file, kTag, rows);
  return rows;
}

void readEverything(SqliteResumeCache& cache, const Place& place, bool isForeign) {
  const auto rows = rowsOf(cache, place);
  const bool isPartial = cache.isFilePartiallyDownloaded(place.file);
  std::string response;
  std::string md5;
  std::int64_t uploaded = 0;
  std::vector<std::pair<std::int32_t, std::string>> tags;
  std::set<std::int32_t> parts;
  std::uint64_t start = 0;
  std::uint64_t size = 0;
  std::uint64_t total = 0;
  cache.getResponse(place.file, response);
  cache.getMd5Sum(place.file, md5);
  cache.getUploadedDate(place.file, uploaded);
  cache.getUploadedChunksEtags(place.file, tags);
  cache.getChunksUploaded(place.file, parts);
  const bool hasGeometry = cache.findDownloadGeometry(place.file, kUrl, start, size, total);
  const bool isTarget = cache.isUploadTarget(place.file, kUrl);
  if (isForeign) {
    require(rows.empty() && !isPartial && tags.empty() && parts.empty() && response.empty() &&
                md5.empty() && uploaded == 0 && !hasGeometry && !isTarget,
            "a foreign file claims nothing");
  }
}

}  // namespace

KOVO_FUZZ_TARGET(resume_database) {
  static const Place place;
  emptyDirectory(place.base);
  const bool isForeign = placeDatabase(input, place.database, place.own);
  {
    SqliteResumeCache cache(place.base.c_str());
    require(cache.isOpened() || !isForeign, "a foreign file is replaced");
    readEverything(cache, place, isForeign);
    cache.setDownloadGeometry(place.file, kUrl, 0, 7, 1000);
    cache.storeDownloadedChunkDetails(place.file, kTag, 7);
    cache.insertUploadedChunkEtag(place.file, 3, kTag);
    // The file is about to be emptied.
    cache.deleteFromCacheDownload(place.file);
    cache.deleteFromCacheUpload(place.file);
  }
  {
    SqliteResumeCache cache(place.base.c_str());
    require(rowsOf(cache, place).empty() && !cache.isFilePartiallyDownloaded(place.file),
            "no row outlives the bytes it speaks of");
    cache.storeDownloadedChunkDetails(place.file, kTag, kNewRow);
    const auto rows = rowsOf(cache, place);
    require(rows.empty() || rows == std::set<std::uint64_t>{kNewRow}, "only what was put in");
    require(!rows.empty() || !isForeign, "the cache that replaced a foreign file works");
  }
}

}  // namespace kovo::test
