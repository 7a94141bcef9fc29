// What services publish while they are connected.
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
using ::testing::Pair;
using ::testing::SizeIs;

using MqttTopicsTest = BrokerTest;

TEST_F(MqttTopicsTest, AServiceIsOnlineUntilItIsDestroyedAndLeavesTheRest) {
  {
    PlugIn plugIn;
    plugIn.Register("a");
    plugIn.Notify("a", "x");
    expectLast(kStatus, "\"online\"");
    EXPECT_EQ(retained()[kStatus], "\"online\"");
  }
  // Destroy has waited for it.
  EXPECT_THAT(retained(),
              ElementsAre(Pair("things/tv/health", HasSubstr("\"connections\":1")),
                          Pair(kDescription, R"({"a":{"type":"string"}})"),
                          Pair(valueTopic("a"), "\"x\""), Pair(kStatus, "\"offline\"")));
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(MqttTopicsTest, DestroyPublishesWhatWasNotifiedBeforeIt) {
  PlugIn& plugIn = start();
  plugIn.Register("a");
  for (int i = 0; i < 100; ++i) plugIn.Notify("a", std::to_string(i));
  plugIn.Destroy();
  EXPECT_EQ(retained()[valueTopic("a")], "\"99\"");
}

TEST_F(MqttTopicsTest, DescribesTheRegisteredProperties) {
  PlugIn plugIn;
  expectLast(kDescription, "{}");
  plugIn.Register("flag", LUMO_PROPERTY_TYPE_BOOL);
  plugIn.Register("real", 6);
  expectLast(kDescription, R"({"flag":{"type":"bool"},"real":{"type":"double"}})");
  plugIn.Unregister("flag");
  expectLast(kDescription, R"({"real":{"type":"double"}})");
  EXPECT_EQ(retained()[kDescription], R"({"real":{"type":"double"}})");
}

TEST_F(MqttTopicsTest, PublishesAValueOfEachTypeRetained) {
  PlugIn plugIn;
  for (const char* name : {"bool", "int", "double", "string", "json"}) plugIn.Register(name);
  plugIn.NotifyProperty(lumo_property_create_bool({"bool", 4}, true));
  plugIn.NotifyProperty(lumo_property_create_int({"int", 3}, -7));
  plugIn.NotifyProperty(lumo_property_create_double({"double", 6}, 2));
  plugIn.Notify("string", "a\"b \xE2\x82\xAC");
  plugIn.NotifyProperty(lumo_property_create_json_string({"json", 4}, {"{\"a\": 1}", 8}));
  expectValue("json", "{\"a\": 1}");
  EXPECT_THAT(retained(valueTopic("+")),
              ElementsAre(Pair(valueTopic("bool"), "true"), Pair(valueTopic("double"), "2.0"),
                          Pair(valueTopic("int"), "-7"), Pair(valueTopic("json"), "{\"a\": 1}"),
                          Pair(valueTopic("string"), "\"a\\\"b \xE2\x82\xAC\"")));
}

TEST_F(MqttTopicsTest, PublishesEveryPropertyOfAList) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  void* const list = lumo_property_list_create();
  lumo_property_list_push_property(list, lumo_property_create_int({"a", 1}, 1), 0);
  lumo_property_list_push_property(list, lumo_property_create_int({"b", 1}, 2), 0);
  lumo_property_list_push_property(list, lumo_property_create_int({"a", 1}, 3), 0);
  EXPECT_EQ(lumo_service_notify(plugIn.Service(), list), 0);
  expectValue("a", "3");
  expectValue("b", "2");
}

TEST_F(MqttTopicsTest, UnregisteringClearsTheRetainedValue) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  plugIn.Notify("a", "1");
  plugIn.Notify("b", "2");
  expectValue("b", "\"2\"");
  plugIn.Unregister("a");
  expectValue("a", "");
  EXPECT_THAT(retained(valueTopic("+")), ElementsAre(Pair(valueTopic("b"), "\"2\"")));
  // A value that comes with the name again is published again.
  plugIn.Register("a");
  plugIn.Notify("a", "3");
  expectValue("a", "\"3\"");
}

TEST_F(MqttTopicsTest, APropertyThatWasNeverNotifiedHasNoValueTopic) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Unregister("a");
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  plugIn.Destroy();
  expectLast(kStatus, "\"offline\"");
  EXPECT_THAT(payloadsOn(valueTopic("a")), IsEmpty());
}

TEST_F(MqttTopicsTest, ClearsTheValuesOfAnEarlierLifeThatItDoesNotHave) {
  for (const char* name : {"old", "registered", "notified"}) {
    m_cloud.Publish({valueTopic(name), "1", 2, true});
  }
  m_cloud.Publish({"things/tv/other/value/old", "4", 2, true});
  ASSERT_TRUE(m_cloud.WaitUntilPublished());
  PlugIn plugIn;
  plugIn.Register("registered");
  plugIn.Register("notified");
  plugIn.Notify("notified", "new");
  expectValue("old", "");
  expectValue("registered", "");
  expectValue("notified", "\"new\"");
  plugIn.Destroy();
  EXPECT_THAT(retained("things/+/+/value/+"), ElementsAre(Pair("things/tv/other/value/old", "4"),
                                                          Pair(valueTopic("notified"), "\"new\"")));
}

// --- Several services of one thing

TEST_F(MqttTopicsTest, TwoServicesOfOneProcessHaveTheirOwnTopics) {
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

TEST_F(MqttTopicsTest, AThingIsOnlineAsLongAsOneOfItsServicesIs) {
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
  EXPECT_EQ(payloadsOn(kStatus).back(), "\"offline\"");
}

TEST_F(MqttTopicsTest, ALostServiceOfAnotherProcessLeavesTheThingOnline) {
  PlugIn plugIn("other");
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  const TemporaryFolder folder;
  const Program thing({LUMO_THING}, folder.Path() / "log");
  expectValue("a", "\"1\"");
  thing.Signal(SIGKILL);
  EXPECT_TRUE(m_messages.WaitFor([](const auto& messages) {
    return std::any_of(messages.begin(), messages.end(),
                       [](const auto& message) { return message.payload == "\"offline\""; });
  }));
  expectLast(kStatus, "\"online\"");
}

TEST_F(MqttTopicsTest, AServiceMayBeCreatedAgainUnderItsName) {
  for (int round = 0; round < 5; ++round) {
    PlugIn plugIn;
    ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
    EXPECT_THAT(request(kSet, "{\"a\":1}"), HasSubstr("\"result\":0"));
  }
  EXPECT_EQ(takeErrors(), "");
}

}  // namespace
