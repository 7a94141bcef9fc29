#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "HostProcess.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

using Words = std::vector<std::string>;

// What ./dev run does once everything is built, in a folder for temporary files of its own.
class RunTest : public ::testing::Test {
 protected:
  HostProcess::Environment Variables() const {
    // The walkthrough sends three messages within this time, on a busy machine as well.
    return {{"TMPDIR", m_folder.Path()}, {"LUMO_REQUEST_TIMEOUT_MS", "5000"}};
  }
  static Words Command(const Words& command) {
    Words words{ADC_RUN_CHANNEL, ADC_BUILD_FOLDER};
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }
  // Runs it to its end, after which nothing must be left.
  CommandResult Run(const Words& command) const {
    const CommandResult result = RunCommand(Command(command), Variables());
    ExpectNothingLeft();
    return result;
  }

  // Starts it with a command that leaves two processes behind that nobody waits for; returns when
  // they run.
  std::unique_ptr<HostProcess> StartLeaving() const {
    auto run = std::make_unique<HostProcess>(
        Command({"sh", "-c", "setsid sleep 1000 & sleep 1000 & echo up; wait"}), Variables());
    EXPECT_TRUE(run->WaitForOutput("up\n")) << run->Errors();
    return run;
  }

  // Every process that a run starts inherits its folder for temporary files.
  Words Processes() const {
    Words found;
    const std::string wanted = "TMPDIR=" + m_folder.Path().string();
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
      std::ifstream file(process.path() / "environ");
      const std::string environment((std::istreambuf_iterator<char>(file)), {});
      if (environment.find(wanted) == std::string::npos) continue;
      std::ifstream command(process.path() / "cmdline");
      found.emplace_back((std::istreambuf_iterator<char>(command)),
                         std::istreambuf_iterator<char>());
    }
    return found;
  }
  Words Files() const {
    Words found;
    for (const auto& file : std::filesystem::recursive_directory_iterator(m_folder.Path())) {
      found.push_back(file.path().string());
    }
    return found;
  }
  void ExpectNothingLeft() const {
    EXPECT_EQ(Words(), Processes());
    EXPECT_EQ(Words(), Files());
  }
  // After the script was killed somebody else cleans up, soon.
  void ExpectNothingLeftSoon() const {
    WaitUntil([this] { return Processes().empty() && Files().empty(); });
    ExpectNothingLeft();
  }

  // The first line that the run has printed which begins with the text; blanks before it do not
  // count.
  static std::string LineOf(const std::string& output, const std::string& text) {
    const std::size_t start = output.find("\n  " + text);
    if (start == std::string::npos) return {};
    return output.substr(start + 3, output.find('\n', start + 1) - start - 3);
  }

 private:
  const TemporaryFolder m_folder;
};

TEST_F(RunTest, EndsWithTheStatusOfTheCommandAndLeavesNothingBehind) {
  const std::pair<Words, int> commands[] = {
      {{"true"}, 0}, {{"sh", "-c", "exit 7"}, 7}, {{"sh", "-c", "kill -KILL $$"}, 128 + SIGKILL}};
  for (const auto& [command, status] : commands) {
    const CommandResult result = Run(command);
    EXPECT_EQ(status, result.status) << result.errors;
    EXPECT_EQ("", result.output);
    EXPECT_EQ("", result.errors);
  }
}

TEST_F(RunTest, TheCommandHasAChannelThatIsReady) {
  const CommandResult result =
      Run({"sh", "-c",
           "gdbus call --system -d org.tizen.qivo_thing -o /org/tizen/qivo_thing"
           "  -m org.tizen.qivo_thing.service.get_cloud_connection && "
           "mosquitto_sub -p ${LUMO_BROKER##*:} -t things/$LUMO_THING_ID/status -C 1 -W 10 && "
           "cat $VCONF_DIR/memory/iot/thing/thing_status"});
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_EQ(0U, result.output.find("(false,)\n\"online\"\n1")) << result.output;
}

TEST_F(RunTest, ItsOutputCanBePasted) {
  HostProcess run(Command({}), Variables());
  ASSERT_TRUE(run.WaitForOutput("things/tv/#")) << run.Errors();
  const std::string output = run.Output();
  EXPECT_EQ("(0,)\n", RunCommand({"sh", "-c", LineOf(output, "gdbus call")}).output);
  const CommandResult answer = RunCommand({"sh", "-c", LineOf(output, "mosquitto_rr") + " -W 10"});
  EXPECT_NE(std::string::npos, answer.output.find("\"result\":0")) << output << answer.errors;
  EXPECT_TRUE(run.WaitForOutput("success to emit signal: send_event"));  // the host's log
  EXPECT_EQ(0, RunCommand({"sh", "-c", LineOf(output, "mosquitto_sub") + " -C 2 -W 10"}).status);
  HostProcess monitor({"sh", "-c", "exec " + LineOf(output, "gdbus monitor")});
  EXPECT_TRUE(monitor.WaitForOutput("is owned by"));
  EXPECT_EQ(0, run.End(SIGINT)) << run.Errors();
  EXPECT_EQ("", run.Errors());
  ExpectNothingLeft();
}

TEST_F(RunTest, SaysInOneLineWhatIsWrong) {
  const CommandResult result = Run({"no-such-command"});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("run: no command no-such-command\n", result.errors);
  const CommandResult elsewhere = RunCommand({ADC_RUN_CHANNEL, "/nowhere", "true"}, Variables());
  EXPECT_EQ(1, elsewhere.status);
  EXPECT_EQ("run: no file /nowhere/host/qivo-thing: ./dev build makes it\n", elsewhere.errors);
}

TEST_F(RunTest, ASignalEndsTheCommandAndLeavesNothing) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    const auto run = StartLeaving();
    // Two of the run, bus, broker, host, three of the command, each of which has no environment for
    // a moment when it begins.
    EXPECT_TRUE(WaitUntil([this] { return Processes().size() == 8; })) << Processes().size();
    EXPECT_EQ(128 + signal, run->End(signal)) << run->Errors();
    ExpectNothingLeft();
  }
}

TEST_F(RunTest, ASignalWhileItStartsLeavesNothing) {
  for (const char* const sign : {"/bus.conf", "/broker.conf", "/vconf"}) {
    HostProcess run(Command({"sleep", "1000"}), Variables());
    ASSERT_TRUE(WaitUntil([this, sign] {
      const Words files = Files();
      return std::any_of(files.begin(), files.end(), [sign](const std::string& file) {
        return file.find(sign) != std::string::npos;
      });
    })) << run.Errors();
    EXPECT_EQ(128 + SIGTERM, run.End(SIGTERM)) << run.Errors();
    ExpectNothingLeft();
  }
}

TEST_F(RunTest, KillingTheScriptLeavesNothing) {
  for (const bool group : {false, true}) {
    const auto run = StartLeaving();
    ASSERT_EQ(0, kill(group ? -run->Pid() : run->Pid(), SIGKILL));
    EXPECT_EQ(-SIGKILL, run->Wait());
    ExpectNothingLeftSoon();
  }
  HostProcess withoutCommand(Command({}), Variables());
  ASSERT_TRUE(withoutCommand.WaitForOutput("The channel is up")) << withoutCommand.Errors();
  EXPECT_EQ(-SIGKILL, withoutCommand.End(SIGKILL));
  ExpectNothingLeftSoon();
}

TEST_F(RunTest, KillingTheProcessThatDoesTheWorkLeavesNothing) {
  const auto run = StartLeaving();
  // It is the only child of the one that was started.
  const std::string pid = std::to_string(run->Pid());
  pid_t keeper = 0;
  std::ifstream("/proc/" + pid + "/task/" + pid + "/children") >> keeper;
  ASSERT_GT(keeper, 1);
  ASSERT_EQ(0, kill(keeper, SIGKILL));
  EXPECT_EQ(128 + SIGKILL, run->Wait()) << run->Errors();
  ExpectNothingLeft();
}

TEST_F(RunTest, TheWalkthroughGoesAsTheChannelPromises) {
  const CommandResult result = Run({ADC_EXAMPLES_FOLDER "/walkthrough.sh"});
  EXPECT_EQ(0, result.status) << result.output << result.errors;
  EXPECT_EQ("", result.errors);
}

TEST_F(RunTest, TheWalkthroughStopsWhereTheChannelDoesNotDoAsItPromises) {
  // With a registration more than the walkthrough knows of, the application stays registered.
  const CommandResult result =
      Run({"sh", "-c",
           "gdbus call --system -d org.tizen.qivo_thing -o /org/tizen/qivo_thing"
           "  -m org.tizen.qivo_thing.service.register_app qz && "
           "exec " ADC_EXAMPLES_FOLDER "/walkthrough.sh"});
  EXPECT_EQ(1, result.status) << result.output;
  EXPECT_NE(std::string::npos, result.errors.find("expected: (-20,)")) << result.errors;
}

}  // namespace
