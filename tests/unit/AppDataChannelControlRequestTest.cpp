#include <atomic>
#include <cstdio>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "AppDataChannelControlFixture.h"
#include "AppDataChannelCore.h"

using AppDataChannel::AppDataChannelCore;
using Properties = std::vector<Property>;

namespace {

constexpr int kSuccess = 0;  // what the library gets
constexpr int kFailure = 6;
const Properties kNothing;
const Properties kDataOfQz = {Property::String("qz", "of qz")};

// What the D-Bus server logs in these tests: there is no bus.
Lines ServerLines(const std::string& function, const std::string& message) {
  return {PluginLine(4, "DBusServer.cpp", function, message),
          PluginLine(6, "DBusServer.cpp", function, "not initialized")};
}

Lines Forwarded(const std::string& name, const std::string& text) {
  return ServerLines("SendSetRequest", "[" + name + "] data: " + text);
}

Lines ConnectionChanged(const std::string& connected) {
  return ServerLines("SendCloudConnectionChange", "cloud connection status: " + connected);
}

Lines ThingProperty(const std::string& item) {
  return {Info("setHandler",
               "thing property: " + JsonValueAdaptor::Create(item).toStyledString() + "\n")};
}

Lines Unregistered(const std::string& name) {
  return {Error("setHandler", "unregistered. app name: " + name + "\n")};
}

Lines Exception(const std::string& handler) {
  return {Error(handler, "occurred exception\n")};
}

}  // namespace

// A control that is created, with "qz" and "welcome" registered; "qz" has sent "of qz".
class AppDataChannelControlRequestTest : public AppDataChannelControlFixture {
 protected:
  void SetUp() override {
    // Made now, so that its construction is in no trace.
    AppDataChannelCore::GetInstance();
    ASSERT_TRUE(control.Create());
    ASSERT_EQ(0, control.RegisterApp("qz"));
    ASSERT_EQ(0, control.RegisterApp("welcome"));
    ASSERT_EQ(0, control.NotifyData("qz", "of qz"));
    platform.ClearTrace();
  }

  // There is one answer, and it is this one.
  void ExpectAnswer(int code, const Properties& properties) {
    const std::vector<fake::Response> responses = platform.Responses();
    ASSERT_EQ(1U, responses.size());
    EXPECT_EQ(code, responses[0].code);
    EXPECT_EQ(properties, responses[0].properties);
    EXPECT_FALSE(responses[0].listWasNull);
    EXPECT_EQ(platform.Service(), responses[0].service);
  }

  // A read of the properties has this answer, and logs nothing.
  void ExpectGet(const Properties& asked, int code, const Properties& answer) {
    void* const request = DeliverAndWait("getHandler", asked);
    ExpectAnswer(code, answer);
    EXPECT_FALSE(platform.Responses().at(0).isSet);
    EXPECT_EQ(request, platform.Responses().at(0).request);
    EXPECT_TRUE(Logged(Framed("getHandler", {})));
  }
  // A write of the properties has this answer, and logs these lines.
  void ExpectSet(const Properties& written, int code, const Properties& answer,
                 const Lines& lines) {
    void* const request = DeliverAndWait("setHandler", written);
    ExpectAnswer(code, answer);
    EXPECT_TRUE(platform.Responses().at(0).isSet);
    EXPECT_EQ(request, platform.Responses().at(0).request);
    EXPECT_TRUE(Logged(Framed("setHandler", lines)));
  }
  // A request ends with an exception after these lines.
  void ExpectException(const std::string& handler, const Properties& properties,
                       const Lines& before) {
    DeliverAndWait(handler, properties);
    EXPECT_TRUE(platform.Responses().empty());
    EXPECT_TRUE(Logged(Framed(handler, before + Exception(handler))));
  }

  // Delivers a request and waits until the handler has ended.
  void* DeliverAndWait(const std::string& handler, const Properties& properties) {
    platform.ClearTrace();
    void* const request =
        handler == "setHandler" ? platform.DeliverSet(properties) : platform.DeliverGet(properties);
    EXPECT_TRUE(platform.WaitUntil([&] { return EndsOf(handler) == 1; }));
    return request;
  }

  // Delivers a write of these strings, and calls `meanwhile` while its handler waits to forward
  // the first of them or to announce the sign-in status; then waits until it has ended.
  void DeliverHeldUp(const Properties& written, const std::function<void()>& meanwhile) {
    {
      const std::lock_guard<std::recursive_mutex> server(
          AppDataChannelCore::GetInstance().GetDbusServer().m_mutex);
      platform.DeliverSet(written);
      EXPECT_TRUE(platform.WaitUntil([this] {
        return platform.CountLogs("cloud connection") + platform.CountLogs("[qz] data") == 1;
      }));
      EXPECT_TRUE(platform.Responses().empty());
      meanwhile();
    }
    EXPECT_TRUE(platform.WaitUntil([this] { return EndsOf("setHandler") == 1; }));
  }

  std::size_t EndsOf(const std::string& handler) {
    std::size_t count = 0;
    for (const fake::LogLine& line : platform.LogsOf(handler)) {
      if (line.Message() == " > Left") ++count;
    }
    return count;
  }

  JsonValueAdaptor ThingValue(const std::string& name) {
    return control.m_thing_info.GetThingProperty(name);
  }

  bool IsConnected() {
    bool connected = true;
    EXPECT_EQ(0, control.GetCloudConnection(connected));
    return connected;
  }

  char otherRequest = 'r';  // for handlers that are called directly
};

// --- get

TEST_F(AppDataChannelControlRequestTest, AReadOfAThingPropertyGivesTheEmptyStringWhateverIsStored) {
  ExpectGet({Property::Bool("signinStatus", false)}, kSuccess,
            {Property::String("signinStatus", "")});
  control.m_thing_info.SetThingProperty("signinStatus", JsonValueAdaptor::Create("true"));
  control.m_thing_info.SetThingProperty("signupInfo", JsonValueAdaptor::Create(R"({"id": 1})"));
  ExpectGet({Property::Bool("signinStatus", false), Property::Json("signupInfo", "{}")}, kSuccess,
            {Property::String("signinStatus", ""), Property::String("signupInfo", "")});
}

TEST_F(AppDataChannelControlRequestTest, AReadOfAnApplicationGivesItsDataAsAString) {
  ExpectGet({Property::String("qz", "of no use"), Property::String("qz", "")}, kSuccess, kDataOfQz);
  ExpectGet({Property::String("welcome", "")}, kSuccess, {Property::String("welcome", "")});
  for (const std::string data : {"42", "true", R"({"a": 1})", "null"}) {
    control.NotifyData("qz", data);
    ExpectGet({Property::Int("qz", 1)}, kSuccess, {Property::String("qz", data)});
  }
}

TEST_F(AppDataChannelControlRequestTest, AReadOfAnUnknownNameFailsSilentlyAndAnswersTheOthers) {
  ExpectGet({Property::String("nobody", ""), Property::String("qz", ""),
             Property::String("galleryapp", ""),  // allowed, but not registered
             Property::String("", ""), Property::Bool("signinStatus", true)},
            kFailure, {Property::String("qz", "of qz"), Property::String("signinStatus", "")});
  ExpectGet({Property::String("nobody", "")}, kFailure, kNothing);
  control.UnregisterApp("qz");
  ExpectGet({Property::String("qz", "")}, kFailure, kNothing);
}

TEST_F(AppDataChannelControlRequestTest, ARequestForNothingSucceedsWithNoMembers) {
  // A double cannot be read, so the handler gets no element.
  for (const Properties& nothing : {kNothing, Properties{Property::Double("qz", 1)}}) {
    ExpectGet(nothing, kSuccess, kNothing);
    ExpectSet(nothing, kSuccess, kNothing, {});
  }
}

TEST_F(AppDataChannelControlRequestTest, AsksForThingPropertiesBeforeApplications) {
  control.m_app_info.m_appList.insert("signupInfo");
  ASSERT_EQ(0, control.RegisterApp("signupInfo"));
  ASSERT_EQ(0, control.NotifyData("signupInfo", "of an application"));
  ExpectGet({Property::String("signupInfo", "")}, kSuccess, {Property::String("signupInfo", "")});
  ExpectSet({Property::String("signupInfo", "text")}, kSuccess, kNothing,
            ThingProperty(R"({"signupInfo": "text"})"));
  EXPECT_EQ(Json::Value("text"), ThingValue("signupInfo"));
}

TEST_F(AppDataChannelControlRequestTest, AnElementMayHaveNoOrManyMembers) {
  const std::string item = R"({"welcome": 1, "signupInfo": {}, "qz": "new", "signinStatus": true})";
  const std::vector<JsonValueAdaptor> elements = {
      JsonValueAdaptor(), JsonValueAdaptor::Create("{}"), JsonValueAdaptor::Create(item)};
  control.getHandler(&otherRequest, elements);
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz"), Property::String("signinStatus", ""),
                          Property::String("signupInfo", ""), Property::String("welcome", "")});
  EXPECT_EQ(&otherRequest, platform.Responses().at(0).request);

  platform.ClearTrace();
  char another = 'r';
  control.setHandler(&another, elements);
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz"), Property::String("welcome", "")});
  EXPECT_EQ(&another, platform.Responses().at(0).request);
  // Sorted by name, and the whole element for each of its thing properties.
  EXPECT_TRUE(Logged(Framed("setHandler", Forwarded("qz", "new") + ThingProperty(item) +
                                              ConnectionChanged("true") + ThingProperty(item) +
                                              Forwarded("welcome", "1"))));
}

TEST_F(AppDataChannelControlRequestTest, AnElementThatIsNoObjectLeavesTheRequestUnanswered) {
  for (const std::string text : {"[]", "[1]", "\"text\"", "1", "true"}) {
    SCOPED_TRACE(text);
    const std::vector<JsonValueAdaptor> elements = {JsonValueAdaptor::Create(R"({"qz": "new"})"),
                                                    JsonValueAdaptor::Create(text)};
    platform.ClearTrace();
    control.getHandler(&otherRequest, elements);
    EXPECT_TRUE(Logged(Framed("getHandler", Exception("getHandler"))));
    platform.ClearTrace();
    control.setHandler(&otherRequest, elements);
    EXPECT_TRUE(Logged(Framed("setHandler", Forwarded("qz", "new") + Exception("setHandler"))));
  }
  EXPECT_TRUE(platform.Responses().empty());
}

TEST_F(AppDataChannelControlRequestTest, EveryKindOfExceptionIsCaughtByTheHandlers) {
  platform.OnCall("lumo_property_list_create", [] { throw 7; });
  ExpectException("getHandler", kDataOfQz, {});
  ExpectException("setHandler", {}, {});
  EXPECT_EQ(0U, platform.CountLogs("exception from job"));
}

// --- set: the thing's properties

TEST_F(AppDataChannelControlRequestTest, SigninStatusIsStoredAndAnnouncedAsABooleanAndNotEchoed) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"true", "true"}, {"false", "false"},    {"null", "false"}, {"0", "false"},
      {"1", "true"},    {"-1", "true"},        {"0.0", "false"},  {"0.25", "true"},
      {"true", "true"}, {"4294967295", "true"}};
  for (const auto& [value, connected] : cases) {
    ExpectSet({Property::Json("signinStatus", value)}, kSuccess, kNothing,
              ThingProperty("{\"signinStatus\": " + value + "}") + ConnectionChanged(connected));
    EXPECT_EQ(JsonValueAdaptor::Create(value), ThingValue("signinStatus"));
    EXPECT_EQ(value == "true", IsConnected());
  }
  for (const bool value : {true, false}) {
    const std::string text = value ? "true" : "false";
    ExpectSet({Property::Bool("signinStatus", value)}, kSuccess, kNothing,
              ThingProperty("{\"signinStatus\": " + text + "}") + ConnectionChanged(text));
    EXPECT_EQ(Json::Value(value), ThingValue("signinStatus"));
  }
  ExpectSet({Property::Json("signinStatus", std::nullopt)}, kSuccess, kNothing,
            ThingProperty("{\"signinStatus\": null}") + ConnectionChanged("false"));
  EXPECT_TRUE(ThingValue("signinStatus").isNull());
}

TEST_F(AppDataChannelControlRequestTest, TheSignInStatusIsStoredBeforeItIsAnnounced) {
  DeliverHeldUp({Property::Bool("signinStatus", true)},
                [this] { EXPECT_EQ(Json::Value(true), ThingValue("signinStatus")); });
}

TEST_F(AppDataChannelControlRequestTest,
       ASigninStatusThatIsNoBooleanIsStoredButNeitherAnnouncedNorAnswered) {
  for (const std::string value : {"\"true\"", "\"\"", "[true]", "{}"}) {
    ExpectException("setHandler", {Property::Json("signinStatus", value)},
                    ThingProperty("{\"signinStatus\": " + value + "}"));
    EXPECT_EQ(JsonValueAdaptor::Create(value), ThingValue("signinStatus"));
    EXPECT_FALSE(IsConnected());
  }
}

TEST_F(AppDataChannelControlRequestTest, AWriteOfSignupInfoIsStoredWithoutASignal) {
  // Also what logs could take for a format, and what is nested beyond the parser's limit.
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  for (const std::string& text : Strings{R"({"id": "x", "hubs": [1]})", "\"100%s%n\"", deep}) {
    DeliverAndWait("setHandler", {Property::Json("signupInfo", text)});
    ExpectAnswer(kSuccess, kNothing);
    if (text == deep) continue;
    EXPECT_TRUE(Logged(Framed("setHandler", ThingProperty("{\"signupInfo\": " + text + "}"))));
    EXPECT_EQ(JsonValueAdaptor::Create(text), ThingValue("signupInfo"));
    std::string info;
    EXPECT_EQ(0, control.GetThingInfo(info));
    EXPECT_EQ(ThingValue("signupInfo").toStyledString(), info);
  }
}

// --- set: applications

TEST_F(AppDataChannelControlRequestTest,
       AWriteToAnApplicationIsForwardedAsTextAndAnsweredWithItsDataFromBefore) {
  const std::vector<std::pair<Property, std::string>> cases = {
      {Property::String("qz", "42"), "42"},
      {Property::Int("qz", -42), "-42"},
      {Property::Bool("qz", true), "true"},
      {Property::Bool("qz", false), "false"},
      {Property::Json("qz", "1.5"), "1.5"},
      {Property::Json("qz", "4294967295"), "4294967295"},
      {Property::Json("qz", "null"), ""},
      {Property::Json("qz", std::nullopt), ""},
      {Property::String("qz", std::nullopt), ""},
      {Property::String("qz", "%s %n"), "%s %n"},
      {Property::String("qz", std::string(kMebibyte, 'x')), std::string(kMebibyte, 'x')}};
  for (const auto& [property, text] : cases) {
    ExpectSet({property}, kSuccess, kDataOfQz, Forwarded("qz", text));
    EXPECT_EQ("of qz", control.m_app_info.GetAppData("qz"));
    EXPECT_TRUE(platform.Notifications().empty());
  }
  ExpectSet({Property::String("welcome", "42")}, kSuccess, {Property::String("welcome", "")},
            Forwarded("welcome", "42"));
}

TEST_F(AppDataChannelControlRequestTest, AWriteOfAnObjectOrArrayToAnApplicationIsNotAnswered) {
  for (const std::string value : {"{}", R"({"a": 1})", "[]", "[1]"}) {
    ExpectException("setHandler", {Property::Json("qz", value)}, {});
  }
}

TEST_F(AppDataChannelControlRequestTest, WhatWasDoneBeforeAnExceptionStays) {
  ExpectException("setHandler",
                  {Property::Bool("signinStatus", true), Property::String("qz", "first"),
                   Property::Json("welcome", "{}"), Property::String("qz", "never"),
                   Property::Json("signupInfo", "{}")},
                  ThingProperty("{\"signinStatus\": true}") + ConnectionChanged("true") +
                      Forwarded("qz", "first"));
  EXPECT_EQ(Json::Value(true), ThingValue("signinStatus"));
  EXPECT_TRUE(ThingValue("signupInfo").isNull());
  // And the next request is served.
  ExpectSet({Property::String("qz", "again")}, kSuccess, kDataOfQz, Forwarded("qz", "again"));
}

TEST_F(AppDataChannelControlRequestTest, ForwardsInTheOrderOfTheRequest) {
  control.NotifyData("welcome", "of welcome");
  ExpectSet({Property::String("welcome", "1"), Property::String("qz", "2"),
             Property::String("welcome", "3")},
            kSuccess, {Property::String("qz", "of qz"), Property::String("welcome", "of welcome")},
            Forwarded("welcome", "1") + Forwarded("qz", "2") + Forwarded("welcome", "3"));
}

TEST_F(AppDataChannelControlRequestTest,
       AWriteToAnUnknownNameIsLoggedAndFailsButTheOthersAreHandled) {
  ExpectSet(
      {Property::String("nobody", "1"), Property::String("qz", "2"),
       Property::String("galleryapp", "3"),  // allowed, but not registered
       Property::String("", "4"), Property::String("%n", "5"), Property::Json("signupInfo", "{}")},
      kFailure, kDataOfQz,
      Unregistered("nobody") + Forwarded("qz", "2") + Unregistered("galleryapp") +
          Unregistered("") + Unregistered("%n") + ThingProperty(R"({"signupInfo": {}})"));
  EXPECT_TRUE(ThingValue("signupInfo").isObject());
}

TEST_F(AppDataChannelControlRequestTest, TheAnswerToAWriteReadsTheDataWhenAllIsForwarded) {
  // The applications' operations do not wait for the handler.
  DeliverHeldUp({Property::String("qz", "wanted"), Property::String("welcome", "wanted")}, [this] {
    EXPECT_EQ(0, control.NotifyData("qz", "sent meanwhile"));
    EXPECT_EQ(0, control.UnregisterApp("welcome"));
    EXPECT_EQ(0, control.RegisterApp("welcome"));
  });
  ExpectAnswer(kSuccess,
               {Property::String("qz", "sent meanwhile"), Property::String("welcome", "")});

  // Also while a later one is forwarded: after "Entered" and the two lines of the first one.
  std::atomic<int> lines = 0;
  platform.OnCall("dlog_print", [&, self = std::this_thread::get_id()] {
    if (std::this_thread::get_id() != self && ++lines == 4) control.NotifyData("qz", "sent later");
  });
  DeliverAndWait("setHandler", {Property::String("qz", "1"), Property::String("welcome", "2")});
  platform.OnCall("dlog_print", {});
  ExpectAnswer(kSuccess, {Property::String("qz", "sent later"), Property::String("welcome", "")});

  platform.ClearTrace();
  DeliverHeldUp({Property::String("qz", "wanted")},
                [this] { EXPECT_EQ(0, control.UnregisterApp("qz")); });
  ExpectAnswer(kSuccess, {Property::String("qz", "")});
  EXPECT_TRUE(LoggedOnce(RegistryLine("GetAppData", "[qz] not registered")));
}

TEST_F(AppDataChannelControlRequestTest, ServesAWriteOfTenThousandProperties) {
  constexpr std::size_t kCount = 10000;
  Properties properties;
  for (std::size_t i = 0; i < kCount; ++i) {
    properties.push_back(Property::String(i % 2 == 0 ? "qz" : "nobody", "x"));
  }
  platform.DeliverSet(properties);
  EXPECT_TRUE(platform.WaitUntil([this] { return !platform.Responses().empty(); }));
  ExpectAnswer(kFailure, kDataOfQz);
  EXPECT_EQ(kCount / 2, platform.CountLogs("[qz] data: x"));
  EXPECT_EQ(kCount / 2, platform.CountLogs("unregistered. app name: nobody"));
}

// --- cancel

TEST_F(AppDataChannelControlRequestTest, ACancelIsOnlyLogged) {
  void* const seen = DeliverAndWait("setHandler", {Property::Bool("signinStatus", true)});
  for (void* const request :
       {seen, static_cast<void*>(&otherRequest), static_cast<void*>(nullptr)}) {
    platform.ClearTrace();
    platform.DeliverCancel(request);
    EXPECT_TRUE(platform.WaitUntil([this] { return EndsOf("cancelHandler") == 1; }));
    char text[32];
    ASSERT_GT(std::snprintf(text, sizeof text, "cancel: %p\n", request), 0);
    EXPECT_TRUE(Logged(Framed("cancelHandler", {Error("cancelHandler", text)})));
    EXPECT_EQ(Strings(), platform.Calls());
    EXPECT_EQ(Json::Value(true), ThingValue("signinStatus"));
  }
}

// --- all three

TEST_F(AppDataChannelControlRequestTest, HandlersDoNotTakeTheControlsLock) {
  const std::lock_guard<std::recursive_mutex> lock(control.m_mutex);
  ExpectGet({Property::String("qz", "")}, kSuccess, kDataOfQz);
  ExpectSet({Property::String("qz", "new"), Property::Bool("signinStatus", true)}, kSuccess,
            kDataOfQz,
            Forwarded("qz", "new") + ThingProperty("{\"signinStatus\": true}") +
                ConnectionChanged("true"));
  platform.DeliverCancel(&otherRequest);
  EXPECT_TRUE(platform.WaitUntil([this] { return EndsOf("cancelHandler") == 1; }));
}

TEST_F(AppDataChannelControlRequestTest, HandlersRunOneAtATimeOnOneThread) {
  constexpr std::size_t kTimes = 20;
  for (std::size_t i = 0; i < kTimes; ++i) {
    platform.PostGet({Property::String("qz", "")});
    platform.PostSet({Property::String("qz", "new")});
    platform.PostCancel(&otherRequest);
  }
  platform.Drain();
  EXPECT_TRUE(platform.WaitUntil([this] {
    return EndsOf("getHandler") + EndsOf("setHandler") + EndsOf("cancelHandler") == 3 * kTimes;
  }));
  EXPECT_EQ(2 * kTimes, platform.Responses().size());
  std::set<std::thread::id> threads;
  std::string inside;
  for (const fake::Entry& entry : platform.Trace()) {
    if (entry.log.file != "AppDataChannelControl.cpp") continue;
    threads.insert(entry.thread);
    if (entry.log.Message() == " > Entered") {
      EXPECT_EQ("", std::exchange(inside, entry.log.function));
    } else if (entry.log.Message() == " > Left") {
      EXPECT_EQ(entry.log.function, std::exchange(inside, ""));
    }
  }
  EXPECT_EQ(1U, threads.size());
}

TEST_F(AppDataChannelControlRequestTest, ServesTheCloudAndTheApplicationsAtOnce) {
  constexpr std::size_t kTimes = 50;
  const std::string one(3000, '1');
  const std::string two(5000, '2');
  auto bus = std::async(std::launch::async, [&] {
    for (std::size_t i = 0; i < kTimes; ++i) {
      EXPECT_EQ(0, control.RegisterApp("welcome"));
      EXPECT_EQ(0, control.NotifyData("welcome", i % 2 == 0 ? one : two));
      IsConnected();
      std::string info;
      control.GetThingInfo(info);
      EXPECT_EQ(0, control.UnregisterApp("welcome"));
    }
  });
  for (std::size_t i = 0; i < kTimes; ++i) {
    platform.PostGet({Property::String("welcome", ""), Property::Bool("signinStatus", true)});
    platform.PostSet({Property::Bool("signinStatus", i % 2 == 0),
                      Property::Json("signupInfo", "{\"id\": " + std::to_string(i) + "}"),
                      Property::String("welcome", "wanted")});
  }
  bus.get();
  EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 2 * kTimes; }));
  for (const fake::Response& response : platform.Responses()) {
    EXPECT_EQ(kSuccess, response.code);
    for (const Property& property : response.properties) {
      if (property.name != "welcome") continue;
      EXPECT_TRUE(property.text == "" || property.text == one || property.text == two);
    }
  }
}

// --- around the start and the stop

TEST_F(AppDataChannelControlRequestTest, DestroyDoesNotWaitForAHandlerThatIsRunning) {
  DeliverHeldUp({Property::String("qz", "wanted")}, [this] {
    control.Destroy();
    EXPECT_FALSE(control.IsCreated());
    EXPECT_TRUE(platform.Responses().empty());
  });
  ExpectAnswer(kSuccess, {Property::String("qz", "")});
  EXPECT_EQ(nullptr, platform.Responses().at(0).service);
}

TEST_F(AppDataChannelControlRequestTest, StartsAndStopsWithRequestsInFlight) {
  constexpr unsigned kTimes = 20;
  control.Destroy();
  for (unsigned i = 0; i < kTimes; ++i) {
    ASSERT_TRUE(control.Create());
    ASSERT_EQ(0, control.RegisterApp("qz"));
    for (unsigned k = 0; k < 5; ++k) {
      platform.PostSet({Property::String("qz", "wanted"), Property::Bool("signinStatus", true)});
      platform.PostCancel(platform.PostGet({Property::String("qz", "")}));
    }
    control.Destroy();
    platform.Drain();
  }
  EXPECT_EQ(0U, platform.LiveServices());
  EXPECT_EQ(0U, platform.CountLogs("occurred exception"));

  // No lock is held while the library is called, so a handler that was answering may have read the
  // service just before it was destroyed. Nothing else may go wrong.
  control.Shutdown();
  EXPECT_EQ(kTimes + 1, platform.CountLogs("MsgQueue destructed"));
  for (const std::string& violation : platform.TakeViolations()) {
    EXPECT_NE(std::string::npos,
              violation.find("_property_result: service used after it was destroyed"))
        << violation;
  }
}
