#include "link/RemoteRequests.h"

#include <mutex>
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

bool RemoteRequests::Take(RequestKind kind, const Mqtt::Publish& message) {
  Decoded<std::vector<std::string>> names;
  Decoded<Properties> properties;
  std::string error;
  if (message.isCut) {
    error = DescribeTooLarge();
  } else if (kind == RequestKind::Get) {
    names = DecodeNames(message.payload);
    error = names.error;
  } else {
    properties = DecodeProperties(message.payload);
    error = properties.value ? m_service.FaultOf(*properties.value) : properties.error;
  }
  std::string responseTopic = findResponseTopic(message);
  if (!error.empty()) {
    dlog_print(6, "LUMO", "%.*s: %s\n", static_cast<int>(message.topic.size()),
               message.topic.data(), error.c_str());
    answer(std::move(responseTopic), std::string(message.correlation), EncodeError(error));
    return true;
  }

  const bool isCrowded = !responseTopic.empty() && m_isCrowded();
  const std::size_t bytes =
      message.payload.size() + message.responseTopic.size() + message.correlation.size();
  std::unique_lock<std::mutex> lock(m_mutex);
  if (isCrowded || m_waitingBytes + bytes > kMaxWaitingBytes) {
    lock.unlock();
    refuse(std::move(responseTopic), message.correlation, kBusyText);
    return true;
  }
  const Number number = ++m_lastNumber;
  m_waiting[number] = {std::move(responseTopic), std::string(message.correlation), bytes, nullptr,
                       std::nullopt};
  m_waitingBytes += bytes;
  lock.unlock();
  return start(number, kind, names.value.value_or(std::vector<std::string>()),
               std::move(properties.value).value_or(Properties()));
}

bool RemoteRequests::start(Number number, RequestKind kind, const std::vector<std::string>& names,
                           Properties properties) {
  const Reply replyToIt = [this, number](lumo_error code,
                                         const std::optional<Properties>& outcome) {
    reply(number, code, outcome);
  };
  void* const request = kind == RequestKind::Get ? m_service.Get(names, replyToIt)
                                                 : m_service.Set(std::move(properties), replyToIt);
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto place = m_waiting.find(number);
  place->second.request = request;
  if (!place->second.early) return true;
  Waiting ended = extract(place);
  lock.unlock();
  const Outcome& outcome = *ended.early;
  if (request != nullptr) {
    answerOutcome(ended, outcome);
  } else if (outcome.code == kServiceGone) {
    return false;
  } else {
    refuse(std::move(ended.responseTopic), ended.correlation, kBusyText);
  }
  return true;
}

void RemoteRequests::Cancel(const Mqtt::Publish& message) {
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

std::string RemoteRequests::findResponseTopic(const Mqtt::Publish& message) const {
  std::string topic(message.responseTopic);
  if (topic.empty() || m_topics.MayAnswerTo(topic)) return topic;
  dlog_print(6, "LUMO", "%.*s: no answer goes to the Response Topic '%s'\n",
             static_cast<int>(message.topic.size()), message.topic.data(),
             Abbreviate(topic).c_str());
  return {};
}

void RemoteRequests::answer(std::string responseTopic, std::string correlation,
                            std::string payload) const {
  if (responseTopic.empty()) return;
  m_send({std::move(responseTopic), std::move(correlation), std::move(payload)});
}

void RemoteRequests::answerOutcome(const Waiting& ended, const Outcome& outcome) const {
  if (ended.responseTopic.empty() || outcome.code == kCancelled) return;
  answer(ended.responseTopic, ended.correlation,
         outcome.properties ? EncodeResult(outcome.code, *outcome.properties)
                            : EncodeError(Describe(outcome.code)));
}

void RemoteRequests::refuse(std::string responseTopic, std::string_view correlation,
                            std::string_view error) {
  if (responseTopic.empty()) m_unheard.Note();
  answer(std::move(responseTopic), std::string(correlation), EncodeError(error));
}

void RemoteRequests::reply(Number number, lumo_error code,
                           const std::optional<Properties>& properties) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto place = m_waiting.find(number);
  if (place == m_waiting.end()) return;
  if (place->second.request == nullptr) {
    place->second.early = Outcome{code, properties};
    return;
  }
  const Waiting ended = extract(place);
  lock.unlock();
  answerOutcome(ended, {code, properties});
}

RemoteRequests::Waiting RemoteRequests::extract(std::map<Number, Waiting>::iterator place) {
  Waiting ended = std::move(place->second);
  m_waiting.erase(place);
  m_waitingBytes -= ended.bytes;
  return ended;
}

}  // namespace Lumo
