#ifndef TESTS_SUPPORT_MQTTPACKETS_H
#define TESTS_SUPPORT_MQTTPACKETS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// MQTT 5 packets as a broker writes and reads them, apart from the client's own codec.
namespace broker {

// The type is the upper half of a packet's first byte.
enum Type : std::uint8_t {
  kConnect = 1,
  kConnAck = 2,
  kPublish = 3,
  kPubAck = 4,
  kPubRec = 5,
  kPubRel = 6,
  kPubComp = 7,
  kSubscribe = 8,
  kSubAck = 9,
  kUnsubscribe = 10,
  kUnsubAck = 11,
  kPingReq = 12,
  kPingResp = 13,
  kDisconnect = 14,
  kAuth = 15
};

enum PropertyId : std::uint8_t {
  kPayloadFormat = 0x01,
  kContentType = 0x03,
  kResponseTopic = 0x08,
  kCorrelationData = 0x09,
  kSubscriptionIdentifier = 0x0B,
  kSessionExpiryInterval = 0x11,
  kAssignedClientIdentifier = 0x12,
  kServerKeepAlive = 0x13,
  kResponseInformation = 0x1A,
  kServerReference = 0x1C,
  kReasonString = 0x1F,
  kReceiveMaximum = 0x21,
  kTopicAliasMaximum = 0x22,
  kTopicAlias = 0x23,
  kMaximumQos = 0x24,
  kRetainAvailable = 0x25,
  kUserProperty = 0x26,
  kMaximumPacketSize = 0x27,
  kWildcardsAvailable = 0x28,
  kSubscriptionIdsAvailable = 0x29,
  kSharedSubscriptionsAvailable = 0x2A
};

// --- writing -------------------------------------------------------------------------------------

std::string Number(std::size_t value, unsigned bytes);  // the highest byte first
std::string Length(std::size_t value);                  // in as many bytes as it needs
std::string Text(std::string_view text);                // behind its length
std::string Property(std::uint8_t id, const std::string& value);
// What a request has for its answer.
std::string AnswerProperties(std::string_view responseTopic, std::string_view correlation);
std::string WithLength(const std::string& properties);
// A packet of the body's length.
std::string Whole(std::uint8_t firstByte, const std::string& body);

struct Acceptance {
  bool sessionPresent = false;
  std::uint8_t reason = 0;
  std::optional<std::uint16_t> receiveMaximum;
  std::optional<std::uint8_t> maximumQos;
  std::optional<std::uint8_t> retainAvailable;
  std::optional<std::uint32_t> maximumPacketSize;
  std::optional<std::uint16_t> keepAlive;
  std::optional<std::string> clientId;
  std::string reasonText;
};
std::string ConnAck(const Acceptance& acceptance);
// With any properties, without their length.
std::string ConnAckWith(bool sessionPresent, std::uint8_t reason = 0,
                        const std::string& properties = {});

struct Message {
  std::uint8_t qos = 2;
  std::uint16_t id = 0;
  std::string topic;
  std::string payload;
  bool again = false;
  bool retain = false;
  std::string responseTopic;
  std::string correlation;
};
std::string Publish(const Message& message);
// With any first byte and properties; `id` belongs to QoS 1 and 2 only.
std::string Publish(std::uint16_t id, const std::string& topic, const std::string& payload,
                    const std::string& properties = {}, unsigned firstByte = 0x34);
// PUBACK, PUBREC, PUBREL or PUBCOMP.
std::string Ack(Type type, std::uint16_t id, std::uint8_t reason = 0, const std::string& text = {});
// SUBACK or UNSUBACK.
std::string Subscribed(Type type, std::uint16_t id, const std::vector<std::uint8_t>& reasons);
std::string PingResp();
std::string Disconnect(std::uint8_t reason, const std::string& text = {});

// --- reading -------------------------------------------------------------------------------------

// The properties of a message that a client sends.
struct MessageProperties {
  bool isUtf8 = false;  // its Payload Format Indicator
  std::string contentType;
  std::string correlation;
  std::vector<std::pair<std::string, std::string>> user;
};

// A packet of a client, with the fields that its type has.
struct ClientPacket {
  Type type = kPingReq;
  std::size_t bytes = 0;
  std::uint16_t id = 0;
  std::uint8_t reason = 0;  // of an acknowledgement or a DISCONNECT
  // PUBLISH
  std::uint8_t qos = 0;
  bool again = false;
  bool retain = false;
  std::string topic;
  std::string payload;
  MessageProperties properties;
  // SUBSCRIBE and UNSUBSCRIBE
  std::string filter;
  std::uint8_t options = 0;
  // CONNECT
  bool cleanStart = false;
  std::uint16_t keepAlive = 0;
  std::uint32_t sessionExpiry = 0;
  std::uint16_t receiveMaximum = 65535;
  std::string clientId;
  bool hasWill = false;
  std::uint8_t willQos = 0;
  bool willRetain = false;
  std::string willTopic;
  std::string will;
  MessageProperties willProperties;
  std::string user;
  std::string password;
};

// Takes the stream of a client apart. It throws std::runtime_error when a client must not send what
// it reads.
class ClientReader {
 public:
  // The packets that these bytes complete.
  std::vector<ClientPacket> Take(std::string_view bytes);
  // Bytes of a packet that is not complete.
  std::size_t Begun() const { return m_bytes.size(); }
  // For a new connection.
  void Reset() { m_bytes.clear(); }

 private:
  std::string m_bytes;
};

}  // namespace broker

#endif  // TESTS_SUPPORT_MQTTPACKETS_H
