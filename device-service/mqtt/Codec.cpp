#include "mqtt/Codec.h"

#include <optional>
#include <utility>

#include "mqtt/Cursor.h"
#include "mqtt/Properties.h"
#include "mqtt/Reasons.h"

namespace Lumo::Mqtt {
namespace {

using Result = std::variant<Packet, Fault>;

// --- decoding ------------------------------------------------------------------------------------

PacketId takePacketId(Cursor& cursor) {
  const PacketId id = cursor.TakeU16();
  if (id == 0) cursor.Forbidden("a packet identifier that is 0");
  return id;
}

std::uint8_t takeReason(Cursor& cursor, PacketType type) {
  const std::uint8_t code = cursor.TakeByte();
  if (!MayHaveReason(type, code)) {
    cursor.Forbidden("a reason code that the packet cannot have");
  }
  return code;
}

// Twice through the topic is faster than once with find_first_of.
bool hasWildcard(std::string_view topic) {
  return topic.find('+') != std::string_view::npos || topic.find('#') != std::string_view::npos;
}

// The reason string among the properties that come next.
std::string takeReasonText(Cursor& cursor, PacketType type) {
  std::string text;
  Properties properties(cursor, type);
  while (const std::optional<Property> property = properties.Next()) {
    if (property->id == kReasonString) text = property->text;
  }
  return text;
}

template <typename Kind>
Result finish(const Cursor& cursor, Kind&& packet) {
  if (cursor.GetFault()) return *cursor.GetFault();
  if (!cursor.AtEnd()) return Fault{kReasonMalformedPacket, "bytes that are left over"};
  return Result(std::in_place_type<Packet>, std::forward<Kind>(packet));
}

Result decodeConnAck(Cursor cursor) {
  ConnAck ack;
  const std::uint8_t flags = cursor.TakeByte();
  if (flags > 1) cursor.Malformed("reserved flags of an answer to the CONNECT");
  ack.sessionPresent = flags != 0;
  ack.reason = takeReason(cursor, PacketType::ConnAck);
  if (ack.sessionPresent && ack.reason != kReasonSuccess) {
    cursor.Forbidden("a refused connection with a session");
  }
  bool hasMethod = false;
  bool hasData = false;
  Properties properties(cursor, PacketType::ConnAck);
  while (const std::optional<Property> property = properties.Next()) {
    switch (property->id) {
      case kSessionExpiryInterval:
        ack.sessionExpirySeconds = property->number;
        break;
      case kReceiveMaximum:
        ack.receiveMaximum = static_cast<std::uint16_t>(property->number);
        break;
      case kMaximumQos:
        ack.maximumQos = static_cast<std::uint8_t>(property->number);
        break;
      case kRetainAvailable:
        ack.retainAvailable = property->number != 0;
        break;
      case kMaximumPacketSize:
        ack.maximumPacketSize = property->number;
        break;
      case kAssignedClientIdentifier:
        ack.assignedClientId = property->text;
        break;
      case kTopicAliasMaximum:
        ack.topicAliasMaximum = static_cast<std::uint16_t>(property->number);
        break;
      case kWildcardSubscriptionAvailable:
        ack.wildcardsAvailable = property->number != 0;
        break;
      case kSubscriptionIdentifiersAvailable:
        ack.subscriptionIdsAvailable = property->number != 0;
        break;
      case kSharedSubscriptionAvailable:
        ack.sharedSubscriptionsAvailable = property->number != 0;
        break;
      case kServerKeepAlive:
        ack.serverKeepAliveSeconds = static_cast<std::uint16_t>(property->number);
        break;
      case kReasonString:
        ack.reasonText = property->text;
        break;
      case kServerReference:
        ack.serverReference = property->text;
        break;
      case kAuthenticationMethod:
        hasMethod = true;
        break;
      case kAuthenticationData:
        hasData = true;
        break;
      default:
        break;
    }
  }
  if (hasData && !hasMethod) cursor.Forbidden("authentication data without a method");
  return finish(cursor, std::move(ack));
}

Result decodePublish(std::uint8_t flags, Cursor cursor, bool isCut) {
  Publish publish;
  publish.again = (flags & 0x08U) != 0;
  publish.qos = flags >> 1U & 0x03U;
  publish.retain = (flags & 0x01U) != 0;
  publish.isCut = isCut;
  if (publish.qos > 2) cursor.Malformed("a message of QoS 3");
  if (publish.again && publish.qos == 0) cursor.Malformed("a message of QoS 0 that is sent again");
  publish.topic = cursor.TakeText();
  if (hasWildcard(publish.topic)) {
    cursor.Fail({kReasonTopicNameInvalid, "a topic with a wildcard"});
  }
  if (publish.qos > 0) publish.id = takePacketId(cursor);

  Properties properties(cursor, PacketType::Publish, isCut);
  while (const std::optional<Property> property = properties.Next()) {
    if (property->id == kResponseTopic) {
      // Wildcards do not end the connection: brokers relay them from any client, and a message that
      // is not acknowledged comes again for ever.
      publish.responseTopic = property->text;
    } else if (property->id == kCorrelationData) {
      publish.correlation = property->text;
    } else if (property->id == kTopicAlias) {
      // None was offered.
      cursor.Fail({kReasonTopicAliasInvalid, "a topic alias"});
    }
  }
  if (publish.topic.empty()) cursor.Forbidden("a message without a topic");
  publish.payload = cursor.TakeRest();
  return finish(cursor, publish);
}

// Reason and properties may be left out, which means success.
Result decodeAck(PacketType type, Cursor cursor) {
  Ack ack;
  ack.type = type;
  ack.id = takePacketId(cursor);
  if (!cursor.AtEnd()) ack.reason = takeReason(cursor, type);
  if (!cursor.AtEnd()) ack.reasonText = takeReasonText(cursor, type);
  return finish(cursor, std::move(ack));
}

Result decodeSubscriptionAck(PacketType type, Cursor cursor) {
  SubscriptionAck ack;
  ack.type = type;
  ack.id = takePacketId(cursor);
  ack.reasonText = takeReasonText(cursor, type);
  if (cursor.AtEnd()) cursor.Forbidden("an answer to a subscription without a reason code");
  while (!cursor.AtEnd()) ack.reasons.push_back(takeReason(cursor, type));
  return finish(cursor, std::move(ack));
}

Result decodeDisconnect(Cursor cursor) {
  Disconnect disconnect;
  if (!cursor.AtEnd()) disconnect.reason = takeReason(cursor, PacketType::Disconnect);
  if (!cursor.AtEnd()) {
    Properties properties(cursor, PacketType::Disconnect);
    while (const std::optional<Property> property = properties.Next()) {
      if (property->id == kReasonString) {
        disconnect.reasonText = property->text;
      } else if (property->id == kServerReference) {
        disconnect.serverReference = property->text;
      } else if (property->id == kSessionExpiryInterval) {
        cursor.Forbidden("a DISCONNECT of a server with a session expiry interval");
      }
    }
  }
  return finish(cursor, std::move(disconnect));
}

Result decodeAuth(Cursor cursor) {
  Auth auth;
  bool hasMethod = false;
  bool hasData = false;
  if (!cursor.AtEnd()) auth.reason = takeReason(cursor, PacketType::Auth);
  if (!cursor.AtEnd()) {
    Properties properties(cursor, PacketType::Auth);
    while (const std::optional<Property> property = properties.Next()) {
      hasMethod = hasMethod || property->id == kAuthenticationMethod;
      hasData = hasData || property->id == kAuthenticationData;
    }
  }
  const bool needsMethod = hasData || auth.reason != kReasonSuccess;
  if (needsMethod && !hasMethod) cursor.Forbidden("an AUTH without a method");
  return finish(cursor, auth);
}

// --- encoding ------------------------------------------------------------------------------------

constexpr std::size_t sizeOfVarInt(std::size_t value) {
  return value < 0x80 ? 1 : value < 0x4000 ? 2 : value < 0x20'0000 ? 3 : 4;
}

constexpr std::size_t sizeOfField(std::string_view field) {
  return 2 + field.size();
}

std::size_t sizeOfLabels(const Labels& labels) {
  std::size_t size = 0;
  if (!labels.contentType.empty()) size += 2 + 1 + sizeOfField(labels.contentType);
  for (const auto& [name, value] : labels.user) size += 1 + sizeOfField(name) + sizeOfField(value);
  return size;
}

std::size_t sizeOfProperties(const Publication& publication) {
  const std::string& correlation = publication.correlation;
  return sizeOfLabels(publication.labels) +
         (correlation.empty() ? 0 : 1 + sizeOfField(correlation));
}

std::size_t sizeOfBody(const Publication& publication, std::uint8_t qos) {
  const std::size_t propertyBytes = sizeOfProperties(publication);
  return sizeOfField(publication.topic) + (qos > 0 ? sizeof(PacketId) : 0) +
         sizeOfVarInt(propertyBytes) + propertyBytes + publication.payload.size();
}

// Writes a packet whose type, flags and body length are known in advance.
class Writer {
 public:
  Writer(PacketType type, unsigned flags, std::size_t bodyBytes) {
    m_bytes.reserve(1 + sizeOfVarInt(bodyBytes) + bodyBytes);
    Byte(static_cast<unsigned>(type) << 4U | flags);
    VarInt(bodyBytes);
  }

  Writer& Byte(unsigned value) {
    m_bytes.push_back(static_cast<char>(static_cast<std::uint8_t>(value)));
    return *this;
  }
  Writer& U16(std::size_t value) {
    const auto number = static_cast<unsigned>(value);
    return Byte(number >> 8U).Byte(number);
  }
  Writer& U32(std::uint32_t value) { return U16(value >> 16U).U16(value); }
  Writer& VarInt(std::size_t value) {
    for (; value >= 0x80; value >>= 7U) Byte(static_cast<unsigned>(value) | 0x80U);
    return Byte(static_cast<unsigned>(value));
  }
  Writer& Bytes(std::string_view bytes) {
    m_bytes.append(bytes);
    return *this;
  }
  Writer& Field(std::string_view field) { return U16(field.size()).Bytes(field); }
  Writer& PropertiesOf(const Labels& labels) {
    if (!labels.contentType.empty()) {
      Byte(kPayloadFormatIndicator).Byte(1).Byte(kContentType).Field(labels.contentType);
    }
    for (const auto& [name, value] : labels.user) Byte(kUserProperty).Field(name).Field(value);
    return *this;
  }

  std::string Take() { return std::move(m_bytes); }

 private:
  std::string m_bytes;
};

}  // namespace

Result Decode(std::uint8_t firstByte, std::string_view body, bool isCut) {
  const auto type = static_cast<PacketType>(firstByte >> 4U);
  const std::uint8_t flags = firstByte & 0x0FU;
  Cursor cursor(body);
  if (type == PacketType::Publish) return decodePublish(flags, cursor, isCut);
  if (flags != (type == PacketType::PubRel ? 0x02 : 0x00)) cursor.Malformed("reserved flags");
  switch (type) {
    case PacketType::ConnAck:
      return decodeConnAck(cursor);
    case PacketType::PubAck:
    case PacketType::PubRec:
    case PacketType::PubRel:
    case PacketType::PubComp:
      return decodeAck(type, cursor);
    case PacketType::SubAck:
    case PacketType::UnsubAck:
      return decodeSubscriptionAck(type, cursor);
    case PacketType::PingResp:
      return finish(cursor, PingResp{});
    case PacketType::Disconnect:
      return decodeDisconnect(cursor);
    case PacketType::Auth:
      return decodeAuth(cursor);
    default:
      return Fault{kReasonProtocolError, "a packet that no server sends"};
  }
}

std::string EncodeConnect(const Connect& connect) {
  const bool hasWill = !connect.willTopic.empty();
  const bool hasUser = !connect.user.empty();
  const bool hasPassword = !connect.password.empty();
  const bool hasExpiry = connect.sessionExpirySeconds != 0;
  const bool hasReceiveMaximum = connect.receiveMaximum != 65535;
  const std::size_t propertyBytes = (hasExpiry ? 5U : 0U) + (hasReceiveMaximum ? 3U : 0U);
  const std::size_t willPropertyBytes = sizeOfLabels(connect.willLabels);
  constexpr std::string_view kProtocol = "MQTT";
  const std::size_t bodyBytes =
      sizeOfField(kProtocol) + 4 + 1 + propertyBytes + sizeOfField(connect.clientId) +
      (hasWill ? sizeOfVarInt(willPropertyBytes) + willPropertyBytes +
                     sizeOfField(connect.willTopic) + sizeOfField(connect.will)
               : 0) +
      (hasUser ? sizeOfField(connect.user) : 0) + (hasPassword ? sizeOfField(connect.password) : 0);

  Writer writer(PacketType::Connect, 0, bodyBytes);
  writer.Field(kProtocol).Byte(5);
  writer.Byte((hasUser ? 0x80U : 0U) | (hasPassword ? 0x40U : 0U) |
              (hasWill ? 0x04U | unsigned{connect.willQos} << 3U : 0U) |
              (hasWill && connect.willRetain ? 0x20U : 0U));
  writer.U16(connect.keepAliveSeconds).VarInt(propertyBytes);
  if (hasExpiry) writer.Byte(kSessionExpiryInterval).U32(connect.sessionExpirySeconds);
  if (hasReceiveMaximum) writer.Byte(kReceiveMaximum).U16(connect.receiveMaximum);
  writer.Field(connect.clientId);
  if (hasWill) {
    writer.VarInt(willPropertyBytes).PropertiesOf(connect.willLabels);
    writer.Field(connect.willTopic).Field(connect.will);
  }
  if (hasUser) writer.Field(connect.user);
  if (hasPassword) writer.Field(connect.password);
  return writer.Take();
}

std::string EncodePublish(const Publication& publication, std::uint8_t qos, PacketId id) {
  Writer writer(PacketType::Publish, unsigned{qos} << 1U | (publication.retain ? 1U : 0U),
                sizeOfBody(publication, qos));
  writer.Field(publication.topic);
  if (qos > 0) writer.U16(id);
  writer.VarInt(sizeOfProperties(publication)).PropertiesOf(publication.labels);
  if (!publication.correlation.empty())
    writer.Byte(kCorrelationData).Field(publication.correlation);
  return writer.Bytes(publication.payload).Take();
}

std::size_t SizeOfPublish(const Publication& publication, std::uint8_t qos) {
  const std::size_t bodyBytes = sizeOfBody(publication, qos);
  return 1 + sizeOfVarInt(bodyBytes) + bodyBytes;
}

void MarkAsSentAgain(std::string& publish) {
  publish.front() = static_cast<char>(static_cast<std::uint8_t>(publish.front()) | 0x08U);
}

std::string EncodeAck(PacketType type, PacketId id, std::uint8_t reason) {
  const bool hasReason = reason != kReasonSuccess;
  Writer writer(type, type == PacketType::PubRel ? 2 : 0, hasReason ? 3 : 2);
  writer.U16(id);
  if (hasReason) writer.Byte(reason);
  return writer.Take();
}

std::string EncodeSubscribe(PacketId id, const Subscription& subscription) {
  constexpr unsigned kNoLocal = 0x04;
  constexpr unsigned kWithoutRetained = 0x20;
  return Writer(PacketType::Subscribe, 2, 2 + 1 + sizeOfField(subscription.filter) + 1)
      .U16(id)
      .VarInt(0)
      .Field(subscription.filter)
      .Byte(subscription.qos | (subscription.noLocal ? kNoLocal : 0U) |
            (subscription.sendRetained ? 0U : kWithoutRetained))
      .Take();
}

std::string EncodeUnsubscribe(PacketId id, std::string_view filter) {
  return Writer(PacketType::Unsubscribe, 2, 2 + 1 + sizeOfField(filter))
      .U16(id)
      .VarInt(0)
      .Field(filter)
      .Take();
}

std::string EncodePingReq() {
  return Writer(PacketType::PingReq, 0, 0).Take();
}

std::string EncodeDisconnect(std::uint8_t reason) {
  const bool hasReason = reason != kReasonSuccess;
  Writer writer(PacketType::Disconnect, 0, hasReason ? 1 : 0);
  if (hasReason) writer.Byte(reason);
  return writer.Take();
}

}  // namespace Lumo::Mqtt
