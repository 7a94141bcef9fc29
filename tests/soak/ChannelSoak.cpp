// A soak of the whole channel:
//
//     channel-soak SECONDS [pressure]
//
// Sixteen applications with 200 connections and four requesters of the cloud do everything that
// they can, in a random order, for SECONDS, with every answer checked against a model, while the
// broker is started again in the middle of every minute and applications are killed. SOAK_SEED
// makes the same choices again; the threads' timing is its own. Then, with `pressure`, what loads
// do to others. Every message at the broker is held against the contract.
//
// Starts a message bus, a broker and the host of its own. Ends with a line of totals, and with 1
// when anything was not as the model has it or the host has grown.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "AppOwner.h"
#include "Channel.h"
#include "CloudMix.h"
#include "MainLoopThread.h"
#include "Model.h"
#include "Pressure.h"
#include "ProcessUse.h"
#include "Tally.h"
#include "WaitUntil.h"
#include "Worker.h"

namespace Soak {
namespace {

using Clock = std::chrono::steady_clock;

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

constexpr int kUsage = 2;
constexpr int kInterrupted = 130;

volatile std::sig_atomic_t endIsAskedFor = 0;

// Rounds of random work with a restart of the broker in the middle of each, and a check of
// everything while all is quiet between them. The thread that made the channel uses it.
//
// The host must not grow: in the end, when everybody has left, it has no more descriptors and
// threads than in the beginning, and little more resident memory than when the first round was
// over.
class Run {
 public:
  Run(Channel& channel, std::uint64_t seed, Tally& tally)
      : m_channel(channel), m_tally(tally), m_random(seed), m_first(useOfHost()) {
    for (const char* name : kApps) m_models.emplace_back(name, true);
    m_models.emplace_back("diag-menu", access(kForbidding, F_OK) != 0);
    for (std::size_t i = 0; i < m_models.size(); ++i) {
      const std::size_t more = i < kConnections % m_models.size() ? 1 : 0;
      m_owners.emplace_back(channel.Bus().Address(), kConnections / m_models.size() + more,
                            m_models[i], m_thing, m_random(), tally);
    }
    for (int i = 0; i < kRequesters; ++i) {
      m_requesters.emplace_back(channel.Broker().CloudPort(), Channel::kThing, i, m_models, m_thing,
                                m_random(), tally);
    }
  }

  // False when the end was asked for.
  bool For(std::chrono::seconds time) {
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
    return true;
  }

  // A line with all that has been done and seen.
  void Print(const char* result) const {
    std::printf(
        "%s: calls %llu, signals %llu, requests %llu, repeated answers %llu, applications killed "
        "%llu, broker restarts %llu, mismatches %llu; host: resident %zu KiB after %zu when warm, "
        "descriptors %zu after %zu, threads %zu after %zu\n",
        result, m_tally.calls.load(), m_tally.signals.load(), m_tally.requests.load(),
        m_tally.repeated.load(), m_tally.kills.load(), m_tally.restarts.load(),
        m_tally.mismatches.load(), m_last.residentKib, m_warmKib, m_last.descriptors,
        m_first.descriptors, m_last.threads, m_first.threads);
    std::fflush(stdout);
  }

 private:
  ProcessUse useOfHost() const { return ProcessUse::Of(m_channel.Host().Pid()); }

  bool round(Clock::duration time) {
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
    m_channel.Broker().Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(m_random() % kMaxBrokerPauseMs));
    m_channel.Broker().Start();
    ++m_tally.restarts;
    return watchUntil(start + time);
  }

  // Prints what is due until then. False when the end is asked for.
  bool watchUntil(Clock::time_point end) {
    while (Clock::now() < end) {
      if (Clock::now() >= m_nextPrint) {
        m_last = useOfHost();
        Print("so far");
        m_nextPrint += kPrintInterval;
      }
      if (endIsAskedFor != 0) return false;
      std::this_thread::sleep_until(std::min(end, Clock::now() + kCheckInterval));
    }
    return true;
  }

  void checkQuiet() {
    unsigned signins = 0;
    for (CloudMix& requester : m_requesters) signins += requester.TakeSignins();
    for (AppOwner& owner : m_owners) owner.CheckEvents(signins);
    checkCloud();
    for (AppModel& model : m_models) model.state.Settle();
    m_thing.signedIn.Settle();
    m_thing.signupInfo.Settle();
  }

  void checkCloud() {
    CloudClient cloud(m_channel.Broker().CloudPort(), Channel::kThing);
    for (AppOwner& owner : m_owners) owner.CheckCloud(cloud);
  }

  void checkGrowth() {
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

  Channel& m_channel;
  Tally& m_tally;
  std::mt19937_64 m_random;
  ThingModel m_thing;
  std::deque<AppModel> m_models;  // neither these nor what refers to them is ever moved
  std::deque<AppOwner> m_owners;
  std::deque<CloudMix> m_requesters;
  const ProcessUse m_first;
  std::size_t m_warmKib = 0;
  ProcessUse m_last;
  Clock::time_point m_nextPrint = Clock::now();
};

bool parse(std::string_view text, std::uint64_t& number) {
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && rest == text.data() + text.size();
}

int soak(std::uint64_t seconds, std::uint64_t seed, bool withPressure) {
  Tally tally;
  const char* const level = std::getenv("DLOG_LEVEL");
  Channel channel;
  channel.Start({{"DLOG_LEVEL", level == nullptr ? "none" : level}});
  // GDBus keeps a connection, and its socket, until it could say there that it is closed.
  const MainLoopThread mainLoop;
  try {
    Run run(channel, seed, tally);
    if (!run.For(std::chrono::seconds(seconds))) return kInterrupted;
    if (withPressure) MeasurePressure(channel, tally);
    channel.EndHost();
    for (const std::string& violation : channel.TakeContractViolations()) tally.Mismatch(violation);
    run.Print(tally.mismatches == 0 ? "ok" : "NOT OK");
    return tally.mismatches == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-soak: %s\n%s\n", error.what(), channel.Host().Errors().c_str());
    return EXIT_FAILURE;
  }
}

}  // namespace
}  // namespace Soak

int main(int argc, char** argv) {
  std::uint64_t seconds = 0;
  std::uint64_t seed = std::random_device()();
  const char* const givenSeed = std::getenv("SOAK_SEED");
  const bool withPressure = argc == 3 && std::string_view(argv[2]) == "pressure";
  const bool isRight = (argc == 2 || withPressure) && Soak::parse(argv[1], seconds) &&
                       seconds >= 10 && (givenSeed == nullptr || Soak::parse(givenSeed, seed));
  if (!isRight) {
    std::fprintf(stderr,
                 "usage: [SOAK_SEED=NUMBER] channel-soak SECONDS [pressure]; at least 10\n");
    return Soak::kUsage;
  }
  std::printf("SOAK_SEED=%llu\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  // The programs that are started do not inherit these.
  for (const int number : {SIGINT, SIGTERM}) {
    std::signal(number, [](int /*number*/) { Soak::endIsAskedFor = 1; });
  }
  try {
    return Soak::soak(seconds, seed, withPressure);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-soak: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
