#include "NullLumo.h"

#pragma GCC visibility push(default)
#include <lumo.h>
#pragma GCC visibility pop

#include <atomic>
#include <cstring>

namespace {

// Of a request; the names are the caller's.
struct Property {
  const char* name;
  const char* text;  // null: without a value
};

struct Callbacks {
  lumo_get_property_cb get;
  lumo_set_property_cb set;
  void* userData;
};

Callbacks g_callbacks;
std::atomic<std::uint64_t> g_answers{0};

// What the plug-in makes is all the same, and nobody reads it.
int g_service;
int g_list;
int g_property;

lumo_string view(const char* text) {
  return {text, text == nullptr ? 0 : std::strlen(text)};
}

lumo_error answer() {
  g_answers.fetch_add(1, std::memory_order_release);
  return 0;
}

const Property& propertyOf(void* property) {
  return *static_cast<const Property*>(property);
}

}  // namespace

void NullLumo::Set(const char* name, const char* text) {
  Property property{name, text};
  g_callbacks.set(&g_service, &g_service, &property, g_callbacks.userData);
}

void NullLumo::Get(const char* name) {
  Property property{name, nullptr};
  g_callbacks.get(&g_service, &g_service, &property, g_callbacks.userData);
}

std::uint64_t NullLumo::Answers() {
  return g_answers.load(std::memory_order_acquire);
}

lumo_string lumo_string_new(const char* data, size_t length) {
  return {data, length};
}

void* lumo_service_create(lumo_string /*name*/, lumo_string /*description*/,
                          lumo_protocol_status_cb /*protocolStatus*/, lumo_get_property_cb get,
                          lumo_set_property_cb set, lumo_cancel_cb /*cancel*/, void* userData) {
  g_callbacks = {get, set, userData};
  return &g_service;
}
lumo_error lumo_service_destroy(void* /*service*/) {
  return 0;
}
lumo_error lumo_service_register_property(void* /*service*/, lumo_string /*name*/,
                                          lumo_property_type /*type*/, int64_t /*attribute1*/,
                                          int64_t /*attribute2*/, lumo_string /*text*/) {
  return 0;
}
lumo_error lumo_service_unregister_property(void* /*service*/, lumo_string /*name*/) {
  return 0;
}
lumo_error lumo_service_notify(void* /*service*/, void* /*list*/) {
  return 0;
}
lumo_error lumo_service_send_get_property_result(void* /*service*/, void* /*request*/,
                                                 void* /*list*/, lumo_error /*code*/) {
  return answer();
}
lumo_error lumo_service_send_set_property_result(void* /*service*/, void* /*request*/,
                                                 void* /*list*/, lumo_error /*code*/) {
  return answer();
}

void* lumo_property_list_create(void) {
  return &g_list;
}
lumo_error lumo_property_list_push_property(void* /*list*/, void* /*property*/, int /*position*/) {
  return 0;
}
void* lumo_property_list_get_first(void* list) {
  return list;
}
void* lumo_property_list_get_next(void* /*list*/, void* /*property*/) {
  return nullptr;
}

void* lumo_property_create_bool(lumo_string /*name*/, bool /*value*/) {
  return &g_property;
}
void* lumo_property_create_int(lumo_string /*name*/, int /*value*/) {
  return &g_property;
}
void* lumo_property_create_double(lumo_string /*name*/, double /*value*/) {
  return &g_property;
}
void* lumo_property_create_string(lumo_string /*name*/, lumo_string /*value*/) {
  return &g_property;
}
void* lumo_property_create_json_string(lumo_string /*name*/, lumo_string /*json*/) {
  return &g_property;
}

lumo_string lumo_property_get_name(void* property) {
  return view(propertyOf(property).name);
}
lumo_property_type lumo_property_get_type(void* /*property*/) {
  return LUMO_PROPERTY_TYPE_STRING;
}
lumo_error lumo_property_get_bool(void* /*property*/, bool* /*value*/) {
  return 1;
}
lumo_error lumo_property_get_int(void* /*property*/, int* /*value*/) {
  return 1;
}
lumo_string lumo_property_get_string(void* property) {
  return view(propertyOf(property).text);
}
lumo_string lumo_property_get_json_string(void* property) {
  return view(propertyOf(property).text);
}
lumo_bytes lumo_property_get_bytes(void* /*property*/) {
  return {nullptr, 0};
}
