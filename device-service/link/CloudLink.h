#ifndef DEVICE_SERVICE_LINK_CLOUDLINK_H
#define DEVICE_SERVICE_LINK_CLOUDLINK_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "link/Outbox.h"
#include "link/RemoteRequests.h"
#include "link/Topics.h"
#include "mqtt/Backoff.h"
#include "mqtt/MqttClient.h"
#include "mqtt/Wakeup.h"
#include "settings/Settings.h"

namespace Lumo {

class Service;

// The connection of one service to the broker. It lives on a thread of its own, the network thread,
// which is the only one to use the MQTT client: it connects, for ever, publishes what changed,
// hands requests to the service and sends their answers. It never waits for a callback of the
// plug-in.
//
// Services of one thing, in one process or in several, have a connection each and share the status
// topic: "offline" is published by the one that leaves or is lost, and put right by the others,
// which see it.
//
// What is retained at the broker stays there when the service ends, as it does in a crash: the
// status says whether somebody keeps it true. At its first connection a service clears the values
// of an earlier life that it has no values for.
//
// Exactly once. A QoS 2 message is half-way between its arrival and its release, which is when the
// MQTT library delivers it. The library remembers those that are half-way from one connection to
// the next, so the client is kept as long as the broker keeps the session. If the broker did not
// learn of the arrival it sends the message again, and the library, which allows only one to be
// half-way, ends the connection: then, and when the broker has forgotten the session, what the
// client remembers is void and a new one takes its place. What a client remembers ends with the
// service: so the end waits for the release of a message that is half-way.
class CloudLink final : private MqttClient::Listener {
 public:
  // The service outlives the link.
  CloudLink(const BrokerSettings& broker, Service& service);
  // Closes and joins.
  ~CloudLink();
  CloudLink(const CloudLink&) = delete;
  CloudLink& operator=(const CloudLink&) = delete;

  // Once; throws std::system_error.
  void Start();

  // Any thread. Nothing is waited for.
  void DescriptionChanged();
  void ValueChanged(const std::string& property);
  void ValueRemoved(const std::string& property);

  // Publishes what waits, then "offline", and waits at most kFarewellTime for the broker to
  // acknowledge that; not at all without a connection. The thread ends then. Any thread but the
  // network thread.
  void Close();
  static constexpr std::chrono::seconds kFarewellTime{2};
  // After Close; waits for the thread.
  void Join();
  // True when Join will not wait.
  bool HasEnded() const { return m_ended; }

 private:
  using Clock = std::chrono::steady_clock;

  // Accepted: the broker has accepted it just now.
  enum class Connection { None, Beginning, Accepted, Established };

  struct Unacknowledged {
    Outbox::Item item;
    std::size_t bytes;  // of the payload
  };

  void OnConnected(bool sessionPresent) override;
  void OnMessage(const MqttClient::Message& message) override;
  void OnAcknowledged(int id, const char* refusal) override;
  void OnSubscribed() override;
  void OnUnsubscribed() override;

  bool isClosing();
  void tellOnline();
  // Tells who closes.
  void setConnected(bool connected);

  // All of these run on the network thread.
  void run();
  void step();
  // False when nothing is left to be said or heard before the end.
  bool mustGoOn();
  // Tells the plug-in, once per change.
  void reportConnected(bool connected);
  // Starts all over, later, after something that should not happen.
  void recover(const char* error);
  void connect();
  // Waits until it is time for the next step; returns what poll says about the socket, if any.
  short waitForEvents();
  // Needs a connection, or one that is beginning.
  void work(short events);
  Clock::time_point timeOfNextStep();
  void noteConnection();
  void noteLoss();
  void tryOtherFamily();
  void subscribe();
  // Any thread.
  void sendAnswer(Outbox::Answer answer);
  void publishWaiting();
  void publish(Outbox::Item item);
  void publishValue(Outbox::Value item);
  // Publishes, and remembers that it is about the item.
  void send(const MqttClient::Publication& publication, Outbox::Item&& item);
  void dropClient();
  void disconnect();

  const BrokerSettings m_broker;
  Service& m_service;
  const Topics m_topics;
  const std::string m_clientId;
  Outbox m_outbox;
  Wakeup m_wakeup;
  RemoteRequests m_requests;

  // Of the network thread:
  std::unique_ptr<MqttClient> m_client;
  Connection m_connection = Connection::None;
  Clock::time_point m_nextAttempt;   // when there is no connection
  Clock::time_point m_attemptEnds;   // when one is beginning
  Clock::time_point m_connectedAt;   // when there is one
  bool m_clientIsUsed = false;       // it has had a connection, and may remember messages
  bool m_sessionResumed = false;     // by a used client
  bool m_clientIsVoid = false;       // the broker has forgotten what a used client remembers
  bool m_valuesAreLost = false;      // the broker has forgotten the session, and maybe the values
  bool m_earlierLifeIsOver = false;  // its values have been asked for
  bool m_farewellAcknowledged = false;
  bool m_isReported = false;  // the plug-in has been told that there is a connection
  int m_unansweredSubscriptions = 0;
  MqttClient::Family m_family = MqttClient::Family::Any;
  Backoff m_backoff;
  std::map<int, Unacknowledged> m_unacknowledged;  // by the id of the publication
  std::size_t m_unacknowledgedBytes = 0;

  std::mutex m_mutex;
  std::condition_variable m_goodbye;
  bool m_closing = false;             // guarded by m_mutex
  Clock::time_point m_closeDeadline;  // guarded by m_mutex; when closing
  bool m_connected = false;           // guarded by m_mutex

  std::atomic<bool> m_ended{true};
  std::thread m_thread;  // last: it uses all of the above
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_CLOUDLINK_H
