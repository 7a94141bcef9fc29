#include "CloudRequester.h"

#include <mqtt_protocol.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "HostProcess.h"

namespace Soak {
namespace {

constexpr int kKeepAliveSeconds = 60;
constexpr int kQos = 2;
constexpr int kReceiveMaximum = 65535;
constexpr std::uint32_t kSessionExpirySeconds = 3600;
constexpr std::size_t kEndedKept = 1024;
constexpr std::size_t kLinesKept = 40;

void check(int result, const char* what) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
  }
}

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

}  // namespace

CloudRequester::CloudRequester(int port, const std::string& thing, int index, Tally& tally)
    : m_service("things/" + thing + "/appdatachannel/"),
      m_answers("cloud/" + std::to_string(index) + "/answers"),
      m_tally(tally),
      m_client(mosquitto_new(("requester-" + std::to_string(index)).c_str(),
                             /*clean_session=*/false, this)) {
  if (!m_client) throw std::runtime_error("no MQTT client");
  mosquitto* const client = m_client.get();
  mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, kReceiveMaximum);
  mosquitto_reconnect_delay_set(client, 1, 1, false);
  mosquitto_log_callback_set(client, &CloudRequester::onLog);
  mosquitto_connect_v5_callback_set(client, &CloudRequester::onConnect);
  mosquitto_subscribe_callback_set(client, &CloudRequester::onSubscribe);
  mosquitto_message_v5_callback_set(client, &CloudRequester::onMessage);
  Properties properties;
  check(mosquitto_property_add_int32(properties.Add(), MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                     kSessionExpirySeconds),
        "session expiry");
  check(mosquitto_connect_bind_v5(client, "127.0.0.1", port, kKeepAliveSeconds, nullptr,
                                  properties.Get()),
        "broker");
  check(mosquitto_loop_start(client), "thread of the MQTT client");
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_changed.wait_for(lock, HostProcess::kPatience, [this] { return m_subscribed; })) {
    throw std::runtime_error("a requester cannot subscribe");
  }
}

CloudRequester::~CloudRequester() {
  mosquitto_disconnect(m_client.get());
  mosquitto_loop_stop(m_client.get(), false);
}

CloudRequester::Number CloudRequester::NextNumber() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_last + 1;
}

CloudRequester::Number CloudRequester::Send(const std::string& operation,
                                            const std::string& payload) {
  const Number request = addRequest();
  ++m_tally.requests;
  publish(m_service + operation, payload, request);
  return request;
}

CloudRequester::Number CloudRequester::SendToSelf(const std::string& payload) {
  const Number request = addRequest();
  publish(m_answers, payload, request);
  return request;
}

void CloudRequester::Cancel(Number request) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_cancelled.insert(request);
  }
  publish(m_service + "cancel", {}, request);
}

std::optional<std::string> CloudRequester::WaitForAnswer(Number request,
                                                         std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto found = m_requests.find(request);
  if (found == m_requests.end()) return std::nullopt;
  m_changed.wait_for(lock, limit, [&found] { return found->second.has_value(); });
  std::optional<std::string> answer = std::move(found->second);
  m_requests.erase(found);
  if (answer) {
    m_ended[request] = *answer;
    if (m_ended.size() > kEndedKept) m_ended.erase(m_ended.begin());
  }
  return answer;
}

std::string CloudRequester::Log() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  std::string lines;
  for (const std::string& line : m_log) lines += "  " + line + "\n";
  return lines;
}

CloudRequester::Number CloudRequester::addRequest() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_requests[++m_last];
  return m_last;
}

void CloudRequester::publish(const std::string& topic, const std::string& payload, Number request) {
  const std::string correlation = std::to_string(request);
  Properties properties;
  check(
      mosquitto_property_add_string(properties.Add(), MQTT_PROP_RESPONSE_TOPIC, m_answers.c_str()),
      "response topic");
  check(mosquitto_property_add_binary(properties.Add(), MQTT_PROP_CORRELATION_DATA,
                                      correlation.data(),
                                      static_cast<std::uint16_t>(correlation.size())),
        "correlation data");
  const int result =
      mosquitto_publish_v5(m_client.get(), nullptr, topic.c_str(), static_cast<int>(payload.size()),
                           payload.data(), kQos, false, properties.Get());
  // Without a connection it is kept until there is one.
  const bool isTaken = result == MOSQ_ERR_SUCCESS || result == MOSQ_ERR_NO_CONN ||
                       result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
  if (!isTaken) check(result, "publish");
}

void CloudRequester::take(Number request, std::string answer) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const bool isCancelled = m_cancelled.count(request) != 0;
  if (isCancelled && answer.find("not answered in time") != std::string::npos) {
    m_tally.Mismatch("a cancelled request is answered: " + answer);
  }
  const auto waiting = m_requests.find(request);
  const auto ended = m_ended.find(request);
  if (waiting != m_requests.end() && !waiting->second) {
    waiting->second = std::move(answer);
    m_changed.notify_all();
  } else if (waiting != m_requests.end() || ended != m_ended.end()) {
    const std::string& first = waiting != m_requests.end() ? *waiting->second : ended->second;
    if (answer != first) {
      m_tally.Mismatch("a request is answered with " + first + " and with " + answer);
    }
    ++m_tally.repeated;
  } else if (!isCancelled) {
    m_tally.Mismatch("an answer to request " + std::to_string(request) + " comes too late");
  }
}

void CloudRequester::onConnect(mosquitto* client, void* rawSelf, int reason, int flags,
                               const mosquitto_property* /*properties*/) {
  constexpr int kSessionPresent = 1;
  if (reason != 0) return;
  auto* const self = static_cast<CloudRequester*>(rawSelf);
  if ((flags & kSessionPresent) != 0) return;
  {
    const std::lock_guard<std::mutex> lock(self->m_mutex);
    if (self->m_subscribed) self->m_tally.Mismatch("the broker has forgotten a session");
  }
  mosquitto_subscribe(client, nullptr, self->m_answers.c_str(), kQos);
}

void CloudRequester::onLog(mosquitto* /*client*/, void* rawSelf, int /*level*/, const char* text) {
  auto* const self = static_cast<CloudRequester*>(rawSelf);
  const std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_log.emplace_back(text);
  if (self->m_log.size() > kLinesKept) self->m_log.pop_front();
}

void CloudRequester::onSubscribe(mosquitto* /*client*/, void* rawSelf, int /*id*/, int /*count*/,
                                 const int* /*granted*/) {
  auto* const self = static_cast<CloudRequester*>(rawSelf);
  const std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_subscribed = true;
  self->m_changed.notify_all();
}

void CloudRequester::onMessage(mosquitto* /*client*/, void* rawSelf,
                               const mosquitto_message* message,
                               const mosquitto_property* properties) {
  void* data = nullptr;
  std::uint16_t size = 0;
  mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false);
  const std::string correlation(static_cast<const char*>(data), size);
  std::free(data);  // the MQTT library allocates with malloc
  Number request = 0;
  std::from_chars(correlation.data(), correlation.data() + correlation.size(), request);
  static_cast<CloudRequester*>(rawSelf)->take(
      request, std::string(static_cast<const char*>(message->payload),
                           static_cast<std::size_t>(message->payloadlen)));
}

}  // namespace Soak
