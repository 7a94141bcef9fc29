#include "link/RemoteRequests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "CapturedLog.h"
#include "Watched.h"
#include "link/Topics.h"
#include "service/Service.h"

namespace {

using namespace Lumo;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Taken = RemoteRequests::Taken;
using Arrival = RemoteRequests::Arrival;

// Requests from the broker to a service, which has at most two at a time and whose user notes them
// and answers none by itself.
class RemoteRequestsTest : public ::testing::Test {
 protected:
  ~RemoteRequestsTest() override {
    m_service.Close();
    m_service.Join();
  }

  // The end of a request, for a test to compare.
  static std::string describe(const RemoteRequests::End& end) {
    std::string text = std::to_string(end.arrival) + (end.isCarriedOut ? " done" : " not done");
    if (end.answer) text += ": " + end.answer->topic + " " + end.answer->payload;
    if (end.answer && !end.answer->correlation.empty()) text += " for " + end.answer->correlation;
    return text;
  }

  Taken take(RequestKind kind, const std::string& payload, const std::string& responseTopic,
             Arrival arrival = 1, const std::string& correlation = {}) {
    Lumo::Mqtt::Publish message = messageOf(payload, responseTopic, correlation);
    message.qos = arrival == 0 ? 0 : 1;
    return m_requests.Take(kind, message, arrival);
  }
  // A set that wants an answer.
  Taken ask(const std::string& responseTopic, Arrival arrival,
            const std::string& correlation = {}) {
    return take(RequestKind::Set, R"({"a":1})", responseTopic, arrival, correlation);
  }
  // A set of this property that wants no answer.
  Taken order(const std::string& name, Arrival arrival, const std::string& correlation = {}) {
    return take(RequestKind::Set, "{\"" + name + "\":1}", "", arrival, correlation);
  }
  void cancel(const std::string& correlation, const std::string& responseTopic = {}) {
    m_requests.Cancel(messageOf({}, responseTopic, correlation));
  }
  // Of what the caller keeps.
  static Lumo::Mqtt::Publish messageOf(std::string_view payload, std::string_view responseTopic,
                                       std::string_view correlation) {
    Lumo::Mqtt::Publish message;
    message.topic = "things/t/service/request";
    message.payload = payload;
    message.responseTopic = responseTopic;
    message.correlation = correlation;
    return message;
  }

  // The user has been asked so often, and no more than that: requests are delivered in order.
  bool waitForCalls(const std::vector<std::string>& calls) {
    return m_calls.WaitFor([&](const auto& all) { return all == calls; });
  }
  // The user answers the request of this number, counted from 0.
  lumo_error answer(std::size_t number, lumo_error code = 0, RequestKind kind = RequestKind::Set) {
    m_handles.WaitFor([number](const auto& handles) { return handles.size() > number; });
    return m_service.Answer(kind, m_handles.Get().at(number), code, {});
  }
  // The user has been asked twice, and has answered neither.
  void fill() {
    ASSERT_EQ(order("first", 101), Taken::Later);
    ASSERT_EQ(order("second", 102), Taken::Later);
    ASSERT_TRUE(waitForCalls({"set first", "set second"}));
  }

  static void onGet(void*, void* request, void* list, void* self) {
    note(self, "get", request, list);
  }
  static void onSet(void*, void* request, void* list, void* self) {
    note(self, "set", request, list);
  }
  static void note(void* self, const std::string& what, void* request, void* list) {
    auto& test = *static_cast<RemoteRequestsTest*>(self);
    const std::string name = test.m_lists.Find(list)->First()->Get().name;
    if (test.m_answersAtOnce) test.m_service.Answer(RequestKind::Set, request, kSuccess, {});
    test.m_handles.Change([request](auto& handles) { handles.push_back(request); });
    test.m_calls.Change([&](auto& calls) { calls.push_back(what + " " + name); });
  }

  bool m_crowded = false;
  bool m_answersAtOnce = false;               // the user answers sets in their callback
  Watched<std::vector<std::string>> m_calls;  // "set name"
  Watched<std::vector<void*>> m_handles;      // of these requests
  Watched<std::vector<std::string>> m_ends;
  HandleTable<PropertyList> m_lists;
  const Topics m_topics{"t", "service"};
  Service m_service{NewHandle(),
                    "service",
                    "a service of a test",
                    {[](void*, lumo_string, lumo_protocol_status, void*) {}, onGet, onSet,
                     [](void*, void*, void*) {}, this},
                    m_lists,
                    {2, std::chrono::seconds(60)}};
  RemoteRequests m_requests{m_service, m_topics,
                            [this](const RemoteRequests::End& end) {
                              m_ends.Change([&](auto& ends) { ends.push_back(describe(end)); });
                            },
                            [this] { return m_crowded; }};
};

TEST_F(RemoteRequestsTest, WhatWantsAnAnswerIsRefusedWhileAnswersCrowd) {
  m_crowded = true;
  EXPECT_EQ(take(RequestKind::Get, R"(["a"])", "requester/1", 1, "c1"), Taken::Now);
  EXPECT_EQ(ask("requester/2", 0), Taken::Now);
  EXPECT_EQ(take(RequestKind::Get, "{", "requester/3"), Taken::Now);
  EXPECT_EQ(order("b", 1), Taken::Later) << "it wants none";
  EXPECT_THAT(m_ends.Get(), ElementsAre(R"(0 done: requester/1 {"error":"busy"} for c1)",
                                        R"(0 done: requester/2 {"error":"busy"})",
                                        AllOf(StartsWith(R"(0 done: requester/3 {"error":)"),
                                              ::testing::Not(HasSubstr("busy")))));
  m_crowded = false;
  EXPECT_EQ(take(RequestKind::Get, R"(["a"])", "requester/4"), Taken::Later);
  EXPECT_TRUE(waitForCalls({"set b", "get a"}));
}

TEST_F(RemoteRequestsTest, WhatAPropertyCannotTakeIsRefusedByNameAndReachesNobody) {
  m_service.Register("text", {LUMO_PROPERTY_TYPE_STRING, 0, 0, ""});
  CapturedLog::Get().Take();
  take(RequestKind::Set, R"({"other":1,"text":1.5})", "requester/1");
  take(RequestKind::Set, R"({"text":{"$bytes":"/w=="}})", "requester/2");
  take(RequestKind::Set, R"({"text":0.25})", "");
  EXPECT_THAT(
      m_ends.Get(),
      ElementsAre(
          R"(0 done: requester/1 {"error":"text: a real number, and the property takes none"})",
          R"(0 done: requester/2 {"error":"text: bytes that are no text, and the property is one"})"));
  const auto lines = CapturedLog::Get().Take();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines.back().priority, 6);
  EXPECT_THAT(lines.back().message, HasSubstr("text: a real number, and the property takes none"));

  take(RequestKind::Get, R"(["text"])", "requester/3");
  EXPECT_TRUE(waitForCalls({"get text"}));
}

TEST_F(RemoteRequestsTest, ARealNumberOfANameThatIsNotRegisteredIsForThePlugIn) {
  m_service.Register("text", {LUMO_PROPERTY_TYPE_STRING, 0, 0, ""});
  take(RequestKind::Set, R"({"text":"1.5","other":1.5})", "requester/1");
  EXPECT_TRUE(waitForCalls({"set other"}));
  EXPECT_THAT(m_ends.Get(), IsEmpty());
}

// --- the end of a request ------------------------------------------------------------------------

TEST_F(RemoteRequestsTest, ARequestEndsWithTheCodeOfThePlugInWhateverItIs) {
  EXPECT_EQ(ask("requester/1", 7, "c7"), Taken::Later);
  EXPECT_EQ(ask("requester/2", 8), Taken::Later);
  EXPECT_THAT(m_ends.Get(), IsEmpty());
  EXPECT_EQ(answer(0, kCancelled), kSuccess);
  EXPECT_EQ(answer(1, kServiceGone), kSuccess);
  EXPECT_THAT(m_ends.Get(),
              ElementsAre(R"(7 done: requester/1 {"result":-9,"properties":{}} for c7)",
                          R"(8 done: requester/2 {"result":-10,"properties":{}})"));
}

TEST_F(RemoteRequestsTest, ARequestThatIsAnsweredBeforeItsHandleIsKnownEndsOnce) {
  m_answersAtOnce = true;
  std::vector<std::string> expected;
  for (Arrival arrival = 1; arrival <= 500; ++arrival) {
    ASSERT_EQ(order("a", arrival), Taken::Later);
    expected.push_back(std::to_string(arrival) + " done");
    ASSERT_TRUE(m_ends.WaitFor([arrival](const auto& ends) { return ends.size() >= arrival; }));
  }
  EXPECT_EQ(m_ends.Get(), expected);
}

TEST_F(RemoteRequestsTest, ARequestWithoutAUsableResponseTopicEndsWithoutAnAnswer) {
  EXPECT_EQ(ask("", 6), Taken::Later);
  EXPECT_EQ(ask("requester/#", 7), Taken::Later);
  EXPECT_EQ(answer(0), kSuccess);
  EXPECT_EQ(answer(1), kSuccess);
  EXPECT_EQ(take(RequestKind::Set, "{", "requester/#", 8), Taken::Now);
  EXPECT_THAT(m_ends.Get(), ElementsAre("6 done", "7 done"));
}

TEST_F(RemoteRequestsTest, ARequestThatIsCancelledEndsWithoutAnAnswer) {
  EXPECT_EQ(ask("requester/1", 7, "c"), Taken::Later);
  cancel("other");
  cancel("c", "requester/2");
  cancel("");
  EXPECT_THAT(m_ends.Get(), IsEmpty());
  cancel("c", "requester/1");
  EXPECT_THAT(m_ends.Get(), ElementsAre("7 done"));
}

TEST_F(RemoteRequestsTest, ACancelWithoutAResponseTopicEndsAllOfItsCorrelationData) {
  EXPECT_EQ(ask("requester/1", 7, "c"), Taken::Later);
  EXPECT_EQ(ask("requester/2", 8, "c"), Taken::Later);
  cancel("c");
  EXPECT_THAT(m_ends.Get(), ::testing::UnorderedElementsAre("7 done", "8 done"));
}

TEST_F(RemoteRequestsTest, WhatTheServiceIsClosedBeforeIsNotCarriedOut) {
  EXPECT_EQ(ask("requester/1", 7), Taken::Later);
  EXPECT_EQ(order("b", 8), Taken::Later);
  m_service.Close();
  EXPECT_THAT(m_ends.Get(), ::testing::UnorderedElementsAre(
                                R"(7 not done: requester/1 {"error":"the service was destroyed"})",
                                "8 not done"));
}

TEST_F(RemoteRequestsTest, AServiceThatIsClosedLeavesRequestsToTheBrokerOrSaysSo) {
  m_service.Close();
  EXPECT_EQ(take(RequestKind::Get, R"(["a"])", "requester/1", 7), Taken::Not);
  EXPECT_EQ(order("b", 8), Taken::Not);
  EXPECT_THAT(m_ends.Get(), IsEmpty());
  EXPECT_EQ(take(RequestKind::Get, R"(["a"])", "requester/1", 0, "c"), Taken::Now);
  EXPECT_EQ(order("b", 0), Taken::Now);
  EXPECT_THAT(m_ends.Get(),
              ElementsAre(R"(0 done: requester/1 {"error":"the service was destroyed"} for c)"));
}

// --- too much ------------------------------------------------------------------------------------

TEST_F(RemoteRequestsTest, AMessageThatWasCutIsRefusedAsTooLarge) {
  Lumo::Mqtt::Publish message = messageOf("", "requester/1", "c");
  message.isCut = true;
  EXPECT_EQ(m_requests.Take(RequestKind::Set, message, 7), Taken::Now);
  EXPECT_EQ(m_requests.Take(RequestKind::Get, message, 0), Taken::Now);
  const std::string refusal = R"(0 done: requester/1 {"error":"more than 262144 bytes"} for c)";
  EXPECT_THAT(m_ends.Get(), ElementsAre(refusal, refusal));
}

TEST_F(RemoteRequestsTest, AFullServiceRefusesWhatWantsAnAnswerAsBusy) {
  fill();
  EXPECT_EQ(take(RequestKind::Get, R"(["a"])", "requester/1", 7, "c"), Taken::Now);
  EXPECT_THAT(m_ends.Get(), ElementsAre(R"(0 done: requester/1 {"error":"busy"} for c)"));
}

TEST_F(RemoteRequestsTest, AFullServiceRefusesWhatTheBrokerDoesNotKeepAndCountsIt) {
  fill();
  CapturedLog::Get().Take();
  EXPECT_EQ(order("a", 0), Taken::Now);
  EXPECT_THAT(m_ends.Get(), IsEmpty());
  const auto lines = CapturedLog::Get().Take();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0].message, HasSubstr("requests were refused"));
}

TEST_F(RemoteRequestsTest, WhatWantsNoAnswerIsHeldBackAndBegunInOrderWhenThereIsRoom) {
  fill();
  EXPECT_EQ(order("third", 103), Taken::Later);
  EXPECT_EQ(order("fourth", 104), Taken::Later);
  EXPECT_EQ(order("fifth", 105), Taken::Later);
  EXPECT_EQ(m_requests.CountHeld(), 3U);
  m_requests.BeginHeld();  // there is no room
  answer(0);
  m_requests.BeginHeld();
  EXPECT_TRUE(waitForCalls({"set first", "set second", "set third"}));
  answer(1);
  answer(2);
  m_requests.BeginHeld();
  EXPECT_TRUE(waitForCalls({"set first", "set second", "set third", "set fourth", "set fifth"}));
  EXPECT_THAT(m_ends.Get(), ElementsAre("101 done", "102 done", "103 done"));
  EXPECT_EQ(m_requests.CountHeld(), 0U);
  answer(3);
  answer(4);
  EXPECT_EQ(m_ends.Get().back(), "105 done");
  EXPECT_EQ(order("sixth", 106), Taken::Later) << "nothing is held any more";
  answer(5);
}

TEST_F(RemoteRequestsTest, WhileSomethingIsHeldNothingOvertakesIt) {
  fill();
  EXPECT_EQ(order("third", 103), Taken::Later);
  answer(0);
  // There is room now, and it is the held one's.
  EXPECT_EQ(take(RequestKind::Get, R"(["a"])", "requester/1", 7), Taken::Now);
  EXPECT_EQ(order("lost", 0), Taken::Now);
  EXPECT_EQ(order("fourth", 104), Taken::Later);
  EXPECT_THAT(m_ends.Get(), ElementsAre("101 done", R"(0 done: requester/1 {"error":"busy"})"));
  m_requests.BeginHeld();
  answer(1);
  m_requests.BeginHeld();
  EXPECT_TRUE(waitForCalls({"set first", "set second", "set third", "set fourth"}));
}

TEST_F(RemoteRequestsTest, WhatIsHeldIsDroppedNotCarriedOut) {
  fill();
  EXPECT_EQ(order("third", 103), Taken::Later);
  EXPECT_EQ(order("fourth", 104), Taken::Later);
  m_requests.DropHeld();
  EXPECT_THAT(m_ends.Get(), ElementsAre("103 not done", "104 not done"));
  m_requests.DropHeld();
  answer(0);
  m_requests.BeginHeld();
  EXPECT_THAT(m_ends.Get(), ElementsAre("103 not done", "104 not done", "101 done"));
  EXPECT_EQ(ask("requester/1", 7), Taken::Later);
  EXPECT_TRUE(waitForCalls({"set first", "set second", "set a"}));
}

TEST_F(RemoteRequestsTest, WhatIsHeldCanBeCancelled) {
  fill();
  EXPECT_EQ(order("third", 103, "c"), Taken::Later);
  EXPECT_EQ(order("fourth", 104, "d"), Taken::Later);
  EXPECT_EQ(order("fifth", 105, "c"), Taken::Later);
  EXPECT_EQ(order("sixth", 106), Taken::Later);
  cancel("c", "requester/1");
  cancel("");
  EXPECT_THAT(m_ends.Get(), IsEmpty());
  CapturedLog::Get().Take();
  cancel("c");
  EXPECT_THAT(CapturedLog::Get().Take(), IsEmpty());
  EXPECT_THAT(m_ends.Get(), ElementsAre("103 done", "105 done"));
  answer(0);
  answer(1);
  m_requests.BeginHeld();
  EXPECT_TRUE(waitForCalls({"set first", "set second", "set fourth", "set sixth"}));
}

TEST_F(RemoteRequestsTest, WhatIsHeldWhenTheServiceIsClosedIsNotCarriedOut) {
  fill();
  EXPECT_EQ(order("third", 103), Taken::Later);
  m_service.Close();
  m_requests.BeginHeld();
  EXPECT_THAT(m_ends.Get(),
              ::testing::UnorderedElementsAre("101 not done", "102 not done", "103 not done"));
}

TEST_F(RemoteRequestsTest, TheMessagesOfWaitingRequestsAreLimited) {
  const std::string payload = R"({"large":1})";
  const std::string topic = "requester/1";
  const std::size_t most = RemoteRequests::kMaxWaitingBytes - payload.size() - topic.size();
  EXPECT_EQ(take(RequestKind::Set, payload, topic, 7, std::string(most + 1, 'c')), Taken::Now);
  ASSERT_EQ(m_ends.Get().size(), 1U);
  EXPECT_THAT(m_ends.Get().front().substr(0, 50), HasSubstr("busy"));
  EXPECT_EQ(take(RequestKind::Set, payload, topic, 8, std::string(most, 'c')), Taken::Later);

  CapturedLog::Get().Take();
  EXPECT_EQ(order("a", 9), Taken::Now) << "also what wants no answer";
  EXPECT_THAT(CapturedLog::Get().Take(), ::testing::SizeIs(1));
  EXPECT_EQ(m_ends.Get().size(), 1U);

  answer(0);
  EXPECT_EQ(order("b", 10), Taken::Later) << "there is room again";
}

TEST_F(RemoteRequestsTest, TheMessagesOfHeldRequestsAreLimited) {
  fill();
  const std::string large(RemoteRequests::kMaxWaitingBytes / 2, 'c');
  EXPECT_EQ(order("third", 103, large), Taken::Later);
  EXPECT_EQ(order("fourth", 104, large), Taken::Now);
  EXPECT_EQ(order("fifth", 105), Taken::Later);
  m_requests.DropHeld();
  EXPECT_EQ(order("sixth", 106, large), Taken::Later) << "there is room again";
  answer(0);
  m_requests.BeginHeld();
  EXPECT_EQ(order("seventh", 107, large), Taken::Now) << "it counts while it waits, too";
  answer(1);
  answer(2);
  EXPECT_EQ(order("eighth", 108, large), Taken::Later);
}

// The smallest messages take many times their bytes once they are read.
TEST_F(RemoteRequestsTest, WhatIsHeldCountsWithAllThatItTakes) {
  fill();
  constexpr std::size_t kProperties = 1000;
  std::string many = "{";
  for (std::size_t i = 0; i < kProperties; ++i) {
    many += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":1";
  }
  many += "}";
  const auto holdAll = [this](const std::string& payload) {
    Arrival count = 0;
    while (take(RequestKind::Set, payload, "", 200 + count) == Taken::Later) ++count;
    m_requests.DropHeld();
    return static_cast<std::size_t>(count);
  };
  EXPECT_LE(holdAll(many), RemoteRequests::kMaxWaitingBytes / (kProperties * sizeof(Property)));
  const std::size_t most = holdAll("{}");
  EXPECT_GT(most, 10'000U);
  EXPECT_LE(most, RemoteRequests::kMaxWaitingBytes / (2 * sizeof(std::string)));
}

}  // namespace
