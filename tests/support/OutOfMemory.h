#ifndef TESTS_SUPPORT_OUTOFMEMORY_H
#define TESTS_SUPPORT_OUTOFMEMORY_H

// While one exists, every `new` of the process fails, those of shared libraries included.
class OutOfMemory {
 public:
  OutOfMemory();
  ~OutOfMemory();
  OutOfMemory(const OutOfMemory&) = delete;
  OutOfMemory& operator=(const OutOfMemory&) = delete;
};

#endif  // TESTS_SUPPORT_OUTOFMEMORY_H
