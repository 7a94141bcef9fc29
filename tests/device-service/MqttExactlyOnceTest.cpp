// QoS 2 messages whose connection is lost half-way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "ScriptedBrokerTest.h"
#include "mqtt/Backoff.h"
#include "service/Service.h"

namespace {

using Type = ScriptedBroker::Type;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class MqttExactlyOnceTest : public ScriptedBrokerTest {
 protected:
  // Brings a message from its arrival to its end.
  void deliver(std::uint16_t id, const std::string& payload) {
    m_broker.Publish(id, kSet, payload);
    EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, id));
    release(id);
  }
  void release(std::uint16_t id) {
    m_broker.PubRel(id);
    EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubComp, id));
  }
  // Get, set and cancel.
  void acceptSubscriptions() {
    for (int i = 0; i < 3; ++i) EXPECT_EQ(m_broker.Receive(Type::Subscribe).type, Type::Subscribe);
  }
  // Acknowledges publications until this one has come.
  void acknowledgeUntil(const std::string& payload) {
    while (true) {
      const ScriptedBroker::Packet packet = m_broker.Receive(Type::Publish);
      ASSERT_EQ(packet.type, Type::Publish);
      m_broker.PubAck(packet);
      if (packet.body.find(payload) != std::string::npos) return;
    }
  }
  // Of the attempts that failed for this reason, by their lines in the log.
  static std::vector<std::chrono::milliseconds> announcedDelays(const std::string& reason) {
    const std::string before = reason + "; next attempt in ";
    const std::string errors = takeErrors();
    std::vector<std::chrono::milliseconds> delays;
    for (std::size_t at = errors.find(before); at != std::string::npos;
         at = errors.find(before, at + 1)) {
      delays.emplace_back(std::stoi(errors.substr(at + before.size())));
    }
    return delays;
  }
  // The properties of all sets, once the last of them is there. Ends the connection.
  std::vector<std::string> waitForSets(PlugIn& plugIn, std::size_t count) {
    EXPECT_TRUE(plugIn.WaitForCalls("set", count));
    m_broker.Close();
    std::vector<std::string> properties;
    for (const PlugIn::Call& call : plugIn.Calls("set")) {
      properties.push_back(call.properties.front());
    }
    return properties;
  }
};

TEST_F(MqttExactlyOnceTest, ConnectsToASessionThatLastsADayWithAWill) {
  PlugIn plugIn;
  const ScriptedBroker::Packet packet = m_broker.Accept();
  ASSERT_GT(packet.body.size(), 10U);
  EXPECT_EQ(packet.body.substr(2, 4), "MQTT");
  EXPECT_EQ(packet.body[6], 5);
  const int flags = packet.body[7];
  EXPECT_EQ(flags & 0x02, 0);                   // no clean start
  EXPECT_EQ(flags & 0x3C, 0x04 | 0x08 | 0x20);  // a will at QoS 1, retained
  EXPECT_THAT(packet.body, HasSubstr(std::string("\x11\x00\x01\x51\x80", 5)));  // 86400 s
  EXPECT_THAT(packet.body, HasSubstr(std::string("\x21\x00\x20", 3)));  // 32 messages at a time
  EXPECT_THAT(packet.body, HasSubstr(std::string("\0\x0Atv:service", 12)));
  EXPECT_THAT(packet.body, HasSubstr(std::string("\0\x10things/tv/status\0\x09\"offline\"", 29)));
}

TEST_F(MqttExactlyOnceTest, ASetIsHandledWhenItComesAndNotAgainAtItsRelease) {
  PlugIn plugIn;
  plugIn.Register("n");
  m_broker.AcceptSession(false);
  m_broker.Publish(1, kSet, R"({"n":1})");
  EXPECT_TRUE(plugIn.WaitForCalls("set", 1));  // nothing has been released
  EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 1));
  release(1);
  deliver(1, R"({"n":2})");
  EXPECT_THAT(waitForSets(plugIn, 2), ElementsAre("n=1:1", "n=2:1"));
}

TEST_F(MqttExactlyOnceTest, ASetThatWaitedAtTheBrokerIsHandledOnceThereIsAProperty) {
  // For a wrong call to come. A slow machine only makes this weaker.
  constexpr std::chrono::milliseconds kGlimpse(50);
  std::atomic<bool> isRegistering{false};
  std::atomic<bool> isEarly{false};
  PlugIn plugIn;
  plugIn.OnRequest([&](const PlugIn::Call&) { isEarly = !isRegistering; });
  const auto start = std::chrono::steady_clock::now();
  m_broker.AcceptSession(true);
  deliver(1, R"({"n":1})");
  std::this_thread::sleep_for(kGlimpse);
  const auto waited = std::chrono::steady_clock::now() - start;
  isRegistering = true;
  plugIn.Register("n");
  EXPECT_THAT(waitForSets(plugIn, 1), ElementsAre("n=1:1"));
  EXPECT_FALSE(isEarly && waited < Lumo::Service::kStartTime);
}

TEST_F(MqttExactlyOnceTest, AReleaseAfterALostConnectionCompletesTheSet) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  m_broker.Publish(5, kSet, R"({"n":1})");
  EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 5));
  m_broker.AcceptSession(true);
  release(5);
  deliver(5, R"({"n":2})");
  EXPECT_THAT(waitForSets(plugIn, 2), ElementsAre("n=1:1", "n=2:1"));
}

TEST_F(MqttExactlyOnceTest, ASetWhoseArrivalTheBrokerDidNotLearnOfIsHandledOnce) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  m_broker.Publish(5, kSet, R"({"n":1})");
  EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 5));
  // It is sent again; whether that takes one connection or two is the service's affair.
  m_broker.AcceptSession(true);
  m_broker.Publish(5, kSet, R"({"n":1})", true);
  if (m_broker.Receive(Type::PubRec).type == Type::Closed) {
    m_broker.AcceptSession(true);
    m_broker.Publish(5, kSet, R"({"n":1})", true);
    EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 5));
  }
  release(5);
  release(5);  // as after a completion that was lost
  deliver(5, R"({"n":2})");
  deliver(6, R"({"n":3})");
  EXPECT_THAT(waitForSets(plugIn, 3), ElementsAre("n=1:1", "n=2:1", "n=3:1"));
}

TEST_F(MqttExactlyOnceTest, ASetWhoseCompletionWasLostIsNotHandledAgain) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  deliver(5, R"({"n":1})");
  m_broker.AcceptSession(true);
  release(5);
  deliver(6, R"({"n":2})");
  EXPECT_THAT(waitForSets(plugIn, 2), ElementsAre("n=1:1", "n=2:1"));
}

TEST_F(MqttExactlyOnceTest, ASetWhoseReleaseCannotBeConfirmedIsHandledAllTheSame) {
  constexpr int kSets = 5;
  PlugIn plugIn;
  for (std::uint16_t id = 1; id <= kSets; ++id) {
    m_broker.AcceptSession(id > 1);
    m_broker.Publish(id, kSet, R"({"n":)" + std::to_string(id) + "}");
    EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, id));
    m_broker.PubRel(id);
    m_broker.Break();
    EXPECT_TRUE(plugIn.WaitForCalls("set", id));
  }
}

TEST_F(MqttExactlyOnceTest, WhatTheBrokerHasForgottenDoesNotMixWithWhatIsNew) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  m_broker.Publish(5, kSet, R"({"n":1})");
  EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 5));
  m_broker.AcceptSession(false);
  m_broker.AcceptSession(true);  // at once, by a client that remembers nothing
  // Another message, with the same content, too.
  deliver(5, R"({"n":1})");
  deliver(5, R"({"n":2})");
  EXPECT_THAT(waitForSets(plugIn, 3), ElementsAre("n=1:1", "n=1:1", "n=2:1"));
}

TEST_F(MqttExactlyOnceTest, AValueThatTheBrokerDidNotAcknowledgeIsSentAgain) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "value");
  const auto waitForValue = [this] {
    while (true) {
      const ScriptedBroker::Packet packet = m_broker.Receive(Type::Publish);
      if (packet.type == Type::Closed) return false;
      if (packet.body.find("value/a") != std::string::npos) return true;
    }
  };
  m_broker.AcceptSession(false);
  EXPECT_TRUE(waitForValue());
  m_broker.AcceptSession(true);
  EXPECT_TRUE(waitForValue());
  m_broker.AcceptSession(false);
  m_broker.AcceptSession(true);
  EXPECT_TRUE(waitForValue());
}

TEST_F(MqttExactlyOnceTest, AnAnswerHasNotMoreThanOneLongValueBeforeIt) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  plugIn.Notify("a", std::string(100'000, 'x'));
  plugIn.Notify("b", "value");
  const auto nextPublication = [this] { return m_broker.Receive(Type::Publish); };
  m_broker.AcceptSession(false);
  acceptSubscriptions();
  ScriptedBroker::Packet longValue = nextPublication();
  while (longValue.body.find("value/a") == std::string::npos) {
    m_broker.PubAck(longValue);
    longValue = nextPublication();
  }
  m_broker.Request(1, kSet, R"({"a":"0"})", "answers");
  EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 1));
  EXPECT_THAT(nextPublication().body, HasSubstr("answers"));
  release(1);
  m_broker.PubAck(longValue);
  EXPECT_THAT(nextPublication().body, HasSubstr("value/b"));
}

TEST_F(MqttExactlyOnceTest, TheConnectionIsReportedOnceRequestsAreSubscribedTo) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  m_broker.IgnoreSubscriptions(true);
  acknowledgeUntil("\"online\"");  // sent after the subscriptions
  m_broker.IgnoreSubscriptions(false);
  m_broker.AcceptSession(true);
  acceptSubscriptions();
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  EXPECT_THAT(plugIn.Statuses(), ElementsAre("mqtt=1"));
}

TEST_F(MqttExactlyOnceTest, TheEndWaitsForTheReleaseOfASetThatIsHalfway) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  m_broker.Publish(5, kSet, R"({"n":1})");
  EXPECT_TRUE(m_broker.ReceiveAbout(Type::PubRec, 5));
  std::thread destroyer([&plugIn] { plugIn.Destroy(); });
  acknowledgeUntil("\"offline\"");
  EXPECT_TRUE(m_broker.IsQuietFor(std::chrono::milliseconds(100)));
  release(5);
  EXPECT_EQ(m_broker.Receive(Type::Disconnect).type, Type::Disconnect);
  destroyer.join();
}

TEST_F(MqttExactlyOnceTest, DestroyDoesNotWaitForABrokerThatHasNotAcceptedYet) {
  PlugIn plugIn;
  m_broker.Accept();
  const auto start = std::chrono::steady_clock::now();
  plugIn.Destroy();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_EQ(m_broker.Receive(Type::Disconnect).type, Type::Closed);
}

TEST_F(MqttExactlyOnceTest, DestroyWaitsTwoSecondsForABrokerThatDoesNotAcknowledge) {
  PlugIn plugIn;
  m_broker.AcceptSession(false);
  acceptSubscriptions();
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  const auto start = std::chrono::steady_clock::now();
  plugIn.Destroy();
  const auto time = std::chrono::steady_clock::now() - start;
  EXPECT_GE(time, std::chrono::seconds(2));
  EXPECT_LT(time, std::chrono::seconds(4));
}

TEST_F(MqttExactlyOnceTest, ABrokerThatNeverAcceptsIsTriedAgain) {
  PlugIn plugIn;
  m_broker.Accept();
  EXPECT_EQ(m_broker.Receive(Type::Disconnect).type, Type::Closed);  // after ten seconds
  m_broker.AcceptSession(false);
  acceptSubscriptions();
  EXPECT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  EXPECT_THAT(takeErrors(), HasSubstr("no answer; next attempt in "));
}

TEST_F(MqttExactlyOnceTest, ABrokerThatRefusesIsTriedAgainLaterAndLater) {
  PlugIn plugIn;
  constexpr int kAttempts = 4;
  std::vector<std::chrono::steady_clock::time_point> times;
  for (int i = 0; i < kAttempts; ++i) {
    m_broker.Accept();
    times.push_back(std::chrono::steady_clock::now());
    if (i < kAttempts - 1) m_broker.ConnAck(false, 0x87);
  }
  const std::vector<std::chrono::milliseconds> delays = announcedDelays("refused: not authorised");
  ASSERT_EQ(delays.size(), times.size() - 1);
  auto window = Lumo::Mqtt::Backoff::kFirstWindow;
  for (std::size_t i = 0; i < delays.size(); ++i, window *= 2) {
    EXPECT_GT(delays[i].count(), 0);
    EXPECT_LE(delays[i], window);
    // From before the refusal was read to after the connection was made.
    EXPECT_GE(times[i + 1] - times[i], delays[i]);
  }
  EXPECT_TRUE(plugIn.Statuses().empty());
}

}  // namespace
