#include "Platform.h"

#include <dlog.h>
#include <fcntl.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "Require.h"

namespace fuzz {
namespace {

constexpr lumo_error kFailed = 5;

// What this thread has logged; nothing while nobody wants to know.
struct LogEntry {
  const char* function;
  const char* format;
};
thread_local std::optional<std::vector<LogEntry>> logs;

// Exactly the text and, where the interface has one, its NUL: a sanitizer sees every step beyond.
class Text {
 public:
  enum class End { kNul, kNone };

  Text() = default;
  Text(const std::optional<std::string>& text, End end) {
    if (!text) return;
    m_size = text->size();
    m_data = std::make_unique<char[]>(m_size + (end == End::kNul ? 1 : 0));
    std::copy(text->begin(), text->end(), m_data.get());
  }
  const char* Data() const { return m_data.get(); }
  std::size_t Size() const { return m_size; }

 private:
  std::unique_ptr<char[]> m_data;  // null for a null pointer
  std::size_t m_size = 0;
};

struct PropertyObject {
  explicit PropertyObject(Property property)
      : value(std::move(property)),
        name(value.name, Text::End::kNul),
        text(value.text,
             value.type == LUMO_PROPERTY_TYPE_BYTES ? Text::End::kNone : Text::End::kNul) {}
  Property value;
  Text name;
  Text text;
};

struct ListObject {
  std::vector<std::unique_ptr<PropertyObject>> properties;
};

std::string toString(const lumo_string& text) {
  return text.data == nullptr ? std::string() : std::string(text.data, text.length);
}

PropertyObject& toProperty(void* handle) {
  Require(handle != nullptr, "the plug-in hands out no null property");
  return *static_cast<PropertyObject*>(handle);
}

// Null when one is to fail.
void* createProperty(const lumo_string& name, lumo_property_type type, double number,
                     std::optional<std::string> text) {
  if (Platform::Get().IsToFail(Platform::kCreateProperty)) return nullptr;
  Property property{toString(name), type, number, std::move(text), false};
  return std::make_unique<PropertyObject>(std::move(property)).release();
}

}  // namespace

bool Property::operator==(const Property& other) const {
  return name == other.name && type == other.type && number == other.number && text == other.text &&
         unreadable == other.unreadable;
}

std::string Show(const Property& property) {
  return Show(property.name) + " (" + Show(property.type) +
         ") = " + (property.text ? Show(*property.text) : Show(property.number));
}

bool Response::operator==(const Response& other) const {
  return isSet == other.isSet && listWasNull == other.listWasNull &&
         properties == other.properties && code == other.code;
}

std::string Show(const Response& response) {
  return (response.isSet ? "set " : "get ") + Show(response.code) + " " +
         (response.listWasNull ? "without a list" : Show(response.properties));
}

Platform& Platform::Get() {
  static Platform* const platform = new Platform();
  return *platform;
}

void Platform::Forget() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_failures = {};
  logs.emplace();
  m_settings.clear();
  m_registered.clear();
  m_requests.clear();
  m_notifications.clear();
}

void Platform::Fail(Operation operation, unsigned count, unsigned skip) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_failures[operation] = {count, skip};
}

void* Platform::NewRequest() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  void* const request = reinterpret_cast<void*>(std::uintptr_t{++m_lastHandle});
  m_requests[request] = std::nullopt;
  return request;
}

void Platform::DeliverGet(void* request, const std::vector<Property>& properties) {
  deliver(false, request, &properties);
}

void Platform::DeliverSet(void* request, const std::vector<Property>& properties) {
  deliver(true, request, &properties);
}

void Platform::DeliverGetWithoutList(void* request) {
  deliver(false, request, nullptr);
}

void Platform::DeliverSetWithoutList(void* request) {
  deliver(true, request, nullptr);
}

void Platform::deliver(bool isSet, void* request, const std::vector<Property>* properties) {
  std::unique_ptr<ListObject> list;
  if (properties != nullptr) {
    list = std::make_unique<ListObject>();
    for (const Property& property : *properties) {
      list->properties.push_back(std::make_unique<PropertyObject>(property));
    }
  }
  const Callbacks plugin = callbacks();
  (isSet ? plugin.set : plugin.get)(plugin.service, request, list.get(), plugin.userData);
}

void Platform::DeliverCancel(void* request) {
  const Callbacks plugin = callbacks();
  plugin.cancel(plugin.service, request, plugin.userData);
}

void Platform::DeliverProtocolStatus(const std::optional<std::string>& protocol, int status) {
  const Text text(protocol, Text::End::kNul);
  const Callbacks plugin = callbacks();
  plugin.protocolStatus(plugin.service, {text.Data(), text.Size()}, status, plugin.userData);
}

void Platform::AllowServiceDestroyed(bool allowed) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_staleServiceAllowed = allowed;
}

bool Platform::HasService() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_service != nullptr;
}

std::optional<Response> Platform::TakeResponse(void* request) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto node = m_requests.extract(request);
  return node.empty() ? std::nullopt : node.mapped();
}

std::vector<std::vector<Property>> Platform::TakeNotifications() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return std::exchange(m_notifications, {});
}

std::map<std::string, lumo_property_type> Platform::Registered() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_registered;
}

std::optional<int> Platform::Setting(const std::string& key) const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_settings.find(key);
  return found == m_settings.end() ? std::nullopt : std::optional<int>(found->second);
}

std::size_t Platform::CountLogs(const std::string& function, const std::string& formatPart) {
  if (!logs) return 0;
  return static_cast<std::size_t>(
      std::count_if(logs->begin(), logs->end(), [&](const LogEntry& entry) {
        return function == entry.function && std::strstr(entry.format, formatPart.c_str());
      }));
}

std::vector<Property> Platform::TakeList(void* list) {
  const std::unique_ptr<ListObject> owned(static_cast<ListObject*>(list));
  std::vector<Property> properties;
  if (!owned) return properties;
  for (const auto& property : owned->properties) properties.push_back(property->value);
  return properties;
}

Property Platform::TakeProperty(void* property) {
  return std::unique_ptr<PropertyObject>(static_cast<PropertyObject*>(property))->value;
}

bool Platform::IsToFail(Operation operation) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  Failure& failure = m_failures[operation];
  if (failure.count == 0) return false;
  if (failure.skip > 0) {
    --failure.skip;
    return false;
  }
  --failure.count;
  return true;
}

void Platform::Log(const char* function, const char* format) {
  if (logs) logs->push_back({function, format});
}

void Platform::StoreSetting(const std::string& key, int value) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_settings[key] = value;
}

void* Platform::CreateService(const Callbacks& callbacks) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  Require(m_service == nullptr, "one service at a time");
  m_service = reinterpret_cast<void*>(std::uintptr_t{++m_lastHandle});
  m_callbacks = callbacks;
  m_callbacks.service = m_service;
  m_registered.clear();
  return m_service;
}

lumo_error Platform::DestroyService(void* service) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  Require(isService(service, "lumo_service_destroy"), "a service is destroyed once");
  m_service = nullptr;
  m_registered.clear();
  return 0;
}

lumo_error Platform::RegisterProperty(void* service, const std::string& name,
                                      lumo_property_type type) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!isService(service, "lumo_service_register_property")) return kFailed;
  return m_registered.emplace(name, type).second ? 0 : kFailed;
}

lumo_error Platform::UnregisterProperty(void* service, const std::string& name) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!isService(service, "lumo_service_unregister_property")) return kFailed;
  return m_registered.erase(name) == 1 ? 0 : kFailed;
}

void Platform::Notify(void* service, std::vector<Property> properties) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (isService(service, "lumo_service_notify")) m_notifications.push_back(std::move(properties));
}

void Platform::Answer(void* service, void* request, Response response) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (!isService(service, "an answer")) return;
  const auto found = m_requests.find(request);
  Require(found != m_requests.end(), "only a request that waits is answered");
  Require(!found->second, "a request is answered once");
  found->second = std::move(response);
}

bool Platform::isService(void* service, const char* operation) const {
  if (service == nullptr) return false;  // nothing happens then
  if (service == m_service) return true;
  if (!m_staleServiceAllowed) Break("a service is not used after it was destroyed", operation);
  return false;
}

Platform::Callbacks Platform::callbacks() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_callbacks;
}

}  // namespace fuzz

using fuzz::ListObject;
using fuzz::Platform;
using fuzz::PropertyObject;
using fuzz::toProperty;

#pragma GCC visibility push(default)
extern "C" {

[[gnu::format(printf, 3, 4)]] int dlog_print(int /*priority*/, const char* /*tag*/,
                                             const char* format, ...) {
  constexpr std::string_view kPrefix = "%s : %s(%d)";
  fuzz::Require(std::string_view(format).substr(0, kPrefix.size()) == kPrefix,
                "a log line begins with its place");
  va_list arguments;
  va_start(arguments, format);
  static_cast<void>(va_arg(arguments, const char*));
  Platform::Log(va_arg(arguments, const char*), format);
  va_end(arguments);

  // Written nowhere, but every argument is looked at.
  std::array<char, 1024> line{};
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  fuzz::Require(length >= 0, "a log line can be formatted");
  return 0;
}

int vconf_set_int(const char* key, int value) {
  Platform::Get().StoreSetting(key, value);
  return 0;
}

int usleep(useconds_t /*duration*/) {
  return 0;
}

int access(const char* path, int mode) noexcept {
  if (std::strcmp(path, "/etc/release") == 0) return -1;
  return faccessat(AT_FDCWD, path, mode, 0);
}

lumo_string lumo_string_new(const char* data, size_t length) {
  return {data, length};
}

void* lumo_service_create(lumo_string /*name*/, lumo_string /*description*/,
                          lumo_protocol_status_cb protocol_status, lumo_get_property_cb get,
                          lumo_set_property_cb set, lumo_cancel_cb cancel, void* user_data) {
  if (Platform::Get().IsToFail(Platform::kCreateService)) return nullptr;
  return Platform::Get().CreateService({nullptr, protocol_status, get, set, cancel, user_data});
}

lumo_error lumo_service_destroy(void* service) {
  return Platform::Get().DestroyService(service);
}

lumo_error lumo_service_register_property(void* service, lumo_string name, lumo_property_type type,
                                          int64_t /*attribute1*/, int64_t /*attribute2*/,
                                          lumo_string /*text*/) {
  if (Platform::Get().IsToFail(Platform::kRegisterProperty)) return fuzz::kFailed;
  return Platform::Get().RegisterProperty(service, fuzz::toString(name), type);
}

lumo_error lumo_service_unregister_property(void* service, lumo_string name) {
  if (Platform::Get().IsToFail(Platform::kUnregisterProperty)) return fuzz::kFailed;
  return Platform::Get().UnregisterProperty(service, fuzz::toString(name));
}

lumo_error lumo_service_notify(void* service, void* list) {
  Platform::Get().Notify(service, Platform::Get().TakeList(list));
  return 0;
}

lumo_error lumo_service_send_get_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  const bool listIsNull = list == nullptr;
  Platform::Get().Answer(service, request,
                         {false, listIsNull, Platform::Get().TakeList(list), code});
  return 0;
}

lumo_error lumo_service_send_set_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  const bool listIsNull = list == nullptr;
  Platform::Get().Answer(service, request,
                         {true, listIsNull, Platform::Get().TakeList(list), code});
  return 0;
}

void* lumo_property_list_create(void) {
  if (Platform::Get().IsToFail(Platform::kCreateList)) return nullptr;
  return std::make_unique<ListObject>().release();
}

lumo_error lumo_property_list_push_property(void* list, void* property, int position) {
  fuzz::Require(list != nullptr && position == 0, "a property is put at the end of a list");
  // The library owns it from here on, whatever comes of it.
  std::unique_ptr<PropertyObject> owned(&toProperty(property));
  if (Platform::Get().IsToFail(Platform::kPushProperty)) return fuzz::kFailed;
  static_cast<ListObject*>(list)->properties.push_back(std::move(owned));
  return 0;
}

void* lumo_property_list_get_first(void* list) {
  if (list == nullptr) return nullptr;
  const auto& properties = static_cast<ListObject*>(list)->properties;
  return properties.empty() ? nullptr : properties.front().get();
}

void* lumo_property_list_get_next(void* list, void* property) {
  fuzz::Require(list != nullptr, "a property comes from a list");
  const auto& properties = static_cast<ListObject*>(list)->properties;
  const auto current = std::find_if(properties.begin(), properties.end(),
                                    [property](const auto& p) { return p.get() == property; });
  fuzz::Require(current != properties.end(), "the next property is asked for by one of the list");
  const auto next = current + 1;
  return next == properties.end() ? nullptr : next->get();
}

void* lumo_property_create_bool(lumo_string name, bool value) {
  return fuzz::createProperty(name, LUMO_PROPERTY_TYPE_BOOL, value ? 1 : 0, std::nullopt);
}

void* lumo_property_create_int(lumo_string name, int value) {
  return fuzz::createProperty(name, LUMO_PROPERTY_TYPE_INT, value, std::nullopt);
}

void* lumo_property_create_double(lumo_string name, double value) {
  return fuzz::createProperty(name, LUMO_PROPERTY_TYPE_DOUBLE, value, std::nullopt);
}

void* lumo_property_create_string(lumo_string name, lumo_string value) {
  return fuzz::createProperty(name, LUMO_PROPERTY_TYPE_STRING, 0, fuzz::toString(value));
}

void* lumo_property_create_json_string(lumo_string name, lumo_string json) {
  return fuzz::createProperty(name, LUMO_PROPERTY_TYPE_JSON_STRING, 0, fuzz::toString(json));
}

lumo_string lumo_property_get_name(void* property) {
  const fuzz::PropertyObject& object = toProperty(property);
  return {object.name.Data(), object.name.Size()};
}

lumo_property_type lumo_property_get_type(void* property) {
  return toProperty(property).value.type;
}

lumo_error lumo_property_get_bool(void* property, bool* value) {
  const fuzz::PropertyObject& object = toProperty(property);
  fuzz::Require(object.value.type == LUMO_PROPERTY_TYPE_BOOL, "the getter fits the type");
  if (object.value.unreadable) return fuzz::kFailed;
  *value = object.value.number != 0;
  return 0;
}

lumo_error lumo_property_get_int(void* property, int* value) {
  const fuzz::PropertyObject& object = toProperty(property);
  fuzz::Require(object.value.type == LUMO_PROPERTY_TYPE_INT, "the getter fits the type");
  if (object.value.unreadable) return fuzz::kFailed;
  *value = static_cast<int>(object.value.number);
  return 0;
}

lumo_string lumo_property_get_string(void* property) {
  const fuzz::PropertyObject& object = toProperty(property);
  fuzz::Require(object.value.type == LUMO_PROPERTY_TYPE_STRING, "the getter fits the type");
  return {object.text.Data(), object.text.Size()};
}

lumo_string lumo_property_get_json_string(void* property) {
  const fuzz::PropertyObject& object = toProperty(property);
  fuzz::Require(object.value.type == LUMO_PROPERTY_TYPE_JSON_STRING, "the getter fits the type");
  return {object.text.Data(), object.text.Size()};
}

lumo_bytes lumo_property_get_bytes(void* property) {
  const fuzz::PropertyObject& object = toProperty(property);
  fuzz::Require(object.value.type == LUMO_PROPERTY_TYPE_BYTES, "the getter fits the type");
  return {reinterpret_cast<const unsigned char*>(object.text.Data()), object.text.Size()};
}

}  // extern "C"
#pragma GCC visibility pop
