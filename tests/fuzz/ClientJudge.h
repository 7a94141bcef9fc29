#ifndef TESTS_FUZZ_CLIENTJUDGE_H
#define TESTS_FUZZ_CLIENTJUDGE_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Contract.h"
#include "ContractLedger.h"
#include "Judges.h"
#include "MqttPackets.h"
#include "Require.h"
#include "link/Topics.h"
#include "payload/Payload.h"

namespace fuzz {

// Judges what a device service sends, and what it hands to its plug-in, by what was sent to it. It
// knows the bytes in both directions and nothing else: what the service makes of wrong bytes is not
// foreseen, so for each thing it only knows how often it may happen at most.
class ClientJudge {
 public:
  // What a plug-in is asked.
  struct Request {
    bool isGet;
    std::vector<std::string> names;
    bool operator<(const Request& other) const {
      return std::pair(isGet, names) < std::pair(other.isGet, other.names);
    }
  };

  explicit ClientJudge(const Lumo::Topics& topics) : m_topics(topics) {}

  // There is a new connection.
  void Begin() {
    m_mayNotRetain = mayNotRetain();
    m_isFirst = m_isFirst && !m_connection.hasBegun;
    m_connection = {};
  }

  void NoteSent(std::string_view bytes) {
    m_connection.isFirst = m_connection.isFirst && bytes.empty();
    if (m_connection.isLost) return;
    m_connection.sent.append(bytes);
    std::string_view rest = m_connection.sent;
    while (true) {
      Fields packet(rest);
      const auto firstByte = static_cast<std::uint8_t>(packet.Number(1));
      const std::string_view body = packet.Bytes(packet.Length());
      m_connection.isLost = packet.HasWrongLength();
      if (packet.IsWrong()) break;
      noteSentPacket(firstByte, body);
      rest = packet.Rest();
    }
    m_connection.sent.erase(0, m_connection.sent.size() - rest.size());
  }

  // The CONNACK that is sent next. It counts when nothing was sent before it.
  void NoteAcceptance(const broker::Acceptance& acceptance) {
    if (m_connection.isFirst) m_connection.limits = acceptance;
  }

  // Breaks a rule, or gives the packets that these bytes complete.
  std::vector<broker::ClientPacket> NoteReceived(std::string_view bytes) {
    std::vector<broker::ClientPacket> packets;
    try {
      packets = m_connection.reader.Take(bytes);
    } catch (const std::exception& e) {
      Break("what a service sends is MQTT", e.what());
    }
    for (const broker::ClientPacket& packet : packets) judge(packet);
    return packets;
  }

  // True when all that was sent over the connection is whole packets, as far as their lengths go.
  bool IsBetweenPackets() const { return m_connection.sent.empty() && !m_connection.isLost; }

  // Each request must have been made by a message of its own.
  void CheckHandedOn(const std::vector<Request>& requests) const {
    std::map<Request, int> left = m_requests;
    for (const Request& request : requests) {
      const auto found = left.find(request);
      const bool isKnown = found != left.end() && found->second-- > 0;
      if (!isKnown) Break("a request is handed on once per message", Show(request.names));
    }
  }

 private:
  // What has a length cannot run over the end: then there is nothing, and all that follows is
  // nothing.
  class Fields {
   public:
    explicit Fields(std::string_view rest) : m_rest(rest) {}

    bool IsWrong() const { return m_isWrong; }
    bool HasWrongLength() const { return m_hasWrongLength; }
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
      m_isWrong = m_hasWrongLength = true;
      return 0;
    }
    std::string_view Rest() { return Bytes(m_rest.size()); }

   private:
    std::string_view m_rest;
    bool m_isWrong = false;
    bool m_hasWrongLength = false;
  };

  // A PUBLISH that was sent.
  struct Message {
    unsigned qos;
    bool retain;
    std::string topic;
    std::uint16_t id = 0;
    std::string_view content;  // properties and payload
    std::string responseTopic;
    std::string correlation;
    std::string_view payload;
  };

  // What is known of a connection.
  struct Connection {
    std::string sent;     // of a packet that is not complete
    bool isLost = false;  // a length was none
    bool isAccepted = false;
    bool isFirst = true;                                         // nothing was sent
    std::optional<broker::Acceptance> limits;                    // that the service knows
    std::map<std::uint16_t, std::string> unreleased;             // contents of messages of QoS 2
    std::map<std::pair<broker::Type, std::uint16_t>, int> owed;  // acknowledgements
    std::set<std::uint16_t> acknowledged;                        // identifiers of the client
    std::set<std::uint16_t> inFlight;                            // of publications
    std::set<std::uint16_t> used;                                // likewise
    broker::ClientReader reader;
    bool hasBegun = false;
    bool hasEnded = false;
  };

  void noteSentPacket(std::uint8_t firstByte, std::string_view body) {
    Fields fields(body);
    switch (firstByte >> 4U) {
      case broker::kConnAck:
        m_connection.isAccepted = true;
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
          const std::size_t property = properties.Number(1);
          if (property == 3 || property == 8 || property == 9 || property == 38) {
            const std::string text = properties.Text();
            if (property == 8) message.responseTopic = text;
            if (property == 9) message.correlation = text;
            if (property == 38) properties.Text();  // the value of a User Property
          } else if (property == 1 || property == 2) {
            properties.Bytes(property == 1 ? 1 : 4);  // Payload Format, Message Expiry Interval
          } else if (property == 11) {
            properties.Length();  // Subscription Identifier
          } else {
            return;  // no such message is taken
          }
        }
        if (!fields.IsWrong() && !content.IsWrong() && !properties.IsWrong())
          noteSentMessage(message);
        break;
      }
      case broker::kPubRec:
        ++m_connection.owed[{broker::kPubRel, fields.Id()}];
        break;
      case broker::kPubRel: {
        const std::uint16_t id = fields.Id();
        m_connection.unreleased.erase(id);
        ++m_connection.owed[{broker::kPubComp, id}];
        break;
      }
      case broker::kPubAck:
      case broker::kSubAck:
      case broker::kUnsubAck: {
        const std::uint16_t id = fields.Id();
        m_connection.acknowledged.insert(id);
        m_connection.inFlight.erase(id);
        break;
      }
      default:
        break;
    }
  }

  void noteSentMessage(const Message& message) {
    if (message.qos == 1) ++m_connection.owed[{broker::kPubAck, message.id}];
    if (message.qos == 2) {
      ++m_connection.owed[{broker::kPubRec, message.id}];
      std::string content = message.topic + '\0' + std::string(message.content);
      const auto [place, isNew] = m_connection.unreleased.emplace(message.id, content);
      if (!isNew && place->second == content) return;
      place->second = std::move(content);
    }
    const bool isRequest = message.topic == m_topics.Get() || message.topic == m_topics.Set();
    if (isRequest && !message.retain) noteRequest(message);
  }

  void noteRequest(const Message& message) {
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

  void judge(const broker::ClientPacket& packet) {
    Require(!m_connection.hasEnded, "nothing comes after a DISCONNECT");
    RequireEqual(packet.type == broker::kConnect, !m_connection.hasBegun,
                 "a connection begins with a CONNECT");
    m_connection.hasBegun = true;
    m_connection.hasEnded = packet.type == broker::kDisconnect;
    switch (packet.type) {
      case broker::kConnect:
        Require(!packet.cleanStart && packet.sessionExpiry > 0, "a session is to be kept");
        RequireEqual(packet.willTopic, m_topics.Status(), "a service that is lost is offline");
        // A broker may have refused it as it was.
        requireContract("status", "offline",
                        {packet.willTopic, packet.will, m_isFirst ? packet.willQos : 1,
                         !m_isFirst || packet.willRetain, propertiesOf(packet.willProperties)});
        return;
      case broker::kDisconnect:
        return;
      default:
        Require(m_connection.isAccepted, "nothing is sent before the CONNACK");
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
        Require(m_connection.owed[{packet.type, packet.id}]-- > 0, "what is acknowledged was sent");
        break;
      default:
        break;
    }
  }

  void takeId(std::uint16_t id) {
    const bool isNew = m_connection.used.insert(id).second;
    Require(isNew || m_connection.acknowledged.count(id) != 0,
            "an identifier is not used again before its acknowledgement");
  }

  void judgePublication(const broker::ClientPacket& packet) {
    Require(packet.qos < 2, "nothing is published at QoS 2");
    if (packet.qos > 0 && m_connection.acknowledged.count(packet.id) == 0)
      m_connection.inFlight.insert(packet.id);
    if (m_connection.limits) {
      Require(packet.qos <= m_connection.limits->maximumQos.value_or(2),
              "no QoS is above the broker's");
      Require(!packet.retain || m_connection.limits->retainAvailable.value_or(1) != 0,
              "nothing is retained where the broker cannot");
      Require(!m_connection.limits->maximumPacketSize ||
                  packet.bytes <= *m_connection.limits->maximumPacketSize,
              "no packet is larger than the broker takes");
      Require(!m_connection.limits->receiveMaximum ||
                  m_connection.inFlight.size() <= *m_connection.limits->receiveMaximum,
              "no more is in flight than the broker takes");
    }
    Require(JudgeTopic(packet.topic), "what is published has a topic");
    if (!packet.payload.empty()) RequirePayload(packet.payload);
    judgeByContract(packet);
    const bool isOwn = packet.topic == m_topics.Status() || packet.topic == m_topics.Health() ||
                       packet.topic == m_topics.Description() ||
                       m_topics.PropertyOf(packet.topic).has_value();
    if (isOwn) {
      Require(packet.properties.correlation.empty(), "only an answer says what it answers");
      return;
    }
    Require(!packet.retain, "no answer is retained");
    Require(m_answered.count({packet.topic, packet.properties.correlation}) != 0,
            "an answer goes where a request wants it");
  }

  // Not the payload: the contract is one of another service, with properties of one type.
  void judgeByContract(const broker::ClientPacket& packet) {
    const bool isStatus = packet.topic == m_topics.Status();
    const bool isValue = m_topics.PropertyOf(packet.topic).has_value();
    const bool isHealth = packet.topic == m_topics.Health();
    const bool isState = isStatus || isValue || isHealth || packet.topic == m_topics.Description();
    // The service does with less when the broker takes no more, and may know of that when this does
    // not.
    const auto& limits = m_connection.limits;
    const bool mayHaveNoQos = !limits || limits->maximumQos.value_or(2) == 0;
    const Contract::Message message{
        packet.topic, packet.payload, mayHaveNoQos && packet.qos == 0 ? 1 : packet.qos,
        mayNotRetain() ? isState : packet.retain, propertiesOf(packet.properties)};
    const bool isEmpty = packet.payload.empty();
    if (isStatus) {
      const char* const status = packet.payload == Lumo::kOnline ? "online" : "offline";
      requireContract("status", isEmpty ? "noStatus" : status, message);
    } else if (isValue) {
      requireContract("value", isEmpty ? "noValue" : "value", message);
    } else if (isHealth) {
      requireContract("health", isEmpty ? "noHealth" : "health", message);
    } else if (isState) {
      requireContract("properties", isEmpty ? "noProperties" : "properties", message);
    } else {
      requireContract("answer", "result", message);
    }
  }

  // A broker of a connection so far retains nothing, for all that is known. What waited then is not
  // retained by a later one either.
  bool mayNotRetain() const {
    const auto& limits = m_connection.limits;
    return m_mayNotRetain ||
           (m_connection.hasBegun && (!limits || limits->retainAvailable.value_or(1) == 0));
  }

  void requireContract(const std::string& channel, const std::string& name,
                       const Contract::Message& message) {
    m_ledger.TakeBesidesPayload(channel, name, message);
    for (const std::string& violation : m_ledger.TakeViolations()) {
      Break("what a service sends is in the contract", violation);
    }
  }

  static Contract::Properties propertiesOf(const broker::MessageProperties& properties) {
    Contract::Properties known;
    if (!properties.contentType.empty()) known.contentType = properties.contentType;
    if (properties.isUtf8) known.payloadFormatIndicator = 1;
    if (!properties.correlation.empty()) known.correlationData = properties.correlation;
    known.userProperties = properties.user;
    return known;
  }

  const Lumo::Topics& m_topics;
  ContractLedger m_ledger{Contract::OfProject()};
  bool m_isFirst = true;                                     // there was no earlier connection
  bool m_mayNotRetain = false;                               // in an earlier connection
  std::map<Request, int> m_requests;                         // as often as they may be handed on
  std::set<std::pair<std::string, std::string>> m_answered;  // Response Topic, Correlation Data

  Connection m_connection;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_CLIENTJUDGE_H
