#include "PlatformTest.h"

#include <chrono>
#include <future>
#include <ostream>
#include <utility>

namespace {

bool isFrame(const std::string& message) {
  return message == "> Entered\n" || message == "> Left\n";
}

std::string prefixOf(const fake::LogLine& line, const std::string& message) {
  return line.file + " : " + line.function + "(" + std::to_string(line.line) + ")" +
         (isFrame(message) ? " " : "  ");
}

}  // namespace

::testing::AssertionResult Matches(const fake::LogLine& actual, const ExpectedLog& expected) {
  const std::string text = prefixOf(actual, expected.message) + expected.message;
  const bool same = actual.priority == expected.priority && actual.tag == expected.tag &&
                    actual.file == expected.file && actual.function == expected.function &&
                    (expected.line == 0 ? actual.line > 0 : actual.line == expected.line) &&
                    actual.text == text;
  if (same) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "logged " << actual.priority << " " << actual.tag << " \"" << actual.text
         << "\"\ninstead of " << expected.priority << " " << expected.tag << " \"" << expected.file
         << " : " << expected.function << "(" << expected.line << ") " << expected.message << "\"";
}

::testing::AssertionResult LoggedOnce(const ExpectedLog& expected) {
  std::size_t count = 0;
  std::string all;
  for (const fake::LogLine& line : fake::Platform::Get().Logs()) {
    if (Matches(line, expected)) ++count;
    all += "\n  " + std::to_string(line.priority) + " " + line.tag + " " + line.text;
  }
  if (count == 1) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << count << " lines like " << expected.priority << " " << expected.tag << " "
         << expected.file << " : " << expected.function << "(" << expected.line << ") "
         << expected.message << "\nin" << all;
}

::testing::AssertionResult LoggedExactly(const std::string& tag,
                                         const std::vector<ExpectedLog>& expected) {
  std::vector<fake::LogLine> lines;
  for (fake::LogLine& line : fake::Platform::Get().Logs()) {
    if (line.tag == tag) lines.push_back(std::move(line));
  }
  for (std::size_t i = 0; i < lines.size() && i < expected.size(); ++i) {
    const auto same = Matches(lines[i], expected[i]);
    if (!same) return ::testing::AssertionFailure() << "line " << i << ": " << same.message();
  }
  if (lines.size() < expected.size()) {
    return ::testing::AssertionFailure() << "not logged: " << expected[lines.size()].message;
  }
  if (lines.size() > expected.size()) {
    return ::testing::AssertionFailure() << "logged besides: " << lines[expected.size()].text;
  }
  return ::testing::AssertionSuccess();
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
