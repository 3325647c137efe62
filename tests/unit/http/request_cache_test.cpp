#include "request_fixture.h"

namespace kovo {
namespace {

/* Holds nothing and keeps what is stored. */
class FakeCache : public HttpGetCache {
 public:
  std::string stored;
  std::string storedUrl;
  int stores = 0;

  std::uint64_t getCachedLength(const std::string&, const CacheValidators&,
                                const KovoRange&) override {
    return 0;
  }
  Status getData(const std::string&, const CacheValidators&, const KovoRange&, std::uint8_t*,
                 std::uint64_t) override {
    return Miss;
  }
  void storeData(const std::string&, const HeaderList&, const std::uint8_t*, std::size_t) override {
  }
  bool isCacheable(const HeaderList&) const override { return true; }
  void clear() override {}
  void storeBody(const std::string& askedUrl, const HeaderList&, BlockList body) override {
    ++stores;
    storedUrl = askedUrl;
    std::size_t left = body.size;
    for (const ByteBlock& block : body.blocks) {
      const std::size_t count = std::min(left, ByteBlock::kCapacity);
      stored.append(block.data(), block.data() + count);
      left -= count;
    }
  }
};

TEST_F(RequestTest, CompletePartialBodiesAreStoredOnceUnderTheirUrlWithParameters) {
  FakeCache cache;
  _transfer.cache = &cache;
  _transfer.entityTag = "\"v1\"";
  const std::string body = test::Resource(9, (5 << 20) / 2).all();
  _transfer.keepBlocks = true;
  _transfer.parameters = {{"a", "1"}};
  answerPartial(0, body.size() - 1, body);
  makeRanged(OP_DOWNLOAD_FILE_RANGE, 0, (5 << 20) / 2)->run();
  EXPECT_EQ(cache.stores, 1);
  EXPECT_TRUE(cache.stored == body);
  EXPECT_EQ(cache.storedUrl, "http://host/path?a=1");
  EXPECT_TRUE(_transfer.file == body);
}

}  // namespace
}  // namespace kovo
