// A stand-in for the platform log: one line per call on standard error.
//
// DLOG_LEVEL sets the lowest priority that is printed: a name ("debug", "info", ...), its letter or
// its number, or "none"; anything else means info. After a comma, TAG=LEVEL sets another one for a
// tag, for eight tags at most: "warn,NET=debug,UI=none". Lines have colours by priority when
// standard error is a terminal and NO_COLOR is unset. When standard error is the journal's
// (JOURNAL_STREAM), a line begins with its priority there, "<3>" to "<7>", instead of the time. All
// of that is read once, at the first call.
// A line is one write, of 4 KiB at most, and takes no lock but the C library's for the local time.
// A longer line ends with "… [cut: N bytes]". Nothing is allocated.
//
// A reader that has stopped, or a full disk, blocks nobody. A line that cannot be written within 10
// ms is dropped, and so is at once each one after it. The next line that can be written comes after
// one that says how many are missing.
//
// A control character within a line is shown as \n, \r, \x1b and the like, so that a foreign string
// can neither look like a line of its own nor command the terminal. Tabs and backslashes stay:
// lines are for people, not for programs.

// What the header declares is what the library exports.
#pragma GCC visibility push(default)
#include "dlog.h"
#include "dlog_dropped.h"
#pragma GCC visibility pop

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <string_view>

#include "JournalStream.h"
#include "StandardError.h"

namespace {

struct Priority {
  int number;
  const char* letter;
  const char* name;
  const char* colour;
  char journal;  // its digit in the journal
};

constexpr std::array<Priority, 6> kPriorities{{{2, "V", "verbose", "\033[2m", '7'},
                                               {3, "D", "debug", "\033[2m", '7'},
                                               {4, "I", "info", "", '6'},
                                               {5, "W", "warn", "\033[33m", '4'},
                                               {6, "E", "error", "\033[31m", '3'},
                                               {7, "F", "fatal", "\033[1;31m", '3'}}};
constexpr Priority kUnknownPriority{0, "?", "", "", '6'};
constexpr int kInfo = 4;
constexpr int kWarning = 5;
constexpr const char* kColourOff = "\033[0m";

constexpr int kNone = std::numeric_limits<int>::max();

// The level of one tag.
struct TagLevel {
  std::array<char, 64> tag{};
  int lowest = kInfo;
};

// Trivial to destroy: other threads may log while the process exits.
struct Settings {
  int lowest = kInfo;
  std::array<TagLevel, 8> tags{};
  std::size_t tagCount = 0;
  bool colourAllowed = true;
  bool isJournal = false;
};

bool isWord(std::string_view text, std::string_view word) {
  return text.size() == word.size() && strncasecmp(text.data(), word.data(), text.size()) == 0;
}

int levelOf(std::string_view text) {
  if (isWord(text, "none")) return kNone;
  for (const Priority& priority : kPriorities) {
    if (isWord(text, priority.name) || isWord(text, priority.letter) ||
        (text.size() == 1 && text.front() == '0' + priority.number)) {
      return priority.number;
    }
  }
  return kInfo;
}

// Removes the text up to the separator, and it, from the front of the rest.
std::string_view takePart(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return part;
}

void readLevels(std::string_view rest, Settings& settings) {
  settings.lowest = levelOf(takePart(rest, ','));
  while (!rest.empty() && settings.tagCount < settings.tags.size()) {
    std::string_view level = takePart(rest, ',');
    const std::string_view tag = takePart(level, '=');
    TagLevel& next = settings.tags.at(settings.tagCount);
    if (tag.size() >= next.tag.size()) continue;
    tag.copy(next.tag.data(), tag.size());
    next.lowest = levelOf(level);
    ++settings.tagCount;
  }
}

Settings readSettings() {
  const int callerErrno = errno;
  Settings settings;
  settings.colourAllowed = std::getenv("NO_COLOR") == nullptr;
  settings.isJournal = IsJournalStream(STDERR_FILENO);
  if (const char* const level = std::getenv("DLOG_LEVEL")) readLevels(level, settings);
  errno = callerErrno;
  return settings;
}

const Settings& theSettings() {
  static const Settings settings = readSettings();
  return settings;
}

bool isShown(int priority, const char* tag) {
  const Settings& settings = theSettings();
  int lowest = settings.lowest;
  for (std::size_t i = 0; i < settings.tagCount; ++i) {
    const TagLevel& level = settings.tags.at(i);
    if (tag != nullptr && std::strcmp(tag, level.tag.data()) == 0) lowest = level.lowest;
  }
  return priority >= lowest;
}

const Priority& findPriority(int number) {
  const auto* found = std::find_if(kPriorities.begin(), kPriorities.end(),
                                   [number](const Priority& p) { return p.number == number; });
  return found == kPriorities.end() ? kUnknownPriority : *found;
}

// What a line begins with.
using Start = std::array<char, 25>;

// "2026-03-01 12:34:56.789 ", local time. Digit by digit: strftime and snprintf would take a third
// of a line's time.
Start timeNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  Start text{"0000-00-00 00:00:00.000 "};
  const auto put = [&text](int number, std::size_t from, std::size_t to) {
    for (; to > from; number /= 10) text[--to] = static_cast<char>('0' + number % 10);
  };
  put(local.tm_year + 1900, 0, 4);
  put(local.tm_mon + 1, 5, 7);
  put(local.tm_mday, 8, 10);
  put(local.tm_hour, 11, 13);
  put(local.tm_min, 14, 16);
  put(local.tm_sec, 17, 19);
  put(static_cast<int>(now.tv_nsec / 1'000'000), 20, 23);
  return text;
}

// The parts of a line besides its message.
struct Frame {
  const char* colourOn;
  const char* colourOff;
  Start start;
  const char* letter;
  const char* tag;
  int callerErrno;  // what a %m in the format stands for
};

// The length in bytes of the control character that the text begins with: of ASCII, or in UTF-8 one
// of those that some terminals take for an escape sequence. 0 when it begins with none.
std::size_t controlLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x20 || first == 0x7F) return first == '\t' ? 0 : 1;
  if (first != 0xC2 || text.size() < 2) return 0;
  const auto second = static_cast<unsigned char>(text[1]);
  return second >= 0x80 && second < 0xA0 ? 2 : 0;
}

// Where the first control character is; the length of the text when there is none.
std::size_t findControl(std::string_view text) {
  const auto isPrintable = [](char character) { return character >= ' ' && character <= '~'; };
  for (std::size_t position = 0; position < text.size(); ++position) {
    if (isPrintable(text[position])) continue;
    if (controlLength(text.substr(position)) != 0) return position;
  }
  return text.size();
}

// The beginning of a text, as it is shown.
struct Shown {
  std::size_t taken;   // of the text
  std::size_t length;  // of what is shown
};

// Shows as much as fits; control characters are escaped, and shown whole or not at all.
Shown escape(std::string_view text, char* out, std::size_t room) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  Shown shown{0, 0};
  while (shown.taken < text.size()) {
    const std::size_t controls = controlLength(text.substr(shown.taken));
    const char first = text[shown.taken];
    const bool hasLetter = first == '\n' || first == '\r';
    const std::size_t needed = controls == 0 ? 1 : hasLetter ? 2 : 4 * controls;
    if (shown.length + needed > room) break;
    if (controls == 0) {
      out[shown.length++] = first;
    } else if (hasLetter) {
      out[shown.length++] = '\\';
      out[shown.length++] = first == '\n' ? 'n' : 'r';
    } else {
      for (const char control : text.substr(shown.taken, controls)) {
        const auto byte = static_cast<unsigned char>(control);
        out[shown.length++] = '\\';
        out[shown.length++] = 'x';
        out[shown.length++] = kHexDigits[byte >> 4];
        out[shown.length++] = kHexDigits[byte & 0xF];
      }
    }
    shown.taken += std::max<std::size_t>(controls, 1);
  }
  return shown;
}

// Removes a UTF-8 character that is shown only in part.
void dropPartialCharacter(std::string_view text, const char* out, Shown& shown) {
  constexpr int kMaxFurtherBytes = 3;
  const auto bitsOf = [](char character) { return static_cast<unsigned char>(character) & 0xC0; };
  for (int i = 0; i < kMaxFurtherBytes && shown.length > 0; ++i) {
    const bool isInside = shown.taken < text.size() && bitsOf(text[shown.taken]) == 0x80;
    if (!isInside || bitsOf(out[shown.length - 1]) < 0x80) return;
    --shown.taken;
    --shown.length;
  }
}

// Writes a message that does not fit into a line as it is; `text` is the beginning of its `size`
// bytes. Returns the length written, with a mark when something is missing.
std::size_t fit(std::string_view text, std::size_t size, char* out, std::size_t room) {
  constexpr std::size_t kMarkBytes = 48;  // at most, and a NUL
  const Shown whole = escape(text, out, room);
  if (whole.taken == size) return whole.length;
  Shown shown = escape(text, out, room - kMarkBytes);
  dropPartialCharacter(text, out, shown);
  const int mark =
      std::snprintf(out + shown.length, kMarkBytes, "\u2026 [cut: %zu bytes]", size - shown.taken);
  return shown.length + static_cast<std::size_t>(std::max(mark, 0));
}

using Line = std::array<char, kMaxLineBytes>;

// Composes a line that ends with one line feed, and returns its length.
__attribute__((format(printf, 3, 0))) std::size_t compose(Line& line, const Frame& frame,
                                                          const char* format,
                                                          std::va_list arguments) {
  const auto toLength = [](int count) { return static_cast<std::size_t>(std::max(count, 0)); };
  const std::size_t start = std::strlen(frame.colourOn);
  const std::size_t tailLength = std::strlen(frame.colourOff) + 1;
  char* const text = line.data() + start;
  const std::size_t room = line.size() - start - tailLength;

  const std::size_t headLength = toLength(
      std::snprintf(text, room + 1, "%s%s %s: ", frame.start.data(), frame.letter, frame.tag));
  const std::size_t head = std::min(headLength, room);
  errno = frame.callerErrno;
  int count = std::vsnprintf(text + head, room - head + 1, format, arguments);
  if (count < 0) {
    count = std::snprintf(text + head, room - head + 1, "(a message that cannot be formatted)");
  }
  std::size_t size = headLength + toLength(count);
  const bool isWhole = size <= room;
  while (isWhole && size > head && text[size - 1] == '\n') --size;

  const std::string_view composed(text, std::min(size, room));
  if (!isWhole || findControl(composed) != composed.size()) {
    const Line copy = line;
    size = fit({copy.data() + start, composed.size()}, size, text, room);
  }
  std::memcpy(line.data(), frame.colourOn, start);
  std::memcpy(text + size, frame.colourOff, tailLength - 1);
  text[size + tailLength - 1] = '\n';
  return start + size + tailLength;
}

// How many lines were dropped since the last one that was written.
std::atomic<unsigned> droppedLines{0};
// And in all.
std::atomic<unsigned long> allDroppedLines{0};

__attribute__((format(printf, 2, 0))) int printLine(const Frame& frame, const char* format,
                                                    std::va_list arguments) {
  Line line;  // NOLINT(cppcoreguidelines-pro-type-member-init): to fill it would take a while
  const std::size_t length = compose(line, frame, format, arguments);
  if (!WriteLineToStandardError({line.data(), length})) return -1;
  return static_cast<int>(length);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): what makes a line takes its arguments as C does
__attribute__((format(printf, 2, 3))) int printNote(const Frame& frame, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  const int result = printLine(frame, format, arguments);
  va_end(arguments);
  return result;
}

Frame makeFrame(const Priority& priority, const char* tag, int callerErrno) {
  const bool coloured =
      priority.colour[0] != '\0' && theSettings().colourAllowed && isatty(STDERR_FILENO);
  return {coloured ? priority.colour : "",
          coloured ? kColourOff : "",
          theSettings().isJournal ? Start{'<', priority.journal, '>'} : timeNow(),
          priority.letter,
          tag == nullptr ? "(null)" : tag,
          callerErrno};
}

// Logs how many lines are missing. False when that cannot be written.
bool printDropped() {
  const unsigned count = droppedLines.exchange(0);
  if (count == 0) return true;  // another thread logs it
  const Frame frame = makeFrame(findPriority(kWarning), "DLOG", 0);
  if (printNote(frame, "%u log lines were dropped", count) > 0) return true;
  droppedLines += count;
  return false;
}

}  // namespace

// Returns the bytes written, 0 for a line below the level, -1 for one that was dropped.
__attribute__((format(printf, 3, 4))) int dlog_print(int priority, const char* tag,
                                                     const char* format, ...) {
  const int callerErrno = errno;
  if (!isShown(priority, tag)) return 0;

  int result = -1;
  if (droppedLines == 0 || printDropped()) {
    std::va_list arguments;
    va_start(arguments, format);
    result = printLine(makeFrame(findPriority(priority), tag, callerErrno),
                       format == nullptr ? "(null)" : format, arguments);
    va_end(arguments);
  }
  if (result < 0) {
    ++droppedLines;
    ++allDroppedLines;
  }
  errno = callerErrno;
  return result;
}

unsigned long dlog_dropped_lines(void) {
  return allDroppedLines;
}
