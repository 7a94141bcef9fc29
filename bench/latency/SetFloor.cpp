#include "SetFloor.h"

#include <string>

#include "Cloud.h"
#include "Environment.h"
#include "Names.h"

namespace Latency {

SetFloor::SetFloor()
    : m_bus(BusAddress(), [](GDBusMessage& /*signal*/) {}),
      m_broker(BrokerPort(), Cloud::OptionsFor({kFloorSetTopic}),
               [this](const MqttPeer::Message& message) { passOn(message.payload); }) {}

void SetFloor::passOn(std::string_view payload) {
  const std::string data(Cloud::DataOfSet(payload));
  const BusClient::MessagePtr message(
      g_dbus_message_new_signal(kFloorPath, kFloorInterface, kEvent));
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", kApp, data.c_str()));
  m_bus.Post(*message);
}

}  // namespace Latency
