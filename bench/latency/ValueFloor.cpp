#include "ValueFloor.h"

#include <cstdio>
#include <exception>

#include "Names.h"

namespace Latency {

ValueFloor::~ValueFloor() {
  try {
    publish({});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
  }
}

void ValueFloor::passOn(GDBusMessage& signal) {
  if (g_strcmp0(g_dbus_message_get_member(&signal), kData) != 0) return;
  const char* data = nullptr;
  g_variant_get(g_dbus_message_get_body(&signal), "(&s&s)", nullptr, &data);
  publish('"' + std::string(data) + '"');
}

void ValueFloor::publish(const std::string& payload) {
  constexpr int kQos = 1;
  m_broker.Publish(kFloorValueTopic, payload, kQos, true);
}

}  // namespace Latency
