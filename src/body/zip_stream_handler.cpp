#include "body/zip_stream_handler.h"

#include <boost/numeric/conversion/cast.hpp>

#include "core/assertion.h"
#include "log/kovo_log.h"

namespace kovo {
namespace {

constexpr char kWriteName[] = "kovo::ZipStreamHandler::write";
constexpr char kFlushName[] = "kovo::ZipStreamHandler::flush";

// How every gzip member begins.
constexpr std::uint8_t kGzipMagic[] = {0x1f, 0x8b};

void advance(DataBlock& block, std::size_t count) {
  block.data += count;
  block.size -= count;
}

}  // namespace

ZipStreamHandler::ZipStreamHandler(std::size_t bufferSize) : _output(bufferSize) {
  KOVO_ASSERT(bufferSize > 0, "bufferSize > 0");
}

void ZipStreamHandler::open() {
  if (!_closed) {
    return;
  }
  _stream.zalloc = nullptr;
  _stream.zfree = nullptr;
  _stream.opaque = nullptr;
  _stream.next_in = nullptr;
  _stream.avail_in = 0;
  const int status = init();
  if (status == Z_OK) {
    _closed = false;
  } else {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ZipStreamHandler::open", "Error opening zlib stream: %s",
             statusText(status).c_str());
  }
}

void ZipStreamHandler::close() {
  if (_closed) {
    return;
  }
  const int status = end();
  if (status != Z_OK) {
    KOVO_LOG(KOVO_LOG_WARN, "kovo::ZipStreamHandler::close", "Error closing zlib stream: %s",
             statusText(status).c_str());
  }
  _closed = true;
}

bool ZipStreamHandler::write(DataBlock& input, DataBlock& output) {
  output = {};
  if (_closed) {
    return fail(Operation::Write, Z_ERRNO);
  }
  if (input.size == 0) {
    return true;
  }
  if (_phase != Phase::Inside) {
    return skipBetweenMembers(input);
  }
  // zlib does not write to its input; its type only says so when ZLIB_CONST is defined.
  _stream.next_in = const_cast<Bytef*>(input.data);
  _stream.avail_in = boost::numeric_cast<uInt>(input.size);
  const bool success = step(Operation::Write, output);
  if (success) {
    const std::size_t consumed = input.size - _stream.avail_in;
    _stepped = _stepped || consumed != 0;
    advance(input, consumed);
    if (consumed == 0 && output.size == 0) {
      return fail(Operation::Write, Z_BUF_ERROR);  // the caller would ask for ever
    }
  }
  return success;
}

bool ZipStreamHandler::flush(DataBlock& output) {
  output = {};
  if (_closed) {
    return fail(Operation::Flush, Z_ERRNO);
  }
  if (_phase != Phase::Inside) {
    return true;
  }
  _stream.next_in = nullptr;
  _stream.avail_in = 0;
  return step(Operation::Flush, output);
}

bool ZipStreamHandler::step(Operation operation, DataBlock& output) {
  _stream.next_out = _output.data();
  _stream.avail_out = boost::numeric_cast<uInt>(_output.size());
  const int status = process();
  const std::size_t produced = _output.size() - _stream.avail_out;
  if (status != Z_OK && status != Z_STREAM_END && !(status == Z_BUF_ERROR && produced == 0)) {
    return fail(operation, status);
  }
  if (status == Z_STREAM_END) {
    _phase = Phase::AfterEnd;
  }
  output = {_output.data(), produced};
  return true;
}

bool ZipStreamHandler::fail(Operation operation, int status) {
  const std::string text = statusText(status);
  close();
  if (operation == Operation::Write) {
    KOVO_LOG(KOVO_LOG_WARN, kWriteName, "ZipStreamHandler failed to write: %s", text.c_str());
  } else {
    KOVO_LOG(KOVO_LOG_WARN, kFlushName, "ZipStreamHandler failed to flush: %s", text.c_str());
  }
  return false;
}

std::string ZipStreamHandler::statusText(int status) const {
  std::string text;
  switch (status) {
    case Z_VERSION_ERROR:
      text = "Version Error.";
      break;
    case Z_BUF_ERROR:
      text = "Buffer Error.";
      break;
    case Z_MEM_ERROR:
      text = "Memory Error.";
      break;
    case Z_DATA_ERROR:
      text = "Data Error.";
      break;
    case Z_STREAM_ERROR:
      text = "Stream Error.";
      break;
    case Z_ERRNO:
      text = "Error.";
      break;
    case Z_NEED_DICT:
      text = "Dictionary Needed.";
      break;
    default:
      text = "Unknown zlib status: " + std::to_string(status) + ".";
      break;
  }
  if (!_closed && _stream.msg != nullptr) {
    text.append(" Message ").append(_stream.msg);
  }
  return text;
}

bool ZipStreamHandler::skipBetweenMembers(DataBlock& input) {
  if (_phase == Phase::AfterEnd && input.data[0] == kGzipMagic[0]) {
    _phase = Phase::AfterFirstMagicByte;
    advance(input, 1);
    return true;
  }
  if (_phase == Phase::AfterFirstMagicByte && input.data[0] == kGzipMagic[1]) {
    advance(input, 1);
    close();
    open();
    if (_closed) {
      return fail(Operation::Write, Z_ERRNO);
    }
    _phase = Phase::Inside;
    DataBlock magic{kGzipMagic, sizeof(kGzipMagic)};
    DataBlock output;
    return write(magic, output);
  }
  _phase = Phase::Padding;
  advance(input, input.size);
  return true;
}

}  // namespace kovo
