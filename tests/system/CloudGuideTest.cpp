// What docs/cloud.md says, and no other test shows.
#include <array>
#include <chrono>
#include <csignal>
#include <set>

#include "ChannelTest.h"
#include "Watched.h"

namespace {

constexpr const char* kTimedOut = R"({"error":"the request was not answered in time"})";

class CloudGuideTest : public ChannelTest {
 protected:
  void StartWithShortTimeOut() { StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "1000"}}); }
  void ExpectTimeOut(const std::string& set) {
    const int request = cloud.Send("set", set);
    EXPECT_EQ(kTimedOut, cloud.WaitForAnswer(std::to_string(request))) << set;
  }
  void EndHost() {
    ASSERT_EQ(0, Host().End(SIGTERM));
    ASSERT_TRUE(cloud.WaitFor("status", kOffline));
  }
};

TEST_F(CloudGuideTest, AQueuedSetComesBeforeTheAppsOfTheNextRunAndIsAnsweredWith6) {
  StartWithApp();
  EndHost();
  const int ofApp = cloud.Send("set", SetOfQz(1));
  const int ofThing = cloud.Send("set", R"({"signinStatus": true})");
  ASSERT_TRUE(cloud.WaitUntilSent());
  StartChannel();
  EXPECT_EQ(R"({"result":6,"properties":{}})", cloud.WaitForAnswer(std::to_string(ofApp)));
  EXPECT_EQ(R"({"result":0,"properties":{}})", cloud.WaitForAnswer(std::to_string(ofThing)));
  EXPECT_EQ("(true,)", CloudConnection(*app));
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ(0, cloud.Result("set", SetOfQz(2)));
  EXPECT_EQ(Lines{EventOfQz(2)}, WaitForEvents(*app, 1));
}

TEST_F(CloudGuideTest, ARequestThatExpiresAtTheBrokerIsNeitherCarriedOutNorAnswered) {
  const std::string answers = "answers/of/the/test";
  Watched<Lines> answered;
  MqttPeer::Options options;
  options.filters = {answers};
  const MqttPeer peer(broker.CloudPort(), options, [&](const MqttPeer::Message& message) {
    answered.Change([&](Lines& lines) { lines.push_back(message.correlation); });
  });
  const auto set = [&](const char* value, const char* expiry) {
    RunToEnd({"mosquitto_pub",
              "-p",
              std::to_string(broker.CloudPort()),
              "-V",
              "5",
              "-q",
              "2",
              "-t",
              "things/tv/appdatachannel/set",
              "-m",
              std::string(R"({"signinStatus": )") + value + "}",
              "-D",
              "publish",
              "response-topic",
              answers,
              "-D",
              "publish",
              "correlation-data",
              expiry,
              "-D",
              "publish",
              "message-expiry-interval",
              expiry});
  };
  StartWithApp();
  EndHost();
  set("true", "3600");
  set("false", "1");
  // The broker counts whole seconds.
  const auto expired = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  ASSERT_TRUE(WaitUntil([&] { return std::chrono::steady_clock::now() > expired; }));
  StartChannel();
  EXPECT_TRUE(answered.WaitFor([](const Lines& lines) { return !lines.empty(); }));
  EXPECT_EQ(0, cloud.Result("get", "[]"));  // later than both
  EXPECT_EQ(Lines{"3600"}, answered.Get());
  EXPECT_EQ("(true,)", CloudConnection(*app));
}

TEST_F(CloudGuideTest, ASetThatIsNotAnsweredHasCarriedOutTheNamesThatSortBefore) {
  StartWithShortTimeOut();
  ASSERT_EQ("(0,)", Register(*app, "tunerapp"));
  ExpectTimeOut(R"({"tunerapp": {}, "signinStatus": true, "signupInfo": [1], "qz": "1"})");
  EXPECT_EQ("(true,)", CloudConnection(*app));
  EXPECT_EQ(Lines{"(true,)"}, WaitForEvents(*app, 1, "cloud_connection_changed"));
  EXPECT_NE("('',)", ThingInformation(*app));
  EXPECT_EQ(Lines{EventOfQz(1)}, WaitForEvents(*app, 1));
  ExpectTimeOut(R"({"signinStatus": false, "qz": {}})");
  EXPECT_EQ("(true,)", CloudConnection(*app));
}

TEST_F(CloudGuideTest, ASigninStatusThatIsNoBooleanIsStoredAsFalse) {
  StartWithShortTimeOut();
  Lines announced;
  for (const char* value : {R"("true")", "{}", "[]"}) {
    EXPECT_EQ(0, cloud.Result("set", R"({"signinStatus": true})"));
    announced.emplace_back("(true,)");
    ExpectTimeOut(std::string(R"({"signinStatus": )") + value + "}");
    EXPECT_EQ("(false,)", CloudConnection(*app)) << value;
  }
  EXPECT_EQ(0, cloud.Result("set", R"({"signinStatus": 1})"));
  announced.emplace_back("(true,)");
  EXPECT_EQ("(false,)", CloudConnection(*app));
  EXPECT_EQ(announced, WaitForEvents(*app, announced.size(), "cloud_connection_changed"));
}

TEST_F(CloudGuideTest, UnanswerableSetsMakeTheRestBusyUntilTheyTimeOut) {
  constexpr int kUnanswerable = 256;
  StartWithApp({{"LUMO_REQUEST_TIMEOUT_MS", "5000"}});
  std::vector<int> requests;
  for (int i = 0; i < kUnanswerable; ++i) requests.push_back(cloud.Send("set", R"({"qz": {}})"));
  ASSERT_TRUE(Host().WaitForError("occurred exception", kUnanswerable));
  for (const char* operation : {"set", "get"}) {
    const Json::Value answer = cloud.Request(operation, operation[0] == 's' ? "{}" : "[]");
    EXPECT_EQ("busy", answer["error"].asString()) << operation;
  }
  for (const int request : requests) {
    EXPECT_EQ(kTimedOut, cloud.WaitForAnswer(std::to_string(request)));
  }
  EXPECT_TRUE(WaitUntil([&] { return cloud.Result("set", SetOfQz(1)) == 0; }));
  EXPECT_EQ(Lines{EventOfQz(1)}, WaitForEvents(*app, 1));
  EXPECT_EQ(0, cloud.Result("get", "[]"));
}

TEST_F(CloudGuideTest, ValuesAreSharedOutAmongWorkersAndEachWorkerGetsItsOwnAnswers) {
  constexpr int kValues = 20;
  StartWithApp();
  struct Worker {
    std::unique_ptr<MqttPeer> peer;
    Watched<Lines> values, answers;
  };
  std::array<Worker, 2> workers;
  for (std::size_t i = 0; i < workers.size(); ++i) {
    MqttPeer::Options options;
    const std::string own = "answers/workers/" + std::to_string(i);
    options.filters = {"$share/workers/things/+/appdatachannel/value/+", own};
    Worker& worker = workers.at(i);
    worker.peer = std::make_unique<MqttPeer>(
        broker.CloudPort(), options, [&worker, own](const MqttPeer::Message& message) {
          (message.topic == own ? worker.answers : worker.values).Change([&](Lines& lines) {
            lines.emplace_back(message.payload);
          });
        });
  }
  for (int i = 1; i <= kValues; ++i) {
    EXPECT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
    EXPECT_TRUE(WaitForValueOfQz(std::to_string(i)));  // none replaces another
  }
  std::multiset<std::string> all;
  EXPECT_TRUE(WaitUntil([&] {
    all.clear();
    for (const Worker& worker : workers) {
      const Lines values = worker.values.Get();
      all.insert(values.begin(), values.end());
    }
    return all.size() >= kValues;
  }));
  EXPECT_EQ(static_cast<std::size_t>(kValues), all.size());
  EXPECT_EQ(all.size(), std::set<std::string>(all.begin(), all.end()).size());
  for (std::size_t i = 0; i < workers.size(); ++i) {
    EXPECT_FALSE(workers.at(i).values.Get().empty());
    for (int request = 0; request < 2; ++request) {
      MqttPeer::Publication get = {"things/tv/appdatachannel/get", R"(["qz"])"};
      get.responseTopic = "answers/workers/" + std::to_string(i);
      workers.at(i).peer->Publish(get);
    }
  }
  for (const Worker& worker : workers) {
    EXPECT_TRUE(worker.answers.WaitFor([](const Lines& lines) { return lines.size() >= 2; }));
  }
  for (const Worker& worker : workers) EXPECT_EQ(2U, worker.answers.Get().size());
}

}  // namespace
