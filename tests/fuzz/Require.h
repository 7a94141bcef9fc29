#ifndef TESTS_FUZZ_REQUIRE_H
#define TESTS_FUZZ_REQUIRE_H

#include <gtest/gtest-printers.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// What every fuzz target defines, under the name that the fuzzer knows: handles one input, and
// leaves everything as it found it. Always 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// How a fuzz target reports a finding: names the rule that was broken and ends the process. With a
// fuzzer, that keeps the input.
[[noreturn]] void Break(std::string_view rule, const std::string& details = {});

inline void Require(bool holds, std::string_view rule) {
  if (!holds) Break(rule);
}

// A value as a finding shows it.
template <typename Value>
std::string Show(const Value& value) {
  return testing::PrintToString(value);
}

template <typename Value>
void RequireEqual(const Value& actual, const Value& expected, std::string_view rule) {
  if (!(actual == expected)) {
    Break(rule, "expected " + Show(expected) + "\n   found " + Show(actual));
  }
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_REQUIRE_H
