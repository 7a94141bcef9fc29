#ifndef TESTS_SYSTEM_PROCESSUSE_H
#define TESTS_SYSTEM_PROCESSUSE_H

#include <sys/types.h>

#include <cstddef>

// What a process uses.
struct ProcessUse {
  // Throws std::runtime_error when there is no such process, or only what a dead one leaves.
  static ProcessUse Of(pid_t process);
  // Begins to take the peak anew.
  static void ResetPeak(pid_t process);

  std::size_t residentKib = 0;
  std::size_t peakKib = 0;  // of the resident memory
  std::size_t threads = 0;
  std::size_t descriptors = 0;
};

#endif  // TESTS_SYSTEM_PROCESSUSE_H
