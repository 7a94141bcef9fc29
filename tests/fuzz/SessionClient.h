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

#include "MqttPackets.h"
#include "mqtt/Session.h"

namespace fuzz {

// A session and who uses it: publishes numbers, in their order, and again what it is given back. It
// breaks a rule when the session does what it must not with any broker.
class SessionClient final : public Lumo::Mqtt::Session::Listener {
 public:
  using Session = Lumo::Mqtt::Session;
  using Message = Lumo::Mqtt::Publish;

  explicit SessionClient(std::uint16_t receiveMaximum);

  // For the target: whether a message is taken; it may throw. And a publication that the broker
  // has acknowledged or, at QoS 0, that was written.
  std::function<bool(const Message&)> onMessage;
  std::function<void(int publication, bool isRefused)> onPublished;
  std::function<void()> onUrgentOutput;

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
  bool OnMessage(const Message& message) override;
  void OnUrgentOutput() override { onUrgentOutput(); }
  void OnPublished(Session::Token token, std::uint8_t reason, const std::string& text) override;
  void OnForgotten(Session::Token token) override;
  void OnSubscribed(Session::Token token, std::uint8_t reason) override;
  void OnUnsubscribed(Session::Token token) override;

  void flush();
  Published take(Session::Token token);
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

  // Of the connection:
  broker::ClientReader m_reader;
  std::map<Session::Token, std::uint16_t> m_subscriptions;  // the identifier, once it was written
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_SESSIONCLIENT_H
