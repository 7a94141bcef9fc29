#ifndef TESTS_FUZZ_MODELBROKER_H
#define TESTS_FUZZ_MODELBROKER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "MqttPackets.h"

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
  bool Send(int number, std::uint8_t qos);
  // Loses the session, at the next connection at the latest. Returns the messages that are lost.
  std::set<int> Forget();
  // The connection is gone.
  void Drop();

  // Of the client.
  void Take(std::string_view bytes);
  // For the client: to be taken off the front.
  std::string& Output() { return m_output; }
  // The oldest publication that waits for it.
  void Acknowledge();
  // From now on.
  void AcknowledgeAtOnce();
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

  void handle(const broker::ClientPacket& packet);
  void accept(const broker::ClientPacket& connect);
  void take(const broker::ClientPacket& publish);
  void send(InFlight& message, bool again);
  // The client acknowledges this one.
  void checkOrder(const InFlight& message);
  void fill();
  std::uint16_t newId();
  std::vector<InFlight>::iterator find(std::uint16_t id, std::uint8_t qos, bool isReleased);

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
