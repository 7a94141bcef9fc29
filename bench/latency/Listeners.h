#ifndef BENCH_LATENCY_LISTENERS_H
#define BENCH_LATENCY_LISTENERS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Other applications: connections to the message bus that read every send_event for which there is
// a match rule.
//
// They are a process of their own. GDBus has one thread for all connections of a process, which
// would read the others' messages before those whose time is taken.
class Listeners {
 public:
  // Returns once all of them listen. Forks: no other thread may be there yet. Throws
  // std::runtime_error.
  Listeners(std::size_t count, const std::string& busAddress,
            const std::vector<std::string>& rules);
  ~Listeners();
  Listeners(const Listeners&) = delete;
  Listeners& operator=(const Listeners&) = delete;

  // Waits until they have read so many events in all, each counted once per listener. False when
  // they have not after a long time, or have read more.
  bool HaveRead(std::uint64_t events) const;

 private:
  struct Shared;

  Shared* m_shared;      // with their process
  pid_t m_process = -1;  // -1: there is none
};

#endif  // BENCH_LATENCY_LISTENERS_H
