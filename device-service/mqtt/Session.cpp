#include "mqtt/Session.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "mqtt/Codec.h"
#include "mqtt/Reasons.h"

namespace Lumo::Mqtt {
namespace {

using std::chrono::seconds;

// Small packets share a write up to this.
constexpr std::size_t kOutputBytes = 16384;
// With more unread acknowledgements the connection ends.
constexpr std::size_t kMaxControlBytes = 65536;
// Messages that are not acknowledged; at QoS 2 there is one for each identifier at most.
constexpr std::size_t kMaxOwed = 65535;
// An arrival ends with the message's identifier, so that a message is found without a search.
constexpr unsigned kIdBits = 16;
// However short the keep alive is, a network may be slow.
constexpr seconds kShortestSilence{4};

void mix(std::size_t& digest, std::string_view text) {
  const std::size_t hash = std::hash<std::string_view>{}(text) + text.size();
  digest ^= hash + 0x9E3779B9U + (digest << 6) + (digest >> 2);
}

// A digest of what a broker does not change when it repeats a message.
std::size_t digestOf(const Mqtt::Publish& message) {
  std::size_t digest = message.qos;
  mix(digest, message.topic);
  mix(digest, message.responseTopic);
  mix(digest, message.correlation);
  mix(digest, message.payload);
  return digest;
}

void clearRetain(std::string& publish) {
  publish.front() = static_cast<char>(static_cast<std::uint8_t>(publish.front()) & 0xFEU);
}

std::string describe(const char* what, std::uint8_t reason, const std::string& text,
                     const std::string& reference) {
  std::string line = std::string(what) + ": " + DescribeReason(reason);
  if (!text.empty()) line += " (" + text + ")";
  if (!reference.empty()) line += "; it names another server: " + reference;
  return line;
}

}  // namespace

Session::Session(Settings settings, Listener& listener)
    : m_settings(std::move(settings)),
      m_listener(listener),
      m_clientId(m_settings.clientId),
      m_reader(m_settings.maxPacketBytes) {}

void Session::Begin(Clock::time_point now) {
  Lose();
  m_reader.Reset();
  m_limits = ConnAck();
  m_state = State::Connecting;
  m_lastSent = now;
  m_lastLife = now;
  Connect connect;
  connect.clientId = m_clientId;
  connect.user = m_settings.user;
  connect.password = m_settings.password;
  connect.keepAliveSeconds = static_cast<std::uint16_t>(m_settings.keepAlive.count());
  connect.sessionExpirySeconds = m_settings.sessionExpirySeconds;
  connect.receiveMaximum = m_settings.receiveMaximum;
  connect.willTopic = m_settings.willTopic;
  connect.will = m_settings.will;
  connect.willLabels = m_settings.willLabels;
  connect.willQos = m_willQos;
  connect.willRetain = m_willRetain;
  m_control = EncodeConnect(connect);
}

void Session::Lose() {
  m_state = State::Closed;
  m_end.reset();
  m_isLeaving = false;
  m_control.clear();
  m_output.clear();
  m_written = 0;
  m_pending.clear();
  m_pings = 0;
  m_isAnswerOwed = false;
  m_isHeldUp = false;
  m_pingSerial.reset();
  // A message whose acknowledgement only waited for its turn is acknowledged when the broker
  // repeats it.
  for (const Owed& owed : std::exchange(m_owed, {})) {
    const auto found = m_incoming.find(owed.id);
    const bool isDone = owed.mayBeAcknowledged && owed.qos == 2 && found != m_incoming.end();
    if (isDone) found->second.stage = Incoming::Stage::Acknowledged;
  }
  m_sentUnacknowledged = 0;
  for (Outgoing& publication : m_outgoing) publication.serial = 0;
  for (auto it = m_incoming.begin(); it != m_incoming.end();) {
    const auto current = it++;
    const auto& [id, message] = *current;
    if (message.stage != Incoming::Stage::Completed) continue;
    m_unconfirmed[id] = {message.arrival, message.digest};
    m_mayBeUnconfirmed = true;
    m_incoming.erase(current);
  }
  // At QoS 0 nothing acknowledges them.
  const std::vector<Token> atQos0 = std::exchange(m_sentAtQos0, {});
  for (auto it = atQos0.rbegin(); it != atQos0.rend(); ++it) m_listener.OnForgotten(*it);
}

void Session::TakeBytes(std::string_view bytes, Clock::time_point now) {
  m_lastLife = now;
  takePackets(bytes, now);
  m_isAnswerOwed = isAwaitingBroker();
}

void Session::takePackets(std::string_view bytes, Clock::time_point now) {
  while (!bytes.empty() && !m_end && m_state != State::Closed) {
    const PacketReader::Result result = m_reader.Read(bytes);
    if (result == PacketReader::Result::NeedsMore) return;
    if (result == PacketReader::Result::Fault) {
      fail(m_reader.GetFault().reason, m_reader.GetFault().what);
      return;
    }
    const auto decoded = Decode(m_reader.FirstByte(), m_reader.Body(), m_reader.IsCut());
    if (const auto* fault = std::get_if<Fault>(&decoded)) {
      fail(fault->reason, fault->what);
      return;
    }
    const Packet& packet = std::get<Packet>(decoded);
    const bool isExpected =
        m_state == State::Established || std::holds_alternative<ConnAck>(packet);
    if (!isExpected) {
      fail(kReasonProtocolError, "a packet before the CONNACK");
      return;
    }
    std::visit([this, now](const auto& content) { handle(content, now); }, packet);
  }
}

void Session::handle(const ConnAck& packet, Clock::time_point now) {
  if (m_state == State::Established) {
    fail(kReasonProtocolError, "a second CONNACK");
    return;
  }
  if (packet.reason >= kFirstFailure) {
    noteRefusal(packet);
    return;
  }
  m_limits = packet;
  if (packet.assignedClientId) m_clientId = *packet.assignedClientId;
  m_state = State::Established;
  m_lastSent = now;
  resume(packet.sessionPresent);
  m_listener.OnAccepted(packet.sessionPresent);
}

// A broker that takes no such will refuses the connection.
void Session::noteRefusal(const ConnAck& packet) {
  if (packet.reason == kReasonRetainNotSupported) m_willRetain = false;
  if (packet.reason == kReasonQosNotSupported) m_willQos = 0;
  end(describe("refused", packet.reason, packet.reasonText, packet.serverReference), packet.reason);
}

void Session::resume(bool sessionPresent) {
  if (!sessionPresent) {
    m_incoming.clear();
    m_unconfirmed.clear();
    m_mayBeUnconfirmed = false;
    std::deque<Outgoing> forgotten;
    forgotten.swap(m_outgoing);
    for (auto it = forgotten.rbegin(); it != forgotten.rend(); ++it)
      m_listener.OnForgotten(it->token);
    return;
  }
  std::vector<Token> refused;
  for (auto it = m_outgoing.begin(); it != m_outgoing.end();) {
    if (isTooMuch(*it)) {
      refused.push_back(it->token);
      it = m_outgoing.erase(it);
      continue;
    }
    if (!m_limits.retainAvailable) clearRetain(it->packet);
    if (it->wasSent && it->id != 0) MarkAsSentAgain(it->packet);
    ++it;
  }
  for (auto it = refused.rbegin(); it != refused.rend(); ++it) m_listener.OnForgotten(*it);
}

// A broker may take less than it took over the previous connection.
bool Session::isTooMuch(const Outgoing& publication) const {
  return (publication.id != 0 && m_limits.maximumQos == 0) ||
         (m_limits.maximumPacketSize && publication.packet.size() > *m_limits.maximumPacketSize);
}

void Session::handle(const Mqtt::Publish& packet, Clock::time_point) {
  if (m_isLeaving) return;
  if (packet.qos == 0) {
    m_listener.OnMessage(packet, 0);
    return;
  }
  if (m_owed.size() >= kMaxOwed) {
    fail(kReasonReceiveMaximumExceeded, "more messages at a time than there are identifiers");
    return;
  }
  if (packet.qos == 1) {
    const Arrival arrival = newArrival(packet.id);
    const Taken taken = m_listener.OnMessage(packet, arrival);
    if (taken == Taken::Not) return;
    m_owed.push_back({arrival, packet.id, packet.qos, taken == Taken::Now});
  } else {
    handOn(packet);
  }
  acknowledge();
}

void Session::handOn(const Mqtt::Publish& packet) {
  const std::size_t digest = digestOf(packet);
  if (isRepeated(packet, digest)) {
    noteRepeated(packet.id);
    return;
  }
  // The broker does not know the message any more that had the identifier before.
  const auto isReplaced = [&packet](const Owed& owed) {
    return owed.qos == 2 && owed.id == packet.id;
  };
  m_owed.erase(std::remove_if(m_owed.begin(), m_owed.end(), isReplaced), m_owed.end());
  m_unconfirmed.erase(packet.id);
  const Arrival arrival = newArrival(packet.id);
  const auto place =
      m_incoming
          .insert_or_assign(packet.id, Incoming{arrival, digest, Incoming::Stage::HandedOn, 0})
          .first;
  Taken taken = Taken::Not;
  try {
    taken = m_listener.OnMessage(packet, arrival);
    if (taken != Taken::Not) m_owed.push_back({arrival, packet.id, 2, taken == Taken::Now});
  } catch (...) {
    m_incoming.erase(place);
    throw;
  }
  if (taken == Taken::Not) m_incoming.erase(place);
}

bool Session::isRepeated(const Mqtt::Publish& packet, std::size_t digest) {
  const auto known = m_incoming.find(packet.id);
  if (known != m_incoming.end()) {
    const bool isCompleted = known->second.stage == Incoming::Stage::Completed;
    return known->second.digest == digest && (packet.again || !isCompleted);
  }
  const auto earlier = m_unconfirmed.find(packet.id);
  if (earlier == m_unconfirmed.end() || earlier->second.digest != digest || !packet.again) {
    return false;
  }
  recall(packet.id, Incoming::Stage::Acknowledged);
  return true;
}

void Session::noteRepeated(PacketId id) {
  Incoming& message = m_incoming.at(id);
  // The broker has not got the completion, so nothing will confirm that one.
  if (message.stage == Incoming::Stage::Completed) message.stage = Incoming::Stage::Acknowledged;
  const bool isOwed = std::any_of(m_owed.begin(), m_owed.end(), [id](const Owed& owed) {
    return owed.qos == 2 && owed.id == id;
  });
  if (isOwed) return;
  m_owed.push_back({message.arrival, id, 2, message.stage != Incoming::Stage::HandedOn});
}

void Session::recall(PacketId id, Incoming::Stage stage) {
  const auto earlier = m_unconfirmed.find(id);
  if (earlier == m_unconfirmed.end()) return;
  m_incoming[id] = {earlier->second.arrival, earlier->second.digest, stage, 0};
  m_unconfirmed.erase(earlier);
}

void Session::acknowledge() {
  const bool canBeSent = m_state == State::Established && !m_isLeaving && !m_end;
  if (!canBeSent) return;
  for (; !m_owed.empty() && m_owed.front().mayBeAcknowledged; m_owed.pop_front()) {
    // The rest follow when these are written.
    if (m_control.size() > kMaxControlBytes / 2) return;
    const Owed& owed = m_owed.front();
    if (owed.qos == 1) {
      queueControl(EncodeAck(PacketType::PubAck, owed.id));
      continue;
    }
    const auto found = m_incoming.find(owed.id);
    const bool isFirst =
        found != m_incoming.end() && found->second.stage == Incoming::Stage::HandedOn;
    if (isFirst) found->second.stage = Incoming::Stage::Acknowledged;
    queueControl(EncodeAck(PacketType::PubRec, owed.id));
  }
}

void Session::Acknowledge(Arrival arrival) {
  const auto isIt = [arrival](const auto& entry) { return entry.arrival == arrival; };
  const auto owed = std::find_if(m_owed.begin(), m_owed.end(), isIt);
  if (owed != m_owed.end()) {
    owed->mayBeAcknowledged = true;
    acknowledge();
    return;
  }
  // Its connection is lost, and the broker may repeat it.
  const auto known = findHandedOn(arrival);
  if (known != m_incoming.end()) known->second.stage = Incoming::Stage::Acknowledged;
}

Session::Arrival Session::newArrival(PacketId id) {
  return (++m_arrivals << kIdBits) | id;
}

std::map<PacketId, Session::Incoming>::iterator Session::findHandedOn(Arrival arrival) {
  const auto found = m_incoming.find(static_cast<PacketId>(arrival));
  const bool isIt = found != m_incoming.end() && found->second.arrival == arrival &&
                    found->second.stage == Incoming::Stage::HandedOn;
  return isIt ? found : m_incoming.end();
}

bool Session::Leave(Arrival arrival) {
  const auto owed = std::find_if(m_owed.begin(), m_owed.end(),
                                 [arrival](const Owed& entry) { return entry.arrival == arrival; });
  const bool isOwed = owed != m_owed.end();
  if (isOwed && owed->mayBeAcknowledged) return false;
  if (isOwed) m_owed.erase(owed);
  const auto known = findHandedOn(arrival);
  const bool isKnown = known != m_incoming.end();
  if (isKnown) m_incoming.erase(known);
  acknowledge();
  return isOwed || isKnown;
}

void Session::handle(const Ack& packet, Clock::time_point) {
  switch (packet.type) {
    case PacketType::PubRel:
      handleRelease(packet.id);
      return;
    case PacketType::PubRec:
      // Nothing is published at QoS 2.
      queueControl(EncodeAck(PacketType::PubRel, packet.id, kReasonPacketIdNotFound));
      return;
    case PacketType::PubAck:
      break;
    default:
      return;
  }
  const auto found =
      std::find_if(m_outgoing.begin(), m_outgoing.end(),
                   [&packet](const Outgoing& p) { return p.id == packet.id && p.serial != 0; });
  if (found == m_outgoing.end()) return;
  const Token token = found->token;
  const std::uint64_t serial = found->serial;
  m_outgoing.erase(found);
  --m_sentUnacknowledged;
  confirm(serial);
  m_listener.OnPublished(token, packet.reason, packet.reasonText);
}

void Session::handleRelease(PacketId id) {
  recall(id, Incoming::Stage::Completed);
  const auto found = m_incoming.find(id);
  if (found == m_incoming.end()) {
    queueControl(EncodeAck(PacketType::PubComp, id, kReasonPacketIdNotFound));
    return;
  }
  found->second.stage = Incoming::Stage::Completed;
  found->second.completedAt = m_serial;
  queueControl(EncodeAck(PacketType::PubComp, id));
}

void Session::handle(const SubscriptionAck& packet, Clock::time_point) {
  const auto found = m_pending.find(packet.id);
  if (found == m_pending.end()) return;
  const Pending pending = found->second;
  const bool isSubscription = packet.type == PacketType::SubAck;
  if (pending.isSubscription != isSubscription || packet.reasons.size() != 1) {
    fail(kReasonProtocolError, "an acknowledgement of another subscription");
    return;
  }
  m_pending.erase(found);
  confirm(pending.serial);
  if (isSubscription) {
    m_listener.OnSubscribed(pending.token, packet.reasons.front());
  } else {
    m_listener.OnUnsubscribed(pending.token);
  }
}

void Session::handle(const PingResp&, Clock::time_point) {
  if (m_pings == 0) return;
  --m_pings;
  if (!m_pingSerial) return;
  if (m_answersBefore > 0) {
    --m_answersBefore;
    return;
  }
  confirm(*std::exchange(m_pingSerial, std::nullopt));
}

void Session::handle(const Mqtt::Disconnect& packet, Clock::time_point) {
  std::string why = describe("the broker ended the connection", packet.reason, packet.reasonText,
                             packet.serverReference);
  if (packet.reason == kReasonSessionTakenOver) {
    why += "; another client has connected as " + m_clientId + ": is LUMO_THING_ID unique?";
  }
  end(why, packet.reason);
}

void Session::handle(const Auth&, Clock::time_point) {
  fail(kReasonProtocolError, "an AUTH that was not asked for");
}

void Session::fail(std::uint8_t reason, const std::string& why) {
  queueDisconnect(reason);
  end("the broker broke the protocol: " + why);
}

void Session::end(const std::string& why, std::optional<std::uint8_t> brokerReason) {
  if (!m_end) m_end = End{why, brokerReason};
}

void Session::queueControl(std::string_view packet) {
  if (m_isLeaving || m_end) return;
  m_control.append(packet);
  if (m_control.size() > kMaxControlBytes) end("the broker does not read");
}

void Session::queueDisconnect(std::uint8_t reason) {
  queueControl(EncodeDisconnect(reason));
  m_isLeaving = true;
}

void Session::confirm(std::uint64_t serial) {
  m_mayBeUnconfirmed = false;
  for (auto it = m_incoming.begin(); it != m_incoming.end();) {
    const Incoming& message = it->second;
    const bool isKnown =
        message.stage == Incoming::Stage::Completed && message.completedAt < serial;
    it = isKnown ? m_incoming.erase(it) : std::next(it);
  }
}

std::string_view Session::Output() {
  if (m_written == m_output.size()) fillOutput();
  return std::string_view(m_output).substr(m_written);
}

void Session::fillOutput() {
  m_written = 0;
  m_output.clear();
  acknowledge();
  m_output.swap(m_control);
  if (m_state != State::Established || m_isLeaving || m_end) return;
  for (auto next = m_outgoing.begin(); next != m_outgoing.end();) {
    if (next->serial != 0) {
      ++next;
      continue;
    }
    const bool isRoom = m_output.empty() || m_output.size() + next->packet.size() <= kOutputBytes;
    const bool isAllowed = next->id == 0 || m_sentUnacknowledged < m_limits.receiveMaximum;
    if (!isRoom || !isAllowed) return;
    m_output.append(next->packet);
    next->serial = ++m_serial;
    next->wasSent = true;
    if (next->id != 0) {
      ++m_sentUnacknowledged;
      ++next;
    } else {
      m_sentAtQos0.push_back(next->token);
      next = m_outgoing.erase(next);
    }
  }
}

void Session::Written(std::size_t count, Clock::time_point now) {
  const bool wasHeldUp = std::exchange(m_isHeldUp, m_written + count != m_output.size());
  if (count == 0) return;
  m_written += count;
  m_lastSent = now;
  // What the network takes at once may never arrive.
  if (wasHeldUp || !m_isAnswerOwed) m_lastLife = now;
  m_isAnswerOwed = isAwaitingBroker();
  if (m_written != m_output.size() || m_sentAtQos0.empty()) return;
  const std::vector<Token> sent = std::exchange(m_sentAtQos0, {});
  for (const Token token : sent) m_listener.OnPublished(token, kReasonSuccess, {});
}

std::chrono::seconds Session::keepAlive() const {
  const auto announced = m_limits.serverKeepAliveSeconds;
  // Without a keep alive of the broker's, pings still show whether it is alive.
  return announced && *announced != 0 ? seconds(*announced) : m_settings.keepAlive;
}

Session::Clock::duration Session::pingInterval() const {
  return Clock::duration(keepAlive()) * 3 / 4;
}

Session::Clock::duration Session::silence() const {
  return std::max<Clock::duration>(kShortestSilence, keepAlive() * 3 / 2);
}

bool Session::isAwaitingBroker() const {
  return m_pings != 0 || m_sentUnacknowledged != 0;
}

void Session::CheckTime(Clock::time_point now) {
  if (m_state != State::Established || m_end) return;
  const bool waits = isAwaitingBroker() || m_written != m_output.size();
  if (waits && now - m_lastLife >= silence()) {
    end("the broker is silent");
    return;
  }
  if (now - m_lastSent >= pingInterval()) ping(now);
}

Session::Clock::time_point Session::NextCheck() const {
  if (m_state != State::Established) return Clock::time_point::max();
  return std::min(m_lastSent + pingInterval(), m_lastLife + silence());
}

void Session::ping(Clock::time_point now) {
  if (!m_pingSerial) {
    m_pingSerial = ++m_serial;
    m_answersBefore = m_pings;
  }
  ++m_pings;
  m_lastSent = now;
  queueControl(EncodePingReq());
}

std::size_t Session::PacketBytes(const Publication& publication) {
  return SizeOfPublish(publication, 1);
}

std::size_t Session::PacketBytes(const Subscription& subscription) {
  return EncodeSubscribe(1, subscription).size();
}

void Session::Publish(Token token, Publication publication) {
  if (!m_limits.retainAvailable) publication.retain = false;
  const bool isAcknowledged = m_limits.maximumQos > 0;
  const PacketId id = isAcknowledged ? newId() : PacketId{0};
  const std::uint8_t qos = isAcknowledged ? 1 : 0;
  m_outgoing.push_back({id, token, EncodePublish(publication, qos, id), 0, false});
}

void Session::Subscribe(Token token, const Subscription& subscription) {
  const PacketId id = newId();
  m_pending[id] = {token, true, ++m_serial};
  queueControl(EncodeSubscribe(id, subscription));
}

void Session::Unsubscribe(Token token, const std::string& filter) {
  const PacketId id = newId();
  m_pending[id] = {token, false, ++m_serial};
  queueControl(EncodeUnsubscribe(id, filter));
}

void Session::Abandon(Token token) {
  const auto found = std::find_if(m_outgoing.begin(), m_outgoing.end(),
                                  [token](const Outgoing& p) { return p.token == token; });
  if (found != m_outgoing.end() && found->serial == 0) m_outgoing.erase(found);
}

void Session::Disconnect() {
  queueDisconnect(kReasonSuccess);
}

void Session::Settle(Clock::time_point now) {
  const bool canConfirm = m_mayBeUnconfirmed ||
                          std::any_of(m_incoming.begin(), m_incoming.end(), [](const auto& entry) {
                            return entry.second.stage == Incoming::Stage::Completed;
                          });
  if (canConfirm && !m_pingSerial && m_state == State::Established) ping(now);
}

std::vector<Session::InFlight> Session::Unacknowledged() const {
  std::vector<InFlight> all;
  all.reserve(m_outgoing.size());
  for (const Outgoing& publication : m_outgoing) {
    all.push_back({publication.token, publication.packet.size(), publication.wasSent});
  }
  return all;
}

PacketId Session::newId() {
  do {
    ++m_lastId;
  } while (m_lastId == 0 || isInUse(m_lastId));
  return m_lastId;
}

bool Session::isInUse(PacketId id) const {
  return m_pending.count(id) != 0 || std::any_of(m_outgoing.begin(), m_outgoing.end(),
                                                 [id](const Outgoing& p) { return p.id == id; });
}

}  // namespace Lumo::Mqtt
