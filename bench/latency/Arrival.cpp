#include "Arrival.h"

#include "Environment.h"

namespace Latency {

void Arrival::Expect(const std::string& text) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_expected = text;
  m_time.reset();
}

void Arrival::Arrived(std::string_view text) {
  const Clock::time_point now = Clock::now();
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_time || text != m_expected) return;
  m_time = now;
  m_changed.notify_all();
}

Arrival::Clock::time_point Arrival::Wait() {
  std::unique_lock<std::mutex> lock(m_mutex);
  Require(m_changed.wait_for(lock, kLimit, [this] { return m_time.has_value(); }),
          "a message did not arrive");
  return *m_time;
}

}  // namespace Latency
