#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "integration/node_server.h"
#include "support/engine_fixture.h"
#include "support/fault_origin.h"

namespace kovo::test {
namespace {

constexpr uint64_t kMiB = 1024 * 1024;
const Resource kContent(41, 23 * kMiB + 7);

/* Uploads to real servers, up to reading the object back. */
class StorageServers : public testing::Test {
 protected:
  void SetUp() override {
    if (!NodeServer::isInstalled()) {
      GTEST_SKIP() << "run npm ci in tests/support/node";
    }
    kContent.writeTo(_path);
  }

  /* Answers with the status and the body. */
  static std::pair<uint32_t, std::string> ask(TestEngine& engine, kovo_http_verb verb,
                                              const std::string& url, const std::string& body = {},
                                              Fields headers = {}) {
    TransferHooks hooks;
    hooks.requestBody = body;
    hooks.requestHeaders = std::move(headers);
    TransferRecord& record = engine.sendRequest(verb, url, std::move(hooks));
    engine.wait(record);
    return {record.events().status, record.events().wholeBody()};
  }
  TransferEvents upload(const std::string& url, kovo_server_type type) {
    TransferHooks hooks;
    hooks.serverType = type;
    TransferRecord& record =
        _engine.upload(KOVO_HTTP_PUT, url, _path, std::move(hooks), KOVO_CHUNKING_ALWAYS);
    EXPECT_TRUE(_engine.wait(record, std::chrono::milliseconds(60000)));
    return record.events();
  }
  void expectObject(const std::string& url) {
    const std::string copy = _folder.file("copy");
    TransferRecord& record = _engine.download(url, copy);
    ASSERT_TRUE(_engine.wait(record));
    EXPECT_EQ(record.events().completions, 1u) << record.events().errorText;
    EXPECT_EQ(kContent.differenceTo(copy), "");
  }

  const TempDir _folder;
  const std::string _path = _folder.file("content");
  TestEngine _engine;
  TestEngine _service; /* what the sync service itself asks of its storage */
};

std::vector<std::string> s3rverArguments(uint16_t port, const std::string& folder) {
  return {"--address",          "127.0.0.1", "--port",   std::to_string(port),
          "--directory",        folder,      "--silent", "--no-vhost-buckets",
          "--configure-bucket", "bucket"};
}

TEST_F(StorageServers, S3MultipartEndsInTheWholeObject) {
  const NodeServer server("s3rver/bin/s3rver.js", s3rverArguments);
  const TransferEvents events = upload(server.url("/bucket/key"), KOVO_SERVER_TYPE_S3);
  EXPECT_EQ(events.completions, 1u) << events.errorText;
  expectObject(server.url("/bucket/key"));
}

/* The development account that the server documents, and an account token made with its key. */
constexpr char kAccount[] = "devstoreaccount1";
constexpr char kAccountKey[] =
    "Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw==";

std::string sasToken() {
  unsigned char key[96];
  const int keySize = EVP_DecodeBlock(key, reinterpret_cast<const unsigned char*>(kAccountKey),
                                      static_cast<int>(sizeof kAccountKey - 1)) -
                      2;
  const std::string expiry = "2099-01-01T00:00:00Z";
  const std::string text =
      std::string(kAccount) + "\nrwdlac\nb\nsco\n\n" + expiry + "\n\nhttps,http\n2018-11-09\n";
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  HMAC(EVP_sha256(), key, keySize, reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       digest, &size);
  unsigned char encoded[64];
  EVP_EncodeBlock(encoded, digest, static_cast<int>(size));
  std::string signature;
  for (const unsigned char* byte = encoded; *byte != '\0'; ++byte) {
    signature += *byte == '+'   ? "%2B"
                 : *byte == '/' ? "%2F"
                 : *byte == '=' ? "%3D"
                                : std::string(1, static_cast<char>(*byte));
  }
  return "sv=2018-11-09&ss=b&srt=sco&sp=rwdlac&se=" + expiry + "&spr=https,http&sig=" + signature;
}

TEST_F(StorageServers, AzureBlocksBecomeTheWholeObject) {
  const NodeServer server(
      "azurite/dist/src/blob/main.js", [](uint16_t port, const std::string& folder) {
        return std::vector<std::string>{"--blobPort", std::to_string(port),   "--location", folder,
                                        "--silent",   "--skipApiVersionCheck"};
      });
  const std::string token = sasToken();
  const std::string container = server.url(std::string("/") + kAccount + "/container");
  const auto [created, words] =
      ask(_engine, KOVO_HTTP_PUT, container + "?restype=container&" + token);
  ASSERT_EQ(created, 201u) << words;
  const std::string object = container + "/blob";
  FaultOrigin service([&](const OriginRequest& request, Responder& to) {
    if (request.path == "/asset") {
      to.respond(202, {},
                 R"({"cloudProvider":"azure","_links":{"multipart":{"href":")" + object +
                     R"("},"finalize":{"href":"http://)" + *request.header("Host") +
                     R"(/finalise"}},"azure":{"token":")" + token +
                     R"(","bucketName":"container","objectId":"blob"}})");
      return;
    }
    rapidjson::Document document;
    document.Parse(request.body.c_str());
    std::string list = "<?xml version=\"1.0\" encoding=\"utf-8\"?><BlockList>";
    for (const auto& segment : document["segments"].GetArray()) {
      list += std::string("<Latest>") + segment["blockId"].GetString() + "</Latest>";
    }
    const auto [status, body] =
        ask(_service, KOVO_HTTP_PUT, object + "?comp=blocklist&" + token, list + "</BlockList>");
    to.respond(status == 201 ? 200 : 409, {}, body);
  });
  const TransferEvents events = upload(service.url("/asset"), KOVO_SERVER_TYPE_SYNC_SERVICE);
  EXPECT_EQ(events.completions, 1u) << events.errorText;
  expectObject(object + "?" + token);
}

}  // namespace
}  // namespace kovo::test
