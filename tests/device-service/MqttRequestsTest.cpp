// Requests that come over the broker, and their answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BrokerTest.h"
#include "Gate.h"
#include "api/Library.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kSuccess = R"({"result":0,"properties":{}})";

class MqttRequestsTest : public BrokerTest {
 protected:
  void start() {
    m_plugIn.emplace();
    ASSERT_TRUE(m_plugIn->WaitForStatus("mqtt=1"));
  }
  // Requests come in order: when this one is there, all that were sent before have been handled.
  void waitUntilHandled() {
    m_requester.Publish(m_requester.Topic("get"), R"(["mark"])", {});
    ASSERT_TRUE(m_plugIn->WaitForCalls("get", 1));
  }

  std::optional<PlugIn> m_plugIn;
};

TEST_F(MqttRequestsTest, AGetBringsTheNamesAndTakesThePropertiesBack) {
  start();
  EXPECT_EQ(m_requester.Request("get", R"(["b","a"])"),
            R"({"result":0,"properties":{"a":"","b":""}})");
  const auto calls = m_plugIn->Calls("get");
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_THAT(calls.front().properties, ElementsAre("b=:3", "a=:3"));
  EXPECT_EQ(calls.front().service, m_plugIn->Service());
}

TEST_F(MqttRequestsTest, ASetBringsValuesOfAllTypes) {
  start();
  ASSERT_EQ(m_plugIn->Register("c", LUMO_PROPERTY_TYPE_DOUBLE), 0);
  const std::string answer = m_requester.Request(
      "set",
      R"({"a":true,"b":-5,"c":1.5,"d":"text","e":{"x":[1]},"f":[1, 2],"g":{"$bytes":"QUI="}})");
  EXPECT_THAT(answer, HasSubstr(R"({"result":0,)"));
  const auto calls = m_plugIn->Calls("set");
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_THAT(calls.front().properties,
              ElementsAre("a=true:0", "b=-5:1", "c=1.500000:2", "d=text:3", "e={\"x\":[1]}:4",
                          "f=[1, 2]:4", "g=AB:5"));
}

TEST_F(MqttRequestsTest, ThePlugInsCodeGoesBackWhateverTheNameIs) {
  start();
  m_plugIn->AnswerNothing();
  const std::string request = m_requester.Send("set", R"({"no/such+name#":1})");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 1));
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set").front(), -7), 0);
  EXPECT_TRUE(
      m_requester.WaitForAnswer(request, R"({"result":-7,"properties":{"no/such+name#":"1"}})"));
}

TEST_F(MqttRequestsTest, AnswersWhatItRefusesWithTheReason) {
  start();
  const std::vector<std::pair<std::string, std::string>> sets = {
      {"", "not valid JSON: "},
      {"{\"a\":", "not valid JSON: "},
      {"[]", "not a JSON object of names and values"},
      {"{\"a\":null}", "a: null"},
      {"{\"a\":2147483648}", "a: an integer outside 32 bits"},
      {"{\"a\":\"\xFF\"}", "not UTF-8"},
      {"{\"a\":\"" + std::string(256UL * 1024, 'x') + "\"}", "more than 262144 bytes"},
      {"{\"a\":\"" + std::string(3UL * 1024 * 1024, 'x') + "\"}", "more than 262144 bytes"}};
  for (const auto& [payload, error] : sets) {
    EXPECT_THAT(m_requester.Request("set", payload), HasSubstr("{\"error\":\"" + error));
  }
  EXPECT_EQ(m_requester.Request("get", "{}"), R"({"error":"not a JSON array of names"})");
  EXPECT_THAT(m_plugIn->Calls("set"), IsEmpty());
  EXPECT_THAT(m_plugIn->Calls("get"), IsEmpty());
  EXPECT_THAT(takeErrors(), HasSubstr("things/tv/service/get: not a JSON array of names"));
}

TEST_F(MqttRequestsTest, HandlesARequestWithoutAResponseTopic) {
  start();
  for (const int qos : {0, 1, 2}) {
    Requester::Options options;
    options.qos = qos;
    m_requester.Publish(m_requester.Topic("set"), "{\"a\":1}", options);
  }
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 3));
  m_requester.Publish(m_requester.Topic("set"), "no JSON", {});
  waitUntilHandled();
  EXPECT_THAT(m_requester.AnswersTo(""), IsEmpty());
}

TEST_F(MqttRequestsTest, AnswersWithoutCorrelationDataAsWell) {
  start();
  Requester::Options options;
  options.responseTopic = "answers/plain";
  m_requester.Publish(m_requester.Topic("set"), "{}", options);
  EXPECT_TRUE(m_requester.WaitForLast("answers/plain", kSuccess));
}

TEST_F(MqttRequestsTest, NeverAnswersToTopicsWhereItWouldBeMisunderstood) {
  start();
  for (const char* name : {"set", "value/a", "properties"}) {
    Requester::Options options;
    options.responseTopic = m_requester.Topic(name);
    m_requester.Publish(m_requester.Topic("set"), "{\"a\":1}", options);
  }
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 3));
  waitUntilHandled();
  EXPECT_THAT(m_plugIn->Calls("set"), SizeIs(3));
  EXPECT_THAT(m_requester.PayloadsOn(m_requester.Topic("value/a")), IsEmpty());
  EXPECT_THAT(takeErrors(), HasSubstr("no answer goes to the Response Topic "
                                      "'things/tv/service/set'"));
}

TEST_F(MqttRequestsTest, ARetainedRequestIsNoStandingOrder) {
  Requester::Options options;
  options.retain = true;
  m_requester.Publish(m_requester.Topic("set"), "{\"old\":1}", options);
  ASSERT_TRUE(m_requester.WaitUntilPublished());
  start();
  waitUntilHandled();
  EXPECT_THAT(m_plugIn->Calls("set"), IsEmpty());
  // One that comes while the service is there is handled once, as any other.
  m_requester.Publish(m_requester.Topic("set"), "{\"new\":1}", options);
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 1));
  EXPECT_THAT(m_plugIn->Calls("set").back().properties, ElementsAre("new=1:1"));
}

TEST_F(MqttRequestsTest, RunsRequestsInTheOrderOfArrivalOnOneThread) {
  start();
  for (int i = 0; i < 100; ++i) {
    m_requester.Send("set", "{\"n\":" + std::to_string(i) + "}");
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
  start();
  m_plugIn->AnswerNothing();
  EXPECT_EQ(m_requester.Request("set", "{\"a\":1}"),
            R"({"error":"the request was not answered in time"})");
  ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 1));
  const PlugIn::Call set = m_plugIn->Calls("set").front();
  EXPECT_EQ(m_plugIn->Calls("cancel").front().request, set.request);
  EXPECT_NE(PlugIn::Answer(set, 0), 0);
  ASSERT_TRUE(m_requester.CatchUp());
  EXPECT_THAT(m_requester.AnswersTo("1"), SizeIs(1));
}

TEST_F(MqttRequestsTest, IsBusyWhenTooManyRequestsWait) {
  start();
  m_plugIn->AnswerNothing();
  for (int i = 0; i < 256; ++i) m_requester.Send("set", "{}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 256));
  EXPECT_EQ(m_requester.Request("get", "[]"), R"({"error":"busy"})");
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set")[7], 0), 0);
  EXPECT_TRUE(m_requester.WaitForAnswer("8", kSuccess));
  const std::string next = m_requester.Send("set", "{}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 257));
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set").back(), 0), 0);
  EXPECT_TRUE(m_requester.WaitForAnswer(next, kSuccess));
}

TEST_F(MqttRequestsTest, ACancelledRequestIsToldToThePlugInAndNotAnswered) {
  start();
  m_plugIn->AnswerNothing();
  const std::string request = m_requester.Send("set", "{\"a\":1}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 1));
  Requester::Options options;
  options.correlation = request;
  m_requester.Publish(m_requester.Topic("cancel"), "", options);
  ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 1));
  const PlugIn::Call set = m_plugIn->Calls("set").front();
  EXPECT_EQ(m_plugIn->Calls("cancel").front().request, set.request);
  EXPECT_NE(PlugIn::Answer(set, 0), 0);
  waitUntilHandled();
  ASSERT_TRUE(m_requester.CatchUp());
  EXPECT_THAT(m_requester.AnswersTo(request), IsEmpty());
}

TEST_F(MqttRequestsTest, ACancelThatNamesNoWaitingRequestIsIgnored) {
  start();
  m_plugIn->AnswerNothing();
  Requester::Options options;
  options.responseTopic = "answers/plain";
  m_requester.Publish(m_requester.Topic("set"), "{\"a\":1}", options);  // no Correlation Data
  m_requester.Publish(m_requester.Topic("cancel"), "", {});
  options.correlation = "other";
  m_requester.Publish(m_requester.Topic("cancel"), "anything", options);
  waitUntilHandled();
  EXPECT_THAT(m_plugIn->Calls("cancel"), IsEmpty());
  EXPECT_EQ(PlugIn::Answer(m_plugIn->Calls("set").front(), 0), 0);
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(MqttRequestsTest, ACancelWithAResponseTopicIsForRequestsWithThatOneOnly) {
  start();
  m_plugIn->AnswerNothing();
  Requester::Options options;
  options.correlation = "same";
  for (const char* topic : {"answers/a", "answers/b", "answers/c"}) {
    options.responseTopic = topic;
    m_requester.Publish(m_requester.Topic("set"), "{}", options);
  }
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 3));
  const auto sets = m_plugIn->Calls("set");
  options.responseTopic = "answers/b";
  m_requester.Publish(m_requester.Topic("cancel"), "", options);
  ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 1));
  EXPECT_EQ(m_plugIn->Calls("cancel").front().request, sets[1].request);
  options.responseTopic.clear();
  m_requester.Publish(m_requester.Topic("cancel"), "", options);
  ASSERT_TRUE(m_plugIn->WaitForCalls("cancel", 3));
}

TEST_F(MqttRequestsTest, WhatIsNotAnsweredWhenTheServiceIsDestroyedComesAgainInItsNextLife) {
  start();
  m_plugIn->AnswerNothing();
  const std::string request = m_requester.Send("set", "{}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 1));
  m_plugIn->Destroy();
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"offline\""));
  EXPECT_THAT(m_requester.AnswersTo(request), IsEmpty());
  start();
  EXPECT_TRUE(m_requester.WaitForAnswer(request, R"({"result":0,"properties":{}})"));
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 1));
}

TEST_F(MqttRequestsTest, WhatIsNeverAnsweredIsAnErrorWhenTheServiceIsDestroyedLater) {
  start();
  m_plugIn->AnswerNothing();
  const std::string request = m_requester.Send("set", "{}");
  ASSERT_TRUE(m_plugIn->WaitForCalls("set", 1));
  // The broker releases what was acknowledged; nothing else tells when that was.
  ASSERT_TRUE(m_broker.WaitForLog("Received PUBCOMP from tv:service"));
  m_plugIn->Destroy();
  EXPECT_TRUE(m_requester.WaitForAnswer(request, R"({"error":"the service was destroyed"})"));
}

TEST_F(MqttRequestsTest, DestroyMayBeCalledWithALockThatACallbackWants) {
  m_plugIn.emplace();
  std::mutex mutex;
  Gate started;
  Gate finished;
  m_plugIn->AnswerNothing();
  m_plugIn->OnRequest([&](const PlugIn::Call&) {
    started.Open();
    std::lock_guard<std::mutex> lock(mutex);
    finished.Open();
  });
  ASSERT_TRUE(m_plugIn->WaitForStatus("mqtt=1"));
  {
    std::lock_guard<std::mutex> lock(mutex);
    m_requester.Send("set", "{}");
    ASSERT_TRUE(started.Wait());
    m_plugIn->Destroy();
    // It has not waited for the callback, but for the broker.
    EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"offline\""));
  }
  EXPECT_TRUE(finished.Wait());
  m_plugIn.reset();  // joins the thread that has what the callback uses
}

TEST_F(MqttRequestsTest, AServiceIsNotReleasedWhileACallbackRuns) {
  m_plugIn.emplace();
  Gate started;
  long references = 0;
  m_plugIn->AnswerNothing();
  m_plugIn->OnRequest([&](const PlugIn::Call& call) {
    const auto service = Lumo::Library::Get().FindService(call.service);
    started.Open();
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (service.use_count() > 1 && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    references = service.use_count();
  });
  ASSERT_TRUE(m_plugIn->WaitForStatus("mqtt=1"));
  m_requester.Send("set", "{}");
  ASSERT_TRUE(started.Wait());
  m_plugIn.reset();
  EXPECT_GT(references, 1);
}

TEST_F(MqttRequestsTest, ACallbackMayDestroyItsService) {
  m_plugIn.emplace();
  Gate destroyed;
  m_plugIn->OnRequest([&](const PlugIn::Call& call) {
    EXPECT_EQ(lumo_service_destroy(call.service), 0);
    destroyed.Open();
  });
  ASSERT_TRUE(m_plugIn->WaitForStatus("mqtt=1"));
  const std::string request = m_requester.Send("set", "{}");
  ASSERT_TRUE(destroyed.Wait());
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"offline\""));
  EXPECT_THAT(m_requester.AnswersTo(request), IsEmpty());
  m_plugIn.reset();  // joins the thread that has what the callback uses
}

}  // namespace
