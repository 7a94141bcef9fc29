#include "Service.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace Lumo {
namespace {

// Plug-ins register a real number under this type, which has no name.
constexpr lumo_property_type kRegisteredReal = 6;

bool isValidName(const std::string& name) {
  using namespace std::string_view_literals;
  return !name.empty() && name.find_first_of("/+#\0"sv) == std::string::npos;
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
                 const ServiceLimits& limits)
    : m_handle(handle),
      m_name(std::move(name)),
      m_description(std::move(description)),
      m_callbacks(callbacks),
      m_lists(lists),
      m_limits(limits) {}

Service::~Service() {
  Close();
}

lumo_error Service::Register(const std::string& name, Registration registration) {
  if (!isValidName(name)) return kInvalidArgument;
  if (registration.type < LUMO_PROPERTY_TYPE_BOOL || registration.type > kRegisteredReal) {
    return kInvalidArgument;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_closed) return kServiceGone;
  const bool added =
      m_properties.emplace(name, RegisteredProperty{std::move(registration), std::nullopt}).second;
  return added ? kSuccess : kAlreadyRegistered;
}

lumo_error Service::Unregister(const std::string& name) {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_properties.erase(name) == 1 ? kSuccess : kNotRegistered;
}

lumo_error Service::Notify(Properties properties) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const bool allRegistered =
      std::all_of(properties.begin(), properties.end(),
                  [this](const Property& p) { return m_properties.count(p.name) != 0; });
  if (!allRegistered) return kNotRegistered;
  for (Property& property : properties) {
    m_properties.at(property.name).notified = std::move(property.value);
  }
  return kSuccess;
}

lumo_error Service::Answer(RequestKind kind, void* request, lumo_error code,
                           Properties properties) {
  Reply reply;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_requests.find(request);
    if (found == m_requests.end()) return kUnknownHandle;
    if (found->second.kind != kind) return kWrongType;
    reply = std::move(found->second.reply);
    m_requests.erase(found);
  }
  reply(code, std::move(properties));
  return kSuccess;
}

std::optional<Registration> Service::FindRegistration(const std::string& name) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_properties.find(name);
  if (found == m_properties.end()) return std::nullopt;
  return found->second.registration;
}

std::optional<Property> Service::FindNotified(const std::string& name) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_properties.find(name);
  if (found == m_properties.end() || !found->second.notified) return std::nullopt;
  return Property{name, *found->second.notified};
}

void* Service::Get(const std::vector<std::string>& names, Reply reply) {
  Properties properties;
  properties.reserve(names.size());
  // Only the names count. The value is a text whatever the property's type is, as plug-ins do not
  // read values of every type and would lose the name with it.
  for (const std::string& name : names) properties.push_back({name, std::string()});
  return begin(RequestKind::Get, std::move(properties), std::move(reply));
}

void* Service::Set(Properties properties, Reply reply) {
  return begin(RequestKind::Set, std::move(properties), std::move(reply));
}

bool Service::Cancel(void* request) {
  std::map<void*, Request>::node_type ended;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    ended = m_requests.extract(request);
  }
  if (ended.empty()) return false;
  endUnanswered(request, ended.mapped(), kCancelled);
  return true;
}

void Service::ReportProtocolStatus(std::string protocol, lumo_protocol_status status) {
  m_watchThread.Post([this, protocol = std::move(protocol), status] {
    m_callbacks.protocolStatus(m_handle, lumo_string_new(protocol.data(), protocol.size()), status,
                               m_callbacks.userData);
  });
}

void Service::Close() {
  std::map<void*, Request> ended;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_closed = true;
    m_properties.clear();
    ended.swap(m_requests);
  }
  m_requestThread.Stop();
  m_watchThread.Stop();
  for (const auto& [handle, request] : ended) request.reply(kServiceGone, {});
}

bool Service::HasEnded() const {
  return m_requestThread.HasEnded() && m_watchThread.HasEnded();
}

void* Service::begin(RequestKind kind, Properties properties, Reply reply) {
  const auto deadline = CallbackThread::Clock::now() + m_limits.requestTimeout;
  lumo_error refusal = kServiceGone;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_closed && m_requests.size() < m_limits.unansweredRequests) {
      void* handle = NewHandle();
      while (m_requests.count(handle) != 0) handle = NewHandle();
      m_requests.emplace(handle,
                         Request{kind, std::move(properties), std::move(reply), deadline, false});
      // Under the lock, so that requests are delivered in the order in which they were taken.
      m_requestThread.Post([this, handle] { deliver(handle); });
      if (!std::exchange(m_watching, true)) {
        m_watchThread.Post([this] { endOverdueRequests(); }, deadline);
      }
      return handle;
    }
    if (!m_closed) refusal = kBusy;
  }
  reply(refusal, {});
  return nullptr;
}

void Service::deliver(void* handle) {
  RequestKind kind = RequestKind::Get;
  Properties properties;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_requests.find(handle);
    if (found == m_requests.end()) return;  // it ended while it waited
    kind = found->second.kind;
    properties = std::move(found->second.properties);
    found->second.delivered = true;
  }
  const CallbackList list(m_lists, std::move(properties));
  const auto callback = kind == RequestKind::Get ? m_callbacks.get : m_callbacks.set;
  callback(m_handle, handle, list.Handle(), m_callbacks.userData);
}

void Service::endUnanswered(void* handle, const Request& request, lumo_error code) {
  if (request.delivered) {
    m_requestThread.Post(
        [this, handle] { m_callbacks.cancel(m_handle, handle, m_callbacks.userData); });
  }
  request.reply(code, {});
}

void Service::endOverdueRequests() {
  std::vector<std::map<void*, Request>::node_type> overdue;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto now = CallbackThread::Clock::now();
    auto next = CallbackThread::Clock::time_point::max();
    for (auto it = m_requests.begin(); it != m_requests.end();) {
      const auto current = it++;
      if (current->second.deadline <= now) {
        overdue.push_back(m_requests.extract(current));
      } else {
        next = std::min(next, current->second.deadline);
      }
    }
    m_watching = !m_requests.empty();
    if (m_watching) m_watchThread.Post([this] { endOverdueRequests(); }, next);
  }
  for (const auto& request : overdue) endUnanswered(request.key(), request.mapped(), kTimedOut);
}

}  // namespace Lumo
