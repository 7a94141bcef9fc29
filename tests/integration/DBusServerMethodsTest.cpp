#include <stdexcept>

#include "DBusServerTest.h"

namespace {

using Strings = std::vector<std::string>;

constexpr const char* kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";

GVariant* text(const char* value) {
  return g_variant_new("(s)", value);
}

GVariant* texts(const char* first, const char* second) {
  return g_variant_new("(ss)", first, second);
}

class DBusServerMethodsTest : public DBusServerTest {
 protected:
  void SetUp() override {
    DBusServerTest::SetUp();
    StartServer();
    client = NewClient();
  }

  void TearDown() override {
    platform.ClearFailures();
    DBusServerTest::TearDown();
  }

  std::string Value(const std::string& method, GVariant* parameters = nullptr) {
    const Reply reply = Call(*client, method, parameters);
    EXPECT_EQ("", reply.error);
    return reply.value;
  }

  std::unique_ptr<BusClient> client;
};

TEST_F(DBusServerMethodsTest, RegisterAppRunsFromTheCallToTheServiceAndBack) {
  EXPECT_EQ("(0,)", Value("register_app", text("qz")));
  EXPECT_EQ((Strings{
                "4 TVCONTROL_A AppDataChannelControl.cpp RegisterApp > Entered",
                "6 TVCONTROL_A AppDataChannelInfo.cpp RegisterApp [qz] is registered now",
                "4 THING_COMMON LumoWrapper.cpp RegisterProperty > Entered",
                "lumo_service_register_property(qz, 3, 0, 0, \"\")",
                "3 THING_COMMON LumoWrapper.cpp executeFunctionAndRetryIfFailed (1/3) success.",
                "4 THING_COMMON LumoWrapper.cpp RegisterProperty > Left",
                "4 TVCONTROL_A AppDataChannelControl.cpp RegisterApp [qz] register: 0",
                "4 TVCONTROL_A AppDataChannelControl.cpp RegisterApp > Left",
                "4 TVCONTROL_A DBusServer.cpp register_app [qz] RegisterApp (ret: 0)",
            }),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerInfo("register_app", "[qz] RegisterApp (ret: 0)")));
  EXPECT_TRUE(LoggedOnce(
      {6, "TVCONTROL_A", "AppDataChannelInfo.cpp", "RegisterApp", "[qz] is registered now"}));
}

TEST_F(DBusServerMethodsTest, ARepeatedRegisterAppRepliesZero) {
  EXPECT_EQ("(0,)", Value("register_app", text("qz")));
  platform.ClearTrace();
  EXPECT_EQ("(0,)", Value("register_app", text("qz")));
  EXPECT_EQ(Strings{}, platform.Calls());
  EXPECT_TRUE(LoggedOnce({6, "TVCONTROL_A", "AppDataChannelInfo.cpp", "RegisterApp",
                          "[qz] is already registered (count: 2)"}));
  EXPECT_TRUE(LoggedOnce(ServerInfo("register_app", "[qz] RegisterApp (ret: 0)")));
}

TEST_F(DBusServerMethodsTest, RegisterAppOfANameThatIsNotAllowedRepliesMinus20) {
  EXPECT_EQ("(-20,)", Value("register_app", text("nobody")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("register_app", "[nobody] RegisterApp (ret: -20)")));
  EXPECT_TRUE(
      LoggedOnce({6, "TVCONTROL_A", "AppDataChannelInfo.cpp", "RegisterApp", "[nobody] invalid"}));
  EXPECT_EQ(Strings{}, platform.Calls());
}

TEST_F(DBusServerMethodsTest, RegisterAppRepliesMinus100WhenTheServiceRefusesTheProperty) {
  platform.Fail("lumo_service_register_property");
  EXPECT_EQ("(-100,)", Value("register_app", text("qz")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("register_app", "[qz] RegisterApp (ret: -100)")));
  EXPECT_EQ("(-20,)", Value("send_data", texts("qz", "1")));
}

TEST_F(DBusServerMethodsTest, NamesAreLoggedAsTheyAre) {
  EXPECT_EQ("(-20,)", Value("register_app", text("100%s%n äß")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("register_app", "[100%s%n äß] RegisterApp (ret: -20)")));
  EXPECT_EQ("(-20,)", Value("register_app", text("")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("register_app", "[] RegisterApp (ret: -20)")));
}

TEST_F(DBusServerMethodsTest, UnregisterAppRepliesTheRegistrysCode) {
  Value("register_app", text("qz"));
  platform.ClearTrace();
  EXPECT_EQ("(0,)", Value("unregister_app", text("qz")));
  EXPECT_EQ((Strings{
                "6 TVCONTROL_A AppDataChannelInfo.cpp UnregisterApp [qz] is unregistered now",
                "4 THING_COMMON LumoWrapper.cpp UnregisterProperty > Entered",
                "lumo_service_unregister_property(qz)",
                "3 THING_COMMON LumoWrapper.cpp executeFunctionAndRetryIfFailed (1/3) success.",
                "4 THING_COMMON LumoWrapper.cpp UnregisterProperty > Left",
                "4 TVCONTROL_A AppDataChannelControl.cpp UnregisterApp [qz] unregister: 0",
                "4 TVCONTROL_A DBusServer.cpp unregister_app [qz] UnregisterApp (ret: 0)",
            }),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerInfo("unregister_app", "[qz] UnregisterApp (ret: 0)")));

  EXPECT_EQ("(-20,)", Value("unregister_app", text("qz")));
  EXPECT_TRUE(LoggedOnce(ServerInfo("unregister_app", "[qz] UnregisterApp (ret: -20)")));
}

TEST_F(DBusServerMethodsTest, SendDataReachesTheCloudAndTheServerLogsNothing) {
  Value("register_app", text("qz"));
  platform.ClearTrace();
  EXPECT_EQ("(0,)", Value("send_data", texts("qz", "{\"a\": 1}")));
  EXPECT_EQ((Strings{
                "4 THING_COMMON LumoWrapper.cpp NotifyProperty > Entered",
                "lumo_service_notify(service, [qz (type 3) = \"{\"a\": 1}\"])",
                "4 THING_COMMON LumoWrapper.cpp NotifyProperty > Left",
                "4 TVCONTROL_A AppDataChannelControl.cpp NotifyData [qz] sent",
            }),
            SummariesOfThisThread());
}

TEST_F(DBusServerMethodsTest, SendDataOfAnUnregisteredAppRepliesMinus20) {
  EXPECT_EQ("(-20,)", Value("send_data", texts("qz", "1")));
  EXPECT_TRUE(platform.Notifications().empty());
}

TEST_F(DBusServerMethodsTest, SendDataTakesAMegabyteAndTheEmptyText) {
  Value("register_app", text("qz"));
  const std::string large(1024 * 1024, 'x');
  EXPECT_EQ("(0,)", Value("send_data", texts("qz", large.c_str())));
  EXPECT_EQ("(0,)", Value("send_data", texts("qz", "")));
  const std::vector<fake::Notification> notifications = platform.Notifications();
  ASSERT_EQ(2U, notifications.size());
  EXPECT_EQ(std::vector{fake::Property::String("qz", large)}, notifications[0].properties);
  EXPECT_EQ(std::vector{fake::Property::String("qz", "")}, notifications[1].properties);
}

TEST_F(DBusServerMethodsTest, GetCloudConnectionRepliesTheSigninStatus) {
  EXPECT_EQ("(false,)", Value("get_cloud_connection"));
  SetFromCloud({fake::Property::Bool("signinStatus", true)});
  EXPECT_EQ("(true,)", Value("get_cloud_connection"));
  SetFromCloud({fake::Property::Bool("signinStatus", false)});
  EXPECT_EQ("(false,)", Value("get_cloud_connection"));
}

TEST_F(DBusServerMethodsTest, GetThingInformationRepliesTheEmptyTextUntilTheCloudHasSetIt) {
  EXPECT_EQ("('',)", Value("get_thing_information"));
  EXPECT_TRUE(LoggedOnce({6, "TVCONTROL_A", "AppDataChannelControl.cpp", "GetThingInfo",
                          "signup info is not initialized\n"}));
}

TEST_F(DBusServerMethodsTest, GetThingInformationRepliesStyledText) {
  SetFromCloud({fake::Property::Json("signupInfo", R"({"user":"ä","id":7})")});
  EXPECT_EQ(R"(('{\n\t"id" : 7,\n\t"user" : "\\u00e4"\n}\n',))", Value("get_thing_information"));
}

TEST_F(DBusServerMethodsTest, GetThingInformationThatDBusCannotCarryIsTheEmptyText) {
  SetFromCloud({fake::Property::Json("signupInfo", "{\n// \xff\n\"id\":7}")});
  EXPECT_EQ("('',)", Value("get_thing_information"));
  EXPECT_TRUE(LoggedOnce(
      ServerError("get_thing_info", "thing information is too long or not valid UTF-8")));
  SetFromCloud({fake::Property::Json("signupInfo", "{\"id\":7}")});
  EXPECT_EQ("('{\\n\\t\"id\" : 7\\n}\\n',)", Value("get_thing_information"));
}

TEST_F(DBusServerMethodsTest, GetThingInformationCarriesAMegabyte) {
  const std::string large(1024 * 1024, 'x');
  SetFromCloud({fake::Property::Json("signupInfo", "{\"id\":\"" + large + "\"}")});
  EXPECT_EQ("('{\\n\\t\"id\" : \"" + large + "\"\\n}\\n',)", Value("get_thing_information"));
}

TEST_F(DBusServerMethodsTest, GetThingInformationThatIsTooLongForTheBusIsTheEmptyText) {
  const std::string tooLong(16 * 1024 * 1024, 'x');
  SetFromCloud({fake::Property::Json("signupInfo", "{\"id\":\"" + tooLong + "\"}")});
  EXPECT_EQ("('',)", Value("get_thing_information"));
  EXPECT_TRUE(LoggedOnce(
      ServerError("get_thing_info", "thing information is too long or not valid UTF-8")));
}

TEST_F(DBusServerMethodsTest, TheHandlersOwnNameIsNoMethod) {
  EXPECT_EQ(kUnknownMethod, Call(*client, "get_thing_info").error);
  EXPECT_EQ(Strings{}, SummariesOfThisThread());
}

TEST_F(DBusServerMethodsTest, UnknownMethodsInterfacesAndObjectsAreRefusedByGDBus) {
  EXPECT_EQ(kUnknownMethod, Call(*client, "REGISTER_APP", text("qz")).error);
  EXPECT_EQ(kUnknownMethod, WaitFor(client->Call("register_app", text("qz"), BusClient::kCallLimit,
                                                 kBusName, kObjectPath, "org.tizen.other"))
                                .error);
  EXPECT_EQ(kUnknownMethod, WaitFor(client->Call("register_app", text("qz"), BusClient::kCallLimit,
                                                 kBusName, "/org/tizen"))
                                .error);
  EXPECT_EQ(Strings{}, SummariesOfThisThread());
}

TEST_F(DBusServerMethodsTest, WrongSignaturesAreRefusedByGDBus) {
  EXPECT_EQ(kInvalidArgs, Call(*client, "register_app").error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "register_app", g_variant_new("(i)", 1)).error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "register_app", texts("qz", "qz")).error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "unregister_app", g_variant_new("(o)", "/qz")).error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "send_data", text("qz")).error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "send_data", g_variant_new("(ay)", nullptr)).error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "get_cloud_connection", text("")).error);
  EXPECT_EQ(kInvalidArgs, Call(*client, "get_thing_information", text("")).error);
  EXPECT_EQ(Strings{}, SummariesOfThisThread());
}

TEST_F(DBusServerMethodsTest, ThereAreNoPropertiesToReadOrWrite) {
  const Reply read =
      WaitFor(client->Call("Get", texts(kInterface, "connected"), BusClient::kCallLimit, kBusName,
                           kObjectPath, "org.freedesktop.DBus.Properties"));
  EXPECT_EQ(kInvalidArgs, read.error);
  EXPECT_EQ(Strings{}, SummariesOfThisThread());
}

TEST_F(DBusServerMethodsTest, ACallThatThrowsIsAnsweredWithAnErrorAndTheNextOneIsServed) {
  const auto registerQz = [this] { return Call(*client, "register_app", text("qz")); };
  platform.OnCall("lumo_service_register_property", [] { throw std::runtime_error("no memory"); });
  EXPECT_EQ("org.freedesktop.DBus.Error.Failed", registerQz().error);
  EXPECT_TRUE(LoggedOnce(ServerError("handle_method_call", "exception: no memory")));
  platform.OnCall("lumo_service_register_property", [] { throw 1; });
  EXPECT_EQ("org.freedesktop.DBus.Error.Failed", registerQz().error);
  EXPECT_TRUE(LoggedOnce(ServerError("handle_method_call", "unknown exception")));
  platform.OnCall("lumo_service_register_property", nullptr);
  EXPECT_EQ("(0,)", registerQz().value);
}

TEST_F(DBusServerMethodsTest, ACallerThatVanishesBeforeItsReplyHurtsNobody) {
  {
    const auto vanishing = NewClient();
    vanishing->Send("register_app", text("qz"));
    vanishing->Send("get_thing_information");
  }
  ASSERT_TRUE(RunUntil([this] { return platform.CountLogs("[qz] RegisterApp (ret: 0)") == 1; }));
  EXPECT_EQ("(0,)", Value("send_data", texts("qz", "1")));
}

TEST_F(DBusServerMethodsTest, TwoHundredConnectionsCallAtOnce) {
  constexpr std::size_t kConnections = 200;
  std::vector<std::unique_ptr<BusClient>> clients;
  for (std::size_t i = 0; i < kConnections; ++i) clients.push_back(NewClient());
  std::vector<std::future<Reply>> replies;
  for (const auto& caller : clients) replies.push_back(caller->Call("register_app", text("qz")));
  for (auto& reply : replies) EXPECT_EQ("(0,)", WaitFor(std::move(reply)).value);
  EXPECT_TRUE(
      LoggedOnce({6, "TVCONTROL_A", "AppDataChannelInfo.cpp", "RegisterApp",
                  "[qz] is already registered (count: " + std::to_string(kConnections) + ")"}));
  EXPECT_EQ(kConnections, platform.CountLogs("[qz] RegisterApp (ret: 0)"));
}

}  // namespace
