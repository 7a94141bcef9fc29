#ifndef TESTS_SYSTEM_MEMORYLIMIT_H
#define TESTS_SYSTEM_MEMORYLIMIT_H

#include <gtest/gtest.h>

#include <cstddef>

#include "HostProcess.h"
#include "ProcessUse.h"
#include "Sanitized.h"

// Remembers what the process has now, and compares later. The host takes no more than this on top,
// as long as values have at most 1 MiB: it has several copies of a value at a time.
class MemoryLimit {
 public:
  static constexpr std::size_t kMaxMoreKib = std::size_t{64} * 1024;

  explicit MemoryLimit(const HostProcess& process)
      : m_process(process), m_before(ProcessUse::Of(process.Pid()).residentKib) {}
  std::size_t MoreKib() const {
    const std::size_t most = ProcessUse::Of(m_process.Pid()).peakKib;
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

#endif  // TESTS_SYSTEM_MEMORYLIMIT_H
