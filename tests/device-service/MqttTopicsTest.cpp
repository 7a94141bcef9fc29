// What a service publishes while it is connected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "BrokerTest.h"
#include "Program.h"
#include "TemporaryFolder.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class MqttTopicsTest : public BrokerTest {
 protected:
  std::map<std::string, std::string> retained() const {
    return Requester::Retained(m_broker.Port(), "things/#");
  }
};

TEST_F(MqttTopicsTest, AConnectedThingIsOnline) {
  const PlugIn plugIn;
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
  EXPECT_EQ(retained()["things/tv/status"], "\"online\"");
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(MqttTopicsTest, ADestroyedServiceIsOfflineAndLeavesTheRest) {
  {
    PlugIn plugIn;
    plugIn.Register("a");
    plugIn.Notify("a", "x");
    EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
  }
  // Destroy has waited for it.
  EXPECT_THAT(retained(),
              ElementsAre(Pair("things/tv/service/properties", R"({"a":{"type":"string"}})"),
                          Pair("things/tv/service/value/a", "\"x\""),
                          Pair("things/tv/status", "\"offline\"")));
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(MqttTopicsTest, DestroyPublishesWhatWasNotifiedBeforeIt) {
  PlugIn plugIn;
  plugIn.Register("a");
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  for (int i = 0; i < 100; ++i) plugIn.Notify("a", std::to_string(i));
  plugIn.Destroy();
  EXPECT_EQ(retained()["things/tv/service/value/a"], "\"99\"");
}

TEST_F(MqttTopicsTest, DescribesTheRegisteredProperties) {
  PlugIn plugIn;
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/properties", "{}"));
  plugIn.Register("flag", LUMO_PROPERTY_TYPE_BOOL);
  plugIn.Register("real", 6);
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/properties",
                                      R"({"flag":{"type":"bool"},"real":{"type":"double"}})"));
  plugIn.Unregister("flag");
  EXPECT_TRUE(
      m_requester.WaitForLast("things/tv/service/properties", R"({"real":{"type":"double"}})"));
  EXPECT_EQ(retained()["things/tv/service/properties"], R"({"real":{"type":"double"}})");
}

TEST_F(MqttTopicsTest, PublishesAValueOfEachTypeRetained) {
  PlugIn plugIn;
  for (const char* name : {"bool", "int", "double", "string", "json"}) plugIn.Register(name);
  plugIn.NotifyProperty(lumo_property_create_bool({"bool", 4}, true));
  plugIn.NotifyProperty(lumo_property_create_int({"int", 3}, -7));
  plugIn.NotifyProperty(lumo_property_create_double({"double", 6}, 2));
  plugIn.Notify("string", "a\"b \xE2\x82\xAC");
  plugIn.NotifyProperty(lumo_property_create_json_string({"json", 4}, {"{\"a\": 1}", 8}));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/json", "{\"a\": 1}"));
  EXPECT_THAT(Requester::Retained(m_broker.Port(), "things/tv/service/value/+"),
              ElementsAre(Pair("things/tv/service/value/bool", "true"),
                          Pair("things/tv/service/value/double", "2.0"),
                          Pair("things/tv/service/value/int", "-7"),
                          Pair("things/tv/service/value/json", "{\"a\": 1}"),
                          Pair("things/tv/service/value/string", "\"a\\\"b \xE2\x82\xAC\"")));
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
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/a", "3"));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/b", "2"));
}

TEST_F(MqttTopicsTest, UnregisteringClearsTheRetainedValue) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Register("b");
  plugIn.Notify("a", "1");
  plugIn.Notify("b", "2");
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/b", "\"2\""));
  plugIn.Unregister("a");
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/a", ""));
  EXPECT_THAT(Requester::Retained(m_broker.Port(), "things/tv/service/value/+"),
              ElementsAre(Pair("things/tv/service/value/b", "\"2\"")));
  // A value that comes with the name again is published again.
  plugIn.Register("a");
  plugIn.Notify("a", "3");
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/a", "\"3\""));
}

TEST_F(MqttTopicsTest, APropertyThatWasNeverNotifiedHasNoValueTopic) {
  PlugIn plugIn;
  plugIn.Register("a");
  plugIn.Unregister("a");
  ASSERT_TRUE(plugIn.WaitForStatus("mqtt=1"));
  plugIn.Destroy();
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"offline\""));
  EXPECT_THAT(m_requester.PayloadsOn("things/tv/service/value/a"), IsEmpty());
}

TEST_F(MqttTopicsTest, ClearsTheValuesOfAnEarlierLifeThatItDoesNotHave) {
  Requester::Options retain;
  retain.retain = true;
  m_requester.Publish("things/tv/service/value/old", "1", retain);
  m_requester.Publish("things/tv/service/value/registered", "2", retain);
  m_requester.Publish("things/tv/service/value/notified", "3", retain);
  m_requester.Publish("things/tv/other/value/old", "4", retain);
  ASSERT_TRUE(m_requester.WaitUntilPublished());
  PlugIn plugIn;
  plugIn.Register("registered");
  plugIn.Register("notified");
  plugIn.Notify("notified", "new");
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/old", ""));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/registered", ""));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/notified", "\"new\""));
  plugIn.Destroy();
  EXPECT_THAT(Requester::Retained(m_broker.Port(), "things/+/+/value/+"),
              ElementsAre(Pair("things/tv/other/value/old", "4"),
                          Pair("things/tv/service/value/notified", "\"new\"")));
}

TEST_F(MqttTopicsTest, AKilledProcessIsOfflineByItsLastWillAndPutsThingsRightWhenItIsBack) {
  const TemporaryFolder folder;
  const std::string log = folder.Path() / "log";
  {
    Program thing({LUMO_THING, "old=1", "both=2"}, log);
    ASSERT_TRUE(m_requester.WaitForLast("things/tv/service/value/both", "\"2\""));
    ASSERT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
  }  // killed
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"offline\""));
  Program thing({LUMO_THING, "both=3"}, log);
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/status", "\"online\""));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/both", "\"3\""));
  EXPECT_TRUE(m_requester.WaitForLast("things/tv/service/value/old", ""));
  EXPECT_TRUE(
      m_requester.WaitForLast("things/tv/service/properties", R"({"both":{"type":"string"}})"));
}

}  // namespace
