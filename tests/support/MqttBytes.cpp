#include "MqttBytes.h"

namespace MqttBytes {

std::string Byte(unsigned number) {
  return std::string(1, static_cast<char>(number));
}

std::string TwoBytes(std::size_t number) {
  return {static_cast<char>(number >> 8), static_cast<char>(number & 0xFF)};
}

std::string FourBytes(std::size_t number) {
  return TwoBytes(number >> 16) + TwoBytes(number & 0xFFFF);
}

std::string Variable(std::size_t number) {
  std::string bytes;
  do {
    const unsigned more = number > 0x7F ? 0x80 : 0;
    bytes += static_cast<char>((number & 0x7F) | more);
    number >>= 7;
  } while (number > 0);
  return bytes;
}

std::string Text(std::string_view text) {
  return TwoBytes(text.size()).append(text);
}

std::string Packet(unsigned typeAndFlags, std::string_view body) {
  return (Byte(typeAndFlags) + Variable(body.size())).append(body);
}

std::string ConnAck(bool sessionPresent, unsigned reason, std::string_view properties) {
  return Packet(0x20, (Byte(sessionPresent ? 1 : 0) + Byte(reason) + Variable(properties.size()))
                          .append(properties));
}

std::string Ack(unsigned typeAndFlags, std::size_t id, unsigned reason) {
  return Packet(typeAndFlags, TwoBytes(id) + (reason == 0 ? std::string() : Byte(reason)));
}

std::string SubscriptionAck(unsigned type, std::size_t id, unsigned reason) {
  return Packet(type, TwoBytes(id) + Variable(0) + Byte(reason));
}

std::string Publish(std::size_t id, std::string_view topic, std::string_view payload,
                    std::string_view properties, unsigned typeAndFlags) {
  const bool hasId = (typeAndFlags & 0x06) != 0;
  const std::string head = Text(topic) + (hasId ? TwoBytes(id) : std::string());
  return Packet(typeAndFlags,
                (head + Variable(properties.size())).append(properties).append(payload));
}

std::string Disconnect(unsigned reason, std::string_view properties) {
  return Packet(0xE0, (Byte(reason) + Variable(properties.size())).append(properties));
}

std::string ResponseTopic(std::string_view topic) {
  return Byte(0x08) + Text(topic);
}

std::string CorrelationData(std::string_view data) {
  return Byte(0x09) + Text(data);
}

}  // namespace MqttBytes
