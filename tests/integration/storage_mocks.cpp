#include "integration/storage_mocks.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <rapidjson/document.h>

namespace kovo::test {
namespace {

std::string base64(const unsigned char* bytes, size_t size) {
  std::string encoded((size + 2) / 3 * 4 + 1, '\0');
  encoded.resize(static_cast<size_t>(EVP_EncodeBlock(
      reinterpret_cast<unsigned char*>(encoded.data()), bytes, static_cast<int>(size))));
  return encoded;
}

std::string hexMd5(std::string_view data) {
  unsigned char digest[16];
  EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_md5(), nullptr);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (const unsigned char byte : digest) {
    hex += kHex[byte >> 4];
    hex += kHex[byte & 15];
  }
  return hex;
}

std::string parameter(const OriginRequest& request, const std::string& name) {
  const std::string query = "&" + request.query;
  const size_t found = query.find("&" + name + "=");
  if (found == std::string::npos) {
    return {};
  }
  const size_t start = found + name.size() + 2;
  return query.substr(start, query.find('&', start) - start);
}

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string errorDocument(const std::string& code) {
  return "<?xml version=\"1.0\"?>\n<Error><Code>" + code + "</Code></Error>";
}

}  // namespace

std::string md5Base64(std::string_view data) {
  unsigned char digest[16];
  EVP_Digest(data.data(), data.size(), digest, nullptr, EVP_md5(), nullptr);
  return base64(digest, sizeof digest);
}

std::string hmacSha1Base64(const std::string& key, const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest, &size);
  return base64(digest, size);
}

StorageMock::StorageMock(Intercept intercept, bool bodiesLater)
    : _intercept(std::move(intercept)),
      _bodiesLater(bodiesLater),
      _origin([this](const OriginRequest& request, Responder& to) { answer(request, to); },
              {.readsBodies = !bodiesLater}) {}

void StorageMock::setProvider(const std::string& provider) {
  const std::lock_guard guard(_mutex);
  _provider = provider;
}

void StorageMock::setPlanFilter(std::function<std::string(std::string)> filter) {
  const std::lock_guard guard(_mutex);
  _planFilter = std::move(filter);
}

std::optional<std::string> StorageMock::object(const std::string& path) const {
  const std::lock_guard guard(_mutex);
  const auto found = _objects.find(path);
  return found == _objects.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::string> StorageMock::uploadIds() const {
  const std::lock_guard guard(_mutex);
  return _uploadIds;
}

std::string StorageMock::document() const {
  const std::lock_guard guard(_mutex);
  return _document;
}

std::map<int, int> StorageMock::storedParts() const {
  const std::lock_guard guard(_mutex);
  return _storedParts;
}

std::vector<std::string> StorageMock::complaints() const {
  const std::lock_guard guard(_mutex);
  return _complaints;
}

void StorageMock::complain(const std::string& text) {
  _complaints.push_back(text);
}

void StorageMock::answer(const OriginRequest& request, Responder& to) {
  if (_intercept) {
    if (const auto refusal = _intercept(request, to)) {
      to.respond(refusal->status, refusal->headers, refusal->body);
      return;
    }
  }
  if (_bodiesLater) {
    OriginRequest whole = request;
    whole.body = to.readBody();
    answerWhole(whole, to);
  } else {
    answerWhole(request, to);
  }
}

void StorageMock::answerWhole(const OriginRequest& request, Responder& to) {
  if (startsWith(request.path, "/assets/") || startsWith(request.path, "/finalise/")) {
    answerSync(request, to);
  } else {
    answerS3(request, to);
  }
}

void StorageMock::answerS3(const OriginRequest& request, Responder& to) {
  if (request.verb == "POST" && request.query == "uploads") {
    std::unique_lock guard(_mutex);
    if (!request.body.empty()) {
      complain("an initiation with a body");
    }
    const std::string id = "upload-" + std::to_string(_uploadIds.size() + 1);
    _uploadIds.push_back(id);
    _uploads[id].path = request.path;
    guard.unlock();
    to.respond(200, {{"Content-Type", "application/xml"}},
               "<?xml version=\"1.0\"?>\n<InitiateMultipartUploadResult><UploadId>" + id +
                   "</UploadId></InitiateMultipartUploadResult>");
    return;
  }
  if (request.verb == "PUT" && !parameter(request, "partNumber").empty()) {
    storePart(request, to);
    return;
  }
  if (request.verb == "PUT" && parameter(request, "comp") == "block") {
    storeBlock(request, to);
    return;
  }
  if (request.verb == "POST" && !parameter(request, "uploadId").empty()) {
    std::unique_lock guard(_mutex);
    _document = request.body;
    const auto upload = _uploads.find(parameter(request, "uploadId"));
    if (upload == _uploads.end()) {
      guard.unlock();
      to.respond(404, {}, errorDocument("NoSuchUpload"));
      return;
    }
    // Exactly the listed parts, in the listed order.
    std::string expected = "<CompleteMultipartUpload>";
    std::string content;
    for (const auto& [number, part] : upload->second.parts) {
      if (request.body.find("<PartNumber>" + std::to_string(number) + "</PartNumber>") ==
          std::string::npos) {
        continue;
      }
      expected += "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><ETag>\"" +
                  hexMd5(part) + "\"</ETag></Part>";
      content += part;
    }
    expected += "</CompleteMultipartUpload>";
    const bool valid = request.body == expected;
    if (valid) {
      _objects[request.path] = std::move(content);
      _uploads.erase(upload);
    }
    guard.unlock();
    to.respond(valid ? 200 : 400, {},
               valid ? "<CompleteMultipartUploadResult/>" : errorDocument("InvalidPart"));
    return;
  }
  if (request.verb == "PUT" || request.verb == "POST") {
    const std::lock_guard guard(_mutex);
    _objects[request.path] = request.body;
  }
  to.respond(200, {{"ETag", "\"" + hexMd5(request.body) + "\""}}, "stored");
}

void StorageMock::storePart(const OriginRequest& request, Responder& to) {
  const std::string etag = "\"" + hexMd5(request.body) + "\"";
  bool known = false;
  {
    const std::lock_guard guard(_mutex);
    const auto upload = _uploads.find(parameter(request, "uploadId"));
    known = upload != _uploads.end();
    if (known) {
      const int number = std::stoi(parameter(request, "partNumber"));
      upload->second.parts[number] = request.body;
      ++_storedParts[number];
      if (startsWith(upload->second.path, "/assets/")) {
        checkSignature(request);
      }
    }
  }
  if (known) {
    to.respond(200, {{"ETag", etag}});
  } else {
    to.respond(404, {}, errorDocument("NoSuchUpload"));
  }
}

void StorageMock::storeBlock(const OriginRequest& request, Responder& to) {
  {
    const std::lock_guard guard(_mutex);
    if (!startsWith(request.query, kSasToken)) {
      complain("a block without its token: " + request.query);
    }
    Upload& upload = _uploads[_uploadIds.empty() ? std::string() : _uploadIds.back()];
    upload.blocks[parameter(request, "blockid")] = request.body;
    ++_storedParts[static_cast<int>(upload.blocks.size())];
  }
  to.respond(201, {{"x-ms-request-id", "request"}});
}

void StorageMock::checkSignature(const OriginRequest& request) {
  const std::string text = "PUT\n\n" + request.header("Content-Type").value_or("") + "\n" +
                           request.header("Date").value_or("") +
                           "\nx-amz-security-token:" + kSessionToken + "\n" + request.target;
  const std::string expected =
      std::string("AWS ") + kAccessKey + ":" + hmacSha1Base64(kSecretKey, text);
  if (request.header("Authorization") != expected) {
    complain("signature " + request.header("Authorization").value_or("missing") + ", expected " +
             expected + " for " + text);
  }
  if (request.header("x-amz-security-token") != kSessionToken) {
    complain("no security token");
  }
  if ("http://" + request.header("Host").value_or("") + "/" != _origin.url("/")) {
    complain("host " + request.header("Host").value_or("missing"));
  }
}

std::string StorageMock::plan(const std::string& path) {
  const std::string id = "upload-" + std::to_string(_uploadIds.size() + 1);
  _uploadIds.push_back(id);
  _uploads[id].path = path;
  const std::string links = R"({"cloudProvider":")" + _provider +
                            R"(","_links":{"multipart":{"href":")" + _origin.url("/bucket/key") +
                            R"("},"finalize":{"href":")" + _origin.url("/finalise/" + id) +
                            R"("}},)";
  std::string text = _provider == "azure"
                         ? links + R"("azure":{"token":")" + kSasToken +
                               R"(","bucketName":"bucket",)" + R"("objectId":"key"}})"
                         : links + R"("aws":{"assetARN":"arn:1","uploadId":")" + id +
                               R"(","authentication":{"accessKey":")" + kAccessKey +
                               R"(","secretKey":")" + kSecretKey + R"(","sessionToken":")" +
                               kSessionToken + R"("}}})";
  return _planFilter ? _planFilter(text) : text;
}

void StorageMock::answerSync(const OriginRequest& request, Responder& to) {
  std::unique_lock guard(_mutex);
  if (startsWith(request.path, "/assets/")) {
    if (!request.header("X-Content-Length")) {
      _objects[request.path] = request.body;
      guard.unlock();
      to.respond(201);
      return;
    }
    if (!request.body.empty() ||
        request.header("Accept") != "application/vnd.syncservice.v2.hal+json") {
      complain("an unusual request for a plan");
    }
    const std::string text = plan(request.path);
    guard.unlock();
    to.respond(202, {{"Content-Type", "application/vnd.syncservice.v2.hal+json"}}, text);
    return;
  }
  _document = request.body;
  const std::string id = request.path.substr(std::string("/finalise/").size());
  Upload& upload = _uploads[id];
  rapidjson::Document document;
  document.Parse(request.body.c_str(), request.body.size());
  std::string content;
  bool valid = !document.HasParseError();
  if (valid) {
    for (const auto& segment : document["segments"].GetArray()) {
      if (segment.HasMember("blockId")) {
        content += upload.blocks[segment["blockId"].GetString()];
      } else {
        const std::string& part = upload.parts[segment["segmentNumber"].GetInt()];
        content += part;
        valid = valid && segment["entityTag"].GetString() == hexMd5(part);
      }
    }
    // The service judges by what it has been told.
    valid = valid && document["contentLength"].GetUint64() == content.size() &&
            document["md5"].GetString() == md5Base64(content) &&
            request.header("Content-MD5") == md5Base64(content);
  }
  if (valid) {
    _objects[upload.path] = std::move(content);
  }
  guard.unlock();
  to.respond(valid ? 200 : 409, {}, valid ? "" : "segments do not match");
}

}  // namespace kovo::test
