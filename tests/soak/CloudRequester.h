#ifndef TESTS_SOAK_CLOUDREQUESTER_H
#define TESTS_SOAK_CLOUDREQUESTER_H

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "ContractWatcher.h"
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
  CloudRequester(int port, const std::string& thing, int index, Tally& tally)
      : m_service("things/" + thing + "/appdatachannel/"),
        m_answers("cloud/" + std::to_string(index) + "/answers"),
        m_self(std::string(ContractWatcher::kApart) + m_answers),
        m_tally(tally),
        m_peer(port, optionsOfPeer(index),
               [this](const MqttPeer::Message& message) { take(message); }) {}

  // The number that the next request gets.
  Number NextNumber() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_last + 1;
  }

  Number Send(const std::string& operation, const std::string& payload) {
    ++m_tally.requests;
    return publish(m_service + operation, payload);
  }

  // To itself, by way of the broker: takes as long as the broker does. Its answer is the payload.
  Number SendToSelf(const std::string& payload) { return publish(m_self, payload); }

  void Cancel(Number request) {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_requests[request].cancelled = true;
    }
    m_peer.Publish({m_service + "cancel", {}, 2, false, m_answers, std::to_string(request)});
  }

  // The answer; nothing when none has come in time. Called once for each request: only its
  // repetitions may come later, or what comes for one that was cancelled.
  std::optional<std::string> WaitForAnswer(Number request, std::chrono::milliseconds limit) {
    constexpr Number kEndedKept = 1024;
    std::unique_lock<std::mutex> lock(m_mutex);
    Request& waiting = m_requests[request];
    m_changed.wait_for(lock, limit, [&waiting] { return waiting.answer.has_value(); });
    waiting.isAwaited = false;
    std::optional<std::string> answer = waiting.answer;
    const auto old = m_requests.find(request - kEndedKept);
    // What is cancelled may be answered however late.
    const bool isOver = old != m_requests.end() && !old->second.isAwaited && !old->second.cancelled;
    if (isOver) m_requests.erase(old);
    return answer;
  }

 private:
  struct Request {
    std::optional<std::string> answer;
    bool cancelled = false;
    bool isAwaited = false;
  };

  MqttPeer::Options optionsOfPeer(int index) {
    MqttPeer::Options options;
    options.id = "requester-" + std::to_string(index);
    options.filters = {m_answers, m_self};
    options.onConnected = [this, isFirst = true](bool sessionPresent) mutable {
      if (!isFirst && !sessionPresent) m_tally.Mismatch("the broker has forgotten a session");
      isFirst = false;
    };
    return options;
  }

  Number publish(const std::string& topic, const std::string& payload) {
    Number request = 0;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      request = ++m_last;
      m_requests[request].isAwaited = true;
    }
    m_peer.Publish({topic, payload, 2, false, m_answers, std::to_string(request)});
    return request;
  }

  // On the peer's thread.
  void take(const MqttPeer::Message& message) {
    const std::string& correlation = message.correlation;
    Number number = 0;
    std::from_chars(correlation.data(), correlation.data() + correlation.size(), number);
    const std::string answer(message.payload);
    const std::lock_guard<std::mutex> lock(m_mutex);
    Request& request = m_requests[number];  // one that is new is nobody's
    if (request.cancelled && answer.find("not answered in time") != std::string::npos) {
      m_tally.Mismatch("a cancelled request is answered: " + answer);
    }
    if (request.answer) {
      if (answer != request.answer) {
        m_tally.Mismatch("a request is answered with " + *request.answer + " and with " + answer);
      }
      ++m_tally.repeated;
    } else if (!request.isAwaited && !request.cancelled) {
      m_tally.Mismatch("nobody waits for the answer to request " + correlation);
    }
    request.answer = answer;
    m_changed.notify_all();
  }

  const std::string m_service;  // the first part of the topics, up to a '/'
  const std::string m_answers;  // a topic
  const std::string m_self;     // another one
  Tally& m_tally;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  Number m_last = 0;                     // guarded by m_mutex
  std::map<Number, Request> m_requests;  // the latest; guarded by m_mutex
  MqttPeer m_peer;                       // last: its thread uses the above
};

}  // namespace Soak

#endif  // TESTS_SOAK_CLOUDREQUESTER_H
