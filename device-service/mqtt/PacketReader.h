#ifndef DEVICE_SERVICE_MQTT_PACKETREADER_H
#define DEVICE_SERVICE_MQTT_PACKETREADER_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "mqtt/Packet.h"

namespace Lumo::Mqtt {

// Assembles packets from the bytes of a connection. It holds one packet at most, and no more than
// `maxPacketBytes` of it, without the fixed header. Of a longer PUBLISH it keeps the beginning and
// skips the rest, so that it can be acknowledged and refused; any other longer packet is a fault.
// Memory grows with the bytes that arrive, not with the length in a header. Used by one thread.
class PacketReader {
 public:
  explicit PacketReader(std::size_t maxPacketBytes) : m_maxPacketBytes(maxPacketBytes) {}

  enum class Result { NeedsMore, Complete, Fault };

  // Takes bytes from the front of `bytes`, up to the end of one packet. After a packet the next
  // call begins a new one; after a fault nothing more can be read. Throws std::bad_alloc, and can
  // then be called again with the rest of `bytes`.
  Result Read(std::string_view& bytes);

  // After Result::Complete, until the next Read. The body lies in the bytes that were read when
  // they held all of it, otherwise in the reader.
  std::uint8_t FirstByte() const { return m_firstByte; }
  std::string_view Body() const { return m_body; }
  bool IsCut() const { return m_bodyBytes > m_maxPacketBytes; }
  // After Result::Fault.
  Fault GetFault() const { return m_fault; }

  // Starts over, for a new connection.
  void Reset();

 private:
  enum class Stage { FirstByte, Length, Body, Done, Faulty };

  void takeLengthByte(std::uint8_t byte);
  Result takeBody(std::string_view& bytes);
  void keep(std::string_view bytes);
  std::size_t bytesToKeep() const;
  void fail(std::uint8_t reason, const char* what);

  const std::size_t m_maxPacketBytes;
  Stage m_stage = Stage::FirstByte;
  std::uint8_t m_firstByte = 0;
  unsigned m_lengthShift = 0;   // in bits, of the length's next byte
  std::size_t m_bodyBytes = 0;  // the length of the body, all of it
  std::size_t m_bodyTaken = 0;  // how much of it has come
  std::vector<char> m_kept;     // its beginning, when it came in pieces
  std::string_view m_body;
  Fault m_fault;
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_PACKETREADER_H
