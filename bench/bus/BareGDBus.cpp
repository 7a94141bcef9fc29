// bare-gdbus NAME: a service with GDBus that only replies, the yardstick for the plug-in. Says
// "ready" once it has the name; ends at SIGTERM.
#include <gio/gio.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Interface.h"

namespace {

GDBusNodeInfo* g_info = nullptr;

void on_call(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
             const char* /*interface*/, const char* /*method*/, GVariant* /*parameters*/,
             GDBusMethodInvocation* invocation, gpointer /*service*/) {
  g_dbus_method_invocation_return_value(invocation, g_variant_new("(i)", 0));
}

void on_bus_acquired(GDBusConnection* bus, const char* /*name*/, gpointer /*service*/) {
  static const GDBusInterfaceVTable table = {&on_call, nullptr, nullptr, {nullptr}};
  if (g_dbus_connection_register_object(bus, kBareObjectPath, g_info->interfaces[0], &table,
                                        nullptr, nullptr, nullptr) == 0) {
    g_error("the object cannot be registered");
  }
}

void on_name_acquired(GDBusConnection* /*bus*/, const char* /*name*/, gpointer /*service*/) {
  std::puts("ready");
  std::fflush(stdout);
}

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: bare-gdbus NAME\n", stderr);
    return 2;
  }
  g_info = g_dbus_node_info_new_for_xml(kBareIntrospection, nullptr);
  if (g_info == nullptr) g_error("the introspection data is not understood");
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  g_unix_signal_add(SIGTERM, &quit, loop);
  const guint owner =
      g_bus_own_name(G_BUS_TYPE_SYSTEM, argv[1], G_BUS_NAME_OWNER_FLAGS_REPLACE, &on_bus_acquired,
                     &on_name_acquired, nullptr, nullptr, nullptr);
  g_main_loop_run(loop);
  g_bus_unown_name(owner);
  g_main_loop_unref(loop);
  g_dbus_node_info_unref(g_info);
  return EXIT_SUCCESS;
}
