#include "DBusServerTest.h"

namespace {

class DBusServerLifecycleTest : public DBusServerTest {
 protected:
  // A stopped server has nothing, and a new start works.
  void ExpectStoppedAndStartable() {
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
    EXPECT_EQ("", client->OwnerOf(kBusName));
    gio.Reset();
    StartServer();
    EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  }

  bool IsReadyAgain(std::size_t times) {
    return RunUntil([this, times] {
      return platform.CountLogs("success to emit signal: dbus_server_ready") == times;
    });
  }
};

TEST_F(DBusServerLifecycleTest, ObjectNameSignalAndSettingFollowInThisOrderOnTheMainLoop) {
  Lines ownersAtRegistration;
  gio.OnCall(FaultyGio::kRegisterObject,
             [&] { ownersAtRegistration.push_back(client->OwnerOf(kBusName)); });
  std::optional<int> atEmission = -1;
  gio.OnCall(FaultyGio::kEmitSignal, [&] { atEmission = platform.Setting(kStatusKey); });
  EXPECT_TRUE(server.Init());
  EXPECT_EQ(kServerInit, Written());
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  platform.ClearTrace();

  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(ReadyLines(Shared()), Written());
  EXPECT_EQ(Lines{""}, ownersAtRegistration);
  EXPECT_EQ(SharedName(), client->OwnerOf(kBusName));
  EXPECT_EQ(std::nullopt, atEmission);
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
}

TEST_F(DBusServerLifecycleTest, ACallWorksAsSoonAsReadyIsSignalled) {
  ASSERT_TRUE(server.Init());
  EXPECT_EQ(Lines{"dbus_server_ready()"}, Received(1));
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
}

TEST_F(DBusServerLifecycleTest, DeinitWritesZeroInAnyStateAndReleasesNameAndObjectWithoutASignal) {
  const auto expectDeinit = [this] {
    platform.ClearTrace();
    server.Deinit();
    EXPECT_EQ(kServerDeinit, Written());
    EXPECT_EQ(0, platform.Setting(kStatusKey));
  };
  expectDeinit();  // before any start
  StartServer();
  const std::size_t emitted = gio.Calls(FaultyGio::kEmitSignal);
  expectDeinit();
  EXPECT_EQ(emitted, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ("", client->OwnerOf(kBusName));
  EXPECT_EQ(kUnknownMethod, CallConnection());
  expectDeinit();  // again
}

TEST_F(DBusServerLifecycleTest, AStopBeforeTheBusIsAcquiredLeavesNothingBehind) {
  ASSERT_TRUE(server.Init());
  server.Deinit();
  RunPending();
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
  EXPECT_EQ("", client->OwnerOf(kBusName));
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
  EXPECT_EQ(kUnknownMethod, CallConnection());
  StartServer();
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
}

TEST_F(DBusServerLifecycleTest, ANewInitAfterDeinitStartsEverythingAgain) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(WaitUntilReady());
    EXPECT_EQ("(-20,)", Call("register_app", {"nobody"}));
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
  ASSERT_TRUE(IsReadyAgain(1));  // the setting is 1 from the first start
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  server.Deinit();
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(DBusServerLifecycleTest, AFailedInitIsLoggedAndEndsWhateverHasStarted) {
  using Report = FaultyGio::Report;
  const auto throws = [] { throw 1; };
  const std::string noNode = "exception: fail to load dbus node info";
  const Lines inInit{kServer.Error("Init", "exception: fail to init_dbus_node_info")};
  const struct {
    FaultyGio::Operation operation;
    std::optional<Report> report;  // none: it throws
    Lines reasons;
  } cases[] = {
      {FaultyGio::kNewNodeInfo, Report::kError,
       Lines{kServer.Error("init_dbus_node_info", noNode),
             kServer.Error("init_dbus_node_info", "error code:0, message: made to fail")} +
           inInit},
      {FaultyGio::kNewNodeInfo, Report::kNoError,
       Lines{kServer.Error("init_dbus_node_info", noNode)} + inInit},
      {FaultyGio::kNewNodeInfo, std::nullopt,
       Lines{kServer.Error("init_dbus_node_info", "unknown exception")} + inInit},
      {FaultyGio::kOwnName,
       Report::kNoError,
       {kServer.Error("Init", "exception: fail to g_bus_own_name")}},
      {FaultyGio::kOwnName, std::nullopt, {kServer.Error("Init", "unknown exception")}},
  };
  for (const auto& failure : cases) {
    for (const bool isReady : {false, true}) {
      SCOPED_TRACE(failure.reasons.front() + (isReady ? ", when ready" : ""));
      if (isReady) StartServer();
      platform.ClearTrace();
      const std::size_t requests = gio.Calls(FaultyGio::kOwnName);
      if (failure.report) gio.Fail(failure.operation, *failure.report);
      if (!failure.report) gio.OnCall(failure.operation, throws);
      EXPECT_FALSE(server.Init());
      EXPECT_EQ(kServer.Frame("Init", failure.reasons + Lines{kStatus0}), Written());
      const bool isRequested = failure.operation == FaultyGio::kOwnName;
      EXPECT_EQ(requests + (isRequested ? 1 : 0), gio.Calls(FaultyGio::kOwnName));
      ExpectStoppedAndStartable();
      server.Deinit();
    }
  }
}

TEST_F(DBusServerLifecycleTest, AFailedRegistrationIsLoggedAndTheNameIsOwnedAllTheSame) {
  for (const auto report : {FaultyGio::Report::kError, FaultyGio::Report::kNoError}) {
    const bool hasError = report == FaultyGio::Report::kError;
    gio.Fail(FaultyGio::kRegisterObject, report);
    ASSERT_TRUE(server.Init());
    EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
    ASSERT_TRUE(WaitUntilReady());
    EXPECT_TRUE(LoggedOnce(kServer.Error("on_bus_acquired", "fail to register_object")));
    EXPECT_EQ(hasError ? 1U : 0U, platform.CountLogs("error code"));
    EXPECT_EQ(hasError,
              LoggedOnce(kServer.Error("on_bus_acquired", "error code:0, message: made to fail")));
    EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
    EXPECT_EQ(SharedName(), client->OwnerOf(kBusName));
    EXPECT_EQ(kUnknownMethod, Call("get_cloud_connection"));
    server.Deinit();
    EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
    StartServer();
    EXPECT_EQ("(false,)", Call("get_cloud_connection"));
    server.Deinit();
  }
}

TEST_F(DBusServerLifecycleTest, AFailedReadySignalIsOnlyLoggedAndTheSettingBecomesOne) {
  gio.Fail(FaultyGio::kEmitSignal, FaultyGio::Report::kNoError);
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  for (const std::string& line : EmitLines("dbus_server_ready", "fail")) {
    EXPECT_TRUE(LoggedOnce(line));
  }
  EXPECT_EQ(0U, platform.CountLogs("success to emit"));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
}

TEST_F(DBusServerLifecycleTest, ASettingThatCannotBeWrittenIsLoggedEachTime) {
  const std::string line = kServer.Error("notify_dbus_server_status",
                                         "fail to vconf_set_int (memory/iot/thing/thing_status)");
  platform.Fail("vconf_set_int");
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(RunUntil([this] { return platform.CountLogs("fail to vconf_set_int") == 1; }));
  EXPECT_TRUE(LoggedOnce(line));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  platform.ClearTrace();
  server.Deinit();
  EXPECT_TRUE(LoggedOnce(line));
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(DBusServerLifecycleTest, ASettingThatCannotBeWrittenForAWhileIsRightAfterwards) {
  for (const unsigned failures : {1U, 2U, 3U}) {
    SCOPED_TRACE(failures);
    platform.ClearTrace();
    platform.Fail("vconf_set_int", failures);
    for (std::size_t life = 1; life <= 2; ++life) {  // each writes twice
      ASSERT_TRUE(server.Init());
      ASSERT_TRUE(IsReadyAgain(life));
      server.Deinit();
    }
    EXPECT_EQ(failures, platform.CountLogs("fail to vconf_set_int"));
    EXPECT_EQ(0, platform.Setting(kStatusKey));
  }
  ASSERT_TRUE(server.Init());
  EXPECT_TRUE(WaitUntilReady());
}

using AppDataChannelCoreTest = DBusServerTest;

TEST_F(AppDataChannelCoreTest, DeinitializeOfACoreThatNeverStartedStopsBothPartsHarmlessly) {
  control.Destroy();
  platform.ClearTrace();
  core.Deinitialize();
  EXPECT_EQ(kServerDeinit + kControl.Frame("Destroy"), Written());
  EXPECT_FALSE(core.IsInitialized());
}

TEST_F(AppDataChannelCoreTest, ASecondInitializeChangesNothing) {
  control.Destroy();
  core.Initialize();
  ASSERT_TRUE(core.IsInitialized());
  platform.ClearTrace();
  core.Initialize();
  EXPECT_EQ(Lines{kCore.Info("Initialize", "IsInitialized: true")}, Written());
  EXPECT_TRUE(core.IsInitialized());
  core.Deinitialize();
  EXPECT_FALSE(core.IsInitialized());
}

}  // namespace
