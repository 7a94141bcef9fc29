#ifndef BENCH_LATENCY_CLOUD_H
#define BENCH_LATENCY_CLOUD_H

#include <string>
#include <string_view>

#include "Arrival.h"
#include "BrokerClient.h"

namespace Latency {

// The cloud.
class Cloud {
 public:
  // The values' texts arrive at `values`, those of the floor as well.
  explicit Cloud(Arrival& values);

  // Return once the message is queued.
  void Set(const std::string& data, int qos);
  // The same payload to the floor.
  void SetFloor(const std::string& data, int qos);

  // The data in the payload of a set, the other way round.
  static std::string_view DataOfSet(std::string_view payload);

 private:
  explicit Cloud(Arrival& values, const std::string& serviceTopic);

  const std::string m_setTopic;
  BrokerClient m_broker;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_CLOUD_H
