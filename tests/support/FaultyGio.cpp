#include "FaultyGio.h"

#include <dlfcn.h>
#include <gio/gio.h>

#include "SparedAllocations.h"

FaultyGio& FaultyGio::Get() {
  static FaultyGio instance;
  return instance;
}

void FaultyGio::Reset() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_states = {};
  m_xml.clear();
}

void FaultyGio::Fail(Operation operation, Report report, unsigned count) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_states[operation].failures = count;
  m_states[operation].report = report;
}

void FaultyGio::OnCall(Operation operation, std::function<void()> hook) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_states[operation].hook = std::move(hook);
}

std::size_t FaultyGio::Calls(Operation operation) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_states[operation].calls;
}

std::string FaultyGio::Xml() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_xml;
}

bool FaultyGio::Begin(Operation operation, GError** error, const char* xml) {
  const SparedAllocations spared;
  std::function<void()> hook;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_states[operation].calls;
    hook = m_states[operation].hook;
    if (xml != nullptr) m_xml = xml;
  }
  if (hook) hook();
  const std::lock_guard<std::mutex> lock(m_mutex);
  State& state = m_states[operation];
  if (state.failures == 0) return true;
  --state.failures;
  if (state.report == Report::kError) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "made to fail");
  }
  return false;
}

namespace {

// The function of that name which this program's own one hides.
template <typename Function>
Function* real(Function* /*hiding*/, const char* name = __builtin_FUNCTION()) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

GDBusNodeInfo* g_dbus_node_info_new_for_xml(const gchar* xml, GError** error) {
  static const auto realFunction = real(&g_dbus_node_info_new_for_xml);
  if (!FaultyGio::Get().Begin(FaultyGio::kNewNodeInfo, error, xml)) return nullptr;
  return realFunction(xml, error);
}

guint g_bus_own_name(GBusType type, const gchar* name, GBusNameOwnerFlags flags,
                     GBusAcquiredCallback busAcquired, GBusNameAcquiredCallback nameAcquired,
                     GBusNameLostCallback nameLost, gpointer userData, GDestroyNotify free) {
  static const auto realFunction = real(&g_bus_own_name);
  if (!FaultyGio::Get().Begin(FaultyGio::kOwnName, nullptr)) return 0;
  return realFunction(type, name, flags, busAcquired, nameAcquired, nameLost, userData, free);
}

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                        GDBusInterfaceInfo* interface,
                                        const GDBusInterfaceVTable* table, gpointer userData,
                                        GDestroyNotify free, GError** error) {
  static const auto realFunction = real(&g_dbus_connection_register_object);
  if (!FaultyGio::Get().Begin(FaultyGio::kRegisterObject, error)) return 0;
  return realFunction(connection, path, interface, table, userData, free, error);
}

gboolean g_dbus_connection_emit_signal(GDBusConnection* connection, const gchar* destination,
                                       const gchar* path, const gchar* interface,
                                       const gchar* signal, GVariant* parameters, GError** error) {
  static const auto realFunction = real(&g_dbus_connection_emit_signal);
  if (!FaultyGio::Get().Begin(FaultyGio::kEmitSignal, error)) return FALSE;
  return realFunction(connection, destination, path, interface, signal, parameters, error);
}

}  // extern "C"
#pragma GCC visibility pop
