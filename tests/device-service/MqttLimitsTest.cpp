// What a broker announces when it accepts a connection, and what it does without a word.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ScriptedBrokerTest.h"

namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::Values;
using Publication = ScriptedBroker::Publication;

constexpr const char* kTooLarge = R"({"error":"the answer is larger than the broker takes"})";

// Properties of a CONNACK.
std::string sessionExpiry(std::size_t seconds) {
  return MqttBytes::Byte(0x11) + MqttBytes::FourBytes(seconds);
}
std::string assignedClientId(const std::string& id) {
  return MqttBytes::Byte(0x12) + MqttBytes::Text(id);
}
std::string serverKeepAlive(std::size_t seconds) {
  return MqttBytes::Byte(0x13) + MqttBytes::TwoBytes(seconds);
}
std::string receiveMaximum(std::size_t count) {
  return MqttBytes::Byte(0x21) + MqttBytes::TwoBytes(count);
}
std::string topicAliasMaximum(std::size_t count) {
  return MqttBytes::Byte(0x22) + MqttBytes::TwoBytes(count);
}
std::string maximumQos(unsigned qos) {
  return MqttBytes::Byte(0x24) + MqttBytes::Byte(qos);
}
std::string retainAvailable(unsigned available) {
  return MqttBytes::Byte(0x25) + MqttBytes::Byte(available);
}
std::string maximumPacketSize(std::size_t bytes) {
  return MqttBytes::Byte(0x27) + MqttBytes::FourBytes(bytes);
}
std::string wildcardsAvailable(unsigned available) {
  return MqttBytes::Byte(0x28) + MqttBytes::Byte(available);
}

class MqttLimitsTest : public ScriptedBrokerTest {
 protected:
  // Every connection is accepted with these.
  void announce(const std::string& properties) {
    m_broker.AnswerConnects(
        [this, properties](const auto&) { return m_broker.Greeting(properties); });
  }
  // A set whose answer repeats that many bytes.
  void deliverLongSet(std::size_t bytes, const std::string& correlation) {
    deliverRequest(kSet, R"({"long":")" + std::string(bytes, 'x') + "\"}", correlation);
  }
  bool serveUntilAnswered(const std::string& correlation) {
    return m_broker.ServeUntil([&] { return !m_broker.AnswersTo(correlation).empty(); });
  }
  std::size_t countPublicationsOver(std::size_t bytes) const {
    const auto& all = m_broker.Publications();
    return static_cast<std::size_t>(std::count_if(
        all.begin(), all.end(), [bytes](const Publication& p) { return p.packetBytes > bytes; }));
  }
};

// --- Announcements that change nothing

struct Harmless {
  const char* name;
  std::string properties;
  bool isLogged = false;
};

// For googletest: the bytes of a pointer are no name.
void PrintTo(const Harmless& harmless, std::ostream* stream) {
  *stream << harmless.name;
}

class MqttHarmlessTest : public MqttLimitsTest, public ::testing::WithParamInterface<Harmless> {};

TEST_P(MqttHarmlessTest, EverythingWorks) {
  announce(GetParam().properties);
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  // One that weakens a promise is logged.
  const std::size_t lines = GetParam().isLogged ? 1 : 0;
  EXPECT_EQ(countErrors({}), lines) << log();
  EXPECT_EQ(countErrors({"QoS"}), lines) << log();
  for (const Publication& publication : m_broker.Publications()) {
    EXPECT_FALSE(publication.hasAlias);
    EXPECT_FALSE(publication.topic.empty());
    EXPECT_EQ(publication.qos, 1);
  }
  end(plugIn);
}

const std::string kUserProperty =
    MqttBytes::Byte(0x26) + MqttBytes::Text("name") + MqttBytes::Text("value");

std::string harmlessName(const ::testing::TestParamInfo<Harmless>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    Properties, MqttHarmlessTest,
    Values(Harmless{"None", {}}, Harmless{"ReceiveMaximumMost", receiveMaximum(65535)},
           Harmless{"MaximumQos1", maximumQos(1), true},
           Harmless{"RetainAvailable", retainAvailable(1)},
           Harmless{"MaximumPacketSizeMost", maximumPacketSize(0xFFFFFFFF)},
           Harmless{"TopicAliasMaximum", topicAliasMaximum(65535)},
           Harmless{"NoTopicAliases", topicAliasMaximum(0)},
           Harmless{"WildcardsAvailable", wildcardsAvailable(1)},
           Harmless{"NoSubscriptionIdentifiers", std::string("\x29\0", 2)},
           Harmless{"NoSharedSubscriptions", std::string("\x2A\0", 2)},
           Harmless{"ServerKeepAliveNone", serverKeepAlive(0)},
           Harmless{"ServerKeepAliveMost", serverKeepAlive(65535)},
           Harmless{"SessionExpiryNever", sessionExpiry(0xFFFFFFFF)},
           Harmless{"SessionExpiryOfADay", sessionExpiry(86400)},
           Harmless{"ReasonString", MqttBytes::Byte(0x1F) + MqttBytes::Text("well done")},
           Harmless{"LongReasonString",
                    MqttBytes::Byte(0x1F) + MqttBytes::Text(std::string(65535, 'r'))},
           Harmless{"ResponseInformation", MqttBytes::Byte(0x1A) + MqttBytes::Text("answers")},
           Harmless{"UserProperties", kUserProperty + kUserProperty + kUserProperty}),
    harmlessName);

// --- Announcements that are kept to

TEST_F(MqttLimitsTest, WithReceiveMaximumOneOnePublicationIsUnderWayAtATime) {
  constexpr int kProperties = 5;
  announce(receiveMaximum(1));
  m_broker.JudgePublications([](const auto&) { return std::nullopt; });
  PlugIn plugIn;
  for (int i = 0; i < kProperties; ++i) {
    plugIn.Register("p" + std::to_string(i));
    plugIn.Notify("p" + std::to_string(i), "1");
  }
  // The description, the values and the status, at least.
  while (m_broker.RetainedAt(kStatus) != kOnline) {
    ASSERT_TRUE(m_broker.ServeUntil([&] { return !m_broker.Unacknowledged().empty(); }));
    m_broker.ServeFor(milliseconds(50));  // for a wrong one to come
    ASSERT_EQ(m_broker.Unacknowledged().size(), 1U);
    m_broker.AcknowledgeOldest();
  }
  for (int i = 0; i < kProperties; ++i) {
    EXPECT_EQ(m_broker.RetainedAt(valueTopic("p" + std::to_string(i))), "\"1\"");
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  m_broker.JudgePublications({});
  end(plugIn);
}

TEST_F(MqttLimitsTest, WithMaximumQosZeroPublicationsGoAtThatAndSubscriptionsAskForAllTheSame) {
  announce(maximumQos(0));
  m_broker.AnswerSubscriptions([](const auto& subscription) {
    return MqttBytes::SubscriptionAck(0x90, subscription.id, 0);
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  expectSetWorks(plugIn);
  for (const Publication& publication : m_broker.Publications()) EXPECT_EQ(publication.qos, 0);
  for (const char* filter : {kGet, kSet, kCancel}) {
    const auto& all = m_broker.Subscriptions();
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](const auto& subscription) {
      return subscription.filter == filter && subscription.qos == 2;
    })) << filter;
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  EXPECT_EQ(countLines({"qos"}, Priority::Any), 1U) << log();
  end(plugIn);
}

TEST_F(MqttLimitsTest, WithoutRetainedMessagesNothingIsPublishedAsOne) {
  announce(retainAvailable(0));
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(
      m_broker.ServeUntil([&] { return !m_broker.PublicationsOn(valueTopic("a")).empty(); }));
  ASSERT_TRUE(m_broker.ServeUntil([&] { return !m_broker.PublicationsOn(kStatus).empty(); }));
  expectSetWorks(plugIn);
  for (const Publication& publication : m_broker.Publications()) {
    EXPECT_FALSE(publication.retain) << publication.topic;
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  EXPECT_EQ(countLines({"retain"}, Priority::Any), 1U) << log();
  end(plugIn);
}

TEST_F(MqttLimitsTest, WithoutWildcardsNoneIsSubscribedTo) {
  announce(wildcardsAvailable(0));
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  for (const ScriptedBroker::Subscription& subscription : m_broker.Subscriptions()) {
    EXPECT_EQ(subscription.filter.find_first_of("+#"), std::string::npos) << subscription.filter;
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  EXPECT_EQ(countLines({"wildcard"}, Priority::Any), 1U) << log();
  end(plugIn);
}

TEST_F(MqttLimitsTest, TheServersKeepAliveIsKept) {
  constexpr milliseconds kLongest(1500);  // a broker waits one and a half times as long
  announce(serverKeepAlive(1));
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const auto start = ScriptedBroker::Clock::now();
  const auto pings = [this] { return m_broker.Connections().back().pings; };
  ASSERT_TRUE(m_broker.ServeUntil([&] { return pings().size() >= 3; }));
  auto last = start;
  for (const auto ping : pings()) {
    EXPECT_LE(ping - last, kLongest);
    last = ping;
  }
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttLimitsTest, AServerThatDoesNotAnswerAPingIsLeft) {
  announce(serverKeepAlive(1));
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const auto start = ScriptedBroker::Clock::now();
  // Nobody serves, so that nothing is answered.
  EXPECT_TRUE(plugIn.WaitForStatus("mqtt=0"));
  EXPECT_LT(ScriptedBroker::Clock::now() - start, std::chrono::seconds(5));
  EXPECT_TRUE(serveUntilOnlineAgain(plugIn));
  end(plugIn);
}

TEST_F(MqttLimitsTest, AClientIdentifierThatIsAssignedIsUsedFromThenOn) {
  announce(assignedClientId("another"));
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.Close();
  ASSERT_TRUE(serveUntilOnlineAgain(plugIn));
  EXPECT_EQ(m_broker.Connections()[0].clientId, "tv:service");
  EXPECT_EQ(m_broker.Connections()[1].clientId, "another");
  expectSetWorks(plugIn);
  end(plugIn);
}

TEST_F(MqttLimitsTest, ASessionThatEndsWithItsConnectionIsLogged) {
  announce(sessionExpiry(0));
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  EXPECT_EQ(countLines({"session"}, Priority::Any), 1U) << log();
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

// --- Sizes

TEST_F(MqttLimitsTest, AValueAsLargeAsTheBrokerTakesIsSentAndOneThatIsLargerIsNot) {
  constexpr std::size_t kLimit = 2000;
  announce(maximumPacketSize(kLimit));
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "x");
  ASSERT_TRUE(serveUntilRetained(valueTopic("a"), "\"x\""));
  const auto first = m_broker.PublicationsOn(valueTopic("a")).back();
  // A length of two bytes instead of one.
  const std::size_t around = first.packetBytes - 1 + 1;
  const std::string largest(kLimit - around, 'y');
  plugIn.Notify("a", largest);
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"" + largest + "\""));
  EXPECT_EQ(m_broker.PublicationsOn(valueTopic("a")).back().packetBytes, kLimit);
  plugIn.Notify("a", largest + "y");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), ""));
  EXPECT_EQ(countPublicationsOver(kLimit), 0U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttLimitsTest, AValueThatIsTooLargeIsLoggedOnceUntilOneHasFittedInBetween) {
  constexpr std::size_t kLimit = 2000;
  announce(maximumPacketSize(kLimit));
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  const auto notifyAndServe = [&](const std::string& value) {
    plugIn.Notify("a", value);
    const std::string expected = value.size() < kLimit ? "\"" + value + "\"" : "";
    EXPECT_TRUE(serveUntilRetained(valueTopic("a"), expected));
    // What was notified before it is at the broker when this is.
    plugIn.Notify("b", std::to_string(value.size()));
    EXPECT_TRUE(serveUntilRetained(valueTopic("b"), "\"" + std::to_string(value.size()) + "\""));
  };
  notifyAndServe("small");
  EXPECT_EQ(countErrors({valueTopic("a")}), 0U) << log();
  for (std::size_t i = 0; i < 3; ++i) notifyAndServe(std::string(kLimit + i, 'x'));
  EXPECT_EQ(countErrors({valueTopic("a")}), 1U) << log();
  notifyAndServe("small again");
  notifyAndServe(std::string(kLimit + 9, 'x'));
  EXPECT_EQ(countErrors({valueTopic("a")}), 2U) << log();
  EXPECT_EQ(countPublicationsOver(kLimit), 0U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttLimitsTest, AnAnswerThatIsTooLargeBecomesAnError) {
  constexpr std::size_t kLimit = 2000;
  announce(maximumPacketSize(kLimit));
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  deliverLongSet(kLimit, "too large");
  ASSERT_TRUE(serveUntilAnswered("too large"));
  EXPECT_THAT(m_broker.AnswersTo("too large"), ElementsAre(kTooLarge));
  EXPECT_EQ(m_broker.Publications().back().topic, kAnswers);
  deliverLongSet(100, "small");
  ASSERT_TRUE(serveUntilAnswered("small"));
  EXPECT_EQ(countPublicationsOver(kLimit), 0U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttLimitsTest, ASubscriptionThatIsTooLargeIsNotSentButLogged) {
  announce(maximumPacketSize(31));  // enough for a subscription to "set" or "get", not to "cancel"
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilRetained(kStatus, kOnline));
  std::vector<std::string> filters;
  for (const auto& subscription : m_broker.Subscriptions()) filters.push_back(subscription.filter);
  EXPECT_THAT(filters, UnorderedElementsAre(kGet, kSet, kStatus));
  EXPECT_EQ(countErrors({"subscription", kCancel}), 1U) << log();
  EXPECT_EQ(countErrors({"subscription", kAllValues}), 1U) << log();
  deliverSet();
  EXPECT_TRUE(m_broker.ServeUntil([&] { return plugIn.Calls("set").size() == 1; }));
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttLimitsTest, WhereNothingFitsTheEndWaitsForNothingAndEachTopicIsOneLine) {
  announce(maximumPacketSize(10));
  PlugIn plugIn;
  const auto isTried = [&] { return countErrors({kStatus, "nothing at all fits"}) > 0; };
  ASSERT_TRUE(m_broker.ServeUntil(isTried)) << log();
  plugIn.Register("a");
  plugIn.Register("b");
  const auto start = std::chrono::steady_clock::now();
  end(plugIn);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
  EXPECT_EQ(countErrors({kStatus, "nothing at all fits"}), 1U) << log();
  EXPECT_EQ(countErrors({kDescription, "nothing at all fits"}), 1U) << log();
  EXPECT_THAT(m_broker.Subscriptions(), IsEmpty());
  EXPECT_THAT(m_broker.Publications(), IsEmpty());
}

TEST_F(MqttLimitsTest, ADescriptionThatIsTooLargeCostsTheOthersNothing) {
  constexpr std::size_t kLimit = 400;
  announce(maximumPacketSize(kLimit));
  PlugIn plugIn;
  for (int i = 0; i < 50; ++i) plugIn.Register("property" + std::to_string(i));
  plugIn.Notify("property7", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  EXPECT_TRUE(serveUntilRetained(valueTopic("property7"), "\"1\""));
  expectSetWorks(plugIn);
  EXPECT_EQ(countErrors({kDescription}), 1U) << log();
  EXPECT_EQ(countPublicationsOver(kLimit), 0U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttLimitsTest, ALimitThatLeavesNoRoomForAnythingIsKeptTo) {
  std::size_t lives = 0;
  for (const std::size_t limit : {1U, 2U, 5U, 20U, 40U}) {
    ++lives;
    ScriptedBroker broker;
    const Variable url("LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(broker.Port()));
    broker.AnswerConnects([&](const auto&) { return broker.Greeting(maximumPacketSize(limit)); });
    PlugIn plugIn;
    plugIn.Register("a");
    plugIn.Notify("a", "1");
    broker.ServeFor(milliseconds(1500));
    plugIn.Notify("a", "2");
    broker.ServeFor(milliseconds(100));
    EXPECT_LE(countErrors({valueTopic("a"), "nothing at all fits"}), lives) << log();
    EXPECT_LE(broker.Connections().size(), 4U) << limit;
    EXPECT_EQ(std::count_if(broker.Publications().begin(), broker.Publications().end(),
                            [&](const auto& p) { return p.packetBytes > limit; }),
              0)
        << limit;
    const auto start = ScriptedBroker::Clock::now();
    plugIn.Destroy();
    EXPECT_LT(ScriptedBroker::Clock::now() - start, std::chrono::seconds(4)) << limit;
  }
}

TEST_F(MqttLimitsTest, AValueThatFitsAtTheNextBrokerIsSentThere) {
  constexpr std::size_t kLimit = 2000;
  m_broker.AnswerConnects([this](const auto&) {
    return m_broker.Greeting(m_broker.Connections().size() == 1 ? maximumPacketSize(kLimit) : "");
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", std::string(kLimit, 'x'));
  ASSERT_TRUE(serveUntilOnline(plugIn));
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "");
  m_broker.Close();
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"" + std::string(kLimit, 'x') + "\""));
  ASSERT_TRUE(serveUntilOnline(plugIn));
  end(plugIn);
}

TEST_F(MqttLimitsTest, AValueThatCannotBeClearedWithinTheLimitIsClearedAtTheNextBroker) {
  constexpr std::size_t kLimit = 20;
  constexpr std::size_t kLimited = 1;  // the second connection
  m_broker.AnswerConnects([this](const auto&) {
    const bool isLimited = m_broker.Connections().size() == kLimited + 1;
    return m_broker.Greeting(isLimited ? maximumPacketSize(kLimit) : "");
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "x");
  ASSERT_TRUE(serveUntilRetained(valueTopic("a"), "\"x\""));
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.Close();
  ASSERT_TRUE(m_broker.ServeUntil([&] { return m_broker.Connections().size() == kLimited + 1; }));
  plugIn.Unregister("a");
  const auto isOnLimited = [](const Publication& p) { return p.connection == kLimited; };
  const auto& all = m_broker.Publications();
  ASSERT_TRUE(m_broker.ServeUntil([&] {
    return countErrors({valueTopic("a")}) > 0 || std::any_of(all.begin(), all.end(), isOnLimited);
  }));
  EXPECT_TRUE(std::none_of(all.begin(), all.end(), isOnLimited));
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "\"x\"");
  m_broker.Close();
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), ""));
  end(plugIn);
}

// How a broker ends the connection over a publication that it finds too large, without having
// announced a limit.
class MqttLearntLimitTest : public MqttLimitsTest,
                            public ::testing::WithParamInterface<std::optional<std::uint8_t>> {
 protected:
  static constexpr std::size_t kLimit = 50'000;
  static constexpr std::size_t kLong = 60'000;

  MqttLearntLimitTest() {
    m_broker.JudgePublications([this](const Publication& publication) -> std::optional<uint8_t> {
      if (publication.packetBytes <= kLimit) return 0;
      if (GetParam()) m_broker.Send(MqttBytes::Disconnect(*GetParam()));
      m_broker.Close();
      return std::nullopt;
    });
  }
  // It took as many attempts as are right, and no others come.
  void expectLearnt() {
    constexpr std::size_t kAttempts = 3;
    const std::size_t attempts = countPublicationsOver(kLimit);
    EXPECT_LE(attempts, kAttempts);
    EXPECT_LE(m_broker.Connections().size(), kAttempts + 1);
  }
};

TEST_P(MqttLearntLimitTest, IsNotHitAgainByTheValueOrALargerOne) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  plugIn.Notify("a", "small");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  plugIn.Notify("a", std::string(kLong, 'x'));
  plugIn.Notify("b", "1");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), ""));
  EXPECT_TRUE(serveUntilRetained(valueTopic("b"), "\"1\""));
  expectLearnt();
  const std::size_t connections = m_broker.Connections().size();
  plugIn.Notify("a", std::string(2 * kLong, 'x'));
  plugIn.Notify("b", std::string(2 * kLong, 'x'));
  EXPECT_TRUE(serveUntilRetained(valueTopic("b"), ""));
  expectSetWorks(plugIn);
  plugIn.Notify("a", "2");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"2\""));
  EXPECT_EQ(m_broker.Connections().size(), connections);
  end(plugIn);
}

TEST_P(MqttLearntLimitTest, IsNotHitAgainByAnAnswerWhichBecomesAnError) {
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  deliverLongSet(kLong, "too large");
  const std::string other = deliverSet();
  EXPECT_TRUE(serveUntilAnswered("too large"));
  EXPECT_THAT(m_broker.AnswersTo("too large"), ElementsAre(kTooLarge));
  expectHandled(plugIn, other);
  expectLearnt();
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  end(plugIn);
}

TEST_P(MqttLearntLimitTest, DoesNotHoldUpWhatIsSmall) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  plugIn.Notify("a", std::string(kLong, 'x'));
  plugIn.Notify("b", "1");
  EXPECT_TRUE(serveUntilRetained(valueTopic("b"), "\"1\""));
  expectSetWorks(plugIn);
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectLearnt();
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("a")), "");
  end(plugIn);
}

// Some brokers acknowledge it, and go on.
TEST_F(MqttLimitsTest, APublicationThatIsRefusedAsTooLargeCostsNoConnection) {
  constexpr std::size_t kLimit = 50'000;
  constexpr std::size_t kLong = 60'000;
  constexpr std::uint8_t kTooLargeReason = 0x95;
  m_broker.JudgePublications([](const ScriptedBroker::Publication& publication) {
    return publication.packetBytes <= kLimit ? std::uint8_t(0) : kTooLargeReason;
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "small");
  ASSERT_TRUE(serveUntilRetained(valueTopic("a"), "\"small\""));
  plugIn.Notify("a", std::string(kLong, 'x'));
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), ""));
  deliverLongSet(kLong, "too large");
  EXPECT_TRUE(serveUntilAnswered("too large"));
  EXPECT_THAT(m_broker.AnswersTo("too large"), ElementsAre(kTooLarge));
  EXPECT_LE(countPublicationsOver(kLimit), 2U) << "the answer may be a little shorter";
  plugIn.Notify("a", "2");
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"2\""));
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

std::string endName(const ::testing::TestParamInfo<std::optional<std::uint8_t>>& info) {
  return info.param ? "WithAReason" : "WithoutAWord";
}

INSTANTIATE_TEST_SUITE_P(Ends, MqttLearntLimitTest, Values(std::nullopt, std::uint8_t(0x95)),
                         endName);

}  // namespace
