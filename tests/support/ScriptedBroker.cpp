#include "ScriptedBroker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "MqttBytes.h"

namespace {

constexpr int kPatienceMs = 60'000;
constexpr std::chrono::seconds kServingPatience(30);
// Conditions are about other threads as well.
constexpr int kServingStepMs = 5;
constexpr std::uint8_t kFirstFailure = 0x80;

// Takes fields off the front of a client's packet. Throws std::out_of_range at its end.
class Fields {
 public:
  explicit Fields(std::string_view bytes) : m_bytes(bytes) {}

  std::size_t Number(std::size_t bytes) {
    std::size_t number = 0;
    for (const char byte : take(bytes)) number = number * 256 + static_cast<std::uint8_t>(byte);
    return number;
  }
  std::size_t Variable() {
    std::size_t number = 0;
    for (unsigned shift = 0;; shift += 7) {
      const std::size_t byte = Number(1);
      number |= (byte & 0x7F) << shift;
      if (byte < 0x80) return number;
    }
  }
  std::string Text() { return std::string(take(Number(2))); }
  Fields Part(std::size_t bytes) { return Fields(take(bytes)); }
  std::string Rest() { return std::string(take(m_bytes.size())); }
  bool AtEnd() const { return m_bytes.empty(); }

 private:
  std::string_view take(std::size_t bytes) {
    if (bytes > m_bytes.size()) throw std::out_of_range("the client's packet is too short");
    const std::string_view taken = m_bytes.substr(0, bytes);
    m_bytes.remove_prefix(bytes);
    return taken;
  }

  std::string_view m_bytes;
};

// A CONNACK, whatever comes behind it, with the reason "success".
bool isAcceptance(std::string_view bytes) {
  constexpr std::size_t kConnAck = 0x20;
  try {
    Fields fields(bytes);
    if (fields.Number(1) != kConnAck) return false;
    fields.Variable();
    fields.Number(1);
    return fields.Number(1) == 0;
  } catch (const std::out_of_range&) {
    return false;
  }
}

std::size_t numberAt(const std::string& text, std::size_t index) {
  return Fields(std::string_view(text).substr(index)).Number(2);
}

}  // namespace

ScriptedBroker::ScriptedBroker() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (bind(m_listener, generic, size) != 0 || listen(m_listener, SOMAXCONN) != 0 ||
      getsockname(m_listener, generic, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "listen");
  }
  m_port = ntohs(address.sin_port);
}

ScriptedBroker::~ScriptedBroker() {
  Close();
  close(m_listener);
}

std::vector<ScriptedBroker::Publication> ScriptedBroker::PublicationsOn(
    const std::string& topic) const {
  std::vector<Publication> found;
  std::copy_if(m_publications.begin(), m_publications.end(), std::back_inserter(found),
               [&](const Publication& publication) { return publication.topic == topic; });
  return found;
}

std::string ScriptedBroker::RetainedAt(const std::string& topic) const {
  const auto found = m_retained.find(topic);
  return found == m_retained.end() ? std::string() : found->second;
}

std::vector<std::string> ScriptedBroker::AnswersTo(const std::string& correlation) const {
  std::vector<std::string> answers;
  for (const Publication& publication : m_taken) {
    if (publication.correlation == correlation) answers.push_back(publication.payload);
  }
  return answers;
}

// --- Serving

bool ScriptedBroker::ServeUntil(const std::function<bool()>& condition) {
  const Clock::time_point deadline = Clock::now() + kServingPatience;
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    serve(kServingStepMs);
  }
  return true;
}

void ScriptedBroker::ServeFor(std::chrono::milliseconds time) {
  const Clock::time_point deadline = Clock::now() + time;
  while (Clock::now() < deadline) serve(kServingStepMs);
}

std::string ScriptedBroker::Greeting(std::string_view properties) const {
  return MqttBytes::ConnAck(m_hasSession, 0, properties);
}

void ScriptedBroker::Deliver(const std::string& topic, const std::string& payload,
                             std::string_view properties) {
  m_deliveries[++m_lastId] = {topic, payload, std::string(properties)};
  sendDeliveries();
}

void ScriptedBroker::AcknowledgeOldest(std::uint8_t reason) {
  const Publication publication = m_unacknowledged.front();
  m_unacknowledged.erase(m_unacknowledged.begin());
  if (reason < kFirstFailure) take(publication);
  Send(MqttBytes::Ack(0x40, publication.id, reason));
}

void ScriptedBroker::serve(int waitMs) {
  std::array<pollfd, 2> sockets{{{m_client, POLLIN, 0}, {m_listener, POLLIN, 0}}};
  if (poll(sockets.data(), sockets.size(), waitMs) <= 0) return;
  if (sockets[0].revents != 0) fill(0);
  while (const std::optional<Packet> packet = takePacket()) answer(*packet);
  if (sockets[1].revents == 0) return;
  // What the connection before had to tell comes first.
  while (m_client >= 0 && fill(0)) {
    while (const std::optional<Packet> packet = takePacket()) answer(*packet);
  }
  accept();
}

void ScriptedBroker::answer(const Packet& packet) {
  switch (packet.type) {
    case Type::Connect:
      return answerConnect();
    case Type::Publish:
      return answerPublication();
    case Type::PubRec:
    case Type::PubComp:
      return onAcknowledgement(m_acknowledgements.back());
    case Type::Subscribe: {
      const Subscription subscription = m_subscriptions.back();
      return Send(m_answerSubscription
                      ? m_answerSubscription(subscription)
                      : MqttBytes::SubscriptionAck(0x90, subscription.id, subscription.qos));
    }
    case Type::Unsubscribe: {
      const Subscription subscription = m_unsubscriptions.back();
      return Send(m_answerUnsubscription ? m_answerUnsubscription(subscription)
                                         : MqttBytes::SubscriptionAck(0xB0, subscription.id, 0));
    }
    case Type::Ping:
      return Send(MqttBytes::Packet(0xD0, {}));
    default:
      return;
  }
}

void ScriptedBroker::answerConnect() {
  const std::size_t number = m_connections.size();
  const Connection connection = m_connections.back();
  const std::string bytes = m_answerConnect ? m_answerConnect(connection) : Greeting();
  Send(bytes);
  if (!isAcceptance(bytes) || m_connections.size() != number || m_client < 0) return;
  m_hasSession = true;
  m_isAccepted = true;
  sendDeliveries();
}

void ScriptedBroker::answerPublication() {
  const Publication publication = m_publications.back();
  if (publication.qos > 0) m_unacknowledged.push_back(publication);
  const std::optional<std::uint8_t> reason =
      m_judge ? m_judge(publication) : std::optional<std::uint8_t>(0);
  if (!reason) return;
  if (publication.qos == 0) return take(publication);
  const auto found = std::find_if(m_unacknowledged.begin(), m_unacknowledged.end(),
                                  [&](const Publication& p) { return p.id == publication.id; });
  if (found == m_unacknowledged.end()) return;  // the judge has seen to it, or has closed
  m_unacknowledged.erase(found);
  if (*reason < kFirstFailure) take(publication);
  Send(MqttBytes::Ack(0x40, publication.id, *reason));
}

void ScriptedBroker::onAcknowledgement(const Acknowledgement& acknowledgement) {
  const auto found = m_deliveries.find(acknowledgement.id);
  if (found == m_deliveries.end()) return;
  if (acknowledgement.type == Type::PubRec && acknowledgement.reason < kFirstFailure) {
    found->second.isReleased = true;
    Send(MqttBytes::Ack(0x62, acknowledgement.id));
  } else if (acknowledgement.type == Type::PubRec || found->second.isReleased) {
    m_deliveries.erase(found);
    sendDeliveries();
  }
}

void ScriptedBroker::take(const Publication& publication) {
  m_taken.push_back(publication);
  if (!publication.retain) return;
  if (publication.payload.empty()) {
    m_retained.erase(publication.topic);
  } else {
    m_retained[publication.topic] = publication.payload;
  }
}

void ScriptedBroker::sendDeliveries() {
  if (!m_isAccepted) return;
  std::size_t room = m_connections.back().receiveMaximum;
  for (auto& [id, delivery] : m_deliveries) {
    if (room-- == 0) return;
    if (!delivery.isUnderWay) send(id, delivery);
    delivery.isUnderWay = true;
    delivery.wasSent = true;
  }
}

void ScriptedBroker::send(std::uint16_t id, const Delivery& delivery) const {
  if (delivery.isReleased) return Send(MqttBytes::Ack(0x62, id));
  const unsigned header = delivery.wasSent ? 0x3C : 0x34;
  Send(MqttBytes::Publish(id, delivery.topic, delivery.payload, delivery.properties, header));
}

// --- Packet by packet

ScriptedBroker::Packet ScriptedBroker::Accept() {
  Close();
  pollfd input{m_listener, POLLIN, 0};
  if (poll(&input, 1, kPatienceMs) <= 0) throw std::runtime_error("nobody connects");
  accept();
  return Receive(Type::Connect);
}

void ScriptedBroker::AcceptSession(bool present) {
  Accept();
  ConnAck(present);
}

void ScriptedBroker::Close() {
  if (m_client < 0) return;
  close(m_client);
  noteEnd();
}

void ScriptedBroker::Break() {
  shutdown(m_client, SHUT_WR);
  const linger none{1, 0};
  setsockopt(m_client, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

ScriptedBroker::Packet ScriptedBroker::Receive(Type type) {
  while (true) {
    Packet packet = receive();
    if (packet.type == Type::Publish && type != Type::Publish) PubAck(packet);
    if (packet.type == Type::Subscribe && !m_ignoresSubscriptions) {
      Send(MqttBytes::SubscriptionAck(0x90, numberAt(packet.body, 0), 2));
    }
    if (packet.type == type || packet.type == Type::Closed) return packet;
  }
}

bool ScriptedBroker::ReceiveAbout(Type type, std::uint16_t id) {
  const Packet packet = Receive(type);
  return packet.type == type && numberAt(packet.body, 0) == id;
}

void ScriptedBroker::Send(std::string_view bytes) const {
  while (!bytes.empty() && m_client >= 0) {
    const ssize_t count = ::send(m_client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;  // the client has gone
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void ScriptedBroker::SendSlowly(std::string_view bytes, std::chrono::milliseconds pause) const {
  for (const char byte : bytes) {
    Send(std::string_view(&byte, 1));
    std::this_thread::sleep_for(pause);
  }
}

void ScriptedBroker::ConnAck(bool sessionPresent, std::uint8_t reason) {
  Send(MqttBytes::ConnAck(sessionPresent, reason));
}

void ScriptedBroker::Publish(std::uint16_t id, const std::string& topic, const std::string& payload,
                             bool again) {
  Send(MqttBytes::Publish(id, topic, payload, {}, again ? 0x3C : 0x34));
}

void ScriptedBroker::Request(std::uint16_t id, const std::string& topic, const std::string& payload,
                             const std::string& responseTopic) {
  Send(MqttBytes::Publish(id, topic, payload, MqttBytes::ResponseTopic(responseTopic)));
}

void ScriptedBroker::PubRel(std::uint16_t id) {
  Send(MqttBytes::Ack(0x62, id));
}

void ScriptedBroker::PubAck(const Packet& publication) {
  const std::size_t id = numberAt(publication.body, 2 + numberAt(publication.body, 0));
  Send(MqttBytes::Ack(0x40, id));
}

bool ScriptedBroker::IsQuietFor(std::chrono::milliseconds time) const {
  pollfd input{m_client, POLLIN, 0};
  return m_input.empty() && poll(&input, 1, static_cast<int>(time.count())) == 0;
}

void ScriptedBroker::accept() {
  Close();
  m_client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (m_client < 0) throw std::system_error(errno, std::generic_category(), "accept");
  const int on = 1;
  setsockopt(m_client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Connection connection;
  connection.begin = Clock::now();
  m_connections.push_back(std::move(connection));
}

bool ScriptedBroker::fill(int waitMs) {
  pollfd input{m_client, POLLIN, 0};
  if (poll(&input, 1, waitMs) <= 0) return false;
  std::array<char, 65536> buffer{};
  const ssize_t count = recv(m_client, buffer.data(), buffer.size(), 0);
  if (count > 0) {
    m_input.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
  }
  close(m_client);
  noteEnd();
  return false;
}

std::optional<ScriptedBroker::Packet> ScriptedBroker::takePacket() {
  std::size_t size = 0;
  std::size_t head = 1;
  for (unsigned shift = 0;; shift += 7) {
    if (head >= m_input.size()) return std::nullopt;
    const auto byte = static_cast<std::uint8_t>(m_input[head++]);
    size |= std::size_t{byte & 0x7FU} << shift;
    if ((byte & 0x80) == 0) break;
  }
  if (m_input.size() < head + size) return std::nullopt;
  const auto first = static_cast<std::uint8_t>(m_input[0]);
  Packet packet{static_cast<Type>(first & 0xF0), static_cast<std::uint8_t>(first & 0x0F),
                m_input.substr(head, size)};
  m_input.erase(0, head + size);
  note(packet, head + size);
  return packet;
}

ScriptedBroker::Packet ScriptedBroker::receive() {
  while (true) {
    if (std::optional<Packet> packet = takePacket()) return std::move(*packet);
    if (m_client >= 0 && !fill(kPatienceMs) && m_client >= 0) {
      throw std::runtime_error("nothing comes");
    }
    if (m_client < 0) return {Type::Closed, 0, {}};
  }
}

void ScriptedBroker::note(const Packet& packet, std::size_t bytes) {
  Fields fields(packet.body);
  switch (packet.type) {
    case Type::Connect:
      return noteConnect(packet.body);
    case Type::Publish:
      return notePublication(packet, bytes);
    case Type::PubAck:
    case Type::PubRec:
    case Type::PubRel:
    case Type::PubComp: {
      const auto id = static_cast<std::uint16_t>(fields.Number(2));
      const auto reason = static_cast<std::uint8_t>(fields.AtEnd() ? 0 : fields.Number(1));
      m_acknowledgements.push_back({packet.type, id, reason});
      return;
    }
    case Type::Subscribe:
    case Type::Unsubscribe: {
      const auto id = static_cast<std::uint16_t>(fields.Number(2));
      fields.Part(fields.Variable());
      std::string filter = fields.Text();
      if (packet.type == Type::Subscribe) {
        const auto qos = static_cast<std::uint8_t>(fields.Number(1) & 3);
        m_subscriptions.push_back({id, std::move(filter), qos});
      } else {
        m_unsubscriptions.push_back({id, std::move(filter), 0});
      }
      return;
    }
    case Type::Ping:
      m_connections.back().pings.push_back(Clock::now());
      return;
    case Type::Disconnect:
      m_connections.back().disconnectReason =
          static_cast<std::uint8_t>(fields.AtEnd() ? 0 : fields.Number(1));
      return;
    default:
      return;
  }
}

void ScriptedBroker::noteConnect(const std::string& body) {
  constexpr unsigned kHasWill = 0x04;
  constexpr unsigned kWillRetain = 0x20;
  Fields fields(body);
  Connection& connection = m_connections.back();
  fields.Text();  // the protocol's name
  fields.Number(1);
  const auto flags = static_cast<unsigned>(fields.Number(1));
  connection.keepAliveSeconds = static_cast<std::uint16_t>(fields.Number(2));
  Fields properties = fields.Part(fields.Variable());
  while (!properties.AtEnd()) {
    const std::size_t property = properties.Number(1);
    if (property == 0x21) {
      connection.receiveMaximum = properties.Number(2);
    } else if (property == 0x22) {
      properties.Number(2);
    } else if (property == 0x11 || property == 0x27) {
      properties.Number(4);
    } else if (property == 0x17 || property == 0x19) {
      properties.Number(1);
    } else {
      throw std::runtime_error("an unexpected property of a CONNECT");
    }
  }
  connection.clientId = fields.Text();
  if ((flags & kHasWill) == 0) return;
  fields.Part(fields.Variable());
  const std::string topic = fields.Text();
  connection.will = Will{topic, fields.Text(), static_cast<std::uint8_t>((flags >> 3) & 3),
                         (flags & kWillRetain) != 0};
}

void ScriptedBroker::notePublication(const Packet& packet, std::size_t bytes) {
  Fields fields(packet.body);
  Publication publication{};
  publication.qos = static_cast<std::uint8_t>((packet.flags >> 1) & 3);
  publication.retain = (packet.flags & 1) != 0;
  publication.again = (packet.flags & 8) != 0;
  publication.topic = fields.Text();
  if (publication.qos > 0) publication.id = static_cast<std::uint16_t>(fields.Number(2));
  Fields properties = fields.Part(fields.Variable());
  while (!properties.AtEnd()) {
    const std::size_t property = properties.Number(1);
    if (property == 0x09) {
      publication.correlation = properties.Text();
    } else if (property == 0x23) {
      publication.hasAlias = true;
      properties.Number(2);
    } else {
      throw std::runtime_error("an unexpected property of a publication");
    }
  }
  publication.payload = fields.Rest();
  publication.packetBytes = bytes;
  publication.connection = m_connections.size() - 1;
  publication.time = Clock::now();
  m_publications.push_back(std::move(publication));
}

void ScriptedBroker::noteEnd() {
  m_client = -1;
  m_isAccepted = false;
  for (auto& [id, delivery] : m_deliveries) delivery.isUnderWay = false;
  m_input.clear();
  m_unacknowledged.clear();
  m_connections.back().isOver = true;
}
