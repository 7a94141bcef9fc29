// A broker that says no: to a connection, to a publication, to a subscription, or to go on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

std::string hex(Reason reason) {
  constexpr const char* kDigits = "0123456789ABCDEF";
  return {'0', 'x', kDigits[reason >> 4], kDigits[reason & 15]};
}

std::string reasonName(const ::testing::TestParamInfo<Reason>& info) {
  return hex(info.param);
}

// --- Publications

enum class Subject { Value, Answer, Description, Status };

class MqttPublicationTest : public ScriptedBrokerTest,
                            public ::testing::WithParamInterface<std::tuple<Subject, Reason>> {
 protected:
  Subject subject() const { return std::get<0>(GetParam()); }
  Reason reason() const { return std::get<1>(GetParam()); }
  std::string topic() const {
    switch (subject()) {
      case Subject::Value:
        return valueTopic("a");
      case Subject::Answer:
        return kAnswers;
      case Subject::Description:
        return kDescription;
      case Subject::Status:
        break;
    }
    return kStatus;
  }
  std::string payload() const {
    switch (subject()) {
      case Subject::Value:
        return "\"1\"";
      case Subject::Answer:
        return answerToSet("1");
      case Subject::Description:
        return R"({"a":{"type":"string"}})";
      case Subject::Status:
        break;
    }
    return kOnline;
  }
  // Refuses that many publications of the subject, and none of the others.
  void refuse(std::size_t count) {
    m_broker.JudgePublications([this, count](const ScriptedBroker::Publication& publication) {
      const bool isMeant = publication.topic == topic() && publication.payload == payload();
      return isMeant && m_refused++ < count ? reason() : Reason(0);
    });
  }
  // Has the subject published: all of them are.
  void publishAll(PlugIn& plugIn) {
    plugIn.Register("a");
    plugIn.Notify("a", "1");
    deliverSet();
  }
  std::vector<ScriptedBroker::Publication> published() const {
    std::vector<ScriptedBroker::Publication> found;
    for (auto& publication : m_broker.PublicationsOn(topic())) {
      if (publication.payload == payload()) found.push_back(std::move(publication));
    }
    return found;
  }
  std::size_t m_refused = 0;
};

std::string publicationName(const ::testing::TestParamInfo<std::tuple<Subject, Reason>>& info) {
  constexpr const char* kNames[] = {"Value", "Answer", "Description", "Status"};
  return kNames[static_cast<std::size_t>(std::get<0>(info.param))] + hex(std::get<1>(info.param));
}

const auto kSubjects =
    Values(Subject::Value, Subject::Answer, Subject::Description, Subject::Status);

using MqttPassingRefusalTest = MqttPublicationTest;

TEST_P(MqttPassingRefusalTest, IsTriedAgainLaterAndLaterUntilItIsTaken) {
  constexpr std::size_t kRefusals = 2;
  constexpr Reason kPacketIdInUse = 0x91;
  refuse(kRefusals);
  PlugIn plugIn;
  publishAll(plugIn);
  ASSERT_TRUE(m_broker.ServeUntil([&] { return published().size() > kRefusals; }))
      << published().size() << " publications";
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const auto attempts = published();
  EXPECT_EQ(attempts.size(), kRefusals + 1);
  if (reason() != kPacketIdInUse) {
    EXPECT_GE(attempts[1].time - attempts[0].time, kShortestDelay);
    EXPECT_GE(attempts[2].time - attempts[1].time, kShortestDelay);
  }
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  EXPECT_TRUE(serveUntilRetained(kDescription, R"({"a":{"type":"string"}})"));
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  expectHandled(plugIn, "1");
  expectSetWorks(plugIn);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttPassingRefusalTest,
                         Combine(kSubjects, Values(0x80, 0x83, 0x91, 0x97)), publicationName);

using MqttLastingRefusalTest = MqttPublicationTest;

TEST_P(MqttLastingRefusalTest, IsLoggedOnceWithItsTopicAndNotTriedAgain) {
  refuse(1000);
  PlugIn plugIn;
  publishAll(plugIn);
  ASSERT_TRUE(m_broker.ServeUntil([&] { return m_refused > 0; }));
  m_broker.ServeFor(kWithoutAnother);
  EXPECT_EQ(m_refused, 1U);
  EXPECT_EQ(countErrors({topic()}), 1U) << log();
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  // The others have come through, and what is new does.
  for (const Subject other : {Subject::Value, Subject::Description, Subject::Status}) {
    const std::string at = other == Subject::Value         ? valueTopic("a")
                           : other == Subject::Description ? std::string(kDescription)
                                                           : std::string(kStatus);
    EXPECT_EQ(m_broker.RetainedAt(at).empty(), other == subject()) << at;
  }
  plugIn.Register("b");
  plugIn.Notify("a", "2");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"2\""));
  EXPECT_TRUE(serveUntilRetained(kDescription, R"({"a":{"type":"string"},"b":{"type":"string"}})"));
  expectSetWorks(plugIn);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttLastingRefusalTest,
                         Combine(kSubjects, Values(0x87, 0x90, 0x99)), publicationName);

using MqttTakenTest = MqttPublicationTest;

TEST_P(MqttTakenTest, IsNotTriedAgainAndNoError) {
  constexpr milliseconds kGlimpse(1500);
  refuse(1000);
  PlugIn plugIn;
  publishAll(plugIn);
  ASSERT_TRUE(m_broker.ServeUntil([&] { return m_refused > 0; }));
  m_broker.ServeFor(kGlimpse);
  EXPECT_EQ(m_refused, 1U);
  EXPECT_EQ(countErrors({}), 0U) << log();
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttTakenTest, Combine(kSubjects, Values(0x00, 0x10)),
                         publicationName);

// Codes that an acknowledgement of a publication cannot have.
class MqttWrongReasonTest : public ScriptedBrokerTest,
                            public ::testing::WithParamInterface<Reason> {};

TEST_P(MqttWrongReasonTest, CostsAConnectionAtMostAndNeverAValue) {
  std::size_t count = 0;
  m_broker.JudgePublications([&](const ScriptedBroker::Publication& publication) {
    return publication.topic == valueTopic("a") && count++ == 0 ? GetParam() : Reason(0);
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\"")) << count << " publications";
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  EXPECT_LE(m_broker.Connections().size(), 2U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttWrongReasonTest,
                         Values(0x01, 0x02, 0x11, 0x18, 0x7F, 0x81, 0x82, 0x88, 0x89, 0x92, 0x9A,
                                0xFF),
                         reasonName);

using MqttPublicationsTest = ScriptedBrokerTest;

TEST_F(MqttPublicationsTest, ARefusedValueThatChangesMeanwhileIsSentAsItIsThen) {
  std::size_t count = 0;
  m_broker.JudgePublications([&](const ScriptedBroker::Publication& publication) {
    return publication.topic == valueTopic("a") && count++ == 0 ? Reason(0x97) : Reason(0);
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "old");
  ASSERT_TRUE(m_broker.ServeUntil([&] { return count == 1; }));
  plugIn.Notify("a", "new");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"new\""));
  m_broker.ServeFor(kWithoutAnother);
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "\"new\"");
  const auto publications = m_broker.PublicationsOn(valueTopic("a"));
  EXPECT_EQ(publications.back().payload, "\"new\"");
  EXPECT_LE(publications.size(), 3U);
  end(plugIn);
}

TEST_F(MqttPublicationsTest, ARefusedClearingIsTriedAgainToo) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  std::size_t count = 0;
  m_broker.JudgePublications([&](const ScriptedBroker::Publication& publication) {
    return publication.payload.empty() && count++ == 0 ? Reason(0x80) : Reason(0);
  });
  plugIn.Unregister("a");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), ""));
  EXPECT_EQ(count, 2U);
  end(plugIn);
}

TEST_F(MqttPublicationsTest, OthersGoOnWhileOneIsRefused) {
  m_broker.JudgePublications([&](const ScriptedBroker::Publication& publication) {
    return publication.topic == valueTopic("a") ? Reason(0x97) : Reason(0);
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const auto start = ScriptedBroker::Clock::now();
  for (int i = 0; i < 100; ++i) {
    plugIn.Notify("b", std::to_string(i));
    ASSERT_TRUE(serveUntilRetained(valueTopic("b"), "\"" + std::to_string(i) + "\""));
    expectSetWorks(plugIn);
  }
  const auto time = ScriptedBroker::Clock::now() - start;
  EXPECT_LE(m_broker.PublicationsOn(valueTopic("a")).size(),
            2U + static_cast<std::size_t>(time / kShortestDelay));
  end(plugIn);
}

TEST_F(MqttPublicationsTest, AnAcknowledgementOfNothingChangesNothing) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  // Of no message that either side knows.
  constexpr std::size_t kUnknown = 40'000;
  for (const unsigned type : {0x40U, 0x50U, 0x62U, 0x70U}) {
    m_broker.Send(MqttBytes::Ack(type, kUnknown));
    m_broker.Send(MqttBytes::Ack(type, kUnknown, type == 0x40 ? 0x97 : 0x92));
  }
  m_broker.Send(MqttBytes::SubscriptionAck(0x90, kUnknown, 0));
  m_broker.Send(MqttBytes::SubscriptionAck(0xB0, kUnknown, 0));
  m_broker.Send(MqttBytes::Packet(0xD0, {}));
  expectSetWorks(plugIn);
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "\"1\"");
  EXPECT_LE(m_broker.Connections().size(), 2U);
  end(plugIn);
}

TEST_F(MqttPublicationsTest, ARequestThatComesWithTheAcknowledgementOfOfflineIsAnswered) {
  constexpr unsigned kPublishAtQosZero = 0x30;
  constexpr unsigned kPubAck = 0x40;
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.JudgePublications(
      [&](const ScriptedBroker::Publication& publication) -> std::optional<Reason> {
        if (publication.payload != "\"offline\"") return Reason{0};
        const std::string request = MqttBytes::Publish(
            0, kGet, "[]", MqttBytes::ResponseTopic(kAnswers) + MqttBytes::CorrelationData("late"),
            kPublishAtQosZero);
        m_broker.Send(request + MqttBytes::Ack(kPubAck, publication.id));
        return std::nullopt;
      });
  end(plugIn);
  EXPECT_TRUE(m_broker.ServeUntil([&] { return m_broker.Connections().back().isOver; }));
  EXPECT_THAT(m_broker.AnswersTo("late"), ElementsAre(R"({"error":"the service was destroyed"})"));
}

TEST_F(MqttPublicationsTest, EachOfManyRequestsIsAnsweredByWayOfABrokerThatTakesAnswersLate) {
  constexpr std::size_t kSets = 3000;
  bool isLate = true;
  m_broker.JudgePublications(
      [&isLate](const ScriptedBroker::Publication& publication) -> std::optional<Reason> {
        if (isLate && publication.topic == kAnswers) return std::nullopt;
        return Reason{0};
      });
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  std::vector<std::string> sets;
  for (std::size_t i = 0; i < kSets; ++i) sets.push_back(deliverSet());
  m_broker.ServeFor(milliseconds(1000));
  isLate = false;
  while (!m_broker.Unacknowledged().empty()) m_broker.AcknowledgeOldest();
  EXPECT_TRUE(m_broker.ServeUntil([&] { return m_broker.Undelivered() == 0; }));
  std::size_t answered = 0;  // of the first
  EXPECT_TRUE(m_broker.ServeUntil([&] {
    while (answered < kSets && m_broker.AnswersTo(sets[answered]).size() == 1) ++answered;
    return answered == kSets;
  })) << answered;
  EXPECT_EQ(countErrors({"answers were dropped"}), 0U);
  end(plugIn);
}

TEST_F(MqttPublicationsTest, AnAcknowledgementOfAnotherKindLosesNoValue) {
  std::size_t count = 0;
  m_broker.JudgePublications(
      [&](const ScriptedBroker::Publication& publication) -> std::optional<Reason> {
        if (publication.topic != valueTopic("a") || count++ > 0) return 0;
        for (const unsigned type : {0x50U, 0x70U, 0x62U}) {
          m_broker.Send(MqttBytes::Ack(type, publication.id));
        }
        m_broker.Send(MqttBytes::SubscriptionAck(0x90, publication.id, 0));
        return std::nullopt;
      });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(m_broker.ServeUntil([&] { return count > 0; }));
  m_broker.ServeFor(milliseconds(300));
  if (count == 1 && !m_broker.Unacknowledged().empty()) m_broker.AcknowledgeOldest();
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  EXPECT_LE(m_broker.Connections().size(), 2U);
  end(plugIn);
}

// --- Subscriptions

class MqttSubscriptionTest : public ScriptedBrokerTest,
                             public ::testing::WithParamInterface<std::tuple<const char*, Reason>> {
};

TEST_P(MqttSubscriptionTest, ARefusedOneIsLoggedWithItsFilterAndCostsNothingElse) {
  const auto& [filter, reason] = GetParam();
  std::size_t refused = 0;
  m_broker.AnswerSubscriptions([&, filter = filter, reason = reason](const auto& subscription) {
    const bool isMeant = subscription.filter == filter;
    if (isMeant) ++refused;
    return MqttBytes::SubscriptionAck(0x90, subscription.id, isMeant ? reason : subscription.qos);
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(m_broker.ServeUntil([&] { return refused > 0; }));
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  EXPECT_TRUE(serveUntilRetained(kStatus, kOnline));
  EXPECT_TRUE(m_broker.ServeUntil([&, filter = filter] { return countErrors({filter}) > 0; }))
      << log();
  plugIn.Notify("a", "2");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"2\""));
  // Requests that come all the same are served.
  expectSetWorks(plugIn);
  EXPECT_LE(refused, 4U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

std::string subscriptionName(
    const ::testing::TestParamInfo<std::tuple<const char*, Reason>>& info) {
  const std::string filter = std::get<0>(info.param);
  const std::string last = filter.substr(filter.rfind('/') + 1);
  return (last == "+" ? "values" : last) + hex(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttSubscriptionTest,
                         Combine(Values("things/tv/service/get", "things/tv/service/set",
                                        "things/tv/service/cancel", "things/tv/status",
                                        "things/tv/service/value/+"),
                                 Values(0x80, 0x83, 0x87, 0x8F, 0x91, 0x97, 0x9E, 0xA1, 0xA2)),
                         subscriptionName);

class MqttGrantedQosTest : public ScriptedBrokerTest,
                           public ::testing::WithParamInterface<Reason> {};

TEST_P(MqttGrantedQosTest, LessThanWasAskedForIsEnough) {
  m_broker.AnswerSubscriptions([](const auto& subscription) {
    const Reason granted = std::min(subscription.qos, GetParam());
    return MqttBytes::SubscriptionAck(0x90, subscription.id, granted);
  });
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  const std::string payload = R"({"n":7})";
  m_broker.Send(MqttBytes::Publish(9, kSet, payload, {}, 0x30));
  m_broker.Send(MqttBytes::Publish(9, kSet, payload, {}, 0x32));
  EXPECT_TRUE(m_broker.ServeUntil([&] { return plugIn.Calls("set").size() == 3; }));
  EXPECT_TRUE(m_broker.ServeUntil([&] {
    const auto& all = m_broker.Acknowledgements();
    return !all.empty() && all.back().type == ScriptedBroker::Type::PubAck && all.back().id == 9;
  }));
  for (const ScriptedBroker::Subscription& subscription : m_broker.Subscriptions()) {
    const bool isOfRequests = subscription.filter == kGet || subscription.filter == kSet ||
                              subscription.filter == kCancel;
    if (isOfRequests) {
      EXPECT_EQ(subscription.qos, 2) << subscription.filter;
    }
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Qos, MqttGrantedQosTest, Values(0, 1, 2), reasonName);

class MqttUnsubscriptionTest : public ScriptedBrokerTest,
                               public ::testing::WithParamInterface<Reason> {};

TEST_P(MqttUnsubscriptionTest, WhateverIsAnsweredEverythingGoesOn) {
  bool isAnswered = false;
  m_broker.AnswerUnsubscriptions([&](const auto& subscription) {
    isAnswered = true;
    return MqttBytes::SubscriptionAck(0xB0, subscription.id, GetParam());
  });
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  ASSERT_TRUE(m_broker.ServeUntil([&] { return isAnswered; }));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttUnsubscriptionTest,
                         Values(0x00, 0x11, 0x80, 0x83, 0x87, 0x8F, 0x91), reasonName);

// --- Connections

class MqttConnectionRefusedTest : public ScriptedBrokerTest,
                                  public ::testing::WithParamInterface<Reason> {};

TEST_P(MqttConnectionRefusedTest, IsLoggedAndTriedAgainUntilItIsAccepted) {
  m_broker.AnswerConnects([this](const auto&) {
    return m_broker.Connections().size() == 1 ? MqttBytes::ConnAck(false, GetParam())
                                              : m_broker.Greeting();
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn)) << log();
  EXPECT_EQ(m_broker.Connections().size(), 2U);
  EXPECT_GE(countErrors({"refuse"}), 1U) << log();
  EXPECT_THAT(plugIn.Statuses(), ElementsAre("mqtt=1"));
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  expectSetWorks(plugIn);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttConnectionRefusedTest,
                         Values(0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A,
                                0x8C, 0x90, 0x95, 0x97, 0x99, 0x9A, 0x9B, 0x9C, 0x9D, 0x9F),
                         reasonName);

using MqttConnectionsTest = ScriptedBrokerTest;

TEST_F(MqttConnectionsTest, ARefusedRetainedWillIsNotOfferedAgain) {
  m_broker.AnswerConnects([this](const ScriptedBroker::Connection& connection) {
    const bool isRetained = connection.will && connection.will->retain;
    return isRetained ? MqttBytes::ConnAck(false, 0x9A) : m_broker.Greeting();
  });
  PlugIn plugIn;
  ASSERT_TRUE(m_broker.ServeUntil([&] {
    return !plugIn.Statuses().empty() && plugIn.Statuses().back() == "mqtt=1";
  })) << m_broker.Connections().size()
      << " connections";
  EXPECT_EQ(m_broker.Connections().size(), 2U);
  expectSetWorks(plugIn);
  end(plugIn);
}

TEST_F(MqttConnectionsTest, OneThatIsAlwaysRefusedIsTriedLessAndLessOften) {
  m_broker.AnswerConnects([](const auto&) { return MqttBytes::ConnAck(false, 0x88); });
  PlugIn plugIn;
  m_broker.ServeFor(std::chrono::seconds(5));
  EXPECT_GE(m_broker.Connections().size(), 2U);
  EXPECT_LE(m_broker.Connections().size(), 8U);
  EXPECT_TRUE(plugIn.Statuses().empty());
}

// --- Ends

class MqttDisconnectTest : public ScriptedBrokerTest,
                           public ::testing::WithParamInterface<Reason> {};

TEST_P(MqttDisconnectTest, IsComeBackFromWithNothingLost) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  // One set is in the middle of its exchange, another waits.
  const std::string first = deliverSet();
  m_broker.Send(MqttBytes::Disconnect(GetParam()));
  m_broker.Close();
  const std::string second = deliverSet();
  plugIn.Notify("a", "2");
  ASSERT_TRUE(serveUntilOnlineAgain(plugIn)) << log();
  // What is sent again may take one more.
  EXPECT_LE(m_broker.Connections().size(), 3U);
  expectHandled(plugIn, first);
  expectHandled(plugIn, second);
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"2\""));
  EXPECT_GE(countErrors({"127.0.0.1"}), 1U) << log();
  EXPECT_EQ(plugIn.Statuses().back(), "mqtt=1");
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Reasons, MqttDisconnectTest,
                         Values(0x00, 0x80, 0x81, 0x82, 0x83, 0x87, 0x89, 0x8B, 0x8D, 0x8E, 0x8F,
                                0x90, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9A, 0x9B, 0x9C,
                                0x9D, 0x9E, 0x9F, 0xA0, 0xA1, 0xA2),
                         reasonName);

using MqttDisconnectsTest = ScriptedBrokerTest;

TEST_F(MqttDisconnectsTest, AnotherServerThatIsNamedIsNotGoneTo) {
  ScriptedBroker other;
  const std::string reference = "127.0.0.1:" + std::to_string(other.Port());
  const std::string property = MqttBytes::Byte(0x1C) + MqttBytes::Text(reference);
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.Send(MqttBytes::Disconnect(0x9D, property));
  m_broker.Close();
  m_broker.AnswerConnects([&](const auto&) {
    return m_broker.Connections().size() == 2 ? MqttBytes::ConnAck(false, 0x9C, property)
                                              : m_broker.Greeting();
  });
  ASSERT_TRUE(
      m_broker.ServeUntil([&] { return m_broker.Connections().size() == 3 && isOnline(plugIn); }));
  other.ServeFor(milliseconds(1));
  EXPECT_TRUE(other.Connections().empty());
  expectSetWorks(plugIn);
  end(plugIn);
}

TEST_F(MqttDisconnectsTest, MemoryThatRunsOutForAMomentCostsTheConnectionAndNoMore) {
  PlugIn plugIn;
  plugIn.Register("a");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const std::string set = MqttBytes::Publish(1, kSet, R"({"n":0})");
  {
    const OutOfMemory none;
    m_broker.Send(set);
    std::this_thread::sleep_for(milliseconds(300));  // for the client to meet it, more than once
  }
  EXPECT_TRUE(
      m_broker.ServeUntil([&] { return m_broker.Connections().size() > 1 && isOnline(plugIn); }));
  expectSetWorks(plugIn);
  plugIn.Notify("a", "afterwards");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"afterwards\""));
  EXPECT_LE(m_broker.Connections().size(), 3U);
  end(plugIn);
}

TEST_F(MqttDisconnectsTest, OneThatComesWithEveryConnectionIsComeBackFromLessAndLessOften) {
  m_broker.AnswerConnects([this](const auto&) {
    m_broker.Send(m_broker.Greeting() + MqttBytes::Disconnect(0x8E));
    m_broker.Close();
    return std::string();
  });
  PlugIn plugIn;
  m_broker.ServeFor(std::chrono::seconds(5));
  EXPECT_GE(m_broker.Connections().size(), 2U);
  EXPECT_LE(m_broker.Connections().size(), 8U);
}

}  // namespace
