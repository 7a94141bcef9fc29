#include "Samples.h"

#include <algorithm>

namespace Latency {

void Samples::Add(Microseconds time) {
  if (time > kLate) {
    ++m_late;
  } else {
    m_times.push_back(time.count());
  }
}

void Samples::Add(const Samples& others) {
  m_times.insert(m_times.end(), others.m_times.begin(), others.m_times.end());
  m_late += others.m_late;
}

std::optional<double> Samples::Percentile(std::size_t percent) const {
  if (m_times.empty()) return std::nullopt;
  std::vector<double> sorted = m_times;
  std::sort(sorted.begin(), sorted.end());
  return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

}  // namespace Latency
