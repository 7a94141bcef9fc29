#ifndef TESTS_SYSTEM_FAULT_H
#define TESTS_SYSTEM_FAULT_H

#include <memory>
#include <vector>

class DeafListener;
class FaultyChannel;

// Something around a channel that fails from Begin to End, once. One thread uses it.
class Fault {
 public:
  enum class Kind {
    BrokerRestarted,  // it remembers everything
    BrokerForgot,     // killed, and started again without anything that it remembered
    BrokerStopped,    // SIGSTOP
    ConnectionLost,   // at the begin and at the end
    NetworkSilent,    // connections stay, nothing is carried
    NetworkSlow,
    ConnectionsRefused,  // and those that there are end
    ListenerDeaf,        // an application that never reads
    BusStopped,          // SIGSTOP
    BusKilled,
    HostEnded,   // SIGTERM; another one is started
    HostKilled,  // likewise
    LogUnread,   // its pipe is full
    LargeSets,   // a hundred of 100 KiB
    UnanswerableSets,
    SettingsGone,    // their folder
    DescriptorsGone  // of the host; a sanitizer may need some itself
  };

  // All that this build can have.
  static const std::vector<Kind>& All();
  static const char* NameOf(Kind kind);
  // Why the second cannot begin while the first lasts; null when it can.
  static const char* WhyNot(Kind first, Kind second);

  // The channel must live longer.
  Fault(Kind kind, FaultyChannel& channel);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  void Begin();
  void End();

 private:
  const Kind m_kind;
  FaultyChannel& m_channel;
  std::unique_ptr<DeafListener> m_listener;  // null for all other faults
};

#endif  // TESTS_SYSTEM_FAULT_H
