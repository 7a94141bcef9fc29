#include "InProcessBus.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "Require.h"

namespace fuzz {
namespace {

constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kSender = ":1.7";

struct Owner {
  guint id = 0;  // 0: none
  GBusAcquiredCallback busAcquired = nullptr;
  GBusNameAcquiredCallback nameAcquired = nullptr;
  gpointer userData = nullptr;
};

struct Object {
  guint id = 0;  // 0: none
  std::shared_ptr<GDBusInterfaceInfo> interface;
  GDBusInterfaceVTable table = {};
  gpointer userData = nullptr;
};

struct State {
  State() { BreakOnGLibWarnings(); }

  // Nothing is done with it but to refer to it.
  GDBusConnection* const connection =
      static_cast<GDBusConnection*>(g_object_new(G_TYPE_DBUS_CONNECTION, nullptr));
  std::mutex mutex;  // guards all of what follows
  std::array<unsigned, InProcessBus::kOperationCount> failures{};
  guint lastId = 0;
  std::vector<Owner> owners;
  Object object;
  std::vector<BusMessage> signals;
};

// Never destroyed: the plug-in uses it until the process ends.
State& state() {
  static State* const state = new State;
  return *state;
}

std::unique_lock<std::mutex> lockState() {
  return std::unique_lock<std::mutex>(state().mutex);
}

// With the mutex held.
bool fails(InProcessBus::Operation operation) {
  unsigned& count = state().failures[operation];
  return count > 0 && count-- > 0;
}

Owner owner() {
  const auto lock = lockState();
  return state().owners.empty() ? Owner() : state().owners.back();
}

Object object() {
  const auto lock = lockState();
  return state().object;
}

struct CallInProgress {
  std::string replyType;
  std::optional<BusMessage> reply;
};

// The call that the thread is in.
thread_local CallInProgress* currentCall = nullptr;

std::string typeOf(GDBusArgInfo** arguments) {
  std::string type = "(";
  for (; arguments != nullptr && *arguments != nullptr; ++arguments) {
    type += (*arguments)->signature;
  }
  return type + ")";
}

// Of a message that carries these parameters; consumes a floating reference.
BusMessage toMessage(const char* name, GVariant* parameters, const std::string& type) {
  const VariantPtr owned(
      g_variant_ref_sink(parameters != nullptr ? parameters : g_variant_new("()")),
      g_variant_unref);
  RequireEqual<std::string>(g_variant_get_type_string(owned.get()), type,
                            "a message carries what the interface says");
  Require(g_variant_is_normal_form(owned.get()), "a message carries strings that D-Bus can carry");
  return ToBusMessage(name, owned.get());
}

}  // namespace

void InProcessBus::Forget() {
  const auto lock = lockState();
  state().failures = {};
  state().signals.clear();
}

void InProcessBus::Fail(Operation operation, unsigned count) {
  const auto lock = lockState();
  state().failures[operation] = count;
}

bool InProcessBus::HasOwner() {
  return owner().id != 0;
}

bool InProcessBus::HasObject() {
  return object().id != 0;
}

void InProcessBus::AcquireBus() {
  const Owner told = owner();
  told.busAcquired(state().connection, kBusName, told.userData);
}

void InProcessBus::AcquireName() {
  const Owner told = owner();
  told.nameAcquired(state().connection, kBusName, told.userData);
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
      state().connection, kSender, kObjectPath, called.interface->name, method.c_str(), owned.get(),
      static_cast<GDBusMethodInvocation*>(g_object_ref(invocation.get())), called.userData);
  currentCall = nullptr;
  RequireEqual<guint>(static_cast<GObject*>(invocation.get())->ref_count, 1,
                      "a call is released once");
  return std::move(call.reply);
}

std::vector<BusMessage> InProcessBus::TakeSignals() {
  const auto lock = lockState();
  return std::exchange(state().signals, {});
}

}  // namespace fuzz

using namespace fuzz;

#pragma GCC visibility push(default)
extern "C" {

guint g_bus_own_name(GBusType /*type*/, const gchar* /*name*/, GBusNameOwnerFlags /*flags*/,
                     GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                     GBusNameLostCallback /*nameLost*/, gpointer userData,
                     GDestroyNotify /*free*/) {
  const auto lock = lockState();
  if (fails(InProcessBus::kOwnName)) return 0;
  state().owners.push_back({++state().lastId, busAcquired, nameAcquired, userData});
  return state().lastId;
}

void g_bus_unown_name(guint id) {
  const auto lock = lockState();
  auto& owners = state().owners;
  const auto owner = std::find_if(owners.begin(), owners.end(),
                                  [id](const Owner& candidate) { return candidate.id == id; });
  Require(owner != owners.end(), "the name is given up once");
  owners.erase(owner);
}

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* /*path*/,
                                        GDBusInterfaceInfo* interface,
                                        const GDBusInterfaceVTable* table, gpointer userData,
                                        GDestroyNotify /*free*/, GError** error) {
  const auto lock = lockState();
  Require(connection == state().connection, "the object is registered on the connection that came");
  if (state().object.id != 0 || fails(InProcessBus::kRegisterObject)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "made to fail");
    return 0;
  }
  // The plug-in may give its own reference up; GIO takes one as well.
  const std::shared_ptr<GDBusInterfaceInfo> reference(g_dbus_interface_info_ref(interface),
                                                      g_dbus_interface_info_unref);
  state().object = {++state().lastId, reference, *table, userData};
  return state().lastId;
}

gboolean g_dbus_connection_unregister_object(GDBusConnection* connection, guint id) {
  const auto lock = lockState();
  Require(connection == state().connection && id != 0 && id == state().object.id,
          "the object is unregistered once, where it was registered");
  state().object = {};
  return TRUE;
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* /*connection*/,
                                       const gchar* /*destination*/, const gchar* /*path*/,
                                       const gchar* /*interface*/, const gchar* signal,
                                       GVariant* parameters, GError** /*error*/) {
  const auto lock = lockState();
  if (fails(InProcessBus::kEmitSignal)) {
    if (parameters != nullptr) g_variant_unref(g_variant_ref_sink(parameters));
    return FALSE;
  }
  static const std::map<std::string, std::string> kTypes = {
      {"send_event", "(ss)"}, {"cloud_connection_changed", "(b)"}, {"dbus_server_ready", "()"}};
  const auto type = kTypes.find(signal);
  Require(type != kTypes.end(), "a signal is one of the interface");
  state().signals.push_back(toMessage(signal, parameters, type->second));
  return TRUE;
}

// Only the bus itself is called, to hear that it has read everything. It has.
void g_dbus_connection_call(GDBusConnection* connection, const gchar* name, const gchar* /*path*/,
                            const gchar* /*interface*/, const gchar* method, GVariant* parameters,
                            const GVariantType* /*replyType*/, GDBusCallFlags /*flags*/,
                            gint /*timeoutMs*/, GCancellable* cancellable,
                            GAsyncReadyCallback callback, gpointer userData) {
  Require(std::string(name) == "org.freedesktop.DBus" && std::string(method) == "GetId" &&
              parameters == nullptr,
          "the plug-in calls nobody but the bus");
  const std::unique_ptr<GTask, void (*)(gpointer)> task(
      g_task_new(connection, cancellable, callback, userData), g_object_unref);
  g_task_return_pointer(task.get(), g_variant_ref_sink(g_variant_new("(s)", "id")),
                        [](gpointer id) { g_variant_unref(static_cast<GVariant*>(id)); });
}

GVariant* g_dbus_connection_call_finish(GDBusConnection* /*connection*/, GAsyncResult* result,
                                        GError** error) {
  return static_cast<GVariant*>(g_task_propagate_pointer(reinterpret_cast<GTask*>(result), error));
}

void g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation, GVariant* value) {
  Require(currentCall != nullptr && !currentCall->reply, "a call is answered once");
  currentCall->reply = toMessage("", value, currentCall->replyType);
  g_object_unref(invocation);
}

}  // extern "C"
#pragma GCC visibility pop
