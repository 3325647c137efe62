#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "callbacks/client_callback_handler.h"
#include "support/fake_kovo_engine.h"
#include "support/gate.h"
#include "support/log_capture.h"

namespace kovo {
namespace {

using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

void put(kovo_header& record, const char* name, const char* value) {
  std::strcpy(record.name, name);
  std::strcpy(record.value, value);
}

class OnceQuestionsTest : public testing::Test {
 protected:
  // The transfer's context in these tests.
  struct Context {
    std::atomic<int> asked{0};
    test::Gate entered;
    test::Gate mayAnswer;
    ClientCallbackHandler* handler = nullptr;
  };
  static Context& of(void* context) { return *static_cast<Context*>(context); }

  // A request-header callback that answers once the test lets it.
  void answerHeadersWhenAllowed() {
    engine.callbacks.requestHeader = [](kovo_instance, kovo_header* records, std::uint32_t,
                                        std::uint32_t* count, void* context) {
      ++of(context).asked;
      of(context).entered.open();
      of(context).mayAnswer.waitFor(30s);
      put(records[0], "A", "1");
      *count = 1;
    };
  }

  test::FakeKovoEngine engine;
  test::LogCapture log;
  Context client;
  ClientCallbackHandler handler{&engine, &engine.callbacks, &client};
};

TEST_F(OnceQuestionsTest, RecordsBecomePairsAndAreAskedForOnce) {
  engine.callbacks.requestHeader = [](kovo_instance, kovo_header* records, std::uint32_t capacity,
                                      std::uint32_t* count, void* context) {
    ++of(context).asked;
    EXPECT_EQ(capacity, 64U);
    EXPECT_EQ(*count, 0U);
    put(records[0], "A", "1");
    // Neither text is terminated: both fill their field.
    std::memset(records[1].name, 'n', sizeof records[1].name);
    std::memset(records[1].value, 'v', sizeof records[1].value);
    put(records[2], "not", "counted");
    *count = 2;
  };
  const HeaderList expected{{"A", "1"}, {std::string(1024, 'n'), std::string(8192, 'v')}};
  EXPECT_EQ(handler.invokeRequestHeadersCallback(), expected);
  EXPECT_EQ(handler.invokeRequestHeadersCallback(), expected);
  handler.setCancelled(false);
  EXPECT_EQ(handler.invokeRequestHeadersCallback(), expected) << "the stored answer";
  EXPECT_EQ(client.asked, 1);
}

TEST_F(OnceQuestionsTest, ACountBeyondTheCapacityYieldsEmptyPairsWithinBounds) {
  engine.callbacks.addParameters = [](kovo_instance, kovo_header* records, std::uint32_t capacity,
                                      std::uint32_t* count, void*) {
    put(records[capacity - 1], "last", "32");
    *count = capacity + 2;
  };
  const HeaderList& parameters = handler.invokeAddParametersCallback();
  ASSERT_THAT(parameters, SizeIs(34));
  EXPECT_EQ(parameters[31], Header("last", "32"));
  EXPECT_EQ(parameters[33], Header());

  engine.callbacks.requestHeader = [](kovo_instance, kovo_header*, std::uint32_t,
                                      std::uint32_t* count, void*) {
    const std::uint64_t everything = ~0ULL;  // a client that writes 64 bits
    std::memcpy(count, &everything, sizeof everything);
  };
  EXPECT_LE(handler.invokeRequestHeadersCallback().size(), 4096U);
}

TEST_F(OnceQuestionsTest, TimeoutFallsBackToTheEnginesOnlyWhenAsked) {
  EXPECT_EQ(handler.invokeSetTimeoutCallback(), 0U) << "nobody to ask";
  engine.callbacks.setTimeout = [](kovo_instance, std::uint32_t* seconds, void*) { *seconds = 9; };
  EXPECT_EQ(handler.invokeSetTimeoutCallback(), 0U) << "answered already";

  ClientCallbackHandler second(&engine, &engine.callbacks, &client);
  EXPECT_EQ(second.invokeSetTimeoutCallback(), 9U);
  engine.callbacks.setTimeout = [](kovo_instance, std::uint32_t*, void*) {};
  engine.defaultTimeout = 77;
  ClientCallbackHandler third(&engine, &engine.callbacks, &client);
  EXPECT_EQ(third.invokeSetTimeoutCallback(), 77U);
}

TEST_F(OnceQuestionsTest, ServerTypesBeyondTheLastBecomeTheDefault) {
  engine.callbacks.setServerType = [](kovo_instance, std::uint32_t* type, void*) { *type = 2; };
  EXPECT_EQ(handler.invokeSetServerTypeCallback(), 2U);
  engine.callbacks.setServerType = [](kovo_instance, std::uint32_t* type, void*) { *type = 5; };
  ClientCallbackHandler second(&engine, &engine.callbacks, &client);
  EXPECT_EQ(second.invokeSetServerTypeCallback(), 0U);
  EXPECT_THAT(log.messages(),
              ElementsAre(testing::EndsWith("ServerType 5 invalid. ServerType set to default value "
                                            "KOVO_SERVER_TYPE_DEFAULT")));
}

TEST_F(OnceQuestionsTest, CertificatesAreValidatedUnlessTheClientSaysNo) {
  engine.callbacks.sslCertificatePolicy = [](kovo_instance, const char* url, std::uint32_t* answer,
                                             void*) {
    EXPECT_EQ(*answer, 1U);
    *answer = std::strcmp(url, "https://trusted/") == 0 ? 0 : 1;
  };
  EXPECT_FALSE(handler.invokeShouldValidateCertificateChain("https://trusted/"));
  EXPECT_FALSE(handler.invokeShouldValidateCertificateChain("https://other/")) << "asked once";
  ClientCallbackHandler second(&engine, &engine.callbacks, &client);
  EXPECT_TRUE(second.invokeShouldValidateCertificateChain("https://other/"));
}

TEST_F(OnceQuestionsTest, NobodyIsAskedAfterACancel) {
  answerHeadersWhenAllowed();
  handler.setCancelled(false);
  EXPECT_THAT(handler.invokeRequestHeadersCallback(), IsEmpty());
  EXPECT_EQ(client.asked, 0);
}

TEST_F(OnceQuestionsTest, OtherThreadsWaitForTheAnswer) {
  answerHeadersWhenAllowed();
  std::vector<HeaderList> answers(4);
  std::vector<std::thread> threads;
  for (HeaderList& answer : answers) {
    threads.emplace_back([&] { answer = handler.invokeRequestHeadersCallback(); });
  }
  EXPECT_TRUE(client.entered.waitFor(30s));
  client.mayAnswer.open();
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(answers, Each(HeaderList{{"A", "1"}}));
  EXPECT_EQ(client.asked, 1);
}

TEST_F(OnceQuestionsTest, AfterACancelNobodyWaitsForAClientThatIsStillBusy) {
  answerHeadersWhenAllowed();
  HeaderList answer;
  std::thread asking([&] { answer = handler.invokeRequestHeadersCallback(); });
  EXPECT_TRUE(client.entered.waitFor(30s));
  handler.setCancelled(false);
  EXPECT_THAT(handler.invokeRequestHeadersCallback(), IsEmpty());
  client.mayAnswer.open();
  asking.join();
  EXPECT_EQ(answer, (HeaderList{{"A", "1"}}));
}

TEST_F(OnceQuestionsTest, WaitersWakeWhenTheClientThrows) {
  engine.callbacks.setTimeout = [](kovo_instance, std::uint32_t*, void* context) {
    of(context).entered.open();
    of(context).mayAnswer.waitFor(30s);
    throw 1;
  };
  std::thread asking([&] { EXPECT_EQ(handler.invokeSetTimeoutCallback(), 0U); });
  EXPECT_TRUE(client.entered.waitFor(30s));
  std::thread waiting([&] { EXPECT_EQ(handler.invokeSetTimeoutCallback(), 0U); });
  client.mayAnswer.open();
  asking.join();
  waiting.join();
  EXPECT_EQ(handler.invokeSetTimeoutCallback(), 0U) << "not asked again";
}

TEST_F(OnceQuestionsTest, AskingAgainFromInsideTheQuestionDoesNotWait) {
  client.handler = &handler;
  engine.callbacks.requestHeader = [](kovo_instance, kovo_header* records, std::uint32_t,
                                      std::uint32_t* count, void* context) {
    ++of(context).asked;
    EXPECT_THAT(of(context).handler->invokeRequestHeadersCallback(), IsEmpty());
    put(records[0], "A", "1");
    *count = 1;
  };
  EXPECT_THAT(handler.invokeRequestHeadersCallback(), SizeIs(1));
  EXPECT_EQ(client.asked, 1);
}

}  // namespace
}  // namespace kovo
