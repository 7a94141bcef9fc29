// A broker that breaks the protocol, or a network that brings packets in pieces or not whole.
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

using MqttBytes::Byte;
using MqttBytes::Packet;
using MqttBytes::Text;
using MqttBytes::TwoBytes;
using std::chrono::milliseconds;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::Values;
using ::testing::ValuesIn;

// The DISCONNECT that it deserves, and one that is as good.
struct Wrong {
  const char* name;
  std::string bytes;
  std::uint8_t reason = 0x81;
  std::uint8_t otherReason = 0x82;
};

// For googletest: the bytes of a pointer are no name.
void PrintTo(const Wrong& wrong, std::ostream* stream) {
  *stream << wrong.name;
}

std::string wrongName(const ::testing::TestParamInfo<Wrong>& info) {
  return info.param.name;
}

constexpr const char* kTopic = "things/tv/service/set";
constexpr const char* kNumber = R"({"wrong":1})";

std::string publication(const std::string& properties, unsigned header = 0x34) {
  return MqttBytes::Publish(77, kTopic, kNumber, properties, header);
}

std::vector<Wrong> wrongPackets() {
  const std::string response = MqttBytes::ResponseTopic("answers/here");
  const std::string correlation = MqttBytes::CorrelationData("c");
  return {
      {"SecondConnAck", MqttBytes::ConnAck(false), 0x82, 0x82},
      {"Auth", std::string("\xF0\x02\x18\x00", 4), 0x82, 0x81},
      {"AuthOfSuccess", std::string("\xF0\x00", 2), 0x82, 0x81},
      {"TypeZero", std::string("\0\0", 2)},
      {"Connect", Packet(0x10, Text("MQTT") + Byte(5) + std::string(4, '\0') + Text("c"))},
      {"Subscribe", Packet(0x82, TwoBytes(1) + Byte(0) + Text("a") + Byte(0))},
      {"Unsubscribe", Packet(0xA2, TwoBytes(1) + Byte(0) + Text("a"))},
      {"PingRequest", Packet(0xC0, {})},
      {"PublishAtQos3", publication({}, 0x36)},
      {"PublishWithoutId", MqttBytes::Publish(0, kTopic, kNumber)},
      {"PublishWithoutTopic", MqttBytes::Publish(77, "", kNumber)},
      {"PublishToAFilter", MqttBytes::Publish(77, "things/+/service/set", kNumber), 0x90, 0x90},
      {"PublishToNoUtf8", MqttBytes::Publish(77, "things/\xC3\x28", kNumber)},
      {"PublishToATopicWithNul", MqttBytes::Publish(77, std::string("a\0b", 3), kNumber)},
      {"PublishWhoseTopicIsCut", Packet(0x34, TwoBytes(200) + "things")},
      {"PublishWhosePropertiesAreCut", Packet(0x34, Text(kTopic) + TwoBytes(77) + Byte(100) + "x")},
      {"PublishThatIsEmpty", Packet(0x34, {})},
      {"PublishWithAnAlias", publication(Byte(0x23) + TwoBytes(1)), 0x94, 0x82},
      {"PublishWithAliasZero", publication(Byte(0x23) + TwoBytes(0)), 0x94, 0x82},
      {"PublishWithAnAliasOnly", MqttBytes::Publish(77, "", kNumber, Byte(0x23) + TwoBytes(1)),
       0x94, 0x82},
      {"PublishWithAnUnknownProperty", publication(Byte(0x7F) + Byte(0))},
      {"PublishWithAPropertyOfAnother", publication(Byte(0x11) + MqttBytes::FourBytes(1))},
      {"PublishWithTwoResponseTopics", publication(response + response)},
      {"PublishWithTwoCorrelations", publication(correlation + correlation)},
      {"PublishWithSubscriptionIdZero", publication(Byte(0x0B) + Byte(0))},
      {"PublishWhoseResponseTopicIsCut", publication(Byte(0x08) + TwoBytes(50) + "a")},
      {"PubAckWithFlags", Packet(0x41, TwoBytes(1))},
      {"PubAckOfZero", Packet(0x40, TwoBytes(0))},
      {"PubAckThatIsEmpty", Packet(0x40, {})},
      {"PubAckOfOneByte", Packet(0x40, Byte(1))},
      {"PubRelWithoutItsFlags", Packet(0x60, TwoBytes(1))},
      {"PubRelOfZero", Packet(0x62, TwoBytes(0))},
      {"SubAckWithoutReasons", Packet(0x90, TwoBytes(1) + Byte(0))},
      {"SubAckOfAnUnknownReason", MqttBytes::SubscriptionAck(0x90, 1, 0x55)},
      {"SubAckThatIsEmpty", Packet(0x90, {})},
      {"UnsubAckThatIsEmpty", Packet(0xB0, {})},
      {"PingResponseWithABody", Packet(0xD0, Byte(0))},
      {"LengthOfFiveBytes", std::string("\x30\xFF\xFF\xFF\xFF\x7F")},
      {"PubAckAsLongAsCanBe", std::string("\x40\xFF\xFF\xFF\x7F") + std::string(100'000, 'x'), 0x81,
       0x95},
  };
}

class MqttMalformedTest : public ScriptedBrokerTest, public ::testing::WithParamInterface<Wrong> {};

TEST_P(MqttMalformedTest, EndsTheConnectionWithItsReasonAndLosesNothing) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.Send(GetParam().bytes);
  plugIn.Notify("a", "2");
  EXPECT_TRUE(m_broker.ServeUntil([&] { return m_broker.Connections().front().isOver; }));
  const auto reason = m_broker.Connections().front().disconnectReason;
  EXPECT_TRUE(reason.has_value());
  EXPECT_THAT(reason.value_or(0), AnyOf(GetParam().reason, GetParam().otherReason));
  ASSERT_TRUE(
      m_broker.ServeUntil([&] { return m_broker.Connections().size() > 1 && isOnline(plugIn); }));
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"2\""));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.Connections().size(), 2U);
  // Nothing of the wrong packet was handed on.
  EXPECT_EQ(plugIn.Calls("set").size(), 1U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Packets, MqttMalformedTest, ValuesIn(wrongPackets()), wrongName);

std::vector<Wrong> wrongGreetings() {
  const auto connAck = [](const std::string& properties) {
    return MqttBytes::ConnAck(false, 0, properties);
  };
  const std::string keepAlive = Byte(0x13) + TwoBytes(1);
  return {
      {"ReceiveMaximumZero", connAck(Byte(0x21) + TwoBytes(0))},
      {"MaximumPacketSizeZero", connAck(Byte(0x27) + MqttBytes::FourBytes(0))},
      {"MaximumQosTwo", connAck(Byte(0x24) + Byte(2))},
      {"MaximumQosThree", connAck(Byte(0x24) + Byte(3))},
      {"RetainAvailableTwo", connAck(Byte(0x25) + Byte(2))},
      {"WildcardsAvailableTwo", connAck(Byte(0x28) + Byte(2))},
      {"SharedSubscriptionsAvailableTwo", connAck(Byte(0x2A) + Byte(2))},
      {"APropertyTwice", connAck(keepAlive + keepAlive)},
      {"AnUnknownProperty", connAck(Byte(0x7F) + Byte(0))},
      {"APropertyOfAnother", connAck(Byte(0x23) + TwoBytes(1))},
      {"APropertyThatIsCut", connAck(Byte(0x27) + TwoBytes(1))},
      {"PropertiesThatAreCut", Packet(0x20, std::string("\0\0\x09\x13", 4))},
      {"ATextThatIsNoUtf8", connAck(Byte(0x1F) + Text("\xC3\x28"))},
      {"AnEmptyConnAck", Packet(0x20, {})},
      {"AConnAckOfOneByte", Packet(0x20, Byte(0))},
      {"FlagsOfTheHeader", std::string("\x21\x03\0\0\0", 5)},
      {"ReservedFlags", Packet(0x20, std::string("\x02\0\0", 3))},
      {"AnUnknownReason", Packet(0x20, std::string("\0\x55\0", 3))},
      {"BytesLeftOver", Packet(0x20, std::string("\0\0\0xyz", 6))},
      {"APublicationBefore", publication({})},
      {"APingResponseBefore", Packet(0xD0, {})},
      {"ASubAckBefore", MqttBytes::SubscriptionAck(0x90, 1, 2)},
      {"ADisconnectBefore", MqttBytes::Disconnect(0x89)},
      {"AnAuthBefore", std::string("\xF0\x02\x18\x00", 4)},
      {"AnotherProtocol", "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"},
      {"AnotherProtocolOfMany", std::string(1'000'000, '\xFF')},
  };
}

class MqttGreetingTest : public ScriptedBrokerTest, public ::testing::WithParamInterface<Wrong> {};

TEST_P(MqttGreetingTest, IsNotTakenForAnAcceptedConnection) {
  m_broker.AnswerConnects([this](const auto&) {
    return m_broker.Connections().size() == 1 ? GetParam().bytes : m_broker.Greeting();
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  ASSERT_TRUE(serveUntilOnline(plugIn)) << log();
  EXPECT_EQ(m_broker.Connections().size(), 2U);
  EXPECT_THAT(plugIn.Statuses(), ElementsAre("mqtt=1"));
  EXPECT_GE(countErrors({"127.0.0.1"}), 1U) << log();
  EXPECT_TRUE(serveUntilRetained(valueTopic("a"), "\"1\""));
  expectSetWorks(plugIn);
  EXPECT_EQ(plugIn.Calls("set").size(), 1U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Packets, MqttGreetingTest, ValuesIn(wrongGreetings()), wrongName);

// --- The same at every connection

class MqttStormTest : public ScriptedBrokerTest, public ::testing::WithParamInterface<Wrong> {};

TEST_P(MqttStormTest, AnErrorAtEveryConnectionIsMetWithFewerAndFewerOfThem) {
  bool isWrong = true;
  m_broker.AnswerConnects([&](const auto&) {
    return m_broker.Greeting() + (isWrong ? GetParam().bytes : std::string());
  });
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Notify("a", "1");
  m_broker.ServeFor(std::chrono::seconds(5));
  RecordProperty("Connections", static_cast<int>(m_broker.Connections().size()));
  EXPECT_GE(m_broker.Connections().size(), 2U);
  EXPECT_LE(m_broker.Connections().size(), 8U);
  isWrong = false;
  ASSERT_TRUE(m_broker.ServeUntil(
      [&] { return !m_broker.Connections().back().isOver && isOnline(plugIn); }));
  expectSetWorks(plugIn);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Packets, MqttStormTest,
                         Values(Wrong{"SecondConnAck", MqttBytes::ConnAck(false)},
                                Wrong{"Auth", std::string("\xF0\x02\x18\x00", 4)},
                                Wrong{"PublishAtQos3", publication({}, 0x36)},
                                Wrong{"PublishWithAnAlias", publication(Byte(0x23) + TwoBytes(1))},
                                Wrong{"TypeZero", std::string("\0\0", 2)},
                                Wrong{"PubAckThatIsEmpty", Packet(0x40, {})},
                                Wrong{"SubAckThatIsEmpty", Packet(0x90, {})}),
                         wrongName);

// --- What a broker passes on from another client, unchecked

class MqttPassedOnTest : public ScriptedBrokerTest, public ::testing::WithParamInterface<Wrong> {};

TEST_P(MqttPassedOnTest, IsTakenAndAcknowledgedAndNotAnsweredToAFilter) {
  constexpr std::uint16_t kId = 77;
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.Send(GetParam().bytes);
  EXPECT_TRUE(m_broker.ServeUntil([&] {
    const auto& acks = m_broker.Acknowledgements();
    return std::any_of(acks.begin(), acks.end(), [](const auto& ack) { return ack.id == kId; });
  }));
  m_broker.Send(MqttBytes::Ack(0x62, kId));
  expectSetWorks(plugIn);
  ASSERT_EQ(plugIn.Calls("set").size(), 2U);
  EXPECT_THAT(plugIn.Calls("set").front().properties, ElementsAre("wrong=1:1"));
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  for (const auto& publication : m_broker.Publications()) {
    EXPECT_EQ(publication.topic.find_first_of("+#"), std::string::npos) << publication.topic;
  }
  const bool hasFilter = GetParam().bytes.find_first_of("+#") != std::string::npos;
  EXPECT_EQ(countErrors({"no answer goes to the Response Topic"}), hasFilter ? 1U : 0U) << log();
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(
    Packets, MqttPassedOnTest,
    Values(Wrong{"ResponseTopicWithPlus", publication(MqttBytes::ResponseTopic("a/+/b"))},
           Wrong{"ResponseTopicWithHash", publication(MqttBytes::ResponseTopic("a/#"))},
           Wrong{"PayloadFormatTwo", publication(Byte(0x01) + Byte(2))},
           Wrong{"PayloadFormatMost", publication(Byte(0x01) + Byte(255))}),
    wrongName);

// --- Packets in pieces, cut, and too many

using MqttPiecesTest = ScriptedBrokerTest;

TEST_F(MqttPiecesTest, PacketsThatComeByteByByteAreTaken) {
  constexpr milliseconds kPause(2);
  m_broker.AnswerConnects([&](const auto&) {
    m_broker.SendSlowly(m_broker.Greeting(Byte(0x1F) + Text("at your service")), kPause);
    return std::string();
  });
  m_broker.AnswerSubscriptions([&](const auto& subscription) {
    m_broker.SendSlowly(MqttBytes::SubscriptionAck(0x90, subscription.id, subscription.qos),
                        kPause);
    return std::string();
  });
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const std::string properties =
      MqttBytes::ResponseTopic(kAnswers) + MqttBytes::CorrelationData("slow");
  m_broker.SendSlowly(MqttBytes::Publish(9, kSet, R"({"n":"slow"})", properties), kPause);
  m_broker.SendSlowly(MqttBytes::Ack(0x62, 9), kPause);
  EXPECT_TRUE(m_broker.ServeUntil([&] { return !m_broker.AnswersTo("slow").empty(); }));
  EXPECT_THAT(m_broker.AnswersTo("slow"), ElementsAre(answerToSet("slow")));
  EXPECT_EQ(plugIn.Calls("set").size(), 1U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

TEST_F(MqttPiecesTest, AHundredPacketsAtOnceAreTakenInOrder) {
  constexpr int kSets = 100;
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  std::string bytes;
  for (int i = 0; i < kSets; ++i) {
    bytes += MqttBytes::Publish(0, kSet, "{\"n\":" + std::to_string(i) + "}", {}, 0x30);
  }
  m_broker.Send(bytes);
  EXPECT_TRUE(m_broker.ServeUntil([&] { return plugIn.Calls("set").size() == kSets; }));
  const auto calls = plugIn.Calls("set");
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_THAT(calls[i].properties, ElementsAre("n=" + std::to_string(i) + ":1"));
  }
  end(plugIn);
}

TEST_F(MqttPiecesTest, AGreetingThatIsCutAnywhereIsTriedAgain) {
  const std::string whole = MqttBytes::ConnAck(false, 0, Byte(0x1F) + Text("hello"));
  m_broker.AnswerConnects([&](const auto&) {
    const std::size_t number = m_broker.Connections().size();
    if (number > 2) return m_broker.Greeting();
    m_broker.Send(whole.substr(0, number == 1 ? 1 : whole.size() - 1));
    m_broker.Close();
    return std::string();
  });
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  EXPECT_THAT(plugIn.Statuses(), ElementsAre("mqtt=1"));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.Connections().size(), 3U);
  end(plugIn);
}

class MqttCutSetTest : public ScriptedBrokerTest,
                       public ::testing::WithParamInterface<std::size_t> {};

TEST_P(MqttCutSetTest, ASetThatIsCutIsHandledOnceWhenItComesWhole) {
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  const std::string cut = MqttBytes::Publish(
      1, kSet, R"({"n":1})", MqttBytes::ResponseTopic(kAnswers) + MqttBytes::CorrelationData("1"));
  m_broker.Send(cut.substr(0, GetParam()));
  m_broker.Close();
  const std::string number = deliverSet();
  ASSERT_TRUE(serveUntilOnlineAgain(plugIn));
  expectHandled(plugIn, number);
  EXPECT_EQ(plugIn.Calls("set").size(), 1U);
  end(plugIn);
}

INSTANTIATE_TEST_SUITE_P(Bytes, MqttCutSetTest, Values(1, 2, 3, 10, 25, 28, 30, 50, 60));

TEST_F(MqttPiecesTest, ASetLargerThanAnyRequestIsRefusedWithAnAnswer) {
  constexpr std::size_t kHuge = std::size_t{20} * 1024 * 1024;
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  deliverRequest(kSet, R"({"n":")" + std::string(kHuge, 'x') + "\"}", "huge");
  ASSERT_TRUE(m_broker.ServeUntil([&] { return !m_broker.AnswersTo("huge").empty(); })) << log();
  EXPECT_THAT(m_broker.AnswersTo("huge").front(), ::testing::StartsWith("{\"error\":"));
  expectSetWorks(plugIn);
  EXPECT_EQ(plugIn.Calls("set").size(), 1U);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

// Brokers do that when they resume a session.
TEST_F(MqttPiecesTest, MoreMessagesAtOnceThanWereAllowedAreHandledOnceEach) {
  constexpr std::uint16_t kFirst = 1000;
  constexpr std::uint16_t kMessages = 200;
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  std::string bytes;
  std::vector<std::string> expected;
  for (std::uint16_t id = kFirst; id < kFirst + kMessages; ++id) {
    bytes += MqttBytes::Publish(id, kSet, "{\"many\":" + std::to_string(id) + "}");
    expected.push_back("many=" + std::to_string(id) + ":1");
  }
  m_broker.Send(bytes);
  const auto countAcks = [this](ScriptedBroker::Type type) {
    const auto& acks = m_broker.Acknowledgements();
    return std::count_if(acks.begin(), acks.end(),
                         [type](const auto& ack) { return ack.type == type; });
  };
  ASSERT_TRUE(
      m_broker.ServeUntil([&] { return countAcks(ScriptedBroker::Type::PubRec) == kMessages; }));
  for (std::uint16_t id = kFirst; id < kFirst + kMessages; ++id) {
    m_broker.Send(MqttBytes::Ack(0x62, id));
  }
  ASSERT_TRUE(
      m_broker.ServeUntil([&] { return countAcks(ScriptedBroker::Type::PubComp) == kMessages; }));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  std::vector<std::string> handled;
  for (const PlugIn::Call& call : plugIn.Calls("set")) handled.push_back(call.properties.front());
  expected.push_back(handled.back());  // that of expectSetWorks
  EXPECT_EQ(handled, expected);
  end(plugIn);
}

TEST_F(MqttPiecesTest, AReleaseOfNothingIsAnswered) {
  constexpr std::uint16_t kUnknown = 4711;
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  m_broker.Send(MqttBytes::Ack(0x62, kUnknown));
  EXPECT_TRUE(m_broker.ServeUntil([&] {
    const auto& all = m_broker.Acknowledgements();
    return !all.empty() && all.back().type == ScriptedBroker::Type::PubComp &&
           all.back().id == kUnknown;
  }));
  expectSetWorks(plugIn);
  EXPECT_EQ(m_broker.Connections().size(), 1U);
  end(plugIn);
}

}  // namespace
