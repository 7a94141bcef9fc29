#ifndef TESTS_SYSTEM_PROCESSUSE_H
#define TESTS_SYSTEM_PROCESSUSE_H

#include <sys/resource.h>
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

inline constexpr rlim_t kPlentyOfDescriptors = 256;

// The process may open no file with this number or a higher one. Does nothing when it has ended.
void LimitDescriptors(pid_t process, rlim_t limit);
rlim_t LowestFreeDescriptor(pid_t process);

#endif  // TESTS_SYSTEM_PROCESSUSE_H
