#ifndef TESTS_SUPPORT_WAITUNTIL_H
#define TESTS_SUPPORT_WAITUNTIL_H

#include <chrono>
#include <functional>
#include <thread>

// Whether the condition holds within a time that is far more than enough. It is asked again and
// again.
inline bool WaitUntil(const std::function<bool()>& condition) {
  constexpr std::chrono::milliseconds kInterval(2);
  constexpr std::chrono::seconds kLimit(60);
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kInterval);
  }
  return true;
}

#endif  // TESTS_SUPPORT_WAITUNTIL_H
