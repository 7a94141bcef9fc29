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
#include <vector>

// A broker that answers what a test tells it to, to one client at a time, on a port of the loopback
// interface. There are two ways to use it, and a test may mix them:
//
// - Packet by packet: Accept, Receive and what sends. Each wait throws when nothing comes for a
//   minute.
// - Serve: it behaves as a broker that keeps the session and the retained messages, with answers of
//   the test's own where the test has some. It only serves while the test waits in one of the Serve
//   calls, on the test's thread.
//
// Everything that comes is recorded in both. One thread uses an object.
class ScriptedBroker {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Type : std::uint8_t {
    Connect = 0x10,
    Publish = 0x30,
    PubAck = 0x40,
    PubRec = 0x50,
    PubRel = 0x60,
    PubComp = 0x70,
    Subscribe = 0x80,
    Unsubscribe = 0xA0,
    Ping = 0xC0,
    Disconnect = 0xE0,
    Auth = 0xF0,
    Closed = 0,  // no packet: the client has closed the connection
  };
  struct Packet {
    Type type;
    std::uint8_t flags;
    std::string body;
  };
  struct Will {
    std::string topic;
    std::string payload;
    std::uint8_t qos;
    bool retain;
  };
  struct Connection {
    Clock::time_point begin;
    std::string clientId;  // this and the next three are those of its CONNECT
    std::uint16_t keepAliveSeconds = 0;
    std::size_t receiveMaximum = 65535;
    std::optional<Will> will;
    std::optional<std::uint8_t> disconnectReason;  // of the client's DISCONNECT
    bool isOver = false;
    std::vector<Clock::time_point> pings;
  };
  struct Publication {
    std::string topic;
    std::string payload;
    std::string correlation;
    std::uint8_t qos;
    bool retain;
    bool again;  // DUP
    bool hasAlias;
    std::uint16_t id;         // 0 at QoS 0
    std::size_t packetBytes;  // of the whole packet
    std::size_t connection;   // index
    Clock::time_point time;
  };
  struct Subscription {
    std::uint16_t id;
    std::string filter;
    std::uint8_t qos;
  };
  struct Acknowledgement {  // the client's
    Type type;
    std::uint16_t id;
    std::uint8_t reason;
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
  const std::vector<Subscription>& Subscriptions() const { return m_subscriptions; }
  const std::vector<Acknowledgement>& Acknowledgements() const { return m_acknowledgements; }

  // --- Serving

  // The reason code to acknowledge a publication with; nothing: it is not acknowledged. Codes below
  // 0x80 take it. Calls of this object are allowed in all of these, also those that close.
  using Judge = std::function<std::optional<std::uint8_t>(const Publication&)>;
  void JudgePublications(Judge judge) { m_judge = std::move(judge); }
  // The bytes to answer with. They replace Greeting(), and success at the QoS asked for.
  void AnswerConnects(std::function<std::string(const Connection&)> answer) {
    m_answerConnect = std::move(answer);
  }
  void AnswerSubscriptions(std::function<std::string(const Subscription&)> answer) {
    m_answerSubscription = std::move(answer);
  }
  void AnswerUnsubscriptions(std::function<std::string(const Subscription&)> answer) {
    m_answerUnsubscription = std::move(answer);
  }

  // Serves until the condition holds; false when it does not within half a minute.
  bool ServeUntil(const std::function<bool()>& condition);
  void ServeFor(std::chrono::milliseconds time);

  // A CONNACK that accepts, with these properties: with the session when there is one.
  std::string Greeting(std::string_view properties = {}) const;
  // Sends a message at QoS 2 and sees to it, across connections, until it is completed. It waits
  // while as many as the client allows are under way.
  void Deliver(const std::string& topic, const std::string& payload, std::string_view properties);
  // Messages of Deliver that are not completed.
  std::size_t Undelivered() const { return m_deliveries.size(); }
  // Those that came at QoS 1 or 2 on this connection and were not acknowledged.
  const std::vector<Publication>& Unacknowledged() const { return m_unacknowledged; }
  // Acknowledges the oldest of them.
  void AcknowledgeOldest(std::uint8_t reason = 0);

  // Of what was taken: the retained messages by topic, and the payloads of messages that carry this
  // Correlation Data.
  const std::map<std::string, std::string>& Retained() const { return m_retained; }
  std::string RetainedAt(const std::string& topic) const;  // empty: none
  std::vector<std::string> AnswersTo(const std::string& correlation) const;

  // --- Packet by packet

  // Accepts a connection and returns its CONNECT.
  Packet Accept();
  // As Accept, and accepts the session, too.
  void AcceptSession(bool present);
  void Close();
  // As a broker that ends while the client is held up: what was sent before can be read, and
  // nothing can be written any more.
  void Break();

  // Skips packets of other types, and acknowledges the publications among them. Acknowledges every
  // subscription, unless it is told not to.
  Packet Receive(Type type);
  // As Receive, for a packet about this message.
  bool ReceiveAbout(Type type, std::uint16_t id);

  void IgnoreSubscriptions(bool ignore) { m_ignoresSubscriptions = ignore; }

  // Any bytes.
  void Send(std::string_view bytes) const;
  // One by one, with a pause after each.
  void SendSlowly(std::string_view bytes, std::chrono::milliseconds pause) const;

  void ConnAck(bool sessionPresent, std::uint8_t reason = 0);
  void Publish(std::uint16_t id, const std::string& topic, const std::string& payload,
               bool again = false);  // at QoS 2
  // The same, with a Response Topic.
  void Request(std::uint16_t id, const std::string& topic, const std::string& payload,
               const std::string& responseTopic);
  void PubRel(std::uint16_t id);
  void PubAck(const Packet& publication);
  // True when the client says nothing for this long, and does not close the connection.
  bool IsQuietFor(std::chrono::milliseconds time) const;

 private:
  struct Delivery {
    std::string topic;
    std::string payload;
    std::string properties;
    bool isReleased = false;
    bool wasSent = false;
    bool isUnderWay = false;  // on this connection
  };

  void accept();
  // Takes what has come into m_input, waiting up to so long for it; false when there is nothing.
  bool fill(int waitMs);
  std::optional<Packet> takePacket();
  Packet receive();
  // Puts it on record.
  void note(const Packet& packet, std::size_t bytes);
  void noteConnect(const std::string& body);
  void notePublication(const Packet& packet, std::size_t bytes);
  void noteEnd();

  void serve(int waitMs);
  void answer(const Packet& packet);
  void answerConnect();
  void answerPublication();
  void onAcknowledgement(const Acknowledgement& acknowledgement);
  void take(const Publication& publication);
  // Those that may be sent and are not.
  void sendDeliveries();
  void send(std::uint16_t id, const Delivery& delivery) const;

  int m_listener;
  int m_port = 0;
  int m_client = -1;
  std::string m_input;  // that is not taken yet
  bool m_ignoresSubscriptions = false;
  bool m_hasSession = false;
  bool m_isAccepted = false;  // the client, by Serve
  std::uint16_t m_lastId = 0;
  std::map<std::uint16_t, Delivery> m_deliveries;

  Judge m_judge;
  std::function<std::string(const Connection&)> m_answerConnect;
  std::function<std::string(const Subscription&)> m_answerSubscription;
  std::function<std::string(const Subscription&)> m_answerUnsubscription;

  std::vector<Connection> m_connections;
  std::vector<Publication> m_publications;
  std::vector<Publication> m_unacknowledged;
  std::vector<Publication> m_taken;
  std::vector<Subscription> m_subscriptions;
  std::vector<Subscription> m_unsubscriptions;
  std::vector<Acknowledgement> m_acknowledgements;
  std::map<std::string, std::string> m_retained;
};

#endif  // TESTS_SCRIPTEDBROKER_H
