// A stand-in for the platform log: one line per call on standard error.
//
// DLOG_LEVEL sets the lowest priority that is printed: a name ("debug", "info", ...), its letter or
// its number, or "none"; anything else means info. Errors are red and so on when standard error is
// a terminal and NO_COLOR is unset. Both variables are read once, at the first call.
// There is no lock, so that a child of fork() can always log: a line is one write.
//
// A control character within a line is shown as \n, \r or \x1b and the like, so that what somebody
// else's text holds can neither pass for a line of its own nor command the terminal. Tabs stay, and
// so do backslashes: it is for reading, not for reading back.

// What the header declares is what the library exports.
#pragma GCC visibility push(default)
#include "dlog.h"
#pragma GCC visibility pop

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>

namespace {

struct Priority {
  int number;
  const char* letter;
  const char* name;
  const char* colour;
};

constexpr std::array<Priority, 6> kPriorities{{{2, "V", "verbose", "\033[2m"},
                                               {3, "D", "debug", "\033[2m"},
                                               {4, "I", "info", ""},
                                               {5, "W", "warn", "\033[33m"},
                                               {6, "E", "error", "\033[31m"},
                                               {7, "F", "fatal", "\033[1;31m"}}};
constexpr Priority kUnknownPriority{0, "?", "", ""};
constexpr int kInfo = 4;
constexpr const char* kColourOff = "\033[0m";

// Enough for nearly every line; longer ones go to the heap.
constexpr std::size_t kUsualLineBytes = 1024;

struct Settings {
  bool silent = false;
  int lowest = kInfo;
  bool colourAllowed = true;
};

Settings readSettings() {
  Settings settings;
  settings.colourAllowed = std::getenv("NO_COLOR") == nullptr;
  const char* level = std::getenv("DLOG_LEVEL");
  if (level == nullptr) return settings;
  settings.silent = strcasecmp(level, "none") == 0;
  for (const Priority& priority : kPriorities) {
    if (strcasecmp(level, priority.name) == 0 || strcasecmp(level, priority.letter) == 0 ||
        level == std::to_string(priority.number)) {
      settings.lowest = priority.number;
    }
  }
  return settings;
}

const Priority& findPriority(int number) {
  const auto* found = std::find_if(kPriorities.begin(), kPriorities.end(),
                                   [number](const Priority& p) { return p.number == number; });
  return found == kPriorities.end() ? kUnknownPriority : *found;
}

using TimeText = std::array<char, 24>;

// "2026-03-01 12:34:56.789", local time. Digit by digit: strftime and snprintf would take a third
// of a line's time.
TimeText timeNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  TimeText text{"0000-00-00 00:00:00.000"};
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

// What a line consists of besides its message.
struct Frame {
  const char* colourOn;
  const char* colourOff;
  TimeText time;
  const char* letter;
  const char* tag;
  int callerErrno;  // what a %m in the format stands for
};

struct Composed {
  std::size_t length;    // what stands in the buffer
  std::size_t capacity;  // what the buffer needs for nothing to be cut off
};

// Writes a line that ends with one line feed; a message that does not fit is cut off.
// `capacity` is at least kUsualLineBytes.
__attribute__((format(printf, 4, 0))) Composed compose(char* buffer, std::size_t capacity,
                                                       const Frame& frame, const char* format,
                                                       std::va_list arguments) {
  const std::size_t tailLength = std::strlen(frame.colourOff) + 1;
  const std::size_t room = capacity - tailLength;  // for head, message and a NUL
  const auto toLength = [](int count) { return static_cast<std::size_t>(std::max(count, 0)); };

  const std::size_t headLength = toLength(std::snprintf(
      buffer, room, "%s%s %s %s: ", frame.colourOn, frame.time.data(), frame.letter, frame.tag));
  const std::size_t start = std::min(headLength, room - 1);

  errno = frame.callerErrno;
  int count = std::vsnprintf(buffer + start, room - start, format, arguments);
  if (count < 0) {
    count = std::snprintf(buffer + start, room - start, "(a message that cannot be formatted)");
  }
  const std::size_t length = headLength + toLength(count);

  std::size_t end = std::min(length, room - 1);
  while (end > start && buffer[end - 1] == '\n') --end;
  std::memcpy(buffer + end, frame.colourOff, tailLength - 1);
  buffer[end + tailLength - 1] = '\n';
  return {end + tailLength, length + 1 + tailLength};
}

// The number of bytes written, or -1.
int writeAll(const char* data, std::size_t size) {
  std::size_t written = 0;
  while (written < size) {
    const ssize_t count = write(STDERR_FILENO, data + written, size - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return -1;
    written += static_cast<std::size_t>(count);
  }
  return static_cast<int>(std::min<std::size_t>(written, INT_MAX));
}

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

void appendEscaped(std::string& out, char control) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(control);
  out.push_back('\\');
  if (control == '\n' || control == '\r') {
    out.push_back(control == '\n' ? 'n' : 'r');
  } else {
    out.push_back('x');
    out.push_back(kHexDigits[byte >> 4]);
    out.push_back(kHexDigits[byte & 0xF]);
  }
}

std::string escape(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const std::size_t clean = findControl(text);
    escaped.append(text.substr(0, clean));
    text.remove_prefix(clean);
    const std::size_t length = text.empty() ? 0 : controlLength(text);
    for (const char control : text.substr(0, length)) appendEscaped(escaped, control);
    text.remove_prefix(length);
  }
  return escaped;
}

// For want of memory.
void blotOut(char* text, std::size_t length) {
  std::size_t position = 0;
  while ((position += findControl({text + position, length - position})) < length) {
    std::fill_n(text + position, controlLength({text + position, length - position}), '?');
  }
}

// Writes what compose() has made, with its control characters escaped, but for its own: the colours
// and the line feed.
int writeLine(char* line, std::size_t length, const Frame& frame) {
  const std::size_t end = length - std::strlen(frame.colourOff) - 1;
  const std::size_t start = std::min(std::strlen(frame.colourOn), end);
  const std::string_view text(line + start, end - start);
  if (findControl(text) == text.size()) return writeAll(line, length);
  try {
    const std::string escaped =
        std::string(line, start) + escape(text) + std::string(line + end, length - end);
    return writeAll(escaped.data(), escaped.size());
  } catch (const std::exception&) {
    blotOut(line + start, text.size());
    return writeAll(line, length);
  }
}

__attribute__((format(printf, 2, 0))) int printLine(const Frame& frame, const char* format,
                                                    std::va_list arguments) {
  std::va_list argumentsAgain;
  va_copy(argumentsAgain, arguments);

  std::array<char, kUsualLineBytes> usual{};
  const Composed line = compose(usual.data(), usual.size(), frame, format, arguments);
  char* data = usual.data();
  std::size_t length = line.length;

  std::string large;
  if (line.capacity > usual.size()) {
    try {
      large.resize(line.capacity);
      length = compose(large.data(), large.size(), frame, format, argumentsAgain).length;
      data = large.data();
    } catch (const std::exception&) {
      // No memory: what fits into the usual buffer is better than nothing.
    }
  }
  va_end(argumentsAgain);
  return writeLine(data, length, frame);
}

}  // namespace

// Returns the bytes written, 0 for a line below the level, -1 when standard error takes no more.
__attribute__((format(printf, 3, 4))) int dlog_print(int priority, const char* tag,
                                                     const char* format, ...) {
  const int callerErrno = errno;
  static const Settings settings = readSettings();
  if (settings.silent || priority < settings.lowest) return 0;

  const Priority& kind = findPriority(priority);
  const bool coloured = kind.colour[0] != '\0' && settings.colourAllowed && isatty(STDERR_FILENO);
  const Frame frame{coloured ? kind.colour : "",
                    coloured ? kColourOff : "",
                    timeNow(),
                    kind.letter,
                    tag == nullptr ? "(null)" : tag,
                    callerErrno};

  std::va_list arguments;
  va_start(arguments, format);
  const int result = printLine(frame, format == nullptr ? "(null)" : format, arguments);
  va_end(arguments);
  errno = callerErrno;
  return result;
}
