#ifndef TESTS_SYSTEM_MEMORYOF_H
#define TESTS_SYSTEM_MEMORYOF_H

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <string>

#include "HostProcess.h"
#include "Sanitized.h"

// What the kernel says of a running process's memory, in KiB: "VmRSS:" is what it has, "VmHWM:" the
// most that it ever had.
inline std::size_t MemoryOf(const HostProcess& process, const std::string& wanted) {
  std::ifstream status("/proc/" + std::to_string(process.Pid()) + "/status");
  std::string key;
  std::size_t kib = 0;
  while (status >> key) {
    if (key == wanted) status >> kib;
  }
  EXPECT_NE(0U, kib);
  return kib;
}

// Remembers what the process has now, and compares later. The host takes no more than this on top,
// as long as values have at most 1 MiB: it has several copies of a value at a time.
class MemoryLimit {
 public:
  static constexpr std::size_t kMaxMoreKib = std::size_t{64} * 1024;

  explicit MemoryLimit(const HostProcess& process)
      : m_process(process), m_before(MemoryOf(process, "VmRSS:")) {}
  std::size_t MoreKib() const {
    const std::size_t most = MemoryOf(m_process, "VmHWM:");
    return most > m_before ? most - m_before : 0;
  }
  void Expect() const {
    if (!kIsSanitized) {
      EXPECT_LE(MoreKib(), kMaxMoreKib);
    }
    ::testing::Test::RecordProperty("HostMoreKib", static_cast<int>(MoreKib()));
  }

 private:
  const HostProcess& m_process;
  std::size_t m_before;
};

#endif  // TESTS_SYSTEM_MEMORYOF_H
