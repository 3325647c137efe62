#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "http_client_fixture.h"
#include "support/fault_origin.h"
#include "support/socket.h"

// Takes the place of the C library's for the whole program: some names never resolve.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
  if (name && std::string_view(name).ends_with(".stalled.test")) {
    while (true) {
      pause();
    }
  }
  using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(name, service, hints, result);
}

namespace kovo::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A port that never answers a connection attempt: its queue is full.
class BlackHole {
 public:
  BlackHole() {
    EXPECT_EQ(listen(_listener.get(), 0), 0);
    for (int i = 0; i < 4; ++i) {
      _queued.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(localPort(_listener));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      connect(_queued.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
  }
  std::string url() const {
    return "http://127.0.0.1:" + std::to_string(localPort(_listener)) + "/";
  }

 private:
  UniqueFd _listener = listenOnLoopback();
  std::vector<UniqueFd> _queued;
};

class HttpClientWaitsTest : public HttpClientTest {
 protected:
  HttpClientWaitsTest() {
    FaultOriginOptions options;
    options.readsBodies = false;
    _origin.emplace(
        [](const OriginRequest& asked, Responder& to) {
          if (asked.path == "/drip") {
            to.head(200, {{"Content-Length", "8"}});
            for (int i = 0; i < 8; ++i) {
              to.stallFor(milliseconds(250));
              to.raw("x");
            }
            return;
          }
          if (asked.path == "/body") {
            to.head(200, {{"Content-Length", "100"}});
            to.raw("some");
          }
          to.stall();
        },
        options);
    // Speaks no TLS: accepts and keeps still.
    _silent = listenOnLoopback();
  }

  // One request for each thing there is to wait for.
  std::vector<HttpRequestMessage> stalls() {
    const std::string silent = "https://127.0.0.1:" + std::to_string(localPort(_silent)) + "/";
    std::vector<HttpRequestMessage> all = {request("GET", "http://name.stalled.test/"),
                                           request("GET", _hole.url()),
                                           request("GET", silent),
                                           request("GET", _origin->url("/headers")),
                                           request("GET", _origin->url("/body")),
                                           request("PUT", _origin->url("/upload"))};
    all.back().body = &_large;
    return all;
  }

  std::optional<FaultOrigin> _origin;
  UniqueFd _silent;
  BlackHole _hole;
  StringBody _large{std::string(64 * 1024 * 1024, 'x')};
};

TEST_F(HttpClientWaitsTest, EveryStallEndsAtTheInactivityLimitAndNothingElseDoes) {
  std::vector<HttpRequestMessage> all = stalls();
  all.push_back(request("GET", _origin->url("/drip")));
  std::vector<Fetched> results(all.size());
  std::vector<double> seconds(all.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < all.size(); ++i) {
    all[i].timeoutSeconds = 1;
    threads.emplace_back([&, i] {
      const auto begun = Clock::now();
      results[i] = fetch(all[i]);
      seconds[i] = std::chrono::duration<double>(Clock::now() - begun).count();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  // On a slow machine libcurl's own limit comes first and says "connection".
  const std::vector<std::string> phases = {"resolving", "connecti", "connecti",
                                           "headers",   "body",     "sending"};
  for (std::size_t i = 0; i < phases.size(); ++i) {
    EXPECT_EQ(results[i].failure, KOVO_ERROR_TIMEOUT) << phases[i] << results[i].text;
    EXPECT_NE(results[i].text.find(phases[i]), std::string::npos) << results[i].text;
    EXPECT_GE(seconds[i], 0.9) << phases[i];
    EXPECT_LE(seconds[i], 3) << phases[i];
  }
  EXPECT_EQ(results.back().body, "xxxxxxxx") << results.back().text;
}

TEST_F(HttpClientWaitsTest, EveryWaitCanBeCancelled) {
  for (const HttpRequestMessage& message : stalls()) {
    const auto deadline = Clock::now() + milliseconds(120);
    const Fetched result = fetch(message, [&] { return Clock::now() >= deadline; });
    EXPECT_TRUE(result.cancelled) << message.url << result.text;
    // At most 200 ms by itself; sanitizers and a busy machine take their share.
    EXPECT_LE(Clock::now() - deadline, milliseconds(2000)) << message.url;
  }
}

}  // namespace
}  // namespace kovo::test
