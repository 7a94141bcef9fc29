#include "AppDataChannelInfo.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "PlatformTest.h"

using AppDataChannel::AppDataChannelInfo;

namespace {

constexpr int kError = 6;
constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
const std::string kTag = "TVCONTROL_A";

const std::set<std::string> kBuiltInApps = {
    "lanternapp",       "welcome",     "keyringservice", "qz",          "galleryapp",
    "vexBrowser",       "pocketrelay", "handset-server", "panelmosaic", "brightroomapp",
    "lantern-pz-agent", "tunerapp",    "qmap",           "drelservice", "trace-pz-agent"};

// All of the registry's lines are errors by level, and none ends with a line feed.
ExpectedLog Line(const std::string& function, const std::string& message) {
  return {kError, kTag, "AppDataChannelInfo.cpp", function, message};
}

}  // namespace

// A registry on a device that has the release file.
class AppDataChannelInfoTest : public PlatformTest {
 protected:
  struct ReleaseDevice {
    explicit ReleaseDevice(fake::Platform& platform) { platform.SetReleaseFileExists(true); }
  };

  int Register(const std::string& name) {
    bool alreadyRegistered = false;
    return registry.RegisterApp(name, alreadyRegistered);
  }

  ReleaseDevice device{platform};
  AppDataChannelInfo registry;
};

TEST_F(AppDataChannelInfoTest, AllowsExactlyTheFifteenBuiltInApplications) {
  EXPECT_EQ(15U, kBuiltInApps.size());
  EXPECT_EQ(kBuiltInApps, registry.m_appList);
  for (const std::string& name : kBuiltInApps) {
    EXPECT_TRUE(registry.IsValidAppName(name)) << name;
    bool alreadyRegistered = true;
    EXPECT_EQ(0, registry.RegisterApp(name, alreadyRegistered)) << name;
    EXPECT_FALSE(alreadyRegistered) << name;
  }
}

TEST_F(AppDataChannelInfoTest, AllowsTheDiagnosticsMenuOnlyWithoutTheReleaseFile) {
  platform.SetReleaseFileExists(false);
  AppDataChannelInfo openRegistry;
  std::set<std::string> names = kBuiltInApps;
  names.insert("diag-menu");
  EXPECT_EQ(names, openRegistry.m_appList);
  bool alreadyRegistered = true;
  EXPECT_EQ(0, openRegistry.RegisterApp("diag-menu", alreadyRegistered));
  EXPECT_FALSE(alreadyRegistered);

  platform.ClearTrace();
  EXPECT_FALSE(registry.IsValidAppName("diag-menu"));
  EXPECT_EQ(-20, Register("diag-menu"));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("RegisterApp", "[diag-menu] invalid")}));
}

TEST_F(AppDataChannelInfoTest, AllowsQzWithAndWithoutTheReleaseFile) {
  EXPECT_EQ(0, Register("qz"));
  platform.SetReleaseFileExists(false);
  AppDataChannelInfo openRegistry;
  bool alreadyRegistered = true;
  EXPECT_EQ(0, openRegistry.RegisterApp("qz", alreadyRegistered));
}

TEST_F(AppDataChannelInfoTest, LooksForTheReleaseFileOnceAtConstruction) {
  EXPECT_EQ(std::vector<std::string>{"access(/etc/release, 0)"}, platform.Calls());  // 0: F_OK
  platform.SetReleaseFileExists(false);
  EXPECT_EQ(-20, Register("diag-menu"));
  registry.Reset();
  EXPECT_EQ(-20, Register("diag-menu"));
  EXPECT_EQ(1U, platform.Calls().size());
}

TEST_F(AppDataChannelInfoTest, ComparesNamesByteByByte) {
  const std::vector<std::string> names = {
      "LANTERNAPP",  "Lanternapp", "lanternapp ", " lanternapp",          "lanternap",
      "lanternappp", "vexbrowser", "QZ",          std::string("qz\0", 3), "qz\n",
      "\xC3\xB0qz",  "",           "diag-menu",   "signinStatus"};
  for (const std::string& name : names) {
    EXPECT_FALSE(registry.IsValidAppName(name)) << name;
    EXPECT_EQ(-20, Register(name)) << name;
    EXPECT_FALSE(registry.IsRegisteredApp(name)) << name;
  }
  EXPECT_TRUE(registry.m_appDataMap.empty());
}

TEST_F(AppDataChannelInfoTest, RefusesAnInvalidNameAndWritesNoAnswer) {
  for (const bool before : {false, true}) {
    platform.ClearTrace();
    bool alreadyRegistered = before;
    EXPECT_EQ(-20, registry.RegisterApp("lanternApp", alreadyRegistered));
    EXPECT_EQ(before, alreadyRegistered);
    EXPECT_TRUE(LoggedExactly(kTag, {Line("RegisterApp", "[lanternApp] invalid")}));
  }
}

TEST_F(AppDataChannelInfoTest, RegistersAnApplicationWithEmptyData) {
  bool alreadyRegistered = true;
  EXPECT_EQ(0, registry.RegisterApp("qz", alreadyRegistered));
  EXPECT_FALSE(alreadyRegistered);
  EXPECT_TRUE(registry.IsRegisteredApp("qz"));
  EXPECT_EQ("", registry.GetAppData("qz"));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("RegisterApp", "[qz] is registered now")}));
}

TEST_F(AppDataChannelInfoTest, CountsRepeatedRegistrations) {
  Register("qz");
  platform.ClearTrace();
  for (int i = 0; i < 2; ++i) {
    bool alreadyRegistered = false;
    EXPECT_EQ(0, registry.RegisterApp("qz", alreadyRegistered));
    EXPECT_TRUE(alreadyRegistered);
  }
  EXPECT_EQ(3U, registry.m_appDataMap.at("qz").count);
  EXPECT_TRUE(LoggedExactly(kTag, {Line("RegisterApp", "[qz] is already registered (count: 2)"),
                                   Line("RegisterApp", "[qz] is already registered (count: 3)")}));
}

TEST_F(AppDataChannelInfoTest, KeepsDataUntilTheLastUnregistration) {
  Register("qz");
  Register("qz");
  Register("qz");
  EXPECT_TRUE(registry.SetAppData("qz", "sent"));
  platform.ClearTrace();

  EXPECT_EQ(0, registry.UnregisterApp("qz"));
  EXPECT_TRUE(registry.IsRegisteredApp("qz"));
  EXPECT_EQ("sent", registry.GetAppData("qz"));
  EXPECT_EQ(0, registry.UnregisterApp("qz"));
  EXPECT_TRUE(registry.IsRegisteredApp("qz"));
  EXPECT_EQ("sent", registry.GetAppData("qz"));
  EXPECT_EQ(0, registry.UnregisterApp("qz"));
  EXPECT_FALSE(registry.IsRegisteredApp("qz"));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("UnregisterApp", "[qz] is unregistered (count: 2)"),
                                   Line("UnregisterApp", "[qz] is unregistered (count: 1)"),
                                   Line("UnregisterApp", "[qz] is unregistered now")}));
}

TEST_F(AppDataChannelInfoTest, UnregistersNeitherAnAllowedNorAnUnknownApplicationThatIsNotThere) {
  EXPECT_EQ(-20, registry.UnregisterApp("qz"));
  EXPECT_EQ(-20, registry.UnregisterApp("nobody"));
  Register("qz");
  EXPECT_EQ(0, registry.UnregisterApp("qz"));
  platform.ClearTrace();
  EXPECT_EQ(-20, registry.UnregisterApp("qz"));
  EXPECT_EQ(-20, registry.UnregisterApp("nobody"));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("UnregisterApp", "[qz] not registered"),
                                   Line("UnregisterApp", "[nobody] not registered")}));
}

TEST_F(AppDataChannelInfoTest, StartsAfreshAfterTheCountFellToZero) {
  Register("qz");
  Register("qz");
  registry.SetAppData("qz", "old");
  registry.UnregisterApp("qz");
  registry.UnregisterApp("qz");
  bool alreadyRegistered = true;
  EXPECT_EQ(0, registry.RegisterApp("qz", alreadyRegistered));
  EXPECT_FALSE(alreadyRegistered);
  EXPECT_EQ(1U, registry.m_appDataMap.at("qz").count);
  EXPECT_EQ("", registry.GetAppData("qz"));
}

TEST_F(AppDataChannelInfoTest, ReplacesDataAndLeavesTheCount) {
  Register("qz");
  Register("qz");
  platform.ClearTrace();
  EXPECT_TRUE(registry.SetAppData("qz", "first"));
  EXPECT_TRUE(registry.SetAppData("qz", "second"));
  EXPECT_EQ("second", registry.GetAppData("qz"));
  EXPECT_TRUE(registry.SetAppData("qz", ""));
  EXPECT_EQ("", registry.GetAppData("qz"));
  EXPECT_EQ(2U, registry.m_appDataMap.at("qz").count);
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelInfoTest, StoresNoDataForAnApplicationThatIsNotRegistered) {
  EXPECT_FALSE(registry.SetAppData("qz", "early"));
  EXPECT_FALSE(registry.SetAppData("nobody", "early"));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("SetAppData", "[qz] not registered"),
                                   Line("SetAppData", "[nobody] not registered")}));
  EXPECT_FALSE(registry.IsRegisteredApp("qz"));
  Register("qz");
  EXPECT_EQ("", registry.GetAppData("qz"));
}

TEST_F(AppDataChannelInfoTest, GivesEmptyDataForAnApplicationThatIsNotRegistered) {
  EXPECT_EQ("", registry.GetAppData("qz"));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("GetAppData", "[qz] not registered")}));
  EXPECT_FALSE(registry.IsRegisteredApp("qz"));

  Register("qz");
  platform.ClearTrace();
  EXPECT_EQ("", registry.GetAppData("qz"));
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelInfoTest, KeepsDataAsTheBytesThatTheyAre) {
  Register("qz");
  std::string bytes = std::string("a\0\xFF%s\n", 6) + std::string(kMebibyte, 'x');
  EXPECT_TRUE(registry.SetAppData("qz", bytes));
  EXPECT_EQ(bytes, registry.GetAppData("qz"));
}

TEST_F(AppDataChannelInfoTest, KeepsApplicationsApart) {
  Register("qz");
  Register("qz");
  Register("welcome");
  registry.SetAppData("qz", "of qz");
  EXPECT_EQ("", registry.GetAppData("welcome"));
  EXPECT_EQ(0, registry.UnregisterApp("welcome"));
  EXPECT_FALSE(registry.IsRegisteredApp("welcome"));
  EXPECT_EQ(2U, registry.m_appDataMap.at("qz").count);
  EXPECT_EQ("of qz", registry.GetAppData("qz"));
}

TEST_F(AppDataChannelInfoTest, UnregisterAllDropsEveryApplicationWhateverItsCount) {
  Register("qz");
  Register("qz");
  Register("welcome");
  registry.SetAppData("qz", "sent");
  platform.ClearTrace();
  registry.UnregisterAll();
  EXPECT_TRUE(registry.m_appDataMap.empty());
  EXPECT_FALSE(registry.IsRegisteredApp("qz"));
  EXPECT_FALSE(registry.IsRegisteredApp("welcome"));
  EXPECT_TRUE(LoggedExactly(kTag, {}));
  EXPECT_EQ(kBuiltInApps, registry.m_appList);

  bool alreadyRegistered = true;
  EXPECT_EQ(0, registry.RegisterApp("qz", alreadyRegistered));
  EXPECT_FALSE(alreadyRegistered);
  EXPECT_EQ("", registry.GetAppData("qz"));
}

TEST_F(AppDataChannelInfoTest, ResetDropsEveryApplicationAndKeepsTheAllowedNames) {
  Register("qz");
  Register("qz");
  platform.ClearTrace();
  registry.Reset();
  EXPECT_TRUE(registry.m_appDataMap.empty());
  EXPECT_EQ(kBuiltInApps, registry.m_appList);
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelInfoTest, ClearDropsTheApplicationsAndTheAllowedNames) {
  Register("qz");
  platform.ClearTrace();
  registry.clear();
  EXPECT_TRUE(registry.m_appDataMap.empty());
  EXPECT_TRUE(registry.m_appList.empty());
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelInfoTest, LogsNothingForTheTests) {
  registry.IsValidAppName("qz");
  registry.IsValidAppName("nobody");
  registry.IsRegisteredApp("qz");
  registry.IsRegisteredApp("nobody");
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelInfoTest, LogsNamesAsTheyAreHoweverLong) {
  const std::string name = "%s%n%d" + std::string(kMebibyte, 'x');
  EXPECT_EQ(-20, Register(name));
  EXPECT_TRUE(LoggedExactly(kTag, {Line("RegisterApp", "[" + name + "] invalid")}));
}

TEST_F(AppDataChannelInfoTest, PublicOperationsWaitForTheLock) {
  bool alreadyRegistered = false;
  EXPECT_TRUE(AllWaitFor(
      registry.m_mutex,
      {[&] { registry.IsValidAppName("qz"); },
       // Of an allowed name, whose validity test takes the lock as well.
       [&] { registry.RegisterApp("qz", alreadyRegistered); },
       [&] { registry.UnregisterApp("welcome"); }, [&] { registry.IsRegisteredApp("qz"); },
       [&] { registry.GetAppData("qz"); }, [&] { registry.SetAppData("qz", "x"); },
       [&] { registry.UnregisterAll(); }, [&] { registry.Reset(); }}));
}

TEST_F(AppDataChannelInfoTest, TheLockIsRecursive) {
  const std::lock_guard<std::recursive_mutex> lock(registry.m_mutex);
  EXPECT_EQ(0, Register("qz"));
  EXPECT_TRUE(registry.SetAppData("qz", "sent"));
  EXPECT_EQ("sent", registry.GetAppData("qz"));
  EXPECT_EQ(0, registry.UnregisterApp("qz"));
  registry.Reset();
}

TEST_F(AppDataChannelInfoTest, CountsTheRegistrationsOfTwoThreadsExactly) {
  constexpr unsigned kTimes = 200;
  std::atomic<unsigned> first{0};
  const auto registerOften = [this, &first] {
    for (unsigned i = 0; i < kTimes; ++i) {
      bool alreadyRegistered = true;
      EXPECT_EQ(0, registry.RegisterApp("qz", alreadyRegistered));
      if (!alreadyRegistered) ++first;
    }
  };
  const auto unregisterOften = [this] {
    for (unsigned i = 0; i < kTimes; ++i) EXPECT_EQ(0, registry.UnregisterApp("qz"));
  };

  auto other = std::async(std::launch::async, registerOften);
  registerOften();
  other.get();
  EXPECT_EQ(1U, first);
  EXPECT_EQ(2 * kTimes, registry.m_appDataMap.at("qz").count);

  other = std::async(std::launch::async, unregisterOften);
  unregisterOften();
  other.get();
  EXPECT_FALSE(registry.IsRegisteredApp("qz"));
}

TEST_F(AppDataChannelInfoTest, ServesTwoThreadsAtOnce) {
  constexpr unsigned kTimes = 300;
  const std::string one(3000, '1');
  const std::string two(5000, '2');
  // The bus thread's part.
  auto writer = std::async(std::launch::async, [&] {
    for (unsigned i = 0; i < kTimes; ++i) {
      Register("qz");
      registry.SetAppData("qz", one);
      registry.SetAppData("qz", two);
      registry.IsValidAppName("welcome");
      if (i % 3 == 0) registry.UnregisterAll();
      registry.UnregisterApp("qz");
    }
  });
  // The worker's part.
  std::vector<std::string> seen;
  for (unsigned i = 0; i < kTimes; ++i) {
    registry.IsRegisteredApp("qz");
    seen.push_back(registry.GetAppData("qz"));
  }
  writer.get();
  EXPECT_TRUE(std::all_of(seen.begin(), seen.end(), [&](const std::string& data) {
    return data.empty() || data == one || data == two;
  }));
}

TEST(DBusNamesTest, AreTheInterfacesAndComeWithEveryHeaderOfThePlugin) {
  using namespace AppDataChannel;
  EXPECT_EQ("register_app", DBUS_METHOD_NAME_REGISTER_APP);
  EXPECT_EQ("unregister_app", DBUS_METHOD_NAME_UNREGISTER_APP);
  EXPECT_EQ("send_data", DBUS_METHOD_NAME_SEND_DATA);
  EXPECT_EQ("get_cloud_connection", DBUS_METHOD_NAME_GET_CLOUD_CONNECTION);
  EXPECT_EQ("get_thing_information", DBUS_METHOD_NAME_GET_THING_INFO);
  EXPECT_EQ("send_event", DBUS_SIGNAL_NAME_SEND_EVENT);
  EXPECT_EQ("cloud_connection_changed", DBUS_SIGNAL_NAME_CLOUD_CONNECTION_CHANGED);
  EXPECT_EQ("dbus_server_ready", DBUS_SIGNAL_NAME_DBUS_SERVER_READY);
}
