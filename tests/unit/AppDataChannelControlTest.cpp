#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>

#include "AppDataChannelControlFixture.h"

namespace {

std::string RegisterCall(const std::string& name, int type) {
  return "lumo_service_register_property(" + name + ", " + std::to_string(type) + ", 0, 0, \"\")";
}

std::string UnregisterCall(const std::string& name) {
  return "lumo_service_unregister_property(" + name + ")";
}

const std::string kCreateCall =
    "lumo_service_create(appdatachannel, appdatachannel service plugin for qivo-thing mapi. "
    "support ocf thing /zun/tv/appdata/* resources)";
const Strings kCreateCalls = {kCreateCall, RegisterCall("signinStatus", 0),
                              RegisterCall("signupInfo", 4)};
const Strings kDestroyCalls = {UnregisterCall("signinStatus"), UnregisterCall("signupInfo"),
                               "lumo_service_destroy(appdatachannel)"};

}  // namespace

class AppDataChannelControlTest : public AppDataChannelControlFixture {
 protected:
  AppDataChannelControlTest() { platform.ClearTrace(); }

  void CreateQuietly() {
    ASSERT_TRUE(control.Create());
    platform.ClearTrace();
  }

  void RegisterQuietly(const std::string& name) {
    ASSERT_EQ(0, control.RegisterApp(name));
    platform.ClearTrace();
  }

  // Each makes one call, which has that result, makes these calls of the library and logs these
  // lines.
  void ExpectCreate(bool created, const Strings& calls, const Lines& lines) {
    platform.ClearTrace();
    EXPECT_EQ(created, control.Create());
    EXPECT_EQ(calls, platform.Calls());
    EXPECT_TRUE(Logged(Framed("Create", lines)));
  }
  void ExpectDestroy(const Strings& calls) {
    platform.ClearTrace();
    control.Destroy();
    EXPECT_FALSE(control.IsCreated());
    EXPECT_EQ(calls, platform.Calls());
    EXPECT_TRUE(Logged(Framed("Destroy", {})));
  }
  void ExpectRegister(const std::string& name, int code, const Strings& calls, const Lines& lines) {
    platform.ClearTrace();
    EXPECT_EQ(code, control.RegisterApp(name));
    EXPECT_EQ(calls, platform.Calls());
    EXPECT_TRUE(Logged(Framed("RegisterApp", lines)));
    EXPECT_EQ(code == 0, control.m_app_info.IsRegisteredApp(name));
  }
  void ExpectUnregister(const std::string& name, int code, const Strings& calls,
                        const Lines& lines) {
    platform.ClearTrace();
    EXPECT_EQ(code, control.UnregisterApp(name));
    EXPECT_EQ(calls, platform.Calls());
    EXPECT_TRUE(Logged(lines));
  }

  void FailWith(const std::string& operation, const std::string& what = "no memory") {
    platform.OnCall(operation, [what] { throw std::runtime_error(what); });
  }
  void FailNoMore() {
    for (const char* operation : {"lumo_service_register_property", "lumo_service_destroy",
                                  "lumo_service_unregister_property"}) {
      platform.OnCall(operation, nullptr);
    }
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

  bool IsConnected(bool before) {
    bool connected = before;
    EXPECT_EQ(0, control.GetCloudConnection(connected));
    return connected;
  }

  void SetThing(const std::string& name, const std::string& json) {
    control.m_thing_info.SetThingProperty(name, JsonValueAdaptor::Create(json));
  }
};

const ExpectedLog kCreated = Error("Create", "created\n");
const ExpectedLog kQzIsRegistered = RegistryLine("RegisterApp", "[qz] is registered now");
const ExpectedLog kQzIsUnregistered = RegistryLine("UnregisterApp", "[qz] is unregistered now");
const ExpectedLog kQzUnregister = Info("UnregisterApp", "[qz] unregister: 0\n");

// --- Create and Destroy

TEST_F(AppDataChannelControlTest, CreatesTheServiceThenRegistersTheThingsPropertiesInKeyOrder) {
  std::vector<bool> created = {control.IsCreated()};
  platform.OnCall("lumo_service_register_property", [&] {
    created.push_back(control.IsCreated());
    EXPECT_TRUE(Logged({Info("Create", "> Entered\n")}));
  });
  ExpectCreate(true, kCreateCalls, {kCreated});
  created.push_back(control.IsCreated());
  EXPECT_EQ((std::vector<bool>{false, false, false, true}), created);
}

TEST_F(AppDataChannelControlTest, HandlesGetSetAndCancelButNoProtocolStatus) {
  CreateQuietly();
  const ThingCommon::_ServiceInfo& info = control.m_lumo_api.m_service_info;
  EXPECT_TRUE(info.get_handler && info.set_handler && info.cancel_handler);
  EXPECT_FALSE(info.protocol_status_handler);
  platform.DeliverProtocolStatus("coap", 1);
  EXPECT_TRUE(Logged({}));
}

TEST_F(AppDataChannelControlTest, ASecondCreateIsRefusedAndChangesNothing) {
  CreateQuietly();
  void* const service = platform.Service();
  ExpectCreate(false, {}, {Error("Create", "already created\n")});
  EXPECT_TRUE(control.IsCreated());
  EXPECT_EQ(service, platform.Service());
}

TEST_F(AppDataChannelControlTest, WithoutAServiceNothingIsCreatedAndALaterCreateMayTryAgain) {
  platform.Fail("lumo_service_create", 1);
  ExpectCreate(false, {kCreateCall},
               {Error("createLumo", "fail to m_lumo_api.Create\n"),
                Error("Create", "fail to createLumo\n")});
  EXPECT_FALSE(control.IsCreated());
  ExpectCreate(true, kCreateCalls, {kCreated});
  EXPECT_TRUE(control.IsCreated());
}

TEST_F(AppDataChannelControlTest, IsCreatedWhicheverOfTheThingsPropertiesRegister) {
  // Each has three attempts.
  for (const auto& [failures, names] :
       std::vector<std::pair<unsigned, Strings>>{{3, {"signupInfo"}}, {6, {}}}) {
    platform.Fail("lumo_service_register_property", failures);
    platform.ClearTrace();
    EXPECT_TRUE(control.Create());
    EXPECT_TRUE(control.IsCreated());
    Strings registered;
    for (const auto& registration : platform.Registrations()) {
      registered.push_back(registration.name);
    }
    EXPECT_EQ(names, registered);
    EXPECT_TRUE(Logged(Framed("Create", {kCreated})));
    control.Destroy();
  }
}

TEST_F(AppDataChannelControlTest, AnExceptionInCreatePassesOnAndLeavesNoServiceBehind) {
  for (const bool cleanUpThrows : {false, true}) {
    SCOPED_TRACE(cleanUpThrows);
    platform.ClearTrace();
    FailWith("lumo_service_register_property", "the first");
    if (cleanUpThrows) FailWith("lumo_service_destroy", "the second");
    EXPECT_EQ("the first", ThrownBy([this] { control.Create(); }));
    EXPECT_FALSE(control.IsCreated());
    EXPECT_EQ(nullptr, control.m_lumo_api.getServiceHandleSafely());
    EXPECT_TRUE(Logged(Framed("Create", {})));
    EXPECT_EQ(cleanUpThrows ? 1U : 0U, platform.LiveServices());

    FailNoMore();
    // From another thread: the lock is free again.
    EXPECT_TRUE(std::async(std::launch::async, [this] { return control.Create(); }).get());
    control.Destroy();
  }
}

TEST_F(AppDataChannelControlTest, DestroyEndsAllWhateverTheLibraryAnswersAndOnlyOnce) {
  for (const bool refuses : {false, true}) {
    SCOPED_TRACE(refuses);
    CreateQuietly();
    for (const std::string name : {"qz", "qz", "welcome"}) RegisterQuietly(name);
    platform.OnCall("lumo_service_destroy", [&] {
      EXPECT_TRUE(control.m_app_info.IsRegisteredApp("qz")) << "until the service is gone";
      EXPECT_TRUE(control.IsCreated()) << "the flag falls last";
    });
    Strings calls = kDestroyCalls;  // the properties of the applications go with the service
    if (refuses) {
      platform.Fail("lumo_service_unregister_property");
      platform.Fail("lumo_service_destroy");
      const std::string wait = "usleep(200000)";
      calls = {calls[0], wait,     calls[0], wait,     calls[0], wait,    calls[1],
               wait,     calls[1], wait,     calls[1], wait,     calls[2]};
    }
    ExpectDestroy(calls);
    EXPECT_EQ(0U, platform.LiveServices());
    EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
    EXPECT_FALSE(control.m_app_info.IsRegisteredApp("welcome"));
    ExpectDestroy({});
    platform.ClearFailures();
  }
}

TEST_F(AppDataChannelControlTest, DestroyWithoutCreateDoesNothing) {
  bool alreadyRegistered = false;
  control.m_app_info.RegisterApp("qz", alreadyRegistered);
  ExpectDestroy({});
  EXPECT_TRUE(control.m_app_info.IsRegisteredApp("qz"));
}

TEST_F(AppDataChannelControlTest, TheFirstExceptionInDestroyPassesOnWhenAllIsDone) {
  for (const auto& [unregistration, end] :
       std::vector<std::pair<std::string, std::string>>{{"a", ""}, {"", "b"}, {"a", "b"}}) {
    SCOPED_TRACE(unregistration + end);
    CreateQuietly();
    RegisterQuietly("qz");
    const std::size_t before = platform.LiveServices();
    if (!unregistration.empty()) FailWith("lumo_service_unregister_property", unregistration);
    if (!end.empty()) FailWith("lumo_service_destroy", end);
    EXPECT_EQ(unregistration.empty() ? end : unregistration,
              ThrownBy([this] { control.Destroy(); }));
    EXPECT_TRUE(Logged(Framed("Destroy", {})));
    EXPECT_FALSE(control.IsCreated());
    EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
    EXPECT_EQ(end.empty() ? before - 1 : before, platform.LiveServices());
    // The service is forgotten: it is not used or destroyed once more.
    EXPECT_EQ(nullptr, control.m_lumo_api.getServiceHandleSafely());
    EXPECT_FALSE(control.m_lumo_api.m_service_info.get_handler);

    FailNoMore();
    // From another thread: the lock is free again.
    std::async(std::launch::async, [this] { control.Destroy(); }).get();
  }
}

TEST_F(AppDataChannelControlTest, CreateAfterDestroyStartsAgainWithoutTheApplications) {
  CreateQuietly();
  RegisterQuietly("qz");
  EXPECT_EQ(0, control.NotifyData("qz", "sent"));
  control.Destroy();
  ExpectCreate(true, kCreateCalls, {kCreated});
  EXPECT_EQ(-20, control.NotifyData("qz", "late"));
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ("qz", platform.Registrations().back().name);
  EXPECT_EQ("", control.m_app_info.GetAppData("qz"));
}

TEST_F(AppDataChannelControlTest, TheThingsPropertiesKeepTheirValuesOverDestroyAndCreate) {
  CreateQuietly();
  SetThing("signinStatus", "true");
  SetThing("signupInfo", "{}");
  control.Destroy();
  EXPECT_TRUE(IsConnected(false));
  EXPECT_TRUE(control.Create());
  EXPECT_TRUE(IsConnected(false));
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
  EXPECT_EQ(Strings(), platform.Calls());
  EXPECT_TRUE(Logged({}));
  EXPECT_EQ(1U, platform.CountLogs("[appdatachannel] after join"));
  EXPECT_EQ(1U, platform.CountLogs("MsgQueue destructed"));
}

// --- RegisterApp and UnregisterApp

TEST_F(AppDataChannelControlTest, AnApplicationHasOneStringPropertyOfItsName) {
  CreateQuietly();
  ExpectRegister("qz", 0, {RegisterCall("qz", 3)},
                 {kQzIsRegistered, Info("RegisterApp", "[qz] register: 0\n")});
  ExpectRegister("qz", 0, {},
                 {RegistryLine("RegisterApp", "[qz] is already registered (count: 2)"),
                  Info("RegisterApp", "[qz] already registered: 0\n")});
  // The property goes with the first unregistration, the application with the last one.
  ExpectUnregister(
      "qz", 0, {UnregisterCall("qz")},
      {RegistryLine("UnregisterApp", "[qz] is unregistered (count: 1)"), kQzUnregister});
  EXPECT_EQ(0, control.NotifyData("qz", "still there"));
  platform.ClearTrace();
  EXPECT_EQ(0, control.RegisterApp("qz"));  // 2 again
  EXPECT_EQ(Strings(), platform.Calls());
  EXPECT_EQ(0, control.UnregisterApp("qz"));
  ExpectUnregister(
      "qz", 0,
      {UnregisterCall("qz"), "usleep(200000)", UnregisterCall("qz"), "usleep(200000)",
       UnregisterCall("qz"), "usleep(200000)"},
      {kQzIsUnregistered, Error("UnregisterApp", "[qz] fail to m_lumo_api.UnregisterProperty\n"),
       kQzUnregister});
  EXPECT_FALSE(control.m_app_info.IsRegisteredApp("qz"));
  EXPECT_EQ(-20, control.NotifyData("qz", "sent"));
  ExpectRegister("qz", 0, {RegisterCall("qz", 3)},
                 {kQzIsRegistered, Info("RegisterApp", "[qz] register: 0\n")});
  ExpectUnregister("qz", 0, {UnregisterCall("qz")}, {kQzIsUnregistered, kQzUnregister});
}

TEST_F(AppDataChannelControlTest, PassesTheRegistrysRefusalOnAndMakesNoProperty) {
  CreateQuietly();
  ExpectRegister("100%sure", -20, {},
                 {RegistryLine("RegisterApp", "[100%sure] invalid"),
                  Error("RegisterApp", "[100%sure] fail to register: -20\n")});
  for (const std::string name : {"qz", "nobody"}) {
    ExpectUnregister(name, -20, {},
                     {RegistryLine("UnregisterApp", "[" + name + "] not registered"),
                      Info("UnregisterApp", "[" + name + "] unregister: -20\n")});
  }
}

TEST_F(AppDataChannelControlTest, AnApplicationWhosePropertyIsRefusedIsNotRegistered) {
  const Lines refused = {kQzIsRegistered,
                         Error("RegisterApp", "[qz] fail to m_lumo_api.RegisterProperty\n"),
                         kQzIsUnregistered};
  ExpectRegister("qz", -100, {}, refused);  // without a service
  CreateQuietly();
  platform.Fail("lumo_service_register_property", 3);
  const std::string call = RegisterCall("qz", 3);
  const std::string wait = "usleep(200000)";
  ExpectRegister("qz", -100, {call, wait, call, wait, call, wait}, refused);
  EXPECT_EQ(-20, control.NotifyData("qz", "sent"));

  platform.Fail("lumo_service_register_property", 2);
  ExpectRegister("qz", 0, {call, wait, call, wait, call},
                 {kQzIsRegistered, Info("RegisterApp", "[qz] register: 0\n")});
  EXPECT_EQ("qz", platform.Registrations().back().name);
}

TEST_F(AppDataChannelControlTest, AnExceptionOfAnOperationPassesOnAndRegistersNobody) {
  CreateQuietly();
  FailWith("lumo_service_register_property");
  EXPECT_THROW(control.RegisterApp("qz"), std::runtime_error);
  EXPECT_TRUE(Logged(Framed("RegisterApp", {kQzIsRegistered, kQzIsUnregistered})));
  FailNoMore();
  // Not taken for a repetition, which makes no property.
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ(3U, platform.Registrations().size());

  platform.ClearTrace();
  FailWith("lumo_property_list_create");
  EXPECT_THROW(control.NotifyData("qz", "data"), std::runtime_error);
  EXPECT_TRUE(Logged({}));
  FailWith("lumo_service_unregister_property");
  EXPECT_THROW(control.UnregisterApp("qz"), std::runtime_error);
  EXPECT_TRUE(Logged({kQzIsUnregistered}));
  FailNoMore();
}

// --- NotifyData

TEST_F(AppDataChannelControlTest, StoresAndNotifiesTheDataAsTheStringThatItIsThenLogs) {
  CreateQuietly();
  RegisterQuietly("qz");
  std::string stored;
  platform.OnCall("lumo_service_notify", [&] {
    stored = control.m_app_info.GetAppData("qz");
    EXPECT_TRUE(Logged({}));
  });
  const auto expectSent = [&](const std::string& data) {
    platform.ClearTrace();
    EXPECT_EQ(0, control.NotifyData("qz", data));
    EXPECT_EQ(1U, platform.Notifications().size());
    EXPECT_EQ(data, stored);
    EXPECT_EQ(data, control.m_app_info.GetAppData("qz"));
    EXPECT_TRUE(Logged({Info("NotifyData", "[qz] sent\n")}));
  };
  // Strings of every kind that JSON could take for something else.
  for (const std::string& data :
       Strings{"hello", "42", "true", "null", R"({"a": [1, 2]})", "\"quoted\"", "100% \n",
               "\xC3\xA4", std::string("a\0b", 3), std::string(kMebibyte, 'x'), ""}) {
    expectSent(data);
    const fake::Notification notification = platform.Notifications().at(0);
    EXPECT_EQ(platform.Service(), notification.service);
    EXPECT_EQ(std::vector<Property>{Property::String("qz", data)}, notification.properties);
  }
  // It counts as sent whatever the library answers.
  for (const std::string operation :
       {"lumo_service_notify", "lumo_property_list_create", "lumo_property_create_string"}) {
    platform.Fail(operation);
    expectSent(operation);
    platform.ClearFailures();
  }
}

TEST_F(AppDataChannelControlTest, NeitherStoresNorSendsDataOfAnApplicationThatIsNotRegistered) {
  CreateQuietly();
  RegisterQuietly("welcome");
  for (const std::string name : {"qz", "nobody", ""}) {
    platform.ClearTrace();
    EXPECT_EQ(-20, control.NotifyData(name, "data"));
    EXPECT_EQ(Strings(), platform.Calls());
    const std::string message = "[" + name + "] not registered";
    EXPECT_TRUE(Logged({RegistryLine("SetAppData", message), Error("NotifyData", message + "\n")}));
  }
  EXPECT_EQ(0, control.RegisterApp("qz"));
  EXPECT_EQ("", control.m_app_info.GetAppData("qz"));
}

// --- GetCloudConnection and GetThingInfo

TEST_F(AppDataChannelControlTest, IsConnectedOnlyByABooleanThatIsTrue) {
  EXPECT_FALSE(IsConnected(true));  // never set
  for (const std::string text :
       {"false", "null", "\"true\"", "1", "-1", "1.5", "[true]", R"({"a": true})"}) {
    SetThing("signinStatus", text);
    EXPECT_FALSE(IsConnected(true)) << text;
  }
  SetThing("signinStatus", "true");
  EXPECT_TRUE(IsConnected(false));
  EXPECT_TRUE(Logged({}));
}

TEST_F(AppDataChannelControlTest, GivesThingInfoAsStyledTextWithItsLineFeedOnceTheCloudHasSetIt) {
  std::string info = "unchanged";
  EXPECT_EQ(-100, control.GetThingInfo(info));
  SetThing("signupInfo", "null");
  EXPECT_EQ(-100, control.GetThingInfo(info));
  EXPECT_EQ("unchanged", info);
  const ExpectedLog line = Error("GetThingInfo", "signup info is not initialized\n");
  EXPECT_TRUE(Logged({line, line}));

  for (const std::string text :
       {R"({"id": "x", "hubs": [1, {"a": null}]})", "{}", "\"text\"", "false", "[]"}) {
    SetThing("signupInfo", text);
    EXPECT_EQ(0, control.GetThingInfo(info));
    EXPECT_EQ(JsonValueAdaptor::Create(text).toStyledString(), info);
    EXPECT_EQ('\n', info.back());
  }
  EXPECT_TRUE(Logged({line, line}));
}

// --- locks

TEST_F(AppDataChannelControlTest, CreateDestroyAndIsCreatedWaitForTheLock) {
  EXPECT_TRUE(
      AllWaitFor(control.m_mutex, {[this] { control.Create(); }, [this] { control.Destroy(); },
                                   [this] { control.IsCreated(); }}));
}

TEST_F(AppDataChannelControlTest, ApplicationOperationsDoNotTakeTheControlsLock) {
  CreateQuietly();
  std::unique_lock<std::recursive_mutex> lock(control.m_mutex);
  const auto bus = std::async(std::launch::async, [this] {
    EXPECT_EQ(0, control.RegisterApp("qz"));
    EXPECT_EQ(0, control.NotifyData("qz", "data"));
    EXPECT_FALSE(IsConnected(true));
    std::string info;
    EXPECT_EQ(-100, control.GetThingInfo(info));
    EXPECT_EQ(0, control.UnregisterApp("qz"));
  });
  EXPECT_EQ(std::future_status::ready, bus.wait_for(fake::kPatience));
  lock.unlock();
}
