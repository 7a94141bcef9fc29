#ifndef DEVICE_SERVICE_MQTT_PACKET_H
#define DEVICE_SERVICE_MQTT_PACKET_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

// The control packets of MQTT 5 that a client sends and receives. Views are valid as long as the
// bytes that the packet was decoded from.
namespace Lumo::Mqtt {

enum class PacketType : std::uint8_t {
  Connect = 1,
  ConnAck = 2,
  Publish = 3,
  PubAck = 4,
  PubRec = 5,
  PubRel = 6,
  PubComp = 7,
  Subscribe = 8,
  SubAck = 9,
  Unsubscribe = 10,
  UnsubAck = 11,
  PingReq = 12,
  PingResp = 13,
  Disconnect = 14,
  Auth = 15
};

// A set of packet types.
using PacketSet = std::uint16_t;

template <typename... Types>
constexpr PacketSet In(Types... types) {
  return static_cast<PacketSet>(((1U << static_cast<unsigned>(types)) | ...));
}

using PacketId = std::uint16_t;  // 1 to 65535; 0 stands for none

// Reason codes that this client uses; DescribeReason knows all.
enum Reason : std::uint8_t {
  kReasonSuccess = 0x00,
  kFirstFailure = 0x80,  // codes from here on are refusals
  kReasonUnspecified = 0x80,
  kReasonMalformedPacket = 0x81,
  kReasonProtocolError = 0x82,
  kReasonImplementationSpecific = 0x83,
  kReasonNotAuthorised = 0x87,
  kReasonServerUnavailable = 0x88,
  kReasonServerBusy = 0x89,
  kReasonSessionTakenOver = 0x8E,
  kReasonTopicNameInvalid = 0x90,
  kReasonPacketIdInUse = 0x91,
  kReasonPacketIdNotFound = 0x92,
  kReasonReceiveMaximumExceeded = 0x93,
  kReasonTopicAliasInvalid = 0x94,
  kReasonPacketTooLarge = 0x95,
  kReasonQuotaExceeded = 0x97,
  kReasonRetainNotSupported = 0x9A,
  kReasonQosNotSupported = 0x9B,
};

// What the broker announces; the defaults are the protocol's.
struct ConnAck {
  bool sessionPresent = false;
  std::uint8_t reason = kReasonSuccess;
  std::optional<std::uint32_t> sessionExpirySeconds;  // nothing: what the CONNECT asked for
  std::uint16_t receiveMaximum = 65535;
  std::uint8_t maximumQos = 2;
  bool retainAvailable = true;
  std::optional<std::uint32_t> maximumPacketSize;  // bytes
  std::optional<std::string> assignedClientId;
  std::uint16_t topicAliasMaximum = 0;
  bool wildcardsAvailable = true;
  bool subscriptionIdsAvailable = true;
  bool sharedSubscriptionsAvailable = true;
  std::optional<std::uint16_t> serverKeepAliveSeconds;  // 0: none
  std::string reasonText;
  std::string serverReference;
};

struct Publish {
  bool again = false;  // the DUP flag
  std::uint8_t qos = 0;
  bool retain = false;
  PacketId id = 0;  // 0 at QoS 0
  std::string_view topic;
  std::string_view payload;
  bool isCut = false;  // it was longer than the reader's limit; the payload is empty then
  std::string_view responseTopic;
  std::string_view correlation;
};

// PUBACK, PUBREC, PUBREL or PUBCOMP.
struct Ack {
  PacketType type = PacketType::PubAck;
  PacketId id = 0;
  std::uint8_t reason = kReasonSuccess;
  std::string reasonText;
};

// SUBACK or UNSUBACK.
struct SubscriptionAck {
  PacketType type = PacketType::SubAck;
  PacketId id = 0;
  std::vector<std::uint8_t> reasons;  // at least one
  std::string reasonText;
};

struct PingResp {};

struct Disconnect {
  std::uint8_t reason = kReasonSuccess;
  std::string reasonText;
  std::string serverReference;
};

struct Auth {
  std::uint8_t reason = kReasonSuccess;
};

using Packet = std::variant<ConnAck, Publish, Ack, SubscriptionAck, PingResp, Disconnect, Auth>;

// Why a packet cannot be taken.
struct Fault {
  std::uint8_t reason = kReasonMalformedPacket;  // for a DISCONNECT
  const char* what = "";                         // for a log line
};

// What a message says of itself.
struct Labels {
  std::string contentType;  // empty: none; else the payload is UTF-8, and said to be
  std::vector<std::pair<std::string, std::string>> user;  // User Properties: names and values
};

// What the client sends in a CONNECT.
struct Connect {
  std::string clientId;
  std::string user;                    // empty: none
  std::string password;                // empty: none
  std::uint16_t keepAliveSeconds = 0;  // 0: none
  std::uint32_t sessionExpirySeconds = 0;
  std::uint16_t receiveMaximum = 65535;
  std::string willTopic;
  std::string will;
  Labels willLabels;
  std::uint8_t willQos = 1;
  bool willRetain = true;
};

struct Subscription {
  std::string filter;
  std::uint8_t qos = 0;
  bool noLocal = false;
  // Whether the broker sends the retained messages at the subscription.
  bool sendRetained = false;
};

// What the client publishes.
struct Publication {
  std::string topic;
  std::string payload;
  bool retain = false;
  std::string correlation;  // empty: none
  Labels labels;
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_PACKET_H
