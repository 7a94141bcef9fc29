#include "ChannelTest.h"

namespace {

class ChannelFaultsTest : public ChannelTest {};

// Sets are on their way to the thing whenever the broker ends: the host is stopped wherever it is,
// and still has some to take when it goes on.
TEST_F(ChannelFaultsTest, ABrokerThatIsStartedAgainLosesNoLastValueAndNoSetAndDoublesNone) {
  NOT_WITH_EJABBERD("it keeps sessions in memory, so it cannot be stopped and go on");
  constexpr int kRounds = 3;
  constexpr int kSetsBefore = 20;
  constexpr int kSetsInBetween = 20;
  StartWithApp();
  ASSERT_EQ("(0,)", Register(*app, "qmap"));
  int sent = 0;
  Lines expected;
  const auto sendSets = [&](int count) {
    for (int i = 0; i < count; ++i) {
      cloud.Send("set", SetOfQz(++sent));
      expected.push_back(EventOfQz(sent));
    }
  };
  for (int round = 1; round <= kRounds; ++round) {
    sendSets(kSetsBefore);
    Host().Send(SIGSTOP);
    sendSets(kSetsInBetween);
    ASSERT_TRUE(cloud.WaitUntilSent());
    EXPECT_GT(sent, static_cast<int>(WithoutAllowedRepeats(Received(*app)).size()));
    cloud.Leave();
    broker.Stop();
    Host().Send(SIGCONT);
    const std::string data = "round " + std::to_string(round);
    ASSERT_EQ("(0,)", SendData(*app, "qmap", data));
    for (int i = 0; i <= round; ++i) {
      ASSERT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
    }
    broker.Start();
    cloud.ComeBack();
    EXPECT_EQ(expected, WaitForEventsWithoutRepeats(expected.size()));
    EXPECT_TRUE(cloud.WaitFor("appdatachannel/value/qmap", "\"" + data + "\""));
    EXPECT_TRUE(WaitForValueOfQz(std::to_string(round)));
  }
  // Whatever came twice is here before the answer to a set that was sent after it.
  EXPECT_EQ(0, cloud.Result("set", SetOfQz(++sent)));
  expected.push_back(EventOfQz(sent));
  EXPECT_EQ(expected, WaitForEventsWithoutRepeats(expected.size()));
}

TEST_F(ChannelFaultsTest, WithABusThatIsStartedAgainAppsHearThatTheyMustRegisterAgain) {
  StartWithApp();
  ASSERT_EQ("(0,)", SendData(*app, "qz", "42"));
  ASSERT_TRUE(WaitForValueOfQz("42"));
  app.reset();
  LoseBus();
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  Host().Send(SIGSTOP);  // until somebody listens
  Bus().Start();
  app = NewClient();
  Host().Send(SIGCONT);
  ASSERT_TRUE(Host().WaitForOutput(kReadyLine, 2));
  ASSERT_TRUE(WaitUntil([this] { return !app->Signals().empty(); }));
  EXPECT_EQ("dbus_server_ready", app->Signals()[0].member);
  EXPECT_TRUE(cloud.WaitFor("status", kOnline));
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  EXPECT_EQ("(-20,)", SendData(*app, "qz", "43"));
  ExpectWorkingChannel("44");
  EXPECT_TRUE(cloud.WaitForProperty("qz"));
}

TEST_F(ChannelFaultsTest, AHostThatWasKilledIsReplacedByTheNextWithTheRightRetainedState) {
  StartWithApp();
  const std::string owner = app->OwnerOf(kBusName);
  EXPECT_NE("", owner);
  ASSERT_EQ("(0,)", SendData(*app, "qz", "42"));
  ASSERT_TRUE(WaitForValueOfQz("42"));
  EXPECT_EQ(-SIGKILL, Host().End(SIGKILL));
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));  // the broker says so in its place

  StartChannel();
  EXPECT_NE("", app->OwnerOf(kBusName));
  EXPECT_NE(owner, app->OwnerOf(kBusName));
  // Nobody is registered, so nobody has a value.
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  EXPECT_EQ("(-20,)", SendData(*app, "qz", "43"));
  ExpectWorkingChannel("44");
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ("", app->OwnerOf(kBusName));
}

TEST_F(ChannelFaultsTest, ThingsOnOneBrokerDoNotHearEachOther) {
  PrivateBus otherBus;
  CloudClient otherCloud(broker.CloudPort(), "radio", broker.Login());
  StartWithApp();
  HostProcess otherHost({ADC_HOST_FILE, ADC_PLUGIN_FILE},
                        channel.Variables({{"DBUS_SYSTEM_BUS_ADDRESS", otherBus.Address()},
                                           {"LUMO_THING_ID", "radio"},
                                           {"VCONF_DIR", Folder().Path() / "radio"}}));
  ASSERT_TRUE(otherHost.WaitForOutput(kReadyLine)) << otherHost.Errors();
  ASSERT_TRUE(otherCloud.WaitForProperty("signupInfo")) << otherHost.Errors();
  BusClient otherApp(otherBus.Address());
  ASSERT_EQ("(0,)", Register(otherApp, "qz"));
  int number = 0;
  for (const auto& [itsApp, itsCloud, data] :
       {std::tuple(app.get(), &cloud, "television"), std::tuple(&otherApp, &otherCloud, "radio")}) {
    EXPECT_EQ("(0,)", SendData(*itsApp, "qz", data));
    EXPECT_TRUE(itsCloud->WaitFor(kValueOfQz, '"' + std::string(data) + '"'));
    EXPECT_EQ(0, itsCloud->Result("set", SetOfQz(++number)));
  }
  EXPECT_EQ("television", GetOfQz());
  EXPECT_EQ("radio", otherCloud.Request("get", R"(["qz"])")["properties"]["qz"].asString());
  EXPECT_EQ(Lines{EventOfQz(1)}, WaitForEvents(*app, 1));
  EXPECT_EQ(Lines{EventOfQz(2)}, WaitForEvents(otherApp, 1));

  EXPECT_EQ(0, otherHost.End(SIGTERM));
  EXPECT_TRUE(otherCloud.WaitFor("status", kOffline));
  EXPECT_EQ(kOnline, cloud.Received("status").back());
}

}  // namespace
