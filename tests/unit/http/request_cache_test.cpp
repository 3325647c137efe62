#include <cstring>

#include "request_fixture.h"

namespace kovo {
namespace {

using test::response;

/* Holds one resource, or nothing, and keeps what is stored. */
class FakeCache : public HttpGetCache {
 public:
  std::string resource;
  std::string url;
  bool cacheable = true;
  std::string stored;
  std::string storedUrl;
  int stores = 0;
  int lookUps = 0;

  std::uint64_t getCachedLength(const std::string&, const CacheValidators&,
                                const KovoRange&) override {
    return 0;
  }
  Status getData(const std::string& askedUrl, const CacheValidators&, const KovoRange& range,
                 std::uint8_t* buffer, std::uint64_t bufferSize) override {
    ++lookUps;
    const auto start = static_cast<std::size_t>(range.start);
    const auto length = static_cast<std::size_t>(range.length);
    if (askedUrl != url || length > bufferSize || start + length > resource.size()) {
      return Miss;
    }
    std::memcpy(buffer, resource.data() + start, length);
    return Hit;
  }
  void storeData(const std::string&, const HeaderList&, const std::uint8_t*, std::size_t) override {
  }
  bool isCacheable(const HeaderList&) const override { return cacheable; }
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

class RequestCacheTest : public RequestTest {
 protected:
  RequestCacheTest() {
    _transfer.cache = &_cache;
    _transfer.entityTag = "\"v1\"";
    _cache.url = _url;
  }

  FakeCache _cache;
  const std::string _body = test::Resource(9, (5 << 20) / 2).all();
};

TEST_F(RequestCacheTest, HitNeedsNoExchange) {
  _cache.resource = "....." + _body;
  _transfer.keepBlocks = true;
  auto request = makeRanged(OP_DOWNLOAD_FILE_RANGE, 5, static_cast<std::int64_t>(_body.size()), 1);
  request->run();
  EXPECT_TRUE(_http.sent.empty());
  EXPECT_TRUE(request->isComplete());
  EXPECT_EQ(request->getHttpStatus(), 0u);
  EXPECT_EQ(request->getDeliveredLength(), _body.size());
  EXPECT_EQ(_transfer.blockWrites.size(), 3u);
  EXPECT_TRUE(_transfer.file.substr(5) == _body);
  EXPECT_EQ(_transfer.completedRanges.size(), 1u);
  EXPECT_EQ(_client->progress, _body.size());
  EXPECT_EQ(_transfer.stats.downloaded, 0u);
}

TEST_F(RequestCacheTest, CompletePartialBodiesAreStoredOnce) {
  const auto length = static_cast<std::int64_t>(_body.size());
  _transfer.keepBlocks = true;
  _transfer.parameters = {{"a", "1"}};
  answerPartial(0, _body.size() - 1, _body);
  makeRanged(OP_DOWNLOAD_FILE_RANGE, 0, length)->run();
  EXPECT_EQ(_cache.stores, 1);
  EXPECT_TRUE(_cache.stored == _body);
  EXPECT_EQ(_cache.storedUrl, "http://host/path?a=1");
  EXPECT_TRUE(_transfer.file == _body);
}

TEST_F(RequestCacheTest, NothingElseIsStored) {
  answerPartial(0, 99, std::string(60, 'x'));
  makeRanged(OP_DOWNLOAD_RANGE, 0, 100)->run();
  _transfer.cancelled = false;
  answer(response(200, {{"A", "b"}}, std::string(100, 'x')));
  makeRanged(OP_DOWNLOAD_RANGE, 0, 100)->run();
  answer(response(206, {{"Content-Range", "bytes 0-99/100"}, {"Content-Encoding", "br"}},
                  std::string(100, 'x')));
  makeRanged(OP_DOWNLOAD_RANGE, 0, 100)->run();
  _cache.cacheable = false;
  answerPartial(0, 99, std::string(100, 'x'));
  makeRanged(OP_DOWNLOAD_RANGE, 0, 100)->run();
  EXPECT_EQ(_cache.stores, 0);
}

TEST_F(RequestCacheTest, WithoutAValidatorTheCacheIsNotAsked) {
  _transfer.entityTag.clear();
  _cache.resource = std::string(100, 'c');
  answerPartial(0, 99, std::string(100, 'n'));
  makeRanged(OP_DOWNLOAD_RANGE, 0, 100)->run();
  EXPECT_EQ(_cache.lookUps, 0);
  EXPECT_EQ(_client->received, std::string(100, 'n'));
}

}  // namespace
}  // namespace kovo
