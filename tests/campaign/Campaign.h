#ifndef TESTS_CAMPAIGN_CAMPAIGN_H
#define TESTS_CAMPAIGN_CAMPAIGN_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "BusClient.h"
#include "CampaignBroker.h"
#include "CloudClient.h"
#include "HostProcess.h"
#include "PrivateBus.h"
#include "SetLedger.h"
#include "TcpProxy.h"
#include "TemporaryFolder.h"

// The cloud sends numbered sets through the whole channel, in rounds of some dozens, and something
// fails in the middle of each round. At the end of a round each of its sets must be accounted for:
// it was an event, or it was answered with an error.
//
// One thread makes it and uses it; there must be no other thread before it. Failures of what is
// around the channel are thrown as std::runtime_error: then nothing is known.
class Campaign {
 public:
  enum class Fault {
    None,
    Cut,      // the connection between the thing and the broker, after some bytes
    Restart,  // of the broker, which remembers everything
    Forget,   // the broker is killed, and has forgotten everything when it comes back
    End,      // of the host, in order; another one is started
    Kill      // of the host
  };
  static const char* NameOf(Fault fault);

  using MakeBroker =
      std::function<std::unique_ptr<CampaignBroker>(const std::filesystem::path& folder)>;

  Campaign(const MakeBroker& makeBroker, std::uint32_t seed);
  ~Campaign();
  Campaign(const Campaign&) = delete;
  Campaign& operator=(const Campaign&) = delete;

  // Rounds with these faults, at random, until that many sets are sent.
  void Run(std::size_t sets, const std::vector<Fault>& faults);

  struct Result {
    std::size_t rounds = 0;
    SetLedger::Counts counts;
  };
  // By the fault of the round.
  const std::map<Fault, Result>& Results() const { return m_results; }

 private:
  // Begins at `begin`, ends before `end`.
  std::size_t between(std::size_t begin, std::size_t end);
  void startHost();
  void registerApp();
  void send(std::size_t count);
  // Takes the events that have come.
  void absorb();
  bool waitUntil(const std::function<bool()>& condition);
  // Waits for so many events of the round, or for what a fault leaves of them.
  void waitForEvents(std::size_t count);
  void cause(Fault fault, std::size_t sets);
  void cut(std::size_t sets);
  void restartBroker(bool remembers);
  void waitUntilOnlineAgain(std::size_t before);
  void endHost(int signal);
  // Waits until each set of the round is accounted for; what is not then is lost.
  void settle();
  // From its answer.
  SetLedger::Fate fateOf(std::size_t number);
  // How often the cloud has heard that the thing is online.
  std::size_t countOnline();
  // The end of it.
  std::string hostLog() const;

  std::mt19937 m_random;
  const TemporaryFolder m_folder;  // the settings, and what a broker writes
  PrivateBus m_bus;
  std::unique_ptr<CampaignBroker> m_broker;
  TcpProxy m_proxy;
  CloudClient m_cloud;
  int m_cloudConnections = 1;  // that it was asked for
  std::unique_ptr<HostProcess> m_host;
  BusClient m_app;
  SetLedger m_ledger;
  std::vector<int> m_requests;  // by the set's number
  std::size_t m_first = 0;      // of the round
  std::size_t m_events = 0;     // since the round began
  std::size_t m_unsent = 0;     // events for which the host had no bus any more, in the round
  std::map<Fault, Result> m_results;
};

#endif  // TESTS_CAMPAIGN_CAMPAIGN_H
