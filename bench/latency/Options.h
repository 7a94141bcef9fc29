#ifndef BENCH_LATENCY_OPTIONS_H
#define BENCH_LATENCY_OPTIONS_H

#include <cstddef>
#include <stdexcept>

namespace Latency {

// The command line; ChannelLatency.cpp says what it means.
struct Options {
  // The message says what is wrong, and how it is right.
  struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  static Options Parse(int argc, char** argv);  // throws Error

  bool json = false;
  std::size_t count = 1000;  // samples of each path
  std::size_t pairs = 10;    // at most count
  std::size_t sizeBytes = 16;
  std::size_t listeners = 0;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_OPTIONS_H
