// A broker that sends anything. ADC_MUTATIONS says how many connections of it there are, instead of
// a few hundred; ADC_MUTATION_FIRST which one is the first. Each has the number as its seed.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "Hex.h"
#include "Sanitized.h"
#include "ScriptedBrokerTest.h"

namespace {

using broker::Number;
using broker::Property;
using broker::Text;
using broker::Whole;
using broker::WithLength;
using std::chrono::milliseconds;
using Clock = ScriptedBroker::Clock;

constexpr unsigned kMutationsPerPacket = 4;
constexpr std::size_t kPacketsInARow = 4;

// Bytes at which something ends or begins.
constexpr std::array<unsigned char, 8> kEdges{0x00, 0x01, 0x7F, 0x80, 0x81, 0xFE, 0xFF, 0x20};

std::string userProperty() {
  return Property(0x26, Text("name") + Text("value"));
}

// One of each kind.
std::vector<std::string> allProperties() {
  return {Property(0x01, Number(1, 1)),        Property(0x02, Number(60, 4)),
          Property(0x03, Text("text/plain")),  Property(0x08, Text("answers/here")),
          Property(0x09, Text("correlation")), Property(0x0B, Number(7, 1)),
          Property(0x11, Number(10, 4)),       Property(0x12, Text("another")),
          Property(0x13, Number(30, 2)),       Property(0x15, Text("method")),
          Property(0x16, Text("data")),        Property(0x1A, Text("information")),
          Property(0x1C, Text("127.0.0.1:1")), Property(0x1F, Text("a reason")),
          Property(0x21, Number(1, 2)),        Property(0x22, Number(10, 2)),
          Property(0x23, Number(1, 2)),        Property(0x24, Number(1, 1)),
          Property(0x25, Number(0, 1)),        userProperty(),
          Property(0x27, Number(1000, 4)),     Property(0x28, Number(0, 1)),
          Property(0x29, Number(0, 1)),        Property(0x2A, Number(0, 1))};
}

std::vector<std::string> greetings() {
  const std::string everything = Property(0x11, Number(86400, 4)) + Property(0x13, Number(60, 2)) +
                                 Property(0x1F, Text("a reason")) + Property(0x21, Number(20, 2)) +
                                 Property(0x22, Number(10, 2)) + Property(0x24, Number(1, 1)) +
                                 Property(0x25, Number(1, 1)) + userProperty() +
                                 Property(0x27, Number(100'000, 4)) + Property(0x28, Number(1, 1));
  return {broker::ConnAckWith(false), broker::ConnAckWith(true),
          broker::ConnAckWith(false, 0, everything),
          broker::ConnAckWith(false, 0x88, Property(0x1F, Text("later")))};
}

std::vector<std::string> packets() {
  const std::string request =
      broker::AnswerProperties("answers/here", "correlation") + userProperty();
  std::vector<std::string> all{
      broker::Publish(1, "things/tv/status", "\"offline\"", {}, 0x30),
      broker::Publish(1, "things/tv/service/value/a", "\"1\"", {}, 0x31),
      broker::Publish(1, "things/tv/service/cancel", "", request),
      broker::Subscribed(broker::kSubAck, 1, {2}),
      Whole(0x90, Number(2, 2) + Number(11, 1) + userProperty().substr(0, 11) + Number(0, 1)),
      broker::Subscribed(broker::kUnsubAck, 6, {0}),
      broker::PingResp(),
      Whole(0xE0, Number(0x8B, 1) + WithLength(Property(0x1F, Text("a reason")) + userProperty())),
      Whole(0xE0, Number(0x9D, 1) + WithLength(Property(0x1C, Text("127.0.0.1:1")))),
      Whole(0xF0, Property(0x18, Number(9, 1)) + Property(0x15, Text("method")))};
  for (const unsigned header : {0x30U, 0x32U, 0x34U, 0x3CU}) {
    all.push_back(broker::Publish(1, "things/tv/service/set", R"({"a":"value"})", request, header));
    all.push_back(broker::Publish(2, "things/tv/service/get", R"(["a"])", request, header));
  }
  constexpr std::uint16_t kIds[] = {1, 2, 7, 65535};
  for (const auto type : {broker::kPubAck, broker::kPubRec, broker::kPubRel, broker::kPubComp}) {
    for (const std::uint16_t id : kIds) {
      all.push_back(broker::Ack(type, id));
      const std::string withReason =
          Number(id, 2) + Number(0x97, 1) + Number(16, 1) + userProperty();
      all.push_back(Whole(static_cast<std::uint8_t>(all.back().front()), withReason));
    }
  }
  return all;
}

// What a broker could send if it were broken, or an enemy: valid packets with something wrong about
// them. The same seed gives the same bytes.
class PacketMutator {
 public:
  explicit PacketMutator(std::uint32_t seed)
      : m_random(seed), m_greetings(greetings()), m_packets(packets()) {}

  // Some packets in a row, at least one of which is mutated. `isGreeting`: the first one is a
  // CONNACK.
  std::string Packets(bool isGreeting) {
    const std::size_t count = 1 + below(kPacketsInARow);
    const std::size_t mutated = below(count);
    std::string bytes;
    for (std::size_t i = 0; i < count; ++i) {
      std::string packet = pick(isGreeting && i == 0 ? m_greetings : m_packets);
      if (i == mutated || OneIn(2)) {
        for (std::size_t times = 1 + below(kMutationsPerPacket); times > 0; --times) mutate(packet);
      }
      bytes += packet;
    }
    return bytes;
  }
  // True as often as one in `count`.
  bool OneIn(unsigned count) { return below(count) == 0; }

 private:
  std::size_t below(std::size_t end) { return m_random() % end; }  // the same with every library
  const std::string& pick(const std::vector<std::string>& all) { return all[below(all.size())]; }
  void mutate(std::string& packet);

  std::mt19937 m_random;
  const std::vector<std::string> m_greetings;
  const std::vector<std::string> m_packets;
};

void PacketMutator::mutate(std::string& packet) {
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
      packet.replace(1, 1, broker::Length(below(std::size_t{1} << (7 * (1 + below(4))))));
  }
}

// --- The test

constexpr std::uint32_t kMutations = 400;
// So often a service is watched until it works with a broker that is as it should be.
constexpr unsigned kRecoveries = 50;

std::uint32_t numberFrom(const char* variable, std::uint32_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

// What the process has in memory.
std::size_t residentBytes() {
  constexpr std::size_t kPageBytes = 4096;
  std::ifstream file("/proc/self/statm");
  std::size_t all = 0;
  std::size_t resident = 0;
  file >> all >> resident;
  return resident * kPageBytes;
}

class MqttMutationTest : public ScriptedBrokerTest {
 protected:
  // One service, one connection, one mutation.
  void runOne(std::uint32_t number) {
    constexpr milliseconds kQuiet(3);  // then it has read everything, most likely
    constexpr milliseconds kLongestQuiet(250);
    PacketMutator mutator(number);
    const bool isGreeting = mutator.OneIn(4);
    const bool recovers = mutator.OneIn(kRecoveries);
    const std::string bytes = mutator.Packets(isGreeting);
    SCOPED_TRACE("mutation " + std::to_string(number) + ": " + ToHex(bytes));

    ScriptedBroker peer;
    const Variable url("LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(peer.Port()));
    bool wasSent = false;
    peer.AnswerConnects([&](const auto&) {
      if (wasSent) return peer.Greeting();
      wasSent = true;
      return isGreeting ? bytes : peer.Greeting() + bytes;
    });
    PlugIn plugIn;
    plugIn.Register("a");
    plugIn.Notify("a", "1");
    ASSERT_TRUE(peer.ServeUntil([&] { return wasSent; }));
    // Until the service has read it and is silent, or has closed.
    const auto deadline = Clock::now() + kLongestQuiet;
    while (!peer.Connections().back().isOver && Clock::now() < deadline) {
      if (peer.IsQuietFor(kQuiet)) break;
      peer.ServeFor(kQuiet);
    }
    peer.Close();
    if (recovers) {
      ASSERT_TRUE(peer.ServeUntil([&] {
        const auto statuses = plugIn.Statuses();
        return !peer.Connections().back().isOver && peer.Connections().size() > 1 &&
               peer.RetainedAt(kStatus) == kOnline && !statuses.empty() &&
               statuses.back() == "mqtt=1" && peer.RetainedAt(valueTopic("a")) == "\"1\"";
      })) << log();
      peer.Deliver(kSet, R"({"last":1})", broker::AnswerProperties(kAnswers, "last"));
      ASSERT_TRUE(peer.ServeUntil([&] { return !peer.AnswersTo("last").empty(); }));
      ++m_recoveries;
      peer.Close();
    }
    const auto start = Clock::now();
    plugIn.Destroy();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
  }

  std::size_t m_recoveries = 0;
};

TEST_F(MqttMutationTest, NothingThatABrokerSendsHarmsTheProcessOrTheNextConnection) {
  constexpr std::uint32_t kWarm = 100;
  constexpr std::size_t kMayGrowBytes = std::size_t{32} * 1024 * 1024;
  const std::uint32_t first = numberFrom("ADC_MUTATION_FIRST", 1);
  const std::uint32_t count = numberFrom("ADC_MUTATIONS", kMutations);
  std::size_t before = 0;
  for (std::uint32_t i = 0; i < count && !HasFatalFailure(); ++i) {
    if (i == kWarm) before = residentBytes();
    runOne(first + i);
    CapturedLog::Get().Take();
  }
  if (before != 0 && !kIsSanitized) {
    EXPECT_LT(residentBytes(), before + kMayGrowBytes);
  }
  RecordProperty("Recoveries", static_cast<int>(m_recoveries));
  const Variable url("LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(m_broker.Port()));
  startOnline();
  expectSetWorks();
}

}  // namespace
