// In place of the device service's own, which waits up to a second: an input has no such time.
#include <chrono>
#include <random>

#include "mqtt/Backoff.h"

namespace Lumo::Mqtt {

std::chrono::milliseconds Backoff::Next() {
  std::uniform_int_distribution<int> spread(0, 1);
  m_window = kFirstWindow;
  return std::chrono::milliseconds(spread(m_random));
}

}  // namespace Lumo::Mqtt
