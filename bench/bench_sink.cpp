// bench_sink [--rate BYTES-PER-SECOND] [--no-md5]
//
// A storage server that keeps nothing: it takes bodies as fast as they come (or each connection at
// the given rate), answers every PUT with the MD5 of its body as its entity tag, and speaks as much
// of the S3 multipart protocol as clients need to upload. Prints its port; runs until its standard
// input ends. One thread per connection.

#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/socket.h"

namespace {

using kovo::test::UniqueFd;

struct Options {
  std::uint64_t rate = 0;
  bool md5 = true;
};

struct Request {
  std::string verb;
  std::string target;
  std::uint64_t length = 0;
  bool expectsContinue = false;
};

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

class Connection {
 public:
  Connection(UniqueFd socket, const Options& options)
      : _socket(std::move(socket)), _options(options) {}

  void serve() {
    while (const std::optional<Request> request = readHead()) {
      if (request->expectsContinue && !send("HTTP/1.1 100 Continue\r\n\r\n")) return;
      const std::optional<std::string> sum = readBody(request->length);
      if (!sum || !send(answer(*request, *sum))) return;
    }
  }

 private:
  std::optional<Request> readHead() {
    std::size_t end;
    while ((end = _head.find("\r\n\r\n")) == std::string::npos) {
      const ssize_t count = ::recv(_socket.get(), _block.data(), _block.size(), 0);
      if (count <= 0) return std::nullopt;
      _head.append(_block.data(), static_cast<std::size_t>(count));
    }
    const std::string_view head(_head.data(), end);
    Request request;
    const std::size_t space = head.find(' ');
    request.verb = head.substr(0, space);
    request.target = head.substr(space + 1, head.find(' ', space + 1) - space - 1);
    const std::string fields = lower(head);
    if (const std::size_t at = fields.find("\r\ncontent-length:"); at != std::string::npos) {
      request.length = std::strtoull(fields.c_str() + at + 17, nullptr, 10);
    }
    request.expectsContinue = fields.find("\r\nexpect: 100-continue") != std::string::npos;
    _head.erase(0, end + 4);
    return request;
  }

  // The body's MD5 in hexadecimal; nothing when the connection ended before the body did.
  std::optional<std::string> readBody(std::uint64_t length) {
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> md5(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr);
    const auto take = [&](const char* data, std::size_t size) {
      if (_options.md5) EVP_DigestUpdate(md5.get(), data, size);
      length -= size;
    };
    const std::size_t early = std::min<std::uint64_t>(_head.size(), length);
    take(_head.data(), early);
    _head.erase(0, early);
    while (length > 0) {
      const std::size_t most = std::min<std::uint64_t>(_block.size(), length);
      const ssize_t count = ::recv(_socket.get(), _block.data(), most, 0);
      if (count <= 0) return std::nullopt;
      take(_block.data(), static_cast<std::size_t>(count));
      pace(static_cast<std::size_t>(count));
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
    unsigned size = 0;
    EVP_DigestFinal_ex(md5.get(), sum.data(), &size);
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
      std::array<char, 3> digits{};
      std::snprintf(digits.data(), digits.size(), "%02x", sum[i]);
      text += digits.data();
    }
    return text;
  }

  void pace(std::size_t count) {
    if (_options.rate == 0) return;
    const auto now = std::chrono::steady_clock::now();
    // What a late wake-up lost is caught up with, an idle connection's time is not.
    _free = std::max(_free, now - std::chrono::milliseconds(20)) +
            std::chrono::nanoseconds(count * 1'000'000'000 / _options.rate);
    if (_free > now) std::this_thread::sleep_until(_free);
  }

  static std::string answer(const Request& request, const std::string& sum) {
    std::string body;
    std::string fields;
    std::string status = "200 OK";
    const auto has = [&](const char* text) {
      return request.target.find(text) != std::string::npos;
    };
    if (request.verb == "POST" && has("uploads")) {
      body =
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<InitiateMultipartUploadResult>"
          "<Bucket>bucket</Bucket><Key>file</Key><UploadId>upload-1</UploadId>"
          "</InitiateMultipartUploadResult>";
    } else if (request.verb == "POST") {
      body =
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<CompleteMultipartUploadResult>"
          "<Location>/bucket/file</Location><Bucket>bucket</Bucket><Key>file</Key>"
          "<ETag>&quot;complete-1&quot;</ETag></CompleteMultipartUploadResult>";
    } else if (request.verb == "PUT") {
      fields = "ETag: \"" + sum + "\"\r\n";
    } else if (has("location")) {
      body =
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
          "<LocationConstraint xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"/>";
    } else {
      status = "404 Not Found";  // nothing is kept
    }
    if (!body.empty()) fields += "Content-Type: application/xml\r\n";
    return "HTTP/1.1 " + status + "\r\n" + fields +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }

  bool send(std::string_view text) {
    while (!text.empty()) {
      const ssize_t count = ::send(_socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  const UniqueFd _socket;
  const Options _options;
  std::string _head;
  std::vector<char> _block = std::vector<char>(256 * 1024);
  std::chrono::steady_clock::time_point _free;
};

}  // namespace

int main(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    if (std::strcmp(arguments[i], "--rate") == 0 && i + 1 < count) {
      options.rate = std::strtoull(arguments[++i], nullptr, 10);
    } else if (std::strcmp(arguments[i], "--no-md5") == 0) {
      options.md5 = false;
    } else {
      std::fprintf(stderr, "usage: bench_sink [--rate BYTES-PER-SECOND] [--no-md5]\n");
      return 2;
    }
  }
  const UniqueFd listener = kovo::test::listenOnLoopback();
  if (options.rate != 0) {
    // What waits in the receive buffer would count as sent.
    const int size = 128 * 1024;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  std::printf("%u\n", static_cast<unsigned>(kovo::test::localPort(listener)));
  std::fflush(stdout);
  std::thread([&listener, options] {
    for (;;) {
      UniqueFd socket(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!socket) continue;
      std::thread([socket = std::move(socket), options]() mutable {
        Connection(std::move(socket), options).serve();
      }).detach();
    }
  }).detach();
  while (std::getchar() != EOF) {
  }
  std::_Exit(0);  // the connections' threads end with the process
}
