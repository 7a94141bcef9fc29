#ifndef TESTS_PLATFORMTEST_H
#define TESTS_PLATFORMTEST_H

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "FakePlatform.h"

// A fixture on a fresh fake platform. A test that leaves a violation of the platform's rules fails.
class PlatformTest : public ::testing::Test {
 protected:
  PlatformTest() { platform.Reset(); }

  void TearDown() override {
    platform.Drain();
    for (const std::string& violation : platform.TakeViolations()) ADD_FAILURE() << violation;
  }

  fake::Platform& platform = fake::Platform::Get();
};

// What a log line must be like, field by field. `message` is all that follows the prefix and its
// blanks, and the format must end with a line feed exactly when `message` does.
struct ExpectedLog {
  int priority;
  std::string tag;
  std::string file;
  std::string function;
  std::string message;
  int line = 0;             // 0: any positive line
  std::string format = "";  // of the message; "": any
};

bool Matches(const fake::LogLine& actual, ExpectedLog expected);
// Exactly one line of the platform's log matches.
::testing::AssertionResult LoggedOnce(const ExpectedLog& expected);
// The lines with the tag, by default all, are `expected`, in this order, and no others. "Left" has
// the source line of the "Entered" before it.
::testing::AssertionResult LoggedExactly(const std::vector<ExpectedLog>& expected,
                                         const std::string& tag = "");

// None of the operations, each on a thread of its own, returns while another thread holds the
// mutex, and all return afterwards. It checks for a moment only: it may miss a mistake, but does
// not report one that is not there.
::testing::AssertionResult AllWaitFor(std::recursive_mutex& mutex,
                                      const std::vector<std::function<void()>>& operations);

#endif  // TESTS_PLATFORMTEST_H
