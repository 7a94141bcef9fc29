#ifndef TESTS_FUZZ_BROKERPACKETS_H
#define TESTS_FUZZ_BROKERPACKETS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Input.h"
#include "MqttPackets.h"

// What an input has a broker send that sends what it likes.
namespace fuzz {

// The lowest identifiers and the highest ones.
inline std::uint16_t TakeId(Input& input) {
  const std::size_t choice = input.Choice(64);
  return static_cast<std::uint16_t>(choice < 60 ? choice : 65535 - (choice - 60));
}

// A CONNACK, of this many kinds. Flag 1 is for the session, flag 2 for who calls.
inline broker::Acceptance TakeAcceptance(Input& input, std::size_t kinds, std::size_t& flags) {
  flags = input.Choice(4);
  broker::Acceptance acceptance;
  acceptance.sessionPresent = (flags & 1U) != 0;
  const std::size_t kind = input.Choice(kinds);
  if (kind == 1) acceptance.reason = 0x87;
  if (kind == 2) acceptance.reason = 0x9A;
  if (kind == 3) acceptance.reason = 0x9B;
  if (kind == 4) acceptance.receiveMaximum = 1;
  if (kind == 5) acceptance.maximumQos = 0;
  if (kind == 6) acceptance.retainAvailable = 0;
  if (kind == 7) acceptance.clientId = "another";
  if (kind == 8) acceptance.maximumPacketSize = 64;
  if (kind == 9) acceptance.maximumPacketSize = 1;
  return acceptance;
}

struct TakenPacket {
  std::string bytes;
  broker::Type type;
  std::uint16_t id;
};

// Nothing when the letter is none of these:
//   RTNM     PUBACK, PUBREC, PUBREL or PUBCOMP (T) with identifier N and reason M
//   SN, UN   SUBACK, UNSUBACK
//   G, E     PINGRESP, DISCONNECT
inline std::optional<TakenPacket> TakePacket(char letter, Input& input,
                                             const std::vector<std::uint8_t>& reasons) {
  if (letter == 'R') {
    const auto type = static_cast<broker::Type>(broker::kPubAck + input.Choice(4));
    const std::uint16_t id = TakeId(input);
    return {{broker::Ack(type, id, reasons[input.Choice(reasons.size())]), type, id}};
  }
  if (letter == 'S' || letter == 'U') {
    const auto type = letter == 'S' ? broker::kSubAck : broker::kUnsubAck;
    const std::uint16_t id = TakeId(input);
    return {{broker::Subscribed(type, id, {0}), type, id}};
  }
  if (letter == 'G') return {{broker::PingResp(), broker::kPingResp, 0}};
  if (letter == 'E') return {{broker::Disconnect(0x8B, "enough"), broker::kDisconnect, 0}};
  return std::nullopt;
}

}  // namespace fuzz

#endif  // TESTS_FUZZ_BROKERPACKETS_H
