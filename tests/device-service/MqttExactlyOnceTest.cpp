// QoS 2 messages whose connection is lost in the middle of their exchange.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedBrokerTest.h"
#include "mqtt/Backoff.h"
#include "service/Service.h"

namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class MqttExactlyOnceTest : public ScriptedBrokerTest {
 protected:
  void start(bool sessionPresent = false) {
    m_plugIn.emplace();
    acceptNext(sessionPresent);
  }
  // Ends the connection, and accepts the next one with the session or without one.
  void acceptNext(bool sessionPresent) {
    const std::size_t before = m_broker.Connections().size();
    m_broker.AnswerConnects([=](const auto&) { return broker::ConnAckWith(sessionPresent); });
    m_broker.Close();
    serveUntil([&] {
      return m_broker.Connections().size() > before &&
             m_broker.Connections().back().connect.type == broker::kConnect;
    });
  }
  void sendSet(std::uint16_t id, int number, unsigned firstByte = 0x34) {
    m_broker.Send(
        broker::Publish(id, kSet, R"({"n":)" + std::to_string(number) + "}", {}, firstByte));
  }
  // The next acknowledgement of this type is about this message; false when the connection ends
  // before there is one.
  bool isAcknowledged(broker::Type type, std::uint16_t id) {
    std::optional<Packet> next;
    const auto& all = m_broker.Acknowledgements();
    serveUntil([&] {
      for (; m_seen < all.size() && !next; ++m_seen) {
        if (all[m_seen].type == type) next = all[m_seen];
      }
      return next || m_broker.Connections().back().isOver;
    });
    if (next) {
      EXPECT_EQ(next->id, id);
    }
    return next.has_value();
  }
  void sendAcknowledgedSet(std::uint16_t id, int number) {
    sendSet(id, number);
    EXPECT_TRUE(isAcknowledged(broker::kPubRec, id));
  }
  void release(std::uint16_t id) {
    m_broker.Send(broker::Ack(broker::kPubRel, id));
    EXPECT_TRUE(isAcknowledged(broker::kPubComp, id));
  }
  // Brings a message from its arrival to its end.
  void deliver(std::uint16_t id, int number) {
    sendAcknowledgedSet(id, number);
    release(id);
  }
  // These sets, and no others, once the last of them is there. Ends the connection.
  void expectSets(const std::vector<std::string>& properties) {
    EXPECT_TRUE(m_plugIn->WaitForCalls("set", properties.size()));
    m_broker.Close();
    EXPECT_EQ(propertiesOfSets(), properties);
  }

 private:
  std::size_t m_seen = 0;  // acknowledgements
};

TEST_F(MqttExactlyOnceTest, ConnectsToASessionThatLastsADayWithAWill) {
  start();
  const Packet& connect = m_broker.Connections().front().connect;
  EXPECT_FALSE(connect.cleanStart);
  EXPECT_EQ(connect.sessionExpiry, 86400U);
  EXPECT_EQ(connect.receiveMaximum, 32);
  EXPECT_EQ(connect.clientId, "tv:service");
  ASSERT_TRUE(connect.hasWill);
  EXPECT_EQ(connect.willQos, 1);
  EXPECT_TRUE(connect.willRetain);
  EXPECT_EQ(connect.willTopic, "things/tv/status");
  EXPECT_EQ(connect.will, "\"offline\"");
}

TEST_F(MqttExactlyOnceTest, ASetIsHandledWhenItComesAndNotAgainAtItsRelease) {
  start();
  m_plugIn->Register("n");
  sendSet(1, 1);
  EXPECT_TRUE(m_plugIn->WaitForCalls("set", 1));  // nothing has been released
  EXPECT_TRUE(isAcknowledged(broker::kPubRec, 1));
  release(1);
  deliver(1, 2);
  expectSets({"n=1:1", "n=2:1"});
}

TEST_F(MqttExactlyOnceTest, ASetThatWaitedAtTheBrokerIsHandledOnceThereIsAProperty) {
  // For a wrong call to come. A slow machine only makes this weaker.
  constexpr milliseconds kGlimpse(50);
  std::atomic<bool> isRegistering{false};
  std::atomic<bool> isEarly{false};
  const auto begin = Clock::now();
  start(true);
  m_plugIn->OnRequest([&](const PlugIn::Call&) { isEarly = !isRegistering; });
  deliver(1, 1);
  std::this_thread::sleep_for(kGlimpse);
  const auto waited = Clock::now() - begin;
  isRegistering = true;
  m_plugIn->Register("n");
  expectSets({"n=1:1"});
  EXPECT_FALSE(isEarly && waited < Lumo::Service::kStartTime);
}

TEST_F(MqttExactlyOnceTest, AReleaseAfterALostConnectionCompletesTheSet) {
  start();
  sendAcknowledgedSet(5, 1);
  acceptNext(true);
  release(5);
  deliver(5, 2);
  expectSets({"n=1:1", "n=2:1"});
}

TEST_F(MqttExactlyOnceTest, ASetWhoseArrivalTheBrokerDidNotLearnOfIsHandledOnce) {
  constexpr unsigned kAgain = 0x3C;
  start();
  sendAcknowledgedSet(5, 1);
  // It is sent again; whether that takes one connection or two is the service's affair.
  acceptNext(true);
  sendSet(5, 1, kAgain);
  if (!isAcknowledged(broker::kPubRec, 5)) {
    acceptNext(true);
    sendSet(5, 1, kAgain);
    EXPECT_TRUE(isAcknowledged(broker::kPubRec, 5));
  }
  release(5);
  release(5);  // as after a completion that was lost
  deliver(5, 2);
  deliver(6, 3);
  expectSets({"n=1:1", "n=2:1", "n=3:1"});
}

TEST_F(MqttExactlyOnceTest, ASetWhoseCompletionWasLostIsNotHandledAgain) {
  start();
  deliver(5, 1);
  acceptNext(true);
  release(5);
  deliver(6, 2);
  expectSets({"n=1:1", "n=2:1"});
}

TEST_F(MqttExactlyOnceTest, ASetWhoseReleaseCannotBeConfirmedIsHandledAllTheSame) {
  start();
  for (std::uint16_t id = 1; id <= 5; ++id) {
    if (id > 1) acceptNext(true);
    sendAcknowledgedSet(id, id);
    m_broker.Send(broker::Ack(broker::kPubRel, id));
    m_broker.Break();
    EXPECT_TRUE(m_plugIn->WaitForCalls("set", id));
  }
}

TEST_F(MqttExactlyOnceTest, WhatTheBrokerHasForgottenDoesNotMixWithWhatIsNew) {
  start();
  sendAcknowledgedSet(5, 1);
  acceptNext(false);
  acceptNext(true);  // at once, by a client that remembers nothing
  deliver(5, 1);     // another message with the same content
  deliver(5, 2);
  expectSets({"n=1:1", "n=1:1", "n=2:1"});
}

TEST_F(MqttExactlyOnceTest, AValueOrAnAnswerThatTheBrokerDidNotAcknowledgeIsSentAgain) {
  m_broker.JudgePublications([](const Publication& publication) {
    const bool isTried = publication.topic == valueTopic("a") || publication.topic == kAnswers;
    return isTried ? std::nullopt : std::optional<Reason>(0);
  });
  const auto serveUntilTried = [this] {
    for (const std::string& topic : {valueTopic("a"), std::string(kAnswers)}) {
      serveUntil([&] {
        const auto tried = m_broker.PublicationsOn(topic);
        return !tried.empty() && tried.back().connection + 1 == m_broker.Connections().size();
      });
    }
  };
  startWithValue();
  deliverSet();
  acceptNext(false);
  serveUntilTried();
  acceptNext(true);
  serveUntilTried();
  acceptNext(false);
  acceptNext(true);
  serveUntilTried();
}

TEST_F(MqttExactlyOnceTest, AnAnswerHasNotMoreThanOneLongValueBeforeIt) {
  m_broker.JudgePublications([](const Publication& publication) {
    return publication.topic == valueTopic("a") ? std::nullopt : std::optional<Reason>(0);
  });
  startWithValue(std::string(100'000, 'x'));
  m_plugIn->Register("b");
  m_plugIn->Notify("b", "value");
  acceptNext(false);
  serveUntil([&] { return !m_broker.PublicationsOn(valueTopic("a")).empty(); });
  deliverRequest(kSet, R"({"a":"0"})", "set");
  serveUntilAnswered("set");
  EXPECT_EQ(m_broker.Publications().back().topic, kAnswers);
  EXPECT_EQ(m_broker.RetainedAt(valueTopic("b")), "");
  m_broker.AcknowledgeOldest();
  serveUntilValue("value", "b");
}

TEST_F(MqttExactlyOnceTest, TheConnectionIsReportedOnceRequestsAreSubscribedTo) {
  m_broker.AnswerSubscriptions([](const Packet& subscription) {
    return subscription.filter == kCancel
               ? std::string()
               : broker::Subscribed(broker::kSubAck, subscription.id, {subscription.qos});
  });
  start();
  serveUntilRetained(kStatus, kOnline);  // sent after the subscriptions
  m_broker.AnswerSubscriptions({});
  acceptNext(true);
  serveUntilOnline();
  EXPECT_THAT(m_plugIn->Statuses(), ElementsAre("mqtt=1"));
}

TEST_F(MqttExactlyOnceTest, ACleanShutdownWaitsForTheReleaseOfASetInFlight) {
  start();
  sendAcknowledgedSet(5, 1);
  const auto ended = std::async(std::launch::async, [this] { m_plugIn->Destroy(); });
  serveUntilRetained(kStatus, "\"offline\"");
  EXPECT_TRUE(m_broker.IsQuietFor(milliseconds(100)));
  release(5);
  serveUntil([&] { return m_broker.Connections().back().disconnectReason.has_value(); });
}

TEST_F(MqttExactlyOnceTest, DestroyDoesNotWaitForABrokerThatHasNotAcceptedYet) {
  m_broker.AnswerConnects([](const auto&) { return std::string(); });
  m_plugIn.emplace();
  serveUntil([&] { return !m_broker.Connections().empty(); });
  const auto begin = Clock::now();
  m_plugIn->Destroy();
  EXPECT_LT(Clock::now() - begin, milliseconds(1500));
  serveUntil([&] { return m_broker.Connections().back().isOver; });
  EXPECT_FALSE(m_broker.Connections().back().disconnectReason.has_value());
}

TEST_F(MqttExactlyOnceTest, DestroyWaitsTwoSecondsForABrokerThatDoesNotAcknowledge) {
  m_broker.JudgePublications([](const auto&) { return std::nullopt; });
  start();
  serveUntil([&] { return !m_plugIn->Statuses().empty(); });
  const auto begin = Clock::now();
  m_plugIn->Destroy();
  const auto time = Clock::now() - begin;
  EXPECT_GE(time, std::chrono::seconds(2));
  EXPECT_LT(time, std::chrono::seconds(4));
}

TEST_F(MqttExactlyOnceTest, ABrokerThatNeverAcceptsIsTriedAgain) {
  m_broker.AnswerConnects([this](const auto&) {
    return m_broker.Connections().size() == 1 ? std::string() : m_broker.Greeting();
  });
  startOnline();  // after ten seconds
  EXPECT_FALSE(m_broker.Connections().front().disconnectReason.has_value());
  EXPECT_EQ(countErrors({"no answer; next attempt in "}), 1U) << log();
}

TEST_F(MqttExactlyOnceTest, ABrokerThatRefusesIsTriedAgainLaterAndLater) {
  constexpr std::size_t kAttempts = 4;
  const std::string kRefusal = "refused: not authorised; next attempt in ";
  std::vector<Clock::time_point> times;
  m_broker.AnswerConnects([&](const auto&) {
    times.push_back(Clock::now());
    return times.size() < kAttempts ? broker::ConnAckWith(false, 0x87) : std::string();
  });
  m_plugIn.emplace();
  serveUntil([&] { return times.size() == kAttempts; });
  std::vector<milliseconds> delays;
  const std::string lines = log();
  for (auto at = lines.find(kRefusal); at != std::string::npos; at = lines.find(kRefusal, at + 1)) {
    delays.emplace_back(std::stoi(lines.substr(at + kRefusal.size())));
  }
  ASSERT_EQ(delays.size(), kAttempts - 1);
  auto window = Lumo::Mqtt::Backoff::kFirstWindow;
  for (std::size_t i = 0; i < delays.size(); ++i, window *= 2) {
    EXPECT_GT(delays[i].count(), 0);
    EXPECT_LE(delays[i], window);
    // From before the refusal was read to after the connection was made.
    EXPECT_GE(times[i + 1] - times[i], delays[i]);
  }
  EXPECT_TRUE(m_plugIn->Statuses().empty());
}

}  // namespace
