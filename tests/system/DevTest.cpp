#include <gtest/gtest.h>
#include <sys/types.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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
      {"setup now", "too many arguments for ./dev setup: now"},
      {"build bogus", "no preset named 'bogus'"},
      {"build i386-bogus", "no preset named 'i386-bogus'"},
      {"build release asan", "too many arguments for ./dev build: asan"},
      {"test bogus", "no preset named 'bogus'"},
      {"test release bogus", "'bogus' is no option of ctest"},
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

}  // namespace
