#ifndef BENCH_SUPPORT_BARESERVICE_H
#define BENCH_SUPPORT_BARESERVICE_H

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>

// A service with GDBus and nothing else: the channel's interface, where every method that has a
// result answers 0. The yardstick for the plug-in. Everything runs on the thread of the main loop.
// A failure to start ends the process.
class BareService {
 public:
  // Requests the name; calls `ready` once it has it.
  BareService(const std::string& name, std::function<void()> ready);
  // Gives the name up.
  ~BareService();
  BareService(const BareService&) = delete;
  BareService& operator=(const BareService&) = delete;

 private:
  struct NodeInfoDeleter {
    void operator()(GDBusNodeInfo* info) const noexcept { g_dbus_node_info_unref(info); }
  };

  static void on_bus_acquired(GDBusConnection* bus, const char* name, gpointer service);
  static void on_name_acquired(GDBusConnection* bus, const char* name, gpointer service);
  static void on_call(GDBusConnection* bus, const char* sender, const char* path,
                      const char* interface, const char* method, GVariant* parameters,
                      GDBusMethodInvocation* invocation, gpointer service);

  static const GDBusInterfaceVTable m_table;

  const std::function<void()> m_ready;
  std::unique_ptr<GDBusNodeInfo, NodeInfoDeleter> m_info;
  GDBusConnection* m_bus = nullptr;  // not a reference: GLib has one as long as the name is owned
  guint m_registration = 0;
  guint m_owner = 0;
};

#endif  // BENCH_SUPPORT_BARESERVICE_H
