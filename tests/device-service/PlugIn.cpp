#include "PlugIn.h"

#include <algorithm>
#include <utility>

#include "api/Library.h"

namespace {

lumo_string view(const std::string& text) {
  return lumo_string_new(text.data(), text.size());
}

std::string copyOf(lumo_string text) {
  return text.data == nullptr ? std::string() : std::string(text.data, text.length);
}

std::string describe(void* property) {
  const lumo_property_type type = lumo_property_get_type(property);
  std::string value;
  bool flag = false;
  int number = 0;
  lumo_bytes bytes{};
  switch (type) {
    case LUMO_PROPERTY_TYPE_BOOL:
      lumo_property_get_bool(property, &flag);
      value = flag ? "true" : "false";
      break;
    case LUMO_PROPERTY_TYPE_INT:
      lumo_property_get_int(property, &number);
      value = std::to_string(number);
      break;
    case LUMO_PROPERTY_TYPE_DOUBLE:  // there is no function that gets it
      value = std::to_string(std::get<double>(Lumo::PropertyItem::From(property)->Get().value));
      break;
    case LUMO_PROPERTY_TYPE_STRING:
      value = copyOf(lumo_property_get_string(property));
      break;
    case LUMO_PROPERTY_TYPE_JSON_STRING:
      value = copyOf(lumo_property_get_json_string(property));
      break;
    default:
      bytes = lumo_property_get_bytes(property);
      value.assign(bytes.data, bytes.data + bytes.length);
  }
  return copyOf(lumo_property_get_name(property)) + "=" + value + ":" + std::to_string(type);
}

std::vector<std::string> describeAll(void* list) {
  std::vector<std::string> properties;
  for (void* property = lumo_property_list_get_first(list); property != nullptr;
       property = lumo_property_list_get_next(list, property)) {
    properties.push_back(describe(property));
  }
  return properties;
}

std::vector<PlugIn::Call> callsIn(std::vector<PlugIn::Call> calls, const std::string& what) {
  const auto isOther = [&](const PlugIn::Call& call) { return call.what != what; };
  calls.erase(std::remove_if(calls.begin(), calls.end(), isOther), calls.end());
  return calls;
}

}  // namespace

PlugIn::PlugIn(const std::string& name) {
  m_service = lumo_service_create(
      view(name), view("a service of a test"),
      [](void* service, lumo_string protocol, lumo_protocol_status status, void* self) {
        const std::string text = copyOf(protocol) + "=" + std::to_string(status);
        static_cast<PlugIn*>(self)->note({"status", service, nullptr, {text}, {}});
      },
      [](void* service, void* request, void* list, void* self) {
        static_cast<PlugIn*>(self)->onRequest("get", service, request, list);
      },
      [](void* service, void* request, void* list, void* self) {
        static_cast<PlugIn*>(self)->onRequest("set", service, request, list);
      },
      [](void* service, void* request, void* self) {
        static_cast<PlugIn*>(self)->note({"cancel", service, request, {}, {}});
      },
      this);
}

PlugIn::~PlugIn() {
  Destroy();
  Lumo::Library::Get().Shutdown();
}

void PlugIn::Destroy() {
  if (m_service != nullptr) lumo_service_destroy(std::exchange(m_service, nullptr));
}

lumo_error PlugIn::Answer(const Call& call, lumo_error code) {
  void* const list = lumo_property_list_create();
  for (const std::string& property : call.properties) {
    const std::size_t equals = property.find('=');
    const std::string value = property.substr(equals + 1, property.rfind(':') - equals - 1);
    lumo_property_list_push_property(
        list, lumo_property_create_string(view(property.substr(0, equals)), view(value)), 0);
  }
  return call.what == "get"
             ? lumo_service_send_get_property_result(call.service, call.request, list, code)
             : lumo_service_send_set_property_result(call.service, call.request, list, code);
}

lumo_error PlugIn::Register(const std::string& name, lumo_property_type type) {
  return lumo_service_register_property(m_service, view(name), type, 0, 0, view(""));
}

lumo_error PlugIn::Unregister(const std::string& name) {
  return lumo_service_unregister_property(m_service, view(name));
}

lumo_error PlugIn::Notify(const std::string& name, const std::string& text) {
  return NotifyProperty(lumo_property_create_string(view(name), view(text)));
}

lumo_error PlugIn::NotifyProperty(void* property) {
  void* const list = lumo_property_list_create();
  lumo_property_list_push_property(list, property, 0);
  return lumo_service_notify(m_service, list);
}

std::vector<PlugIn::Call> PlugIn::Calls(const std::string& what) const {
  return callsIn(m_calls.Get(), what);
}

bool PlugIn::WaitForCalls(const std::string& what, std::size_t count) {
  return m_calls.WaitFor([&](const auto& calls) {
    const auto isMeant = [&](const Call& call) { return call.what == what; };
    return std::count_if(calls.begin(), calls.end(), isMeant) >= static_cast<std::ptrdiff_t>(count);
  });
}

std::vector<std::string> PlugIn::Statuses() const {
  std::vector<std::string> statuses;
  for (const Call& call : Calls("status")) statuses.push_back(call.properties.front());
  return statuses;
}

bool PlugIn::WaitForStatus(const std::string& status) {
  return m_calls.WaitFor([&](const auto& calls) {
    const auto statuses = callsIn(calls, "status");
    return !statuses.empty() && statuses.back().properties.front() == status;
  });
}

void PlugIn::note(Call call) {
  call.thread = std::this_thread::get_id();
  m_calls.Change([&](auto& calls) { calls.push_back(std::move(call)); });
}

void PlugIn::onRequest(const char* what, void* service, void* request, void* list) {
  const Call call{what, service, request, describeAll(list), {}};
  if (const auto function = m_onRequest.Get()) function(call);
  note(call);
  if (m_answering) Answer(call, 0);
}
