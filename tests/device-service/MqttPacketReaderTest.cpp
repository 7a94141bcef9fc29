#include "mqtt/PacketReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "Hex.h"
#include "OutOfMemory.h"

namespace {

using Lumo::Mqtt::kReasonMalformedPacket;
using Lumo::Mqtt::kReasonPacketTooLarge;
using Lumo::Mqtt::PacketReader;
using Result = PacketReader::Result;

constexpr std::size_t kLimit = 300;

// What came of a stream: packets as their first byte and body, cut ones in brackets, and a fault.
std::vector<std::string> readIn(std::string_view stream, std::size_t pieceBytes) {
  PacketReader reader(kLimit);
  std::vector<std::string> found;
  while (!stream.empty()) {
    // A copy, so that what is read beyond it or kept for too long is seen by a sanitizer.
    const std::vector<char> piece(
        stream.begin(),
        stream.begin() + static_cast<std::ptrdiff_t>(std::min(pieceBytes, stream.size())));
    stream.remove_prefix(piece.size());
    std::string_view bytes(piece.data(), piece.size());
    for (;;) {
      const Result result = reader.Read(bytes);
      if (result == Result::NeedsMore) {
        EXPECT_TRUE(bytes.empty());
        break;
      }
      if (result == Result::Fault) {
        found.push_back("fault " + std::to_string(reader.GetFault().reason));
        return found;
      }
      std::string packet(1, static_cast<char>(reader.FirstByte()));
      packet += reader.Body();
      found.push_back(reader.IsCut() ? "[" + packet + "]" : packet);
    }
  }
  return found;
}

TEST(MqttPacketReaderTest, PacketsAreTheSameInPiecesOfAnySize) {
  const std::string large(kLimit + 50, 'x');
  const std::string stream = FromHex("D0 00 40 02 00 01") + WholePacket(0x30, "abc") +
                             WholePacket(0x32, std::string(200, 'y')) + WholePacket(0x3D, large) +
                             FromHex("D0 00") + WholePacket(0xE0, std::string(kLimit, 'z')) +
                             FromHex("30 00") + WholePacket(0x20, large) + FromHex("D0 00");
  const std::vector<std::string> expected = {
      std::string("\xD0"),
      std::string("\x40\0\1", 3),
      "\x30"
      "abc",
      '\x32' + std::string(200, 'y'),
      "[\x3D" + large.substr(0, kLimit) + "]",
      std::string("\xD0"),
      '\xE0' + std::string(kLimit, 'z'),
      std::string("\x30"),
      "fault 149",
  };
  for (std::size_t pieceBytes = 1; pieceBytes <= stream.size(); ++pieceBytes) {
    EXPECT_EQ(readIn(stream, pieceBytes), expected) << pieceBytes;
  }
}

TEST(MqttPacketReaderTest, TheBeginningOfAPacketIsNone) {
  const std::string packet = WholePacket(0x20, std::string(200, 'x'));
  for (std::size_t size = 0; size < packet.size(); ++size) {
    EXPECT_TRUE(readIn(packet.substr(0, size), packet.size()).empty()) << size;
  }
}

TEST(MqttPacketReaderTest, APacketInOnePieceIsNotCopied) {
  const std::string stream = FromHex("40 02 00 01") + WholePacket(0x30, "abc");
  PacketReader reader(kLimit);
  std::string_view bytes = stream;
  ASSERT_EQ(reader.Read(bytes), Result::Complete);
  EXPECT_EQ(reader.Body().data(), stream.data() + 2);
  ASSERT_EQ(reader.Read(bytes), Result::Complete);
  EXPECT_EQ(reader.Body().data(), stream.data() + 6);
  EXPECT_EQ(reader.Body(), "abc");
}

TEST(MqttPacketReaderTest, ALengthThatIsClaimedTakesNoMemory) {
  const std::string header = FromHex("30 FF FF FF 7F");
  PacketReader reader(std::size_t{5} * 1024 * 1024);
  std::string_view bytes = header;
  Result result = Result::Fault;
  {
    const OutOfMemory none;
    result = reader.Read(bytes);
  }
  EXPECT_EQ(result, Result::NeedsMore);
  EXPECT_TRUE(reader.Body().empty());
}

TEST(MqttPacketReaderTest, WhatIsSkippedTakesNoMemory) {
  const std::string header = FromHex("30 80 80 80 02");  // 4 MiB
  const std::string piece(4096, 'x');
  PacketReader reader(piece.size());
  std::string_view bytes = header;
  ASSERT_EQ(reader.Read(bytes), Result::NeedsMore);
  bytes = piece;
  ASSERT_EQ(reader.Read(bytes), Result::NeedsMore);
  {
    const OutOfMemory none;
    for (std::size_t pieces = 2; pieces < 1024; ++pieces) {
      bytes = piece;
      ASSERT_EQ(reader.Read(bytes), Result::NeedsMore);
    }
    bytes = piece;
    ASSERT_EQ(reader.Read(bytes), Result::Complete);
  }
  EXPECT_TRUE(bytes.empty());
  EXPECT_TRUE(reader.IsCut());
  EXPECT_EQ(reader.Body(), piece);
}

// Reads a packet in two pieces; false when there was no memory for it.
bool readsWithoutMemory(PacketReader& reader, const std::string& packet) {
  const std::string_view all = packet;
  const OutOfMemory none;
  try {
    std::string_view bytes = all.substr(0, all.size() - 1);
    reader.Read(bytes);
    bytes = all.substr(all.size() - 1);
    return reader.Read(bytes) == Result::Complete;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

TEST(MqttPacketReaderTest, TheMemoryOfASmallPacketServesTheNextWhenMemoryRunsOut) {
  for (const bool isSmall : {true, false}) {
    const std::string packet =
        FromHex(isSmall ? "30 80 10" : "30 80 80 02") + std::string(isSmall ? 2048 : 32768, 'x');
    PacketReader reader(packet.size());
    std::string_view bytes = std::string_view(packet).substr(0, packet.size() - 1);
    ASSERT_EQ(reader.Read(bytes), Result::NeedsMore);
    bytes = std::string_view(packet).substr(packet.size() - 1);
    ASSERT_EQ(reader.Read(bytes), Result::Complete);
    EXPECT_EQ(readsWithoutMemory(reader, packet), isSmall);
  }
}

TEST(MqttPacketReaderTest, APacketIsWholeUpToTheLimitAndBeyondOnlyAMessageIsTaken) {
  for (unsigned type = 0; type < 16; ++type) {
    const std::string whole = WholePacket(type << 4U, std::string(kLimit, 'x'));
    EXPECT_EQ(readIn(whole, whole.size()),
              std::vector<std::string>{whole.front() + std::string(kLimit, 'x')});
    const std::string header = WholePacket(type << 4U, std::string(kLimit + 1, 'x')).substr(0, 3);
    const std::vector<std::string> refused = {"fault " + std::to_string(kReasonPacketTooLarge)};
    EXPECT_EQ(readIn(header, header.size()), type == 3 ? std::vector<std::string>() : refused);
  }
}

TEST(MqttPacketReaderTest, ALengthIsInItsShortestFormAndOfFourBytes) {
  for (const char* header : {"30 80 00", "30 FF 80 00", "30 80 80 80 00", "30 80 80 80 80"}) {
    EXPECT_EQ(readIn(FromHex(header), 5),
              std::vector<std::string>{"fault " + std::to_string(kReasonMalformedPacket)});
  }
}

TEST(MqttPacketReaderTest, AResetForgetsAFaultAndWhatWasBegun) {
  const std::string packet = WholePacket(0x30, std::string(200, 'x'));
  const std::string fault = FromHex("30 80 00 D0 00");
  const std::string ping = FromHex("D0 00");
  for (std::size_t size = 0; size <= packet.size(); ++size) {
    PacketReader reader(kLimit);
    std::string_view bytes = std::string_view(packet).substr(0, size);
    if (size < packet.size()) {
      ASSERT_EQ(reader.Read(bytes), Result::NeedsMore);
    } else {
      bytes = fault;  // after which there is nothing more
      for (int i = 0; i < 3; ++i) ASSERT_EQ(reader.Read(bytes), Result::Fault);
    }
    reader.Reset();
    bytes = ping;
    ASSERT_EQ(reader.Read(bytes), Result::Complete) << size;
    EXPECT_EQ(reader.FirstByte(), 0xD0);
    EXPECT_TRUE(reader.Body().empty());
  }
}

TEST(MqttPacketReaderTest, TheSameBytesCanBeReadLaterWhenMemoryRunsOut) {
  const std::string packet = WholePacket(0x30, std::string(200, 'x'));
  PacketReader reader(kLimit);
  std::string_view bytes = std::string_view(packet).substr(0, 100);
  bool failed = false;
  {
    const OutOfMemory none;
    try {
      reader.Read(bytes);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  }
  EXPECT_TRUE(failed);
  ASSERT_EQ(reader.Read(bytes), Result::NeedsMore);
  bytes = std::string_view(packet).substr(100);
  ASSERT_EQ(reader.Read(bytes), Result::Complete);
  EXPECT_EQ(reader.Body(), std::string(200, 'x'));
}

}  // namespace
