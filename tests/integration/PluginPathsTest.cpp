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
    client->TakeSignals();
  }

  // Has the cloud write or read, on a thread of the library, and gives the answer. The trace then
  // holds nothing else.
  fake::Response SetFromCloud(const Property& property) {
    platform.ClearTrace();
    platform.PostSet({property});
    return WaitForAnswer("setHandler");
  }
  fake::Response GetFromCloud(const std::vector<Property>& properties) {
    platform.ClearTrace();
    platform.PostGet(properties);
    return WaitForAnswer("getHandler");
  }

 private:
  fake::Response WaitForAnswer(const std::string& handler) {
    EXPECT_TRUE(RunUntil([&] {
      const std::vector<fake::LogLine> lines = platform.LogsOf(handler);
      return !lines.empty() && lines.back().Message() == " > Left";
    }));
    platform.Drain();
    const std::vector<fake::Response> responses = platform.Responses();
    EXPECT_EQ(1U, responses.size());
    return responses.empty() ? fake::Response() : responses[0];
  }
};

// What the worker writes for one set.
Lines setLines(const Lines& inside, const std::string& answer) {
  const std::string call = "lumo_service_send_set_property_result(service, [" + answer + "], 0)";
  return kControl.Frame("setHandler", inside + kWrapper.Frame("SendSetResponse", {call}));
}

TEST_F(PluginPathsTest, AnAppsDataGoesToTheCloudAndACloudWriteToTheAppAnsweredWithTheDataBefore) {
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  platform.ClearTrace();
  ASSERT_EQ("(0,)", Call("send_data", {"qz", "42"}));
  EXPECT_EQ(
      kWrapper.Frame("NotifyProperty", {"lumo_service_notify(service, [qz (type 3) = \"42\"])"}) +
          Lines{kControl.Info("NotifyData", "[qz] sent")},
      platform.Summaries());

  const fake::Response response = SetFromCloud(Property::String("qz", "43"));
  EXPECT_TRUE(response.isSet);
  EXPECT_EQ(0, response.code);
  EXPECT_EQ(std::vector{Property::String("qz", "42")}, response.properties);
  EXPECT_EQ(
      setLines(Lines{kServer.Info("SendSetRequest", "[qz] data: 43")} + EmitLines("send_event"),
               "qz (type 3) = \"42\""),
      WrittenByTheWorker());
  EXPECT_EQ(2U, platform.LogsOf("setCallback").size());
  EXPECT_NE(platform.LogsOf("setCallback")[0].text, platform.LogsOf("setCallback")[1].text);
  EXPECT_EQ(Lines{"send_event('qz', '43')"}, Received(1));

  // The application confirms, and the next write is answered with it.
  ASSERT_EQ("(0,)", Call("send_data", {"qz", "43"}));
  EXPECT_EQ(std::vector{Property::String("qz", "43")},
            SetFromCloud(Property::String("qz", "44")).properties);
}

TEST_F(PluginPathsTest, ACloudReadIsAnsweredFromWhatTheAppsSent) {
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  ASSERT_EQ("(0,)", Call("register_app", {"qmap"}));
  ASSERT_EQ("(0,)", Call("send_data", {"qz", "42"}));
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
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  const fake::Response response = SetFromCloud(Property::Bool("signinStatus", true));
  EXPECT_EQ(0, response.code);
  EXPECT_TRUE(response.properties.empty());
  EXPECT_EQ(
      setLines(
          Lines{kControl.Info("setHandler", "thing property: {\n\t\"signinStatus\" : true\n}\n"),
                kServer.Info("SendCloudConnectionChange", "cloud connection status: true")} +
              EmitLines("cloud_connection_changed"),
          ""),
      WrittenByTheWorker());
  EXPECT_EQ(Lines{"cloud_connection_changed(true,)"}, Received(1));
  EXPECT_EQ("(true,)", Call("get_cloud_connection"));
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
  EXPECT_EQ("(true,)", Call("get_cloud_connection"));
  EXPECT_TRUE(client->Signals().empty());
  asked = true;
  EXPECT_EQ(Lines{"cloud_connection_changed(true,)"}, Received(1));
  EXPECT_TRUE(WaitForAnswers(1));
  gio.Reset();
}

TEST_F(PluginPathsTest, TheThingsPropertiesReachTheAppsAndOutliveARestart) {
  SetFromCloud(Property::Bool("signinStatus", true));
  SetFromCloud(Property::Json("signupInfo", "{\"user\":\"u\"}"));
  const auto expectBoth = [this] {
    EXPECT_EQ("(true,)", Call("get_cloud_connection"));
    EXPECT_EQ("('{\\n\\t\"user\" : \"u\"\\n}\\n',)", Call("get_thing_information"));
  };
  expectBoth();
  ASSERT_TRUE(Destroy());
  CreateUntilReady();
  expectBoth();
}

TEST_F(PluginPathsTest, AWriteThatDBusCannotCarryIsAnsweredAndNotSent) {
  using namespace std::string_literals;
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  for (const std::string& bad : {"\xff\xfe"s, "a\0b"s}) {
    const fake::Response response = SetFromCloud(Property::Bytes("qz", bad));
    EXPECT_EQ(0, response.code);
    EXPECT_EQ(std::vector{Property::String("qz", "")}, response.properties);
    EXPECT_TRUE(LoggedOnce(kServer.Error("send_event", "[qz] fail to send data to app")));
  }
  SetFromCloud(Property::Bytes("qz", "plain"));
  EXPECT_EQ(Lines{"send_event('qz', 'plain')"}, Received(1));
}

TEST_F(PluginPathsTest, AWriteOfAMegabyteGoesThrough) {
  const std::string large(1024 * 1024, 'x');
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  EXPECT_EQ(0, SetFromCloud(Property::String("qz", large)).code);
  EXPECT_EQ(Lines{"send_event('qz', '" + large + "')"}, Received(1));
}

TEST_F(PluginPathsTest, AWriteBeforeTheNameIsOwnedIsAnsweredAndNotSent) {
  ASSERT_TRUE(Destroy());
  platform.ClearTrace();
  ASSERT_TRUE(Create());
  platform.PostSet({Property::Bool("signinStatus", true)});
  ASSERT_TRUE(WaitForAnswers(1));  // the main loop does not turn meanwhile
  EXPECT_EQ(0, platform.Responses()[0].code);
  EXPECT_TRUE(LoggedOnce(kServer.Error("SendCloudConnectionChange", "not initialized")));
}

TEST_F(PluginPathsTest, ABusThatDiesLeavesTheCloudSideAlive) {
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  ReleaseShared();
  Bus().Kill();
  ASSERT_TRUE(RunUntil([this] {
    return SetFromCloud(Property::String("qz", "1")).code == 0 &&
           platform.CountLogs("fail to emit signal: send_event") == 1;
  }));
  EXPECT_TRUE(Destroy());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

}  // namespace
