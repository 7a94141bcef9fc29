#ifndef DEVICE_SERVICE_LINK_PUBLISHER_H
#define DEVICE_SERVICE_LINK_PUBLISHER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "link/MessageLabels.h"
#include "link/Outbox.h"
#include "link/Topics.h"
#include "mqtt/Client.h"

namespace Lumo {

class LinkedService;

// Publishes what waits in the outbox, and handles the broker's acknowledgements and refusals.
// Network thread only.
//
// - Only a little is in flight, and a value only while there is little else, so that an answer
//   overtakes the values that wait.
// - A temporary refusal (a quota, an unspecified error) is tried again after a delay. A final one
//   is logged with its topic.
// - What exceeds the broker's limit is not sent: an answer becomes a short error, and a value is
//   removed at the broker, where the old value would be wrong. The broker announces the limit, or
//   it is learnt when the broker refuses a packet or ends the connection over one. A packet no
//   larger than one that the connection took is not blamed for its end.
class Publisher {
 public:
  using Clock = std::chrono::steady_clock;
  using Token = Mqtt::Client::Token;

  // All of them outlive the publisher.
  Publisher(Mqtt::Client& client, Outbox& outbox, const Topics& topics, const MessageLabels& labels,
            LinkedService& service);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // While connected: publishes what may be sent now. Returns when more is due, if nothing happens
  // before.
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
  // Publishes it, or its replacement when it is too large.
  void send(Mqtt::Publication publication, Outbox::Item& item);
  void sendInstead(const Mqtt::Publication& publication, Outbox::Item& item);
  void handOver(Mqtt::Publication publication, Outbox::Item& item, bool isReplaced = false);
  void tryAgainLater(Sent sent, const std::string& reason);
  void giveUp(const Sent& sent, const std::string& reason);
  std::optional<Sent> take(Token token);
  std::size_t limit() const;
  // A packet of this size was too large.
  void learnLimit(std::size_t bytes);
  // Puts back what is in flight and larger than the limit, so that its replacement is sent.
  void withdrawTooLarge();
  // The largest that was sent and not acknowledged.
  std::optional<Token> findLargestSent() const;
  // The value counts once, however often it is tried.
  void countTooLarge(const std::string& property);
  // Notes, if the item is the status "offline", that the broker has it or will never take it.
  void noteFarewell(const Outbox::Item& item);
  // Whether trouble with it is to be logged: for an answer always, for anything else once until it
  // is published.
  bool isNews(const Outbox::Item& item, const std::string& topic);
  void noteRefused(const std::string& topic, const std::string& what);
  void noteTaken(const std::string& topic);
  void showRefusal();

  Mqtt::Client& m_client;
  Outbox& m_outbox;
  const Topics& m_topics;
  const MessageLabels& m_labels;
  LinkedService& m_service;

  std::map<Token, Sent> m_sent;  // and not acknowledged
  std::size_t m_sentBytes = 0;   // of those
  bool m_isFarewellTaken = false;

  std::set<std::string> m_troubledTopics;  // trouble with them was logged; no topics of answers
  // Topic -> what to tell of it: those that this connection refuses; no topics of answers.
  std::map<std::string, std::string> m_refusedTopics;
  std::string m_shownRefusal;        // of one of them; empty when there is none
  std::set<std::string> m_tooLarge;  // properties whose value was too large
  // The sequence number of their last value that was counted as too large.
  std::map<std::string, std::uint64_t> m_countedTooLarge;
  std::size_t m_largestTaken = 0;  // bytes of a packet that this connection has taken
  std::optional<std::size_t> m_learntLimit;
  Clock::time_point m_learntAt;
  std::optional<Token> m_suspect;  // large, and in flight when the last connections were lost
  unsigned m_suspicions = 0;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_LINK_PUBLISHER_H
