#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Broker.h"
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
  static Words Command(const Words& command, const Words& options = {}) {
    Words words{ADC_RUN_CHANNEL};
    words.insert(words.end(), options.begin(), options.end());
    words.emplace_back(ADC_BUILD_FOLDER);
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }
  // Runs it to its end, after which nothing must be left.
  CommandResult Run(const Words& command, const Words& options = {}) const {
    const CommandResult result = RunCommand(Command(command, options), Variables());
    ExpectNothingLeft();
    return result;
  }
  // What it does without a command, once it is up.
  std::unique_ptr<HostProcess> StartAlone(const Words& options = {}) const {
    auto run = std::make_unique<HostProcess>(Command({}, options), Variables());
    EXPECT_TRUE(run->WaitForOutput("qivo-thing: ready")) << run->Errors();
    return run;
  }
  // Runs a command where the lines to paste of a run have been pasted.
  static CommandResult Pasted(const HostProcess& run, const std::string& command) {
    std::string lines;
    for (const char* const name : {"DBUS_SYSTEM_BUS_ADDRESS", "LUMO_BROKER", "LUMO_THING_ID",
                                   "VCONF_DIR", "ADC_RUN_FOLDER"}) {
      lines += LineOf(run.Output(), std::string("export ") + name) + "\n";
    }
    return RunCommand({"sh", "-c", lines + command});
  }
  static std::string Restart(const std::string& arguments) {
    return ADC_RUN_CHANNEL " --restart " + arguments;
  }
  // The exit status of a restart, and what it complained of.
  std::pair<int, std::string> RestartAnywhere(const HostProcess::Environment& changes = {}) const {
    HostProcess::Environment variables = Variables();
    variables["ADC_RUN_FOLDER"] = "";
    for (const auto& [name, value] : changes) variables[name] = value;
    const CommandResult result = RunCommand({"sh", "-c", Restart("host")}, variables);
    EXPECT_EQ("", result.output);
    return {result.status, result.errors};
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
    EXPECT_EQ(1U, CountOf("\n", result.errors)) << result.errors;
  }
}

TEST_F(RunTest, SaysWhereTheLogOfTheHostIsWhileTheCommandRuns) {
  const CommandResult result = Run(
      {"sh", "-c", "echo $ADC_RUN_FOLDER; grep -c '^qivo-thing: ready' $ADC_RUN_FOLDER/host.log"});
  const std::string folder = result.output.substr(0, result.output.find('\n'));
  EXPECT_EQ(folder + "\n1\n", result.output);
  EXPECT_EQ("run: the host's log is " + folder +
                "/host.log until the command ends; --log FILE keeps it\n",
            result.errors);
}

TEST_F(RunTest, TheLogOfTheHostIsKeptWhereTheUserWants) {
  const TemporaryFolder kept;
  kept.Write("host.log", "of the run before");
  const CommandResult result = Run({"sh", "-c", "cat $ADC_RUN_FOLDER/host.log"},
                                   {"--log", (kept.Path() / "host.log").string()});
  EXPECT_EQ("", result.errors);
  EXPECT_NE(std::string::npos, result.output.find("\nqivo-thing: ready\n"));
  // The end of the host is in it, too.
  EXPECT_EQ(0U, kept.Read("host.log").find(result.output)) << kept.Read("host.log");
  EXPECT_NE(std::string::npos, kept.Read("host.log").find("destroyed"));

  const CommandResult elsewhere = Run({"true"}, {"--log", "/nowhere/log"});
  EXPECT_EQ(1, elsewhere.status);
  EXPECT_EQ("run: cannot write /nowhere/log: No such file or directory\n", elsewhere.errors);
}

TEST_F(RunTest, TheHostWritesItsLogItselfWhereABenchmarkWantsThat) {
  const TemporaryFolder kept;
  kept.Write("log", "of the run before\n");
  const CommandResult result = Run({"sh", "-c", "cat $ADC_RUN_FOLDER/host.log"},
                                   {"--direct-log", (kept.Path() / "log").string()});
  EXPECT_EQ("", result.errors);
  EXPECT_EQ("qivo-thing: ready\n", result.output);
  const std::string log = kept.Read("log");
  EXPECT_EQ(0U, log.find("of the run before\n")) << log;
  EXPECT_NE(std::string::npos, log.find("success to emit signal: dbus_server_ready")) << log;

  const CommandResult elsewhere = Run({"true"}, {"--direct-log", "/nowhere/log"});
  EXPECT_EQ(1, elsewhere.status);
  EXPECT_EQ("run: cannot write /nowhere/log: No such file or directory\n", elsewhere.errors);
}

TEST_F(RunTest, TheAddressesAreThoseThatTheUserWants) {
  const TemporaryFolder folder;
  const std::string bus = (folder.Path() / "a bus").string();
  Broker other;
  const std::string port = std::to_string(other.Port());
  const Words options{"--port", port, "--bus", bus};
  const CommandResult taken = Run({"true"}, options);
  EXPECT_EQ(1, taken.status);
  EXPECT_EQ("run: port " + port + " is taken\n", taken.errors);
  other.Stop();

  for (int i = 0; i < 2; ++i) {
    const auto run = StartAlone(options);
    EXPECT_EQ("export LUMO_BROKER=mqtt://127.0.0.1:" + port,
              LineOf(run->Output(), "export LUMO_BROKER"));
    EXPECT_EQ("(0,)\n", RunCommand({"sh", "-c", LineOf(run->Output(), "gdbus call")}).output);
    const CommandResult second = RunCommand(Command({"true"}, {"--bus", bus}), Variables());
    EXPECT_EQ(1, second.status);
    EXPECT_EQ("run: " + bus + " is taken\n", second.errors);
    EXPECT_EQ("(0,)\n", RunCommand({"sh", "-c", LineOf(run->Output(), "gdbus call")}).output);
    // The socket that nobody removes does not disturb the next run.
    if (i == 0) {
      EXPECT_EQ(0, run->End(SIGINT));
      EXPECT_FALSE(std::filesystem::exists(bus));
      ASSERT_EQ(0, RunCommand(
                       {"/usr/bin/python3", "-c",
                        "import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])", bus})
                       .status);
      EXPECT_TRUE(std::filesystem::exists(bus));
    }
  }
}

TEST_F(RunTest, NoFileGivesWayToTheBus) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("file", "of the user");
  const std::pair<std::string, std::string> mistakes[] = {
      {file, file + " is taken"},
      {folder.Path().string(), folder.Path().string() + " is taken"},
      {"/nowhere/bus", "no folder /nowhere"},
      {"/" + std::string(200, 'b'), "/" + std::string(200, 'b') + " is too long for a socket"}};
  for (const auto& [path, message] : mistakes) {
    const CommandResult result = Run({"true"}, {"--bus", path});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("run: " + message + "\n", result.errors);
  }
  EXPECT_EQ("of the user", folder.Read("file"));
}

TEST_F(RunTest, TheHostIsRestartedFromAnotherTerminal) {
  const auto run = StartAlone();
  unsigned ends = 0;
  for (const char* const arguments : {"host", "host --kill"}) {
    const std::string owner =
        "gdbus call --system -d org.freedesktop.DBus -o / -m org.freedesktop.DBus.GetNameOwner "
        "org.tizen.qivo_thing";
    const std::string before = Pasted(*run, owner).output;
    EXPECT_NE("", before);
    const CommandResult result = Pasted(*run, Restart(arguments));
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.output + result.errors);
    // It is back, online, and its log is shown.
    const std::string after = Pasted(*run, owner).output;
    EXPECT_NE("", after);
    EXPECT_NE(before, after);
    EXPECT_EQ(
        "\"online\"\n",
        Pasted(*run, "mosquitto_sub -p ${LUMO_BROKER##*:} -t things/tv/status -C 1 -W 60").output);
    EXPECT_TRUE(run->WaitForOutput("qivo-thing: ready", ends + 2));
    // Only the first has a clean shutdown.
    EXPECT_EQ(1U, CountOf("] destroyed", run->Output()));
    ++ends;
  }
  EXPECT_EQ(0, run->End(SIGINT)) << run->Errors();
  EXPECT_EQ("", run->Errors());
  ExpectNothingLeft();
}

TEST_F(RunTest, TheBrokerHasItsSessionsAndRetainedMessagesAfterARestart) {
  const auto run = StartAlone();
  const std::string broker = " -V 5 -p ${LUMO_BROKER##*:} -q 1 ";
  const std::string session = "mosquitto_sub -i waits -c -x 600 -t test/sent" + broker;
  const std::string retained = "mosquitto_sub -t test/kept -W 60 -C 1" + broker;
  EXPECT_EQ(0, Pasted(*run, "mosquitto_pub -t test/kept -m kept -r" + broker).status);
  EXPECT_EQ(0, Pasted(*run, session + "-E").status);
  EXPECT_EQ(0, Pasted(*run, "mosquitto_pub -t test/sent -m sent" + broker).status);
  // A broker that is killed has what it had saved before.
  unsigned connections = 1;
  for (const char* const arguments : {"broker", "broker --kill"}) {
    EXPECT_EQ(0, Pasted(*run, Restart(arguments)).status);
    EXPECT_TRUE(run->WaitForOutput("LUMO: connected to", ++connections));
    EXPECT_EQ("kept\n", Pasted(*run, retained).output);
  }
  EXPECT_EQ("sent\n", Pasted(*run, session + "-W 60 -C 1").output);
  EXPECT_EQ(0, run->End(SIGINT)) << run->Errors();
  ExpectNothingLeft();
}

TEST_F(RunTest, TheCommandRestartsWhatItWants) {
  const std::string restarts = Restart("broker") + " && " + Restart("host --kill") + " && " +
                               Restart("host") + " && " + Restart("broker --kill");
  const CommandResult result =
      Run({"sh", "-c", restarts + " && grep -c '^qivo-thing: ready' $ADC_RUN_FOLDER/host.log"});
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_EQ("3\n", result.output);
  // One that ends while what it asked for is done.
  EXPECT_EQ(7, Run({"sh", "-c", Restart("broker") + " & " + Restart("host") + " & exit 7"}).status);
}

TEST_F(RunTest, ARestartFindsTheOnlyRun) {
  EXPECT_EQ(std::pair(1, std::string("run: no channel runs: ./dev run starts one\n")),
            RestartAnywhere());
  EXPECT_EQ(std::pair(1, std::string("run: no channel runs in /nowhere\n")),
            RestartAnywhere({{"ADC_RUN_FOLDER", "/nowhere"}}));
  const auto run = StartAlone();
  EXPECT_EQ(std::pair(0, std::string()), RestartAnywhere());
  const auto second = StartAlone();
  const auto [status, complaint] = RestartAnywhere();
  EXPECT_EQ(1, status);
  EXPECT_EQ(0U, complaint.find("run: ADC_RUN_FOLDER must say which one: ")) << complaint;
  for (const auto* const one : {run.get(), second.get()}) {
    const std::string line = LineOf(one->Output(), "export ADC_RUN_FOLDER");
    const std::string folder = line.substr(line.find('=') + 1);
    EXPECT_NE(std::string::npos, complaint.find(folder));
    EXPECT_EQ(std::pair(0, std::string()), RestartAnywhere({{"ADC_RUN_FOLDER", folder}}));
  }
}

TEST_F(RunTest, OfTheSettingsWhoeverStartsItChoosesTheTimeOutAlone) {
  HostProcess::Environment variables = Variables();
  variables["LUMO_HEALTH_INTERVAL_MS"] = "wrong";
  const CommandResult result = RunCommand(Command({"true"}), variables);
  EXPECT_EQ(0, result.status) << result.errors;
  variables["LUMO_REQUEST_TIMEOUT_MS"] = "wrong";
  EXPECT_EQ(1, RunCommand(Command({"true"}), variables).status);
  ExpectNothingLeft();
}

TEST_F(RunTest, APartThatDoesNotComeBackEndsTheRunAndTheRestart) {
  const TemporaryFolder folder;
  const std::string build = folder.Path().string();
  std::filesystem::create_directories(build + "/host");
  std::filesystem::create_directories(build + "/src/app-data-channel-plugin");
  const std::string host = build + "/host/qivo-thing";
  const std::string plugIn = "/src/app-data-channel-plugin/libappdatachannel.so";
  std::filesystem::create_symlink(ADC_BUILD_FOLDER "/host/qivo-thing", host);
  std::filesystem::create_symlink(ADC_BUILD_FOLDER + plugIn, build + plugIn);
  HostProcess run({ADC_RUN_CHANNEL, build}, Variables());
  ASSERT_TRUE(run.WaitForOutput("qivo-thing: ready")) << run.Errors();
  std::filesystem::remove(host);
  std::filesystem::create_symlink("/bin/false", host);
  const CommandResult result = Pasted(run, Restart("host"));
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("run: the host ended with status 1\n", result.errors);
  EXPECT_EQ(1, run.Wait());
  EXPECT_EQ("run: the host ended with status 1\n", run.Errors());
  ExpectNothingLeft();
}

TEST_F(RunTest, PrintsTheAddressOfThePageOrHowToGetOne) {
  const TemporaryFolder folder;
  const std::string page = folder.Write("page.html", "<html></html>");
  const auto with = StartAlone({"--page", page});
  const std::string address = LineOf(with->Output(), "http://127.0.0.1:");
  EXPECT_EQ("<html></html>",
            RunCommand({"/usr/bin/python3", "-c",
                        "import sys, urllib.request; "
                        "print(end=urllib.request.urlopen(sys.argv[1]).read().decode())",
                        address})
                .output);
  EXPECT_NE(std::string::npos, address.find("/#key=")) << address;
  const auto without = StartAlone({"--page", "/nowhere/page.html"});
  EXPECT_EQ("", LineOf(without->Output(), "http://"));
  EXPECT_EQ(0U, LineOf(without->Output(), "not built").find("not built: ./dev run builds it"));
}

TEST_F(RunTest, TheCommandKnowsTheAddressOfThePageIfThereIsOne) {
  const TemporaryFolder folder;
  const std::string page = folder.Write("page.html", "<html></html>");
  Broker other;  // its port is free soon
  const std::string port = std::to_string(other.Port());
  const CommandResult taken = Run({"true"}, {"--page-port", port});
  EXPECT_EQ("run: port " + port + " is taken\n", taken.errors);
  other.Stop();
  const Words options{"--page", page, "--page-port", port};
  EXPECT_EQ(0U, Run({"sh", "-c", "echo $ADC_RUN_PAGE"}, options)
                    .output.find("http://127.0.0.1:" + port + "/#key="));
  const CommandResult none = Run({"sh", "-c", "echo ${ADC_RUN_PAGE-none}"}, {"--page", "/nowhere"});
  EXPECT_EQ("none\n", none.output);
}

TEST_F(RunTest, TheCommandHasAChannelThatIsReady) {
  const CommandResult result =
      Run({"sh", "-c",
           "gdbus call --system -d org.tizen.qivo_thing -o /org/tizen/qivo_thing"
           "  -m org.tizen.qivo_thing.service.get_cloud_connection && "
           "mosquitto_sub -p ${LUMO_BROKER##*:} -t things/$LUMO_THING_ID/status -C 1 -W 60 && "
           "cat $VCONF_DIR/memory/iot/thing/thing_status"});
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_EQ(0U, result.output.find("(false,)\n\"online\"\n1")) << result.output;
}

TEST_F(RunTest, ItsOutputCanBePasted) {
  HostProcess run(Command({}), Variables());
  ASSERT_TRUE(run.WaitForOutput("things/tv/#")) << run.Errors();
  const std::string output = run.Output();
  EXPECT_EQ("(0,)\n", RunCommand({"sh", "-c", LineOf(output, "gdbus call")}).output);
  const CommandResult answer = RunCommand({"sh", "-c", LineOf(output, "mosquitto_rr") + " -W 60"});
  EXPECT_NE(std::string::npos, answer.output.find("\"result\":0")) << output << answer.errors;
  EXPECT_TRUE(run.WaitForOutput("success to emit signal: send_event"));  // the host's log
  EXPECT_EQ(0, RunCommand({"sh", "-c", LineOf(output, "mosquitto_sub") + " -C 2 -W 60"}).status);
  EXPECT_EQ(
      "(false,)\n\"online\"\n",
      Pasted(run,
             "gdbus call --system -d org.tizen.qivo_thing -o /org/tizen/qivo_thing"
             "  -m org.tizen.qivo_thing.service.get_cloud_connection && "
             "mosquitto_sub -p ${LUMO_BROKER##*:} -t things/$LUMO_THING_ID/status -C 1 -W 60 && "
             "test -d $VCONF_DIR")
          .output);
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
  EXPECT_EQ(1U, CountOf("\n", result.errors)) << result.errors;
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
