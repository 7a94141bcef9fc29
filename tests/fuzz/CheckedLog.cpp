// The platform log of a fuzz target: every line is formatted, so that a wrong argument is seen, and
// goes nowhere.
#include <array>
#include <cstdarg>
#include <cstdio>

#include "Require.h"
#include "dlog.h"

extern "C" [[gnu::format(printf, 3, 4)]] int dlog_print(int /*priority*/, const char* /*tag*/,
                                                        const char* format, ...) {
  std::array<char, 2048> line{};
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  fuzz::Require(length > 0, "a log line can be formatted");
  return 0;
}
