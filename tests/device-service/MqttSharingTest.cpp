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

using MqttSharingTest = BrokerTest;

TEST_F(MqttSharingTest, TwoThingsAtOneBrokerHaveNothingToDoWithEachOther) {
  PlugIn here;
  here.Register("a");
  const TemporaryFolder folder;
  const Variable otherId("LUMO_THING_ID", "radio");
  const Program other({LUMO_THING, "a=there"}, folder.Path() / "log");
  here.Notify("a", "here");
  expectValue("a", "\"here\"");
  expectLast("things/radio/service/value/a", "\"there\"");
  EXPECT_THAT(request("things/radio/service/set", "{\"a\":1}"), HasSubstr("\"result\":0"));
  EXPECT_THAT(here.Calls("set"), IsEmpty());
  other.Signal(SIGKILL);
  expectLast("things/radio/status", "\"offline\"");
  expectLast(kStatus, "\"online\"");
}

TEST_F(MqttSharingTest, TwoServicesOfOneProcessHaveTheirOwnTopics) {
  PlugIn first("first");
  PlugIn second("second");
  first.Register("a");
  second.Register("a");
  first.Notify("a", "1");
  second.Notify("a", "2");
  expectLast("things/tv/first/value/a", "\"1\"");
  expectLast("things/tv/second/value/a", "\"2\"");
  ASSERT_TRUE(second.WaitForStatus("mqtt=1"));
  EXPECT_THAT(request("things/tv/second/set", "{\"a\":1}"), HasSubstr("\"result\":0"));
  EXPECT_THAT(first.Calls("set"), IsEmpty());
  EXPECT_THAT(second.Calls("set"), SizeIs(1));
}

TEST_F(MqttSharingTest, AThingIsOnlineAsLongAsOneOfItsServicesIs) {
  PlugIn first("first");
  PlugIn second("second");
  ASSERT_TRUE(first.WaitForStatus("mqtt=1"));
  ASSERT_TRUE(second.WaitForStatus("mqtt=1"));
  expectLast(kStatus, "\"online\"");
  first.Destroy();
  catchUp();  // so that its "offline" has come
  expectLast(kStatus, "\"online\"");
  second.Destroy();
  catchUp();
  EXPECT_EQ(payloadsOn("things/tv/status").back(), "\"offline\"");
}

TEST_F(MqttSharingTest, ALostServiceOfAnotherProcessLeavesTheThingOnline) {
  PlugIn plugIn("other");
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  const TemporaryFolder folder;
  const Program thing({LUMO_THING, "a=1"}, folder.Path() / "log");
  expectValue("a", "\"1\"");
  thing.Signal(SIGKILL);
  EXPECT_TRUE(m_messages.WaitFor([](const auto& messages) {
    return std::any_of(messages.begin(), messages.end(),
                       [](const auto& message) { return message.payload == "\"offline\""; });
  }));
  expectLast(kStatus, "\"online\"");
}

TEST_F(MqttSharingTest, AServiceMayBeCreatedAgainUnderItsName) {
  for (int round = 0; round < 5; ++round) {
    PlugIn plugIn;
    ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
    EXPECT_THAT(request(kSet, "{\"a\":1}"), HasSubstr("\"result\":0"));
  }
  EXPECT_EQ(takeErrors(), "");
}

}  // namespace
