#include "callbacks/client_callback_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_kovo_engine.h"
#include "support/log_capture.h"
#include "support/manual_clock.h"

namespace kovo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// What the client heard, in order; the transfer's context.
struct Client {
  std::vector<std::string> heard;
  ClientCallbackHandler* handler = nullptr;

  static Client& of(void* context) { return *static_cast<Client*>(context); }
};

void hear(void* context, const std::string& what) {
  Client::of(context).heard.push_back(what);
}

class ClientCallbackHandlerTest : public testing::Test {
 protected:
  ClientCallbackHandlerTest() {
    client.handler = &handler;
    CallbackTable& table = engine.callbacks;
    table.error = [](kovo_instance, std::uint32_t code, const char* message, void* context) {
      hear(context, "error " + std::to_string(code) + " " + message);
    };
    table.completion = [](kovo_instance, void* context) { hear(context, "completion"); };
    table.cancellation = [](kovo_instance, void* context) { hear(context, "cancellation"); };
    table.paused = [](kovo_instance, void* context) { hear(context, "paused"); };
    table.responseBody = [](kovo_instance, std::uint64_t offset, const std::uint8_t* data,
                            std::uint64_t size, void* context) {
      hear(context, "body " + std::to_string(offset) + " " + std::string(data, data + size));
    };
    table.statusLine = [](kovo_instance, const char* version, std::uint32_t status,
                          const char* reason, void* context) {
      hear(context, std::string(version) + " " + std::to_string(status) + " " + reason);
    };
    table.progress = [](kovo_instance, std::uint64_t bytes, std::uint64_t total, void* context) {
      hear(context, std::to_string(bytes) + "/" + std::to_string(total));
    };
    table.responseHeader = [](kovo_instance, const kovo_header_ref* headers, std::uint32_t count,
                              void* context) {
      hear(context, std::string(headers[count - 1].name) + "=" + headers[count - 1].value);
    };
  }

  void body() { handler.invokeResponseBodyCallback(7, reinterpret_cast<const uint8_t*>("ab"), 2); }

  test::FakeKovoEngine engine;
  test::ManualClock clock;
  test::LogCapture log;
  Client client;
  ClientCallbackHandler handler{&engine, &engine.callbacks, &client, &clock};
};

TEST_F(ClientCallbackHandlerTest, CallbacksCarryTheInstance) {
  static kovo_instance seen = nullptr;
  engine.callbacks.completion = [](kovo_instance instance, void*) { seen = instance; };
  handler.invokeCompletionCallback();
  EXPECT_EQ(seen, reinterpret_cast<kovo_instance>(static_cast<KovoEngine*>(&engine)));
}

TEST_F(ClientCallbackHandlerTest, CancellationClosesTheGateButNotTheStatusLine) {
  body();
  handler.invokePausedCallback();
  handler.invokePausedCallback();
  EXPECT_TRUE(handler.setCancelled(false));
  body();
  handler.invokePausedCallback();
  handler.invokeProgressCallback(1);
  handler.invokeResponseHeaderCallback({{"A", "1"}}, false);
  handler.invokeStatusLineCallback("Http11", 206, "Partial Content");
  handler.invokeStatusLineCallback("Http11", 200, "OK");
  EXPECT_THAT(client.heard,
              ElementsAre("body 7 ab", "paused", "paused", "Http11 206 Partial Content"));
}

TEST_F(ClientCallbackHandlerTest, TheFirstFinalCallbackIsTheOnlyOne) {
  handler.setCancelled(false);
  handler.invokeErrorCallback(makeKovoError(KOVO_ERROR_TIMEOUT, "slow"));
  handler.invokeCancellationCallback();
  handler.invokeCompletionCallback();
  body();
  EXPECT_THAT(client.heard, ElementsAre("error 29 Timeout. slow"));
  EXPECT_THAT(log.messages(), ElementsAre("Request Failed. ErrorCode: 29 errorMessage: Timeout. "
                                          "slow"));
}

TEST_F(ClientCallbackHandlerTest, ACancellationDueToErrorIsSilentAndFinal) {
  handler.setCancelled(true);
  handler.invokeCancellationCallback();
  handler.invokeErrorCallback(makeKovoError(KOVO_ERROR_CANCELLED, "x"));
  EXPECT_THAT(client.heard, IsEmpty());
}

TEST_F(ClientCallbackHandlerTest, ProgressComesAtMostOncePerInterval) {
  handler.invokeProgressCallback(10);
  handler.setTotalBytes(100);
  clock.advance(10);
  handler.invokeProgressCallback(20);
  clock.advance(1989);
  handler.invokeProgressCallback(5);
  clock.advance(1);
  handler.invokeProgressCallback(1);
  handler.retractProgress(6);
  clock.advance(2000);
  handler.invokeProgressCallback(0);
  handler.retractProgress(1000);
  clock.advance(-3'600'000);  // the clock is set back by an hour
  handler.invokeProgressCallback(2);
  EXPECT_THAT(client.heard, ElementsAre("10/0", "36/100", "30/100", "2/100"));
}

TEST_F(ClientCallbackHandlerTest, HeadersOfTheFirstResponseAndOfOneLaterFailure) {
  handler.invokeResponseHeaderCallback({{"A", "1"}, {"B", "2"}}, false);
  handler.invokeResponseHeaderCallback({{"C", "3"}}, false);
  handler.invokeResponseHeaderCallback({{"D", "4"}}, true);
  handler.invokeResponseHeaderCallback({{"E", "5"}}, true);
  handler.invokeResponseHeaderCallback({{"F", "6"}}, false);
  EXPECT_THAT(client.heard, ElementsAre("B=2", "D=4"));
}

TEST_F(ClientCallbackHandlerTest, ClientExceptionsEndAtTheHandler) {
  engine.callbacks.responseBody = [](kovo_instance, std::uint64_t, const std::uint8_t*,
                                     std::uint64_t, void*) { throw 1; };
  engine.callbacks.requestBody = [](kovo_instance, std::uint64_t, std::uint8_t*,
                                    std::uint64_t* bytesRead, std::uint64_t, void*) {
    *bytesRead = 5;
    throw 1;
  };
  engine.callbacks.requestBodyContentLength = [](kovo_instance, std::uint64_t* length, void*) {
    *length = 5;
    throw std::runtime_error("no");
  };
  engine.callbacks.chunkErrorRetry = [](kovo_instance, kovo_chunk_type, std::uint32_t,
                                        std::uint32_t, std::uint32_t, const char*,
                                        void*) -> std::int32_t { throw 1; };
  engine.callbacks.sslCertificatePolicy = [](kovo_instance, const char*, std::uint32_t* answer,
                                             void*) {
    *answer = 0;
    throw 1;
  };
  engine.callbacks.error = [](kovo_instance, std::uint32_t, const char*, void*) { throw 1; };
  body();
  std::uint64_t count = 1;
  handler.invokeRequestBodyCallback(0, nullptr, &count, 10);
  EXPECT_EQ(count, 0U);
  count = 1;
  handler.invokeRequestBodyContentLengthCallback(&count);
  EXPECT_EQ(count, 0U);
  EXPECT_FALSE(handler.invokeChunkErrorRetryCallback(1, 3, makeKovoError(29, ""), "m", 500));
  EXPECT_TRUE(handler.invokeShouldValidateCertificateChain("https://h/"));
  handler.invokeErrorCallback(makeKovoError(29, ""));
  EXPECT_THAT(
      log.messages(),
      ElementsAre(StartsWith("responseBodyCallback returned with unknown exception for instance "),
                  StartsWith("requestBodyCallback returned with unknown exception for instance "),
                  StartsWith("requestBodyContentLengthCallback returned with unknown exception "),
                  testing::EndsWith(" chunk 3 error 29"),
                  StartsWith("sslCertificatePolicyCallback returned with unknown exceptionfor "),
                  StartsWith("Request Failed. ErrorCode: 29"),
                  "errorCallback returned with unknown exception."));
}

TEST_F(ClientCallbackHandlerTest, ACallbackMayUseTheHandlerFromAnotherThread) {
  engine.callbacks.responseBody = [](kovo_instance, std::uint64_t, const std::uint8_t*,
                                     std::uint64_t, void* context) {
    // Deadlocks if the handler's lock were held around client code.
    std::thread([context] { Client::of(context).handler->setCancelled(false); }).join();
  };
  body();
  EXPECT_FALSE(handler.setCancelled(false));
}

}  // namespace
}  // namespace kovo
