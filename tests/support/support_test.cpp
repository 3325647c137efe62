#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/delaying_relay.h"
#include "support/fault_origin.h"
#include "support/nginx.h"
#include "support/proxy.h"
#include "support/serve_resource.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

milliseconds timeOf(const std::function<void()>& work) {
  const auto before = steady_clock::now();
  work();
  return std::chrono::duration_cast<milliseconds>(steady_clock::now() - before);
}

std::string get(const std::string& path, const std::string& headers = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: here\r\n" + headers + "Connection: close\r\n\r\n";
}

std::string bodyOf(const std::string& answer) {
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "<no body>" : answer.substr(end + 4);
}

TEST(Resource, IsTheSameFromAnyOffset) {
  const Resource resource(7, 100'003);
  const std::string all = resource.all();
  for (const uint64_t offset : {0u, 1u, 7u, 8u, 9u, 50'001u, 99'999u}) {
    EXPECT_EQ(resource.bytes(offset, 4), all.substr(offset, 4)) << offset;
  }
  EXPECT_NE(Resource(8, 100'003).bytes(0, 16), all.substr(0, 16));
  EXPECT_EQ(resource.sha256(), sha256Of(all));

  const TempDir folder;
  resource.writeTo(folder.file("good"));
  EXPECT_EQ(resource.differenceTo(folder.file("good")), "");
  writeFile(folder.file("short"), all.substr(0, 99'000));
  EXPECT_NE(resource.differenceTo(folder.file("short")).find("99000 bytes"), std::string::npos);
  std::string wrong = all;
  wrong[54'321] = static_cast<char>(wrong[54'321] ^ 1);
  writeFile(folder.file("wrong"), wrong);
  EXPECT_NE(resource.differenceTo(folder.file("wrong")).find("byte 54321"), std::string::npos);
}

TEST(FaultOrigin, ServesRangesAndRecordsRequests) {
  const Resource resource(1, 10'000);
  FaultOrigin origin(serveResource(resource));
  std::string answer = exchangeOnLoopback(origin.port(), get("/a?b=c", "rAnGe: bytes=10-19\r\n"));
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 206");
  EXPECT_NE(answer.find("Content-Range: bytes 10-19/10000\r\n"), std::string::npos);
  EXPECT_EQ(bodyOf(answer), resource.bytes(10, 10));
  answer = exchangeOnLoopback(origin.port(), get("/", "Range: bytes=9990-\r\n"));
  EXPECT_EQ(bodyOf(answer), resource.bytes(9990, 10));
  answer = exchangeOnLoopback(origin.port(), get("/", "Range: bytes=10000-10001\r\n"));
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 416");
  answer = exchangeOnLoopback(origin.port(), get("/", "Range: bytes=0-1\r\nIf-Range: \"x\"\r\n"));
  EXPECT_EQ(bodyOf(answer), resource.all());

  /* Two requests in one go over one connection. */
  const std::string first = "POST /p HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc";
  exchangeOnLoopback(origin.port(), first + get("/last"));
  const std::vector<OriginRequest> requests = origin.requests();
  ASSERT_EQ(requests.size(), 6u);
  EXPECT_EQ(requests[0].path, "/a");
  EXPECT_EQ(requests[0].query, "b=c");
  EXPECT_EQ(requests[4].body, "abc");
  EXPECT_EQ(requests[5].connection, requests[4].connection);
  EXPECT_EQ(requests[5].onConnection, 1u);
  EXPECT_EQ(origin.connectionsOpened(), 5u);
}

TEST(FaultOrigin, CutsResetsDripsAndChunks) {
  const Resource resource(2, 100'000);
  FaultOrigin origin([&resource](const OriginRequest& request, Responder& to) {
    if (request.path == "/cut") {
      to.head(200, {{"Content-Length", "100000"}});
      to.cutAfter(1234);
      to.range(resource, 0, 100'000);
    } else if (request.path == "/reset") {
      to.reset();
    } else if (request.path == "/drip") {
      to.setRate(100'000);
      to.raw(resource.bytes(0, 30'000));
      to.close();
    } else {
      to.head(200, {{"Transfer-Encoding", "chunked"}});
      to.chunk("0123456789abcdef");
      to.endChunks();
    }
  });
  EXPECT_EQ(bodyOf(exchangeOnLoopback(origin.port(), get("/cut"))), resource.bytes(0, 1234));
  EXPECT_EQ(exchangeOnLoopback(origin.port(), get("/reset")), "");
  EXPECT_EQ(bodyOf(exchangeOnLoopback(origin.port(), get("/chunks"))),
            "10\r\n0123456789abcdef\r\n0\r\n\r\n");
  std::string answer;
  const milliseconds took =
      timeOf([&] { answer = exchangeOnLoopback(origin.port(), get("/drip")); });
  EXPECT_EQ(answer, resource.bytes(0, 30'000));
  EXPECT_GE(took.count(), 200);
}

TEST(FaultOrigin, EndsWithinASecondWhateverItsConnectionsDo) {
  std::vector<UniqueFd> clients;
  milliseconds took{0};
  {
    auto origin = std::make_unique<FaultOrigin>([](const OriginRequest& request, Responder& to) {
      if (request.path == "/headers") to.endlessHeaders();
      if (request.path == "/stall") to.stall();
      if (request.path == "/drip") {
        to.setRate(10);
        to.raw(std::string(1'000'000, 'x'));
      }
    });
    for (const char* path : {"/headers", "/stall", "/drip"}) {
      clients.push_back(connectToLoopback(origin->port()));
      const std::string request = get(path);
      ASSERT_EQ(::send(clients.back().get(), request.data(), request.size(), 0),
                static_cast<ssize_t>(request.size()));
    }
    clients.push_back(connectToLoopback(origin->port())); /* says nothing */
    ASSERT_TRUE(waitUntil([&] { return origin->requestCount() == 3; }, milliseconds(5000)));
    took = timeOf([&] { origin.reset(); });
  }
  EXPECT_LT(took.count(), 1000);
}

TEST(FaultOrigin, ReleasesTheStalled) {
  FaultOrigin origin([](const OriginRequest&, Responder& to) {
    to.closeAfterwards();
    to.stall();
    to.respond(200, {}, "late");
  });
  std::string answer;
  std::thread client([&] { answer = exchangeOnLoopback(origin.port(), get("/")); });
  waitUntil([&] { return origin.requestCount() == 1; }, milliseconds(5000));
  origin.release();
  client.join();
  EXPECT_EQ(bodyOf(answer), "late");
}

TEST(Nginx, ServesPlainTlsHttp2AndDav) {
  const Nginx nginx;
  const TempDir folder;
  const Resource resource(3, 300'000);
  nginx.add("file.bin", resource);
  for (const std::string& url :
       {nginx.url("/file.bin"), nginx.tlsUrl("/file.bin"), nginx.http2Url("/file.bin")}) {
    ChildProcess::run({"curl", "-sSf", "--noproxy", "*", "--cacert", nginx.authorityFile(), "-o",
                       folder.file("out"), url},
                      folder.file("curl.out"));
    EXPECT_EQ(resource.differenceTo(folder.file("out")), "") << url;
  }
  ChildProcess::run(
      {"curl", "-sSf", "--noproxy", "*", "-T", folder.file("out"), nginx.url("/dav/new/copy.bin")},
      folder.file("curl.out"));
  EXPECT_EQ(resource.differenceTo(nginx.davFile("new/copy.bin")), "");
  ASSERT_TRUE(waitUntil([&] { return nginx.accesses().size() == 4; }, milliseconds(5000)));
  EXPECT_EQ(nginx.connectionCount(), 4u);
  const std::vector<NginxAccess> accesses = nginx.accesses();
  EXPECT_EQ(accesses[0].protocol, "HTTP/1.1");
  EXPECT_EQ(accesses[0].bodyBytes, 300'000u);
  EXPECT_EQ(accesses[1].protocol, "HTTP/1.1");
  EXPECT_EQ(accesses[2].protocol, "HTTP/2.0");
  EXPECT_EQ(accesses[3].status, 201);
}

TEST(Nginx, StartsAndEndsWithWorkers) {
  NginxOptions options;
  options.workers = 2;
  pid_t master = 0;
  {
    const Nginx nginx(options);
    master = nginx.pid();
    nginx.add("x", Resource(1, 10));
    EXPECT_EQ(bodyOf(exchangeOnLoopback(nginx.port(), get("/x"))), Resource(1, 10).all());
  }
  EXPECT_EQ(::kill(master, 0), -1);
}

TEST(Proxy, PassesOnOnlyWithItsCredentials) {
  FaultOrigin origin(serveResource(Resource(4, 1000)));
  const Proxy proxy("user", "secret");
  const TempDir folder;
  const auto curl = [&](const std::vector<std::string>& more) {
    std::vector<std::string> arguments{
        "curl", "-sSf", "-x", proxy.url(), "--noproxy", "", "-o", folder.file("out"), origin.url()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    ChildProcess::run(arguments, folder.file("curl.out"));
  };
  EXPECT_THROW(curl({}), std::runtime_error);
  EXPECT_EQ(origin.requestCount(), 0u);
  curl({"-U", "user:secret"});
  EXPECT_EQ(Resource(4, 1000).differenceTo(folder.file("out")), "");
  EXPECT_GE(proxy.requestCount(), 1u);
}

TEST(DelayingRelay, DelaysBothWaysAndCapsEachConnection) {
  const Resource resource(5, 400'000);
  FaultOrigin origin(serveResource(resource));
  RelayOptions options;
  options.delay = milliseconds(20);
  options.connectionRate = 2'000'000;
  const DelayingRelay relay(origin.port(), options);
  std::vector<std::thread> clients;
  std::vector<std::string> answers(4);
  const milliseconds took = timeOf([&] {
    for (std::string& answer : answers) {
      clients.emplace_back([&] { answer = exchangeOnLoopback(relay.port(), get("/")); });
    }
    for (std::thread& client : clients) client.join();
  });
  for (const std::string& answer : answers) EXPECT_EQ(bodyOf(answer), resource.all());
  /* 200 ms for the bytes, 40 for the handshake, 40 for the request and its answer. */
  EXPECT_GE(took.count(), 270);
  EXPECT_EQ(relay.connectionsOpened(), 4u);
}

}  // namespace
}  // namespace kovo::test
