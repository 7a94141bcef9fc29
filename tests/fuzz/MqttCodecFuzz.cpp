// What a broker sends, through the packet reader and the decoder.
//
// The first byte of the input, four times, is the reader's limit, and the second one says into what
// pieces the rest is chopped: that is the stream of a connection.
#include <glib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "mqtt/Codec.h"
#include "mqtt/PacketReader.h"
#include "mqtt/Reasons.h"

namespace {

using namespace fuzz;
using namespace Lumo::Mqtt;

std::size_t g_largestNew = 0;  // since somebody last made it 0

}  // namespace

// These replace those of the standard library.
// NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
void* operator new(std::size_t size, const std::nothrow_t& /*noThrow*/) noexcept {
  g_largestNew = std::max(g_largestNew, size);
  return std::malloc(size);
}
void* operator new(std::size_t size) {
  void* memory = operator new(size, std::nothrow);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)

namespace {

struct Frame {
  std::uint8_t firstByte;
  std::string body;
  bool isCut;

  bool operator==(const Frame& other) const {
    return firstByte == other.firstByte && body == other.body && isCut == other.isCut;
  }
};

struct Frames {
  std::vector<Frame> frames;
  int fault = -1;

  bool operator==(const Frames& other) const {
    return frames == other.frames && fault == other.fault;
  }
};

// --- reading -------------------------------------------------------------------------------------

// Takes what is in the piece, after which `come` bytes have come; false when there is a fault.
bool readPiece(PacketReader& reader, std::size_t limit, std::string_view piece, std::size_t come,
               Frames& found) {
  for (;;) {
    g_largestNew = 0;
    const PacketReader::Result result = reader.Read(piece);
    Require(g_largestNew <= limit, "reading takes no more memory than the limit");
    Require(g_largestNew <= 2 * come, "memory is taken as bytes come");
    switch (result) {
      case PacketReader::Result::NeedsMore:
        Require(piece.empty(), "a reader that needs more has taken all");
        return true;
      case PacketReader::Result::Fault:
        found.fault = reader.GetFault().reason;
        Require(found.fault == kReasonMalformedPacket || found.fault == kReasonPacketTooLarge,
                "a packet cannot be read because of its length");
        Require(*reader.GetFault().what != '\0', "a fault says what is wrong");
        RequireEqual(reader.Read(piece) == PacketReader::Result::Fault, true, "a fault stays");
        return false;
      case PacketReader::Result::Complete:
        Require(reader.Body().size() <= limit, "a body is within the limit");
        Require(!reader.IsCut() || reader.Body().size() == limit, "a cut body is the limit");
        Require(!reader.IsCut() || reader.FirstByte() >> 4U == 3, "only a PUBLISH is cut");
        found.frames.push_back({reader.FirstByte(), std::string(reader.Body()), reader.IsCut()});
        break;
    }
  }
}

// `pattern` 0: in one piece; 1: byte by byte; else pieces of changing sizes.
Frames readIn(std::string_view stream, std::size_t limit, unsigned pattern) {
  PacketReader reader(limit);
  Frames found;
  std::size_t come = 0;
  std::uint32_t state = pattern;
  while (!stream.empty()) {
    state = state * 1103515245U + 12345U;
    std::size_t size = 1 + (state >> 16U) % (pattern % 16 + 2);
    if (pattern == 0) size = stream.size();
    if (pattern == 1) size = 1;
    const ExactBytes piece(stream.substr(0, size));
    stream.remove_prefix(piece.View().size());
    come += piece.View().size();
    if (!readPiece(reader, limit, piece.View(), come, found)) break;
  }
  return found;
}

// --- decoding ------------------------------------------------------------------------------------

void requireWithin(std::string_view part, std::string_view body) {
  Require(part.empty() || (part.data() >= body.data() &&
                           part.data() + part.size() <= body.data() + body.size()),
          "what was decoded lies in the packet");
}

void requireText(std::string_view text) {
  // GLib takes no NUL.
  Require(g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE, "a string is UTF-8");
}

void requireTopic(std::string_view topic) {
  requireText(topic);
  Require(!topic.empty(), "a message has a topic");
  Require(topic.find_first_of("+#") == std::string_view::npos, "a topic has no wildcard");
}

bool isFault(const std::variant<Packet, Fault>& decoded) {
  const auto* const fault = std::get_if<Fault>(&decoded);
  if (fault == nullptr) return false;
  Require(fault->reason == kReasonMalformedPacket || fault->reason == kReasonProtocolError ||
              fault->reason == kReasonTopicAliasInvalid || fault->reason == kReasonTopicNameInvalid,
          "a packet cannot be decoded because of what it is");
  Require(*fault->what != '\0', "a fault says what is wrong");
  return true;
}

template <typename Kind>
Kind decodeEncoded(std::string_view packet) {
  PacketReader reader(packet.size());
  Require(reader.Read(packet) == PacketReader::Result::Complete && packet.empty(),
          "what was encoded is one packet");
  const auto decoded = Decode(reader.FirstByte(), reader.Body());
  Require(!isFault(decoded), "what was encoded is valid");
  return std::get<Kind>(std::get<Packet>(decoded));
}

void checkRoundTrip(const Publish& publish) {
  Publication publication;
  publication.topic = publish.topic;
  publication.payload = publish.payload;
  publication.retain = publish.retain;
  publication.correlation = publish.correlation;
  std::string packet = EncodePublish(publication, publish.qos, publish.id);
  if (publish.again) MarkAsSentAgain(packet);
  const auto fieldsOf = [](const Publish& message) {
    return std::tuple(message.again, message.retain, message.qos, message.id, message.topic,
                      message.payload, message.correlation);
  };
  const auto read = decodeEncoded<Publish>(packet);
  Require(fieldsOf(read) == fieldsOf(publish), "a message is read as it was written");
  Require(read.responseTopic.empty(), "there is no response topic");
}

void checkPublish(const Publish& publish, const Frame& frame, std::string_view body) {
  for (const std::string_view part :
       {publish.topic, publish.payload, publish.responseTopic, publish.correlation}) {
    requireWithin(part, body);
  }
  requireTopic(publish.topic);
  requireText(publish.responseTopic);
  RequireEqual(publish.id != 0, publish.qos > 0, "a message has an identifier when it is answered");
  RequireEqual<int>(publish.qos, frame.firstByte >> 1U & 3U, "the QoS is the header's");
  RequireEqual(publish.isCut, frame.isCut, "what is cut is said to be");
  Require(!publish.isCut || publish.payload.empty(), "what is cut has no payload");
  if (!publish.isCut) checkRoundTrip(publish);
}

// Any beginning of a message has its topic and identifier, or is too short for them.
void checkBeginning(const Publish& publish, std::uint8_t firstByte, std::string_view body,
                    std::size_t size) {
  const std::size_t needed = 2 + publish.topic.size() + (publish.qos > 0 ? 2 : 0);
  const ExactBytes beginning(body.substr(0, size));
  const auto decoded = Decode(firstByte, beginning.View(), true);
  RequireEqual(isFault(decoded), size < needed, "the beginning of a message is one");
  if (size < needed) return;
  const auto& cut = std::get<Publish>(std::get<Packet>(decoded));
  RequireEqual(cut.topic, publish.topic, "the beginning has the topic");
  RequireEqual<int>(cut.id, publish.id, "the beginning has the identifier");
  Require((cut.responseTopic.empty() || cut.responseTopic == publish.responseTopic) &&
              (cut.correlation.empty() || cut.correlation == publish.correlation),
          "a property is whole or not there");
}

// What a packet of another kind has to be; `leastBytes` is the length from which on a packet that
// has lost or gained a byte at its end is none any more.
struct Kind {
  bool isExpected;
  std::size_t leastBytes;
};
constexpr std::size_t kAnyLength = SIZE_MAX;

Kind check(const Publish& /*publish*/, PacketType /*type*/) {
  return {false, 0};  // it is no other packet's
}

Kind check(const ConnAck& ack, PacketType type) {
  requireText(ack.reasonText);
  requireText(ack.serverReference);
  Require(!ack.sessionPresent || ack.reason == kReasonSuccess, "a refusal has no session");
  Require(ack.receiveMaximum > 0, "something can be sent");
  Require(ack.maximumQos <= 2, "a QoS is one");
  Require(ack.maximumPacketSize.value_or(1) > 0, "a packet has bytes");
  return {type == PacketType::ConnAck, 3};
}

Kind check(const Ack& ack, PacketType type) {
  requireText(ack.reasonText);
  Require(ack.id != 0, "an acknowledgement has an identifier");
  const auto read = decodeEncoded<Ack>(EncodeAck(ack.type, ack.id, ack.reason));
  Require(read.type == ack.type && read.id == ack.id && read.reason == ack.reason,
          "an acknowledgement is read as it was written");
  return {type == ack.type, 5};  // reason and properties may be left out
}

Kind check(const SubscriptionAck& ack, PacketType type) {
  requireText(ack.reasonText);
  Require(ack.id != 0 && !ack.reasons.empty(), "a subscription is answered");
  return {type == ack.type && (type == PacketType::SubAck || type == PacketType::UnsubAck),
          kAnyLength};  // there may be more reasons or fewer
}

Kind check(const PingResp& /*pingResp*/, PacketType type) {
  return {type == PacketType::PingResp, 0};
}

Kind check(const Disconnect& disconnect, PacketType type) {
  requireText(disconnect.reasonText);
  requireText(disconnect.serverReference);
  return {type == PacketType::Disconnect, 3};
}

Kind check(const Auth& /*auth*/, PacketType type) {
  return {type == PacketType::Auth, 3};
}

void checkFrame(const Frame& frame, std::size_t cutAt) {
  const ExactBytes copy(frame.body);
  const std::string_view body = copy.View();
  const auto decoded = Decode(frame.firstByte, body, frame.isCut);
  if (isFault(decoded)) return;
  const Packet& packet = std::get<Packet>(decoded);
  const auto type = static_cast<PacketType>(frame.firstByte >> 4U);
  if (const auto* const publish = std::get_if<Publish>(&packet)) {
    Require(type == PacketType::Publish, "a packet is what its header says");
    checkPublish(*publish, frame, body);
    checkBeginning(*publish, frame.firstByte, body, std::min(cutAt, body.size()));
    return;
  }
  const Kind kind = std::visit([type](const auto& other) { return check(other, type); }, packet);
  Require(kind.isExpected, "a packet is what its header says");
  if (body.size() < kind.leastBytes) return;
  const ExactBytes longer(frame.body + '\0');
  Require(isFault(Decode(frame.firstByte, longer.View())), "no byte is left over");
  if (body.empty()) return;
  const ExactBytes shorter(body.substr(0, body.size() - 1));
  Require(isFault(Decode(frame.firstByte, shorter.View())), "no byte is missing");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t limit = std::size_t{data[0]} * 4;
  const unsigned pattern = data[1];
  const std::string stream(data + 2, data + size);

  const Frames frames = readIn(stream, limit, 0);
  Require(readIn(stream, limit, 1) == frames, "byte by byte the packets are the same");
  Require(readIn(stream, limit, pattern) == frames, "in any pieces the packets are the same");
  for (const Frame& frame : frames.frames) {
    Require(*DescribeReason(frame.firstByte) != '\0', "a reason has words");
    checkFrame(frame, pattern % 64);
  }
  return 0;
}
