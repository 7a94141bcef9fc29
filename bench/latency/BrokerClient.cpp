#include "BrokerClient.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdio>
#include <exception>
#include <utility>

#include "Environment.h"

namespace Latency {
namespace {

constexpr int kKeepAliveSeconds = 60;
constexpr int kSubscriptionQos = 2;
constexpr int kFirstReasonOfFailure = 0x80;

void require(int result, const char* what) {
  Require(result == MOSQ_ERR_SUCCESS, std::string(what) + ": " + mosquitto_strerror(result));
}

}  // namespace

BrokerClient::LibraryUse::LibraryUse() {
  mosquitto_lib_init();
}

BrokerClient::LibraryUse::~LibraryUse() {
  mosquitto_lib_cleanup();
}

void BrokerClient::Destroy::operator()(mosquitto* client) const {
  mosquitto_destroy(client);
}

BrokerClient::BrokerClient(const std::vector<std::string>& topics, Handler handler)
    : m_topics(topics),
      m_handler(std::move(handler)),
      m_client(mosquitto_new(nullptr, true, this)) {
  const std::string broker = Environment("LUMO_BROKER");
  const std::size_t hostStart = std::string_view("mqtt://").size();
  const std::size_t colon = broker.rfind(':');
  Require(broker.rfind("mqtt://", 0) == 0 && colon > hostStart, "LUMO_BROKER is not understood");
  const std::string host = broker.substr(hostStart, colon - hostStart);
  const int port = std::stoi(broker.substr(colon + 1));

  mosquitto* const client = m_client.get();
  Require(client != nullptr, "no MQTT client");
  require(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "MQTT 5");
  require(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
  mosquitto_connect_callback_set(client, &BrokerClient::onConnect);
  mosquitto_subscribe_callback_set(client, &BrokerClient::onSubscribe);
  mosquitto_message_callback_set(client, &BrokerClient::onMessage);
  require(mosquitto_connect(client, host.c_str(), port, kKeepAliveSeconds), "the broker");
  require(mosquitto_loop_start(client), "a thread for the MQTT client");
  const bool ready = m_ready.get_future().wait_for(kLimit) == std::future_status::ready;
  if (!ready) mosquitto_loop_stop(client, true);
  Require(ready, "the broker does not answer");
}

BrokerClient::~BrokerClient() {
  mosquitto_disconnect(m_client.get());
  mosquitto_loop_stop(m_client.get(), false);
}

void BrokerClient::Publish(const std::string& topic, std::string_view payload, int qos,
                           bool retain) {
  require(mosquitto_publish(m_client.get(), nullptr, topic.c_str(),
                            static_cast<int>(payload.size()), payload.data(), qos, retain),
          "a message cannot be published");
}

void BrokerClient::onConnect(mosquitto* client, void* self, int result) {
  if (result != 0) return;
  auto* const broker = static_cast<BrokerClient*>(self);
  for (const std::string& topic : broker->m_topics) {
    mosquitto_subscribe_v5(client, nullptr, topic.c_str(), kSubscriptionQos,
                           MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
  }
  broker->noteAnswer();
}

void BrokerClient::onSubscribe(mosquitto* /*client*/, void* self, int /*id*/, int count,
                               const int* granted) {
  if (count == 1 && granted[0] < kFirstReasonOfFailure) {
    static_cast<BrokerClient*>(self)->noteAnswer();
  }
}

void BrokerClient::onMessage(mosquitto* /*client*/, void* self, const mosquitto_message* message) {
  try {
    static_cast<BrokerClient*>(self)->m_handler({static_cast<const char*>(message->payload),
                                                 static_cast<std::size_t>(message->payloadlen)});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
  }
}

void BrokerClient::noteAnswer() {
  if (++m_answers == 1 + m_topics.size()) m_ready.set_value();
}

}  // namespace Latency
