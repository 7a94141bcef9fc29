// Connections: how they begin, what a broker must not send, the time, and how they end.
#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Hex.h"
#include "MqttSessionTest.h"
#include "mqtt/Codec.h"

namespace {

using namespace std::chrono_literals;
using namespace Lumo::Mqtt;
using broker::ClientPacket;
using testing::HasSubstr;
using testing::SizeIs;

// --- connections ---------------------------------------------------------------------------------

TEST_F(MqttSessionTest, BeginsWithAConnectOfTheSettings) {
  m_settings.user = "me";
  m_settings.password = "secret";
  restart();
  EXPECT_EQ(m_session->GetState(), Session::State::Closed);
  begin();
  EXPECT_EQ(m_session->GetState(), Session::State::Connecting);
  const ClientPacket connect = writtenPacket();
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
  EXPECT_FALSE(m_session->GetEnd()) << why();
  const ClientPacket connect = writtenPacket();
  EXPECT_EQ(connect.will, m_settings.will);
  EXPECT_EQ(connect.user, m_settings.user);
}

TEST_F(MqttSessionTest, TheClientIdThatTheBrokerAssignsIsUsedFromThenOn) {
  m_settings.clientId.clear();
  restart();
  EXPECT_EQ(m_session->ClientId(), "");
  play("connect client=assigned-17");
  EXPECT_EQ(m_session->ClientId(), "assigned-17");
  play("lose; begin; > connect as assigned-17");
}

TEST_F(MqttSessionTest, NothingIsTakenOnceTheConnectionMustEnd) {
  connect();
  give(broker::Disconnect(0) + broker::Publish(messageOf(2, 1, "too late")));
  play("< qos2 2 later; =; >");
}

const std::vector<SessionScript> kBeginnings = {
    {"IsEstablishedByTheConnAckThatAccepts",
     "begin; < connack; established; = accepted; begin; < connack present=1; = accepted again"},
    {"WritesNothingBehindTheConnectUntilItIsAccepted", "publish 1 kept; lose; begin; > connect; >"},
    {"ARefusalEndsTheConnectionWithTheBrokersReason",
     "begin; > connect; < connack reason=135 text=who; ends 135 who; =; >; begin; alive"},
    {"ABrokerThatRetainsNothingGetsAWillWithoutRetainNextTime",
     "connect reason=154; begin; > connect will-not-retained"},
    {"ABrokerWithoutQos1GetsAWillOfQos0NextTime", "connect reason=155; begin; > connect will=0"},
    {"ADisconnectOfTheBrokerEndsTheConnectionWithItsReasonAndText",
     "< disconnect 142 another; ends 142 another; >"},
};

INSTANTIATE_TEST_SUITE_P(Begins, MqttSessionScriptTest, testing::ValuesIn(kBeginnings), RuleOf);

const std::vector<SessionScript> kEndings = {
    // The broker keeps what nobody acknowledges. No ping is sent either.
    {"ADisconnectIsTheLastPacketOfItsConnection",
     "publish 1 waits; disconnect; < qos2 1 late; < qos1 2 late; publish 2 too; > disconnect;"
     ">; =; settled; wait 25000; >; reconnect; > publish waits, publish too"},
    {"AcknowledgementsAreTakenAfterADisconnectWasQueued",
     "publish 1 a; > publish a; disconnect; < puback 1; = published 1"},
    {"SettlePingsToHaveTheBrokerConfirmWhatWasCompleted",
     "settled; settle; >; deliver 7 {}; = message {}; unsettled; settle; settle;"
     "> pubrec 7, pubcomp 7, pingreq; unsettled; < pingresp; settled"},
    {"AnAnswerToAnEarlierPingConfirmsNothing",
     "due; > pingreq; deliver 7 {}; = message {}; settle; < pingresp; unsettled;"
     "> pubrec 7, pubcomp 7; settle; > pingreq; < pingresp; settled"},
    {"EachAnswerIsThatOfTheOldestPing",
     "wait 22500; > pingreq; wait 22500; > pingreq; < pingresp; deliver 7 {}; = message {};"
     "settle; > pubrec 7, pubcomp 7, pingreq; < pingresp; unsettled; < pingresp; settled;"
     "< pingresp; alive"},
    {"AnUnreleasedMessageIsNotSettled",
     "< qos2 7 {}; = message {}; > pubrec 7; settle; >; confirm; unsettled; < pubrel 7;"
     "confirm; settled"},
    {"APreviousConnectionsMessagesAreNotSettledByLosingIt",
     "deliver 7 {}; = message {}; lose; unsettled; settle; >; reconnect; settle; > pingreq;"
     "< pingresp; settled"},
};

INSTANTIATE_TEST_SUITE_P(Ends, MqttSessionScriptTest, testing::ValuesIn(kEndings), RuleOf);

// --- what a broker must not send -----------------------------------------------------------------

struct Offence {
  const char* name;
  std::string bytes;
  int reason;
  const char* why;
  bool isEstablished = true;

  friend void PrintTo(const Offence& offence, std::ostream* out) { *out << offence.name; }
};

class MqttSessionOffenceTest : public MqttSessionTest,
                               public testing::WithParamInterface<Offence> {};

TEST_P(MqttSessionOffenceTest, EndsTheConnectionWithADisconnectOfItsReason) {
  const Offence& offence = GetParam();
  play(offence.isEstablished ? "subscribe 7; > subscribe" : "begin; > connect");
  give(offence.bytes);
  play(">" + (" disconnect " + std::to_string(offence.reason)) + "; =");
  ASSERT_TRUE(m_session->GetEnd());
  EXPECT_THAT(why(), HasSubstr(offence.why));
  EXPECT_FALSE(m_session->GetEnd()->brokerReason);
}

constexpr int kProtocol = kReasonProtocolError;
constexpr int kMalformed = kReasonMalformedPacket;

INSTANTIATE_TEST_SUITE_P(
    All, MqttSessionOffenceTest,
    testing::Values(
        Offence{"SecondConnAck", broker::ConnAck({}), kProtocol, "CONNACK"},
        Offence{"Auth", broker::Whole(0xF0, {}), kProtocol, "AUTH"},
        Offence{"PublishBeforeTheConnAck", FromHex("32 06 00 01 61 00 01 00"), kProtocol,
                "before the CONNACK", false},
        Offence{"PubRelBeforeTheConnAck", broker::Ack(broker::kPubRel, 1), kProtocol,
                "before the CONNACK", false},
        Offence{"PingRespBeforeTheConnAck", broker::PingResp(), kProtocol, "before the CONNACK",
                false},
        Offence{"SubAckWithTwoReasons", broker::Subscribed(broker::kSubAck, 1, {2, 2}), kProtocol,
                "subscription"},
        Offence{"UnsubAckOfASubscription", broker::Subscribed(broker::kUnsubAck, 1, {0}), kProtocol,
                "subscription"},
        Offence{"Identifier0", broker::Ack(broker::kPubRel, 0), kProtocol, "identifier"},
        Offence{"PacketOfAClient", broker::Whole(0xC0, {}), kProtocol, "no server sends"},
        Offence{"ReservedFlags", broker::Whole(0x6F, broker::Number(1, 2)), kMalformed, "flags"},
        Offence{"BytesLeftOver", broker::Whole(0xD0, "x"), kMalformed, "left over"},
        Offence{"EndlessLength", std::string("\x30\xFF\xFF\xFF\xFF\x7F"), kMalformed, "length"},
        Offence{"TooLargeAndNoMessage", broker::Whole(0x40, std::string(512 * 1024 + 1, '\0')),
                kReasonPacketTooLarge, ""}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(MqttSessionTest, ATooLargeMessageIsHandedOnCutAndAcknowledged) {
  connect();
  bool isCut = false;
  m_onMessage = [&isCut](const Lumo::Mqtt::Publish& message) {
    isCut = message.isCut;
    return Taken::Now;
  };
  give(messageOf(2, 1, std::string(m_settings.maxPacketBytes + 1, 'x')));
  EXPECT_TRUE(isCut);
  EXPECT_THAT(m_payloads, testing::ElementsAre(""));
  play("> pubrec 1; = message");
}

// --- what is written -----------------------------------------------------------------------------

TEST_F(MqttSessionTest, ControlPacketsOvertakeWaitingPublicationsButSplitNone) {
  play(
      "publish 1 a*20000; publish 2 b; write 1000; < qos2 7 {}; = message {}; subscribe 3;"
      "> publish a*20000, pubrec 7, subscribe, publish b");
}

TEST_F(MqttSessionTest, OutputInRandomPiecesIsTheSameAsAtOnce) {
  std::minstd_rand random(20);  // NOLINT(cert-msc51-cpp): the same pieces each time
  std::vector<std::string> streams;
  for (int run = 0; run < 20; ++run) {
    restart();
    begin();
    std::string stream;
    const auto takeSome = [&](std::size_t most) {
      const std::string_view output = m_session->Output();
      EXPECT_EQ(m_session->Output(), output) << "to ask for it changes nothing";
      const std::size_t count = std::min(output.size(), most);
      stream.append(output.substr(0, count));
      m_session->Written(count, m_now);
      return count;
    };
    while (takeSome(run == 0 ? 1'000'000 : 1 + random() % 7) > 0) continue;
    give(broker::ConnAck({}));
    give(messageOf(2, 7, "{}"));
    m_session->Subscribe(1, {});
    for (std::size_t i = 0; i < 20; ++i) {
      publish(i, std::string(i * 200, static_cast<char>('a' + i)));
    }
    while (takeSome(run == 0 ? 1'000'000 : 1 + random() % 5000) > 0) continue;
    streams.push_back(stream);
  }
  for (const std::string& stream : streams) EXPECT_EQ(stream, streams.front());
}

TEST_F(MqttSessionTest, BytesOneByOneGiveTheSameAsAtOnce) {
  const std::string stream =
      broker::ConnAck({}) + broker::Publish(messageOf(2, 7, "first")) +
      broker::Ack(broker::kPubRel, 7) + broker::Publish(messageOf(1, 8, std::string(200, 'x'))) +
      broker::Publish(messageOf(2, 9, "last")) + broker::Disconnect(kReasonServerBusy, "later");
  std::vector<std::vector<std::string>> logs;
  std::vector<std::string> outputs;
  for (const std::size_t step : {stream.size(), std::size_t{1}}) {
    restart();
    begin();
    written();
    for (std::size_t at = 0; at < stream.size(); at += step) give(stream.substr(at, step));
    logs.push_back(std::exchange(m_log, {}));
    outputs.emplace_back(m_session->Output());
    play("ends " + std::to_string(kReasonServerBusy) + " later");
  }
  EXPECT_THAT(logs[0], SizeIs(4));
  EXPECT_EQ(logs[0], logs[1]);
  EXPECT_EQ(outputs[0], outputs[1]);
}

TEST_F(MqttSessionTest, ABrokerThatDoesNotReadEndsTheConnectionBeforeMuchIsKept) {
  for (const bool isWithinAPacket : {false, true}) {
    restart();
    play(isWithinAPacket ? "publish 1 a*100000; write 10" : "connect");
    std::size_t count = 0;
    for (; !m_session->GetEnd() && count < 1'000'000; ++count)
      give(broker::Ack(broker::kPubRel, 7));
    EXPECT_THAT(why(), HasSubstr("does not read"));
    EXPECT_LE(count, 65536U / 4);
    if (isWithinAPacket) continue;
    EXPECT_LE(m_session->Output().size(), 65536U + 16);
    EXPECT_GE(m_session->Output().size(), 32768U);
  }
}

TEST_F(MqttSessionTest, PacketBytesIsTheSizeOfThePacket) {
  std::vector<std::size_t> sizes = {0, 1, 2, 3, 10, 1000};
  for (std::size_t around : {128U, 16384U, 2097152U}) {
    for (std::size_t size = around - 60; size < around + 5; ++size) sizes.push_back(size);
  }
  Publication sent;
  sent.topic = "things/tv/clock/value/time";
  for (const std::size_t correlation : {0U, 1U, 123U, 124U, 125U, 126U, 16380U, 16381U}) {
    for (const std::size_t size : sizes) {
      if (size > 100'000 && correlation > 1) continue;
      sent.payload.assign(size, 'p');
      sent.correlation.assign(correlation, 'c');
      EXPECT_EQ(Session::PacketBytes(sent), EncodePublish(sent, 1, 1).size())
          << size << " with " << correlation;
    }
  }
  sent.payload.assign(16384, 'p');
  connect();
  m_session->Publish(1, sent);
  EXPECT_EQ(m_session->Unacknowledged()[0].bytes, Session::PacketBytes(sent));
  EXPECT_EQ(writtenPacket().bytes, Session::PacketBytes(sent));
}

// --- time ----------------------------------------------------------------------------------------

const std::vector<SessionScript> kTimes = {
    {"PingsWhenNothingWasSentForThreeQuartersOfTheKeepAlive",
     "next 22500; wait 22499; >; wait 1; > pingreq; < pingresp; next 22500"},
    {"ABrokerThatDoesNotAnswerAPingIsSilent",
     "due; > pingreq; wait 44000; alive; wait 2000; ends 0 silent"},
    {"ABrokerThatAcknowledgesNothingIsSilent",
     "publish 1 a; > publish a; wait 46000; ends 0 silent"},
    {"ABrokerThatTakesNoBytesIsSilent",
     "connect qos=0; publish 1 a*100000; write 10; wait 46000; ends 0 silent"},
    {"WithoutAKeepAliveOfTheBrokersTheOwnIsKept", "connect keepalive=0; next 22500"},
    {"TheLongestKeepAliveIsKept",
     "connect keepalive=65535; next 49151250; publish 1 a; > publish a; wait 86400000; alive;"
     "wait 14400000; ends 0 silent"},
};

INSTANTIATE_TEST_SUITE_P(Times, MqttSessionScriptTest, testing::ValuesIn(kTimes), RuleOf);

TEST_F(MqttSessionTest, AnyPacketPutsThePingOff) {
  play("wait 10000; publish 1 a; > publish a");
  EXPECT_GE(m_session->NextCheck(), m_now + 22500ms);
}

TEST_F(MqttSessionTest, PingsThatTheNetworkTakesAreNoLifeOfTheBroker) {
  for (const std::uint16_t keepAlive : {std::uint16_t{1}, std::uint16_t{30}}) {
    play("connect keepalive=" + std::to_string(keepAlive));
    const auto begin = m_now;
    for (int checks = 0; checks < 1000 && !m_session->GetEnd(); ++checks) {
      play("due");
      written();
    }
    EXPECT_THAT(why(), HasSubstr("silent"));
    EXPECT_LE(m_now - begin, keepAlive * 9s / 4 + 4s);
    m_session->Lose();
  }
}

TEST_F(MqttSessionTest, ABrokerIsNotSilentWhileNothingIsAskedOfIt) {
  play("connect qos=0");
  // Nothing comes for ten minutes, as nothing has to.
  for (int i = 0; i < 60; ++i) {
    m_now += 10s;
    play("publish 1 a; > publish a qos0; = published 1; wait 0");
  }
  play("due; > pingreq; wait 40000; alive");
}

TEST_F(MqttSessionTest, AnyBytesOfTheBrokerAreLife) {
  play("publish 1 a; > publish a");
  for (const char byte : broker::Publish(messageOf(1, 1, std::string(30, 'x')))) {
    play("wait 20000; alive");
    give(std::string(1, byte));
  }
  EXPECT_THAT(m_payloads, SizeIs(1));
}

TEST_F(MqttSessionTest, TheBrokersKeepAliveOf1SecondIsKept) {
  play("connect keepalive=1; next 750");
  // A check that comes early sends nothing.
  for (int i = 0; i < 7; ++i) m_session->CheckTime(m_now + 100ms * i);
  play(">");
  for (int i = 0; i < 100; ++i) {
    ASSERT_LE(m_session->NextCheck(), m_now + 750ms);
    play("due; > pingreq; < pingresp");
  }
  play("alive");
}

TEST_F(MqttSessionTest, AShortKeepAliveIsKeptOverANetworkThatIsSlow) {
  play("connect keepalive=1");
  // Each answer needs three seconds.
  for (int i = 0; i < 40; ++i)
    play(i < 4 ? "next 750; due; > pingreq" : "next 750; due; > pingreq; < pingresp");
  play("alive");
}

TEST_F(MqttSessionTest, AShortKeepAliveGivesASlowNetworkFourSeconds) {
  play("connect keepalive=1; publish 1 a; > publish a");
  for (int i = 0; i < 39; ++i) play("wait 100");
  play("alive; wait 100; ends 0 silent");
}

TEST_F(MqttSessionTest, ALargePacketOverASlowNetworkIsLife) {
  play("publish 1 before; > publish before; publish 2 a*1048576; publish 3 behind");
  std::vector<ClientPacket> packets;
  for (int second = 0; second < 175; ++second) {
    m_now += 1s;
    const std::vector<ClientPacket> some = written(6 * 1024);
    packets.insert(packets.end(), some.begin(), some.end());
    m_session->CheckTime(m_now);
    ASSERT_FALSE(m_session->GetEnd()) << "after " << second << " s: " << why();
    ASSERT_GT(m_session->NextCheck(), m_now);
    if (second == 20) play("< puback 1; = published 1");
    if (second == 40) play("< qos2 7 {}; = message {}");
  }
  ASSERT_THAT(packets, SizeIs(3));
  EXPECT_EQ(packets[0].payload, std::string(1024 * 1024, 'a'));
  EXPECT_FALSE(packets[0].again);
  EXPECT_EQ(packets[1].type, broker::kPubRec);
  EXPECT_EQ(packets[1].id, 7);
  EXPECT_EQ(packets[2].payload, "behind");
  play("< puback 2; = published 2");
}

TEST_F(MqttSessionTest, ACheckIsNeverDueTwiceForNothing) {
  connect();
  for (int i = 0; i < 50; ++i) {
    ASSERT_GE(m_session->NextCheck(), m_now);
    play("due");
    if (m_session->GetEnd()) return;
    ASSERT_GT(m_session->NextCheck(), m_now);
  }
  FAIL() << "nothing was ever written, and nobody minded";
}

TEST_F(MqttSessionTest, OnlyAnEstablishedConnectionHasATime) {
  EXPECT_EQ(m_session->NextCheck(), Session::Clock::time_point::max());
  begin();
  EXPECT_EQ(m_session->NextCheck(), Session::Clock::time_point::max());
  play("wait 3600000; alive");
}

}  // namespace
