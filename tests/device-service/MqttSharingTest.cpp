// Several things and services at one broker.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <string>

#include "BrokerTest.h"
#include "Program.h"
#include "TemporaryFolder.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class MqttSharingTest : public BrokerTest {};

TEST_F(MqttSharingTest, TwoThingsAtOneBrokerHaveNothingToDoWithEachOther) {
  PlugIn here;
  here.Register("a");
  const TemporaryFolder folder;
  const Variable otherId("LUMO_THING_ID", "radio");
  const Program other({LUMO_THING, "a=there"}, folder.Path() / "log");
  here.Notify("a", "here");
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/a", "\"here\""));
  EXPECT_TRUE(m_requester.WaitForLast("things/radio/service/value/a", "\"there\""));
  Requester toOther(m_broker.Port(), "radio");
  EXPECT_THAT(toOther.Request("set", "{\"a\":1}"), HasSubstr("\"result\":0"));
  EXPECT_THAT(here.Calls("set"), IsEmpty());
  other.Signal(SIGKILL);
  EXPECT_TRUE(m_requester.WaitForLast("things/radio/status", "\"offline\""));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
}

TEST_F(MqttSharingTest, TwoServicesOfOneProcessHaveTheirOwnTopics) {
  PlugIn first("first");
  PlugIn second("second");
  first.Register("a");
  second.Register("a");
  first.Notify("a", "1");
  second.Notify("a", "2");
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/first/value/a", "\"1\""));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/second/value/a", "\"2\""));
  ASSERT_TRUE(second.WaitForStatus("mqtt=1"));
  Requester toSecond(m_broker.Port(), "tv", "second");
  EXPECT_THAT(toSecond.Request("set", "{\"a\":1}"), HasSubstr("\"result\":0"));
  EXPECT_THAT(first.Calls("set"), IsEmpty());
  EXPECT_THAT(second.Calls("set"), SizeIs(1));
}

TEST_F(MqttSharingTest, AThingIsOnlineAsLongAsOneOfItsServicesIs) {
  PlugIn first("first");
  PlugIn second("second");
  ASSERT_TRUE(first.WaitForStatus("mqtt=1"));
  ASSERT_TRUE(second.WaitForStatus("mqtt=1"));
  ASSERT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
  first.Destroy();
  ASSERT_TRUE(m_requester.CatchUp());  // so that its "offline" has come
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
  second.Destroy();
  ASSERT_TRUE(m_requester.CatchUp());
  EXPECT_EQ(m_requester.PayloadsOn("things/tv/status").back(), "\"offline\"");
}

TEST_F(MqttSharingTest, ALostServiceOfAnotherProcessLeavesTheThingOnline) {
  PlugIn plugIn("other");
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  const TemporaryFolder folder;
  const Program thing({LUMO_THING, "a=1"}, folder.Path() / "log");
  ASSERT_TRUE(m_requester.WaitForLast("things/tv/service/value/a", "\"1\""));
  thing.Signal(SIGKILL);
  EXPECT_TRUE(m_requester.WaitFor([](const auto& messages) {
    return std::any_of(messages.begin(), messages.end(),
                       [](const auto& message) { return message.payload == "\"offline\""; });
  }));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
}

TEST_F(MqttSharingTest, AServiceMayBeCreatedAgainUnderItsName) {
  for (int round = 0; round < 5; ++round) {
    PlugIn plugIn;
    ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
    EXPECT_THAT(m_requester.Request("set", "{\"a\":1}"), HasSubstr("\"result\":0"));
  }
  EXPECT_EQ(takeErrors(), "");
}

}  // namespace
