#include "CloudClient.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "HostProcess.h"

namespace {

constexpr int kQos = 2;
// A message of QoS 2 that is received and not yet released goes with the client.
constexpr int kLastingQos = 1;

// Of one client only.
std::string newAnswerTopic() {
  static std::atomic<int> last{0};
  return "answers/cloud/" + std::to_string(getpid()) + "/" + std::to_string(++last);
}

}  // namespace

Json::Value ParseJson(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
  return value;
}

CloudClient::CloudClient(int port, const std::string& thing, Credentials credentials,
                         Session session)
    : m_port(port),
      m_credentials(std::move(credentials)),
      m_things("things/" + thing + "/"),
      m_answers(newAnswerTopic()),
      m_session(session) {
  ComeBack();
}

CloudClient::~CloudClient() = default;

void CloudClient::Leave() {
  m_peer.reset();
}

void CloudClient::ComeBack() {
  MqttPeer::Options options;
  options.user = m_credentials.user;
  options.password = m_credentials.password;
  options.filters = {m_things + "#", m_answers};
  options.qos = kQos;
  if (m_session == Session::Lasting) {
    options.id = m_answers;  // without a topic's characters
    std::replace(options.id.begin(), options.id.end(), '/', '-');
    options.qos = kLastingQos;
  }
  options.onConnected = [this](bool /*sessionPresent*/) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_connections;
  };
  m_peer.reset();
  m_peer = std::make_unique<MqttPeer>(m_port, std::move(options),
                                      [this](const MqttPeer::Message& message) { take(message); });
}

int CloudClient::Connections() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_connections;
}

Json::Value CloudClient::Request(const std::string& operation, const std::string& payload) {
  return ParseJson(WaitForAnswer(std::to_string(Send(operation, payload))));
}

std::optional<int> CloudClient::Result(const std::string& operation, const std::string& payload) {
  const Json::Value answer = Request(operation, payload);
  if (!answer.isMember("result")) return std::nullopt;
  return answer["result"].asInt();
}

void CloudClient::Publish(const std::string& operation, const std::string& payload,
                          const Manner& manner) {
  m_peer->Publish({m_things + "appdatachannel/" + operation, payload, manner.qos, false,
                   manner.answered ? m_answers : std::string(), manner.correlation});
}

std::string CloudClient::WaitForAnswer(const std::string& correlation) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const std::vector<std::string>& answers = m_answered[correlation];
  m_changed.wait_for(lock, HostProcess::kPatience, [&answers] { return !answers.empty(); });
  return answers.empty() ? std::string() : answers.front();
}

int CloudClient::Send(const std::string& operation, const std::string& payload, int qos) {
  int request = 0;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    request = ++m_lastRequest;
  }
  Publish(operation, payload, {qos, true, std::to_string(request)});
  return request;
}

std::vector<std::string> CloudClient::AnswersWith(const std::string& correlation) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_answered[correlation];
}

std::vector<std::string> CloudClient::Received(const std::string& topic) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_received[m_things + topic];
}

std::string CloudClient::Last(const std::string& topic) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const std::vector<std::string>& received = m_received[m_things + topic];
  return received.empty() ? std::string() : received.back();
}

bool CloudClient::WaitFor(const std::string& topic, const std::string& payload) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const std::vector<std::string>& received = m_received[m_things + topic];
  return m_changed.wait_for(lock, HostProcess::kPatience, [&received, &payload] {
    return !received.empty() && received.back() == payload;
  });
}

bool CloudClient::WaitForProperty(const std::string& name, bool present) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const std::vector<std::string>& lists = m_received[m_things + "appdatachannel/properties"];
  return m_changed.wait_for(lock, HostProcess::kPatience, [&lists, &name, present] {
    return !lists.empty() && ParseJson(lists.back()).isMember(name) == present;
  });
}

void CloudClient::take(const MqttPeer::Message& message) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (message.topic == m_answers) {
    m_answered[message.correlation].emplace_back(message.payload);
  } else {
    m_received[std::string(message.topic)].emplace_back(message.payload);
  }
  m_changed.notify_all();
}
