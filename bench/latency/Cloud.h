#ifndef BENCH_LATENCY_CLOUD_H
#define BENCH_LATENCY_CLOUD_H

#include <string>
#include <string_view>
#include <vector>

#include "Arrival.h"
#include "MqttPeer.h"

namespace Latency {

// The cloud.
class Cloud {
 public:
  // The values' texts arrive at `values`, those of the baseline as well.
  explicit Cloud(Arrival& values);

  // Return once the message is queued.
  void Set(const std::string& data, int qos);
  // The same payload to the baseline.
  void SetOfBaseline(const std::string& data, int qos);

  // How a client of the broker listens here: as the device service does, to what comes from now on.
  static MqttPeer::Options OptionsFor(std::vector<std::string> topics);
  // The data in the payload of a set, the other way round.
  static std::string_view DataOfSet(std::string_view payload);

 private:
  const std::string m_serviceTopic;
  MqttPeer m_broker;
};

}  // namespace Latency

#endif  // BENCH_LATENCY_CLOUD_H
