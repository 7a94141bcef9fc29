#ifndef DEVICE_SERVICE_MQTT_PROPERTIES_H
#define DEVICE_SERVICE_MQTT_PROPERTIES_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "mqtt/Cursor.h"
#include "mqtt/Packet.h"

namespace Lumo::Mqtt {

enum PropertyId : std::uint8_t {
  kPayloadFormatIndicator = 0x01,
  kMessageExpiryInterval = 0x02,
  kContentType = 0x03,
  kResponseTopic = 0x08,
  kCorrelationData = 0x09,
  kSubscriptionIdentifier = 0x0B,
  kSessionExpiryInterval = 0x11,
  kAssignedClientIdentifier = 0x12,
  kServerKeepAlive = 0x13,
  kAuthenticationMethod = 0x15,
  kAuthenticationData = 0x16,
  kRequestProblemInformation = 0x17,
  kWillDelayInterval = 0x18,
  kRequestResponseInformation = 0x19,
  kResponseInformation = 0x1A,
  kServerReference = 0x1C,
  kReasonString = 0x1F,
  kReceiveMaximum = 0x21,
  kTopicAliasMaximum = 0x22,
  kTopicAlias = 0x23,
  kMaximumQos = 0x24,
  kRetainAvailable = 0x25,
  kUserProperty = 0x26,
  kMaximumPacketSize = 0x27,
  kWildcardSubscriptionAvailable = 0x28,
  kSubscriptionIdentifiersAvailable = 0x29,
  kSharedSubscriptionAvailable = 0x2A,
  kPropertyLimit
};

struct Property {
  PropertyId id{};
  std::uint32_t number = 0;
  std::string_view text;  // or bytes
};

// Reads and checks the properties of a server's packet: their identifiers, how often they come,
// their types and values. A fault becomes the packet's.
class Properties {
 public:
  // Reads from the packet's cursor, which outlives this. Of a packet that is cut, those that have
  // come are read.
  Properties(Cursor& packet, PacketType type, bool isCut = false);

  // Nothing after the last one and after a fault in them.
  std::optional<Property> Next();

 private:
  PropertyId takeId();
  void takeValue(Property& property);

  Cursor& m_packet;
  const PacketSet m_type;
  bool m_isCut = false;
  Cursor m_section{{}};
  std::uint64_t m_seen = 0;  // a bit for each identifier
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_PROPERTIES_H
