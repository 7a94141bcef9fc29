#include "PacketMutator.h"

#include <algorithm>
#include <array>

#include "MqttBytes.h"

namespace {

using MqttBytes::Byte;
using MqttBytes::FourBytes;
using MqttBytes::Packet;
using MqttBytes::Text;
using MqttBytes::TwoBytes;

constexpr unsigned kMutationsPerPacket = 4;
constexpr std::size_t kPacketsInARow = 4;

// Bytes at which something ends or begins.
constexpr std::array<unsigned char, 8> kEdges{0x00, 0x01, 0x7F, 0x80, 0x81, 0xFE, 0xFF, 0x20};

std::string userProperty() {
  return Byte(0x26) + Text("name") + Text("value");
}

// One of each kind.
std::vector<std::string> allProperties() {
  return {Byte(0x01) + Byte(1),
          Byte(0x02) + FourBytes(60),
          Byte(0x03) + Text("text/plain"),
          MqttBytes::ResponseTopic("answers/here"),
          MqttBytes::CorrelationData("correlation"),
          Byte(0x0B) + Byte(7),
          Byte(0x11) + FourBytes(10),
          Byte(0x12) + Text("another"),
          Byte(0x13) + TwoBytes(30),
          Byte(0x15) + Text("method"),
          Byte(0x16) + Text("data"),
          Byte(0x1A) + Text("information"),
          Byte(0x1C) + Text("127.0.0.1:1"),
          Byte(0x1F) + Text("a reason"),
          Byte(0x21) + TwoBytes(1),
          Byte(0x22) + TwoBytes(10),
          Byte(0x23) + TwoBytes(1),
          Byte(0x24) + Byte(1),
          Byte(0x25) + Byte(0),
          userProperty(),
          Byte(0x27) + FourBytes(1000),
          Byte(0x28) + Byte(0),
          Byte(0x29) + Byte(0),
          Byte(0x2A) + Byte(0)};
}

std::vector<std::string> greetings() {
  const std::string everything =
      Byte(0x11) + FourBytes(86400) + Byte(0x13) + TwoBytes(60) + Byte(0x1F) + Text("a reason") +
      Byte(0x21) + TwoBytes(20) + Byte(0x22) + TwoBytes(10) + Byte(0x24) + Byte(1) + Byte(0x25) +
      Byte(1) + userProperty() + Byte(0x27) + FourBytes(100'000) + Byte(0x28) + Byte(1);
  return {MqttBytes::ConnAck(false), MqttBytes::ConnAck(true),
          MqttBytes::ConnAck(false, 0, everything),
          MqttBytes::ConnAck(false, 0x88, Byte(0x1F) + Text("later"))};
}

std::vector<std::string> packets() {
  const std::string request = MqttBytes::ResponseTopic("answers/here") +
                              MqttBytes::CorrelationData("correlation") + userProperty();
  std::vector<std::string> all{
      MqttBytes::Publish(1, "things/tv/status", "\"offline\"", {}, 0x30),
      MqttBytes::Publish(1, "things/tv/service/value/a", "\"1\"", {}, 0x31),
      MqttBytes::Publish(1, "things/tv/service/cancel", "", request),
      MqttBytes::SubscriptionAck(0x90, 1, 2),
      Packet(0x90, TwoBytes(2) + Byte(11) + userProperty().substr(0, 11) + Byte(0)),
      MqttBytes::SubscriptionAck(0xB0, 6, 0),
      Packet(0xD0, {}),
      MqttBytes::Disconnect(0x8B, Byte(0x1F) + Text("a reason") + userProperty()),
      MqttBytes::Disconnect(0x9D, Byte(0x1C) + Text("127.0.0.1:1")),
      Packet(0xF0, Byte(0x18) + Byte(9) + Byte(0x15) + Text("method"))};
  for (const unsigned header : {0x30U, 0x32U, 0x34U, 0x3CU}) {
    all.push_back(
        MqttBytes::Publish(1, "things/tv/service/set", R"({"a":"value"})", request, header));
    all.push_back(MqttBytes::Publish(2, "things/tv/service/get", R"(["a"])", request, header));
  }
  for (const unsigned type : {0x40U, 0x50U, 0x62U, 0x70U}) {
    for (const std::size_t id : {1U, 2U, 7U, 65535U}) {
      all.push_back(MqttBytes::Ack(type, id));
      all.push_back(Packet(type, TwoBytes(id) + Byte(0x97) + Byte(16) + userProperty()));
    }
  }
  return all;
}

}  // namespace

PacketMutator::PacketMutator(std::uint32_t seed)
    : m_random(seed), m_greetings(greetings()), m_packets(packets()) {}

std::string PacketMutator::Packets(bool isGreeting) {
  const std::size_t count = 1 + below(kPacketsInARow);
  const std::size_t mutated = below(count);
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string& packet = pick(isGreeting && i == 0 ? m_greetings : m_packets);
    bytes += i == mutated || OneIn(2) ? mutate(packet) : packet;
  }
  return bytes;
}

std::size_t PacketMutator::below(std::size_t end) {
  return m_random() % end;  // the same with every library
}

std::string PacketMutator::mutate(std::string packet) {
  const std::size_t times = 1 + below(kMutationsPerPacket);
  for (std::size_t i = 0; i < times; ++i) mutateOnce(packet);
  return packet;
}

void PacketMutator::mutateOnce(std::string& packet) {
  if (packet.size() < 2) packet = pick(m_packets);
  const std::size_t place = below(packet.size());
  switch (below(10)) {
    case 0:  // a bit
      packet[place] = static_cast<char>(packet[place] ^ (1 << below(8)));
      return;
    case 1:
      packet[place] = static_cast<char>(kEdges[below(kEdges.size())]);
      return;
    case 2:
      packet[place] = static_cast<char>(below(256));
      return;
    case 3:
      packet.resize(place + 1);
      return;
    case 4:  // the length, which is one byte in most packets
      packet[1] = static_cast<char>(below(256));
      return;
    case 5: {  // a property, with the length put right as far as it is known
      const std::vector<std::string> properties = allProperties();
      const std::string& property = pick(properties);
      packet.insert(place, property);
      packet[1] = static_cast<char>(static_cast<std::size_t>(packet[1]) + property.size());
      return;
    }
    case 6:  // a part twice
      packet.insert(place, packet.substr(below(packet.size())));
      return;
    case 7:
      packet.erase(place, 1 + below(8));
      return;
    case 8: {  // the end of another packet
      const std::string& other = pick(m_packets);
      packet = packet.substr(0, place) + other.substr(below(other.size()));
      return;
    }
    default:  // a length of up to four bytes
      packet.replace(1, 1, MqttBytes::Variable(below(std::size_t{1} << (7 * (1 + below(4))))));
  }
}

const std::string& PacketMutator::pick(const std::vector<std::string>& packets) {
  return packets[below(packets.size())];
}
