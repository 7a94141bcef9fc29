#ifndef BENCH_LATENCY_VALUEFLOOR_H
#define BENCH_LATENCY_VALUEFLOOR_H

#include <string>

#include "BusClient.h"
#include "MqttPeer.h"

namespace Latency {

// What a value cannot do without: receives it from the message bus and publishes it as the device
// service does, from the callback that it came with.
class ValueFloor {
 public:
  ValueFloor();
  // Clears what is retained.
  ~ValueFloor();
  ValueFloor(const ValueFloor&) = delete;
  ValueFloor& operator=(const ValueFloor&) = delete;

  // Where it is to be sent to.
  std::string BusName() const { return m_bus.UniqueName(); }

 private:
  void passOn(GDBusMessage& signal);
  void publish(const std::string& payload);

  MqttPeer m_broker;
  BusClient m_bus;  // after what it uses
};

}  // namespace Latency

#endif  // BENCH_LATENCY_VALUEFLOOR_H
