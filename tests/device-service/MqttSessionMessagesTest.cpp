// Messages from the broker: taken once, and acknowledged in their order, now or later.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "MqttSessionTest.h"
#include "Sanitized.h"

namespace {

const std::vector<SessionScript> kTakenNow = {
    {"OneOfQos1IsAcknowledgedOnceItWasHandedOn", "< qos1 7 {}; = message {}; > puback 7; settled"},
    {"OneOfQos0IsNotAcknowledged", "< qos0 {}; < qos0 {}; = message {}, message {}; >; settled"},
    {"AReleaseOfNothingIsCompletedAsUnknown", "< pubrel 9; > pubcomp 9 146"},
    {"OneThatIsRepeatedBeforeItsReleaseIsHandedOnOnce",
     "< qos2 7 {}; < qos2 7 {} dup; < qos2 7 {}; = message {}; > pubrec 7, pubrec 7, pubrec 7"},
    {"OneThatIsRepeatedOverAnotherConnectionIsHandedOnOnce",
     "< qos2 7 {}; = message {}; reconnect; < qos2 7 {} dup; =; > pubrec 7"},
    {"OneOfWhichThePubRecArrivedIsHandedOnOnce",
     "< qos2 7 {}; = message {}; > pubrec 7; reconnect; deliver 7 {} dup; =;"
     "> pubrec 7, pubcomp 7"},
    {"AReleaseOverAnotherConnectionCompletesTheMessage",
     "< qos2 7 {}; = message {}; reconnect; < pubrel 7; =; > pubcomp 7"},
    {"OneIsRecognisedAfterACompletionThatTheBrokerMayNotKnow",
     "deliver 7 {}; = message {}; reconnect; deliver 7 {} dup; =; > pubrec 7, pubcomp 7;"
     "reconnect; deliver 7 {} dup; ="},
    {"ACompletedIdentifierWithoutDupIsAnotherMessage",
     "deliver 7 {}; deliver 7 {}; = message {}, message {}"},
    {"ACompletionThatTheBrokerConfirmedByAPubAckFreesTheIdentifier",
     "deliver 7 {}; = message {}; unsettled; confirm; settled; reconnect; deliver 7 {} dup;"
     "= message {}"},
    // 8 was completed after it, and so is known.
    {"ASubAckConfirmsWhatWasCompletedBeforeItsSubscription",
     "deliver 7 {}; subscribe 1; deliver 8 {}; < suback 1 2; unsettled;"
     "= message {}, message {}, subscribed 1 with 2; reconnect; deliver 7 {} dup; = message {};"
     "deliver 8 {} dup; ="},
    {"AnUnsubAckConfirmsWhatWasCompletedBefore",
     "deliver 7 {}; unsubscribe 1; < unsuback 1 0; settled; = message {}, unsubscribed 1"},
    {"AnAcknowledgementOfWhatWasSentBeforeTheCompletionConfirmsNothing",
     "publish 1 a; > publish a; deliver 7 {}; < puback 1; unsettled; = message {}, published 1;"
     "reconnect; deliver 7 {} dup; ="},
    // The second acknowledgement is lost, and the broker repeats the message once more.
    {"ACompletionIsNotConfirmedOnceItsMessageCameAgain",
     "deliver 7 {}; = message {}; reconnect; publish 1 a; > publish a; < qos2 7 {} dup;"
     "< puback 1; = published 1; unsettled; reconnect; deliver 7 {} dup; =; confirm; settled"},
    {"WhatThePreviousConnectionSentConfirmsNothing",
     "deliver 7 {}; = message {}; publish 1 a; > pubrec 7, pubcomp 7, publish a; reconnect;"
     "< qos2 7 {} dup; ="},
    {"OtherContentUnderAnUnreleasedIdentifierIsAnotherMessage",
     "< qos2 7 a; < qos2 7 b dup; < qos2 7 b dup correlation=c;"
     "< qos2 7 b dup correlation=c topic=t; < qos2 7 b dup correlation=c topic=t answer=r;"
     "= message a, message b, message b, message b, message b;"
     "> pubrec 7, pubrec 7, pubrec 7, pubrec 7, pubrec 7"},
    {"OtherContentUnderACompletedIdentifierIsAnotherMessage",
     "deliver 7 a; = message a; reconnect; deliver 7 b dup; = message b"},
    {"OneThatIsRefusedIsNotAcknowledgedAndComesAgain",
     "not; < qos2 7 two; < qos1 8 one; >; settled; alive; now; reconnect; < qos2 7 two dup;"
     "< qos1 8 one dup; = message two, message one; > pubrec 7, puback 8"},
    {"OneThatIsRefusedHoldsUpNone",
     "not; < qos2 7 not; < qos1 8 not; now; < qos2 9 a; = message a; > pubrec 9"},
};

INSTANTIATE_TEST_SUITE_P(TakenNow, MqttSessionScriptTest, testing::ValuesIn(kTakenNow), RuleOf);

const std::vector<SessionScript> kTakenForLater = {
    {"OneInThePlaceOfAnotherIsAcknowledgedForItself",
     "later; < qos2 7 a; < qos2 7 b; = message a, message b; cannot leave 0; done 0; >; cannot "
     "leave 0; done 1;"
     "> pubrec 7"},
    {"AcknowledgementsGoOutInTheOrderOfTheMessages",
     "later; < qos2 1 a; < qos1 2 b; < qos2 3 c; now; < qos1 4 d;"
     "= message a, message b, message c, message d; >; done 2; done 1; >; done 0;"
     "> pubrec 1, puback 2, pubrec 3, puback 4"},
    {"WhatIsDoneBehindADisconnectIsAcknowledgedWhenItComesAgain",
     "later; < qos1 6 one; < qos2 7 two; = message one, message two; disconnect; done 0;"
     "done 1; > disconnect; unsettled; reconnect; < qos2 7 two dup; =; > pubrec 7"},
    {"OneOfQos0DoesNotWaitForAnother",
     "later; < qos2 1 a; < qos0 b; = message a, message b; done 0; > pubrec 1"},
    {"OneThatIsRepeatedWhileItIsOwedIsNeitherHandedOnNorAcknowledged",
     "later; < qos2 7 {}; < qos2 7 {} dup; < qos2 7 {}; >; = message {}; done 0; > pubrec 7"},
    {"OneThatIsRepeatedOverAnotherConnectionIsOwedThere",
     "later; < qos2 7 a; < qos2 8 b; = message a, message b; reconnect; < qos2 7 a dup;"
     "< qos2 8 b dup; =; done 1; >; done 0; > pubrec 7, pubrec 8"},
    {"WhatIsDoneAfterTheConnectionWasLostIsAcknowledgedWhenItComesAgain",
     "later; < qos2 7 a; < qos2 8 b; = message a, message b; lose; done 0; connect present=1;"
     "done 1; >; < qos2 7 a dup; < qos2 8 b dup; =; > pubrec 7, pubrec 8"},
    {"OneThatIsLeftIsNotAcknowledgedAndHandedOnOverTheNextConnection",
     "later; < qos2 7 two; < qos1 8 one; = message two, message one; leave 0; leave 1;"
     "cannot leave 0; done 0; done 1; >; settled; reconnect; now; < qos2 7 two dup;"
     "< qos1 8 one dup; = message two, message one; > pubrec 7, puback 8"},
    {"OneCanBeLeftAfterItsConnectionWasLost",
     "later; < qos2 7 a; < qos2 8 b; = message a, message b; lose; leave 0; connect present=1;"
     "< qos2 8 b dup; =; leave 1; settled; < qos2 7 a dup; = message a"},
    {"WhatWasAcknowledgedCannotBeLeft",
     "< qos2 7 two; < qos1 8 one; later; < qos2 9 c; < qos0 d; done 2;"
     "= message two, message one, message c, message d; cannot leave 0; cannot leave 1;"
     "cannot leave 2; cannot leave 3; > pubrec 7, puback 8, pubrec 9; reconnect;"
     "< qos2 9 c dup; ="},
    {"ToLeaveOneAcknowledgesThoseBehindIt",
     "later; < qos2 7 a; < qos1 8 b; now; < qos2 9 c; < qos1 10 d;"
     "= message a, message b, message c, message d; leave 1; >; leave 0; > pubrec 9, puback 10"},
    {"OneOfQos1IsHandedOnAgainWhenItsConnectionWasLostBeforeItWasDone",
     "later; < qos1 7 {}; = message {}; reconnect; done 0; >; < qos1 7 {} dup; = message {};"
     "done 1; > puback 7"},
    {"OneOfQos1IsNotTakenForOneOfQos2WithItsIdentifier",
     "later; < qos2 7 two; < qos1 7 one; = message two, message one; done 1; reconnect;"
     "< qos1 7 one dup; < qos2 7 two dup; = message one; >; done 0; >; done 2;"
     "> puback 7, pubrec 7"},
    {"ASessionThatIsNotPresentForgetsWhatIsNotDone",
     "later; < qos2 7 {}; = message {}; reconnect anew; settled; cannot leave 0; done 0;"
     "< qos2 7 {}; = message {}; >"},
    {"OneOfQos1IsSettledOnceItIsAcknowledgedOrItsConnectionLost",
     "later; < qos1 7 a; < qos1 8 b; = message a, message b; unsettled; done 1; leave 0;"
     "> puback 8; settled; < qos1 9 c; = message c; unsettled; lose; settled"},
    {"OneOfQos2IsSettledOnceTheBrokerKnowsOfItsCompletion",
     "later; < qos2 7 {}; = message {}; confirm; unsettled; done 0; confirm; unsettled;"
     "< pubrel 7; unsettled; confirm; settled"},
};

INSTANTIATE_TEST_SUITE_P(TakenForLater, MqttSessionScriptTest, testing::ValuesIn(kTakenForLater),
                         RuleOf);

TEST_F(MqttSessionTest, AMessageIsHandedOnAtItsPublishWithAllItsFields) {
  m_onMessage = [](const Lumo::Mqtt::Publish& taken) {
    EXPECT_EQ(taken.topic, "things/tv/clock/get");
    EXPECT_EQ(taken.responseTopic, "answers/here");
    EXPECT_EQ(taken.correlation, "c7");
    EXPECT_EQ(taken.qos, 2);
    return Taken::Now;
  };
  play(
      "< qos2 7 {} answer=answers/here correlation=c7; = message {}; > pubrec 7;"
      "< pubrel 7; > pubcomp 7; =");
}

TEST_F(MqttSessionTest, AMessageAtWhichTheListenerThrowsWasNotTaken) {
  play("< qos2 1 taken; = message taken; > pubrec 1");
  m_onMessage = [](const Lumo::Mqtt::Publish&) -> Taken { throw std::runtime_error("no memory"); };
  EXPECT_THROW(give(messageOf(2, 7, "two")), std::runtime_error);
  EXPECT_THROW(give(messageOf(1, 8, "one")), std::runtime_error);
  play("unsettled; >");
  EXPECT_THROW(give(messageOf(2, 1, "in its place")), std::runtime_error);
  play("settled; >");
  m_onMessage = nullptr;
  play("reconnect; < qos2 7 two dup; < qos1 8 one dup; = message two, message one");
}

TEST_F(MqttSessionTest, AMessageThatIsTakenForLaterIsAcknowledgedOnceWhenItIsDone) {
  play(
      "later; < qos2 7 two; < qos1 8 one; = message two, message one; >; done 0; > pubrec 7;"
      "done 1; > puback 8; done 0; done 1");
  m_session->Acknowledge(4711);
  play(">; < pubrel 7; > pubcomp 7");
}

// A search through all of them for each would take minutes.
TEST_F(MqttSessionTest, AsManyMessagesAsThereAreIdentifiersAreSettledInNoTimeAfterALoss) {
  constexpr std::uint16_t kMessages = kIsSanitized ? 5000 : 65'000;
  connect();
  m_answer = Taken::Later;
  for (std::uint16_t id = 1; id <= kMessages; ++id) give(messageOf(2, id, "x"));
  ASSERT_THAT(m_arrivals, testing::SizeIs(kMessages));
  m_session->Lose();
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < kMessages; i += 2) m_session->Acknowledge(m_arrivals[i]);
  for (std::size_t i = 1; i < kMessages; i += 2) EXPECT_TRUE(m_session->Leave(m_arrivals[i]));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(m_session->Leave(m_arrivals[0]));
}

TEST_F(MqttSessionTest, ArrivalsOfMessagesThatAreAcknowledgedDifferAndOthersHaveNone) {
  play(
      "< qos0 zero; < qos2 1 two; < qos1 1 one; < qos1 1 one dup;"
      "= message zero, message two, message one, message one");
  EXPECT_EQ(m_arrivals[0], 0U);
  const std::set<Session::Arrival> all(m_arrivals.begin(), m_arrivals.end());
  EXPECT_THAT(all, testing::SizeIs(4));
}

TEST_F(MqttSessionTest, ManyAcknowledgementsThatBecomeDueAtOnceAreSentInOrder) {
  play("later; < qos2 1 first; = message first; now");
  std::vector<std::uint16_t> expected = {1};
  for (std::uint16_t id = 2; id <= 40'000; ++id) {
    give(messageOf(id % 2 == 0 ? 1 : 2, id, "x"));
    expected.push_back(id);
  }
  m_log.clear();
  play(">; done 0; alive");
  std::vector<std::uint16_t> ids;
  for (const broker::ClientPacket& packet : written()) ids.push_back(packet.id);
  EXPECT_EQ(ids, expected);
  play("alive");
}

// --- how many at a time --------------------------------------------------------------------------

TEST_F(MqttSessionTest, MoreMessagesAtATimeThanAskedForAreEachHandedOnOnce) {
  m_settings.receiveMaximum = 2;
  restart();
  connect();
  std::vector<std::string> expected;
  std::set<std::uint16_t> acknowledged;
  for (std::uint16_t id = 1; id <= 100; ++id) {
    expected.push_back("m" + std::to_string(id));
    give(messageOf(id % 3 == 0 ? 1 : 2, id, expected.back()));
    broker::Message again = messageOf(2, 1, "m1");
    again.again = true;
    give(again);
  }
  EXPECT_FALSE(m_session->GetEnd()) << why();
  EXPECT_EQ(m_payloads, expected);
  for (const broker::ClientPacket& packet : written()) {
    const bool isNext = packet.id == acknowledged.size() + 1;
    EXPECT_TRUE(isNext || packet.id == 1) << packet.id;
    acknowledged.insert(packet.id);
  }
  EXPECT_THAT(acknowledged, testing::SizeIs(100));
}

// Also of a broker that loses its memory again and again, and yet says that the session is there.
TEST_F(MqttSessionTest, MoreMessagesThanAskedForOfPreviousConnectionsAreKnown) {
  for (const int connections : {1, 50}) {
    m_settings.receiveMaximum = 2;
    restart();
    m_payloads.clear();
    for (int id = 1; id <= 100; ++id) {
      play("< qos2 " + std::to_string(id) + " m" + std::to_string(id) + "; = message m" +
           std::to_string(id));
      if (id % (100 / connections) == 0) play("reconnect");
    }
    for (int id = 1; id <= 100; ++id) {
      play("deliver " + std::to_string(id) + " m" + std::to_string(id) + " dup; =");
    }
    play("alive; confirm; settled");
  }
}

TEST_F(MqttSessionTest, MoreUnacknowledgedMessagesThanIdentifiersEndTheConnection) {
  connect();
  m_answer = Taken::Later;
  const std::string bytes = broker::Publish(messageOf(1, 1, "x"));
  for (int i = 0; i < 65535; ++i) give(bytes);
  m_log.clear();
  play("< qos0 zero; alive; = message zero");
  EXPECT_THAT(m_payloads, testing::SizeIs(65536));
  give(bytes);
  EXPECT_THAT(why(), testing::HasSubstr("more messages"));
  play("=; > disconnect 147");
}

}  // namespace
