// A broker that sends anything. ADC_MUTATIONS says how many connections of it there are, instead of
// a few hundred; ADC_MUTATION_FIRST which one is the first. Each has the number as its seed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "PacketMutator.h"
#include "Sanitized.h"
#include "ScriptedBrokerTest.h"

namespace {

using std::chrono::milliseconds;
using Clock = ScriptedBroker::Clock;

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

std::string inHex(const std::string& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    const auto number = static_cast<std::uint8_t>(byte);
    text += {kDigits[number >> 4], kDigits[number & 15]};
  }
  return text;
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
    SCOPED_TRACE("mutation " + std::to_string(number) + ": " + inHex(bytes));

    auto broker = std::make_unique<ScriptedBroker>();
    const Variable url("LUMO_BROKER", "mqtt://127.0.0.1:" + std::to_string(broker->Port()));
    bool wasSent = false;
    broker->AnswerConnects([&](const auto&) {
      if (wasSent) return broker->Greeting();
      wasSent = true;
      return isGreeting ? bytes : broker->Greeting() + bytes;
    });
    PlugIn plugIn;
    plugIn.Register("a");
    plugIn.Notify("a", "1");
    ASSERT_TRUE(broker->ServeUntil([&] { return wasSent; }));
    // Until the service has read it and is silent, or has closed.
    const auto deadline = Clock::now() + kLongestQuiet;
    while (!broker->Connections().back().isOver && Clock::now() < deadline) {
      if (broker->IsQuietFor(kQuiet)) break;
      broker->ServeFor(kQuiet);
    }
    broker->Close();
    if (recovers) {
      ASSERT_TRUE(broker->ServeUntil([&] {
        const auto statuses = plugIn.Statuses();
        return !broker->Connections().back().isOver && broker->Connections().size() > 1 &&
               broker->RetainedAt(kStatus) == kOnline && !statuses.empty() &&
               statuses.back() == "mqtt=1" && broker->RetainedAt(valueTopic("a")) == "\"1\"";
      })) << log();
      broker->Deliver(kSet, R"({"last":1})",
                      MqttBytes::ResponseTopic(kAnswers) + MqttBytes::CorrelationData("last"));
      ASSERT_TRUE(broker->ServeUntil([&] { return !broker->AnswersTo("last").empty(); }));
      ++m_recoveries;
      broker->Close();
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
  PlugIn plugIn;
  ASSERT_TRUE(serveUntilOnline(plugIn));
  expectSetWorks(plugIn);
  end(plugIn);
}

}  // namespace
