#ifndef BENCH_LATENCY_SETFLOOR_H
#define BENCH_LATENCY_SETFLOOR_H

#include <string_view>

#include "BrokerClient.h"
#include "BusConnection.h"

namespace Latency {

// What a set cannot do without: receives it at the broker and emits it on the message bus, from the
// callback that it came with.
class SetFloor {
 public:
  SetFloor();

 private:
  void passOn(std::string_view payload);

  BusConnection m_bus;
  BrokerClient m_broker;  // after what its handler uses
};

}  // namespace Latency

#endif  // BENCH_LATENCY_SETFLOOR_H
