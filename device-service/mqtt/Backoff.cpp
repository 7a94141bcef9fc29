#include "mqtt/Backoff.h"

#include <algorithm>

namespace Lumo::Mqtt {

std::chrono::milliseconds Backoff::Next() {
  using Milliseconds = std::chrono::milliseconds;
  std::uniform_int_distribution<Milliseconds::rep> spread(1, m_window.count());
  const Milliseconds wait(spread(m_random));
  m_window = std::min(kLastWindow, 2 * m_window);
  return wait;
}

}  // namespace Lumo::Mqtt
