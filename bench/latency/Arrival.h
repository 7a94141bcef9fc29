#ifndef BENCH_LATENCY_ARRIVAL_H
#define BENCH_LATENCY_ARRIVAL_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace Latency {

// The text that is waited for, and when it came. Any thread.
class Arrival {
 public:
  using Clock = std::chrono::steady_clock;

  void Expect(const std::string& text);
  // Of another text than the expected one nothing is kept.
  void Arrived(std::string_view text);
  // Throws std::runtime_error when it does not come.
  Clock::time_point Wait();

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::string m_expected;                   // guarded by m_mutex
  std::optional<Clock::time_point> m_time;  // guarded by m_mutex
};

}  // namespace Latency

#endif  // BENCH_LATENCY_ARRIVAL_H
