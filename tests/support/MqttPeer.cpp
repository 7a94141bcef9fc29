#include "MqttPeer.h"

#include <mqtt_protocol.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

constexpr std::chrono::seconds kPatience(60);
constexpr int kKeepAliveSeconds = 60;
constexpr int kSessionSeconds = 3600;
constexpr int kReceiveMaximum = 65535;
constexpr int kFirstReasonOfFailure = 0x80;

// A list of MQTT properties, freed with the object.
class Properties {
 public:
  Properties() = default;
  ~Properties() { mosquitto_property_free_all(&m_list); }
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;

  const mosquitto_property* Get() const { return m_list; }
  mosquitto_property** Add() { return &m_list; }

 private:
  mosquitto_property* m_list = nullptr;
};

std::string readCorrelation(const mosquitto_property* properties) {
  void* data = nullptr;
  std::uint16_t size = 0;
  mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false);
  const std::unique_ptr<void, void (*)(void*)> owner(data, std::free);
  return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
}

void check(int result, const char* what) {
  if (result != MOSQ_ERR_SUCCESS) {
    throw std::runtime_error(std::string(what) + ": " + mosquitto_strerror(result));
  }
}

// libmosquitto's functions cannot be left by an exception.
template <typename Handler, typename... Arguments>
void call(const Handler& handler, const Arguments&... arguments) {
  if (!handler) return;
  try {
    handler(arguments...);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "a client of the broker: %s\n", error.what());
  }
}

}  // namespace

MqttPeer::MqttPeer(int port, Options options, OnMessage onMessage)
    : m_options(std::move(options)), m_onMessage(std::move(onMessage)) {
  static const int initialised = mosquitto_lib_init();
  check(initialised, "MQTT library");
  setUp(port);
  m_wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_wakeup < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  m_thread = std::thread([this] { run(); });
  if (!waitFor([this] { return m_ready; })) {
    stop();
    throw std::runtime_error("a client of the broker cannot connect or subscribe");
  }
}

void MqttPeer::Publish(Publication publication) {
  const bool isOwnThread = std::this_thread::get_id() == m_threadId;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (publication.qos > 0) ++m_unpublished;
    if (!isOwnThread) m_waiting.push_back(std::move(publication));
  }
  isOwnThread ? publish(publication) : wake();
}

void MqttPeer::setUp(int port) {
  const bool lasts = !m_options.id.empty();
  m_client.reset(mosquitto_new(lasts ? m_options.id.c_str() : nullptr, !lasts, this));
  if (!m_client) throw std::runtime_error("no MQTT client");
  mosquitto* const client = m_client.get();
  check(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
  check(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
  // The broker sends more at once than it is told to when QoS 1 and QoS 2 are mixed.
  check(mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, kReceiveMaximum), "maximum");
  if (!m_options.user.empty()) {
    check(mosquitto_username_pw_set(client, m_options.user.c_str(), m_options.password.c_str()),
          "credentials");
  }
  mosquitto_connect_v5_callback_set(
      client, [](mosquitto*, void* self, int reason, int flags, const mosquitto_property*) {
        constexpr int kSessionPresent = 1;
        if (reason == 0) static_cast<MqttPeer*>(self)->onConnect((flags & kSessionPresent) != 0);
      });
  mosquitto_subscribe_callback_set(
      client, [](mosquitto*, void* self, int, int count, const int* granted) {
        const auto isRefused = [](int reason) { return reason >= kFirstReasonOfFailure; };
        if (std::none_of(granted, granted + count, isRefused)) {
          static_cast<MqttPeer*>(self)->onSubscribed();
        }
      });
  mosquitto_publish_v5_callback_set(
      client, [](mosquitto*, void* self, int id, int, const mosquitto_property*) {
        static_cast<MqttPeer*>(self)->onAcknowledged(id);
      });
  mosquitto_message_v5_callback_set(client,
                                    [](mosquitto*, void* self, const mosquitto_message* message,
                                       const mosquitto_property* properties) {
                                      static_cast<MqttPeer*>(self)->onMessage(*message, properties);
                                    });
  Properties properties;
  if (lasts) {
    check(mosquitto_property_add_int32(properties.Add(), MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                       kSessionSeconds),
          "session expiry");
  }
  check(mosquitto_connect_bind_v5(client, "127.0.0.1", port, kKeepAliveSeconds, nullptr,
                                  properties.Get()),
        "broker");
}

void MqttPeer::run() {
  constexpr int kReconnectMs = 50;
  constexpr int kMiscMs = 1000;
  m_threadId = std::this_thread::get_id();
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);  // no SIGPIPE from a broker that ends
  mosquitto* const client = m_client.get();
  while (publishWaiting()) {
    const bool connected = mosquitto_socket(client) >= 0;
    const int events = mosquitto_want_write(client) ? POLLIN | POLLOUT : POLLIN;
    std::array<pollfd, 2> descriptors{
        {{m_wakeup, POLLIN, 0}, {mosquitto_socket(client), static_cast<short>(events), 0}}};
    poll(descriptors.data(), descriptors.size(), connected ? kMiscMs : kReconnectMs);
    eventfd_t count = 0;
    static_cast<void>(eventfd_read(m_wakeup, &count));  // fails when nobody woke it
    const int happened = descriptors[1].revents;
    if (!connected) {
      mosquitto_reconnect(client);
    } else {
      if ((happened & ~POLLOUT) != 0) mosquitto_loop_read(client, 1);
      if ((happened & POLLOUT) != 0) mosquitto_loop_write(client, 1);
      mosquitto_loop_misc(client);
    }
  }
  mosquitto_disconnect(client);
}

bool MqttPeer::publishWaiting() {
  std::vector<Publication> waiting;
  bool goesOn = false;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    waiting.swap(m_waiting);
    goesOn = !m_stopped;
  }
  for (const Publication& publication : waiting) publish(publication);
  return goesOn;
}

void MqttPeer::publish(const Publication& publication) {
  Properties properties;
  if (!publication.responseTopic.empty()) {
    check(mosquitto_property_add_string(properties.Add(), MQTT_PROP_RESPONSE_TOPIC,
                                        publication.responseTopic.c_str()),
          "response topic");
  }
  const std::string& correlation = publication.correlation;
  if (!correlation.empty()) {
    check(mosquitto_property_add_binary(properties.Add(), MQTT_PROP_CORRELATION_DATA,
                                        correlation.data(),
                                        static_cast<std::uint16_t>(correlation.size())),
          "correlation data");
  }
  for (const auto& [name, value] : publication.userProperties) {
    check(mosquitto_property_add_string_pair(properties.Add(), MQTT_PROP_USER_PROPERTY,
                                             name.c_str(), value.c_str()),
          "user property");
  }
  int id = 0;
  const int result = mosquitto_publish_v5(
      m_client.get(), &id, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
      publication.payload.data(), publication.qos, publication.retain, properties.Get());
  // Without a connection, or when that breaks just now, it is kept until there is one.
  const bool isKept =
      result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
  if (!isKept) check(result, "publish");
  if (publication.qos > 0) m_unconfirmed.insert(id);
}

bool MqttPeer::waitFor(const std::function<bool()>& condition) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, kPatience, condition);
}

// Cannot fail in a way that matters: the counter is full when the thread is woken already.
void MqttPeer::wake() const {
  static_cast<void>(eventfd_write(m_wakeup, 1));
}

void MqttPeer::stop() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
  }
  wake();
  m_thread.join();
  close(m_wakeup);
}

void MqttPeer::onConnect(bool sessionPresent) {
  call(m_options.onConnected, sessionPresent);
  if (m_options.filters.empty()) return onSubscribed();
  std::vector<std::string> filters = m_options.filters;
  std::vector<char*> pointers;
  for (std::string& filter : filters) pointers.push_back(filter.data());
  int options =
      m_options.wantsRetained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS : MQTT_SUB_OPT_SEND_RETAIN_NEVER;
  if (m_options.retainsAsPublished) options |= MQTT_SUB_OPT_RETAIN_AS_PUBLISHED;
  mosquitto_subscribe_multiple(m_client.get(), nullptr, static_cast<int>(pointers.size()),
                               pointers.data(), m_options.qos, options, nullptr);
}

void MqttPeer::onSubscribed() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_ready = true;
  m_changed.notify_all();
}

void MqttPeer::onAcknowledged(int id) {
  if (m_unconfirmed.erase(id) == 0) return;
  const std::lock_guard<std::mutex> lock(m_mutex);
  --m_unpublished;
  m_changed.notify_all();
}

void MqttPeer::onMessage(const mosquitto_message& message,
                         const mosquitto_property* properties) const {
  const auto size = static_cast<std::size_t>(message.payloadlen);
  call(m_onMessage,
       Message{message.topic, std::string_view(static_cast<const char*>(message.payload), size),
               readCorrelation(properties), message.retain, message.qos, properties});
}
