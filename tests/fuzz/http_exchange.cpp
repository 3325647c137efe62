// Whole answers of a hostile server, through the HTTP client.
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "platform/http_client.h"
#include "support/socket.h"

namespace kovo::test {
namespace {

constexpr char kProxySecret[] = "HiddenProxyWord";
constexpr char kOrigin[] = "http://host.test/";
constexpr int kPatienceMilliseconds = 50;

// Takes every connection, whatever host it is meant for, because the client is told that this is
// its proxy. Each request gets the next answer as it is.
class Server {
 public:
  Server() : _listener(listenOnLoopback()), _thread([this] { run(); }) {
    const std::string address = "http://127.0.0.1:" + std::to_string(localPort(_listener));
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy"}) {
      ::setenv(name, address.c_str(), 1);
    }
    for (const char* name : {"no_proxy", "NO_PROXY"}) {
      ::unsetenv(name);
    }
  }
  ~Server() {
    _stopping = true;
    _thread.join();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  void expect(std::deque<std::string> answers) {
    const std::lock_guard guard(_mutex);
    _answers = std::move(answers);
    _requests.clear();
  }
  std::vector<std::string> requests() {
    const std::lock_guard guard(_mutex);
    return _requests;
  }

 private:
  void run() {
    while (!_stopping) {
      pollfd ready{_listener.get(), POLLIN, 0};
      if (::poll(&ready, 1, kPatienceMilliseconds) == 1) {
        serve(UniqueFd(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
      }
    }
  }

  // Until the answers are all, or the client is silent: it waits for bytes that never come.
  void serve(UniqueFd connection) {
    std::string received;
    for (bool isLast = false; !isLast && read(connection, received);) {
      std::string answer;
      {
        const std::lock_guard guard(_mutex);
        _requests.push_back(std::exchange(received, {}));
        if (!_answers.empty()) {
          answer = std::move(_answers.front());
          _answers.pop_front();
        }
        isLast = _answers.empty();
      }
      const std::size_t half = answer.size() / 2;
      send(connection, answer.substr(0, half));
      send(connection, answer.substr(half));
    }
  }

  static void send(const UniqueFd& connection, const std::string& bytes) {
    static_cast<void>(::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }

  // A whole head; a body behind it is read as far as it has come.
  static bool read(const UniqueFd& connection, std::string& received) {
    char buffer[4096];
    while (!contains(received, "\r\n\r\n")) {
      pollfd ready{connection.get(), POLLIN, 0};
      if (::poll(&ready, 1, kPatienceMilliseconds) != 1) {
        return false;
      }
      const ssize_t count = ::recv(connection.get(), buffer, sizeof buffer, 0);
      if (count <= 0) {
        return false;
      }
      received.append(buffer, static_cast<std::size_t>(count));
    }
    return true;
  }

  const UniqueFd _listener;
  std::atomic<bool> _stopping{false};
  std::mutex _mutex;
  std::deque<std::string> _answers;   /* guarded by _mutex */
  std::vector<std::string> _requests; /* guarded by _mutex */
  std::thread _thread;
};

class Body : public HttpRequestBody {
 public:
  std::uint64_t length() const override { return kLength; }
  bool read(std::uint8_t* buffer, std::size_t capacity, std::size_t& bytesRead) override {
    bytesRead = std::min<std::size_t>(capacity, kLength - _position);
    std::fill_n(buffer, bytesRead, std::uint8_t{'b'});
    _position += bytesRead;
    return true;
  }
  bool rewind() override {
    _position = 0;
    return true;
  }

 private:
  static constexpr std::size_t kLength = 1000;
  std::size_t _position = 0;
};

std::deque<std::string> readAnswers(FuzzInput& input) {
  std::deque<std::string> answers(1);
  while (!input.isEmpty()) {
    const std::string line = input.line();
    if (line == "----" && answers.size() < 13) {
      answers.emplace_back();
    } else {
      answers.back() += line + "\n";
    }
  }
  return answers;
}

const std::string* find(const HttpResponseHead& head, const char* name) {
  const auto found = std::find_if(
      head.headers.begin(), head.headers.end(),
      [&](const Header& header) { return ::strcasecmp(header.first.c_str(), name) == 0; });
  return found == head.headers.end() ? nullptr : &found->second;
}

std::string readBody(HttpExchange& exchange, std::size_t count) {
  std::string body;
  std::vector<std::uint8_t> buffer(3000);
  std::size_t have = 0;
  for (;;) {
    const std::size_t want = std::min(count, buffer.size() - have);
    const std::size_t length = exchange.read(buffer.data() + have, want, buffer.size() - have);
    require(length <= want, "no more is read than was asked for");
    if (length == 0) {
      return body;
    }
    body.append(reinterpret_cast<const char*>(buffer.data()) + have, length);
    have = (have + length) % buffer.size();
  }
}

void checkRequests(const std::vector<std::string>& requests) {
  require(requests.size() <= 40, "redirects are bounded");
  for (const std::string& request : requests) {
    const std::size_t target = request.find(' ') + 1;
    const bool isForOrigin = request.compare(target, sizeof kOrigin - 1, kOrigin) == 0;
    require(isForOrigin || !contains(request, kSecret), "credentials stay with their origin");
    require(!contains(request, kProxySecret), "a proxy's password is not sent in the clear");
  }
}

}  // namespace

// A letter that chooses the request; the answers, with lines of four dashes between them.
KOVO_FUZZ_TARGET(http_exchange) {
  static Server server;
  const std::uint8_t choice = input.byte();
  const std::deque<std::string> answers = readAnswers(input);
  std::size_t sent = 0;
  for (const std::string& answer : answers) {
    if (contains(answer, kSecret) || contains(answer, kProxySecret)) {
      return;
    }
    sent += answer.size();
  }
  server.expect(answers);

  HttpClient::retain();
  HttpRequestMessage message;
  Body body;
  message.verb = choice % 4 == 1 ? "HEAD" : choice % 4 == 2 ? "PUT" : "GET";
  message.body = choice % 4 == 2 ? &body : nullptr;
  message.url = std::string(kOrigin) + "path?sig=" + kSecret;
  message.headers = {{"Authorization", kSecret}, {"Range", "bytes=0-99"}};
  message.proxyUsername = choice % 8 >= 4 ? "user" : "";
  message.proxyPassword = choice % 8 >= 4 ? kProxySecret : "";
  message.timeoutSeconds = 2;
  std::string failure;
  {
    const auto exchange = HttpClient::system().createExchange(nullptr);
    try {
      const HttpResponseHead& live = exchange->send(message);
      const HttpResponseHead head = live;
      require(head.status >= 200 || head.status == 101, "the head is the final one");
      for (const Header& header : head.headers) {
        require(!header.first.empty() && !contains(header.second, "\n"), "headers are whole");
      }
      if (message.verb != "HEAD") {
        const std::string text = readBody(*exchange, 1 + choice);
        require(text.size() <= sent, "no byte comes from nowhere");
        require(live.status == head.status && live.headers == head.headers,
                "nothing changes a head that was handed out");
        const std::string* length = find(head, "Content-Length");
        const bool isFramedByIt = length != nullptr && !find(head, "Transfer-Encoding") &&
                                  head.status != 204 && head.status != 304 && head.status != 101;
        require(!isFramedByIt || std::stoull(*length) == text.size(),
                "a body that ends well has its length");
      }
    } catch (const HttpFailure& caught) {
      failure = caught.what();
    }
  }
  require(!contains(failure, kSecret) && !contains(failure, kProxySecret),
          "a failure's text holds no secret");
  checkRequests(server.requests());
  HttpClient::release();
}

}  // namespace kovo::test
