#ifndef TESTS_FUZZ_SESSIONCLIENT_H
#define TESTS_FUZZ_SESSIONCLIENT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "MqttPackets.h"
#include "mqtt/Session.h"

namespace fuzz {

// A session and who uses it: publishes numbers, in their order, and again what it is given back. It
// breaks a rule when the session does what it must not with any broker.
class SessionClient final : public Lumo::Mqtt::Session::Listener {
 public:
  using Session = Lumo::Mqtt::Session;
  using Message = Lumo::Mqtt::Publish;
  using Taken = Session::Taken;

  // A message that was taken for later.
  struct Later {
    Session::Arrival arrival;
    std::uint16_t id;
    std::uint8_t qos;
    std::string payload;
  };

  explicit SessionClient(std::uint16_t receiveMaximum);

  // For the target: what becomes of a message; it may throw. Whether the session took it that one
  // is left. And a publication that the broker has acknowledged or, at QoS 0, that was written.
  std::function<Taken(const Message&)> onMessage;
  std::function<void(const Later& message, bool isLeft)> onLeft;
  std::function<void(int publication, bool isRefused)> onPublished;

  Session& Get() { return *m_session; }
  // The process of the client begins again, and knows of no session; its publications it knows.
  void Restart();

  void Connect();
  void Lose();
  // False: the listener threw, and the connection is of no use any more.
  bool Take(std::string_view bytes);
  // What the session writes, up to this many bytes.
  std::string Write(std::size_t most);
  void Wait(std::chrono::milliseconds time);

  // The next number, now or as soon as there is a connection.
  void Publish(std::size_t bytes);
  void Subscribe(bool isUnsubscribed);
  // Gives one of those up that the session keeps.
  void Abandon(std::size_t place);
  void Disconnect();
  // One of those that were taken for later, or all.
  void Acknowledge(std::size_t place);
  void AcknowledgeAll();
  void Leave(std::size_t place);
  void Settle() { m_session->Settle(m_now); }

  bool HasAbandoned(int publication) const { return m_abandoned.count(publication) != 0; }
  // It has heard what became of every publication.
  bool IsIdle() const { return m_wanted.empty() && m_publications.empty(); }
  int LastPublication() const { return m_lastNumber; }

 private:
  struct Published {
    int number;
    std::optional<std::uint16_t> id;  // once it was written
    bool isOnThisConnection;          // written, and not acknowledged
    bool mayBeAgain;                  // it may have been written over another connection
  };

  void OnAccepted(bool sessionPresent) override;
  Taken OnMessage(const Message& message, Session::Arrival arrival) override;
  void OnPublished(Session::Token token, std::uint8_t reason, const std::string& text) override;
  void OnForgotten(Session::Token token) override;
  void OnSubscribed(Session::Token token, std::uint8_t reason) override;
  void OnUnsubscribed(Session::Token token) override;

  void flush();
  Published take(Session::Token token);
  Later takeLater(std::size_t place);
  void checkWritten(const broker::ClientPacket& packet);
  void checkPublish(const broker::ClientPacket& packet);

  Session::Settings m_settings;
  std::unique_ptr<Session> m_session;
  Session::Clock::time_point m_now;
  int m_lastNumber = 0;
  Session::Token m_lastToken = 0;
  std::map<int, std::size_t> m_wanted;  // to be published, with the bytes of each
  std::map<int, std::size_t> m_sizes;
  std::map<Session::Token, Published> m_publications;  // that the session has
  std::map<int, Session::Token> m_tokens;              // of these
  std::set<int> m_abandoned;
  Session::Arrival m_lastArrival = 0;
  std::vector<Later> m_later;  // neither acknowledged nor left

  // Of the connection:
  broker::ClientReader m_reader;
  std::map<Session::Token, std::uint16_t> m_subscriptions;  // the identifier, once it was written
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_SESSIONCLIENT_H
