#ifndef DEVICE_SERVICE_LINK_CLOUDLINK_H
#define DEVICE_SERVICE_LINK_CLOUDLINK_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "link/LossCount.h"
#include "link/MessageLabels.h"
#include "link/Outbox.h"
#include "link/Publisher.h"
#include "link/RemoteRequests.h"
#include "link/Topics.h"
#include "mqtt/Backoff.h"
#include "mqtt/Client.h"
#include "service/LinkedService.h"
#include "service/ServiceLink.h"
#include "settings/Settings.h"
#include "values/Mutex.h"

namespace Lumo {

// The connection of one service to the broker. Only its own thread, the network thread, uses the
// MQTT client. It connects again and again, publishes what changed, hands requests to the service
// and sends their answers. It never waits for a callback of the plug-in.
//
// Services of one thing, in one process or in several, have a connection each and share the status
// topic. When one ends or is lost, "offline" is published there; the others see that and publish
// "online" again.
//
// Retained messages stay at the broker when the service ends, as after a crash: the status says
// whether they are current. At its first connection a service removes the values of an earlier run
// that it has no values for.
//
// A request at QoS 1 or 2 is acknowledged when it has ended, or after kAcknowledgeAfter: one that
// is never answered must not block the others at the broker. So what was not carried out when the
// process ends comes again at the next start. Requests that arrive while the service closes are
// left to the broker. A clean shutdown waits until the broker knows of every request that was
// carried out, so that none of them comes again.
class CloudLink final : public ServiceLink, private Mqtt::Client::Listener {
 public:
  // `name` is the service's. The service outlives the link.
  CloudLink(const BrokerSettings& broker, const std::string& name, LinkedService& service);
  // Closes and joins.
  ~CloudLink() override;

  void Start() override;
  void DescriptionChanged() override;
  void ValueChanged(const std::string& property) override;
  void ValueRemoved(const std::string& property) override;
  void HealthChanged() override;
  Waiting CountWaiting() override { return {m_requests.CountHeld(), m_outbox.CountAnswers()}; }

  // Accepts no more requests, publishes what waits, then "offline", and waits at most kFarewellTime
  // for the broker to acknowledge that. Without a connection it waits only when the broker may not
  // know of a request that was carried out: then it tries to connect at once. Afterwards the thread
  // ends. Any thread but the network thread.
  void Close() override;
  static constexpr std::chrono::seconds kFarewellTime{2};
  // Longer than a plug-in may take to start.
  static constexpr std::chrono::seconds kAcknowledgeAfter{2};
  // Once this many requests wait, they are acknowledged sooner. Otherwise the broker would send no
  // more and drop what does not fit into its queue, where this service answers "busy".
  static constexpr std::size_t kManyRequests = 16;
  static constexpr std::chrono::milliseconds kAcknowledgeManyAfter{100};
  void Join() override;
  bool HasEnded() const override { return m_ended; }

 private:
  using Clock = std::chrono::steady_clock;
  using Token = Mqtt::Client::Token;
  using Arrival = Mqtt::Client::Arrival;
  using Taken = Mqtt::Client::Taken;

  void OnConnected(bool sessionPresent) override;
  void OnLost(const Mqtt::Client::Loss& loss) override;
  void OnNotConnected(const std::string& why) override;
  Taken OnMessage(const Mqtt::Publish& message, Arrival arrival) override;
  void OnPublished(Token token, std::uint8_t reason, const std::string& reasonText) override;
  void OnForgotten(Token token) override;
  void OnSubscribed(Token token, std::uint8_t reason) override;
  void OnUnsubscribed(Token token) override;

  bool isClosing();
  // How long Close still waits.
  std::chrono::milliseconds timeToClose();
  void tellOnline();

  // All of these run on the network thread.
  void run();
  // Makes one step; false when none is left. An exception drops the connection, and the next step
  // starts over.
  bool tryToGoOn();
  void step();
  // False when the shutdown has nothing left to send or receive.
  bool mustGoOn();
  // The broker needs to hear and to say nothing more of a shutdown.
  bool hasSaidFarewell() const;
  Taken takeRequest(const Mqtt::Publish& message, Arrival arrival);
  // Acknowledges what has ended, or leaves it to the broker; acknowledges what takes long.
  void acknowledge();
  // Acknowledges what was answered at once, when fewer answers wait.
  void acknowledgeAnswered(Clock::time_point now);
  // When the request that waits longest is to be acknowledged.
  Clock::time_point timeToAcknowledge();
  // When requests that are held back may find room. It moves only when it has passed: a wait for
  // another time than the last one does not wait.
  Clock::time_point timeToCheckHeld();
  // True while the request is not acknowledged.
  bool isUnacknowledged(Arrival arrival) const;
  // Tells the plug-in, once per change.
  void reportConnected(bool connected);
  // Logs what the broker cannot do, once each.
  void noteLimits(const Mqtt::ConnAck& limits);
  void noteLimit(const std::string& text);
  // Subscribes to the topics of requests that are not subscribed to.
  void subscribeToRequests();
  void findEarlierValues();
  // False, and a log line, when the packet is larger than the broker takes.
  bool subscribe(const Mqtt::Subscription& subscription);
  // Any thread.
  void noteEnd(RemoteRequests::End end);
  void sendAnswer(Outbox::Answer answer);

  const BrokerSettings m_broker;
  LinkedService& m_service;
  const Topics m_topics;
  const MessageLabels m_labels;
  Outbox m_outbox;
  Mqtt::Client m_client;
  Publisher m_publisher;
  RemoteRequests m_requests;

  // Of the network thread:
  bool m_wasConnected = false;           // once
  bool m_askedForEarlierValues = false;  // the broker has sent those of an earlier run
  bool m_hasFailed = false;              // something was thrown: the connection is to be dropped
  bool m_isReported = false;             // the plug-in has been told that there is a connection
  bool m_triedAtClose = false;           // one attempt to connect was made because of Close
  bool m_saidFarewell = false;           // the outbox has the status "offline"
  std::map<Token, std::string> m_subscribing;  // the filters that are not acknowledged
  std::set<std::string> m_missing;             // filters of requests that are not subscribed to
  Clock::time_point m_subscribeAgain = Clock::time_point::max();
  Mqtt::Backoff m_subscribeBackoff;
  Clock::time_point m_nextDue = Clock::time_point::max();  // of what waits to be published
  Clock::time_point m_checkHeld = Clock::time_point::max();
  std::set<std::string> m_notedLimits;
  struct Begun {
    Arrival arrival = 0;
    Clock::time_point since;
  };
  std::deque<Begun> m_begun;  // requests, in the order of their arrival and of their time
  bool m_areMany = false;     // they are to be acknowledged sooner
  // Requests that were answered at once while many answers waited. They are acknowledged later:
  // until then Receive Maximum stops the broker, and there are no more answers than there is room
  // for.
  std::deque<Begun> m_answered;

  Mutex m_mutex;
  std::condition_variable m_goodbye;
  bool m_closing GUARDED_BY(m_mutex) = false;
  Clock::time_point m_closeDeadline GUARDED_BY(m_mutex);        // when closing
  std::vector<RemoteRequests::End> m_ends GUARDED_BY(m_mutex);  // of requests, to be acknowledged

  LossCount m_droppedAnswers{"answers were dropped, as too many wait for the broker"};
  LossCount m_lost{"requests were not carried out, as the service was closed"};
  std::atomic<bool> m_ended{true};
  std::thread m_thread;  // last: it uses all of the above
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_CLOUDLINK_H
