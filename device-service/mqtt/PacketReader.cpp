#include "mqtt/PacketReader.h"

#include <algorithm>

namespace Lumo::Mqtt {
namespace {

constexpr unsigned kLengthShiftLimit = 28;  // a length has four bytes of seven bits
// The memory that a packet in pieces may leave to the next one.
constexpr std::size_t kMaxIdleBytes = std::size_t{16} * 1024;

}  // namespace

PacketReader::Result PacketReader::Read(std::string_view& bytes) {
  if (m_stage == Stage::Done) Reset();
  while (m_stage == Stage::FirstByte || m_stage == Stage::Length) {
    if (bytes.empty()) return Result::NeedsMore;
    const auto byte = static_cast<std::uint8_t>(bytes.front());
    bytes.remove_prefix(1);
    if (m_stage == Stage::Length) {
      takeLengthByte(byte);
    } else {
      m_firstByte = byte;
      m_stage = Stage::Length;
    }
  }
  return m_stage == Stage::Faulty ? Result::Fault : takeBody(bytes);
}

void PacketReader::Reset() {
  m_stage = Stage::FirstByte;
  m_lengthShift = 0;
  m_bodyBytes = 0;
  m_bodyTaken = 0;
  m_body = {};
  m_kept.clear();
  if (m_kept.capacity() > kMaxIdleBytes) std::vector<char>().swap(m_kept);
}

void PacketReader::takeLengthByte(std::uint8_t byte) {
  m_bodyBytes |= std::size_t{byte & 0x7FU} << m_lengthShift;
  m_lengthShift += 7;
  const bool isLast = byte < 0x80;
  if (!isLast && m_lengthShift == kLengthShiftLimit) {
    fail(kReasonMalformedPacket, "a packet's length of more than four bytes");
  } else if (isLast && byte == 0 && m_lengthShift > 7) {
    fail(kReasonMalformedPacket, "a packet's length that is not in its shortest form");
  } else if (isLast && IsCut() &&
             m_firstByte >> 4 != static_cast<std::uint8_t>(PacketType::Publish)) {
    fail(kReasonPacketTooLarge, "a packet that is too large");
  } else if (isLast) {
    m_stage = Stage::Body;
  }
}

PacketReader::Result PacketReader::takeBody(std::string_view& bytes) {
  const std::string_view piece = bytes.substr(0, m_bodyBytes - m_bodyTaken);
  if (piece.size() == m_bodyBytes) {
    m_body = piece.substr(0, bytesToKeep());
  } else {
    keep(piece.substr(0, bytesToKeep() - m_kept.size()));
    m_body = {m_kept.data(), m_kept.size()};
  }
  bytes.remove_prefix(piece.size());
  m_bodyTaken += piece.size();
  if (m_bodyTaken < m_bodyBytes) return Result::NeedsMore;
  m_stage = Stage::Done;
  return Result::Complete;
}

// Grows to twice what has come, so that a packet that comes in two pieces, mostly the first, is
// not moved; but never beyond what is to be kept.
void PacketReader::keep(std::string_view bytes) {
  const std::size_t size = m_kept.size() + bytes.size();
  if (size > m_kept.capacity()) m_kept.reserve(std::min(bytesToKeep(), 2 * size));
  m_kept.insert(m_kept.end(), bytes.begin(), bytes.end());
}

std::size_t PacketReader::bytesToKeep() const {
  return std::min(m_bodyBytes, m_maxPacketBytes);
}

void PacketReader::fail(std::uint8_t reason, const char* what) {
  m_stage = Stage::Faulty;
  m_fault = {reason, what};
}

}  // namespace Lumo::Mqtt
