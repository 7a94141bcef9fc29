#ifndef BENCH_BUS_CALLER_H
#define BENCH_BUS_CALLER_H

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Options.h"

// What one block of calls took.
struct Block {
  double seconds = 0;
  std::vector<double> microseconds;  // of each call, ascending
};

// Calls send_data of one service, with sd-bus, whose part in the time is small. One thread.
// Failures, an answer other than 0 included, are thrown as std::runtime_error.
class Caller {
 public:
  // Connects and registers the applications.
  Caller(const Destination& destination, const Options& options);
  ~Caller();
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  const std::string& Label() const { return m_destination.label; }

  // Calls as often as the options say, by turns over connections and applications.
  Block Run();

 private:
  using Clock = std::chrono::steady_clock;
  struct BusDeleter {
    void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
  };
  struct MessageDeleter {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
  };
  using BusPtr = std::unique_ptr<sd_bus, BusDeleter>;
  using MessagePtr = std::unique_ptr<sd_bus_message, MessageDeleter>;

  // A call on its way.
  struct Pending {
    Caller* caller = nullptr;
    Clock::time_point start;
  };

  MessagePtr newCall(sd_bus* bus, const char* method, const std::string& app, const char* data);
  void call(const char* method, const std::string& app);
  void runOneByOne(Block& block);
  void runInFlight(Block& block);
  void send(Pending& pending);
  static int on_reply(sd_bus_message* reply, void* pending, sd_bus_error* error);

  const Destination m_destination;
  const Options& m_options;
  const std::string m_data;
  std::vector<BusPtr> m_buses;

  // Of the block that runs.
  Block* m_block = nullptr;
  std::size_t m_sent = 0;
  std::string m_failure;  // empty: none
};

#endif  // BENCH_BUS_CALLER_H
