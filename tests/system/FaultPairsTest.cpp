// Every fault against every other one: the second begins while the first lasts.
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ChannelTest.h"
#include "Fault.h"
#include "FaultyChannel.h"
#include "MemoryLimit.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Pair = std::pair<Fault::Kind, Fault::Kind>;

// Every two faults in one order, in the one that is possible; in both with ADC_ALL_PAIRS.
std::vector<Pair> pairs() {
  const char* const all = std::getenv("ADC_ALL_PAIRS");
  const bool isAll = all != nullptr && *all != '\0' && *all != '0';
  std::vector<Pair> pairs;
  for (const Fault::Kind first : Fault::All()) {
    for (const Fault::Kind second : Fault::All()) {
      const bool isPossible = Fault::WhyNot(first, second) == nullptr;
      const bool isOtherPossible = Fault::WhyNot(second, first) == nullptr;
      const bool isChosen = isAll || first < second || !isOtherPossible;
      if (isPossible && isChosen) pairs.emplace_back(first, second);
    }
  }
  return pairs;
}

// The moments of a pair are its own, and others with another ADC_PAIRS_SEED.
std::uint32_t seedOf(const Pair& pair) {
  const char* const text = std::getenv("ADC_PAIRS_SEED");
  const auto seed =
      static_cast<std::uint32_t>(text == nullptr ? 1 : std::strtoul(text, nullptr, 10));
  constexpr std::uint32_t kMostFaults = 100;
  return (seed * kMostFaults + static_cast<std::uint32_t>(pair.first)) * kMostFaults +
         static_cast<std::uint32_t>(pair.second);
}

class FaultPairsTest : public ChannelTest, public ::testing::WithParamInterface<Pair> {
 protected:
  FaultPairsTest() { cloud.Leave(); }
  ~FaultPairsTest() override { Bus().Thaw(); }

  HostProcess::Environment Variables() const {
    HostProcess::Environment variables = ChannelVariables();
    variables["VCONF_DIR"] = Folder().Path() / "vconf";
    variables["LUMO_REQUEST_TIMEOUT_MS"] = "1500";
    return variables;
  }

  // Of anything that has happened before.
  milliseconds Moment() {
    std::uniform_int_distribution<int> moment(20, 250);
    return milliseconds(moment(random));
  }

  std::mt19937 random{seedOf(GetParam())};
};

TEST_P(FaultPairsTest, EverySetIsAccountedForAndTheChannelIsHealthyAgain) {
  FaultyChannel channel(Bus(), broker, Variables());
  ASSERT_TRUE(channel.WaitUntilHealthy()) << channel.Log();
  channel.RunFor(Moment());
  {
    Fault first(GetParam().first, channel);
    Fault second(GetParam().second, channel);
    first.Begin();
    channel.RunFor(Moment());
    second.Begin();
    channel.RunFor(Moment());
    first.End();
    channel.RunFor(Moment());
    second.End();
  }
  channel.EndTraffic();
  const auto calm = steady_clock::now();
  ASSERT_TRUE(channel.WaitUntilHealthy()) << channel.Log();
  RecordProperty("BackMs", static_cast<int>((steady_clock::now() - calm) / milliseconds(1)));
  channel.Settle();

  // From now on nothing may be missing.
  const std::size_t before = channel.Ledger().Sent();
  std::array<std::size_t, 3> sets{};
  for (std::size_t& set : sets) set = channel.SendSet();
  EXPECT_TRUE(channel.RunUntil([&] { return channel.IsAnsweredWithSuccess(sets.back()); }));
  EXPECT_TRUE(channel.RunUntil([&] { return channel.Ledger().IsEvent(sets.back()); }));
  EXPECT_EQ(sets.size(), channel.Ledger().CountFrom(before).events);

  const SetLedger::Counts counts = channel.Ledger().CountFrom(0);
  if (!kIsSanitized) {
    EXPECT_LE(channel.MoreMemory(), MemoryLimit::kMaxMoreKib);
  }
  channel.SignalHost(SIGTERM);
  channel.AwaitHostEnd(0);
  EXPECT_EQ("", channel.WrongEnds());
  EXPECT_EQ("0\n", RunCommand({ADC_VCONF_FILE, "get", kStatusKey}, Variables()).output);
  EXPECT_EQ(0U, counts.lost);
  EXPECT_EQ(0U, counts.misordered);
  EXPECT_LE(counts.repetitions, channel.Kills());
  EXPECT_LE(counts.unheard, channel.UnheardByLog());
  EXPECT_EQ(0U, CountOf("CRITICAL **", channel.Log()));
  EXPECT_EQ(1, channel.Cloud().Connections() - channel.CloudReturns());
  RecordProperty("Sets", static_cast<int>(counts.sent));
  RecordProperty("Events", static_cast<int>(counts.events));
  RecordProperty("Refused", static_cast<int>(counts.refused));
  RecordProperty("Unheard", static_cast<int>(counts.unheard));
  RecordProperty("Forgotten", static_cast<int>(counts.forgotten));
  RecordProperty("Doubled", static_cast<int>(counts.doubled));
  RecordProperty("MoreKib", static_cast<int>(channel.MoreMemory()));
  if (HasFailure()) {
    std::cerr << channel.Account() << channel.Log();
  }
}

std::string nameOf(const ::testing::TestParamInfo<Pair>& info) {
  return std::string(Fault::NameOf(info.param.first)) + "_x_" + Fault::NameOf(info.param.second);
}

INSTANTIATE_TEST_SUITE_P(Pairs, FaultPairsTest, ::testing::ValuesIn(pairs()), nameOf);

}  // namespace
