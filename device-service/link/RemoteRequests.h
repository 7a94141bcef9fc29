#ifndef DEVICE_SERVICE_LINK_REMOTEREQUESTS_H
#define DEVICE_SERVICE_LINK_REMOTEREQUESTS_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "link/Outbox.h"
#include "link/Topics.h"
#include "mqtt/MqttClient.h"
#include "payload/Json.h"
#include "service/Service.h"

namespace Lumo {

// Makes requests of the service out of messages from the broker, and answers out of their outcomes.
// Take and Cancel are called on one thread; outcomes come on any.
//
// A request without a usable Response Topic is handled and not answered. Correlation Data belongs
// to the requester: nothing is made of two waiting requests that have the same.
class RemoteRequests {
 public:
  // Called on any thread, with no lock held.
  using Send = std::function<void(Outbox::Answer answer)>;
  using IsCrowded = std::function<bool()>;

  // The service and the topics outlive this object, and this object the service's requests.
  // As long as answers crowd the way to the broker, requests that want one are refused as "busy".
  RemoteRequests(Service& service, const Topics& topics, Send send, IsCrowded isCrowded);

  void Take(RequestKind kind, const MqttClient::Message& message);
  // Ends the requests that wait with the message's Correlation Data and, if the message has a
  // Response Topic, with that one. They are not answered any more.
  void Cancel(const MqttClient::Message& message);

 private:
  struct Waiting {
    std::string responseTopic;  // empty: no answer
    std::string correlation;
    void* request = nullptr;  // its handle, once it is known
  };
  using Number = std::uint64_t;  // of a waiting request

  std::string findResponseTopic(const MqttClient::Message& message) const;
  void answer(const std::string& responseTopic, const std::string& correlation,
              std::string payload) const;
  // The reply to the waiting request of this number.
  void reply(Number number, lumo_error code, const std::optional<Properties>& properties);

  Service& m_service;
  const Topics& m_topics;
  const Send m_send;
  const IsCrowded m_isCrowded;
  const JsonReader m_jsonReader;
  std::mutex m_mutex;
  Number m_lastNumber = 0;              // guarded by m_mutex
  std::map<Number, Waiting> m_waiting;  // guarded by m_mutex; as many as the service has at most
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_REMOTEREQUESTS_H
