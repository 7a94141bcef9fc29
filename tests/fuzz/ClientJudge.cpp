#include "ClientJudge.h"

#include <exception>

#include "Judges.h"
#include "Require.h"
#include "payload/Payload.h"

namespace fuzz {
namespace {

using broker::ClientPacket;

// What has a length cannot run over the end: then there is nothing, and all that follows is
// nothing.
class Fields {
 public:
  explicit Fields(std::string_view rest) : m_rest(rest) {}

  bool IsWrong() const { return m_isWrong; }
  bool AtEnd() const { return m_rest.empty() || m_isWrong; }
  std::string_view Bytes(std::size_t count) {
    m_isWrong = m_isWrong || count > m_rest.size();
    if (m_isWrong) return {};
    const std::string_view bytes = m_rest.substr(0, count);
    m_rest.remove_prefix(count);
    return bytes;
  }
  std::size_t Number(std::size_t bytes) {
    std::size_t value = 0;
    for (const char byte : Bytes(bytes)) value = value << 8U | static_cast<unsigned char>(byte);
    return value;
  }
  std::uint16_t Id() { return static_cast<std::uint16_t>(Number(2)); }
  std::string Text() { return std::string(Bytes(Number(2))); }
  std::size_t Length() {
    std::size_t value = 0;
    for (unsigned shift = 0; shift < 28; shift += 7) {
      const std::size_t byte = Number(1);
      value |= (byte & 0x7FU) << shift;
      if (byte < 0x80) return value;
    }
    m_isWrong = true;
    return 0;
  }
  std::string_view Rest() { return Bytes(m_rest.size()); }

 private:
  std::string_view m_rest;
  bool m_isWrong = false;
};

}  // namespace

// A PUBLISH that was sent.
struct ClientJudge::Message {
  unsigned qos;
  bool retain;
  std::string topic;
  std::uint16_t id = 0;
  std::string_view content;  // properties and payload
  std::string responseTopic;
  std::string correlation;
  std::string_view payload;
};

void ClientJudge::Begin() {
  m_sent.clear();
  m_isLost = false;
  m_isAccepted = false;
  m_isFirst = true;
  m_limits.reset();
  m_unreleased.clear();
  m_owed.clear();
  m_acknowledged.clear();
  m_inFlight.clear();
  m_used.clear();
  m_reader.Reset();
  m_hasBegun = false;
  m_hasEnded = false;
}

void ClientJudge::NoteAcceptance(const broker::Acceptance& acceptance) {
  if (m_isFirst) m_limits = acceptance;
}

void ClientJudge::NoteSent(std::string_view bytes) {
  m_isFirst = m_isFirst && bytes.empty();
  if (m_isLost) return;
  m_sent.append(bytes);
  std::string_view rest = m_sent;
  while (rest.size() >= 2) {
    std::size_t length = 0;
    std::size_t lengthBytes = 0;
    bool isWhole = false;
    while (!isWhole && lengthBytes < 4 && 1 + lengthBytes < rest.size()) {
      const auto byte = static_cast<unsigned char>(rest[1 + lengthBytes]);
      length |= std::size_t{byte & 0x7FU} << 7 * lengthBytes;
      isWhole = byte < 0x80;
      ++lengthBytes;
    }
    m_isLost = !isWhole && lengthBytes == 4;
    if (!isWhole || rest.size() - 1 - lengthBytes < length) break;
    noteSentPacket(static_cast<std::uint8_t>(rest.front()), rest.substr(1 + lengthBytes, length));
    rest.remove_prefix(1 + lengthBytes + length);
  }
  m_sent.erase(0, m_sent.size() - rest.size());
}

void ClientJudge::noteSentPacket(std::uint8_t firstByte, std::string_view body) {
  Fields fields(body);
  switch (firstByte >> 4U) {
    case broker::kConnAck:
      m_isAccepted = true;
      break;
    case broker::kPublish: {
      Message message{
          firstByte >> 1U & 0x03U, (firstByte & 0x01U) != 0, fields.Text(), 0, {}, {}, {}, {}};
      if (message.qos > 0) message.id = fields.Id();
      message.content = fields.Rest();
      Fields content(message.content);
      Fields properties(content.Bytes(content.Length()));
      message.payload = content.Rest();
      while (!properties.AtEnd()) {
        switch (properties.Number(1)) {
          case 1:  // Payload Format Indicator
            properties.Bytes(1);
            break;
          case 2:  // Message Expiry Interval
            properties.Bytes(4);
            break;
          case 3:  // Content Type
            properties.Text();
            break;
          case 8:
            message.responseTopic = properties.Text();
            break;
          case 9:
            message.correlation = properties.Text();
            break;
          case 11:  // Subscription Identifier
            properties.Length();
            break;
          case 38:  // User Property
            properties.Text();
            properties.Text();
            break;
          default:  // no such message is taken
            return;
        }
      }
      if (!fields.IsWrong() && !content.IsWrong() && !properties.IsWrong())
        noteSentMessage(message);
      break;
    }
    case broker::kPubRec:
      ++m_owed[{broker::kPubRel, fields.Id()}];
      break;
    case broker::kPubRel: {
      const std::uint16_t id = fields.Id();
      m_unreleased.erase(id);
      ++m_owed[{broker::kPubComp, id}];
      break;
    }
    case broker::kPubAck:
    case broker::kSubAck:
    case broker::kUnsubAck:
      noteAcknowledged(fields.Id());
      break;
    default:
      break;
  }
}

void ClientJudge::noteAcknowledged(std::uint16_t id) {
  m_acknowledged.insert(id);
  m_inFlight.erase(id);
}

void ClientJudge::noteSentMessage(const Message& message) {
  if (message.qos == 1) ++m_owed[{broker::kPubAck, message.id}];
  if (message.qos == 2) {
    ++m_owed[{broker::kPubRec, message.id}];
    std::string content = message.topic + '\0' + std::string(message.content);
    const auto [place, isNew] = m_unreleased.emplace(message.id, content);
    if (!isNew && place->second == content) return;
    place->second = std::move(content);
  }
  const bool isRequest = message.topic == m_topics.Get() || message.topic == m_topics.Set();
  if (isRequest && !message.retain) noteRequest(message);
}

void ClientJudge::noteRequest(const Message& message) {
  m_answered.emplace(message.responseTopic, message.correlation);
  if (message.topic == m_topics.Get()) {
    const auto names = Lumo::DecodeNames(message.payload);
    if (names.value) ++m_requests[{true, *names.value}];
    return;
  }
  const auto properties = Lumo::DecodeProperties(message.payload);
  if (!properties.value) return;
  std::vector<std::string> names;
  for (const Lumo::Property& property : *properties.value) names.push_back(property.name);
  ++m_requests[{false, names}];
}

void ClientJudge::CheckHandedOn(const std::vector<Request>& requests) const {
  std::map<Request, int> left = m_requests;
  for (const Request& request : requests) {
    const auto found = left.find(request);
    const bool isKnown = found != left.end() && found->second-- > 0;
    if (!isKnown) Break("a request is handed on once per message", Show(request.names));
  }
}

std::vector<ClientPacket> ClientJudge::NoteReceived(std::string_view bytes) {
  std::vector<ClientPacket> packets;
  try {
    packets = m_reader.Take(bytes);
  } catch (const std::exception& e) {
    Break("what a service sends is MQTT", e.what());
  }
  for (const ClientPacket& packet : packets) judge(packet);
  return packets;
}

void ClientJudge::judge(const ClientPacket& packet) {
  Require(!m_hasEnded, "nothing comes after a DISCONNECT");
  RequireEqual(packet.type == broker::kConnect, !m_hasBegun, "a connection begins with a CONNECT");
  m_hasBegun = true;
  m_hasEnded = packet.type == broker::kDisconnect;
  switch (packet.type) {
    case broker::kConnect:
      Require(!packet.cleanStart && packet.sessionExpiry > 0, "a session is to be kept");
      RequireEqual(packet.willTopic, m_topics.Status(), "a service that is lost is offline");
      return;
    case broker::kDisconnect:
      return;
    default:
      Require(m_isAccepted, "nothing is sent before the CONNACK");
  }
  switch (packet.type) {
    case broker::kPublish:
      if (packet.qos > 0) takeId(packet.id);
      judgePublication(packet);
      break;
    case broker::kSubscribe:
    case broker::kUnsubscribe:
      takeId(packet.id);
      break;
    case broker::kPubAck:
    case broker::kPubRec:
    case broker::kPubRel:
    case broker::kPubComp:
      Require(m_owed[{packet.type, packet.id}]-- > 0, "what is acknowledged was sent");
      break;
    default:
      break;
  }
}

void ClientJudge::takeId(std::uint16_t id) {
  const bool isNew = m_used.insert(id).second;
  Require(isNew || m_acknowledged.count(id) != 0,
          "an identifier is not used again before its acknowledgement");
}

void ClientJudge::judgePublication(const ClientPacket& packet) {
  Require(packet.qos < 2, "nothing is published at QoS 2");
  if (packet.qos > 0 && m_acknowledged.count(packet.id) == 0) m_inFlight.insert(packet.id);
  if (m_limits) {
    Require(packet.qos <= m_limits->maximumQos.value_or(2), "no QoS is above the broker's");
    Require(!packet.retain || m_limits->retainAvailable.value_or(1) != 0,
            "nothing is retained where the broker cannot");
    Require(!m_limits->maximumPacketSize || packet.bytes <= *m_limits->maximumPacketSize,
            "no packet is larger than the broker takes");
    Require(!m_limits->receiveMaximum || m_inFlight.size() <= *m_limits->receiveMaximum,
            "no more is in flight than the broker takes");
  }
  Require(JudgeTopic(packet.topic), "what is published has a topic");
  if (!packet.payload.empty()) RequirePayload(packet.payload);
  const bool isOwn = packet.topic == m_topics.Status() || packet.topic == m_topics.Description() ||
                     m_topics.PropertyOf(packet.topic).has_value();
  if (isOwn) {
    Require(packet.correlation.empty(), "only an answer says what it answers");
    return;
  }
  Require(!packet.retain, "no answer is retained");
  Require(m_answered.count({packet.topic, packet.correlation}) != 0,
          "an answer goes where a request wants it");
}

}  // namespace fuzz
