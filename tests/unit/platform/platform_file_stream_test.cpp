#include "platform/platform_file_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "support/resource.h"
#include "support/temp_dir.h"

namespace kovo {
namespace {

using OStream = PlatformFileOStream;

class PlatformFileStreamTest : public testing::Test {
 protected:
  static bool write(OStream& stream, const std::string& text) {
    return stream.WriteBlock(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  }
  static FileErrorKind kindOfOpening(const std::string& path) {
    PlatformFileIStream stream;
    EXPECT_FALSE(stream.open(path, 1)) << path;
    return stream.lastErrorKind;
  }
  static FileErrorKind kindOfCreating(const std::string& path, std::uint32_t mode = 0) {
    OStream stream;
    EXPECT_FALSE(stream.open(path, mode)) << path;
    return stream.lastErrorKind;
  }

  test::TempDir directory;
  const std::string path = directory.file("file");
};

TEST_F(PlatformFileStreamTest, CreateModesTreatFormerContentAsNamed) {
  OStream stream;
  EXPECT_EQ(kindOfCreating(path, OStream::OpenExisting), FileErrorKind::NotFound);
  EXPECT_EQ(kindOfCreating(path, OStream::ReplaceExisting), FileErrorKind::NotFound);
  EXPECT_FALSE(std::filesystem::exists(path));

  ASSERT_TRUE(stream.open(path, OStream::OpenOrCreate));
  EXPECT_TRUE(write(stream, "first"));
  for (const std::uint32_t keeping : {OStream::OpenOrCreate, OStream::OpenExisting}) {
    ASSERT_TRUE(stream.open(path, keeping));
    EXPECT_TRUE(write(stream, "FI"));
    EXPECT_EQ(test::readFile(path), "FIrst");
  }
  for (const std::uint32_t emptying : {OStream::CreateReplacing, OStream::ReplaceExisting}) {
    ASSERT_TRUE(stream.open(path, emptying));
    EXPECT_EQ(test::readFile(path), "");
  }
  EXPECT_THROW(stream.open(path, 4), std::invalid_argument);
}

TEST_F(PlatformFileStreamTest, WritesGoToThePositionAndBeyondTheEnd) {
  OStream stream;
  ASSERT_TRUE(stream.open(path, OStream::CreateReplacing));
  const std::string block(3'000'000, 'b');
  const std::uint64_t far = 5ULL << 30;  // a hole of 5 GiB
  EXPECT_TRUE(stream.SetCurrentPosition(far));
  EXPECT_TRUE(write(stream, block));
  EXPECT_TRUE(write(stream, "end"));
  EXPECT_TRUE(stream.SetCurrentPosition(0));
  EXPECT_TRUE(write(stream, "begin"));
  EXPECT_TRUE(stream.Flush());
  EXPECT_FALSE(stream.SetCurrentPosition(1ULL << 63));
  EXPECT_EQ(stream.lastErrorKind, FileErrorKind::InvalidParameter);

  PlatformFileIStream input;
  ASSERT_TRUE(input.open(path, 1));
  EXPECT_EQ(input.Length(), far + block.size() + 3);
  std::vector<std::uint8_t> buffer(block.size() + 10);
  std::uint64_t count = 0;
  input.Seek(far);
  ASSERT_TRUE(input.ReadBlock(buffer.data(), buffer.size(), &count));
  EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count)),
            block + "end");
  ASSERT_TRUE(input.ReadBlock(buffer.data(), buffer.size(), &count));
  EXPECT_EQ(count, 0U) << "at the end";
  input.Seek(0);
  ASSERT_TRUE(input.ReadBlock(buffer.data(), 6, &count));
  EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 6), std::string("begin\0", 6));
  EXPECT_THROW(input.Seek(1ULL << 63), std::system_error);
}

TEST_F(PlatformFileStreamTest, FailedOpeningIsClassified) {
  EXPECT_EQ(kindOfOpening(path), FileErrorKind::NotFound);
  EXPECT_EQ(kindOfOpening(directory.file("none/file")), FileErrorKind::ParentMissing);
  EXPECT_EQ(kindOfCreating(directory.file("none/file")), FileErrorKind::ParentMissing);
  std::ofstream(path) << "x";
  EXPECT_EQ(kindOfOpening(path + "/child"), FileErrorKind::ParentMissing);
  EXPECT_EQ(kindOfOpening(directory.path().string()), FileErrorKind::InvalidName);
  EXPECT_EQ(kindOfCreating(directory.path().string()), FileErrorKind::InvalidName);
  EXPECT_EQ(kindOfOpening(""), FileErrorKind::InvalidName);
  EXPECT_EQ(kindOfCreating(path + std::string("\0tail", 5)), FileErrorKind::InvalidName);

  EXPECT_EQ(kindOfOpening(directory.file("none/" + std::string(256, 'n'))),
            FileErrorKind::PathTooLong)
      << "the length of the name counts before the parent";
  OStream longest;
  EXPECT_TRUE(longest.open(directory.file(std::string(255, 'n')), OStream::OpenOrCreate));
  std::string deep = directory.path().string();
  while (deep.size() < 5000) {
    deep += "/d";
  }
  EXPECT_EQ(kindOfCreating(deep), FileErrorKind::PathTooLong);

  if (::geteuid() != 0) {  // the superuser may do everything
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    EXPECT_EQ(kindOfOpening(path), FileErrorKind::AccessDenied);
  }
}

TEST_F(PlatformFileStreamTest, APipeIsRefusedWithoutWaitingForItsOtherEnd) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(kindOfOpening(path), FileErrorKind::Other);
  EXPECT_EQ(kindOfCreating(path), FileErrorKind::Other);
}

TEST_F(PlatformFileStreamTest, DevicesFullAndNull) {
  OStream full;
  ASSERT_TRUE(full.open("/dev/full", OStream::CreateReplacing));
  EXPECT_FALSE(write(full, "x"));
  EXPECT_EQ(full.lastErrorKind, FileErrorKind::DiskFull);
  OStream null;
  ASSERT_TRUE(null.open("/dev/null", OStream::CreateReplacing));
  EXPECT_TRUE(null.SetCurrentPosition(1'000'000));
  EXPECT_TRUE(write(null, "x"));
  EXPECT_TRUE(null.Flush());
}

TEST_F(PlatformFileStreamTest, TheFileSizeLimitFailsTheWriteInsteadOfTheProcess) {
  rlimit former;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &former), 0);
  OStream stream;
  ASSERT_TRUE(stream.open(path, OStream::CreateReplacing));
  const rlimit limit = {1000, former.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const bool within = write(stream, std::string(600, 'x'));
  const bool beyond = write(stream, std::string(600, 'x'));
  const FileErrorKind kind = stream.lastErrorKind;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &former), 0);
  EXPECT_TRUE(within);
  EXPECT_FALSE(beyond);
  EXPECT_EQ(kind, FileErrorKind::DiskFull);
  EXPECT_EQ(test::readFile(path).size(), 1000U);
}

}  // namespace
}  // namespace kovo
