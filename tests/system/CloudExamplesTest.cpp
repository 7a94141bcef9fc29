// The cloud's examples, while what they depend on goes away under them.
#include <chrono>
#include <csignal>
#include <deque>
#include <functional>
#include <future>
#include <ostream>
#include <regex>

#include "ChannelTest.h"
#include "Watched.h"

namespace {

struct CloudExample {
  const char* language;
  std::vector<std::string> command;

  friend void PrintTo(const CloudExample& example, std::ostream* out) { *out << example.language; }
};

std::vector<CloudExample> cloudExamples() {
  std::vector<CloudExample> all = {{"Python", {ADC_EXAMPLES_FOLDER "/cloud.py"}}};
#ifdef ADC_NODE
  all.push_back({"JavaScript", {ADC_NODE, ADC_EXAMPLES_FOLDER "/cloud.js"}});
#endif
  return all;
}

std::string nameOf(const ::testing::TestParamInfo<CloudExample>& example) {
  return example.param.language;
}

std::vector<std::string> numbersUpTo(std::size_t last) {
  std::vector<std::string> numbers;
  while (numbers.size() < last) numbers.push_back(std::to_string(numbers.size() + 1));
  return numbers;
}

std::string confirmed(const std::vector<std::string>& values) {
  std::string lines;
  for (const std::string& value : values) lines += value + " is confirmed\n";
  return lines;
}

class CloudExamplesTest : public ChannelTest, public ::testing::WithParamInterface<CloudExample> {
 protected:
  std::unique_ptr<HostProcess> StartExample(const Lines& arguments) {
    Lines command = GetParam().command;
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<HostProcess>(
        command, channel.Variables({{"LUMO_BROKER", broker.CloudAddress()}}));
  }
  // Sets qz to the numbers up to the last.
  std::unique_ptr<HostProcess> StartSets(std::size_t last) {
    Lines arguments = {"--limit", "5", "set", kThing, "qz"};
    for (const std::string& number : numbersUpTo(last)) arguments.push_back(number);
    return StartExample(arguments);
  }

  // An application that knows that an event may come twice: takes events, and confirms each of
  // them, until it has carried out that many.
  bool ServeUntil(std::size_t count, bool confirmsTheLast = true) {
    return WaitUntil([&] {
      for (const Lines events = Received(*app); m_taken < events.size() && m_done.size() < count;
           ++m_taken) {
        const std::string& event = events[m_taken];
        if (m_done.empty() || m_done.back() != event) m_done.push_back(event);
        if (m_done.size() < count || confirmsTheLast) Confirm();
      }
      return m_done.size() >= count;
    });
  }
  // The host may be away: its next run has nothing of it.
  void Confirm() {
    const std::string& event = m_done.back();
    const std::string data = event.substr(8, event.size() - 10);  // ('qz', '1')
    SendData(*app, "qz", data);
  }
  bool ServeUntilEndOf(HostProcess& example) {
    return WaitUntil([&] {
      ServeUntilNow();
      return example.HasEnded();
    });
  }
  const Lines& Done() const { return m_done; }

  void RestartBroker() {
    cloud.Leave();
    broker.Stop();
    broker.Start();
    cloud.ComeBack();
  }
  void RestartHost(int signal) {
    Host().End(signal);
    channel.StartLocally();
    EXPECT_EQ("(0,)", Register(*app, "qz"));
  }

 private:
  void ServeUntilNow() {
    for (const Lines events = Received(*app); m_taken < events.size(); ++m_taken) {
      if (m_done.back() != events[m_taken]) m_done.push_back(events[m_taken]);
      Confirm();
    }
  }

  std::size_t m_taken = 0;  // of the events
  Lines m_done;             // events
};

TEST_P(CloudExamplesTest, EachSetIsCarriedOutOnceAndInOrderWhileTheBrokerRestarts) {
  StartWithApp();
  const Lines numbers = numbersUpTo(5);
  const auto example = StartSets(numbers.size());
  for (std::size_t i = 1; i < numbers.size(); ++i) {
    const bool isConfirmed = i % 2 == 0;  // else the broker restarts before
    ASSERT_TRUE(ServeUntil(i, isConfirmed)) << example->Output() << example->Errors();
    RestartBroker();
    if (!isConfirmed) Confirm();
  }
  ASSERT_TRUE(ServeUntilEndOf(*example));
  EXPECT_EQ(0, example->Wait()) << example->Errors();
  EXPECT_EQ(confirmed(numbers), example->Output());
  Lines events;
  for (const std::string& number : numbers) events.push_back(EventOfQz(number));
  EXPECT_EQ(events, WithoutAllowedRepeats(Received(*app)));
}

TEST_P(CloudExamplesTest, NoSetIsLostOrDoubledForAnAppThatIgnoresRepeatsWhateverRestarts) {
  StartWithApp();
  const std::vector<std::function<void()>> faults = {
      [this] { RestartHost(SIGTERM); },
      [this] { RestartHost(SIGKILL); },
      [this] { RestartBroker(); },
      [this] {  // the broker first
        cloud.Leave();
        broker.Stop();
        Host().End(SIGKILL);
        broker.Start();
        cloud.ComeBack();
        RestartHost(SIGKILL);
      },
      [this] {  // and with all that it knows
        cloud.Leave();
        broker.Kill();
        broker.Forget();
        broker.Start();
        cloud.ComeBack();
      },
  };
  const Lines numbers = numbersUpTo(2 * faults.size() + 1);
  const auto example = StartSets(numbers.size());
  std::size_t count = 0;
  for (const bool isConfirmed : {false, true}) {  // else the fault comes before
    for (const auto& fault : faults) {
      ASSERT_TRUE(ServeUntil(++count, isConfirmed)) << example->Output() << example->Errors();
      fault();
      if (!isConfirmed) Confirm();
    }
  }
  ASSERT_TRUE(ServeUntilEndOf(*example)) << example->Output() << example->Errors();
  EXPECT_EQ(0, example->Wait()) << example->Errors();
  EXPECT_EQ(confirmed(numbers), example->Output());
  Lines events;
  for (const std::string& number : numbers) events.push_back(EventOfQz(number));
  EXPECT_EQ(events, Done());
}

TEST_P(CloudExamplesTest, ASetWaitsForTheTelevisionAndForTheApp) {
  const auto example = StartExample({"--id", "setter", "set", kThing, "qz", "1"});
  ASSERT_TRUE(broker.WaitForCloudLog(" as setter ")) << example->Errors();
  StartChannel();
  // Time enough for a set that would be too early.
  EXPECT_EQ(0, StartExample({"get", kThing, "signupInfo"})->Wait());
  app = NewClient();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_TRUE(ServeUntil(1));
  EXPECT_EQ(0, example->Wait()) << example->Errors();
  EXPECT_EQ("1 is confirmed\n", example->Output());
  EXPECT_EQ(Lines{EventOfQz(1)}, Received(*app));
  EXPECT_EQ(0U, CountOf("unregistered. app name: qz", Host().Errors()));
}

TEST_P(CloudExamplesTest, TheBrokerKeepsWhatComesForAnIdThatIsAway) {
  StartWithApp();
  for (const bool isBack : {false, true}) {
    const auto example = StartExample({"--id", "follower", "watch"});
    EXPECT_TRUE(example->WaitForOutput("tv has qz signinStatus signupInfo\n"));
    EXPECT_EQ("(0,)", SendData(*app, "qz", isBack ? "last" : "first"));
    EXPECT_TRUE(example->WaitForOutput(isBack ? "tv qz \"last\"\n" : "tv qz \"first\"\n"));
    if (isBack) {
      EXPECT_NE(std::string::npos, example->Output().find("tv qz \"1\"\n")) << example->Output();
      EXPECT_EQ(1U, CountOf("tv qz \"2\"", example->Output())) << example->Output();
    }
    EXPECT_EQ(130, example->End(SIGTERM)) << example->Errors();
    for (const char* data : {"1", "2"}) {
      EXPECT_EQ("(0,)", SendData(*app, "qz", data));
      EXPECT_TRUE(WaitForValueOfQz(data));
    }
  }
}

TEST_P(CloudExamplesTest, ASetThatTheAppDoesNotConfirmIsAnswered) {
  StartWithApp();
  const auto example = StartExample({"--limit", "1", "set", kThing, "qz", "1"});
  EXPECT_EQ(0, example->Wait()) << example->Errors();
  EXPECT_EQ("1 is answered\n", example->Output());
}

TEST_P(CloudExamplesTest, AGetPrintsTheAnswer) {
  StartWithApp();
  EXPECT_EQ("(0,)", SendData(*app, "qz", "Lautstärke 7"));
  const auto known = StartExample({"get", kThing, "qz"});
  EXPECT_EQ(0, known->Wait());
  EXPECT_EQ("{\"result\":0,\"properties\":{\"qz\":\"Lautstärke 7\"}}\n", known->Output());
  const auto unknown = StartExample({"get", kThing, "nobody"});
  EXPECT_EQ(1, unknown->Wait());
  EXPECT_EQ("{\"result\":6,\"properties\":{}}\n", unknown->Output());
}

TEST_P(CloudExamplesTest, ABrokerThatRefusesIsAskedAgain) {
  const Broker strict("allow_anonymous false\n");
  const auto example = StartExample({"--broker", strict.Address(), "watch"});
  EXPECT_TRUE(example->WaitForError("Not authorized\n", 2)) << example->Errors();
  EXPECT_EQ(130, example->End(SIGTERM)) << example->Errors();
}

TEST_P(CloudExamplesTest, SignsInAgainAfterEachRestart) {
  const auto example = StartExample({"sign-in", kThing, R"({"country": "KR"})"});
  app = NewClient();
  unsigned count = 0;
  for (const int signal : {SIGKILL, SIGTERM, 0}) {
    StartChannel();
    ASSERT_TRUE(example->WaitForOutput("tv is signed in\n", ++count)) << example->Errors();
    EXPECT_EQ("(true,)", CloudConnection(*app));
    EXPECT_NE(std::string::npos, ThingInformation(*app).find("KR"));
    if (signal != 0) Host().End(signal);
  }
  EXPECT_EQ(130, example->End(SIGTERM)) << example->Errors();
  EXPECT_EQ("", example->Errors());
}

TEST_P(CloudExamplesTest, WatchTellsALossFromAShutdownAndCountsReplacedValues) {
  constexpr int kValues = 50;
  const auto example = StartExample({"watch"});
  StartWithApp();
  EXPECT_TRUE(example->WaitForOutput("tv online\n")) << example->Errors();
  EXPECT_TRUE(example->WaitForOutput("tv has qz signinStatus signupInfo\n"));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "first"));
  EXPECT_TRUE(example->WaitForOutput("tv qz \"first\"\n"));
  broker.Freeze();
  for (int i = 1; i <= kValues; ++i) EXPECT_EQ("(0,)", SendData(*app, "qz", std::to_string(i)));
  broker.Thaw();
  EXPECT_TRUE(example->WaitForOutput("tv qz \"" + std::to_string(kValues) + "\""));
  EXPECT_EQ("(0,)", SendData(*app, "qz", "last"));
  EXPECT_TRUE(example->WaitForOutput("tv qz \"last\"\n"));
  const std::string output = example->Output();
  const std::regex replaced(R"(\((\d+) values before it were replaced\)\n)");
  int count = static_cast<int>(CountOf("tv qz ", output)) - 2;
  EXPECT_LT(count, kValues);
  for (std::sregex_iterator found(output.begin(), output.end(), replaced), none; found != none;
       ++found) {
    count += std::stoi((*found)[1]);
  }
  EXPECT_EQ(kValues, count) << output;

  EXPECT_EQ(0U, CountOf("tv lost\n", example->Output()));
  Host().End(SIGKILL);
  EXPECT_TRUE(example->WaitForOutput("tv lost\n"));
  StartChannel();
  EXPECT_TRUE(example->WaitForOutput("tv has restarted\ntv online\n"));
  EXPECT_TRUE(example->WaitForOutput("tv qz is removed\n"));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_TRUE(example->WaitForOutput("tv offline\n")) << example->Output();
  EXPECT_EQ(1U, CountOf("tv lost\n", example->Output()));
  EXPECT_EQ(1U, CountOf("tv has restarted\n", example->Output()));
  EXPECT_EQ(130, example->End(SIGINT)) << example->Errors();
}

INSTANTIATE_TEST_SUITE_P(Languages, CloudExamplesTest, ::testing::ValuesIn(cloudExamples()),
                         nameOf);

// A television that answers as the test says. It sends the User Properties that the test says, or
// none.
class CloudExamplesScriptTest : public ::testing::TestWithParam<CloudExample> {
 protected:
  static constexpr const char* kBusy = R"({"error":"busy"})";
  static constexpr const char* kDestroyed = R"({"error":"the service was destroyed"})";
  static constexpr const char* kLate = R"({"error":"the request was not answered in time"})";
  static constexpr const char* kUnknown = R"({"result":6,"properties":{}})";
  static constexpr const char* kDone = R"({"result":0,"properties":{"qz":""}})";
  static constexpr const char* kNone = "";

  struct Seen {
    std::string operation;
    std::string correlation;
  };
  struct Step {
    std::string answer;
    bool confirms = false;
    bool restarts = false;
  };

  CloudExamplesScriptTest() {
    m_peer.Publish({kThing + "/status", "\"online\"", 1, true});
    m_peer.Publish({kThing + "/appdatachannel/properties", R"({"qz":{"type":"string"}})", 1, true});
    EXPECT_TRUE(m_peer.WaitUntilPublished());
  }

  // How the next sets are answered, one after the other.
  void Answer(const std::vector<Step>& steps) {
    m_steps.Change([&](std::deque<Step>& left) { left.assign(steps.begin(), steps.end()); });
  }
  // Sets qz to 1 while the sets are answered so.
  CommandResult Set(const std::vector<Step>& steps) {
    m_seen.Change([&](std::vector<Seen>& seen) { seen.clear(); });
    Answer(steps);
    return RunCommand(commandWith({"--id", "test", "--limit", "1", "set", "old", "qz", "1"}));
  }
  std::unique_ptr<HostProcess> StartExample(const std::vector<std::string>& arguments) const {
    return std::make_unique<HostProcess>(commandWith(arguments));
  }
  bool IsConnected(const std::string& id) const { return m_broker.WaitForLog(" as " + id + " "); }
  // Retained, at a topic of the television.
  void State(const std::string& topic, const std::string& payload, const std::string& run = {},
             const std::string& sequence = {}) {
    MqttPeer::Publication publication = {kThing + "/" + topic, payload, 1, true};
    if (!run.empty()) publication.userProperties.emplace_back("run", run);
    if (!sequence.empty()) publication.userProperties.emplace_back("sequence", sequence);
    m_peer.Publish(publication);
    EXPECT_TRUE(m_peer.WaitUntilPublished());
  }
  void ExpectConfirmed(const std::vector<Step>& steps) {
    const CommandResult result = Set(steps);
    EXPECT_EQ("1 is confirmed\n", result.output) << result.errors;
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(std::vector<std::string>(steps.size(), "set"), Operations());
  }
  // From the first set until long after the example's limit; answers and confirms it then.
  void LeaveForLongerThanTheLimit() {
    EXPECT_TRUE(m_seen.WaitFor([](const std::vector<Seen>& seen) { return !seen.empty(); }));
    m_peer.Publish({kThing + "/status", "\"offline\"", 1, true});
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    EXPECT_TRUE(WaitUntil([end] { return std::chrono::steady_clock::now() > end; }));
    m_peer.Publish({kThing + "/status", "\"online\"", 1, true});
    confirm();
    answer(kDone, SeenSoFar().front().correlation);
  }
  std::vector<Seen> SeenSoFar() const { return m_seen.Get(); }
  std::vector<std::string> Operations() const {
    std::vector<std::string> operations;
    for (const Seen& seen : SeenSoFar()) operations.push_back(seen.operation);
    return operations;
  }

 private:
  inline static const std::string kThing = "things/old";

  std::vector<std::string> commandWith(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = GetParam().command;
    command.insert(command.end(), {"--broker", m_broker.Address()});
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  static MqttPeer::Options theOptions() {
    MqttPeer::Options options;
    options.filters = {kThing + "/appdatachannel/set", kThing + "/appdatachannel/cancel"};
    return options;
  }
  void confirm() { m_peer.Publish({kThing + "/appdatachannel/value/qz", "\"1\"", 1, true}); }
  void answer(const std::string& text, const std::string& correlation) {
    MqttPeer::Publication publication = {"answers/test", text, 1};
    publication.correlation = correlation;
    m_peer.Publish(publication);
  }
  void take(const MqttPeer::Message& message) {
    const std::string operation(message.topic.substr(message.topic.rfind('/') + 1));
    m_seen.Change([&](std::vector<Seen>& seen) {
      seen.push_back({operation, message.correlation});
    });
    if (operation != "set") return;
    Step step;
    m_steps.Change([&](std::deque<Step>& left) {
      if (left.empty()) return;
      step = std::move(left.front());
      left.pop_front();
    });
    if (step.confirms) confirm();
    if (step.answer != kNone) answer(step.answer, message.correlation);
    if (step.restarts) m_peer.Publish({kThing + "/status", "\"online\"", 1, true});
  }

  Broker m_broker;
  Watched<std::vector<Seen>> m_seen;
  Watched<std::deque<Step>> m_steps;  // that are left
  MqttPeer m_peer{m_broker.Port(), theOptions(),
                  [this](const MqttPeer::Message& message) { take(message); }};
};

TEST_P(CloudExamplesScriptTest, WhatWasNotCarriedOutIsSentAgain) {
  ExpectConfirmed({{kBusy}, {kDestroyed}, {kUnknown}, {kDone, true}});
}

TEST_P(CloudExamplesScriptTest, WhatTimedOutIsSentAgainUnlessTheAppConfirmsIt) {
  ExpectConfirmed({{kLate, true}});
  ExpectConfirmed({{kLate}, {kLate}, {kDone, true}});
}

TEST_P(CloudExamplesScriptTest, WhatTheAppHasNotConfirmedBeforeARestartIsSentAgain) {
  ExpectConfirmed({{kDone, false, true}, {kDone, true}});
}

TEST_P(CloudExamplesScriptTest, TimeInWhichTheTelevisionIsAwayDoesNotCount) {
  const auto television = std::async(std::launch::async, [this] { LeaveForLongerThanTheLimit(); });
  ExpectConfirmed({{kNone}});
}

TEST_P(CloudExamplesScriptTest, WhatIsNotAnsweredIsCancelledBeforeItIsSentAgain) {
  EXPECT_EQ("1 is confirmed\n", Set({{kNone}, {kDone, true}}).output);
  EXPECT_EQ((std::vector<std::string>{"set", "cancel", "set"}), Operations());
  const std::vector<Seen> seen = SeenSoFar();
  ASSERT_EQ(3U, seen.size());
  EXPECT_EQ(seen[0].correlation, seen[1].correlation);
  EXPECT_NE(seen[1].correlation, seen[2].correlation);
}

TEST_P(CloudExamplesScriptTest, WhatWasCarriedOutWithoutRoomForItsAnswerIsNotSentAgain) {
  ExpectConfirmed({{R"({"error":"the answer is larger than the broker takes"})", true}});
  ExpectConfirmed({{R"({"error":"too many answers wait for the broker"})", true}});
}

TEST_P(CloudExamplesScriptTest, WhatIsRefusedIsNotSentAgain) {
  const CommandResult result = Set({{R"({"error":"qz: null"})"}});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("cloud: qz: null\n", result.errors);
  EXPECT_EQ(std::vector<std::string>{"set"}, Operations());
}

TEST_P(CloudExamplesScriptTest, AFormerRunThatComesBackIsIgnored) {
  State("status", "\"online\"", "a");
  const auto example = StartExample({"watch"});
  ASSERT_TRUE(example->WaitForOutput("old online\n")) << example->Errors();
  State("status", "\"online\"", "b");
  State("appdatachannel/value/qz", "\"new\"", "b", "1");
  ASSERT_TRUE(example->WaitForOutput("old qz \"new\"\n")) << example->Errors();
  // As after the restart of a broker that was killed.
  State("status", "\"offline\"", "a");
  State("appdatachannel/properties", R"({"former":{"type":"string"}})", "a");
  State("appdatachannel/value/qz", "\"former\"", "a", "7");
  State("status", "\"online\"", "b");
  State("appdatachannel/value/qz", "\"new\"", "b", "1");
  State("appdatachannel/value/qz", "\"last\"", "b", "2");
  EXPECT_TRUE(example->WaitForOutput("old qz \"last\"\n")) << example->Errors();
  EXPECT_EQ(1U, CountOf("has restarted", example->Output())) << example->Output();
  EXPECT_EQ(0U, CountOf("former", example->Output())) << example->Output();
  EXPECT_EQ(1U, CountOf("\"new\"", example->Output())) << example->Output();
  EXPECT_EQ(130, example->End(SIGTERM)) << example->Errors();
}

TEST_P(CloudExamplesScriptTest, ASetWaitsForPropertiesOfTheRunThatIsOnline) {
  State("appdatachannel/properties", R"({"qz":{"type":"string"}})", "a");
  State("status", "\"online\"", "b");
  Answer({{kDone, true}});
  const auto example = StartExample({"--id", "test", "--limit", "60", "set", "old", "qz", "1"});
  ASSERT_TRUE(IsConnected("test")) << example->Errors();
  // Time enough for a set that would be too early.
  const auto other = StartExample({"watch"});
  EXPECT_TRUE(other->WaitForOutput("old has qz\n")) << other->Errors();
  EXPECT_EQ(130, other->End(SIGTERM));
  EXPECT_EQ(std::vector<std::string>(), Operations());
  State("appdatachannel/properties", R"({"qz":{"type":"string"}})", "b");
  EXPECT_EQ(0, example->Wait()) << example->Errors();
  EXPECT_EQ("1 is confirmed\n", example->Output());
  EXPECT_EQ(std::vector<std::string>{"set"}, Operations());
}

TEST_P(CloudExamplesScriptTest, EmptyStatusAndPropertiesAreTaken) {
  const auto example = StartExample({"watch"});
  ASSERT_TRUE(example->WaitForOutput("old has qz\n")) << example->Errors();
  State("appdatachannel/properties", "");
  State("status", "");
  EXPECT_TRUE(example->WaitForOutput("old has no status\n")) << example->Errors();
  EXPECT_EQ(130, example->End(SIGTERM));
  EXPECT_EQ("", example->Errors());
}

INSTANTIATE_TEST_SUITE_P(Languages, CloudExamplesScriptTest, ::testing::ValuesIn(cloudExamples()),
                         nameOf);

}  // namespace
