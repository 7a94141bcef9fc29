#ifndef DEVICE_SERVICE_MQTT_SESSION_H
#define DEVICE_SERVICE_MQTT_SESSION_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mqtt/Packet.h"
#include "mqtt/PacketReader.h"

namespace Lumo::Mqtt {

// One MQTT 5 session over as many connections as it takes: what is in flight in both directions,
// the limits that the broker announced, and the time limits. Pure state: it gets bytes and the
// time, and gives bytes. Used by one thread, which also runs the listener.
//
// Towards the broker: publications are sent at QoS 1, or at QoS 0 where the broker allows no more.
// They are kept until they are acknowledged. When a connection resumes the session they are sent
// again, in order and with the same identifiers. When the broker has forgotten the session they are
// returned to the caller.
//
// From the broker, exactly once at QoS 2: a message is handed on at its PUBLISH, and its identifier
// is kept until its release, so that no message is received in part and then lost. The caller may
// acknowledge it later; until then the broker keeps it, for this process or the next.
// Acknowledgements are sent in the order of the messages.
//
// A repeated PUBLISH is recognised by identifier and content, and not handed on again. Some brokers
// repeat a message whose release was completed, when the connection broke before they knew of it,
// even some time later. So a completed identifier is kept until the broker has acknowledged
// something that was sent after the completion; or, when the connection broke before that, until
// the identifier is used again. Other content under a kept identifier is another message: a broker
// that was restarted with an older state assigns identifiers anew.
class Session {
 public:
  using Clock = std::chrono::steady_clock;
  using Token = std::uint64_t;  // a publication, subscription or unsubscription, for the caller

  // What a broker is asked for, and may announce less of.
  static constexpr std::uint32_t kSessionExpirySeconds = 24 * 60 * 60;
  struct Settings {
    std::string clientId;
    std::string user;      // empty: none
    std::string password;  // empty: none
    std::string willTopic;
    std::string will;
    Labels willLabels;
    std::chrono::seconds keepAlive{30};
    std::uint32_t sessionExpirySeconds = kSessionExpirySeconds;
    // Announced to the broker, and not enforced: some brokers exceed it when a session is resumed.
    // Not 1: some brokers count an expired message as in flight, and would then send nothing any
    // more.
    std::uint16_t receiveMaximum = 32;
    // The longest body of a packet that is taken as a whole.
    std::size_t maxPacketBytes = std::size_t{512} * 1024;
  };

  // Identifies a message from the broker. Grows from one to the next; 0: none.
  using Arrival = std::uint64_t;
  // What becomes of a message.
  enum class Taken {
    Now,    // acknowledge it
    Later,  // Acknowledge or Leave will be called
    Not     // the broker is to keep it, and sends it again over the next connection
  };

  // Called from TakeBytes, Written and Lose.
  class Listener {
   public:
    // The broker has accepted the connection; `Limits` says what it announced.
    virtual void OnAccepted(bool sessionPresent) = 0;
    // A message, once. At QoS 0 `arrival` is 0, and the result is ignored. When it throws, the
    // message was not taken.
    virtual Taken OnMessage(const Mqtt::Publish& message, Arrival arrival) = 0;
    // The broker has taken the publication, or refused it: `reason` is kFirstFailure or more.
    virtual void OnPublished(Token token, std::uint8_t reason, const std::string& reasonText) = 0;
    // The broker has forgotten the session and the publication with it, or it refuses its QoS or
    // size by now. Called for the last publication first, so that the caller can put each one back
    // in front.
    virtual void OnForgotten(Token token) = 0;
    virtual void OnSubscribed(Token token, std::uint8_t reason) = 0;  // the QoS, or a refusal
    virtual void OnUnsubscribed(Token token) = 0;

   protected:
    ~Listener() = default;
  };

  enum class State { Closed, Connecting, Established };

  // Why a connection must end, for a log line, and what the broker said of it, if anything.
  struct End {
    std::string why;
    std::optional<std::uint8_t> brokerReason;  // of a DISCONNECT or a refusing CONNACK
  };

  Session(Settings settings, Listener& listener);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  State GetState() const { return m_state; }
  // As asked for, or as the broker assigned it.
  const std::string& ClientId() const { return m_clientId; }
  // A connection is open: queues the CONNECT.
  void Begin(Clock::time_point now);
  // The connection is gone, for whatever reason. What is in flight is kept.
  void Lose();

  void TakeBytes(std::string_view bytes, Clock::time_point now);
  // What to write next; empty: nothing. Good until the next call.
  std::string_view Output();
  // The connection took this much of it.
  void Written(std::size_t count, Clock::time_point now);
  // To be called when it is time, at the latest.
  void CheckTime(Clock::time_point now);
  Clock::time_point NextCheck() const;
  // Set once the connection must end: what Output gives may still be written, without waiting.
  const std::optional<End>& GetEnd() const { return m_end; }

  // What the broker announced; valid while established.
  const ConnAck& Limits() const { return m_limits; }
  // The bytes of a packet with this publication or subscription, as the broker counts them.
  static std::size_t PacketBytes(const Publication& publication);
  static std::size_t PacketBytes(const Subscription& subscription);

  // While established. Publications and subscriptions are sent in their order. A publication that
  // is to be retained is sent without that where the broker retains nothing.
  void Publish(Token token, Publication publication);
  void Subscribe(Token token, const Subscription& subscription);
  void Unsubscribe(Token token, const std::string& filter);
  // Drops a publication that was not sent over this connection yet. One that was sent stays until
  // it is acknowledged.
  void Abandon(Token token);
  // Acknowledges a message that was taken for later. Does nothing when that was done already.
  void Acknowledge(Arrival arrival);
  // The message is not taken after all, and the broker keeps it. False when Acknowledge was called.
  bool Leave(Arrival arrival);

  // Queues a DISCONNECT, which ends the connection without the will. Nothing is sent after it, and
  // no message is handed on any more, because it could not be acknowledged.
  void Disconnect();

  // Publications that the broker has not acknowledged, in their order.
  struct InFlight {
    Token token;
    std::size_t bytes;
    bool isSent;  // at least in part
  };
  std::vector<InFlight> Unacknowledged() const;

  // True when the broker knows of every message that was taken: if the session ends now, none comes
  // again.
  bool IsSettled() const { return m_incoming.empty() && m_owed.empty() && !m_mayBeUnconfirmed; }
  // Has the broker confirm what it can, so that the session becomes settled.
  void Settle(Clock::time_point now);

 private:
  // A message at QoS 2 that was handed on.
  struct Incoming {
    enum class Stage { HandedOn, Acknowledged, Completed };
    Arrival arrival;
    std::size_t digest;  // of its content
    Stage stage;
    std::uint64_t completedAt;  // m_serial then
  };
  // A message whose release was completed over a connection that broke before the broker confirmed
  // the completion.
  struct Unconfirmed {
    Arrival arrival;
    std::size_t digest;
  };
  // A message of this connection whose acknowledgement was not sent.
  struct Owed {
    Arrival arrival;
    PacketId id;
    std::uint8_t qos;
    bool mayBeAcknowledged;
  };
  struct Outgoing {
    PacketId id;  // 0: QoS 0
    Token token;
    std::string packet;
    std::uint64_t serial;  // when it was sent; 0: not yet over this connection
    bool wasSent;          // over any connection
  };
  struct Pending {
    Token token;
    bool isSubscription;
    std::uint64_t serial;
  };

  void handle(const ConnAck& packet, Clock::time_point now);
  void handle(const Mqtt::Publish& packet, Clock::time_point now);
  void handle(const Ack& packet, Clock::time_point now);
  void handle(const SubscriptionAck& packet, Clock::time_point now);
  void handle(const PingResp& packet, Clock::time_point now);
  void handle(const Mqtt::Disconnect& packet, Clock::time_point now);
  void handle(const Auth& packet, Clock::time_point now);
  void handOn(const Mqtt::Publish& packet);
  bool isRepeated(const Mqtt::Publish& packet, std::size_t digest);
  void noteRepeated(PacketId id);
  // Moves a completed message of an earlier connection back to m_incoming.
  void recall(PacketId id, Incoming::Stage stage);
  Arrival newArrival(PacketId id);
  // Finds a message in m_incoming that was handed on and not acknowledged.
  std::map<PacketId, Incoming>::iterator findHandedOn(Arrival arrival);
  // Queues the acknowledgements that are due, as many as may be queued.
  void acknowledge();
  void handleRelease(PacketId id);
  void noteRefusal(const ConnAck& packet);
  // Ends the connection with a DISCONNECT.
  void fail(std::uint8_t reason, const std::string& why);
  void end(const std::string& why, std::optional<std::uint8_t> brokerReason = std::nullopt);
  void queueControl(std::string_view packet);
  void queueDisconnect(std::uint8_t reason);
  void ping(Clock::time_point now);
  // The broker has acknowledged what was sent with this serial.
  void confirm(std::uint64_t serial);
  void resume(bool sessionPresent);
  bool isTooMuch(const Outgoing& publication) const;
  void fillOutput();
  PacketId newId();
  bool isInUse(PacketId id) const;
  void takePackets(std::string_view bytes, Clock::time_point now);
  // The broker has not answered all that was sent to it.
  bool isAwaitingBroker() const;
  std::chrono::seconds keepAlive() const;
  // How long nothing is sent before a ping, and how long the broker may be silent.
  Clock::duration pingInterval() const;
  Clock::duration silence() const;

  const Settings m_settings;
  Listener& m_listener;

  // Of the session:
  std::map<PacketId, Incoming> m_incoming;
  std::map<PacketId, Unconfirmed> m_unconfirmed;  // none of m_incoming
  // Some of these are of the last connection, and the broker has not confirmed anything since.
  bool m_mayBeUnconfirmed = false;
  std::uint64_t m_arrivals = 0;
  std::deque<Outgoing> m_outgoing;
  PacketId m_lastId = 0;
  std::string m_clientId;      // the broker may have assigned another one
  std::uint8_t m_willQos = 1;  // what the broker takes
  bool m_willRetain = true;

  // Of the connection:
  State m_state = State::Closed;
  std::optional<End> m_end;
  PacketReader m_reader;
  ConnAck m_limits;
  bool m_isLeaving = false;                   // a DISCONNECT was queued: the last packet
  std::string m_control;                      // packets that go before publications
  std::string m_output;                       // whole packets that are being written
  std::size_t m_written = 0;                  // of m_output
  std::vector<Token> m_sentAtQos0;            // in m_output
  std::map<PacketId, Pending> m_pending;      // subscriptions and unsubscriptions
  std::deque<Owed> m_owed;                    // in the order of the messages
  std::size_t m_sentUnacknowledged = 0;       // of m_outgoing
  std::uint64_t m_serial = 0;                 // of packets that the broker acknowledges
  std::size_t m_pings = 0;                    // not answered
  std::optional<std::uint64_t> m_pingSerial;  // of one of them
  std::size_t m_answersBefore = 0;            // until that one's
  Clock::time_point m_lastSent;
  // When the broker last showed that it is alive: bytes came, or the network took bytes after a
  // wait or while no answer was owed.
  Clock::time_point m_lastLife;
  bool m_isAnswerOwed = false;  // after the last bytes that came or were taken
  bool m_isHeldUp = false;      // the network did not take all of m_output
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_SESSION_H
