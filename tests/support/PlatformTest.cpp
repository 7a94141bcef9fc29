#include "PlatformTest.h"

#include <chrono>
#include <future>
#include <map>
#include <sstream>
#include <utility>

namespace {

const std::string kEntered = "> Entered\n";
const std::string kLeft = "> Left\n";

std::string toString(const ExpectedLog& expected) {
  const bool isFrame = expected.message == kEntered || expected.message == kLeft;
  return expected.file + " : " + expected.function + "(" + std::to_string(expected.line) + ")" +
         (isFrame ? " " : "  ") + expected.message;
}

// Fails with the log, and what it should be.
::testing::AssertionResult failure(const std::vector<ExpectedLog>& expected) {
  std::ostringstream text;
  for (const ExpectedLog& line : expected) {
    text << "\n  " << line.priority << " " << line.tag << " " << toString(line);
  }
  text << "\nis not what was logged:";
  for (const fake::LogLine& line : fake::Platform::Get().Logs()) {
    text << "\n  " << line.priority << " " << line.tag << " " << line.text << line.format;
  }
  return ::testing::AssertionFailure() << text.str();
}

}  // namespace

bool Matches(const fake::LogLine& actual, ExpectedLog expected) {
  if (expected.line == 0) expected.line = actual.line;
  return actual.line > 0 && actual.priority == expected.priority && actual.tag == expected.tag &&
         actual.file == expected.file && actual.function == expected.function &&
         actual.text == toString(expected) &&
         (expected.format.empty() || actual.format == "%s : %s(%d)  " + expected.format);
}

::testing::AssertionResult LoggedOnce(const ExpectedLog& expected) {
  std::size_t count = 0;
  for (const fake::LogLine& line : fake::Platform::Get().Logs()) {
    if (Matches(line, expected)) ++count;
  }
  if (count == 1) return ::testing::AssertionSuccess();
  return failure({expected}) << "\nthat is, once: " << count;
}

::testing::AssertionResult LoggedExactly(const std::vector<ExpectedLog>& expected,
                                         const std::string& tag) {
  std::size_t count = 0;
  std::map<std::string, int> entered;  // the lines of the functions' frames
  for (const fake::LogLine& line : fake::Platform::Get().Logs()) {
    if (!tag.empty() && line.tag != tag) continue;
    if (count == expected.size() || !Matches(line, expected[count])) return failure(expected);
    const std::string& message = expected[count++].message;
    if (message == kEntered) entered[line.function] = line.line;
    if (message != kLeft || entered[line.function] == line.line) continue;
    return failure(expected) << "\nas a frame has one line";
  }
  return count == expected.size() ? ::testing::AssertionSuccess() : failure(expected);
}

::testing::AssertionResult AllWaitFor(std::recursive_mutex& mutex,
                                      const std::vector<std::function<void()>>& operations) {
  constexpr std::chrono::milliseconds kMoment(20);
  std::vector<std::future<void>> ends;
  std::vector<std::size_t> early;
  {
    const std::lock_guard<std::recursive_mutex> lock(mutex);
    for (const auto& operation : operations) {
      std::promise<void> start;
      const std::future<void> started = start.get_future();
      ends.push_back(
          std::async(std::launch::async, [start = std::move(start), &operation]() mutable {
            start.set_value();
            operation();
          }));
      started.wait();
    }
    for (std::size_t i = 0; i < ends.size(); ++i) {
      if (ends[i].wait_for(kMoment) != std::future_status::timeout) early.push_back(i);
    }
  }
  for (std::size_t i = 0; i < ends.size(); ++i) {
    if (ends[i].wait_for(fake::kPatience) != std::future_status::ready) {
      return ::testing::AssertionFailure() << "operation " << i << " did not return";
    }
    ends[i].get();
  }
  if (early.empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "operation " << early.front() << " did not wait";
}
