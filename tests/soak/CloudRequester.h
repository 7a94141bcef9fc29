#ifndef TESTS_SOAK_CLOUDREQUESTER_H
#define TESTS_SOAK_CLOUDREQUESTER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "MqttPeer.h"
#include "Tally.h"

namespace Soak {

// A client of the broker that sends requests to the thing's channel at QoS 2 and collects their
// answers. Its session outlives the broker's restarts, and it comes back by itself. Any thread;
// failures are thrown as std::runtime_error.
class CloudRequester {
 public:
  using Number = std::uint64_t;  // of a request, from 1 on

  // Returns once it is subscribed.
  CloudRequester(int port, const std::string& thing, int index, Tally& tally);

  // The number that the next request gets.
  Number NextNumber() const;
  Number Send(const std::string& operation, const std::string& payload);
  // To itself, by way of the broker: takes as long as the broker does. Its answer is the payload.
  Number SendToSelf(const std::string& payload);
  void Cancel(Number request);

  // The answer; nothing when none has come in time. Called once for each request: only its
  // repetitions may come later, or what comes for one that was cancelled.
  std::optional<std::string> WaitForAnswer(Number request, std::chrono::milliseconds limit);

 private:
  struct Request {
    std::optional<std::string> answer;
    bool cancelled = false;
    bool ended = false;
  };

  MqttPeer::Options optionsOfPeer(int index);
  Number publish(const std::string& topic, const std::string& payload);
  // On the peer's thread.
  void take(const MqttPeer::Message& message);

  const std::string m_service;  // the first part of the topics, up to a '/'
  const std::string m_answers;  // a topic
  Tally& m_tally;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  Number m_last = 0;                     // guarded by m_mutex
  std::map<Number, Request> m_requests;  // the latest; guarded by m_mutex
  MqttPeer m_peer;                       // last: its thread uses the above
};

}  // namespace Soak

#endif  // TESTS_SOAK_CLOUDREQUESTER_H
