#include "values/TimeText.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace Lumo {

using std::chrono::milliseconds;

std::string ToText(std::chrono::system_clock::time_point time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const std::time_t calendarTime = std::chrono::system_clock::to_time_t(seconds);
  std::tm utc{};
  gmtime_r(&calendarTime, &utc);
  std::array<char, 32> text{};
  std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  const auto fraction = std::chrono::floor<milliseconds>(time - seconds);
  length += static_cast<std::size_t>(std::snprintf(text.data() + length, text.size() - length,
                                                   ".%03dZ", static_cast<int>(fraction.count())));
  return {text.data(), length};
}

}  // namespace Lumo
