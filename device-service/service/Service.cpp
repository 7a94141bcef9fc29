#include "service/Service.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <variant>

#include "health/ProcessFigures.h"
#include "payload/Json.h"
#include "values/CatchAll.h"
#include "values/TopicText.h"
#include "values/Utf8.h"

namespace Lumo {
namespace {

// Null when a property that is registered with the type can take the value.
const char* faultOf(const PropertyValue& value, lumo_property_type type) {
  const bool isReal = type == LUMO_PROPERTY_TYPE_DOUBLE || type == kRegisteredReal;
  if (std::holds_alternative<double>(value) && !isReal) {
    return "a real number, and the property takes none";
  }
  const auto* const bytes = std::get_if<Bytes>(&value);
  if (bytes == nullptr || type != LUMO_PROPERTY_TYPE_STRING) return nullptr;
  const bool isText = bytes->data.find('\0') == std::string::npos && IsUtf8(bytes->data);
  return isText ? nullptr : "bytes that are no text, and the property is one";
}

std::size_t sizeOf(const Properties& properties) {
  std::size_t size = 0;
  for (const Property& property : properties) {
    size += sizeof property + property.name.size();
    if (const auto* const text = std::get_if<std::string>(&property.value)) size += text->size();
    if (const auto* const json = std::get_if<JsonText>(&property.value)) size += json->text.size();
    if (const auto* const bytes = std::get_if<Bytes>(&property.value)) size += bytes->data.size();
  }
  return size;
}

// A list in the table for as long as a callback runs.
class CallbackList {
 public:
  CallbackList(HandleTable<PropertyList>& lists, Properties properties)
      : m_lists(lists), m_handle(lists.NewHandle()) {
    m_lists.Insert(m_handle, std::make_shared<PropertyList>(std::move(properties)));
  }
  ~CallbackList() { m_lists.Take(m_handle); }
  CallbackList(const CallbackList&) = delete;
  CallbackList& operator=(const CallbackList&) = delete;

  void* Handle() const { return m_handle; }

 private:
  HandleTable<PropertyList>& m_lists;
  void* const m_handle;
};

}  // namespace

Service::Service(void* handle, std::string name, std::string description,
                 const ServiceCallbacks& callbacks, HandleTable<PropertyList>& lists,
                 const ServiceLimits& limits, HealthSettings health)
    : m_handle(handle),
      m_name(std::move(name)),
      m_description(std::move(description)),
      m_callbacks(callbacks),
      m_lists(lists),
      m_limits(limits),
      m_reporter(
          std::move(health), m_watchThread, [this] { return ReadHealth(); },
          [this] {
            if (m_link) m_link->HealthChanged();
          }) {}

Service::~Service() {
  Close();
  Join();
}

void Service::Connect(std::unique_ptr<ServiceLink> link) {
  if (link) Record().SetLink(Health::Link::Offline);
  m_link = std::move(link);
  if (m_link) m_link->Start();
  m_reporter.Begin();
}

lumo_error Service::Register(const std::string& name, Registration registration) {
  if (!IsTopicLevel(name)) return kInvalidArgument;
  if (registration.type < LUMO_PROPERTY_TYPE_BOOL || registration.type > kRegisteredReal) {
    return kInvalidArgument;
  }
  {
    LockGuard lock(m_mutex);
    if (m_closed) return kServiceGone;
    const bool added =
        m_properties.emplace(name, RegisteredProperty{std::move(registration), std::nullopt})
            .second;
    if (!added) return kAlreadyRegistered;
  }
  m_started.notify_one();
  Record().Changed();
  if (m_link) m_link->DescriptionChanged();
  return kSuccess;
}

lumo_error Service::Unregister(const std::string& name) {
  {
    LockGuard lock(m_mutex);
    if (m_closed) return kServiceGone;
    if (m_properties.erase(name) == 0) return kSuccess;
  }
  Record().Changed();
  if (m_link) {
    m_link->DescriptionChanged();
    m_link->ValueRemoved(name);
  }
  return kSuccess;
}

lumo_error Service::Notify(Properties properties) {
  const auto now = std::chrono::system_clock::now();
  {
    LockGuard lock(m_mutex);
    if (m_closed) return kServiceGone;
    const bool allRegistered = std::all_of(
        properties.begin(), properties.end(),
        [this](const Property& p) REQUIRES(m_mutex) { return m_properties.count(p.name) != 0; });
    if (!allRegistered) return kNotRegistered;
    for (Property& property : properties) {
      std::uint64_t& sequence = m_sequences[property.name];
      m_properties.at(property.name).notified =
          Notified{std::move(property.value), now, ++sequence};
    }
  }
  if (m_link) {
    for (const Property& property : properties) m_link->ValueChanged(property.name);
  }
  return kSuccess;
}

lumo_error Service::Answer(RequestKind kind, void* request, lumo_error code,
                           Properties properties) {
  Reply reply;
  {
    LockGuard lock(m_mutex);
    const auto found = m_requests.find(request);
    if (found == m_requests.end()) {
      const auto overdue = std::find_if(m_overdue.begin(), m_overdue.end(), [request](auto& entry) {
        return entry.second.handle == request;
      });
      if (overdue != m_overdue.end()) {
        noteAnswered(overdue->first);
        Record().Changed();
      }
      return kUnknownHandle;
    }
    if (found->second.kind != kind) return kWrongType;
    noteAnswered(found->second.delivery);
    m_unansweredBytes -= found->second.bytes;
    reply = std::move(found->second.reply);
    m_requests.erase(found);
  }
  Record().Count(Counted::Served);
  if (kind == RequestKind::Set && code != kSuccess) Record().Count(Counted::SetsRefused);
  reply(code, std::move(properties));
  return kSuccess;
}

std::optional<Registration> Service::FindRegistration(const std::string& name) const {
  LockGuard lock(m_mutex);
  const auto found = m_properties.find(name);
  if (found == m_properties.end()) return std::nullopt;
  return found->second.registration;
}

std::map<std::string, lumo_property_type> Service::RegisteredTypes() const {
  LockGuard lock(m_mutex);
  std::map<std::string, lumo_property_type> types;
  for (const auto& [name, property] : m_properties) types[name] = property.registration.type;
  return types;
}

std::optional<Notified> Service::FindNotified(const std::string& name) const {
  LockGuard lock(m_mutex);
  const auto found = m_properties.find(name);
  if (found == m_properties.end()) return std::nullopt;
  return found->second.notified;
}

std::vector<std::string> Service::NotifiedNames() const {
  LockGuard lock(m_mutex);
  std::vector<std::string> names;
  for (const auto& [name, property] : m_properties) {
    if (property.notified) names.push_back(name);
  }
  return names;
}

std::string Service::FaultOf(const Properties& properties) const {
  LockGuard lock(m_mutex);
  for (const Property& property : properties) {
    const auto found = m_properties.find(property.name);
    if (found == m_properties.end()) continue;
    const char* const fault = faultOf(property.value, found->second.registration.type);
    if (fault != nullptr) return Abbreviate(property.name) + ": " + fault;
  }
  return {};
}

void* Service::Get(const std::vector<std::string>& names, Reply reply) {
  Properties properties;
  properties.reserve(names.size());
  // Only the names count. The value is always a string: plug-ins do not read values of every type,
  // and would lose the name, too.
  for (const std::string& name : names) properties.push_back({name, std::string()});
  return begin(RequestKind::Get, std::move(properties), std::move(reply));
}

void* Service::Set(Properties properties, Reply reply) {
  return begin(RequestKind::Set, std::move(properties), std::move(reply));
}

bool Service::IsFull() const {
  LockGuard lock(m_mutex);
  if (m_closed || m_requests.size() + m_overdue.size() < m_limits.unansweredRequests) return false;
  // The next one would be the probe.
  return !m_requests.empty() || CallbackThread::Clock::now() < m_nextProbe;
}

bool Service::Cancel(void* request) {
  Requests::node_type ended;
  {
    LockGuard lock(m_mutex);
    const auto found = m_requests.find(request);
    if (found == m_requests.end()) return false;
    ended = extractUnanswered(found);
  }
  Record().Count(Counted::Cancelled);
  endUnanswered(request, ended.mapped(), kCancelled);
  return true;
}

void Service::ReportProtocolStatus(std::string protocol, lumo_protocol_status status) {
  m_watchThread.PostCallback([this, protocol = std::move(protocol), status] {
    m_callbacks.protocolStatus(m_handle, lumo_string_new(protocol.data(), protocol.size()), status,
                               m_callbacks.userData);
  });
}

Health Service::ReadHealth() const {
  Health health = m_reporter.Record().Read();
  AddProcessFigures(health);
  if (m_link) {
    const ServiceLink::Waiting waiting = m_link->CountWaiting();
    health.waitingRequests = waiting.requests;
    health.waitingAnswers = waiting.answers;
  }
  LockGuard lock(m_mutex);
  health.properties = m_properties.size();
  health.waitingRequests += m_requests.size() + m_overdue.size();
  return health;
}

void Service::DeliverOnceStarted() {
  m_requestThread.Post([this] { waitForFirstProperty(); });
}

void Service::StopDelivering() {
  {
    LockGuard lock(m_mutex);
    m_closed = true;
  }
  m_started.notify_one();
  m_requestThread.Stop();
}

void Service::Close() {
  const auto limit = CallbackThread::Clock::now() + kClosingTime;
  StopDelivering();
  Requests ended;
  {
    LockGuard lock(m_mutex);
    ended.swap(m_requests);
    // The plug-in may still have them, but nobody waits for them any more.
    m_overdue.clear();
    m_unansweredBytes = 0;
  }
  m_watchThread.Refuse();
  for (const auto& [handle, request] : ended) request.reply(kServiceGone, std::nullopt);
  bool mustSayFarewell = false;
  {
    LockGuard lock(m_mutex);
    mustSayFarewell = !std::exchange(m_isFarewellSaid, true);
  }
  if (mustSayFarewell) CatchAll("the last health", [this] { m_reporter.PublishLast(); });
  if (m_link) {
    m_link->Close();
    Record().SetLink(Health::Link::Offline);
  }
  if (!mustSayFarewell) return;
  CatchAll("the last health", [this, limit] { m_reporter.WriteLast(limit); });
  m_watchThread.Stop();
}

void Service::Join() {
  if (m_link) m_link->Join();
  m_requestThread.Join();
  m_watchThread.Join();
}

bool Service::HasEnded() const {
  return m_requestThread.HasEnded() && m_watchThread.HasEnded() &&
         (m_link == nullptr || m_link->HasEnded());
}

void* Service::begin(RequestKind kind, Properties properties, Reply reply) {
  const auto deadline = CallbackThread::Clock::now() + m_limits.requestTimeout;
  const std::size_t bytes = sizeOf(properties);
  UniqueLock lock(m_mutex);
  if (!m_closed && takesAnother(bytes, deadline)) {
    void* handle = NewHandle();
    while (m_requests.count(handle) != 0) handle = NewHandle();
    if (!m_watching) {
      m_watchThread.Post([this] { endTimedOutRequests(); }, deadline);
      m_watching = true;
    }
    m_requests.emplace(handle,
                       Request{kind, std::move(properties), std::move(reply), deadline, bytes, 0});
    m_unansweredBytes += bytes;
    // Under the lock, so that requests are delivered in the order of their arrival.
    m_requestThread.Add([this, handle] { deliver(handle); });
    m_reporter.Record().Changed();
    lock.Unlock();
    m_requestThread.Wake();
    return handle;
  }
  const lumo_error refusal = m_closed ? kServiceGone : kBusy;
  lock.Unlock();
  reply(refusal, std::nullopt);
  return nullptr;
}

void Service::waitForFirstProperty() {
  UniqueLock lock(m_mutex);
  m_started.wait_for(lock.ForWait(), kStartTime,
                     [this]() REQUIRES(m_mutex) { return m_closed || !m_properties.empty(); });
}

void Service::deliver(void* handle) {
  RequestKind kind = RequestKind::Get;
  Properties properties;
  {
    LockGuard lock(m_mutex);
    const auto found = m_requests.find(handle);
    if (found == m_requests.end()) return;  // it ended while it waited
    kind = found->second.kind;
    properties = std::move(found->second.properties);
    found->second.delivery = ++m_lastDelivery;
    if (kind == RequestKind::Set) showUnknownNames(properties);
  }
  const CallbackList list(m_lists, std::move(properties));
  const auto callback = kind == RequestKind::Get ? m_callbacks.get : m_callbacks.set;
  callback(m_handle, handle, list.Handle(), m_callbacks.userData);
}

void Service::showUnknownNames(Properties& properties) const {
  for (Property& property : properties) {
    const auto* const number = std::get_if<double>(&property.value);
    if (number == nullptr || m_properties.count(property.name) != 0) continue;
    // Plug-ins do not read real numbers, and would not see the name that they have to refuse.
    JsonText json;
    AppendJsonNumber(json.text, *number);
    property.value = std::move(json);
  }
}

bool Service::takesAnother(std::size_t bytes, CallbackThread::Clock::time_point deadline) {
  if (m_requests.empty() && m_overdue.empty()) return true;
  if (m_requests.size() + m_overdue.size() < m_limits.unansweredRequests &&
      m_unansweredBytes + bytes <= m_limits.unansweredBytes) {
    return true;
  }
  if (!m_requests.empty() || CallbackThread::Clock::now() < m_nextProbe) return false;
  m_nextProbe = deadline;
  return true;
}

void Service::noteAnswered(std::uint64_t delivery) {
  m_lastAnswered = std::max(m_lastAnswered, delivery);
  while (!m_overdue.empty() && m_overdue.begin()->first <= delivery) {
    m_unansweredBytes -= m_overdue.begin()->second.bytes;
    m_overdue.erase(m_overdue.begin());
  }
}

Service::Requests::node_type Service::extractUnanswered(Requests::iterator place) {
  const Request& request = place->second;
  if (request.delivery > m_lastAnswered) {
    m_overdue[request.delivery] = {place->first, request.bytes};
    // A probe comes on top of the limit: it replaces the oldest one.
    if (m_overdue.size() > m_limits.unansweredRequests) noteAnswered(m_overdue.begin()->first);
  } else {
    m_unansweredBytes -= request.bytes;
  }
  return m_requests.extract(place);
}

void Service::endUnanswered(void* handle, const Request& request, lumo_error code) {
  if (request.delivery != 0) {
    m_requestThread.Post(
        [this, handle] { m_callbacks.cancel(m_handle, handle, m_callbacks.userData); });
  }
  request.reply(code, std::nullopt);
}

void Service::endTimedOutRequests() {
  std::vector<Requests::node_type> ended;
  {
    LockGuard lock(m_mutex);
    const auto now = CallbackThread::Clock::now();
    auto next = CallbackThread::Clock::time_point::max();
    for (auto it = m_requests.begin(); it != m_requests.end();) {
      const auto current = it++;
      if (current->second.deadline <= now) {
        ended.push_back(extractUnanswered(current));
      } else {
        next = std::min(next, current->second.deadline);
      }
    }
    m_watching = !m_requests.empty();
    if (m_watching) m_watchThread.Post([this] { endTimedOutRequests(); }, next);
  }
  for (const auto& request : ended) {
    Record().Count(Counted::TimedOut);
    endUnanswered(request.key(), request.mapped(), kTimedOut);
  }
}

}  // namespace Lumo
