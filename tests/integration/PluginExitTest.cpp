#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "BusTest.h"

extern char** environ;

namespace {

// Runs the host program of these tests, which loads the shared object on this process's bus and
// leaves main while a handler runs.
class PluginExitTest : public BusTest {
 protected:
  // The exit status as a shell gives it; kills a program that hangs.
  int RunHost(const char* scenario) {
    const char* const program = ADC_EXITING_HOST_FILE;
    std::string name(program);
    std::string argument(scenario);
    char* const arguments[] = {name.data(), argument.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, program, nullptr, nullptr, arguments, environ) != 0) return -1;
    int status = 0;
    const bool ended =
        platform.WaitUntil([pid, &status] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      ADD_FAILURE() << "the host hangs at its end";
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

TEST_F(PluginExitTest, AnExitWithoutDestroyPluginEndsCleanly) {
  EXPECT_EQ(0, RunHost("idle"));
}

TEST_F(PluginExitTest, AnExitWhileAHandlerEmitsASignalWaitsForTheHandler) {
  EXPECT_EQ(0, RunHost("signal"));
}

TEST_F(PluginExitTest, AnExitWhileAHandlerConvertsItsAnswerWaitsForTheHandler) {
  EXPECT_EQ(0, RunHost("answer"));
}

TEST_F(PluginExitTest, AnExitWhileCloudWritesArriveEndsCleanly) {
  EXPECT_EQ(0, RunHost("writes"));
}

TEST_F(PluginExitTest, AnExitWhileAnAppsCallRunsOnTheMainLoopsThreadWaitsForTheCall) {
  EXPECT_EQ(0, RunHost("call"));
}

TEST_F(PluginExitTest, AnExitAfterDestroyPluginWhileAHandlerRunsWaitsForTheHandler) {
  EXPECT_EQ(0, RunHost("destroyed"));
}

TEST_F(PluginExitTest, AHandlersExitIsChecked) {
  // The program's own verdict can fail: here it expects an answer that nobody sends.
  EXPECT_EQ(1, RunHost("no-answer"));
}

}  // namespace
