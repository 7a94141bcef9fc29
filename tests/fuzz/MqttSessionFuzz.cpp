// The client session of MQTT, over a connection that delivers as many bytes as the input says, and
// is lost where it says so.
//
// The first line is letters: h for an honest broker or x for a hostile one; the number of messages
// that the client takes at a time, and of publications that the broker takes (both a choice of
// kMaxima); with an honest one, its habits (a choice of 64, see habitsOf). The steps follow, a
// letter each, some with a choice. The client:
//   p, P     publishes little or much
//   s, u     subscribes, unsubscribes
//   fN       gives the Nth of its publications up
//   bN       writes up to N (of kPieces) bytes
//   tN       time passes: N times N times 100 ms
//   k        has the broker confirm what it can
//   i        takes the next message for later
//   jN, JN   acknowledges, or leaves to the broker, the Nth that was taken for later
//   q        leaves with a DISCONNECT
//   K, Q     begins again as another process, when its session is settled; Q: leaves with a
//            DISCONNECT before, while messages may be on their way
// The honest broker, and the connection:
//   m, o, z  a message of QoS 2, 1 or 0
//   a        acknowledges one publication
//   d        ends the connection
//   r, e     the next message is refused, or the listener throws
//   vN, wN   N bytes (of kPieces) arrive at the broker, or at the client
//   l, c     the connection is lost; there is a new one
//   n        likewise, and the broker has forgotten the session
//   g        everything is written and arrives
// The hostile broker; N is a choice of an identifier:
//   CNM      CONNACK: flag N (of 4), reason or property M (of 8)
//   MNQ      a message with identifier N and content Q (of 8), at QoS 2
//   DNQ      likewise, with DUP
//   oN, z    a message of QoS 1 or 0
//   RTNM     PUBACK, PUBREC, PUBREL or PUBCOMP (T) with reason M (of 4)
//   SN, UN   SUBACK, UNSUBACK
//   G, E     PINGRESP, DISCONNECT
//   F        thousands of PUBRELs
//   H        thousands of messages of QoS 1
//   X LINE   bytes
//   l, c, r, e   as above
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "Input.h"
#include "ModelBroker.h"
#include "MqttPackets.h"
#include "Require.h"
#include "SessionClient.h"
#include "Target.h"

namespace {

using fuzz::Input;
using fuzz::ModelBroker;
using fuzz::Require;
using fuzz::SessionClient;
using Message = SessionClient::Message;

constexpr std::size_t kMaxSteps = 400;
constexpr std::size_t kAll = std::size_t{1} << 20U;
constexpr std::size_t kSmall = 3;
constexpr std::size_t kLarge = 9000;
constexpr std::array<std::uint16_t, 4> kMaxima = {2, 3, 32, 65535};
constexpr std::array<std::size_t, 16> kPieces = {1,  2,  3,  4,   5,   6,    7,    8,
                                                 10, 16, 20, 100, 500, 4096, 9000, kAll};

using Taken = SessionClient::Taken;

enum class Verdict { Take, TakeForLater, Refuse, Throw };

Taken carryOut(Verdict verdict) {
  switch (verdict) {
    case Verdict::Take:
      return Taken::Now;
    case Verdict::TakeForLater:
      return Taken::Later;
    case Verdict::Refuse:
      return Taken::Not;
    case Verdict::Throw:
      break;
  }
  throw std::runtime_error("the listener has no memory");
}

std::chrono::milliseconds timeOf(Input& input) {
  const auto count = static_cast<int>(input.Choice(64));
  return std::chrono::milliseconds(100) * count * count;
}

// What both kinds of a broker see of the client. False: the letter is none of these.
bool letClientAct(char letter, Input& input, SessionClient& client) {
  switch (letter) {
    case 'p':
      client.Publish(kSmall);
      return true;
    case 'P':
      client.Publish(kLarge);
      return true;
    case 's':
    case 'u':
      client.Subscribe(letter == 'u');
      return true;
    case 'f':
      client.Abandon(input.Choice(16));
      return true;
    case 't':
      client.Wait(timeOf(input));
      return true;
    case 'k':
      client.Settle();
      return true;
    case 'j':
      client.Acknowledge(input.Choice(16));
      return true;
    case 'J':
      client.Leave(input.Choice(16));
      return true;
    case 'q':
      client.Disconnect();
      return true;
    default:
      return false;
  }
}

// --- honest --------------------------------------------------------------------------------------

// Of the broker, and one of the client: acknowledgements are written as soon as it may.
struct Habits : ModelBroker::Habits {
  bool writesAtOnce = false;
};

Habits habitsOf(Input& input) {
  Habits habits;
  habits.receiveMaximum = std::array<std::uint16_t, 4>{1, 2, 3, 65535}.at(input.Choice(4));
  const std::size_t bits = input.Choice(64);
  habits.acknowledgesLate = (bits & 1U) != 0;
  habits.repeatsReleased = (bits & 2U) != 0;
  habits.countsIdsUp = (bits & 4U) != 0;
  if ((bits & 24U) == 24U) habits.maximumQos = 0;
  habits.writesAtOnce = (bits & 24U) == 16U;
  if ((bits & 32U) != 0) habits.keepAlive = 1;
  return habits;
}

// A session and an honest broker: exactly once and in order, whatever the connections do.
class HonestWorld {
 public:
  explicit HonestWorld(Input& input)
      : m_client(kMaxima.at(input.Choice(kMaxima.size()))),
        m_habits(habitsOf(input)),
        m_broker(m_habits) {
    m_client.onMessage = [this](const Message& message) { return takeMessage(message); };
    m_client.onPublished = [this](int publication, bool isRefused) {
      Require(!isRefused, "an honest broker refuses no publication");
      if (m_habits.maximumQos == 0) return;
      Require(m_broker.HasReceived(publication), "what is acknowledged has arrived");
    };
    m_client.onLeft = [this](const SessionClient::Later& message, bool isLeft) {
      noteLeft(message, isLeft);
    };
    input.Line();
  }

  void Step(char letter, Input& input) {
    if (letClientAct(letter, input, m_client)) {
      checkEnd();
      return;
    }
    switch (letter) {
      case 'm':
      case 'o':
      case 'z':
        send(letter == 'm' ? 2 : letter == 'o' ? 1 : 0);
        break;
      case 'a':
        m_broker.Acknowledge();
        break;
      case 'd':
        if (m_isConnected &&
            m_client.Get().GetState() == SessionClient::Session::State::Established) {
          m_broker.EndConnection(0x8B);
          m_isEndedByBroker = true;
        }
        break;
      case 'i':
        m_next = Verdict::TakeForLater;
        break;
      case 'r':
        m_next = Verdict::Refuse;
        break;
      case 'e':
        m_next = Verdict::Throw;
        break;
      case 'b':
        m_up += m_client.Write(kPieces.at(input.Choice(kPieces.size())));
        break;
      case 'v':
        deliverUp(kPieces.at(input.Choice(kPieces.size())));
        break;
      case 'w':
        deliverDown(kPieces.at(input.Choice(kPieces.size())));
        break;
      case 'l':
        lose();
        break;
      case 'c':
        connect();
        break;
      case 'n':
        lose();
        for (const int number : m_broker.Forget()) m_lost.insert(number);
        m_isUnaware = true;
        connect();
        break;
      case 'g':
        pump();
        break;
      case 'K':
        if (!m_client.Get().IsSettled()) break;
        lose();
        m_client.Restart();
        break;
      case 'Q':
        if (!m_client.Get().IsSettled()) break;
        // Before the session is accepted there is none to leave.
        if (m_client.Get().GetState() == SessionClient::Session::State::Established) {
          m_client.Disconnect();
          pump();
        }
        lose();
        m_client.Restart();
        break;
      default:
        break;
    }
  }

  // Over a connection that nothing disturbs everything arrives.
  void Finish() {
    m_next = Verdict::Take;
    m_broker.AcknowledgeAtOnce();
    connect();
    pump();
    m_client.AcknowledgeAll();
    pump();
    Require(m_client.Get().GetState() == SessionClient::Session::State::Established,
            "the connection is there");
    for (const auto& [number, qos] : m_sent) {
      const bool isLost = qos == 0 || m_lost.count(number) != 0;
      Require(isLost || m_handedOn.count(number) != 0, "no message is lost");
    }
    Require(m_broker.IsIdle(), "all messages are acknowledged");
    Require(m_client.Get().Unacknowledged().empty(), "all publications are acknowledged");
    Require(m_client.IsIdle(), "what becomes of a publication is told");
    for (int number = 1; m_habits.maximumQos > 0 && number <= m_client.LastPublication();
         ++number) {
      Require(m_broker.HasReceived(number) || m_client.HasAbandoned(number),
              "no publication is lost");
    }
    m_client.Settle();
    pump();
    m_client.Settle();
    pump();
    Require(m_client.Get().IsSettled() || m_isUnaware,
            "a session in which nothing happens is settled");
  }

 private:
  static int numberOf(std::string_view payload) {
    return std::stoi(std::string(payload.substr(1)));
  }

  Taken takeMessage(const Message& message) {
    const int number = numberOf(message.payload);
    Require(message.payload.front() == 'm' && m_sent.count(number) != 0 &&
                m_sent[number] == message.qos,
            "a message is what the broker sent");
    const Verdict verdict = std::exchange(m_next, Verdict::Take);
    if (verdict == Verdict::Refuse) m_refused.insert(number);
    const Taken taken = carryOut(verdict);
    if (taken == Taken::Not) return taken;
    const bool isNew = m_handedOn.insert(number).second;
    Require(isNew || message.qos == 1, "no message is handed on twice");
    if (message.qos < 2 || m_refused.count(number) != 0) return taken;
    Require(number > m_lastInOrder, "messages are handed on in their order");
    m_lastInOrder = number;
    return taken;
  }

  void noteLeft(const SessionClient::Later& message, bool isLeft) {
    const int number = numberOf(message.payload);
    if (!isLeft) {
      // At QoS 1 a lost connection ends the matter: the broker repeats the message.
      Require(message.qos == 1 || m_lost.count(number) != 0,
              "what was not acknowledged can be left");
      return;
    }
    m_handedOn.erase(number);
    m_refused.insert(number);
  }

  void send(std::uint8_t qos) {
    m_sent[++m_lastNumber] = qos;
    if (!m_broker.Send(m_lastNumber, qos)) m_lost.insert(m_lastNumber);
  }

  void connect() {
    lose();
    m_client.Connect();
    m_isConnected = true;
  }

  void lose() {
    m_client.Lose();
    m_broker.Drop();
    m_up.clear();
    m_isConnected = false;
    m_isEndedByBroker = false;
  }

  bool deliverUp(std::size_t count) {
    const std::string piece = m_up.substr(0, count);
    m_up.erase(0, piece.size());
    if (!piece.empty()) m_broker.Take(piece);
    return !piece.empty();
  }

  bool deliverDown(std::size_t count) {
    if (!m_isConnected) return false;
    const std::string piece = m_broker.Output().substr(0, count);
    m_broker.Output().erase(0, piece.size());
    if (piece.empty()) return false;
    if (!m_client.Take(piece)) lose();
    const SessionClient::Session& session = m_client.Get();
    if (session.GetState() == SessionClient::Session::State::Established &&
        !session.Limits().sessionPresent) {
      m_isUnaware = false;
    }
    checkEnd();
    if (m_habits.writesAtOnce && m_isConnected) m_up += m_client.Write(kAll);
    return true;
  }

  void pump() {
    while (m_isConnected) {
      m_up += m_client.Write(kAll);
      const bool hasUp = deliverUp(kAll);
      const bool hasDown = deliverDown(kAll);
      if (!hasUp && !hasDown) return;
    }
  }

  // The connection ends when the broker says so, or when time has passed and nothing came.
  void checkEnd() {
    const auto& end = m_client.Get().GetEnd();
    if (!end || !m_isConnected) return;
    if (end->brokerReason) {
      Require(m_isEndedByBroker && *end->brokerReason == 0x8B, "a broker says why it ends");
    } else {
      fuzz::RequireEqual(end->why, std::string("the broker is silent"),
                         "nothing else ends the connection to an honest broker");
    }
    lose();
  }

  SessionClient m_client;
  const Habits m_habits;
  ModelBroker m_broker;
  std::string m_up;
  bool m_isConnected = false;
  bool m_isEndedByBroker = false;
  // The broker has forgotten the session, and the client may not know it: when it hears of a
  // session again, that can be a new one.
  bool m_isUnaware = false;
  Verdict m_next = Verdict::Take;
  std::map<int, std::uint8_t> m_sent;
  int m_lastNumber = 0;
  int m_lastInOrder = 0;
  std::set<int> m_handedOn;
  std::set<int> m_refused;
  std::set<int> m_lost;
};

// --- hostile -------------------------------------------------------------------------------------

// A session and a broker that sends what it likes.
class HostileWorld {
 public:
  explicit HostileWorld(Input& input) : m_client(kMaxima.at(input.Choice(3))) {
    m_client.onMessage = [this](const Message& message) { return takeMessage(message); };
    m_client.onLeft = [this](const SessionClient::Later& message, bool isLeft) {
      const auto kept = m_kept.find(message.id);
      if (!isLeft || message.qos < 2 || kept == m_kept.end()) return;
      Require(!m_isKnown || kept->second == message.payload.substr(0, 5),
              "another message that has its identifier now is not left in its place");
      m_kept.erase(kept);
    };
    m_client.onPublished = [](int, bool) {};
    input.Line();
    m_client.Connect();
  }

  void Step(char letter, Input& input) {
    if (letClientAct(letter, input, m_client)) return;
    switch (letter) {
      case 'C':
        accept(input);
        break;
      case 'M':
      case 'D': {
        const std::uint16_t id = idOf(input);
        give(publish(2, id, static_cast<int>(input.Choice(8)), letter == 'D'));
        break;
      }
      case 'o':
        give(publish(1, idOf(input), 1, false));
        break;
      case 'z':
        give(publish(0, 0, 1, false));
        break;
      case 'R': {
        const auto type = static_cast<broker::Type>(broker::kPubAck + input.Choice(4));
        const std::uint16_t id = idOf(input);
        acknowledge(type, id, std::array<std::uint8_t, 4>{0, 0x10, 0x92, 0x97}.at(input.Choice(4)));
        break;
      }
      case 'S':
      case 'U':
        give(broker::Subscribed(letter == 'S' ? broker::kSubAck : broker::kUnsubAck, idOf(input),
                                {0}));
        break;
      case 'G':
        give(broker::PingResp());
        break;
      case 'E':
        give(broker::Disconnect(0x8B, "enough"));
        break;
      case 'F': {
        std::string many;
        for (int i = 0; i < 8000; ++i) many += broker::Ack(broker::kPubRel, 60'000);
        give(many);
        break;
      }
      case 'H': {
        std::string many;
        for (int i = 0; i < 8000; ++i) many += publish(1, 1, 1, false);
        give(many);
        break;
      }
      case 'X':
        m_isKnown = false;
        m_kept.clear();
        give(input.Line());
        break;
      case 'b':
        m_client.Write(kPieces.at(input.Choice(kPieces.size())));
        break;
      case 'i':
        m_next = Verdict::TakeForLater;
        break;
      case 'r':
        m_next = Verdict::Refuse;
        break;
      case 'e':
        m_next = Verdict::Throw;
        break;
      case 'l':
        m_client.Lose();
        break;
      case 'c':
        m_client.Connect();
        m_isKnown = true;
        break;
      default:
        break;
    }
  }

  void Finish() {
    m_client.Write(kAll);
    m_client.Lose();
  }

 private:
  static std::uint16_t idOf(Input& input) {
    const std::size_t choice = input.Choice(64);
    return static_cast<std::uint16_t>(choice < 60 ? choice : 65535 - (choice - 60));
  }

  static std::string publish(std::uint8_t qos, std::uint16_t id, int content, bool again) {
    broker::Message message;
    message.qos = qos;
    message.id = id;
    message.topic = "t";
    message.payload = std::string(content == 7 ? 5000 : 5, static_cast<char>('a' + content));
    message.again = again;
    return broker::Publish(message);
  }

  bool isEstablished() {
    return m_client.Get().GetState() == SessionClient::Session::State::Established &&
           !m_client.Get().GetEnd();
  }

  void accept(Input& input) {
    const std::size_t flags = input.Choice(4);
    broker::Acceptance acceptance;
    acceptance.sessionPresent = (flags & 1U) != 0;
    switch (input.Choice(8)) {
      case 1:
        acceptance.reason = 0x87;
        break;
      case 2:
        acceptance.reason = 0x9A;
        break;
      case 3:
        acceptance.reason = 0x9B;
        break;
      case 4:
        acceptance.receiveMaximum = 1;
        acceptance.keepAlive = 1;
        break;
      case 5:
        acceptance.maximumQos = 0;
        break;
      case 6:
        acceptance.retainAvailable = 0;
        acceptance.keepAlive = 0;
        break;
      case 7:
        acceptance.clientId = "another";
        break;
      default:
        break;
    }
    give(broker::ConnAck(acceptance));
    if (isEstablished() && !acceptance.sessionPresent) m_kept.clear();
  }

  void acknowledge(broker::Type type, std::uint16_t id, std::uint8_t reason) {
    const bool isHeard = isEstablished();
    give(broker::Ack(type, id, reason));
    if (isHeard && type == broker::kPubRel) m_kept.erase(id);
  }

  Taken takeMessage(const Message& message) {
    Require(message.qos < 3 && (message.id == 0) == (message.qos == 0),
            "a message has what its QoS needs");
    const Verdict verdict = std::exchange(m_next, Verdict::Take);
    // What had the identifier before is known no more.
    const bool isRefused = verdict == Verdict::Refuse || verdict == Verdict::Throw;
    if (isRefused && message.qos == 2) m_kept.erase(message.id);
    const Taken taken = carryOut(verdict);
    if (taken == Taken::Not || message.qos < 2 || !m_isKnown) return taken;
    const std::string content(message.payload.substr(0, 5));
    const auto known = m_kept.find(message.id);
    Require(known == m_kept.end() || known->second != content,
            "a message is handed on once before its release");
    m_kept[message.id] = content;
    return taken;
  }

  void give(const std::string& bytes) {
    if (!m_client.Take(bytes)) m_client.Lose();
  }

  SessionClient m_client;
  Verdict m_next = Verdict::Take;
  bool m_isKnown = true;                        // what the session has understood
  std::map<std::uint16_t, std::string> m_kept;  // what is not released, and its content
};

template <typename World>
void run(Input& input) {
  World world(input);
  for (std::size_t step = 0; step < kMaxSteps && !input.AtEnd(); ++step) {
    world.Step(input.Letter(), input);
  }
  world.Finish();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  switch (input.Letter()) {
    case 'h':
      run<HonestWorld>(input);
      break;
    case 'x':
      run<HostileWorld>(input);
      break;
    default:
      break;
  }
  return 0;
}
