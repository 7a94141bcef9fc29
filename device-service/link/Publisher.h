#ifndef DEVICE_SERVICE_LINK_PUBLISHER_H
#define DEVICE_SERVICE_LINK_PUBLISHER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "link/Outbox.h"
#include "link/Topics.h"
#include "mqtt/Client.h"

namespace Lumo {

class LinkedService;

// Publishes what waits in the outbox and sees to what the broker says of it. Of the network thread.
//
// - Not more is in flight than the network needs, and a value only while little else is, so that an
//   answer overtakes what waits.
// - What is refused for now (a quota, an unspecified error) comes again after a delay. What is
//   refused for good is logged with its topic.
// - What is larger than the broker takes is not sent: an answer becomes a short error, a value is
//   cleared at the broker, so that no old one passes for it. The limit is the one that the broker
//   announces, or one that was learnt when it refused a packet or ended the connection over one.
class Publisher {
 public:
  using Clock = std::chrono::steady_clock;
  using Token = Mqtt::Client::Token;

  // All of them outlive the publisher.
  Publisher(Mqtt::Client& client, Outbox& outbox, const Topics& topics,
            const LinkedService& service);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // While connected: hands to the client what can go now. Returns when more is due, if nothing
  // happens before.
  Clock::time_point PublishWaiting(Clock::time_point now);

  void OnConnected();
  void OnLost(const Mqtt::Client::Loss& loss);
  void OnPublished(Token token, std::uint8_t reason, const std::string& reasonText);
  void OnForgotten(Token token);

  // The broker has answered "offline", or takes no such packet.
  bool IsFarewellTaken() const { return m_isFarewellTaken; }

 private:
  struct Sent {
    Outbox::Item item;
    std::size_t bytes = 0;  // of the packet
    std::string topic;
    bool isReplaced = false;  // something else was sent instead of it
  };

  // These leave the item to the caller when they throw.
  void publish(Outbox::Item& item);
  void publishValue(Outbox::Item& item);
  // Publishes it, or what is to be said instead when it is too large.
  void send(Mqtt::Publication publication, Outbox::Item& item);
  void sendInstead(const Mqtt::Publication& publication, Outbox::Item& item);
  void handOver(Mqtt::Publication publication, Outbox::Item& item, bool isReplaced = false);
  void tryAgainLater(Sent sent, const std::string& reason);
  void giveUp(const Sent& sent, const std::string& reason);
  std::optional<Sent> take(Token token);
  std::size_t limit() const;
  // A packet of this size was too large.
  void learnLimit(std::size_t bytes);
  // What is in flight and larger than the limit comes again, to be replaced.
  void withdrawTooLarge();
  // The largest that was sent and not acknowledged.
  std::optional<Token> findLargestSent() const;
  // Nothing more comes of this item.
  void noteFarewell(const Outbox::Item& item);
  // True for every answer, and for anything else the first time, until it was published.
  bool isNews(const Outbox::Item& item, const std::string& topic);

  Mqtt::Client& m_client;
  Outbox& m_outbox;
  const Topics& m_topics;
  const LinkedService& m_service;

  std::map<Token, Sent> m_sent;  // and not acknowledged
  std::size_t m_sentBytes = 0;   // of those
  bool m_isFarewellTaken = false;

  std::set<std::string> m_troubledTopics;  // something was logged of them; none of answers
  std::set<std::string> m_tooLarge;        // properties whose value was too large
  std::optional<std::size_t> m_learntLimit;
  Clock::time_point m_learntAt;
  std::optional<Token> m_suspect;  // large, and in flight when the last connections were lost
  unsigned m_suspicions = 0;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_PUBLISHER_H
