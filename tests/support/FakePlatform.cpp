#include "FakePlatform.h"

#include <dlog.h>
#include <fcntl.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <utility>

#include "SparedAllocations.h"

namespace fake {
namespace {

constexpr std::size_t kCallbackThreads = 3;
const char* const kPrefix = "%s : %s(%d)";

// Who may use a handle now.
enum class Owner { kPlugin, kList, kLibrary, kCallback, kNobody };

bool MayUse(Owner owner) {
  return owner == Owner::kPlugin || owner == Owner::kCallback;
}

struct FakeList {
  std::vector<struct FakeProperty*> properties;
  Owner owner = Owner::kPlugin;

  bool IsUsable() const { return MayUse(owner); }
};

struct FakeProperty {
  Property value;
  Owner owner = Owner::kPlugin;
  FakeList* list = nullptr;
  std::size_t index = 0;

  bool IsUsable() const { return MayUse(owner == Owner::kList ? list->owner : owner); }
};

struct FakeService {
  std::string name;
  lumo_protocol_status_cb protocolStatus;
  lumo_get_property_cb get;
  lumo_set_property_cb set;
  lumo_cancel_cb cancel;
  void* userData;
  bool alive = true;
  std::vector<Registration> registrations = {};

  bool IsUsable() const { return alive; }
};

template <typename Handle>
using Handles = std::map<void*, std::unique_ptr<Handle>>;

struct Failure {
  unsigned count;
  lumo_error code;
  unsigned skip;
};

struct Job {
  FakeService* service;
  std::function<void()> run;
};

std::string ToString(const lumo_string& text) {
  return text.data == nullptr ? std::string() : std::string(text.data, text.length);
}

// "service, [a (type 1) = 1, b (type 0) = 1]"; "null" for a null pointer.
std::string ToString(void* service, bool listIsNull, const std::vector<Property>& properties) {
  std::ostringstream out;
  out << (service != nullptr ? "service" : "null") << ", " << (listIsNull ? "null" : "[");
  const char* separator = "";
  for (const Property& property : properties) out << std::exchange(separator, ", ") << property;
  out << (listIsNull ? "" : "]");
  return out.str();
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
  message.erase(0, message.find_first_not_of(' '));
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

const std::vector<std::string>& LumoOperations() {
  static const std::vector<std::string> operations = {"lumo_service_create",
                                                      "lumo_service_destroy",
                                                      "lumo_service_register_property",
                                                      "lumo_service_unregister_property",
                                                      "lumo_service_notify",
                                                      "lumo_service_send_get_property_result",
                                                      "lumo_service_send_set_property_result",
                                                      "lumo_property_list_create",
                                                      "lumo_property_list_push_property",
                                                      "lumo_property_list_get_first",
                                                      "lumo_property_list_get_next",
                                                      "lumo_property_create_bool",
                                                      "lumo_property_create_int",
                                                      "lumo_property_create_double",
                                                      "lumo_property_create_string",
                                                      "lumo_property_create_json_string",
                                                      "lumo_property_get_name",
                                                      "lumo_property_get_type",
                                                      "lumo_property_get_bool",
                                                      "lumo_property_get_int",
                                                      "lumo_property_get_string",
                                                      "lumo_property_get_json_string",
                                                      "lumo_property_get_bytes"};
  return operations;
}

class Platform::Impl {
 public:
  // What a test leaves behind, and Reset forgets.
  struct Data {
    std::vector<Entry> trace;
    std::vector<Response> responses;
    std::vector<Notification> notifications;
    std::vector<std::string> violations;
    std::map<std::string, int> settings;
    std::map<std::string, Failure> failures;
    std::map<std::string, std::function<void()>> hooks;
    std::set<std::string> nullNames;
    std::optional<bool> releaseFileExists;
    Handles<FakeProperty> properties;
    Handles<FakeList> lists;
    Handles<FakeService> services;
    FakeService* lastService = nullptr;
    std::vector<std::unique_ptr<char>> requests;
    std::set<void*> answered;
    std::deque<Job> jobs;
  };

  ~Impl() { StopThreads(); }

  // Runs `function` on the data under the lock.
  template <typename Function>
  auto With(Function function) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return function(m_data);
  }

  void Record(Entry entry) {
    entry.thread = std::this_thread::get_id();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_data.trace.push_back(std::move(entry));
    m_changed.notify_all();
  }

  void WaitForAChange(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, limit);
  }

  void Violation(const std::string& text) {
    With([&](Data& data) { data.violations.push_back(text); });
  }

  FakeProperty* NewProperty(Property value, FakeList* list = nullptr) {
    auto property = std::make_unique<FakeProperty>();
    property->value = std::move(value);
    FakeProperty* const handle = property.get();
    return With([&](Data& data) {
      if (list != nullptr) Append(*list, *property);
      data.properties[handle] = std::move(property);
      return handle;
    });
  }

  static void Append(FakeList& list, FakeProperty& property) {
    property.owner = Owner::kList;
    property.list = &list;
    property.index = list.properties.size();
    list.properties.push_back(&property);
  }

  FakeList* NewList(Owner owner) {
    auto list = std::make_unique<FakeList>();
    list->owner = owner;
    FakeList* const handle = list.get();
    With([&](Data& data) { data.lists[handle] = std::move(list); });
    return handle;
  }

  FakeList* NewLibraryList(const std::vector<Property>& properties) {
    FakeList* const list = NewList(Owner::kCallback);
    for (const Property& value : properties) NewProperty(value, list);
    return list;
  }

  void* NewRequest() {
    return With([](Data& data) {
      data.requests.push_back(std::make_unique<char>('r'));
      return data.requests.back().get();
    });
  }

  FakeService* LastService() {
    return With([](Data& data) { return data.lastService; });
  }

  void CallBack(FakeService* service, bool isSet, void* request,
                const std::vector<Property>& properties) {
    FakeList* const list = NewLibraryList(properties);
    {
      const SparedAllocations::Suspended suspended;
      (isSet ? service->set : service->get)(service, request, list, service->userData);
    }
    With([list](Data& /*data*/) { list->owner = Owner::kNobody; });
  }

  void Post(FakeService* service, std::function<void()> job) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    while (m_threads.size() < kCallbackThreads) {
      m_threads.emplace_back([this] { RunCallbacks(); });
    }
    m_data.jobs.push_back({service, std::move(job)});
    m_jobsChanged.notify_all();
  }

  void Drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_jobsChanged.wait(lock, [this] { return m_data.jobs.empty() && m_running == 0; });
  }

  void StopThreads() {
    std::vector<std::thread> threads;
    With([&](Data& /*data*/) {
      m_stop = true;
      threads.swap(m_threads);
      m_jobsChanged.notify_all();
    });
    for (std::thread& thread : threads) thread.join();
    With([this](Data& /*data*/) { m_stop = false; });
  }

 private:
  void RunCallbacks() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (true) {
      m_jobsChanged.wait(lock, [this] { return m_stop || !m_data.jobs.empty(); });
      if (m_stop) return;
      auto [service, job] = std::move(m_data.jobs.front());
      m_data.jobs.pop_front();
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

  std::mutex m_mutex;  // guards all of what follows
  std::condition_variable m_changed;
  std::condition_variable m_jobsChanged;
  Data m_data;
  std::size_t m_running = 0;
  bool m_stop = false;
  std::vector<std::thread> m_threads;
};

using Data = Platform::Impl::Data;

Platform::Platform() : m_impl(std::make_unique<Impl>()) {}
Platform::~Platform() = default;

Platform& Platform::Get() {
  static Platform platform;
  return platform;
}

void Platform::Reset() {
  m_impl->StopThreads();
  m_impl->With([](Data& data) { data = Data(); });
}

std::vector<Entry> Platform::Trace() {
  return m_impl->With([](Data& data) { return data.trace; });
}

std::vector<std::string> Platform::Summaries() {
  std::vector<std::string> summaries;
  for (const Entry& entry : Trace()) summaries.push_back(entry.Summary());
  return summaries;
}

std::vector<LogLine> Platform::LogsWith(const std::function<bool(const LogLine&)>& condition) {
  std::vector<LogLine> lines;
  for (Entry& entry : Trace()) {
    if (entry.kind == Entry::Kind::kLog && condition(entry.log))
      lines.push_back(std::move(entry.log));
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
  return m_impl->With([](Data& data) { return data.responses; });
}

std::vector<Notification> Platform::Notifications() {
  return m_impl->With([](Data& data) { return data.notifications; });
}

std::vector<Registration> Platform::Registrations() {
  return m_impl->With([](Data& data) {
    return data.lastService != nullptr ? data.lastService->registrations
                                       : std::vector<Registration>();
  });
}

std::optional<int> Platform::Setting(const std::string& key) {
  return m_impl->With([&key](Data& data) -> std::optional<int> {
    const auto found = data.settings.find(key);
    if (found == data.settings.end()) return std::nullopt;
    return found->second;
  });
}

void Platform::ClearTrace() {
  m_impl->With([](Data& data) {
    data.trace.clear();
    data.responses.clear();
    data.notifications.clear();
  });
}

bool Platform::WaitUntil(const std::function<bool()>& condition) {
  // Bounded, for conditions that change without an entry.
  constexpr std::chrono::milliseconds kLongestWait(5);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    m_impl->WaitForAChange(kLongestWait);
  }
  return true;
}

void Platform::Fail(const std::string& operation, unsigned count, lumo_error code, unsigned skip) {
  m_impl->With([&](Data& data) { data.failures[operation] = {count, code, skip}; });
}

void Platform::ClearFailures() {
  m_impl->With([](Data& data) { data.failures.clear(); });
}

void Platform::OnCall(const std::string& operation, std::function<void()> hook) {
  m_impl->With([&](Data& data) { data.hooks[operation] = std::move(hook); });
}

void Platform::GiveNullNameFor(const std::string& propertyName) {
  m_impl->With([&](Data& data) { data.nullNames.insert(propertyName); });
}

void Platform::SetReleaseFileExists(std::optional<bool> exists) {
  m_impl->With([exists](Data& data) { data.releaseFileExists = exists; });
}

void* Platform::Service() {
  return m_impl->With([](Data& data) -> void* {
    return data.lastService != nullptr && data.lastService->alive ? data.lastService : nullptr;
  });
}

std::size_t Platform::ServicesCreated() {
  return m_impl->With([](Data& data) { return data.services.size(); });
}

std::size_t Platform::LiveServices() {
  return m_impl->With([](Data& data) {
    return static_cast<std::size_t>(
        std::count_if(data.services.begin(), data.services.end(),
                      [](const auto& service) { return service.second->alive; }));
  });
}

void* Platform::Deliver(bool isSet, const std::vector<Property>& properties) {
  const SparedAllocations spared;
  void* const request = m_impl->NewRequest();
  m_impl->CallBack(m_impl->LastService(), isSet, request, properties);
  return request;
}

void Platform::DeliverCancel(void* request) {
  FakeService* const service = m_impl->LastService();
  service->cancel(service, request, service->userData);
}

void Platform::DeliverProtocolStatus(std::optional<std::string> protocol, int status) {
  FakeService* const service = m_impl->LastService();
  const lumo_string text =
      protocol ? lumo_string{protocol->c_str(), protocol->size()} : lumo_string{nullptr, 0};
  service->protocolStatus(service, text, status, service->userData);
}

void* Platform::Post(bool isSet, const std::vector<Property>& properties) {
  void* const request = m_impl->NewRequest();
  FakeService* const service = m_impl->LastService();
  m_impl->Post(service, [this, service, isSet, request, properties] {
    m_impl->CallBack(service, isSet, request, properties);
  });
  return request;
}

void Platform::PostCancel(void* request) {
  FakeService* const service = m_impl->LastService();
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
  return m_impl->With([list](Data& data) {
    std::vector<Property> values;
    for (const FakeProperty* property : data.lists.at(list)->properties) {
      values.push_back(property->value);
    }
    return values;
  });
}

Property Platform::ReadProperty(void* property) {
  return m_impl->With([property](Data& data) { return data.properties.at(property)->value; });
}

void Platform::DisposeList(void* list) {
  m_impl->With([list](Data& data) { data.lists.at(list)->owner = Owner::kNobody; });
}

void Platform::DisposeProperty(void* property) {
  m_impl->With([property](Data& data) { data.properties.at(property)->owner = Owner::kNobody; });
}

std::vector<std::string> Platform::TakeViolations() {
  return m_impl->With([](Data& data) {
    std::vector<std::string> violations = std::exchange(data.violations, {});
    for (const auto& [handle, list] : data.lists) {
      if (list->owner != Owner::kPlugin) continue;
      violations.push_back("a list was never given away");
      list->owner = Owner::kNobody;
    }
    for (const auto& [handle, property] : data.properties) {
      if (property->owner != Owner::kPlugin) continue;
      violations.push_back("property '" + property->value.name + "' was never put into a list");
      property->owner = Owner::kNobody;
    }
    return violations;
  });
}

namespace {

Platform::Impl& impl() {
  return Platform::Get().impl();
}

// One call of the function that makes this. What it allocates is the test's own; its hook has run.
class Call {
 public:
  explicit Call(const char* operation = __builtin_FUNCTION()) : m_operation(operation) {
    const auto [hook, failure] = impl().With([this](Data& data) {
      const auto found = data.hooks.find(m_operation);
      return std::make_pair(found != data.hooks.end() ? found->second : nullptr, TakeFailure(data));
    });
    if (hook) hook();
    m_failure = failure;
  }

  bool Fails() const { return m_failure.has_value(); }
  lumo_error CodeOr(lumo_error other) const { return m_failure.value_or(other); }

  void Violation(const std::string& what) const { impl().Violation(m_operation + what); }

  // "operation(arguments)", as a call or, for the store, a setting.
  void Record(const std::string& arguments, Entry::Kind kind = Entry::Kind::kCall) const {
    Entry entry;
    entry.kind = kind;
    entry.text = m_operation + "(" + arguments + ")";
    impl().Record(std::move(entry));
  }

  // What the handle stands for; null, and a violation, when it may not be used now.
  FakeProperty* AsProperty(void* handle) const {
    return Use(&Data::properties, handle, "property used after it was given away");
  }
  // The property to be read; null also when the call is to fail.
  FakeProperty* ToRead(void* handle) const { return Fails() ? nullptr : AsProperty(handle); }
  // A null list or service is allowed, and gives null.
  FakeList* AsList(void* handle) const {
    return handle == nullptr ? nullptr
                             : Use(&Data::lists, handle, "list used after it was given away");
  }
  FakeService* AsService(void* handle) const {
    return handle == nullptr ? nullptr
                             : Use(&Data::services, handle, "service used after it was destroyed");
  }

  // The library takes the list over; what it held comes back.
  std::vector<Property> TakeList(void* handle) const {
    FakeList* const list = AsList(handle);
    if (list == nullptr) return {};
    return impl().With([this, list](Data& data) {
      if (list->owner == Owner::kCallback) {
        data.violations.push_back(m_operation + ": a borrowed list was given away");
      }
      std::vector<Property> properties;
      for (const FakeProperty* property : list->properties) properties.push_back(property->value);
      list->owner = Owner::kLibrary;
      return properties;
    });
  }

  void* CreateProperty(Property value) const {
    return Fails() ? nullptr : impl().NewProperty(std::move(value));
  }

  lumo_string Text(void* handle) const {
    const FakeProperty* const property = ToRead(handle);
    if (property == nullptr || !property->value.text) return {nullptr, 0};
    return {property->value.text->c_str(), property->value.text->size()};
  }

  lumo_error Answer(bool isSet, void* service, void* request, void* list, lumo_error code) const {
    const bool hasService = AsService(service) != nullptr;
    const Response response = {
        isSet, service, request, list == nullptr, TakeList(list), code, std::this_thread::get_id()};
    // With a null service the library ignores the answer, so a repetition harms nobody.
    const bool second = impl().With([&](Data& data) {
      data.responses.push_back(response);
      return hasService && !data.answered.insert(request).second;
    });
    if (second) Violation(": second answer to one request");
    Record(ToString(service, list == nullptr, response.properties) + ", " + std::to_string(code));
    return CodeOr(0);
  }

 private:
  template <typename Handle>
  Handle* Use(Handles<Handle> Data::*handles, void* handle, const std::string& violation) const {
    return impl().With([&](Data& data) -> Handle* {
      const auto found = (data.*handles).find(handle);
      const bool isKnown = found != (data.*handles).end();
      if (isKnown && found->second->IsUsable()) return found->second.get();
      data.violations.push_back(m_operation + ": " +
                                (isKnown ? violation : "no handle of this kind"));
      return nullptr;
    });
  }

  std::optional<lumo_error> TakeFailure(Data& data) const {
    const auto found = data.failures.find(m_operation);
    if (found == data.failures.end()) return std::nullopt;
    Failure& failure = found->second;
    if (failure.skip > 0) {
      --failure.skip;
      return std::nullopt;
    }
    if (failure.count == 0) return std::nullopt;
    if (failure.count != Platform::kAlways) --failure.count;
    return failure.code;
  }

  SparedAllocations m_spared;
  std::string m_operation;
  std::optional<lumo_error> m_failure;
};

}  // namespace
}  // namespace fake

// --- the C functions -----------------------------------------------------------------------------

using fake::Call;
using fake::Data;
using fake::impl;
using fake::Owner;
using fake::Property;
using fake::ToString;

#pragma GCC visibility push(default)
extern "C" {

int dlog_print(int priority, const char* tag, const char* format, ...) {
  const Call call;
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
  return call.CodeOr(0);
}

int vconf_set_int(const char* key, int value) {
  const Call call;
  if (!call.Fails()) impl().With([&](Data& data) { data.settings[key] = value; });
  call.Record(std::string(key) + ", " + std::to_string(value), fake::Entry::Kind::kSetting);
  return call.CodeOr(0);
}

int usleep(useconds_t duration) {
  const Call call;
  call.Record(std::to_string(duration));
  return 0;
}

int access(const char* path, int mode) noexcept {
  if (std::strcmp(path, "/etc/release") == 0) {
    const Call call;
    call.Record(std::string(path) + ", " + std::to_string(mode));
    const auto exists = impl().With([](Data& data) { return data.releaseFileExists; });
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
  // Live before the call returns, and for its hook, as the real one is.
  fake::FakeService* service = nullptr;
  fake::FakeService* const before = impl().With([&](Data& data) {
    const SparedAllocations spared;
    fake::FakeService made = {ToString(name), protocol_status, get, set, cancel, user_data};
    auto owned = std::make_unique<fake::FakeService>(std::move(made));
    service = owned.get();
    data.services[service] = std::move(owned);
    return std::exchange(data.lastService, service);
  });
  const Call call;
  if (call.Fails()) {
    impl().With([&](Data& data) {
      data.services.erase(service);
      data.lastService = before;
    });
  }
  call.Record(ToString(name) + ", " + ToString(description));
  return call.Fails() ? nullptr : service;
}

lumo_error lumo_service_destroy(void* service) {
  const Call call;
  fake::FakeService* const known = call.AsService(service);
  if (known != nullptr) impl().With([known](Data& /*data*/) { known->alive = false; });
  call.Record(known != nullptr ? known->name : "null");
  return call.CodeOr(0);
}

lumo_error lumo_service_register_property(void* service, lumo_string name, lumo_property_type type,
                                          int64_t attribute1, int64_t attribute2,
                                          lumo_string text) {
  const Call call;
  fake::FakeService* const known = call.AsService(service);
  call.Record(ToString(name) + ", " + std::to_string(type) + ", " + std::to_string(attribute1) +
              ", " + std::to_string(attribute2) + ", \"" + ToString(text) + "\"");
  if (call.Fails() || known == nullptr) return call.CodeOr(1);
  impl().With([&](Data& /*data*/) {
    known->registrations.push_back({ToString(name), type, attribute1, attribute2, ToString(text)});
  });
  return 0;
}

lumo_error lumo_service_unregister_property(void* service, lumo_string name) {
  const Call call;
  fake::FakeService* const known = call.AsService(service);
  call.Record(ToString(name));
  if (call.Fails() || known == nullptr) return call.CodeOr(1);
  return impl().With([&](Data& /*data*/) {
    auto& all = known->registrations;
    const auto found = std::find_if(all.begin(), all.end(), [&name](const auto& registration) {
      return registration.name == ToString(name);
    });
    if (found == all.end()) return 2;
    all.erase(found);
    return 0;
  });
}

lumo_error lumo_service_notify(void* service, void* list) {
  const Call call;
  call.AsService(service);
  const fake::Notification notification = {service, list == nullptr, call.TakeList(list)};
  impl().With([&](Data& data) { data.notifications.push_back(notification); });
  call.Record(ToString(service, list == nullptr, notification.properties));
  return call.CodeOr(0);
}

lumo_error lumo_service_send_get_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  return Call().Answer(false, service, request, list, code);
}

lumo_error lumo_service_send_set_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  return Call().Answer(true, service, request, list, code);
}

void* lumo_property_list_create(void) {
  const Call call;
  return call.Fails() ? nullptr : impl().NewList(Owner::kPlugin);
}

lumo_error lumo_property_list_push_property(void* list, void* property, int position) {
  const Call call;
  auto* const knownList = call.AsList(list);
  auto* const knownProperty = call.AsProperty(property);
  if (knownList == nullptr || knownProperty == nullptr) return 1;
  if (position != 0) call.Violation(": pushed to a position other than 0");
  if (knownProperty->owner != Owner::kPlugin) {
    call.Violation(": a property was put into a second list");
    return 1;
  }
  impl().With([&](Data& /*data*/) {
    if (call.Fails()) {
      knownProperty->owner = Owner::kLibrary;
    } else {
      fake::Platform::Impl::Append(*knownList, *knownProperty);
    }
  });
  return call.CodeOr(0);
}

void* lumo_property_list_get_first(void* list) {
  const Call call;
  auto* const known = call.Fails() ? nullptr : call.AsList(list);
  return known == nullptr || known->properties.empty() ? nullptr : known->properties.front();
}

void* lumo_property_list_get_next(void* list, void* property) {
  const Call call;
  if (call.Fails()) return nullptr;
  auto* const knownList = call.AsList(list);
  auto* const knownProperty = call.AsProperty(property);
  if (knownList == nullptr || knownProperty == nullptr) return nullptr;
  if (knownProperty->list != knownList) {
    call.Violation(": the property is not in the list");
    return nullptr;
  }
  const std::size_t next = knownProperty->index + 1;
  return next < knownList->properties.size() ? knownList->properties[next] : nullptr;
}

void* lumo_property_create_bool(lumo_string name, bool value) {
  return Call().CreateProperty(Property::Bool(ToString(name), value));
}

void* lumo_property_create_int(lumo_string name, int value) {
  return Call().CreateProperty(Property::Int(ToString(name), value));
}

void* lumo_property_create_double(lumo_string name, double value) {
  return Call().CreateProperty(Property::Double(ToString(name), value));
}

void* lumo_property_create_string(lumo_string name, lumo_string value) {
  return Call().CreateProperty(Property::String(ToString(name), ToString(value)));
}

void* lumo_property_create_json_string(lumo_string name, lumo_string json) {
  return Call().CreateProperty(Property::Json(ToString(name), ToString(json)));
}

lumo_string lumo_property_get_name(void* property) {
  const Call call;
  auto* const known = call.ToRead(property);
  const bool isNull = known == nullptr || impl().With([known](Data& data) {
    return data.nullNames.count(known->value.name) != 0;
  });
  if (isNull) return {nullptr, 0};
  return {known->value.name.c_str(), known->value.name.size()};
}

lumo_property_type lumo_property_get_type(void* property) {
  const Call call;
  auto* const known = call.ToRead(property);
  return known == nullptr ? call.CodeOr(-1) : known->value.type;
}

lumo_error lumo_property_get_bool(void* property, bool* value) {
  const Call call;
  auto* const known = call.ToRead(property);
  if (known == nullptr) return call.CodeOr(1);
  *value = known->value.number != 0;
  return 0;
}

lumo_error lumo_property_get_int(void* property, int* value) {
  const Call call;
  auto* const known = call.ToRead(property);
  if (known == nullptr) return call.CodeOr(1);
  *value = static_cast<int>(known->value.number);
  return 0;
}

lumo_string lumo_property_get_string(void* property) {
  return Call().Text(property);
}

lumo_string lumo_property_get_json_string(void* property) {
  return Call().Text(property);
}

lumo_bytes lumo_property_get_bytes(void* property) {
  const lumo_string text = Call().Text(property);
  return {reinterpret_cast<const unsigned char*>(text.data), text.length};
}

}  // extern "C"
#pragma GCC visibility pop
