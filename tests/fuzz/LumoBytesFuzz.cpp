// The whole device service, between a plug-in on its C interface and a broker that sends bytes. The
// first line is the plug-in's habits, see LumoPlugIn. The steps follow, a letter each, some with a
// choice or fields to the end of the line. The broker:
//   CNM          CONNACK: flag N (of 4), reason or property M (of 10)
//   gQF, sQF, cQF RESPONSE CORRELATION PAYLOAD
//                a get, a set, a cancel at QoS Q (of 3) with a new identifier; flags F (of 4): 1
//                retained, 2 DUP. RESPONSE and CORRELATION may be "-": none
//   vQ PROPERTY PAYLOAD   a retained value of the property
//   t PAYLOAD    a status
//   m, M         the last of these again; M: with DUP
//   RTNM         PUBACK, PUBREC, PUBREL or PUBCOMP (T) with identifier N and reason M (of 8)
//   SN, UN       SUBACK, UNSUBACK
//   G, E         PINGRESP, DISCONNECT
//   X LINE       bytes
//   fN           what the last step sent, 2 to the power of N (of 12) times
//   a, nM        acknowledges the oldest packet of the service; n: with reason M (of 8)
//   h            behaves: acknowledges all there is, until there is nothing more
//   y            waits until the service has taken what was sent
//   W            the same, and until the plug-in was called for all of it
//   r, e         reads nothing from now on; reads again
//   d, D, q      cuts the connection, resets it, or only ends the own half of it
//   w            waits for the next connection, and cuts this one for it
//   Z            does nothing more at all, while the service is destroyed
// The plug-in:
//   pN NAME      registers a property with type N (of 8)
//   u NAME       unregisters it
//   oN NAME VALUE  notifies a value of type N (of 5)
//   AN CODE      answers the Nth request that it keeps
//
// At the end the broker behaves, over a new connection if its bytes were any, and the service is
// destroyed.
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BrokerPackets.h"
#include "ClientJudge.h"
#include "Input.h"
#include "LumoPlugIn.h"
#include "MqttPackets.h"
#include "Require.h"
#include "SocketBroker.h"
#include "api/Library.h"
#include "link/Topics.h"

// What is in use on the heap, where there is a sanitizer to know it.
extern "C" [[gnu::weak]] std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using namespace fuzz;
using broker::ClientPacket;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxSteps = 200;
constexpr std::size_t kMaxSentBytes = std::size_t{1} << 20U;
// More than what the service keeps at most for such an input, and less than what it would keep if
// it kept everything again and again.
constexpr std::size_t kMaxHeapBytes = std::size_t{64} << 20U;
constexpr milliseconds kPatience{20'000};
// 2 s, half a second to write the last packets, and time of a busy machine.
constexpr milliseconds kMaxDestroyTime{2500 + 3000};
// A destruction that takes its 2 s comes first in a process, and seldom after that.
constexpr unsigned kUnhelpfulEvery = 2000;
// No message has it but one of the input's bytes.
constexpr std::uint16_t kProbeId = 65535;

std::size_t heapBytes() {
  return __sanitizer_get_current_allocated_bytes == nullptr
             ? 0
             : __sanitizer_get_current_allocated_bytes();
}

// The broker of all inputs.
SocketBroker& theSocket() {
  static SocketBroker socket;
  return socket;
}

class World {
 public:
  explicit World(const std::string& habits) : m_socket(theSocket()), m_judge(m_topics) {
    m_socket.RefuseWaiting();
    m_heapBytes = heapBytes();
    m_plugIn.Create(habits);
    accept();
  }

  // False: the broker does nothing more.
  bool Step(Input& input) {
    static const std::vector<std::uint8_t> kReasons = {0, 0x10, 0x80, 0x87, 0x92, 0x95, 0x97, 0x99};
    static const Steps<World> kSteps = {
        // The plug-in.
        {'p',
         [](auto& world, Input& in) {
           const auto type = static_cast<int>(in.Choice(8));
           in.Field();
           world.m_plugIn.Register(in.Line(), type);
         }},
        {'u',
         [](auto& world, Input& in) {
           in.Field();
           world.m_plugIn.Unregister(in.Line());
         }},
        {'o',
         [](auto& world, Input& in) {
           const std::size_t type = in.Choice(5);
           in.Field();
           const std::string name = in.Field();
           world.m_plugIn.Notify(name, type, in.Line());
         }},
        {'A',
         [](auto& world, Input& in) {
           const std::size_t number = in.Choice(64);
           in.Field();
           const int code = in.Number();
           in.Line();
           world.m_plugIn.Answer(number, code);
         }},
        // The connection.
        {'y', [](auto& world, Input&) { world.probe(); }},
        {'W', [](auto& world, Input&) { world.mark(); }},
        {'h', [](auto& world, Input&) { world.behave(); }},
        {'r', [](auto& world, Input&) { world.m_isMute = true; }},
        {'e', [](auto& world, Input&) { world.m_isMute = false; }},
        {'d', [](auto& world, Input&) { world.m_socket.Drop(); }},
        {'D', [](auto& world, Input&) { world.m_socket.Drop(true); }},
        {'q', [](auto& world, Input&) { world.m_socket.EndSending(); }},
        {'w',
         [](auto& world, Input&) {
           world.m_socket.Drop();
           world.accept();
         }},
        // What the broker sends.
        {'a', [](auto& world, Input&) { world.acknowledgeOldest(0); }},
        {'n', [](auto& world,
                 Input& in) { world.acknowledgeOldest(kReasons[in.Choice(kReasons.size())]); }},
        {'C', [](auto& world, Input& in) { world.sendConnAck(in); }},
        {'g', [](auto& world, Input& in) { world.sendRequest(world.m_topics.Get(), in); }},
        {'s', [](auto& world, Input& in) { world.sendRequest(world.m_topics.Set(), in); }},
        {'c', [](auto& world, Input& in) { world.sendRequest(world.m_topics.Cancel(), in); }},
        {'v',
         [](auto& world, Input& in) {
           broker::Message message;
           message.qos = static_cast<std::uint8_t>(in.Choice(3));
           in.Field();
           message.topic = world.m_topics.Value(in.Field());
           message.retain = true;
           world.sendMessage(message, in);
         }},
        {'t',
         [](auto& world, Input& in) {
           broker::Message message;
           message.qos = 0;
           in.Field();
           message.topic = world.m_topics.Status();
           world.sendMessage(message, in);
         }},
        {'m', [](auto& world, Input&) { world.repeatMessage(false); }},
        {'M', [](auto& world, Input&) { world.repeatMessage(true); }},
        {'X',
         [](auto& world, Input& in) {
           world.m_isAny = true;
           world.send(in.Line());
         }},
        {'f', [](auto& world, Input& in) {
           const std::string bytes = world.m_lastBytes;
           for (std::size_t count = std::size_t{1} << in.Choice(12); count > 0; --count) {
             world.send(bytes);
           }
         }}};
    const char letter = input.Letter();
    if (letter == 'Z') return false;
    if (const auto packet = TakePacket(letter, input, kReasons)) {
      send(packet->bytes);
    } else {
      Perform(kSteps, letter, *this, input);
    }
    if (!m_isMute) receive();
    return true;
  }

  void Finish(bool isHelpful) {
    Require(heapBytes() < m_heapBytes + kMaxHeapBytes, "memory is bounded");
    destroy(isHelpful);
    // Waits for threads that still end: what they free then would be taken for a leak.
    Lumo::Library::Get().Shutdown();
    m_socket.RefuseWaiting();
    m_judge.CheckHandedOn(m_plugIn.End());
  }

 private:
  void acknowledgeOldest(std::uint8_t reason) {
    if (m_pending.empty()) return;
    const ClientPacket packet = m_pending.front();
    m_pending.pop_front();
    acknowledge(packet, reason);
  }

  void acknowledgeAll() {
    while (!m_pending.empty()) acknowledgeOldest(0);
  }

  void repeatMessage(bool again) {
    if (!m_lastMessage) return;
    m_lastMessage->again = again && m_lastMessage->qos > 0;
    send(broker::Publish(*m_lastMessage));
  }

  void sendConnAck(Input& input) {
    std::size_t flags = 0;
    broker::Acceptance acceptance = TakeAcceptance(input, 10, flags);
    if ((flags & 2U) != 0) acceptance.keepAlive = 1;
    const bool isAsked = !m_pending.empty() && m_pending.front().type == broker::kConnect;
    if (isAsked) m_pending.pop_front();
    const std::string bytes = broker::ConnAck(acceptance);
    if (maySend(bytes)) m_judge.NoteAcceptance(acceptance);
    send(bytes);
  }

  void sendRequest(const std::string& topic, Input& input) {
    const auto takeOptional = [&input] {
      std::string field = input.Field();
      return field == "-" ? std::string() : field;
    };
    broker::Message message;
    message.qos = static_cast<std::uint8_t>(input.Choice(3));
    const std::size_t flags = input.Choice(4);
    input.Field();
    message.retain = (flags & 1U) != 0;
    message.again = (flags & 2U) != 0 && message.qos > 0;
    message.topic = topic;
    message.responseTopic = takeOptional();
    message.correlation = takeOptional();
    sendMessage(message, input);
  }

  // With the payload and an identifier.
  void sendMessage(broker::Message& message, Input& input) {
    message.payload = input.Line();
    if (message.qos > 0) message.id = ++m_lastId;
    m_lastMessage = message;
    send(broker::Publish(message));
  }

  bool maySend(const std::string& bytes) const {
    return m_socket.MaySend() && m_sentBytes + bytes.size() <= kMaxSentBytes;
  }

  void send(const std::string& bytes) {
    m_lastBytes = bytes;
    if (!maySend(bytes)) return;
    m_sentBytes += bytes.size();
    reply(bytes);
  }

  // Whatever was sent already.
  void reply(const std::string& bytes) {
    m_judge.NoteSent(bytes);
    m_socket.Send(bytes);
  }

  void accept() {
    m_socket.Accept();
    beginConnection();
    while (receive() && m_pending.empty()) {
      Require(m_socket.Wait(kPatience), "a service begins with a packet");
    }
  }

  void beginConnection() {
    m_judge.Begin();
    m_pending.clear();
    m_probes = 0;
    m_isAny = false;
  }

  // False: the service has closed the connection.
  bool receive() {
    if (!m_socket.HasConnection()) return false;
    const std::optional<std::string> bytes = m_socket.Receive();
    if (!bytes) {
      m_socket.Drop();
      return false;
    }
    for (const ClientPacket& packet : m_judge.NoteReceived(*bytes)) {
      if (packet.type == broker::kPubComp && packet.id == kProbeId) {
        ++m_probes;
      } else {
        m_pending.push_back(packet);
      }
    }
    return true;
  }

  // The service answers the release of no message, and that after all before it; or it has closed
  // the connection.
  void probe() {
    m_isMute = false;
    if (!m_socket.MaySend() || !m_judge.IsBetweenPackets()) return;
    const std::size_t probes = m_probes;
    reply(broker::Ack(broker::kPubRel, kProbeId));
    while (receive() && m_probes == probes) {
      Require(m_socket.Wait(kPatience), "a service answers, or closes the connection");
    }
  }

  void mark() {
    probe();
    if (!m_socket.MaySend() || !m_judge.IsBetweenPackets()) return;
    broker::Message message;
    message.qos = 0;
    message.topic = m_topics.Get();
    message.payload = std::string("[\"") + LumoPlugIn::kMarker + "\"]";
    reply(broker::Publish(message));
    m_plugIn.WaitForMarkers(++m_markers);
    probe();
  }

  void behave() {
    constexpr int kMaxRounds = 8;
    for (int round = 0; round < kMaxRounds; ++round) {
      acknowledgeAll();
      probe();
      if (!m_socket.HasConnection() || m_pending.empty()) return;
    }
  }

  void acknowledge(const ClientPacket& packet, std::uint8_t reason) {
    const std::uint8_t failure = reason >= 0x80 ? reason : std::uint8_t{0};
    switch (packet.type) {
      case broker::kConnect: {
        broker::Acceptance acceptance;
        acceptance.reason = failure;
        m_judge.NoteAcceptance(acceptance);
        reply(broker::ConnAck(acceptance));
        break;
      }
      case broker::kPublish:
        if (packet.qos > 0) reply(broker::Ack(broker::kPubAck, packet.id, reason));
        break;
      case broker::kPubRec:
        reply(broker::Ack(broker::kPubRel, packet.id));
        break;
      case broker::kPubRel:
        reply(broker::Ack(broker::kPubComp, packet.id));
        break;
      case broker::kSubscribe:
        reply(broker::Subscribed(broker::kSubAck, packet.id,
                                 {failure != 0 ? failure : std::uint8_t{2}}));
        break;
      case broker::kUnsubscribe:
        reply(broker::Subscribed(broker::kUnsubAck, packet.id, {0}));
        break;
      case broker::kPingReq:
        reply(broker::PingResp());
        break;
      default:
        break;
    }
  }

  void destroy(bool isHelpful) {
    const int ended = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Require(ended >= 0, "there is a descriptor");
    const Clock::time_point begin = Clock::now();
    std::thread destroyer([this, ended] {
      m_plugIn.Destroy();
      const std::uint64_t one = 1;
      Require(write(ended, &one, sizeof one) == sizeof one, "an event can be told");
    });
    if (isHelpful) serveUntil(ended);
    destroyer.join();
    close(ended);
    Require(Clock::now() - begin < kMaxDestroyTime, "a service is destroyed within its time");
  }

  void serveUntil(int ended) {
    // It can only be understood when it has sent nothing but packets.
    if (m_isAny || !m_judge.IsBetweenPackets() || !m_socket.MaySend()) m_socket.Drop();
    acknowledgeAll();
    const Clock::time_point limit = Clock::now() + kPatience;
    while (Clock::now() < limit) {
      if (m_socket.HasConnection()) {
        if (receive()) acknowledgeAll();
      } else if (m_socket.AcceptWaiting()) {
        beginConnection();
        continue;
      }
      m_socket.Wait(kPatience, ended);
      std::uint64_t count = 0;
      if (read(ended, &count, sizeof count) > 0) return;
    }
  }

  LumoPlugIn& m_plugIn = LumoPlugIn::Get();
  const Lumo::Topics m_topics{"tv", "channel"};
  SocketBroker& m_socket;
  ClientJudge m_judge;
  std::deque<ClientPacket> m_pending;  // that were received and not acknowledged
  std::optional<broker::Message> m_lastMessage;
  std::string m_lastBytes;
  std::uint16_t m_lastId = 0;
  std::size_t m_sentBytes = 0;
  std::size_t m_probes = 0;  // answered
  std::size_t m_markers = 0;
  std::size_t m_heapBytes = 0;
  bool m_isMute = false;
  bool m_isAny = false;  // bytes of the input's were sent
};

// Before there are threads.
void setEnvironment() {
  static const bool isSet = [] {
    const std::string url = "mqtt://127.0.0.1:" + std::to_string(theSocket().Port());
    return setenv("LUMO_BROKER", url.c_str(), 1) == 0 && setenv("LUMO_THING_ID", "tv", 1) == 0;
  }();
  Require(isSet, "variables can be set");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  setEnvironment();
  Input input(data, size);
  World world(input.Line());
  bool goesOn = true;
  for (std::size_t step = 0; step < kMaxSteps && goesOn && !input.AtEnd(); ++step) {
    goesOn = world.Step(input);
  }
  static unsigned sinceUnhelpful = kUnhelpfulEvery;
  const bool isHelpful = goesOn || ++sinceUnhelpful < kUnhelpfulEvery;
  if (!isHelpful) sinceUnhelpful = 0;
  world.Finish(isHelpful);
  return 0;
}
