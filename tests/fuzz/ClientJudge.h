#ifndef TESTS_FUZZ_CLIENTJUDGE_H
#define TESTS_FUZZ_CLIENTJUDGE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "MqttPackets.h"
#include "link/Topics.h"

namespace fuzz {

// Judges what a device service sends, and what it hands to its plug-in, by what was sent to it. It
// knows the bytes in both directions and nothing else: what the service makes of wrong bytes is not
// foreseen, so for each thing it only knows how often it may happen at most.
class ClientJudge {
 public:
  // What a plug-in is asked.
  struct Request {
    bool isGet;
    std::vector<std::string> names;
    bool operator<(const Request& other) const {
      return std::pair(isGet, names) < std::pair(other.isGet, other.names);
    }
  };

  explicit ClientJudge(const Lumo::Topics& topics) : m_topics(topics) {}

  // There is a new connection.
  void Begin();
  void NoteSent(std::string_view bytes);
  // The CONNACK that is sent next. It counts when nothing was sent before it.
  void NoteAcceptance(const broker::Acceptance& acceptance);
  // Breaks a rule, or gives the packets that these bytes complete.
  std::vector<broker::ClientPacket> NoteReceived(std::string_view bytes);

  // True when all that was sent over the connection is whole packets, as far as their lengths go.
  bool IsBetweenPackets() const { return m_sent.empty() && !m_isLost; }
  // Each request must have been made by a message of its own.
  void CheckHandedOn(const std::vector<Request>& requests) const;

 private:
  struct Message;

  void noteSentPacket(std::uint8_t firstByte, std::string_view body);
  void noteAcknowledged(std::uint16_t id);
  void noteSentMessage(const Message& message);
  void noteRequest(const Message& message);
  void judge(const broker::ClientPacket& packet);
  void judgePublication(const broker::ClientPacket& packet);
  void takeId(std::uint16_t id);

  const Lumo::Topics& m_topics;
  std::map<Request, int> m_requests;                         // as often as they may be handed on
  std::set<std::pair<std::string, std::string>> m_answered;  // Response Topic, Correlation Data

  // Of this connection:
  std::string m_sent;     // of a packet that is not complete
  bool m_isLost = false;  // a length was none
  bool m_isAccepted = false;
  bool m_isFirst = true;                                         // nothing was sent
  std::optional<broker::Acceptance> m_limits;                    // that the service knows
  std::map<std::uint16_t, std::string> m_unreleased;             // contents of messages of QoS 2
  std::map<std::pair<broker::Type, std::uint16_t>, int> m_owed;  // acknowledgements
  std::set<std::uint16_t> m_acknowledged;                        // identifiers of the client
  std::set<std::uint16_t> m_inFlight;                            // of publications
  std::set<std::uint16_t> m_used;                                // likewise
  broker::ClientReader m_reader;
  bool m_hasBegun = false;
  bool m_hasEnded = false;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_CLIENTJUDGE_H
