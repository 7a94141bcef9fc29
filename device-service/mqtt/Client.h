#ifndef DEVICE_SERVICE_MQTT_CLIENT_H
#define DEVICE_SERVICE_MQTT_CLIENT_H

#include <chrono>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mqtt/Backoff.h"
#include "mqtt/Session.h"
#include "mqtt/Transport.h"
#include "mqtt/WorkLoop.h"
#include "settings/Settings.h"

namespace Lumo::Mqtt {

// An MQTT 5 client that keeps itself connected: one session over one connection after another, with
// random delays between failed attempts. Everything but Wake runs on one thread, which also runs
// the listener; only Wait blocks.
class Client final : private Transport::Listener, private Session::Listener {
 public:
  using Clock = std::chrono::steady_clock;
  using Token = Session::Token;
  using Arrival = Session::Arrival;
  using Taken = Session::Taken;

  // What ended a connection.
  struct Loss {
    std::optional<std::uint8_t> brokerReason;  // that the broker gave
    bool byPeer = false;                       // the broker or the network closed it
    std::string why{};                         // for the user
  };

  // Called from Wait and Flush.
  class Listener {
   public:
    // Publications and subscriptions can be made, and Limits says what the broker announced.
    virtual void OnConnected(bool sessionPresent) = 0;
    // The connection is lost. Only after OnConnected. What is unacknowledged is sent again.
    virtual void OnLost(const Loss& loss) = 0;
    // An attempt to connect has failed.
    virtual void OnNotConnected(const std::string& why) = 0;
    // As in Session::Listener.
    virtual Taken OnMessage(const Mqtt::Publish& message, Arrival arrival) = 0;
    virtual void OnPublished(Token token, std::uint8_t reason, const std::string& reasonText) = 0;
    virtual void OnForgotten(Token token) = 0;
    virtual void OnSubscribed(Token token, std::uint8_t reason) = 0;
    virtual void OnUnsubscribed(Token token) = 0;

   protected:
    ~Listener() = default;
  };

  // The listener outlives the client.
  Client(const BrokerSettings& broker, Session::Settings settings, Listener& listener);
  ~Client();  // Shutdown was called, or nothing else was
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Held by the thread that calls everything else.
  WorkLoop::Owner OwnLoop() { return WorkLoop::Owner(m_loop); }
  // Any thread: has Wait return.
  void Wake() { m_loop.Wake(); }

  // Waits until something happens, Wake is called or it is `latest`, and handles what has happened.
  // Passes on every exception, also the listener's; the caller then calls Drop.
  void Wait(Clock::time_point latest);
  // Writes what is queued, as far as the network takes it at once.
  void Flush();

  bool IsConnected() const { return m_isConnected; }
  const ConnAck& Limits() const { return m_session.Limits(); }
  // While connected.
  Token Publish(Publication publication);
  Token Subscribe(const Subscription& subscription);
  Token Unsubscribe(const std::string& filter);
  // Drops a publication that was not sent over this connection yet.
  void Abandon(Token token) { m_session.Abandon(token); }
  std::vector<Session::InFlight> Unacknowledged() const { return m_session.Unacknowledged(); }

  // See Session.
  void Acknowledge(Arrival arrival) { m_session.Acknowledge(arrival); }
  bool Leave(Arrival arrival) { return m_session.Leave(arrival); }
  bool IsSettled() const { return m_session.IsSettled(); }
  void Settle() { m_session.Settle(Clock::now()); }
  // The next attempt is made at once.
  void ConnectNow() { m_nextAttempt = Clock::time_point::min(); }
  // Ends the connection or the attempt at one, if any; the next attempt is made after a delay.
  void Drop(const std::string& why);
  // The same, without a next attempt. Waits until GLib has cancelled what is pending.
  void Shutdown();
  // Ends the connection cleanly, as far as the network takes that within `limit`.
  void Disconnect(std::chrono::milliseconds limit);

 private:
  void OnOpened() override;
  void OnBytes(std::string_view bytes) override;
  void OnWritable() override;
  void OnClosed(const std::string& why) override;

  void OnAccepted(bool sessionPresent) override;
  Taken OnMessage(const Mqtt::Publish& message, Arrival arrival) override {
    return m_listener.OnMessage(message, arrival);
  }
  void OnPublished(Token token, std::uint8_t reason, const std::string& text) override {
    m_listener.OnPublished(token, reason, text);
  }
  void OnForgotten(Token token) override { m_listener.OnForgotten(token); }
  void OnSubscribed(Token token, std::uint8_t reason) override {
    m_listener.OnSubscribed(token, reason);
  }
  void OnUnsubscribed(Token token) override { m_listener.OnUnsubscribed(token); }

  // Runs the body of a GLib callback and keeps its exception for Wait. None may pass through GLib's
  // frames, and none may be lost, because the bytes that it left unhandled are gone.
  template <typename Body>
  void guard(const Body& body) noexcept {
    if (m_exception) return;
    try {
      body();
    } catch (...) {
      m_exception = std::current_exception();
    }
  }
  void rethrow();
  void attempt();
  void writeOutput();
  // Drops the connection when the session, the transport or the time requires it.
  void endWhatMustEnd(Clock::time_point now);
  void lose(Loss loss);
  // Another connection was closed by the broker or the network, soon after it was made or not.
  void noteClosed(bool soon);
  Clock::time_point nextTime() const;

  const BrokerSettings m_broker;
  Listener& m_listener;
  WorkLoop m_loop;
  Session m_session;
  Transport m_transport;
  Backoff m_backoff;
  Token m_lastToken = 0;

  bool m_isAttempting = false;  // until the broker has accepted
  bool m_isConnected = false;
  Clock::time_point m_nextAttempt = Clock::time_point::min();  // when there is none
  Clock::time_point m_attemptEnds;                             // when there is one
  bool m_hasTrouble = false;            // was logged since the last connection was made
  int m_closedInARow = 0;               // connections, soon after they were made
  Clock::time_point m_connectedAt;      // when connected
  std::optional<std::string> m_closed;  // why the transport has closed, until it is handled
  std::exception_ptr m_exception;       // out of a callback, until it is handled
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CLIENT_H
