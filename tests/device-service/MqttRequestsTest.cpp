// Requests that come over the broker, and their answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BrokerTest.h"
#include "Gate.h"
#include "WaitUntil.h"
#include "api/Library.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kSuccess = R"({"result":0,"properties":{}})";

class MqttRequestsTest : public BrokerTest {
 protected:
  // A set whose request is not answered yet; returns its Correlation Data.
  std::string startWithSet() {
    start().AnswerNothing();
    const std::string correlation = send(kSet, "{\"a\":1}");
    EXPECT_TRUE(m_plugIn->WaitForCalls("set", 1));
    return correlation;
  }
  // Requests come in order: when this one is there, all that were sent before have been handled.
  void waitUntilHandled() {
    m_cloud.Publish({kGet, R"(["mark"])"});
    ASSERT_TRUE(m_plugIn->WaitForCalls("get", 1));
  }
  std::size_t countInLog(const std::string& text) const {
    const std::string log = m_broker.Log();
    std::size_t count = 0;
    for (auto place = log.find(text); place != log.npos; place = log.find(text, place + 1)) ++count;
    return count;
  }
  // The plug-in was told that its first set is cancelled, and may not answer it any more.
  void expectCancelled() {
    ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 1));
    const PlugIn::Call set = m_plugIn->Calls("set").front();
    EXPECT_EQ(m_plugIn->Calls("cancel").front().request, set.request);
    EXPECT_NE(PlugIn::Answer(set, 0), 0);
  }
};

TEST_F(MqttRequestsTest, AGetBringsTheNamesAndTakesThePropertiesBack) {
  start();
  EXPECT_EQ(request(kGet, R"(["b","a"])"), R"({"result":0,"properties":{"a":"","b":""}})");
  const auto calls = m_plugIn->Calls("get");
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_THAT(calls.front().properties, ElementsAre("b=:3", "a=:3"));
  EXPECT_EQ(calls.front().service, m_plugIn->Service());
}

TEST_F(MqttRequestsTest, ASetBringsValuesOfAllTypes) {
  start();
  ASSERT_EQ(m_plugIn->Register("c", LUMO_PROPERTY_TYPE_DOUBLE), 0);
  const std::string answer = request(
      kSet,
      R"({"a":true,"b":-5,"c":1.5,"d":"text","e":{"x":[1]},"f":[1, 2],"g":{"$bytes":"QUI="}})");
  EXPECT_THAT(answer, HasSubstr(R"({"result":0,)"));
  const auto calls = m_plugIn->Calls("set");
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_THAT(calls.front().properties,
              ElementsAre("a=true:0", "b=-5:1", "c=1.500000:2", "d=text:3", "e={\"x\":[1]}:4",
                          "f=[1, 2]:4", "g=AB:5"));
}

TEST_F(MqttRequestsTest, ThePlugInsCodeGoesBackWhateverTheNameIs) {
  start().AnswerNothing();
  const std::string set = send(kSet, R"({"no/such+name#":1})");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 1));
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set").front(), -7), 0);
  expectAnswer(set, R"({"result":-7,"properties":{"no/such+name#":"1"}})");
}

TEST_F(MqttRequestsTest, NeverAnswersToTopicsWhereItWouldBeMisunderstood) {
  start();
  for (const std::string& topic : {std::string(kSet), valueTopic("a"), std::string(kDescription)}) {
    m_cloud.Publish({kSet, "{\"a\":1}", 2, false, topic});
  }
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 3));
  waitUntilHandled();
  EXPECT_THAT(m_plugIn->Calls("set"), SizeIs(3));
  EXPECT_THAT(payloadsOn(valueTopic("a")), IsEmpty());
  EXPECT_THAT(takeErrors(), HasSubstr("no answer goes to the Response Topic "
                                      "'things/tv/service/set'"));
}

TEST_F(MqttRequestsTest, ARetainedRequestIsNoStandingOrder) {
  m_cloud.Publish({kSet, "{\"old\":1}", 2, true});
  ASSERT_TRUE(m_cloud.WaitUntilPublished());
  start();
  waitUntilHandled();
  EXPECT_THAT(m_plugIn->Calls("set"), IsEmpty());
  // One that comes while the service is there is handled once, as any other.
  m_cloud.Publish({kSet, "{\"new\":1}", 2, true});
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 1));
  EXPECT_THAT(m_plugIn->Calls("set").back().properties, ElementsAre("new=1:1"));
}

TEST_F(MqttRequestsTest, RunsRequestsInTheOrderOfArrivalOnOneThread) {
  start();
  for (int i = 0; i < 100; ++i) {
    send(kSet, "{\"n\":" + std::to_string(i) + "}");
  }
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 100));
  const auto calls = m_plugIn->Calls("set");
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_THAT(calls[i].properties, ElementsAre("n=" + std::to_string(i) + ":1"));
    EXPECT_EQ(calls[i].thread, calls.front().thread);
  }
  EXPECT_NE(m_plugIn->Calls("status").front().thread, calls.front().thread);
}

TEST_F(MqttRequestsTest, ARequestThatIsNotAnsweredInTimeIsAnErrorAndCancelled) {
  const Variable timeout("LUMO_REQUEST_TIMEOUT_MS", "200");
  const std::string set = startWithSet();
  expectAnswer(set, R"({"error":"the request was not answered in time"})");
  expectCancelled();
  catchUp();
  EXPECT_THAT(answersTo(set), SizeIs(1));
}

TEST_F(MqttRequestsTest, IsBusyWhenTooManyRequestsWait) {
  start().AnswerNothing();
  for (int i = 0; i < 256; ++i) send(kSet, "{}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 256));
  EXPECT_EQ(request(kGet, "[]"), R"({"error":"busy"})");
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set")[7], 0), 0);
  expectAnswer("8", kSuccess);
  const std::string next = send(kSet, "{}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 257));
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set").back(), 0), 0);
  expectAnswer(next, kSuccess);
}

TEST_F(MqttRequestsTest, ACancelledRequestIsToldToThePlugInAndNotAnswered) {
  const Variable timeout("LUMO_REQUEST_TIMEOUT_MS", "600000");  // which cancels, too
  const std::string set = startWithSet();
  m_cloud.Publish({kCancel, "", 2, false, "", set});
  expectCancelled();
  waitUntilHandled();
  catchUp();
  EXPECT_THAT(answersTo(set), IsEmpty());
}

TEST_F(MqttRequestsTest, ACancelThatNamesNoWaitingRequestIsIgnored) {
  start().AnswerNothing();
  m_cloud.Publish({kSet, "{\"a\":1}", 2, false, "answers/plain"});  // no Correlation Data
  m_cloud.Publish({kCancel, ""});
  m_cloud.Publish({kCancel, "anything", 2, false, "answers/plain", "other"});
  waitUntilHandled();
  EXPECT_THAT(m_plugIn->Calls("cancel"), IsEmpty());
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set").front(), 0), 0);
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(MqttRequestsTest, ACancelWithAResponseTopicIsForRequestsWithThatOneOnly) {
  const Variable timeout("LUMO_REQUEST_TIMEOUT_MS", "600000");  // which cancels, too
  start().AnswerNothing();
  for (const char* topic : {"answers/a", "answers/b", "answers/c"}) {
    m_cloud.Publish({kSet, "{}", 2, false, topic, "same"});
  }
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 3));
  m_cloud.Publish({kCancel, "", 2, false, "answers/b", "same"});
  ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 1));
  EXPECT_EQ(m_plugIn->Calls("cancel").front().request, m_plugIn->Calls("set")[1].request);
  m_cloud.Publish({kCancel, "", 2, false, "", "same"});
  ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 3));
}

TEST_F(MqttRequestsTest, WhatIsNotAnsweredWhenTheServiceIsDestroyedComesAgainInItsNextLife) {
  const std::string set = startWithSet();
  m_plugIn->Destroy();
  expectLast(kStatus, "\"offline\"");
  EXPECT_THAT(answersTo(set), IsEmpty());
  start();
  expectAnswer(set, R"({"result":0,"properties":{"a":"1"}})");
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 1));
}

TEST_F(MqttRequestsTest, WhatIsNeverAnsweredIsAnErrorWhenTheServiceIsDestroyedLater) {
  const std::string set = startWithSet();
  // The broker releases what was acknowledged; nothing else tells when that was.
  ASSERT_TRUE(m_broker.WaitForLog("Received PUBCOMP from tv:service"));
  m_plugIn->Destroy();
  expectAnswer(set, R"({"error":"the service was destroyed"})");
}

TEST_F(MqttRequestsTest, AllThatIsNeverAnsweredIsAnErrorWhenABusyServiceIsDestroyed) {
  constexpr std::size_t kRounds = 5;
  constexpr std::size_t kSets = 60;
  constexpr std::size_t kThreads = 8;
  for (std::size_t round = 0; round < kRounds; ++round) {
    start().AnswerNothing();
    ASSERT_EQ(m_plugIn->Register("value"), 0);
    std::vector<std::string> sets;
    while (sets.size() < kSets) sets.push_back(send(kSet, "{\"a\":1}"));
    ASSERT_TRUE(m_plugIn->WaitForCalls("set", kSets));
    // The broker releases what was acknowledged; nothing else tells when that was.
    ASSERT_TRUE(WaitUntil(
        [&] { return countInLog("Received PUBCOMP from tv:service") == (round + 1) * kSets; }));
    std::atomic<bool> isOver{false};
    // Keep the network thread busy and without a processor, so that the shutdown finds it anywhere.
    std::vector<std::thread> values;
    while (values.size() < kThreads) {
      values.emplace_back([&] {
        while (!isOver) m_plugIn->Notify("value", "1");
      });
    }
    lumo_service_destroy(m_plugIn->Service());
    isOver = true;
    for (std::thread& thread : values) thread.join();
    expectLast(kStatus, "\"offline\"");
    catchUp();
    for (const std::string& set : sets) {
      EXPECT_THAT(answersTo(set), ElementsAre(R"({"error":"the service was destroyed"})"));
    }
  }
}

TEST_F(MqttRequestsTest, DestroyMayBeCalledWithALockThatACallbackWants) {
  std::mutex mutex;
  Gate started;
  Gate finished;
  start().AnswerNothing();
  m_plugIn->OnRequest([&](const PlugIn::Call&) {
    started.Open();
    const std::lock_guard<std::mutex> lock(mutex);
    finished.Open();
  });
  {
    const std::lock_guard<std::mutex> lock(mutex);
    send(kSet, "{}");
    ASSERT_TRUE(started.Wait());
    m_plugIn->Destroy();
    // It has not waited for the callback, but for the broker.
    expectLast(kStatus, "\"offline\"");
  }
  EXPECT_TRUE(finished.Wait());
  m_plugIn.reset();  // joins the thread that has what the callback uses
}

TEST_F(MqttRequestsTest, AServiceIsNotReleasedWhileACallbackRuns) {
  Gate started;
  long references = 0;
  start().AnswerNothing();
  m_plugIn->OnRequest([&](const PlugIn::Call& call) {
    const auto service = Lumo::Library::Get().FindService(call.service);
    started.Open();
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (service.use_count() > 1 && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    references = service.use_count();
  });
  send(kSet, "{}");
  ASSERT_TRUE(started.Wait());
  m_plugIn.reset();
  EXPECT_GT(references, 1);
}

TEST_F(MqttRequestsTest, ACallbackMayDestroyItsService) {
  Gate destroyed;
  start().OnRequest([&](const PlugIn::Call& call) {
    EXPECT_EQ(lumo_service_destroy(call.service), 0);
    destroyed.Open();
  });
  const std::string set = send(kSet, "{}");
  ASSERT_TRUE(destroyed.Wait());
  expectLast(kStatus, "\"offline\"");
  EXPECT_THAT(answersTo(set), IsEmpty());
  m_plugIn.reset();  // joins the thread that has what the callback uses
}

}  // namespace
