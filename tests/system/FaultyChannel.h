#ifndef TESTS_SYSTEM_FAULTYCHANNEL_H
#define TESTS_SYSTEM_FAULTYCHANNEL_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AnyBroker.h"
#include "Channel.h"
#include "DeafListener.h"
#include "SetLedger.h"
#include "SteadyApp.h"
#include "TcpProxy.h"

// A channel with traffic in both directions, around which anything may fail: the host in its lives,
// with a proxy between it and the broker; an application that sends numbered data; the cloud, which
// sends numbered sets and keeps a ledger of them. The traffic goes on in RunFor and RunUntil only.
// One thread uses it. Failures of what is around the channel are thrown as std::runtime_error.
class FaultyChannel {
 public:
  static constexpr const char* kApp = "qz";

  // Starts the host. Both live longer; the changes are of the host's variables.
  FaultyChannel(Channel& channel, AnyBroker& broker, HostProcess::Environment changes);
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
  // Waits until each set from this one on is accounted for; what is not after a while is lost. The
  // traffic has ended.
  void Settle(std::size_t first = 0);

  // For the faults.
  TcpProxy& Proxy() { return m_proxy; }
  AnyBroker& Broker() { return m_broker; }
  PrivateBus& Bus() { return m_channel.Bus(); }
  // The cloud leaves before the broker ends.
  void StopBroker();
  void KillBroker();
  void StartBroker();
  void KillBus();
  void StartBus();
  void AddDeafListener() { m_listener = std::make_unique<DeafListener>(Bus().Address()); }
  void RemoveDeafListener() { m_listener.reset(); }
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

  // What was wrong with all that the broker has had since the last time, a line for each fault. The
  // broker runs.
  std::vector<std::string> TakeContractViolations();
  const SetLedger& Ledger() const { return m_ledger; }
  // How many events the application has got.
  std::size_t Events() const { return m_events.size(); }
  // How many data it has sent with success.
  std::size_t SentByApp() const { return m_app.Sent(); }
  // The thing has come to the broker since that forgot everything.
  bool IsBackAtBroker() const { return !m_brokerForgot; }
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
  std::string Log() const { return m_log + m_channel.Host().Errors(); }
  // Whether the cloud had no connection but those that it was asked for.
  bool HasCloudStayed() { return m_cloud.Connections() == 1 + m_cloudReturns; }
  // The sets that were not one event each, and their answers: a line each.
  std::string Account();
  // What is wrong with the ends of the host; empty when nothing is.
  const std::string& WrongEnds() const { return m_wrongEnds; }

 private:
  HostProcess& host() { return m_channel.Host(); }
  void step();
  void takeEvent(const std::string& data);
  void leaveBroker();
  SetLedger::Fate fateOf(std::size_t number);
  std::size_t countOnline();

  Channel& m_channel;
  AnyBroker& m_broker;
  ContractWatcher m_watcher;
  HostProcess::Environment m_changes;
  const std::string m_settings;
  TcpProxy m_proxy;
  CloudClient m_cloud;
  bool m_cloudIsThere = true;
  int m_cloudReturns = 0;
  SteadyApp m_app;
  std::unique_ptr<DeafListener> m_listener;  // null unless there is one
  std::string m_log;                         // of the lives before
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
