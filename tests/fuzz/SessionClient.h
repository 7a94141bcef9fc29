#ifndef TESTS_FUZZ_SESSIONCLIENT_H
#define TESTS_FUZZ_SESSIONCLIENT_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "MqttPackets.h"
#include "Require.h"
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

  explicit SessionClient(std::uint16_t receiveMaximum) {
    m_settings.clientId = "client";
    m_settings.willTopic = "status";
    m_settings.will = "offline";
    m_settings.receiveMaximum = receiveMaximum;
    m_settings.maxPacketBytes = 4096;
    m_session = std::make_unique<Session>(m_settings, *this);
  }

  // For the target: what becomes of a message; it may throw. Whether the session took it that one
  // is left. And a publication that the broker has acknowledged or, at QoS 0, that was written.
  std::function<Taken(const Message&)> onMessage;
  std::function<void(const Later& message, bool isLeft)> onLeft;
  std::function<void(int publication, bool isRefused)> onPublished;

  Session& Get() { return *m_session; }
  // The process of the client begins again, and knows of no session; its publications it knows.
  void Restart() {
    Lose();
    m_session = std::make_unique<Session>(m_settings, *this);
    for (const auto& [token, published] : m_publications) {
      m_wanted[published.number] = m_sizes[published.number];
    }
    m_publications.clear();
    m_tokens.clear();
    m_lastArrival = 0;
    m_later.clear();
  }

  void Connect() {
    Lose();
    m_session->Begin(m_now);
    Require(m_session->GetState() == Session::State::Connecting && !m_session->GetEnd(),
            "a connection begins without an end");
  }

  void Lose() {
    std::set<Session::Token> sent;
    for (const Session::InFlight& publication : m_session->Unacknowledged()) {
      if (publication.isSent) sent.insert(publication.token);
    }
    for (auto& [token, published] : m_publications) {
      published.mayBeAgain = sent.count(token) != 0;
      published.isOnThisConnection = false;
    }
    m_subscriptions.clear();
    m_reader.Reset();
    m_session->Lose();
    Require(m_session->GetState() == Session::State::Closed && m_session->Output().empty(),
            "nothing is written without a connection");
  }

  // False: the listener threw, and the connection is of no use any more.
  bool Take(std::string_view bytes) {
    try {
      m_session->TakeBytes(bytes, m_now);
    } catch (const std::exception&) {
      return false;
    }
    return true;
  }

  // What the session writes, up to this many bytes.
  std::string Write(std::size_t most) {
    std::string all;
    while (all.size() < most) {
      const std::string_view output = m_session->Output();
      if (output.empty()) break;
      Require(output.size() <= kMaxOutputBytes, "no more is kept for the broker than it is given");
      const std::string piece(output.substr(0, most - all.size()));
      all += piece;
      // First, since to be written may be all that is waited for.
      for (const broker::ClientPacket& packet : m_reader.Take(piece)) checkWritten(packet);
      m_session->Written(piece.size(), m_now);
    }
    return all;
  }

  void Wait(std::chrono::milliseconds time) {
    const auto until = m_now + time;
    // As a timer would; no check is due for nothing.
    for (int checks = 0; m_session->NextCheck() <= until && !m_session->GetEnd(); ++checks) {
      Require(checks < 10'000, "time passes between checks");
      m_now = std::max(m_now, m_session->NextCheck());
      m_session->CheckTime(m_now);
      if (m_session->GetEnd()) break;
      Require(m_session->NextCheck() > m_now, "a check is due once");
    }
    m_now = until;
    m_session->CheckTime(m_now);
  }

  // The next number, now or as soon as there is a connection.
  void Publish(std::size_t bytes) {
    const std::size_t size = std::min(bytes, kMaxPublicationBytes / 2);
    m_wanted[++m_lastNumber] = size;
    m_sizes[m_lastNumber] = size;
    flush();
  }

  void Subscribe(bool isUnsubscribed) {
    if (m_session->GetState() != Session::State::Established) return;
    const Session::Token token = ++m_lastToken;
    const std::string filter = "f" + std::to_string(token);
    m_subscriptions[token] = 0;
    if (isUnsubscribed) {
      m_session->Unsubscribe(token, filter);
    } else {
      m_session->Subscribe(token, {filter, 2, false, false});
    }
  }

  // Gives one of those up that the session keeps.
  void Abandon(std::size_t place) {
    const std::vector<Session::InFlight> all = m_session->Unacknowledged();
    if (all.empty()) return;
    const Session::Token token = all[place % all.size()].token;
    m_session->Abandon(token);
    const std::vector<Session::InFlight> rest = m_session->Unacknowledged();
    if (rest.size() == all.size()) return;
    Require(rest.size() + 1 == all.size(), "one is abandoned");
    const Published published = take(token);
    Require(!published.isOnThisConnection, "what was sent is not abandoned");
    m_abandoned.insert(published.number);
  }

  void Disconnect() {
    if (m_session->GetState() == Session::State::Established) m_session->Disconnect();
  }

  // One of those that were taken for later, or all.
  void Acknowledge(std::size_t place) {
    if (!m_later.empty()) m_session->Acknowledge(takeLater(place).arrival);
  }
  void AcknowledgeAll() {
    while (!m_later.empty()) Acknowledge(0);
  }
  void Leave(std::size_t place) {
    if (m_later.empty()) return;
    const Later message = takeLater(place);
    onLeft(message, m_session->Leave(message.arrival));
    Require(!m_session->Leave(message.arrival), "a message is left once");
  }
  void Settle() { m_session->Settle(m_now); }

  bool HasAbandoned(int publication) const { return m_abandoned.count(publication) != 0; }
  // It has heard what became of every publication.
  bool IsIdle() const { return m_wanted.empty() && m_publications.empty(); }
  int LastPublication() const { return m_lastNumber; }

 private:
  // No more is kept for the broker: acknowledgements, a write of several packets, a publication.
  static constexpr std::size_t kMaxPublicationBytes = 32768;
  static constexpr std::size_t kMaxOutputBytes = 65536 + 512 + 16384 + kMaxPublicationBytes;

  struct Published {
    int number;
    std::optional<std::uint16_t> id;  // once it was written
    bool isOnThisConnection;          // written, and not acknowledged
    bool mayBeAgain;                  // it may have been written over another connection
  };

  void OnAccepted(bool) override { flush(); }

  Taken OnMessage(const Message& message, Session::Arrival arrival) override {
    Require(m_session->GetState() == Session::State::Established && !m_session->GetEnd(),
            "messages come while there is a connection");
    Require((arrival == 0) == (message.qos == 0), "what is acknowledged has an arrival");
    Require(arrival == 0 || arrival > m_lastArrival, "arrivals go up");
    if (arrival != 0) m_lastArrival = arrival;
    const Taken taken = onMessage(message);
    if (taken == Taken::Later && arrival != 0) {
      m_later.push_back({arrival, message.id, message.qos, std::string(message.payload)});
    }
    return taken;
  }

  void OnPublished(Session::Token token, std::uint8_t reason, const std::string&) override {
    const Published published = take(token);
    onPublished(published.number, reason >= Lumo::Mqtt::kFirstFailure);
  }

  void OnForgotten(Session::Token token) override {
    const Published published = take(token);
    m_wanted[published.number] = m_sizes[published.number];
  }

  void OnSubscribed(Session::Token token, std::uint8_t) override {
    Require(m_subscriptions.erase(token) == 1, "a subscription is answered once");
  }

  void OnUnsubscribed(Session::Token token) override {
    Require(m_subscriptions.erase(token) == 1, "an unsubscription is answered once");
  }

  void flush() {
    // A publication that is given back in between is taken up the next time.
    while (!m_wanted.empty() && m_session->GetState() == Session::State::Established) {
      const auto [number, bytes] = *m_wanted.begin();
      m_wanted.erase(m_wanted.begin());
      const Session::Token token = ++m_lastToken;
      m_publications[token] = {number, std::nullopt, false, false};
      m_tokens[number] = token;
      m_session->Publish(token, {"t",
                                 std::to_string(number) + ' ' + std::string(bytes, '.'),
                                 false,
                                 number % 3 == 0 ? "c" : "",
                                 {}});
    }
  }

  Published take(Session::Token token) {
    const auto found = m_publications.find(token);
    Require(found != m_publications.end(), "what becomes of a publication is told once");
    const Published published = found->second;
    m_publications.erase(found);
    m_tokens.erase(published.number);
    return published;
  }

  Later takeLater(std::size_t place) {
    const auto found = m_later.begin() + static_cast<std::ptrdiff_t>(place % m_later.size());
    const Later message = *found;
    m_later.erase(found);
    return message;
  }

  void checkWritten(const broker::ClientPacket& packet) {
    if (packet.type == broker::kPublish) checkPublish(packet);
    if (packet.type != broker::kSubscribe && packet.type != broker::kUnsubscribe) return;
    const auto token = static_cast<Session::Token>(std::atoll(packet.filter.c_str() + 1));
    const auto found = m_subscriptions.find(token);
    if (found == m_subscriptions.end()) return;  // a broker that answers before it is asked
    found->second = packet.id;
    for (const auto& [other, id] : m_subscriptions) {
      Require(other == token || id != packet.id, "no identifier is in use twice");
    }
    for (const auto& [other, published] : m_publications) {
      Require(published.id != packet.id, "no identifier is in use twice");
    }
  }

  void checkPublish(const broker::ClientPacket& packet) {
    const auto found = m_tokens.find(std::atoi(packet.payload.c_str()));
    if (packet.qos == 0 || found == m_tokens.end()) return;
    const Session::Token token = found->second;
    Published& published = m_publications[token];
    Require(!published.isOnThisConnection, "a publication is sent once over a connection");
    Require(!published.id || published.id == packet.id, "an identifier stays");
    Require(!published.id || packet.again, "what is sent again is marked as such");
    Require(!packet.again || published.mayBeAgain, "what is sent for the first time is not");
    RequireEqual(packet.payload.size(),
                 std::to_string(published.number).size() + 1 + m_sizes[published.number],
                 "a publication is sent as it is");
    published.id = packet.id;
    published.isOnThisConnection = true;
    std::size_t unacknowledged = 0;
    for (const auto& [other, theirs] : m_publications) {
      Require(other == token || theirs.id != packet.id, "no identifier is in use twice");
      if (theirs.isOnThisConnection) ++unacknowledged;
    }
    for (const auto& [other, id] : m_subscriptions) {
      Require(id != packet.id, "no identifier is in use twice");
    }
    Require(unacknowledged <= m_session->Limits().receiveMaximum,
            "no more publications at a time than the broker takes");
  }

  Session::Settings m_settings;
  std::unique_ptr<Session> m_session;
  Session::Clock::time_point m_now{std::chrono::hours(24)};
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
