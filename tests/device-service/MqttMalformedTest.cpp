// A broker that breaks the protocol, or a network that brings packets in pieces or not whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ScriptedBrokerTest.h"

namespace {

using broker::Number;
using broker::Property;
using broker::Text;
using broker::Whole;
using std::chrono::milliseconds;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Values;
using ::testing::ValuesIn;

constexpr const char* kTopic = "things/tv/service/set";
constexpr const char* kNumber = R"({"wrong":1})";

std::string publication(const std::string& properties, unsigned firstByte = 0x34) {
  return broker::Publish(77, kTopic, kNumber, properties, firstByte);
}

std::vector<Bytes> wrongPackets() {
  const std::string response = Property(broker::kResponseTopic, Text("answers/here"));
  const std::string correlation = Property(broker::kCorrelationData, Text("c"));
  const std::string alias = Property(broker::kTopicAlias, Number(1, 2));
  return {
      {"SecondConnAck", broker::ConnAckWith(false), 0x82, 0x82},
      {"Auth", std::string("\xF0\x02\x18\x00", 4), 0x82, 0x81},
      {"AuthOfSuccess", std::string("\xF0\x00", 2), 0x82, 0x81},
      {"TypeZero", std::string("\0\0", 2)},
      {"Connect", Whole(0x10, Text("MQTT") + Number(5, 1) + std::string(4, '\0') + Text("c"))},
      {"Subscribe", Whole(0x82, Number(1, 2) + Number(0, 1) + Text("a") + Number(0, 1))},
      {"Unsubscribe", Whole(0xA2, Number(1, 2) + Number(0, 1) + Text("a"))},
      {"PingRequest", Whole(0xC0, {})},
      {"PublishAtQos3", publication({}, 0x36)},
      {"PublishWithoutId", broker::Publish(0, kTopic, kNumber)},
      {"PublishWithoutTopic", broker::Publish(77, "", kNumber)},
      {"PublishToAFilter", broker::Publish(77, "things/+/service/set", kNumber), 0x90, 0x90},
      {"PublishToNoUtf8", broker::Publish(77, "things/\xC3\x28", kNumber)},
      {"PublishToATopicWithNul", broker::Publish(77, std::string("a\0b", 3), kNumber)},
      {"PublishWhoseTopicIsCut", Whole(0x34, Number(200, 2) + "things")},
      {"PublishWhosePropertiesAreCut",
       Whole(0x34, Text(kTopic) + Number(77, 2) + Number(100, 1) + "x")},
      {"PublishThatIsEmpty", Whole(0x34, {})},
      {"PublishWithAnAlias", publication(alias), 0x94, 0x82},
      {"PublishWithAliasZero", publication(Property(0x23, Number(0, 2))), 0x94, 0x82},
      {"PublishWithAnAliasOnly", broker::Publish(77, "", kNumber, alias), 0x94, 0x82},
      {"PublishWithAnUnknownProperty", publication(Property(0x7F, Number(0, 1)))},
      {"PublishWithAPropertyOfAnother", publication(Property(0x11, Number(1, 4)))},
      {"PublishWithTwoResponseTopics", publication(response + response)},
      {"PublishWithTwoCorrelations", publication(correlation + correlation)},
      {"PublishWithSubscriptionIdZero", publication(Property(0x0B, Number(0, 1)))},
      {"PublishWhoseResponseTopicIsCut", publication(Property(0x08, Number(50, 2)) + "a")},
      {"PubAckWithFlags", Whole(0x41, Number(1, 2))},
      {"PubAckOfZero", Whole(0x40, Number(0, 2))},
      {"PubAckThatIsEmpty", Whole(0x40, {})},
      {"PubAckOfOneByte", Whole(0x40, Number(1, 1))},
      {"PubRelWithoutItsFlags", Whole(0x60, Number(1, 2))},
      {"PubRelOfZero", Whole(0x62, Number(0, 2))},
      {"SubAckWithoutReasons", Whole(0x90, Number(1, 2) + Number(0, 1))},
      {"SubAckOfAnUnknownReason", broker::Subscribed(broker::kSubAck, 1, {0x55})},
      {"SubAckThatIsEmpty", Whole(0x90, {})},
      {"UnsubAckThatIsEmpty", Whole(0xB0, {})},
      {"PingResponseWithABody", Whole(0xD0, Number(0, 1))},
      {"LengthOfFiveBytes", std::string("\x30\xFF\xFF\xFF\xFF\x7F")},
      {"PubAckAsLongAsCanBe", std::string("\x40\xFF\xFF\xFF\x7F") + std::string(100'000, 'x'), 0x81,
       0x95},
  };
}

using MqttMalformedTest = ScriptedBrokerTestWith<Bytes>;

TEST_P(MqttMalformedTest, EndsTheConnectionWithItsReasonAndLosesNothing) {
  startOnlineWithValue();
  m_broker.Send(GetParam().bytes);
  m_plugIn->Notify("a", "2");
  serveUntil([&] { return m_broker.Connections().front().isOver; });
  const auto reason = m_broker.Connections().front().disconnectReason;
  ASSERT_TRUE(reason.has_value());
  EXPECT_THAT(*reason, AnyOf(GetParam().reason, GetParam().otherReason));
  serveUntilOnlineAgain();
  serveUntilValue("2");
  expectSetWorksOn(2);
  // Nothing of the wrong packet was handed on.
  EXPECT_EQ(propertiesOfSets().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Packets, MqttMalformedTest, ValuesIn(wrongPackets()), BytesName);

std::vector<Bytes> wrongGreetings() {
  const auto connAck = [](const std::string& properties) {
    return broker::ConnAckWith(false, 0, properties);
  };
  const std::string keepAlive = Property(0x13, Number(1, 2));
  return {
      {"ReceiveMaximumZero", connAck(Property(0x21, Number(0, 2)))},
      {"MaximumPacketSizeZero", connAck(Property(0x27, Number(0, 4)))},
      {"MaximumQosTwo", connAck(Property(0x24, Number(2, 1)))},
      {"MaximumQosThree", connAck(Property(0x24, Number(3, 1)))},
      {"RetainAvailableTwo", connAck(Property(0x25, Number(2, 1)))},
      {"WildcardsAvailableTwo", connAck(Property(0x28, Number(2, 1)))},
      {"SharedSubscriptionsAvailableTwo", connAck(Property(0x2A, Number(2, 1)))},
      {"APropertyTwice", connAck(keepAlive + keepAlive)},
      {"AnUnknownProperty", connAck(Property(0x7F, Number(0, 1)))},
      {"APropertyOfAnother", connAck(Property(0x23, Number(1, 2)))},
      {"APropertyThatIsCut", connAck(Property(0x27, Number(1, 2)))},
      {"PropertiesThatAreCut", Whole(0x20, std::string("\0\0\x09\x13", 4))},
      {"ATextThatIsNoUtf8", connAck(Property(0x1F, Text("\xC3\x28")))},
      {"AnEmptyConnAck", Whole(0x20, {})},
      {"AConnAckOfOneByte", Whole(0x20, Number(0, 1))},
      {"FlagsOfTheHeader", std::string("\x21\x03\0\0\0", 5)},
      {"ReservedFlags", Whole(0x20, std::string("\x02\0\0", 3))},
      {"AnUnknownReason", Whole(0x20, std::string("\0\x55\0", 3))},
      {"BytesLeftOver", Whole(0x20, std::string("\0\0\0xyz", 6))},
      {"APublicationBefore", publication({})},
      {"APingResponseBefore", broker::PingResp()},
      {"ASubAckBefore", broker::Subscribed(broker::kSubAck, 1, {2})},
      {"ADisconnectBefore", broker::Disconnect(0x89)},
      {"AnAuthBefore", std::string("\xF0\x02\x18\x00", 4)},
      {"AnotherProtocol", "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"},
      {"AnotherProtocolOfMany", std::string(1'000'000, '\xFF')},
  };
}

// CONNACKs that refuse.
std::vector<Bytes> refusals() {
  std::vector<Bytes> all;
  for (const unsigned reason :
       {0x80U, 0x81U, 0x82U, 0x83U, 0x84U, 0x85U, 0x86U, 0x87U, 0x88U, 0x89U, 0x8AU,
        0x8CU, 0x90U, 0x95U, 0x97U, 0x99U, 0x9AU, 0x9BU, 0x9CU, 0x9DU, 0x9FU}) {
    const auto byte = static_cast<std::uint8_t>(reason);
    all.push_back({ReasonName(byte), broker::ConnAckWith(false, byte)});
  }
  return all;
}

using MqttGreetingTest = ScriptedBrokerTestWith<Bytes>;

TEST_P(MqttGreetingTest, IsLoggedAndNotTakenForAnAcceptedConnection) {
  m_broker.AnswerConnects([this](const auto&) {
    return m_broker.Connections().size() == 1 ? GetParam().bytes : m_broker.Greeting();
  });
  startOnlineWithValue();
  EXPECT_THAT(m_plugIn->Statuses(), ElementsAre("mqtt=1"));
  const bool isRefusal = GetParam().name.rfind("0x", 0) == 0;
  EXPECT_GE(countErrors({isRefusal ? "refuse" : "127.0.0.1"}), 1U) << log();
  serveUntilValue("1");
  expectSetWorksOn(2);
  EXPECT_EQ(propertiesOfSets().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Packets, MqttGreetingTest, ValuesIn(wrongGreetings()), BytesName);
INSTANTIATE_TEST_SUITE_P(Refusals, MqttGreetingTest, ValuesIn(refusals()), BytesName);

// --- The same at every connection

using MqttStormTest = ScriptedBrokerTestWith<Bytes>;

TEST_P(MqttStormTest, AnErrorAtEveryConnectionIsMetWithFewerAndFewerOfThem) {
  const bool isRefused = GetParam().name == "Refused";
  m_broker.AnswerConnects([&](const auto&) {
    return isRefused ? GetParam().bytes : m_broker.Greeting() + GetParam().bytes;
  });
  startWithValue();
  m_broker.ServeFor(std::chrono::seconds(5));
  RecordProperty("Connections", static_cast<int>(m_broker.Connections().size()));
  EXPECT_GE(m_broker.Connections().size(), 2U);
  EXPECT_LE(m_broker.Connections().size(), 8U);
  if (isRefused) {
    EXPECT_THAT(m_plugIn->Statuses(), IsEmpty());
  }
  m_broker.AnswerConnects({});
  serveUntilOnline();
  expectSetWorks();
}

const std::vector<Bytes> kStorms{
    {"SecondConnAck", broker::ConnAckWith(false)},
    {"Auth", std::string("\xF0\x02\x18\x00", 4)},
    {"PublishAtQos3", publication({}, 0x36)},
    {"PublishWithAnAlias", publication(Property(broker::kTopicAlias, Number(1, 2)))},
    {"TypeZero", std::string("\0\0", 2)},
    {"PubAckThatIsEmpty", Whole(0x40, {})},
    {"SubAckThatIsEmpty", Whole(0x90, {})},
    {"Disconnect", broker::Disconnect(0x8E)},
    {"Refused", broker::ConnAckWith(false, 0x88)},
};

INSTANTIATE_TEST_SUITE_P(Packets, MqttStormTest, ValuesIn(kStorms), BytesName);

// --- What a broker passes on from another client, unchecked

using MqttPassedOnTest = ScriptedBrokerTestWith<Bytes>;

TEST_P(MqttPassedOnTest, IsTakenAndAcknowledgedAndNotAnsweredToAFilter) {
  constexpr std::uint16_t kId = 77;
  startOnline();
  m_broker.Send(GetParam().bytes);
  serveUntil([&] {
    const auto& acks = m_broker.Acknowledgements();
    return std::any_of(acks.begin(), acks.end(), [](const Packet& ack) { return ack.id == kId; });
  });
  m_broker.Send(broker::Ack(broker::kPubRel, kId));
  expectSetWorksOn(1);
  EXPECT_THAT(propertiesOfSets(), ElementsAre("wrong=1:1", "n=1:1"));
  for (const Publication& publication : m_broker.Publications()) {
    EXPECT_EQ(publication.topic.find_first_of("+#"), std::string::npos) << publication.topic;
  }
  const bool hasFilter = GetParam().bytes.find_first_of("+#") != std::string::npos;
  EXPECT_EQ(countErrors({"no answer goes to the Response Topic"}), hasFilter ? 1U : 0U) << log();
}

const std::vector<Bytes> kPassedOn{
    {"ResponseTopicWithPlus", publication(Property(broker::kResponseTopic, Text("a/+/b")))},
    {"ResponseTopicWithHash", publication(Property(broker::kResponseTopic, Text("a/#")))},
    {"PayloadFormatTwo", publication(Property(broker::kPayloadFormat, Number(2, 1)))},
    {"PayloadFormatMost", publication(Property(broker::kPayloadFormat, Number(255, 1)))},
};

INSTANTIATE_TEST_SUITE_P(Packets, MqttPassedOnTest, ValuesIn(kPassedOn), BytesName);

// --- Packets in pieces, cut, and too many

using MqttPiecesTest = ScriptedBrokerTest;

TEST_F(MqttPiecesTest, PacketsThatComeByteByByteAreTaken) {
  const auto sendSlowly = [this](const std::string& bytes) {
    m_broker.SendSlowly(bytes, milliseconds(2));
    return std::string();
  };
  m_broker.AnswerConnects([&](const auto&) {
    return sendSlowly(m_broker.Greeting(Property(broker::kReasonString, Text("at your service"))));
  });
  m_broker.AnswerSubscriptions([&](const Packet& subscription) {
    return sendSlowly(broker::Subscribed(broker::kSubAck, subscription.id, {subscription.qos}));
  });
  startOnline();
  sendSlowly(
      broker::Publish(9, kSet, R"({"n":"slow"})", broker::AnswerProperties(kAnswers, "slow")));
  sendSlowly(broker::Ack(broker::kPubRel, 9));
  serveUntilAnswered("slow");
  EXPECT_THAT(m_broker.AnswersTo("slow"), ElementsAre(answerToSet("slow")));
  EXPECT_EQ(propertiesOfSets().size(), 1U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
}

TEST_F(MqttPiecesTest, AHundredPacketsAtOnceAreTakenInOrder) {
  startOnline();
  // One that is retained is not for now.
  std::string bytes = broker::Publish(0, kSet, "{\"n\":-1}", {}, 0x31);
  std::vector<std::string> sets;
  for (int i = 0; i < 100; ++i) {
    bytes += broker::Publish(0, kSet, "{\"n\":" + std::to_string(i) + "}", {}, 0x30);
    sets.push_back("n=" + std::to_string(i) + ":1");
  }
  m_broker.Send(bytes);
  serveUntil([&] { return propertiesOfSets() == sets; });
}

TEST_F(MqttPiecesTest, AGreetingThatIsCutAnywhereIsTriedAgain) {
  const std::string whole =
      broker::ConnAckWith(false, 0, Property(broker::kReasonString, Text("hello")));
  m_broker.AnswerConnects([&](const auto&) {
    const std::size_t number = m_broker.Connections().size();
    if (number > 2) return m_broker.Greeting();
    m_broker.Send(whole.substr(0, number == 1 ? 1 : whole.size() - 1));
    m_broker.Close();
    return std::string();
  });
  startOnline();
  EXPECT_THAT(m_plugIn->Statuses(), ElementsAre("mqtt=1"));
  expectSetWorksOn(3);
}

using MqttCutSetTest = ScriptedBrokerTestWith<std::size_t>;

TEST_P(MqttCutSetTest, ASetThatIsCutIsHandledOnceWhenItComesWhole) {
  startOnline();
  m_broker.Send(broker::Publish(1, kSet, R"({"n":1})", broker::AnswerProperties(kAnswers, "1"))
                    .substr(0, GetParam()));
  m_broker.Close();
  const std::string number = deliverSet();
  serveUntilOnlineAgain();
  expectHandled(number);
  EXPECT_EQ(propertiesOfSets().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Bytes, MqttCutSetTest, Values(1, 2, 3, 10, 25, 28, 30, 50, 60));

TEST_F(MqttPiecesTest, ASetLargerThanAnyRequestIsRefusedWithAnAnswer) {
  constexpr std::size_t kHuge = std::size_t{20} * 1024 * 1024;
  startOnline();
  deliverRequest(kSet, R"({"n":")" + std::string(kHuge, 'x') + "\"}", "huge");
  serveUntilAnswered("huge");
  EXPECT_THAT(m_broker.AnswersTo("huge").front(), ::testing::StartsWith("{\"error\":"));
  expectSetWorksOn(1);
  EXPECT_EQ(propertiesOfSets().size(), 1U);
}

// Brokers do that when they resume a session.
TEST_F(MqttPiecesTest, MoreMessagesAtOnceThanWereAllowedAreHandledOnceEach) {
  constexpr std::uint16_t kFirst = 1000;
  constexpr std::uint16_t kEnd = 1200;
  startOnline();
  std::string messages;
  std::string releases;
  std::vector<std::string> expected;
  for (std::uint16_t id = kFirst; id < kEnd; ++id) {
    messages += broker::Publish(id, kSet, "{\"many\":" + std::to_string(id) + "}");
    releases += broker::Ack(broker::kPubRel, id);
    expected.push_back("many=" + std::to_string(id) + ":1");
  }
  const auto serveUntilAll = [&](broker::Type type) {
    serveUntil([&] {
      const auto& acks = m_broker.Acknowledgements();
      return std::count_if(acks.begin(), acks.end(),
                           [&](const Packet& ack) { return ack.type == type; }) == kEnd - kFirst;
    });
  };
  m_broker.Send(messages);
  serveUntilAll(broker::kPubRec);
  m_broker.Send(releases);
  serveUntilAll(broker::kPubComp);
  expectSetWorksOn(1);
  expected.emplace_back("n=1:1");
  EXPECT_EQ(propertiesOfSets(), expected);
}

TEST_F(MqttPiecesTest, AReleaseOfNothingIsAnswered) {
  constexpr std::uint16_t kUnknown = 4711;
  startOnline();
  m_broker.Send(broker::Ack(broker::kPubRel, kUnknown));
  serveUntil([&] {
    const auto& all = m_broker.Acknowledgements();
    return !all.empty() && all.back().type == broker::kPubComp && all.back().id == kUnknown;
  });
  expectSetWorksOn(1);
}

}  // namespace
