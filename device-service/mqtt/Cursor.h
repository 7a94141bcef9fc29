#ifndef DEVICE_SERVICE_MQTT_CURSOR_H
#define DEVICE_SERVICE_MQTT_CURSOR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "mqtt/Packet.h"
#include "values/Utf8.h"

namespace Lumo::Mqtt {

// Reads fields from the front of some bytes. The first fault stays; after it there are no more
// bytes, and fields are empty or 0, so that a decoder need not check each one.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : m_rest(bytes) {}

  bool AtEnd() const { return m_rest.empty(); }
  const std::optional<Fault>& GetFault() const { return m_fault; }
  // The fault is that a field is longer than the bytes.
  bool RanOut() const { return m_ranOut; }

  void Fail(const Fault& fault) {
    if (m_fault) return;
    m_fault = fault;
    m_rest = {};
  }
  void Malformed(const char* what) { Fail({kReasonMalformedPacket, what}); }
  void Forbidden(const char* what) { Fail({kReasonProtocolError, what}); }

  std::string_view TakeBytes(std::size_t count) {
    if (count > m_rest.size()) {
      m_ranOut = m_ranOut || !m_fault;
      Malformed("a field that runs over the end");
      return {};
    }
    const std::string_view bytes = m_rest.substr(0, count);
    m_rest.remove_prefix(count);
    return bytes;
  }
  std::string_view TakeRest() { return std::exchange(m_rest, {}); }

  std::uint8_t TakeByte() { return static_cast<std::uint8_t>(takeNumber(1)); }
  std::uint16_t TakeU16() { return static_cast<std::uint16_t>(takeNumber(2)); }
  std::uint32_t TakeU32() { return takeNumber(4); }
  std::uint32_t TakeVarInt() {
    std::uint32_t value = 0;
    for (unsigned shift = 0; shift < 28; shift += 7) {
      const std::uint8_t byte = TakeByte();
      value |= std::uint32_t{byte & 0x7FU} << shift;
      if (byte >= 0x80) continue;
      if (byte == 0 && shift > 0) Malformed("a number that is not in its shortest form");
      return value;
    }
    Malformed("a number of more than four bytes");
    return 0;
  }
  std::string_view TakeBinary() { return TakeBytes(TakeU16()); }
  std::string_view TakeText() {
    const std::string_view text = TakeBinary();
    if (!IsUtf8(text)) Malformed("a string that is not UTF-8");
    if (text.find('\0') != std::string_view::npos) Malformed("a string with a null character");
    return text;
  }

 private:
  std::uint32_t takeNumber(std::size_t bytes) {
    std::uint32_t number = 0;
    for (const char byte : TakeBytes(bytes))
      number = number << 8U | static_cast<std::uint8_t>(byte);
    return number;
  }

  std::string_view m_rest;
  std::optional<Fault> m_fault;
  bool m_ranOut = false;
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CURSOR_H
