// Every topic of the thing, and what becomes of what the cloud sends to it.
#include "ChannelTest.h"

namespace {

constexpr std::size_t kLargestRequest = 256UL * 1024;
constexpr int kMostWaiting = 256;
// For an application: the plug-in does not answer it.
constexpr const char* kUnanswered = R"({"qz": {}})";
// What the plug-in prints of such a request, and of its cancellation.
constexpr const char* kTaken = "occurred exception";
constexpr const char* kCancelled = "cancel: ";
constexpr const char* kDone = R"({"result":0,"properties":{}})";

std::string setOfJson(const std::string& json) {
  return R"({"qz": )" + json + "}";
}

std::string setOfSignin(bool value) {
  return std::string(R"({"signinStatus": )") + (value ? "true}" : "false}");
}

class ChannelTopicsTest : public ChannelTest {
 protected:
  // A channel in which no request times out.
  void StartPatiently() { StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "600000"}}); }

  // What a client finds at the topic that comes only now, while the host is there.
  Lines Retained(const std::string& topic) const {
    CloudClient late(broker.CloudPort(), kThing, broker.Login());
    // Comes after everything that is retained.
    EXPECT_EQ(0, late.Result("get", "[]"));
    return late.Received(topic);
  }
  void ExpectRetainedProperties(const std::string& list) const {
    const Lines lists = Retained("appdatachannel/properties");
    ASSERT_EQ(1U, lists.size());
    EXPECT_EQ(ParseJson(list), ParseJson(lists[0]));
  }

  void Cancel(const std::string& correlation) {
    cloud.Publish("cancel", "", {2, false, correlation});
  }

  void ExpectAnswer(const std::string& answer, const std::string& operation,
                    const std::string& payload) {
    EXPECT_EQ(ParseJson(answer), cloud.Request(operation, payload)) << payload;
  }

  struct Refused {
    std::string payload;
    std::string error;  // how it begins
  };
  // Each is answered with its error and nothing else.
  void ExpectRefused(const std::string& operation, const std::vector<Refused>& requests) {
    for (const auto& [payload, error] : requests) {
      const std::string shown = payload.substr(0, 100);
      const Json::Value answer = cloud.Request(operation, payload);
      EXPECT_EQ(Json::Value::Members{"error"}, answer.getMemberNames()) << shown;
      EXPECT_EQ(error, answer["error"].asString().substr(0, error.size())) << shown;
    }
  }
  // The application gets this set, and has got none before.
  void ExpectFirstEvent(const std::string& text) {
    EXPECT_EQ(0, cloud.Result("set", SetOfQz(text)));
    EXPECT_TRUE(Lines{EventOfQz(text)} == WaitForEvents(*app, 1));
  }
};

TEST_F(ChannelTopicsTest, TheStatusIsRetainedAndOfflineAfterACleanShutdownAsAfterACrash) {
  NOT_WITH_A_CLUSTER("a node sends only what was retained at itself");
  for (const int signal : {SIGTERM, SIGKILL}) {
    StartChannel();
    EXPECT_EQ(Lines{kOnline}, Retained("status"));
    Host().End(signal);
    EXPECT_TRUE(cloud.WaitFor("status", kOffline));
    CloudClient late(broker.CloudPort(), kThing, broker.Login());
    EXPECT_TRUE(late.WaitFor("status", kOffline));
  }
}

TEST_F(ChannelTopicsTest, TheHealthIsRetainedHasTheHostsFiguresAndOutlivesItAndIsAFileToo) {
  NOT_WITH_A_CLUSTER("a node sends only what was retained at itself");
  // -1 when there is none.
  const auto last = [this](const std::string& name) {
    const std::string health = cloud.Last("health");
    return health.empty() ? -1 : ParseJson(health).get(name, -1).asInt();
  };
  StartWithApp(
      {{"LUMO_HEALTH_INTERVAL_MS", "100"}, {"LUMO_HEALTH_FILE", Folder().Path() / "health.prom"}});
  EXPECT_EQ(0, cloud.Result("set", SetOfQz("1")));
  EXPECT_EQ(6, cloud.Result("set", R"({"nobody": 1})"));
  EXPECT_TRUE(cloud.Request("set", "{").isMember("error"));
  EXPECT_TRUE(WaitUntil([&] { return last("served") == 2 && last("invalid") == 1; }));
  EXPECT_EQ(1, last("setsRefused"));
  EXPECT_EQ(1, last("connections"));
  EXPECT_EQ(3, last("properties"));
  EXPECT_EQ(0, last("logLinesDropped"));
  EXPECT_GT(last("residentBytes"), 1'000'000);
  EXPECT_TRUE(WaitUntil([this] {
    return Folder().Read("health.prom").find("\nappdatachannel_requests_served_total 2\n") !=
           std::string::npos;
  }));
  Host().End(SIGKILL);
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  CloudClient late(broker.CloudPort(), kThing, broker.Login());
  EXPECT_TRUE(late.WaitFor("health", cloud.Last("health")));
}

TEST_F(ChannelTopicsTest, ThePropertiesAndTheirTypesAndAValueAreRetainedUntilTheAppUnregisters) {
  NOT_WITH_A_CLUSTER("a node sends only what was retained at itself");
  const std::string ofTheThing =
      R"("signinStatus": {"type": "bool"}, "signupInfo": {"type": "json"}})";
  StartChannel();
  ExpectRetainedProperties("{" + ofTheThing);
  app = NewClient();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz"));
  ExpectRetainedProperties(R"({"qz": {"type": "string"}, )" + ofTheThing);
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "43"));
  EXPECT_TRUE(WaitForValueOfQz("43"));
  EXPECT_EQ(Lines{"\"43\""}, Retained(kValueOfQz));
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  ExpectRetainedProperties("{" + ofTheThing);
  EXPECT_EQ(Lines{}, Retained(kValueOfQz));
}

TEST_F(ChannelTopicsTest, OnlyWhatAnAppHasSentHasAValue) {
  StartWithApp();
  EXPECT_EQ(0, cloud.Result("set", setOfJson("1")));
  EXPECT_EQ(0, cloud.Result("set", setOfSignin(true)));
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  EXPECT_EQ("(0,)", SendData(*app, "qmap", "7"));
  EXPECT_TRUE(cloud.WaitFor("appdatachannel/value/qmap", "\"7\""));
  EXPECT_EQ(Lines{}, cloud.Received(kValueOfQz));
  EXPECT_EQ(Lines{}, cloud.Received("appdatachannel/value/signinStatus"));
}

TEST_F(ChannelTopicsTest, AGetBringsWhatItNamesAndNoMore) {
  StartWithApp();
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  ExpectAnswer(kDone, "get", "[]");
  ExpectAnswer(R"({"result": 0, "properties": {"qz": "42"}})", "get", R"(["qz", "qz"])");
  ExpectAnswer(R"({"result": 0, "properties": {"qz": "42", "qmap": "", "signinStatus": ""}})",
               "get", R"(["qz", "qmap", "signinStatus"])");
  ExpectAnswer(R"({"result": 0, "properties": {"signinStatus": "", "signupInfo": ""}})", "get",
               R"(["signupInfo", "signinStatus"])");
  ExpectAnswer(R"({"result": 6, "properties": {}})", "get", R"(["", "tuner", "no/such+name#"])");
}

TEST_F(ChannelTopicsTest, ASetValueReachesItsAppAsAString) {
  StartWithApp();
  const std::vector<std::pair<std::string, std::string>> values = {
      {"true", "true"},
      {"false", "false"},
      {"0", "0"},
      {"-2147483648", "-2147483648"},
      {"2147483647", "2147483647"},
      {R"("text")", "text"},
      {R"("")", ""},
      {R"("\u00e4")", "ä"},
      {R"({"$bytes": "w6Q="})", "ä"},
      {R"({"$bytes": "QUI="})", "AB"},
  };
  Lines events;
  for (const auto& [json, text] : values) {
    EXPECT_EQ(0, cloud.Result("set", setOfJson(json))) << json;
    events.push_back(EventOfQz(text));
  }
  EXPECT_EQ(events, WaitForEvents(*app, events.size()));
}

TEST_F(ChannelTopicsTest, ASetOfSeveralPropertiesReachesEachApp) {
  StartWithApp();
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "before"));
  ExpectAnswer(R"({"result": 0, "properties": {"qmap": "", "qz": "before"}})", "set",
               R"({"qz": 1, "qmap": "2", "signinStatus": true})");
  EXPECT_EQ((Lines{"('qmap', '2')", EventOfQz(1)}), WaitForEvents(*app, 2));
  EXPECT_EQ("(true,)", CloudConnection(*app));
}

TEST_F(ChannelTopicsTest, AnUnknownNameIsAnsweredWith6WhateverItsValueIsAndKnownOnesAreDealtWith) {
  StartWithApp();
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  for (const char* value : {"1", "1.5", R"("text")", "[1]", R"({"$bytes": "/w=="})"}) {
    EXPECT_EQ(6, cloud.Result("set", std::string(R"({"nobody": )") + value + "}")) << value;
  }
  const std::string answer = R"({"result": 6, "properties": {"qz": "42"}})";
  ExpectAnswer(answer, "set", R"({"nobody": "1", "qz": "43"})");
  EXPECT_EQ(Lines{EventOfQz(43)}, WaitForEvents(*app, 1));
  ExpectAnswer(answer, "get", R"(["nobody", "qz"])");
}

TEST_F(ChannelTopicsTest, ASetObjectOrArrayIsJsonForThePlugin) {
  StartWithApp();
  EXPECT_EQ("('',)", ThingInformation(*app));
  for (const std::string json :
       {R"({"user": {"id": [1, 2.5, null, "\u00e4"]}})", R"([1, "two"])"}) {
    ExpectAnswer(kDone, "set", R"({"signupInfo": )" + json + "}");
    const std::string printed = ThingInformation(*app);
    const BusClient::VariantPtr reply(
        g_variant_parse(G_VARIANT_TYPE("(s)"), printed.c_str(), nullptr, nullptr, nullptr));
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    EXPECT_EQ(ParseJson(json).toStyledString(), text);
  }
}

// The plug-in knows no numbers with a fraction, and D-Bus no bytes that are no string.
TEST_F(ChannelTopicsTest, ARefusedSetIsAnsweredWithTheReasonAndReachesNobody) {
  StartWithApp();
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  const std::string tooLarge(kLargestRequest, 'x');
  for (const char* number : {"1.5", "1.0", "1e3", "-0.0"}) {
    ExpectAnswer(R"({"error": "qz: a real number, and the property takes none"})", "set",
                 setOfJson(number));
  }
  for (const char* bytes : {R"({"$bytes": "/w=="})", R"({"$bytes": "QQBC"})"}) {
    ExpectAnswer(R"({"error": "qz: bytes that are no text, and the property is one"})", "set",
                 setOfJson(bytes));
  }
  ExpectAnswer(R"({"error": "signinStatus: a real number, and the property takes none"})", "set",
               R"({"signinStatus": 1.0, "qz": "1"})");
  ExpectRefused("set",
                {{"", "not valid JSON: "},
                 {R"({"qz": )", "not valid JSON: "},
                 {"{'qz': '1'}", "not valid JSON: "},
                 {R"({"qz": 1} {"qz": 2})", "not valid JSON: "},
                 {R"({"qz": "x"/*"*/, "a": 01/*"*/})", "not valid JSON: "},
                 {"{\"qz\": \"\xFF\"}", "not UTF-8"},
                 {"[]", "not a JSON object of names and values"},
                 {R"("qz")", "not a JSON object of names and values"},
                 {"null", "not a JSON object of names and values"},
                 {setOfJson("null"), "qz: null"},
                 {R"({"qmap": "1", "qz": null})", "qz: null"},
                 {setOfJson("2147483648"), "qz: an integer outside 32 bits"},
                 {setOfJson("-2147483649"), "qz: an integer outside 32 bits"},
                 {setOfJson("123456789012345678901234567890"), "qz: an integer outside 32 bits"},
                 {setOfJson(R"({"$bytes": "?"})"), "qz: $bytes is not base64"},
                 {setOfJson(R"({"$bytes": 7})"), "qz: $bytes is not base64"},
                 {SetOfQz(tooLarge), "more than 262144 bytes"},
                 {SetOfQz(tooLarge + tooLarge), "more than 262144 bytes"}});
  ExpectFirstEvent("1");
}

TEST_F(ChannelTopicsTest, ARefusedGetIsAnsweredWithTheReason) {
  StartChannel();
  ExpectRefused("get",
                {{"", "not valid JSON: "},
                 {R"(["qz")", "not valid JSON: "},
                 {"[\"\xFF\"]", "not UTF-8"},
                 {"{}", "not a JSON array of names"},
                 {R"("qz")", "not a JSON array of names"},
                 {R"([1])", "not a JSON array of names"},
                 {R"([null])", "not a JSON array of names"},
                 {"[\"" + std::string(kLargestRequest, 'x') + "\"]", "more than 262144 bytes"}});
  // It is a matter of the request, not of the service.
  EXPECT_EQ(0, cloud.Result("get", R"(["signupInfo"])"));
}

TEST_F(ChannelTopicsTest, ARequestOfTheLargestSizeReachesItsApp) {
  StartWithApp();
  const std::string text(kLargestRequest - SetOfQz("").size(), 'x');
  ExpectFirstEvent(text);
  EXPECT_EQ("(0,)", SendData(*app, "qz", text));
  EXPECT_TRUE(WaitForValueOfQz(text));
  EXPECT_TRUE(text == GetOfQz());
}

TEST_F(ChannelTopicsTest, AnAnswerBringsTheCorrelationDataBackAtAnyQos) {
  StartChannel();
  const std::string binary("\0\xFF #+/", 6);
  for (const std::string& correlation : {std::string("text"), binary, std::string()}) {
    for (const int qos : {0, 1, 2}) {
      cloud.Publish("get", "[]", {qos, true, correlation});
      const std::size_t count = static_cast<std::size_t>(qos) + 1;
      EXPECT_TRUE(WaitUntil([&] { return cloud.AnswersWith(correlation).size() >= count; }));
    }
    EXPECT_EQ(Lines(3, kDone), cloud.AnswersWith(correlation));
  }
}

TEST_F(ChannelTopicsTest, ARequestWithoutAResponseTopicIsHandledAndNotAnswered) {
  StartWithApp();
  Lines events;
  for (const int qos : {0, 1, 2}) {
    cloud.Publish("set", SetOfQz(qos), {qos, false, "unasked"});
    events.push_back(EventOfQz(qos));
    EXPECT_EQ(events, WaitForEvents(*app, events.size()));
  }
  cloud.Publish("set", "no JSON", {2, false, "unasked"});
  EXPECT_TRUE(Host().WaitForError("things/tv/appdatachannel/set: not valid JSON"));
  EXPECT_EQ(0, cloud.Result("get", "[]"));
  EXPECT_EQ(Lines{}, cloud.AnswersWith("unasked"));
  // It has not tried to answer them anywhere else.
  EXPECT_EQ(1U, CountOf(" E LUMO: ", Host().Errors()));
}

TEST_F(ChannelTopicsTest, ACancelEndsTheRequestThatItsCorrelationDataNames) {
  StartPatiently();
  const int cancelled = cloud.Send("set", kUnanswered);
  const int other = cloud.Send("set", kUnanswered);
  ASSERT_TRUE(Host().WaitForError(kTaken, 2));
  Cancel("");
  Cancel("nobody");
  Cancel(std::to_string(cancelled));
  EXPECT_TRUE(Host().WaitForError(kCancelled));
  EXPECT_EQ(1U, CountOf(kCancelled, Host().Errors()));
  // The other one still waits.
  Cancel(std::to_string(other));
  EXPECT_TRUE(Host().WaitForError(kCancelled, 2));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  EXPECT_EQ(Lines{}, cloud.AnswersTo(cancelled));
  EXPECT_EQ(Lines{}, cloud.AnswersTo(other));
}

TEST_F(ChannelTopicsTest, TheThingIsBusyWhile256RequestsWait) {
  NOT_WITH_EJABBERD("it sends one message at a time, and each waits for 2 s here");
  StartPatiently();
  const std::string busy = R"({"error": "busy"})";
  std::vector<int> requests;
  for (int i = 0; i < kMostWaiting; ++i) requests.push_back(cloud.Send("set", kUnanswered));
  ASSERT_TRUE(Host().WaitForError(kTaken, kMostWaiting));
  ExpectAnswer(busy, "get", R"(["qz"])");
  ExpectAnswer(busy, "set", setOfJson("1"));
  // As far as can be seen, the plug-in still has a cancelled one.
  Cancel(std::to_string(requests.back()));
  requests.pop_back();
  EXPECT_TRUE(Host().WaitForError(kCancelled));
  ExpectAnswer(busy, "get", R"(["qz"])");
  for (const int request : requests) Cancel(std::to_string(request));
  EXPECT_TRUE(Host().WaitForError(kCancelled, kMostWaiting));
  ExpectFirstEvent("2");
}

TEST_F(ChannelTopicsTest, SetsForAThingThatIsOfflineArriveOnceAtQos2AndAtLeastOnceAtQos1) {
  constexpr int kSets = 20;
  StartWithApp();
  ASSERT_EQ(0, Host().End(SIGTERM));
  ASSERT_TRUE(cloud.WaitFor("status", kOffline));
  std::vector<int> requests;
  for (const int qos : {2, 1}) {
    for (int i = 0; i < kSets; ++i) {
      const bool value = qos == 2 || i % 2 == 0 || i == kSets - 1;
      requests.push_back(cloud.Send("set", setOfSignin(value), qos));
    }
    ASSERT_TRUE(cloud.WaitUntilSent());
  }
  for (const int request : requests) EXPECT_EQ(Lines{}, cloud.AnswersTo(request));

  StartChannel();
  for (const int request : requests) {
    EXPECT_EQ(kDone, cloud.WaitForAnswer(std::to_string(request)));
  }
  EXPECT_EQ("(true,)", CloudConnection(*app));
  // Whatever came twice is answered twice before this.
  EXPECT_EQ(0, cloud.Result("set", setOfSignin(false)));
  EXPECT_EQ("(false,)", CloudConnection(*app));
  for (int i = 0; i < kSets; ++i) {
    EXPECT_EQ(1U, cloud.AnswersTo(requests[static_cast<std::size_t>(i)]).size());
  }
}

}  // namespace
