#include "body/zip_stream_inflater.h"

namespace kovo {
namespace {

// A window of 32 KiB; 32 more make zlib look at the header for the format.
constexpr int kWindowBits = 15;
constexpr int kDetectHeader = 32;

}  // namespace

ZipStreamInflater::ZipStreamInflater(std::size_t bufferSize) : ZipStreamHandler(bufferSize) {
  _gzip = true;
  open();
}

ZipStreamInflater::~ZipStreamInflater() {
  close();
}

int ZipStreamInflater::process() {
  return inflate(&_stream, Z_SYNC_FLUSH);
}

int ZipStreamInflater::end() {
  return inflateEnd(&_stream);
}

int ZipStreamInflater::init() {
  return inflateInit2_(&_stream, _gzip ? kWindowBits + kDetectHeader : kWindowBits, ZLIB_VERSION,
                       static_cast<int>(sizeof(z_stream)));
}

}  // namespace kovo
