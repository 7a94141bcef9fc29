// Every topic of the thing, and what becomes of what the cloud sends to it.
#include <csignal>
#include <string>
#include <vector>

#include "ChannelTest.h"

namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t kLargestRequest = 256UL * 1024;
constexpr int kMostWaiting = 256;
// For an application: the plug-in does not answer it.
constexpr const char* kUnanswered = R"({"qz": {}})";
// What the plug-in prints of such a request, and of its cancellation.
constexpr const char* kTaken = "occurred exception";
constexpr const char* kCancelled = "cancel: ";

struct Refused {
  std::string payload;
  std::string error;  // how it begins
};

std::string setOfQz(const std::string& json) {
  return R"({"qz": )" + json + "}";
}

std::string eventOfQz(const std::string& text) {
  return "('qz', '" + text + "')";
}

std::string setOfSignin(bool value) {
  return std::string(R"({"signinStatus": )") + (value ? "true}" : "false}");
}

// As the value of a reply is printed.
std::string PrintedAsReply(const std::string& text) {
  const std::unique_ptr<GVariant, decltype(&g_variant_unref)> reply(
      g_variant_ref_sink(g_variant_new("(s)", text.c_str())), &g_variant_unref);
  const std::unique_ptr<gchar, decltype(&g_free)> printed(g_variant_print(reply.get(), FALSE),
                                                          &g_free);
  return printed.get();
}

class ChannelTopicsTest : public ChannelTest {
 protected:
  // A channel in which no request times out.
  std::unique_ptr<HostProcess> StartPatientChannel() {
    return StartChannel({{"LUMO_REQUEST_TIMEOUT_MS", "600000"}});
  }

  // What a client finds at the topic that comes only now, while the host is there.
  Lines Retained(const std::string& topic) const {
    CloudClient late(broker.Port(), kThing);
    // Comes after everything that is retained.
    EXPECT_EQ(0, late.Result("get", "[]"));
    return late.Received(topic);
  }
  Json::Value RetainedProperties() const {
    const Lines lists = Retained("appdatachannel/properties");
    EXPECT_EQ(1U, lists.size());
    return lists.empty() ? Json::Value() : ParseJson(lists.back());
  }

  void Cancel(const std::string& correlation) {
    cloud.Publish("cancel", "", {2, false, correlation});
  }

  // Each is answered with its error and nothing else.
  void ExpectRefused(const std::string& operation, const std::vector<Refused>& requests) {
    for (const auto& [payload, error] : requests) {
      const std::string shown = payload.substr(0, 100);
      const Json::Value answer = cloud.Request(operation, payload);
      EXPECT_EQ(Json::Value::Members{"error"}, answer.getMemberNames()) << shown;
      EXPECT_EQ(error, answer["error"].asString().substr(0, error.size())) << shown;
    }
  }

  const std::unique_ptr<BusClient> app = NewClient();
};

TEST_F(ChannelTopicsTest, TheStatusIsRetainedAndOfflineAfterAnOrderlyEndAsAfterACrash) {
  for (const int signal : {SIGTERM, SIGKILL}) {
    const auto host = StartChannel();
    EXPECT_EQ(Lines{kOnline}, Retained("status"));
    host->End(signal);
    EXPECT_TRUE(cloud.WaitFor("status", kOffline));
    CloudClient late(broker.Port(), kThing);
    EXPECT_TRUE(late.WaitFor("status", kOffline));
  }
}

TEST_F(ChannelTopicsTest, ThePropertiesAreRetainedWithTheirTypes) {
  const auto host = StartChannel();
  const Json::Value ofTheThing =
      ParseJson(R"({"signinStatus": {"type": "bool"}, "signupInfo": {"type": "json"}})");
  EXPECT_EQ(ofTheThing, RetainedProperties());
  Json::Value withApp = ofTheThing;
  withApp["qz"]["type"] = "string";
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz"));
  EXPECT_EQ(withApp, RetainedProperties());
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitForProperty("qz", false));
  EXPECT_EQ(ofTheThing, RetainedProperties());
}

TEST_F(ChannelTopicsTest, AValueIsRetainedUntilItsAppUnregisters) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "43"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, "\"43\""));
  EXPECT_EQ(Lines{"\"43\""}, Retained(kValueOfQz));
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, ""));
  EXPECT_EQ(Lines{}, Retained(kValueOfQz));
}

TEST_F(ChannelTopicsTest, OnlyWhatAnAppHasSentHasAValue) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, cloud.Result("set", setOfQz("1")));
  EXPECT_EQ(0, cloud.Result("set", setOfSignin(true)));
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  EXPECT_EQ("(0,)", SendData(*app, "qmap", "7"));
  EXPECT_TRUE(cloud.WaitFor("appdatachannel/value/qmap", "\"7\""));
  EXPECT_EQ(Lines{}, cloud.Received(kValueOfQz));
  EXPECT_EQ(Lines{}, cloud.Received("appdatachannel/value/signinStatus"));
}

TEST_F(ChannelTopicsTest, AGetBringsWhatItNamesAndNoMore) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "42"));
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {}})"), cloud.Request("get", "[]"));
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"qz": "42"}})"),
            cloud.Request("get", R"(["qz", "qz"])"));
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"signinStatus": "", "signupInfo": ""}})"),
            cloud.Request("get", R"(["signupInfo", "signinStatus"])"));
  EXPECT_EQ(ParseJson(R"({"result": 6, "properties": {}})"),
            cloud.Request("get", R"(["", "qmap", "no/such+name#"])"));
}

TEST_F(ChannelTopicsTest, ASetValueReachesItsAppAsText) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
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
    EXPECT_EQ(0, cloud.Result("set", setOfQz(json))) << json;
    events.push_back(eventOfQz(text));
  }
  EXPECT_EQ(events, WaitForEvents(*app, events.size()));
}

TEST_F(ChannelTopicsTest, ASetOfSeveralPropertiesReachesEachApp) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "before"));
  EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {"qmap": "", "qz": "before"}})"),
            cloud.Request("set", R"({"qz": 1, "qmap": "2", "signinStatus": true})"));
  EXPECT_EQ((Lines{"('qmap', '2')", eventOfQz("1")}), WaitForEvents(*app, 2));
  EXPECT_EQ("(true,)", CloudConnection(*app));
}

// The plug-in knows no numbers with a fraction, and D-Bus no bytes that are no text.
TEST_F(ChannelTopicsTest, ASetThatNoEventCanCarryIsRefusedWithTheReason) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  for (const char* number : {"1.5", "1.0", "1e3", "-0.0"}) {
    EXPECT_EQ(ParseJson(R"({"error": "qz: a real number, and the property takes none"})"),
              cloud.Request("set", setOfQz(number)))
        << number;
  }
  for (const char* bytes : {R"({"$bytes": "/w=="})", R"({"$bytes": "QQBC"})"}) {
    EXPECT_EQ(ParseJson(R"({"error": "qz: bytes that are no text, and the property is one"})"),
              cloud.Request("set", setOfQz(bytes)))
        << bytes;
  }
  EXPECT_EQ(ParseJson(R"({"error": "signinStatus: a real number, and the property takes none"})"),
            cloud.Request("set", R"({"signinStatus": 1.0, "qz": "1"})"));
  EXPECT_EQ(0, cloud.Result("set", setOfQz("1")));
  EXPECT_EQ(Lines{eventOfQz("1")}, WaitForEvents(*app, 1));
}

TEST_F(ChannelTopicsTest, ASetOfAnUnknownNameIsAnsweredWith6WhateverItsValueIs) {
  const auto host = StartChannel();
  for (const char* value : {"1", "1.5", R"("text")", "[1]", R"({"$bytes": "/w=="})"}) {
    EXPECT_EQ(6, cloud.Result("set", std::string(R"({"nobody": )") + value + "}")) << value;
  }
}

TEST_F(ChannelTopicsTest, ASetObjectOrArrayIsJsonForThePlugin) {
  const auto host = StartChannel();
  for (const char* json : {R"({"user": {"id": [1, 2.5, null, "\u00e4"]}})", R"([1, "two"])"}) {
    EXPECT_EQ(ParseJson(R"({"result": 0, "properties": {}})"),
              cloud.Request("set", std::string(R"({"signupInfo": )") + json + "}"));
    EXPECT_EQ(PrintedAsReply(ParseJson(json).toStyledString()),
              app->Call("get_thing_information").get().value);
  }
}

TEST_F(ChannelTopicsTest, ARefusedSetIsAnsweredWithTheReasonAndReachesNobody) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  const std::string tooLarge(kLargestRequest, 'x');
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
                 {setOfQz("null"), "qz: null"},
                 {R"({"qmap": "1", "qz": null})", "qz: null"},
                 {setOfQz("2147483648"), "qz: an integer outside 32 bits"},
                 {setOfQz("-2147483649"), "qz: an integer outside 32 bits"},
                 {setOfQz("123456789012345678901234567890"), "qz: an integer outside 32 bits"},
                 {setOfQz(R"({"$bytes": "?"})"), "qz: $bytes is not base64"},
                 {setOfQz(R"({"$bytes": 7})"), "qz: $bytes is not base64"},
                 {setOfQz('"' + tooLarge + '"'), "more than 262144 bytes"},
                 {setOfQz('"' + tooLarge + tooLarge + '"'), "more than 262144 bytes"}});
  EXPECT_EQ(0, cloud.Result("set", setOfQz("1")));
  EXPECT_EQ(Lines{eventOfQz("1")}, WaitForEvents(*app, 1));
}

TEST_F(ChannelTopicsTest, ARefusedGetIsAnsweredWithTheReason) {
  const auto host = StartChannel();
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
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  const std::string text(kLargestRequest - setOfQz(R"("")").size(), 'x');
  EXPECT_EQ(0, cloud.Result("set", setOfQz('"' + text + '"')));
  EXPECT_TRUE(Lines{eventOfQz(text)} == WaitForEvents(*app, 1));
  EXPECT_EQ("(0,)", SendData(*app, "qz", text));
  EXPECT_TRUE(cloud.WaitFor(kValueOfQz, '"' + text + '"'));
  EXPECT_TRUE(text == cloud.Request("get", R"(["qz"])")["properties"]["qz"].asString());
}

TEST_F(ChannelTopicsTest, AnAnswerBringsTheCorrelationDataBackAtAnyQos) {
  const auto host = StartChannel();
  const std::string binary("\0\xFF #+/", 6);
  for (const std::string& correlation : {std::string("text"), binary, std::string()}) {
    for (const int qos : {0, 1, 2}) {
      cloud.Publish("get", "[]", {qos, true, correlation});
      const std::size_t count = static_cast<std::size_t>(qos) + 1;
      EXPECT_TRUE(WaitUntil([&] { return cloud.AnswersWith(correlation).size() >= count; }));
    }
    EXPECT_EQ(Lines(3, R"({"result":0,"properties":{}})"), cloud.AnswersWith(correlation));
  }
}

TEST_F(ChannelTopicsTest, ARequestWithoutAResponseTopicIsHandledAndNotAnswered) {
  const auto host = StartChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  Lines events;
  for (const int qos : {0, 1, 2}) {
    cloud.Publish("set", setOfQz(std::to_string(qos)), {qos, false, "unasked"});
    events.push_back(eventOfQz(std::to_string(qos)));
    EXPECT_EQ(events, WaitForEvents(*app, events.size()));
  }
  cloud.Publish("set", "no JSON", {2, false, "unasked"});
  EXPECT_TRUE(host->WaitForError("things/tv/appdatachannel/set: not valid JSON")) << host->Errors();
  EXPECT_EQ(0, cloud.Result("get", "[]"));
  EXPECT_EQ(Lines{}, cloud.AnswersWith("unasked"));
  // It has not tried to answer them anywhere else.
  EXPECT_EQ(1U, CountOf(" E LUMO: ", host->Errors())) << host->Errors();
}

TEST_F(ChannelTopicsTest, ACancelEndsTheRequestThatItsCorrelationDataNames) {
  const auto host = StartPatientChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  const int cancelled = cloud.Send("set", kUnanswered);
  const int other = cloud.Send("set", kUnanswered);
  ASSERT_TRUE(host->WaitForError(kTaken, 2)) << host->Errors();
  Cancel("");
  Cancel("nobody");
  Cancel(std::to_string(cancelled));
  EXPECT_TRUE(host->WaitForError(kCancelled)) << host->Errors();
  EXPECT_EQ(1U, CountOf(kCancelled, host->Errors())) << host->Errors();
  // The other one still waits.
  Cancel(std::to_string(other));
  EXPECT_TRUE(host->WaitForError(kCancelled, 2)) << host->Errors();
  EXPECT_EQ(0, host->End(SIGTERM));
  EXPECT_TRUE(cloud.WaitFor("status", kOffline));
  EXPECT_EQ(Lines{}, cloud.AnswersTo(cancelled));
  EXPECT_EQ(Lines{}, cloud.AnswersTo(other));
}

TEST_F(ChannelTopicsTest, TheThingIsBusyWhile256RequestsWait) {
  const auto host = StartPatientChannel();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  std::vector<int> requests;
  for (int i = 0; i < kMostWaiting; ++i) requests.push_back(cloud.Send("set", kUnanswered));
  ASSERT_TRUE(host->WaitForError(kTaken, kMostWaiting)) << host->Errors();
  EXPECT_EQ(ParseJson(R"({"error": "busy"})"), cloud.Request("get", R"(["qz"])"));
  EXPECT_EQ(ParseJson(R"({"error": "busy"})"), cloud.Request("set", setOfQz("1")));
  // As far as can be seen, the plug-in still has a cancelled one.
  Cancel(std::to_string(requests.back()));
  requests.pop_back();
  EXPECT_TRUE(host->WaitForError(kCancelled)) << host->Errors();
  EXPECT_EQ(ParseJson(R"({"error": "busy"})"), cloud.Request("get", R"(["qz"])"));
  for (const int request : requests) Cancel(std::to_string(request));
  EXPECT_TRUE(host->WaitForError(kCancelled, kMostWaiting)) << host->Errors();
  EXPECT_EQ(0, cloud.Result("set", setOfQz("2")));
  EXPECT_EQ(Lines{eventOfQz("2")}, WaitForEvents(*app, 1));
}

TEST_F(ChannelTopicsTest, SetsForAThingThatIsOfflineArriveOnceAtQos2AndAtLeastOnceAtQos1) {
  constexpr int kSets = 20;
  ASSERT_EQ(0, StartChannel()->End(SIGTERM));
  ASSERT_TRUE(cloud.WaitFor("status", kOffline));
  std::vector<int> once;
  std::vector<int> atLeastOnce;
  for (int i = 0; i < kSets; ++i) once.push_back(cloud.Send("set", setOfSignin(true), 2));
  ASSERT_TRUE(cloud.WaitUntilSent());
  for (int i = 0; i < kSets; ++i) {
    atLeastOnce.push_back(cloud.Send("set", setOfSignin(i % 2 == 0 || i == kSets - 1), 1));
  }
  ASSERT_TRUE(cloud.WaitUntilSent());

  const auto host = StartChannel();
  for (const int request : atLeastOnce) {
    EXPECT_EQ(R"({"result":0,"properties":{}})", cloud.WaitForAnswer(std::to_string(request)));
  }
  for (const int request : once) {
    EXPECT_EQ(R"({"result":0,"properties":{}})", cloud.WaitForAnswer(std::to_string(request)));
  }
  EXPECT_EQ("(true,)", CloudConnection(*app));
  // Whatever came twice is answered twice before this.
  EXPECT_EQ(0, cloud.Result("set", setOfSignin(false)));
  EXPECT_EQ("(false,)", CloudConnection(*app));
  for (const int request : once) EXPECT_EQ(1U, cloud.AnswersTo(request).size());
}

}  // namespace
