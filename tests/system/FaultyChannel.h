#ifndef TESTS_SYSTEM_FAULTYCHANNEL_H
#define TESTS_SYSTEM_FAULTYCHANNEL_H

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Broker.h"
#include "CloudClient.h"
#include "HostProcess.h"
#include "PrivateBus.h"
#include "SetLedger.h"
#include "SteadyApp.h"
#include "TcpProxy.h"

// A channel with traffic in both directions, around which anything may fail: the host in its lives,
// with a proxy between it and the broker; an application that sends numbered data; the cloud, which
// sends numbered sets and keeps a ledger of them. The traffic goes on in RunFor and RunUntil only.
// One thread uses it. Failures of what is around the channel are thrown as std::runtime_error.
class FaultyChannel {
 public:
  static constexpr const char* kThing = "tv";
  static constexpr const char* kApp = "qz";

  // The bus and the broker run, and live longer. The variables are the host's, but for the broker's
  // address; VCONF_DIR is in them.
  FaultyChannel(PrivateBus& bus, Broker& broker, HostProcess::Environment variables);
  ~FaultyChannel();
  FaultyChannel(const FaultyChannel&) = delete;
  FaultyChannel& operator=(const FaultyChannel&) = delete;

  // The channel is up, an application is registered, sets are answered. False after a long time
  // without that, or when the host has ended.
  bool WaitUntilHealthy();
  void RunFor(std::chrono::milliseconds duration);
  // Whether the condition holds before the patience has passed.
  bool RunUntil(const std::function<bool()>& condition);
  // No more sets from now on but those of WaitUntilHealthy and SendSet.
  void EndTraffic() { m_sendsSets = false; }

  // What comes to the application is this number's, and text behind it that makes the set so long.
  // Returns the number.
  std::size_t SendSet(std::size_t bytes = 0);
  // Of a value that no application can get.
  void SendUnanswerableSet();
  bool IsAnsweredWithSuccess(std::size_t number);
  // Waits until each set is accounted for; what is not after a while is lost. The traffic has
  // ended.
  void Settle();

  // For the faults.
  TcpProxy& Proxy() { return m_proxy; }
  void StopBroker();
  void KillBroker();
  void FreezeBroker() { m_broker.Freeze(); }
  void ThawBroker() { m_broker.Thaw(); }
  void StartBroker();
  void FreezeBus();
  void ThawBus();
  void KillBus();
  void StartBus();
  const std::string& BusAddress() const { return m_bus.Address(); }
  void StartHost();
  void SignalHost(int signal);
  // It was sent a signal that ends it. Its status is noted when it is not this.
  void AwaitHostEnd(int status);
  void StopReadingLog();
  void ReadLog();
  void RemoveSettings();
  void PutSettingsBack();
  void TakeDescriptors();
  void GiveDescriptorsBack();

  const SetLedger& Ledger() const { return m_ledger; }
  SteadyApp& App() { return m_app; }
  CloudClient& Cloud() { return m_cloud; }
  // Sets that were answered with success and are no events by the log: those for which the host had
  // no bus, and those that a bus or a host that was killed had not handed on. A kill while nobody
  // reads the log counts as the few that may have been under way.
  std::size_t UnheardByLog() const;
  std::size_t Kills() const { return m_kills; }
  // Of the host, in KiB: how much more than at the beginning any of its lives ever had.
  // Noted when the host is sent a signal that ends it.
  std::size_t MoreMemory() const {
    return m_memoryMost > m_memoryBefore ? m_memoryMost - m_memoryBefore : 0;
  }
  // Of all lives of the host.
  std::string Log() const;
  // How often the cloud has come back to the broker.
  int CloudReturns() const { return m_cloudReturns; }
  // The sets that were not one event each, and their answers: a line each.
  std::string Account();
  // What is wrong with the ends of the host; empty when nothing is.
  const std::string& WrongEnds() const { return m_wrongEnds; }

 private:
  void step();
  void takeEvent(const std::string& data);
  void noteMemory();
  void leaveBroker();
  SetLedger::Fate fateOf(std::size_t number);
  std::size_t countOnline();

  PrivateBus& m_bus;
  Broker& m_broker;
  HostProcess::Environment m_variables;
  const std::filesystem::path m_settings;
  TcpProxy m_proxy;
  CloudClient m_cloud;
  bool m_cloudIsThere = true;
  int m_cloudReturns = 0;
  SteadyApp m_app;
  std::unique_ptr<HostProcess> m_host;  // null between two lives
  std::string m_log;                    // of the lives before
  std::string m_wrongEnds;
  std::size_t m_kills = 0;
  std::size_t m_killsUnlogged = 0;  // of those, while nobody read the log
  bool m_busWasKilled = false;
  bool m_logIsUnread = false;
  std::size_t m_memoryBefore = 0;
  std::size_t m_memoryMost = 0;

  SetLedger m_ledger;
  std::vector<int> m_requests;        // by the set's number
  std::vector<std::size_t> m_events;  // their sets' numbers, as they came
  std::size_t m_forgottenEnd = 0;     // the broker may have forgotten the sets before this one
  bool m_brokerForgot = true;         // and the thing has not come to it since
  std::size_t m_onlineBefore = 0;
  bool m_sendsSets = true;
  std::chrono::steady_clock::time_point m_nextSet;
};

#endif  // TESTS_SYSTEM_FAULTYCHANNEL_H
