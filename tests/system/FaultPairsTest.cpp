// Every fault against every other one: the second begins while the first lasts.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "FaultyChannel.h"
#include "HostTest.h"
#include "MemoryLimit.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Something around a channel that fails from its begin to its end.
enum Fault {
  kBrokerRestarted,  // it remembers everything
  kBrokerForgot,     // killed, and started again without anything that it remembered
  kBrokerStopped,    // SIGSTOP
  kConnectionLost,   // at the begin and at the end
  kNetworkSilent,    // connections stay, nothing is carried
  kNetworkSlow,
  kConnectionsRefused,  // and those that there are end
  kListenerDeaf,        // an application that never reads
  kBusStopped,          // SIGSTOP
  kBusKilled,
  kHostEnded,   // SIGTERM; another one is started
  kHostKilled,  // likewise
  kLogUnread,   // its pipe is full
  kLargeSets,   // a hundred of 100 KiB: more than the host lets wait for the bus
  kUnanswerableSets,
  kSettingsGone,    // their folder
  kDescriptorsGone  // of the host; a sanitizer may need some itself
};
using Pair = std::pair<Fault, Fault>;

using Act = void (*)(FaultyChannel&);
const struct {
  const char* name;
  Act begin;
  Act end;
} kFaults[] = {
    {"BrokerRestarted", [](FaultyChannel& c) { c.StopBroker(); },
     [](FaultyChannel& c) { c.StartBroker(); }},
    {"BrokerForgot", [](FaultyChannel& c) { c.KillBroker(); },
     [](FaultyChannel& c) { c.StartBroker(); }},
    {"BrokerStopped", [](FaultyChannel& c) { c.Broker().Freeze(); },
     [](FaultyChannel& c) { c.Broker().Thaw(); }},
    {"ConnectionLost", [](FaultyChannel& c) { c.Proxy().Cut(); },
     [](FaultyChannel& c) { c.Proxy().Cut(); }},
    {"NetworkSilent", [](FaultyChannel& c) { c.Proxy().Stall(true); },
     [](FaultyChannel& c) { c.Proxy().Stall(false); }},
    {"NetworkSlow", [](FaultyChannel& c) { c.Proxy().Delay(milliseconds(20)); },
     [](FaultyChannel& c) { c.Proxy().Delay(milliseconds(0)); }},
    {"ConnectionsRefused",
     [](FaultyChannel& c) {
       c.Proxy().Close();
       c.Proxy().Cut();
     },
     [](FaultyChannel& c) { c.Proxy().Open(); }},
    {"ListenerDeaf", [](FaultyChannel& c) { c.AddDeafListener(); },
     [](FaultyChannel& c) { c.RemoveDeafListener(); }},
    {"BusStopped", [](FaultyChannel& c) { c.Bus().Freeze(); },
     [](FaultyChannel& c) { c.Bus().Thaw(); }},
    {"BusKilled", [](FaultyChannel& c) { c.KillBus(); }, [](FaultyChannel& c) { c.StartBus(); }},
    {"HostEnded", [](FaultyChannel& c) { c.SignalHost(SIGTERM); },
     [](FaultyChannel& c) {
       c.AwaitHostEnd(0);
       c.StartHost();
     }},
    {"HostKilled", [](FaultyChannel& c) { c.SignalHost(SIGKILL); },
     [](FaultyChannel& c) {
       c.AwaitHostEnd(-SIGKILL);
       c.StartHost();
     }},
    {"LogUnread", [](FaultyChannel& c) { c.StopReadingLog(); },
     [](FaultyChannel& c) { c.ReadLog(); }},
    {"LargeSets",
     [](FaultyChannel& c) {
       for (int i = 0; i < 100; ++i) c.SendSet(std::size_t{100} * 1024);
     },
     [](FaultyChannel& /*c*/) {}},
    {"UnanswerableSets",
     [](FaultyChannel& c) {
       for (int i = 0; i < 2; ++i) c.SendUnanswerableSet();
     },
     [](FaultyChannel& /*c*/) {}},
    {"SettingsGone", [](FaultyChannel& c) { c.RemoveSettings(); },
     [](FaultyChannel& c) { c.PutSettingsBack(); }},
    {"DescriptorsGone", [](FaultyChannel& c) { c.TakeDescriptors(); },
     [](FaultyChannel& c) { c.GiveDescriptorsBack(); }},
};

// Whether the second can begin while the first lasts.
bool isPossible(Fault first, Fault second) {
  const auto isNone = [second](std::initializer_list<Fault> excluded) {
    return std::count(excluded.begin(), excluded.end(), second) == 0;
  };
  switch (first) {
    case kBrokerRestarted:
    case kBrokerForgot:  // the broker is one process, which is away; the cloud cannot send
      return isNone(
          {kBrokerRestarted, kBrokerForgot, kBrokerStopped, kLargeSets, kUnanswerableSets});
    case kBrokerStopped:  // the cloud leaves the broker before, and could not hand on its sets
      return isNone({kBrokerRestarted, kBrokerForgot, kBrokerStopped});
    case kHostEnded:
    case kHostKilled:  // there is no host process
      return isNone({kHostEnded, kHostKilled, kLogUnread, kDescriptorsGone});
    case kBusKilled:  // there is no bus
      return isNone({kBusKilled, kBusStopped, kListenerDeaf});
    case kBusStopped:  // the bus lets nobody listen
      return isNone({kBusStopped, kListenerDeaf});
    default:
      return first != second;
  }
}

// Every two faults in one order, in the one that is possible; in both with ADC_ALL_PAIRS.
std::vector<Pair> pairs() {
  const char* const all = std::getenv("ADC_ALL_PAIRS");
  const bool isAll = all != nullptr && *all != '\0' && *all != '0';
  constexpr int kEnd = kDescriptorsGone + (ADC_SANITIZER_OPENS_FILES ? 0 : 1);
  std::vector<Pair> pairs;
  for (int i = 0; i < kEnd * kEnd; ++i) {
    const auto first = static_cast<Fault>(i / kEnd);
    const auto second = static_cast<Fault>(i % kEnd);
    const bool isChosen = isAll || first < second || !isPossible(second, first);
    if (isPossible(first, second) && isChosen) pairs.emplace_back(first, second);
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

class FaultPairsTest : public HostTest, public ::testing::WithParamInterface<Pair> {
 protected:
  // Of anything that has happened before.
  milliseconds Moment() {
    std::uniform_int_distribution<int> moment(20, 250);
    return milliseconds(moment(random));
  }

  std::mt19937 random{seedOf(GetParam())};
  MosquittoBroker broker;
};

TEST_P(FaultPairsTest, EverySetIsAccountedForAndTheChannelIsHealthyAgain) {
  FaultyChannel faulty(channel, broker, {{"LUMO_REQUEST_TIMEOUT_MS", "1500"}});
  ASSERT_TRUE(faulty.WaitUntilHealthy()) << faulty.Log();
  faulty.RunFor(Moment());
  const auto& first = kFaults[GetParam().first];
  const auto& second = kFaults[GetParam().second];
  first.begin(faulty);
  faulty.RunFor(Moment());
  second.begin(faulty);
  faulty.RunFor(Moment());
  first.end(faulty);
  faulty.RunFor(Moment());
  second.end(faulty);
  faulty.EndTraffic();
  const auto calm = steady_clock::now();
  ASSERT_TRUE(faulty.WaitUntilHealthy()) << faulty.Log();
  RecordProperty("BackMs", static_cast<int>((steady_clock::now() - calm) / milliseconds(1)));
  faulty.Settle();

  // From now on nothing may be missing.
  const std::size_t before = faulty.Ledger().Sent();
  std::array<std::size_t, 3> sets{};
  for (std::size_t& set : sets) set = faulty.SendSet();
  EXPECT_TRUE(faulty.RunUntil([&] { return faulty.IsAnsweredWithSuccess(sets.back()); }));
  EXPECT_TRUE(faulty.RunUntil([&] { return faulty.Ledger().IsEvent(sets.back()); }));
  EXPECT_EQ(sets.size(), faulty.Ledger().CountFrom(before).events);

  const SetLedger::Counts counts = faulty.Ledger().CountFrom(0);
  if (!kIsSanitized) {
    EXPECT_LE(faulty.MoreMemory(), MemoryLimit::kMaxMoreKib);
  }
  faulty.SignalHost(SIGTERM);
  faulty.AwaitHostEnd(0);
  EXPECT_EQ("", faulty.WrongEnds());
  EXPECT_EQ(Lines(), faulty.TakeContractViolations());
  EXPECT_EQ("0\n", Setting(kStatusKey));
  EXPECT_EQ(0U, counts.lost);
  EXPECT_EQ(0U, counts.misordered);
  EXPECT_LE(counts.repetitions, faulty.Kills());
  EXPECT_LE(counts.unheard, faulty.UnheardByLog());
  EXPECT_EQ(0U, CountOf("CRITICAL **", faulty.Log()));
  EXPECT_TRUE(faulty.HasCloudStayed());
  const std::pair<const char*, std::size_t> properties[] = {
      {"Sets", counts.sent},           {"Events", counts.events},       {"Refused", counts.refused},
      {"Unheard", counts.unheard},     {"Forgotten", counts.forgotten}, {"Doubled", counts.doubled},
      {"MoreKib", faulty.MoreMemory()}};
  for (const auto& [name, value] : properties) RecordProperty(name, static_cast<int>(value));
  if (HasFailure()) {
    std::cerr << faulty.Account() << faulty.Log();
  }
}

std::string nameOf(const ::testing::TestParamInfo<Pair>& info) {
  return std::string(kFaults[info.param.first].name) + "_x_" + kFaults[info.param.second].name;
}

INSTANTIATE_TEST_SUITE_P(Pairs, FaultPairsTest, ::testing::ValuesIn(pairs()), nameOf);

}  // namespace
