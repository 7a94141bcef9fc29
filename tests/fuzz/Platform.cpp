#include "Platform.h"

#include <dlog.h>
#include <fcntl.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <tuple>
#include <utility>

#include "Require.h"

namespace fuzz {
namespace {

constexpr lumo_error kFailed = 5;

// What this thread has logged, by function and format; nothing while nobody wants to know.
thread_local std::optional<std::vector<std::pair<const char*, const char*>>> logs;

// Exactly the string and, where the interface has one, its NUL: a sanitizer sees every step beyond.
struct Text {
  explicit Text(const std::optional<std::string>& text, bool hasNul = true) {
    if (!text) return;
    size = text->size();
    data = std::make_unique<char[]>(size + (hasNul ? 1 : 0));
    std::copy(text->begin(), text->end(), data.get());
  }
  lumo_string View() const { return {data.get(), size}; }

  std::unique_ptr<char[]> data;  // null for a null pointer
  std::size_t size = 0;
};

struct PropertyObject {
  explicit PropertyObject(Property property)
      : value(std::move(property)),
        name(value.name),
        text(value.text, value.type != LUMO_PROPERTY_TYPE_BYTES) {}

  Property value;
  Text name;
  Text text;
};

using ListObject = std::vector<std::unique_ptr<PropertyObject>>;

struct PlugIn {
  void* service;  // also when it was destroyed since
  lumo_protocol_status_cb protocolStatus;
  lumo_get_property_cb get;
  lumo_set_property_cb set;
  lumo_cancel_cb cancel;
  void* userData;
};

struct State {
  std::mutex mutex;  // guards all of what follows
  std::array<std::pair<unsigned, unsigned>, Platform::kOperationCount> failures{};  // count, skip
  std::map<std::string, int> settings;
  std::uintptr_t lastHandle = 0;
  void* service = nullptr;
  bool isStaleServiceAllowed = false;
  PlugIn plugIn{};
  std::map<std::string, lumo_property_type> registered;
  std::map<void*, std::optional<Response>> requests;  // not asked for yet
  std::vector<std::vector<Property>> notifications;
};

// Never destroyed: the plug-in logs until the process ends.
State& state() {
  static State* const state = new State;
  return *state;
}

std::unique_lock<std::mutex> lockState() {
  return std::unique_lock<std::mutex>(state().mutex);
}

// These three with the mutex held.
void* newHandle() {
  return reinterpret_cast<void*>(++state().lastHandle);
}

bool fails(Platform::Operation operation) {
  auto& [count, skip] = state().failures[operation];
  if (count == 0) return false;
  const bool isSkipped = skip > 0;
  --(isSkipped ? skip : count);
  return !isSkipped;
}

// Whether the handle is that of the service that lives now. Nothing happens to a null pointer.
bool isService(void* service, const char* operation) {
  if (service == nullptr || service == state().service) return service != nullptr;
  if (!state().isStaleServiceAllowed) {
    Break("a service is not used after it was destroyed", operation);
  }
  return false;
}

PlugIn copyPlugIn() {
  const auto lock = lockState();
  return state().plugIn;
}

std::string toString(const lumo_string& text) {
  return text.data == nullptr ? std::string() : std::string(text.data, text.length);
}

PropertyObject& toProperty(void* handle) {
  Require(handle != nullptr, "the plug-in hands out no null property");
  return *static_cast<PropertyObject*>(handle);
}

PropertyObject& toPropertyOf(void* handle, lumo_property_type type) {
  PropertyObject& property = toProperty(handle);
  Require(property.value.type == type, "the getter fits the type");
  return property;
}

// Null when one is to fail.
void* createProperty(const lumo_string& name, lumo_property_type type, double number,
                     std::optional<std::string> text) {
  const auto lock = lockState();
  if (fails(Platform::kCreateProperty)) return nullptr;
  Property property{toString(name), type, number, std::move(text), false};
  return std::make_unique<PropertyObject>(std::move(property)).release();
}

lumo_error answer(bool isSet, void* service, void* request, void* list, lumo_error code) {
  Response response{isSet, list == nullptr, Platform::TakeList(list), code};
  const auto lock = lockState();
  if (!isService(service, "an answer")) return 0;
  const auto found = state().requests.find(request);
  Require(found != state().requests.end(), "only a request that waits is answered");
  Require(!found->second, "a request is answered once");
  found->second = std::move(response);
  return 0;
}

}  // namespace

bool Property::operator==(const Property& other) const {
  return std::tie(name, type, number, text, unreadable) ==
         std::tie(other.name, other.type, other.number, other.text, other.unreadable);
}

std::ostream& operator<<(std::ostream& out, const Property& property) {
  return out << Show(property.name) << " (" << property.type
             << ") = " << (property.text ? Show(*property.text) : Show(property.number));
}

Property StringProperty(const std::string& name, const std::string& value) {
  return {name, LUMO_PROPERTY_TYPE_STRING, 0, value, false};
}

bool Response::operator==(const Response& other) const {
  return std::tie(isSet, listWasNull, properties, code) ==
         std::tie(other.isSet, other.listWasNull, other.properties, other.code);
}

std::ostream& operator<<(std::ostream& out, const Response& response) {
  return out << (response.isSet ? "set " : "get ") << response.code << " "
             << (response.listWasNull ? "without a list" : Show(response.properties));
}

void Platform::Forget() {
  const auto lock = lockState();
  logs.emplace();
  state().failures = {};
  state().settings.clear();
  state().registered.clear();
  state().requests.clear();
  state().notifications.clear();
}

void Platform::Fail(Operation operation, unsigned count, unsigned skip) {
  const auto lock = lockState();
  state().failures[operation] = {count, skip};
}

void* Platform::NewRequest() {
  const auto lock = lockState();
  void* const request = newHandle();
  state().requests[request] = std::nullopt;
  return request;
}

void Platform::Deliver(bool isSet, void* request,
                       const std::optional<std::vector<Property>>& properties) {
  std::unique_ptr<ListObject> list;
  if (properties) {
    list = std::make_unique<ListObject>();
    for (const Property& property : *properties) {
      list->push_back(std::make_unique<PropertyObject>(property));
    }
  }
  const PlugIn plugIn = copyPlugIn();
  (isSet ? plugIn.set : plugIn.get)(plugIn.service, request, list.get(), plugIn.userData);
}

void Platform::DeliverCancel(void* request) {
  const PlugIn plugIn = copyPlugIn();
  plugIn.cancel(plugIn.service, request, plugIn.userData);
}

void Platform::DeliverProtocolStatus(const std::optional<std::string>& protocol, int status) {
  const Text text(protocol);
  const PlugIn plugIn = copyPlugIn();
  plugIn.protocolStatus(plugIn.service, text.View(), status, plugIn.userData);
}

void Platform::AllowServiceDestroyed(bool allowed) {
  const auto lock = lockState();
  state().isStaleServiceAllowed = allowed;
}

bool Platform::HasService() {
  const auto lock = lockState();
  return state().service != nullptr;
}

std::optional<Response> Platform::TakeResponse(void* request) {
  const auto lock = lockState();
  const auto node = state().requests.extract(request);
  return node.empty() ? std::nullopt : node.mapped();
}

std::vector<std::vector<Property>> Platform::TakeNotifications() {
  const auto lock = lockState();
  return std::exchange(state().notifications, {});
}

std::map<std::string, lumo_property_type> Platform::Registered() {
  const auto lock = lockState();
  return state().registered;
}

std::optional<int> Platform::Setting(const std::string& key) {
  const auto lock = lockState();
  const auto found = state().settings.find(key);
  return found == state().settings.end() ? std::nullopt : std::optional<int>(found->second);
}

std::size_t Platform::CountLogs(const std::string& function, const std::string& formatPart) {
  if (!logs) return 0;
  return static_cast<std::size_t>(std::count_if(logs->begin(), logs->end(), [&](const auto& entry) {
    return function == entry.first && std::strstr(entry.second, formatPart.c_str()) != nullptr;
  }));
}

std::vector<Property> Platform::TakeList(void* list) {
  const std::unique_ptr<ListObject> owned(static_cast<ListObject*>(list));
  std::vector<Property> properties;
  if (!owned) return properties;
  for (const auto& property : *owned) properties.push_back(property->value);
  return properties;
}

Property Platform::TakeProperty(void* property) {
  return std::unique_ptr<PropertyObject>(static_cast<PropertyObject*>(property))->value;
}

}  // namespace fuzz

using namespace fuzz;

#pragma GCC visibility push(default)
extern "C" {

[[gnu::format(printf, 3, 4)]] int dlog_print(int /*priority*/, const char* /*tag*/,
                                             const char* format, ...) {
  constexpr std::string_view kPrefix = "%s : %s(%d)";
  Require(std::string_view(format).substr(0, kPrefix.size()) == kPrefix,
          "a log line begins with its place");
  va_list arguments;
  va_start(arguments, format);
  static_cast<void>(va_arg(arguments, const char*));
  if (logs) logs->emplace_back(va_arg(arguments, const char*), format);
  va_end(arguments);

  // Written nowhere, but every argument is read.
  std::array<char, 1024> line{};
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  Require(length >= 0, "a log line can be formatted");
  return 0;
}

int vconf_set_int(const char* key, int value) {
  const auto lock = lockState();
  state().settings[key] = value;
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
  const auto lock = lockState();
  if (fails(Platform::kCreateService)) return nullptr;
  Require(state().service == nullptr, "one service at a time");
  state().service = newHandle();
  state().plugIn = {state().service, protocol_status, get, set, cancel, user_data};
  state().registered.clear();
  return state().service;
}

lumo_error lumo_service_destroy(void* service) {
  const auto lock = lockState();
  Require(isService(service, "lumo_service_destroy"), "a service is destroyed once");
  state().service = nullptr;
  state().registered.clear();
  return 0;
}

lumo_error lumo_service_register_property(void* service, lumo_string name, lumo_property_type type,
                                          int64_t /*attribute1*/, int64_t /*attribute2*/,
                                          lumo_string /*text*/) {
  const auto lock = lockState();
  if (fails(Platform::kRegisterProperty)) return kFailed;
  if (!isService(service, "lumo_service_register_property")) return kFailed;
  return state().registered.emplace(toString(name), type).second ? 0 : kFailed;
}

lumo_error lumo_service_unregister_property(void* service, lumo_string name) {
  const auto lock = lockState();
  if (fails(Platform::kUnregisterProperty)) return kFailed;
  if (!isService(service, "lumo_service_unregister_property")) return kFailed;
  return state().registered.erase(toString(name)) == 1 ? 0 : kFailed;
}

lumo_error lumo_service_notify(void* service, void* list) {
  std::vector<Property> properties = Platform::TakeList(list);
  const auto lock = lockState();
  if (isService(service, "lumo_service_notify")) {
    state().notifications.push_back(std::move(properties));
  }
  return 0;
}

lumo_error lumo_service_send_get_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  return answer(false, service, request, list, code);
}

lumo_error lumo_service_send_set_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  return answer(true, service, request, list, code);
}

void* lumo_property_list_create(void) {
  const auto lock = lockState();
  return fails(Platform::kCreateList) ? nullptr : std::make_unique<ListObject>().release();
}

lumo_error lumo_property_list_push_property(void* list, void* property, int position) {
  Require(list != nullptr && position == 0, "a property is put at the end of a list");
  // The library owns it from here on, whatever comes of it.
  std::unique_ptr<PropertyObject> owned(&toProperty(property));
  const auto lock = lockState();
  if (fails(Platform::kPushProperty)) return kFailed;
  static_cast<ListObject*>(list)->push_back(std::move(owned));
  return 0;
}

void* lumo_property_list_get_first(void* list) {
  const auto* const properties = static_cast<ListObject*>(list);
  return list == nullptr || properties->empty() ? nullptr : properties->front().get();
}

void* lumo_property_list_get_next(void* list, void* property) {
  Require(list != nullptr, "a property comes from a list");
  const auto& properties = *static_cast<ListObject*>(list);
  const auto current = std::find_if(properties.begin(), properties.end(),
                                    [property](const auto& p) { return p.get() == property; });
  Require(current != properties.end(), "the next property is asked for by one of the list");
  return current + 1 == properties.end() ? nullptr : (current + 1)->get();
}

void* lumo_property_create_bool(lumo_string name, bool value) {
  return createProperty(name, LUMO_PROPERTY_TYPE_BOOL, value ? 1 : 0, std::nullopt);
}

void* lumo_property_create_int(lumo_string name, int value) {
  return createProperty(name, LUMO_PROPERTY_TYPE_INT, value, std::nullopt);
}

void* lumo_property_create_double(lumo_string name, double value) {
  return createProperty(name, LUMO_PROPERTY_TYPE_DOUBLE, value, std::nullopt);
}

void* lumo_property_create_string(lumo_string name, lumo_string value) {
  return createProperty(name, LUMO_PROPERTY_TYPE_STRING, 0, toString(value));
}

void* lumo_property_create_json_string(lumo_string name, lumo_string json) {
  return createProperty(name, LUMO_PROPERTY_TYPE_JSON_STRING, 0, toString(json));
}

lumo_string lumo_property_get_name(void* property) {
  return toProperty(property).name.View();
}

lumo_property_type lumo_property_get_type(void* property) {
  return toProperty(property).value.type;
}

lumo_error lumo_property_get_bool(void* property, bool* value) {
  const Property& object = toPropertyOf(property, LUMO_PROPERTY_TYPE_BOOL).value;
  if (object.unreadable) return kFailed;
  *value = object.number != 0;
  return 0;
}

lumo_error lumo_property_get_int(void* property, int* value) {
  const Property& object = toPropertyOf(property, LUMO_PROPERTY_TYPE_INT).value;
  if (object.unreadable) return kFailed;
  *value = static_cast<int>(object.number);
  return 0;
}

lumo_string lumo_property_get_string(void* property) {
  return toPropertyOf(property, LUMO_PROPERTY_TYPE_STRING).text.View();
}

lumo_string lumo_property_get_json_string(void* property) {
  return toPropertyOf(property, LUMO_PROPERTY_TYPE_JSON_STRING).text.View();
}

lumo_bytes lumo_property_get_bytes(void* property) {
  const lumo_string bytes = toPropertyOf(property, LUMO_PROPERTY_TYPE_BYTES).text.View();
  return {reinterpret_cast<const unsigned char*>(bytes.data), bytes.length};
}

}  // extern "C"
#pragma GCC visibility pop
