// A broker that refuses: a publication, a subscription, or to go on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "OutOfMemory.h"
#include "ScriptedBrokerTest.h"

namespace {

using std::chrono::milliseconds;
using ::testing::Combine;
using ::testing::ElementsAre;
using ::testing::Values;
using ::testing::ValuesIn;
using Reason = std::uint8_t;

// Before a refused publication comes again.
constexpr milliseconds kShortestDelay(700);
// For what must not come again: longer than the longest first delay. A slow machine only makes this
// weaker.
constexpr milliseconds kWithoutAnother(2500);

std::string nameOf(const ::testing::TestParamInfo<Reason>& info) {
  return ReasonName(info.param);
}

using WithReason = ScriptedBrokerTestWith<Reason>;

// --- Publications

struct Subject {
  const char* name;
  std::string topic;
  std::string payload;

  friend void PrintTo(const Subject& subject, std::ostream* stream) { *stream << subject.name; }
};

const std::vector<Subject> kSubjects{
    {"Value", "things/tv/service/value/a", "\"1\""},
    {"Answer", "answers/here", R"({"result":0,"properties":{"n":"1"}})"},
    {"Description", "things/tv/service/properties", R"({"a":{"type":"string"}})"},
    {"Status", "things/tv/status", "\"online\""},
};

class MqttPublicationTest : public ScriptedBrokerTestWith<std::tuple<Subject, Reason>> {
 protected:
  bool isMeant(const Publication& publication) const {
    return publication.topic == m_subject.topic && publication.payload == m_subject.payload;
  }
  // Has all subjects published, and answers so many publications of this one with the reason.
  void publishAll(std::size_t answered) {
    m_broker.JudgePublications([this, answered](const Publication& publication) {
      return isMeant(publication) && m_tried++ < answered ? m_reason : Reason(0);
    });
    startWithValue();
    deliverSet();
  }

  const Subject m_subject = std::get<0>(GetParam());
  const Reason m_reason = std::get<1>(GetParam());
  std::size_t m_tried = 0;
};

std::string nameOfBoth(const ::testing::TestParamInfo<std::tuple<Subject, Reason>>& info) {
  return std::get<0>(info.param).name + ReasonName(std::get<1>(info.param));
}

using MqttPassingRefusalTest = MqttPublicationTest;

TEST_P(MqttPassingRefusalTest, IsTriedAgainLaterAndLaterUntilItIsTaken) {
  constexpr std::size_t kRefusals = 2;
  constexpr Reason kPacketIdInUse = 0x91;
  publishAll(kRefusals);
  serveUntil([&] { return m_tried > kRefusals; });
  serveUntilOnline();
  std::vector<Clock::time_point> times;
  for (const Publication& publication : m_broker.Publications()) {
    if (isMeant(publication)) times.push_back(publication.time);
  }
  ASSERT_EQ(times.size(), kRefusals + 1);
  if (m_reason != kPacketIdInUse) {
    EXPECT_GE(times[1] - times[0], kShortestDelay);
    EXPECT_GE(times[2] - times[1], kShortestDelay);
  }
  serveUntilValue("1");
  serveUntilRetained(kDescription, R"({"a":{"type":"string"}})");
  expectHandled("1");
  expectSetWorksOn(1);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttPassingRefusalTest,
                         Combine(ValuesIn(kSubjects), Values(0x80, 0x83, 0x91, 0x97)), nameOfBoth);

// Reasons below 0x80 are no refusals.
using MqttLastingRefusalTest = MqttPublicationTest;

TEST_P(MqttLastingRefusalTest, IsLoggedOnceWithItsTopicAndNotTriedAgainAsWhatIsTakenIs) {
  const bool isRefused = m_reason >= 0x80;
  publishAll(1000);
  serveUntil([&] { return m_tried > 0; });
  m_broker.ServeFor(kWithoutAnother);
  EXPECT_EQ(m_tried, 1U);
  EXPECT_EQ(countErrors({}), isRefused ? 1U : 0U) << log();
  EXPECT_EQ(countErrors({m_subject.topic}), isRefused ? 1U : 0U) << log();
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  // The others have come through, and what is new does.
  for (const Subject& other : kSubjects) {
    if (other.topic == kAnswers) continue;  // is not retained
    EXPECT_EQ(m_broker.RetainedAt(other.topic).empty(), isRefused && other.topic == m_subject.topic)
        << other.name;
  }
  m_plugIn->Register("b");
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  serveUntilRetained(kDescription, R"({"a":{"type":"string"},"b":{"type":"string"}})");
  expectSetWorks();
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttLastingRefusalTest,
                         Combine(ValuesIn(kSubjects), Values(0x00, 0x10, 0x87, 0x90, 0x99)),
                         nameOfBoth);

class MqttPublicationsTest : public ScriptedBrokerTest {
 protected:
  // Answers so many publications of the value "a" with the reason.
  void refuseValue(Reason reason, std::size_t count) {
    m_broker.JudgePublications([this, reason, count](const Publication& publication) {
      return publication.topic == valueTopic("a") && m_tried++ < count ? reason : Reason(0);
    });
  }

  std::size_t m_tried = 0;
};

// Codes that an acknowledgement of a publication cannot have.
class MqttWrongReasonTest : public MqttPublicationsTest,
                            public ::testing::WithParamInterface<Reason> {};

TEST_P(MqttWrongReasonTest, CostsAConnectionAtMostAndNeverAValue) {
  refuseValue(GetParam(), 1);
  startWithValue();
  serveUntilValue("1");
  serveUntilOnline();
  expectSetWorks();
  EXPECT_LE(m_broker.Connections().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttWrongReasonTest,
                         Values(0x01, 0x02, 0x11, 0x18, 0x7F, 0x81, 0x82, 0x88, 0x89, 0x92, 0x9A,
                                0xFF),
                         nameOf);

TEST_F(MqttPublicationsTest, EachChangeGoesOutThoughNothingElseHappens) {
  startOnlineWithValue();
  const auto settle = [this] { m_broker.ServeFor(milliseconds(50)); };
  const auto start = Clock::now();
  settle();
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  settle();
  m_plugIn->Register("b");
  serveUntilRetained(kDescription, R"({"a":{"type":"string"},"b":{"type":"string"}})");
  settle();
  m_plugIn->Unregister("a");
  serveUntilValue("");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10)) << "the next ping has done it";
}

TEST_F(MqttPublicationsTest, ARefusedValueThatChangesMeanwhileIsSentAsItIsThen) {
  refuseValue(0x97, 1);
  startWithValue("old");
  serveUntil([&] { return m_tried == 1; });
  m_plugIn->Notify("a", "new");
  serveUntilValue("new");
  m_broker.ServeFor(kWithoutAnother);
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "\"new\"");
  const auto publications = m_broker.PublicationsOn(valueTopic("a"));
  EXPECT_EQ(publications.back().payload, "\"new\"");
  EXPECT_LE(publications.size(), 3U);
}

TEST_F(MqttPublicationsTest, ARefusedClearingIsTriedAgainToo) {
  startWithValue();
  serveUntilValue("1");
  refuseValue(0x80, 1);
  m_plugIn->Unregister("a");
  serveUntilValue("");
  EXPECT_EQ(m_tried, 2U);
}

TEST_F(MqttPublicationsTest, OthersGoOnWhileOneIsRefused) {
  refuseValue(0x97, 1000);
  startOnlineWithValue();
  m_plugIn->Register("b");
  const auto start = Clock::now();
  for (int i = 0; i < 100; ++i) {
    m_plugIn->Notify("b", std::to_string(i));
    serveUntilValue(std::to_string(i), "b");
    expectSetWorks();
  }
  EXPECT_LE(m_tried, 2U + static_cast<std::size_t>((Clock::now() - start) / kShortestDelay));
  end();
}

TEST_F(MqttPublicationsTest, AnAcknowledgementOfNothingChangesNothing) {
  constexpr std::uint16_t kUnknown = 40'000;  // to either side
  startOnlineWithValue();
  for (const auto type : {broker::kPubAck, broker::kPubRec, broker::kPubRel, broker::kPubComp}) {
    m_broker.Send(broker::Ack(type, kUnknown));
    m_broker.Send(broker::Ack(type, kUnknown, type == broker::kPubAck ? 0x97 : 0x92));
  }
  m_broker.Send(broker::Subscribed(broker::kSubAck, kUnknown, {0}));
  m_broker.Send(broker::Subscribed(broker::kUnsubAck, kUnknown, {0}));
  m_broker.Send(broker::PingResp());
  expectSetWorks();
  serveUntilOnline();
  expectSetWorks();
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "\"1\"");
  EXPECT_LE(m_broker.Connections().size(), 2U);
}

TEST_F(MqttPublicationsTest, ARequestThatComesWithTheAcknowledgementOfOfflineIsAnswered) {
  startOnline();
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<Reason> {
    if (publication.payload != "\"offline\"") return Reason{0};
    m_broker.Send(broker::Publish(0, kGet, "[]", broker::AnswerProperties(kAnswers, "late"), 0x30) +
                  broker::Ack(broker::kPubAck, publication.id));
    return std::nullopt;
  });
  end();
  serveUntil([&] { return m_broker.Connections().back().isOver; });
  EXPECT_THAT(m_broker.AnswersTo("late"), ElementsAre(R"({"error":"the service was destroyed"})"));
}

TEST_F(MqttPublicationsTest, EachOfManyRequestsIsAnsweredByWayOfABrokerThatTakesAnswersLate) {
  constexpr std::size_t kSets = 3000;
  m_broker.JudgePublications([](const Publication& publication) {
    return publication.topic == kAnswers ? std::nullopt : std::optional<Reason>(0);
  });
  startOnline();
  std::vector<std::string> sets;
  for (std::size_t i = 0; i < kSets; ++i) sets.push_back(deliverSet());
  m_broker.ServeFor(milliseconds(1000));
  m_broker.JudgePublications({});
  while (!m_broker.Unacknowledged().empty()) m_broker.AcknowledgeOldest();
  serveUntil([&] { return m_broker.Undelivered() == 0; });
  std::size_t answered = 0;  // of the first
  serveUntil([&] {
    while (answered < kSets && m_broker.AnswersTo(sets[answered]).size() == 1) ++answered;
    return answered == kSets;
  });
  EXPECT_EQ(countErrors({"answers were dropped"}), 0U);
}

TEST_F(MqttPublicationsTest, AnAcknowledgementOfAnotherKindLosesNoValue) {
  m_broker.JudgePublications([&](const Publication& publication) -> std::optional<Reason> {
    if (publication.topic != valueTopic("a") || m_tried++ > 0) return 0;
    for (const auto type : {broker::kPubRec, broker::kPubComp, broker::kPubRel}) {
      m_broker.Send(broker::Ack(type, publication.id));
    }
    m_broker.Send(broker::Subscribed(broker::kSubAck, publication.id, {0}));
    return std::nullopt;
  });
  startWithValue();
  serveUntil([&] { return m_tried > 0; });
  m_broker.ServeFor(milliseconds(300));
  if (m_tried == 1 && !m_broker.Unacknowledged().empty()) m_broker.AcknowledgeOldest();
  serveUntilValue("1");
  serveUntilOnline();
  expectSetWorks();
  EXPECT_LE(m_broker.Connections().size(), 2U);
}

// --- Subscriptions

using MqttSubscriptionTest = ScriptedBrokerTestWith<std::tuple<const char*, Reason>>;

TEST_P(MqttSubscriptionTest, ARefusedOneIsLoggedWithItsFilterAndCostsNothingElse) {
  const std::string filter = std::get<0>(GetParam());
  const Reason reason = std::get<1>(GetParam());
  std::size_t refused = 0;
  m_broker.AnswerSubscriptions([&](const Packet& subscription) {
    const bool isMeant = subscription.filter == filter;
    if (isMeant) ++refused;
    return broker::Subscribed(broker::kSubAck, subscription.id,
                              {isMeant ? reason : subscription.qos});
  });
  startWithValue();
  serveUntil([&] { return refused > 0; });
  serveUntilValue("1");
  serveUntilRetained(kStatus, kOnline);
  serveUntil([&] { return countErrors({filter}) > 0; });
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  // Requests that come all the same are served.
  expectSetWorksOn(1);
  EXPECT_LE(refused, 4U);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttSubscriptionTest,
                         Combine(Values("things/tv/service/get", "things/tv/service/set",
                                        "things/tv/service/cancel", "things/tv/status",
                                        "things/tv/service/value/+"),
                                 Values(0x80, 0x83, 0x87, 0x8F, 0x91, 0x97, 0x9E, 0xA1, 0xA2)),
                         [](const auto& both) {
                           const std::string filter = std::get<0>(both.param);
                           const std::string last = filter.substr(filter.rfind('/') + 1);
                           return (last == "+" ? "values" : last) +
                                  ReasonName(std::get<1>(both.param));
                         });

using MqttGrantedQosTest = WithReason;

TEST_P(MqttGrantedQosTest, LessThanWasAskedForIsEnough) {
  m_broker.AnswerSubscriptions([](const Packet& subscription) {
    return broker::Subscribed(broker::kSubAck, subscription.id,
                              {std::min(subscription.qos, GetParam())});
  });
  startOnline();
  expectSetWorks();
  for (const unsigned firstByte : {0x30U, 0x32U}) {
    m_broker.Send(broker::Publish(9, kSet, R"({"n":7})", {}, firstByte));
  }
  serveUntil([&] { return propertiesOfSets().size() == 3; });
  serveUntil([&] {
    const auto& all = m_broker.Acknowledgements();
    return !all.empty() && all.back().type == broker::kPubAck && all.back().id == 9;
  });
  for (const Packet& subscription : m_broker.Subscriptions()) {
    const std::string& filter = subscription.filter;
    if (filter == kGet || filter == kSet || filter == kCancel) {
      EXPECT_EQ(subscription.qos, 2) << filter;
    }
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Qos, MqttGrantedQosTest, Values(0, 1, 2), nameOf);

using MqttUnsubscriptionTest = WithReason;

TEST_P(MqttUnsubscriptionTest, WhateverIsAnsweredEverythingGoesOn) {
  bool isAnswered = false;
  m_broker.AnswerUnsubscriptions([&](const Packet& unsubscription) {
    isAnswered = true;
    return broker::Subscribed(broker::kUnsubAck, unsubscription.id, {GetParam()});
  });
  startOnline();
  serveUntil([&] { return isAnswered; });
  expectSetWorksOn(1);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttUnsubscriptionTest,
                         Values(0x00, 0x11, 0x80, 0x83, 0x87, 0x8F, 0x91), nameOf);

// --- Connections and their ends

using MqttConnectionsTest = ScriptedBrokerTest;

TEST_F(MqttConnectionsTest, ARefusedRetainedWillIsNotOfferedAgain) {
  m_broker.AnswerConnects([this](const Packet& connect) {
    return connect.willRetain ? broker::ConnAckWith(false, 0x9A) : m_broker.Greeting();
  });
  m_plugIn.emplace();
  serveUntil([&] {
    const auto statuses = m_plugIn->Statuses();
    return !statuses.empty() && statuses.back() == "mqtt=1";
  });
  expectSetWorksOn(2);
}

using MqttDisconnectTest = WithReason;

TEST_P(MqttDisconnectTest, IsComeBackFromWithNothingLost) {
  startOnlineWithValue();
  // One set is in the middle of its exchange, another waits.
  const std::string first = deliverSet();
  m_broker.Send(broker::Disconnect(GetParam()));
  m_broker.Close();
  const std::string second = deliverSet();
  m_plugIn->Notify("a", "2");
  serveUntilOnlineAgain();
  // What is sent again may take one more.
  EXPECT_LE(m_broker.Connections().size(), 3U);
  expectHandled(first);
  expectHandled(second);
  serveUntilValue("2");
  EXPECT_GE(countErrors({"127.0.0.1"}), 1U) << log();
  EXPECT_EQ(m_plugIn->Statuses().back(), "mqtt=1");
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttDisconnectTest,
                         Values(0x00, 0x80, 0x81, 0x82, 0x83, 0x87, 0x89, 0x8B, 0x8D, 0x8E, 0x8F,
                                0x90, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9A, 0x9B, 0x9C,
                                0x9D, 0x9E, 0x9F, 0xA0, 0xA1, 0xA2),
                         nameOf);

TEST_F(MqttConnectionsTest, ATakeoverIsLoggedWithTheClientAndTheSettingToCheckAndNothingElseIs) {
  const std::string hint = "another client has connected as ";
  startOnline();
  m_broker.Send(broker::Disconnect(0x89));
  m_broker.Close();
  serveUntilOnlineAgain();
  EXPECT_EQ(countErrors({"server busy"}), 1U) << log();
  EXPECT_EQ(countErrors({hint}), 0U) << log();
  m_broker.Send(broker::Disconnect(0x8E));
  m_broker.Close();
  serveUntilOnlineAgain();
  EXPECT_EQ(countErrors({"lost the connection to ", "session taken over; " + hint +
                                                        "tv:service: is LUMO_THING_ID unique?; "
                                                        "next attempt in "}),
            1U)
      << log();
}

TEST_F(MqttConnectionsTest, ATakeoverIsSuspectedWhenTheBrokerClosesThreeConnectionsInARow) {
  constexpr const char* kHint = " again: is LUMO_THING_ID unique?";
  startOnline();
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(countErrors({kHint}), 0U) << log();
    m_broker.Close();
    serveUntilOnlineAgain(i);
  }
  EXPECT_EQ(countErrors({"lost the connection to ", kHint}), 1U) << log();
}

TEST_F(MqttConnectionsTest, ThatAConnectionIsBackIsLoggedAsAWarningAndTheFirstOneIsNone) {
  constexpr int kWarning = 5;
  startOnline();
  EXPECT_EQ(countLines({"connected to 127.0.0.1"}), 1U) << log();
  EXPECT_EQ(countLines({"connected to 127.0.0.1"}, kWarning), 0U) << log();
  m_broker.Close();
  serveUntilOnlineAgain();
  EXPECT_EQ(countLines({"connected to 127.0.0.1"}, kWarning), 1U) << log();
  EXPECT_EQ(countErrors({"connected to 127.0.0.1"}), 0U) << log();
}

TEST_F(MqttConnectionsTest, AnotherServerThatIsNamedIsNotGoneTo) {
  ScriptedBroker other;
  const std::string reference = broker::Property(
      broker::kServerReference, broker::Text("127.0.0.1:" + std::to_string(other.Port())));
  startOnline();
  m_broker.Send(broker::Whole(0xE0, broker::Number(0x9D, 1) + broker::WithLength(reference)));
  m_broker.Close();
  m_broker.AnswerConnects([&](const auto&) {
    return m_broker.Connections().size() == 2 ? broker::ConnAckWith(false, 0x9C, reference)
                                              : m_broker.Greeting();
  });
  serveUntilOnlineAgain(2);
  other.ServeFor(milliseconds(1));
  EXPECT_TRUE(other.Connections().empty());
  expectSetWorksOn(3);
}

TEST_F(MqttConnectionsTest, MemoryThatRunsOutForAMomentCostsTheConnectionAndNoMore) {
  startOnlineWithValue();
  const std::string set = broker::Publish(1, kSet, R"({"n":0})");
  {
    const OutOfMemory none;
    m_broker.Send(set);
    std::this_thread::sleep_for(milliseconds(300));  // for the client to meet it, more than once
  }
  serveUntilOnlineAgain();
  expectSetWorks();
  m_plugIn->Notify("a", "afterwards");
  serveUntilValue("afterwards");
  EXPECT_LE(m_broker.Connections().size(), 3U);
}

}  // namespace
