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

// An MQTT 5 client that keeps itself connected: a session over one connection after another, with
// random delays between attempts that fail. Everything but Wake runs on one thread, which also runs
// the listener; nothing in here blocks but Wait.
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
  };

  // Called from Wait and Flush.
  class Listener {
   public:
    // Publications and subscriptions can be made, and Limits says what the broker announced.
    virtual void OnConnected(bool sessionPresent) = 0;
    // The connection is lost. Only after OnConnected. What is unacknowledged is sent again.
    virtual void OnLost(const Loss& loss) = 0;
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

  // To be held by the thread that calls all the rest.
  WorkLoop::Owner OwnLoop() { return WorkLoop::Owner(m_loop); }
  // Any thread: has Wait return.
  void Wake() { m_loop.Wake(); }

  // Does what there is to do, and waits for more: until something happened, Wake was called, or it
  // is `latest`. Whatever is thrown, also by the listener, passes on; Drop is to be called then.
  void Wait(Clock::time_point latest);
  // Hands what was published and the like to the network, as far as it takes it at once.
  void Flush();

  bool IsConnected() const { return m_isConnected; }
  const ConnAck& Limits() const { return m_session.Limits(); }
  // While connected.
  Token Publish(Publication publication);
  Token Subscribe(const Subscription& subscription);
  Token Unsubscribe(const std::string& filter);
  // A publication that was not sent over this connection yet; it is not sent then.
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
  // The same for ever; afterwards no callback of GLib's is outstanding.
  // Takes no longer than it takes GLib to cancel.
  void Shutdown();
  // The clean end of the connection, as far as the network takes it within `limit`.
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

  // Runs what a callback of GLib's asks for: no exception may pass through its frames, and none may
  // be forgotten, as bytes that were not taken are missing for ever.
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
  // Drops the connection when something says that it must end.
  void endWhatMustEnd(Clock::time_point now);
  void lose(const std::string& why, const Loss& loss);
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
  Clock::time_point m_connectedAt;                             // when connected
  std::optional<std::string> m_closed;  // why the transport has closed, until it is handled
  std::exception_ptr m_exception;       // out of a callback, until it is handled
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_CLIENT_H
