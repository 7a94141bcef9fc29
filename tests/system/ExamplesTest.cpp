#include <ostream>

#include "ChannelTest.h"

namespace {

struct Example {
  const char* language;
  std::vector<std::string> command;
  // How it prints the data of an event: as it is, or quoted as the bus's tools do.
  bool quotes;

  friend void PrintTo(const Example& example, std::ostream* out) { *out << example.language; }
};

// An example that runs. What it has started ends with it.
class RunningExample : public HostProcess {
 public:
  using HostProcess::HostProcess;
  ~RunningExample() {
    if (!IsWaitedFor()) Kill();
  }
  RunningExample(const RunningExample&) = delete;
  RunningExample& operator=(const RunningExample&) = delete;

  void Kill() { kill(-Pid(), SIGKILL); }
};

class ExamplesTest : public ChannelTest, public ::testing::WithParamInterface<Example> {
 protected:
  std::unique_ptr<RunningExample> StartExample(const std::string& name) {
    Lines command = GetParam().command;
    command.push_back(name);
    return std::make_unique<RunningExample>(command, channel.Variables());
  }

  // The same, and waits until it is registered.
  std::unique_ptr<RunningExample> StartRegistered() {
    auto example = StartExample("qz");
    EXPECT_TRUE(example->WaitForOutput("registered\n")) << example->Errors();
    return example;
  }
  // The cloud sends data, and gets it back from the application.
  void ExpectConfirms(HostProcess& example, const std::string& data) {
    EXPECT_EQ(0, cloud.Result("set", SetOfQz(data)));
    EXPECT_TRUE(WaitForValueOfQz(data)) << example.Output() << example.Errors();
  }
  // The line that tells of an event with the data.
  static std::string LineOf(const std::string& data) {
    return "event: " + (GetParam().quotes ? "'" + data + "'" : data) + "\n";
  }
};

TEST_P(ExamplesTest, RegistersShowsEventsConfirmsThemAndUnregisters) {
  StartChannel();
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto example = StartRegistered();
    EXPECT_TRUE(cloud.WaitForProperty("qz"));
    for (const std::string data : {"volume 7", "", "Lautstärke, 7) \"laut\"", "$(false) `*`"}) {
      const Json::Value text(data);
      const std::string json = Json::writeString(Json::StreamWriterBuilder(), text);
      EXPECT_EQ(0, cloud.Result("set", R"({"qz": )" + json + "}"));
      EXPECT_TRUE(example->WaitForOutput(LineOf(data))) << example->Output() << example->Errors();
      EXPECT_TRUE(WaitUntil([&] { return ParseJson(cloud.Last(kValueOfQz)) == text; })) << data;
    }
    EXPECT_EQ(0, example->End(signal)) << example->Errors();
    EXPECT_EQ("", example->Errors());
    EXPECT_TRUE(cloud.WaitForProperty("qz", false));
    EXPECT_EQ("(-20,)", SendData(*NewClient(), "qz", "volume 7"));
  }
}

TEST_P(ExamplesTest, KeepsOutOfWhatIsMeantForOthers) {
  StartChannel();
  const auto other = NewClient();
  ASSERT_EQ("(0,)", Register(*other, "qmap"));
  const auto example = StartRegistered();
  EXPECT_EQ(0, cloud.Result("set", R"({"qmap": "1"})"));
  EXPECT_EQ(0, cloud.Result("set", SetOfQz(2)));
  EXPECT_TRUE(example->WaitForOutput(LineOf("2"))) << example->Errors();
  EXPECT_EQ("registered\n" + LineOf("2"), example->Output());
  EXPECT_EQ(0, example->End(SIGTERM)) << example->Errors();
}

TEST_P(ExamplesTest, RegistersAgainWithAHostThatIsStartedAgain) {
  const auto example = StartExample("qz");  // before there is a channel
  unsigned life = 0;
  for (const int end : {SIGKILL, SIGTERM, 0}) {
    StartChannel();
    ASSERT_TRUE(example->WaitForOutput("registered\n", ++life)) << example->Errors();
    ExpectConfirms(*example, std::to_string(life));
    if (end != 0) {
      EXPECT_EQ(end == SIGTERM ? 0 : -end, Host().End(end));
    }
  }
  EXPECT_EQ(0, example->End(SIGTERM)) << example->Errors();
}

TEST_P(ExamplesTest, ReachesTheCloudHoweverItsEarlierRunsHaveEnded) {
  StartChannel();
  const auto earlier = NewClient();
  for (int i = 0; i < 3; ++i) ASSERT_EQ("(0,)", Register(*earlier, "qz"));
  for (const bool isKilled : {true, true, false, false, false}) {
    const auto example = StartRegistered();
    ExpectConfirms(*example, std::to_string(example->Pid()));
    if (HasFailure()) return;  // the others would only take as long
    if (isKilled) {
      example->Kill();
      EXPECT_EQ(-SIGKILL, example->Wait());
    } else {
      EXPECT_EQ(0, example->End(SIGTERM));
    }
  }
}

TEST_P(ExamplesTest, ReachesTheCloudAgainAfterARestartOfTheBroker) {
  StartChannel();
  const auto example = StartRegistered();
  ExpectConfirms(*example, "1");
  unsigned connections = 1;
  for (const bool isKilled : {false, true}) {
    const std::size_t seen = cloud.Received("status").size();
    cloud.Leave();
    if (isKilled) {
      broker.Kill();
      broker.Forget();
    } else {
      broker.Stop();
    }
    broker.Start();
    cloud.ComeBack();
    // Not the status alone: the hub of a bridge still has that of an edge that has forgotten all.
    ASSERT_TRUE(Host().WaitForError("[mqtt] status: 1\n", ++connections));
    ASSERT_TRUE(WaitUntil(
        [&] { return cloud.Received("status").size() > seen && cloud.Last("status") == kOnline; }));
    ExpectConfirms(*example, isKilled ? "3" : "2");
  }
  EXPECT_EQ(0, example->End(SIGTERM)) << example->Errors();
  EXPECT_EQ("registered\n" + LineOf("1") + LineOf("2") + LineOf("3"), example->Output());
}

TEST_P(ExamplesTest, EndsWith1WhenTheBusGoesAwayAndReachesTheCloudInTheNextRun) {
  StartChannel();
  const auto example = StartRegistered();
  LoseBus();
  EXPECT_EQ(1, example->Wait());
  EXPECT_NE(std::string::npos, example->Errors().find("app: the message bus is gone"))
      << example->Errors();
  BringBusBack();
  const auto next = StartRegistered();
  ExpectConfirms(*next, "1");
  EXPECT_EQ(0, next->End(SIGTERM)) << next->Errors();
}

TEST_P(ExamplesTest, EndsWith1WhenItIsNotOnTheList) {
  StartChannel();
  const auto example = StartExample("nobody");
  EXPECT_EQ(1, example->Wait());
  EXPECT_EQ("", example->Output());
  EXPECT_NE(std::string::npos, example->Errors().find("cannot register 'nobody'"));
}

std::vector<Example> examples() {
  std::vector<Example> all = {{"Cpp", {ADC_EXAMPLE_APP}, false},
                              {"Python", {ADC_EXAMPLES_FOLDER "/app.py"}, false},
                              {"Shell", {ADC_EXAMPLES_FOLDER "/app.sh"}, true}};
#ifdef ADC_NODE
  all.push_back({"JavaScript", {ADC_NODE, ADC_EXAMPLES_FOLDER "/app.js"}, false});
#endif
  return all;
}

INSTANTIATE_TEST_SUITE_P(Languages, ExamplesTest, ::testing::ValuesIn(examples()),
                         [](const ::testing::TestParamInfo<Example>& example) {
                           return example.param.language;
                         });

}  // namespace
