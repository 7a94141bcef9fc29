#include "Cloud.h"

#include <utility>

#include "Environment.h"
#include "Names.h"

namespace Latency {
namespace {

// The texts need no escapes.
const std::string kSetHead = std::string(R"({")") + kApp + R"(":")";
constexpr std::string_view kSetTail = R"("})";

std::string payloadOfSet(const std::string& data) {
  return kSetHead + data + std::string(kSetTail);
}

}  // namespace

Cloud::Cloud(Arrival& values)
    : m_serviceTopic("things/" + Environment("LUMO_THING_ID") + "/appdatachannel/"),
      m_broker(BrokerPort(), OptionsFor({m_serviceTopic + "value/" + kApp, kBaselineValueTopic}),
               [&values](const MqttPeer::Message& message) {
                 const std::string_view payload = message.payload;
                 if (payload.size() < 2) return;  // what was retained is cleared
                 values.Arrived(payload.substr(1, payload.size() - 2));
               }) {}

MqttPeer::Options Cloud::OptionsFor(std::vector<std::string> topics) {
  MqttPeer::Options options;
  options.filters = std::move(topics);
  options.wantsRetained = false;
  return options;
}

void Cloud::Set(const std::string& data, int qos) {
  m_broker.Publish({m_serviceTopic + "set", payloadOfSet(data), qos});
}

void Cloud::SetOfBaseline(const std::string& data, int qos) {
  m_broker.Publish({kBaselineSetTopic, payloadOfSet(data), qos});
}

std::string_view Cloud::DataOfSet(std::string_view payload) {
  return payload.substr(kSetHead.size(), payload.size() - kSetHead.size() - kSetTail.size());
}

}  // namespace Latency
