// Compressed bodies, whole and in pieces.
#include <zlib.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "body/gzip_filter.h"
#include "body/gzip_input_filter.h"
#include "body/string_stream_sink.h"
#include "body/zip_stream_inflater.h"
#include "fuzz/fuzz_target.h"
#include "support/serve_resource.h"

namespace kovo::test {
namespace {

// The output of a small input is bounded by what deflate can do.
constexpr std::size_t kMostExpansion = 1032;

struct Inflated {
  std::string text;
  bool good = true;
};

class Collector : public FilteredDataHandler {
 public:
  Collector(std::string& text, std::size_t largest) : _text(text), _largest(largest) {}
  void handle(const std::uint8_t* data, std::size_t size) override {
    require(size > 0 && size <= _largest, "a block is no larger than the buffer");
    _text.append(reinterpret_cast<const char*>(data), size);
  }

 private:
  std::string& _text;
  const std::size_t _largest;
};

// widths: the sizes of the pieces in turn; empty: one piece.
Inflated inflated(const std::string& body, std::size_t bufferSize, const std::string& widths) {
  Inflated result;
  Collector collector(result.text, bufferSize);
  GzipFilter filter(std::make_unique<ZipStreamInflater>(bufferSize));
  std::size_t turn = 0;
  for (std::size_t at = 0; at < body.size() && result.good;) {
    std::size_t width = body.size() - at;
    if (!widths.empty()) {
      width = std::min<std::size_t>(
          width, 1U + static_cast<unsigned char>(widths[turn++ % widths.size()]) % 64U);
    }
    DataBlock block{reinterpret_cast<const std::uint8_t*>(body.data()) + at, width};
    result.good = filter.filter(block, collector);
    require(!result.good || block.size == 0, "what is accepted is consumed");
    at += width;
  }
  result.good = filter.flush(collector) && result.good;
  return result;
}

std::string zlibCompressed(const std::string& text) {
  std::string bytes(compressBound(text.size()), '\0');
  uLongf size = bytes.size();
  compress(reinterpret_cast<Bytef*>(bytes.data()), &size,
           reinterpret_cast<const Bytef*>(text.data()), text.size());
  return bytes.substr(0, size);
}

bool isPrefix(const std::string& shorter, const std::string& longer) {
  return longer.compare(0, shorter.size(), shorter) == 0;
}

}  // namespace

// A letter that chooses what becomes of the rest, the widths of the pieces, and the body.
KOVO_FUZZ_TARGET(gzip) {
  const std::uint8_t choice = input.byte();
  const std::string widths = input.line();
  const std::string text = input.rest();
  std::string body = text;
  std::string expected;
  if (choice % 4 == 1) {
    body = gzip(text) + gzip(widths) + std::string(3, '\0');
    expected = text + widths;
  } else if (choice % 4 == 2) {
    body = zlibCompressed(text);
    expected = text;
  } else if (choice % 4 == 3) {
    body = gzip(widths) + text;
  }

  const Inflated whole = inflated(body, 0x10000, {});
  const Inflated pieces = inflated(body, 0x10000, widths);
  const Inflated tight = inflated(body, 16U + choice, widths);
  require(whole.good == pieces.good && whole.good == tight.good, "pieces change no verdict");
  require(whole.text.size() <= (body.size() + 64) * kMostExpansion, "the output is bounded");
  if (whole.good) {
    require(whole.text == pieces.text && whole.text == tight.text, "pieces change no byte");
  } else {
    require(isPrefix(whole.text, tight.text) || isPrefix(tight.text, whole.text),
            "what comes before the damage is the same");
  }
  if (choice % 4 == 1 || choice % 4 == 2) {
    require(whole.good && whole.text == expected, "what was compressed comes back");
  } else if (choice % 4 == 3) {
    require(isPrefix(widths, whole.text) || !whole.good, "a whole member comes out");
  }

  auto sink = makeGzipFilteredSink(std::make_unique<StringStreamSink>());
  sink->write(reinterpret_cast<const std::uint8_t*>(body.data()), body.size());
  sink->finish();
  std::string contents;
  sink->getContents(contents);
  require(whole.good ? contents == whole.text
                     : isPrefix(contents, tight.text) || isPrefix(tight.text, contents),
          "the sink gets the same bytes");
}

}  // namespace kovo::test
