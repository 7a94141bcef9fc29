// A plug-in for the tests of the host. It prints what happens to it, and is built several times:
// PLUGIN_NAME is what it calls itself, and the other definitions what is special about it.
#include <gio/gio.h>
#include <unistd.h>
#include <vconf.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string_view>

namespace {

constexpr std::string_view kName = PLUGIN_NAME;

[[maybe_unused]] bool print(const char* what) {
  static_cast<void>(std::printf("%s %s\n", kName.data(), what));
  static_cast<void>(std::fflush(stdout));
  return true;
}

// An object at "/". Calls for its properties wait for the main loop. Neither it nor the connection
// is released.
[[maybe_unused]] void exportObject() {
  static const GDBusInterfaceVTable kTable = {
      nullptr,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GError**,
         gpointer) { return g_variant_new_boolean(TRUE); },
      nullptr,
      {nullptr}};
  GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(
      "<node><interface name='test.Plugin'>"
      "<property name='isStuck' type='b' access='read'/></interface></node>",
      nullptr);
  GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  if (g_dbus_connection_register_object(connection, "/", node->interfaces[0], &kTable, nullptr,
                                        nullptr, nullptr) == 0) {
    throw std::runtime_error("no object");
  }
}

}  // namespace

extern "C" {

#ifndef PLUGIN_HAS_NO_CREATE
[[gnu::visibility("default")]] bool CreatePlugin();
bool CreatePlugin() {
  static bool createdBefore = false;
  if (kName == "refusing" || (kName == "once" && createdBefore)) return false;
  if (kName == "throwing") throw std::runtime_error("no memory left");
  if (kName == "setting") {
    constexpr const char* kKey = "memory/iot/thing/thing_status";
    for (const int value : {1, 1, 2, 0, 1}) vconf_set_int(kKey, value);
    vconf_set_int("memory/iot/thing/thing", 1);
    vconf_set_int(nullptr, 1);
  }
  if (kName == "stuck") exportObject();
  createdBefore = true;
  print("created");
  while (kName == "stuck") pause();
  return true;
}
#endif

#ifndef PLUGIN_HAS_NO_DESTROY
[[gnu::visibility("default")]] bool DestroyPlugin();
bool DestroyPlugin() {
  if (kName == "stubborn") throw std::runtime_error("will not go");
  if (kName == "signalling") {
    static_cast<void>(std::raise(SIGTERM));
    static_cast<void>(std::raise(SIGINT));
  }
  return print("destroyed");
}
#endif

}  // extern "C"
