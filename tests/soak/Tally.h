#ifndef TESTS_SOAK_TALLY_H
#define TESTS_SOAK_TALLY_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

namespace Soak {

// What has been done and seen so far. Any thread.
struct Tally {
  using Counter = std::atomic<unsigned long long>;

  Counter calls{0};     // D-Bus calls answered
  Counter signals{0};   // received, by all connections together
  Counter requests{0};  // of the cloud, sent
  Counter repeated{0};  // answers that came once more, as QoS 1 allows
  Counter kills{0};     // of applications
  Counter restarts{0};  // of the broker
  Counter mismatches{0};

  // Counts something that the model does not allow, and prints the first few.
  void Mismatch(const std::string& what) {
    constexpr unsigned kPrinted = 50;
    if (++mismatches <= kPrinted) std::fprintf(stderr, "mismatch: %s\n", what.c_str());
  }
};

}  // namespace Soak

#endif  // TESTS_SOAK_TALLY_H
