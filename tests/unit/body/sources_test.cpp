#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "body/byte_range_file_source.h"
#include "body/form_encoded_parameters_source.h"
#include "body/linux_datasources_cross_platform.h"
#include "body/memory_source.h"
#include "body/mime_sources.h"
#include "support/fake_transfer.h"
#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using test::FakeCallbackHandler;

/* Everything a source delivers, in reads of this size; stops at the first failure or empty read. */
std::string drain(DataSource& source, std::size_t size) {
  std::string bytes;
  std::string buffer(size, '\xff');
  std::size_t count = 0;
  while (source.read(reinterpret_cast<std::uint8_t*>(buffer.data()), size, count) && count != 0) {
    bytes.append(buffer, 0, count);
  }
  return bytes;
}

class SourcesTest : public testing::Test {
 protected:
  std::string makeFile(std::uint64_t size) {
    const std::string path = _directory.file("body");
    test::Resource(7, size).writeTo(path);
    return path;
  }

  test::TempDir _directory;
  std::shared_ptr<FakeCallbackHandler> _client = std::make_shared<FakeCallbackHandler>();
};

TEST_F(SourcesTest, FileIsDeliveredOnceAndCountedOnce) {
  const std::string path = makeFile(100000);
  FileSource source(_client, path);
  EXPECT_EQ(source.getContentLength(), 100000u);
  EXPECT_TRUE(source.hasMoreData());
  EXPECT_EQ(drain(source, 7777), test::readFile(path));
  EXPECT_FALSE(source.hasMoreData());
  EXPECT_EQ(source.getBytesRead(), 100000u);
  EXPECT_EQ(_client->progress, 100000u);
  source.discard();
  source.discard();
  EXPECT_EQ(_client->progress, 0u);
}

TEST_F(SourcesTest, MissingFileIsAnErrorWithoutData) {
  FileSource source(_client, _directory.file("missing"));
  std::string message;
  EXPECT_EQ(source.getContentLength(), 0u);
  EXPECT_FALSE(source.hasMoreData());
  EXPECT_EQ(source.getError(message), KOVO_ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(message, "Invalid input stream: File not found");
}

TEST_F(SourcesTest, FileThatShrinksLeavesDataOutstanding) {
  const std::string path = makeFile(1000);
  ByteRangeFileSource source(_client, KovoRange(0, 1000), path, KovoRange(500, 500));
  std::filesystem::resize_file(path, 600);
  EXPECT_EQ(drain(source, 64).size(), 100u);
  EXPECT_TRUE(source.hasMoreData());
}

TEST_F(SourcesTest, RangesOfAFile) {
  const std::string path = makeFile(1000);
  const std::string all = test::readFile(path);
  ByteRangeFileSource middle(_client, KovoRange(100, 900), path, KovoRange(100, 100));
  EXPECT_EQ(middle.getContentLength(), 100u);
  EXPECT_TRUE(middle.isFirstChunk());
  EXPECT_FALSE(middle.isLastChunk());
  EXPECT_EQ(drain(middle, 33), all.substr(100, 100));
  EXPECT_EQ(middle.getBytesRead(), 100u);

  ByteRangeFileSource last(_client, KovoRange(0, 1000), path, KovoRange(900, 100));
  EXPECT_FALSE(last.isFirstChunk());
  EXPECT_TRUE(last.isLastChunk());
  EXPECT_EQ(drain(last, 1 << 20), all.substr(900));

  ByteRangeFileSource beyond(_client, KovoRange(0, 1000), path, KovoRange(1000, 0));
  EXPECT_FALSE(beyond.hasMoreData());
}

TEST_F(SourcesTest, ClientsBodyIsBoundedByTheBuffer) {
  _client->requestBody = "0123456789";
  MemorySource source(_client);
  EXPECT_EQ(source.getContentLength(), 10u);
  EXPECT_EQ(drain(source, 4), "0123456789");
  EXPECT_EQ(_client->progress, 10u);

  class Boaster : public FakeCallbackHandler {
    void invokeRequestBodyCallback(std::uint64_t, std::uint8_t*, std::uint64_t* bytesRead,
                                   std::uint64_t maxLength) override {
      *bytesRead = maxLength + 1;
    }
  };
  MemorySource boasting(std::make_shared<Boaster>());
  std::uint8_t buffer[8];
  std::size_t count = 0;
  std::string message;
  EXPECT_FALSE(boasting.read(buffer, sizeof buffer, count));
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(boasting.getError(message), KOVO_ERROR_TOO_MUCH_DATA);
}

TEST_F(SourcesTest, FormTextHasPlusForSpaces) {
  FormEncodedParametersSource source("a=1%202&b=%20");
  EXPECT_EQ(source.getContentLength(), 9u);
  EXPECT_EQ(source.getContentType(), "application/x-www-form-urlencoded");
  EXPECT_EQ(drain(source, 4), "a=1+2&b=+");
}

TEST_F(SourcesTest, ChecksumOfAFile) {
  const std::string path = _directory.file("empty");
  test::writeFile(path, "");
  LinuxDatasourcesCrossPlatform files;
  EXPECT_EQ(files.getMD5Checksum(), "");
  files.openFile(_client, path);
  EXPECT_EQ(files.getMD5Checksum(), "1B2M2Y8AsgTpgAmY7PhCfg==");
  files.openFile(_client, makeFile(10 << 20));
  const Interrupt always = [] { return true; };
  EXPECT_EQ(files.getMD5Checksum(&always), "");
}

class Framed : public MimeSources {
 public:
  Framed(std::string prefix, const std::string& body, std::string suffix)
      : MimeSources(std::make_unique<StringSource>(body, "text/plain"), {}),
        _prefix(std::move(prefix)),
        _suffix(std::move(suffix)) {}

 protected:
  std::string createMimePrefix() const override { return _prefix; }
  std::string createMimeSuffix() const override { return _suffix; }

 private:
  const std::string _prefix;
  const std::string _suffix;
};

TEST_F(SourcesTest, FramesComeOneAfterTheOther) {
  Framed source("<", "body", ">");
  EXPECT_EQ(source.getContentLength(), 6u);
  EXPECT_EQ(source.getBytesRead(), 0u);
  std::uint8_t buffer[16];
  std::size_t count = 0;
  for (const std::string expected : {"<", "body", ">", ""}) {
    EXPECT_EQ(source.hasMoreData(), !expected.empty());
    ASSERT_TRUE(source.read(buffer, sizeof buffer, count));
    EXPECT_EQ(std::string(buffer, buffer + count), expected);
  }
  EXPECT_EQ(source.getBytesRead(), 6u);

  Framed bare("", "body", "");
  ASSERT_TRUE(bare.read(buffer, sizeof buffer, count));
  EXPECT_EQ(std::string(buffer, buffer + count), "body");
  EXPECT_FALSE(bare.hasMoreData());
}

TEST_F(SourcesTest, FramesOfAnyLengthFitAnyBuffer) {
  const std::string document(100000, 'd');
  for (const std::size_t size : {1u, 3u, 4096u}) {
    Framed source(document, "body", "suffix");
    EXPECT_EQ(drain(source, size), document + "bodysuffix");
    EXPECT_EQ(source.getBytesRead(), source.getContentLength());
    EXPECT_FALSE(source.hasMoreData());
  }
}

}  // namespace
}  // namespace kovo
