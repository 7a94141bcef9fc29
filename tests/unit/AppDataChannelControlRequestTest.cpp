#include <cstddef>
#include <cstdio>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AppDataChannelControl.h"
#include "AppDataChannelCore.h"
#include "JsonValueAdaptor.h"
#include "PlatformTest.h"

using AppDataChannel::AppDataChannelControl;
using AppDataChannel::AppDataChannelCore;
using fake::Property;
using ThingCommon::JsonValueAdaptor;

namespace {

constexpr int kInfo = 4;
constexpr int kError = 6;
constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
constexpr int kSuccess = 0;  // what the library gets
constexpr int kFailure = 6;
const std::string kTag = "TVCONTROL_A";
const std::string kEntered = "> Entered\n";
const std::string kLeft = "> Left\n";

const std::vector<Property> kNoProperties;

ExpectedLog Info(const std::string& function, const std::string& message) {
  return {kInfo, kTag, "AppDataChannelControl.cpp", function, message};
}

ExpectedLog Error(const std::string& function, const std::string& message) {
  return {kError, kTag, "AppDataChannelControl.cpp", function, message};
}

ExpectedLog ServerInfo(const std::string& function, const std::string& message) {
  return {kInfo, kTag, "DBusServer.cpp", function, message};
}

// What the D-Bus server logs in these tests: there is no bus.
ExpectedLog NotInitialized(const std::string& function) {
  return {kError, kTag, "DBusServer.cpp", function, "not initialized"};
}

ExpectedLog ThingProperty(const std::string& item) {
  return Info("setHandler",
              "thing property: " + JsonValueAdaptor::Create(item).toStyledString() + "\n");
}

using Lines = std::vector<ExpectedLog>;

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The lines of a handler between its first and its last.
Lines Framed(const std::string& handler, const Lines& lines) {
  return Lines{Info(handler, kEntered)} + lines + Lines{Info(handler, kLeft)};
}

Lines Forwarded(const std::string& name, const std::string& text) {
  return {ServerInfo("SendSetRequest", "[" + name + "] data: " + text),
          NotInitialized("SendSetRequest")};
}

Lines ConnectionChanged(const std::string& connected) {
  return {ServerInfo("SendCloudConnectionChange", "cloud connection status: " + connected),
          NotInitialized("SendCloudConnectionChange")};
}

}  // namespace

// A control that is created, with "qz" and "welcome" registered; "qz" has sent "of qz".
class AppDataChannelControlRequestTest : public PlatformTest {
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

  void TearDown() override {
    platform.Drain();
    control.Destroy();
    control.Shutdown();
    PlatformTest::TearDown();
  }

  // Both deliver a request and wait until the handler has ended.
  void* Get(const std::vector<Property>& properties) {
    return waitFor("getHandler", platform.DeliverGet(properties));
  }
  void* Set(const std::vector<Property>& properties) {
    return waitFor("setHandler", platform.DeliverSet(properties));
  }

  // The one answer since the trace was cleared.
  fake::Response Answer() {
    const std::vector<fake::Response> responses = platform.Responses();
    EXPECT_EQ(1U, responses.size());
    return responses.size() == 1 ? responses[0] : fake::Response();
  }

  // There is one answer, and it is this one.
  void ExpectAnswer(int code, const std::vector<Property>& properties) {
    const fake::Response answer = Answer();
    EXPECT_EQ(code, answer.code);
    EXPECT_EQ(properties, answer.properties);
    EXPECT_FALSE(answer.listWasNull);
    EXPECT_EQ(platform.Service(), answer.service);
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

  AppDataChannelControl control;
  char otherRequest = 'r';  // for handlers that are called directly

 private:
  void* waitFor(const std::string& handler, void* request) {
    EXPECT_TRUE(platform.WaitUntil([&] { return EndsOf(handler) == 1; }));
    return request;
  }
};

// --- get

TEST_F(AppDataChannelControlRequestTest, AReadOfAThingPropertyGivesTheEmptyStringWhateverIsStored) {
  Get({Property::Bool("signinStatus", false)});
  ExpectAnswer(kSuccess, {Property::String("signinStatus", "")});
  EXPECT_TRUE(LoggedExactly(kTag, Framed("getHandler", {})));

  control.m_thing_info.SetThingProperty("signinStatus", JsonValueAdaptor::Create("true"));
  control.m_thing_info.SetThingProperty("signupInfo", JsonValueAdaptor::Create(R"({"id": 1})"));
  platform.ClearTrace();
  Get({Property::Bool("signinStatus", false), Property::Json("signupInfo", "{}")});
  ExpectAnswer(kSuccess,
               {Property::String("signinStatus", ""), Property::String("signupInfo", "")});
}

TEST_F(AppDataChannelControlRequestTest, AReadOfAnApplicationGivesItsDataAsAString) {
  Get({Property::String("qz", "of no use")});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
  EXPECT_TRUE(LoggedExactly(kTag, Framed("getHandler", {})));

  for (const std::string data : {"42", "true", R"({"a": 1})", "null"}) {
    control.NotifyData("qz", data);
    platform.ClearTrace();
    Get({Property::Int("qz", 1)});
    ExpectAnswer(kSuccess, {Property::String("qz", data)});
  }
}

TEST_F(AppDataChannelControlRequestTest, AReadOfAnApplicationThatSentNothingGivesTheEmptyString) {
  Get({Property::String("welcome", "")});
  ExpectAnswer(kSuccess, {Property::String("welcome", "")});
}

TEST_F(AppDataChannelControlRequestTest, AReadOfAnUnknownNameFailsSilentlyAndAnswersTheOthers) {
  Get({Property::String("nobody", ""), Property::String("qz", ""),
       Property::String("galleryapp", ""),  // allowed, but not registered
       Property::String("", ""), Property::Bool("signinStatus", true)});
  ExpectAnswer(kFailure, {Property::String("qz", "of qz"), Property::String("signinStatus", "")});
  EXPECT_TRUE(LoggedExactly(kTag, Framed("getHandler", {})));
}

TEST_F(AppDataChannelControlRequestTest, AReadOfNothingSucceedsWithNoMembers) {
  Get({});
  ExpectAnswer(kSuccess, kNoProperties);
  platform.ClearTrace();
  // A double cannot be read, so the handler gets no element.
  Get({Property::Double("qz", 1)});
  ExpectAnswer(kSuccess, kNoProperties);
}

TEST_F(AppDataChannelControlRequestTest, AReadOfUnknownNamesOnlyFailsWithNoMembers) {
  Get({Property::String("nobody", "")});
  ExpectAnswer(kFailure, kNoProperties);
}

TEST_F(AppDataChannelControlRequestTest, AReadOfANameTwiceGivesItOnce) {
  Get({Property::String("qz", ""), Property::String("qz", "")});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
}

TEST_F(AppDataChannelControlRequestTest, AReadAfterUnregistrationFails) {
  control.UnregisterApp("qz");
  platform.ClearTrace();
  Get({Property::String("qz", "")});
  ExpectAnswer(kFailure, kNoProperties);
}

TEST_F(AppDataChannelControlRequestTest, AnswersEachRequestOnceOnTheWorkersThread) {
  void* const read = Get({Property::String("qz", "")});
  fake::Response answer = Answer();
  EXPECT_FALSE(answer.isSet);
  EXPECT_EQ(read, answer.request);
  EXPECT_NE(std::this_thread::get_id(), answer.thread);
  const std::thread::id worker = answer.thread;

  platform.ClearTrace();
  void* const write = Set({Property::String("qz", "new")});
  answer = Answer();
  EXPECT_TRUE(answer.isSet);
  EXPECT_EQ(write, answer.request);
  EXPECT_EQ(worker, answer.thread);
}

TEST_F(AppDataChannelControlRequestTest, LooksForThingPropertiesBeforeApplications) {
  control.m_app_info.m_appList.insert("signupInfo");
  ASSERT_EQ(0, control.RegisterApp("signupInfo"));
  ASSERT_EQ(0, control.NotifyData("signupInfo", "of an application"));
  platform.ClearTrace();
  Get({Property::String("signupInfo", "")});
  ExpectAnswer(kSuccess, {Property::String("signupInfo", "")});

  platform.ClearTrace();
  Set({Property::String("signupInfo", "text")});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(
      LoggedExactly(kTag, Framed("setHandler", {ThingProperty(R"({"signupInfo": "text"})")})));
  EXPECT_EQ(Json::Value("text"), ThingValue("signupInfo"));
}

TEST_F(AppDataChannelControlRequestTest, AnElementOfAReadMayHaveNoOrManyMembers) {
  control.getHandler(&otherRequest,
                     {JsonValueAdaptor(), JsonValueAdaptor::Create("{}"),
                      JsonValueAdaptor::Create(R"({"welcome": 1, "qz": 1, "signinStatus": 1})")});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz"), Property::String("signinStatus", ""),
                          Property::String("welcome", "")});
  EXPECT_EQ(&otherRequest, Answer().request);
}

TEST_F(AppDataChannelControlRequestTest, AnElementOfAReadThatIsNoObjectLeavesTheRequestUnanswered) {
  for (const std::string text : {"[]", "[1]", "\"text\"", "1", "true"}) {
    platform.ClearTrace();
    control.getHandler(&otherRequest,
                       {JsonValueAdaptor::Create(R"({"qz": 1})"), JsonValueAdaptor::Create(text)});
    EXPECT_TRUE(platform.Responses().empty()) << text;
    EXPECT_TRUE(
        LoggedExactly(kTag, Framed("getHandler", {Error("getHandler", "occurred exception\n")})))
        << text;
  }
}

TEST_F(AppDataChannelControlRequestTest, EveryKindOfExceptionIsCaughtByTheHandlers) {
  platform.OnCall("lumo_property_list_create", [] { throw 7; });
  Get({Property::String("qz", "")});
  EXPECT_TRUE(
      LoggedExactly(kTag, Framed("getHandler", {Error("getHandler", "occurred exception\n")})));
  platform.ClearTrace();
  Set({});
  EXPECT_TRUE(
      LoggedExactly(kTag, Framed("setHandler", {Error("setHandler", "occurred exception\n")})));
  EXPECT_EQ(0U, platform.CountLogs("exception from job"));
  EXPECT_TRUE(platform.Responses().empty());
}

// --- set: the thing's properties

TEST_F(AppDataChannelControlRequestTest, AWriteOfSigninStatusIsStoredAndAnnouncedAndNotEchoed) {
  Set({Property::Bool("signinStatus", true)});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(LoggedExactly(
      kTag, Framed("setHandler",
                   Lines{ThingProperty("{\"signinStatus\": true}")} + ConnectionChanged("true"))));
  EXPECT_EQ(Json::Value(true), ThingValue("signinStatus"));
  bool connected = false;
  control.GetCloudConnection(connected);
  EXPECT_TRUE(connected);

  platform.ClearTrace();
  Set({Property::Bool("signinStatus", false)});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(
      LoggedExactly(kTag, Framed("setHandler", Lines{ThingProperty("{\"signinStatus\": false}")} +
                                                   ConnectionChanged("false"))));
  EXPECT_EQ(Json::Value(false), ThingValue("signinStatus"));
}

TEST_F(AppDataChannelControlRequestTest, TheSignInStatusIsStoredBeforeItIsAnnounced) {
  {
    // The announcement waits for the server.
    const std::lock_guard<std::recursive_mutex> server(
        AppDataChannelCore::GetInstance().GetDbusServer().m_mutex);
    platform.DeliverSet({Property::Bool("signinStatus", true)});
    EXPECT_TRUE(platform.WaitUntil([this] { return platform.CountLogs("cloud connection") == 1; }));
    EXPECT_EQ(Json::Value(true), ThingValue("signinStatus"));
    EXPECT_TRUE(platform.Responses().empty());
  }
  EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
}

TEST_F(AppDataChannelControlRequestTest, SigninStatusIsAnnouncedAsTheBooleanThatItConvertsTo) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"null", "false"}, {"0", "false"},   {"1", "true"},    {"-1", "true"},
      {"0.0", "false"},  {"0.25", "true"}, {"true", "true"}, {"4294967295", "true"}};
  for (const auto& [value, connected] : cases) {
    platform.ClearTrace();
    Set({Property::Json("signinStatus", value)});
    ExpectAnswer(kSuccess, kNoProperties);
    EXPECT_TRUE(LoggedExactly(
        kTag, Framed("setHandler", Lines{ThingProperty("{\"signinStatus\": " + value + "}")} +
                                       ConnectionChanged(connected))));
    EXPECT_EQ(JsonValueAdaptor::Create(value), ThingValue("signinStatus"));
  }
}

TEST_F(AppDataChannelControlRequestTest, ANullSigninStatusConvertsToFalse) {
  Set({Property::Bool("signinStatus", true)});
  platform.ClearTrace();
  Set({Property::Json("signinStatus", std::nullopt)});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(LoggedExactly(
      kTag, Framed("setHandler",
                   Lines{ThingProperty("{\"signinStatus\": null}")} + ConnectionChanged("false"))));
  EXPECT_TRUE(ThingValue("signinStatus").isNull());
}

TEST_F(AppDataChannelControlRequestTest,
       ASigninStatusThatIsNoBooleanIsStoredButNeitherAnnouncedNorAnswered) {
  for (const std::string value : {"\"true\"", "\"\"", "[true]", "{}"}) {
    platform.ClearTrace();
    Set({Property::Json("signinStatus", value)});
    EXPECT_TRUE(platform.Responses().empty());
    EXPECT_TRUE(LoggedExactly(
        kTag, Framed("setHandler", {ThingProperty("{\"signinStatus\": " + value + "}"),
                                    Error("setHandler", "occurred exception\n")})));
    EXPECT_EQ(JsonValueAdaptor::Create(value), ThingValue("signinStatus"));
    bool connected = true;
    EXPECT_EQ(0, control.GetCloudConnection(connected));
    EXPECT_FALSE(connected);
  }
}

TEST_F(AppDataChannelControlRequestTest, AWriteOfSignupInfoIsStoredWithoutASignal) {
  Set({Property::Json("signupInfo", R"({"id": "x", "hubs": [1]})")});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(LoggedExactly(
      kTag, Framed("setHandler", {ThingProperty(R"({"signupInfo": {"id": "x", "hubs": [1]}})")})));
  std::string info;
  EXPECT_EQ(0, control.GetThingInfo(info));
  EXPECT_EQ(ThingValue("signupInfo").toStyledString(), info);
  EXPECT_EQ(JsonValueAdaptor::Create(R"({"id": "x", "hubs": [1]})"), ThingValue("signupInfo"));
}

TEST_F(AppDataChannelControlRequestTest, LogsTheWholeElementForEachOfItsThingProperties) {
  const std::string item = R"({"signupInfo": {}, "qz": "new", "signinStatus": true})";
  control.setHandler(&otherRequest, {JsonValueAdaptor::Create(item)});
  // Sorted by name.
  EXPECT_TRUE(LoggedExactly(
      kTag, Framed("setHandler", Forwarded("qz", "new") + Lines{ThingProperty(item)} +
                                     ConnectionChanged("true") + Lines{ThingProperty(item)})));
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
}

TEST_F(AppDataChannelControlRequestTest, ThingPropertiesMayHoldWhatLogsCouldTakeForAFormat) {
  Set({Property::String("signupInfo", "100%s%n")});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(
      LoggedExactly(kTag, Framed("setHandler", {ThingProperty(R"({"signupInfo": "100%s%n"})")})));
}

TEST_F(AppDataChannelControlRequestTest, SurvivesSignUpInformationNestedBeyondTheParsersLimit) {
  constexpr std::size_t kDepth = 5000;
  std::string text;
  for (std::size_t i = 0; i < kDepth; ++i) text += "[";
  Set({Property::Json("signupInfo", text + std::string(kDepth, ']'))});
  ExpectAnswer(kSuccess, kNoProperties);
  std::string info;
  control.GetThingInfo(info);
}

// --- set: applications

TEST_F(AppDataChannelControlRequestTest,
       AWriteToAnApplicationIsForwardedAndAnsweredWithItsDataFromBefore) {
  Set({Property::String("qz", "42")});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
  EXPECT_TRUE(LoggedExactly(kTag, Framed("setHandler", Forwarded("qz", "42"))));
  EXPECT_EQ("of qz", control.m_app_info.GetAppData("qz"));
  EXPECT_TRUE(platform.Notifications().empty());
}

TEST_F(AppDataChannelControlRequestTest,
       AWriteToAnApplicationThatSentNothingIsAnsweredWithTheEmptyString) {
  Set({Property::String("welcome", "42")});
  ExpectAnswer(kSuccess, {Property::String("welcome", "")});
}

TEST_F(AppDataChannelControlRequestTest, ForwardsScalarsAsText) {
  const std::vector<std::pair<Property, std::string>> cases = {
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
    platform.ClearTrace();
    Set({property});
    ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
    EXPECT_TRUE(LoggedExactly(kTag, Framed("setHandler", Forwarded("qz", text))));
  }
}

TEST_F(AppDataChannelControlRequestTest, AWriteOfAnObjectOrArrayToAnApplicationIsNotAnswered) {
  for (const std::string value : {"{}", R"({"a": 1})", "[]", "[1]"}) {
    platform.ClearTrace();
    Set({Property::Json("qz", value)});
    EXPECT_TRUE(platform.Responses().empty()) << value;
    EXPECT_TRUE(
        LoggedExactly(kTag, Framed("setHandler", {Error("setHandler", "occurred exception\n")})))
        << value;
  }
}

TEST_F(AppDataChannelControlRequestTest, WhatWasDoneBeforeAnExceptionStays) {
  Set({Property::Bool("signinStatus", true), Property::String("qz", "first"),
       Property::Json("welcome", "{}"), Property::String("qz", "never"),
       Property::Json("signupInfo", "{}")});
  EXPECT_TRUE(platform.Responses().empty());
  EXPECT_TRUE(LoggedExactly(
      kTag, Framed("setHandler", Lines{ThingProperty("{\"signinStatus\": true}")} +
                                     ConnectionChanged("true") + Forwarded("qz", "first") +
                                     Lines{Error("setHandler", "occurred exception\n")})));
  EXPECT_EQ(Json::Value(true), ThingValue("signinStatus"));
  EXPECT_TRUE(ThingValue("signupInfo").isNull());

  // And the next request is served.
  platform.ClearTrace();
  Set({Property::String("qz", "again")});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
}

TEST_F(AppDataChannelControlRequestTest, ForwardsInTheOrderOfTheRequest) {
  control.NotifyData("welcome", "of welcome");
  platform.ClearTrace();
  Set({Property::String("welcome", "1"), Property::String("qz", "2"),
       Property::String("welcome", "3")});
  EXPECT_TRUE(LoggedExactly(
      kTag, Framed("setHandler",
                   Forwarded("welcome", "1") + Forwarded("qz", "2") + Forwarded("welcome", "3"))));
  ExpectAnswer(kSuccess,
               {Property::String("qz", "of qz"), Property::String("welcome", "of welcome")});
}

TEST_F(AppDataChannelControlRequestTest,
       AWriteToAnUnknownNameIsLoggedAndFailsButTheOthersAreHandled) {
  Set({Property::String("nobody", "1"), Property::String("qz", "2"),
       Property::String("galleryapp", "3"),  // allowed, but not registered
       Property::String("", "4"), Property::String("%n", "5"), Property::Json("signupInfo", "{}")});
  ExpectAnswer(kFailure, {Property::String("qz", "of qz")});
  EXPECT_TRUE(LoggedExactly(
      kTag,
      Framed("setHandler", Lines{Error("setHandler", "unregistered. app name: nobody\n")} +
                               Forwarded("qz", "2") +
                               Lines{Error("setHandler", "unregistered. app name: galleryapp\n"),
                                     Error("setHandler", "unregistered. app name: \n"),
                                     Error("setHandler", "unregistered. app name: %n\n"),
                                     ThingProperty(R"({"signupInfo": {}})")})));
  EXPECT_TRUE(ThingValue("signupInfo").isObject());
}

TEST_F(AppDataChannelControlRequestTest, AWriteOfNothingSucceedsWithNoMembers) {
  Set({});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_TRUE(LoggedExactly(kTag, Framed("setHandler", {})));
}

TEST_F(AppDataChannelControlRequestTest, AnElementOfAWriteMayHaveNoMembers) {
  control.setHandler(&otherRequest, {JsonValueAdaptor(), JsonValueAdaptor::Create("{}")});
  ExpectAnswer(kSuccess, kNoProperties);
  EXPECT_EQ(&otherRequest, Answer().request);
}

TEST_F(AppDataChannelControlRequestTest,
       AnElementOfAWriteThatIsNoObjectLeavesTheRequestUnanswered) {
  for (const std::string text : {"[]", "[1]", "\"text\"", "1", "true"}) {
    platform.ClearTrace();
    control.setHandler(&otherRequest, {JsonValueAdaptor::Create(R"({"qz": "new"})"),
                                       JsonValueAdaptor::Create(text)});
    EXPECT_TRUE(platform.Responses().empty()) << text;
    EXPECT_TRUE(LoggedExactly(
        kTag, Framed("setHandler",
                     Forwarded("qz", "new") + Lines{Error("setHandler", "occurred exception\n")})))
        << text;
  }
}

TEST_F(AppDataChannelControlRequestTest, TheAnswerToAWriteReadsTheDataWhenAllIsForwarded) {
  {
    // Forwarding waits for the server.
    const std::lock_guard<std::recursive_mutex> server(
        AppDataChannelCore::GetInstance().GetDbusServer().m_mutex);
    platform.DeliverSet({Property::String("qz", "wanted"), Property::String("welcome", "wanted")});
    EXPECT_TRUE(platform.WaitUntil([this] { return platform.CountLogs("[qz] data") == 1; }));
    // The applications' operations do not wait for the handler.
    EXPECT_EQ(0, control.NotifyData("qz", "sent meanwhile"));
    EXPECT_EQ(0, control.UnregisterApp("welcome"));
    EXPECT_EQ(0, control.RegisterApp("welcome"));
  }
  EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
  ExpectAnswer(kSuccess,
               {Property::String("qz", "sent meanwhile"), Property::String("welcome", "")});
}

TEST_F(AppDataChannelControlRequestTest,
       AnApplicationThatLeavesDuringItsWriteIsAnsweredForWithTheEmptyString) {
  {
    const std::lock_guard<std::recursive_mutex> server(
        AppDataChannelCore::GetInstance().GetDbusServer().m_mutex);
    platform.DeliverSet({Property::String("qz", "wanted")});
    EXPECT_TRUE(platform.WaitUntil([this] { return platform.CountLogs("[qz] data") == 1; }));
    EXPECT_EQ(0, control.UnregisterApp("qz"));
  }
  EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
  ExpectAnswer(kSuccess, {Property::String("qz", "")});
  EXPECT_TRUE(
      LoggedOnce({kError, kTag, "AppDataChannelInfo.cpp", "GetAppData", "[qz] not registered"}));
}

TEST_F(AppDataChannelControlRequestTest, ServesAWriteOfTenThousandProperties) {
  constexpr std::size_t kCount = 10000;
  std::vector<Property> properties;
  for (std::size_t i = 0; i < kCount; ++i) {
    properties.push_back(Property::String(i % 2 == 0 ? "qz" : "nobody", "x"));
  }
  platform.DeliverSet(properties);
  EXPECT_TRUE(platform.WaitUntil([this] { return !platform.Responses().empty(); }));
  ExpectAnswer(kFailure, {Property::String("qz", "of qz")});
  EXPECT_EQ(kCount / 2, platform.CountLogs("[qz] data: x"));
  EXPECT_EQ(kCount / 2, platform.CountLogs("unregistered. app name: nobody"));
}

// --- cancel

TEST_F(AppDataChannelControlRequestTest, ACancelIsOnlyLogged) {
  void* const seen = Set({Property::Bool("signinStatus", true)});
  for (void* const request :
       {seen, static_cast<void*>(&otherRequest), static_cast<void*>(nullptr)}) {
    platform.ClearTrace();
    platform.DeliverCancel(request);
    EXPECT_TRUE(platform.WaitUntil([this] { return EndsOf("cancelHandler") == 1; }));
    char text[32];
    ASSERT_GT(std::snprintf(text, sizeof text, "cancel: %p\n", request), 0);
    EXPECT_TRUE(LoggedExactly(kTag, Framed("cancelHandler", {Error("cancelHandler", text)})));
    EXPECT_EQ(std::vector<std::string>(), platform.Calls());
    EXPECT_TRUE(platform.Responses().empty());
    EXPECT_EQ(Json::Value(true), ThingValue("signinStatus"));
  }
}

// --- all three

TEST_F(AppDataChannelControlRequestTest, EnteredAndLeftCarryOneLine) {
  Get({});
  Set({});
  platform.DeliverCancel(&otherRequest);
  EXPECT_TRUE(platform.WaitUntil([this] { return EndsOf("cancelHandler") == 1; }));
  for (const std::string function : {"getHandler", "setHandler", "cancelHandler"}) {
    const std::vector<fake::LogLine> lines = platform.LogsOf(function);
    ASSERT_GE(lines.size(), 2U) << function;
    EXPECT_EQ(lines.front().line, lines.back().line) << function;
  }
}

TEST_F(AppDataChannelControlRequestTest, HandlersDoNotTakeTheControlsLock) {
  const std::lock_guard<std::recursive_mutex> lock(control.m_mutex);
  Get({Property::String("qz", "")});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
  platform.ClearTrace();
  Set({Property::String("qz", "new"), Property::Bool("signinStatus", true)});
  ExpectAnswer(kSuccess, {Property::String("qz", "of qz")});
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
    if (entry.kind != fake::Entry::Kind::kLog || entry.log.file != "AppDataChannelControl.cpp") {
      continue;
    }
    threads.insert(entry.thread);
    if (entry.log.Message() == " > Entered") {
      EXPECT_EQ("", inside);
      inside = entry.log.function;
    } else if (entry.log.Message() == " > Left") {
      EXPECT_EQ(entry.log.function, inside);
      inside.clear();
    }
  }
  EXPECT_EQ(1U, threads.size());
}

TEST_F(AppDataChannelControlRequestTest, ServesTheCloudAndTheApplicationsAtOnce) {
  constexpr std::size_t kTimes = 50;
  auto bus = std::async(std::launch::async, [this] {
    for (std::size_t i = 0; i < kTimes; ++i) {
      EXPECT_EQ(0, control.RegisterApp("welcome"));
      EXPECT_EQ(0, control.NotifyData("welcome", i % 2 == 0 ? "one" : "two"));
      bool connected = false;
      EXPECT_EQ(0, control.GetCloudConnection(connected));
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
      EXPECT_TRUE(property.text == "" || property.text == "one" || property.text == "two");
    }
  }
}

// --- around the start and the stop

TEST_F(AppDataChannelControlRequestTest, ARequestThatArrivesDuringCreateIsAnsweredWithAFailure) {
  AppDataChannelControl other;
  platform.OnCall("lumo_service_create", [this] {
    platform.DeliverGet({Property::String("signinStatus", "")});
    platform.DeliverSet({Property::Bool("signinStatus", true)});
    platform.DeliverCancel(&otherRequest);
  });
  EXPECT_TRUE(other.Create());
  const std::vector<fake::Response> responses = platform.Responses();
  ASSERT_EQ(2U, responses.size());
  for (const fake::Response& response : responses) {
    EXPECT_EQ(kFailure, response.code);
    EXPECT_TRUE(response.properties.empty());
  }
  EXPECT_TRUE(other.m_thing_info.GetThingProperty("signinStatus").isNull());
  other.Destroy();
}

TEST_F(AppDataChannelControlRequestTest, DestroyDoesNotWaitForAHandlerThatIsRunning) {
  {
    const std::lock_guard<std::recursive_mutex> server(
        AppDataChannelCore::GetInstance().GetDbusServer().m_mutex);
    platform.DeliverSet({Property::String("qz", "wanted")});
    EXPECT_TRUE(platform.WaitUntil([this] { return platform.CountLogs("[qz] data") == 1; }));
    control.Destroy();
    EXPECT_FALSE(control.IsCreated());
    EXPECT_TRUE(platform.Responses().empty());
  }
  EXPECT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
  EXPECT_EQ(nullptr, Answer().service);
  EXPECT_EQ((std::vector<Property>{Property::String("qz", "")}), Answer().properties);
}

TEST_F(AppDataChannelControlRequestTest, RequestsDuringAndAfterDestroyHarmNothing) {
  platform.OnCall("lumo_service_destroy", [this] {
    platform.DeliverGet({Property::String("qz", "")});
    platform.DeliverSet({Property::String("qz", "late")});
    platform.DeliverCancel(&otherRequest);
  });
  control.Destroy();
  platform.DeliverGet({Property::String("qz", "")});
  platform.DeliverSet({Property::Bool("signinStatus", true)});
  platform.DeliverCancel(&otherRequest);
  control.Shutdown();
  EXPECT_TRUE(platform.Responses().empty());
  EXPECT_TRUE(ThingValue("signinStatus").isNull());
}

TEST_F(AppDataChannelControlRequestTest, StartsAndStopsWithRequestsInFlight) {
  constexpr unsigned kTimes = 20;
  control.Destroy();
  for (unsigned i = 0; i < kTimes; ++i) {
    ASSERT_TRUE(control.Create());
    ASSERT_EQ(0, control.RegisterApp("qz"));
    for (unsigned k = 0; k < 5; ++k) {
      platform.PostSet({Property::String("qz", "wanted"), Property::Bool("signinStatus", true)});
      platform.PostGet({Property::String("qz", "")});
    }
    control.Destroy();
    platform.Drain();
  }
  EXPECT_EQ(0U, platform.LiveServices());
  EXPECT_EQ(0U, platform.CountLogs("occurred exception"));

  // No lock is held while the library is called, so a handler that was answering may have read the
  // service just before it was destroyed. Nothing else may go wrong.
  control.Shutdown();
  for (const std::string& violation : platform.TakeViolations()) {
    EXPECT_TRUE(
        violation == "lumo_service_send_get_property_result: service used after it was destroyed" ||
        violation == "lumo_service_send_set_property_result: service used after it was destroyed")
        << violation;
  }
}
