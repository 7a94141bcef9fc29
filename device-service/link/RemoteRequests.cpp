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

RemoteRequests::RemoteRequests(LinkedService& service, const Topics& topics, OnEnd onEnd,
                               IsCrowded isCrowded)
    : m_service(service),
      m_topics(topics),
      m_onEnd(std::move(onEnd)),
      m_isCrowded(std::move(isCrowded)) {}

RemoteRequests::Taken RemoteRequests::Take(RequestKind kind, const Mqtt::Publish& message,
                                           Arrival arrival) {
  Waiting waiting;
  waiting.responseTopic = findResponseTopic(message);
  waiting.correlation = message.correlation;
  waiting.arrival = arrival;
  waiting.bytes =
      message.payload.size() + message.responseTopic.size() + message.correlation.size();
  Content content{kind, {}, {}};
  const std::string error = decode(message, content);
  if (!error.empty()) {
    dlog_print(6, "LUMO", "%.*s: %s\n", static_cast<int>(message.topic.size()),
               message.topic.data(), error.c_str());
    m_service.Record().Count(Counted::Invalid);
    answer(waiting, error);
    return Taken::Now;
  }

  const bool wantsAnswer = !waiting.responseTopic.empty();
  const bool mayBeHeld = !wantsAnswer && arrival != 0;
  const std::size_t waitingBytes = countWaitingBytes();
  const bool isTooMuch = waitingBytes + waiting.bytes > kMaxWaitingBytes;
  if (isTooMuch || (wantsAnswer && m_isCrowded())) return refuse(waiting);
  const bool mustWait = !m_held.empty() || (mayBeHeld && m_service.IsFull());
  if (!mustWait) return begin(std::move(waiting), std::move(content));
  Held held{std::move(waiting), std::move(content)};
  const std::size_t heldBytes = countHeldBytes(held);
  if (!mayBeHeld || waitingBytes + heldBytes > kMaxWaitingBytes) return refuse(held.waiting);
  m_heldBytes += heldBytes;
  m_held.push_back(std::move(held));
  noteHeld();
  return Taken::Later;
}

void RemoteRequests::BeginHeld() {
  while (!m_held.empty() && !m_service.IsFull()) {
    Held held = std::move(m_held.front());
    m_held.pop_front();
    noteHeld();
    m_heldBytes -= countHeldBytes(held);
    const Arrival arrival = held.waiting.arrival;
    const Taken taken = begin(std::move(held.waiting), std::move(held.content));
    if (taken != Taken::Later) m_onEnd({arrival, std::nullopt, taken == Taken::Now});
  }
}

void RemoteRequests::DropHeld() {
  m_heldBytes = 0;
  for (const Held& held : std::exchange(m_held, {})) {
    end(held.waiting, {kServiceGone, std::nullopt});
  }
  if (m_heldCount != 0) noteHeld();
}

std::string RemoteRequests::decode(const Mqtt::Publish& message, Content& content) const {
  if (message.isCut) return DescribeTooLarge();
  if (content.kind == RequestKind::Get) {
    Decoded<std::vector<std::string>> names = DecodeNames(message.payload);
    if (!names.value) return names.error;
    content.names = std::move(*names.value);
    return {};
  }
  Decoded<Properties> properties = DecodeProperties(message.payload);
  if (!properties.value) return properties.error;
  content.properties = std::move(*properties.value);
  return m_service.FaultOf(content.properties);
}

RemoteRequests::Taken RemoteRequests::refuse(const Waiting& waiting) {
  m_service.Record().Count(Counted::Busy);
  if (waiting.responseTopic.empty()) m_unheard.Note();
  answer(waiting, kBusyText);
  return Taken::Now;
}

RemoteRequests::Taken RemoteRequests::begin(Waiting waiting, Content content) {
  const Arrival arrival = waiting.arrival;
  UniqueLock lock(m_mutex);
  const Number number = ++m_lastNumber;
  m_waitingBytes += waiting.bytes;
  m_waiting.emplace(number, std::move(waiting));
  lock.Unlock();

  const Reply replyToIt = [this, number](lumo_error code,
                                         const std::optional<Properties>& outcome) {
    reply(number, code, outcome);
  };
  void* const request = content.kind == RequestKind::Get
                            ? m_service.Get(content.names, replyToIt)
                            : m_service.Set(std::move(content.properties), replyToIt);
  lock.Lock();
  const auto place = m_waiting.find(number);
  place->second.request = request;
  if (!place->second.early) return Taken::Later;
  const Waiting ended = extract(place);
  lock.Unlock();
  if (request != nullptr) {
    end(ended, *ended.early);
    return Taken::Later;
  }
  // Refused by the service.
  if (ended.early->code != kServiceGone) return refuse(ended);
  if (arrival != 0) return Taken::Not;
  answer(ended, Describe(kServiceGone));
  return Taken::Now;
}

void RemoteRequests::Cancel(const Mqtt::Publish& message) {
  std::vector<void*> requests;
  if (!message.correlation.empty()) {
    LockGuard lock(m_mutex);
    for (const auto& [number, waiting] : m_waiting) {
      const bool isMeant =
          waiting.correlation == message.correlation &&
          (message.responseTopic.empty() || waiting.responseTopic == message.responseTopic);
      if (isMeant) requests.push_back(waiting.request);
    }
  }
  const bool hasDropped = message.responseTopic.empty() && dropHeldWith(message.correlation);
  if (requests.empty() && !hasDropped) {
    dlog_print(3, "LUMO", "no request waits that a cancel names\n");
  }
  for (void* request : requests) m_service.Cancel(request);
}

void RemoteRequests::noteHeld() {
  m_heldCount = m_held.size();
  m_service.Record().Changed();
}

bool RemoteRequests::dropHeldWith(std::string_view correlation) {
  if (correlation.empty()) return false;
  std::deque<Held> others;
  std::vector<Arrival> dropped;
  for (Held& held : m_held) {
    if (held.waiting.correlation == correlation) {
      m_heldBytes -= countHeldBytes(held);
      dropped.push_back(held.waiting.arrival);
    } else {
      others.push_back(std::move(held));
    }
  }
  m_held.swap(others);
  noteHeld();
  for (const Arrival arrival : dropped) {
    m_service.Record().Count(Counted::Cancelled);
    m_onEnd({arrival, std::nullopt, true});
  }
  return !dropped.empty();
}

std::string RemoteRequests::findResponseTopic(const Mqtt::Publish& message) const {
  std::string topic(message.responseTopic);
  if (topic.empty() || m_topics.MayAnswerTo(topic)) return topic;
  dlog_print(6, "LUMO", "%.*s: no answer goes to the Response Topic '%s'\n",
             static_cast<int>(message.topic.size()), message.topic.data(),
             Abbreviate(topic).c_str());
  return {};
}

void RemoteRequests::answer(const Waiting& waiting, std::string_view error) const {
  if (waiting.responseTopic.empty()) return;
  m_onEnd(
      {0, Outbox::Answer{waiting.responseTopic, waiting.correlation, EncodeError(error)}, true});
}

void RemoteRequests::reply(Number number, lumo_error code,
                           const std::optional<Properties>& properties) {
  UniqueLock lock(m_mutex);
  const auto place = m_waiting.find(number);
  if (place == m_waiting.end()) return;
  if (place->second.request == nullptr) {
    place->second.early = Outcome{code, properties};
    return;
  }
  const Waiting ended = extract(place);
  lock.Unlock();
  end(ended, {code, properties});
}

void RemoteRequests::end(const Waiting& waiting, const Outcome& outcome) const {
  std::optional<Outbox::Answer> answer;
  // The plug-in's own code may be any number; its outcome has properties.
  const bool isCancelled = !outcome.properties && outcome.code == kCancelled;
  if (!waiting.responseTopic.empty() && !isCancelled) {
    answer = {waiting.responseTopic, waiting.correlation,
              outcome.properties ? EncodeResult(outcome.code, *outcome.properties)
                                 : EncodeError(Describe(outcome.code))};
  }
  const bool isCarriedOut = outcome.properties || outcome.code != kServiceGone;
  m_onEnd({waiting.arrival, std::move(answer), isCarriedOut});
}

std::size_t RemoteRequests::countWaitingBytes() {
  LockGuard lock(m_mutex);
  return m_heldBytes + m_waitingBytes;
}

// A decoded message takes many times its bytes.
std::size_t RemoteRequests::countHeldBytes(const Held& held) {
  return sizeof(Held) + held.waiting.bytes + held.content.names.size() * sizeof(std::string) +
         held.content.properties.size() * sizeof(Property);
}

RemoteRequests::Waiting RemoteRequests::extract(std::map<Number, Waiting>::iterator place) {
  Waiting ended = std::move(place->second);
  m_waiting.erase(place);
  m_waitingBytes -= ended.bytes;
  return ended;
}

}  // namespace Lumo
