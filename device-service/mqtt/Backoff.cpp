#include "mqtt/Backoff.h"

#include <algorithm>

namespace Lumo {

std::chrono::milliseconds Backoff::Next() {
  using Milliseconds = std::chrono::milliseconds;
  std::uniform_int_distribution<Milliseconds::rep> spread(0, m_base.count() / 4);
  const Milliseconds wait = std::min(kLongest, m_base + Milliseconds(spread(m_random)));
  m_base = std::min(kLongest, 2 * m_base);
  return wait;
}

}  // namespace Lumo
