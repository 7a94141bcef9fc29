#include "Requester.h"

#include <mqtt_protocol.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace {

constexpr const char* kAnswers = "answers/";
constexpr const char* kMarks = "answers/mark";

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

struct Free {
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
  void operator()(void* memory) const { std::free(memory); }
};

std::string readCorrelation(const mosquitto_property* properties) {
  void* data = nullptr;
  std::uint16_t size = 0;
  mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &size, false);
  const std::unique_ptr<void, Free> owner(data);
  return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), size);
}

void check(int result) {
  if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error(mosquitto_strerror(result));
}

std::string uniqueName() {
  static std::atomic<int> last{0};
  return "requester-" + std::to_string(getpid()) + "-" + std::to_string(++last);
}

}  // namespace

Requester::Requester(int port, std::string thing, std::string service)
    : m_thing("things/" + std::move(thing) + "/"), m_service(m_thing + std::move(service) + "/") {
  static const int initialised = mosquitto_lib_init();
  check(initialised);
  setUp(port);
  m_thread = std::thread([this] { run(); });
  if (!m_subscriptions.WaitFor([](int count) { return count >= 2; })) {
    std::abort();  // there is no test without it
  }
}

Requester::~Requester() {
  m_stopped = true;
  m_wakeup.Signal();
  m_thread.join();
}

void Requester::setUp(int port) {
  m_client.reset(mosquitto_new(uniqueName().c_str(), false, this));
  mosquitto* const client = m_client.get();
  check(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5));
  check(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1));
  // The broker sends more at once than it is told to when QoS 1 and QoS 2 are mixed.
  check(mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, 65535));
  mosquitto_connect_v5_callback_set(client, [](mosquitto* self, void*, int, int,
                                               const mosquitto_property*) {
    for (const char* filter : {"things/#", "answers/#"}) {
      mosquitto_subscribe_v5(self, nullptr, filter, 2, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS, nullptr);
    }
  });
  mosquitto_subscribe_callback_set(client, [](mosquitto*, void* self, int, int, const int*) {
    static_cast<Requester*>(self)->m_subscriptions.Change([](int& count) { ++count; });
  });
  mosquitto_publish_v5_callback_set(
      client, [](mosquitto*, void* self, int id, int, const mosquitto_property*) {
        static_cast<Requester*>(self)->onAcknowledged(id);
      });
  mosquitto_message_v5_callback_set(
      client, [](mosquitto*, void* self, const mosquitto_message* message,
                 const mosquitto_property* properties) {
        static_cast<Requester*>(self)->onMessage(*message, properties);
      });
  Properties properties;
  check(mosquitto_property_add_int32(properties.Add(), MQTT_PROP_SESSION_EXPIRY_INTERVAL, 3600));
  check(mosquitto_connect_bind_v5(client, "127.0.0.1", port, 60, nullptr, properties.Get()));
}

void Requester::run() {
  constexpr int kReconnectMs = 50;
  constexpr int kMiscMs = 1000;
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);  // no SIGPIPE from a broker that ends
  mosquitto* const client = m_client.get();
  while (!m_stopped) {
    std::vector<Publication> publications;
    m_publications.Change([&](auto& waiting) { publications.swap(waiting); });
    for (const Publication& publication : publications) publish(publication);

    const bool connected = mosquitto_socket(client) >= 0;
    const int events = mosquitto_want_write(client) ? POLLIN | POLLOUT : POLLIN;
    std::array<pollfd, 2> descriptors{{{m_wakeup.Descriptor(), POLLIN, 0},
                                       {mosquitto_socket(client), static_cast<short>(events), 0}}};
    poll(descriptors.data(), descriptors.size(), connected ? kMiscMs : kReconnectMs);
    m_wakeup.Clear();
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

void Requester::publish(const Publication& publication) {
  const Options& options = publication.options;
  Properties properties;
  if (!options.responseTopic.empty()) {
    check(mosquitto_property_add_string(properties.Add(), MQTT_PROP_RESPONSE_TOPIC,
                                        options.responseTopic.c_str()));
  }
  if (!options.correlation.empty()) {
    check(mosquitto_property_add_binary(properties.Add(), MQTT_PROP_CORRELATION_DATA,
                                        options.correlation.data(),
                                        static_cast<std::uint16_t>(options.correlation.size())));
  }
  int id = 0;
  const int result = mosquitto_publish_v5(
      m_client.get(), &id, publication.topic.c_str(), static_cast<int>(publication.payload.size()),
      publication.payload.data(), options.qos, options.retain, properties.Get());
  // Without a connection, or when that breaks just now, it is kept until there is one.
  const bool isKept =
      result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_ERRNO;
  if (!isKept) check(result);
  if (options.qos > 0) m_unacknowledged.insert(id);
}

void Requester::onAcknowledged(int id) {
  if (m_unacknowledged.erase(id) == 0) return;
  m_unpublished.Change([](std::size_t& count) { --count; });
}

void Requester::onMessage(const mosquitto_message& message, const mosquitto_property* properties) {
  const auto size = static_cast<std::size_t>(message.payloadlen);
  Message copy{message.topic, std::string(static_cast<char*>(message.payload), size),
               readCorrelation(properties), message.retain};
  m_messages.Change([&](auto& messages) { messages.push_back(std::move(copy)); });
}

void Requester::Publish(const std::string& topic, const std::string& payload,
                        const Options& options) {
  if (options.qos > 0) m_unpublished.Change([](std::size_t& count) { ++count; });
  m_publications.Change([&](auto& publications) {
    publications.push_back({topic, payload, options});
  });
  m_wakeup.Signal();
}

bool Requester::WaitUntilPublished() {
  return m_unpublished.WaitFor([](std::size_t count) { return count == 0; });
}

std::string Requester::Request(const std::string& operation, const std::string& payload) {
  const std::string correlation = Send(operation, payload);
  if (!WaitForAnswer(correlation, {})) return "no answer";
  return AnswersTo(correlation).front();
}

std::string Requester::Send(const std::string& operation, const std::string& payload) {
  Options options;
  options.correlation = std::to_string(++m_lastRequest);
  options.responseTopic = kAnswers + operation;
  Publish(Topic(operation), payload, options);
  return options.correlation;
}

bool Requester::WaitForAnswer(const std::string& correlation, const std::string& answer) {
  return WaitFor([&](const auto& messages) {
    for (const Message& message : messages) {
      const bool isAnswer =
          message.topic.rfind(kAnswers, 0) == 0 && message.correlation == correlation;
      if (isAnswer && (answer.empty() || message.payload == answer)) return true;
    }
    return false;
  });
}

std::vector<std::string> Requester::AnswersTo(const std::string& correlation) const {
  std::vector<std::string> answers;
  for (const Message& message : m_messages.Get()) {
    if (message.topic.rfind(kAnswers, 0) == 0 && message.correlation == correlation) {
      answers.push_back(message.payload);
    }
  }
  return answers;
}

std::vector<std::string> Requester::PayloadsOn(const std::string& topic) const {
  std::vector<std::string> payloads;
  for (const Message& message : m_messages.Get()) {
    if (message.topic == topic) payloads.push_back(message.payload);
  }
  return payloads;
}

bool Requester::WaitForLast(const std::string& topic, const std::string& payload) {
  return WaitFor([&](const auto& messages) {
    for (auto message = messages.rbegin(); message != messages.rend(); ++message) {
      if (message->topic == topic) return message->payload == payload;
    }
    return false;
  });
}

bool Requester::WaitFor(const std::function<bool(const std::vector<Message>&)>& condition) {
  return m_messages.WaitFor(condition);
}

bool Requester::CatchUp() {
  const std::string mark = uniqueName();
  Publish(kMarks, mark, {});
  return WaitForLast(kMarks, mark);
}

std::map<std::string, std::string> Requester::Retained(int port, const std::string& filter) {
  Requester client(port);
  client.CatchUp();
  std::map<std::string, std::string> retained;
  for (const Message& message : client.m_messages.Get()) {
    bool matches = false;
    mosquitto_topic_matches_sub(filter.c_str(), message.topic.c_str(), &matches);
    if (matches && message.retained) retained[message.topic] = message.payload;
  }
  return retained;
}
