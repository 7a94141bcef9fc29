#ifndef BENCH_LATENCY_APPLICATION_H
#define BENCH_LATENCY_APPLICATION_H

#include <atomic>
#include <cstdint>
#include <string>

#include "Arrival.h"
#include "BusClient.h"

namespace Latency {

// The application: registered as long as this exists.
class Application {
 public:
  // The events' texts arrive at `events`, those of the baseline as well.
  explicit Application(Arrival& events);
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Returns once the message is queued; nobody waits for the reply.
  void SendData(const std::string& data);
  // The same text to another connection of the bus, straight.
  void SendToBaseline(const std::string& connection, const std::string& data);

  // How many there were.
  std::uint64_t Events() const { return m_events; }

 private:
  void call(const char* method);
  void takeSignal(GDBusMessage& signal);

  Arrival& m_arrival;
  std::atomic<std::uint64_t> m_events{0};
  BusClient m_bus;  // last: its handler uses all of the above
};

}  // namespace Latency

#endif  // BENCH_LATENCY_APPLICATION_H
