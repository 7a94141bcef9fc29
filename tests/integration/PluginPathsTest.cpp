#include <atomic>

#include "PluginTest.h"

namespace {

using fake::Property;

class PluginPathsTest : public PluginTest {
 protected:
  void SetUp() override {
    PluginTest::SetUp();
    CreateUntilReady();
    WaitForSignals(*client, 1);
  }

  void RegisterApp(const char* name) {
    ASSERT_EQ("(0,)", Call(*client, "register_app", g_variant_new("(s)", name)).value);
  }
  void SendData(const char* name, const char* data) {
    ASSERT_EQ("(0,)", Call(*client, "send_data", g_variant_new("(ss)", name, data)).value);
  }

  // Has the cloud write, on a thread of the library, and gives the answer. The trace then holds
  // nothing else.
  fake::Response SetFromCloud(const std::vector<Property>& properties) {
    platform.ClearTrace();
    platform.PostSet(properties);
    return WaitForAnswer("setHandler");
  }
  fake::Response GetFromCloud(const std::vector<Property>& properties) {
    platform.ClearTrace();
    platform.PostGet(properties);
    return WaitForAnswer("getHandler");
  }

 private:
  fake::Response WaitForAnswer(const std::string& handler) {
    const auto left = [this, &handler] {
      const std::vector<fake::LogLine> lines = platform.LogsOf(handler);
      return !lines.empty() && lines.back().Message() == " > Left";
    };
    EXPECT_TRUE(RunUntil(left));
    platform.Drain();
    const std::vector<fake::Response> responses = platform.Responses();
    EXPECT_EQ(1U, responses.size());
    return responses.empty() ? fake::Response() : responses[0];
  }
};

TEST_F(PluginPathsTest, AnAppsDataGoesFromTheBusToTheCloud) {
  RegisterApp("qz");
  platform.ClearTrace();
  SendData("qz", "42");
  EXPECT_EQ((Lines{WrapperLine(4, "NotifyProperty", "> Entered"),
                   "lumo_service_notify(service, [qz (type 3) = \"42\"])",
                   WrapperLine(4, "NotifyProperty", "> Left"),
                   ControlLine(4, "NotifyData", "[qz] sent")}),
            platform.Summaries());
}

TEST_F(PluginPathsTest, ACloudWriteGoesToTheAppAndIsAnsweredWithTheDataBeforeIt) {
  RegisterApp("qz");
  SendData("qz", "42");
  const fake::Response response = SetFromCloud({Property::String("qz", "43")});
  EXPECT_TRUE(response.isSet);
  EXPECT_EQ(0, response.code);
  EXPECT_EQ(std::vector{Property::String("qz", "42")}, response.properties);
  EXPECT_EQ(
      (Lines{ControlLine(4, "setHandler", "> Entered"),
             ServerLine(4, "SendSetRequest", "[qz] data: 43"),
             ServerLine(6, "emit_signal", "try to emit signal: send_event"),
             ServerLine(6, "emit_signal", "success to emit signal: send_event"),
             WrapperLine(4, "SendSetResponse", "> Entered"),
             "lumo_service_send_set_property_result(service, [qz (type 3) = \"42\"], 0)",
             WrapperLine(4, "SendSetResponse", "> Left"), ControlLine(4, "setHandler", "> Left")}),
      WorkerSummaries());
  EXPECT_EQ(2U, platform.LogsOf("setCallback").size());
  EXPECT_NE(platform.LogsOf("setCallback")[0].text, platform.LogsOf("setCallback")[1].text);

  const std::vector<Signal> signals = WaitForSignals(*client, 2);
  ASSERT_EQ(2U, signals.size());
  EXPECT_EQ("send_event", signals[1].member);
  EXPECT_EQ("('qz', '43')", signals[1].parameters);

  // The application confirms, and the next write is answered with it.
  SendData("qz", "43");
  EXPECT_EQ(std::vector{Property::String("qz", "43")},
            SetFromCloud({Property::String("qz", "44")}).properties);
}

TEST_F(PluginPathsTest, ACloudReadIsAnsweredFromWhatTheAppsSent) {
  RegisterApp("qz");
  RegisterApp("qmap");
  SendData("qz", "42");
  const fake::Response response =
      GetFromCloud({Property::String("qz", ""), Property::String("qmap", ""),
                    Property::Bool("signinStatus", false)});
  EXPECT_FALSE(response.isSet);
  EXPECT_EQ(0, response.code);
  EXPECT_EQ((std::vector{Property::String("qmap", ""), Property::String("qz", "42"),
                         Property::String("signinStatus", "")}),
            response.properties);
}

TEST_F(PluginPathsTest, ASigninReachesTheAppsAsASignalAndAsAnAnswer) {
  EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
  const fake::Response response = SetFromCloud({Property::Bool("signinStatus", true)});
  EXPECT_EQ(0, response.code);
  EXPECT_TRUE(response.properties.empty());
  EXPECT_EQ(
      (Lines{ControlLine(4, "setHandler", "> Entered"),
             ControlLine(4, "setHandler", "thing property: {\n\t\"signinStatus\" : true\n}\n"),
             ServerLine(4, "SendCloudConnectionChange", "cloud connection status: true"),
             ServerLine(6, "emit_signal", "try to emit signal: cloud_connection_changed"),
             ServerLine(6, "emit_signal", "success to emit signal: cloud_connection_changed"),
             WrapperLine(4, "SendSetResponse", "> Entered"),
             "lumo_service_send_set_property_result(service, [], 0)",
             WrapperLine(4, "SendSetResponse", "> Left"), ControlLine(4, "setHandler", "> Left")}),
      WorkerSummaries());
  const std::vector<Signal> signals = WaitForSignals(*client, 2);
  ASSERT_EQ(2U, signals.size());
  EXPECT_EQ("cloud_connection_changed", signals[1].member);
  EXPECT_EQ("(true,)", signals[1].parameters);
  EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
}

TEST_F(PluginPathsTest, ASigninIsStoredBeforeItIsAnnounced) {
  std::atomic<bool> announcing{false};
  std::atomic<bool> asked{false};
  gio.OnCall(FaultyGio::kEmitSignal, [&] {
    announcing = true;
    EXPECT_TRUE(platform.WaitUntil([&asked] { return asked.load(); }));
  });
  platform.PostSet({Property::Bool("signinStatus", true)});
  EXPECT_TRUE(RunUntil([&announcing] { return announcing.load(); }));
  EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
  EXPECT_EQ(1U, client->Signals().size());
  asked = true;
  EXPECT_EQ(2U, WaitForSignals(*client, 2).size());
  EXPECT_TRUE(RunUntil([this] { return platform.Responses().size() == 1; }));
  gio.Reset();
}

TEST_F(PluginPathsTest, TheSignupInformationGoesFromTheCloudToTheApps) {
  SetFromCloud({Property::Json("signupInfo", "{\"user\":\"u\"}")});
  EXPECT_EQ("('{\\n\\t\"user\" : \"u\"\\n}\\n',)", Call(*client, "get_thing_information").value);
}

TEST_F(PluginPathsTest, TheThingsPropertiesOutliveARestart) {
  SetFromCloud({Property::Bool("signinStatus", true)});
  SetFromCloud({Property::Json("signupInfo", "{}")});
  ASSERT_TRUE(Destroy());
  CreateUntilReady();
  EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
  EXPECT_EQ("('{}\\n',)", Call(*client, "get_thing_information").value);
}

TEST_F(PluginPathsTest, AWriteThatDBusCannotCarryIsAnsweredAndNotSent) {
  using namespace std::string_literals;
  RegisterApp("qz");
  for (const std::string& bad : {"\xff\xfe"s, "a\0b"s}) {
    const fake::Response response = SetFromCloud({Property::Bytes("qz", bad)});
    EXPECT_EQ(0, response.code);
    EXPECT_EQ(std::vector{Property::String("qz", "")}, response.properties);
    EXPECT_TRUE(LoggedOnce(
        {6, "TVCONTROL_A", "DBusServer.cpp", "send_event", "[qz] fail to send data to app"}));
  }
  SetFromCloud({Property::Bytes("qz", "plain")});
  const std::vector<Signal> signals = WaitForSignals(*client, 2);
  ASSERT_EQ(2U, signals.size());
  EXPECT_EQ("('qz', 'plain')", signals[1].parameters);
}

TEST_F(PluginPathsTest, AWriteOfAMegabyteGoesThrough) {
  const std::string large(1024 * 1024, 'x');
  RegisterApp("qz");
  EXPECT_EQ(0, SetFromCloud({Property::String("qz", large)}).code);
  const std::vector<Signal> signals = WaitForSignals(*client, 2);
  ASSERT_EQ(2U, signals.size());
  EXPECT_EQ("('qz', '" + large + "')", signals[1].parameters);
}

TEST_F(PluginPathsTest, AWriteBeforeTheNameIsOwnedIsAnsweredAndNotSent) {
  ASSERT_TRUE(Destroy());
  platform.ClearTrace();
  ASSERT_TRUE(Create());
  platform.PostSet({Property::Bool("signinStatus", true)});
  // The main loop does not turn meanwhile.
  ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
  EXPECT_EQ(0, platform.Responses()[0].code);
  EXPECT_TRUE(LoggedOnce(
      {6, "TVCONTROL_A", "DBusServer.cpp", "SendCloudConnectionChange", "not initialized"}));
}

TEST_F(PluginPathsTest, ABusThatDiesLeavesTheCloudSideAlive) {
  RegisterApp("qz");
  ReleaseShared();
  Bus().Kill();
  ASSERT_TRUE(RunUntil([this] {
    return SetFromCloud({Property::String("qz", "1")}).code == 0 &&
           platform.CountLogs("fail to emit signal: send_event") == 1;
  }));
  EXPECT_TRUE(Destroy());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

}  // namespace
