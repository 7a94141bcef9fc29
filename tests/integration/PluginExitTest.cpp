#include <unistd.h>

#include "BusTest.h"
#include "Program.h"

namespace {

struct Exit {
  const char* rule;
  const char* scenario;
  int status;
};

class PluginExitTest : public BusTest, public ::testing::WithParamInterface<Exit> {};

// Runs the host program of these tests, which loads the shared object on this process's bus and
// leaves main while something runs.
TEST_P(PluginExitTest, TheHostLeavesMain) {
  Program host({ADC_EXITING_HOST_FILE, GetParam().scenario},
               Program::Streams{STDOUT_FILENO, STDERR_FILENO});
  ASSERT_TRUE(platform.WaitUntil([&host] { return host.HasEnded(); })) << "it hangs at its end";
  EXPECT_EQ(GetParam().status, host.Wait());
}

// The program's own verdict can fail, too: when it expects an answer that nobody sends.
INSTANTIATE_TEST_SUITE_P(
    Exits, PluginExitTest,
    ::testing::Values(Exit{"EndsCleanlyWithoutDestroyPlugin", "idle", 0},
                      Exit{"WaitsForAHandlerThatEmitsASignal", "signal", 0},
                      Exit{"WaitsForAHandlerThatConvertsItsAnswer", "answer", 0},
                      Exit{"EndsCleanlyWhileCloudWritesArrive", "writes", 0},
                      Exit{"WaitsForAnAppsCallOnTheMainLoopsThread", "call", 0},
                      Exit{"WaitsForAHandlerAfterDestroyPlugin", "destroyed", 0},
                      Exit{"FailsWhenAnAnswerIsMissing", "no-answer", 1}),
    [](const auto& exit) { return std::string(exit.param.rule); });

}  // namespace
