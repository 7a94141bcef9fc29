// exactly-once-campaign [--broker mosquitto|ejabberd] [--sets N] [--seed N]
//                       [--faults none,cut,restart,forget,end,kill]
//
// The cloud sends numbered sets through the whole channel, in rounds of some dozens, and something
// fails in the middle of each round: the connection between the thing and the broker, after some
// bytes (cut); the broker, which remembers everything (restart) or is killed and has forgotten
// everything when it comes back (forget); the host, with a clean shutdown (end) or without (kill).
// At the end of a round each of its sets must be accounted for: it was an event, or it was answered
// with an error.
//
// Ends with 0 when no set was lost, doubled or out of order (a kill of the host may double each set
// once) and every message was one of the contract, with 1 when some were not, with 2 when nothing
// is known.
#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "AnyBroker.h"
#include "EjabberdBroker.h"
#include "FaultyChannel.h"

namespace {

using Faults = std::vector<std::string>;

std::unique_ptr<AnyBroker> newBroker(const std::string& name, const std::filesystem::path& folder) {
  if (name == "mosquitto") return std::make_unique<MosquittoBroker>();
  if (name == "ejabberd") return std::make_unique<EjabberdBroker>(folder);
  throw std::invalid_argument("no such broker: " + name);
}

// One thread makes it and uses it; there must be no other thread before it. Failures of what is
// around the channel are thrown as std::runtime_error: then nothing is known.
class Campaign {
 public:
  struct Result {
    std::size_t rounds = 0;
    SetLedger::Counts counts;
  };

  Campaign(const std::string& broker, std::uint32_t seed)
      : m_random(seed),
        m_broker(newBroker(broker, m_place.Folder().Path())),
        m_channel(m_place, *m_broker, hostChanges()) {
    m_channel.EndTraffic();
    check(m_channel.WaitUntilHealthy(), "the channel does not come up");
  }

  // Rounds with these faults, again and again in another order, until that many sets are sent.
  void Run(std::size_t sets, const Faults& faults) {
    constexpr std::size_t kFewestSets = 20;
    constexpr std::size_t kMostSets = 150;
    Faults waiting;
    while (m_channel.Ledger().Sent() < sets) {
      if (waiting.empty()) {
        waiting = faults;
        std::shuffle(waiting.begin(), waiting.end(), m_random);
      }
      const std::size_t first = m_channel.Ledger().Sent();
      const std::size_t unsentBefore = CountUnsent(m_channel.Log());
      cause(waiting.back(), between(kFewestSets, kMostSets));
      check(m_channel.WaitUntilHealthy(), "the channel does not recover");
      m_channel.Settle(first);
      check(m_channel.HasCloudStayed(), "the cloud's own connection was lost");
      SetLedger::Counts counts = m_channel.Ledger().CountFrom(first);
      // A success without an event is in order only when the host has logged that it had no bus.
      const std::size_t unsent = CountUnsent(m_channel.Log()) - unsentBefore;
      const std::size_t unexplained = counts.unheard - std::min(counts.unheard, unsent);
      counts.unheard -= unexplained;
      counts.lost += unexplained;
      Result& result = m_results[waiting.back()];
      ++result.rounds;
      result.counts += counts;
      waiting.pop_back();
    }
  }

  // Prints what became of the sets, and breaks of the contract; whether all is as it should be.
  bool Report() {
    std::printf("%-8s %7s %7s %7s %8s %8s %10s %6s %8s %12s\n", "fault", "rounds", "sets", "events",
                "refused", "unheard", "forgotten", "lost", "doubled", "out of order");
    Result all;
    bool isRight = true;
    for (const auto& [fault, result] : m_results) {
      print(fault, result);
      all.rounds += result.rounds;
      all.counts += result.counts;
      const SetLedger::Counts& counts = result.counts;
      const bool mayDouble = fault == "kill" && counts.repetitions == counts.doubled;
      isRight = isRight && counts.lost == 0 && counts.misordered == 0 &&
                (counts.doubled == 0 || mayDouble);
    }
    print("all", all);
    for (const std::string& violation : m_channel.TakeContractViolations()) {
      std::printf("not in the contract: %s\n", violation.c_str());
      isRight = false;
    }
    return isRight;
  }

 private:
  // Begins at `begin`, ends before `end`.
  std::size_t between(std::size_t begin, std::size_t end) {
    return begin + m_random() % (end - begin);
  }

  void check(bool isRight, const std::string& what) const {
    constexpr std::size_t kLastBytes = 2000;
    if (isRight) return;
    const std::string log = m_channel.Log();
    throw std::runtime_error(what + ": " +
                             log.substr(log.size() - std::min(log.size(), kLastBytes)));
  }

  void send(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) m_channel.SendSet();
  }

  void sendAndWaitForSome(std::size_t sets, std::size_t end) {
    const std::size_t wanted = m_channel.Events() + between(0, end);
    send(sets);
    check(m_channel.RunUntil([&] { return m_channel.Events() >= wanted; }),
          "nothing comes before the fault");
  }

  void cause(const std::string& fault, std::size_t sets) {
    if (fault == "none") send(sets);
    if (fault == "cut") cut(sets);
    if (fault == "restart" || fault == "forget") {
      sendAndWaitForSome(sets, sets / 2);
      fault == "restart" ? m_channel.StopBroker() : m_channel.KillBroker();
      m_channel.StartBroker();
      // Until the host is there again, the broker has nobody to keep a set for.
      check(m_channel.RunUntil([this] { return m_channel.IsBackAtBroker(); }),
            "the host does not come to the broker");
    }
    if (fault == "end" || fault == "kill") {
      sendAndWaitForSome(sets, sets);
      m_channel.SignalHost(fault == "end" ? SIGTERM : SIGKILL);
      m_channel.AwaitHostEnd(fault == "end" ? 0 : -SIGKILL);
      check(m_channel.WrongEnds().empty(), m_channel.WrongEnds());
      const std::size_t sent = m_channel.SentByApp();
      m_channel.Proxy().Stall(true);  // sets that come before the application does are refused
      m_channel.StartHost();
      check(m_channel.RunUntil([&] { return m_channel.SentByApp() > sent; }),
            "the application cannot register");
      m_channel.Proxy().Stall(false);
    }
  }

  void cut(std::size_t sets) {
    constexpr double kMostBytes = 6000;
    // As often below 80 bytes as above.
    const double exponent = static_cast<double>(between(0, 1001)) / 1000;
    const auto bytes = static_cast<std::size_t>(std::pow(kMostBytes, exponent));
    TcpProxy& proxy = m_channel.Proxy();
    const std::size_t cuts = proxy.Cuts();
    proxy.CutAfter(between(0, 2) == 0 ? TcpProxy::kToServer : TcpProxy::kToClient, bytes);
    std::size_t expected = m_channel.Events() + sets;
    const auto hasComeOrIsCut = [&] {
      return m_channel.Events() >= expected || proxy.Cuts() > cuts;
    };
    send(sets);
    while (m_channel.RunUntil(hasComeOrIsCut) && proxy.Cuts() == cuts) {
      send(1);
      ++expected;
    }
  }

  HostProcess::Environment hostChanges() const {
    HostProcess::Environment changes{{"DLOG_LEVEL", "error"}};
    if (m_broker->User().empty()) return changes;
    const std::string passwordFile = m_place.Folder().Write("password", m_broker->Password());
    std::filesystem::permissions(
        passwordFile, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    changes["LUMO_BROKER_USER"] = m_broker->User();
    changes["LUMO_BROKER_PASSWORD_FILE"] = passwordFile;
    return changes;
  }

  static void print(const std::string& name, const Result& result) {
    const SetLedger::Counts& counts = result.counts;
    std::printf("%-8s %7zu %7zu %7zu %8zu %8zu %10zu %6zu %8zu %12zu\n", name.c_str(),
                result.rounds, counts.sent, counts.events, counts.refused, counts.unheard,
                counts.forgotten, counts.lost, counts.doubled, counts.misordered);
  }

  std::mt19937 m_random;
  Channel m_place;
  std::unique_ptr<AnyBroker> m_broker;
  FaultyChannel m_channel;
  std::map<std::string, Result> m_results;  // by the fault of the round
};

std::size_t numberIn(const std::string& text) {
  char* end = nullptr;
  const unsigned long number = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0') throw std::invalid_argument("not a number: " + text);
  return number;
}

Faults faultsIn(const std::string& list) {
  const Faults all{"none", "cut", "restart", "forget", "end", "kill"};
  Faults faults;
  std::istringstream names(list);
  for (std::string name; std::getline(names, name, ',');) {
    const bool isKnown = std::count(all.begin(), all.end(), name) == 1;
    if (!isKnown) throw std::invalid_argument("no such fault: " + name);
    faults.push_back(name);
  }
  if (faults.empty()) throw std::invalid_argument("no faults");
  return faults;
}

// With the values that are given.
std::map<std::string, std::string> parse(const std::vector<std::string>& arguments) {
  std::map<std::string, std::string> options{
      {"--broker", "mosquitto"}, {"--sets", "1000"}, {"--seed", "1"}, {"--faults", ""}};
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    const auto option = options.find(arguments[i]);
    if (option == options.end()) throw std::invalid_argument("no such option: " + arguments[i]);
    if (i + 1 == arguments.size()) throw std::invalid_argument(arguments[i] + " needs a value");
    option->second = arguments[i + 1];
  }
  // The other broker has its sessions in memory only.
  if (options["--faults"].empty()) {
    options["--faults"] = "cut,forget,end,kill";
    if (options["--broker"] == "mosquitto") options["--faults"] += ",restart";
  }
  return options;
}

}  // namespace

int main(int count, char** arguments) {
  constexpr int kWrong = 1;
  constexpr int kUnknown = 2;
  try {
    auto options = parse({arguments + 1, arguments + count});
    const std::size_t sets = numberIn(options["--sets"]);
    const Faults faults = faultsIn(options["--faults"]);
    Campaign campaign(options["--broker"], static_cast<std::uint32_t>(numberIn(options["--seed"])));
    try {
      campaign.Run(sets, faults);
    } catch (const std::exception&) {
      campaign.Report();
      throw;
    }
    return campaign.Report() ? EXIT_SUCCESS : kWrong;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "exactly-once-campaign: %s\n", e.what());
    return kUnknown;
  }
}
