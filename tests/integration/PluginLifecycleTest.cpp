#include <algorithm>
#include <stdexcept>

#include "PluginTest.h"

namespace {

const Lines kReleaseTest{"access(/etc/release, 0)"};  // once, when the core is made
const Lines kDestroyBegins{kCore.Info("DestroyPlugin", "[appdatachannel] begin Deinitialize")};
const Lines kNotCreated{kCore.Error("DestroyPlugin", "NOT created plugin: appdatachannel")};
const Lines kServiceCreate{
    "lumo_service_create(appdatachannel, appdatachannel service plugin for qivo-thing mapi. "
    "support ocf thing /zun/tv/appdata/* resources)"};
const Lines kServiceDestroy = kWrapper.Frame("Destroy", {"lumo_service_destroy(appdatachannel)"});
const Lines kDispatcherGone{kDispatcher.Error("~MsgDispatcher", "[appdatachannel] before join"),
                            kDispatcher.Error("~MsgDispatcher", "[appdatachannel] after join"),
                            kDispatcher.Error("~MsgQueue", "MsgQueue destructed")};
const Lines kControlCreate =
    kControl.Frame("Create", kWrapper.Frame("Create", kServiceCreate) +
                                 RegisterPropertyLines("signinStatus, 0, 0, 0, \"\"") +
                                 RegisterPropertyLines("signupInfo, 4, 0, 0, \"\"") +
                                 Lines{kControl.Error("Create", "created")});
const Lines kControlDestroy =
    kControl.Frame("Destroy", UnregisterPropertyLines("signinStatus") +
                                  UnregisterPropertyLines("signupInfo") + kServiceDestroy);

// `first`: of the first entry point that is called.
Lines createLines(const Lines& first = {}) {
  return kCore.Frame("CreatePlugin",
                     first + Lines{kStatus0} + kControlCreate + kServerInit +
                         Lines{kCore.Info("CreatePlugin", "[appdatachannel] Initialize: true")});
}

Lines failedCreateLines(const Lines& inside) {
  return kCore.Frame("CreatePlugin",
                     kReleaseTest + Lines{kStatus0} + inside +
                         Lines{kCore.Info("CreatePlugin", "[appdatachannel] Initialize: false")});
}

class PluginLifecycleTest : public PluginTest {
 protected:
  void ThrowIn(const std::string& operation) {
    platform.OnCall(operation, [] { throw std::runtime_error("no memory"); });
  }

  // After a start or stop that has failed or thrown: nothing runs, no lock is held, and the next
  // start works. The fake counts a service as live whose creation throws.
  void ExpectStoppedAndStartable(std::size_t neverCreated = 0) {
    EXPECT_EQ(neverCreated, platform.LiveServices());
    for (const char* operation : {"lumo_service_create", "lumo_service_register_property",
                                  "lumo_service_unregister_property", "vconf_set_int"}) {
      platform.OnCall(operation, nullptr);
    }
    std::thread([this] { EXPECT_FALSE(Destroy()); }).join();
    platform.ClearTrace();
    EXPECT_TRUE(Create());
    EXPECT_EQ(createLines(), Written());
    EXPECT_EQ(neverCreated + 1, platform.LiveServices());
    EXPECT_TRUE(WaitUntilReady());
  }
};

TEST_F(PluginLifecycleTest, CreatePluginStartsTheCloudSideBeforeTheBusSide) {
  EXPECT_TRUE(Create());
  EXPECT_EQ(createLines(kReleaseTest), Written());
  platform.ClearTrace();

  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(ReadyLines(Shared()), Written());
  ASSERT_EQ(1U, Received(1).size());
}

TEST_F(PluginLifecycleTest, DestroyPluginStopsInTheReverseOrderAndTheWorkerEnds) {
  CreateUntilReady();
  EXPECT_TRUE(Destroy());
  EXPECT_EQ(
      kCore.Frame("DestroyPlugin",
                  kDestroyBegins + kServerDeinit + kControlDestroy +
                      Lines{kCore.Info("DestroyPlugin", "[appdatachannel] end Deinitialize")}),
      Written());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_EQ("", client->OwnerOf(kBusName));
  EXPECT_EQ(0U, platform.LiveServices());
  ASSERT_TRUE(WaitForWorkers(1));
  EXPECT_EQ((Lines{kDispatcher.Error("runDispatchingThread", "[appdatachannel] ESCAPE!"),
                   kDispatcher.Error("runDispatchingThread",
                                     "[appdatachannel] Finished thread running")}),
            WrittenByTheWorker());
}

TEST_F(PluginLifecycleTest, ASecondCreatePluginIsRefusedAndWritesNothing) {
  CreateUntilReady();
  EXPECT_FALSE(Create());
  EXPECT_EQ(kCore.Frame("CreatePlugin",
                        {kCore.Error("CreatePlugin", "ALREADY created plugin: appdatachannel")}),
            Written());
  EXPECT_EQ(1, platform.Setting(kStatusKey));
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
}

TEST_F(PluginLifecycleTest, DestroyPluginOfNoPluginIsRefused) {
  EXPECT_FALSE(Destroy());
  EXPECT_EQ(kCore.Frame("DestroyPlugin", kReleaseTest + kNotCreated), Written());
  CreateUntilReady();
  EXPECT_TRUE(Destroy());
  platform.ClearTrace();
  EXPECT_FALSE(Destroy());
  EXPECT_EQ(kCore.Frame("DestroyPlugin", kNotCreated), Written());
}

TEST_F(PluginLifecycleTest, CreatePluginIsTrueWhenTheServiceCannotBeCreated) {
  platform.Fail("lumo_service_create", 1);
  EXPECT_TRUE(Create());
  const Lines refused{kWrapper.Error("Create", "[appdatachannel] fail to lumo_service_create")};
  const Lines reasons{kControl.Error("createLumo", "fail to m_lumo_api.Create"),
                      kControl.Error("Create", "fail to createLumo")};
  EXPECT_EQ(
      failedCreateLines(
          kControl.Frame("Create", kWrapper.Frame("Create", kServiceCreate + refused) + reasons) +
          Lines{kCore.Info("Initialize", "m_control.Create: false")}),
      Written());
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kOwnName));
  ExpectStoppedAndStartable();
}

TEST_F(PluginLifecycleTest, CreatePluginIsTrueAndUndoesTheControlWhenTheServerCannotStart) {
  gio.Fail(FaultyGio::kOwnName, FaultyGio::Report::kNoError);
  EXPECT_TRUE(Create());
  const Lines reason{kServer.Error("Init", "exception: fail to g_bus_own_name")};
  EXPECT_EQ(failedCreateLines(kControlCreate + kServer.Frame("Init", reason + Lines{kStatus0}) +
                              Lines{kCore.Info("Initialize", "m_dbus_server.Init: false")} +
                              kControlDestroy),
            Written());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  ExpectStoppedAndStartable();
}

TEST_F(PluginLifecycleTest, AThingPropertyThatTheServiceRefusesDoesNotStopTheStart) {
  platform.Fail("lumo_service_register_property");
  EXPECT_TRUE(Create());
  EXPECT_TRUE(LoggedOnce(kCore.Info("CreatePlugin", "[appdatachannel] Initialize: true")));
  EXPECT_TRUE(WaitUntilReady());
  EXPECT_TRUE(platform.Registrations().empty());
}

TEST_F(PluginLifecycleTest, ASettingThatCannotBeWrittenDoesNotStopTheStart) {
  platform.Fail("vconf_set_int", 1);
  EXPECT_TRUE(Create());
  EXPECT_EQ(createLines(kReleaseTest), Written());
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(PluginLifecycleTest, CreateDestroyCreateStartsEverythingAgain) {
  CreateUntilReady();
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
  ASSERT_TRUE(Destroy());
  ASSERT_TRUE(WaitForWorkers(1));
  platform.ClearTrace();

  EXPECT_TRUE(Create());
  EXPECT_EQ(createLines(), Written());
  // The stopped dispatcher is deleted, by the worker of the new one, before the wrapper's Create is
  // left.
  Lines all = platform.Summaries();
  all.erase(std::find(all.begin(), all.end(), kWrapper.Info("Create", "> Left")), all.end());
  ASSERT_GE(all.size(), 3U);
  EXPECT_EQ(kDispatcherGone, Lines(all.end() - 3, all.end()));
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(2U, platform.ServicesCreated());
  EXPECT_EQ(1U, platform.LiveServices());
  // Registrations do not survive the stop.
  EXPECT_EQ("(-20,)", Call("send_data", {"qz", "1"}));
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
  ThrowIn("lumo_service_create");
  EXPECT_THROW(Create(), std::runtime_error);
  EXPECT_EQ(kCore.Frame("CreatePlugin", kReleaseTest + Lines{kStatus0} +
                                            kControl.Frame("Create", kWrapper.Frame("Create"))),
            Written());
  ExpectStoppedAndStartable(1);
}

TEST_F(PluginLifecycleTest, AnExceptionFromThePropertiesLeavesNoServiceBehind) {
  ThrowIn("lumo_service_register_property");
  EXPECT_THROW(Create(), std::runtime_error);
  ExpectStoppedAndStartable();
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheStopPassesToTheHostAfterTheLeftLine) {
  CreateUntilReady();
  ThrowIn("lumo_service_unregister_property");
  EXPECT_THROW(Destroy(), std::runtime_error);
  EXPECT_EQ(kCore.Frame("DestroyPlugin",
                        kDestroyBegins + kServerDeinit +
                            kControl.Frame("Destroy",
                                           kWrapper.Frame("UnregisterProperty") + kServiceDestroy)),
            Written());
  ExpectStoppedAndStartable();
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheServersStopPassesOnWhenTheServiceIsDestroyed) {
  CreateUntilReady();
  ThrowIn("vconf_set_int");
  EXPECT_THROW(Destroy(), std::runtime_error);
  ExpectStoppedAndStartable();
}

TEST_F(PluginLifecycleTest, AnExceptionFromTheServersStartPassesOnWhenTheServiceIsDestroyed) {
  // The failing server start takes everything back, and that throws.
  gio.Fail(FaultyGio::kOwnName, FaultyGio::Report::kNoError);
  platform.OnCall("lumo_service_create", [this] { ThrowIn("vconf_set_int"); });
  EXPECT_THROW(Create(), std::runtime_error);
  ExpectStoppedAndStartable();
}

TEST_F(PluginLifecycleTest, UnloadingStopsEverythingAndDestroysTheMembersInOrder) {
  for (const bool isStopped : {false, true}) {
    CreateUntilReady();
    ASSERT_TRUE(!isStopped || (Destroy() && WaitForWorkers(1)));
    platform.ClearTrace();
    Unload();
    const Lines control = isStopped ? kControl.Frame("Destroy") : kControlDestroy;
    EXPECT_EQ(kCore.Frame("~AppDataChannelCore", kServerDeinit + control) + kDispatcherGone,
              Written());
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    EXPECT_EQ("", client->OwnerOf(kBusName));
    SetUp();
  }
}

}  // namespace
