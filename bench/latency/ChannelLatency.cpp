// Times through the whole channel, one message at a time:
//
//     ./dev run -- build/release/bench/latency/channel-latency [COUNT]
//
//   set at the broker -> send_event   from the cloud's publish to the signal at the application
//   send_data -> value at the broker  from the application's call to the value at the cloud
//
// Application and cloud are this process, with a connection of its own each, so that one clock
// serves for both ends. Prints the median, the 99th percentile and the longest of COUNT (1,000)
// in microseconds, after a tenth of that to warm up. Ends with 1 when a message does not arrive.
#include <gio/gio.h>
#include <mosquitto.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::chrono::seconds kLimit(10);
constexpr int kKeepAliveSeconds = 60;
constexpr const char* kApp = "qz";
constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kInterface = "org.tizen.qivo_thing.service";

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};
using BusPtr = std::unique_ptr<GDBusConnection, Deleter<g_object_unref>>;
using MessagePtr = std::unique_ptr<GDBusMessage, Deleter<g_object_unref>>;
using VariantPtr = std::unique_ptr<GVariant, Deleter<g_variant_unref>>;
using MosquittoPtr = std::unique_ptr<mosquitto, Deleter<mosquitto_destroy>>;

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr) {
    throw std::runtime_error(std::string(name) + " is not set: start this with ./dev run --");
  }
  return value;
}

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

// The text that is waited for, and when it came. Any thread.
class Arrival {
 public:
  void Expect(const std::string& text) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_expected = text;
    m_time.reset();
  }
  void Arrived(std::string_view text) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_time || text != m_expected) return;
    m_time = now;
    m_changed.notify_all();
  }
  Clock::time_point Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    require(m_changed.wait_for(lock, kLimit, [this] { return m_time.has_value(); }),
            "a message did not arrive");
    return *m_time;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::string m_expected;                   // guarded by m_mutex
  std::optional<Clock::time_point> m_time;  // guarded by m_mutex
};

// The application. Events arrive on GDBus's own thread, as early as GDBus has them.
class Application {
 public:
  explicit Application(Arrival& events) {
    m_bus.reset(g_dbus_connection_new_for_address_sync(
        environment("DBUS_SYSTEM_BUS_ADDRESS").c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
    require(m_bus != nullptr, "the message bus cannot be reached");
    g_dbus_connection_signal_subscribe(m_bus.get(), kBusName, kInterface, "send_event", kObjectPath,
                                       kApp, G_DBUS_SIGNAL_FLAGS_NONE, &Application::ignore,
                                       nullptr, nullptr);
    m_filter =
        g_dbus_connection_add_filter(m_bus.get(), &Application::on_message, &events, nullptr);
    call("register_app");
  }
  ~Application() {
    try {
      call("unregister_app");
    } catch (const std::exception& error) {
      std::fprintf(stderr, "channel-latency: %s\n", error.what());
    }
    g_dbus_connection_remove_filter(m_bus.get(), m_filter);
    g_dbus_connection_close_sync(m_bus.get(), nullptr, nullptr);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Returns once the message is queued; nobody waits for the reply.
  void SendData(const std::string& data) {
    const MessagePtr message(
        g_dbus_message_new_method_call(kBusName, kObjectPath, kInterface, "send_data"));
    g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    g_dbus_message_set_body(message.get(), g_variant_new("(ss)", kApp, data.c_str()));
    require(
        g_dbus_connection_send_message(m_bus.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                       nullptr, nullptr) != FALSE,
        "send_data cannot be sent");
  }

 private:
  void call(const char* method) {
    const VariantPtr reply(g_dbus_connection_call_sync(
        m_bus.get(), kBusName, kObjectPath, kInterface, method, g_variant_new("(s)", kApp),
        G_VARIANT_TYPE("(i)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    int result = -1;
    if (reply) g_variant_get(reply.get(), "(i)", &result);
    require(result == 0, method);
  }

  static void ignore(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                     const char* /*interface*/, const char* /*signal*/, GVariant* /*parameters*/,
                     gpointer /*userData*/) {}

  static GDBusMessage* on_message(GDBusConnection* /*bus*/, GDBusMessage* message,
                                  gboolean incoming, gpointer events) {
    GVariant* const body = g_dbus_message_get_body(message);
    if (incoming != FALSE && g_strcmp0(g_dbus_message_get_member(message), "send_event") == 0 &&
        body != nullptr) {
      const char* data = nullptr;
      g_variant_get(body, "(&s&s)", nullptr, &data);
      static_cast<Arrival*>(events)->Arrived(data);
    }
    return message;
  }

  BusPtr m_bus;
  guint m_filter = 0;
};

// The cloud. Values arrive on libmosquitto's thread.
class Cloud {
 public:
  explicit Cloud(Arrival& values)
      : m_service("things/" + environment("LUMO_THING_ID") + "/appdatachannel/"), m_values(values) {
    const std::string broker = environment("LUMO_BROKER");
    const std::size_t hostStart = std::string_view("mqtt://").size();
    const std::size_t colon = broker.rfind(':');
    require(broker.rfind("mqtt://", 0) == 0 && colon > hostStart, "LUMO_BROKER is not understood");

    m_client.reset(mosquitto_new(nullptr, true, this));
    require(m_client != nullptr, "no MQTT client");
    mosquitto_int_option(m_client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m_client.get(), MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_client.get(), &Cloud::on_connect);
    mosquitto_subscribe_callback_set(m_client.get(), &Cloud::on_subscribe);
    mosquitto_message_callback_set(m_client.get(), &Cloud::on_message);
    m_values.Expect("subscribed");
    const std::string host = broker.substr(hostStart, colon - hostStart);
    require(mosquitto_connect(m_client.get(), host.c_str(), std::stoi(broker.substr(colon + 1)),
                              kKeepAliveSeconds) == MOSQ_ERR_SUCCESS,
            "the broker cannot be reached");
    require(mosquitto_loop_start(m_client.get()) == MOSQ_ERR_SUCCESS, "no thread for the client");
    m_values.Wait();
  }
  ~Cloud() {
    mosquitto_disconnect(m_client.get());
    mosquitto_loop_stop(m_client.get(), false);
  }
  Cloud(const Cloud&) = delete;
  Cloud& operator=(const Cloud&) = delete;

  void Set(const std::string& data, int qos) {
    const std::string payload = std::string(R"({")") + kApp + R"(":")" + data + R"("})";
    require(mosquitto_publish(m_client.get(), nullptr, (m_service + "set").c_str(),
                              static_cast<int>(payload.size()), payload.data(), qos,
                              false) == MOSQ_ERR_SUCCESS,
            "set cannot be published");
  }

 private:
  static void on_connect(mosquitto* client, void* cloud, int result) {
    const std::string topic = static_cast<Cloud*>(cloud)->m_service + "value/" + kApp;
    if (result == 0) mosquitto_subscribe(client, nullptr, topic.c_str(), 2);
  }
  static void on_subscribe(mosquitto* /*client*/, void* cloud, int /*id*/, int /*count*/,
                           const int* /*granted*/) {
    static_cast<Cloud*>(cloud)->m_values.Arrived("subscribed");
  }
  static void on_message(mosquitto* /*client*/, void* cloud, const mosquitto_message* message) {
    const std::string_view text(static_cast<const char*>(message->payload),
                                static_cast<std::size_t>(message->payloadlen));
    if (text.size() < 2) return;  // the retained value was cleared
    static_cast<Cloud*>(cloud)->m_values.Arrived(text.substr(1, text.size() - 2));
  }

  const std::string m_service;  // the topics' first part
  Arrival& m_values;
  MosquittoPtr m_client;
};

// Sends numbered texts one after the other, each when the one before it has arrived.
void measure(const char* what, std::size_t count, Arrival& arrival,
             const std::function<void(const std::string&)>& send) {
  std::vector<double> times;
  for (std::size_t i = 0; i < count + count / 10; ++i) {
    const std::string text = what + std::to_string(i);
    arrival.Expect(text);
    const Clock::time_point start = Clock::now();
    send(text);
    const Microseconds time = arrival.Wait() - start;
    if (i >= count / 10) times.push_back(time.count());
  }
  std::sort(times.begin(), times.end());
  const std::size_t percentile99 = (times.size() * 99 + 99) / 100 - 1;
  std::printf("%-38s %8.0f %8.0f %8.0f\n", what, times[times.size() / 2], times[percentile99],
              times.back());
}

std::size_t parseCount(int argc, char** argv) {
  std::size_t count = 1000;
  if (argc > 2) throw std::runtime_error("usage: channel-latency [COUNT]");
  if (argc == 2) {
    const char* const end = argv[1] + std::strlen(argv[1]);
    const auto [rest, error] = std::from_chars(argv[1], end, count);
    require(error == std::errc() && rest == end && count >= 1 && count <= 1000000,
            "COUNT is a number from 1 to 1000000");
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::size_t count = parseCount(argc, argv);
    mosquitto_lib_init();
    {
      Arrival events;
      Arrival values;
      Application application(events);
      Cloud cloud(values);
      std::printf("%-38s %8s %8s %8s\n", "us, one at a time", "median", "p99", "longest");
      measure("set at QoS 1 -> send_event", count, events,
              [&cloud](const std::string& text) { cloud.Set(text, 1); });
      measure("set at QoS 2 -> send_event", count, events,
              [&cloud](const std::string& text) { cloud.Set(text, 2); });
      measure("send_data -> value at the broker", count, values,
              [&application](const std::string& text) { application.SendData(text); });
    }
    mosquitto_lib_cleanup();
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
