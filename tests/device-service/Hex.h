#ifndef TESTS_DEVICE_SERVICE_HEX_H
#define TESTS_DEVICE_SERVICE_HEX_H

#include <cstdint>
#include <string>
#include <string_view>

#include "MqttPackets.h"

// "20 05 00" as bytes: two digits each, blanks in between are not needed.
inline std::string FromHex(std::string_view digits) {
  std::string bytes;
  std::string pair;
  for (const char digit : digits) {
    if (digit == ' ') continue;
    pair.push_back(digit);
    if (pair.size() < 2) continue;
    bytes.push_back(static_cast<char>(std::stoi(pair, nullptr, 16)));
    pair.clear();
  }
  return bytes;
}

inline std::string ToHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string digits;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (!digits.empty()) digits.push_back(' ');
    digits.push_back(kDigits[value >> 4U]);
    digits.push_back(kDigits[value & 0x0FU]);
  }
  return digits;
}

// A packet of the body's length.
inline std::string WholePacket(unsigned firstByte, const std::string& body) {
  return broker::Whole(static_cast<std::uint8_t>(firstByte), body);
}

#endif  // TESTS_DEVICE_SERVICE_HEX_H
