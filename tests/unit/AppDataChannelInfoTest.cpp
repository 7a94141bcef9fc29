#include "AppDataChannelInfo.h"

#include <atomic>
#include <cstddef>
#include <future>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "PlatformTest.h"

using AppDataChannel::AppDataChannelInfo;

namespace {

const std::set<std::string> kBuiltInApps = {
    "lanternapp",       "welcome",     "keyringservice", "qz",          "galleryapp",
    "vexBrowser",       "pocketrelay", "handset-server", "panelmosaic", "brightroomapp",
    "lantern-pz-agent", "tunerapp",    "qmap",           "drelservice", "trace-pz-agent"};

// All of the registry's lines are errors by level, and none ends with a line feed.
ExpectedLog Line(const std::string& function, const std::string& message) {
  return {6, "TVCONTROL_A", "AppDataChannelInfo.cpp", function, message};
}

// What RegisterApp returns, and what it wrote, if anything, over what was there before.
std::pair<int, bool> Register(AppDataChannelInfo& registry, const std::string& name, bool before) {
  bool alreadyRegistered = before;
  const int code = registry.RegisterApp(name, alreadyRegistered);
  return {code, alreadyRegistered};
}

const std::pair<int, bool> kFirst = {0, false};
const std::pair<int, bool> kAgain = {0, true};

}  // namespace

// A registry on a device that has the release file.
class AppDataChannelInfoTest : public PlatformTest {
 protected:
  // Registers it once or more often, and leaves no line of that.
  void Register(const std::string& name, int times = 1) {
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ(i == 0 ? kFirst : kAgain, ::Register(registry, name, i == 0));
    }
    platform.ClearTrace();
  }

  // The registry refuses the name, writes no answer and logs that.
  void ExpectInvalid(const std::string& name) {
    EXPECT_FALSE(registry.IsValidAppName(name));
    for (const bool before : {false, true}) {
      platform.ClearTrace();
      EXPECT_EQ((std::pair<int, bool>(-20, before)), ::Register(registry, name, before));
      EXPECT_TRUE(LoggedExactly({Line("RegisterApp", "[" + name + "] invalid")}));
    }
    EXPECT_FALSE(registry.IsRegisteredApp(name));
  }

  bool releaseFile = (platform.SetReleaseFileExists(true), true);
  AppDataChannelInfo registry;
};

TEST_F(AppDataChannelInfoTest, AllowsExactlyTheFifteenBuiltInApplications) {
  EXPECT_EQ(15U, kBuiltInApps.size());
  EXPECT_EQ(kBuiltInApps, registry.m_appList);
  for (const std::string& name : kBuiltInApps) {
    EXPECT_TRUE(registry.IsValidAppName(name)) << name;
    Register(name);
  }
}

TEST_F(AppDataChannelInfoTest, AllowsTheDiagnosticsMenuOnlyWithoutTheReleaseFile) {
  EXPECT_EQ(std::vector<std::string>{"access(/etc/release, 0)"}, platform.Calls());  // 0: F_OK
  platform.SetReleaseFileExists(false);
  AppDataChannelInfo openRegistry;
  std::set<std::string> names = kBuiltInApps;
  names.insert("diag-menu");
  EXPECT_EQ(names, openRegistry.m_appList);
  EXPECT_EQ(kFirst, ::Register(openRegistry, "diag-menu", true));
  EXPECT_EQ(kFirst, ::Register(openRegistry, "qz", true));
  Register("qz");

  // The file is asked for once, at construction.
  ExpectInvalid("diag-menu");
  registry.Reset();
  ExpectInvalid("diag-menu");
  EXPECT_TRUE(platform.Calls().empty());
}

TEST_F(AppDataChannelInfoTest, ComparesNamesByteByByte) {
  for (const std::string name :
       {"LANTERNAPP", "Lanternapp", "lanternApp", "lanternapp ", " lanternapp", "lanternap",
        "lanternappp", "vexbrowser", "QZ", "qz\n", "\xC3\xB0qz", "", "diag-menu", "signinStatus"}) {
    ExpectInvalid(name);
  }
  const std::string withNul("qz\0", 3);
  EXPECT_FALSE(registry.IsValidAppName(withNul));
  EXPECT_EQ(-20, ::Register(registry, withNul, false).first);
  EXPECT_TRUE(registry.m_appDataMap.empty());
}

TEST_F(AppDataChannelInfoTest, LogsNamesAsTheyAreHoweverLong) {
  ExpectInvalid("%s%n%d" + std::string(1 << 20, 'x'));
}

TEST_F(AppDataChannelInfoTest, CountsRegistrationsAndKeepsDataUntilTheLastUnregistration) {
  for (const int round : {1, 2}) {  // the second one starts afresh
    SCOPED_TRACE(round);
    platform.ClearTrace();
    EXPECT_EQ(kFirst, ::Register(registry, "qz", true));
    EXPECT_TRUE(registry.IsRegisteredApp("qz"));
    EXPECT_EQ("", registry.GetAppData("qz"));
    EXPECT_EQ(kAgain, ::Register(registry, "qz", false));
    EXPECT_EQ(kAgain, ::Register(registry, "qz", false));
    EXPECT_EQ(3U, registry.m_appDataMap.at("qz").count);
    EXPECT_TRUE(registry.SetAppData("qz", "sent"));
    for (const bool remains : {true, true, false}) {
      EXPECT_EQ(0, registry.UnregisterApp("qz"));
      EXPECT_EQ(remains, registry.IsRegisteredApp("qz"));
      if (remains) {
        EXPECT_EQ("sent", registry.GetAppData("qz"));
      }
    }
    EXPECT_TRUE(LoggedExactly({Line("RegisterApp", "[qz] is registered now"),
                               Line("RegisterApp", "[qz] is already registered (count: 2)"),
                               Line("RegisterApp", "[qz] is already registered (count: 3)"),
                               Line("UnregisterApp", "[qz] is unregistered (count: 2)"),
                               Line("UnregisterApp", "[qz] is unregistered (count: 1)"),
                               Line("UnregisterApp", "[qz] is unregistered now")}));
  }
}

TEST_F(AppDataChannelInfoTest, UnregistersNeitherAnAllowedNorAnUnknownApplicationThatIsNotThere) {
  for (const bool wasThere : {false, true}) {
    if (wasThere) {
      Register("qz");
      EXPECT_EQ(0, registry.UnregisterApp("qz"));
    }
    platform.ClearTrace();
    EXPECT_EQ(-20, registry.UnregisterApp("qz"));
    EXPECT_EQ(-20, registry.UnregisterApp("nobody"));
    EXPECT_TRUE(LoggedExactly({Line("UnregisterApp", "[qz] not registered"),
                               Line("UnregisterApp", "[nobody] not registered")}));
  }
}

TEST_F(AppDataChannelInfoTest, ReplacesDataAsTheBytesThatTheyAreAndLeavesTheCount) {
  Register("qz", 2);
  const std::string bytes = std::string("a\0\xFF%s\n", 6) + std::string(1 << 20, 'x');
  for (const std::string& data :
       {std::string("first"), bytes, std::string("second"), std::string()}) {
    EXPECT_TRUE(registry.SetAppData("qz", data));
    EXPECT_EQ(data, registry.GetAppData("qz"));
  }
  EXPECT_EQ(2U, registry.m_appDataMap.at("qz").count);
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(AppDataChannelInfoTest, StoresNoDataForAnApplicationThatIsNotRegistered) {
  platform.ClearTrace();
  EXPECT_FALSE(registry.SetAppData("qz", "early"));
  EXPECT_FALSE(registry.SetAppData("nobody", "early"));
  EXPECT_EQ("", registry.GetAppData("qz"));
  EXPECT_TRUE(LoggedExactly({Line("SetAppData", "[qz] not registered"),
                             Line("SetAppData", "[nobody] not registered"),
                             Line("GetAppData", "[qz] not registered")}));
  EXPECT_FALSE(registry.IsRegisteredApp("qz"));
  Register("qz");
  EXPECT_EQ("", registry.GetAppData("qz"));
  registry.IsValidAppName("qz");
  registry.IsValidAppName("nobody");
  registry.IsRegisteredApp("qz");
  registry.IsRegisteredApp("nobody");
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(AppDataChannelInfoTest, KeepsApplicationsApart) {
  Register("qz", 2);
  Register("welcome");
  registry.SetAppData("qz", "of qz");
  EXPECT_EQ("", registry.GetAppData("welcome"));
  EXPECT_EQ(0, registry.UnregisterApp("welcome"));
  EXPECT_FALSE(registry.IsRegisteredApp("welcome"));
  EXPECT_EQ(2U, registry.m_appDataMap.at("qz").count);
  EXPECT_EQ("of qz", registry.GetAppData("qz"));
}

TEST_F(AppDataChannelInfoTest, DropsEveryApplicationWhateverItsCountAndOnlyClearTheAllowedNames) {
  for (const auto drop : {&AppDataChannelInfo::UnregisterAll, &AppDataChannelInfo::Reset,
                          &AppDataChannelInfo::clear}) {
    Register("qz", 2);
    Register("welcome");
    registry.SetAppData("qz", "sent");
    (registry.*drop)();
    EXPECT_TRUE(registry.m_appDataMap.empty());
    EXPECT_FALSE(registry.IsRegisteredApp("qz"));
    EXPECT_TRUE(LoggedExactly({}));
    const bool isClear = drop == &AppDataChannelInfo::clear;
    EXPECT_EQ(isClear ? std::set<std::string>() : kBuiltInApps, registry.m_appList);
    if (isClear) continue;
    Register("qz");
    EXPECT_EQ("", registry.GetAppData("qz"));
    registry.UnregisterAll();
  }
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

TEST_F(AppDataChannelInfoTest, CountsTheRegistrationsOfTwoThreadsExactly) {
  constexpr unsigned kTimes = 200;
  std::atomic<unsigned> first{0};
  const auto registerOften = [this, &first] {
    for (unsigned i = 0; i < kTimes; ++i) {
      if (::Register(registry, "qz", true) == kFirst) ++first;
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
