#ifndef HOST_DOUBLINGWAIT_H
#define HOST_DOUBLINGWAIT_H

#include <algorithm>
#include <chrono>
#include <utility>

namespace QivoThing {

// The waits between attempts: each is twice the one before, up to the longest.
class DoublingWait {
 public:
  DoublingWait(std::chrono::milliseconds first, std::chrono::milliseconds longest)
      : m_first(first), m_longest(longest), m_next(first) {}

  std::chrono::milliseconds Next() {
    return std::exchange(m_next, std::min(m_next * 2, m_longest));
  }
  // The next wait is the first one again.
  void Reset() { m_next = m_first; }

 private:
  std::chrono::milliseconds m_first;
  std::chrono::milliseconds m_longest;
  std::chrono::milliseconds m_next;
};

}  // namespace QivoThing

#endif  // HOST_DOUBLINGWAIT_H
