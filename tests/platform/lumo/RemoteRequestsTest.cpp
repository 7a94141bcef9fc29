#include "link/RemoteRequests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapturedLog.h"
#include "Watched.h"
#include "link/Topics.h"
#include "service/Service.h"

namespace {

using namespace Lumo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Requests from the broker to a service whose user notes them and answers none.
class RemoteRequestsTest : public ::testing::Test {
 protected:
  ~RemoteRequestsTest() override {
    m_service.Close();
    m_service.Join();
  }

  void take(RequestKind kind, const std::string& payload, const std::string& responseTopic) {
    Lumo::Mqtt::Publish message;
    message.qos = 1;
    message.topic = "things/t/service/request";
    message.payload = payload;
    message.responseTopic = responseTopic;
    m_requests.Take(kind, message);
  }

  // The user has been asked so often, and no more than that: requests are delivered in order.
  bool waitForCalls(const std::vector<std::string>& calls) {
    return m_calls.WaitFor([&](const auto& all) { return all == calls; });
  }

  static void onGet(void*, void*, void*, void* self) { note(self, "get"); }
  static void onSet(void*, void*, void*, void* self) { note(self, "set"); }
  static void note(void* self, const char* what) {
    static_cast<RemoteRequestsTest*>(self)->m_calls.Change(
        [what](auto& calls) { calls.emplace_back(what); });
  }

  bool m_crowded = false;
  Watched<std::vector<std::string>> m_calls;
  Watched<std::vector<std::string>> m_answers;  // "topic payload"
  HandleTable<PropertyList> m_lists;
  const Topics m_topics{"t", "service"};
  Service m_service{NewHandle(),
                    "service",
                    "a service of a test",
                    {[](void*, lumo_string, lumo_protocol_status, void*) {}, onGet, onSet,
                     [](void*, void*, void*) {}, this},
                    m_lists};
  RemoteRequests m_requests{m_service, m_topics,
                            [this](Outbox::Answer answer) {
                              m_answers.Change([&](auto& answers) {
                                answers.push_back(answer.topic + " " + answer.payload);
                              });
                            },
                            [this] { return m_crowded; }};
};

TEST_F(RemoteRequestsTest, WhatWantsAnAnswerIsRefusedWhileAnswersCrowd) {
  m_crowded = true;
  take(RequestKind::Get, R"(["a"])", "requester/1");
  take(RequestKind::Set, R"({"a":1})", "requester/2");
  EXPECT_THAT(m_answers.Get(),
              ElementsAre(R"(requester/1 {"error":"busy"})", R"(requester/2 {"error":"busy"})"));

  m_crowded = false;
  take(RequestKind::Get, R"(["a"])", "requester/3");
  EXPECT_TRUE(waitForCalls({"get"}));
}

TEST_F(RemoteRequestsTest, WhatWantsNoAnswerIsTakenWhileAnswersCrowd) {
  m_crowded = true;
  take(RequestKind::Set, R"({"a":1})", "");
  EXPECT_TRUE(waitForCalls({"set"}));
  m_service.Close();  // ends the request
  EXPECT_THAT(m_answers.Get(), IsEmpty());
}

TEST_F(RemoteRequestsTest, WhatCannotBeReadIsSaidEvenWhileAnswersCrowd) {
  m_crowded = true;
  take(RequestKind::Get, "{", "requester/1");
  ASSERT_EQ(m_answers.Get().size(), 1U);
  EXPECT_THAT(m_answers.Get().front(), ::testing::StartsWith(R"(requester/1 {"error":)"));
  EXPECT_THAT(m_answers.Get().front(), ::testing::Not(::testing::HasSubstr("busy")));
}

TEST_F(RemoteRequestsTest, WhatAPropertyCannotTakeIsRefusedByNameAndReachesNobody) {
  m_service.Register("text", {LUMO_PROPERTY_TYPE_STRING, 0, 0, ""});
  CapturedLog::Get().Take();
  take(RequestKind::Set, R"({"other":1,"text":1.5})", "requester/1");
  take(RequestKind::Set, R"({"text":{"$bytes":"/w=="}})", "requester/2");
  take(RequestKind::Set, R"({"text":0.25})", "");
  EXPECT_THAT(
      m_answers.Get(),
      ElementsAre(
          R"(requester/1 {"error":"text: a real number, and the property takes none"})",
          R"(requester/2 {"error":"text: bytes that are no text, and the property is one"})"));
  const auto lines = CapturedLog::Get().Take();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines.back().priority, 6);
  EXPECT_THAT(lines.back().message,
              ::testing::HasSubstr("text: a real number, and the property takes none"));

  take(RequestKind::Get, R"(["text"])", "requester/3");
  EXPECT_TRUE(waitForCalls({"get"}));
}

TEST_F(RemoteRequestsTest, ARealNumberOfANameThatIsNotRegisteredIsForThePlugIn) {
  m_service.Register("text", {LUMO_PROPERTY_TYPE_STRING, 0, 0, ""});
  take(RequestKind::Set, R"({"text":"1.5","other":1.5})", "requester/1");
  EXPECT_TRUE(waitForCalls({"set"}));
  EXPECT_THAT(m_answers.Get(), IsEmpty());
}

}  // namespace
