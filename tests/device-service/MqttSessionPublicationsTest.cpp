// Publications and subscriptions of the user.
#include <gmock/gmock.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "MqttSessionTest.h"

namespace {

const std::vector<SessionScript> kPublications = {
    {"OneThatWasSentInPartIsSentAgainAsAWhole",
     "publish 1 a*100; write 50; unacknowledged 1; sent 0; reconnect; > publish a*100 dup"},
    {"AnAcknowledgementOfNothingIsIgnored",
     "connect receive=1; publish 1 a; publish 2 b; > publish a; < puback 4711; < puback 2;"
     "< pubcomp 1; < suback 4711 2; < unsuback 4711 0; < pingresp; alive; =; unacknowledged 2"},
    {"APubRecOfOneIsAnsweredAsUnknown", "publish 1 a; > publish a; < pubrec 1; > pubrel 1 146; ="},
    {"NoMoreThanOneIsUnacknowledgedWhenTheBrokerTakesOne",
     "connect receive=1; publish 1 a; publish 2 b; publish 3 c; > publish a; < puback 1;"
     "> publish b; < puback 2; > publish c; < puback 3; = published 1, published 2, published 3"},
    {"NoMoreThanTwoAreUnacknowledgedWhenTheBrokerTakesTwo",
     "connect receive=2; publish 1 a; publish 2 b; publish 3 c; publish 4 d;"
     "> publish a, publish b; < puback 1; > publish c; < puback 2; > publish d; < puback 3;"
     "< puback 4; = published 1, published 2, published 3, published 4"},
    {"ABrokerWithoutQos1GetsThemAtQos0",
     "connect qos=0 receive=1; publish 1 a; publish 2 b*300; write 100 publish a qos0; =;"
     "> publish b*300 qos0; = published 1, published 2; unacknowledged 0; lose; ="},
    {"ThoseOfQos0ThatAreNotAllWrittenAreGivenBackLastFirst",
     "connect qos=0; publish 1 a; publish 2 b; write 5; lose; = forgotten 2, forgotten 1;"
     "connect qos=0 present=1; >"},
    {"AResumedSessionGivesBackWhatTheBrokerTakesNoMore",
     "publish 1 small retain; publish 2 small-as-well!; publish 3 small-as-well;"
     "> publish small retain, publish small-as-well!, publish small-as-well; lose; begin;"
     "> connect; < connack present=1 retain=0 size=46; = forgotten 2, accepted again;"
     "> publish small dup, publish small-as-well dup; lose; begin; > connect;"
     "< connack present=1 retain=0 size=46 qos=0; = forgotten 3, forgotten 1, accepted again; >"},
    {"AnAbandonedOneIsNotSent",
     "connect receive=1; publish 1 a; publish 2 b; publish 3 c; > publish a; abandon 2;"
     "abandon 4711; < puback 1; > publish c; = published 1"},
    {"OneThatWasSentOverThisConnectionIsNotAbandoned",
     "connect receive=1; publish 1 a; publish 2 b; > publish a; abandon 1; unacknowledged 2;"
     "< puback 1; = published 1; > publish b"},
    {"OneOfAPreviousConnectionCanBeAbandoned",
     "publish 1 a; publish 2 b; > publish a, publish b; reconnect; abandon 1; > publish b dup"},
    {"ASubscriptionDoesNotOutliveItsConnection",
     "subscribe 5; > subscribe; reconnect; >; < suback 1 0; ="},
};

INSTANTIATE_TEST_SUITE_P(Publications, MqttSessionScriptTest, testing::ValuesIn(kPublications),
                         RuleOf);

TEST_F(MqttSessionTest, PublicationsAreSentAtQos1InTheirOrderWithIdentifiersOfTheirOwn) {
  connect();
  Lumo::Mqtt::Publication full;
  full.topic = "t";
  full.payload = "a";
  full.retain = true;
  full.correlation = "c1";
  m_session->Publish(1, full);
  publish(2, "b");
  publish(3, "c");
  const std::vector<broker::ClientPacket> packets = written();
  ASSERT_THAT(packets, testing::SizeIs(3));
  EXPECT_TRUE(packets[0].retain);
  EXPECT_EQ(packets[0].properties.correlation, "c1");
  EXPECT_EQ(packets[0].topic, "t");
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(packets[i].payload, std::string(1, "abc"[i]));
    EXPECT_EQ(packets[i].qos, 1);
    EXPECT_FALSE(packets[i].again);
    EXPECT_EQ(packets[i].retain, i == 0);
    EXPECT_EQ(packets[i].id, i + 1);
  }
  give(broker::Ack(broker::kPubAck, 2));
  give(broker::Ack(broker::kPubAck, 1, Lumo::Mqtt::kReasonQuotaExceeded, "enough"));
  play("= published 2, published 1 with 151: enough; unacknowledged 1");
  EXPECT_EQ(m_session->Unacknowledged()[0].token, 3U);
}

TEST_F(MqttSessionTest, AResumedSessionSendsAgainInOrderWithTheSameIdentifiersAndDup) {
  play("connect receive=2; publish 1 a; publish 2 b; publish 3 c");
  const std::vector<broker::ClientPacket> first = written();
  ASSERT_THAT(first, testing::SizeIs(2));
  EXPECT_TRUE(m_session->Unacknowledged()[1].isSent);
  EXPECT_FALSE(m_session->Unacknowledged()[2].isSent);
  play("reconnect");
  const std::vector<broker::ClientPacket> again = written();
  ASSERT_THAT(again, testing::SizeIs(3));
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(again[i].payload, std::string(1, "abc"[i]));
    EXPECT_EQ(again[i].again, i < 2);
  }
  EXPECT_EQ(again[0].id, first[0].id);
  EXPECT_EQ(again[1].id, first[1].id);
}

TEST_F(MqttSessionTest, ABrokerThatRetainsNothingGetsNoRetainFlag) {
  play("connect retain=0; publish 1 a retain; > publish a");
  EXPECT_FALSE(m_session->Limits().retainAvailable);
}

TEST_F(MqttSessionTest, IdentifiersWrapAroundAndAreNeverGivenTwiceAtATime) {
  connect();
  publish(1, "stays");
  const std::uint16_t stays = writtenPacket().id;
  m_session->Subscribe(2, {});
  const std::uint16_t subscription = writtenPacket().id;
  EXPECT_NE(subscription, stays);
  std::set<int> ids;
  for (int i = 0; i < 65535; ++i) {
    publish(3, "passes");
    const std::uint16_t id = writtenPacket().id;
    ASSERT_NE(id, stays);
    ASSERT_NE(id, subscription);
    ids.insert(id);
    give(broker::Ack(broker::kPubAck, id));
  }
  EXPECT_EQ(ids.size(), 65535U - 2) << "0 would have been refused by the reader";
}

TEST_F(MqttSessionTest, ASubscriptionIsAnsweredWithTheBrokersReason) {
  connect();
  Lumo::Mqtt::Subscription subscription;
  subscription.filter = "things/tv/#";
  subscription.qos = 2;
  subscription.noLocal = true;
  m_session->Subscribe(5, subscription);
  m_session->Subscribe(6, subscription);
  m_session->Unsubscribe(7, "things/tv/+");
  const std::vector<broker::ClientPacket> packets = written();
  ASSERT_THAT(packets, testing::SizeIs(3));
  EXPECT_EQ(packets[0].type, broker::kSubscribe);
  EXPECT_EQ(packets[0].filter, "things/tv/#");
  EXPECT_EQ(packets[0].options, 0x26);
  EXPECT_EQ(packets[1].type, broker::kSubscribe);
  EXPECT_EQ(packets[2].type, broker::kUnsubscribe);
  EXPECT_EQ(packets[2].filter, "things/tv/+");
  play(
      "< suback 2 135; < suback 1 1; < unsuback 3 17; < unsuback 3 17;"
      "= subscribed 6 with 135, subscribed 5 with 1, unsubscribed 7");
}

}  // namespace
