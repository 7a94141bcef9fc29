#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
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

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

// The script, with programs of the test's own in the place of those that install, build and check.
class DevTest : public ::testing::Test {
 protected:
  DevTest() {
    fs::create_directory(Programs());
    for (const char* const name : {"apt-get", "cmake", "debootstrap", "dpkg-query", "sudo"}) {
      WriteProgram(Programs() / name, "echo $0 $* >>" + Calls().string());
    }
  }

  const fs::path& Folder() const { return m_folder.Path(); }
  fs::path Programs() const { return Folder() / "programs"; }
  // What the programs write into.
  fs::path Calls() const { return Folder() / "calls"; }

  static void WriteProgram(const fs::path& file, const std::string& text) {
    std::ofstream(file) << "#!/bin/sh\n" << text << "\n";
    fs::permissions(file, fs::perms::owner_exec, fs::perm_options::add);
  }

  HostProcess::Environment Variables() const {
    const char* const path = std::getenv("PATH");
    return {{"PATH", Programs().string() + ":" + (path != nullptr ? path : "")}};
  }

 private:
  const TemporaryFolder m_folder;
};

TEST_F(DevTest, AMistakeIsReportedBeforeAnythingIsInstalledOrBuilt) {
  const struct {
    std::string arguments;
    std::string message;
  } mistakes[] = {
      {"bogus", "no command named 'bogus'"},
      {"demo now", "too many arguments for ./dev demo: now"},
      {"run true", "the command comes after --: ./dev run -- true"},
      {"run --bogus", "no option '--bogus' of ./dev run"},
      {"run --log", "--log needs a value"},
      {"run --bus -- true", "--bus needs a value"},
      {"run --port 0 -- true", "'0' is no port"},
      {"run --port 65536", "'65536' is no port"},
      {"run restart", "'' cannot be restarted (host, broker)"},
      {"run restart bus", "'bus' cannot be restarted (host, broker)"},
      {"run restart host --now", "no option '--now' of ./dev run restart"},
      {"run restart host --kill now", "too many arguments for ./dev run: now"},
      {"run --port 1883 restart host", "--port 1883 is not for ./dev run restart"},
      {"package bogus", "'bogus' is no architecture of packages (amd64, i386)"},
      {"package i386 amd64", "./dev package is for one architecture at a time"},
      {"screenshots now", "too many arguments for ./dev screenshots: now"},
      {"setup now", "too many arguments for ./dev setup: now"},
      {"build bogus", "no preset named 'bogus'"},
      {"build i386-bogus", "no preset named 'i386-bogus'"},
      {"build release asan", "too many arguments for ./dev build: asan"},
      {"test bogus", "no preset named 'bogus'"},
      {"test release bogus", "'bogus' is no option of ctest"},
      {"test boot bogus", "'bogus' is no architecture of packages (amd64, i386)"},
      {"test boot i386 now", "too many arguments for ./dev test: now"},
      {"test --bogus", "'--bogus' is no option of ctest"},
      {"test tsan -R Log -j2 --bogus=1", "'--bogus=1' is no option of ctest"},
      {"coverage src", "too many arguments for ./dev coverage: src"},
      {"fuzz bogus", "no fuzz target named 'bogus'"},
      {"fuzz bus-call 0", "'0' is not a number of seconds"},
      {"fuzz 10 20", "too many arguments for ./dev fuzz: 20"},
      {"bench --bogus", "unrecognized arguments: --bogus"},
      {"bench --only bogus", "invalid choice: 'bogus'"},
      {"check bogus", "no part of check named 'bogus'"},
      {"check quick bogus", "no part of check named 'bogus'"},
      {"soak x", "'x' is not a number of minutes"},
      {"soak 1 2", "too many arguments for ./dev soak: 2"},
      {"fleet 0", "'0' is no number of televisions (1 to 10000)"},
      {"fleet 10 --bogus", "no option '--bogus' of ./dev fleet"},
      {"fleet --scenario sets,bogus", "no scenario named 'bogus'"},
      {"fleet 10 --seconds", "--seconds needs a value"},
      {"fleet --rate x", "'x' is no number for --rate"},
      {"fleet --seconds 0", "'0' is no number of seconds (1 or more)"},
      {"fleet --workers 1", "'1' is no number of workers (2 to 100)"},
      {"fleet 10 20", "too many arguments for ./dev fleet: 20"},
      {"lint src", "too many arguments for ./dev lint: src"},
      {"valgrind helgrind", "too many arguments for ./dev valgrind: helgrind"},
  };
  for (const auto& [arguments, message] : mistakes) {
    SCOPED_TRACE(arguments);
    const CommandResult result =
        RunCommand({"sh", "-c", "exec " ADC_DEV " " + arguments}, Variables());
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.errors.find(message)) << result.errors;
    EXPECT_EQ("", result.output);
    EXPECT_FALSE(fs::exists(Calls()));
  }
}

TEST_F(DevTest, HelpIsShownWithoutACommandAndInstallsNothing) {
  for (const Words& command : {Words{ADC_DEV}, Words{ADC_DEV, "help"}, Words{ADC_DEV, "--help"}}) {
    const CommandResult result = RunCommand(command, Variables());
    EXPECT_EQ(0, result.status) << result.errors;
    EXPECT_EQ(0U, result.output.find("./dev demo")) << result.output;
  }
  EXPECT_FALSE(fs::exists(Calls()));
}

// A copy of the script, whose steps are the test's own programs.
class DevCheckTest : public DevTest {
 protected:
  DevCheckTest() {
    fs::copy_file(ADC_DEV, Folder() / "dev");
    fs::create_directory(Folder() / "tools");
    WriteProgram(Programs() / "dpkg-query", "for word; do echo $word install ok installed; done");
    WriteProgram(Programs() / "dpkg", "echo amd64");
    WriteProgram(Programs() / "id", "echo 0");
    WriteProgram(Programs() / "git", "true");
    WriteProgram(Folder() / "tools/i386_root.sh", Started("root"));
  }

  // What a program does that leaves a child behind and waits for it.
  std::string Started(const std::string& name) const {
    const std::string file = (Folder() / name).string();
    return "sleep 1000 & echo $$ $! >" + file + ".new && mv " + file + ".new " + file + " && wait";
  }
  // Once the program runs, it names both processes in a file.
  void WaitUntilStarted(const std::string& name) const {
    EXPECT_TRUE(WaitUntil([&] { return fs::exists(Folder() / name); })) << name;
  }
  // One that nobody has waited for yet has ended, too.
  static bool IsRunning(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::string word;
    file >> word >> word >> word;
    return file && word != "Z";
  }
  void ExpectEnded(const std::string& name) const {
    WaitUntilStarted(name);
    std::ifstream file(Folder() / name);
    for (int i = 0; i < 2; ++i) {
      pid_t process = 0;
      file >> process;
      ASSERT_GT(process, 0);
      EXPECT_TRUE(WaitUntil([&] { return !IsRunning(process); })) << name;
    }
    fs::remove(Folder() / name);
  }
  Words Check() const { return {(Folder() / "dev").string(), "check", "quick", "target"}; }
};

TEST_F(DevCheckTest, APartThatFailsEndsWhatWasStarted) {
  WriteProgram(Programs() / "clang-format",
               "until [ -f " + (Folder() / "root").string() + " ]; do sleep 0.1; done; exit 1");
  const CommandResult check = RunCommand(Check(), Variables());
  EXPECT_EQ(1, check.status);
  EXPECT_NE(std::string::npos, check.output.find(" s  ./dev lint\n")) << check.output;
  EXPECT_NE(std::string::npos, check.errors.find("./dev lint failed")) << check.errors;
  ExpectEnded("root");
}

TEST_F(DevCheckTest, ASignalEndsTheStepAndWhatWasStarted) {
  WriteProgram(Programs() / "clang-format", Started("step"));
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    HostProcess check(Check(), Variables());
    WaitUntilStarted("step");
    WaitUntilStarted("root");
    EXPECT_NE(0, check.End(signal));
    ExpectEnded("step");
    ExpectEnded("root");
  }
}

// A copy of the script, with a channel, an npm and folders for npm that are the test's own.
class DevNodeTest : public DevTest {
 protected:
  DevNodeTest() {
    fs::copy_file(ADC_DEV, Folder() / "dev");
    fs::create_directories(Folder() / "tools");
    fs::create_directories(Folder() / "console/src");
    fs::create_directories(Folder() / "console/tests");
    fs::copy_file(fs::path(ADC_DEV).parent_path() / "console/is_built.sh",
                  Folder() / "console/is_built.sh");
    for (const char* const name : {"index.html", "vite.config.ts", "tsconfig.json"}) {
      std::ofstream(Folder() / "console" / name) << name;
    }
    fs::create_directories(Folder() / "examples");
    WriteProgram(Folder() / "tools/run_channel.py", "echo \"in $PWD:\" $*");
    for (const char* const folder : {"console", "examples"}) {
      std::ofstream(Folder() / folder / "package.json") << "{}";
      std::ofstream(Folder() / folder / "package-lock.json") << "{}";
    }
    std::ofstream(Source()) << "first";
    const std::string log = "echo npm $* in ${PWD##*/} >>" + Calls().string() + "; ";
    WriteProgram(Programs() / "npm",
                 log +
                     "case $1 in ci) mkdir -p node_modules ;; run) ! grep wrong src/* && "
                     "mkdir -p dist && cat src/* >dist/index.html ;; esac");
    WriteNode("20.1.0");
    WriteProgram(Programs() / "chromium", "true");
    WriteProgram(Programs() / "cmake", "true");
    WriteProgram(Programs() / "ctest", "echo --preset");
    WriteProgram(Programs() / "dpkg", "echo amd64");
    WriteProgram(Programs() / "id", "echo 0");
    WriteProgram(Programs() / "uname", "echo x86_64");
    // Of Debian's packages, only those for Node.js and a browser are missing.
    WriteProgram(Programs() / "dpkg-query",
                 "shift 3; for word; do case $word in nodejs | npm | chromium) ;; "
                 "*) echo $word install ok installed ;; esac; done");
  }

  fs::path Source() const { return Folder() / "console/src/main.ts"; }
  fs::path Page() const { return Folder() / "console/dist/index.html"; }
  void WriteNode(const std::string& version) const {
    WriteProgram(Programs() / "node", "echo " + version);
  }
  // A PATH in which no node, npm or browser is.
  HostProcess::Environment WithoutNode() const {
    const fs::path others = Folder() / "others";
    fs::create_directory(others);
    for (const auto& program : fs::directory_iterator("/usr/bin")) {
      fs::create_symlink(program.path(), others / program.path().filename());
    }
    for (const char* const name : {"node", "npm", "chromium"}) {
      fs::remove(others / name);
      fs::remove(Programs() / name);
    }
    return {{"PATH", Programs().string() + ":" + others.string()}};
  }
  // All that is there is older than what is written from now on, and the page is the youngest of
  // it.
  void LetTimePass() const {
    const auto now = fs::file_time_type::clock::now();
    for (const auto& entry : fs::recursive_directory_iterator(Folder() / "console")) {
      fs::last_write_time(entry, now - std::chrono::hours(2));
    }
    fs::last_write_time(Page(), now - std::chrono::hours(1));
  }

  CommandResult Dev(const std::string& arguments) const { return Dev(arguments, Variables()); }
  CommandResult Dev(const std::string& arguments, const HostProcess::Environment& variables) const {
    return RunCommand({(Folder() / "dev").string(), arguments}, variables);
  }
  // What the programs have been called for since this was asked last.
  std::string TakeCalls() const {
    std::ifstream file(Calls());
    const std::string calls((std::istreambuf_iterator<char>(file)), {});
    fs::remove(Calls());
    return calls;
  }
  static std::string Content(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static constexpr const char* kInstall = "npm ci --ignore-scripts in console\n";
  static constexpr const char* kBuild = "npm run build in console\n";
};

TEST_F(DevNodeTest, RunPassesOnItsOptionsAndTheCommandInTheCallersFolder) {
  const std::string folder = (Folder() / "examples").string();
  const CommandResult result = RunCommand(
      {"sh", "-c",
       "cd " + folder + " && ../dev run --port 1883 --bus b --log l -- some command --port x"},
      Variables());
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_EQ("in " + folder + ": --port 1883 --bus b --log l " +
                (Folder() / "build/release").string() + " some command --port x\n",
            result.output);
}

TEST_F(DevNodeTest, ARestartBuildsNothing) {
  WriteProgram(Programs() / "cmake", "echo cmake >>" + Calls().string());
  const CommandResult result =
      RunCommand({(Folder() / "dev").string(), "run", "restart", "broker", "--kill"}, Variables());
  EXPECT_EQ("in " + Folder().string() + ": --restart broker --kill\n", result.output);
  EXPECT_EQ("", result.errors);
  EXPECT_EQ("", TakeCalls());
}

TEST_F(DevNodeTest, RunBuildsThePageWhenItsSourcesHaveChanged) {
  EXPECT_EQ(0, Dev("run").status);
  EXPECT_EQ(std::string(kInstall) + kBuild, TakeCalls());
  EXPECT_EQ("first", Content(Page()));
  LetTimePass();
  const CommandResult unchanged = Dev("run");
  EXPECT_EQ("", unchanged.errors);
  EXPECT_EQ("", TakeCalls());

  // A page is not made of its tests.
  std::ofstream(Folder() / "console/tests/main.test.ts") << "test";
  std::ofstream(Folder() / "console/tsconfig.json") << "{}";
  EXPECT_EQ(0, Dev("run").status);
  EXPECT_EQ("", TakeCalls());

  std::ofstream(Source()) << "second";
  EXPECT_EQ(0, Dev("run").status);
  EXPECT_EQ(kBuild, TakeCalls());
  EXPECT_EQ("second", Content(Page()));

  std::ofstream(Folder() / "console/src/other.ts") << "more";
  LetTimePass();
  fs::remove(Folder() / "console/src/other.ts");
  EXPECT_EQ(0, Dev("demo").status);
  EXPECT_EQ(kBuild, TakeCalls());

  LetTimePass();
  std::ofstream(Folder() / "console/package-lock.json") << "{ }";
  EXPECT_EQ(0, Dev("run").status);
  EXPECT_EQ(std::string(kInstall) + kBuild, TakeCalls());
}

TEST_F(DevNodeTest, APageThatCannotBeBuiltStopsNoRun) {
  std::ofstream(Source()) << "wrong";
  const CommandResult result = Dev("run");
  EXPECT_EQ(0, result.status);
  EXPECT_NE(std::string::npos, result.output.find("/build/release\n")) << result.output;
  const std::string log = (Folder() / "build/npm.log").string();
  EXPECT_NE(std::string::npos,
            result.errors.find("dev: that failed; " + log + " has the reason\n"));
  EXPECT_EQ("wrong\n", Content(log));
  // Tests need it.
  const CommandResult test = Dev("test");
  EXPECT_NE(0, test.status);
  EXPECT_NE(std::string::npos, test.errors.find("\nwrong\n")) << test.errors;
}

TEST_F(DevNodeTest, WithoutNodeTheChannelRunsAndARunSaysHowToGetThePage) {
  WriteNode("16.20.2");
  EXPECT_EQ("dev: the page is not built: that needs Node.js 18 or newer, and this is 16.20.2\n",
            Dev("run").errors);
  const auto variables = WithoutNode();
  for (const char* const command : {"run", "demo"}) {
    const CommandResult result = Dev(command, variables);
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("/build/release")) << result.output;
    EXPECT_EQ("dev: the page is not built: that needs Node.js 18 or newer and npm\n",
              result.errors);
  }
  EXPECT_EQ("", TakeCalls());
  // A page that came from elsewhere.
  fs::create_directory(Page().parent_path());
  std::ofstream(Page()) << "page";
  EXPECT_EQ("", Dev("run", variables).errors);
}

TEST_F(DevNodeTest, TestsHaveNodeAndTheFoldersOfNpm) {
  const CommandResult result = Dev("test");
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_EQ(std::string(kInstall) + "npm ci --ignore-scripts in examples\n" + kBuild, TakeCalls());
  LetTimePass();
  const CommandResult unchanged = Dev("test");
  EXPECT_EQ(0, unchanged.status) << unchanged.errors;
  EXPECT_EQ("", TakeCalls());
}

TEST_F(DevNodeTest, TestsInstallDebiansNodeWhenThereIsNone) {
  const CommandResult result = Dev("test", WithoutNode());
  const std::string calls = TakeCalls();
  EXPECT_NE(std::string::npos, calls.find("apt-get install")) << calls << result.errors;
  EXPECT_NE(std::string::npos, calls.find(" nodejs npm chromium\n")) << calls;
  // This apt-get installs nothing.
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos,
            result.errors.find("dev: the page and its tests need Node.js 18 or newer and npm\n"))
      << result.errors;
}

TEST_F(DevNodeTest, OnlyTheTestsOfAReleaseOnA64BitPcNeedNode) {
  const auto variables = WithoutNode();
  EXPECT_EQ(0, RunCommand({(Folder() / "dev").string(), "test", "asan"}, variables).status);
  WriteProgram(Programs() / "uname", "echo i686");
  EXPECT_EQ(0, Dev("test", variables).status);
  WriteProgram(Programs() / "uname", "echo x86_64");
  WriteProgram(Programs() / "dpkg", "echo i386");
  EXPECT_EQ(0, Dev("test", variables).status);
  EXPECT_EQ("", TakeCalls());
}

}  // namespace
