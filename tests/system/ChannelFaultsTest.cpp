#include <csignal>

#include "ChannelTest.h"

namespace {

using Lines = std::vector<std::string>;

class ChannelFaultsTest : public ChannelTest {};

std::string setOfQz(int number) {
  return R"({"qz": ")" + std::to_string(number) + R"("})";
}

std::string eventOfQz(int number) {
  return "('qz', '" + std::to_string(number) + "')";
}

// Sets are on their way to the thing whenever the broker ends: the host is stopped wherever it is,
// and still has some to take when it goes on.
TEST_F(ChannelFaultsTest, ABrokerThatIsStartedAgainLosesNoLastValueAndNoSetAndDoublesNone) {
  constexpr int kRounds = 3;
  constexpr int kSetsBefore = 20;
  constexpr int kSetsInBetween = 20;
  const auto host = StartChannel();
  const auto app = NewClient();
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  ASSERT_EQ("(0,)", Register(*app, "qmap"));
  int sent = 0;
  Lines expected;
  const auto sendSets = [&](int count) {
    for (int i = 0; i < count; ++i) {
      cloud.Send("set", setOfQz(++sent));
      expected.push_back(eventOfQz(sent));
    }
  };
  for (int round = 1; round <= kRounds; ++round) {
    sendSets(kSetsBefore);
    host->Send(SIGSTOP);
    sendSets(kSetsInBetween);
    ASSERT_TRUE(cloud.WaitUntilSent());
    EXPECT_GT(sent, static_cast<int>(Received(*app, "send_event").size()));
    cloud.Leave();
    broker.Stop();
    host->Send(SIGCONT);
    const std::string data = "round " + std::to_string(round);
    ASSERT_EQ("(0,)", SendData(*app, "qmap", data));
    for (int i = 0; i <= round; ++i) {
      ASSERT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
    }
    broker.Start();
    cloud.ComeBack();
    EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
    EXPECT_TRUE(cloud.WaitFor("appdatachannel/value/qmap", "\"" + data + "\""));
    EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"" + std::to_string(round) + "\""));
  }
  // Whatever came twice is here before the answer to a set that was sent after it.
  EXPECT_EQ(0, cloud.Result("set", setOfQz(++sent)));
  expected.push_back(eventOfQz(sent));
  EXPECT_EQ(expected, WaitForEvents(*app, expected.size()));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ChannelFaultsTest, WithABusThatIsStartedAgainTheChannelWorksAgain) {
  const auto host = StartChannel();
  {
    const auto app = NewClient();
    ASSERT_EQ("(0,)", Register(*app, "qz"));
    ASSERT_EQ("(0,)", SendData(*app, "qz", "42"));
    ASSERT_TRUE(cloud.WaitFor(kValueOfQz, "\"42\""));
  }
  Bus().Kill();
  ASSERT_TRUE(host->WaitForError("waiting for the bus")) << host->Errors();
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  Bus().Start();
  ASSERT_TRUE(host->WaitForOutput(kReadyLine, 2)) << host->Errors();
  EXPECT_TRUE(cloud.WaitFor("status", kOnline));
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  const auto app = NewClient();
  EXPECT_EQ("(-20,)", SendData(*app, "qz", "43"));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz"));
  EXPECT_EQ(0, cloud.Result("set", setOfQz(44)));
  EXPECT_EQ(Lines{eventOfQz(44)}, WaitForEvents(*app, 1));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "44"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"44\""));
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
}

TEST_F(ChannelFaultsTest, AHostThatWasKilledIsReplacedByTheNextWithTheRightRetainedState) {
  auto host = StartChannel();
  const auto app = NewClient();
  const std::string owner = app->OwnerOf(kBusName);
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  ASSERT_EQ("(0,)", SendData(*app, "qz", "42"));
  ASSERT_TRUE(cloud.WaitFor(kValueOfQz, "\"42\""));
  EXPECT_EQ(-SIGKILL, host->End(SIGKILL));
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));  // the broker says so in its place

  host = StartChannel();
  EXPECT_NE("", app->OwnerOf(kBusName));
  EXPECT_NE(owner, app->OwnerOf(kBusName));
  // Nobody is registered, so nobody has a value.
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  EXPECT_EQ("(-20,)", SendData(*app, "qz", "43"));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "44"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"44\""));
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
}

TEST_F(ChannelFaultsTest, ASetForAThingThatIsOfflineArrivesOnceWhenItIsBack) {
  const auto app = NewClient();
  ASSERT_EQ(0, StartChannel()->End(SIGTERM));
  ASSERT_TRUE(cloud.WaitFor("status", kOffline));
  const int request = cloud.Send("set", R"({"signinStatus": true})");
  ASSERT_TRUE(cloud.WaitUntilSent());
  EXPECT_TRUE(cloud.AnswersTo(request).empty());

  const auto host = StartChannel();
  EXPECT_TRUE(WaitUntil([&app] { return CloudConnection(*app) == "(true,)"; }));
  EXPECT_TRUE(WaitUntil([this, request] { return !cloud.AnswersTo(request).empty(); }));
  // Had it come twice, it would have been answered twice before this.
  EXPECT_EQ(0, cloud.Result("set", R"({"signupInfo": {}})"));
  EXPECT_EQ(1U, cloud.AnswersTo(request).size());
}

TEST_F(ChannelFaultsTest, ThingsOnOneBrokerDoNotHearEachOther) {
  PrivateBus otherBus;
  CloudClient otherCloud(broker.Port(), "radio");
  const auto host = StartChannel();
  HostProcess::Environment variables = ChannelVariables();
  variables["DBUS_SYSTEM_BUS_ADDRESS"] = otherBus.Address();
  variables["LUMO_THING_ID"] = "radio";
  variables["VCONF_DIR"] = Folder().Path() / "radio";
  HostProcess otherHost({ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
  ASSERT_TRUE(otherHost.WaitForOutput(kReadyLine)) << otherHost.Errors();
  ASSERT_TRUE(otherCloud.WaitForProperty("signupInfo")) << otherHost.Errors();

  const auto app = NewClient();
  BusClient otherApp(otherBus.Address());
  ASSERT_EQ("(0,)", Register(*app, "qz"));
  ASSERT_EQ("(0,)", Register(otherApp, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "television"));
  EXPECT_EQ("(0,)", SendData(otherApp, "qz", "radio"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"television\""));
  EXPECT_TRUE(otherCloud.WaitFor(kValueOfQz, "\"radio\""));
  EXPECT_EQ("television", cloud.Request("get", R"(["qz"])")["properties"]["qz"].asString());
  EXPECT_EQ("radio", otherCloud.Request("get", R"(["qz"])")["properties"]["qz"].asString());
  EXPECT_EQ(0, cloud.Result("set", setOfQz(1)));
  EXPECT_EQ(0, otherCloud.Result("set", setOfQz(2)));
  EXPECT_EQ(Lines{eventOfQz(1)}, WaitForEvents(*app, 1));
  EXPECT_EQ(Lines{eventOfQz(2)}, WaitForEvents(otherApp, 1));

  EXPECT_EQ(0, otherHost.End(SIGTERM));
  EXPECT_TRUE(otherCloud.WaitFor("status", kOffline));
  EXPECT_EQ(kOnline, cloud.Received("status").back());
}

}  // namespace
