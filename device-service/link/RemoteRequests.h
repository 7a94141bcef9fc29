#ifndef DEVICE_SERVICE_LINK_REMOTEREQUESTS_H
#define DEVICE_SERVICE_LINK_REMOTEREQUESTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "link/LossCount.h"
#include "link/Outbox.h"
#include "link/Topics.h"
#include "mqtt/Packet.h"
#include "service/Service.h"

namespace Lumo {

// Makes requests of the service out of messages from the broker, and answers out of their outcomes.
// Take and Cancel are called on one thread; outcomes come on any.
//
// A request without a usable Response Topic is handled and not answered. Correlation Data belongs
// to the requester: nothing is made of two waiting requests that have the same.
class RemoteRequests {
 public:
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{16} * 1024 * 1024;

  // Called on any thread, with no lock held.
  using Send = std::function<void(Outbox::Answer answer)>;
  using IsCrowded = std::function<bool()>;

  // The service and the topics outlive this object, and this object the service's requests.
  // As long as answers crowd the way to the broker, requests that want one are refused as "busy";
  // so is any request while the messages of those that wait have kMaxWaitingBytes.
  RemoteRequests(Service& service, const Topics& topics, Send send, IsCrowded isCrowded);

  // False when the service is closed: nothing was done with the request.
  bool Take(RequestKind kind, const Mqtt::Publish& message);
  // Ends the requests that wait with the message's Correlation Data and, if the message has a
  // Response Topic, with that one. They are not answered any more.
  void Cancel(const Mqtt::Publish& message);

 private:
  struct Outcome {
    lumo_error code;
    std::optional<Properties> properties;
  };
  struct Waiting {
    std::string responseTopic;  // empty: no answer
    std::string correlation;
    std::size_t bytes;             // of the message
    void* request = nullptr;       // its handle, once it is known
    std::optional<Outcome> early;  // that came before the handle was known
  };
  using Number = std::uint64_t;  // of a waiting request

  std::string findResponseTopic(const Mqtt::Publish& message) const;
  void answer(std::string responseTopic, std::string correlation, std::string payload) const;
  void answerOutcome(const Waiting& ended, const Outcome& outcome) const;
  // Says no to a request, or counts it when nobody would hear of it.
  void refuse(std::string responseTopic, std::string_view correlation, std::string_view error);
  // The reply to the waiting request of this number.
  void reply(Number number, lumo_error code, const std::optional<Properties>& properties);
  // Begins it; false as Take.
  bool start(Number number, RequestKind kind, const std::vector<std::string>& names,
             Properties properties);
  Waiting extract(std::map<Number, Waiting>::iterator place);  // lock held

  Service& m_service;
  const Topics& m_topics;
  const Send m_send;
  const IsCrowded m_isCrowded;
  std::mutex m_mutex;
  Number m_lastNumber = 0;              // guarded by m_mutex
  std::map<Number, Waiting> m_waiting;  // guarded by m_mutex; as many as the service has at most
  std::size_t m_waitingBytes = 0;       // guarded by m_mutex; of their messages
  LossCount m_unheard{"requests were refused, and their requesters wanted no answer"};
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_REMOTEREQUESTS_H
