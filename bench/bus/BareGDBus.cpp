// bare-gdbus NAME: a service with GDBus that only replies, the yardstick for the plug-in. Says
// "ready" once it has the name; runs until it is killed.
#include <gio/gio.h>

#include <cstdio>

#include "Interface.h"

namespace {

// The channel's interface: what GLib is given is as long to parse.
constexpr const char* kIntrospection = R"(
<node name='/org/tizen/qivo_thing'><interface name='org.tizen.qivo_thing.service'>
<method name='register_app'>
  <arg type='s' name='app_name' direction='in'/><arg type='i' name='result' direction='out'/>
</method>
<method name='unregister_app'>
  <arg type='s' name='app_name' direction='in'/><arg type='i' name='result' direction='out'/>
</method>
<method name='send_data'>
  <arg type='s' name='app_name' direction='in'/><arg type='s' name='data' direction='in'/>
  <arg type='i' name='result' direction='out'/>
</method>
<method name='get_cloud_connection'><arg type='b' name='connected' direction='out'/></method>
<method name='get_thing_information'><arg type='s' name='info' direction='out'/></method>
<signal name='send_event'><arg type='s' name='app_name'/><arg type='s' name='data'/></signal>
<signal name='cloud_connection_changed'><arg type='b' name='connected'/></signal>
<signal name='dbus_server_ready'></signal>
</interface></node>)";

void on_call(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
             const char* /*interface*/, const char* /*method*/, GVariant* /*parameters*/,
             GDBusMethodInvocation* invocation, gpointer /*service*/) {
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
}

void on_bus_acquired(GDBusConnection* bus, const char* /*name*/, gpointer info) {
  static const GDBusInterfaceVTable table = {&on_call, nullptr, nullptr, {nullptr}};
  if (g_dbus_connection_register_object(bus, kObjectPath,
                                        static_cast<GDBusNodeInfo*>(info)->interfaces[0], &table,
                                        nullptr, nullptr, nullptr) == 0) {
    g_error("the object cannot be registered");
  }
}

void on_name_acquired(GDBusConnection* /*bus*/, const char* /*name*/, gpointer /*info*/) {
  std::puts("ready");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) g_error("usage: bare-gdbus NAME");
  GDBusNodeInfo* const info = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
  if (info == nullptr) g_error("the introspection data is not understood");
  g_bus_own_name(G_BUS_TYPE_SYSTEM, argv[1], G_BUS_NAME_OWNER_FLAGS_REPLACE, &on_bus_acquired,
                 &on_name_acquired, nullptr, info, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
