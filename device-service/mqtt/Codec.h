#ifndef DEVICE_SERVICE_MQTT_CODEC_H
#define DEVICE_SERVICE_MQTT_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "mqtt/Packet.h"

// MQTT 5 packets from and to bytes. Pure functions, and a reader that puts packets together.
namespace Lumo::Mqtt {

// Takes a packet apart, strictly: its type and flags, the order and length of its fields, UTF-8,
// properties that do not belong to it or come twice, reason codes that it cannot have, identifiers
// that are 0, and bytes that are left over are faults. So are packets that only a server receives.
// `firstByte` is that of the fixed header, `body` all that follows it. `isCut`: the body of a
// PUBLISH is only the beginning of it; the payload is not looked at, and properties that do not lie
// within the body are as if they were not there.
std::variant<Packet, Fault> Decode(std::uint8_t firstByte, std::string_view body,
                                   bool isCut = false);

// Puts packets together from the bytes of a connection. It holds one packet at most, and no more
// than `maxPacketBytes` of it: of a longer PUBLISH it keeps the beginning and skips the rest, so
// that it can be acknowledged and refused; any other longer packet is a fault. Memory is taken as
// bytes come, not as a header claims.
class PacketReader {
 public:
  explicit PacketReader(std::size_t maxPacketBytes);

  enum class Result { NeedsMore, Packet, Fault };

  // Takes bytes off the front of `bytes`, up to the end of one packet. After a packet the next call
  // begins a new one; after a fault there is nothing more to be read.
  Result Read(std::string_view& bytes);

  // After Result::Packet, until the next Read. It lies in the bytes that were read when they held
  // all of it, or else in the reader.
  std::uint8_t FirstByte() const;
  std::string_view Body() const;
  bool IsCut() const;
  // After Result::Fault.
  Fault GetFault() const;

  // Forgets what was begun: for a new connection.
  void Reset();

 private:
  // (to be filled in by the implementation)
};

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

// The longest text or binary field that the protocol has a length for.
constexpr std::size_t kMaxFieldBytes = 65535;
// The largest remaining length.
constexpr std::size_t kMaxRemainingBytes = 268'435'455;

// In words, for a log line: "not authorised". Never null.
const char* DescribeReason(std::uint8_t reason);

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CODEC_H
