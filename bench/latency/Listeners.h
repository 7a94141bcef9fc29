#ifndef BENCH_LATENCY_LISTENERS_H
#define BENCH_LATENCY_LISTENERS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace Latency {

// Other applications: connections to the message bus that read every event, the baselines' as well.
//
// They are a process of their own. GDBus has one thread for all connections of a process, which
// would read the others' messages before those whose time is taken.
class Listeners {
 public:
  // Returns once all of them listen. Forks: no other thread may be there yet. Throws
  // std::runtime_error.
  explicit Listeners(std::size_t count);
  ~Listeners();
  Listeners(const Listeners&) = delete;
  Listeners& operator=(const Listeners&) = delete;

  // Ends them; the number of events that they have read in all, each counted once per listener.
  std::uint64_t Stop();

 private:
  // The body of their process.
  static void listen(int socket, std::size_t count);
  void end();

  int m_socket = -1;     // to the process
  pid_t m_process = -1;  // -1: there is none
};

}  // namespace Latency

#endif  // BENCH_LATENCY_LISTENERS_H
