#include "SetBaseline.h"

#include <string>

#include "Cloud.h"
#include "Environment.h"
#include "Names.h"

namespace Latency {

SetBaseline::SetBaseline()
    : m_bus(BusAddress(), [](GDBusMessage& /*signal*/) {}),
      m_broker(BrokerPort(), Cloud::OptionsFor({kBaselineSetTopic}),
               [this](const MqttPeer::Message& message) { passOn(message.payload); }) {}

void SetBaseline::passOn(std::string_view payload) {
  const std::string data(Cloud::DataOfSet(payload));
  const BusClient::MessagePtr message(
      g_dbus_message_new_signal(kBaselinePath, kBaselineInterface, kEvent));
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", kApp, data.c_str()));
  m_bus.Post(*message);
}

}  // namespace Latency
