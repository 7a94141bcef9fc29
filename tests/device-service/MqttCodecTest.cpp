#include "mqtt/Codec.h"
#include "mqtt/Reasons.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Hex.h"
#include "OutOfMemory.h"
#include "mqtt/PacketReader.h"

namespace {

using namespace Lumo::Mqtt;

constexpr int kTaken = -1;

// The bytes of one packet, read and decoded. What is returned may point into them.
std::variant<Packet, Fault> decode(std::string_view packet) {
  PacketReader reader(std::size_t{1024} * 1024);
  if (reader.Read(packet) != PacketReader::Result::Complete) return reader.GetFault();
  EXPECT_TRUE(packet.empty()) << "a row is one packet";
  return Decode(reader.FirstByte(), reader.Body());
}

// The reason that the packet is refused with, or kTaken.
int verdict(std::string_view packet) {
  const auto decoded = decode(packet);
  const auto* const fault = std::get_if<Fault>(&decoded);
  if (fault == nullptr) return kTaken;
  EXPECT_STRNE(fault->what, "");
  return fault->reason;
}

template <typename Kind>
Kind decodeAs(std::string_view packet) {
  const auto decoded = decode(packet);
  if (const auto* const fault = std::get_if<Fault>(&decoded)) {
    ADD_FAILURE() << ToHex(packet) << ": " << fault->what;
    return {};
  }
  return std::get<Kind>(std::get<Packet>(decoded));
}

// --- single rules --------------------------------------------------------------------------------

constexpr int kMalformed = kReasonMalformedPacket;
constexpr int kProtocol = kReasonProtocolError;

struct Refusal {
  const char* rule;
  int reason;
  std::vector<const char*> packets;
};

const std::vector<Refusal> kRefusals = {
    {"TypesOfServersOnly", kProtocol, {"00 00", "10 00", "82 00", "A2 00", "C0 00"}},
    {"PingRespIsEmpty", kMalformed, {"D0 01 00"}},
    {"ConnAckHasFlagsAReasonAndProperties",
     kMalformed,
     {"20 03 02 00 00", "20 00", "20 02 00 00", "20 04 00 00 00 00"}},
    {"ConnAckResumesNoSessionThatItRefuses", kProtocol, {"20 03 01 87 00"}},
    {"PropertiesLieWithinThePacket",
     kMalformed,
     {"20 03 00 00 01", "20 05 00 00 01 22 00", "30 08 00 01 61 03 09 00 02 61"}},
    {"LengthsAndNumbersAreShortestAndHaveFourBytesAtMost",
     kMalformed,
     {"20 04 00 00 80 00", "20 07 00 00 80 80 80 80 01", "20 07 00 00 04 A1 00 00 01",
      "30 07 00 01 61 03 0B 81 00", "30 0A 00 01 61 06 0B FF FF FF FF 01"}},
    {"PropertyIsInItsRange",
     kProtocol,
     {"20 06 00 00 03 21 00 00", "20 05 00 00 02 24 02", "20 05 00 00 02 25 02",
      "20 08 00 00 05 27 00 00 00 00", "20 05 00 00 02 28 02", "20 05 00 00 02 29 FF",
      "20 05 00 00 02 2A 02", "30 06 00 01 61 02 0B 00"}},
    {"AuthenticationDataHasAMethod",
     kProtocol,
     {"20 06 00 00 03 16 00 00", "F0 05 00 03 16 00 00", "F0 01 18"}},
    {"PublishFlagsAreConsistent", kMalformed, {"36 06 00 01 61 00 01 00", "38 04 00 01 61 00"}},
    {"PublishIsWhole",
     kMalformed,
     {"30 00", "30 01 00", "30 03 00 02 61", "30 03 00 01 61", "32 03 00 01 61",
      "32 04 00 01 61 00"}},
    {"TopicIsNotEmpty", kProtocol, {"30 03 00 00 00"}},
    {"TopicHasNoWildcards",
     kReasonTopicNameInvalid,
     {"30 04 00 01 2B 00", "30 06 00 03 61 2F 23 00"}},
    {"StringsAreUtf8WithoutNull",
     kMalformed,
     {"30 05 00 02 61 00 00", "30 06 00 03 ED A0 80 00", "30 05 00 02 C1 81 00",
      "30 05 00 02 C0 80 00", "30 07 00 04 F4 90 80 80 00", "30 04 00 01 C3 00",
      "30 08 00 01 61 04 08 00 01 FF", "30 08 00 01 61 04 03 00 01 FF",
      "30 0A 00 01 61 06 26 00 01 FF 00 00", "30 0A 00 01 61 06 26 00 00 00 01 00"}},
    {"UserPropertyHasAValue", kMalformed, {"30 08 00 01 61 04 26 00 01 61"}},
    {"TopicAliasWasNotOffered",
     kReasonTopicAliasInvalid,
     {"30 07 00 01 61 03 23 00 01", "30 07 00 01 61 03 23 00 00", "30 06 00 00 03 23 00 01"}},
    {"IdIsNot0",
     kProtocol,
     {"32 06 00 01 61 00 00 00", "40 02 00 00", "50 02 00 00", "62 02 00 00", "70 02 00 00",
      "90 04 00 00 00 00", "B0 04 00 00 00 00"}},
    {"AckIsWhole", kMalformed, {"40 00", "40 05 00 01 00 00 00", "90 02 00 01"}},
    {"SubAckHasGoodReasons",
     kProtocol,
     {"90 03 00 01 00", "90 05 00 01 00 00 03", "B0 03 00 01 00"}},
    {"NothingIsBehindTheProperties", kMalformed, {"E0 03 00 00 00", "F0 03 00 00 00"}},
    {"DisconnectOfAServerHasNoExpiry", kProtocol, {"E0 07 00 05 11 00 00 00 01"}},
};

TEST(MqttRefusalTest, HasItsReason) {
  for (const Refusal& refusal : kRefusals) {
    for (const char* packet : refusal.packets) {
      EXPECT_EQ(verdict(FromHex(packet)), refusal.reason) << refusal.rule << ": " << packet;
    }
  }
}

// --- properties ----------------------------------------------------------------------------------

// A valid property of every kind, by its identifier.
const std::map<int, std::string> kProperties = [] {
  std::map<int, std::string> all;
  for (const char* property : {"01 01",
                               "02 00 00 00 00",
                               "03 00 01 61",
                               "08 00 01 61",
                               "09 00 01 FF",
                               "0B FF FF FF 7F",
                               "11 FF FF FF FF",
                               "12 00 01 61",
                               "13 00 00",
                               "15 00 01 61",
                               "16 00 01 FF",
                               "17 01",
                               "18 00 00 00 01",
                               "19 00",
                               "1A 00 01 61",
                               "1C 00 01 61",
                               "1F 00 01 61",
                               "21 00 01",
                               "22 00 00",
                               "23 00 01",
                               "24 01",
                               "25 00",
                               "26 00 01 61 00 01 62",
                               "27 00 00 00 01",
                               "28 00",
                               "29 01",
                               "2A 00"}) {
    all.emplace(FromHex(property).front(), property);
  }
  return all;
}();

// What is around the properties of a packet, and which may be there.
struct Frame {
  const char* name;
  unsigned firstByte;
  const char* before;
  const char* after;
  std::set<int> allowed;
};

const std::vector<Frame> kFrames = {
    {"ConnAck",
     0x20,
     "00 00",
     "",
     {0x11, 0x12, 0x13, 0x15, 0x16, 0x1A, 0x1C, 0x1F, 0x21, 0x22, 0x24, 0x25, 0x26, 0x27, 0x28,
      0x29, 0x2A}},
    {"Publish",
     0x32,
     "00 01 61 00 01",
     "62",
     {0x01, 0x02, 0x03, 0x08, 0x09, 0x0B, 0x26}},  // an alias was not offered
    {"PubAck", 0x40, "00 01 00", "", {0x1F, 0x26}},
    {"PubRec", 0x50, "00 01 00", "", {0x1F, 0x26}},
    {"PubRel", 0x62, "00 01 00", "", {0x1F, 0x26}},
    {"PubComp", 0x70, "00 01 00", "", {0x1F, 0x26}},
    {"SubAck", 0x90, "00 01", "00", {0x1F, 0x26}},
    {"UnsubAck", 0xB0, "00 01", "00", {0x1F, 0x26}},
    {"Disconnect", 0xE0, "00", "", {0x1C, 0x1F, 0x26}},  // an expiry is a client's
    {"Auth", 0xF0, "00", "", {0x15, 0x16, 0x1F, 0x26}},
};

std::string packetWith(const Frame& frame, const std::string& properties) {
  const std::string bytes = FromHex(properties);
  EXPECT_LT(bytes.size(), 0x80U);
  return WholePacket(frame.firstByte, FromHex(frame.before) +
                                          std::string(1, static_cast<char>(bytes.size())) + bytes +
                                          FromHex(frame.after));
}

// Data needs a method.
std::string withMethod(int id) {
  return kProperties.at(id) + (id == 0x16 ? kProperties.at(0x15) : "");
}

TEST(MqttFlagsTest, AreThoseOfTheType) {
  for (const Frame& frame : kFrames) {
    if (frame.firstByte == 0x32) continue;  // a PUBLISH has flags of its own
    for (unsigned flags = 0; flags < 16; ++flags) {
      std::string packet = packetWith(frame, "");
      packet.front() = static_cast<char>((frame.firstByte & 0xF0U) | flags);
      EXPECT_EQ(verdict(packet), flags == (frame.firstByte & 0x0FU) ? kTaken : kMalformed)
          << frame.name << ' ' << flags;
    }
  }
  for (unsigned flags = 0; flags < 16; ++flags) {
    EXPECT_EQ(verdict(WholePacket(0xD0U | flags, "")), flags == 0 ? kTaken : kMalformed) << flags;
  }
}

TEST(MqttPropertiesTest, EveryPacketHasItsOwnAndNoOther) {
  for (const Frame& frame : kFrames) {
    SCOPED_TRACE(frame.name);
    EXPECT_EQ(verdict(packetWith(frame, "")), kTaken);
    for (int id = 0; id < 0x80; ++id) {
      SCOPED_TRACE(id);
      const bool isKnown = kProperties.count(id) > 0;
      int expected = kMalformed;
      if (frame.allowed.count(id) > 0) expected = kTaken;
      if (id == 0x23 && frame.firstByte == 0x32) expected = kReasonTopicAliasInvalid;
      if (id == 0x11 && frame.firstByte == 0xE0) expected = kProtocol;
      const std::string unknown = ToHex(std::string(1, static_cast<char>(id))) + " 00 00 00 00";
      EXPECT_EQ(verdict(packetWith(frame, isKnown ? withMethod(id) : unknown)), expected);
    }
    EXPECT_EQ(verdict(packetWith(frame, "A1 01 00 00")), kMalformed);  // two bytes long
  }
}

TEST(MqttPropertiesTest, OnlyUserPropertiesAndSubscriptionIdentifiersRepeat) {
  for (const Frame& frame : kFrames) {
    for (const int id : frame.allowed) {
      const int expected = id == 0x26 || id == 0x0B ? kTaken : kProtocol;
      EXPECT_EQ(verdict(packetWith(frame, withMethod(id) + kProperties.at(id))), expected)
          << frame.name << ' ' << id;
    }
  }
}

TEST(MqttPropertiesTest, AllOfAPacketComeTogetherInAnyOrder) {
  for (const Frame& frame : kFrames) {
    std::string all;
    std::string inReverse;
    for (const int id : frame.allowed) {
      all += kProperties.at(id) + ' ';
      inReverse.insert(0, kProperties.at(id) + ' ');
    }
    EXPECT_EQ(verdict(packetWith(frame, all)), kTaken) << frame.name;
    EXPECT_EQ(verdict(packetWith(frame, inReverse)), kTaken) << frame.name;
  }
}

TEST(MqttPropertiesTest, ThatAreCutOffAreFaults) {
  for (const Frame& frame : kFrames) {
    for (const int id : frame.allowed) {
      const std::string property = FromHex(kProperties.at(id));
      for (std::size_t size = 1; size < property.size(); ++size) {
        EXPECT_EQ(verdict(packetWith(frame, ToHex(property.substr(0, size)))), kMalformed)
            << frame.name << ' ' << id << ' ' << size;
      }
    }
  }
}

// --- reason codes --------------------------------------------------------------------------------

TEST(MqttReasonTest, EveryPacketHasItsOwnAndNoOther) {
  struct Row {
    const char* name;
    unsigned firstByte;
    const char* before;
    const char* after;
    std::set<int> allowed;
  };
  // 0x95 is some brokers' own.
  const std::set<int> publication = {0x00, 0x10, 0x80, 0x83, 0x87, 0x90, 0x91, 0x95, 0x97, 0x99};
  const std::vector<Row> rows = {
      {"ConnAck", 0x20, "00", "00", {0x00, 0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86,
                                     0x87, 0x88, 0x89, 0x8A, 0x8C, 0x90, 0x95, 0x97,
                                     0x99, 0x9A, 0x9B, 0x9C, 0x9D, 0x9F}},
      {"PubAck", 0x40, "00 01", "", publication},
      {"PubRec", 0x50, "00 01", "", publication},
      {"PubRel", 0x62, "00 01", "", {0x00, 0x92}},
      {"PubComp", 0x70, "00 01", "", {0x00, 0x92}},
      {"SubAck",
       0x90,
       "00 01 00",
       "",
       {0x00, 0x01, 0x02, 0x80, 0x83, 0x87, 0x8F, 0x91, 0x97, 0x9E, 0xA1, 0xA2}},
      {"UnsubAck", 0xB0, "00 01 00", "", {0x00, 0x11, 0x80, 0x83, 0x87, 0x8F, 0x91}},
      {"Disconnect", 0xE0, "", "", {0x00, 0x80, 0x81, 0x82, 0x83, 0x87, 0x89, 0x8B, 0x8D, 0x8E,
                                    0x8F, 0x90, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9A,
                                    0x9B, 0x9C, 0x9D, 0x9E, 0x9F, 0xA0, 0xA1, 0xA2}},
      {"Auth", 0xF0, "", "04 15 00 01 61", {0x00, 0x18}},
  };
  for (const Row& row : rows) {
    for (int code = 0; code <= 0xFF; ++code) {
      const std::string packet =
          WholePacket(row.firstByte, FromHex(row.before) + std::string(1, static_cast<char>(code)) +
                                         FromHex(row.after));
      EXPECT_EQ(verdict(packet), row.allowed.count(code) > 0 ? kTaken : kProtocol)
          << row.name << ' ' << code;
    }
  }
}

TEST(MqttReasonTest, EveryCodeOfTheProtocolHasWordsOfItsOwn) {
  const std::set<int> codes = {0x00, 0x01, 0x02, 0x04, 0x10, 0x11, 0x18, 0x19, 0x80, 0x81, 0x82,
                               0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x8B, 0x8C, 0x8D,
                               0x8E, 0x8F, 0x90, 0x91, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98,
                               0x99, 0x9A, 0x9B, 0x9C, 0x9D, 0x9E, 0x9F, 0xA0, 0xA1, 0xA2};
  const std::string unknown = DescribeReason(0x03);
  std::set<std::string> words;
  for (int code = 0; code <= 0xFF; ++code) {
    const std::string description = DescribeReason(static_cast<std::uint8_t>(code));
    EXPECT_FALSE(description.empty());
    EXPECT_EQ(description != unknown, codes.count(code) > 0) << code;
    words.insert(description);
  }
  EXPECT_EQ(words.size(), codes.size() + 1);
  EXPECT_STREQ(DescribeReason(kReasonNotAuthorised), "not authorised");
}

// --- lengths -------------------------------------------------------------------------------------

// Valid packets, and the lengths at which their beginning is a valid body, too.
struct Whole {
  const char* packet;
  std::set<std::size_t> validLengths;
};

const std::vector<Whole> kWholePackets = {
    {"20 16 01 00 13 21 00 0A 12 00 02 69 64 15 00 01 6D 16 00 02 FF FE 24 01", {}},
    {"30 07 00 03 61 2F 62 00 70", {6}},
    {"3B 16 00 01 61 00 07 0F 08 00 01 72 09 00 02 63 64 26 00 01 6B 00 00 70", {21}},
    {"40 0A 00 07 10 06 1F 00 03 77 68 79", {2, 3}},
    {"50 04 00 07 00 00", {2, 3}},
    {"62 0C 00 07 92 08 26 00 01 6B 00 02 76 77", {2, 3}},
    {"70 03 FF FF 92", {2}},
    {"90 0A 00 07 04 1F 00 01 61 00 80 A2", {8, 9}},
    {"B0 06 00 07 00 00 11 80", {4, 5}},
    {"E0 0B 8E 09 1C 00 01 73 1F 00 02 6E 6F", {0, 1}},
    {"F0 0B 18 09 15 00 01 6D 16 00 02 01 02", {0}},
};

TEST(MqttLengthTest, ABodyThatIsCutOffIsAFault) {
  for (const Whole& whole : kWholePackets) {
    const std::string packet = FromHex(whole.packet);
    EXPECT_EQ(verdict(packet), kTaken) << whole.packet;
    const std::string body = packet.substr(2);
    for (std::size_t size = 0; size < body.size(); ++size) {
      const bool isValid = whole.validLengths.count(size) > 0;
      const int found =
          verdict(WholePacket(static_cast<unsigned char>(packet.front()), body.substr(0, size)));
      EXPECT_EQ(found == kTaken, isValid) << whole.packet << " cut to " << size;
    }
  }
}

TEST(MqttLengthTest, BytesThatAreLeftOverAreAFault) {
  for (const Frame& frame : kFrames) {
    const std::string packet = packetWith(frame, kProperties.at(0x26));
    const std::string body = packet.substr(2) + '\0';
    const bool hasListAtTheEnd =
        frame.firstByte == 0x32 || frame.firstByte == 0x90 || frame.firstByte == 0xB0;
    EXPECT_EQ(verdict(WholePacket(frame.firstByte, body)), hasListAtTheEnd ? kTaken : kMalformed)
        << frame.name;
  }
}

// --- what is decoded -----------------------------------------------------------------------------

// All that a packet has.
std::string describe(const ConnAck& ack) {
  const auto number = [](const auto& value) { return value ? std::to_string(*value) : "none"; };
  return "CONNACK session " + std::to_string(ack.sessionPresent) + " reason " +
         std::to_string(ack.reason) + " expiry " + number(ack.sessionExpirySeconds) + " receive " +
         std::to_string(ack.receiveMaximum) + " qos " + std::to_string(ack.maximumQos) +
         " retain " + std::to_string(ack.retainAvailable) + " size " +
         number(ack.maximumPacketSize) + " id " + ack.assignedClientId.value_or("none") +
         " aliases " + std::to_string(ack.topicAliasMaximum) + " available " +
         std::to_string(ack.wildcardsAvailable) + std::to_string(ack.subscriptionIdsAvailable) +
         std::to_string(ack.sharedSubscriptionsAvailable) + " keep alive " +
         number(ack.serverKeepAliveSeconds) + " '" + ack.reasonText + "' at '" +
         ack.serverReference + "'";
}
std::string describe(const Publish& publish) {
  return "PUBLISH again " + std::to_string(publish.again) + " qos " + std::to_string(publish.qos) +
         " retain " + std::to_string(publish.retain) + " id " + std::to_string(publish.id) + " " +
         std::string(publish.topic) + (publish.isCut ? " cut " : " ") + ToHex(publish.payload) +
         " to '" + std::string(publish.responseTopic) + "' for '" + ToHex(publish.correlation) +
         "'";
}
std::string describe(const Ack& ack) {
  return "ack " + std::to_string(static_cast<int>(ack.type)) + " id " + std::to_string(ack.id) +
         " reason " + std::to_string(ack.reason) + " '" + ack.reasonText + "'";
}
std::string describe(const SubscriptionAck& ack) {
  std::string text = "ack " + std::to_string(static_cast<int>(ack.type)) + " id " +
                     std::to_string(ack.id) + " reasons";
  for (const std::uint8_t reason : ack.reasons) text += " " + std::to_string(reason);
  return text + " '" + ack.reasonText + "'";
}
std::string describe(const Disconnect& disconnect) {
  return "DISCONNECT reason " + std::to_string(disconnect.reason) + " '" + disconnect.reasonText +
         "' at '" + disconnect.serverReference + "'";
}
std::string describe(const Auth& auth) {
  return "AUTH reason " + std::to_string(auth.reason);
}
std::string describe(const PingResp&) {
  return "PINGRESP";
}

TEST(MqttDecodeTest, APacketHasWhatTheServerSendsAndElseTheDefaultsOfTheProtocol) {
  const std::vector<std::pair<const char*, const char*>> packets = {
      {"20 03 00 00 00",
       "CONNACK session 0 reason 0 expiry none receive 65535 qos 2 retain 1 size none id none "
       "aliases 0 available 111 keep alive none '' at ''"},
      {"20 33 01 00 30  11 00 01 51 80  21 00 0A  24 01  25 00  27 00 10 00 00  12 00 02 69 64"
       "22 00 05  1F 00 03 77 68 79  28 00  29 00  2A 00  13 00 3C  1C 00 01 73  1A 00 01 72",
       "CONNACK session 1 reason 0 expiry 86400 receive 10 qos 1 retain 0 size 1048576 id id "
       "aliases 5 available 000 keep alive 60 'why' at 's'"},
      // A payload that is not the UTF-8 that it should be does not end the connection.
      {"3D 19 00 03 61 2F 62 01 02 0D  08 00 03 72 2F 73  09 00 02 00 FF  01 01  68 69 FF 00",
       "PUBLISH again 1 qos 2 retain 1 id 258 a/b 68 69 FF 00 to 'r/s' for '00 FF'"},
      {"30 04 00 01 61 00", "PUBLISH again 0 qos 0 retain 0 id 0 a  to '' for ''"},
      // A broker need not check what one client says to another.
      {"30 07 00 01 61 03 08 00 00", "PUBLISH again 0 qos 0 retain 0 id 0 a  to '' for ''"},
      {"30 0C 00 01 61 08 08 00 05 61 2F 2B 2F 23",
       "PUBLISH again 0 qos 0 retain 0 id 0 a  to 'a/+/#' for ''"},
      {"30 07 00 01 61 02 01 00 78", "PUBLISH again 0 qos 0 retain 0 id 0 a 78 to '' for ''"},
      {"30 07 00 01 61 02 01 02 78", "PUBLISH again 0 qos 0 retain 0 id 0 a 78 to '' for ''"},
      {"30 07 00 01 61 02 01 FF 78", "PUBLISH again 0 qos 0 retain 0 id 0 a 78 to '' for ''"},
      {"40 02 12 34", "ack 4 id 4660 reason 0 ''"},
      {"50 02 12 34", "ack 5 id 4660 reason 0 ''"},
      {"62 02 12 34", "ack 6 id 4660 reason 0 ''"},
      {"70 02 12 34", "ack 7 id 4660 reason 0 ''"},
      {"50 03 00 01 97", "ack 5 id 1 reason 151 ''"},
      {"40 0A 00 01 87 06 1F 00 03 77 68 79", "ack 4 id 1 reason 135 'why'"},
      {"90 0C 00 05 06 1F 00 03 77 68 79 02 01 80", "ack 9 id 5 reasons 2 1 128 'why'"},
      {"B0 05 01 00 00 11 00", "ack 11 id 256 reasons 17 0 ''"},
      {"E0 00", "DISCONNECT reason 0 '' at ''"},
      {"E0 01 8E", "DISCONNECT reason 142 '' at ''"},
      {"E0 0B 9C 09 1C 00 01 73 1F 00 02 6E 6F", "DISCONNECT reason 156 'no' at 's'"},
      {"F0 00", "AUTH reason 0"},
      {"F0 06 18 04 15 00 01 6D", "AUTH reason 24"},
      {"D0 00", "PINGRESP"}};
  for (const auto& [hex, expected] : packets) {
    const std::string bytes = FromHex(hex);
    const auto decoded = decode(bytes);
    const auto* const packet = std::get_if<Packet>(&decoded);
    ASSERT_NE(packet, nullptr) << hex;
    EXPECT_EQ(std::visit([](const auto& taken) { return describe(taken); }, *packet), expected);
  }
}

TEST(MqttDecodeTest, ATopicIsAnyString) {
  for (const char* topic : {"/", "$SYS/x", " ", "\xC2\x80", "\xEF\xBB\xBF", "\xEF\xBF\xBF",
                            "\xED\x9F\xBF", "\xEE\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    const std::string text = topic;
    const std::string packet =
        WholePacket(0x30, std::string(1, '\0') + static_cast<char>(text.size()) + text + '\0');
    EXPECT_EQ(decodeAs<Publish>(packet).topic, text);
  }
}

TEST(MqttDecodeTest, ASmallPublishTakesNoMemory) {
  const std::string packet =
      FromHex(
          "32 1A 00 03 61 2F 62 00 01 11  08 00 03 72 2F 73  26 00 01 6B 00 01 76  09 00 01 63") +
      "p";
  PacketReader reader(1000);
  std::string_view bytes = packet;
  {
    const OutOfMemory none;
    ASSERT_EQ(reader.Read(bytes), PacketReader::Result::Complete);
    const auto decoded = Decode(reader.FirstByte(), reader.Body());
    const auto* const taken = std::get_if<Packet>(&decoded);
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(std::get<Publish>(*taken).payload, "p");
  }
}

// --- the beginning of a PUBLISH ------------------------------------------------------------------

TEST(MqttCutPublishTest, HasTheTopicAndWhatIsWholeOfTheProperties) {
  const std::string body =
      FromHex("00 03 61 2F 62 00 07 0B  08 00 03 72 2F 73  09 00 02 63 64") + "payload";
  constexpr std::size_t kIdEnd = 7;
  constexpr std::size_t kResponseEnd = 14;
  constexpr std::size_t kCorrelationEnd = 19;
  for (std::size_t size = 0; size <= body.size(); ++size) {
    SCOPED_TRACE(size);
    const auto decoded = Decode(0x32, std::string_view(body).substr(0, size), true);
    if (size < kIdEnd) {
      ASSERT_TRUE(std::holds_alternative<Fault>(decoded));
      EXPECT_EQ(std::get<Fault>(decoded).reason, kMalformed);
      continue;
    }
    ASSERT_TRUE(std::holds_alternative<Packet>(decoded));
    EXPECT_EQ(describe(std::get<Publish>(std::get<Packet>(decoded))),
              std::string("PUBLISH again 0 qos 1 retain 0 id 7 a/b cut  to '") +
                  (size >= kResponseEnd ? "r/s" : "") + "' for '" +
                  (size >= kCorrelationEnd ? "63 64" : "") + "'");
  }
}

TEST(MqttCutPublishTest, IsAFaultWhenWhatIsThereIsOne) {
  for (const auto& [body, reason] : std::map<std::string, int>{
           {"00 01 61 00 00 05", kProtocol},                // id 0
           {"00 01 2B 00 01 05", kReasonTopicNameInvalid},  // a wildcard
           {"00 00 00 01 05", kProtocol},                   // no topic
           {"00 01 61 00 01 80 00", kMalformed},            // a length that is not the shortest
           {"00 01 61 00 01 05 7F", kMalformed},            // an unknown property
           {"00 01 61 00 01 05 21 00 01", kMalformed},      // a property of another packet
           {"00 01 61 00 01 09 01 01 01 01", kProtocol},    // one that comes twice
           {"00 01 61 00 01 05 0B 00", kProtocol},          // a property that must not be 0
           {"00 01 61 00 01 09 23 00 01 09", kReasonTopicAliasInvalid},
           {"00 01 61 00 01 03 08 00 05 61 62", kMalformed},  // longer than the properties
       }) {
    const std::string bytes = FromHex(body);
    const auto decoded = Decode(0x32, bytes, true);
    ASSERT_TRUE(std::holds_alternative<Fault>(decoded)) << body;
    EXPECT_EQ(std::get<Fault>(decoded).reason, reason) << body;
  }
}

// --- encoding ------------------------------------------------------------------------------------

TEST(MqttEncodeTest, AConnect) {
  Connect connect;
  connect.clientId = "tv";
  EXPECT_EQ(ToHex(EncodeConnect(connect)), "10 0F 00 04 4D 51 54 54 05 00 00 00 00 00 02 74 76");
  connect.user = "u";
  connect.password = "pw";
  connect.keepAliveSeconds = 60;
  connect.sessionExpirySeconds = 86400;
  connect.receiveMaximum = 1;
  connect.willTopic = "t/s";
  connect.will = "off";
  EXPECT_EQ(ToHex(EncodeConnect(connect)),
            "10 29 00 04 4D 51 54 54 05 EC 00 3C "
            "08 11 00 01 51 80 21 00 01 "
            "00 02 74 76 "
            "00 00 03 74 2F 73 00 03 6F 66 66 "
            "00 01 75 00 02 70 77");
  connect.willLabels = {"j", {{"n", "v"}}};
  EXPECT_EQ(ToHex(EncodeConnect(connect)),
            "10 36 00 04 4D 51 54 54 05 EC 00 3C "
            "08 11 00 01 51 80 21 00 01 "
            "00 02 74 76 "
            "0D 01 01 03 00 01 6A 26 00 01 6E 00 01 76 00 03 74 2F 73 00 03 6F 66 66 "
            "00 01 75 00 02 70 77");
  Connect withoutATopic;  // there is no will then
  withoutATopic.will = "x";
  withoutATopic.password = "p";
  EXPECT_EQ(ToHex(EncodeConnect(withoutATopic)),
            "10 10 00 04 4D 51 54 54 05 40 00 00 00 00 00 00 01 70");
}

TEST(MqttEncodeTest, AConnectsWillHasItsQosAndRetainFlag) {
  Connect connect;
  connect.willTopic = "t";
  const auto flagsOf = [&connect](std::uint8_t qos, bool retain) {
    connect.willQos = qos;
    connect.willRetain = retain;
    return static_cast<unsigned char>(EncodeConnect(connect).at(9));
  };
  EXPECT_EQ(flagsOf(0, false), 0x04);
  EXPECT_EQ(flagsOf(1, false), 0x0C);
  EXPECT_EQ(flagsOf(2, false), 0x14);
  EXPECT_EQ(flagsOf(0, true), 0x24);
}

TEST(MqttEncodeTest, APublish) {
  Publication publication;
  publication.topic = "a/b";
  publication.payload = std::string("p\0q", 3);
  EXPECT_EQ(ToHex(EncodePublish(publication, 0, 0)), "30 09 00 03 61 2F 62 00 70 00 71");
  publication.retain = true;
  EXPECT_EQ(ToHex(EncodePublish(publication, 1, 0x1234)), "33 0B 00 03 61 2F 62 12 34 00 70 00 71");
  publication.correlation = "cc";
  EXPECT_EQ(ToHex(EncodePublish(publication, 2, 1)),
            "35 10 00 03 61 2F 62 00 01 05 09 00 02 63 63 70 00 71");
  publication.labels = {"j", {{"n", "v"}, {"m", ""}}};
  EXPECT_EQ(ToHex(EncodePublish(publication, 2, 1)),
            "35 23 00 03 61 2F 62 00 01 "
            "18 01 01 03 00 01 6A 26 00 01 6E 00 01 76 26 00 01 6D 00 00 09 00 02 63 63 "
            "70 00 71");
}

TEST(MqttEncodeTest, APublishThatIsSentAgainDiffersInAFlag) {
  Publication publication;
  publication.topic = "a";
  std::string publish = EncodePublish(publication, 1, 7);
  EXPECT_EQ(ToHex(publish), "32 06 00 01 61 00 07 00");
  MarkAsSentAgain(publish);
  EXPECT_EQ(ToHex(publish), "3A 06 00 01 61 00 07 00");
  MarkAsSentAgain(publish);
  EXPECT_EQ(ToHex(publish), "3A 06 00 01 61 00 07 00");
}

TEST(MqttEncodeTest, ALengthHasAsManyBytesAsItTakes) {
  const auto headerOf = [](std::size_t bodyBytes) {
    Publication publication;
    publication.topic = "a";
    publication.payload.assign(bodyBytes - 4, 'p');
    const std::string publish = EncodePublish(publication, 0, 0);
    return ToHex(publish.substr(0, publish.size() - bodyBytes));
  };
  EXPECT_EQ(headerOf(127), "30 7F");
  EXPECT_EQ(headerOf(128), "30 80 01");
  EXPECT_EQ(headerOf(16383), "30 FF 7F");
  EXPECT_EQ(headerOf(16384), "30 80 80 01");
  EXPECT_EQ(headerOf(2097151), "30 FF FF 7F");
  EXPECT_EQ(headerOf(2097152), "30 80 80 80 01");
}

TEST(MqttEncodeTest, PropertiesHaveALengthOfAsManyBytesAsItTakes) {
  for (const std::size_t bytes : {std::size_t{124}, std::size_t{125}, std::size_t{16380},
                                  std::size_t{16381}, kMaxFieldBytes}) {
    Publication publication;
    publication.topic.assign(kMaxFieldBytes, 't');
    publication.payload = "p";
    publication.correlation.assign(bytes, 'c');
    const std::string publish = EncodePublish(publication, 1, 1);
    const auto read = decodeAs<Publish>(publish);
    EXPECT_EQ(read.topic, publication.topic);
    EXPECT_EQ(read.correlation, publication.correlation);
    EXPECT_EQ(read.payload, "p");
  }
}

TEST(MqttEncodeTest, AcksHaveAReasonWhenItIsNotSuccess) {
  EXPECT_EQ(ToHex(EncodeAck(PacketType::PubAck, 0x1234)), "40 02 12 34");
  EXPECT_EQ(ToHex(EncodeAck(PacketType::PubRec, 1)), "50 02 00 01");
  EXPECT_EQ(ToHex(EncodeAck(PacketType::PubRel, 1)), "62 02 00 01");
  EXPECT_EQ(ToHex(EncodeAck(PacketType::PubComp, 1)), "70 02 00 01");
  EXPECT_EQ(ToHex(EncodeAck(PacketType::PubAck, 1, kReasonQuotaExceeded)), "40 03 00 01 97");
  EXPECT_EQ(ToHex(EncodeAck(PacketType::PubRel, 1, kReasonPacketIdNotFound)), "62 03 00 01 92");
}

TEST(MqttEncodeTest, ASubscribeHasItsOptions) {
  Subscription subscription;
  subscription.filter = "a/+";
  EXPECT_EQ(ToHex(EncodeSubscribe(7, subscription)), "82 09 00 07 00 00 03 61 2F 2B 20");
  subscription.qos = 2;
  subscription.noLocal = true;
  EXPECT_EQ(ToHex(EncodeSubscribe(7, subscription)), "82 09 00 07 00 00 03 61 2F 2B 26");
  subscription.qos = 1;
  subscription.noLocal = false;
  subscription.sendRetained = true;
  EXPECT_EQ(ToHex(EncodeSubscribe(7, subscription)), "82 09 00 07 00 00 03 61 2F 2B 01");
}

TEST(MqttEncodeTest, TheOtherPackets) {
  EXPECT_EQ(ToHex(EncodeUnsubscribe(0x102, "a/#")), "A2 08 01 02 00 00 03 61 2F 23");
  EXPECT_EQ(ToHex(EncodePingReq()), "C0 00");
  EXPECT_EQ(ToHex(EncodeDisconnect()), "E0 00");
  EXPECT_EQ(ToHex(EncodeDisconnect(kReasonProtocolError)), "E0 01 82");
}

}  // namespace
