#ifndef BENCH_BUS_OPTIONS_H
#define BENCH_BUS_OPTIONS_H

#include <cstddef>
#include <string>
#include <vector>

// A service to call: its place on the bus, and what it is called in the results.
struct Destination {
  std::string label;
  std::string address;            // of the bus
  std::string name;               // on the bus
  std::vector<std::string> apps;  // that send, by turns
};

// The driver's command line.
struct Options {
  std::size_t size = 16;        // of the data, bytes
  std::size_t inFlight = 1;     // calls at a time
  std::size_t calls = 1000;     // in a block
  std::size_t pairs = 7;        // blocks for each destination
  std::size_t connections = 1;  // to each bus; the calls take turns
  std::vector<Destination> destinations;

  // Throws std::invalid_argument, with a text for the user.
  static Options Parse(int argc, char** argv);
};

#endif  // BENCH_BUS_OPTIONS_H
