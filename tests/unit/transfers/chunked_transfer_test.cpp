#include "transfers/chunked_transfer.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "core/null_work.h"
#include "support/fake_kovo_engine.h"
#include "transfers/decimal.h"

namespace kovo {
namespace {

// Units that do nothing, a chunk size of 100, and the completion hooks of a plain download.
class PlainChunks : public ChunkedTransfer {
 public:
  explicit PlainChunks(test::FakeKovoEngine& engine, bool chunking = true)
      : ChunkedTransfer(
            engine, nullptr, "http://host/file", KOVO_CHUNKING_DEFAULT, 0,
            std::make_shared<ClientCallbackHandler>(&engine, &engine.callbacks, nullptr)),
        _chunking(chunking) {}

  bool isChunkingAllowed() const override { return _chunking; }
  bool isCancellable() const override { return getState() < failing; }

  void cutWithoutTaking(std::int64_t total, bool firstRangeTaken) {
    firstRangeLength();
    setExpectedLength(static_cast<std::uint64_t>(total));
    createRanges(firstRangeTaken);
  }
  std::vector<KovoNumberedRange> cut(std::int64_t total, bool firstRangeTaken) {
    cutWithoutTaking(total, firstRangeTaken);
    return ranges();
  }
  std::int64_t firstRangeLength() {
    KovoNumberedRange first;
    makeFirstRange(first);
    return first.length;
  }
  std::uint32_t remaining() const { return getNumberOfChunksRemaining(); }
  std::vector<KovoNumberedRange> ranges() {
    std::vector<KovoNumberedRange> all;
    for (KovoNumberedRange range; popNextRange(range);) {
      all.push_back(range);
    }
    return all;
  }
  void requeue(std::int32_t number) { requeueRange(KovoNumberedRange(number * 100, 100, number)); }
  void expect(std::uint64_t total) { setExpectedLength(total); }
  std::function<void()> onChunk;

 protected:
  void setIntermediateStatus(std::uint32_t) override {}
  std::unique_ptr<Work> createWork() override {
    if (getState() == init) {
      setState(waiting_init);
    } else {
      KovoNumberedRange range;
      popNextRange(range);
      if (!hasRangesRemaining()) {
        setState(finishing_chunks);
      }
    }
    return std::make_unique<NullWork>();
  }
  std::uint32_t getTransferHttpStatus() const override { return 200; }
  State transferInitFinished(Work&) override {
    setExpectedLength(400);
    setNextOffset(100);
    createRanges(true);
    return transferring_chunks;
  }
  State firstChunkFinished() override { return getState(); }
  State chunkFinished(Work*) override {
    if (onChunk) {
      onChunk();
    }
    return getActiveWorkCount() < 2 && !hasRangesRemaining() ? finish() : getState();
  }
  State lastChunkFinished() override { return getState(); }

 private:
  const bool _chunking;
};

struct Finals {
  int completed = 0;
  int failed = 0;
  int cancelled = 0;
  int paused = 0;
  std::uint32_t code = 0;
};
Finals finals;

class ChunkedTransferTest : public testing::Test {
 protected:
  ChunkedTransferTest() {
    finals = Finals();
    engine.settings.chunkSize = 100;
    engine.callbacks.completion = [](kovo_instance, void*) { ++finals.completed; };
    engine.callbacks.cancellation = [](kovo_instance, void*) { ++finals.cancelled; };
    engine.callbacks.paused = [](kovo_instance, void*) { ++finals.paused; };
    engine.callbacks.error = [](kovo_instance, std::uint32_t code, const char*, void*) {
      ++finals.failed;
      finals.code = code;
    };
  }

  Work* take(PlainChunks& transfer) {
    Work* work = transfer.getNextWork();
    if (work != nullptr) {
      work->run();
    }
    return work;
  }
  bool giveBack(PlainChunks& transfer, Work* work) {
    const bool act = transfer.onFinish(work);
    transfer.deliverNotifications();
    return act;
  }

  test::FakeKovoEngine engine;
};

std::vector<std::int64_t> flatten(const std::vector<KovoNumberedRange>& ranges) {
  std::vector<std::int64_t> numbers;
  for (const KovoNumberedRange& range : ranges) {
    numbers.insert(numbers.end(), {range.number, range.start, range.length});
  }
  return numbers;
}

TEST_F(ChunkedTransferTest, CutsTheRestIntoNumberedRanges) {
  using Numbers = std::vector<std::int64_t>;
  EXPECT_EQ(flatten(PlainChunks(engine).cut(450, true)),
            (Numbers{1, 100, 100, 2, 200, 100, 3, 300, 100, 4, 400, 50}));
  EXPECT_EQ(flatten(PlainChunks(engine).cut(200, false)), (Numbers{0, 0, 100, 1, 100, 100}));
  EXPECT_EQ(flatten(PlainChunks(engine).cut(100, true)), Numbers{});
  EXPECT_EQ(flatten(PlainChunks(engine).cut(1, true)), Numbers{});
  EXPECT_EQ(flatten(PlainChunks(engine).cut(0, true)), (Numbers{0, 100, 0}));
  EXPECT_EQ(flatten(PlainChunks(engine, false).cut(450, true)), Numbers{});
  PlainChunks ranged(engine);
  ranged.setRange(KovoRange(1000, 250));
  EXPECT_EQ(flatten(ranged.cut(5000, true)), (Numbers{1, 1100, 100, 2, 1200, 50}));
}

TEST_F(ChunkedTransferTest, ASizeThatAServerNamesCostsNoMemory) {
  EXPECT_THROW(PlainChunks(engine).cut(INT64_MAX, true), std::length_error) << "too many to number";
  PlainChunks transfer(engine);
  transfer.cutWithoutTaking(std::int64_t{INT32_MAX - 1} * 100, false);
  EXPECT_EQ(transfer.remaining(), static_cast<std::uint32_t>(INT32_MAX - 1));
  transfer.setRange(KovoRange(INT64_MAX - 10, 0));
  EXPECT_EQ(transfer.firstRangeLength(), 10);
}

TEST_F(ChunkedTransferTest, PutsAFailedRangeBackInNumberOrder) {
  PlainChunks transfer(engine);
  for (const std::int32_t number : {3, 1, 2, 0}) {
    transfer.requeue(number);
  }
  const auto ranges = transfer.ranges();
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    EXPECT_EQ(ranges[i].number, static_cast<std::int32_t>(i));
  }
}

TEST_F(ChunkedTransferTest, FitsTheRangeToTheSize) {
  const auto fitted = [this](std::int64_t start, std::int64_t length) {
    PlainChunks transfer(engine);
    transfer.setRange(KovoRange(start, length));
    transfer.expect(1000);
    return transfer.getRange().length;
  };
  EXPECT_EQ(fitted(200, 0), 800);
  EXPECT_EQ(fitted(200, 900), 800);
  EXPECT_EQ(fitted(1200, 0), 0);
  EXPECT_EQ(fitted(1200, 10), 0);
  EXPECT_EQ(fitted(0, INT64_MAX), 1000);
}

TEST_F(ChunkedTransferTest, TheFirstErrorEndsItOnceTheLastChunkIsBack) {
  PlainChunks transfer(engine);
  giveBack(transfer, take(transfer));
  Work* first = take(transfer);
  Work* second = take(transfer);
  transfer.setError(makeKovoError(KOVO_ERROR_NETWORK_ERROR, "first"));
  transfer.setError(makeKovoError(KOVO_ERROR_TIMEOUT, "second"));
  EXPECT_EQ(transfer.getAvailableWorkCount(), 0U) << "nothing to choose it for";
  EXPECT_FALSE(giveBack(transfer, first));
  EXPECT_EQ(finals.failed, 0);
  EXPECT_TRUE(giveBack(transfer, second));
  EXPECT_EQ(finals.failed, 1);
  EXPECT_EQ(finals.code, static_cast<std::uint32_t>(KOVO_ERROR_NETWORK_ERROR));
}

TEST_F(ChunkedTransferTest, AClientsCancelReplacesAnErrorAndASecondOneIsRefused) {
  PlainChunks transfer(engine);
  Work* work = take(transfer);
  EXPECT_EQ(transfer.cancel(true), KOVO_ERROR_NONE);
  EXPECT_EQ(transfer.cancel(false), KOVO_ERROR_NONE);
  EXPECT_EQ(transfer.cancel(false), KOVO_ERROR_CANCELLED);
  EXPECT_TRUE(giveBack(transfer, work));
  EXPECT_EQ(finals.cancelled, 1);
  EXPECT_EQ(finals.failed, 0);
}

// A cancel that comes while the last chunk is being given back is either refused or is the outcome.
TEST_F(ChunkedTransferTest, ACancelIsNeverAcceptedForACompletedTransfer) {
  PlainChunks transfer(engine);
  giveBack(transfer, take(transfer));
  kovo_error accepted = KOVO_ERROR_UNKNOWN;
  Work* last = nullptr;
  for (Work* work = take(transfer); work != nullptr; work = take(transfer)) {
    if (last != nullptr) {
      giveBack(transfer, last);
    }
    last = work;
  }
  transfer.onChunk = [&] { accepted = transfer.cancel(false); };
  EXPECT_TRUE(giveBack(transfer, last));
  EXPECT_EQ(accepted, KOVO_ERROR_NONE);
  EXPECT_EQ(finals.cancelled, 1);
  EXPECT_EQ(finals.completed, 0);
}

TEST_F(ChunkedTransferTest, AClientsPauseOutlastsTheTransfersOwn) {
  PlainChunks transfer(engine);
  Work* work = take(transfer);
  EXPECT_TRUE(transfer.pause(true));
  EXPECT_FALSE(transfer.pause(false));
  EXPECT_FALSE(transfer.pause(true));
  EXPECT_FALSE(transfer.shouldRestartWhenDrained());
  giveBack(transfer, work);
  EXPECT_EQ(finals.paused, 1);

  PlainChunks drained(engine);
  work = take(drained);
  drained.pause(true);
  giveBack(drained, work);
  EXPECT_EQ(finals.paused, 1);  // about to restart: nothing to report ...
  drained.pause(false);         // ... until the client steps in
  drained.deliverNotifications();
  EXPECT_EQ(finals.paused, 2);
  EXPECT_FALSE(drained.shouldRestartWhenDrained());
}

TEST(ParseDecimal, TakesDigitsWithBlanksAroundAndNothingElse) {
  EXPECT_EQ(parseDecimal(" 1234\t"), 1234U);
  EXPECT_EQ(parseDecimal("18446744073709551615"), UINT64_MAX);
  EXPECT_THROW(parseDecimal("18446744073709551616"), std::out_of_range);
  for (const char* text : {"", " ", "-1", "12a", "0x10", "1 2"}) {
    EXPECT_THROW(parseDecimal(text), std::invalid_argument) << text;
  }
}

}  // namespace
}  // namespace kovo
