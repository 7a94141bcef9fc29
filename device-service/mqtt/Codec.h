#ifndef DEVICE_SERVICE_MQTT_CODEC_H
#define DEVICE_SERVICE_MQTT_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "mqtt/Packet.h"

// Decodes and encodes MQTT 5 packets: pure functions. PacketReader splits a connection's bytes into
// packets.
namespace Lumo::Mqtt {

// The longest string or binary field of the protocol.
constexpr std::size_t kMaxFieldBytes = 65535;
// The largest remaining length.
constexpr std::size_t kMaxRemainingBytes = 268'435'455;

// Decodes a packet, strictly. These are faults: a wrong type, flags, order or length of fields,
// invalid UTF-8, properties that do not belong to the packet or come twice, reason codes that it
// cannot have, identifiers that are 0, bytes left over, and packets that only a server receives.
// `firstByte` is that of the fixed header, `body` all that follows the header. `isCut`: the body is
// only the beginning of a PUBLISH; its payload is ignored, and so are properties beyond the body.
std::variant<Packet, Fault> Decode(std::uint8_t firstByte, std::string_view body,
                                   bool isCut = false);

// The caller makes sure that no string or binary field is longer than kMaxFieldBytes, and no packet
// longer than kMaxRemainingBytes.
std::string EncodeConnect(const Connect& connect);
// `id` is 0 at QoS 0.
std::string EncodePublish(const Publication& publication, std::uint8_t qos, PacketId id);
// The length of what EncodePublish gives.
std::size_t SizeOfPublish(const Publication& publication, std::uint8_t qos);
// Sets the DUP flag of an encoded PUBLISH.
void MarkAsSentAgain(std::string& publish);
std::string EncodeAck(PacketType type, PacketId id, std::uint8_t reason = kReasonSuccess);
std::string EncodeSubscribe(PacketId id, const Subscription& subscription);
std::string EncodeUnsubscribe(PacketId id, std::string_view filter);
std::string EncodePingReq();
std::string EncodeDisconnect(std::uint8_t reason = kReasonSuccess);

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CODEC_H
