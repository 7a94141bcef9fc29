#include "InProcessBus.h"

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "Require.h"

namespace fuzz {
namespace {

constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kSender = ":1.7";

struct CallInProgress {
  std::string replyType;
  std::optional<BusMessage> reply;
};

// The call that the thread is in.
thread_local CallInProgress* currentCall = nullptr;

std::string typeOf(GDBusArgInfo** arguments) {
  std::string type = "(";
  for (; arguments != nullptr && *arguments != nullptr; ++arguments)
    type += (*arguments)->signature;
  return type + ")";
}

// Of a message that carries these parameters; consumes a floating reference.
BusMessage toMessage(const char* name, GVariant* parameters, const std::string& type) {
  if (parameters == nullptr) {
    RequireEqual<std::string>("()", type, "a message carries what the interface says");
    return {name, {}};
  }
  const VariantPtr owned(g_variant_ref_sink(parameters), g_variant_unref);
  RequireEqual<std::string>(g_variant_get_type_string(owned.get()), type,
                            "a message carries what the interface says");
  Require(g_variant_is_normal_form(owned.get()), "a message carries texts that D-Bus can carry");
  return ToBusMessage(name, owned.get());
}

}  // namespace

InProcessBus& InProcessBus::Get() {
  static InProcessBus* const bus = new InProcessBus();
  return *bus;
}

InProcessBus::InProcessBus()
    : m_connection(static_cast<GDBusConnection*>(g_object_new(G_TYPE_OBJECT, nullptr))) {
  BreakOnGLibWarnings();
}

void InProcessBus::Forget() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_failures = {};
  m_signals.clear();
}

void InProcessBus::Fail(Operation operation, unsigned count) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_failures[operation] = count;
}

bool InProcessBus::HasOwner() const {
  return owner().id != 0;
}

bool InProcessBus::HasObject() const {
  return object().id != 0;
}

void InProcessBus::AcquireBus() {
  const Owner told = owner();
  told.busAcquired(m_connection, kBusName, told.userData);
}

void InProcessBus::AcquireName() {
  const Owner told = owner();
  told.nameAcquired(m_connection, kBusName, told.userData);
}

BusMessage InProcessBus::Call(const std::string& method, GVariant* parameters) {
  std::optional<BusMessage> reply = TryCall(method, parameters);
  Require(reply.has_value(), "a call is answered");
  return std::move(*reply);
}

std::optional<BusMessage> InProcessBus::TryCall(const std::string& method, GVariant* parameters) {
  const VariantPtr owned(g_variant_ref_sink(parameters), g_variant_unref);
  const Object called = object();
  if (called.id == 0) return std::nullopt;
  const GDBusMethodInfo* const info =
      g_dbus_interface_info_lookup_method(called.interface.get(), method.c_str());
  Require(info != nullptr && g_variant_get_type_string(owned.get()) == typeOf(info->in_args),
          "the bus lets only calls of the interface pass");

  CallInProgress call{typeOf(info->out_args), std::nullopt};
  currentCall = &call;
  const std::unique_ptr<void, void (*)(gpointer)> invocation(g_object_new(G_TYPE_OBJECT, nullptr),
                                                             g_object_unref);
  called.table.method_call(
      m_connection, kSender, kObjectPath, called.interface->name, method.c_str(), owned.get(),
      static_cast<GDBusMethodInvocation*>(g_object_ref(invocation.get())), called.userData);
  currentCall = nullptr;
  RequireEqual<guint>(static_cast<GObject*>(invocation.get())->ref_count, 1,
                      "a call is released once");
  return std::move(call.reply);
}

std::vector<BusMessage> InProcessBus::TakeSignals() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return std::exchange(m_signals, {});
}

guint InProcessBus::OwnName(GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                            gpointer userData) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (isToFail(kOwnName)) return 0;
  m_owners.push_back({++m_lastId, busAcquired, nameAcquired, userData});
  return m_lastId;
}

void InProcessBus::UnownName(guint id) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto owner = std::find_if(m_owners.begin(), m_owners.end(),
                                  [id](const Owner& candidate) { return candidate.id == id; });
  Require(owner != m_owners.end(), "the name is given up once");
  m_owners.erase(owner);
}

guint InProcessBus::RegisterObject(GDBusConnection* connection, GDBusInterfaceInfo* interface,
                                   const GDBusInterfaceVTable* table, gpointer userData) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  Require(connection == m_connection, "the object is registered on the connection that came");
  if (m_object.id != 0 || isToFail(kRegisterObject)) return 0;
  // The plug-in may let its own reference go; GIO takes one as well.
  const std::shared_ptr<GDBusInterfaceInfo> reference(g_dbus_interface_info_ref(interface),
                                                      g_dbus_interface_info_unref);
  m_object = {++m_lastId, reference, *table, userData};
  return m_object.id;
}

bool InProcessBus::UnregisterObject(GDBusConnection* connection, guint id) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  Require(connection == m_connection && id != 0 && id == m_object.id,
          "the object is unregistered once, where it was registered");
  m_object = {};
  return true;
}

bool InProcessBus::EmitSignal(const char* name, GVariant* parameters) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (isToFail(kEmitSignal)) {
    if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
    return false;
  }
  static const std::map<std::string, std::string> kTypes = {
      {"send_event", "(ss)"}, {"cloud_connection_changed", "(b)"}, {"dbus_server_ready", "()"}};
  const auto type = kTypes.find(name);
  Require(type != kTypes.end(), "a signal is one of the interface");
  m_signals.push_back(toMessage(name, parameters, type->second));
  return true;
}

void InProcessBus::Reply(GDBusMethodInvocation* invocation, GVariant* value) {
  Require(currentCall != nullptr && !currentCall->reply, "a call is answered once");
  currentCall->reply = toMessage("", value, currentCall->replyType);
  g_object_unref(invocation);
}

bool InProcessBus::isToFail(Operation operation) {
  if (m_failures[operation] == 0) return false;
  --m_failures[operation];
  return true;
}

InProcessBus::Owner InProcessBus::owner() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_owners.empty() ? Owner() : m_owners.back();
}

InProcessBus::Object InProcessBus::object() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_object;
}

}  // namespace fuzz

using fuzz::InProcessBus;

#pragma GCC visibility push(default)
extern "C" {

guint g_bus_own_name(GBusType /*type*/, const gchar* /*name*/, GBusNameOwnerFlags /*flags*/,
                     GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                     GBusNameLostCallback /*nameLost*/, gpointer userData,
                     GDestroyNotify /*free*/) {
  return InProcessBus::Get().OwnName(busAcquired, nameAcquired, userData);
}

void g_bus_unown_name(guint id) {
  InProcessBus::Get().UnownName(id);
}

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* /*path*/,
                                        GDBusInterfaceInfo* interface,
                                        const GDBusInterfaceVTable* table, gpointer userData,
                                        GDestroyNotify /*free*/, GError** error) {
  const guint id = InProcessBus::Get().RegisterObject(connection, interface, table, userData);
  if (id == 0) g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "made to fail");
  return id;
}

gboolean g_dbus_connection_unregister_object(GDBusConnection* connection, guint id) {
  return InProcessBus::Get().UnregisterObject(connection, id) ? TRUE : FALSE;
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* /*connection*/,
                                       const gchar* /*destination*/, const gchar* /*path*/,
                                       const gchar* /*interface*/, const gchar* signal,
                                       GVariant* parameters, GError** /*error*/) {
  return InProcessBus::Get().EmitSignal(signal, parameters) ? TRUE : FALSE;
}

void g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation, GVariant* value) {
  InProcessBus::Reply(invocation, value);
}

}  // extern "C"
#pragma GCC visibility pop
