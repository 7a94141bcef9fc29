#ifndef TESTS_SPAREDALLOCATIONS_H
#define TESTS_SPAREDALLOCATIONS_H

#include <utility>

// While one exists, what this thread allocates is the test's own work: FaultyNew neither counts it
// nor lets it fail.
class SparedAllocations {
 public:
  SparedAllocations() { ++m_depth; }
  ~SparedAllocations() { --m_depth; }
  SparedAllocations(const SparedAllocations&) = delete;
  SparedAllocations& operator=(const SparedAllocations&) = delete;

  // While one exists, the code under test is called back from the test's own work.
  class Suspended {
   public:
    Suspended() : m_before(std::exchange(m_depth, 0)) {}
    ~Suspended() { m_depth = m_before; }
    Suspended(const Suspended&) = delete;
    Suspended& operator=(const Suspended&) = delete;

   private:
    unsigned m_before;
  };

  static bool OfThisThread() { return m_depth != 0; }

 private:
  inline static thread_local unsigned m_depth = 0;
};

#endif  // TESTS_SPAREDALLOCATIONS_H
