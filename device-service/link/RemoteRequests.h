#ifndef DEVICE_SERVICE_LINK_REMOTEREQUESTS_H
#define DEVICE_SERVICE_LINK_REMOTEREQUESTS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "link/LossCount.h"
#include "link/Outbox.h"
#include "link/Topics.h"
#include "mqtt/Packet.h"
#include "mqtt/Session.h"
#include "service/LinkedService.h"
#include "values/Mutex.h"

namespace Lumo {

// Turns messages from the broker into requests to the service, and their outcomes into answers.
// Network thread only, except for outcomes, which come on any thread.
//
// A message is acknowledged when its request has ended: until then the broker keeps it, so that a
// request that the plug-in has not carried out when the process ends comes again.
//
// A request without a usable Response Topic is handled and not answered. Several waiting requests
// may have the same Correlation Data.
class RemoteRequests {
 public:
  using Arrival = Mqtt::Session::Arrival;
  using Taken = Mqtt::Session::Taken;

  static constexpr std::size_t kMaxWaitingBytes = std::size_t{16} * 1024 * 1024;

  // The end of a request that was taken for later.
  struct End {
    Arrival arrival = 0;
    std::optional<Outbox::Answer> answer;
    bool isCarriedOut = false;  // or refused or cancelled; false: the service was closed first
  };
  // Called on any thread, with no lock held.
  using OnEnd = std::function<void(End end)>;
  using IsCrowded = std::function<bool()>;

  // The service and the topics outlive this object. It outlives every request that it made: their
  // replies call it.
  //
  // While too many answers wait for the broker, requests that want one are refused as "busy". So is
  // any request while the waiting ones have kMaxWaitingBytes: their messages, and all the memory of
  // those that are held back. When the service is full, a request that wants an answer is refused,
  // too. One that wants none is held back until there is room, because nobody would notice the
  // refusal.
  RemoteRequests(LinkedService& service, const Topics& topics, OnEnd onEnd, IsCrowded isCrowded);

  // `arrival` is 0 at QoS 0. Later: OnEnd follows, or has come already.
  Taken Take(RequestKind kind, const Mqtt::Publish& message, Arrival arrival);
  // Ends the requests that wait with the message's Correlation Data and, if the message has a
  // Response Topic, with that one. They are not answered any more.
  void Cancel(const Mqtt::Publish& message);
  bool HoldsSome() const { return !m_held.empty(); }
  // Any thread.
  std::size_t CountHeld() const { return m_heldCount; }
  // Begins what is held back, as far as there is room now.
  void BeginHeld();
  // Ends what is held back, not carried out.
  void DropHeld();

 private:
  struct Content {
    RequestKind kind;
    std::vector<std::string> names;  // of a get
    Properties properties;           // of a set
  };
  struct Outcome {
    lumo_error code;
    std::optional<Properties> properties;
  };
  struct Waiting {
    std::string responseTopic;  // empty: no answer
    std::string correlation;
    Arrival arrival = 0;
    std::size_t bytes = 0;         // of the message
    void* request = nullptr;       // its handle, once it is known
    std::optional<Outcome> early;  // that came before the handle was known
  };
  struct Held {
    Waiting waiting;
    Content content;
  };
  using Number = std::uint64_t;  // of a waiting request

  // Fills in the content. Returns what is wrong with the message, or nothing.
  std::string decode(const Mqtt::Publish& message, Content& content) const;
  std::string findResponseTopic(const Mqtt::Publish& message) const;
  // Answers "busy", or counts the refusal when no answer is wanted.
  Taken refuse(const Waiting& waiting);
  Taken begin(Waiting waiting, Content content);
  // After a change of m_held.
  void noteHeld();
  // Ends what is held back with this Correlation Data, as cancelled; false: nothing is.
  bool dropHeldWith(std::string_view correlation);
  // The reply to the waiting request of this number.
  void reply(Number number, lumo_error code, const std::optional<Properties>& properties);
  void end(const Waiting& waiting, const Outcome& outcome) const;
  void answer(const Waiting& waiting, std::string_view error) const;
  std::size_t countWaitingBytes();
  static std::size_t countHeldBytes(const Held& held);
  Waiting extract(std::map<Number, Waiting>::iterator place) REQUIRES(m_mutex);

  LinkedService& m_service;
  const Topics& m_topics;
  const OnEnd m_onEnd;
  const IsCrowded m_isCrowded;
  std::deque<Held> m_held;
  std::size_t m_heldBytes = 0;  // that they take
  std::atomic<std::size_t> m_heldCount{0};
  Mutex m_mutex;
  Number m_lastNumber GUARDED_BY(m_mutex) = 0;
  std::map<Number, Waiting> m_waiting GUARDED_BY(m_mutex);  // as many as the service has at most
  std::size_t m_waitingBytes GUARDED_BY(m_mutex) = 0;       // of their messages
  LossCount m_unheard{"requests were refused, and their requesters wanted no answer"};
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_REMOTEREQUESTS_H
