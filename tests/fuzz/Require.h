#ifndef TESTS_FUZZ_REQUIRE_H
#define TESTS_FUZZ_REQUIRE_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace fuzz {

// How a fuzz target reports a finding: names the rule that was broken and ends the process. With a
// fuzzer, that keeps the input.
[[noreturn]] void Break(std::string_view rule, const std::string& details = {});

inline void Require(bool holds, std::string_view rule) {
  if (!holds) Break(rule);
}

// Values as a finding shows them.
std::string Show(std::string_view text);  // quoted; what is not printable as \xNN
inline std::string Show(const std::string& text) {
  return Show(std::string_view(text));
}
template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
std::string Show(Number number) {
  return std::to_string(number);
}
template <typename Value>
std::string Show(const std::optional<Value>& value) {
  return value ? Show(*value) : "nothing";
}
template <typename Value>
std::string Show(const std::vector<Value>& values) {
  std::string text = "[";
  for (const Value& value : values) text += (text.size() > 1 ? ", " : "") + Show(value);
  return text + "]";
}
template <typename Key, typename Value>
std::string Show(const std::map<Key, Value>& values) {
  std::string text = "{";
  for (const auto& [key, value] : values) {
    text += (text.size() > 1 ? ", " : "") + Show(key) + ": " + Show(value);
  }
  return text + "}";
}

template <typename Value>
void RequireEqual(const Value& actual, const Value& expected, std::string_view rule) {
  if (!(actual == expected)) {
    Break(rule, "expected " + Show(expected) + "\n   found " + Show(actual));
  }
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_REQUIRE_H
