#include "CloudClient.h"

#include <mqtt_protocol.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "HostProcess.h"

namespace {

constexpr int kKeepAliveSeconds = 60;
constexpr int kSessionSeconds = 3600;
constexpr int kQos = 2;
// A message of QoS 2 that is received and not yet released goes with the client.
constexpr int kLastingQos = 1;
constexpr int kReceiveMaximum = 65535;

// A list of MQTT properties, freed with the object.
class Properties {
 public:
  Properties() = default;
  ~Properties() { mosquitto_property_free_all(&m_list); }
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;

  mosquitto_property** Add() { return &m_list; }
  const mosquitto_property* Get() const { return m_list; }

 private:
  mosquitto_property* m_list = nullptr;
};

// Of one client only.
std::string newAnswerTopic() {
  static std::atomic<int> last{0};
  return "cloud/" + std::to_string(getpid()) + "/" + std::to_string(++last);
}

void check(int result, const char* what) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
  }
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
  static const int initialised = mosquitto_lib_init();
  check(initialised, "MQTT library");
  ComeBack();
}

CloudClient::~CloudClient() {
  Leave();
}

void CloudClient::Leave() {
  if (!m_client) return;
  mosquitto_disconnect(m_client.get());
  mosquitto_loop_stop(m_client.get(), false);
  m_client.reset();
}

void CloudClient::ComeBack() {
  const bool lasts = m_session == Session::Lasting;
  std::string name = m_answers;  // no topic's characters in a client's name
  std::replace(name.begin(), name.end(), '/', '-');
  m_client.reset(mosquitto_new(lasts ? name.c_str() : nullptr, !lasts, this));
  if (!m_client) throw std::runtime_error("no MQTT client");
  mosquitto_int_option(m_client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(m_client.get(), MOSQ_OPT_TCP_NODELAY, 1);
  // The broker sends more at once than it is told to when QoS 1 and QoS 2 are mixed.
  mosquitto_int_option(m_client.get(), MOSQ_OPT_RECEIVE_MAXIMUM, kReceiveMaximum);
  if (!m_credentials.user.empty()) {
    check(mosquitto_username_pw_set(m_client.get(), m_credentials.user.c_str(),
                                    m_credentials.password.c_str()),
          "credentials");
  }
  mosquitto_connect_callback_set(m_client.get(), &CloudClient::on_connect);
  mosquitto_subscribe_callback_set(m_client.get(), &CloudClient::on_subscribe);
  mosquitto_publish_callback_set(m_client.get(), &CloudClient::on_publish);
  mosquitto_message_v5_callback_set(m_client.get(), &CloudClient::on_message);
  Properties properties;
  if (lasts) {
    check(mosquitto_property_add_int32(properties.Add(), MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                       kSessionSeconds),
          "session expiry");
  }
  check(mosquitto_connect_bind_v5(m_client.get(), "127.0.0.1", m_port, kKeepAliveSeconds, nullptr,
                                  properties.Get()),
        "broker");
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_subscribed = false;
  }
  check(mosquitto_loop_start(m_client.get()), "thread");
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_changed.wait_for(lock, HostProcess::kPatience, [this] { return m_subscribed; })) {
    throw std::runtime_error("the cloud's client cannot subscribe");
  }
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
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_unsent;
  }
  Properties properties;
  if (manner.answered) {
    check(mosquitto_property_add_string(properties.Add(), MQTT_PROP_RESPONSE_TOPIC,
                                        m_answers.c_str()),
          "response topic");
  }
  const std::string& correlation = manner.correlation;
  if (!correlation.empty()) {
    check(mosquitto_property_add_binary(properties.Add(), MQTT_PROP_CORRELATION_DATA,
                                        correlation.data(),
                                        static_cast<std::uint16_t>(correlation.size())),
          "correlation data");
  }
  const std::string topic = m_things + "appdatachannel/" + operation;
  const int result =
      mosquitto_publish_v5(m_client.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                           payload.data(), manner.qos, false, properties.Get());
  if (result != MOSQ_ERR_NO_CONN) check(result, "publish");
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

bool CloudClient::WaitUntilSent() {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, HostProcess::kPatience, [this] { return m_unsent == 0; });
}

std::vector<std::string> CloudClient::AnswersWith(const std::string& correlation) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_answered[correlation];
}

std::vector<std::string> CloudClient::Received(const std::string& topic) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_received[m_things + topic];
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

void CloudClient::on_connect(mosquitto* client, void* cloud, int result) {
  if (result != 0) return;
  auto* const self = static_cast<CloudClient*>(cloud);
  {
    const std::lock_guard<std::mutex> lock(self->m_mutex);
    ++self->m_connections;
  }
  // All in one, so that it has all or nothing.
  std::string things = self->m_things + "#";
  std::string answers = self->m_answers;
  std::array<char*, 2> topics{things.data(), answers.data()};
  mosquitto_subscribe_multiple(client, nullptr, static_cast<int>(topics.size()), topics.data(),
                               self->m_session == Session::Lasting ? kLastingQos : kQos, 0,
                               nullptr);
}

void CloudClient::on_subscribe(mosquitto* /*client*/, void* cloud, int /*id*/, int /*count*/,
                               const int* /*granted*/) {
  auto* const self = static_cast<CloudClient*>(cloud);
  const std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_subscribed = true;
  self->m_changed.notify_all();
}

void CloudClient::on_publish(mosquitto* /*client*/, void* cloud, int /*id*/) {
  auto* const self = static_cast<CloudClient*>(cloud);
  const std::lock_guard<std::mutex> lock(self->m_mutex);
  --self->m_unsent;
  self->m_changed.notify_all();
}

void CloudClient::on_message(mosquitto* /*client*/, void* cloud, const mosquitto_message* message,
                             const mosquitto_property* properties) {
  auto* const self = static_cast<CloudClient*>(cloud);
  const std::string payload(static_cast<const char*>(message->payload),
                            static_cast<std::size_t>(message->payloadlen));
  const std::lock_guard<std::mutex> lock(self->m_mutex);
  if (message->topic == self->m_answers) {
    void* data = nullptr;
    std::uint16_t size = 0;
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false);
    const std::string correlation(static_cast<const char*>(data), size);
    std::free(data);
    self->m_answered[correlation].push_back(payload);
  } else {
    self->m_received[message->topic].push_back(payload);
  }
  self->m_changed.notify_all();
}
