#include "mqtt/Reasons.h"

#include <algorithm>
#include <array>

namespace Lumo::Mqtt {
namespace {

constexpr PacketSet kAcks =
    In(PacketType::PubAck, PacketType::PubRec, PacketType::PubRel, PacketType::PubComp);
constexpr PacketSet kSubscriptionAcks = In(PacketType::SubAck, PacketType::UnsubAck);
constexpr PacketSet kEnds = In(PacketType::ConnAck, PacketType::Disconnect);

constexpr PacketSet kPubAcks = In(PacketType::PubAck, PacketType::PubRec);
constexpr PacketSet kPubEnds = In(PacketType::PubRel, PacketType::PubComp);
constexpr PacketSet kConnAck = In(PacketType::ConnAck);
constexpr PacketSet kSubAck = In(PacketType::SubAck);
constexpr PacketSet kUnsubAck = In(PacketType::UnsubAck);
constexpr PacketSet kDisconnect = In(PacketType::Disconnect);
constexpr PacketSet kAuth = In(PacketType::Auth);

struct ReasonRule {
  std::uint8_t code;
  PacketSet packets;  // that a server sends it in
  const char* words;
};

constexpr std::array kReasons = {
    ReasonRule{0x00, kAcks | kSubscriptionAcks | kEnds | kAuth, "success"},
    ReasonRule{0x01, kSubAck, "granted QoS 1"},
    ReasonRule{0x02, kSubAck, "granted QoS 2"},
    ReasonRule{0x04, 0, "disconnect with the will"},
    ReasonRule{0x10, kPubAcks, "no matching subscribers"},
    ReasonRule{0x11, kUnsubAck, "no subscription existed"},
    ReasonRule{0x18, kAuth, "continue authentication"},
    ReasonRule{0x19, 0, "re-authenticate"},
    ReasonRule{0x80, kPubAcks | kSubscriptionAcks | kEnds, "unspecified error"},
    ReasonRule{0x81, kEnds, "malformed packet"},
    ReasonRule{0x82, kEnds, "protocol error"},
    ReasonRule{0x83, kPubAcks | kSubscriptionAcks | kEnds, "implementation specific error"},
    ReasonRule{0x84, kConnAck, "unsupported protocol version"},
    ReasonRule{0x85, kConnAck, "client identifier not valid"},
    ReasonRule{0x86, kConnAck, "bad user name or password"},
    ReasonRule{0x87, kPubAcks | kSubscriptionAcks | kEnds, "not authorised"},
    ReasonRule{0x88, kConnAck, "server unavailable"},
    ReasonRule{0x89, kEnds, "server busy"},
    ReasonRule{0x8A, kConnAck, "banned"},
    ReasonRule{0x8B, kDisconnect, "server shutting down"},
    ReasonRule{0x8C, kConnAck, "bad authentication method"},
    ReasonRule{0x8D, kDisconnect, "keep alive timeout"},
    ReasonRule{0x8E, kDisconnect, "session taken over"},
    ReasonRule{0x8F, kSubscriptionAcks | kDisconnect, "topic filter invalid"},
    ReasonRule{0x90, kPubAcks | kEnds, "topic name invalid"},
    ReasonRule{0x91, kPubAcks | kSubscriptionAcks, "packet identifier in use"},
    ReasonRule{0x92, kPubEnds, "packet identifier not found"},
    ReasonRule{0x93, kDisconnect, "receive maximum exceeded"},
    ReasonRule{0x94, kDisconnect, "topic alias invalid"},
    // The protocol has it only for the end of a connection, but brokers that limit payloads refuse
    // a message with it.
    ReasonRule{0x95, kPubAcks | kEnds, "packet too large"},
    ReasonRule{0x96, kDisconnect, "message rate too high"},
    ReasonRule{0x97, kPubAcks | kSubAck | kEnds, "quota exceeded"},
    ReasonRule{0x98, kDisconnect, "administrative action"},
    ReasonRule{0x99, kPubAcks | kEnds, "payload format invalid"},
    ReasonRule{0x9A, kEnds, "retain not supported"},
    ReasonRule{0x9B, kEnds, "QoS not supported"},
    ReasonRule{0x9C, kEnds, "use another server"},
    ReasonRule{0x9D, kEnds, "server moved"},
    ReasonRule{0x9E, kSubAck | kDisconnect, "shared subscriptions not supported"},
    ReasonRule{0x9F, kEnds, "connection rate exceeded"},
    ReasonRule{0xA0, kDisconnect, "maximum connect time"},
    ReasonRule{0xA1, kSubAck | kDisconnect, "subscription identifiers not supported"},
    ReasonRule{0xA2, kSubAck | kDisconnect, "wildcard subscriptions not supported"},
};

const ReasonRule* findReason(std::uint8_t code) {
  const auto* const found =
      std::find_if(kReasons.begin(), kReasons.end(),
                   [code](const ReasonRule& rule) { return rule.code == code; });
  return found == kReasons.end() ? nullptr : found;
}

}  // namespace

bool MayHaveReason(PacketType type, std::uint8_t code) {
  const ReasonRule* const rule = findReason(code);
  return rule != nullptr && (rule->packets & In(type)) != 0;
}

const char* DescribeReason(std::uint8_t reason) {
  const ReasonRule* const rule = findReason(reason);
  return rule == nullptr ? "unknown reason" : rule->words;
}

}  // namespace Lumo::Mqtt
