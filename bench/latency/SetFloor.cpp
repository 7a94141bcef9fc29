#include "SetFloor.h"

#include <string>

#include "Cloud.h"
#include "Names.h"

namespace Latency {

SetFloor::SetFloor()
    : m_broker({kFloorSetTopic}, [this](std::string_view payload) { passOn(payload); }) {}

void SetFloor::passOn(std::string_view payload) {
  const std::string data(Cloud::DataOfSet(payload));
  const MessagePtr message(g_dbus_message_new_signal(kFloorPath, kFloorInterface, kEvent));
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", kApp, data.c_str()));
  m_bus.Send(*message);
}

}  // namespace Latency
