#include "SoakRun.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <thread>

#include "WaitUntil.h"
#include "Worker.h"

namespace Soak {
namespace {

constexpr std::size_t kConnections = 200;
constexpr int kRequesters = 4;
constexpr std::chrono::seconds kRoundTime(60);
constexpr std::chrono::seconds kPrintInterval(10);
constexpr std::chrono::milliseconds kCheckInterval(100);
constexpr unsigned kMaxBrokerPauseMs = 1500;
constexpr std::size_t kMaxGrowthKib = std::size_t{4} * 1024;
constexpr const char* kForbidding = "/etc/release";  // where this is, diag-menu may not register

constexpr std::array<const char*, 15> kApps{
    "lanternapp",     "welcome",     "keyringservice",   "qz",
    "galleryapp",     "vexBrowser",  "lantern-pz-agent", "pocketrelay",
    "handset-server", "panelmosaic", "brightroomapp",    "tunerapp",
    "qmap",           "drelservice", "trace-pz-agent"};

}  // namespace

SoakRun::SoakRun(Channel& channel, std::uint64_t seed, Tally& tally,
                 const volatile std::sig_atomic_t& endIsAskedFor)
    : m_channel(channel),
      m_tally(tally),
      m_endIsAskedFor(endIsAskedFor),
      m_random(seed),
      m_first(useOfHost()) {
  for (const char* name : kApps) m_models.emplace_back(name, true);
  m_models.emplace_back("diag-menu", access(kForbidding, F_OK) != 0);
  for (std::size_t i = 0; i < m_models.size(); ++i) {
    const std::size_t more = i < kConnections % m_models.size() ? 1 : 0;
    m_owners.emplace_back(channel.bus.Address(), kConnections / m_models.size() + more, m_models[i],
                          m_thing, m_random(), tally);
  }
  for (int i = 0; i < kRequesters; ++i) {
    m_requesters.emplace_back(channel.broker.Port(), Channel::kThing, i, m_models, m_thing,
                              m_random(), tally);
  }
}

bool SoakRun::Run(std::chrono::seconds time) {
  const Clock::time_point end = Clock::now() + time;
  const Clock::duration roundTime = std::min<Clock::duration>(kRoundTime, time / 2);
  for (bool isFirst = true; Clock::now() + roundTime / 2 < end; isFirst = false) {
    if (!round(std::min<Clock::duration>(roundTime, end - Clock::now()))) return false;
    checkQuiet();
    if (isFirst) m_warmKib = useOfHost().residentKib;
  }
  for (AppOwner& owner : m_owners) owner.Leave();
  checkCloud();
  m_requesters.clear();
  checkGrowth();
  print();
  return true;
}

std::string SoakRun::Totals() const {
  std::array<char, 512> text{};
  std::snprintf(text.data(), text.size(),
                "calls %llu, signals %llu, requests %llu, repeated answers %llu, applications "
                "killed %llu, broker restarts %llu, mismatches %llu; host: resident %zu KiB after "
                "%zu when warm, descriptors %zu after %zu, threads %zu after %zu",
                m_tally.calls.load(), m_tally.signals.load(), m_tally.requests.load(),
                m_tally.repeated.load(), m_tally.kills.load(), m_tally.restarts.load(),
                m_tally.mismatches.load(), m_last.residentKib, m_warmKib, m_last.descriptors,
                m_first.descriptors, m_last.threads, m_first.threads);
  return text.data();
}

bool SoakRun::round(Clock::duration time) {
  const Clock::time_point start = Clock::now();
  std::deque<Worker> workers;
  for (AppOwner& owner : m_owners) {
    workers.emplace_back(
        owner.Name(), [&owner](const auto& stop) { owner.Run(stop); }, m_tally);
  }
  for (CloudMix& requester : m_requesters) {
    workers.emplace_back(
        "a requester", [&requester](const auto& stop) { requester.Run(stop); }, m_tally);
  }
  if (!watchUntil(start + time / 2)) return false;
  m_channel.broker.Stop();
  std::this_thread::sleep_for(std::chrono::milliseconds(m_random() % kMaxBrokerPauseMs));
  m_channel.broker.Start();
  ++m_tally.restarts;
  return watchUntil(start + time);
}

bool SoakRun::watchUntil(Clock::time_point end) {
  while (Clock::now() < end) {
    if (Clock::now() >= m_nextPrint) print();
    if (m_endIsAskedFor != 0) return false;
    std::this_thread::sleep_until(std::min(end, Clock::now() + kCheckInterval));
  }
  return true;
}

void SoakRun::print() {
  m_last = useOfHost();
  const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_start);
  std::printf("%5lld s  %s\n", static_cast<long long>(elapsed.count()), Totals().c_str());
  std::fflush(stdout);
  while (m_nextPrint <= Clock::now()) m_nextPrint += kPrintInterval;
}

void SoakRun::checkCloud() {
  CloudClient cloud(m_channel.broker.Port(), Channel::kThing);
  for (AppOwner& owner : m_owners) owner.CheckCloud(cloud);
}

void SoakRun::checkQuiet() {
  unsigned signins = 0;
  for (CloudMix& requester : m_requesters) signins += requester.TakeSignins();
  for (AppOwner& owner : m_owners) owner.CheckEvents(signins);
  checkCloud();
  for (AppModel& model : m_models) model.state.Settle();
  m_thing.signedIn.Settle();
  m_thing.signupInfo.Settle();
}

void SoakRun::checkGrowth() {
  const bool isAsBefore = WaitUntil([this] {
    m_last = useOfHost();
    return m_last.descriptors <= m_first.descriptors && m_last.threads <= m_first.threads;
  });
  if (!isAsBefore) m_tally.Mismatch("the host has more descriptors or threads than before");
  if (m_last.residentKib > m_warmKib + kMaxGrowthKib) {
    m_tally.Mismatch("the host's memory has grown by more than " + std::to_string(kMaxGrowthKib) +
                     " KiB");
  }
}

}  // namespace Soak
