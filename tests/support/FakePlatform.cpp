#include "FakePlatform.h"

#include <dlog.h>
#include <fcntl.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <sstream>
#include <utility>

#include "SparedAllocations.h"

namespace fake {
namespace {

constexpr std::size_t kCallbackThreads = 3;
const char* const kPrefix = "%s : %s(%d)";

// Who may use a handle now.
enum class Owner { kPlugin, kList, kLibrary, kCallback, kNobody };

struct FakeProperty {
  Property value;
  Owner owner = Owner::kPlugin;
  struct FakeList* list = nullptr;
  std::size_t index = 0;
  bool nullName = false;
};

struct FakeList {
  std::vector<FakeProperty*> properties;
  Owner owner = Owner::kPlugin;
};

struct FakeService {
  std::string name;
  std::string description;
  lumo_protocol_status_cb protocolStatus = nullptr;
  lumo_get_property_cb get = nullptr;
  lumo_set_property_cb set = nullptr;
  lumo_cancel_cb cancel = nullptr;
  void* userData = nullptr;
  bool alive = true;
  std::vector<Registration> registrations;
};

std::string ToString(const lumo_string& text) {
  return text.data == nullptr ? std::string() : std::string(text.data, text.length);
}

std::string Format(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (size < 0) return "(format error)";
  std::string text(static_cast<std::size_t>(size) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

}  // namespace

std::string LogLine::Message() const {
  const std::string prefix = file + " : " + function + "(" + std::to_string(line) + ")";
  std::string message = text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
  if (!message.empty() && message.back() == '\n') message.pop_back();
  return message;
}

std::string Entry::Summary() const {
  if (kind != Kind::kLog) return text;
  std::string message = log.Message();
  const auto start = message.find_first_not_of(' ');
  message = start == std::string::npos ? "" : message.substr(start);
  return std::to_string(log.priority) + " " + log.tag + " " + log.file + " " + log.function + " " +
         message;
}

Property Property::Bool(std::string name, bool value) {
  return {std::move(name), LUMO_PROPERTY_TYPE_BOOL, value ? 1.0 : 0.0, std::nullopt};
}
Property Property::Int(std::string name, int value) {
  return {std::move(name), LUMO_PROPERTY_TYPE_INT, static_cast<double>(value), std::nullopt};
}
Property Property::Double(std::string name, double value) {
  return {std::move(name), LUMO_PROPERTY_TYPE_DOUBLE, value, std::nullopt};
}
Property Property::String(std::string name, std::optional<std::string> value) {
  return {std::move(name), LUMO_PROPERTY_TYPE_STRING, 0, std::move(value)};
}
Property Property::Json(std::string name, std::optional<std::string> value) {
  return {std::move(name), LUMO_PROPERTY_TYPE_JSON_STRING, 0, std::move(value)};
}
Property Property::Bytes(std::string name, std::optional<std::string> value) {
  return {std::move(name), LUMO_PROPERTY_TYPE_BYTES, 0, std::move(value)};
}
Property Property::Raw(std::string name, lumo_property_type type) {
  return {std::move(name), type, 0, std::nullopt};
}

bool Property::operator==(const Property& other) const {
  return name == other.name && type == other.type && number == other.number && text == other.text;
}

std::ostream& operator<<(std::ostream& out, const Property& property) {
  out << property.name << " (type " << property.type << ") = ";
  if (property.text) return out << '"' << *property.text << '"';
  return out << property.number;
}

class Platform::Impl {
 public:
  ~Impl() { StopThreads(); }

  // --- the trace -------------------------------------------------------------------------------

  void Record(Entry entry) {
    entry.thread = std::this_thread::get_id();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_trace.push_back(std::move(entry));
    m_changed.notify_all();
  }

  void RecordCall(const std::string& text) {
    Entry entry;
    entry.kind = Entry::Kind::kCall;
    entry.text = text;
    Record(std::move(entry));
  }

  void Violation(const std::string& text) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_violations.push_back(text);
  }

  // Runs the operation's hook, and says whether the operation is to fail, and with which code.
  std::optional<lumo_error> Begin(const std::string& operation) {
    std::function<void()> hook;
    std::optional<lumo_error> failure;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      const auto foundHook = m_hooks.find(operation);
      if (foundHook != m_hooks.end()) hook = foundHook->second;
      const auto found = m_failures.find(operation);
      if (found != m_failures.end()) {
        Failure& f = found->second;
        if (f.skip > 0) {
          --f.skip;
        } else if (f.count > 0) {
          if (f.count != kAlways) --f.count;
          failure = f.code;
        }
      }
    }
    if (hook) hook();
    return failure;
  }

  // --- handles ---------------------------------------------------------------------------------

  FakeProperty* NewProperty(Property value) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_properties.push_back(std::make_unique<FakeProperty>());
    FakeProperty* property = m_properties.back().get();
    property->value = std::move(value);
    const auto nullName = m_nullNames.find(property->value.name);
    property->nullName = nullName != m_nullNames.end();
    m_propertyHandles.insert(property);
    return property;
  }

  FakeList* NewList(Owner owner) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lists.push_back(std::make_unique<FakeList>());
    m_lists.back()->owner = owner;
    m_listHandles.insert(m_lists.back().get());
    return m_lists.back().get();
  }

  FakeProperty* AsProperty(void* handle, const char* operation) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto* property = static_cast<FakeProperty*>(handle);
    if (handle == nullptr || m_propertyHandles.count(property) == 0) {
      m_violations.push_back(std::string(operation) + ": not a property");
      return nullptr;
    }
    const Owner owner = property->owner == Owner::kList ? property->list->owner : property->owner;
    if (owner != Owner::kPlugin && owner != Owner::kCallback) {
      m_violations.push_back(std::string(operation) + ": property '" + property->value.name +
                             "' used after it was given away or expired");
      return nullptr;
    }
    return property;
  }

  FakeList* AsList(void* handle, const char* operation) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto* list = static_cast<FakeList*>(handle);
    if (handle == nullptr) return nullptr;
    if (m_listHandles.count(list) == 0) {
      m_violations.push_back(std::string(operation) + ": not a list");
      return nullptr;
    }
    if (list->owner != Owner::kPlugin && list->owner != Owner::kCallback) {
      m_violations.push_back(std::string(operation) + ": list used after it was given away");
      return nullptr;
    }
    return list;
  }

  // The library takes the list over; what it held comes back.
  std::vector<Property> TakeList(void* handle, const char* operation, bool& wasNull) {
    wasNull = handle == nullptr;
    FakeList* list = AsList(handle, operation);
    std::vector<Property> properties;
    if (list == nullptr) return properties;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (list->owner == Owner::kCallback) {
      m_violations.push_back(std::string(operation) + ": a borrowed list was given away");
    }
    for (const FakeProperty* property : list->properties) properties.push_back(property->value);
    list->owner = Owner::kLibrary;
    return properties;
  }

  FakeService* AsService(void* handle, const char* operation) {
    if (handle == nullptr) return nullptr;
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& service : m_services) {
      if (service.get() == handle) {
        if (service->alive) return service.get();
        m_violations.push_back(std::string(operation) + ": service used after it was destroyed");
        return nullptr;
      }
    }
    m_violations.push_back(std::string(operation) + ": not a service");
    return nullptr;
  }

  // --- delivery --------------------------------------------------------------------------------

  FakeService* LastService() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_services.empty() ? nullptr : m_services.back().get();
  }

  void* NewRequest() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back(std::make_unique<char>('r'));
    return m_requests.back().get();
  }

  void* NewLibraryList(const std::vector<Property>& properties) {
    FakeList* list = NewList(Owner::kCallback);
    for (const Property& value : properties) {
      FakeProperty* property = NewProperty(value);
      const std::lock_guard<std::mutex> lock(m_mutex);
      property->owner = Owner::kList;
      property->list = list;
      property->index = list->properties.size();
      list->properties.push_back(property);
    }
    return list;
  }

  void Expire(void* list) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    static_cast<FakeList*>(list)->owner = Owner::kNobody;
  }

  void CallBack(FakeService* service, bool isSet, void* request,
                const std::vector<Property>& properties) {
    void* list = NewLibraryList(properties);
    {
      const SparedAllocations::Suspended suspended;
      (isSet ? service->set : service->get)(service, request, list, service->userData);
    }
    Expire(list);
  }

  void Post(FakeService* service, std::function<void()> job) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    while (m_threads.size() < kCallbackThreads) {
      m_threads.emplace_back([this] { RunCallbacks(); });
    }
    m_jobs.push_back({service, std::move(job)});
    m_jobsChanged.notify_all();
  }

  void RunCallbacks() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
      m_jobsChanged.wait(lock, [this] { return m_stop || !m_jobs.empty(); });
      if (m_stop) return;
      auto [service, job] = std::move(m_jobs.front());
      m_jobs.pop_front();
      if (service->alive) {
        ++m_running;
        lock.unlock();
        job();
        job = nullptr;
        lock.lock();
        --m_running;
      }
      m_jobsChanged.notify_all();
    }
  }

  void Drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_jobsChanged.wait(lock, [this] { return m_jobs.empty() && m_running == 0; });
  }

  void StopThreads() {
    std::vector<std::thread> threads;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_stop = true;
      threads.swap(m_threads);
      m_jobsChanged.notify_all();
    }
    for (std::thread& thread : threads) thread.join();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = false;
  }

  lumo_error Answer(bool isSet, void* serviceHandle, void* request, void* listHandle,
                    lumo_error code) {
    const char* operation =
        isSet ? "lumo_service_send_set_property_result" : "lumo_service_send_get_property_result";
    const auto failure = Begin(operation);
    FakeService* service = AsService(serviceHandle, operation);
    Response response;
    response.isSet = isSet;
    response.service = serviceHandle;
    response.request = request;
    response.properties = TakeList(listHandle, operation, response.listWasNull);
    response.code = code;
    response.thread = std::this_thread::get_id();
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      // With a null service the library ignores the answer, so a repetition harms nobody.
      if (service != nullptr && !m_answered.insert(request).second) {
        m_violations.push_back(std::string(operation) + ": second answer to one request");
      }
      m_responses.push_back(response);
    }
    std::ostringstream text;
    text << operation << "(" << (serviceHandle != nullptr ? "service" : "null") << ", [";
    const char* separator = "";
    for (const Property& property : response.properties) {
      text << separator << property;
      separator = ", ";
    }
    text << "], " << code << ")";
    RecordCall(text.str());
    return failure.value_or(0);
  }

  struct Failure {
    unsigned count = 0;
    lumo_error code = 0;
    unsigned skip = 0;
  };
  struct Job {
    FakeService* service;
    std::function<void()> run;
  };

  std::mutex m_mutex;  // guards all of what follows
  std::condition_variable m_changed;
  std::condition_variable m_jobsChanged;
  std::vector<Entry> m_trace;
  std::vector<Response> m_responses;
  std::vector<Notification> m_notifications;
  std::vector<std::string> m_violations;
  std::map<std::string, int> m_settings;
  std::map<std::string, Failure> m_failures;
  std::map<std::string, std::function<void()>> m_hooks;
  std::set<std::string> m_nullNames;
  std::optional<bool> m_releaseFileExists;
  std::vector<std::unique_ptr<FakeProperty>> m_properties;
  std::vector<std::unique_ptr<FakeList>> m_lists;
  std::set<FakeProperty*> m_propertyHandles;
  std::set<FakeList*> m_listHandles;
  std::vector<std::unique_ptr<FakeService>> m_services;
  std::vector<std::unique_ptr<char>> m_requests;
  std::set<void*> m_answered;
  std::deque<Job> m_jobs;
  std::size_t m_running = 0;
  bool m_stop = false;
  std::vector<std::thread> m_threads;
};

Platform::Platform() : m_impl(std::make_unique<Impl>()) {}
Platform::~Platform() = default;

Platform& Platform::Get() {
  static Platform platform;
  return platform;
}

void Platform::Reset() {
  m_impl->StopThreads();
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_trace.clear();
  m_impl->m_responses.clear();
  m_impl->m_notifications.clear();
  m_impl->m_violations.clear();
  m_impl->m_settings.clear();
  m_impl->m_failures.clear();
  m_impl->m_hooks.clear();
  m_impl->m_nullNames.clear();
  m_impl->m_releaseFileExists.reset();
  m_impl->m_propertyHandles.clear();
  m_impl->m_listHandles.clear();
  m_impl->m_properties.clear();
  m_impl->m_lists.clear();
  m_impl->m_services.clear();
  m_impl->m_requests.clear();
  m_impl->m_answered.clear();
  m_impl->m_jobs.clear();
}

std::vector<Entry> Platform::Trace() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->m_trace;
}

std::vector<std::string> Platform::Summaries() {
  std::vector<std::string> summaries;
  for (const Entry& entry : Trace()) summaries.push_back(entry.Summary());
  return summaries;
}

std::vector<LogLine> Platform::Logs() {
  std::vector<LogLine> lines;
  for (Entry& entry : Trace()) {
    if (entry.kind == Entry::Kind::kLog) lines.push_back(std::move(entry.log));
  }
  return lines;
}

std::vector<LogLine> Platform::LogsOf(const std::string& function) {
  std::vector<LogLine> lines;
  for (LogLine& line : Logs()) {
    if (line.function == function) lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> Platform::Calls() {
  std::vector<std::string> calls;
  for (Entry& entry : Trace()) {
    if (entry.kind != Entry::Kind::kLog) calls.push_back(std::move(entry.text));
  }
  return calls;
}

std::vector<Response> Platform::Responses() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->m_responses;
}

std::vector<Notification> Platform::Notifications() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->m_notifications;
}

std::vector<Registration> Platform::Registrations() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  if (m_impl->m_services.empty()) return {};
  return m_impl->m_services.back()->registrations;
}

std::size_t Platform::CountLogs(const std::string& messagePart) {
  const std::vector<LogLine> lines = Logs();
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(), [&messagePart](const LogLine& line) {
        return line.text.find(messagePart) != std::string::npos;
      }));
}

std::optional<int> Platform::Setting(const std::string& key) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  const auto found = m_impl->m_settings.find(key);
  return found == m_impl->m_settings.end() ? std::nullopt : std::optional<int>(found->second);
}

void Platform::ClearTrace() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_trace.clear();
  m_impl->m_responses.clear();
  m_impl->m_notifications.clear();
}

bool Platform::WaitUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::unique_lock<std::mutex> lock(m_impl->m_mutex);
    // Bounded, for conditions that change without an entry.
    m_impl->m_changed.wait_for(lock, std::chrono::milliseconds(5));
  }
  return true;
}

void Platform::Fail(const std::string& operation, unsigned count, lumo_error code, unsigned skip) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_failures[operation] = {count, code, skip};
}

void Platform::ClearFailures() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_failures.clear();
}

void Platform::OnCall(const std::string& operation, std::function<void()> hook) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_hooks[operation] = std::move(hook);
}

void Platform::GiveNullNameFor(const std::string& propertyName) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_nullNames.insert(propertyName);
}

void Platform::SetReleaseFileExists(std::optional<bool> exists) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_releaseFileExists = exists;
}

void* Platform::Service() {
  FakeService* service = m_impl->LastService();
  return service != nullptr && ServiceLives(service) ? service : nullptr;
}

bool Platform::ServiceLives(void* service) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return std::any_of(
      m_impl->m_services.begin(), m_impl->m_services.end(),
      [service](const auto& candidate) { return candidate.get() == service && candidate->alive; });
}

std::size_t Platform::ServicesCreated() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return m_impl->m_services.size();
}

std::size_t Platform::LiveServices() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return static_cast<std::size_t>(
      std::count_if(m_impl->m_services.begin(), m_impl->m_services.end(),
                    [](const auto& service) { return service->alive; }));
}

void* Platform::DeliverGet(const std::vector<Property>& properties) {
  const SparedAllocations spared;
  void* request = m_impl->NewRequest();
  m_impl->CallBack(m_impl->LastService(), false, request, properties);
  return request;
}

void* Platform::DeliverSet(const std::vector<Property>& properties) {
  const SparedAllocations spared;
  void* request = m_impl->NewRequest();
  m_impl->CallBack(m_impl->LastService(), true, request, properties);
  return request;
}

void Platform::DeliverCancel(void* request) {
  FakeService* service = m_impl->LastService();
  service->cancel(service, request, service->userData);
}

void Platform::DeliverProtocolStatus(std::optional<std::string> protocol, int status) {
  FakeService* service = m_impl->LastService();
  const lumo_string text =
      protocol ? lumo_string{protocol->c_str(), protocol->size()} : lumo_string{nullptr, 0};
  service->protocolStatus(service, text, status, service->userData);
}

void* Platform::PostGet(const std::vector<Property>& properties) {
  void* request = m_impl->NewRequest();
  FakeService* service = m_impl->LastService();
  m_impl->Post(service, [this, service, request, properties] {
    m_impl->CallBack(service, false, request, properties);
  });
  return request;
}

void* Platform::PostSet(const std::vector<Property>& properties) {
  void* request = m_impl->NewRequest();
  FakeService* service = m_impl->LastService();
  m_impl->Post(service, [this, service, request, properties] {
    m_impl->CallBack(service, true, request, properties);
  });
  return request;
}

void Platform::PostCancel(void* request) {
  FakeService* service = m_impl->LastService();
  m_impl->Post(service,
               [service, request] { service->cancel(service, request, service->userData); });
}

void Platform::Drain() {
  m_impl->Drain();
}

void* Platform::MakeLibraryList(const std::vector<Property>& properties) {
  return m_impl->NewLibraryList(properties);
}

std::vector<Property> Platform::ReadList(void* list) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  std::vector<Property> properties;
  for (const FakeProperty* property : static_cast<FakeList*>(list)->properties) {
    properties.push_back(property->value);
  }
  return properties;
}

Property Platform::ReadProperty(void* property) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  return static_cast<FakeProperty*>(property)->value;
}

void Platform::DisposeList(void* list) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  static_cast<FakeList*>(list)->owner = Owner::kNobody;
}

void Platform::DisposeProperty(void* property) {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  static_cast<FakeProperty*>(property)->owner = Owner::kNobody;
}

std::vector<std::string> Platform::Violations() {
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  std::vector<std::string> violations = m_impl->m_violations;
  for (const auto& list : m_impl->m_lists) {
    if (list->owner == Owner::kPlugin) violations.push_back("a list was never given away");
  }
  for (const auto& property : m_impl->m_properties) {
    if (property->owner == Owner::kPlugin) {
      violations.push_back("property '" + property->value.name + "' was never put into a list");
    }
  }
  return violations;
}

std::vector<std::string> Platform::TakeViolations() {
  std::vector<std::string> violations = Violations();
  const std::lock_guard<std::mutex> lock(m_impl->m_mutex);
  m_impl->m_violations.clear();
  for (const auto& list : m_impl->m_lists) {
    if (list->owner == Owner::kPlugin) list->owner = Owner::kNobody;
  }
  for (const auto& property : m_impl->m_properties) {
    if (property->owner == Owner::kPlugin) property->owner = Owner::kNobody;
  }
  return violations;
}

namespace {
Platform::Impl& impl() {
  return Platform::Get().impl();
}

void* CreateProperty(const char* operation, Property value) {
  if (impl().Begin(operation)) return nullptr;
  return impl().NewProperty(std::move(value));
}
}  // namespace

}  // namespace fake

// --- the C functions
// ------------------------------------------------------------------------------

using fake::impl;
using fake::Owner;

#pragma GCC visibility push(default)
extern "C" {

int dlog_print(int priority, const char* tag, const char* format, ...) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("dlog_print");
  fake::Entry entry;
  entry.kind = fake::Entry::Kind::kLog;
  entry.log.priority = priority;
  entry.log.tag = tag;
  entry.log.format = format;
  va_list arguments;
  va_start(arguments, format);
  entry.log.text = fake::Format(format, arguments);
  va_end(arguments);
  if (entry.log.format.rfind(fake::kPrefix, 0) == 0) {
    va_start(arguments, format);
    entry.log.file = va_arg(arguments, const char*);
    entry.log.function = va_arg(arguments, const char*);
    entry.log.line = va_arg(arguments, int);
    va_end(arguments);
  } else {
    impl().Violation("a log format without the prefix: " + entry.log.format);
  }
  impl().Record(std::move(entry));
  return failure.value_or(0);
}

int vconf_set_int(const char* key, int value) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("vconf_set_int");
  fake::Entry entry;
  entry.kind = fake::Entry::Kind::kSetting;
  entry.text = std::string("vconf_set_int(") + key + ", " + std::to_string(value) + ")";
  if (!failure) {
    const std::lock_guard<std::mutex> lock(impl().m_mutex);
    impl().m_settings[key] = value;
  }
  impl().Record(std::move(entry));
  return failure.value_or(0);
}

int usleep(useconds_t duration) {
  const SparedAllocations spared;
  impl().RecordCall("usleep(" + std::to_string(duration) + ")");
  return 0;
}

int access(const char* path, int mode) noexcept {
  const SparedAllocations spared;
  if (std::strcmp(path, "/etc/release") == 0) {
    std::optional<bool> exists;
    {
      const std::lock_guard<std::mutex> lock(impl().m_mutex);
      exists = impl().m_releaseFileExists;
    }
    impl().RecordCall(std::string("access(") + path + ", " + std::to_string(mode) + ")");
    if (exists) return *exists ? 0 : -1;
  }
  return faccessat(AT_FDCWD, path, mode, 0);
}

lumo_string lumo_string_new(const char* data, size_t length) {
  return {data, length};
}

void* lumo_service_create(lumo_string name, lumo_string description,
                          lumo_protocol_status_cb protocol_status, lumo_get_property_cb get,
                          lumo_set_property_cb set, lumo_cancel_cb cancel, void* user_data) {
  const SparedAllocations spared;
  auto service = std::make_unique<fake::FakeService>();
  service->name = fake::ToString(name);
  service->description = fake::ToString(description);
  service->protocolStatus = protocol_status;
  service->get = get;
  service->set = set;
  service->cancel = cancel;
  service->userData = user_data;
  fake::FakeService* const handle = service.get();
  {
    // Live before the call returns, as the real one is.
    const std::lock_guard<std::mutex> lock(impl().m_mutex);
    impl().m_services.push_back(std::move(service));
  }
  const auto failure = impl().Begin("lumo_service_create");
  if (failure) {
    const std::lock_guard<std::mutex> lock(impl().m_mutex);
    impl().m_services.pop_back();
  }
  impl().RecordCall("lumo_service_create(" + fake::ToString(name) + ", " +
                    fake::ToString(description) + ")");
  return failure ? nullptr : handle;
}

lumo_error lumo_service_destroy(void* service) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("lumo_service_destroy");
  fake::FakeService* const known = impl().AsService(service, "lumo_service_destroy");
  if (known != nullptr) {
    const std::lock_guard<std::mutex> lock(impl().m_mutex);
    known->alive = false;
  }
  impl().RecordCall(known != nullptr ? "lumo_service_destroy(" + known->name + ")"
                                     : "lumo_service_destroy(null)");
  return failure.value_or(0);
}

lumo_error lumo_service_register_property(void* service, lumo_string name, lumo_property_type type,
                                          int64_t attribute1, int64_t attribute2,
                                          lumo_string text) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("lumo_service_register_property");
  fake::FakeService* const known = impl().AsService(service, "lumo_service_register_property");
  impl().RecordCall("lumo_service_register_property(" + fake::ToString(name) + ", " +
                    std::to_string(type) + ", " + std::to_string(attribute1) + ", " +
                    std::to_string(attribute2) + ", \"" + fake::ToString(text) + "\")");
  if (failure) return *failure;
  if (known == nullptr) return 1;
  const std::lock_guard<std::mutex> lock(impl().m_mutex);
  known->registrations.push_back(
      {fake::ToString(name), type, attribute1, attribute2, fake::ToString(text)});
  return 0;
}

lumo_error lumo_service_unregister_property(void* service, lumo_string name) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("lumo_service_unregister_property");
  fake::FakeService* const known = impl().AsService(service, "lumo_service_unregister_property");
  impl().RecordCall("lumo_service_unregister_property(" + fake::ToString(name) + ")");
  if (failure) return *failure;
  if (known == nullptr) return 1;
  const std::lock_guard<std::mutex> lock(impl().m_mutex);
  auto& registrations = known->registrations;
  const auto found =
      std::find_if(registrations.begin(), registrations.end(),
                   [&name](const fake::Registration& r) { return r.name == fake::ToString(name); });
  if (found == registrations.end()) return 2;
  registrations.erase(found);
  return 0;
}

lumo_error lumo_service_notify(void* service, void* list) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("lumo_service_notify");
  impl().AsService(service, "lumo_service_notify");
  fake::Notification notification;
  notification.service = service;
  notification.properties = impl().TakeList(list, "lumo_service_notify", notification.listWasNull);
  std::ostringstream text;
  text << "lumo_service_notify(" << (service != nullptr ? "service" : "null") << ", [";
  const char* separator = "";
  for (const fake::Property& property : notification.properties) {
    text << separator << property;
    separator = ", ";
  }
  text << "])";
  {
    const std::lock_guard<std::mutex> lock(impl().m_mutex);
    impl().m_notifications.push_back(std::move(notification));
  }
  impl().RecordCall(text.str());
  return failure.value_or(0);
}

lumo_error lumo_service_send_get_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  const SparedAllocations spared;
  return impl().Answer(false, service, request, list, code);
}

lumo_error lumo_service_send_set_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  const SparedAllocations spared;
  return impl().Answer(true, service, request, list, code);
}

void* lumo_property_list_create(void) {
  const SparedAllocations spared;
  if (impl().Begin("lumo_property_list_create")) return nullptr;
  return impl().NewList(Owner::kPlugin);
}

lumo_error lumo_property_list_push_property(void* list, void* property, int position) {
  const SparedAllocations spared;
  const auto failure = impl().Begin("lumo_property_list_push_property");
  auto* const knownList = impl().AsList(list, "lumo_property_list_push_property");
  auto* const knownProperty = impl().AsProperty(property, "lumo_property_list_push_property");
  if (knownList == nullptr || knownProperty == nullptr) return 1;
  if (position != 0) impl().Violation("a property was pushed to a position other than 0");
  const std::lock_guard<std::mutex> lock(impl().m_mutex);
  if (knownProperty->owner != Owner::kPlugin) {
    impl().m_violations.push_back("a property was put into a second list");
    return 1;
  }
  if (failure) {
    knownProperty->owner = Owner::kLibrary;
    return *failure;
  }
  knownProperty->owner = Owner::kList;
  knownProperty->list = knownList;
  knownProperty->index = knownList->properties.size();
  knownList->properties.push_back(knownProperty);
  return 0;
}

void* lumo_property_list_get_first(void* list) {
  const SparedAllocations spared;
  if (impl().Begin("lumo_property_list_get_first")) return nullptr;
  auto* const known = impl().AsList(list, "lumo_property_list_get_first");
  if (known == nullptr || known->properties.empty()) return nullptr;
  return known->properties.front();
}

void* lumo_property_list_get_next(void* list, void* property) {
  const SparedAllocations spared;
  if (impl().Begin("lumo_property_list_get_next")) return nullptr;
  auto* const knownList = impl().AsList(list, "lumo_property_list_get_next");
  auto* const knownProperty = impl().AsProperty(property, "lumo_property_list_get_next");
  if (knownList == nullptr || knownProperty == nullptr) return nullptr;
  if (knownProperty->list != knownList) {
    impl().Violation("lumo_property_list_get_next: the property is not in the list");
    return nullptr;
  }
  const std::size_t next = knownProperty->index + 1;
  return next < knownList->properties.size() ? knownList->properties[next] : nullptr;
}

void* lumo_property_create_bool(lumo_string name, bool value) {
  const SparedAllocations spared;
  return fake::CreateProperty("lumo_property_create_bool",
                              fake::Property::Bool(fake::ToString(name), value));
}

void* lumo_property_create_int(lumo_string name, int value) {
  const SparedAllocations spared;
  return fake::CreateProperty("lumo_property_create_int",
                              fake::Property::Int(fake::ToString(name), value));
}

void* lumo_property_create_double(lumo_string name, double value) {
  const SparedAllocations spared;
  return fake::CreateProperty("lumo_property_create_double",
                              fake::Property::Double(fake::ToString(name), value));
}

void* lumo_property_create_string(lumo_string name, lumo_string value) {
  const SparedAllocations spared;
  return fake::CreateProperty("lumo_property_create_string",
                              fake::Property::String(fake::ToString(name), fake::ToString(value)));
}

void* lumo_property_create_json_string(lumo_string name, lumo_string json) {
  const SparedAllocations spared;
  return fake::CreateProperty("lumo_property_create_json_string",
                              fake::Property::Json(fake::ToString(name), fake::ToString(json)));
}

lumo_string lumo_property_get_name(void* property) {
  const SparedAllocations spared;
  if (impl().Begin("lumo_property_get_name")) return {nullptr, 0};
  auto* const known = impl().AsProperty(property, "lumo_property_get_name");
  if (known == nullptr || known->nullName) return {nullptr, 0};
  return {known->value.name.c_str(), known->value.name.size()};
}

lumo_property_type lumo_property_get_type(void* property) {
  const SparedAllocations spared;
  if (const auto failure = impl().Begin("lumo_property_get_type")) return *failure;
  auto* const known = impl().AsProperty(property, "lumo_property_get_type");
  return known == nullptr ? -1 : known->value.type;
}

lumo_error lumo_property_get_bool(void* property, bool* value) {
  const SparedAllocations spared;
  if (const auto failure = impl().Begin("lumo_property_get_bool")) return *failure;
  auto* const known = impl().AsProperty(property, "lumo_property_get_bool");
  if (known == nullptr) return 1;
  *value = known->value.number != 0;
  return 0;
}

lumo_error lumo_property_get_int(void* property, int* value) {
  const SparedAllocations spared;
  if (const auto failure = impl().Begin("lumo_property_get_int")) return *failure;
  auto* const known = impl().AsProperty(property, "lumo_property_get_int");
  if (known == nullptr) return 1;
  *value = static_cast<int>(known->value.number);
  return 0;
}

static lumo_string getText(const char* operation, void* property) {
  if (impl().Begin(operation)) return {nullptr, 0};
  auto* const known = impl().AsProperty(property, operation);
  if (known == nullptr || !known->value.text) return {nullptr, 0};
  return {known->value.text->c_str(), known->value.text->size()};
}

lumo_string lumo_property_get_string(void* property) {
  const SparedAllocations spared;
  return getText("lumo_property_get_string", property);
}

lumo_string lumo_property_get_json_string(void* property) {
  const SparedAllocations spared;
  return getText("lumo_property_get_json_string", property);
}

lumo_bytes lumo_property_get_bytes(void* property) {
  const SparedAllocations spared;
  const lumo_string text = getText("lumo_property_get_bytes", property);
  return {reinterpret_cast<const unsigned char*>(text.data), text.length};
}

}  // extern "C"
#pragma GCC visibility pop
