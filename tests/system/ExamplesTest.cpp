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

class ExamplesTest : public ChannelTest, public ::testing::WithParamInterface<Example> {
 protected:
  std::unique_ptr<HostProcess> StartExample(const std::string& name) {
    Lines command = GetParam().command;
    command.push_back(name);
    return std::make_unique<HostProcess>(command, channel.Variables());
  }

  // The same, and waits until it is registered.
  std::unique_ptr<HostProcess> StartRegistered() {
    auto example = StartExample("qz");
    EXPECT_TRUE(example->WaitForOutput("registered\n")) << example->Errors();
    return example;
  }
  // The line that tells of an event with the data, and the two after it, if any.
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
  for (unsigned life = 1; life <= 2; ++life) {
    StartChannel();
    ASSERT_TRUE(example->WaitForOutput("registered\n", life)) << example->Errors();
    if (life == 1) {
      EXPECT_EQ(-SIGKILL, Host().End(SIGKILL));
    }
  }
  EXPECT_EQ(0, cloud.Result("set", SetOfQz(1)));
  EXPECT_TRUE(WaitForValueOfQz("1"));
  EXPECT_EQ(0, example->End(SIGTERM)) << example->Errors();
}

TEST_P(ExamplesTest, ReachesTheCloudHoweverItsEarlierRunsHaveEnded) {
  StartChannel();
  for (const bool isKilled : {true, true, false, false, false}) {
    const auto example = StartRegistered();
    const std::string data = std::to_string(example->Pid());
    EXPECT_EQ(0, cloud.Result("set", SetOfQz(data)));
    EXPECT_TRUE(WaitForValueOfQz(data)) << example->Output();
    if (isKilled) kill(-example->Pid(), SIGKILL);  // with what it has started
    EXPECT_EQ(isKilled ? -SIGKILL : 0, isKilled ? example->Wait() : example->End(SIGTERM));
  }
}

TEST_P(ExamplesTest, EndsWith1WhenItIsNotOnTheList) {
  StartChannel();
  const auto example = StartExample("nobody");
  EXPECT_EQ(1, example->Wait());
  EXPECT_EQ("", example->Output());
  EXPECT_NE(std::string::npos, example->Errors().find("cannot register 'nobody'"));
}

INSTANTIATE_TEST_SUITE_P(
    Languages, ExamplesTest,
    ::testing::Values(Example{"Cpp", {ADC_EXAMPLE_APP}, false},
                      Example{"Python", {ADC_EXAMPLES_FOLDER "/app.py"}, false},
                      Example{"Shell", {ADC_EXAMPLES_FOLDER "/app.sh"}, true}),
    [](const ::testing::TestParamInfo<Example>& example) { return example.param.language; });

}  // namespace
