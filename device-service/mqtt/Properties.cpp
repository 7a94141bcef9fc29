#include "mqtt/Properties.h"

#include <array>
#include <cstddef>

namespace Lumo::Mqtt {
namespace {

constexpr PacketSet kPublish = In(PacketType::Publish);
constexpr PacketSet kConnAck = In(PacketType::ConnAck);
constexpr PacketSet kAuth = In(PacketType::Auth);
constexpr PacketSet kEnds = In(PacketType::ConnAck, PacketType::Disconnect);
constexpr PacketSet kAcks = In(PacketType::PubAck, PacketType::PubRec, PacketType::PubRel,
                               PacketType::PubComp, PacketType::SubAck, PacketType::UnsubAck);

enum class PropertyType : std::uint8_t {
  Unknown,
  Flag,  // a byte that is 0 or 1
  Byte,
  TwoBytes,
  FourBytes,
  Variable,
  Text,
  Binary,
  TextPair
};

struct PropertyRule {
  PropertyType type = PropertyType::Unknown;
  PacketSet packets = 0;  // that a server sends it in
  bool mayBeZero = true;
};

constexpr std::array<PropertyRule, kPropertyLimit> makePropertyRules() {
  using Type = PropertyType;
  std::array<PropertyRule, kPropertyLimit> rules{};
  // Any byte, since brokers relay it unchecked from any client, and nobody reads it here.
  rules[kPayloadFormatIndicator] = {Type::Byte, kPublish};
  rules[kMessageExpiryInterval] = {Type::FourBytes, kPublish};
  rules[kContentType] = {Type::Text, kPublish};
  rules[kResponseTopic] = {Type::Text, kPublish};
  rules[kCorrelationData] = {Type::Binary, kPublish};
  rules[kSubscriptionIdentifier] = {Type::Variable, kPublish, false};
  rules[kSessionExpiryInterval] = {Type::FourBytes, kEnds};
  rules[kAssignedClientIdentifier] = {Type::Text, kConnAck};
  rules[kServerKeepAlive] = {Type::TwoBytes, kConnAck};
  rules[kAuthenticationMethod] = {Type::Text, kConnAck | kAuth};
  rules[kAuthenticationData] = {Type::Binary, kConnAck | kAuth};
  rules[kRequestProblemInformation] = {Type::Flag, 0};
  rules[kWillDelayInterval] = {Type::FourBytes, 0};
  rules[kRequestResponseInformation] = {Type::Flag, 0};
  rules[kResponseInformation] = {Type::Text, kConnAck};
  rules[kServerReference] = {Type::Text, kEnds};
  rules[kReasonString] = {Type::Text, kAcks | kEnds | kAuth};
  rules[kReceiveMaximum] = {Type::TwoBytes, kConnAck, false};
  rules[kTopicAliasMaximum] = {Type::TwoBytes, kConnAck};
  rules[kTopicAlias] = {Type::TwoBytes, kPublish};
  rules[kMaximumQos] = {Type::Flag, kConnAck};
  rules[kRetainAvailable] = {Type::Flag, kConnAck};
  rules[kUserProperty] = {Type::TextPair, kPublish | kAcks | kEnds | kAuth};
  rules[kMaximumPacketSize] = {Type::FourBytes, kConnAck, false};
  rules[kWildcardSubscriptionAvailable] = {Type::Flag, kConnAck};
  rules[kSubscriptionIdentifiersAvailable] = {Type::Flag, kConnAck};
  rules[kSharedSubscriptionAvailable] = {Type::Flag, kConnAck};
  return rules;
}

constexpr std::array kPropertyRules = makePropertyRules();

bool mayRepeat(PropertyId id) {
  return id == kUserProperty || id == kSubscriptionIdentifier;
}

}  // namespace

Properties::Properties(Cursor& packet, PacketType type, bool isCut)
    : m_packet(packet), m_type(In(type)) {
  if (!isCut) {
    m_section = Cursor(packet.TakeBytes(packet.TakeVarInt()));
    return;
  }
  m_section = Cursor(packet.TakeRest());
  const std::size_t length = m_section.TakeVarInt();
  const std::string_view there = m_section.TakeRest();
  m_isCut = m_section.RanOut() || length > there.size();
  if (!m_section.GetFault()) m_section = Cursor(there.substr(0, length));
}

std::optional<Property> Properties::Next() {
  if (m_section.AtEnd() && !m_section.GetFault()) return std::nullopt;
  Property property;
  property.id = takeId();
  takeValue(property);
  if (m_section.GetFault()) {
    if (!m_isCut || !m_section.RanOut()) m_packet.Fail(*m_section.GetFault());
    return std::nullopt;
  }
  return property;
}

PropertyId Properties::takeId() {
  const std::uint32_t number = m_section.TakeVarInt();
  if (number >= kPropertyLimit || kPropertyRules[number].type == PropertyType::Unknown) {
    m_section.Malformed("an unknown property");
    return {};
  }
  const auto id = static_cast<PropertyId>(number);
  const std::uint64_t bit = std::uint64_t{1} << number;
  if ((kPropertyRules[id].packets & m_type) == 0) {
    m_section.Malformed("a property of another packet");
  } else if ((m_seen & bit) != 0 && !mayRepeat(id)) {
    m_section.Forbidden("a property that comes twice");
  }
  m_seen |= bit;
  return id;
}

void Properties::takeValue(Property& property) {
  const PropertyRule& rule = kPropertyRules[property.id];
  switch (rule.type) {
    case PropertyType::Unknown:
      return;
    case PropertyType::Flag:
    case PropertyType::Byte:
      property.number = m_section.TakeByte();
      break;
    case PropertyType::TwoBytes:
      property.number = m_section.TakeU16();
      break;
    case PropertyType::FourBytes:
      property.number = m_section.TakeU32();
      break;
    case PropertyType::Variable:
      property.number = m_section.TakeVarInt();
      break;
    case PropertyType::Text:
      property.text = m_section.TakeText();
      return;
    case PropertyType::Binary:
      property.text = m_section.TakeBinary();
      return;
    case PropertyType::TextPair:
      m_section.TakeText();
      m_section.TakeText();
      return;
  }
  if (rule.type == PropertyType::Flag && property.number > 1) {
    m_section.Forbidden("a property that is neither 0 nor 1");
  }
  if (!rule.mayBeZero && property.number == 0) {
    m_section.Forbidden("a property that must not be 0");
  }
}

}  // namespace Lumo::Mqtt
