#include "ModelBroker.h"

#include <algorithm>
#include <cstdlib>

#include "Require.h"

namespace fuzz {

bool ModelBroker::Send(int number, std::uint8_t qos) {
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

std::set<int> ModelBroker::Forget() {
  std::set<int> lost;
  for (const InFlight& message : m_waiting) lost.insert(message.number);
  for (const InFlight& message : m_inFlight) lost.insert(message.number);
  m_waiting.clear();
  m_inFlight.clear();
  m_hasSession = false;
  return lost;
}

void ModelBroker::Drop() {
  m_reader.Reset();
  m_isAccepted = false;
  m_isLeft = false;
  m_lastPlace = 0;
  m_acknowledgedPlace = 0;
  m_unacknowledged.clear();
  m_output.clear();
}

void ModelBroker::Take(std::string_view bytes) {
  for (const broker::ClientPacket& packet : m_reader.Take(bytes)) handle(packet);
}

void ModelBroker::handle(const broker::ClientPacket& packet) {
  Require(!m_isLeft, "nothing comes behind a DISCONNECT");
  Require(m_isAccepted == (packet.type != broker::kConnect), "the first packet is a CONNECT");
  switch (packet.type) {
    case broker::kConnect:
      accept(packet);
      break;
    case broker::kPublish:
      take(packet);
      break;
    case broker::kPubAck: {
      const auto found = find(packet.id, 1, false);
      Require(found != m_inFlight.end() && packet.reason == 0,
              "a message of QoS 1 is acknowledged once");
      checkOrder(*found);
      m_inFlight.erase(found);
      fill();
      break;
    }
    case broker::kPubRec: {
      const auto found = find(packet.id, 2, false);
      Require(found != m_inFlight.end() && packet.reason == 0,
              "a message of QoS 2 is acknowledged once");
      checkOrder(*found);
      found->isReleased = true;
      m_output += broker::Ack(broker::kPubRel, packet.id);
      break;
    }
    case broker::kPubComp: {
      const auto found = find(packet.id, 2, true);
      Require(found != m_inFlight.end() && packet.reason == 0,
              "a message that was released is completed once");
      m_inFlight.erase(found);
      fill();
      break;
    }
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

void ModelBroker::accept(const broker::ClientPacket& connect) {
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

void ModelBroker::take(const broker::ClientPacket& publish) {
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

void ModelBroker::Acknowledge() {
  if (m_unacknowledged.empty()) return;
  m_output += broker::Ack(broker::kPubAck, m_unacknowledged.front());
  m_unacknowledged.pop_front();
}

void ModelBroker::AcknowledgeAtOnce() {
  m_habits.acknowledgesLate = false;
  while (!m_unacknowledged.empty()) Acknowledge();
}

void ModelBroker::checkOrder(const InFlight& message) {
  Require(message.place > m_acknowledgedPlace,
          "messages are acknowledged in the order in which they came");
  m_acknowledgedPlace = message.place;
}

void ModelBroker::send(InFlight& message, bool again) {
  if (message.qos > 0) message.place = ++m_lastPlace;
  broker::Message publish;
  publish.qos = message.qos;
  publish.id = message.id;
  publish.topic = "t";
  publish.payload = "m" + std::to_string(message.number);
  publish.again = again;
  m_output += broker::Publish(publish);
}

void ModelBroker::fill() {
  while (m_isAccepted && !m_isLeft && !m_waiting.empty() && m_inFlight.size() < m_clientMaximum) {
    InFlight message = m_waiting.front();
    m_waiting.pop_front();
    message.id = newId();
    m_inFlight.push_back(message);
    send(m_inFlight.back(), false);
  }
}

std::uint16_t ModelBroker::newId() {
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

std::vector<ModelBroker::InFlight>::iterator ModelBroker::find(std::uint16_t id, std::uint8_t qos,
                                                               bool isReleased) {
  return std::find_if(m_inFlight.begin(), m_inFlight.end(), [=](const InFlight& message) {
    return message.id == id && message.qos == qos && message.isReleased == isReleased;
  });
}

}  // namespace fuzz
