#include "MqttSessionTest.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

using broker::Acceptance;
using broker::ClientPacket;
using broker::Message;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// The steps of a script; those that are not explained are calls of the session, and questions to
// it:
//
// < PACKET          the broker sends connack, puback, pubrec, pubrel, pubcomp, suback, unsuback,
//                   pingresp or disconnect, with its id and reason; or qos0, qos1 or qos2:
//                   a message, with its id at QoS 1 and 2, its payload and options
// > PACKETS         exactly these, in this order, were written since
// = EVENTS          exactly these the session told its user since. At the end of a script and
//                   before each new connection, none is left that the script does not state
// now, later, not   what becomes of the messages that follow
// done N, leave N   the message that was taken as number N is acknowledged, or left
// cannot leave N    it is not there to be left
// deliver ...       "< qos2 ..." and "< pubrel" of the same id
// connect, reconnect, reconnect anew    with the options of the CONNACK
// write N PACKETS   N bytes are written, which complete exactly these packets
// wait MS, next MS  time passes; the next check is so much later
//
// A script begins with a connection that is accepted, unless it begins with another one. "a*20" is
// a payload of 20 bytes.

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

std::string payloadOf(const std::string& word) {
  const std::size_t star = word.find('*');
  return star == std::string::npos ? word : std::string(std::stoul(word.substr(star + 1)), word[0]);
}

std::string wordOf(const std::string& payload) {
  const bool isLong = payload.size() > 20 && payload.find_first_not_of(payload[0]) == payload.npos;
  return isLong ? payload.substr(0, 1) + "*" + std::to_string(payload.size()) : payload;
}

// By their numbers.
const std::vector<std::string> kTypes = {"",          "connect",  "connack",     "publish",
                                         "puback",    "pubrec",   "pubrel",      "pubcomp",
                                         "subscribe", "suback",   "unsubscribe", "unsuback",
                                         "pingreq",   "pingresp", "disconnect",  "auth"};

// As a script writes it.
std::string describe(const ClientPacket& packet) {
  std::string text = kTypes.at(packet.type);
  if (packet.type == broker::kConnect) {
    if (packet.clientId != "tv") text += " as " + packet.clientId;
    if (packet.willQos != 1) text += " will=" + std::to_string(packet.willQos);
    if (!packet.willRetain) text += " will-not-retained";
  } else if (packet.type == broker::kPublish) {
    text += " " + wordOf(packet.payload);
    if (packet.again) text += " dup";
    if (packet.retain) text += " retain";
    if (packet.qos != 1) text += " qos" + std::to_string(packet.qos);
    if ((packet.id == 0) != (packet.qos == 0)) text += " with a wrong id";
  } else if (packet.type >= broker::kPubAck && packet.type <= broker::kPubComp) {
    text += " " + std::to_string(packet.id);
  }
  return packet.reason == 0 ? text : text + " " + std::to_string(packet.reason);
}

std::string describe(const std::vector<ClientPacket>& packets) {
  std::string text;
  for (const ClientPacket& packet : packets) text += (text.empty() ? "" : ", ") + describe(packet);
  return text;
}

std::string joined(const std::vector<std::string>& words, const std::string& separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

Acceptance acceptanceOf(const std::vector<std::string>& options) {
  Acceptance acceptance;
  for (const std::string& option : options) {
    const std::string name = option.substr(0, option.find('='));
    const std::string value = option.substr(name.size() + 1);
    const auto number = [&value] { return static_cast<std::uint32_t>(std::stoul(value)); };
    if (name == "present") acceptance.sessionPresent = number() != 0;
    if (name == "reason") acceptance.reason = static_cast<std::uint8_t>(number());
    if (name == "text") acceptance.reasonText = value;
    if (name == "receive") acceptance.receiveMaximum = static_cast<std::uint16_t>(number());
    if (name == "qos") acceptance.maximumQos = static_cast<std::uint8_t>(number());
    if (name == "retain") acceptance.retainAvailable = static_cast<std::uint8_t>(number());
    if (name == "size") acceptance.maximumPacketSize = number();
    if (name == "keepalive") acceptance.keepAlive = static_cast<std::uint16_t>(number());
    if (name == "client") acceptance.clientId = value;
  }
  return acceptance;
}

}  // namespace

MqttSessionTest::MqttSessionTest() {
  m_settings.clientId = "tv";
  m_settings.willTopic = "things/tv/clock/status";
  m_settings.will = "offline";
  restart();
}

void MqttSessionTest::play(const std::string& script) {
  const std::vector<std::string> steps = split(script, ';');
  for (std::size_t i = 0; i < steps.size(); ++i) {
    SCOPED_TRACE("step " + std::to_string(i + 1) + ":" + steps[i]);
    std::vector<std::string> words = split(steps[i], ' ');
    const std::string verb = words.front();
    words.erase(words.begin());
    const bool isFirst = i == 0 && m_session->GetState() == Session::State::Closed;
    if (isFirst && verb != "connect" && verb != "begin") connect();
    playStep(verb, words);
    if (HasFatalFailure()) return;
  }
  EXPECT_THAT(m_log, IsEmpty()) << "and the script does not state it";
}

void MqttSessionTest::playStep(const std::string& verb, const std::vector<std::string>& words) {
  Session& session = *m_session;
  const auto number = [&words](std::size_t i = 0) { return std::stoul(words.at(i)); };
  const auto arrival = [&](std::size_t i) { return m_arrivals.at(number(i)); };
  const auto milliseconds = [&] { return std::chrono::milliseconds(number()); };
  const auto reconnect = [&](bool isAnew) {
    Acceptance acceptance = acceptanceOf({words.begin() + (isAnew ? 1 : 0), words.end()});
    acceptance.sessionPresent = !isAnew;
    session.Lose();
    connect(acceptance);
  };
  const auto waitUntil = [&](Session::Clock::time_point time) {
    m_now = time;
    session.CheckTime(m_now);
  };
  // The broker acknowledges something that is sent now.
  const auto confirm = [&] {
    ASSERT_THAT(m_log, IsEmpty());
    publish(999, "to-be-acknowledged");
    for (const ClientPacket& packet : written()) {
      if (packet.type == broker::kPublish) give(broker::Ack(broker::kPubAck, packet.id));
    }
    m_log.clear();
  };
  // With the broker's reason, which may be none.
  const auto checkEnd = [&] {
    ASSERT_TRUE(session.GetEnd());
    EXPECT_EQ(session.GetEnd()->brokerReason.value_or(0), number());
    EXPECT_THAT(why(), HasSubstr(words.at(1)));
  };
  const std::map<std::string, std::function<void()>> steps = {
      {"<", [&] { givePacket(words); }},
      {">", [&] { EXPECT_EQ(describe(written()), joined(words, " ")); }},
      {"=", [&] { EXPECT_EQ(joined(std::exchange(m_log, {}), ", "), joined(words, " ")); }},
      {"now", [&] { m_answer = Taken::Now; }},
      {"later", [&] { m_answer = Taken::Later; }},
      {"not", [&] { m_answer = Taken::Not; }},
      {"done", [&] { session.Acknowledge(arrival(0)); }},
      {"leave", [&] { EXPECT_TRUE(session.Leave(arrival(0))); }},
      {"cannot", [&] { EXPECT_FALSE(session.Leave(arrival(1))); }},
      {"deliver",
       [&] {
         givePacket(split("qos2 " + joined(words, " "), ' '));
         givePacket({"pubrel", words.at(0)});
       }},
      {"begin", [&] { begin(); }},
      {"connect", [&] { connect(acceptanceOf(words)); }},
      {"reconnect", [&] { reconnect(!words.empty() && words.front() == "anew"); }},
      {"lose", [&] { session.Lose(); }},
      {"publish", [&] { publish(number(), payloadOf(words.at(1)), words.size() > 2); }},
      {"subscribe", [&] { session.Subscribe(number(), {}); }},
      {"unsubscribe", [&] { session.Unsubscribe(number(), "things/#"); }},
      {"abandon", [&] { session.Abandon(number()); }},
      {"disconnect", [&] { session.Disconnect(); }},
      {"settle", [&] { session.Settle(m_now); }},
      {"settled", [&] { EXPECT_TRUE(session.IsSettled()); }},
      {"unsettled", [&] { EXPECT_FALSE(session.IsSettled()); }},
      {"unacknowledged", [&] { EXPECT_THAT(session.Unacknowledged(), SizeIs(number())); }},
      {"sent", [&] { EXPECT_TRUE(session.Unacknowledged().at(number()).isSent); }},
      {"confirm", confirm},
      {"write",
       [&] {
         EXPECT_EQ(describe(written(number())), joined({words.begin() + 1, words.end()}, " "));
       }},
      {"wait", [&] { waitUntil(m_now + milliseconds()); }},
      {"due", [&] { waitUntil(session.NextCheck()); }},
      {"next", [&] { EXPECT_EQ(session.NextCheck(), m_now + milliseconds()); }},
      {"established", [&] { EXPECT_EQ(session.GetState(), Session::State::Established); }},
      {"alive", [&] { EXPECT_FALSE(session.GetEnd()) << why(); }},
      {"ends", checkEnd}};
  steps.at(verb)();
}

void MqttSessionTest::givePacket(const std::vector<std::string>& words) {
  const std::string& type = words.front();
  const auto number = [&words](std::size_t i) {
    return static_cast<std::uint16_t>(i < words.size() ? std::stoul(words[i]) : 0);
  };
  const auto reason = [&number](std::size_t i) { return static_cast<std::uint8_t>(number(i)); };
  const auto known = std::find(kTypes.begin(), kTypes.end(), type);
  const auto code = static_cast<broker::Type>(known - kTypes.begin());
  if (code >= broker::kPubAck && code <= broker::kPubComp) {
    give(broker::Ack(code, number(1), reason(2)));
  } else if (code == broker::kSubAck || code == broker::kUnsubAck) {
    give(broker::Subscribed(code, number(1), {reason(2)}));
  } else if (code == broker::kPingResp) {
    give(broker::PingResp());
  } else if (code == broker::kDisconnect) {
    give(broker::Disconnect(reason(1), words.size() > 2 ? words[2] : ""));
  } else if (code == broker::kConnAck) {
    give(broker::ConnAck(acceptanceOf({words.begin() + 1, words.end()})));
  } else {
    const auto qos = static_cast<std::uint8_t>(type.at(3) - '0');
    const std::size_t at = qos == 0 ? 1 : 2;
    Message message = messageOf(qos, qos == 0 ? std::uint16_t{0} : number(1), words.at(at));
    for (std::size_t i = at + 1; i < words.size(); ++i) {
      const std::string value = words[i].substr(words[i].find('=') + 1);
      if (words[i] == "dup") message.again = true;
      if (words[i].find("correlation=") == 0) message.correlation = value;
      if (words[i].find("topic=") == 0) message.topic = value;
      if (words[i].find("answer=") == 0) message.responseTopic = value;
    }
    give(message);
  }
}

void MqttSessionTest::restart() {
  m_session = std::make_unique<Session>(m_settings, *this);
}

void MqttSessionTest::begin() {
  m_reader.Reset();
  m_session->Begin(m_now);
}

void MqttSessionTest::connect(const Acceptance& acceptance) {
  ASSERT_THAT(m_log, IsEmpty()) << "and the script does not state it";
  begin();
  written();
  give(broker::ConnAck(acceptance));
  const std::string accepted = acceptance.sessionPresent ? "accepted again" : "accepted";
  if (acceptance.reason != 0) return;
  ASSERT_FALSE(m_log.empty());
  EXPECT_EQ(m_log.back(), accepted);
  m_log.pop_back();
}

void MqttSessionTest::publish(Session::Token token, const std::string& payload, bool retain) {
  Lumo::Mqtt::Publication publication;
  publication.topic = "things/tv/clock/value/time";
  publication.payload = payload;
  publication.retain = retain;
  m_session->Publish(token, publication);
}

Message MqttSessionTest::messageOf(std::uint8_t qos, std::uint16_t id, const std::string& payload) {
  Message message;
  message.qos = qos;
  message.id = id;
  message.topic = "things/tv/clock/get";
  message.payload = payload;
  return message;
}

std::vector<ClientPacket> MqttSessionTest::written(std::size_t count) {
  std::vector<ClientPacket> all;
  while (count > 0) {
    const std::string_view output = m_session->Output().substr(0, count);
    if (output.empty()) break;
    count -= output.size();
    const std::vector<ClientPacket> packets = m_reader.Take(output);
    all.insert(all.end(), packets.begin(), packets.end());
    m_session->Written(output.size(), m_now);
  }
  return all;
}

ClientPacket MqttSessionTest::writtenPacket() {
  const std::vector<ClientPacket> packets = written();
  EXPECT_THAT(packets, SizeIs(1));
  return packets.empty() ? ClientPacket() : packets.front();
}

void MqttSessionTest::OnAccepted(bool sessionPresent) {
  m_log.emplace_back(sessionPresent ? "accepted again" : "accepted");
}

MqttSessionTest::Taken MqttSessionTest::OnMessage(const Lumo::Mqtt::Publish& message,
                                                  Session::Arrival arrival) {
  const Taken taken = m_onMessage ? m_onMessage(message) : m_answer;
  if (taken == Taken::Not) return taken;
  m_payloads.emplace_back(message.payload);
  m_arrivals.push_back(arrival);
  m_log.push_back(message.payload.empty() ? "message" : "message " + std::string(message.payload));
  return taken;
}

void MqttSessionTest::OnPublished(Session::Token token, std::uint8_t reason,
                                  const std::string& text) {
  std::string line = "published " + std::to_string(token);
  if (reason != 0) line += " with " + std::to_string(reason);
  m_log.push_back(text.empty() ? line : line + ": " + text);
}

void MqttSessionTest::OnForgotten(Session::Token token) {
  m_log.push_back("forgotten " + std::to_string(token));
}

void MqttSessionTest::OnSubscribed(Session::Token token, std::uint8_t reason) {
  m_log.push_back("subscribed " + std::to_string(token) + " with " + std::to_string(reason));
}

void MqttSessionTest::OnUnsubscribed(Session::Token token) {
  m_log.push_back("unsubscribed " + std::to_string(token));
}

TEST_P(MqttSessionScriptTest, KeepsTheRule) {
  play(GetParam().script);
}
