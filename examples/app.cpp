// An application in C++: registers, prints what the cloud sends it, and confirms it by sending it
// back.
//
//     example-app NAME
//
// NAME is one of the names on the channel's list, "qz" for example. SIGINT or SIGTERM unregisters
// and ends it.
#include <gio/gio.h>
#include <glib-unix.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace {

constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kInterface = "org.tizen.qivo_thing.service";
constexpr int kNotRegistered = -20;

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};
using ErrorPtr = std::unique_ptr<GError, Deleter<g_error_free>>;
using VariantPtr = std::unique_ptr<GVariant, Deleter<g_variant_unref>>;
using LoopPtr = std::unique_ptr<GMainLoop, Deleter<g_main_loop_unref>>;
using BusPtr = std::unique_ptr<GDBusConnection, Deleter<g_object_unref>>;

// Everything runs on the thread of the main loop.
class App {
 public:
  App(BusPtr bus, std::string name) : m_bus(std::move(bus)), m_name(std::move(name)) {
    // Every listener gets every event: let the bus select ours by the first argument.
    m_subscription = g_dbus_connection_signal_subscribe(
        m_bus.get(), kBusName, kInterface, "send_event", kObjectPath, m_name.c_str(),
        G_DBUS_SIGNAL_FLAGS_NONE, &App::on_send_event, this, nullptr);
    // Registrations end with the channel's process, the owner of the name: register with each new
    // owner.
    m_watch = g_bus_watch_name_on_connection(m_bus.get(), kBusName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                             &App::on_appeared, &App::on_vanished, this, nullptr);
    // The library would end the program without a word when the bus goes away.
    g_dbus_connection_set_exit_on_close(m_bus.get(), FALSE);
    m_closed = g_signal_connect(m_bus.get(), "closed", G_CALLBACK(&App::on_closed), this);
  }
  ~App() {
    g_signal_handler_disconnect(m_bus.get(), m_closed);
    g_bus_unwatch_name(m_watch);
    g_dbus_connection_signal_unsubscribe(m_bus.get(), m_subscription);
  }
  App(const App&) = delete;
  App& operator=(const App&) = delete;

  // Returns the exit status, after SIGINT, SIGTERM, a registration that was refused or the loss of
  // the bus.
  int Run() {
    const guint interrupt = g_unix_signal_add(SIGINT, &App::on_signal, this);
    const guint terminate = g_unix_signal_add(SIGTERM, &App::on_signal, this);
    g_main_loop_run(m_loop.get());
    g_source_remove(interrupt);
    g_source_remove(terminate);
    if (m_registered) call("unregister_app", g_variant_new("(s)", m_name.c_str()));
    return m_status;
  }

 private:
  // The result of the call; empty when it failed, which is printed. Takes the floating parameters.
  std::optional<int> call(const char* method, GVariant* parameters) {
    GError* rawError = nullptr;
    const VariantPtr reply(g_dbus_connection_call_sync(
        m_bus.get(), kBusName, kObjectPath, kInterface, method, parameters, G_VARIANT_TYPE("(i)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &rawError));
    const ErrorPtr error(rawError);
    if (!reply) {
      std::cerr << "app: " << method << ": " << error->message << '\n';
      return std::nullopt;
    }
    int result = 0;
    g_variant_get(reply.get(), "(i)", &result);
    return result;
  }

  // Registrations are counted, and outlive an application that crashes. While some are left, the
  // cloud does not get the property. So this takes away all that are left of earlier runs, and then
  // registers once.
  void registerApp() {
    std::optional<int> result;
    do {
      result = call("unregister_app", g_variant_new("(s)", m_name.c_str()));
    } while (result == 0);
    if (result == kNotRegistered) {
      result = call("register_app", g_variant_new("(s)", m_name.c_str()));
    }
    if (!result) return;  // the channel has just gone: it appears again
    if (result != 0) {
      fail("cannot register '" + m_name + "': " + std::to_string(*result));
      return;
    }
    m_registered = true;
    std::cout << "registered" << std::endl;
  }

  // Ends the program with status 1.
  void fail(const std::string& message) {
    std::cerr << "app: " << message << '\n';
    m_status = EXIT_FAILURE;
    g_main_loop_quit(m_loop.get());
  }

  static void on_appeared(GDBusConnection* /*bus*/, const char* /*name*/, const char* /*owner*/,
                          gpointer app) {
    static_cast<App*>(app)->registerApp();
  }

  static void on_vanished(GDBusConnection* /*bus*/, const char* /*name*/, gpointer app) {
    static_cast<App*>(app)->m_registered = false;
  }

  static void on_closed(GDBusConnection* /*bus*/, gboolean /*remotely*/, GError* /*error*/,
                        gpointer userData) {
    auto* const app = static_cast<App*>(userData);
    app->m_registered = false;
    app->fail("the message bus is gone");
  }

  static void on_send_event(GDBusConnection* /*bus*/, const char* /*sender*/, const char* /*path*/,
                            const char* /*interface*/, const char* /*signal*/, GVariant* parameters,
                            gpointer userData) {
    auto* const app = static_cast<App*>(userData);
    const char* name = nullptr;
    const char* data = nullptr;
    g_variant_get(parameters, "(&s&s)", &name, &data);
    std::cout << "event: " << data << std::endl;
    app->call("send_data", g_variant_new("(ss)", name, data));
  }

  static gboolean on_signal(gpointer app) {
    g_main_loop_quit(static_cast<App*>(app)->m_loop.get());
    return G_SOURCE_CONTINUE;
  }

  const LoopPtr m_loop{g_main_loop_new(nullptr, FALSE)};
  const BusPtr m_bus;
  const std::string m_name;
  guint m_subscription = 0;
  guint m_watch = 0;
  gulong m_closed = 0;
  bool m_registered = false;
  int m_status = EXIT_SUCCESS;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: example-app NAME\n";
    return 2;
  }
  GError* rawError = nullptr;
  BusPtr bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &rawError));
  const ErrorPtr error(rawError);
  if (!bus) {
    std::cerr << "app: " << error->message << '\n';
    return EXIT_FAILURE;
  }
  return App(std::move(bus), argv[1]).Run();
}
