#pragma once

#include <kovo/kovo.h>

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>

#include "core/header_list.h"
#include "core/lock.h"
#include "upload/json_schema.h"

namespace kovo {

class SqliteResumeCache;

// One storage provider behind the sync service: where its parts go, what authorises them, how a
// stored part is recognised, and how the whole is reported back to the service. Made from the
// service's answer, which is untrusted; links and credentials are written once, before any part
// exists, and part requests reach the rest from several workers at once.
class Server : boost::noncopyable {
 public:
  // "aws" or "azure"; anything else counts as "aws".
  static std::unique_ptr<Server> CreateServer(const std::string& name);
  virtual ~Server();

  virtual std::string getChunkUrl(const std::string& url, std::uint32_t partIndex, bool isLast) = 0;
  virtual void addChunkHeaders(kovo_chunk_type kind, const std::string& url,
                               std::uint32_t chunkNumber, const std::string& contentType,
                               HeaderList& headers) = 0;
  // Reads the service's answer; false when it does not name everything an upload needs.
  virtual bool processResponse(const std::string& answer) = 0;
  virtual std::string createFinalisationBody(const std::string& contentType,
                                             std::uint64_t contentLength) = 0;
  virtual void processChunkResponseHeader(std::uint32_t partIndex, const Header& header) = 0;

  // What the factory knows of the upload; given once, right after creation. target names the upload
  // whose parts the cache may hold: another upload of the same file keeps its parts under the same
  // path. Empty: whatever the cache holds is this upload's.
  void setUpload(bool resumeAllowed, SqliteResumeCache* resumeCache, const std::string& filePath,
                 const std::string& target);
  void setFileChecksum(const std::string& md5) { _md5Sum = md5; }
  // Learns the parts that an earlier run has recorded, so that the finalisation lists them even if
  // their rows are deleted meanwhile.
  void loadRecordedSegments();
  const std::string& getFinalizeHref() const { return _finalizeHref; }

 protected:
  // Segment number (chunk number plus 1) to entity tag or block identifier.
  using Segments = std::map<std::int32_t, std::string>;

  Server() = default;

  // Adds the bindings of the links, which every provider's answer holds.
  void bindLinks(JSONSchema& schema);
  // Whether the links can be requested and no value could break out of a header or a URL.
  bool isUsable(std::initializer_list<const std::string*> values) const;

  // The part is stored; the first identifier of a part counts.
  void recordSegment(std::int32_t number, const std::string& identifier);
  // The part is about to be sent (again): what was known of it no longer counts.
  void forgetSegment(std::int32_t number);
  // What this run knows and what the cache holds, by number.
  Segments collectSegments();
  // The end of the finalisation document, the same for every provider.
  std::string finalisationTail(const std::string& contentType, std::uint64_t contentLength) const;

  std::string _md5Sum;
  std::string _finalizeHref;
  std::string _multipartHref;

  RecursiveLock _segmentsLock;

 private:
  bool ownsRecordedSegments() const;
  Segments readRecordedSegments() const;

  bool _resumeAllowed = false;
  SqliteResumeCache* _resumeCache = nullptr;
  std::string _filePath;
  std::string _target;
  Segments _segments KOVO_GUARDED_BY(_segmentsLock);
};

}  // namespace kovo
