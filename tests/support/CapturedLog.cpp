#include "CapturedLog.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <utility>

#include "dlog.h"

__attribute__((format(printf, 3, 4))) int dlog_print(int priority, const char* tag,
                                                     const char* format, ...) {
  std::array<char, 1024> message{};
  std::va_list arguments;
  va_start(arguments, format);
  // The analyzer does not see va_start. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  const int length = std::vsnprintf(message.data(), message.size(), format, arguments);
  va_end(arguments);
  try {
    CapturedLog::Get().Add({priority, tag, message.data()});
  } catch (const std::bad_alloc&) {  // the line is lost; the function is C's, and throws nothing
  }
  return length;
}

CapturedLog& CapturedLog::Get() {
  static CapturedLog log;
  return log;
}

void CapturedLog::Add(Line line) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.push_back(std::move(line));
}

std::vector<CapturedLog::Line> CapturedLog::Take() {
  std::lock_guard<std::mutex> lock(m_mutex);
  return std::exchange(m_lines, {});
}
