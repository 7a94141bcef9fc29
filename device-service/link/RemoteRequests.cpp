#include "link/RemoteRequests.h"

#include <utility>
#include <vector>

#include "dlog.h"
#include "payload/Payload.h"
#include "values/Error.h"
#include "values/Utf8.h"

namespace Lumo {
namespace {

constexpr const char* kBusyText = "busy";

}  // namespace

RemoteRequests::RemoteRequests(Service& service, const Topics& topics, Send send,
                               IsCrowded isCrowded)
    : m_service(service),
      m_topics(topics),
      m_send(std::move(send)),
      m_isCrowded(std::move(isCrowded)) {}

void RemoteRequests::Take(RequestKind kind, const MqttClient::Message& message) {
  Decoded<std::vector<std::string>> names;
  Decoded<Properties> properties;
  std::string error;
  if (kind == RequestKind::Get) {
    names = DecodeNames(message.payload, m_jsonReader);
    error = names.error;
  } else {
    properties = DecodeProperties(message.payload, m_jsonReader);
    error = properties.value ? m_service.FaultOf(*properties.value) : properties.error;
  }
  const std::string responseTopic = findResponseTopic(message);
  if (!error.empty()) {
    dlog_print(6, "LUMO", "%.*s: %s\n", static_cast<int>(message.topic.size()),
               message.topic.data(), error.c_str());
    answer(responseTopic, message.correlation, EncodeError(error));
    return;
  }

  if (!responseTopic.empty() && m_isCrowded()) {
    answer(responseTopic, message.correlation, EncodeError(kBusyText));
    return;
  }

  Number number = 0;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    number = ++m_lastNumber;
    m_waiting[number] = {responseTopic, message.correlation, nullptr};
  }
  const Reply replyToIt = [this, number](lumo_error code,
                                         const std::optional<Properties>& outcome) {
    reply(number, code, outcome);
  };
  void* const request = kind == RequestKind::Get
                            ? m_service.Get(*names.value, replyToIt)
                            : m_service.Set(std::move(*properties.value), replyToIt);
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_waiting.find(number);  // gone when the reply came already
  if (found != m_waiting.end()) found->second.request = request;
}

void RemoteRequests::Cancel(const MqttClient::Message& message) {
  std::vector<void*> requests;
  if (!message.correlation.empty()) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [number, waiting] : m_waiting) {
      const bool isMeant =
          waiting.correlation == message.correlation &&
          (message.responseTopic.empty() || waiting.responseTopic == message.responseTopic);
      if (isMeant) requests.push_back(waiting.request);
    }
  }
  if (requests.empty()) dlog_print(3, "LUMO", "no request waits that a cancel names\n");
  for (void* request : requests) m_service.Cancel(request);
}

std::string RemoteRequests::findResponseTopic(const MqttClient::Message& message) const {
  const std::string& topic = message.responseTopic;
  if (topic.empty() || m_topics.MayAnswerTo(topic)) return topic;
  dlog_print(6, "LUMO", "%.*s: no answer goes to the Response Topic '%s'\n",
             static_cast<int>(message.topic.size()), message.topic.data(),
             Abbreviate(topic).c_str());
  return {};
}

void RemoteRequests::answer(const std::string& responseTopic, const std::string& correlation,
                            std::string payload) const {
  if (!responseTopic.empty()) m_send({responseTopic, correlation, std::move(payload)});
}

void RemoteRequests::reply(Number number, lumo_error code,
                           const std::optional<Properties>& properties) {
  Waiting ended;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto node = m_waiting.extract(number);
    if (node.empty()) return;
    ended = std::move(node.mapped());
  }
  if (ended.responseTopic.empty()) return;
  if (properties) {
    answer(ended.responseTopic, ended.correlation, EncodeResult(code, *properties));
  } else if (code != kCancelled) {
    const char* const text = code == kBusy ? kBusyText : Describe(code);
    answer(ended.responseTopic, ended.correlation, EncodeError(text));
  }
}

}  // namespace Lumo
