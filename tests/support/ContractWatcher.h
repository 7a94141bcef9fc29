#ifndef TESTS_SUPPORT_CONTRACTWATCHER_H
#define TESTS_SUPPORT_CONTRACTWATCHER_H

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ContractLedger.h"
#include "MqttPeer.h"
#include "Watched.h"

// Sees every message of a broker on loopback and holds it against the contract of the project: a
// client that has subscribed to everything, with a session that lasts. It may be made before the
// first message only. What is published at QoS 2 comes to it at QoS 1. What is retained may have
// QoS 0 where a bridge brings it. Where the broker forgets the session, what comes until the client
// is back is missed, but for what is retained. The thread that made it uses it.
class ContractWatcher {
 public:
  // A client's messages to itself go to topics that begin so: they are not held against anything.
  static constexpr std::string_view kApart = "apart/";

  enum class Place { WithThing, BehindBridge };

  // Returns once it is subscribed; nobody is connected when the user is empty. Throws
  // std::runtime_error.
  explicit ContractWatcher(int port, const std::string& user = {}, const std::string& password = {},
                           Place place = Place::WithThing);
  ContractWatcher(const ContractWatcher&) = delete;
  ContractWatcher& operator=(const ContractWatcher&) = delete;

  // Returns when everything is seen that the broker had before; it must run, or start soon. The
  // watcher is subscribed then. Throws std::runtime_error when that takes too long.
  void CatchUp();
  // What was wrong since the last time, a line for each fault.
  std::vector<std::string> TakeViolations();
  // How often each message was seen, by its name in the contract.
  std::map<std::string, std::size_t> Seen();
  // Answers whose requests were missed when the broker forgot the session.
  std::size_t Unmatched();

 private:
  void take(const MqttPeer::Message& message);

  const Place m_place;
  const std::string m_marks;  // the topic
  std::mutex m_mutex;
  ContractLedger m_ledger;      // guarded by m_mutex
  bool m_wasConnected = false;  // the peer's thread only
  int m_lastMark = 0;
  Watched<int> m_markSeen{0};
  MqttPeer m_peer;  // the last: its handlers use the others
};

#endif  // TESTS_SUPPORT_CONTRACTWATCHER_H
