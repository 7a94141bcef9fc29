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
#include <iterator>
#include <system_error>
#include <thread>

namespace {

constexpr std::chrono::seconds kPatience(30);
// Conditions are about other threads as well.
constexpr int kStepMs = 5;
constexpr std::uint8_t kFirstFailure = 0x80;

// A CONNACK, whatever comes behind it, with the reason "success".
bool isAcceptance(std::string_view bytes) {
  std::size_t end = 1;  // of the length
  while (end < bytes.size() && static_cast<std::uint8_t>(bytes[end]) >= 0x80) ++end;
  return bytes.size() > end + 2 && bytes[0] == 0x20 && bytes[end + 2] == 0;
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
    if (publication.properties.correlation == correlation) answers.push_back(publication.payload);
  }
  return answers;
}

void ScriptedBroker::AnswerAsUsual() {
  m_judge = nullptr;
  m_answerConnect = m_answerSubscription = m_answerUnsubscription = nullptr;
}

bool ScriptedBroker::ServeUntil(const std::function<bool()>& condition) {
  const Clock::time_point deadline = Clock::now() + kPatience;
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    serve(kStepMs);
  }
  return true;
}

void ScriptedBroker::ServeFor(std::chrono::milliseconds time) {
  const Clock::time_point deadline = Clock::now() + time;
  while (Clock::now() < deadline) serve(kStepMs);
}

std::string ScriptedBroker::Greeting(const std::string& properties) const {
  return broker::ConnAckWith(m_hasSession, 0, properties);
}

void ScriptedBroker::Deliver(const std::string& topic, const std::string& payload,
                             const std::string& properties) {
  m_deliveries[++m_lastId] = {topic, payload, properties};
  sendDeliveries();
}

void ScriptedBroker::AcknowledgeOldest() {
  const Publication publication = m_unacknowledged.front();
  m_unacknowledged.erase(m_unacknowledged.begin());
  take(publication);
  Send(broker::Ack(broker::kPubAck, publication.id));
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

bool ScriptedBroker::IsQuietFor(std::chrono::milliseconds time) const {
  pollfd input{m_client, POLLIN, 0};
  return m_reader.Begun() == 0 && poll(&input, 1, static_cast<int>(time.count())) == 0;
}

void ScriptedBroker::Close() {
  if (m_client < 0) return;
  close(std::exchange(m_client, -1));
  m_isAccepted = false;
  for (auto& [id, delivery] : m_deliveries) delivery.isInFlight = false;
  m_reader.Reset();
  m_unacknowledged.clear();
  m_connections.back().isOver = true;
}

void ScriptedBroker::Break() {
  shutdown(m_client, SHUT_WR);
  const linger none{1, 0};
  setsockopt(m_client, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

void ScriptedBroker::serve(int waitMs) {
  std::array<pollfd, 2> sockets{{{m_client, POLLIN, 0}, {m_listener, POLLIN, 0}}};
  if (poll(sockets.data(), sockets.size(), waitMs) <= 0) return;
  if (sockets[0].revents != 0) takeInput();
  if (sockets[1].revents == 0) return;
  // What the connection before had to tell comes first.
  while (takeInput()) {
  }
  accept();
}

void ScriptedBroker::accept() {
  Close();
  m_client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (m_client < 0) throw std::system_error(errno, std::generic_category(), "accept");
  const int on = 1;
  setsockopt(m_client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  m_connections.emplace_back();
}

bool ScriptedBroker::takeInput() {
  pollfd input{m_client, POLLIN, 0};
  if (m_client < 0 || poll(&input, 1, 0) <= 0) return false;
  std::array<char, 65536> buffer{};
  const ssize_t count = recv(m_client, buffer.data(), buffer.size(), 0);
  if (count <= 0) {
    Close();
    return false;
  }
  for (const Packet& packet : m_reader.Take({buffer.data(), static_cast<std::size_t>(count)})) {
    if (m_client >= 0) answer(packet);  // no answer before has closed
  }
  return true;
}

void ScriptedBroker::answer(const Packet& packet) {
  switch (packet.type) {
    case broker::kConnect:
      m_connections.back().connect = packet;
      return answerConnect();
    case broker::kPublish:
      return answerPublication(packet);
    case broker::kSubscribe:
      m_subscriptions.push_back(packet);
      m_subscriptions.back().qos = packet.options & 3U;
      return Send(m_answerSubscription ? m_answerSubscription(m_subscriptions.back())
                                       : broker::Subscribed(broker::kSubAck, packet.id,
                                                            {m_subscriptions.back().qos}));
    case broker::kUnsubscribe:
      return Send(m_answerUnsubscription ? m_answerUnsubscription(packet)
                                         : broker::Subscribed(broker::kUnsubAck, packet.id, {0}));
    case broker::kPingReq:
      m_connections.back().pings.push_back(Clock::now());
      return Send(broker::PingResp());
    case broker::kDisconnect:
      m_connections.back().disconnectReason = packet.reason;
      return;
    default:
      m_acknowledgements.push_back(packet);
      return onAcknowledgement(packet);
  }
}

void ScriptedBroker::answerConnect() {
  const std::size_t number = m_connections.size();
  const Packet connect = m_connections.back().connect;
  const std::string bytes = m_answerConnect ? m_answerConnect(connect) : Greeting();
  Send(bytes);
  if (!isAcceptance(bytes) || m_connections.size() != number || m_client < 0) return;
  m_hasSession = true;
  m_isAccepted = true;
  sendDeliveries();
}

void ScriptedBroker::answerPublication(const Packet& packet) {
  const Publication publication{packet, m_connections.size() - 1, Clock::now()};
  m_publications.push_back(publication);
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
  Send(broker::Ack(broker::kPubAck, publication.id, *reason));
}

void ScriptedBroker::onAcknowledgement(const Packet& acknowledgement) {
  const auto found = m_deliveries.find(acknowledgement.id);
  if (found == m_deliveries.end()) return;
  if (acknowledgement.type == broker::kPubRec && acknowledgement.reason < kFirstFailure) {
    found->second.isReleased = true;
    Send(broker::Ack(broker::kPubRel, acknowledgement.id));
  } else if (acknowledgement.type == broker::kPubRec ||
             (acknowledgement.type == broker::kPubComp && found->second.isReleased)) {
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
  std::size_t room = m_connections.back().connect.receiveMaximum;
  for (auto& [id, delivery] : m_deliveries) {
    if (room-- == 0) return;
    if (std::exchange(delivery.isInFlight, true)) continue;
    const unsigned firstByte = std::exchange(delivery.wasSent, true) ? 0x3C : 0x34;
    Send(delivery.isReleased ? broker::Ack(broker::kPubRel, id)
                             : broker::Publish(id, delivery.topic, delivery.payload,
                                               delivery.properties, firstByte));
  }
}
