#ifndef DEVICE_SERVICE_MQTT_PACKETSET_H
#define DEVICE_SERVICE_MQTT_PACKETSET_H

#include <cstdint>

#include "mqtt/Packet.h"

namespace Lumo::Mqtt {

// A set of packet types.
using PacketSet = std::uint16_t;

constexpr PacketSet In(PacketType type) {
  return static_cast<PacketSet>(1U << static_cast<unsigned>(type));
}

template <typename... More>
constexpr PacketSet In(PacketType type, More... more) {
  return static_cast<PacketSet>(In(type) | In(more...));
}

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_PACKETSET_H
