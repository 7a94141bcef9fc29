#ifndef TESTS_FAULTYNEW_H
#define TESTS_FAULTYNEW_H

#include <cstddef>

// Lets `new` fail, in the whole process and in every shared object that it loads. A program that
// links this has `new` and `delete` replaced. One object at a time; those of malloc, and so GLib,
// which ends the process when there is no memory, are left alone.
class FaultyNew {
 public:
  enum class Duration { kOnce, kFromThenOn };

  // The allocation of this number fails, counted from 1 and over all threads, but for those with
  // SparedAllocations; with kFromThenOn all that follow it as well. 0: none.
  FaultyNew(std::size_t number, Duration duration);
  ~FaultyNew();
  FaultyNew(const FaultyNew&) = delete;
  FaultyNew& operator=(const FaultyNew&) = delete;

  static bool HasFailed();
  // What has been allocated unspared, freed or not, since the latest object was made.
  static std::size_t Allocations();
  static std::size_t AllocatedBytes();
  // Blocks that were allocated while there was an object, unspared, and have not been freed.
  static std::size_t LiveBlocks();
};

#endif  // TESTS_FAULTYNEW_H
