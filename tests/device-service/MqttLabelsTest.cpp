// What published messages say of themselves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "ScriptedBrokerTest.h"

namespace {

using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAre;

constexpr const char* kTime =
    "20[0-9][0-9]-[01][0-9]-[0-3][0-9]T"
    "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9][0-9][0-9]Z";
constexpr const char* kUuid = "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}";

class MqttLabelsTest : public ScriptedBrokerTest {
 protected:
  using User = std::map<std::string, std::string>;

  static User userOf(const broker::MessageProperties& properties) {
    return {properties.user.begin(), properties.user.end()};
  }
  // Of the last message there, which must be JSON.
  User userOn(const std::string& topic) const {
    const std::vector<Publication> all = m_broker.PublicationsOn(topic);
    if (all.empty()) throw std::runtime_error("nothing at " + topic);
    expectJson(all.back().properties);
    EXPECT_EQ(all.back().properties.user.size(), userOf(all.back().properties).size()) << "twice";
    return userOf(all.back().properties);
  }
  static void expectJson(const broker::MessageProperties& properties) {
    EXPECT_EQ(properties.contentType, "application/json");
    EXPECT_TRUE(properties.isUtf8);
  }
  std::string sequenceOfValue() const { return userOn(valueTopic("a")).at("sequence"); }
};

TEST_F(MqttLabelsTest, AValueSaysWhenItWasNotifiedItsNumberTheRunAndTheVersion) {
  startOnlineWithValue();
  User user = userOn(valueTopic("a"));
  EXPECT_THAT(user, UnorderedElementsAre(Key("time"), Key("sequence"), Key("run"), Key("version")));
  EXPECT_THAT(user["time"], MatchesRegex(kTime));
  EXPECT_EQ(user["sequence"], "1");
  EXPECT_THAT(user["run"], MatchesRegex(kUuid));
  EXPECT_EQ(user["version"], LUMO_VERSION);
}

TEST_F(MqttLabelsTest, TheDescriptionAndTheStatusSayTheirTimeTheRunAndTheVersion) {
  startOnlineWithValue();
  const std::string run = userOn(valueTopic("a")).at("run");
  for (const char* topic : {kDescription, kStatus}) {
    User user = userOn(topic);
    EXPECT_THAT(user, UnorderedElementsAre(Key("time"), Key("run"), Key("version"))) << topic;
    EXPECT_THAT(user["time"], MatchesRegex(kTime));
    EXPECT_EQ(user["run"], run);
    EXPECT_EQ(user["version"], LUMO_VERSION);
  }
}

TEST_F(MqttLabelsTest, OfflineHasATimeAfterADestructionAndNoneInTheWill) {
  startOnlineWithValue();
  const std::string run = userOn(valueTopic("a")).at("run");
  const broker::MessageProperties will = m_broker.Connections().back().connect.willProperties;
  expectJson(will);
  User user = userOf(will);
  EXPECT_THAT(user, UnorderedElementsAre(Key("run"), Key("version")));
  EXPECT_EQ(user["run"], run);
  end();
  ASSERT_EQ(m_broker.RetainedAt(kStatus), "\"offline\"");
  EXPECT_THAT(userOn(kStatus).at("time"), MatchesRegex(kTime));
}

TEST_F(MqttLabelsTest, AnAnswerIsJsonAndHasNoUserProperties) {
  startOnline();
  expectHandled(deliverSet());
  deliverRequest(kSet, "nonsense", "refused");
  serveUntilAnswered("refused");
  for (const Publication& answer : m_broker.PublicationsOn(kAnswers)) {
    expectJson(answer.properties);
    EXPECT_THAT(answer.properties.user, IsEmpty());
  }
}

TEST_F(MqttLabelsTest, TheMessageThatRemovesAValueIsEmptyAndHasNoProperties) {
  startOnlineWithValue();
  m_plugIn->Unregister("a");
  serveUntilValue("");
  const Publication removal = m_broker.PublicationsOn(valueTopic("a")).back();
  EXPECT_EQ(removal.payload, "");
  EXPECT_EQ(removal.properties.contentType, "");
  EXPECT_FALSE(removal.properties.isUtf8);
  EXPECT_THAT(removal.properties.user, IsEmpty());
}

TEST_F(MqttLabelsTest, ValuesThatWereReplacedBeforeTheyWereSentLeaveAGap) {
  startOnlineWithValue();
  // Nobody reads in between, so that only the last one is sent after what is in flight.
  for (int i = 2; i <= 100; ++i) m_plugIn->Notify("a", std::to_string(i));
  serveUntilValue("100");
  EXPECT_EQ(sequenceOfValue(), "100");
  EXPECT_LT(m_broker.PublicationsOn(valueTopic("a")).size(), 100);
}

TEST_F(MqttLabelsTest, TheNumbersGoOnWhenAPropertyIsRegisteredAgain) {
  startOnlineWithValue();
  m_plugIn->Unregister("a");
  m_plugIn->Register("a");
  m_plugIn->Notify("a", "again");
  serveUntilValue("again");
  EXPECT_EQ(sequenceOfValue(), "2");
}

TEST_F(MqttLabelsTest, AValueThatIsPublishedAgainKeepsItsNumberAndTime) {
  startOnlineWithValue();
  const User first = userOn(valueTopic("a"));
  // A broker that has forgotten the session gets all values again.
  m_broker.AnswerConnects([](const Packet&) { return broker::ConnAckWith(false); });
  m_broker.Close();
  serveUntilOnlineAgain();
  ASSERT_EQ(m_broker.PublicationsOn(valueTopic("a")).size(), 2);
  EXPECT_EQ(userOn(valueTopic("a")), first);
}

TEST_F(MqttLabelsTest, AnotherRunHasAnotherIdAndCountsFromOne) {
  startOnlineWithValue();
  const User first = userOn(valueTopic("a"));
  end();
  startOnlineWithValue();
  EXPECT_EQ(sequenceOfValue(), "1");
  EXPECT_NE(userOn(valueTopic("a")).at("run"), first.at("run"));
}

}  // namespace
