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

#include "BrokerPackets.h"
#include "Input.h"
#include "ModelBroker.h"
#include "MqttPackets.h"
#include "Require.h"
#include "SessionClient.h"

namespace {

using namespace fuzz;
using Message = SessionClient::Message;
using State = SessionClient::Session::State;
using Taken = SessionClient::Taken;

constexpr std::size_t kMaxSteps = 400;
constexpr std::size_t kAll = std::size_t{1} << 20U;
constexpr std::size_t kSmall = 3;
constexpr std::size_t kLarge = 9000;
constexpr std::array<std::uint16_t, 4> kMaxima = {2, 3, 32, 65535};

std::size_t pieceOf(Input& input) {
  constexpr std::array<std::size_t, 16> kPieces = {1,  2,  3,  4,   5,   6,    7,    8,
                                                   10, 16, 20, 100, 500, 4096, 9000, kAll};
  return kPieces.at(input.Choice(kPieces.size()));
}

// A session, and what both kinds of a broker see of it.
class SessionWorld {
 public:
  explicit SessionWorld(std::uint16_t receiveMaximum) : client(receiveMaximum) {}

  // False: the letter is none of the client's.
  bool LetClientAct(char letter, Input& input) {
    static const Steps<SessionWorld> kSteps = {
        {'p', [](auto& world, Input&) { world.client.Publish(kSmall); }},
        {'P', [](auto& world, Input&) { world.client.Publish(kLarge); }},
        {'s', [](auto& world, Input&) { world.client.Subscribe(false); }},
        {'u', [](auto& world, Input&) { world.client.Subscribe(true); }},
        {'f', [](auto& world, Input& in) { world.client.Abandon(in.Choice(16)); }},
        {'t',
         [](auto& world, Input& in) {
           const auto count = static_cast<int>(in.Choice(64));
           world.client.Wait(std::chrono::milliseconds(100) * count * count);
         }},
        {'k', [](auto& world, Input&) { world.client.Settle(); }},
        {'j', [](auto& world, Input& in) { world.client.Acknowledge(in.Choice(16)); }},
        {'J', [](auto& world, Input& in) { world.client.Leave(in.Choice(16)); }},
        {'q', [](auto& world, Input&) { world.client.Disconnect(); }}};
    return Perform(kSteps, letter, *this, input);
  }

  // What becomes of the next message. False: the letter is not about that.
  bool Decide(char letter) {
    const bool isVerdict = letter == 'i' || letter == 'r' || letter == 'e';
    if (isVerdict) verdict = letter;
    return isVerdict;
  }

  static Taken CarryOut(char verdict) {
    if (verdict == 'e') throw std::runtime_error("the listener has no memory");
    return verdict == 'r' ? Taken::Not : verdict == 'i' ? Taken::Later : Taken::Now;
  }

  bool IsEstablished() { return client.Get().GetState() == State::Established; }

  SessionClient client;
  char verdict = '\0';  // i: taken for later, r: refused, e: the listener throws; 0: taken
};

// --- honest --------------------------------------------------------------------------------------

// Of the broker, and one of the client: acknowledgements are written as soon as it may.
struct Habits : ModelBroker::Habits {
  explicit Habits(Input& input) {
    receiveMaximum = std::array<std::uint16_t, 4>{1, 2, 3, 65535}.at(input.Choice(4));
    const std::size_t bits = input.Choice(64);
    acknowledgesLate = (bits & 1U) != 0;
    repeatsReleased = (bits & 2U) != 0;
    countsIdsUp = (bits & 4U) != 0;
    if ((bits & 24U) == 24U) maximumQos = 0;
    writesAtOnce = (bits & 24U) == 16U;
    if ((bits & 32U) != 0) keepAlive = 1;
  }

  bool writesAtOnce = false;
};

// A session and an honest broker: exactly once and in order, whatever the connections do.
class HonestWorld : SessionWorld {
 public:
  explicit HonestWorld(Input& input)
      : SessionWorld(kMaxima.at(input.Choice(kMaxima.size()))),
        m_habits(input),
        m_broker(m_habits) {
    client.onMessage = [this](const Message& message) { return takeMessage(message); };
    client.onPublished = [this](int publication, bool isRefused) {
      Require(!isRefused, "an honest broker refuses no publication");
      if (m_habits.maximumQos == 0) return;
      Require(m_broker.HasReceived(publication), "what is acknowledged has arrived");
    };
    client.onLeft = [this](const SessionClient::Later& message, bool isLeft) {
      noteLeft(message, isLeft);
    };
    input.Line();
  }

  void Step(char letter, Input& input) {
    if (LetClientAct(letter, input)) {
      checkEnd();
      return;
    }
    static const Steps<HonestWorld> kSteps = {
        {'m', [](auto& world, Input&) { world.send(2); }},
        {'o', [](auto& world, Input&) { world.send(1); }},
        {'z', [](auto& world, Input&) { world.send(0); }},
        {'a', [](auto& world, Input&) { world.m_broker.Acknowledge(); }},
        {'d', [](auto& world, Input&) { world.endByBroker(); }},
        {'b', [](auto& world, Input& in) { world.m_up += world.client.Write(pieceOf(in)); }},
        {'v', [](auto& world, Input& in) { world.deliverUp(pieceOf(in)); }},
        {'w', [](auto& world, Input& in) { world.deliverDown(pieceOf(in)); }},
        {'l', [](auto& world, Input&) { world.lose(); }},
        {'c', [](auto& world, Input&) { world.connect(); }},
        {'n', [](auto& world, Input&) { world.connectAnew(); }},
        {'g', [](auto& world, Input&) { world.pump(); }},
        {'K', [](auto& world, Input&) { world.restart(false); }},
        {'Q', [](auto& world, Input&) { world.restart(true); }}};
    if (!Decide(letter)) Perform(kSteps, letter, *this, input);
  }

  // Over a connection that nothing disturbs everything arrives.
  void Finish() {
    verdict = '\0';
    m_broker.AcknowledgeAtOnce();
    connect();
    pump();
    client.AcknowledgeAll();
    pump();
    Require(IsEstablished(), "the connection is there");
    for (const auto& [number, qos] : m_sent) {
      const bool isLost = qos == 0 || m_lost.count(number) != 0;
      Require(isLost || m_handedOn.count(number) != 0, "no message is lost");
    }
    Require(m_broker.IsIdle(), "all messages are acknowledged");
    Require(client.Get().Unacknowledged().empty(), "all publications are acknowledged");
    Require(client.IsIdle(), "what becomes of a publication is told");
    for (int number = 1; m_habits.maximumQos > 0 && number <= client.LastPublication(); ++number) {
      Require(m_broker.HasReceived(number) || client.HasAbandoned(number),
              "no publication is lost");
    }
    for (int time = 0; time < 2; ++time) {
      client.Settle();
      pump();
    }
    Require(client.Get().IsSettled() || m_isUnaware,
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
    const char decided = std::exchange(verdict, '\0');
    if (decided == 'r') m_refused.insert(number);
    const Taken taken = CarryOut(decided);
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

  void endByBroker() {
    if (!m_isConnected || !IsEstablished()) return;
    m_broker.EndConnection(0x8B);
    m_isEndedByBroker = true;
  }

  void connect() {
    lose();
    client.Connect();
    m_isConnected = true;
  }

  // The broker has forgotten the session.
  void connectAnew() {
    lose();
    m_lost.merge(m_broker.Forget());
    m_isUnaware = true;
    connect();
  }

  void restart(bool leaves) {
    if (!client.Get().IsSettled()) return;
    // Before the session is accepted there is none to leave.
    if (leaves && IsEstablished()) {
      client.Disconnect();
      pump();
    }
    lose();
    client.Restart();
  }

  void lose() {
    client.Lose();
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
    if (!client.Take(piece)) lose();
    if (IsEstablished() && !client.Get().Limits().sessionPresent) m_isUnaware = false;
    checkEnd();
    if (m_habits.writesAtOnce && m_isConnected) m_up += client.Write(kAll);
    return true;
  }

  void pump() {
    while (m_isConnected) {
      m_up += client.Write(kAll);
      const bool hasUp = deliverUp(kAll);
      const bool hasDown = deliverDown(kAll);
      if (!hasUp && !hasDown) return;
    }
  }

  // The connection ends when the broker says so, or when time has passed and nothing came.
  void checkEnd() {
    const auto& end = client.Get().GetEnd();
    if (!end || !m_isConnected) return;
    if (end->brokerReason) {
      Require(m_isEndedByBroker && *end->brokerReason == 0x8B, "a broker says why it ends");
    } else {
      RequireEqual(end->why, std::string("the broker is silent"),
                   "nothing else ends the connection to an honest broker");
    }
    lose();
  }

  const Habits m_habits;
  ModelBroker m_broker;
  std::string m_up;
  bool m_isConnected = false;
  bool m_isEndedByBroker = false;
  // The broker has forgotten the session, and the client may not know it: when it hears of a
  // session again, that can be a new one.
  bool m_isUnaware = false;
  std::map<int, std::uint8_t> m_sent;
  int m_lastNumber = 0;
  int m_lastInOrder = 0;
  std::set<int> m_handedOn;
  std::set<int> m_refused;
  std::set<int> m_lost;
};

// --- hostile -------------------------------------------------------------------------------------

// A session and a broker that sends what it likes.
class HostileWorld : SessionWorld {
 public:
  explicit HostileWorld(Input& input) : SessionWorld(kMaxima.at(input.Choice(3))) {
    client.onMessage = [this](const Message& message) { return takeMessage(message); };
    client.onLeft = [this](const SessionClient::Later& message, bool isLeft) {
      const auto kept = m_kept.find(message.id);
      if (!isLeft || message.qos < 2 || kept == m_kept.end()) return;
      Require(!m_isKnown || kept->second == message.payload.substr(0, 5),
              "another message that has its identifier now is not left in its place");
      m_kept.erase(kept);
    };
    client.onPublished = [](int, bool) {};
    input.Line();
    client.Connect();
  }

  void Step(char letter, Input& input) {
    if (LetClientAct(letter, input) || Decide(letter)) return;
    if (const auto packet = TakePacket(letter, input, {0, 0x10, 0x92, 0x97})) {
      const bool isHeard = isInSession();
      give(packet->bytes);
      if (isHeard && packet->type == broker::kPubRel) m_kept.erase(packet->id);
      return;
    }
    static const Steps<HostileWorld> kSteps = {
        {'C', [](auto& world, Input& in) { world.accept(in); }},
        {'M', [](auto& world, Input& in) { world.sendAtQos2(in, false); }},
        {'D', [](auto& world, Input& in) { world.sendAtQos2(in, true); }},
        {'o', [](auto& world, Input& in) { world.give(publish(1, TakeId(in), 1, false)); }},
        {'z', [](auto& world, Input&) { world.give(publish(0, 0, 1, false)); }},
        {'F', [](auto& world, Input&) { world.giveMany(broker::Ack(broker::kPubRel, 60'000)); }},
        {'H', [](auto& world, Input&) { world.giveMany(publish(1, 1, 1, false)); }},
        {'X',
         [](auto& world, Input& in) {
           world.m_isKnown = false;
           world.m_kept.clear();
           world.give(in.Line());
         }},
        {'b', [](auto& world, Input& in) { world.client.Write(pieceOf(in)); }},
        {'l', [](auto& world, Input&) { world.client.Lose(); }},
        {'c', [](auto& world, Input&) {
           world.client.Connect();
           world.m_isKnown = true;
         }}};
    Perform(kSteps, letter, *this, input);
  }

  void Finish() {
    client.Write(kAll);
    client.Lose();
  }

 private:
  static std::string publish(std::uint8_t qos, std::uint16_t id, int content, bool again) {
    broker::Message message;
    message.qos = qos;
    message.id = id;
    message.topic = "t";
    message.payload = std::string(content == 7 ? 5000 : 5, static_cast<char>('a' + content));
    message.again = again;
    return broker::Publish(message);
  }

  bool isInSession() { return IsEstablished() && !client.Get().GetEnd(); }

  void accept(Input& input) {
    std::size_t flags = 0;
    broker::Acceptance acceptance = TakeAcceptance(input, 8, flags);
    if (acceptance.receiveMaximum) acceptance.keepAlive = 1;
    if (acceptance.retainAvailable) acceptance.keepAlive = 0;
    give(broker::ConnAck(acceptance));
    if (isInSession() && !acceptance.sessionPresent) m_kept.clear();
  }

  void sendAtQos2(Input& input, bool again) {
    const std::uint16_t id = TakeId(input);
    give(publish(2, id, static_cast<int>(input.Choice(8)), again));
  }

  Taken takeMessage(const Message& message) {
    Require(message.qos < 3 && (message.id == 0) == (message.qos == 0),
            "a message has what its QoS needs");
    const char decided = std::exchange(verdict, '\0');
    // What had the identifier before is known no more.
    const bool isRefused = decided == 'r' || decided == 'e';
    if (isRefused && message.qos == 2) m_kept.erase(message.id);
    const Taken taken = CarryOut(decided);
    if (taken == Taken::Not || message.qos < 2 || !m_isKnown) return taken;
    const std::string content(message.payload.substr(0, 5));
    const auto known = m_kept.find(message.id);
    Require(known == m_kept.end() || known->second != content,
            "a message is handed on once before its release");
    m_kept[message.id] = content;
    return taken;
  }

  void give(const std::string& bytes) {
    if (!client.Take(bytes)) client.Lose();
  }

  void giveMany(const std::string& packet) {
    std::string many;
    for (int i = 0; i < 8000; ++i) many += packet;
    give(many);
  }

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
  const char kind = input.Letter();
  if (kind == 'h') run<HonestWorld>(input);
  if (kind == 'x') run<HostileWorld>(input);
  return 0;
}
