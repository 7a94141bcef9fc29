#include <gio/gio.h>

#include "AppDataChannelCore.h"
#include "DBusServerTest.h"

namespace {

using Strings = std::vector<std::string>;

const std::string kBusLine = "4 TVCONTROL_A DBusServer.cpp on_bus_acquired dbus connection: ";
const std::string kNameLine = "4 TVCONTROL_A DBusServer.cpp on_name_acquired dbus connection: ";
const std::string kTryReady =
    "6 TVCONTROL_A DBusServer.cpp emit_signal try to emit signal: dbus_server_ready";
const std::string kReadySent =
    "6 TVCONTROL_A DBusServer.cpp emit_signal success to emit signal: dbus_server_ready";
const std::string kInitEntered = "4 TVCONTROL_A DBusServer.cpp Init > Entered";
const std::string kInitLeft = "4 TVCONTROL_A DBusServer.cpp Init > Left";
const std::string kDeinitEntered = "4 TVCONTROL_A DBusServer.cpp Deinit > Entered";
const std::string kDeinitLeft = "4 TVCONTROL_A DBusServer.cpp Deinit > Left";

class DBusServerLifecycleTest : public DBusServerTest {
 protected:
  // What an Init writes that fails for the reason given.
  static Strings FailedInit(const Strings& reasons) {
    Strings lines{kInitEntered};
    lines.insert(lines.end(), reasons.begin(), reasons.end());
    lines.push_back(kStatus0);
    lines.push_back(kInitLeft);
    return lines;
  }

  // A stopped server has nothing, and a new start works.
  void ExpectStoppedAndStartable() {
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
    gio.Reset();
    StartServer();
    const auto client = NewClient();
    EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
  }
};

TEST_F(DBusServerLifecycleTest, InitOnlyRequestsTheNameAndReadinessFollowsOnTheMainLoop) {
  EXPECT_TRUE(server.Init());
  EXPECT_EQ((Strings{kInitEntered, kInitLeft}), SummariesOfThisThread());
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  platform.ClearTrace();

  ASSERT_TRUE(WaitUntilReady());
  const std::string arguments = SharedPointer() + ", name: " + kBusName;
  EXPECT_EQ((Strings{kBusLine + arguments, kNameLine + arguments, kTryReady, kReadySent, kStatus1}),
            SummariesOfThisThread());
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
}

TEST_F(DBusServerLifecycleTest, InitLogsItsFrameAtInfoLevel) {
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(LoggedOnce(ServerInfo("Init", "> Entered\n")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("Init", "> Left\n")));
}

TEST_F(DBusServerLifecycleTest, TheAcquiredLinesNameConnectionAndBusNameWithoutALineFeed) {
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  const std::string message = "dbus connection: " + SharedPointer() + ", name: " + kBusName;
  EXPECT_TRUE(LoggedOnce(ServerInfo("on_bus_acquired", message)));
  EXPECT_TRUE(LoggedOnce(ServerInfo("on_name_acquired", message)));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "try to emit signal: dbus_server_ready")));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "success to emit signal: dbus_server_ready")));
}

TEST_F(DBusServerLifecycleTest, TheObjectIsRegisteredBeforeTheNameIsOwned) {
  const auto client = NewClient();
  std::vector<std::string> ownersAtRegistration;
  gio.OnCall(FaultyGio::kRegisterObject,
             [&] { ownersAtRegistration.push_back(client->OwnerOf(kBusName)); });
  StartServer();
  EXPECT_EQ(Strings{""}, ownersAtRegistration);
  EXPECT_EQ(Shared().UniqueName(), client->OwnerOf(kBusName));
}

TEST_F(DBusServerLifecycleTest, ReadyIsSignalledBeforeTheSettingBecomesOne) {
  std::optional<int> atEmission = -1;
  gio.OnCall(FaultyGio::kEmitSignal, [&] { atEmission = platform.Setting(kStatusKey); });
  StartServer();
  EXPECT_EQ(std::nullopt, atEmission);
}

TEST_F(DBusServerLifecycleTest, ACallWorksAsSoonAsReadyIsSignalled) {
  const auto client = NewClient();
  ASSERT_TRUE(server.Init());
  const std::vector<Signal> signals = WaitForSignals(*client, 1);
  ASSERT_EQ(1U, signals.size());
  EXPECT_EQ("dbus_server_ready", signals[0].member);
  EXPECT_EQ("(0,)", Call(*client, "register_app", g_variant_new("(s)", "qz")).value);
}

TEST_F(DBusServerLifecycleTest, DeinitAnnouncesZeroAndGivesNameAndObjectBack) {
  const auto client = NewClient();
  StartServer();
  server.Deinit();
  EXPECT_EQ((Strings{kDeinitEntered, kStatus0, kDeinitLeft}), SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerInfo("Deinit", "> Entered\n")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("Deinit", "> Left\n")));
  EXPECT_EQ("", client->OwnerOf(kBusName));
  const Reply reply = WaitFor(
      client->Call("get_cloud_connection", nullptr, BusClient::kCallLimit, Shared().UniqueName()));
  EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", reply.error);
}

TEST_F(DBusServerLifecycleTest, DeinitSendsNoSignal) {
  const auto client = NewClient();
  StartServer();
  const std::size_t before = gio.Calls(FaultyGio::kEmitSignal);
  server.Deinit();
  EXPECT_EQ(before, gio.Calls(FaultyGio::kEmitSignal));
}

TEST_F(DBusServerLifecycleTest, ASecondDeinitOnlyWritesZeroAgain) {
  StartServer();
  server.Deinit();
  platform.ClearTrace();
  server.Deinit();
  EXPECT_EQ((Strings{kDeinitEntered, kStatus0, kDeinitLeft}), SummariesOfThisThread());
}

TEST_F(DBusServerLifecycleTest, DeinitBeforeAnyInitWritesZero) {
  server.Deinit();
  EXPECT_EQ((Strings{kDeinitEntered, kStatus0, kDeinitLeft}), SummariesOfThisThread());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

TEST_F(DBusServerLifecycleTest, AStopBeforeTheBusIsAcquiredLeavesNothingBehind) {
  ASSERT_TRUE(server.Init());
  server.Deinit();
  RunPending();
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
  EXPECT_EQ("", NewClient()->OwnerOf(kBusName));
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

TEST_F(DBusServerLifecycleTest, AStopBetweenObjectAndNameUnregistersTheObject) {
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(platform.WaitUntil([this] {
    if (gio.Calls(FaultyGio::kRegisterObject) == 0) g_main_context_iteration(nullptr, FALSE);
    return gio.Calls(FaultyGio::kRegisterObject) > 0;
  }));
  ASSERT_EQ(std::nullopt, platform.Setting(kStatusKey));
  server.Deinit();
  RunPending();
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_EQ(0U, platform.CountLogs("on_name_acquired"));
  StartServer();
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
}

TEST_F(DBusServerLifecycleTest, ANewInitAfterDeinitStartsEverythingAgain) {
  const auto client = NewClient();
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(WaitUntilReady());
    EXPECT_EQ("(-20,)", Call(*client, "register_app", g_variant_new("(s)", "nobody")).value);
    EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
    server.Deinit();
    EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  }
  EXPECT_EQ(3U, gio.Calls(FaultyGio::kNewNodeInfo));
  EXPECT_EQ(3U, gio.Calls(FaultyGio::kOwnName));
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
}

TEST_F(DBusServerLifecycleTest, ARepeatedInitWithoutAStopStartsAfreshAndLeaksNothing) {
  StartServer();
  ASSERT_TRUE(server.Init());
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  // The setting is 1 from the first start.
  ASSERT_TRUE(RunUntil(
      [this] { return platform.CountLogs("success to emit signal: dbus_server_ready") == 1; }));
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
  const auto client = NewClient();
  EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
  server.Deinit();
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(DBusServerLifecycleTest, InitFailsWhenTheNodeInfoDoesNotParse) {
  gio.Fail(FaultyGio::kNewNodeInfo, FaultyGio::Report::kError);
  EXPECT_FALSE(server.Init());
  EXPECT_EQ(
      FailedInit(
          {"6 TVCONTROL_A DBusServer.cpp init_dbus_node_info exception: fail to load dbus node "
           "info",
           "6 TVCONTROL_A DBusServer.cpp init_dbus_node_info error code:0, message: made to fail",
           "6 TVCONTROL_A DBusServer.cpp Init exception: fail to init_dbus_node_info"}),
      SummariesOfThisThread());
  EXPECT_TRUE(
      LoggedOnce(ServerError("init_dbus_node_info", "exception: fail to load dbus node info")));
  EXPECT_TRUE(
      LoggedOnce(ServerError("init_dbus_node_info", "error code:0, message: made to fail")));
  EXPECT_TRUE(LoggedOnce(ServerError("Init", "exception: fail to init_dbus_node_info")));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kOwnName));
  ExpectStoppedAndStartable();
}

TEST_F(DBusServerLifecycleTest, InitFailsWithoutAnErrorLineWhenGLibGivesNoError) {
  gio.Fail(FaultyGio::kNewNodeInfo, FaultyGio::Report::kNoError);
  EXPECT_FALSE(server.Init());
  EXPECT_EQ(
      FailedInit({"6 TVCONTROL_A DBusServer.cpp init_dbus_node_info exception: fail to load dbus "
                  "node info",
                  "6 TVCONTROL_A DBusServer.cpp Init exception: fail to init_dbus_node_info"}),
      SummariesOfThisThread());
  ExpectStoppedAndStartable();
}

TEST_F(DBusServerLifecycleTest, InitFailsWhenTheNameCannotBeRequested) {
  gio.Fail(FaultyGio::kOwnName, FaultyGio::Report::kNoError);
  EXPECT_FALSE(server.Init());
  EXPECT_EQ(FailedInit({"6 TVCONTROL_A DBusServer.cpp Init exception: fail to g_bus_own_name"}),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerError("Init", "exception: fail to g_bus_own_name")));
  ExpectStoppedAndStartable();
}

TEST_F(DBusServerLifecycleTest, InitCleansUpAfterAnUnknownException) {
  gio.OnCall(FaultyGio::kOwnName, [] { throw 1; });
  EXPECT_FALSE(server.Init());
  EXPECT_EQ(FailedInit({"6 TVCONTROL_A DBusServer.cpp Init unknown exception"}),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerError("Init", "unknown exception")));
  ExpectStoppedAndStartable();
}

TEST_F(DBusServerLifecycleTest, InitCleansUpAfterAnUnknownExceptionFromTheParser) {
  gio.OnCall(FaultyGio::kNewNodeInfo, [] { throw 1; });
  EXPECT_FALSE(server.Init());
  EXPECT_EQ(
      FailedInit({"6 TVCONTROL_A DBusServer.cpp init_dbus_node_info unknown exception",
                  "6 TVCONTROL_A DBusServer.cpp Init exception: fail to init_dbus_node_info"}),
      SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerError("init_dbus_node_info", "unknown exception")));
  ExpectStoppedAndStartable();
}

TEST_F(DBusServerLifecycleTest, AFailedInitEndsAStartThatWasReady) {
  StartServer();
  gio.Fail(FaultyGio::kOwnName, FaultyGio::Report::kNoError);
  EXPECT_FALSE(server.Init());
  EXPECT_EQ("", NewClient()->OwnerOf(kBusName));
  ExpectStoppedAndStartable();
}

TEST_F(DBusServerLifecycleTest, AFailedRegistrationIsLoggedAndTheNameIsOwnedAllTheSame) {
  gio.Fail(FaultyGio::kRegisterObject, FaultyGio::Report::kError);
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_TRUE(LoggedOnce(ServerError("on_bus_acquired", "fail to register_object")));
  EXPECT_TRUE(LoggedOnce(ServerError("on_bus_acquired", "error code:0, message: made to fail")));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  const auto client = NewClient();
  EXPECT_EQ(Shared().UniqueName(), client->OwnerOf(kBusName));
  EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod",
            Call(*client, "get_cloud_connection").error);
  server.Deinit();
  StartServer();
  EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
}

TEST_F(DBusServerLifecycleTest, AFailedRegistrationWithoutAnErrorLogsOneLine) {
  gio.Fail(FaultyGio::kRegisterObject, FaultyGio::Report::kNoError);
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_TRUE(LoggedOnce(ServerError("on_bus_acquired", "fail to register_object")));
  EXPECT_EQ(0U, platform.CountLogs("error code"));
}

TEST_F(DBusServerLifecycleTest, AFailedReadySignalIsOnlyLoggedAndTheSettingBecomesOne) {
  gio.Fail(FaultyGio::kEmitSignal, FaultyGio::Report::kNoError);
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "try to emit signal: dbus_server_ready")));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "fail to emit signal: dbus_server_ready")));
  EXPECT_EQ(0U, platform.CountLogs("success to emit"));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
}

TEST_F(DBusServerLifecycleTest, ASettingThatCannotBeWrittenIsLoggedEachTime) {
  platform.Fail("vconf_set_int");
  const auto client = NewClient();
  const ExpectedLog line = ServerError("notify_dbus_server_status",
                                       "fail to vconf_set_int (memory/iot/thing/thing_status)");
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(RunUntil([this] { return platform.CountLogs("fail to vconf_set_int") == 1; }));
  EXPECT_TRUE(LoggedOnce(line));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
  platform.ClearTrace();
  server.Deinit();
  EXPECT_TRUE(LoggedOnce(line));
  EXPECT_EQ("", client->OwnerOf(kBusName));
  platform.ClearFailures();
}

TEST_F(DBusServerLifecycleTest, ASettingThatCannotBeWrittenForAWhileIsRightAfterwards) {
  for (const unsigned failures : {1U, 2U, 3U}) {
    SCOPED_TRACE(failures);
    platform.ClearTrace();
    platform.Fail("vconf_set_int", failures);
    for (std::size_t life = 1; life <= 2; ++life) {  // each writes twice
      ASSERT_TRUE(server.Init());
      ASSERT_TRUE(RunUntil([this, life] {
        return platform.CountLogs("success to emit signal: dbus_server_ready") == life;
      }));
      server.Deinit();
    }
    EXPECT_EQ(failures, platform.CountLogs("fail to vconf_set_int"));
    EXPECT_EQ(0, platform.Setting(kStatusKey));
  }
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(RunUntil([this] { return platform.Setting(kStatusKey) == 1; }));
}

using AppDataChannelCoreTest = DBusServerTest;

TEST_F(AppDataChannelCoreTest, DeinitializeOfACoreThatNeverStartedStopsBothPartsHarmlessly) {
  control.Destroy();
  platform.ClearTrace();
  core.Deinitialize();
  EXPECT_EQ((Strings{kDeinitEntered, kStatus0, kDeinitLeft,
                     "4 TVCONTROL_A AppDataChannelControl.cpp Destroy > Entered",
                     "4 TVCONTROL_A AppDataChannelControl.cpp Destroy > Left"}),
            SummariesOfThisThread());
  EXPECT_FALSE(core.IsInitialized());
}

TEST_F(AppDataChannelCoreTest, ASecondInitializeChangesNothing) {
  control.Destroy();
  core.Initialize();
  ASSERT_TRUE(core.IsInitialized());
  platform.ClearTrace();
  core.Initialize();
  EXPECT_EQ(Strings{"4 TVCONTROL_A AppDataChannelCore.cpp Initialize IsInitialized: true"},
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(
      {4, "TVCONTROL_A", "AppDataChannelCore.cpp", "Initialize", "IsInitialized: true\n"}));
  EXPECT_TRUE(core.IsInitialized());
  core.Deinitialize();
  EXPECT_FALSE(core.IsInitialized());
}

}  // namespace
