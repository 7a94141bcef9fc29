#ifndef TESTS_SCRIPTEDBROKER_H
#define TESTS_SCRIPTEDBROKER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "MqttPackets.h"

// A broker that answers what a test tells it to, to one client at a time, on a port of the loopback
// interface. Where the test tells it nothing, it keeps the session and the retained messages. It
// only serves while the test waits in one of the Serve calls, on the test's thread; a client's
// packet that no client may send is thrown from there as std::runtime_error. Everything that comes
// is recorded. One thread uses an object.
class ScriptedBroker {
 public:
  using Clock = std::chrono::steady_clock;
  using Packet = broker::ClientPacket;

  struct Connection {
    Packet connect{};                                // its CONNECT
    std::optional<std::uint8_t> disconnectReason{};  // of the client's DISCONNECT
    bool isOver = false;
    std::vector<Clock::time_point> pings{};
  };
  struct Publication : Packet {
    std::size_t connection;  // index
    Clock::time_point time;
  };

  ScriptedBroker();
  ~ScriptedBroker();
  ScriptedBroker(const ScriptedBroker&) = delete;
  ScriptedBroker& operator=(const ScriptedBroker&) = delete;

  int Port() const { return m_port; }

  // What has come so far, in order.
  const std::vector<Connection>& Connections() const { return m_connections; }
  const std::vector<Publication>& Publications() const { return m_publications; }
  std::vector<Publication> PublicationsOn(const std::string& topic) const;
  const std::vector<Packet>& Subscriptions() const { return m_subscriptions; }
  const std::vector<Packet>& Acknowledgements() const { return m_acknowledgements; }

  // The reason code to acknowledge a publication with; nothing: it is not acknowledged. Codes below
  // 0x80 take it. Calls of this object are allowed in all of these, also those that close.
  using Judge = std::function<std::optional<std::uint8_t>(const Publication&)>;
  void JudgePublications(Judge judge) { m_judge = std::move(judge); }
  // The bytes to answer with. They replace Greeting(), and success at the QoS asked for.
  using Answer = std::function<std::string(const Packet&)>;
  void AnswerConnects(Answer answer) { m_answerConnect = std::move(answer); }
  void AnswerSubscriptions(Answer answer) { m_answerSubscription = std::move(answer); }
  void AnswerUnsubscriptions(Answer answer) { m_answerUnsubscription = std::move(answer); }
  // As if none of these had been called.
  void AnswerAsUsual();

  // Serves until the condition holds; false when it does not within half a minute.
  bool ServeUntil(const std::function<bool()>& condition);
  void ServeFor(std::chrono::milliseconds time);

  // A CONNACK that accepts, with these properties: with the session when there is one.
  std::string Greeting(const std::string& properties = {}) const;
  // Sends a message at QoS 2 and sees to it, across connections, until it is completed. It waits
  // while as many as the client allows are in flight.
  void Deliver(const std::string& topic, const std::string& payload, const std::string& properties);
  // Messages of Deliver that are not completed.
  std::size_t Undelivered() const { return m_deliveries.size(); }
  // Those that came at QoS 1 or 2 on this connection and were not acknowledged.
  const std::vector<Publication>& Unacknowledged() const { return m_unacknowledged; }
  // Acknowledges the oldest of them.
  void AcknowledgeOldest();

  // Of what was taken: the payload that is retained (empty: none), and the payloads of messages
  // that carry this Correlation Data.
  std::string RetainedAt(const std::string& topic) const;
  std::vector<std::string> AnswersTo(const std::string& correlation) const;

  // Any bytes; nothing when there is no connection.
  void Send(std::string_view bytes) const;
  // One by one, with a pause after each.
  void SendSlowly(std::string_view bytes, std::chrono::milliseconds pause) const;
  // True when the client sends nothing for this long, and does not close the connection.
  bool IsQuietFor(std::chrono::milliseconds time) const;

  void Close();
  // As a broker that ends while the client is held up: what was sent before can be read, and
  // nothing can be written any more.
  void Break();

 private:
  struct Delivery {
    std::string topic;
    std::string payload;
    std::string properties;
    bool isReleased = false;
    bool wasSent = false;
    bool isInFlight = false;  // on this connection
  };

  void serve(int waitMs);
  void accept();
  // Answers what has come; false when nothing has.
  bool takeInput();

  void answer(const Packet& packet);
  void answerConnect();
  void answerPublication(const Packet& packet);
  void onAcknowledgement(const Packet& acknowledgement);
  void take(const Publication& publication);
  // Those that may be sent and are not.
  void sendDeliveries();

  int m_listener;
  int m_port = 0;
  int m_client = -1;
  broker::ClientReader m_reader;
  bool m_hasSession = false;
  bool m_isAccepted = false;  // the client
  std::uint16_t m_lastId = 0;
  std::map<std::uint16_t, Delivery> m_deliveries;

  Judge m_judge;
  Answer m_answerConnect;
  Answer m_answerSubscription;
  Answer m_answerUnsubscription;

  std::vector<Connection> m_connections;
  std::vector<Publication> m_publications;
  std::vector<Publication> m_unacknowledged;
  std::vector<Publication> m_taken;
  std::vector<Packet> m_subscriptions;
  std::vector<Packet> m_acknowledgements;
  std::map<std::string, std::string> m_retained;
};

#endif  // TESTS_SCRIPTEDBROKER_H
