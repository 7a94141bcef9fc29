#ifndef DEVICE_SERVICE_MQTT_CODEC_H
#define DEVICE_SERVICE_MQTT_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "mqtt/Packet.h"

// MQTT 5 packets from and to bytes: pure functions. PacketReader has the bytes of whole packets.
namespace Lumo::Mqtt {

// The longest text or binary field that the protocol has a length for.
constexpr std::size_t kMaxFieldBytes = 65535;
// The largest remaining length.
constexpr std::size_t kMaxRemainingBytes = 268'435'455;

// Takes a packet apart, strictly: its type and flags, the order and length of its fields, UTF-8,
// properties that do not belong to it or come twice, reason codes that it cannot have, identifiers
// that are 0, and bytes that are left over are faults. So are packets that only a server receives.
// `firstByte` is that of the fixed header, `body` all that follows it. `isCut`: the body of a
// PUBLISH is only the beginning of it; the payload is not looked at, and properties that do not lie
// within the body are as if they were not there.
std::variant<Packet, Fault> Decode(std::uint8_t firstByte, std::string_view body,
                                   bool isCut = false);

// No text or binary field of what is encoded is longer than kMaxFieldBytes, and no packet longer
// than kMaxRemainingBytes: that is for the caller to check.
std::string EncodeConnect(const Connect& connect);
// `id` is 0 at QoS 0.
std::string EncodePublish(const Publication& publication, std::uint8_t qos, PacketId id);
// Sets the DUP flag of an encoded PUBLISH.
void MarkAsSentAgain(std::string& publish);
std::string EncodeAck(PacketType type, PacketId id, std::uint8_t reason = kReasonSuccess);
std::string EncodeSubscribe(PacketId id, const Subscription& subscription);
std::string EncodeUnsubscribe(PacketId id, std::string_view filter);
std::string EncodePingReq();
std::string EncodeDisconnect(std::uint8_t reason = kReasonSuccess);

// In words, for a log line: "not authorised". Never null.
const char* DescribeReason(std::uint8_t reason);

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CODEC_H
