// Calls send_data of several services in alternation, with sd-bus, whose part in the time is small:
//
//     bus-driver SIZE IN_FLIGHT CALLS PAIRS CONNECTIONS LABEL|ADDRESS|NAME|APP,...|...
//
// SIZE bytes of data, IN_FLIGHT calls at a time, CALLS in a block, PAIRS blocks for each service,
// and CONNECTIONS to each bus; one of IN_FLIGHT and CONNECTIONS is 1. The calls take turns over
// connections and applications. Prints what each block of calls took, as JSON:
//
//     {"LABEL": [{"calls_per_second": 1.0, "median_us": 1.0, "p99_us": 1.0}, ...], ...}
//
// The order of the services is turned round with every block. One block of each warms up.
#include <json/json.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Interface.h"
#include "Percentile.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kTimeoutMicroseconds = 60'000'000;

struct Close {
  void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
};
using BusPtr = std::unique_ptr<sd_bus, Close>;

struct Options {
  std::size_t size;
  std::size_t inFlight;
  std::size_t calls;
  std::size_t pairs;
  std::size_t connections;
};

int require(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
  return result;
}

void requireZero(sd_bus_message* reply) {
  const sd_bus_error* const error = sd_bus_message_get_error(reply);
  if (error != nullptr) throw std::runtime_error(error->name);
  std::int32_t result = -1;
  require(sd_bus_message_read(reply, "i", &result), "an answer of another type");
  if (result != 0) throw std::runtime_error("the answer " + std::to_string(result));
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// Calls one service. Any answer but 0 is a failure, and is thrown as std::runtime_error.
class Caller {
 public:
  // Connects and registers the applications.
  Caller(const std::string& destination, const Options& options)
      : m_options(options), m_data(options.size, 'x'), m_pending(options.inFlight) {
    const std::vector<std::string> parts = split(destination, '|');
    if (parts.size() != 4) throw std::runtime_error("no destination: " + destination);
    m_label = parts[0];
    m_name = parts[2];
    m_apps = split(parts[3], ',');
    for (std::size_t i = 0; i < options.connections; ++i) {
      sd_bus* bus = nullptr;
      require(sd_bus_new(&bus), "sd_bus_new");
      m_buses.emplace_back(bus);
      require(sd_bus_set_address(bus, parts[1].c_str()), "the bus's address");
      require(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
      require(sd_bus_set_method_call_timeout(bus, kTimeoutMicroseconds), "the time limit");
      require(sd_bus_start(bus), "the bus cannot be reached");
      // Waits until the bus has said hello: it takes only some newcomers at a time.
      const char* name = nullptr;
      require(sd_bus_get_unique_name(bus, &name), "the bus cannot be reached");
    }
    sd_bus* const bus = m_buses.front().get();
    for (const std::string& app : m_apps) {
      sd_bus_message* reply = nullptr;
      require(sd_bus_call_method(bus, m_name.c_str(), kObjectPath, kInterface, "register_app",
                                 nullptr, &reply, "s", app.c_str()),
              "register_app");
      requireZero(reply);
      sd_bus_message_unref(reply);
    }
    for (Pending& pending : m_pending) pending.caller = this;
  }

  const std::string& Label() const { return m_label; }

  Json::Value RunBlock() {
    m_sent = 0;
    m_microseconds.clear();
    m_microseconds.reserve(m_options.calls);
    const Clock::time_point start = Clock::now();
    for (Pending& pending : m_pending) send(pending);
    while (m_microseconds.size() < m_options.calls) {
      sd_bus* const bus = busOf(m_sent - 1);  // one connection, or one call at a time
      if (require(sd_bus_process(bus, nullptr), "the bus") > 0) {
        if (!m_failure.empty()) throw std::runtime_error("send_data: " + m_failure);
      } else if (require(sd_bus_wait(bus, kTimeoutMicroseconds), "the bus") == 0) {
        throw std::runtime_error("send_data: no answer");
      }
    }
    const std::chrono::duration<double> seconds = Clock::now() - start;
    Json::Value block;
    block["calls_per_second"] = static_cast<double>(m_options.calls) / seconds.count();
    block["median_us"] = Percentile(m_microseconds, 50);
    block["p99_us"] = Percentile(m_microseconds, 99);
    return block;
  }

 private:
  struct Pending {
    Caller* caller = nullptr;
    Clock::time_point start;
  };

  sd_bus* busOf(std::size_t call) const { return m_buses[call % m_buses.size()].get(); }

  void send(Pending& pending) {
    if (m_sent == m_options.calls) return;
    sd_bus* const bus = busOf(m_sent);
    const std::string& app = m_apps[m_sent % m_apps.size()];
    ++m_sent;
    pending.start = Clock::now();
    require(
        sd_bus_call_method_async(bus, nullptr, m_name.c_str(), kObjectPath, kInterface, "send_data",
                                 &Caller::on_reply, &pending, "ss", app.c_str(), m_data.c_str()),
        "send_data");
  }

  static int on_reply(sd_bus_message* reply, void* data, sd_bus_error* /*error*/) {
    auto& pending = *static_cast<Pending*>(data);
    Caller& caller = *pending.caller;
    const std::chrono::duration<double, std::micro> time = Clock::now() - pending.start;
    caller.m_microseconds.push_back(time.count());
    try {
      requireZero(reply);
      caller.send(pending);
    } catch (const std::exception& error) {
      caller.m_failure = error.what();
    }
    return 1;
  }

  const Options m_options;
  const std::string m_data;
  std::string m_label;
  std::string m_name;  // of the service, on the bus
  std::vector<std::string> m_apps;
  std::vector<BusPtr> m_buses;
  std::vector<Pending> m_pending;  // the calls in flight

  // Of the block that runs.
  std::size_t m_sent = 0;
  std::vector<double> m_microseconds;
  std::string m_failure;  // empty: none
};

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc < 7) throw std::runtime_error("the file says how it is called");
    const Options options{std::stoul(argv[1]), std::stoul(argv[2]), std::stoul(argv[3]),
                          std::stoul(argv[4]), std::stoul(argv[5])};
    std::vector<std::unique_ptr<Caller>> callers;
    for (int i = 6; i < argc; ++i) callers.push_back(std::make_unique<Caller>(argv[i], options));
    for (const auto& caller : callers) caller->RunBlock();
    Json::Value results;
    for (std::size_t i = 0; i < options.pairs; ++i) {
      for (const auto& caller : callers) results[caller->Label()].append(caller->RunBlock());
      std::reverse(callers.begin(), callers.end());
    }
    std::cout << results << std::endl;
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bus-driver: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
