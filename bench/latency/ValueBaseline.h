#ifndef BENCH_LATENCY_VALUEBASELINE_H
#define BENCH_LATENCY_VALUEBASELINE_H

#include <string>

#include "BusClient.h"
#include "MqttPeer.h"

namespace Latency {

// What a value cannot do without: receives it from the message bus and publishes it as the device
// service does, from the callback that it came with.
class ValueBaseline {
 public:
  ValueBaseline();
  // Clears what is retained.
  ~ValueBaseline();
  ValueBaseline(const ValueBaseline&) = delete;
  ValueBaseline& operator=(const ValueBaseline&) = delete;

  // Where it is to be sent to.
  std::string BusName() const { return m_bus.UniqueName(); }

 private:
  void passOn(GDBusMessage& signal);
  void publish(const std::string& payload);

  MqttPeer m_broker;
  BusClient m_bus;  // after what it uses
};

}  // namespace Latency

#endif  // BENCH_LATENCY_VALUEBASELINE_H
