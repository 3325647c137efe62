#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "support/fault_origin.h"

namespace kovo::test {

/** Standard Base64 of the MD5 of data. */
std::string md5Base64(std::string_view data);
std::string hmacSha1Base64(const std::string& key, const std::string& text);

/** One answer a test puts in the place of the usual one. */
struct Refusal {
  int status = 0;
  Headers headers;
  std::string body;
};

/**
 * The storage side of uploads, on a scripted origin: S3's multipart protocol under /bucket/, the
 * sync service under /assets/ with its plan for AWS or Azure. Every request passes `intercept`
 * first, which may answer in the mock's place.
 */
class StorageMock {
 public:
  /** Asked with the lock free, on the connection's thread; an answer is sent as it is. */
  using Intercept = std::function<std::optional<Refusal>(const OriginRequest&, Responder&)>;

  /** With bodiesLater, intercept sees a request before its body has been read. */
  explicit StorageMock(Intercept intercept = {}, bool bodiesLater = false);

  std::string url(std::string_view path) const { return _origin.url(path); }
  FaultOrigin& origin() { return _origin; }

  /** The provider of the sync service's plans: "aws" or "azure". */
  void setProvider(const std::string& provider);
  /** Changes a plan before it is sent. */
  void setPlanFilter(std::function<std::string(std::string)> filter);

  /** The object an upload left behind; absent while there is none. */
  std::optional<std::string> object(const std::string& path) const;
  /** Upload identifiers given out so far. */
  std::vector<std::string> uploadIds() const;
  /** The last completion or finalisation document. */
  std::string document() const;
  /** How often part numbers were stored, over all uploads. */
  std::map<int, int> storedParts() const;
  /** What was wrong with the requests; empty when nothing was. */
  std::vector<std::string> complaints() const;

  static constexpr char kAccessKey[] = "AKTEST";
  static constexpr char kSecretKey[] = "secret/KEY+";
  static constexpr char kSessionToken[] = "session-token==";
  static constexpr char kSasToken[] = "sv=2024&sig=SECRETSIG%3D";

 private:
  struct Upload {
    std::string path;
    std::map<int, std::string> parts;
    std::map<std::string, std::string> blocks;
  };

  void answer(const OriginRequest& request, Responder& to);
  void answerWhole(const OriginRequest& request, Responder& to);
  void answerS3(const OriginRequest& request, Responder& to);
  void answerSync(const OriginRequest& request, Responder& to);
  void storePart(const OriginRequest& request, Responder& to);
  void storeBlock(const OriginRequest& request, Responder& to);
  void checkSignature(const OriginRequest& request);
  void complain(const std::string& text);
  std::string plan(const std::string& path);

  const Intercept _intercept;
  const bool _bodiesLater;
  mutable std::mutex _mutex;
  std::string _provider = "aws";
  std::function<std::string(std::string)> _planFilter;
  std::map<std::string, Upload> _uploads; /* by upload identifier */
  std::vector<std::string> _uploadIds;
  std::map<std::string, std::string> _objects;
  std::map<int, int> _storedParts;
  std::string _document;
  std::vector<std::string> _complaints;
  FaultOrigin _origin;
};

}  // namespace kovo::test
