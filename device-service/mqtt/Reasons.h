#ifndef DEVICE_SERVICE_MQTT_REASONS_H
#define DEVICE_SERVICE_MQTT_REASONS_H

#include <cstdint>

#include "mqtt/Packet.h"

namespace Lumo::Mqtt {

// True when a server may send such a packet with this reason code.
bool MayHaveReason(PacketType type, std::uint8_t code);

// In words, for a log line: "not authorised". Never null.
const char* DescribeReason(std::uint8_t reason);

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_REASONS_H
