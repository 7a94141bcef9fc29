#include "mqtt/MqttClient.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>

#include "dlog.h"

namespace Lumo {
namespace {

constexpr int kKeepAliveSeconds = 30;
constexpr std::uint32_t kSessionExpirySeconds = 24 * 60 * 60;
// One QoS 1 or 2 message on its way to us at a time: see CloudLink about why. No limit of a
// packet's size goes with it: a broker that drops a packet for its size may count it as on its way
// for ever, and then no other comes.
constexpr int kReceiveMaximum = 1;
constexpr int kPublishQos = 1;
constexpr const char* kSystemAuthorities = "/etc/ssl/certs";
constexpr int kFirstReasonOfFailure = 0x80;

// A list of MQTT properties.
class MqttProperties {
 public:
  MqttProperties() = default;
  ~MqttProperties() { mosquitto_property_free_all(&m_list); }
  MqttProperties(const MqttProperties&) = delete;
  MqttProperties& operator=(const MqttProperties&) = delete;

  const mosquitto_property* Get() const { return m_list; }
  void AddNumber(int identifier, std::uint32_t value) {
    check(mosquitto_property_add_int32(&m_list, identifier, value));
  }
  void AddBinary(int identifier, std::string_view value) {
    check(mosquitto_property_add_binary(&m_list, identifier, value.data(),
                                        static_cast<std::uint16_t>(value.size())));
  }

 private:
  static void check(int result) {
    if (result != MOSQ_ERR_SUCCESS) throw std::bad_alloc();
  }

  mosquitto_property* m_list = nullptr;
};

struct Free {
  // The MQTT library allocates with malloc.
  void operator()(void* memory) const {
    std::free(memory);  // NOLINT(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
  }
};

std::string readText(const mosquitto_property* properties, int identifier) {
  char* text = nullptr;
  mosquitto_property_read_string(properties, identifier, &text, false);
  const std::unique_ptr<char, Free> owner(text);
  return text == nullptr ? std::string() : std::string(text);
}

std::string readBinary(const mosquitto_property* properties, int identifier) {
  void* data = nullptr;
  std::uint16_t length = 0;
  mosquitto_property_read_binary(properties, identifier, &data, &length, false);
  const std::unique_ptr<void, Free> owner(data);
  return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), length);
}

// Reasons of the protocol and results of the library share one range of numbers.
std::string describe(int resultOrReason) {
  if (resultOrReason >= kFirstReasonOfFailure) return mosquitto_reason_string(resultOrReason);
  if (resultOrReason == MOSQ_ERR_ERRNO) return std::generic_category().message(errno);
  return mosquitto_strerror(resultOrReason);
}

// No exception may get into the MQTT library, which is C.
template <typename Body>
void catchAll(const Body& body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    dlog_print(6, "LUMO", "mqtt: %s\n", e.what());
  } catch (...) {
    dlog_print(6, "LUMO", "mqtt: unknown exception\n");
  }
}

// Instead of the library's own, which asks on the terminal.
int noKeyPassword(char*, int, int, void*) {
  return 0;
}

std::mutex g_libraryMutex;  // its initialisation is not thread-safe

}  // namespace

MqttClient::LibraryUse::LibraryUse() {
  std::lock_guard<std::mutex> lock(g_libraryMutex);
  mosquitto_lib_init();
}

MqttClient::LibraryUse::~LibraryUse() {
  std::lock_guard<std::mutex> lock(g_libraryMutex);
  mosquitto_lib_cleanup();
}

void MqttClient::Destroy::operator()(mosquitto* client) const {
  mosquitto_destroy(client);
}

MqttClient::MqttClient(const BrokerSettings& broker, const std::string& clientId,
                       const std::string& willTopic, std::string_view will, Listener& listener)
    : m_host(broker.host),
      m_port(broker.port),
      m_listener(listener),
      m_client(mosquitto_new(clientId.c_str(), false, this)) {
  if (!m_client) throw std::bad_alloc();
  mosquitto* const client = m_client.get();
  // With this, packets are written by Work only. Or else the library writes at once and, when the
  // connection breaks just then, drops the message whose release it wanted to confirm.
  mosquitto_threaded_set(client, true);
  mosquitto_log_callback_set(client, onLog);
  mosquitto_connect_v5_callback_set(client, onConnect);
  mosquitto_disconnect_v5_callback_set(client, onDisconnect);
  mosquitto_publish_v5_callback_set(client, onPublish);
  mosquitto_subscribe_callback_set(client, onSubscribe);
  mosquitto_unsubscribe_callback_set(client, onUnsubscribe);
  mosquitto_message_v5_callback_set(
      client, [](mosquitto*, void* self, const mosquitto_message* message,
                 const mosquitto_property* properties) {
        catchAll([&] {
          const auto size = static_cast<std::size_t>(message->payloadlen);
          static_cast<MqttClient*>(self)->m_listener.OnMessage(
              {message->topic,
               {static_cast<const char*>(message->payload), size},
               message->qos,
               message->retain,
               readText(properties, MQTT_PROP_RESPONSE_TOPIC),
               readBinary(properties, MQTT_PROP_CORRELATION_DATA)});
        });
      });

  const bool set =
      succeeded(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5)) &&
      succeeded(mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, kReceiveMaximum)) &&
      succeeded(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1)) &&
      succeeded(mosquitto_will_set_v5(client, willTopic.c_str(), static_cast<int>(will.size()),
                                      will.data(), kPublishQos, true, nullptr)) &&
      (broker.user.empty() || succeeded(mosquitto_username_pw_set(
                                  client, broker.user.c_str(),
                                  broker.password.empty() ? nullptr : broker.password.c_str())));
  if (!set) throw std::runtime_error(m_lastError);
  if (broker.tls) setUpTls(broker);

  // The library takes the properties of a CONNECT only with the call that waits for the network.
  // This one fails at once, as nobody can listen at that path, and what it was given stays.
  MqttProperties properties;
  properties.AddNumber(MQTT_PROP_SESSION_EXPIRY_INTERVAL, kSessionExpirySeconds);
  static_cast<void>(
      mosquitto_connect_bind_v5(client, "/", 0, kKeepAliveSeconds, nullptr, properties.Get()));
}

MqttClient::~MqttClient() = default;

void MqttClient::setUpTls(const BrokerSettings& broker) {
  constexpr int kVerifyPeer = 1;
  const auto orNull = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
  const bool set =
      succeeded(mosquitto_tls_set(m_client.get(), orNull(broker.authorityFile),
                                  broker.authorityFile.empty() ? kSystemAuthorities : nullptr,
                                  orNull(broker.certificateFile), orNull(broker.keyFile),
                                  noKeyPassword)) &&
      succeeded(mosquitto_tls_opts_set(m_client.get(), kVerifyPeer, nullptr, nullptr)) &&
      succeeded(mosquitto_tls_insecure_set(m_client.get(), false));
  if (!set) throw std::runtime_error("TLS: " + m_lastError);
}

void MqttClient::Connect(Family family) {
  // Binding to "any IPv4 address" leaves the broker's IPv4 addresses only.
  const char* const bindAddress = family == Family::Ipv4 ? "0.0.0.0" : nullptr;
  m_lastError.clear();
  m_protocolFailed = false;
  succeeded(mosquitto_connect_bind_async(m_client.get(), m_host.c_str(), m_port, kKeepAliveSeconds,
                                         bindAddress));
}

int MqttClient::Socket() const {
  return mosquitto_socket(m_client.get());
}

bool MqttClient::WantsToWrite() const {
  return mosquitto_want_write(m_client.get());
}

void MqttClient::Work(short events) {
  // A socket in error is read, which tells the error.
  const bool readable = (events & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) != 0;
  const bool writable = (events & POLLOUT) != 0;
  if (readable && !succeeded(mosquitto_loop_read(m_client.get(), 1))) return;
  // What was read may want an answer, which need not wait for another poll.
  const bool mayWrite = Socket() >= 0 && (writable || (readable && WantsToWrite()));
  if (mayWrite && !succeeded(mosquitto_loop_write(m_client.get(), 1))) return;
  if (Socket() >= 0) succeeded(mosquitto_loop_misc(m_client.get()));
}

int MqttClient::Publish(const Publication& publication) {
  MqttProperties properties;
  if (!publication.correlation.empty()) {
    properties.AddBinary(MQTT_PROP_CORRELATION_DATA, publication.correlation);
  }
  int id = -1;
  const int result = mosquitto_publish_v5(
      m_client.get(), &id, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
      publication.payload.data(), kPublishQos, publication.retain, properties.Get());
  // Without a connection, or when that breaks just now, it is kept until there is one.
  const bool isTaken = result == MOSQ_ERR_SUCCESS || result == MOSQ_ERR_NO_CONN ||
                       result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
  if (isTaken) return id;
  dlog_print(6, "LUMO", "cannot publish to %s: %s\n", publication.topic.c_str(),
             describe(result).c_str());
  return -1;
}

bool MqttClient::Subscribe(const std::string& filter, int qos, bool retained) {
  const int options = retained ? MQTT_SUB_OPT_SEND_RETAIN_ALWAYS
                               : MQTT_SUB_OPT_SEND_RETAIN_NEVER | MQTT_SUB_OPT_NO_LOCAL;
  return succeeded(
      mosquitto_subscribe_v5(m_client.get(), nullptr, filter.c_str(), qos, options, nullptr));
}

bool MqttClient::Unsubscribe(const std::string& filter) {
  return succeeded(mosquitto_unsubscribe(m_client.get(), nullptr, filter.c_str()));
}

void MqttClient::Disconnect() {
  succeeded(mosquitto_disconnect_v5(m_client.get(), 0, nullptr));
}

bool MqttClient::succeeded(int result) {
  if (result == MOSQ_ERR_SUCCESS) return true;
  m_protocolFailed = m_protocolFailed || result == MOSQ_ERR_PROTOCOL;
  // The reason that the broker gave, if it did, says more.
  if (m_lastError.empty()) m_lastError = describe(result);
  return false;
}

void MqttClient::onConnect(mosquitto*, void* self, int reason, int flags,
                           const mosquitto_property*) {
  constexpr int kSessionPresent = 1;
  auto* const client = static_cast<MqttClient*>(self);
  catchAll([&] {
    if (reason == 0) {
      client->m_listener.OnConnected((flags & kSessionPresent) != 0);
    } else {
      client->m_lastError = std::string("refused: ") + mosquitto_reason_string(reason);
    }
  });
}

void MqttClient::onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
  auto* const client = static_cast<MqttClient*>(self);
  catchAll([&] {
    if (client->m_lastError.empty()) client->m_lastError = describe(reason);
  });
}

void MqttClient::onPublish(mosquitto*, void* self, int id, int reason, const mosquitto_property*) {
  catchAll([&] {
    static_cast<MqttClient*>(self)->m_listener.OnAcknowledged(
        id, reason < kFirstReasonOfFailure ? nullptr : mosquitto_reason_string(reason));
  });
}

void MqttClient::onSubscribe(mosquitto*, void* self, int, int count, const int* granted) {
  for (int i = 0; i < count; ++i) {
    if (granted[i] < kFirstReasonOfFailure) continue;
    dlog_print(6, "LUMO", "the broker refuses a subscription: %s\n",
               mosquitto_reason_string(granted[i]));
  }
  catchAll([&] { static_cast<MqttClient*>(self)->m_listener.OnSubscribed(); });
}

void MqttClient::onUnsubscribe(mosquitto*, void* self, int) {
  catchAll([&] { static_cast<MqttClient*>(self)->m_listener.OnUnsubscribed(); });
}

void MqttClient::onLog(mosquitto*, void* self, int level, const char* text) {
  if (level == MOSQ_LOG_DEBUG) {
    // The library tells nowhere else that a message is half-way.
    const std::string_view line(text);
    const auto has = [line](const char* part) { return line.find(part) != std::string_view::npos; };
    auto* const client = static_cast<MqttClient*>(self);
    if (has(" sending PUBREC ")) client->m_messageIsHalfway = true;
    if (has(" received PUBREL ")) client->m_messageIsHalfway = false;
  }
  if ((level & (MOSQ_LOG_ERR | MOSQ_LOG_WARNING)) != 0) dlog_print(6, "LUMO", "mqtt: %s\n", text);
}

}  // namespace Lumo
