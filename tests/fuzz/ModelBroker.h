#ifndef TESTS_FUZZ_MODELBROKER_H
#define TESTS_FUZZ_MODELBROKER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "MqttPackets.h"
#include "Require.h"

namespace fuzz {

// An honest broker with one session of one client: numbered messages to the client, and what the
// client published. It breaks a rule when the client does what no broker would take.
//
// A message's payload is "m" and its number, a publication's begins with its number and a blank: no
// two contents are the same.
class ModelBroker {
 public:
  struct Habits {
    std::uint16_t receiveMaximum = 65535;
    std::uint8_t maximumQos = 2;
    // Publications are acknowledged when it is told to.
    bool acknowledgesLate = false;
    // Over a new connection it repeats the PUBLISH of a message that it has released already.
    bool repeatsReleased = false;
    // Identifiers are given in turn. Otherwise the lowest one that is free is.
    bool countsIdsUp = false;
    std::optional<std::uint16_t> keepAlive;
  };

  explicit ModelBroker(Habits habits) : m_habits(habits) {}

  // A message for the client, now or when there is room for it. False: it is lost, without a
  // session or, at QoS 0, a connection.
  bool Send(int number, std::uint8_t qos) {
    if (qos == 0) {
      InFlight message{0, number, qos, false};
      if (m_isAccepted) send(message, false);
      return m_isAccepted;
    }
    if (!m_hasSession) return false;
    m_waiting.push_back({0, number, qos, false});
    fill();
    return true;
  }

  // Loses the session, at the next connection at the latest. Returns the messages that are lost.
  std::set<int> Forget() {
    std::set<int> lost;
    for (const InFlight& message : m_waiting) lost.insert(message.number);
    for (const InFlight& message : m_inFlight) lost.insert(message.number);
    m_waiting.clear();
    m_inFlight.clear();
    m_hasSession = false;
    return lost;
  }

  // The connection is gone.
  void Drop() {
    m_reader.Reset();
    m_isAccepted = false;
    m_isLeft = false;
    m_lastPlace = 0;
    m_acknowledgedPlace = 0;
    m_unacknowledged.clear();
    m_output.clear();
  }

  // Of the client.
  void Take(std::string_view bytes) {
    for (const broker::ClientPacket& packet : m_reader.Take(bytes)) handle(packet);
  }

  // For the client: to be taken off the front.
  std::string& Output() { return m_output; }

  // The oldest publication that waits for it.
  void Acknowledge() {
    if (m_unacknowledged.empty()) return;
    m_output += broker::Ack(broker::kPubAck, m_unacknowledged.front());
    m_unacknowledged.pop_front();
  }

  // From now on.
  void AcknowledgeAtOnce() {
    m_habits.acknowledgesLate = false;
    while (!m_unacknowledged.empty()) Acknowledge();
  }

  void EndConnection(std::uint8_t reason) { m_output += broker::Disconnect(reason); }

  bool HasReceived(int publication) const { return m_received.count(publication) != 0; }
  // Every message has been completed.
  bool IsIdle() const { return m_waiting.empty() && m_inFlight.empty(); }

 private:
  struct InFlight {
    std::uint16_t id;
    int number;
    std::uint8_t qos;
    bool isReleased;
    std::size_t place = 0;  // of its PUBLISH among those of the connection
  };

  void handle(const broker::ClientPacket& packet) {
    Require(!m_isLeft, "nothing comes behind a DISCONNECT");
    Require(m_isAccepted == (packet.type != broker::kConnect), "the first packet is a CONNECT");
    switch (packet.type) {
      case broker::kConnect:
        accept(packet);
        break;
      case broker::kPublish:
        take(packet);
        break;
      case broker::kPubAck:
        m_inFlight.erase(acknowledged(packet, 1, false));
        fill();
        break;
      case broker::kPubRec:
        acknowledged(packet, 2, false)->isReleased = true;
        m_output += broker::Ack(broker::kPubRel, packet.id);
        break;
      case broker::kPubComp:
        m_inFlight.erase(acknowledged(packet, 2, true));
        fill();
        break;
      case broker::kSubscribe:
        m_output += broker::Subscribed(broker::kSubAck, packet.id,
                                       {static_cast<std::uint8_t>(packet.options & 3U)});
        break;
      case broker::kUnsubscribe:
        m_output += broker::Subscribed(broker::kUnsubAck, packet.id, {0});
        break;
      case broker::kPingReq:
        m_output += broker::PingResp();
        break;
      case broker::kDisconnect:
        RequireEqual(unsigned{packet.reason}, 0U, "the client has nothing to complain of");
        m_isLeft = true;
        break;
      default:
        Break("the client sends what it should not", std::to_string(packet.type));
    }
  }

  // The message that the client acknowledges, or completes.
  std::vector<InFlight>::iterator acknowledged(const broker::ClientPacket& packet, std::uint8_t qos,
                                               bool isReleased) {
    const auto found =
        std::find_if(m_inFlight.begin(), m_inFlight.end(), [&](const InFlight& message) {
          return message.id == packet.id && message.qos == qos && message.isReleased == isReleased;
        });
    Require(found != m_inFlight.end() && packet.reason == 0,
            "a message is acknowledged once, and completed once after its release");
    if (isReleased) return found;
    Require(found->place > m_acknowledgedPlace,
            "messages are acknowledged in the order in which they came");
    m_acknowledgedPlace = found->place;
    return found;
  }

  void accept(const broker::ClientPacket& connect) {
    m_isAccepted = true;
    m_clientMaximum = connect.receiveMaximum;
    broker::Acceptance acceptance;
    acceptance.sessionPresent = m_hasSession;
    if (m_habits.receiveMaximum != 65535) acceptance.receiveMaximum = m_habits.receiveMaximum;
    if (m_habits.maximumQos != 2) acceptance.maximumQos = m_habits.maximumQos;
    acceptance.keepAlive = m_habits.keepAlive;
    m_output += broker::ConnAck(acceptance);
    m_hasSession = true;
    for (InFlight& message : m_inFlight) {
      if (message.isReleased && !m_habits.repeatsReleased) {
        m_output += broker::Ack(broker::kPubRel, message.id);
        continue;
      }
      message.isReleased = false;
      send(message, true);
    }
    fill();
  }

  void take(const broker::ClientPacket& publish) {
    Require(publish.qos <= m_habits.maximumQos, "no QoS is higher than the broker takes");
    const int number = std::atoi(publish.payload.c_str());
    Require(number > 0, "a publication is what the client wanted to publish");
    if (publish.qos > 0 && m_received.count(number) == 0) {
      Require(m_received.empty() || number > *m_received.rbegin(),
              "publications arrive in their order");
    }
    m_received.insert(number);
    if (publish.qos == 0) return;
    Require(std::count(m_unacknowledged.begin(), m_unacknowledged.end(), publish.id) == 0,
            "no identifier is in use twice");
    m_unacknowledged.push_back(publish.id);
    Require(m_unacknowledged.size() <= m_habits.receiveMaximum,
            "no more publications at a time than the broker takes");
    if (!m_habits.acknowledgesLate) Acknowledge();
  }

  void send(InFlight& message, bool again) {
    if (message.qos > 0) message.place = ++m_lastPlace;
    broker::Message publish;
    publish.qos = message.qos;
    publish.id = message.id;
    publish.topic = "t";
    publish.payload = "m" + std::to_string(message.number);
    publish.again = again;
    m_output += broker::Publish(publish);
  }

  void fill() {
    while (m_isAccepted && !m_isLeft && !m_waiting.empty() && m_inFlight.size() < m_clientMaximum) {
      InFlight message = m_waiting.front();
      m_waiting.pop_front();
      message.id = newId();
      m_inFlight.push_back(message);
      send(m_inFlight.back(), false);
    }
  }

  std::uint16_t newId() {
    const auto isUsed = [this](std::uint16_t id) {
      return std::any_of(m_inFlight.begin(), m_inFlight.end(),
                         [id](const InFlight& message) { return message.id == id; });
    };
    std::uint16_t id = m_habits.countsIdsUp ? m_lastId : std::uint16_t{0};
    do {
      ++id;
    } while (id == 0 || isUsed(id));
    m_lastId = id;
    return id;
  }

  Habits m_habits;

  // Of the session:
  bool m_hasSession = false;
  std::deque<InFlight> m_waiting;
  std::vector<InFlight> m_inFlight;
  std::uint16_t m_lastId = 0;
  std::set<int> m_received;

  // Of the connection:
  broker::ClientReader m_reader;
  bool m_isAccepted = false;
  bool m_isLeft = false;
  std::size_t m_clientMaximum = 0;
  std::size_t m_lastPlace = 0;
  std::size_t m_acknowledgedPlace = 0;  // the last one
  std::deque<std::uint16_t> m_unacknowledged;
  std::string m_output;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_MODELBROKER_H
