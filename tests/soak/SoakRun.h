#ifndef TESTS_SOAK_SOAKRUN_H
#define TESTS_SOAK_SOAKRUN_H

#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <string>

#include "AppOwner.h"
#include "Channel.h"
#include "CloudMix.h"
#include "Model.h"
#include "ProcessUse.h"
#include "Tally.h"

namespace Soak {

// One soak: rounds of random work with a restart of the broker in the middle of each, and a check
// of everything while all is quiet between them. The thread that made the channel uses it.
//
// The host must not grow: in the end, when everybody has left, it has no more descriptors and
// threads than in the beginning, and at most 4 MiB more resident memory than when the first round
// was over.
class SoakRun {
 public:
  // All that is referred to outlives it.
  SoakRun(Channel& channel, std::uint64_t seed, Tally& tally,
          const volatile std::sig_atomic_t& endIsAskedFor);

  // False when the end was asked for.
  bool Run(std::chrono::seconds time);
  // The line of totals.
  std::string Totals() const;

 private:
  using Clock = std::chrono::steady_clock;

  bool round(Clock::duration time);
  // Prints what is due until then. False when the end is asked for.
  bool watchUntil(Clock::time_point end);
  ProcessUse useOfHost() const { return ProcessUse::Of(m_channel.host.Pid()); }
  void print();
  void checkCloud();
  void checkQuiet();
  void checkGrowth();

  Channel& m_channel;
  Tally& m_tally;
  const volatile std::sig_atomic_t& m_endIsAskedFor;
  std::mt19937_64 m_random;
  ThingModel m_thing;
  std::deque<AppModel> m_models;  // neither these nor what refers to them is ever moved
  std::deque<AppOwner> m_owners;
  std::deque<CloudMix> m_requesters;
  const ProcessUse m_first;
  std::size_t m_warmKib = 0;
  ProcessUse m_last;
  const Clock::time_point m_start = Clock::now();
  Clock::time_point m_nextPrint = m_start;
};

}  // namespace Soak

#endif  // TESTS_SOAK_SOAKRUN_H
