#include <stdexcept>

#include "DBusServerTest.h"

namespace {

using fake::Property;

constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

const Lines kNothing;

using DBusServerMethodsTest = ReadyDBusServerTest;

TEST_F(DBusServerMethodsTest, RegisterAppRunsFromTheCallToTheServiceAndBack) {
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
  EXPECT_EQ(kControl.Frame("RegisterApp",
                           Lines{kRegistry.Error("RegisterApp", "[qz] is registered now")} +
                               RegisterPropertyLines("qz, 3, 0, 0, \"\"") +
                               Lines{kControl.Info("RegisterApp", "[qz] register: 0")}) +
                Lines{kServer.Info("register_app", "[qz] RegisterApp (ret: 0)")},
            Written());
}

TEST_F(DBusServerMethodsTest, RegisterAppRepliesTheCodeAndLogsTheNameAsItIs) {
  const struct {
    const char* name;
    std::string code;
    const char* reason;
  } cases[] = {{"qz", "0", "is registered now"},
               {"qz", "0", "is already registered (count: 2)"},
               {"nobody", "-20", "invalid"},
               {"100%s%n äß", "-20", "invalid"},
               {"", "-20", "invalid"}};
  for (const auto& registration : cases) {
    SCOPED_TRACE(registration.name + std::string(" ") + registration.reason);
    const std::string name = "[" + std::string(registration.name) + "] ";
    platform.ClearTrace();
    EXPECT_EQ("(" + registration.code + ",)", Call("register_app", {registration.name}));
    EXPECT_TRUE(LoggedOnce(kRegistry.Error("RegisterApp", name + registration.reason)));
    EXPECT_TRUE(LoggedOnce(
        kServer.Info("register_app", name + "RegisterApp (ret: " + registration.code + ")")));
    const bool isFirst = registration.reason == std::string("is registered now");
    EXPECT_EQ(isFirst ? 1U : 0U, platform.Calls().size());
  }
}

TEST_F(DBusServerMethodsTest, RegisterAppRepliesMinus100WhenTheServiceRefusesTheProperty) {
  platform.Fail("lumo_service_register_property");
  EXPECT_EQ("(-100,)", Call("register_app", {"qz"}));
  EXPECT_TRUE(LoggedOnce(kServer.Info("register_app", "[qz] RegisterApp (ret: -100)")));
  EXPECT_EQ("(-20,)", Call("send_data", {"qz", "1"}));
}

TEST_F(DBusServerMethodsTest, UnregisterAppRepliesTheRegistrysCode) {
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
  platform.ClearTrace();
  EXPECT_EQ("(0,)", Call("unregister_app", {"qz"}));
  EXPECT_EQ((Lines{kRegistry.Error("UnregisterApp", "[qz] is unregistered now")} +
             UnregisterPropertyLines("qz") +
             Lines{kControl.Info("UnregisterApp", "[qz] unregister: 0"),
                   kServer.Info("unregister_app", "[qz] UnregisterApp (ret: 0)")}),
            Written());
  EXPECT_EQ("(-20,)", Call("unregister_app", {"qz"}));
  EXPECT_TRUE(LoggedOnce(kServer.Info("unregister_app", "[qz] UnregisterApp (ret: -20)")));
}

TEST_F(DBusServerMethodsTest, SendDataReachesTheCloudAndTheServerLogsNothing) {
  EXPECT_EQ("(-20,)", Call("send_data", {"qz", "1"}));
  EXPECT_TRUE(platform.Notifications().empty());
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
  platform.ClearTrace();
  EXPECT_EQ("(0,)", Call("send_data", {"qz", "{\"a\": 1}"}));
  EXPECT_EQ(kWrapper.Frame("NotifyProperty",
                           {"lumo_service_notify(service, [qz (type 3) = \"{\"a\": 1}\"])"}) +
                Lines{kControl.Info("NotifyData", "[qz] sent")},
            Written());
}

TEST_F(DBusServerMethodsTest, SendDataTakesAMegabyteAndTheEmptyString) {
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
  for (const std::string& data : {std::string(1024 * 1024, 'x'), std::string()}) {
    EXPECT_EQ("(0,)", Call("send_data", {"qz", data}));
    EXPECT_EQ(std::vector{Property::String("qz", data)},
              platform.Notifications().back().properties);
  }
  EXPECT_EQ(2U, platform.Notifications().size());
}

TEST_F(DBusServerMethodsTest, GetCloudConnectionRepliesTheSigninStatus) {
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  SetFromCloud({Property::Bool("signinStatus", true)});
  EXPECT_EQ("(true,)", Call("get_cloud_connection"));
  SetFromCloud({Property::Bool("signinStatus", false)});
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
}

TEST_F(DBusServerMethodsTest, GetThingInformationRepliesStyledJsonOrTheEmptyString) {
  EXPECT_EQ("('',)", Call("get_thing_information"));
  EXPECT_TRUE(LoggedOnce(kControl.Error("GetThingInfo", "signup info is not initialized")));

  const std::string refused =
      kServer.Error("get_thing_info", "thing information is too long or not valid UTF-8");
  const std::string large(1024 * 1024, 'x');
  const struct {
    std::string set;
    std::string reply;
  } cases[] = {{R"({"user":"ä","id":7})", R"(('{\n\t"id" : 7,\n\t"user" : "\\u00e4"\n}\n',))"},
               {"{\n// \xff\n\"id\":7}", "('',)"},  // the comment is written out, too
               {"{\"id\":\"" + std::string(16 * 1024 * 1024, 'x') + "\"}", "('',)"},
               {"{\"id\":\"" + large + "\"}", "('{\\n\\t\"id\" : \"" + large + "\"\\n}\\n',)"}};
  for (const auto& info : cases) {
    SCOPED_TRACE(info.set.substr(0, 40));
    platform.ClearTrace();
    SetFromCloud({Property::Json("signupInfo", info.set)});
    EXPECT_TRUE(info.reply == Call("get_thing_information"));
    EXPECT_EQ(info.reply == "('',)", LoggedOnce(refused));
  }
}

TEST_F(DBusServerMethodsTest, UnknownMethodsInterfacesAndObjectsAreRefusedByGDBus) {
  const auto callAt = [this](const char* method, const char* path, const char* interface) {
    return WaitFor(client->Call(method, g_variant_new("(ss)", kInterface, "connected"),
                                BusClient::kCallLimit, kBusName, path, interface));
  };
  EXPECT_EQ(kUnknownMethod, Call("get_thing_info"));  // the name of the handler
  EXPECT_EQ(kUnknownMethod, Call("REGISTER_APP", {"qz"}));
  EXPECT_EQ(kUnknownMethod, callAt("register_app", kObjectPath, "org.tizen.other"));
  EXPECT_EQ(kUnknownMethod, callAt("register_app", "/org/tizen", kInterface));
  // There are no properties.
  EXPECT_EQ(kInvalidArgs, callAt("Get", kObjectPath, "org.freedesktop.DBus.Properties"));
  EXPECT_EQ(kNothing, Written());
}

TEST_F(DBusServerMethodsTest, WrongSignaturesAreRefusedByGDBus) {
  EXPECT_EQ(kInvalidArgs, Call("register_app"));
  EXPECT_EQ(kInvalidArgs, Call("register_app", g_variant_new("(i)", 1)));
  EXPECT_EQ(kInvalidArgs, Call("register_app", {"qz", "qz"}));
  EXPECT_EQ(kInvalidArgs, Call("unregister_app", g_variant_new("(o)", "/qz")));
  EXPECT_EQ(kInvalidArgs, Call("send_data", {"qz"}));
  EXPECT_EQ(kInvalidArgs, Call("send_data", g_variant_new("(ay)", nullptr)));
  EXPECT_EQ(kInvalidArgs, Call("get_cloud_connection", {""}));
  EXPECT_EQ(kInvalidArgs, Call("get_thing_information", {""}));
  EXPECT_EQ(kNothing, Written());
}

TEST_F(DBusServerMethodsTest, ACallThatThrowsIsAnsweredWithAnErrorAndTheNextOneIsServed) {
  const char* const failed = "org.freedesktop.DBus.Error.Failed";
  platform.OnCall("lumo_service_register_property", [] { throw std::runtime_error("no memory"); });
  EXPECT_EQ(failed, Call("register_app", {"qz"}));
  EXPECT_TRUE(LoggedOnce(kServer.Error("handle_method_call", "exception: no memory")));
  platform.OnCall("lumo_service_register_property", [] { throw 1; });
  EXPECT_EQ(failed, Call("register_app", {"qz"}));
  EXPECT_TRUE(LoggedOnce(kServer.Error("handle_method_call", "unknown exception")));
  platform.OnCall("lumo_service_register_property", nullptr);
  EXPECT_EQ("(0,)", Call("register_app", {"qz"}));
}

TEST_F(DBusServerMethodsTest, ACallerThatVanishesBeforeItsReplyHurtsNobody) {
  {
    const auto vanishing = NewClient();
    vanishing->Send("register_app", g_variant_new("(s)", "qz"));
    vanishing->Send("get_thing_information");
  }
  ASSERT_TRUE(RunUntil([this] { return platform.CountLogs("[qz] RegisterApp (ret: 0)") == 1; }));
  EXPECT_EQ("(0,)", Call("send_data", {"qz", "1"}));
}

TEST_F(DBusServerMethodsTest, TwoHundredConnectionsCallAtOnce) {
  constexpr std::size_t kConnections = 200;
  std::vector<std::unique_ptr<BusClient>> clients(kConnections);
  std::vector<std::future<Reply>> replies;
  for (auto& caller : clients) caller = NewClient();
  for (const auto& caller : clients) {
    replies.push_back(caller->Call("register_app", g_variant_new("(s)", "qz")));
  }
  for (auto& reply : replies) EXPECT_EQ("(0,)", WaitFor(std::move(reply)));
  EXPECT_TRUE(
      LoggedOnce(kRegistry.Error("RegisterApp", "[qz] is already registered (count: 200)")));
  EXPECT_EQ(kConnections, platform.CountLogs("[qz] RegisterApp (ret: 0)"));
}

}  // namespace
