#ifndef BENCH_LATENCY_SAMPLES_H
#define BENCH_LATENCY_SAMPLES_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

namespace Latency {

// Times of one kind, in microseconds. Those that are late are counted and nothing else.
class Samples {
 public:
  using Microseconds = std::chrono::duration<double, std::micro>;

  // What takes longer is late: see ChannelLatency.cpp.
  static constexpr std::chrono::milliseconds kLate{500};

  void Add(Microseconds time);
  void Add(const Samples& others);

  // The smallest time that so many percent are not above; nothing when there is none.
  std::optional<double> Percentile(std::size_t percent) const;
  std::size_t Late() const { return m_late; }

 private:
  std::vector<double> m_times;
  std::size_t m_late = 0;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_SAMPLES_H
