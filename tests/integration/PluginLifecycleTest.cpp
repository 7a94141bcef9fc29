#include <algorithm>
#include <stdexcept>

#include "PluginTest.h"

namespace {

const std::string kReleaseTest = "access(/etc/release, 0)";
const std::string kCreateEntered = CoreLine(4, "CreatePlugin", "> Entered");
const std::string kCreateLeft = CoreLine(4, "CreatePlugin", "> Left");
const std::string kDestroyEntered = CoreLine(4, "DestroyPlugin", "> Entered");
const std::string kDestroyLeft = CoreLine(4, "DestroyPlugin", "> Left");

Lines CreateLines() {
  return Lines{kCreateEntered, kStatus0} + ControlCreateLines() + ServerInitLines() +
         Lines{CoreLine(4, "CreatePlugin", "[appdatachannel] Initialize: true"), kCreateLeft};
}

Lines FailedCreateLines(const Lines& inside) {
  return Lines{kCreateEntered, kReleaseTest, kStatus0} + inside +
         Lines{CoreLine(4, "CreatePlugin", "[appdatachannel] Initialize: false"), kCreateLeft};
}

Lines DestroyLines() {
  return Lines{kDestroyEntered,
               CoreLine(4, "DestroyPlugin", "[appdatachannel] begin Deinitialize")} +
         ServerDeinitLines() + ControlDestroyLines() +
         Lines{CoreLine(4, "DestroyPlugin", "[appdatachannel] end Deinitialize"), kDestroyLeft};
}

ExpectedLog CoreLog(int priority, const std::string& function, const std::string& message) {
  return {priority, "TVCONTROL_A", "AppDataChannelCore.cpp", function, message};
}

using PluginLifecycleTest = PluginTest;

TEST_F(PluginLifecycleTest, CreatePluginStartsTheCloudSideBeforeTheBusSide) {
  EXPECT_TRUE(Create());
  Lines expected = CreateLines();
  expected.insert(expected.begin() + 1, kReleaseTest);  // the core is made on first use
  EXPECT_EQ(expected, SummariesOfThisThread());
  platform.ClearTrace();

  ASSERT_TRUE(WaitUntilReady());
  const std::string arguments =
      "dbus connection: " + SharedPointer() + ", name: org.tizen.qivo_thing";
  EXPECT_EQ(
      (Lines{ServerLine(4, "on_bus_acquired", arguments),
             ServerLine(4, "on_name_acquired", arguments),
             ServerLine(6, "emit_signal", "try to emit signal: dbus_server_ready"),
             ServerLine(6, "emit_signal", "success to emit signal: dbus_server_ready"), kStatus1}),
      SummariesOfThisThread());
  ASSERT_EQ(1U, WaitForSignals(*client, 1).size());
}

TEST_F(PluginLifecycleTest, CreatePluginLogsWholeLines) {
  ASSERT_TRUE(Create());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "CreatePlugin", "> Entered\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "CreatePlugin", "[appdatachannel] Initialize: true\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "CreatePlugin", "> Left\n")));
}

TEST_F(PluginLifecycleTest, DestroyPluginStopsInTheReverseOrder) {
  CreateUntilReady();
  EXPECT_TRUE(Destroy());
  EXPECT_EQ(DestroyLines(), SummariesOfThisThread());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_EQ("", client->OwnerOf(kBusName));
  EXPECT_EQ(0U, platform.LiveServices());
}

TEST_F(PluginLifecycleTest, TheDispatchersWorkerEndsAfterDestroyPlugin) {
  CreateUntilReady();
  ASSERT_TRUE(Destroy());
  ASSERT_TRUE(
      platform.WaitUntil([this] { return platform.CountLogs("Finished thread running") == 1; }));
  EXPECT_EQ(
      (Lines{DispatcherLine("runDispatchingThread", "[appdatachannel] ESCAPE!"),
             DispatcherLine("runDispatchingThread", "[appdatachannel] Finished thread running")}),
      WorkerSummaries());
}

TEST_F(PluginLifecycleTest, DestroyPluginLogsWholeLines) {
  CreateUntilReady();
  ASSERT_TRUE(Destroy());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "DestroyPlugin", "> Entered\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "DestroyPlugin", "[appdatachannel] begin Deinitialize\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "DestroyPlugin", "[appdatachannel] end Deinitialize\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "DestroyPlugin", "> Left\n")));
}

TEST_F(PluginLifecycleTest, ASecondCreatePluginIsRefusedAndWritesNothing) {
  CreateUntilReady();
  EXPECT_FALSE(Create());
  EXPECT_EQ(
      (Lines{kCreateEntered, CoreLine(6, "CreatePlugin", "ALREADY created plugin: appdatachannel"),
             kCreateLeft}),
      SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(CoreLog(6, "CreatePlugin", "ALREADY created plugin: appdatachannel\n")));
  EXPECT_EQ(1, platform.Setting(kStatusKey));
  EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
}

TEST_F(PluginLifecycleTest, DestroyPluginBeforeAnyCreatePluginStopsNothing) {
  EXPECT_FALSE(Destroy());
  EXPECT_EQ(
      (Lines{kDestroyEntered, kReleaseTest,
             CoreLine(6, "DestroyPlugin", "NOT created plugin: appdatachannel"), kDestroyLeft}),
      SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(CoreLog(6, "DestroyPlugin", "NOT created plugin: appdatachannel\n")));
}

TEST_F(PluginLifecycleTest, ASecondDestroyPluginIsRefused) {
  CreateUntilReady();
  EXPECT_TRUE(Destroy());
  platform.ClearTrace();
  EXPECT_FALSE(Destroy());
  EXPECT_EQ(
      (Lines{kDestroyEntered, CoreLine(6, "DestroyPlugin", "NOT created plugin: appdatachannel"),
             kDestroyLeft}),
      SummariesOfThisThread());
}

TEST_F(PluginLifecycleTest, CreatePluginIsTrueWhenTheServiceCannotBeCreated) {
  platform.Fail("lumo_service_create", 1);
  EXPECT_TRUE(Create());
  EXPECT_EQ(
      FailedCreateLines(
          {ControlLine(4, "Create", "> Entered"), WrapperLine(4, "Create", "> Entered"),
           "lumo_service_create(appdatachannel, appdatachannel service plugin for qivo-thing mapi. "
           "support ocf thing /zun/tv/appdata/* resources)",
           WrapperLine(6, "Create", "[appdatachannel] fail to lumo_service_create"),
           WrapperLine(4, "Create", "> Left"),
           ControlLine(6, "createLumo", "fail to m_lumo_api.Create"),
           ControlLine(6, "Create", "fail to createLumo"), ControlLine(4, "Create", "> Left"),
           CoreLine(4, "Initialize", "m_control.Create: false")}),
      SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "Initialize", "m_control.Create: false\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "CreatePlugin", "[appdatachannel] Initialize: false\n")));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kOwnName));
  EXPECT_FALSE(Destroy());

  platform.ClearTrace();
  EXPECT_TRUE(Create());
  EXPECT_EQ(CreateLines(), SummariesOfThisThread());
}

TEST_F(PluginLifecycleTest, CreatePluginIsTrueAndUndoesTheControlWhenTheServerCannotStart) {
  gio.Fail(FaultyGio::kOwnName, FaultyGio::Report::kNoError);
  EXPECT_TRUE(Create());
  EXPECT_EQ(FailedCreateLines(ControlCreateLines() +
                              Lines{ServerLine(4, "Init", "> Entered"),
                                    ServerLine(6, "Init", "exception: fail to g_bus_own_name"),
                                    kStatus0, ServerLine(4, "Init", "> Left"),
                                    CoreLine(4, "Initialize", "m_dbus_server.Init: false")} +
                              ControlDestroyLines()),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "Initialize", "m_dbus_server.Init: false\n")));
  EXPECT_EQ(0U, platform.LiveServices());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_FALSE(Destroy());

  EXPECT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(PluginLifecycleTest, AThingPropertyThatTheServiceRefusesDoesNotStopTheStart) {
  platform.Fail("lumo_service_register_property");
  EXPECT_TRUE(Create());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "CreatePlugin", "[appdatachannel] Initialize: true\n")));
  EXPECT_TRUE(WaitUntilReady());
  EXPECT_TRUE(platform.Registrations().empty());
}

TEST_F(PluginLifecycleTest, ASettingThatCannotBeWrittenDoesNotStopTheStart) {
  platform.Fail("vconf_set_int", 1);
  EXPECT_TRUE(Create());
  Lines expected = CreateLines();
  expected.insert(expected.begin() + 1, kReleaseTest);
  EXPECT_EQ(expected, SummariesOfThisThread());
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(PluginLifecycleTest, CreateDestroyCreateStartsEverythingAgain) {
  CreateUntilReady();
  EXPECT_EQ("(0,)", Call(*client, "register_app", g_variant_new("(s)", "qz")).value);
  ASSERT_TRUE(Destroy());
  ASSERT_TRUE(
      platform.WaitUntil([this] { return platform.CountLogs("Finished thread running") == 1; }));
  platform.ClearTrace();

  EXPECT_TRUE(Create());
  EXPECT_EQ(CreateLines(), SummariesOfThisThread());
  // The stopped dispatcher is deleted, by the worker of the new one, before the wrapper's Create is
  // left.
  Lines all = platform.Summaries();
  all.erase(std::find(all.begin(), all.end(), WrapperLine(4, "Create", "> Left")), all.end());
  ASSERT_GE(all.size(), 3U);
  EXPECT_EQ((Lines{DispatcherLine("~MsgDispatcher", "[appdatachannel] before join"),
                   DispatcherLine("~MsgDispatcher", "[appdatachannel] after join"),
                   DispatcherLine("~MsgQueue", "MsgQueue destructed")}),
            Lines(all.end() - 3, all.end()));
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(2U, platform.ServicesCreated());
  EXPECT_EQ(1U, platform.LiveServices());
  // Registrations do not survive the stop.
  EXPECT_EQ("(-20,)", Call(*client, "send_data", g_variant_new("(ss)", "qz", "1")).value);
}

TEST_F(PluginLifecycleTest, AStopBeforeTheNameIsAcquiredIsAsCleanAsALateOne) {
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(Create());
    for (int i = 0; i < round; ++i) g_main_context_iteration(nullptr, FALSE);
    ASSERT_TRUE(Destroy());
    EXPECT_EQ(0, platform.Setting(kStatusKey));
  }
  ASSERT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
  EXPECT_EQ(0U, platform.CountLogs("fail to"));
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheStartPassesToTheHostAfterEveryLeftLine) {
  platform.OnCall("lumo_service_create", [] { throw std::runtime_error("no memory"); });
  EXPECT_THROW(Create(), std::runtime_error);
  EXPECT_EQ((Lines{kCreateEntered, kReleaseTest, kStatus0, ControlLine(4, "Create", "> Entered"),
                   WrapperLine(4, "Create", "> Entered"), WrapperLine(4, "Create", "> Left"),
                   ControlLine(4, "Create", "> Left"), kCreateLeft}),
            SummariesOfThisThread());
  platform.OnCall("lumo_service_create", nullptr);

  // No lock is left behind: another thread starts and stops.
  std::thread([this] { EXPECT_FALSE(Destroy()); }).join();
  platform.ClearTrace();
  EXPECT_TRUE(Create());
  EXPECT_EQ(CreateLines(), SummariesOfThisThread());
}

TEST_F(PluginLifecycleTest, AnExceptionFromThePropertiesLeavesNoServiceBehind) {
  platform.OnCall("lumo_service_register_property", [] { throw std::runtime_error("no memory"); });
  EXPECT_THROW(Create(), std::runtime_error);
  EXPECT_EQ(0U, platform.LiveServices());
  platform.OnCall("lumo_service_register_property", nullptr);
  EXPECT_FALSE(Destroy());
  EXPECT_TRUE(Create());
  EXPECT_EQ(1U, platform.LiveServices());
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheStopPassesToTheHostAfterTheLeftLine) {
  CreateUntilReady();
  platform.OnCall("lumo_service_unregister_property",
                  [] { throw std::runtime_error("no memory"); });
  EXPECT_THROW(Destroy(), std::runtime_error);
  EXPECT_EQ(
      (Lines{kDestroyEntered, CoreLine(4, "DestroyPlugin", "[appdatachannel] begin Deinitialize")} +
       ServerDeinitLines() +
       Lines{ControlLine(4, "Destroy", "> Entered"),
             WrapperLine(4, "UnregisterProperty", "> Entered"),
             WrapperLine(4, "UnregisterProperty", "> Left"), WrapperLine(4, "Destroy", "> Entered"),
             "lumo_service_destroy(appdatachannel)", WrapperLine(4, "Destroy", "> Left"),
             ControlLine(4, "Destroy", "> Left"), kDestroyLeft}),
      SummariesOfThisThread());
  platform.OnCall("lumo_service_unregister_property", nullptr);
  // The flag was cleared first, and all is stopped: the next start finds nothing in its way.
  std::thread([this] { EXPECT_FALSE(Destroy()); }).join();
  EXPECT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheServersStopPassesOnWhenTheServiceIsDestroyed) {
  CreateUntilReady();
  platform.OnCall("vconf_set_int", [] { throw std::runtime_error("no memory"); });
  EXPECT_THROW(Destroy(), std::runtime_error);
  platform.OnCall("vconf_set_int", nullptr);
  EXPECT_EQ(0U, platform.LiveServices());
  std::thread([this] { EXPECT_FALSE(Destroy()); }).join();
  EXPECT_TRUE(Create());
  EXPECT_EQ(1U, platform.LiveServices());
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheServersStartPassesOnWhenTheServiceIsDestroyed) {
  // The failing server start takes everything back, and that throws.
  gio.Fail(FaultyGio::kOwnName, FaultyGio::Report::kNoError);
  bool starting = false;
  platform.OnCall("lumo_service_create", [&starting] { starting = true; });
  platform.OnCall("vconf_set_int", [&starting] {
    if (starting) throw std::runtime_error("no memory");
  });
  EXPECT_THROW(Create(), std::runtime_error);
  EXPECT_EQ(0U, platform.LiveServices());
  platform.OnCall("vconf_set_int", nullptr);
  platform.OnCall("lumo_service_create", nullptr);
  EXPECT_FALSE(Destroy());
  EXPECT_TRUE(Create());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "CreatePlugin", "[appdatachannel] Initialize: true\n")));
}

TEST_F(PluginLifecycleTest, UnloadingStopsEverythingAndDestroysTheMembersInOrder) {
  CreateUntilReady();
  Unload();
  const Lines expected = Lines{CoreLine(4, "~AppDataChannelCore", "> Entered")} +
                         ServerDeinitLines() + ControlDestroyLines() +
                         Lines{CoreLine(4, "~AppDataChannelCore", "> Left"),
                               DispatcherLine("~MsgDispatcher", "[appdatachannel] before join"),
                               DispatcherLine("~MsgDispatcher", "[appdatachannel] after join"),
                               DispatcherLine("~MsgQueue", "MsgQueue destructed")};
  EXPECT_EQ(expected, SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "~AppDataChannelCore", "> Entered\n")));
  EXPECT_TRUE(LoggedOnce(CoreLog(4, "~AppDataChannelCore", "> Left\n")));
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(PluginLifecycleTest, UnloadingAfterDestroyPluginOnlyWritesZeroAgain) {
  CreateUntilReady();
  ASSERT_TRUE(Destroy());
  platform.ClearTrace();
  Unload();
  const Lines expected = Lines{CoreLine(4, "~AppDataChannelCore", "> Entered")} +
                         ServerDeinitLines() +
                         Lines{ControlLine(4, "Destroy", "> Entered"),
                               ControlLine(4, "Destroy", "> Left"),
                               CoreLine(4, "~AppDataChannelCore", "> Left"),
                               DispatcherLine("~MsgDispatcher", "[appdatachannel] before join"),
                               DispatcherLine("~MsgDispatcher", "[appdatachannel] after join"),
                               DispatcherLine("~MsgQueue", "MsgQueue destructed")};
  EXPECT_EQ(expected, SummariesOfThisThread());
}

}  // namespace
