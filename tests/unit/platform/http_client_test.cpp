#include "platform/http_client.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <thread>

#include "http_client_fixture.h"
#include "support/fault_origin.h"
#include "support/serve_resource.h"
#include "support/wait_until.h"

namespace kovo::test {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST_F(HttpClientTest, ReusesConnectionsAndClosesThemWithTheLastEngine) {
  const Resource resource(1, 4096);
  FaultOrigin origin(serveResource(resource));
  get(origin.url());
  HttpClient::release();
  const std::size_t before = openDescriptors();
  HttpClient::retain();
  std::atomic<int> good = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        const Fetched fetched = get(origin.url("/x?" + std::to_string(i)));
        good += fetched.head.status == 200 && fetched.body == resource.all() ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(good, 200);
  EXPECT_LE(origin.connectionsOpened(), 9u);
  HttpClient::release();
  // The origin's own ends live in this process too and close once it sees ours close.
  EXPECT_TRUE(waitUntil([&] { return openDescriptors() <= before; }, std::chrono::seconds(5)));
  HttpClient::retain();
}

// Odd sizes, blocks smaller than one piece of libcurl's, and blocks that end anywhere.
TEST_F(HttpClientTest, DeliversEveryByteWhateverSpaceTheCallerHas) {
  const Resource resource(2, 3 * 1024 * 1024 + 17);
  for (const bool chunked : {false, true}) {
    ServeOptions options;
    options.chunked = chunked;
    FaultOrigin origin(serveResource(resource, options));
    for (const auto& [count, block] : std::vector<std::pair<std::size_t, std::size_t>>{
             {32768, 1048576}, {1000, 1003}, {7001, 300007}, {65536, 65536}, {2000000, 4000000}}) {
      const Fetched fetched = fetch(request("GET", origin.url()), nullptr, count, block);
      EXPECT_EQ(fetched.failure, KOVO_ERROR_NONE) << fetched.text;
      EXPECT_TRUE(fetched.body == resource.all()) << count << "/" << block;
    }
    EXPECT_EQ(origin.connectionsOpened(), 1u);
  }
}

TEST_F(HttpClientTest, GoesOnWhenTheCallerReadsToAnotherPlace) {
  const Resource resource(3, 600000);
  FaultOrigin origin(serveResource(resource));
  const auto exchange = HttpClient::system().createExchange(nullptr);
  exchange->send(request("GET", origin.url()));
  std::vector<std::uint8_t> first(100000), second(5000);
  std::string body;
  for (bool odd = false;; odd = !odd) {
    auto& buffer = odd ? second : first;
    const std::size_t length = exchange->read(buffer.data(), 999, buffer.size());
    if (length == 0) {
      break;
    }
    body.append(reinterpret_cast<const char*>(buffer.data()), length);
  }
  EXPECT_TRUE(body == resource.all());
}

TEST_F(HttpClientTest, ReportsTheFinalHeadAsItWasSent) {
  FaultOrigin origin([](const OriginRequest& asked, Responder& to) {
    if (asked.path == "/final") {
      to.raw(
          "HTTP/1.1 102 Processing\r\nX-Interim: 1\r\n\r\nHTTP/1.1 103 Early Hints\r\n\r\n"
          "HTTP/1.1 203 Quite  Fine\r\nB: 2\r\nA:  1 \r\nB: three\r\n folded\r\nEmpty:\r\n"
          "Content-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n"
          "3;x=y\r\nabc\r\n0\r\nTrailer: t\r\n\r\n");
    } else if (asked.path == "/old") {
      to.raw("HTTP/1.0 200 OK\r\n\r\nuntil the end");
      to.close();
    } else if (asked.path == "/204") {
      to.raw("HTTP/1.1 204 No Content\r\nX: y\r\n\r\n");
    } else {
      to.respond(200, {}, "body");  // without the body to a HEAD
    }
  });
  const Fetched fetched = get(origin.url("/final"));
  EXPECT_EQ(fetched.head.status, 203u);
  EXPECT_EQ(fetched.head.reason, "Quite  Fine");
  EXPECT_EQ(fetched.head.version, "Http11");
  const HeaderList expected = {{"B", "2"},
                               {"A", "1"},
                               {"B", "three folded"},
                               {"Empty", ""},
                               {"Content-Encoding", "gzip"},
                               {"Transfer-Encoding", "chunked"}};
  EXPECT_EQ(fetched.head.headers, expected);
  EXPECT_EQ(fetched.body, "abc");

  EXPECT_EQ(get(origin.url("/204")).head.status, 204u);
  const Fetched head = fetch(request("HEAD", origin.url("/head")));
  EXPECT_EQ(headerOf(head.head, "Content-Length"), "4");
  EXPECT_EQ(get(origin.url("/after")).body, "body");
  EXPECT_EQ(origin.connectionsOpened(), 1u);

  const Fetched old = get(origin.url("/old"));
  EXPECT_EQ(old.head.version, "Http10");
  EXPECT_EQ(old.body, "until the end");
}

TEST_F(HttpClientTest, SendsWhatItIsGivenAndLittleElse) {
  FaultOrigin origin([](const OriginRequest&, Responder& to) { to.respond(200, {}, "x"); });
  StringBody body("some bytes");
  StringBody empty("");
  const auto sendWith = [&](const char* verb, HttpRequestBody* with, HeaderList headers) {
    HttpRequestMessage message = request(verb, origin.url(), std::move(headers));
    message.body = with;
    const Fetched fetched = fetch(message);
    EXPECT_EQ(fetched.head.status, 200u) << verb << fetched.text;
    OriginRequest seen = origin.requests().back();
    EXPECT_EQ(seen.verb, verb);
    EXPECT_FALSE(seen.header("Expect"));
    EXPECT_FALSE(seen.header("Accept"));
    EXPECT_FALSE(seen.header("Transfer-Encoding"));
    return seen;
  };
  const auto count = [](const OriginRequest& seen, const std::string& name) {
    return std::count_if(seen.headers.begin(), seen.headers.end(),
                         [&](const auto& header) { return header.first == name; });
  };
  // The upload first: nothing of it may linger in the requests that reuse its session.
  OriginRequest seen = sendWith("PUT", &body, {{"Content-Length", "10"}, {"Content-Type", "a/b"}});
  EXPECT_EQ(seen.body, "some bytes");
  EXPECT_EQ(count(seen, "Content-Length"), 1);
  seen = sendWith("GET", nullptr, {{"Accept-Encoding", "*"}, {"Range", "bytes=0-9"}});
  EXPECT_EQ(seen.headers.size(), 4u);  // Host and User-Agent besides
  EXPECT_EQ(seen.header("User-Agent"), "KOVO/1.3.0.000");
  EXPECT_EQ(sendWith("HEAD", nullptr, {}).headers.size(), 2u);
  seen = sendWith("POST", &empty, {{"User-Agent", "mine"}, {"X-Empty", ""}});
  EXPECT_EQ(seen.header("Content-Length"), "0");
  EXPECT_EQ(seen.header("User-Agent"), "mine");
  EXPECT_EQ(seen.header("X-Empty"), "");
  for (const char* verb : {"DELETE", "OPTIONS", "PUT", "PATCH"}) {
    EXPECT_FALSE(sendWith(verb, nullptr, {{"Content-Length", "5"}}).header("Content-Length"));
  }
  EXPECT_EQ(sendWith("PATCH", &empty, {}).header("Content-Length"), "0");
  EXPECT_EQ(origin.connectionsOpened(), 1u);

  const std::size_t before = origin.requestCount();
  for (const Header& bad : {Header{"X", "a\r\nInjected: b"}, Header{"X", std::string("a\0b", 3)},
                            Header{"X\r\nY", "a"}, Header{"X: Y", "a"}, Header{"", "a"}}) {
    EXPECT_EQ(fetch(request("GET", origin.url(), {bad})).failure, HttpFailure::kPlatformFailure);
  }
  EXPECT_EQ(fetch(request("GET /x HTTP/1.1\r\nA:", origin.url())).failure,
            HttpFailure::kPlatformFailure);
  EXPECT_EQ(get("http://127.0.0.1:port/").failure, HttpFailure::kPlatformFailure);
  EXPECT_EQ(get("file:///etc/passwd").failure, HttpFailure::kPlatformFailure);
  EXPECT_EQ(origin.requestCount(), before);
}

TEST_F(HttpClientTest, FollowsRedirectsAndCarriesNoCredentialsElsewhere) {
  FaultOrigin other([](const OriginRequest&, Responder& to) { to.respond(200, {}, "there"); });
  FaultOrigin origin([&](const OriginRequest& asked, Responder& to) {
    const std::string query = asked.query;
    if (asked.path == "/loop") {
      to.respond(302, {{"Location", "loop?" + std::to_string(asked.index)}}, "moved");
    } else if (asked.path == "/see") {
      to.respond(303, {{"Location", "/seen"}}, std::string(100000, 'x'));
    } else if (asked.path == "/moved") {
      to.respond(302, {{"Location", "/seen"}});
    } else if (asked.path == "/again") {
      to.respond(307, {{"Location", "./seen#fragment"}});
    } else if (asked.path == "/away") {
      to.respond(308, {{"Location", other.url("/x y")}}, "moved");
    } else if (asked.path == "/ftp") {
      to.respond(301, {{"Location", "ftp://127.0.0.1/"}});
    } else if (asked.path == "/resumes") {
      to.respond(308, {{"Range", "bytes=0-9"}}, "go on");
    } else {
      to.respond(200, {}, "here");
    }
  });
  const auto upload = [&](const char* verb, const char* path, StringBody& body) {
    HttpRequestMessage message = request(verb, origin.url(path), {{"Content-Type", "a/b"}});
    message.body = &body;
    return fetch(message);
  };
  const Fetched loop = get(origin.url("/loop?secret=1"));
  EXPECT_EQ(loop.failure, HttpFailure::kPlatformFailure);
  EXPECT_THAT(loop.text, HasSubstr("redirects"));
  EXPECT_THAT(loop.text, Not(HasSubstr("secret")));
  EXPECT_EQ(origin.requestCount(), 11u);
  EXPECT_EQ(origin.connectionsOpened(), 1u);
  EXPECT_EQ(get(origin.url("/ftp")).failure, HttpFailure::kPlatformFailure);

  for (const auto& [verb, path, finalVerb, finalBody] :
       std::vector<std::array<const char*, 4>>{{"POST", "/see", "GET", ""},
                                               {"POST", "/moved", "GET", ""},
                                               {"PUT", "/moved", "PUT", "body"},
                                               {"POST", "/again", "POST", "body"}}) {
    StringBody body("body");
    EXPECT_EQ(upload(verb, path, body).body, "here") << verb << path;
    const OriginRequest last = origin.requests().back();
    EXPECT_EQ(last.target, "/seen");
    EXPECT_EQ(last.verb, finalVerb);
    EXPECT_EQ(last.body, finalBody);
    EXPECT_EQ(last.header("Content-Type").has_value(), last.verb != "GET");
  }
  StringBody once("body");
  once.canRewind = false;
  EXPECT_EQ(upload("PUT", "/again", once).failure, HttpFailure::kPlatformFailure);
  StringBody part("body");
  EXPECT_EQ(upload("PUT", "/resumes", part).head.status, 308u);

  std::string url = origin.url("/away");
  url.insert(url.find("127."), "user:pass@");
  EXPECT_EQ(fetch(request("GET", url,
                          {{"Authorization", "a"},
                           {"Cookie", "b"},
                           {"Host", "h"},
                           {"x-amz-security-token", "c"},
                           {"X-Custom-AUTH", "d"},
                           {"X-Kept", "e"}}))
                .body,
            "there");
  const OriginRequest arrived = other.requests().back();
  EXPECT_EQ(arrived.target, "/x%20y");
  EXPECT_EQ(arrived.headers.size(), 3u);  // Host, User-Agent and
  EXPECT_EQ(arrived.header("X-Kept"), "e");
  EXPECT_NE(arrived.header("Host"), "h");
}

// What came before the failure is delivered; nothing that is not whole passes for whole.
TEST_F(HttpClientTest, FailsOnMalformedAndTruncatedResponses) {
  const std::vector<std::pair<std::string, std::string>> answers = {
      {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfive.", "five."},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfive.\r\n", "five."},
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfive.\r\nzz\r\n", "five."},
      {"HTTP/1.1 200 OK\r\nContent-Length: ten\r\n\r\nfive.", ""},
      {"HTTP/1.1 200 OK\r\nContent-Length: 5, 4\r\n\r\nfive.", ""},
      {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 4\r\n\r\nfive.", ""},
      {"HTTP/1.1 200 OK\r\nX: a\0b\r\n\r\n"s, ""},
      {"SSH-2.0-nothing to see here\r\n\r\n", ""},
      {"HTTP/1.1 abc OK\r\n\r\n", ""},
      {"HTTP/1.1 200 OK\r\nX: y\r\n", ""},
      {"", ""}};
  FaultOrigin origin([&](const OriginRequest& asked, Responder& to) {
    if (asked.path == "/endless") {
      to.endlessHeaders();
    }
    to.raw(answers[std::stoul(asked.query)].first);
    to.close();
  });
  for (std::size_t i = 0; i < answers.size(); ++i) {
    const Fetched fetched = get(origin.url("/x?" + std::to_string(i)));
    EXPECT_EQ(fetched.failure, HttpFailure::kPlatformFailure) << answers[i].first;
    EXPECT_EQ(fetched.body, answers[i].second) << answers[i].first;
    EXPECT_THAT(fetched.text, HasSubstr("127.0.0.1"));
  }
  EXPECT_EQ(get(origin.url("/endless")).failure, HttpFailure::kPlatformFailure);
  EXPECT_LT(origin.bytesSent(), 16u * 1024 * 1024);
}

TEST_F(HttpClientTest, UploadsWholeBodiesAndTellsWhatStoppedThem) {
  const std::string bytes = Resource(4, 5 * 1024 * 1024 + 3).all();
  FaultOriginOptions options;
  options.readsBodies = false;
  std::string received;
  FaultOrigin origin(
      [&](const OriginRequest& asked, Responder& to) {
        if (asked.path == "/refused") {
          to.respond(403, {{"Connection", "close"}}, "no");
          to.stallFor(std::chrono::milliseconds(50));
          to.close();
        }
        if (asked.path == "/early") {
          // The answer's head and a part of its body come before the request's body is read.
          to.raw("HTTP/1.1 200 OK\r\nContent-Length: 200000\r\n\r\n" + std::string(150000, 'e'));
          received = to.readBody();
          to.raw(std::string(50000, 'e'));
          return;
        }
        if (asked.path == "/dies" && asked.onConnection > 0) {
          to.reset();
        }
        received = to.readBody();
        to.respond(200, {}, "done");
      },
      options);
  const auto upload = [&](const char* path, HttpRequestBody& body) {
    HttpRequestMessage message = request("PUT", origin.url(path));
    message.body = &body;
    return fetch(message);
  };
  StringBody whole(bytes);
  EXPECT_EQ(upload("/", whole).body, "done");
  EXPECT_TRUE(received == bytes);
  StringBody early(bytes);
  EXPECT_EQ(upload("/early", early).body.size(), 200000u);
  EXPECT_TRUE(received == bytes);
  EXPECT_EQ(origin.connectionsOpened(), 1u);
  StringBody again(bytes);
  EXPECT_EQ(upload("/dies", again).body, "done");
  EXPECT_TRUE(received == bytes);
  EXPECT_EQ(origin.connectionsOpened(), 2u);

  StringBody refused(bytes);
  const Fetched answer = upload("/refused", refused);
  EXPECT_EQ(answer.head.status, 403u) << answer.text;
  EXPECT_EQ(answer.body, "no");
  StringBody failing(bytes);
  failing.failsBehind = 1024 * 1024;
  const Fetched failed = upload("/", failing);
  EXPECT_EQ(failed.failure, HttpFailure::kPlatformFailure);
  EXPECT_THAT(failed.text, HasSubstr("body"));
  StringBody after("small");
  EXPECT_EQ(upload("/", after).body, "done");
}

TEST_F(HttpClientTest, SurvivesKeptConnectionsThatDiedAndResponsesLeftUnread) {
  const Resource resource(5, 8 * 1024 * 1024);
  FaultOrigin origin([&](const OriginRequest& asked, Responder& to) {
    if (asked.path == "/dies" && asked.onConnection > 0) {
      to.reset();
    }
    serveResource(resource)(asked, to);
  });
  const auto small = [&](const char* path) {
    return fetch(request("GET", origin.url(path), {{"Range", "bytes=0-99"}}));
  };
  EXPECT_EQ(small("/").body, resource.bytes(0, 100));
  EXPECT_EQ(small("/dies").body, resource.bytes(0, 100));
  EXPECT_EQ(origin.connectionsOpened(), 2u);
  {
    const auto abandoned = HttpClient::system().createExchange(nullptr);
    EXPECT_EQ(abandoned->send(request("GET", origin.url())).status, 200u);
    std::uint8_t some[10];
    EXPECT_EQ(abandoned->read(some, 10, 10), 10u);
  }
  const auto unsent = HttpClient::system().createExchange(nullptr);
  EXPECT_EQ(small("/").body, resource.bytes(0, 100));
  EXPECT_EQ(origin.connectionsOpened(), 3u);
}

}  // namespace
}  // namespace kovo::test
