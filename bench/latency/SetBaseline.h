#ifndef BENCH_LATENCY_SETBASELINE_H
#define BENCH_LATENCY_SETBASELINE_H

#include <string_view>

#include "BusClient.h"
#include "MqttPeer.h"

namespace Latency {

// What a set cannot do without: receives it at the broker and emits it on the message bus, from the
// callback that it came with.
class SetBaseline {
 public:
  SetBaseline();

 private:
  void passOn(std::string_view payload);

  BusClient m_bus;
  MqttPeer m_broker;  // after what its handler uses
};

}  // namespace Latency

#endif  // BENCH_LATENCY_SETBASELINE_H
