#include "mqtt/Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "MqttPackets.h"
#include "Sanitized.h"
#include "mqtt/Codec.h"

namespace broker {

// As a failed expectation shows it.
static void PrintTo(const ClientPacket& packet, std::ostream* out) {
  *out << "type " << int{packet.type} << " id " << packet.id << " reason " << int{packet.reason}
       << (packet.again ? " DUP " : " ") << testing::PrintToString(packet.payload.substr(0, 20));
}

}  // namespace broker

namespace {

using namespace std::chrono_literals;
using namespace Lumo::Mqtt;
using broker::Acceptance;
using broker::ClientPacket;
using broker::Message;
using Taken = Session::Taken;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// Writes down what it is told.
class Recorder final : public Session::Listener {
 public:
  void OnAccepted(bool sessionPresent) override {
    log.push_back(sessionPresent ? "accepted again" : "accepted");
  }
  Taken OnMessage(const Publish& message, Session::Arrival arrival) override {
    const Taken taken = onMessage ? onMessage(message) : answer;
    if (taken == Taken::Not) return taken;
    payloads.emplace_back(message.payload);
    arrivals.push_back(arrival);
    log.push_back("message " + std::string(message.payload.substr(0, 20)));
    return taken;
  }
  void OnPublished(Session::Token token, std::uint8_t reason, const std::string& text) override {
    std::string line = "published " + std::to_string(token);
    if (reason != 0) line += " with " + std::to_string(reason);
    log.push_back(text.empty() ? line : line + ": " + text);
  }
  void OnForgotten(Session::Token token) override {
    log.push_back("forgotten " + std::to_string(token));
  }
  void OnSubscribed(Session::Token token, std::uint8_t reason) override {
    log.push_back("subscribed " + std::to_string(token) + " with " + std::to_string(reason));
  }
  void OnUnsubscribed(Session::Token token) override {
    log.push_back("unsubscribed " + std::to_string(token));
  }

  // What came since the last time.
  std::vector<std::string> Take() { return std::exchange(log, {}); }

  Taken answer = Taken::Now;
  std::function<Taken(const Publish&)> onMessage;  // instead of the answer
  // Of the messages that were taken.
  std::vector<std::string> payloads;
  std::vector<Session::Arrival> arrivals;
  std::vector<std::string> log;
};

Message qos2(std::uint16_t id, const std::string& payload, bool again = false) {
  Message message;
  message.qos = 2;
  message.id = id;
  message.topic = "things/tv/clock/get";
  message.payload = payload;
  message.again = again;
  return message;
}

Message qos1(std::uint16_t id, const std::string& payload, bool again = false) {
  Message message = qos2(id, payload, again);
  message.qos = 1;
  return message;
}

Publication publication(const std::string& payload, bool retain = false) {
  Publication result;
  result.topic = "things/tv/clock/value/time";
  result.payload = payload;
  result.retain = retain;
  return result;
}

auto isAck(broker::Type type, std::uint16_t id, std::uint8_t reason = 0) {
  return AllOf(Field("type", &ClientPacket::type, type), Field("id", &ClientPacket::id, id),
               Field("reason", &ClientPacket::reason, reason));
}

auto isDisconnect(std::uint8_t reason) {
  return AllOf(Field("type", &ClientPacket::type, broker::kDisconnect),
               Field("reason", &ClientPacket::reason, reason));
}

auto isPublish(const std::string& payload, bool again = false) {
  return AllOf(Field("type", &ClientPacket::type, broker::kPublish),
               Field("payload", &ClientPacket::payload, payload),
               Field("again", &ClientPacket::again, again));
}

auto is(broker::Type type) {
  return Field("type", &ClientPacket::type, type);
}

class MqttSessionTest : public testing::Test {
 protected:
  MqttSessionTest() {
    m_settings.clientId = "tv";
    m_settings.willTopic = "things/tv/clock/status";
    m_settings.will = "offline";
    restart();
  }

  // A session that knows of nothing.
  void restart() { m_session = std::make_unique<Session>(m_settings, m_listener); }

  Session& session() { return *m_session; }

  // What the session writes, all of it.
  std::vector<ClientPacket> written() {
    std::vector<ClientPacket> all;
    for (std::string_view output = session().Output(); !output.empty();
         output = session().Output()) {
      const std::vector<ClientPacket> packets = m_reader.Take(output);
      all.insert(all.end(), packets.begin(), packets.end());
      session().Written(output.size(), m_now);
    }
    return all;
  }

  // What is written of it, in bytes. Returns the packets that they complete.
  std::vector<ClientPacket> writtenBytes(std::size_t count) {
    std::vector<ClientPacket> all;
    while (count > 0) {
      const std::string_view output = session().Output().substr(0, count);
      if (output.empty()) break;
      count -= output.size();
      const std::vector<ClientPacket> packets = m_reader.Take(output);
      all.insert(all.end(), packets.begin(), packets.end());
      session().Written(output.size(), m_now);
    }
    return all;
  }

  void give(const std::string& bytes) { session().TakeBytes(bytes, m_now); }
  void give(const Message& message) { give(broker::Publish(message)); }
  // A whole exchange: the message, PUBREL behind it.
  void deliver(const Message& message) {
    give(message);
    give(broker::Ack(broker::kPubRel, message.id));
  }

  void begin() {
    m_reader.Reset();
    session().Begin(m_now);
  }
  // A connection that the broker accepts; what the session wrote until then is not kept.
  void connect(const Acceptance& acceptance = {}) {
    begin();
    written();
    give(broker::ConnAck(acceptance));
    m_listener.Take();
  }
  // The connection is lost, and there is another one.
  void reconnect(bool sessionPresent = true, Acceptance acceptance = {}) {
    session().Lose();
    acceptance.sessionPresent = sessionPresent;
    connect(acceptance);
  }
  void publish(Session::Token token, const std::string& payload) {
    session().Publish(token, publication(payload));
  }
  // The broker acknowledges something that is sent now.
  void confirm() {
    session().Publish(999, publication("to be acknowledged"));
    for (const ClientPacket& packet : written()) {
      if (packet.type == broker::kPublish) give(broker::Ack(broker::kPubAck, packet.id));
    }
    m_listener.Take();
  }
  std::string why() { return session().GetEnd() ? session().GetEnd()->why : std::string(); }

  Session::Settings m_settings;
  Recorder m_listener;
  Session::Clock::time_point m_now = Session::Clock::time_point() + 24h;
  broker::ClientReader m_reader;
  std::unique_ptr<Session> m_session;
};

// --- connections ---------------------------------------------------------------------------------

TEST_F(MqttSessionTest, BeginsWithAConnectOfTheSettings) {
  m_settings.user = "me";
  m_settings.password = "secret";
  restart();
  EXPECT_EQ(session().GetState(), Session::State::Closed);
  begin();
  EXPECT_EQ(session().GetState(), Session::State::Connecting);
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  const ClientPacket& connect = packets[0];
  EXPECT_EQ(connect.type, broker::kConnect);
  EXPECT_FALSE(connect.cleanStart);
  EXPECT_EQ(connect.clientId, "tv");
  EXPECT_EQ(connect.user, "me");
  EXPECT_EQ(connect.password, "secret");
  EXPECT_EQ(connect.keepAlive, 30);
  EXPECT_EQ(connect.sessionExpiry, 24U * 60 * 60);
  EXPECT_EQ(connect.receiveMaximum, 32);
  EXPECT_TRUE(connect.hasWill);
  EXPECT_EQ(connect.willTopic, "things/tv/clock/status");
  EXPECT_EQ(connect.will, "offline");
  EXPECT_EQ(connect.willQos, 1);
  EXPECT_TRUE(connect.willRetain);
}

TEST_F(MqttSessionTest, AConnectOfTheLongestFieldsIsSent) {
  m_settings.will = std::string(65535, 'w');
  m_settings.user = std::string(65535, 'u');
  restart();
  begin();
  EXPECT_FALSE(session().GetEnd()) << why();
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  EXPECT_EQ(packets[0].will, m_settings.will);
  EXPECT_EQ(packets[0].user, m_settings.user);
}

TEST_F(MqttSessionTest, IsEstablishedByTheConnAckThatAccepts) {
  begin();
  give(broker::ConnAck({}));
  EXPECT_EQ(session().GetState(), Session::State::Established);
  EXPECT_THAT(m_listener.log, ElementsAre("accepted"));
  Acceptance again;
  again.sessionPresent = true;
  begin();
  give(broker::ConnAck(again));
  EXPECT_THAT(m_listener.log, ElementsAre("accepted", "accepted again"));
}

TEST_F(MqttSessionTest, WritesNothingBehindTheConnectUntilItIsAccepted) {
  connect();
  publish(1, "kept");
  session().Lose();
  begin();
  EXPECT_THAT(written(), ElementsAre(is(broker::kConnect)));
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, ARefusalEndsTheConnectionWithTheBrokersReason) {
  begin();
  written();
  Acceptance refusal;
  refusal.reason = kReasonNotAuthorised;
  refusal.reasonText = "who are you?";
  give(broker::ConnAck(refusal));
  ASSERT_TRUE(session().GetEnd());
  EXPECT_EQ(session().GetEnd()->brokerReason, kReasonNotAuthorised);
  EXPECT_THAT(why(), HasSubstr("who are you?"));
  EXPECT_THAT(m_listener.log, IsEmpty());
  EXPECT_THAT(written(), IsEmpty());
  begin();
  EXPECT_FALSE(session().GetEnd()) << "another connection begins without it";
}

TEST_F(MqttSessionTest, ABrokerThatRetainsNothingGetsAWillWithoutRetainNextTime) {
  Acceptance refusal;
  refusal.reason = kReasonRetainNotSupported;
  connect(refusal);
  begin();
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  EXPECT_FALSE(packets[0].willRetain);
  EXPECT_EQ(packets[0].willQos, 1);
}

TEST_F(MqttSessionTest, ABrokerWithoutQos1GetsAWillOfQos0NextTime) {
  Acceptance refusal;
  refusal.reason = kReasonQosNotSupported;
  connect(refusal);
  begin();
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  EXPECT_EQ(packets[0].willQos, 0);
  EXPECT_TRUE(packets[0].willRetain);
}

TEST_F(MqttSessionTest, TheClientIdThatTheBrokerAssignsIsUsedFromThenOn) {
  m_settings.clientId.clear();
  restart();
  EXPECT_EQ(session().ClientId(), "");
  Acceptance acceptance;
  acceptance.clientId = "assigned-17";
  connect(acceptance);
  EXPECT_EQ(session().ClientId(), "assigned-17");
  session().Lose();
  begin();
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  EXPECT_EQ(packets[0].clientId, "assigned-17");
}

TEST_F(MqttSessionTest, ADisconnectOfTheBrokerEndsTheConnectionWithItsReasonAndText) {
  connect();
  give(broker::Disconnect(kReasonSessionTakenOver, "another one came"));
  ASSERT_TRUE(session().GetEnd());
  EXPECT_EQ(session().GetEnd()->brokerReason, kReasonSessionTakenOver);
  EXPECT_THAT(why(), HasSubstr("another one came"));
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, NothingIsTakenOnceTheConnectionMustEnd) {
  connect();
  give(broker::Disconnect(0) + broker::Publish(qos2(1, "too late")));
  give(broker::Publish(qos2(2, "later")));
  EXPECT_THAT(m_listener.log, IsEmpty());
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, ADisconnectIsTheLastPacketOfItsConnection) {
  connect();
  publish(1, "waits");
  session().Disconnect();
  give(qos2(1, "comes too late"));
  give(qos1(2, "this too"));
  publish(2, "waits as well");
  EXPECT_THAT(written(), ElementsAre(isDisconnect(0)));
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_THAT(m_listener.payloads, IsEmpty()) << "the broker keeps what nobody acknowledges";
  EXPECT_TRUE(session().IsSettled());
  session().CheckTime(m_now + 25s);
  EXPECT_THAT(written(), IsEmpty()) << "no ping either";
  reconnect();
  EXPECT_THAT(written(), ElementsAre(isPublish("waits"), isPublish("waits as well")));
}

TEST_F(MqttSessionTest, AcknowledgementsAreHeardAfterADisconnectWasQueued) {
  connect();
  publish(1, "sent");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  session().Disconnect();
  give(broker::Ack(broker::kPubAck, packets[0].id));
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 1"));
}

// --- what a broker must not send -----------------------------------------------------------------

struct Offence {
  const char* name;
  std::string bytes;
  bool isEstablished;
  int reason;
  const char* why;

  friend void PrintTo(const Offence& offence, std::ostream* out) { *out << offence.name; }
};

class MqttSessionOffenceTest : public MqttSessionTest,
                               public testing::WithParamInterface<Offence> {};

TEST_P(MqttSessionOffenceTest, EndsTheConnectionWithADisconnectOfItsReason) {
  const Offence& offence = GetParam();
  if (offence.isEstablished) {
    connect();
    session().Subscribe(7, {});
    const std::vector<ClientPacket> packets = written();
    ASSERT_THAT(packets, ElementsAre(isAck(broker::kSubscribe, 1)));
  } else {
    begin();
    written();
  }
  give(offence.bytes);
  ASSERT_TRUE(session().GetEnd());
  EXPECT_THAT(why(), HasSubstr(offence.why));
  EXPECT_FALSE(session().GetEnd()->brokerReason);
  EXPECT_THAT(written(), ElementsAre(isDisconnect(static_cast<std::uint8_t>(offence.reason))));
  EXPECT_THAT(m_listener.Take(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, MqttSessionOffenceTest,
    testing::Values(
        Offence{"SecondConnAck", broker::ConnAck({}), true, kReasonProtocolError, "CONNACK"},
        Offence{"Auth", broker::Whole(0xF0, {}), true, kReasonProtocolError, "AUTH"},
        Offence{"PublishBeforeTheConnAck", broker::Publish(qos2(1, "early")), false,
                kReasonProtocolError, "before the CONNACK"},
        Offence{"PubRelBeforeTheConnAck", broker::Ack(broker::kPubRel, 1), false,
                kReasonProtocolError, "before the CONNACK"},
        Offence{"PingRespBeforeTheConnAck", broker::PingResp(), false, kReasonProtocolError,
                "before the CONNACK"},
        Offence{"SubAckWithTwoReasons", broker::Subscribed(broker::kSubAck, 1, {2, 2}), true,
                kReasonProtocolError, "subscription"},
        Offence{"UnsubAckOfASubscription", broker::Subscribed(broker::kUnsubAck, 1, {0}), true,
                kReasonProtocolError, "subscription"},
        Offence{"Identifier0", broker::Ack(broker::kPubRel, 0), true, kReasonProtocolError,
                "identifier"},
        Offence{"PacketOfAClient", broker::Whole(0xC0, {}), true, kReasonProtocolError,
                "no server sends"},
        Offence{"ReservedFlags", broker::Whole(0x6F, broker::Number(1, 2)), true,
                kReasonMalformedPacket, "flags"},
        Offence{"BytesLeftOver", broker::Whole(0xD0, "x"), true, kReasonMalformedPacket,
                "left over"},
        Offence{"EndlessLength", std::string("\x30\xFF\xFF\xFF\xFF\x7F"), true,
                kReasonMalformedPacket, "length"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(MqttSessionTest, ATooLargePacketThatIsNoMessageEndsTheConnection) {
  connect();
  give(broker::Whole(0x40, std::string(m_settings.maxPacketBytes + 1, '\0')));
  EXPECT_THAT(written(), ElementsAre(isDisconnect(kReasonPacketTooLarge)));
  EXPECT_TRUE(session().GetEnd());
}

TEST_F(MqttSessionTest, ATooLargeMessageIsHandedOnCutAndAcknowledged) {
  connect();
  bool isCut = false;
  m_listener.onMessage = [&isCut](const Publish& message) {
    isCut = message.isCut;
    return Taken::Now;
  };
  give(qos2(1, std::string(m_settings.maxPacketBytes + 1, 'x')));
  EXPECT_TRUE(isCut);
  EXPECT_THAT(m_listener.payloads, ElementsAre(""));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 1)));
}

// --- messages ------------------------------------------------------------------------------------

TEST_F(MqttSessionTest, AMessageIsHandedOnAtItsPublish) {
  connect();
  Message message = qos2(7, "{}");
  message.responseTopic = "answers/here";
  message.correlation = "c7";
  m_listener.onMessage = [](const Publish& taken) {
    EXPECT_EQ(taken.topic, "things/tv/clock/get");
    EXPECT_EQ(taken.responseTopic, "answers/here");
    EXPECT_EQ(taken.correlation, "c7");
    EXPECT_EQ(taken.qos, 2);
    return Taken::Now;
  };
  give(message);
  EXPECT_THAT(m_listener.payloads, ElementsAre("{}"));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7)));
  give(broker::Ack(broker::kPubRel, 7));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubComp, 7)));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
}

TEST_F(MqttSessionTest, AMessageOfQos1IsAcknowledgedOnceItWasHandedOn) {
  connect();
  give(qos1(7, "{}"));
  EXPECT_THAT(m_listener.payloads, ElementsAre("{}"));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubAck, 7)));
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, AMessageOfQos0IsNotAcknowledged) {
  connect();
  Message message = qos2(0, "{}");
  message.qos = 0;
  give(message);
  give(message);
  EXPECT_THAT(m_listener.payloads, ElementsAre("{}", "{}"));
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, AReleaseOfNothingIsCompletedAsUnknown) {
  connect();
  give(broker::Ack(broker::kPubRel, 9));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubComp, 9, kReasonPacketIdNotFound)));
}

TEST_F(MqttSessionTest, AMessageThatIsRepeatedBeforeItsReleaseIsHandedOnOnce) {
  connect();
  give(qos2(7, "{}"));
  give(qos2(7, "{}", true));
  give(qos2(7, "{}"));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubRec, 7),
                                     isAck(broker::kPubRec, 7)));
}

TEST_F(MqttSessionTest, AMessageThatIsRepeatedOverAnotherConnectionIsHandedOnOnce) {
  connect();
  give(qos2(7, "{}"));
  reconnect();
  give(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7)));
}

TEST_F(MqttSessionTest, AMessageOfWhichThePubRecArrivedIsHandedOnOnce) {
  connect();
  give(qos2(7, "{}"));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7)));
  reconnect();
  give(qos2(7, "{}", true));
  give(broker::Ack(broker::kPubRel, 7));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubComp, 7)));
}

TEST_F(MqttSessionTest, AReleaseOverAnotherConnectionCompletesTheMessage) {
  connect();
  give(qos2(7, "{}"));
  reconnect();
  give(broker::Ack(broker::kPubRel, 7));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubComp, 7)));
}

TEST_F(MqttSessionTest, AMessageIsRecognisedAfterACompletionThatTheBrokerMayNotKnow) {
  connect();
  deliver(qos2(7, "{}"));
  reconnect();
  deliver(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubComp, 7)));
  reconnect();
  deliver(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(1)) << "as often as it takes";
}

TEST_F(MqttSessionTest, ACompletedIdentifierWithoutDupIsAnotherMessage) {
  connect();
  deliver(qos2(7, "{}"));
  deliver(qos2(7, "{}"));
  EXPECT_THAT(m_listener.payloads, SizeIs(2));
}

TEST_F(MqttSessionTest, ACompletionThatTheBrokerConfirmedByAPubAckFreesTheIdentifier) {
  connect();
  deliver(qos2(7, "{}"));
  EXPECT_FALSE(session().IsSettled());
  confirm();
  EXPECT_TRUE(session().IsSettled());
  reconnect();
  deliver(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(2)) << "a new message that was lost once on its way";
}

TEST_F(MqttSessionTest, ASubAckConfirmsWhatWasCompletedBeforeItsSubscription) {
  connect();
  deliver(qos2(7, "{}"));
  session().Subscribe(1, {});
  deliver(qos2(8, "{}"));
  give(broker::Subscribed(broker::kSubAck, 1, {2}));
  EXPECT_FALSE(session().IsSettled()) << "8 was completed after it";
  reconnect();
  deliver(qos2(7, "{}", true));
  deliver(qos2(8, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(3)) << "7 is new, 8 is not";
}

TEST_F(MqttSessionTest, AnUnsubAckConfirmsWhatWasCompletedBefore) {
  connect();
  deliver(qos2(7, "{}"));
  session().Unsubscribe(1, "things/#");
  give(broker::Subscribed(broker::kUnsubAck, 1, {0}));
  EXPECT_TRUE(session().IsSettled());
  EXPECT_THAT(m_listener.log, ElementsAre("message {}", "unsubscribed 1"));
}

TEST_F(MqttSessionTest, AnAcknowledgementOfWhatWasSentBeforeTheCompletionConfirmsNothing) {
  connect();
  publish(1, "sent before");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  deliver(qos2(7, "{}"));
  give(broker::Ack(broker::kPubAck, packets[0].id));
  EXPECT_FALSE(session().IsSettled());
  reconnect();
  deliver(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
}

TEST_F(MqttSessionTest, ACompletionIsNotConfirmedOnceItsMessageCameAgain) {
  connect();
  deliver(qos2(7, "{}"));
  reconnect();
  publish(1, "sent before it comes again");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  give(qos2(7, "{}", true));
  give(broker::Ack(broker::kPubAck, packets[0].id));
  EXPECT_FALSE(session().IsSettled());
  // The acknowledgement is lost, and the broker repeats the message once more.
  reconnect();
  deliver(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  confirm();
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, WhatThePreviousConnectionSentConfirmsNothing) {
  connect();
  deliver(qos2(7, "{}"));
  publish(1, "sent after");
  const std::vector<ClientPacket> before = written();
  reconnect();
  // The session sends the publication again, and only that acknowledgement counts.
  give(qos2(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
}

TEST_F(MqttSessionTest, OtherContentUnderAnUnreleasedIdentifierIsAnotherMessage) {
  connect();
  give(qos2(7, "first"));
  give(qos2(7, "second", true));
  Message third = qos2(7, "second", true);
  third.correlation = "c";
  give(third);
  Message fourth = third;
  fourth.topic = "things/tv/clock/set";
  give(fourth);
  Message fifth = fourth;
  fifth.responseTopic = "answers";
  give(fifth);
  EXPECT_THAT(m_listener.payloads, ElementsAre("first", "second", "second", "second", "second"));
  EXPECT_THAT(written(), SizeIs(5));
}

TEST_F(MqttSessionTest, OtherContentUnderACompletedIdentifierIsAnotherMessage) {
  connect();
  deliver(qos2(7, "first"));
  reconnect();
  deliver(qos2(7, "second", true));
  EXPECT_THAT(m_listener.payloads, ElementsAre("first", "second"));
}

TEST_F(MqttSessionTest, AMessageInThePlaceOfAnotherIsAcknowledgedForItself) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "first"));
  give(qos2(7, "second"));
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_FALSE(session().Leave(m_listener.arrivals[0])) << "the broker keeps only the second";
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7)));
}

TEST_F(MqttSessionTest, ASessionThatIsNotPresentForgetsWhatCame) {
  connect();
  give(qos2(7, "{}"));
  deliver(qos2(8, "{}"));
  reconnect(false);
  EXPECT_TRUE(session().IsSettled());
  give(qos2(7, "{}", true));
  give(qos2(8, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(4));
}

TEST_F(MqttSessionTest, AMessageThatIsRefusedIsNotAcknowledgedAndComesAgain) {
  connect();
  m_listener.answer = Taken::Not;
  give(qos2(7, "two"));
  give(qos1(8, "one"));
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_TRUE(session().IsSettled());
  EXPECT_FALSE(session().GetEnd());
  m_listener.answer = Taken::Now;
  reconnect();
  give(qos2(7, "two", true));
  give(qos1(8, "one", true));
  EXPECT_THAT(m_listener.payloads, ElementsAre("two", "one"));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubAck, 8)));
}

TEST_F(MqttSessionTest, AMessageAtWhichTheListenerThrowsWasNotTaken) {
  connect();
  m_listener.onMessage = [](const Publish&) -> Taken { throw std::runtime_error("no memory"); };
  EXPECT_THROW(give(qos2(7, "two")), std::runtime_error);
  EXPECT_THROW(give(qos1(8, "one")), std::runtime_error);
  EXPECT_THAT(written(), IsEmpty());
  m_listener.onMessage = nullptr;
  reconnect();
  give(qos2(7, "two", true));
  give(qos1(8, "one", true));
  EXPECT_THAT(m_listener.payloads, ElementsAre("two", "one"));
}

// --- acknowledged later --------------------------------------------------------------------------

TEST_F(MqttSessionTest, AMessageThatIsTakenForLaterIsAcknowledgedWhenItIsDone) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "two"));
  give(qos1(8, "one"));
  EXPECT_THAT(written(), IsEmpty());
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7)));
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubAck, 8)));
  session().Acknowledge(m_listener.arrivals[0]);
  session().Acknowledge(m_listener.arrivals[1]);
  session().Acknowledge(4711);
  EXPECT_THAT(written(), IsEmpty()) << "once";
  give(broker::Ack(broker::kPubRel, 7));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubComp, 7)));
  EXPECT_THAT(m_listener.payloads, ElementsAre("two", "one"));
}

// A search through all of them for each would take minutes.
TEST_F(MqttSessionTest, AsManyMessagesAsThereAreIdentifiersAreSettledInNoTimeAfterALoss) {
  constexpr std::uint16_t kMessages = kIsSanitized ? 5000 : 65'000;
  connect();
  m_listener.answer = Taken::Later;
  for (std::uint16_t id = 1; id <= kMessages; ++id) give(qos2(id, "x"));
  ASSERT_THAT(m_listener.arrivals, SizeIs(kMessages));
  session().Lose();
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < kMessages; i += 2) session().Acknowledge(m_listener.arrivals[i]);
  for (std::size_t i = 1; i < kMessages; i += 2) {
    EXPECT_TRUE(session().Leave(m_listener.arrivals[i]));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(session().Leave(m_listener.arrivals[0]));
}

TEST_F(MqttSessionTest, ArrivalsOfMessagesThatAreAcknowledgedDifferAndOthersHaveNone) {
  connect();
  Message message = qos2(0, "zero");
  message.qos = 0;
  give(message);
  give(qos2(1, "two"));
  give(qos1(1, "one"));
  give(qos1(1, "one", true));
  ASSERT_THAT(m_listener.arrivals, SizeIs(4));
  EXPECT_EQ(m_listener.arrivals[0], 0U);
  const std::set<Session::Arrival> all(m_listener.arrivals.begin(), m_listener.arrivals.end());
  EXPECT_THAT(all, SizeIs(4));
}

TEST_F(MqttSessionTest, AcknowledgementsGoOutInTheOrderOfTheMessages) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(1, "a"));
  give(qos1(2, "b"));
  give(qos2(3, "c"));
  m_listener.answer = Taken::Now;
  give(qos1(4, "d"));
  EXPECT_THAT(written(), IsEmpty()) << "the last one waits as well";
  session().Acknowledge(m_listener.arrivals[2]);
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), IsEmpty());
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 1), isAck(broker::kPubAck, 2),
                                     isAck(broker::kPubRec, 3), isAck(broker::kPubAck, 4)));
}

TEST_F(MqttSessionTest, ManyAcknowledgementsThatBecomeDueAtOnceAreSentInOrder) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(1, "first"));
  m_listener.answer = Taken::Now;
  std::vector<std::uint16_t> expected = {1};
  for (std::uint16_t id = 2; id <= 40'000; ++id) {
    give(id % 2 == 0 ? qos1(id, "x") : qos2(id, "x"));
    expected.push_back(id);
  }
  EXPECT_THAT(written(), IsEmpty());
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_FALSE(session().GetEnd()) << why();
  std::vector<std::uint16_t> ids;
  for (const ClientPacket& packet : written()) ids.push_back(packet.id);
  EXPECT_FALSE(session().GetEnd()) << why();
  EXPECT_EQ(ids, expected);
}

TEST_F(MqttSessionTest, WhatIsDoneBehindADisconnectIsAcknowledgedWhenItComesAgain) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos1(6, "one"));
  give(qos2(7, "two"));
  session().Disconnect();
  session().Acknowledge(m_listener.arrivals[0]);
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), ElementsAre(isDisconnect(0)));
  EXPECT_FALSE(session().IsSettled());
  reconnect();
  give(qos2(7, "two", true));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7)));
  EXPECT_THAT(m_listener.payloads, SizeIs(2));
}

TEST_F(MqttSessionTest, AMessageOfQos0DoesNotWaitForAnother) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(1, "a"));
  Message message = qos2(0, "zero");
  message.qos = 0;
  give(message);
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 1)));
  EXPECT_THAT(m_listener.payloads, ElementsAre("a", "zero"));
}

TEST_F(MqttSessionTest, AMessageThatIsRepeatedWhileItIsOwedIsNeitherHandedOnNorAcknowledged) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "{}"));
  give(qos2(7, "{}", true));
  give(qos2(7, "{}"));
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7))) << "once";
}

TEST_F(MqttSessionTest, AMessageThatIsRepeatedOverAnotherConnectionIsOwedThere) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "a"));
  give(qos2(8, "b"));
  reconnect();
  give(qos2(7, "a", true));
  give(qos2(8, "b", true));
  EXPECT_THAT(m_listener.payloads, ElementsAre("a", "b"));
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), IsEmpty());
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubRec, 8)));
}

TEST_F(MqttSessionTest, WhatIsDoneAfterTheConnectionWasLostIsAcknowledgedWhenItComesAgain) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "between"));
  give(qos2(8, "after"));
  session().Lose();
  session().Acknowledge(m_listener.arrivals[0]);
  Acceptance resumed;
  resumed.sessionPresent = true;
  connect(resumed);
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), IsEmpty()) << "not before it comes again";
  give(qos2(7, "between", true));
  give(qos2(8, "after", true));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubRec, 8)));
  EXPECT_THAT(m_listener.payloads, SizeIs(2));
}

TEST_F(MqttSessionTest, WhatOnlyWaitedForItsTurnIsAcknowledgedWhenItComesAgain) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(6, "first"));
  give(qos2(7, "done"));
  m_listener.answer = Taken::Now;
  give(qos2(8, "at once"));
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), IsEmpty());
  reconnect();
  give(qos2(7, "done", true));
  give(qos2(8, "at once", true));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubRec, 8)));
  give(qos2(6, "first", true));
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_THAT(m_listener.payloads, SizeIs(3));
}

TEST_F(MqttSessionTest, AMessageThatIsLeftIsNotAcknowledgedAndHandedOnOverTheNextConnection) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "two"));
  give(qos1(8, "one"));
  EXPECT_TRUE(session().Leave(m_listener.arrivals[0]));
  EXPECT_TRUE(session().Leave(m_listener.arrivals[1]));
  EXPECT_FALSE(session().Leave(m_listener.arrivals[0])) << "it is not there any more";
  session().Acknowledge(m_listener.arrivals[0]);
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_TRUE(session().IsSettled());
  reconnect();
  m_listener.answer = Taken::Now;
  give(qos2(7, "two", true));
  give(qos1(8, "one", true));
  EXPECT_THAT(m_listener.payloads, ElementsAre("two", "one", "two", "one"));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubAck, 8)));
}

TEST_F(MqttSessionTest, AMessageCanBeLeftAfterItsConnectionWasLost) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "before it comes again"));
  give(qos2(8, "after"));
  session().Lose();
  EXPECT_TRUE(session().Leave(m_listener.arrivals[0]));
  Acceptance resumed;
  resumed.sessionPresent = true;
  connect(resumed);
  give(qos2(8, "after", true));
  EXPECT_TRUE(session().Leave(m_listener.arrivals[1]));
  EXPECT_TRUE(session().IsSettled());
  give(qos2(7, "before it comes again", true));
  EXPECT_THAT(m_listener.payloads,
              ElementsAre("before it comes again", "after", "before it comes again"));
}

TEST_F(MqttSessionTest, WhatWasAcknowledgedCannotBeLeft) {
  connect();
  give(qos2(7, "two"));
  give(qos1(8, "one"));
  m_listener.answer = Taken::Later;
  give(qos2(9, "later"));
  session().Acknowledge(m_listener.arrivals[2]);
  for (const Session::Arrival arrival : m_listener.arrivals) {
    EXPECT_FALSE(session().Leave(arrival));
  }
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubAck, 8),
                                     isAck(broker::kPubRec, 9)));
  EXPECT_FALSE(session().Leave(0));
  reconnect();
  give(qos2(9, "later", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(3));
}

TEST_F(MqttSessionTest, WhatOnlyWaitsForItsTurnCannotBeLeft) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(6, "first"));
  give(qos2(7, "two"));
  give(qos1(8, "one"));
  session().Acknowledge(m_listener.arrivals[1]);
  session().Acknowledge(m_listener.arrivals[2]);
  EXPECT_FALSE(session().Leave(m_listener.arrivals[1]));
  EXPECT_FALSE(session().Leave(m_listener.arrivals[2]));
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 6), isAck(broker::kPubRec, 7),
                                     isAck(broker::kPubAck, 8)));
  give(qos2(7, "two", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(3)) << "it is known";
}

TEST_F(MqttSessionTest, ToLeaveAMessageLetsThoseBehindItGo) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "left"));
  give(qos1(8, "left too"));
  m_listener.answer = Taken::Now;
  give(qos2(9, "a"));
  give(qos1(10, "b"));
  EXPECT_TRUE(session().Leave(m_listener.arrivals[1]));
  EXPECT_THAT(written(), IsEmpty());
  EXPECT_TRUE(session().Leave(m_listener.arrivals[0]));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 9), isAck(broker::kPubAck, 10)));
}

TEST_F(MqttSessionTest, AMessageThatIsNotTakenHoldsUpNone) {
  connect();
  m_listener.answer = Taken::Not;
  give(qos2(7, "not"));
  give(qos1(8, "not"));
  m_listener.answer = Taken::Now;
  give(qos2(9, "a"));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 9)));
}

TEST_F(MqttSessionTest, AMessageOfQos1IsHandedOnAgainWhenItsConnectionWasLostBeforeItWasDone) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos1(7, "{}"));
  reconnect();
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), IsEmpty()) << "that connection's is gone";
  give(qos1(7, "{}", true));
  EXPECT_THAT(m_listener.payloads, SizeIs(2));
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubAck, 7)));
}

TEST_F(MqttSessionTest, AMessageOfQos1IsNotTakenForOneOfQos2WithItsIdentifier) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "two"));
  give(qos1(7, "one"));
  session().Acknowledge(m_listener.arrivals[1]);
  reconnect();
  give(qos1(7, "one", true));
  give(qos2(7, "two", true));
  EXPECT_THAT(written(), IsEmpty()) << "neither is done";
  session().Acknowledge(m_listener.arrivals[0]);
  EXPECT_THAT(written(), IsEmpty()) << "it came second";
  session().Acknowledge(m_listener.arrivals[2]);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubAck, 7), isAck(broker::kPubRec, 7)));
  EXPECT_THAT(m_listener.payloads, ElementsAre("two", "one", "one"));
}

TEST_F(MqttSessionTest, ASessionThatIsNotPresentForgetsWhatIsNotDone) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "{}"));
  reconnect(false);
  EXPECT_TRUE(session().IsSettled());
  EXPECT_FALSE(session().Leave(m_listener.arrivals[0])) << "the broker has it no more";
  session().Acknowledge(m_listener.arrivals[0]);
  give(qos2(7, "{}"));
  EXPECT_THAT(m_listener.payloads, SizeIs(2)) << "another message";
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, AMessageOfQos1IsSettledOnceItIsAcknowledged) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos1(7, "first"));
  give(qos1(8, "second"));
  EXPECT_FALSE(session().IsSettled());
  session().Acknowledge(m_listener.arrivals[1]);
  EXPECT_TRUE(session().Leave(m_listener.arrivals[0]));
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubAck, 8)));
  EXPECT_TRUE(session().IsSettled());
  give(qos1(9, "third"));
  EXPECT_FALSE(session().IsSettled());
  session().Lose();
  EXPECT_TRUE(session().IsSettled()) << "it comes again, whatever becomes of it here";
}

TEST_F(MqttSessionTest, AMessageOfQos2IsSettledOnceTheBrokerHasHeardOfItsCompletion) {
  connect();
  m_listener.answer = Taken::Later;
  give(qos2(7, "{}"));
  confirm();
  EXPECT_FALSE(session().IsSettled());
  session().Acknowledge(m_listener.arrivals[0]);
  confirm();
  EXPECT_FALSE(session().IsSettled());
  give(broker::Ack(broker::kPubRel, 7));
  EXPECT_FALSE(session().IsSettled());
  confirm();
  EXPECT_TRUE(session().IsSettled());
}

// --- how many at a time --------------------------------------------------------------------------

TEST_F(MqttSessionTest, MoreMessagesAtATimeThanAskedForAreEachHandedOnOnce) {
  m_settings.receiveMaximum = 2;
  restart();
  connect();
  std::vector<std::string> expected;
  std::vector<std::uint16_t> ids;
  for (std::uint16_t id = 1; id <= 100; ++id) {
    expected.push_back("m" + std::to_string(id));
    give(id % 3 == 0 ? qos1(id, expected.back()) : qos2(id, expected.back()));
    give(qos2(1, "m1", true));
  }
  EXPECT_FALSE(session().GetEnd()) << why();
  EXPECT_EQ(m_listener.payloads, expected);
  for (const ClientPacket& packet : written()) {
    const bool isFirstOfItsMessage = ids.empty() || packet.id > ids.back();
    if (isFirstOfItsMessage) ids.push_back(packet.id);
  }
  EXPECT_THAT(ids, SizeIs(100)) << "each is acknowledged";
}

TEST_F(MqttSessionTest, MoreMessagesThanAskedForOfAPreviousConnectionAreKnown) {
  m_settings.receiveMaximum = 2;
  restart();
  connect();
  for (std::uint16_t id = 1; id <= 100; ++id) give(qos2(id, "m" + std::to_string(id)));
  reconnect();
  for (std::uint16_t id = 1; id <= 100; ++id) deliver(qos2(id, "m" + std::to_string(id), true));
  EXPECT_FALSE(session().GetEnd()) << why();
  EXPECT_THAT(m_listener.payloads, SizeIs(100));
  confirm();
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, MoreUnacknowledgedMessagesThanIdentifiersEndTheConnection) {
  connect();
  m_listener.answer = Taken::Later;
  const std::string bytes = broker::Publish(qos1(1, "x"));
  for (int i = 0; i < 65535; ++i) give(bytes);
  Message message = qos2(0, "zero");
  message.qos = 0;
  give(message);
  EXPECT_FALSE(session().GetEnd()) << why();
  EXPECT_THAT(m_listener.payloads, SizeIs(65536));
  give(bytes);
  EXPECT_THAT(why(), HasSubstr("more messages"));
  EXPECT_THAT(m_listener.payloads, SizeIs(65536));
  EXPECT_THAT(written(), ElementsAre(isDisconnect(kReasonReceiveMaximumExceeded)));
}

TEST_F(MqttSessionTest, IdentifiersThatAreNeverReleasedAreKept) {
  m_settings.receiveMaximum = 2;
  restart();
  connect();
  std::uint16_t id = 0;
  // A broker that loses its memory again and again, and yet says that the session is there.
  for (int connection = 0; connection < 10; ++connection) {
    for (int i = 0; i < 2; ++i) {
      ++id;
      give(qos2(id, "m" + std::to_string(id)));
    }
    reconnect();
  }
  for (std::uint16_t known = 1; known <= 20; ++known) {
    deliver(qos2(known, "m" + std::to_string(known), true));
  }
  EXPECT_THAT(m_listener.payloads, SizeIs(20));
}

TEST_F(MqttSessionTest, AMessageThatIsThrownAtInThePlaceOfAnotherLeavesNone) {
  connect();
  give(qos2(1, "take"));
  m_listener.onMessage = [](const Publish&) -> Taken { throw std::runtime_error("no memory"); };
  EXPECT_THROW(give(qos2(1, "throw")), std::runtime_error);
  EXPECT_TRUE(session().IsSettled());
}

// --- publications --------------------------------------------------------------------------------

TEST_F(MqttSessionTest, PublicationsAreSentAtQos1InTheirOrderWithIdentifiersOfTheirOwn) {
  connect();
  Publication full = publication("a", true);
  full.correlation = "c1";
  session().Publish(1, full);
  publish(2, "b");
  publish(3, "c");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, ElementsAre(isPublish("a"), isPublish("b"), isPublish("c")));
  EXPECT_TRUE(packets[0].retain);
  EXPECT_EQ(packets[0].correlation, "c1");
  EXPECT_EQ(packets[0].topic, "things/tv/clock/value/time");
  EXPECT_FALSE(packets[1].retain);
  std::set<int> ids;
  for (const ClientPacket& packet : packets) {
    EXPECT_EQ(packet.qos, 1);
    ids.insert(packet.id);
  }
  EXPECT_THAT(ids, SizeIs(3));
  give(broker::Ack(broker::kPubAck, packets[1].id));
  give(broker::Ack(broker::kPubAck, packets[0].id, kReasonQuotaExceeded, "enough"));
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 2", "published 1 with 151: enough"));
  ASSERT_THAT(session().Unacknowledged(), SizeIs(1));
  EXPECT_EQ(session().Unacknowledged()[0].token, 3U);
}

TEST_F(MqttSessionTest, AResumedSessionSendsAgainInOrderWithTheSameIdentifiersAndDup) {
  Acceptance two;
  two.receiveMaximum = 2;
  connect(two);
  publish(1, "a");
  publish(2, "b");
  publish(3, "c");
  const std::vector<ClientPacket> first = written();
  ASSERT_THAT(first, ElementsAre(isPublish("a"), isPublish("b")));
  EXPECT_TRUE(session().Unacknowledged()[1].isSent);
  EXPECT_FALSE(session().Unacknowledged()[2].isSent);
  reconnect();
  const std::vector<ClientPacket> again = written();
  ASSERT_THAT(again, ElementsAre(isPublish("a", true), isPublish("b", true), isPublish("c")));
  EXPECT_EQ(again[0].id, first[0].id);
  EXPECT_EQ(again[1].id, first[1].id);
  EXPECT_THAT(m_listener.log, IsEmpty());
}

TEST_F(MqttSessionTest, APublicationThatWasSentInPartIsSentAgainAsAWhole) {
  connect();
  publish(1, std::string(100, 'a'));
  EXPECT_THAT(writtenBytes(50), IsEmpty());
  ASSERT_THAT(session().Unacknowledged(), SizeIs(1));
  EXPECT_TRUE(session().Unacknowledged()[0].isSent);
  reconnect();
  EXPECT_THAT(written(), ElementsAre(isPublish(std::string(100, 'a'), true)));
}

TEST_F(MqttSessionTest, PublicationsAreGivenBackLastFirstWhenTheSessionIsNotPresent) {
  Acceptance one;
  one.receiveMaximum = 1;
  connect(one);
  publish(1, "a");
  publish(2, "b");
  written();
  session().Lose();
  EXPECT_THAT(m_listener.log, IsEmpty()) << "not before the broker has said so";
  begin();
  written();
  give(broker::ConnAck({}));
  EXPECT_THAT(m_listener.Take(), ElementsAre("forgotten 2", "forgotten 1", "accepted"));
  EXPECT_THAT(session().Unacknowledged(), IsEmpty());
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, AnAcknowledgementOfNothingIsIgnored) {
  Acceptance one;
  one.receiveMaximum = 1;
  connect(one);
  publish(1, "a");
  publish(2, "b");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  give(broker::Ack(broker::kPubAck, 4711));
  give(broker::Ack(broker::kPubAck, static_cast<std::uint16_t>(packets[0].id + 1)));
  give(broker::Ack(broker::kPubComp, packets[0].id));
  give(broker::Subscribed(broker::kSubAck, 4711, {2}));
  give(broker::Subscribed(broker::kUnsubAck, 4711, {0}));
  give(broker::PingResp());
  EXPECT_FALSE(session().GetEnd());
  EXPECT_THAT(m_listener.log, IsEmpty()) << "the second was not sent yet";
  EXPECT_THAT(session().Unacknowledged(), SizeIs(2));
}

TEST_F(MqttSessionTest, APubRecOfAPublicationIsAnsweredAsUnknown) {
  connect();
  publish(1, "a");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  give(broker::Ack(broker::kPubRec, packets[0].id));
  EXPECT_THAT(written(),
              ElementsAre(isAck(broker::kPubRel, packets[0].id, kReasonPacketIdNotFound)));
  EXPECT_THAT(m_listener.log, IsEmpty());
}

TEST_F(MqttSessionTest, NoMorePublicationsAreUnacknowledgedThanTheBrokerTakes) {
  for (const std::uint16_t maximum : {std::uint16_t{1}, std::uint16_t{2}}) {
    Acceptance acceptance;
    acceptance.receiveMaximum = maximum;
    reconnect(false, acceptance);
    for (Session::Token token = 0; token < 5; ++token) publish(token, std::to_string(token));
    std::vector<std::string> payloads;
    for (std::vector<ClientPacket> packets = written(); !packets.empty(); packets = written()) {
      EXPECT_EQ(packets.size(), payloads.empty() ? maximum : 1U);
      for (const ClientPacket& packet : packets) payloads.push_back(packet.payload);
      give(broker::Ack(broker::kPubAck, packets[0].id));
      if (payloads.size() == maximum && maximum == 2) {
        const std::vector<ClientPacket> next = written();
        ASSERT_THAT(next, SizeIs(1));
        payloads.push_back(next[0].payload);
        give(broker::Ack(broker::kPubAck, packets[1].id));
      }
    }
    EXPECT_THAT(payloads, ElementsAre("0", "1", "2", "3", "4"));
  }
}

TEST_F(MqttSessionTest, ABrokerWithoutQos1GetsPublicationsAtQos0) {
  Acceptance acceptance;
  acceptance.maximumQos = 0;
  acceptance.receiveMaximum = 1;
  connect(acceptance);
  publish(1, "a");
  publish(2, std::string(300, 'b'));
  EXPECT_THAT(writtenBytes(100), ElementsAre(isPublish("a")));
  EXPECT_THAT(m_listener.log, IsEmpty()) << "not all of it is written";
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, ElementsAre(isPublish(std::string(300, 'b'))));
  EXPECT_EQ(packets[0].qos, 0);
  EXPECT_EQ(packets[0].id, 0);
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 1", "published 2"));
  EXPECT_THAT(session().Unacknowledged(), IsEmpty());
  session().Lose();
  EXPECT_THAT(m_listener.log, IsEmpty());
}

TEST_F(MqttSessionTest, APublicationOfQos0ThatIsNotAllWrittenIsGivenBack) {
  Acceptance acceptance;
  acceptance.maximumQos = 0;
  connect(acceptance);
  publish(1, "a");
  EXPECT_THAT(writtenBytes(5), IsEmpty());
  session().Lose();
  EXPECT_THAT(m_listener.Take(), ElementsAre("forgotten 1"));
  reconnect(true, acceptance);
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, PublicationsOfQos0AreGivenBackLastFirst) {
  Acceptance acceptance;
  acceptance.maximumQos = 0;
  connect(acceptance);
  publish(1, "a");
  publish(2, "b");
  EXPECT_THAT(writtenBytes(5), IsEmpty());
  session().Lose();
  EXPECT_THAT(m_listener.Take(), ElementsAre("forgotten 2", "forgotten 1"));
}

TEST_F(MqttSessionTest, ABrokerThatRetainsNothingGetsNoRetainFlag) {
  Acceptance acceptance;
  acceptance.retainAvailable = 0;
  connect(acceptance);
  session().Publish(1, publication("a", true));
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, ElementsAre(isPublish("a")));
  EXPECT_FALSE(packets[0].retain);
  EXPECT_FALSE(session().Limits().retainAvailable);
}

TEST_F(MqttSessionTest, AResumedSessionGivesBackWhatTheBrokerTakesNoMore) {
  connect();
  session().Publish(1, publication("small", true));
  publish(2, "small as well!");
  publish(3, "small as well");
  written();
  Acceptance less;
  less.retainAvailable = 0;
  // Of exactly its size.
  less.maximumPacketSize =
      static_cast<std::uint32_t>(Session::PacketBytes(publication("small as well")));
  session().Lose();
  begin();
  written();
  less.sessionPresent = true;
  give(broker::ConnAck(less));
  EXPECT_THAT(m_listener.Take(), ElementsAre("forgotten 2", "accepted again"));
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, ElementsAre(isPublish("small", true), isPublish("small as well", true)));
  EXPECT_FALSE(packets[0].retain);
  less.maximumQos = 0;
  session().Lose();
  begin();
  written();
  give(broker::ConnAck(less));
  EXPECT_THAT(m_listener.Take(), ElementsAre("forgotten 3", "forgotten 1", "accepted again"));
  EXPECT_THAT(written(), IsEmpty());
}

TEST_F(MqttSessionTest, AnAbandonedPublicationIsNotSent) {
  Acceptance one;
  one.receiveMaximum = 1;
  connect(one);
  publish(1, "a");
  publish(2, "b");
  publish(3, "c");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  session().Abandon(2);
  session().Abandon(4711);
  give(broker::Ack(broker::kPubAck, packets[0].id));
  EXPECT_THAT(written(), ElementsAre(isPublish("c")));
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 1"));
}

TEST_F(MqttSessionTest, APublicationThatWasSentOverThisConnectionIsNotAbandoned) {
  Acceptance one;
  one.receiveMaximum = 1;
  connect(one);
  publish(1, "a");
  publish(2, "b");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  session().Abandon(1);
  EXPECT_THAT(session().Unacknowledged(), SizeIs(2));
  give(broker::Ack(broker::kPubAck, packets[0].id));
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 1"));
  EXPECT_THAT(written(), ElementsAre(isPublish("b"))) << "its place is free again";
}

TEST_F(MqttSessionTest, APublicationOfAPreviousConnectionCanBeAbandoned) {
  connect();
  publish(1, "a");
  publish(2, "b");
  written();
  reconnect();
  session().Abandon(1);
  EXPECT_THAT(written(), ElementsAre(isPublish("b", true)));
}

TEST_F(MqttSessionTest, IdentifiersWrapAroundAndAreNeverGivenTwiceAtATime) {
  connect();
  publish(1, "stays");
  std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  const std::uint16_t stays = packets[0].id;
  session().Subscribe(2, {});
  packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  const std::uint16_t subscription = packets[0].id;
  EXPECT_NE(subscription, stays);
  std::set<int> ids;
  for (int i = 0; i < 65535; ++i) {
    publish(3, "passes");
    packets = written();
    ASSERT_THAT(packets, SizeIs(1));
    const std::uint16_t id = packets[0].id;
    ASSERT_NE(id, stays);
    ASSERT_NE(id, subscription);
    ids.insert(id);
    give(broker::Ack(broker::kPubAck, id));
    m_listener.log.clear();
  }
  EXPECT_EQ(ids.size(), 65535U - 2) << "0 would have been refused by the reader";
}

// --- subscriptions -------------------------------------------------------------------------------

TEST_F(MqttSessionTest, ASubscriptionIsAnsweredWithTheBrokersReason) {
  connect();
  Subscription subscription;
  subscription.filter = "things/tv/#";
  subscription.qos = 2;
  subscription.noLocal = true;
  session().Subscribe(5, subscription);
  session().Subscribe(6, subscription);
  session().Unsubscribe(7, "things/tv/+");
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, ElementsAre(is(broker::kSubscribe), is(broker::kSubscribe),
                                   is(broker::kUnsubscribe)));
  EXPECT_EQ(packets[0].filter, "things/tv/#");
  EXPECT_EQ(packets[0].options, 0x26);
  EXPECT_EQ(packets[2].filter, "things/tv/+");
  give(broker::Subscribed(broker::kSubAck, packets[1].id, {kReasonNotAuthorised}));
  give(broker::Subscribed(broker::kSubAck, packets[0].id, {1}));
  give(broker::Subscribed(broker::kUnsubAck, packets[2].id, {0x11}));
  give(broker::Subscribed(broker::kUnsubAck, packets[2].id, {0x11}));
  EXPECT_THAT(m_listener.Take(),
              ElementsAre("subscribed 6 with 135", "subscribed 5 with 1", "unsubscribed 7"));
}

TEST_F(MqttSessionTest, ASubscriptionDoesNotOutliveItsConnection) {
  connect();
  session().Subscribe(5, {});
  written();
  reconnect();
  EXPECT_THAT(written(), IsEmpty());
  give(broker::Subscribed(broker::kSubAck, 1, {0}));
  EXPECT_THAT(m_listener.log, IsEmpty());
}

// --- what is written -----------------------------------------------------------------------------

TEST_F(MqttSessionTest, ControlPacketsOvertakeWaitingPublicationsButSplitNone) {
  connect();
  publish(1, std::string(20'000, 'a'));
  publish(2, "b");
  EXPECT_THAT(writtenBytes(1000), IsEmpty());
  give(qos2(7, "{}"));
  session().Subscribe(3, {});
  EXPECT_THAT(written(), ElementsAre(isPublish(std::string(20'000, 'a')), isAck(broker::kPubRec, 7),
                                     is(broker::kSubscribe), isPublish("b")));
}

TEST_F(MqttSessionTest, OutputInRandomPiecesIsTheSameAsAtOnce) {
  std::minstd_rand random(20);  // NOLINT(cert-msc51-cpp): the same pieces each time
  std::vector<std::string> streams;
  for (int run = 0; run < 20; ++run) {
    restart();
    begin();
    std::string stream;
    const auto takeSome = [&](std::size_t most) {
      const std::string_view output = session().Output();
      EXPECT_EQ(session().Output(), output) << "to ask for it changes nothing";
      const std::size_t count = std::min(output.size(), most);
      stream.append(output.substr(0, count));
      session().Written(count, m_now);
      return count;
    };
    while (takeSome(run == 0 ? 1'000'000 : 1 + random() % 7) > 0) continue;
    give(broker::ConnAck({}));
    give(qos2(7, "{}"));
    session().Subscribe(1, {});
    for (Session::Token token = 0; token < 20; ++token) {
      publish(token,
              std::string(static_cast<std::size_t>(token * 200), static_cast<char>('a' + token)));
    }
    while (takeSome(run == 0 ? 1'000'000 : 1 + random() % 5000) > 0) continue;
    streams.push_back(stream);
    m_listener.Take();
  }
  for (const std::string& stream : streams) EXPECT_EQ(stream, streams.front());
}

TEST_F(MqttSessionTest, BytesOneByOneGiveTheSameAsAtOnce) {
  const std::string stream =
      broker::ConnAck({}) + broker::Publish(qos2(7, "first")) + broker::Ack(broker::kPubRel, 7) +
      broker::Publish(qos1(8, std::string(200, 'x'))) + broker::Publish(qos2(9, "last")) +
      broker::Disconnect(kReasonServerBusy, "later");
  std::vector<std::vector<std::string>> logs;
  std::vector<std::string> outputs;
  for (const bool oneByOne : {false, true}) {
    restart();
    begin();
    written();
    if (oneByOne) {
      for (const char byte : stream) give(std::string(1, byte));
    } else {
      give(stream);
    }
    logs.push_back(m_listener.Take());
    outputs.emplace_back(session().Output());
    ASSERT_TRUE(session().GetEnd());
    EXPECT_EQ(session().GetEnd()->brokerReason, kReasonServerBusy);
  }
  EXPECT_THAT(logs[0], SizeIs(4));
  EXPECT_EQ(logs[0], logs[1]);
  EXPECT_EQ(outputs[0], outputs[1]);
}

TEST_F(MqttSessionTest, ABrokerThatDoesNotReadEndsTheConnectionBeforeMuchIsKept) {
  connect();
  const std::string releases = broker::Ack(broker::kPubRel, 7);
  std::size_t count = 0;
  while (!session().GetEnd() && count < 1'000'000) {
    give(releases);
    ++count;
  }
  EXPECT_THAT(why(), HasSubstr("does not read"));
  EXPECT_LE(session().Output().size(), 65536U + 16);
  EXPECT_GE(session().Output().size(), 32768U);
}

TEST_F(MqttSessionTest, ABrokerThatStopsReadingWithinAPacketEndsTheConnectionAsWell) {
  connect();
  publish(1, std::string(100'000, 'a'));
  writtenBytes(10);
  const std::string releases = broker::Ack(broker::kPubRel, 7);
  std::size_t count = 0;
  while (!session().GetEnd() && count < 1'000'000) {
    give(releases);
    ++count;
  }
  EXPECT_THAT(why(), HasSubstr("does not read"));
  EXPECT_LE(count, 65536U / 4);
}

TEST_F(MqttSessionTest, PacketBytesIsTheSizeOfThePacket) {
  Acceptance many;
  connect(many);
  std::vector<std::size_t> sizes = {0, 1, 2, 3, 10, 1000};
  for (std::size_t around : {128U, 16384U, 2097152U}) {
    for (std::size_t size = around - 60; size < around + 5; ++size) sizes.push_back(size);
  }
  for (const std::size_t correlation : {0U, 1U, 123U, 124U, 125U, 126U, 16380U, 16381U}) {
    for (const std::size_t size : sizes) {
      if (size > 100'000 && correlation > 1) continue;
      Publication sent = publication(std::string(size, 'p'));
      sent.correlation = std::string(correlation, 'c');
      EXPECT_EQ(Session::PacketBytes(sent), EncodePublish(sent, 1, 1).size())
          << size << " with " << correlation;
    }
  }
  Publication sent = publication(std::string(16384, 'p'));
  session().Publish(1, sent);
  EXPECT_EQ(session().Unacknowledged()[0].bytes, Session::PacketBytes(sent));
  const std::vector<ClientPacket> packets = written();
  ASSERT_THAT(packets, SizeIs(1));
  EXPECT_EQ(packets[0].bytes, Session::PacketBytes(sent));
}

// --- time ----------------------------------------------------------------------------------------

TEST_F(MqttSessionTest, PingsWhenNothingWasSentForThreeQuartersOfTheKeepAlive) {
  connect();
  EXPECT_EQ(session().NextCheck(), m_now + 22500ms);
  session().CheckTime(m_now + 22499ms);
  EXPECT_THAT(written(), IsEmpty());
  m_now += 22500ms;
  session().CheckTime(m_now);
  EXPECT_THAT(written(), ElementsAre(is(broker::kPingReq)));
  give(broker::PingResp());
  EXPECT_EQ(session().NextCheck(), m_now + 22500ms);
  m_now += 10s;
  publish(1, "a");
  written();
  EXPECT_GE(session().NextCheck(), m_now + 22500ms) << "any packet will do";
}

TEST_F(MqttSessionTest, ABrokerThatDoesNotAnswerAPingIsSilent) {
  connect();
  m_now = session().NextCheck();
  session().CheckTime(m_now);
  written();
  m_now += 44s;
  session().CheckTime(m_now);
  EXPECT_FALSE(session().GetEnd());
  m_now += 2s;
  session().CheckTime(m_now);
  EXPECT_THAT(why(), HasSubstr("silent"));
}

TEST_F(MqttSessionTest, PingsThatTheNetworkTakesAreNoLifeOfTheBroker) {
  for (const std::uint16_t keepAlive : std::array<std::uint16_t, 2>{1, 30}) {
    Acceptance acceptance;
    acceptance.keepAlive = keepAlive;
    connect(acceptance);
    const auto begin = m_now;
    while (!session().GetEnd() && m_now < begin + 10min) {
      m_now = session().NextCheck();
      session().CheckTime(m_now);
      written();
    }
    EXPECT_THAT(why(), HasSubstr("silent"));
    EXPECT_LE(m_now - begin, keepAlive * 9s / 4 + 4s);
    session().Lose();
  }
}

TEST_F(MqttSessionTest, ABrokerIsNotSilentWhileNothingIsAskedOfIt) {
  Acceptance withoutQos1;
  withoutQos1.maximumQos = 0;
  connect(withoutQos1);
  // Nothing comes for ten minutes, as nothing has to.
  for (unsigned token = 1; token <= 60; ++token) {
    m_now += 10s;
    publish(token, "a");
    written();
    session().CheckTime(m_now);
  }
  m_now = session().NextCheck();
  session().CheckTime(m_now);
  EXPECT_THAT(written(), ElementsAre(is(broker::kPingReq)));
  m_now += 40s;
  session().CheckTime(m_now);
  EXPECT_FALSE(session().GetEnd());
}

TEST_F(MqttSessionTest, ABrokerThatAcknowledgesNothingIsSilent) {
  connect();
  publish(1, "a");
  written();
  m_now += 46s;
  session().CheckTime(m_now);
  EXPECT_THAT(why(), HasSubstr("silent"));
}

TEST_F(MqttSessionTest, ABrokerThatTakesNoBytesIsSilent) {
  Acceptance withoutQos1;
  withoutQos1.maximumQos = 0;
  connect(withoutQos1);
  publish(1, std::string(100'000, 'a'));
  writtenBytes(10);
  m_now += 46s;
  session().CheckTime(m_now);
  EXPECT_THAT(why(), HasSubstr("silent"));
}

TEST_F(MqttSessionTest, AnyBytesOfTheBrokerAreLife) {
  connect();
  publish(1, "a");
  written();
  const std::string message = broker::Publish(qos1(1, std::string(30, 'x')));
  for (const char byte : message) {
    m_now += 20s;
    session().CheckTime(m_now);
    ASSERT_FALSE(session().GetEnd());
    give(std::string(1, byte));
  }
  EXPECT_THAT(m_listener.payloads, SizeIs(1));
}

TEST_F(MqttSessionTest, TheBrokersKeepAliveOf1SecondIsKept) {
  Acceptance acceptance;
  acceptance.keepAlive = 1;
  connect(acceptance);
  EXPECT_EQ(session().NextCheck(), m_now + 750ms);
  // A check that comes early sends nothing.
  for (int i = 0; i < 7; ++i) session().CheckTime(m_now + 100ms * i);
  EXPECT_THAT(written(), IsEmpty());
  for (int i = 0; i < 100; ++i) {
    ASSERT_LE(session().NextCheck(), m_now + 750ms);
    m_now = session().NextCheck();
    session().CheckTime(m_now);
    ASSERT_THAT(written(), ElementsAre(is(broker::kPingReq)));
    give(broker::PingResp());
  }
  EXPECT_FALSE(session().GetEnd());
}

TEST_F(MqttSessionTest, AShortKeepAliveIsKeptOverANetworkThatIsSlow) {
  Acceptance acceptance;
  acceptance.keepAlive = 1;
  connect(acceptance);
  // Each answer needs three seconds.
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(session().NextCheck(), m_now + 750ms);
    m_now = session().NextCheck();
    session().CheckTime(m_now);
    ASSERT_THAT(written(), ElementsAre(is(broker::kPingReq)));
    if (i >= 4) give(broker::PingResp());
  }
  EXPECT_FALSE(session().GetEnd()) << why();
}

TEST_F(MqttSessionTest, AShortKeepAliveGivesASlowNetworkFourSeconds) {
  Acceptance acceptance;
  acceptance.keepAlive = 1;
  connect(acceptance);
  publish(1, "a");
  written();
  const auto sent = m_now;
  while (m_now < sent + 3900ms) {
    m_now += 100ms;
    session().CheckTime(m_now);
  }
  EXPECT_FALSE(session().GetEnd());
  m_now += 100ms;
  session().CheckTime(m_now);
  EXPECT_THAT(why(), HasSubstr("silent"));
}

TEST_F(MqttSessionTest, WithoutAKeepAliveOfTheBrokersTheOwnIsKept) {
  Acceptance acceptance;
  acceptance.keepAlive = 0;
  connect(acceptance);
  EXPECT_EQ(session().NextCheck(), m_now + 22500ms);
}

TEST_F(MqttSessionTest, TheLongestKeepAliveIsKept) {
  Acceptance acceptance;
  acceptance.keepAlive = 65535;
  connect(acceptance);
  EXPECT_EQ(session().NextCheck(), m_now + 65'535'000ms * 3 / 4);
  publish(1, "a");
  written();
  session().CheckTime(m_now + 24h);
  EXPECT_FALSE(session().GetEnd());
  session().CheckTime(m_now + 28h);
  EXPECT_TRUE(session().GetEnd());
}

TEST_F(MqttSessionTest, ALargePacketOverASlowNetworkIsLife) {
  connect();
  publish(1, "before");
  const std::vector<ClientPacket> before = written();
  ASSERT_THAT(before, SizeIs(1));
  publish(2, std::string(1024 * 1024, 'a'));
  publish(3, "behind");
  std::vector<ClientPacket> packets;
  for (int second = 0; second < 175; ++second) {
    m_now += 1s;
    const std::vector<ClientPacket> some = writtenBytes(6 * 1024);
    packets.insert(packets.end(), some.begin(), some.end());
    session().CheckTime(m_now);
    ASSERT_FALSE(session().GetEnd()) << "after " << second << " s: " << why();
    ASSERT_GT(session().NextCheck(), m_now);
    if (second == 20) give(broker::Ack(broker::kPubAck, before[0].id));
    if (second == 40) give(qos2(7, "{}"));
  }
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 1", "message {}"));
  ASSERT_THAT(packets, ElementsAre(isPublish(std::string(1024 * 1024, 'a')),
                                   isAck(broker::kPubRec, 7), isPublish("behind")));
  give(broker::Ack(broker::kPubAck, packets[0].id));
  EXPECT_THAT(m_listener.Take(), ElementsAre("published 2"));
}

TEST_F(MqttSessionTest, ACheckIsNeverDueTwiceForNothing) {
  connect();
  for (int i = 0; i < 50; ++i) {
    const auto due = session().NextCheck();
    ASSERT_GE(due, m_now);
    m_now = due;
    session().CheckTime(m_now);
    if (session().GetEnd()) return;
    ASSERT_GT(session().NextCheck(), m_now);
  }
  FAIL() << "nothing was ever written, and nobody minded";
}

TEST_F(MqttSessionTest, OnlyAnEstablishedConnectionHasATime) {
  EXPECT_EQ(session().NextCheck(), Session::Clock::time_point::max());
  begin();
  EXPECT_EQ(session().NextCheck(), Session::Clock::time_point::max());
  session().CheckTime(m_now + 1h);
  EXPECT_FALSE(session().GetEnd());
}

// --- leaving -------------------------------------------------------------------------------------

TEST_F(MqttSessionTest, SettlePingsToHaveTheBrokerConfirmWhatWasCompleted) {
  connect();
  EXPECT_TRUE(session().IsSettled());
  session().Settle(m_now);
  EXPECT_THAT(written(), IsEmpty()) << "there is nothing to confirm";
  deliver(qos2(7, "{}"));
  EXPECT_FALSE(session().IsSettled());
  session().Settle(m_now);
  session().Settle(m_now);
  EXPECT_THAT(written(), ElementsAre(isAck(broker::kPubRec, 7), isAck(broker::kPubComp, 7),
                                     is(broker::kPingReq)));
  EXPECT_FALSE(session().IsSettled());
  give(broker::PingResp());
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, AnAnswerToAnEarlierPingConfirmsNothing) {
  connect();
  m_now = session().NextCheck();
  session().CheckTime(m_now);
  EXPECT_THAT(written(), ElementsAre(is(broker::kPingReq)));
  deliver(qos2(7, "{}"));
  session().Settle(m_now);
  give(broker::PingResp());
  EXPECT_FALSE(session().IsSettled());
  written();
  session().Settle(m_now);
  written();
  give(broker::PingResp());
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, EachAnswerIsThatOfTheOldestPing) {
  connect();
  for (int i = 0; i < 2; ++i) {
    m_now += 22500ms;
    session().CheckTime(m_now);
    EXPECT_THAT(written(), ElementsAre(is(broker::kPingReq)));
  }
  give(broker::PingResp());
  deliver(qos2(7, "{}"));
  session().Settle(m_now);
  EXPECT_THAT(written(), SizeIs(3));
  give(broker::PingResp());
  EXPECT_FALSE(session().IsSettled()) << "that was the second ping's";
  give(broker::PingResp());
  EXPECT_TRUE(session().IsSettled());
  give(broker::PingResp());
  EXPECT_FALSE(session().GetEnd());
}

TEST_F(MqttSessionTest, AnUnreleasedMessageIsNotSettled) {
  connect();
  give(qos2(7, "{}"));
  written();
  session().Settle(m_now);
  EXPECT_THAT(written(), IsEmpty());
  confirm();
  EXPECT_FALSE(session().IsSettled());
  give(broker::Ack(broker::kPubRel, 7));
  confirm();
  EXPECT_TRUE(session().IsSettled());
}

TEST_F(MqttSessionTest, APreviousConnectionsMessagesAreNotSettledByLosingIt) {
  connect();
  deliver(qos2(7, "{}"));
  session().Lose();
  EXPECT_FALSE(session().IsSettled());
  session().Settle(m_now);
  EXPECT_TRUE(session().Output().empty());
  reconnect();
  session().Settle(m_now);
  EXPECT_THAT(written(), ElementsAre(is(broker::kPingReq)));
  give(broker::PingResp());
  EXPECT_TRUE(session().IsSettled());
}

}  // namespace
