#include "AppDataChannelControl.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Gate.h"
#include "JsonValueAdaptor.h"
#include "PlatformTest.h"

using AppDataChannel::AppDataChannelControl;
using ThingCommon::JsonValueAdaptor;

namespace {

constexpr int kInfo = 4;
constexpr int kError = 6;
constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
const std::string kTag = "TVCONTROL_A";
const std::string kEntered = "> Entered\n";
const std::string kLeft = "> Left\n";

const std::string kCreateCall =
    "lumo_service_create(appdatachannel, appdatachannel service plugin for qivo-thing mapi. "
    "support ocf thing /zun/tv/appdata/* resources)";

ExpectedLog Info(const std::string& function, const std::string& message) {
  return {kInfo, kTag, "AppDataChannelControl.cpp", function, message};
}

ExpectedLog Error(const std::string& function, const std::string& message) {
  return {kError, kTag, "AppDataChannelControl.cpp", function, message};
}

// A line of the registry.
ExpectedLog RegistryLine(const std::string& function, const std::string& message) {
  return {kError, kTag, "AppDataChannelInfo.cpp", function, message};
}

std::string RegisterCall(const std::string& name, int type) {
  return "lumo_service_register_property(" + name + ", " + std::to_string(type) + ", 0, 0, \"\")";
}

std::string UnregisterCall(const std::string& name) {
  return "lumo_service_unregister_property(" + name + ")";
}

}  // namespace

class AppDataChannelControlTest : public PlatformTest {
 protected:
  AppDataChannelControlTest() { platform.ClearTrace(); }

  void TearDown() override {
    control.Destroy();
    control.Shutdown();
    PlatformTest::TearDown();
  }

  void CreateQuietly() {
    ASSERT_TRUE(control.Create());
    platform.ClearTrace();
  }

  void RegisterQuietly(const std::string& name) {
    ASSERT_EQ(0, control.RegisterApp(name));
    platform.ClearTrace();
  }

  void FailWith(const std::string& operation, const std::string& what = "no memory") {
    platform.OnCall(operation, [what] { throw std::runtime_error(what); });
  }

  // What the operation throws; "" when nothing.
  static std::string ThrownBy(const std::function<void()>& operation) {
    try {
      operation();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  void FailNoMore(const std::string& operation) { platform.OnCall(operation, nullptr); }

  AppDataChannelControl control;
};

// --- Create and Destroy

TEST_F(AppDataChannelControlTest, CreatesTheServiceThenRegistersTheThingsPropertiesInKeyOrder) {
  EXPECT_FALSE(control.IsCreated());
  EXPECT_TRUE(control.Create());
  EXPECT_TRUE(control.IsCreated());
  const std::vector<std::string> calls = {kCreateCall, RegisterCall("signinStatus", 0),
                                          RegisterCall("signupInfo", 4)};
  EXPECT_EQ(calls, platform.Calls());
  EXPECT_TRUE(LoggedExactly(
      kTag, {Info("Create", kEntered), Error("Create", "created\n"), Info("Create", kLeft)}));
}

TEST_F(AppDataChannelControlTest, IsCreatedOnlyAfterTheThingsPropertiesAreRegistered) {
  std::vector<bool> created;
  platform.OnCall("lumo_service_register_property",
                  [&] { created.push_back(control.IsCreated()); });
  EXPECT_TRUE(control.Create());
  EXPECT_EQ((std::vector<bool>{false, false}), created);
  EXPECT_EQ("6 TVCONTROL_A AppDataChannelControl.cpp Create created",
            platform.Summaries().at(platform.Summaries().size() - 2));
}

TEST_F(AppDataChannelControlTest, HandlesGetSetAndCancelButNoProtocolStatus) {
  CreateQuietly();
  const ThingCommon::_ServiceInfo& info = control.m_lumo_api.m_service_info;
  EXPECT_TRUE(info.get_handler);
  EXPECT_TRUE(info.set_handler);
  EXPECT_TRUE(info.cancel_handler);
  EXPECT_FALSE(info.protocol_status_handler);
  platform.DeliverProtocolStatus("coap", 1);
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelControlTest, ASecondCreateIsRefusedAndChangesNothing) {
  CreateQuietly();
  void* const service = platform.Service();
  EXPECT_FALSE(control.Create());
  EXPECT_TRUE(control.IsCreated());
  EXPECT_EQ(service, platform.Service());
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Create", kEntered), Error("Create", "already created\n"),
                                   Info("Create", kLeft)}));
}

TEST_F(AppDataChannelControlTest, WithoutAServiceNothingIsCreatedAndALaterCreateMayTryAgain) {
  platform.Fail("lumo_service_create", 1);
  EXPECT_FALSE(control.Create());
  EXPECT_FALSE(control.IsCreated());
  EXPECT_EQ(std::vector<std::string>{kCreateCall}, platform.Calls());
  EXPECT_TRUE(LoggedExactly(
      kTag, {Info("Create", kEntered), Error("createLumo", "fail to m_lumo_api.Create\n"),
             Error("Create", "fail to createLumo\n"), Info("Create", kLeft)}));

  platform.ClearTrace();
  EXPECT_TRUE(control.Create());
  EXPECT_TRUE(control.IsCreated());
}

TEST_F(AppDataChannelControlTest, IsCreatedAlsoWhenNoneOfTheThingsPropertiesRegisters) {
  platform.Fail("lumo_service_register_property");
  EXPECT_TRUE(control.Create());
  EXPECT_TRUE(control.IsCreated());
  EXPECT_TRUE(platform.Registrations().empty());
  EXPECT_TRUE(LoggedExactly(
      kTag, {Info("Create", kEntered), Error("Create", "created\n"), Info("Create", kLeft)}));
}

TEST_F(AppDataChannelControlTest, AThingPropertyThatIsRefusedDoesNotKeepTheNextOneOut) {
  constexpr unsigned kAttempts = 3;
  platform.Fail("lumo_service_register_property", kAttempts);
  EXPECT_TRUE(control.Create());
  ASSERT_EQ(1U, platform.Registrations().size());
  EXPECT_EQ("signupInfo", platform.Registrations()[0].name);
}

TEST_F(AppDataChannelControlTest, AnExceptionInCreatePassesOnAndLeavesNoServiceBehind) {
  FailWith("lumo_service_register_property");
  EXPECT_THROW(control.Create(), std::runtime_error);
  EXPECT_FALSE(control.IsCreated());
  EXPECT_EQ(0U, platform.LiveServices());
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Create", kEntered), Info("Create", kLeft)}));

  FailNoMore("lumo_service_register_property");
  // From another thread: the lock is free again.
  EXPECT_TRUE(std::async(std::launch::async, [this] { return control.Create(); }).get());
  EXPECT_EQ(1U, platform.LiveServices());
}

TEST_F(AppDataChannelControlTest, AnExceptionOfTheCleanUpDoesNotHideTheOneOfCreate) {
  FailWith("lumo_service_register_property", "the first");
  FailWith("lumo_service_destroy", "the second");
  EXPECT_EQ("the first", ThrownBy([this] { control.Create(); }));
  EXPECT_FALSE(control.IsCreated());
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Create", kEntered), Info("Create", kLeft)}));
  FailNoMore("lumo_service_register_property");
  FailNoMore("lumo_service_destroy");
  EXPECT_TRUE(std::async(std::launch::async, [this] { return control.Create(); }).get());
}

TEST_F(AppDataChannelControlTest, DestroyUnregistersTheThingsPropertiesThenDestroysTheService) {
  CreateQuietly();
  RegisterQuietly("qz");
  control.Destroy();
  EXPECT_FALSE(control.IsCreated());
  // Those of the applications go with the service.
  const std::vector<std::string> calls = {UnregisterCall("signinStatus"),
                                          UnregisterCall("signupInfo"),
                                          "lumo_service_destroy(appdatachannel)"};
  EXPECT_EQ(calls, platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Destroy", kEntered), Info("Destroy", kLeft)}));
}

TEST_F(AppDataChannelControlTest, DestroyEmptiesTheRegistryAfterTheServiceIsGone) {
  CreateQuietly();
  RegisterQuietly("qz");
  RegisterQuietly("qz");
  RegisterQuietly("welcome");
  bool registered = false;
  bool created = false;
  platform.OnCall("lumo_service_destroy", [&] {
    registered = control.m_app_info.IsRegisteredApp("qz");
    created = control.IsCreated();
  });
  control.Destroy();
  EXPECT_TRUE(registered);
  EXPECT_TRUE(created);  // the flag falls last
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("welcome"));
}

TEST_F(AppDataChannelControlTest, ASecondDestroyDoesNothing) {
  CreateQuietly();
  control.Destroy();
  platform.ClearTrace();
  control.Destroy();
  EXPECT_FALSE(control.IsCreated());
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Destroy", kEntered), Info("Destroy", kLeft)}));
}

TEST_F(AppDataChannelControlTest, DestroyWithoutCreateDoesNothing) {
  bool alreadyRegistered = false;
  control.m_app_info.RegisterApp("qz", alreadyRegistered);
  platform.ClearTrace();
  control.Destroy();
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Destroy", kEntered), Info("Destroy", kLeft)}));
  EXPECT_TRUE(control.m_app_info.IsRegisteredApp("qz"));
}

TEST_F(AppDataChannelControlTest, DestroyGoesOnWhateverTheLibraryAnswers) {
  CreateQuietly();
  RegisterQuietly("qz");
  platform.Fail("lumo_service_unregister_property");
  platform.Fail("lumo_service_destroy");
  control.Destroy();
  EXPECT_FALSE(control.IsCreated());
  EXPECT_EQ(0U, platform.LiveServices());
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Destroy", kEntered), Info("Destroy", kLeft)}));
}

TEST_F(AppDataChannelControlTest, AnExceptionInDestroyPassesOnWhenAllIsDestroyed) {
  CreateQuietly();
  FailWith("lumo_service_unregister_property");
  EXPECT_THROW(control.Destroy(), std::runtime_error);
  EXPECT_TRUE(LoggedExactly(kTag, {Info("Destroy", kEntered), Info("Destroy", kLeft)}));
  EXPECT_FALSE(control.IsCreated());
  EXPECT_EQ(0U, platform.LiveServices());

  FailNoMore("lumo_service_unregister_property");
  // From another thread: the lock is free again.
  std::async(std::launch::async, [this] { control.Destroy(); }).get();
  EXPECT_TRUE(control.Create());
}

TEST_F(AppDataChannelControlTest, AnExceptionOfTheServicesEndPassesOnWhenAllElseIsDone) {
  for (const bool unregistrationFails : {false, true}) {
    SCOPED_TRACE(unregistrationFails);
    CreateQuietly();
    RegisterQuietly("qz");
    if (unregistrationFails) FailWith("lumo_service_unregister_property", "the first");
    FailWith("lumo_service_destroy", "the last");
    const std::string expected = unregistrationFails ? "the first" : "the last";
    EXPECT_EQ(expected, ThrownBy([this] { control.Destroy(); }));
    EXPECT_TRUE(LoggedExactly(kTag, {Info("Destroy", kEntered), Info("Destroy", kLeft)}));
    EXPECT_FALSE(control.IsCreated());
    EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
    // The service is forgotten: it is not used or destroyed once more.
    EXPECT_EQ(nullptr, control.m_lumo_api.getServiceHandleSafely());
    EXPECT_FALSE(control.m_lumo_api.m_service_info.get_handler);

    FailNoMore("lumo_service_unregister_property");
    FailNoMore("lumo_service_destroy");
    std::async(std::launch::async, [this] { control.Destroy(); }).get();
  }
}

TEST_F(AppDataChannelControlTest, DataWithANulIsNotifiedWhole) {
  CreateQuietly();
  RegisterQuietly("qz");
  const std::string data("a\0b", 3);
  EXPECT_EQ(0, control.NotifyData("qz", data));
  ASSERT_EQ(1U, platform.Notifications().size());
  EXPECT_EQ(data, platform.Notifications()[0].properties.at(0).text);
}

TEST_F(AppDataChannelControlTest, CreateAfterDestroyStartsAgainWithoutTheApplications) {
  CreateQuietly();
  RegisterQuietly("qz");
  EXPECT_EQ(0, control.NotifyData("qz", "sent"));
  control.Destroy();
  platform.ClearTrace();
  EXPECT_TRUE(control.Create());
  const std::vector<std::string> calls = {kCreateCall, RegisterCall("signinStatus", 0),
                                          RegisterCall("signupInfo", 4)};
  EXPECT_EQ(calls, platform.Calls());
  EXPECT_EQ(-20, control.NotifyData("qz", "late"));

  platform.ClearTrace();
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>{RegisterCall("qz", 3)}, platform.Calls());
  EXPECT_EQ("", control.m_app_info.GetAppData("qz"));
}

TEST_F(AppDataChannelControlTest, TheThingsPropertiesKeepTheirValuesOverDestroyAndCreate) {
  CreateQuietly();
  control.m_thing_info.SetThingProperty("signinStatus", JsonValueAdaptor::Create("true"));
  control.m_thing_info.SetThingProperty("signupInfo", JsonValueAdaptor::Create("{}"));
  control.Destroy();
  bool connected = false;
  EXPECT_EQ(0, control.GetCloudConnection(connected));
  EXPECT_TRUE(connected);
  EXPECT_TRUE(control.Create());
  connected = false;
  EXPECT_EQ(0, control.GetCloudConnection(connected));
  EXPECT_TRUE(connected);
  std::string info;
  EXPECT_EQ(0, control.GetThingInfo(info));
  EXPECT_EQ("{}\n", info);
}

TEST_F(AppDataChannelControlTest, TheDestructorDoesNotDestroyTheService) {
  {
    AppDataChannelControl other;
    ASSERT_TRUE(other.Create());
    platform.ClearTrace();
  }
  EXPECT_EQ(1U, platform.LiveServices());
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelControlTest, EnteredAndLeftCarryOneLine) {
  control.Create();
  control.RegisterApp("qz");
  control.Destroy();
  for (const std::string function : {"Create", "RegisterApp", "Destroy"}) {
    std::vector<int> lines;
    for (const fake::LogLine& line : platform.LogsOf(function)) {
      if (line.tag == kTag && line.format == "%s : %s(%d) " + kEntered) lines.push_back(line.line);
      if (line.tag == kTag && line.format == "%s : %s(%d) " + kLeft) lines.push_back(line.line);
    }
    ASSERT_EQ(2U, lines.size()) << function;
    EXPECT_EQ(lines[0], lines[1]) << function;
  }
}

// --- RegisterApp

TEST_F(AppDataChannelControlTest, RegistersOneStringPropertyNamedAfterTheApplication) {
  CreateQuietly();
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>{RegisterCall("qz", 3)}, platform.Calls());
  EXPECT_TRUE(LoggedExactly(
      kTag, {Info("RegisterApp", kEntered), RegistryLine("RegisterApp", "[qz] is registered now"),
             Info("RegisterApp", "[qz] register: 0\n"), Info("RegisterApp", kLeft)}));
  EXPECT_TRUE(control.m_app_info.IsRegisteredApp("qz"));
}

TEST_F(AppDataChannelControlTest, RegistersNoSecondPropertyForTheSameApplication) {
  CreateQuietly();
  RegisterQuietly("qz");
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_TRUE(LoggedExactly(
      kTag, {Info("RegisterApp", kEntered),
             RegistryLine("RegisterApp", "[qz] is already registered (count: 2)"),
             Info("RegisterApp", "[qz] already registered: 0\n"), Info("RegisterApp", kLeft)}));
}

TEST_F(AppDataChannelControlTest, PassesTheRegistrysRefusalOnAndMakesNoProperty) {
  CreateQuietly();
  EXPECT_EQ(-20, control.RegisterApp("100%sure"));
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_TRUE(LoggedExactly(
      kTag,
      {Info("RegisterApp", kEntered), RegistryLine("RegisterApp", "[100%sure] invalid"),
       Error("RegisterApp", "[100%sure] fail to register: -20\n"), Info("RegisterApp", kLeft)}));
}

TEST_F(AppDataChannelControlTest, AnApplicationWhosePropertyIsRefusedIsNotRegistered) {
  CreateQuietly();
  platform.Fail("lumo_service_register_property");
  EXPECT_EQ(-100, control.RegisterApp("qz"));
  EXPECT_TRUE(LoggedExactly(
      kTag,
      {Info("RegisterApp", kEntered), RegistryLine("RegisterApp", "[qz] is registered now"),
       Error("RegisterApp", "[qz] fail to m_lumo_api.RegisterProperty\n"),
       RegistryLine("UnregisterApp", "[qz] is unregistered now"), Info("RegisterApp", kLeft)}));
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
  EXPECT_EQ(-20, control.NotifyData("qz", "sent"));

  platform.ClearFailures();
  platform.ClearTrace();
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>{RegisterCall("qz", 3)}, platform.Calls());
}

TEST_F(AppDataChannelControlTest, RegistersAfterTwoFailedAttempts) {
  CreateQuietly();
  platform.Fail("lumo_service_register_property", 2);
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ("qz", platform.Registrations().back().name);
}

TEST_F(AppDataChannelControlTest, RegistersNobodyWithoutAService) {
  EXPECT_EQ(-100, control.RegisterApp("qz"));
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
}

TEST_F(AppDataChannelControlTest, AnExceptionInRegisterAppPassesOnAndRegistersNobody) {
  CreateQuietly();
  FailWith("lumo_service_register_property");
  EXPECT_THROW(control.RegisterApp("qz"), std::runtime_error);
  EXPECT_TRUE(LoggedExactly(
      kTag,
      {Info("RegisterApp", kEntered), RegistryLine("RegisterApp", "[qz] is registered now"),
       RegistryLine("UnregisterApp", "[qz] is unregistered now"), Info("RegisterApp", kLeft)}));
  FailNoMore("lumo_service_register_property");
  // Not taken for a repetition, which makes no property.
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(3U, platform.Registrations().size());
}

// --- UnregisterApp

TEST_F(AppDataChannelControlTest, UnregistersTheApplicationAndItsProperty) {
  CreateQuietly();
  RegisterQuietly("qz");
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>{UnregisterCall("qz")}, platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {RegistryLine("UnregisterApp", "[qz] is unregistered now"),
                                   Info("UnregisterApp", "[qz] unregister: 0\n")}));
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
}

TEST_F(AppDataChannelControlTest, RemovesNoPropertyForAnApplicationThatIsNotRegistered) {
  CreateQuietly();
  for (const std::string name : {"qz", "nobody"}) {
    platform.ClearTrace();
    EXPECT_EQ(-20, control.UnregisterApp(name));
    EXPECT_EQ(std::vector<std::string>(), platform.Calls());
    EXPECT_TRUE(LoggedExactly(kTag, {RegistryLine("UnregisterApp", "[" + name + "] not registered"),
                                     Info("UnregisterApp", "[" + name + "] unregister: -20\n")}));
  }
}

TEST_F(AppDataChannelControlTest, AnApplicationIsGoneEvenWhenItsPropertyCannotBeRemoved) {
  CreateQuietly();
  RegisterQuietly("qz");
  platform.Fail("lumo_service_unregister_property");
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  EXPECT_TRUE(
      LoggedExactly(kTag, {RegistryLine("UnregisterApp", "[qz] is unregistered now"),
                           Error("UnregisterApp", "[qz] fail to m_lumo_api.UnregisterProperty\n"),
                           Info("UnregisterApp", "[qz] unregister: 0\n")}));
  EXPECT_EQ(-20, control.NotifyData("qz", "sent"));
}

TEST_F(AppDataChannelControlTest, ThePropertyIsAbsentFromTheFirstUnregistrationToAFreshOne) {
  CreateQuietly();
  RegisterQuietly("qz");
  RegisterQuietly("qz");
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>{UnregisterCall("qz")}, platform.Calls());
  EXPECT_TRUE(LoggedExactly(kTag, {RegistryLine("UnregisterApp", "[qz] is unregistered (count: 1)"),
                                   Info("UnregisterApp", "[qz] unregister: 0\n")}));
  EXPECT_EQ(0, control.NotifyData("qz", "still there"));

  platform.ClearTrace();
  EXPECT_EQ(0, control.RegisterApp("qz"));  // 2 again
  EXPECT_EQ(std::vector<std::string>(), platform.Calls());
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  EXPECT_EQ(0, control.UnregisterApp("qz"));

  platform.ClearTrace();
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(std::vector<std::string>{RegisterCall("qz", 3)}, platform.Calls());
}

TEST_F(AppDataChannelControlTest, AnExceptionInUnregisterAppPassesOn) {
  CreateQuietly();
  RegisterQuietly("qz");
  FailWith("lumo_service_unregister_property");
  EXPECT_THROW(control.UnregisterApp("qz"), std::runtime_error);
  EXPECT_TRUE(LoggedExactly(kTag, {RegistryLine("UnregisterApp", "[qz] is unregistered now")}));
  FailNoMore("lumo_service_unregister_property");
}

// --- NotifyData

TEST_F(AppDataChannelControlTest, NotifiesTheDataAsTheTextThatItIs) {
  CreateQuietly();
  RegisterQuietly("qz");
  // Text of every kind that JSON could take for something else.
  for (const std::string data :
       {"hello", "42", "true", "null", R"({"a": [1, 2]})", "\"quoted\"", "100% \n", "\xC3\xA4"}) {
    platform.ClearTrace();
    EXPECT_EQ(0, control.NotifyData("qz", data));
    ASSERT_EQ(1U, platform.Notifications().size());
    const fake::Notification notification = platform.Notifications()[0];
    EXPECT_EQ(platform.Service(), notification.service);
    EXPECT_EQ(std::vector<fake::Property>{fake::Property::String("qz", data)},
              notification.properties);
    EXPECT_EQ(data, control.m_app_info.GetAppData("qz"));
    EXPECT_TRUE(LoggedExactly(kTag, {Info("NotifyData", "[qz] sent\n")}));
  }
}

TEST_F(AppDataChannelControlTest, NotifiesEmptyData) {
  CreateQuietly();
  RegisterQuietly("qz");
  EXPECT_EQ(0, control.NotifyData("qz", "first"));
  platform.ClearTrace();
  EXPECT_EQ(0, control.NotifyData("qz", ""));
  ASSERT_EQ(1U, platform.Notifications().size());
  EXPECT_EQ(std::vector<fake::Property>{fake::Property::String("qz", "")},
            platform.Notifications()[0].properties);
  EXPECT_EQ("", control.m_app_info.GetAppData("qz"));
}

TEST_F(AppDataChannelControlTest, NotifiesAMebibyte) {
  CreateQuietly();
  RegisterQuietly("qz");
  const std::string data(kMebibyte, 'x');
  EXPECT_EQ(0, control.NotifyData("qz", data));
  ASSERT_EQ(1U, platform.Notifications().size());
  EXPECT_EQ(std::vector<fake::Property>{fake::Property::String("qz", data)},
            platform.Notifications()[0].properties);
}

TEST_F(AppDataChannelControlTest, StoresThenNotifiesThenLogs) {
  CreateQuietly();
  RegisterQuietly("qz");
  std::string stored;
  platform.OnCall("lumo_service_notify", [&] {
    stored = control.m_app_info.GetAppData("qz");
    EXPECT_EQ(0U, platform.CountLogs("sent"));
  });
  EXPECT_EQ(0, control.NotifyData("qz", "data"));
  EXPECT_EQ("data", stored);
  EXPECT_EQ("4 TVCONTROL_A AppDataChannelControl.cpp NotifyData [qz] sent",
            platform.Summaries().back());
}

TEST_F(AppDataChannelControlTest, NeitherStoresNorSendsDataOfAnApplicationThatIsNotRegistered) {
  CreateQuietly();
  RegisterQuietly("welcome");
  for (const std::string name : {"qz", "nobody", ""}) {
    platform.ClearTrace();
    EXPECT_EQ(-20, control.NotifyData(name, "data"));
    EXPECT_EQ(std::vector<std::string>(), platform.Calls());
    EXPECT_TRUE(LoggedExactly(kTag, {RegistryLine("SetAppData", "[" + name + "] not registered"),
                                     Error("NotifyData", "[" + name + "] not registered\n")}));
  }
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ("", control.m_app_info.GetAppData("qz"));
}

TEST_F(AppDataChannelControlTest, DataCountsAsSentWhateverTheLibraryAnswers) {
  CreateQuietly();
  RegisterQuietly("qz");
  for (const std::string operation :
       {"lumo_service_notify", "lumo_property_list_create", "lumo_property_create_string"}) {
    platform.ClearTrace();
    platform.Fail(operation);
    EXPECT_EQ(0, control.NotifyData("qz", operation)) << operation;
    EXPECT_TRUE(LoggedExactly(kTag, {Info("NotifyData", "[qz] sent\n")})) << operation;
    EXPECT_EQ(1U, platform.Notifications().size()) << operation;
    EXPECT_EQ(operation, control.m_app_info.GetAppData("qz"));
    platform.ClearFailures();
  }
}

TEST_F(AppDataChannelControlTest, AnExceptionInNotifyDataPassesOn) {
  CreateQuietly();
  RegisterQuietly("qz");
  FailWith("lumo_property_list_create");
  EXPECT_THROW(control.NotifyData("qz", "data"), std::runtime_error);
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

// --- GetCloudConnection and GetThingInfo

TEST_F(AppDataChannelControlTest, IsConnectedOnlyByABooleanThatIsTrue) {
  bool connected = true;
  EXPECT_EQ(0, control.GetCloudConnection(connected));  // never set
  EXPECT_FALSE(connected);
  for (const std::string text :
       {"false", "null", "\"true\"", "1", "-1", "1.5", "[true]", R"({"a": true})"}) {
    control.m_thing_info.SetThingProperty("signinStatus", JsonValueAdaptor::Create(text));
    connected = true;
    EXPECT_EQ(0, control.GetCloudConnection(connected)) << text;
    EXPECT_FALSE(connected) << text;
  }
  control.m_thing_info.SetThingProperty("signinStatus", JsonValueAdaptor::Create("true"));
  connected = false;
  EXPECT_EQ(0, control.GetCloudConnection(connected));
  EXPECT_TRUE(connected);
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

TEST_F(AppDataChannelControlTest, GivesNoThingInfoBeforeTheCloudHasSetAny) {
  std::string info = "unchanged";
  EXPECT_EQ(-100, control.GetThingInfo(info));
  EXPECT_EQ("unchanged", info);
  EXPECT_TRUE(LoggedExactly(kTag, {Error("GetThingInfo", "signup info is not initialized\n")}));

  control.m_thing_info.SetThingProperty("signupInfo", JsonValueAdaptor::Create("null"));
  EXPECT_EQ(-100, control.GetThingInfo(info));
  EXPECT_EQ("unchanged", info);
}

TEST_F(AppDataChannelControlTest, GivesThingInfoAsStyledTextWithItsLineFeed) {
  for (const std::string text :
       {R"({"id": "x", "hubs": [1, {"a": null}]})", "{}", "\"text\"", "false", "[]"}) {
    const JsonValueAdaptor value = JsonValueAdaptor::Create(text);
    control.m_thing_info.SetThingProperty("signupInfo", value);
    std::string info = "old";
    EXPECT_EQ(0, control.GetThingInfo(info));
    EXPECT_EQ(value.toStyledString(), info);
    EXPECT_EQ('\n', info.back());
  }
  EXPECT_TRUE(LoggedExactly(kTag, {}));
}

// --- locks

TEST_F(AppDataChannelControlTest, CreateDestroyAndIsCreatedWaitForTheLock) {
  EXPECT_TRUE(
      AllWaitFor(control.m_mutex, {[this] { control.Create(); }, [this] { control.Destroy(); },
                                   [this] { control.IsCreated(); }}));
}

TEST_F(AppDataChannelControlTest, ApplicationOperationsDoNotTakeTheControlsLock) {
  CreateQuietly();
  Gate ended;
  std::thread bus;
  {
    const std::lock_guard<std::recursive_mutex> lock(control.m_mutex);
    bus = std::thread([this, &ended] {
      EXPECT_EQ(0, control.RegisterApp("qz"));
      EXPECT_EQ(0, control.NotifyData("qz", "data"));
      bool connected = true;
      EXPECT_EQ(0, control.GetCloudConnection(connected));
      std::string info;
      EXPECT_EQ(-100, control.GetThingInfo(info));
      EXPECT_EQ(0, control.UnregisterApp("qz"));
      ended.Open();
    });
    EXPECT_TRUE(ended.Wait());
  }
  bus.join();
}
