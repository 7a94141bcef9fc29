#ifndef TESTS_SOAK_TALLY_H
#define TESTS_SOAK_TALLY_H

#include <atomic>
#include <cstdint>
#include <string>

namespace Soak {

// What has been done and seen so far. Any thread.
struct Tally {
  std::atomic<std::uint64_t> calls{0};     // D-Bus calls answered
  std::atomic<std::uint64_t> signals{0};   // received, by all connections together
  std::atomic<std::uint64_t> requests{0};  // of the cloud, sent
  std::atomic<std::uint64_t> repeated{0};  // answers that came once more, as QoS 1 allows
  std::atomic<std::uint64_t> kills{0};     // of applications
  std::atomic<std::uint64_t> restarts{0};  // of the broker
  std::atomic<std::uint64_t> mismatches{0};

  // Counts something that the model does not allow, and prints the first few.
  void Mismatch(const std::string& what);
};

}  // namespace Soak

#endif  // TESTS_SOAK_TALLY_H
