#include "ContractWatcher.h"

#include <mqtt_protocol.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

// Nobody else's, and none of the contract.
constexpr const char* kMarks = "apart/contract-watcher/";
constexpr int kQos = 1;

MqttPeer::Options everything(int port, const std::string& user, const std::string& password,
                             MqttPeer::OnConnected onConnected) {
  MqttPeer::Options options;
  // Nodes of a cluster take clients of one name for one.
  options.id = "contract-watcher-" + std::to_string(port);
  options.user = user;
  options.password = password;
  options.filters = {"#"};
  // At QoS 2, which nothing has that the thing sends, the library mixes messages up after a restart
  // of the broker.
  options.qos = kQos;
  options.retainsAsPublished = true;
  options.onConnected = std::move(onConnected);
  return options;
}

// The library allocates what it reads.
std::string take(char* text) {
  const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
  return text == nullptr ? std::string() : std::string(text);
}

std::string readText(const mosquitto_property* property, int id) {
  char* text = nullptr;
  mosquitto_property_read_string(property, id, &text, false);
  return take(text);
}

std::string readBytes(const mosquitto_property* property, int id) {
  void* bytes = nullptr;
  std::uint16_t size = 0;
  mosquitto_property_read_binary(property, id, &bytes, &size, false);
  const std::unique_ptr<void, void (*)(void*)> owner(bytes, std::free);
  return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), size);
}

Contract::Properties readProperties(const mosquitto_property* property) {
  Contract::Properties properties;
  for (; property != nullptr; property = mosquitto_property_next(property)) {
    const int id = mosquitto_property_identifier(property);
    switch (id) {
      case MQTT_PROP_RESPONSE_TOPIC:
        properties.responseTopic = readText(property, id);
        break;
      case MQTT_PROP_CORRELATION_DATA:
        properties.correlationData = readBytes(property, id);
        break;
      case MQTT_PROP_CONTENT_TYPE:
        properties.contentType = readText(property, id);
        break;
      case MQTT_PROP_PAYLOAD_FORMAT_INDICATOR: {
        std::uint8_t value = 0;
        mosquitto_property_read_byte(property, id, &value, false);
        properties.payloadFormatIndicator = value;
        break;
      }
      case MQTT_PROP_USER_PROPERTY: {
        char* name = nullptr;
        char* value = nullptr;
        mosquitto_property_read_string_pair(property, id, &name, &value, false);
        std::string key = take(name);
        properties.userProperties.emplace_back(std::move(key), take(value));
        break;
      }
      default:
        properties.others.emplace_back(mosquitto_property_identifier_to_string(id));
    }
  }
  return properties;
}

}  // namespace

ContractWatcher::ContractWatcher(int port, const std::string& user, const std::string& password,
                                 Place place)
    : m_place(place),
      m_marks(kMarks + std::to_string(port)),
      m_ledger(Contract::OfProject()),
      m_peer(port,
             everything(port, user, password,
                        [this](bool sessionPresent) {
                          const std::lock_guard<std::mutex> lock(m_mutex);
                          if (std::exchange(m_wasConnected, true) && !sessionPresent) {
                            m_ledger.NoteGap();
                          }
                        }),
             [this](const MqttPeer::Message& message) { take(message); }) {}

// A mark comes back behind all that the broker had before. It is lost when it comes to a broker
// that does not know the watcher yet.
void ContractWatcher::CatchUp() {
  constexpr std::chrono::milliseconds kFirstWait(200);
  constexpr std::chrono::seconds kLimit(120);
  const auto end = std::chrono::steady_clock::now() + kLimit;
  const int first = m_lastMark + 1;
  for (auto wait = kFirstWait; std::chrono::steady_clock::now() < end; wait *= 2) {
    m_peer.Publish({m_marks, std::to_string(++m_lastMark), kQos});
    if (m_markSeen.WaitFor([first](int mark) { return mark >= first; }, wait)) return;
  }
  throw std::runtime_error("the watcher does not get to the end of what the broker has");
}

std::vector<std::string> ContractWatcher::TakeViolations() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_ledger.TakeViolations();
}

std::map<std::string, std::size_t> ContractWatcher::Seen() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_ledger.Seen();
}

std::size_t ContractWatcher::Unmatched() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_ledger.Unmatched();
}

void ContractWatcher::take(const MqttPeer::Message& message) {
  if (message.topic == m_marks) {
    const int mark = std::atoi(std::string(message.payload).c_str());
    m_markSeen.Change([mark](int& seen) { seen = mark; });
    return;
  }
  if (message.topic.substr(0, kApart.size()) == kApart) return;
  const bool mayHaveLess = m_place == Place::BehindBridge && message.retained;
  const int qos = mayHaveLess ? std::max(message.qos, kQos) : message.qos;
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_ledger.Take(
      {message.topic, message.payload, qos, message.retained, readProperties(message.properties)});
}
