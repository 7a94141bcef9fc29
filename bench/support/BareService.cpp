#include "BareService.h"

#include <utility>

#include "Interface.h"

const GDBusInterfaceVTable BareService::m_table = {
    &BareService::on_call, nullptr, nullptr, {nullptr}};

BareService::BareService(const std::string& name, std::function<void()> ready)
    : m_ready(std::move(ready)), m_info(g_dbus_node_info_new_for_xml(kBareIntrospection, nullptr)) {
  if (!m_info) g_error("the introspection data is not understood");
  m_owner = g_bus_own_name(G_BUS_TYPE_SYSTEM, name.c_str(), G_BUS_NAME_OWNER_FLAGS_REPLACE,
                           &BareService::on_bus_acquired, &BareService::on_name_acquired, nullptr,
                           this, nullptr);
}

BareService::~BareService() {
  if (m_registration != 0) g_dbus_connection_unregister_object(m_bus, m_registration);
  g_bus_unown_name(m_owner);
}

void BareService::on_bus_acquired(GDBusConnection* bus, const char* /*name*/, gpointer service) {
  auto& self = *static_cast<BareService*>(service);
  self.m_bus = bus;
  self.m_registration = g_dbus_connection_register_object(
      bus, kBareObjectPath, self.m_info->interfaces[0], &m_table, service, nullptr, nullptr);
  if (self.m_registration == 0) g_error("the object cannot be registered");
}

void BareService::on_name_acquired(GDBusConnection* /*bus*/, const char* /*name*/,
                                   gpointer service) {
  static_cast<BareService*>(service)->m_ready();
}

void BareService::on_call(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                          const char* /*interface*/, const char* /*method*/,
                          GVariant* /*parameters*/, GDBusMethodInvocation* invocation,
                          gpointer /*service*/) {
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
}
