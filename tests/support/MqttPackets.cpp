#include "MqttPackets.h"

#include <stdexcept>
#include <utility>

namespace broker {
namespace {

std::uint8_t firstByte(Type type, unsigned flags = 0) {
  return static_cast<std::uint8_t>(unsigned{type} << 4U | flags);
}

// The fields of a packet, one after the other.
class Fields {
 public:
  explicit Fields(std::string_view rest) : m_rest(rest) {}

  bool AtEnd() const { return m_rest.empty(); }
  std::uint32_t Number(unsigned bytes) {
    std::uint32_t value = 0;
    for (const char byte : Bytes(bytes)) value = value << 8U | static_cast<unsigned char>(byte);
    return value;
  }
  std::uint8_t Byte() { return static_cast<std::uint8_t>(Number(1)); }
  std::uint16_t U16() { return static_cast<std::uint16_t>(Number(2)); }
  std::uint16_t Id() {
    const std::uint16_t id = U16();
    if (id == 0) throw std::runtime_error("an identifier that is 0");
    return id;
  }
  std::string Text() { return std::string(Bytes(U16())); }
  Fields Properties() { return Fields(Bytes(Length())); }
  std::size_t Length() {
    std::size_t value = 0;
    for (unsigned shift = 0; shift < 28; shift += 7) {
      const std::uint8_t byte = Byte();
      value |= std::size_t{byte & 0x7FU} << shift;
      if (byte < 0x80) return value;
    }
    throw std::runtime_error("a length of more than four bytes");
  }
  std::string Rest() { return std::string(Bytes(m_rest.size())); }
  std::string_view Bytes(std::size_t count) {
    if (count > m_rest.size()) throw std::runtime_error("a field that runs over the end");
    const std::string_view bytes = m_rest.substr(0, count);
    m_rest.remove_prefix(count);
    return bytes;
  }

 private:
  std::string_view m_rest;
};

MessageProperties readMessageProperties(Fields fields) {
  MessageProperties properties;
  while (!fields.AtEnd()) {
    switch (fields.Byte()) {
      case kPayloadFormat:
        properties.isUtf8 = fields.Byte() == 1;
        break;
      case kContentType:
        properties.contentType = fields.Text();
        break;
      case kCorrelationData:
        properties.correlation = fields.Text();
        break;
      case kUserProperty: {
        std::string name = fields.Text();
        properties.user.emplace_back(std::move(name), fields.Text());
        break;
      }
      default:
        throw std::runtime_error("a property that is not expected");
    }
  }
  return properties;
}

void readConnect(Fields& fields, ClientPacket& packet) {
  if (fields.Text() != "MQTT" || fields.Byte() != 5) throw std::runtime_error("not MQTT 5");
  const std::uint8_t flags = fields.Byte();
  packet.cleanStart = (flags & 0x02U) != 0;
  packet.hasWill = (flags & 0x04U) != 0;
  packet.willQos = flags >> 3U & 0x03U;
  packet.willRetain = (flags & 0x20U) != 0;
  packet.keepAlive = fields.U16();
  for (Fields properties = fields.Properties(); !properties.AtEnd();) {
    switch (properties.Byte()) {
      case kSessionExpiryInterval:
        packet.sessionExpiry = properties.Number(4);
        break;
      case kReceiveMaximum:
        packet.receiveMaximum = properties.U16();
        if (packet.receiveMaximum == 0) throw std::runtime_error("a Receive Maximum of 0");
        break;
      default:
        throw std::runtime_error("a property that no CONNECT should have");
    }
  }
  packet.clientId = fields.Text();
  if (packet.hasWill) {
    packet.willProperties = readMessageProperties(fields.Properties());
    packet.willTopic = fields.Text();
    packet.will = fields.Text();
  }
  if ((flags & 0x80U) != 0) packet.user = fields.Text();
  if ((flags & 0x40U) != 0) packet.password = fields.Text();
}

void readPublish(Fields& fields, unsigned flags, ClientPacket& packet) {
  packet.again = (flags & 0x08U) != 0;
  packet.qos = flags >> 1U & 0x03U;
  packet.retain = (flags & 0x01U) != 0;
  packet.topic = fields.Text();
  if (packet.qos > 2) throw std::runtime_error("a PUBLISH of QoS 3");
  if (packet.qos > 0) packet.id = fields.Id();
  if (packet.qos == 0 && packet.again) throw std::runtime_error("DUP at QoS 0");
  packet.properties = readMessageProperties(fields.Properties());
  packet.payload = fields.Rest();
}

ClientPacket read(std::uint8_t firstByte, std::string_view body) {
  ClientPacket packet;
  packet.type = static_cast<Type>(firstByte >> 4U);
  const unsigned flags = firstByte & 0x0FU;
  Fields fields(body);
  const bool hasFlag2 =
      packet.type == kPubRel || packet.type == kSubscribe || packet.type == kUnsubscribe;
  if (packet.type != kPublish && flags != (hasFlag2 ? 2U : 0U)) {
    throw std::runtime_error("reserved flags");
  }
  switch (packet.type) {
    case kConnect:
      readConnect(fields, packet);
      break;
    case kPublish:
      readPublish(fields, flags, packet);
      break;
    case kPubAck:
    case kPubRec:
    case kPubRel:
    case kPubComp:
      packet.id = fields.Id();
      if (!fields.AtEnd()) packet.reason = fields.Byte();
      break;
    case kSubscribe:
    case kUnsubscribe:
      packet.id = fields.Id();
      fields.Properties();
      packet.filter = fields.Text();
      if (packet.type == kSubscribe) packet.options = fields.Byte();
      break;
    case kPingReq:
      break;
    case kDisconnect:
      if (!fields.AtEnd()) packet.reason = fields.Byte();
      break;
    default:
      throw std::runtime_error("a packet that no client sends");
  }
  if (!fields.AtEnd()) throw std::runtime_error("bytes that are left over");
  return packet;
}

}  // namespace

std::string Number(std::size_t value, unsigned bytes) {
  std::string text;
  for (unsigned place = bytes; place-- > 0;) {
    text.push_back(static_cast<char>(static_cast<unsigned char>(value >> 8U * place & 0xFFU)));
  }
  return text;
}

std::string Length(std::size_t value) {
  std::string bytes;
  for (; value >= 0x80; value /= 0x80) bytes += Number(value % 0x80 + 0x80, 1);
  return bytes + Number(value, 1);
}

std::string Text(std::string_view text) {
  return Number(text.size(), 2) + std::string(text);
}

std::string Property(std::uint8_t id, const std::string& value) {
  return Number(id, 1) + value;
}

std::string AnswerProperties(std::string_view responseTopic, std::string_view correlation) {
  return Property(kResponseTopic, Text(responseTopic)) +
         Property(kCorrelationData, Text(correlation));
}

std::string WithLength(const std::string& properties) {
  return Length(properties.size()) + properties;
}

std::string Whole(std::uint8_t firstByte, const std::string& body) {
  return Number(firstByte, 1) + WithLength(body);
}

std::string ConnAck(const Acceptance& acceptance) {
  std::string properties;
  const auto add = [&properties](PropertyId id, const auto& number, unsigned bytes) {
    if (number) properties += Property(id, Number(*number, bytes));
  };
  add(kReceiveMaximum, acceptance.receiveMaximum, 2);
  add(kMaximumQos, acceptance.maximumQos, 1);
  add(kRetainAvailable, acceptance.retainAvailable, 1);
  add(kMaximumPacketSize, acceptance.maximumPacketSize, 4);
  add(kServerKeepAlive, acceptance.keepAlive, 2);
  if (acceptance.clientId) {
    properties += Property(kAssignedClientIdentifier, Text(*acceptance.clientId));
  }
  if (!acceptance.reasonText.empty()) {
    properties += Property(kReasonString, Text(acceptance.reasonText));
  }
  return ConnAckWith(acceptance.sessionPresent, acceptance.reason, properties);
}

std::string ConnAckWith(bool sessionPresent, std::uint8_t reason, const std::string& properties) {
  return Whole(firstByte(kConnAck),
               Number(sessionPresent ? 1 : 0, 1) + Number(reason, 1) + WithLength(properties));
}

std::string Publish(const Message& message) {
  std::string properties;
  if (!message.responseTopic.empty()) {
    properties += Property(kResponseTopic, Text(message.responseTopic));
  }
  if (!message.correlation.empty()) {
    properties += Property(kCorrelationData, Text(message.correlation));
  }
  const unsigned flags =
      (message.again ? 8U : 0U) | unsigned{message.qos} << 1U | (message.retain ? 1U : 0U);
  return Publish(message.id, message.topic, message.payload, properties,
                 firstByte(kPublish, flags));
}

std::string Publish(std::uint16_t id, const std::string& topic, const std::string& payload,
                    const std::string& properties, unsigned firstByte) {
  const bool hasId = (firstByte & 0x06U) != 0;
  return Whole(
      static_cast<std::uint8_t>(firstByte),
      Text(topic) + (hasId ? Number(id, 2) : std::string()) + WithLength(properties) + payload);
}

std::string Ack(Type type, std::uint16_t id, std::uint8_t reason, const std::string& text) {
  std::string body = Number(id, 2);
  if (reason != 0 || !text.empty()) body += Number(reason, 1);
  if (!text.empty()) body += WithLength(Property(kReasonString, Text(text)));
  return Whole(firstByte(type, type == kPubRel ? 2 : 0), body);
}

std::string Subscribed(Type type, std::uint16_t id, const std::vector<std::uint8_t>& reasons) {
  std::string body = Number(id, 2) + WithLength({});
  for (const std::uint8_t reason : reasons) body += Number(reason, 1);
  return Whole(firstByte(type), body);
}

std::string PingResp() {
  return Whole(firstByte(kPingResp), {});
}

std::string Disconnect(std::uint8_t reason, const std::string& text) {
  std::string body = Number(reason, 1);
  if (!text.empty()) body += WithLength(Property(kReasonString, Text(text)));
  return Whole(firstByte(kDisconnect), body);
}

std::vector<ClientPacket> ClientReader::Take(std::string_view bytes) {
  m_bytes.append(bytes);
  std::vector<ClientPacket> packets;
  std::string_view rest = m_bytes;
  while (rest.size() >= 2) {
    std::size_t lengthBytes = 1;
    while (lengthBytes < rest.size() && static_cast<unsigned char>(rest[lengthBytes]) >= 0x80 &&
           lengthBytes < 4) {
      ++lengthBytes;
    }
    if (lengthBytes == rest.size()) break;
    const std::size_t bodyBytes = Fields(rest.substr(1)).Length();
    if (rest.size() - 1 - lengthBytes < bodyBytes) break;
    packets.push_back(
        read(static_cast<std::uint8_t>(rest.front()), rest.substr(1 + lengthBytes, bodyBytes)));
    packets.back().bytes = 1 + lengthBytes + bodyBytes;
    rest.remove_prefix(packets.back().bytes);
  }
  m_bytes.erase(0, m_bytes.size() - rest.size());
  return packets;
}

}  // namespace broker
