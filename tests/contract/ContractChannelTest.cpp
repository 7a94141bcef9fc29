// A whole channel with a foreign client, of which the watcher sees every message of the contract.
#include <set>

#include "ChannelTest.h"
#include "Contract.h"

namespace {

class ContractChannelTest : public ChannelTest {};

TEST_F(ContractChannelTest, EveryMessageOfTheContractIsSeenAndNoOther) {
  StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "3000"}});
  EXPECT_EQ("(0,)", SendData(*app, "qz", "a \"text\" of any kind \u00e4\n"));
  for (const int qos : {0, 1, 2}) {
    const int request = cloud.Send("set", SetOfQz(qos), qos);
    EXPECT_TRUE(WaitForAnswerTo(request));
  }
  EXPECT_EQ(0, cloud.Result("set", R"({"signinStatus": true})"));
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"signinStatus": ""}})"),
            cloud.Request("get", R"(["signinStatus"])"));
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {"a": [1, null, "b"]}})"));
  EXPECT_EQ(6, cloud.Result("get", R"(["qz", "nobody"])"));
  EXPECT_EQ(6, cloud.Result("set", R"({"nobody": "x"})"));

  std::string names = R"(["a")";
  std::string values = R"({"a": 1)";
  for (int i = 0; i < 1000; ++i) {
    names += R"(, "a")";
    values += ", \"" + std::to_string(i) + "\": 1";
  }
  const std::pair<const char*, std::string> refused[] = {
      {"get", "{}"},
      {"get", R"(["a")"},
      {"get", R"(["\u0000"])"},
      {"get", "\xFF"},
      {"get", ""},
      {"get", names + "]"},
      {"set", "[]"},
      {"set", R"({"qz": null})"},
      {"set", R"({"qz": 1.5})"},
      {"set", R"({"qz": 2147483648})"},
      {"set", R"({"qz": "\u0000"})"},
      {"set", R"({"qz": "\udc00"})"},
      {"set", R"({"qz": 1e999})"},
      {"set", R"({"signupInfo": {"a": "\udc00"}})"},
      {"set", R"({"qz": {"$bytes": "%"}})"},
      {"set", R"({"\u0000": 1})"},
      {"set", R"({"qz": {"$bytes": "/w=="}})"},
      {"set", std::string(101, '[') + std::string(101, ']')},
      {"set", SetOfQz(std::string(262'144, 'x'))},
      {"set", values + "}"},
  };
  for (const auto& [operation, payload] : refused) {
    EXPECT_TRUE(cloud.Request(operation, payload).isMember("error")) << payload.substr(0, 100);
  }
  EXPECT_EQ(ParseJson(R"({"error": "the request was not answered in time"})"),
            cloud.Request("set", R"({"qz": {}})"));
  cloud.Publish("cancel", "any", {2, false, "nothing"});
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  for (const int signal : {SIGTERM, SIGKILL}) {
    Host().End(signal);
    EXPECT_TRUE(cloud.WaitFor("status", kOffline));
    StartChannel();
  }

  EXPECT_EQ(Lines(), channel.TakeContractViolations());
  std::set<std::string> seen;
  for (const auto& [name, count] : channel.Watcher().Seen()) seen.insert(name);
  const Lines all = Contract::OfProject().Messages();
  std::set<std::string> expected(all.begin(), all.end());
  // Of brokers that take hardly anything, which the scripted ones stand for.
  for (const char* name : {"noHealth", "noProperties", "noStatus"})
    EXPECT_EQ(1U, expected.erase(name));
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(0U, channel.Watcher().Unmatched());
}

// What is at the broker before the test is over counts.
TEST_F(ContractChannelTest, TheWatcherSeesWhatSomebodyElseBreaksAlsoAcrossARestartOfTheBroker) {
  MqttPeer stranger(broker.Port(), {});
  stranger.Publish({"things/tv/else", "before"});
  ASSERT_TRUE(stranger.WaitUntilPublished());
  cloud.Leave();
  broker.Stop();
  broker.Start();
  cloud.ComeBack();
  stranger.Publish({"things/tv/status", "\"online\"", 0});
  stranger.Publish({"things/tv/else", "after"});
  ASSERT_TRUE(stranger.WaitUntilPublished());
  // A broker may repeat what it had before it was stopped.
  const Lines violations = channel.TakeContractViolations();
  const std::string status = "things/tv/status '\"online\"': ";
  const std::string noTopic = ": a topic that the contract does not have";
  EXPECT_EQ((std::set<std::string>{
                status + "QoS 0", status + "retain is not set",
                status + "MQTT properties: Missing required property 'contentType'.",
                "things/tv/else 'before'" + noTopic, "things/tv/else 'after'" + noTopic}),
            std::set<std::string>(violations.begin(), violations.end()));
}

}  // namespace
