// The C entry points of the device-service library: they check and convert the arguments, log every
// refusal, and let no exception out.

// What the header declares is what the library exports.
#pragma GCC visibility push(default)
#include "lumo.h"
#pragma GCC visibility pop

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "api/Library.h"
#include "dlog.h"
#include "settings/Settings.h"
#include "values/CatchAll.h"
#include "values/Error.h"
#include "values/PropertyItem.h"
#include "values/TopicText.h"

namespace {

using namespace Lumo;

// Logs a refusal; returns its code.
lumo_error refuse(const char* function, lumo_error code) {
  dlog_print(6, "LUMO", "%s: %s\n", function, Describe(code));
  return code;
}

// Runs an entry point that returns a code.
template <typename Body>
lumo_error perform(const char* function, const Body& body) noexcept {
  lumo_error code = kInternal;
  CatchAll(function, [&] {
    code = body();
    if (code != kSuccess) refuse(function, code);
  });
  return code;
}

// Runs an entry point that returns a new object; null from the body stands for a wrong argument.
template <typename Body>
void* create(const char* function, const Body& body) noexcept {
  void* object = nullptr;
  CatchAll(function, [&] {
    object = body();
    if (object == nullptr) refuse(function, kInvalidArgument);
  });
  return object;
}

// The string may hold any bytes. Nothing for a null pointer with a length.
std::optional<std::string> toString(lumo_string text) {
  if (text.data == nullptr && text.length != 0) return std::nullopt;
  return text.data == nullptr ? std::string() : std::string(text.data, text.length);
}

lumo_string viewOf(const std::string& text) {
  return lumo_string_new(text.data(), text.size());
}

// Null for a null name.
void* newProperty(lumo_string name, PropertyValue value) {
  if (name.data == nullptr) return nullptr;
  Property property{std::string(name.data, name.length), std::move(value)};
  return std::make_unique<PropertyItem>(std::move(property)).release();
}

// `Text` is the type of value that the string becomes.
template <typename Text>
void* createTextProperty(const char* function, lumo_string name, lumo_string text) noexcept {
  return create(function, [&]() -> void* {
    std::optional<std::string> copy = toString(text);
    return copy ? newProperty(name, Text{std::move(*copy)}) : nullptr;
  });
}

// Logs and returns null when the handle is not that of a property.
const PropertyItem* findProperty(const char* function, void* property) {
  const PropertyItem* item = PropertyItem::From(property);
  if (item == nullptr) refuse(function, kUnknownHandle);
  return item;
}

// The same, also when the property's value has another type.
template <typename Value>
const Value* findValue(const char* function, void* property) {
  const PropertyItem* item = findProperty(function, property);
  if (item == nullptr) return nullptr;
  const Value* value = std::get_if<Value>(&item->Get().value);
  if (value == nullptr) refuse(function, kWrongType);
  return value;
}

template <typename Value>
lumo_error copyValue(const char* function, void* property, Value* target) {
  if (target == nullptr) return refuse(function, kInvalidArgument);
  const Value* value = findValue<Value>(function, property);
  if (value == nullptr) return kWrongType;
  *target = *value;
  return kSuccess;
}

lumo_error answer(const char* function, RequestKind kind, void* service, void* request, void* list,
                  lumo_error code) {
  return perform(function, [&]() -> lumo_error {
    // First, so that the list is freed whatever is wrong with the rest.
    std::optional<Properties> properties = Library::Get().TakeList(list);
    const std::shared_ptr<Service> found = Library::Get().FindService(service);
    if (found == nullptr || !properties) return kUnknownHandle;
    return found->Answer(kind, request, code, std::move(*properties));
  });
}

}  // namespace

lumo_string lumo_string_new(const char* data, size_t length) {
  return {data, length};
}

void* lumo_service_create(lumo_string name, lumo_string description,
                          lumo_protocol_status_cb protocol_status, lumo_get_property_cb get,
                          lumo_set_property_cb set, lumo_cancel_cb cancel, void* user_data) {
  void* service = nullptr;
  CatchAll(__func__, [&] {
    const std::optional<std::string> nameText = toString(name);
    std::optional<std::string> descriptionText = toString(description);
    const bool wrong = !nameText || !IsTopicLevel(*nameText) || !descriptionText ||
                       protocol_status == nullptr || get == nullptr || set == nullptr ||
                       cancel == nullptr;
    if (wrong) {
      refuse("lumo_service_create", kInvalidArgument);
      return;
    }
    std::string error;
    const std::optional<Settings> settings = Settings::Read(std::getenv, error);
    if (!settings) {
      dlog_print(6, "LUMO", "%s\n", error.c_str());
      return;
    }
    service =
        Library::Get().CreateService(*nameText, std::move(*descriptionText),
                                     {protocol_status, get, set, cancel, user_data}, *settings);
    if (service == nullptr) {
      refuse("lumo_service_create", kServiceExists);
      return;
    }
    if (!settings->Broker()) dlog_print(5, "LUMO", "%s\n", kNothingGoesOut);
    for (const std::string& variable : Settings::FindUnknown(environ)) {
      dlog_print(5, "LUMO", "%s is no setting of this version: ignored\n", variable.c_str());
    }
  });
  return service;
}

lumo_error lumo_service_destroy(void* service) {
  return perform(__func__, [&] { return Library::Get().DestroyService(service); });
}

lumo_error lumo_service_register_property(void* service, lumo_string name, lumo_property_type type,
                                          int64_t attribute1, int64_t attribute2,
                                          lumo_string text) {
  return perform(__func__, [&]() -> lumo_error {
    const std::shared_ptr<Service> found = Library::Get().FindService(service);
    if (found == nullptr) return kUnknownHandle;
    const std::optional<std::string> nameText = toString(name);
    std::optional<std::string> textText = toString(text);
    if (!nameText || !textText) return kInvalidArgument;
    return found->Register(*nameText, {type, attribute1, attribute2, std::move(*textText)});
  });
}

lumo_error lumo_service_unregister_property(void* service, lumo_string name) {
  return perform(__func__, [&]() -> lumo_error {
    const std::shared_ptr<Service> found = Library::Get().FindService(service);
    if (found == nullptr) return kUnknownHandle;
    const std::optional<std::string> nameText = toString(name);
    return nameText ? found->Unregister(*nameText) : lumo_error{kInvalidArgument};
  });
}

lumo_error lumo_service_notify(void* service, void* list) {
  return perform(__func__, [&]() -> lumo_error {
    // First, so that the list is freed whatever is wrong with the service.
    std::optional<Properties> properties = Library::Get().TakeList(list);
    const std::shared_ptr<Service> found = Library::Get().FindService(service);
    if (found == nullptr || !properties) return kUnknownHandle;
    return found->Notify(std::move(*properties));
  });
}

lumo_error lumo_service_send_get_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  return answer(__func__, RequestKind::Get, service, request, list, code);
}

lumo_error lumo_service_send_set_property_result(void* service, void* request, void* list,
                                                 lumo_error code) {
  return answer(__func__, RequestKind::Set, service, request, list, code);
}

void* lumo_property_list_create(void) {
  return create(__func__, [] { return Library::Get().CreateList(); });
}

lumo_error lumo_property_list_push_property(void* list, void* property, int position) {
  return perform(__func__, [&]() -> lumo_error {
    const auto found = Library::Get().FindList(list);
    PropertyItem* item = PropertyItem::From(property);
    if (found == nullptr || item == nullptr) return kUnknownHandle;
    return found->Push(item, position);
  });
}

void* lumo_property_list_get_first(void* list) {
  const auto found = Library::Get().FindList(list);
  if (found == nullptr) {
    refuse(__func__, kUnknownHandle);
    return nullptr;
  }
  return found->First();
}

void* lumo_property_list_get_next(void* list, void* property) {
  const auto found = Library::Get().FindList(list);
  const PropertyItem* item = found == nullptr ? nullptr : PropertyItem::From(property);
  if (item == nullptr || !found->Contains(*item)) {
    refuse(__func__, kUnknownHandle);
    return nullptr;
  }
  return found->Next(*item);
}

void* lumo_property_create_bool(lumo_string name, bool value) {
  return create(__func__, [&] { return newProperty(name, value); });
}

void* lumo_property_create_int(lumo_string name, int value) {
  return create(__func__, [&] { return newProperty(name, value); });
}

void* lumo_property_create_double(lumo_string name, double value) {
  return create(__func__, [&] { return newProperty(name, value); });
}

void* lumo_property_create_string(lumo_string name, lumo_string value) {
  return createTextProperty<std::string>(__func__, name, value);
}

void* lumo_property_create_json_string(lumo_string name, lumo_string json) {
  return createTextProperty<JsonText>(__func__, name, json);
}

lumo_string lumo_property_get_name(void* property) {
  const PropertyItem* item = findProperty(__func__, property);
  return item == nullptr ? lumo_string{nullptr, 0} : viewOf(item->Get().name);
}

lumo_property_type lumo_property_get_type(void* property) {
  const PropertyItem* item = findProperty(__func__, property);
  return item == nullptr ? -1 : item->Get().Type();
}

lumo_error lumo_property_get_bool(void* property, bool* value) {
  return copyValue(__func__, property, value);
}

lumo_error lumo_property_get_int(void* property, int* value) {
  return copyValue(__func__, property, value);
}

lumo_string lumo_property_get_string(void* property) {
  const auto* value = findValue<std::string>(__func__, property);
  return value == nullptr ? lumo_string{nullptr, 0} : viewOf(*value);
}

lumo_string lumo_property_get_json_string(void* property) {
  const auto* value = findValue<JsonText>(__func__, property);
  return value == nullptr ? lumo_string{nullptr, 0} : viewOf(value->text);
}

lumo_bytes lumo_property_get_bytes(void* property) {
  const auto* value = findValue<Bytes>(__func__, property);
  if (value == nullptr) return {nullptr, 0};
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): unsigned bytes
  return {reinterpret_cast<const unsigned char*>(value->data.data()), value->data.size()};
}
