// The log reads its environment once per process and writes to standard error, so every test lets
// a child do the logging.
#include "dlog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "OutOfMemory.h"

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int kInfo = 4;
constexpr int kError = 6;

struct Outcome {
  int exitStatus;
  std::string printed;
};

void clearEnvironment() {
  unsetenv("DLOG_LEVEL");
  unsetenv("NO_COLOR");
}

// Runs the body in a child whose standard error is the second descriptor and reads the first one.
Outcome runWith(int readEnd, int writeEnd, const std::function<int()>& body) {
  ChildProcess child([&] {
    clearEnvironment();
    dup2(writeEnd, STDERR_FILENO);
    close(writeEnd);
    close(readEnd);
    return body();
  });
  close(writeEnd);
  std::string printed = ReadToEnd(readEnd);
  close(readEnd);
  return {child.Wait(), std::move(printed)};
}

Outcome runOnPipe(const std::function<int()>& body) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe(ends.data()), 0);
  return runWith(ends[0], ends[1], body);
}

Outcome runOnTerminal(const std::function<int()>& body) {
  int master = -1;
  int slave = -1;
  EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  return runWith(master, slave, body);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// What stands behind the time, the letter and the tag "T".
std::string messageOf(const std::string& line) {
  const std::size_t start = line.find(" T: ");
  return start == std::string::npos ? "not a line: " + line : line.substr(start + 4);
}

// The letters of the priorities 2 to 7 that get through at a level; null leaves it unset.
std::string lettersPrintedAt(const char* level) {
  const Outcome outcome = runOnPipe([level] {
    if (level != nullptr) setenv("DLOG_LEVEL", level, 1);
    for (int priority = 2; priority <= 7; ++priority) dlog_print(priority, "T", "x");
    return 0;
  });
  std::string letters;
  for (const std::string& line : linesOf(outcome.printed))
    letters += line.at(line.find(" T: ") - 1);
  return letters;
}

TEST(DlogTest, LineIsTimeLetterTagAndMessage) {
  const Outcome outcome = runOnPipe([] { return dlog_print(kInfo, "TAG", "%s %d", "hello", 42); });
  EXPECT_THAT(outcome.printed,
              ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
                                      "\\.[0-9]{3} I TAG: hello 42\n"));
}

TEST(DlogTest, ReturnsTheNumberOfBytesWritten) {
  const Outcome outcome = runOnPipe([] { return dlog_print(kInfo, "T", "hello\n\n"); });
  EXPECT_EQ(outcome.exitStatus, static_cast<int>(outcome.printed.size()));
}

TEST(DlogTest, TimeIsLocal) {
  constexpr int kEastOfGreenwichSeconds = (5 * 60 + 30) * 60;
  const auto textOf = [](std::time_t time) {
    time += kEastOfGreenwichSeconds;
    std::tm parts{};
    gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    return std::string(text.data(), std::strftime(text.data(), text.size(), "%F %T", &parts));
  };
  const std::string before = textOf(std::time(nullptr));
  const Outcome outcome = runOnPipe([] {
    setenv("TZ", "XXX-5:30", 1);
    tzset();
    return dlog_print(kInfo, "T", "x") > 0 ? 0 : 1;
  });
  const std::string after = textOf(std::time(nullptr));
  const std::string printed = outcome.printed.substr(0, before.size());
  EXPECT_LE(before, printed);
  EXPECT_LE(printed, after);
}

TEST(DlogTest, EndsWithOneLineFeedWhateverTheFormatEndsWith) {
  const Outcome outcome = runOnPipe([] {
    dlog_print(kInfo, "T", "none");
    dlog_print(kInfo, "T", "one\n");
    dlog_print(kInfo, "T", "three\n\n\n");
    dlog_print(kInfo, "T", "%s", "argument\n");
    dlog_print(kInfo, "T", "\n");
    return 0;
  });
  std::vector<std::string> messages;
  for (const std::string& line : linesOf(outcome.printed)) messages.push_back(messageOf(line));
  EXPECT_THAT(messages, ElementsAre("none", "one", "three", "argument", ""));
  EXPECT_THAT(outcome.printed, EndsWith("\n"));
}

TEST(DlogTest, EscapesControlCharactersInsideALine) {
  const Outcome outcome = runOnPipe([] {
    dlog_print(kInfo, "T", "a\n\nb\n");
    dlog_print(kInfo, "T", "%s\n", "\n2026-01-01 00:00:00.000 E T: forged");
    dlog_print(kInfo, "T", "\033[2J\r\b\a\x7F\x01");
    dlog_print(kInfo, "T", "nul%cnul", '\0');
    dlog_print(kInfo, "T", "\xC2\x80 \xC2\x9B \xC2\x9F");  // C1 in UTF-8
    dlog_print(kInfo, "T\nT", "x");
    return 0;
  });
  const std::vector<std::string> lines = linesOf(outcome.printed);
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(messageOf(lines[0]), R"(a\n\nb)");
  EXPECT_EQ(messageOf(lines[1]), R"(\n2026-01-01 00:00:00.000 E T: forged)");
  EXPECT_EQ(messageOf(lines[2]), R"(\x1b[2J\r\x08\x07\x7f\x01)");
  EXPECT_EQ(messageOf(lines[3]), R"(nul\x00nul)");
  EXPECT_EQ(messageOf(lines[4]), R"(\xc2\x80 \xc2\x9b \xc2\x9f)");
  EXPECT_THAT(lines[5], EndsWith(R"( I T\nT: x)"));
}

TEST(DlogTest, LeavesTabsBackslashesAndOtherTextAsTheyAre) {
  const std::string text = "\ttab \\n \x7E \xC2\xA0 \xC3\x9B \xE2\x82\xAC \xFF\xC2";
  const Outcome outcome = runOnPipe([&] { return dlog_print(kInfo, "T", "%s\n", text.c_str()); });
  EXPECT_EQ(messageOf(outcome.printed), text + "\n");
}

TEST(DlogTest, EscapesLongMessagesWhole) {
  const std::string message(10'000, '\n');
  const Outcome outcome = runOnPipe([&] { return dlog_print(kInfo, "T", "%s|", message.c_str()); });
  std::string expected;
  for (std::size_t i = 0; i < message.size(); ++i) expected += R"(\n)";
  EXPECT_EQ(messageOf(outcome.printed), expected + "|\n");
}

TEST(DlogTest, BlotsControlCharactersOutWhenMemoryRunsOut) {
  const Outcome outcome = runOnPipe([] {
    const OutOfMemory failing;
    return dlog_print(kInfo, "T", "a\nb\033c\xC2\x9B \te\n") > 0 ? 0 : 1;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(messageOf(outcome.printed), "a?b?c?? \te\n");
}

TEST(DlogTest, EveryPriorityHasItsLetter) {
  EXPECT_EQ(lettersPrintedAt("verbose"), "VDIWEF");
}

TEST(DlogTest, AnUnknownPriorityIsMarked) {
  const Outcome outcome = runOnPipe([] { return dlog_print(99, "T", "x"); });
  EXPECT_THAT(outcome.printed, HasSubstr(" ? T: x"));
}

TEST(DlogTest, LevelIsANameALetterOrANumber) {
  EXPECT_EQ(lettersPrintedAt("debug"), "DIWEF");
  EXPECT_EQ(lettersPrintedAt("info"), "IWEF");
  EXPECT_EQ(lettersPrintedAt("warn"), "WEF");
  EXPECT_EQ(lettersPrintedAt("error"), "EF");
  EXPECT_EQ(lettersPrintedAt("none"), "");
  EXPECT_EQ(lettersPrintedAt("V"), "VDIWEF");
  EXPECT_EQ(lettersPrintedAt("F"), "F");
  EXPECT_EQ(lettersPrintedAt("3"), "DIWEF");
  EXPECT_EQ(lettersPrintedAt("7"), "F");
}

TEST(DlogTest, LevelIsInfoWhenUnsetOrWrong) {
  for (const char* level :
       {static_cast<const char*>(nullptr), "", "x", "33", "-1", "debug ", "8"}) {
    EXPECT_EQ(lettersPrintedAt(level), "IWEF") << (level == nullptr ? "unset" : level);
  }
}

TEST(DlogTest, AFilteredLineIsNotFormatted) {
  const Outcome outcome = runOnPipe([] {
    // To format this would crash.
    const auto* nowhere = reinterpret_cast<const char*>(std::size_t{16});  // NOLINT
    return dlog_print(3, "T", "%s", nowhere);
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.printed, IsEmpty());
}

TEST(DlogTest, PrintsMessagesOfAnyLengthWhole) {
  std::vector<std::size_t> lengths{0, 100'000};
  for (std::size_t length = 950; length < 1050; ++length) lengths.push_back(length);
  const Outcome outcome = runOnPipe([&] {
    for (const std::size_t length : lengths) {
      dlog_print(kInfo, "T", "%s|%zu\n", std::string(length, 'x').c_str(), length);
    }
    return 0;
  });
  const std::vector<std::string> lines = linesOf(outcome.printed);
  ASSERT_EQ(lines.size(), lengths.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(messageOf(lines[i]), std::string(lengths[i], 'x') + "|" + std::to_string(lengths[i]));
  }
}

TEST(DlogTest, PrintsALongTagWhole) {
  const std::string tag(3000, 't');
  const Outcome outcome =
      runOnPipe([&] { return dlog_print(kInfo, tag.c_str(), "x") > 0 ? 0 : 1; });
  EXPECT_THAT(outcome.printed, EndsWith(" I " + tag + ": x\n"));
}

TEST(DlogTest, CutsALongLineOffWhenMemoryRunsOut) {
  const Outcome outcome = runOnPipe([] {
    const std::string message(5000, 'x');
    const OutOfMemory failing;
    return dlog_print(kInfo, "T", "%s", message.c_str()) > 0 ? 0 : 1;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  const std::vector<std::string> lines = linesOf(outcome.printed);
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(messageOf(lines[0]), ::testing::MatchesRegex("x{900,1100}"));
  EXPECT_THAT(outcome.printed, EndsWith("\n"));
}

TEST(DlogTest, AcceptsANullTagAndFormat) {
  const Outcome outcome = runOnPipe([] {
    const char* nothing = nullptr;
    return dlog_print(kInfo, nothing, nothing) > 0 ? 0 : 1;  // NOLINT
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.printed, EndsWith(" I (null): (null)\n"));
}

TEST(DlogTest, PreservesErrnoAndPrintsIt) {
  const Outcome outcome = runOnPipe([] {
    errno = ENOTEMPTY;
    dlog_print(kError, "T", "%m");  // the look for a terminal has set another one
    return errno == ENOTEMPTY ? 0 : 1;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(messageOf(outcome.printed), "Directory not empty\n");
}

TEST(DlogTest, FailsWithoutStandardError) {
  const Outcome outcome = runOnPipe([] {
    close(STDERR_FILENO);
    errno = 0;
    return dlog_print(kInfo, "T", "x") < 0 && errno == 0 ? 0 : 1;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
}

TEST(DlogTest, ColoursOnATerminal) {
  const Outcome outcome = runOnTerminal([] {
    dlog_print(kError, "T", "red\n");
    dlog_print(kInfo, "T", "plain\n");
    dlog_print(kError, "T", "\033[32mgreen\n");
    return 0;
  });
  const std::vector<std::string> lines = linesOf(outcome.printed);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0], ::testing::StartsWith("\033[31m"));
  EXPECT_THAT(lines[0], EndsWith("red\033[0m\r"));
  EXPECT_THAT(lines[1], Not(HasSubstr("\033")));
  EXPECT_THAT(lines[2], ::testing::StartsWith("\033[31m2"));
  EXPECT_THAT(lines[2], EndsWith(" E T: \\x1b[32mgreen\033[0m\r"));
}

TEST(DlogTest, DoesNotColourOnATerminalWithNoColor) {
  const Outcome outcome = runOnTerminal([] {
    setenv("NO_COLOR", "1", 1);
    return dlog_print(kError, "T", "red") > 0 ? 0 : 1;
  });
  EXPECT_THAT(outcome.printed, EndsWith("E T: red\r\n"));
  EXPECT_THAT(outcome.printed, Not(HasSubstr("\033")));
}

TEST(DlogTest, DoesNotColourOnAPipe) {
  const Outcome outcome = runOnPipe([] { return dlog_print(kError, "T", "red") > 0 ? 0 : 1; });
  EXPECT_THAT(outcome.printed, EndsWith("E T: red\n"));
  EXPECT_THAT(outcome.printed, Not(HasSubstr("\033")));
}

TEST(DlogTest, WritesEachLineAtOnce) {
  // A write to this socket is a packet.
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
  const std::string longText(10'000, 'x');
  ChildProcess child([&] {
    clearEnvironment();
    dup2(ends[1], STDERR_FILENO);
    dlog_print(kInfo, "T", "first\n");
    dlog_print(kInfo, "T", "%s", longText.c_str());
    return 0;
  });
  close(ends[1]);
  std::vector<std::string> messages;
  std::vector<char> packet(20'000);
  for (ssize_t count = 0; (count = recv(ends[0], packet.data(), packet.size(), 0)) > 0;) {
    messages.push_back(messageOf({packet.data(), static_cast<std::size_t>(count)}));
  }
  close(ends[0]);
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_THAT(messages, ElementsAre("first\n", longText + "\n"));
}

int g_signalPipe = -1;

void tellSignal(int) {
  const char mark = 's';
  static_cast<void>(write(g_signalPipe, &mark, 1) == 1);
}

TEST(DlogTest, GoesOnAfterInterruptedAndShortWrites) {
  std::array<int, 2> log{};
  std::array<int, 2> signals{};
  ASSERT_EQ(pipe(log.data()), 0);
  ASSERT_EQ(pipe(signals.data()), 0);
  const std::string message(1'000'000, 'x');  // far more than a pipe holds

  ChildProcess child([&] {
    clearEnvironment();
    dup2(log[1], STDERR_FILENO);
    close(log[0]);
    close(log[1]);
    g_signalPipe = signals[1];
    struct sigaction action {};
    action.sa_handler = tellSignal;  // without SA_RESTART: writes are interrupted
    sigaction(SIGUSR1, &action, nullptr);
    const pid_t logger = getpid();
    const pid_t interrupter = fork();
    if (interrupter == 0) {
      close(STDERR_FILENO);
      close(signals[0]);
      while (getppid() == logger && kill(logger, SIGUSR1) == 0) usleep(2000);
      _exit(0);
    }
    const int result = dlog_print(kInfo, "T", "%s", message.c_str());
    kill(interrupter, SIGKILL);
    return result > static_cast<int>(message.size()) ? 0 : 1;
  });
  close(log[1]);
  close(signals[1]);
  // By now the pipe is full and the writer has been interrupted.
  std::array<char, 1> mark{};
  for (int i = 0; i < 50; ++i) ASSERT_EQ(read(signals[0], mark.data(), 1), 1);
  const std::string printed = ReadToEnd(log[0]);
  close(log[0]);
  EXPECT_EQ(child.Wait(), 0);
  close(signals[0]);
  EXPECT_EQ(messageOf(printed), message + "\n");
}

TEST(DlogTest, LinesOfSeveralThreadsStayWhole) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kLines = 500;
  const Outcome outcome = runOnPipe([] {
    std::vector<std::thread> threads(kThreads);
    for (std::thread& thread : threads) {
      thread = std::thread([] {
        for (std::size_t line = 0; line < kLines; ++line) dlog_print(kInfo, "T", "0123456789\n");
      });
    }
    for (std::thread& thread : threads) thread.join();
    return 0;
  });
  const std::vector<std::string> lines = linesOf(outcome.printed);
  EXPECT_EQ(lines.size(), kThreads * kLines);
  for (const std::string& line : lines) ASSERT_EQ(messageOf(line), "0123456789");
}

}  // namespace
