// What a broker announces when it accepts a connection, and limits that it does not announce.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "ScriptedBrokerTest.h"

namespace {

using broker::Number;
using broker::Property;
using broker::Text;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::Values;
using ::testing::ValuesIn;

constexpr const char* kTooLarge = R"({"error":"the answer is larger than the broker takes"})";

std::string maximumPacketSize(std::size_t bytes) {
  return Property(broker::kMaximumPacketSize, Number(bytes, 4));
}

class MqttLimitsTest : public ScriptedBrokerTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(countPublicationsOver(m_limit), 0U);
    ScriptedBrokerTest::TearDown();
  }
  // Every connection is accepted with these.
  void announce(const std::string& properties) {
    m_broker.AnswerConnects(
        [this, properties](const auto&) { return m_broker.Greeting(properties); });
  }
  // Nothing larger may be published in the whole test.
  void announceLimit(std::size_t bytes) {
    announce(maximumPacketSize(bytes));
    m_limit = bytes;
  }
  // A set whose answer repeats that many bytes.
  void deliverLongSet(std::size_t bytes, const std::string& correlation) {
    deliverRequest(kSet, R"({"long":")" + std::string(bytes, 'x') + "\"}", correlation);
  }
  void expectTooLarge(const std::string& correlation) {
    serveUntilAnswered(correlation);
    EXPECT_THAT(m_broker.AnswersTo(correlation), ElementsAre(kTooLarge));
  }
  std::size_t countPublicationsOver(std::size_t bytes) const {
    const auto& all = m_broker.Publications();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [bytes](const Publication& p) { return p.bytes > bytes; }));
  }
  void expectOneConnection() const { EXPECT_EQ(m_broker.Connections().size(), 1U); }

 private:
  std::size_t m_limit = std::numeric_limits<std::size_t>::max();
};

// --- Announcements that change nothing

class MqttHarmlessTest : public MqttLimitsTest, public ::testing::WithParamInterface<Bytes> {};

TEST_P(MqttHarmlessTest, EverythingWorks) {
  announce(GetParam().bytes);
  startOnlineWithValue();
  serveUntilValue("1");
  expectSetWorksOn(1);
  // One that weakens a promise is logged.
  const std::size_t lines = GetParam().name == "MaximumQos1" ? 1 : 0;
  EXPECT_EQ(countErrors({}), lines) << log();
  EXPECT_EQ(countErrors({"QoS"}), lines) << log();
  for (const Publication& publication : m_broker.Publications()) {
    EXPECT_FALSE(publication.topic.empty());
    EXPECT_EQ(publication.qos, 1);
  }
}

const std::string kUserProperty = Property(broker::kUserProperty, Text("name") + Text("value"));

const std::vector<Bytes> kHarmless{
    {"None", {}},
    {"ReceiveMaximumMost", Property(broker::kReceiveMaximum, Number(65535, 2))},
    {"MaximumQos1", Property(broker::kMaximumQos, Number(1, 1))},
    {"RetainAvailable", Property(broker::kRetainAvailable, Number(1, 1))},
    {"MaximumPacketSizeMost", maximumPacketSize(0xFFFFFFFF)},
    {"TopicAliasMaximum", Property(broker::kTopicAliasMaximum, Number(65535, 2))},
    {"NoTopicAliases", Property(broker::kTopicAliasMaximum, Number(0, 2))},
    {"WildcardsAvailable", Property(broker::kWildcardsAvailable, Number(1, 1))},
    {"NoSubscriptionIds", Property(broker::kSubscriptionIdsAvailable, Number(0, 1))},
    {"NoSharedSubscriptions", Property(broker::kSharedSubscriptionsAvailable, Number(0, 1))},
    {"ServerKeepAliveNone", Property(broker::kServerKeepAlive, Number(0, 2))},
    {"ServerKeepAliveMost", Property(broker::kServerKeepAlive, Number(65535, 2))},
    {"SessionExpiryNever", Property(broker::kSessionExpiryInterval, Number(0xFFFFFFFF, 4))},
    {"SessionExpiryOfADay", Property(broker::kSessionExpiryInterval, Number(86400, 4))},
    {"ReasonString", Property(broker::kReasonString, Text("well done"))},
    {"LongReasonString", Property(broker::kReasonString, Text(std::string(65535, 'r')))},
    {"ResponseInformation", Property(broker::kResponseInformation, Text("answers"))},
    {"UserProperties", kUserProperty + kUserProperty + kUserProperty},
};

INSTANTIATE_TEST_SUITE_P(Properties, MqttHarmlessTest, ValuesIn(kHarmless), BytesName);

// --- Announcements that are kept to

TEST_F(MqttLimitsTest, WithReceiveMaximumOneOnePublicationIsInFlightAtATime) {
  const std::vector<std::string> names{"a", "b", "c", "d", "e"};
  announce(Property(broker::kReceiveMaximum, Number(1, 2)));
  m_broker.JudgePublications([](const auto&) { return std::nullopt; });
  m_plugIn.emplace();
  for (const std::string& name : names) {
    m_plugIn->Register(name);
    m_plugIn->Notify(name, "1");
  }
  // The description, the values and the status, at least.
  while (m_broker.RetainedAt(kStatus) != kOnline) {
    serveUntil([&] { return !m_broker.Unacknowledged().empty(); });
    m_broker.ServeFor(milliseconds(50));  // for a wrong one to come
    ASSERT_EQ(m_broker.Unacknowledged().size(), 1U);
    m_broker.AcknowledgeOldest();
  }
  for (const std::string& name : names) EXPECT_EQ(m_broker.RetainedAt(valueTopic(name)), "\"1\"");
  expectOneConnection();
}

TEST_F(MqttLimitsTest, WithMaximumQosZeroPublicationsGoAtThatAndSubscriptionsAskForAllTheSame) {
  announce(Property(broker::kMaximumQos, Number(0, 1)));
  m_broker.AnswerSubscriptions([](const Packet& subscription) {
    return broker::Subscribed(broker::kSubAck, subscription.id, {0});
  });
  startOnlineWithValue();
  serveUntilValue("1");
  expectSetWorksOn(1);
  for (const Publication& publication : m_broker.Publications()) EXPECT_EQ(publication.qos, 0);
  for (const char* filter : {kGet, kSet, kCancel}) {
    const auto& all = m_broker.Subscriptions();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const Packet& subscription) {
      return subscription.filter == filter && subscription.qos == 2;
    })) << filter;
  }
  EXPECT_EQ(countLines({"qos"}), 1U) << log();
}

TEST_F(MqttLimitsTest, WithoutRetainedMessagesNothingIsPublishedAsOne) {
  announce(Property(broker::kRetainAvailable, Number(0, 1)));
  startWithValue();
  serveUntil([&] { return !m_broker.PublicationsOn(valueTopic("a")).empty(); });
  serveUntil([&] { return !m_broker.PublicationsOn(kStatus).empty(); });
  expectSetWorksOn(1);
  for (const Publication& publication : m_broker.Publications()) {
    EXPECT_FALSE(publication.retain) << publication.topic;
  }
  EXPECT_EQ(countLines({"retain"}), 1U) << log();
}

TEST_F(MqttLimitsTest, WithoutWildcardsNoneIsSubscribedTo) {
  announce(Property(broker::kWildcardsAvailable, Number(0, 1)));
  startOnline();
  expectSetWorksOn(1);
  for (const Packet& subscription : m_broker.Subscriptions()) {
    EXPECT_EQ(subscription.filter.find_first_of("+#"), std::string::npos) << subscription.filter;
  }
  EXPECT_EQ(countLines({"wildcard"}), 1U) << log();
}

TEST_F(MqttLimitsTest, TheServersKeepAliveIsKept) {
  constexpr milliseconds kLongest(1500);  // a broker waits one and a half times as long
  announce(Property(broker::kServerKeepAlive, Number(1, 2)));
  startOnline();
  auto last = Clock::now();
  const auto pings = [this] { return m_broker.Connections().back().pings; };
  serveUntil([&] { return pings().size() >= 3; });
  for (const auto ping : pings()) {
    EXPECT_LE(ping - last, kLongest);
    last = ping;
  }
  expectOneConnection();
}

TEST_F(MqttLimitsTest, AServerThatDoesNotAnswerAPingIsLeft) {
  announce(Property(broker::kServerKeepAlive, Number(1, 2)));
  startOnline();
  const auto start = Clock::now();
  // Nobody serves, so that nothing is answered.
  EXPECT_TRUE(m_plugIn->WaitForStatus("mqtt=0"));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  serveUntilOnlineAgain();
}

TEST_F(MqttLimitsTest, AClientIdentifierThatIsAssignedIsUsedFromThenOn) {
  announce(Property(broker::kAssignedClientIdentifier, Text("another")));
  startOnline();
  m_broker.Close();
  serveUntilOnlineAgain();
  EXPECT_EQ(m_broker.Connections()[0].connect.clientId, "tv:service");
  EXPECT_EQ(m_broker.Connections()[1].connect.clientId, "another");
  expectSetWorks();
}

TEST_F(MqttLimitsTest, ASessionThatEndsWithItsConnectionIsLogged) {
  announce(Property(broker::kSessionExpiryInterval, Number(0, 4)));
  startOnline();
  expectSetWorksOn(1);
  EXPECT_EQ(countLines({"session"}), 1U) << log();
}

TEST_F(MqttLimitsTest, ASessionThatEndsEarlierThanAskedForIsLogged) {
  announce(Property(broker::kSessionExpiryInterval, Number(300, 4)));
  startOnline();
  expectSetWorksOn(1);
  EXPECT_EQ(countLines({"the broker forgets the session 300 s after the connection"}), 1U) << log();
}

// --- Sizes

TEST_F(MqttLimitsTest, AValueAsLargeAsTheBrokerTakesIsSentAndOneThatIsLargerIsNot) {
  constexpr std::size_t kLimit = 2000;
  announceLimit(kLimit);
  startWithValue("x");
  serveUntilValue("x");
  const std::size_t around = m_broker.PublicationsOn(valueTopic("a")).back().bytes - 1;
  const std::string largest(kLimit - around, 'y');
  m_plugIn->Notify("a", largest);
  serveUntilValue(largest);
  EXPECT_EQ(m_broker.PublicationsOn(valueTopic("a")).back().bytes, kLimit);
  m_plugIn->Notify("a", largest + "y");
  serveUntilValue("");
  expectOneConnection();
}

TEST_F(MqttLimitsTest, AValueThatIsTooLargeIsLoggedOnceUntilOneHasFittedInBetween) {
  constexpr std::size_t kLimit = 2000;
  announceLimit(kLimit);
  m_plugIn.emplace();
  for (const char* name : {"a", "b"}) m_plugIn->Register(name);
  const auto notifyAndServe = [&](const std::string& value) {
    const std::string size = std::to_string(value.size());
    m_plugIn->Notify("a", value);
    serveUntilValue(value.size() < kLimit ? value : "");
    // What was notified before it is at the broker when this is.
    m_plugIn->Notify("b", size);
    serveUntilValue(size, "b");
  };
  notifyAndServe("small");
  EXPECT_EQ(countErrors({valueTopic("a")}), 0U) << log();
  for (std::size_t i = 0; i < 3; ++i) notifyAndServe(std::string(kLimit + i, 'x'));
  EXPECT_EQ(countErrors({valueTopic("a")}), 1U) << log();
  notifyAndServe("small again");
  notifyAndServe(std::string(kLimit + 9, 'x'));
  EXPECT_EQ(countErrors({valueTopic("a")}), 2U) << log();
  expectOneConnection();
}

TEST_F(MqttLimitsTest, AnAnswerThatIsTooLargeBecomesAnError) {
  constexpr std::size_t kLimit = 2000;
  announceLimit(kLimit);
  startOnline();
  deliverLongSet(kLimit, "too large");
  expectTooLarge("too large");
  EXPECT_EQ(m_broker.Publications().back().topic, kAnswers);
  deliverLongSet(100, "small");
  serveUntilAnswered("small");
  expectOneConnection();
}

TEST_F(MqttLimitsTest, ASubscriptionThatIsTooLargeIsNotSentButLogged) {
  announce(maximumPacketSize(31));  // enough for a subscription to "set" or "get", not to "cancel"
  m_plugIn.emplace();
  serveUntil([this] { return countErrors({kStatus}) > 0 && m_broker.Subscriptions().size() >= 3; });
  std::vector<std::string> filters;
  for (const Packet& subscription : m_broker.Subscriptions()) {
    filters.push_back(subscription.filter);
  }
  EXPECT_THAT(filters, UnorderedElementsAre(kGet, kSet, kStatus));
  EXPECT_EQ(countErrors({"subscription", kCancel}), 1U) << log();
  EXPECT_EQ(countErrors({"subscription", kAllValues}), 1U) << log();
  deliverSet();
  serveUntil([&] { return propertiesOfSets().size() == 1; });
  expectOneConnection();
}

TEST_F(MqttLimitsTest, WhereNothingFitsTheEndWaitsForNothingAndEachTopicIsOneLine) {
  announce(maximumPacketSize(10));
  m_plugIn.emplace();
  serveUntil([&] { return countErrors({kStatus, "nothing at all fits"}) > 0; });
  for (const char* name : {"a", "b"}) m_plugIn->Register(name);
  const auto start = Clock::now();
  end();
  EXPECT_LT(Clock::now() - start, milliseconds(1900));
  EXPECT_EQ(countErrors({kStatus, "nothing at all fits"}), 1U) << log();
  EXPECT_EQ(countErrors({kDescription, "nothing at all fits"}), 1U) << log();
  EXPECT_THAT(m_broker.Subscriptions(), IsEmpty());
  EXPECT_THAT(m_broker.Publications(), IsEmpty());
}

TEST_F(MqttLimitsTest, ADescriptionThatIsTooLargeCostsTheOthersNothing) {
  announceLimit(400);
  m_plugIn.emplace();
  for (int i = 0; i < 50; ++i) m_plugIn->Register("property" + std::to_string(i));
  m_plugIn->Notify("property7", "1");
  serveUntilOnline();
  serveUntilValue("1", "property7");
  expectSetWorksOn(1);
  EXPECT_EQ(countErrors({kDescription}), 1U) << log();
}

class MqttSmallLimitTest : public MqttLimitsTest,
                           public ::testing::WithParamInterface<std::size_t> {};

TEST_P(MqttSmallLimitTest, IsKeptToWhereItLeavesNoRoomForAnything) {
  announceLimit(GetParam());
  startWithValue();
  m_broker.ServeFor(milliseconds(1500));
  m_plugIn->Notify("a", "2");
  m_broker.ServeFor(milliseconds(100));
  EXPECT_LE(countErrors({valueTopic("a"), "nothing at all fits"}), 1U) << log();
  EXPECT_LE(m_broker.Connections().size(), 4U);
  const auto start = Clock::now();
  m_plugIn->Destroy();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

INSTANTIATE_TEST_SUITE_P(Bytes, MqttSmallLimitTest, Values(1, 2, 5, 20, 40));

TEST_F(MqttLimitsTest, AValueThatFitsAtTheNextBrokerIsSentThere) {
  const std::string value(2000, 'x');
  m_broker.AnswerConnects([&](const auto&) {
    return m_broker.Greeting(m_broker.Connections().size() == 1 ? maximumPacketSize(value.size())
                                                                : "");
  });
  startWithValue(value);
  serveUntilOnline();
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "");
  m_broker.Close();
  serveUntilValue(value);
  serveUntilOnline();
}

TEST_F(MqttLimitsTest, AValueThatCannotBeClearedWithinTheLimitIsClearedAtTheNextBroker) {
  constexpr std::size_t kLimited = 1;  // the second connection
  m_broker.AnswerConnects([this](const auto&) {
    const bool isLimited = m_broker.Connections().size() == kLimited + 1;
    return m_broker.Greeting(isLimited ? maximumPacketSize(20) : "");
  });
  startOnlineWithValue();
  serveUntilValue("1");
  m_broker.Close();
  serveUntil([&] { return m_broker.Connections().size() == kLimited + 1; });
  m_plugIn->Unregister("a");
  const auto countOnLimited = [&] {
    const auto& all = m_broker.Publications();
    return std::count_if(all.begin(), all.end(),
                         [](const Publication& p) { return p.connection == kLimited; });
  };
  serveUntil([&] { return countErrors({valueTopic("a")}) > 0 || countOnLimited() > 0; });
  EXPECT_EQ(countOnLimited(), 0);
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "\"1\"");
  m_broker.Close();
  serveUntilValue("");
}

// How a broker ends the connection over a publication that it finds too large, without having
// announced a limit.
class MqttLearntLimitTest : public MqttLimitsTest,
                            public ::testing::WithParamInterface<std::optional<std::uint8_t>> {
 protected:
  static constexpr std::size_t kLimit = 50'000;
  static constexpr std::size_t kLong = 60'000;

  MqttLearntLimitTest() {
    m_broker.JudgePublications([this](const Publication& publication) -> std::optional<Reason> {
      if (publication.bytes <= kLimit) return 0;
      if (GetParam()) m_broker.Send(broker::Disconnect(*GetParam()));
      m_broker.Close();
      return std::nullopt;
    });
  }
  // It took as many attempts as are right, and no others come.
  void expectLearnt() {
    constexpr std::size_t kAttempts = 3;
    EXPECT_LE(countPublicationsOver(kLimit), kAttempts);
    EXPECT_LE(m_broker.Connections().size(), kAttempts + 1);
  }
};

TEST_P(MqttLearntLimitTest, IsNotHitAgainByTheValueOrALargerOne) {
  startOnlineWithValue();
  m_plugIn->Register("b");
  m_plugIn->Notify("a", std::string(kLong, 'x'));
  m_plugIn->Notify("b", "1");
  serveUntilValue("");
  serveUntilValue("1", "b");
  expectLearnt();
  const std::size_t connections = m_broker.Connections().size();
  for (const char* name : {"a", "b"}) m_plugIn->Notify(name, std::string(2 * kLong, 'x'));
  serveUntilValue("", "b");
  expectSetWorks();
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  EXPECT_EQ(m_broker.Connections().size(), connections);
}

TEST_P(MqttLearntLimitTest, IsNotHitAgainByAnAnswerWhichBecomesAnError) {
  startOnline();
  deliverLongSet(kLong, "too large");
  const std::string other = deliverSet();
  expectTooLarge("too large");
  expectHandled(other);
  expectLearnt();
  serveUntilOnline();
  expectSetWorks();
}

TEST_P(MqttLearntLimitTest, DoesNotHoldUpWhatIsSmall) {
  startWithValue(std::string(kLong, 'x'));
  m_plugIn->Register("b");
  m_plugIn->Notify("b", "1");
  serveUntilValue("1", "b");
  expectSetWorks();
  serveUntilOnline();
  expectLearnt();
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "");
}

INSTANTIATE_TEST_SUITE_P(Ends, MqttLearntLimitTest, Values(std::nullopt, std::uint8_t{0x95}),
                         [](const auto& end) {
                           return end.param ? "WithAReason" : "WithoutAWord";
                         });

TEST_F(MqttLimitsTest, APacketNoLargerThanOneThatWasTakenIsNotBlamedForTheEndOfTheConnection) {
  startOnlineWithValue();
  m_broker.JudgePublications([this](const Publication& publication) -> std::optional<Reason> {
    if (publication.topic != kAnswers || publication.connection != 0) return 0;
    m_broker.Send(broker::Disconnect(0x95));
    m_broker.Close();
    return std::nullopt;
  });
  expectSetWorks();
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  EXPECT_EQ(m_broker.Connections().size(), 2U);
  EXPECT_EQ(countErrors({"the broker takes less than"}), 0U) << log();
}

// Some brokers acknowledge it, and go on.
TEST_F(MqttLimitsTest, APublicationThatIsRefusedAsTooLargeCostsNoConnection) {
  constexpr std::size_t kLimit = 50'000;
  constexpr std::size_t kLong = 60'000;
  m_broker.JudgePublications([](const Publication& publication) {
    return Reason(publication.bytes <= kLimit ? 0 : 0x95);
  });
  startWithValue();
  serveUntilValue("1");
  m_plugIn->Notify("a", std::string(kLong, 'x'));
  serveUntilValue("");
  deliverLongSet(kLong, "too large");
  expectTooLarge("too large");
  EXPECT_LE(countPublicationsOver(kLimit), 2U) << "the answer may be a little shorter";
  m_plugIn->Notify("a", "2");
  serveUntilValue("2");
  expectOneConnection();
}

}  // namespace
