#ifndef TESTS_SYSTEM_WAITUNTIL_H
#define TESTS_SYSTEM_WAITUNTIL_H

#include <chrono>
#include <functional>
#include <thread>

#include "HostProcess.h"

// Whether the condition holds before the patience has passed. It is asked again and again.
inline bool WaitUntil(const std::function<bool()>& condition) {
  constexpr std::chrono::milliseconds kInterval(2);
  const auto deadline = std::chrono::steady_clock::now() + HostProcess::kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kInterval);
  }
  return true;
}

#endif  // TESTS_SYSTEM_WAITUNTIL_H
