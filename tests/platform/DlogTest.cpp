// The log reads its environment once per process and writes to standard error, so every test lets
// a child do the logging.
#include "dlog.h"
#include "dlog_dropped.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "OutOfMemory.h"

namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kInfo = 4;
constexpr int kError = 6;
constexpr std::size_t kMaxLineBytes = 4096;

struct Outcome {
  int exitStatus;
  std::string printed;
};

void clearEnvironment() {
  unsetenv("DLOG_LEVEL");
  unsetenv("NO_COLOR");
  unsetenv("JOURNAL_STREAM");
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

// What is printed when the body logs; it must return 0, or what dlog_print returned.
std::string printedBy(const std::function<int()>& body) {
  const Outcome outcome = runOnPipe([&body] { return body() >= 0 ? 0 : 1; });
  EXPECT_EQ(outcome.exitStatus, 0);
  return outcome.printed;
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

// Says that standard error is the journal's, as far as its device and inode go.
void nameAsJournal(unsigned long further = 0) {
  struct stat file {};
  fstat(STDERR_FILENO, &file);
  setenv("JOURNAL_STREAM",
         (std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino + further)).c_str(), 1);
}

// A line that ends with the mark of one that was cut, and is as long as a line may be.
struct CutLine {
  explicit CutLine(const std::string& text) {
    EXPECT_LE(text.size(), kMaxLineBytes);
    EXPECT_GE(text.size(), kMaxLineBytes - 48);
    const std::string mark = "… [cut: ";
    const std::string message = messageOf(text);
    const std::size_t at = message.rfind(mark);
    if (at == std::string::npos || message.substr(message.size() - 8) != " bytes]\n") {
      ADD_FAILURE() << "not cut: " << text;
      return;
    }
    shown = message.substr(0, at);
    missing = std::stoul(message.substr(at + mark.size()));
  }

  std::string shown;        // of the message
  std::size_t missing = 0;  // as the mark says
};

// What is printed of this message, for which no memory can be had.
std::string printedOf(const std::string& message) {
  return printedBy([&] {
    const OutOfMemory failing;
    return dlog_print(kInfo, "T", "%s", message.c_str());
  });
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

TEST(DlogTest, LineIsTimeLetterTagAndMessageAndItsLengthIsReturned) {
  const Outcome outcome =
      runOnPipe([] { return dlog_print(kInfo, "TAG", "%s %d\n\n", "hello", 42); });
  EXPECT_THAT(outcome.printed,
              ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"
                                      "\\.[0-9]{3} I TAG: hello 42\n"));
  EXPECT_EQ(outcome.exitStatus, static_cast<int>(outcome.printed.size()));
}

TEST(DlogTest, ALineForTheJournalHasItsPriorityAndNoTimeOfItsOwn) {
  const std::string printed = printedBy([] {
    nameAsJournal();
    setenv("DLOG_LEVEL", "verbose", 1);
    for (int priority = 2; priority <= 7; ++priority) dlog_print(priority, "T", "x\n");
    dlog_print(8, "T", "x");
    return dlog_print(kError, "T", "first\n<0>second %s", std::string(10'000, 'x').c_str());
  });
  const std::vector<std::string> lines = linesOf(printed);
  ASSERT_EQ(lines.size(), 8U);
  EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.end() - 1),
              ElementsAre("<7>V T: x", "<7>D T: x", "<6>I T: x", "<4>W T: x", "<3>E T: x",
                          "<3>F T: x", "<6>? T: x"));
  // One line of it, so nobody else gives it a priority.
  EXPECT_THAT(lines.back(), ::testing::StartsWith("<3>E T: first\\n<0>second xxx"));
  EXPECT_THAT(lines.back(), EndsWith(" bytes]"));
}

TEST(DlogTest, AStreamThatIsNotTheJournalsHasTheTimeWhateverTheEnvironmentNames) {
  for (const char* const name : {"", "1", "1:", "x:y"}) {
    const std::string printed = printedBy([name] {
      setenv("JOURNAL_STREAM", name, 1);
      return dlog_print(kInfo, "T", "x");
    });
    EXPECT_THAT(printed, ::testing::StartsWith("20")) << name;
  }
  const std::string printed = printedBy([] {
    nameAsJournal(1);  // the file of another process
    return dlog_print(kInfo, "T", "x");
  });
  EXPECT_THAT(printed, ::testing::StartsWith("20"));
}

TEST(DlogTest, ALineForTheJournalKeepsErrnoAlsoWhenItIsTheFirstAndNotShown) {
  printedBy([] {
    setenv("JOURNAL_STREAM", "1:1", 1);
    setenv("DLOG_LEVEL", "none", 1);
    close(STDERR_FILENO);  // fstat() fails
    errno = ENOTEMPTY;
    return dlog_print(kError, "T", "x") == 0 && errno == ENOTEMPTY ? 0 : -1;
  });
}

TEST(DlogTest, ATagMayHaveALevelOfItsOwn) {
  const auto shown = [](const std::string& level) {
    const std::string printed = printedBy([&level] {
      setenv("DLOG_LEVEL", level.c_str(), 1);
      const OutOfMemory failing;
      for (const char* tag : {"A", "AB", "B"}) {
        for (const int priority : {3, 4, 5, 6, 7}) dlog_print(priority, tag, "x");
      }
      const char* nothing = nullptr;
      return dlog_print(kInfo, nothing, "x");
    });
    std::string text;
    for (const std::string& line : linesOf(printed)) {
      const std::string rest = line.substr(24);  // after the time
      text += rest.substr(2, rest.find(':') - 2) + rest.front() + " ";
    }
    return text;
  };
  EXPECT_EQ(shown("error,A=fatal"), "AF ABE ABF BE BF ");
  EXPECT_EQ(shown("none,B=6,A=W"), "AW AE AF BE BF ");
  EXPECT_EQ(shown("fatal,AB=none,AB=d"), "AF ABD ABI ABW ABE ABF BF ");
  // What cannot be read means info, as it does without a tag.
  EXPECT_EQ(shown("fatal,A=loud"), "AI AW AE AF ABF BF ");
  EXPECT_EQ(shown("fatal,A"), "AI AW AE AF ABF BF ");
  EXPECT_EQ(shown("fatal,,=,"), "AF ABF BF ");
  EXPECT_EQ(shown("fatal,1=d,2=d,3=d,4=d,5=d,6=d,7=d,8=d,A=d"), "AF ABF BF ");
  EXPECT_EQ(shown("fatal," + std::string(100, 'A') + "=d,B=e"), "AF ABF BE BF ");
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
  const std::string line = printedBy([] {
    setenv("TZ", "XXX-5:30", 1);
    tzset();
    return dlog_print(kInfo, "T", "x");
  });
  const std::string after = textOf(std::time(nullptr));
  const std::string printed = line.substr(0, before.size());
  EXPECT_LE(before, printed);
  EXPECT_LE(printed, after);
}

TEST(DlogTest, EndsWithOneLineFeedWhateverTheFormatEndsWith) {
  const std::string printed = printedBy([] {
    dlog_print(kInfo, "T", "none");
    dlog_print(kInfo, "T", "one\n");
    dlog_print(kInfo, "T", "three\n\n\n");
    dlog_print(kInfo, "T", "%s", "argument\n");
    return dlog_print(kInfo, "T", "\n");
  });
  std::vector<std::string> messages;
  for (const std::string& line : linesOf(printed)) messages.push_back(messageOf(line));
  EXPECT_THAT(messages, ElementsAre("none", "one", "three", "argument", ""));
  EXPECT_THAT(printed, EndsWith("\n"));
}

TEST(DlogTest, EscapesControlCharactersInsideALine) {
  const std::string others = "\ttab \\n \x7E \xC2\xA0 \xC3\x9B \xE2\x82\xAC \xFF\xC2";
  const std::vector<std::string> lines = linesOf(printedBy([&others] {
    dlog_print(kInfo, "T", "a\n\nb\n");
    dlog_print(kInfo, "T", "%s\n", "\n2026-01-01 00:00:00.000 E T: forged");
    dlog_print(kInfo, "T", "\033[2J\r\b\a\x7F\x01");
    dlog_print(kInfo, "T", "nul%cnul", '\0');
    dlog_print(kInfo, "T", "\xC2\x80 \xC2\x9B \xC2\x9F");  // C1 in UTF-8
    dlog_print(kInfo, "T", "%s\n", others.c_str());
    return dlog_print(kInfo, "T\nT", "x");
  }));
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(messageOf(lines[0]), R"(a\n\nb)");
  EXPECT_EQ(messageOf(lines[1]), R"(\n2026-01-01 00:00:00.000 E T: forged)");
  EXPECT_EQ(messageOf(lines[2]), R"(\x1b[2J\r\x08\x07\x7f\x01)");
  EXPECT_EQ(messageOf(lines[3]), R"(nul\x00nul)");
  EXPECT_EQ(messageOf(lines[4]), R"(\xc2\x80 \xc2\x9b \xc2\x9f)");
  EXPECT_EQ(messageOf(lines[5]), others);
  EXPECT_THAT(lines[6], EndsWith(R"( I T\nT: x)"));
}

TEST(DlogTest, CountsWhatIsShownOfControlCharactersTowardsTheLimit) {
  const std::string message = std::string(10'000, '\n') + "|";
  const CutLine line(printedOf(message));
  EXPECT_EQ(line.shown.size() / 2 + line.missing, message.size());
  EXPECT_THAT(line.shown, ::testing::MatchesRegex(R"((\\n)+)"));
}

TEST(DlogTest, AnUnknownPriorityIsMarked) {
  EXPECT_THAT(printedBy([] { return dlog_print(99, "T", "x"); }), HasSubstr(" ? T: x"));
}

TEST(DlogTest, LevelIsANameALetterOrANumberAndElseInfo) {
  const std::vector<std::pair<const char*, const char*>> letters = {
      {"verbose", "VDIWEF"}, {"debug", "DIWEF"}, {"info", "IWEF"}, {"warn", "WEF"}, {"error", "EF"},
      {"none", ""},          {"V", "VDIWEF"},    {"F", "F"},       {"3", "DIWEF"},  {"7", "F"},
      {nullptr, "IWEF"},     {"", "IWEF"},       {"x", "IWEF"},    {"33", "IWEF"},  {"-1", "IWEF"},
      {"debug ", "IWEF"},    {"8", "IWEF"}};
  for (const auto& [level, expected] : letters) {
    EXPECT_EQ(lettersPrintedAt(level), expected) << (level == nullptr ? "unset" : level);
  }
}

TEST(DlogTest, AFilteredLineIsNotFormatted) {
  const Outcome outcome = runOnPipe([] {
    // To format this would crash.
    const auto* nowhere = reinterpret_cast<const char*>(std::size_t{16});  // NOLINT
    return dlog_print(3, "T", "%s", nowhere);
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(outcome.printed, "");
}

TEST(DlogTest, ALineHas4KibibytesAtMostAndTellsHowManyAreMissing) {
  constexpr std::size_t kHeadBytes = 29;  // time, letter and tag
  std::vector<std::size_t> lengths{0, 100'000, 12'000'000};
  for (std::size_t size = kMaxLineBytes - 60; size < kMaxLineBytes + 10; ++size) {
    lengths.push_back(size - kHeadBytes);
  }
  for (const std::size_t length : lengths) {
    const std::string message(length, 'x');
    const std::string printed = printedOf(message);
    if (kHeadBytes + length + 1 <= kMaxLineBytes) {
      EXPECT_EQ(messageOf(printed), message + "\n");
    } else {
      const CutLine line(printed);
      EXPECT_EQ(line.shown, std::string(length - line.missing, 'x'));
    }
  }
}

TEST(DlogTest, CutsBetweenTheCharactersOfUtf8AndElseSomewhere) {
  for (const std::string character :
       {"\xC3\x9B", "\xE2\x82\xAC", "\xF0\x9F\x93\xBA", "\x80", "\xFF"}) {
    for (std::size_t before = 0; before < character.size(); ++before) {
      std::string message(before, 'x');
      while (message.size() < 5000) message += character;
      const CutLine line(printedOf(message));
      EXPECT_EQ((line.shown.size() - before) % character.size(), 0U);
      EXPECT_EQ(line.shown, message.substr(0, message.size() - line.missing));
    }
  }
}

TEST(DlogTest, PrintsALongTagWholeAndCutsALongerOne) {
  const std::string tag(3000, 't');
  const std::string longer(5000, 't');
  EXPECT_THAT(printedBy([&] { return dlog_print(kInfo, tag.c_str(), "x"); }),
              EndsWith(" I " + tag + ": x\n"));
  const std::string printed = printedBy([&] { return dlog_print(kInfo, longer.c_str(), "x"); });
  EXPECT_LE(printed.size(), kMaxLineBytes);
  EXPECT_THAT(printed, HasSubstr("ttt… [cut: "));
  EXPECT_THAT(printed, EndsWith(" bytes]\n"));
}

TEST(DlogTest, AcceptsANullTagAndFormat) {
  EXPECT_THAT(printedBy([] {
                const char* nothing = nullptr;
                return dlog_print(kInfo, nothing, nothing);  // NOLINT
              }),
              EndsWith(" I (null): (null)\n"));
}

TEST(DlogTest, PreservesErrnoAndPrintsIt) {
  const std::string printed = printedBy([] {
    errno = ENOTEMPTY;
    dlog_print(kError, "T", "%m");  // the check for a terminal has set another one
    return errno == ENOTEMPTY ? 0 : -1;
  });
  EXPECT_EQ(messageOf(printed), "Directory not empty\n");
}

TEST(DlogTest, FailsWithoutStandardError) {
  printedBy([] {
    close(STDERR_FILENO);
    errno = 0;
    return dlog_print(kInfo, "T", "x") < 0 && errno == 0 ? 0 : -1;
  });
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

TEST(DlogTest, ClosesTheColourOfALineThatIsCut) {
  const Outcome outcome =
      runOnTerminal([] { return dlog_print(kError, "T", "%s", std::string(10'000, 'x').c_str()); });
  EXPECT_THAT(outcome.printed, ::testing::StartsWith("\033[31m"));
  EXPECT_THAT(outcome.printed, EndsWith(" bytes]\033[0m\r\n"));
  EXPECT_LE(outcome.printed.size(), kMaxLineBytes + 1);  // the terminal adds the \r
}

TEST(DlogTest, DoesNotColourOnAPipeNorOnATerminalWithNoColor) {
  const Outcome outcome = runOnTerminal([] {
    setenv("NO_COLOR", "1", 1);
    return dlog_print(kError, "T", "red");
  });
  const std::string printed = printedBy([] { return dlog_print(kError, "T", "red"); });
  EXPECT_THAT(outcome.printed, EndsWith("E T: red\r\n"));
  EXPECT_THAT(printed, EndsWith("E T: red\n"));
  EXPECT_THAT(outcome.printed + printed, Not(HasSubstr("\033")));
}

TEST(DlogTest, WritesEachLineAtOnce) {
  // A write to this socket is a packet.
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
  ChildProcess child([&] {
    clearEnvironment();
    dup2(ends[1], STDERR_FILENO);
    dlog_print(kInfo, "T", "first\n");
    dlog_print(kInfo, "T", "%s", std::string(10'000, 'x').c_str());
    return 0;
  });
  close(ends[1]);
  std::vector<std::string> packets;
  std::vector<char> packet(20'000);
  for (ssize_t count = 0; (count = recv(ends[0], packet.data(), packet.size(), 0)) > 0;) {
    packets.emplace_back(packet.data(), static_cast<std::size_t>(count));
  }
  close(ends[0]);
  EXPECT_EQ(child.Wait(), 0);
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_EQ(messageOf(packets[0]), "first\n");
  EXPECT_THAT(packets[1], EndsWith(" bytes]\n"));
}

// Two ends of something that takes only so much while nobody reads the first.
struct Stuck {
  const char* name;
  std::function<void(std::array<int, 2>&)> open;

  friend void PrintTo(const Stuck& stuck, std::ostream* out) { *out << stuck.name; }
};

class DlogStuckTest : public ::testing::TestWithParam<Stuck> {
 protected:
  DlogStuckTest() { GetParam().open(m_ends); }

  // Runs the body in a child whose standard error nobody reads until it calls the function that it
  // is given, which gives what has been written by then.
  using ReadNow = std::function<std::string()>;
  int Run(const std::function<int(const ReadNow&)>& body) {
    ChildProcess child([&] {
      clearEnvironment();
      dup2(m_ends[1], STDERR_FILENO);
      fcntl(m_ends[0], F_SETFL, O_NONBLOCK);
      return body([this] {
        std::string text;
        // A terminal hands on what it holds in its own time.
        for (pollfd end{m_ends[0], POLLIN, 0}; poll(&end, 1, 100) > 0;) {
          std::array<char, 65536> part{};
          const ssize_t count = read(m_ends[0], part.data(), part.size());
          if (count <= 0) break;
          text.append(part.data(), static_cast<std::size_t>(count));
        }
        return text;
      });
    });
    close(m_ends[0]);
    close(m_ends[1]);
    return child.Wait();
  }

  std::array<int, 2> m_ends{-1, -1};
};

std::string textOf(unsigned line) {
  return "line " + std::to_string(line) + " " + std::string(line % 700, 'x');
}

// Logs lines until nothing fits any more, not even a note about those that are missing.
struct Attempts {
  std::vector<unsigned> written;  // the numbers of the lines
  unsigned count = 0;

  bool Log() {
    const bool isWritten = dlog_print(kInfo, "T", "%s", textOf(count).c_str()) > 0;
    if (isWritten) written.push_back(count);
    ++count;
    return isWritten;
  }
  std::size_t Dropped() const { return count - written.size(); }
};
Attempts logUntilStuck() {
  constexpr unsigned kNotesInAPage = 100;
  Attempts attempts;
  for (unsigned failed = 0; failed < kNotesInAPage;) failed = attempts.Log() ? 0 : failed + 1;
  return attempts;
}

const std::string kNote = " W DLOG: ";

bool isNote(const std::string& line) {
  return line.find(kNote) != std::string::npos;
}

// How many lines are missing, as the notes say.
unsigned countDropped(const std::vector<std::string>& lines) {
  unsigned count = 0;
  for (const std::string& line : lines) {
    if (!isNote(line)) continue;
    const std::string note = line.substr(line.find(kNote) + kNote.size());
    if (note.find(" log lines were dropped") != note.find(' ')) return 0;
    count += static_cast<unsigned>(std::stoul(note));
  }
  return count;
}

// Each line that was written is there, whole and in order. Between them there may be parts of lines
// that were dropped.
bool areWhole(const std::vector<std::string>& lines, const Attempts& attempts) {
  std::size_t whole = 0;
  std::size_t parts = 0;
  for (const std::string& line : lines) {
    if (isNote(line)) continue;
    std::string message = messageOf(line);
    if (!message.empty() && message.back() == '\r') message.pop_back();
    const bool isNext =
        whole < attempts.written.size() && message == textOf(attempts.written[whole]);
    ++(isNext ? whole : parts);
  }
  return whole == attempts.written.size() && parts <= attempts.Dropped();
}

TEST_P(DlogStuckTest, DropsLinesWhileNobodyReadsAndTellsHowManyAfterwards) {
  const int status = Run([](const ReadNow& readNow) {
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    Attempts attempts = logUntilStuck();
    if (fcntl(STDERR_FILENO, F_GETFL) != flags) return 1;  // other processes share them
    constexpr unsigned kFurther = 1000;
    const auto begin = std::chrono::steady_clock::now();
    // The kernel moves what a TCP connection holds, in its own time, which makes room for some.
    while (attempts.Dropped() < kFurther) attempts.Log();
    // A wait for each would take 10 s.
    if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(5)) return 3;

    const std::vector<std::string> before = linesOf(readNow());
    if (!areWhole(before, attempts)) return 4;
    if (dlog_print(kInfo, "T", "goes on") <= 0) return 5;
    const std::vector<std::string> after = linesOf(readNow());
    // What ends a line that was written in part may come first.
    if (after.size() < 2 || after.size() > 3 || !isNote(after[after.size() - 2])) return 6;
    if (messageOf(after.back()).find("goes on") != 0) return 7;
    if (countDropped(before) + countDropped(after) != attempts.Dropped()) return 8;
    return dlog_print(kInfo, "T", "further") > 0 && linesOf(readNow()).size() == 1 ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
}

void openPipe(std::array<int, 2>& ends) {
  EXPECT_EQ(pipe(ends.data()), 0);
}

void openSocket(std::array<int, 2>& ends) {
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
}

// A write to it takes what there is room for.
void openTcp(std::array<int, 2>& ends) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  ends[1] = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_TRUE(bind(listener, generic, size) == 0 && listen(listener, 1) == 0 &&
              getsockname(listener, generic, &size) == 0 && connect(ends[1], generic, size) == 0);
  ends[0] = accept(listener, nullptr, nullptr);
  close(listener);
}

void openTerminal(std::array<int, 2>& ends) {
  EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DlogStuckTest,
                         ::testing::Values(Stuck{"Pipe", openPipe}, Stuck{"Socket", openSocket},
                                           Stuck{"TcpConnection", openTcp},
                                           Stuck{"Terminal", openTerminal}),
                         [](const ::testing::TestParamInfo<Stuck>& stuck) {
                           return stuck.param.name;
                         });

TEST(DlogTest, DropsLinesWhileATerminalIsStopped) {
  std::array<int, 2> ends{};
  openTerminal(ends);
  const Outcome outcome = runWith(ends[0], ends[1], [] {
    tcflow(STDERR_FILENO, TCOOFF);
    if (dlog_print(kInfo, "T", "stopped") != -1) return 1;
    tcflow(STDERR_FILENO, TCOON);
    return dlog_print(kInfo, "T", "goes on") > 0 ? 0 : 2;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.printed, HasSubstr(" 1 log lines were dropped"));
  EXPECT_THAT(outcome.printed, EndsWith(" I T: goes on\r\n"));
}

TEST(DlogTest, ADiskThatIsFullStopsNobodyAndIsToldAfterwards) {
  const Outcome outcome = runOnPipe([] {
    const int before = dup(STDERR_FILENO);
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDERR_FILENO);
    for (int i = 0; i < 3; ++i) {
      if (dlog_print(kInfo, "T", "full") != -1) return 1;
    }
    dup2(before, STDERR_FILENO);
    if (dlog_print(kInfo, "T", "goes on") <= 0) return 2;
    // They stay counted when they have been told.
    return dlog_dropped_lines() == 3 ? 0 : 3;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
  const std::vector<std::string> lines = linesOf(outcome.printed);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], EndsWith(" W DLOG: 3 log lines were dropped"));
  EXPECT_EQ(messageOf(lines[1]), "goes on");
}

// A file that takes only a part of a line, as on a disk that is full.
TEST(DlogTest, EndsALineThatWasWrittenInPartBeforeTheNextOne) {
  const Outcome outcome = runOnPipe([] {
    const int file = memfd_create("log", 0);
    dup2(file, STDERR_FILENO);
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small{50, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    if (dlog_print(kInfo, "T", "too long for what is left") != -1) return 1;
    setrlimit(RLIMIT_FSIZE, &limit);
    if (dlog_print(kInfo, "T", "goes on") <= 0) return 2;
    lseek(file, 0, SEEK_SET);
    const std::vector<std::string> lines = linesOf(ReadToEnd(file));
    if (lines.size() != 3 || messageOf(lines[0]) != "too long for what is ") {
      return 3;
    }
    const bool isTold = lines[1].find(" W DLOG: 1 log lines were dropped") != std::string::npos;
    return isTold && messageOf(lines[2]) == "goes on" ? 0 : 4;
  });
  EXPECT_EQ(outcome.exitStatus, 0);
}

// The threads log lines that are longer than a pipe; the reader is another process, and reads all
// the time. Lines that it is too slow for are written again.
TEST(DlogTest, LinesOfSeveralThreadsForAReaderThatIsOnlySlowStayWholeAndInOrder) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kLines = 1000;
  const std::string end(200, 'x');
  const std::string printed = printedBy([&end] {
    std::vector<std::thread> threads(kThreads);
    for (std::size_t i = 0; i < kThreads; ++i) {
      threads[i] = std::thread([i, &end] {
        for (std::size_t line = 0; line < kLines; ++line) {
          while (dlog_print(kInfo, "T", "%zu %zu %s\n", i, line, end.c_str()) < 0) usleep(1000);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    return 0;
  });
  std::array<std::size_t, kThreads> next{};
  for (const std::string& line : linesOf(printed)) {
    if (isNote(line)) continue;
    const std::size_t thread = std::stoul(messageOf(line));
    ASSERT_LT(thread, kThreads) << line;
    const std::string number = std::to_string(next.at(thread)++);
    ASSERT_EQ(messageOf(line), std::to_string(thread) + " " + number + " " + end);
  }
  EXPECT_THAT(next, ::testing::Each(kLines));
}

}  // namespace
