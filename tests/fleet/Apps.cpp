// fleet-apps
//
// An application on each television's bus, all in one process. Each lives as docs/applications.md
// says: it registers when the channel comes to its bus and then sends its data, confirms each event
// by sending the event's data, and sends more data when it is told to. Protocol.h has the lines. It
// ends when its standard output, a socket, does.
#include <gio/gio.h>
#include <glib-unix.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BusClient.h"
#include "LineStream.h"
#include "Protocol.h"

namespace {

LineStream& stream() {
  static LineStream lines(STDOUT_FILENO);
  return lines;
}

gboolean flush(gint /*descriptor*/, GIOCondition /*condition*/, gpointer /*unused*/) {
  stream().Flush();
  return stream().HasWaiting() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

void say(const std::string& line) {
  const bool waited = stream().HasWaiting();
  stream().Send(line);
  if (!waited && stream().HasWaiting()) g_unix_fd_add(STDOUT_FILENO, G_IO_OUT, flush, nullptr);
}

struct FreeError {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, FreeError>;

// Everything happens on the main loop. Calls hold a reference, so that replies find it.
class App : public std::enable_shared_from_this<App> {
 public:
  explicit App(std::string index) : m_index(std::move(index)) {}
  App(const App&) = delete;
  App& operator=(const App&) = delete;
  ~App() = default;

  void Join(const std::string& address) {
    g_dbus_connection_new_for_address(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, onConnected, share());
  }

  void Leave() {
    m_hasLeft = true;
    if (!m_connection) return;
    if (m_watch != 0) g_bus_unwatch_name(m_watch);
    if (m_events != 0) g_dbus_connection_signal_unsubscribe(m_connection.get(), m_events);
    g_dbus_connection_close(m_connection.get(), nullptr, nullptr, nullptr);
    m_connection.reset();
  }

  void Send(const std::string& tag) {
    m_tag = tag;
    if (!m_isRegistered || !m_connection) return;  // it is sent once that is so
    const std::string count = std::to_string(++m_count);
    say("sending\t" + m_index + "\t" + count + "\t" + tag);
    call("send_data", g_variant_new("(ss)", Fleet::kApp, (count + ":" + tag).c_str()), onSent);
  }

 private:
  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  using Shared = std::shared_ptr<App>;

  gpointer share() { return std::make_unique<Shared>(shared_from_this()).release(); }
  static Shared take(gpointer userData) {
    return *std::unique_ptr<Shared>(static_cast<Shared*>(userData));
  }
  static void drop(gpointer userData) { take(userData); }

  void call(const char* method, GVariant* parameters, GAsyncReadyCallback onReply) {
    g_dbus_connection_call(m_connection.get(), kBusName, kObjectPath, kInterface, method,
                           parameters, G_VARIANT_TYPE("(i)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                           nullptr, onReply, share());
  }

  // 0 when the call succeeded; else says what failed.
  bool hasSucceeded(const char* what, GObject* source, GAsyncResult* result) {
    GError* error = nullptr;
    const std::unique_ptr<GVariant, void (*)(GVariant*)> reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error), g_variant_unref);
    const ErrorPtr owned(error);
    gint code = -1;
    if (reply) g_variant_get(reply.get(), "(i)", &code);
    if (code == 0) return true;
    // The end of a bus may be known here before the word to leave it. A bus that ends by itself
    // leaves a television that is not right.
    const bool isCut = g_dbus_connection_is_closed(G_DBUS_CONNECTION(source)) != FALSE;
    if (!m_hasLeft && !isCut) {
      say("error\t" + m_index + "\t" + what + ": " +
          (owned ? std::string(owned->message) : std::to_string(code)));
    }
    return false;
  }

  static void onConnected(GObject* /*source*/, GAsyncResult* result, gpointer userData) {
    const Shared self = take(userData);
    GError* error = nullptr;
    self->m_connection.reset(g_dbus_connection_new_for_address_finish(result, &error));
    const ErrorPtr owned(error);
    if (self->m_hasLeft) return self->Leave();
    if (!self->m_connection) {
      return say("error\t" + self->m_index + "\tno bus: " + owned->message);
    }
    self->m_events = g_dbus_connection_signal_subscribe(
        self->m_connection.get(), kBusName, kInterface, "send_event", kObjectPath, Fleet::kApp,
        G_DBUS_SIGNAL_FLAGS_NONE, onEvent, self->share(), drop);
    self->m_watch = g_bus_watch_name_on_connection(self->m_connection.get(), kBusName,
                                                   G_BUS_NAME_WATCHER_FLAGS_NONE, onAppeared,
                                                   onVanished, self->share(), drop);
  }

  static void onAppeared(GDBusConnection* /*connection*/, const gchar* /*name*/,
                         const gchar* /*owner*/, gpointer userData) {
    const Shared self = *static_cast<Shared*>(userData);
    self->m_count = 0;
    self->call("register_app", g_variant_new("(s)", Fleet::kApp), onRegistered);
  }

  static void onVanished(GDBusConnection* /*connection*/, const gchar* /*name*/,
                         gpointer userData) {
    (*static_cast<Shared*>(userData))->m_isRegistered = false;
  }

  static void onRegistered(GObject* source, GAsyncResult* result, gpointer userData) {
    const Shared self = take(userData);
    self->m_isRegistered = self->hasSucceeded("register_app", source, result);
    if (!self->m_isRegistered) return;
    say("ready\t" + self->m_index);
    self->Send(self->m_tag);
  }

  static void onSent(GObject* source, GAsyncResult* result, gpointer userData) {
    take(userData)->hasSucceeded("send_data", source, result);
  }

  static void onEvent(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                      const gchar* /*path*/, const gchar* /*interface*/, const gchar* /*signal*/,
                      GVariant* parameters, gpointer userData) {
    const Shared self = *static_cast<Shared*>(userData);
    const gchar* name = nullptr;
    const gchar* data = nullptr;
    g_variant_get(parameters, "(&s&s)", &name, &data);
    say("event\t" + self->m_index + "\t" + data);
    self->Send(data);
  }

  const std::string m_index;
  std::unique_ptr<GDBusConnection, Unref> m_connection;
  guint m_events = 0;
  guint m_watch = 0;
  bool m_hasLeft = false;
  bool m_isRegistered = false;
  std::size_t m_count = 0;      // values sent to this host
  std::string m_tag = "start";  // of the data that hold now
};

class Apps {
 public:
  void Do(const std::vector<std::string>& words) {
    const std::string& command = words.at(0);
    const std::string& index = words.at(1);
    std::shared_ptr<App>& app = m_apps[index];
    if (command == "join") {
      if (app) app->Leave();
      app = std::make_shared<App>(index);
      app->Join(words.at(2));
    } else if (command == "leave") {
      if (app) app->Leave();
      m_apps.erase(index);
    } else if (command == "send" && app) {
      app->Send(words.at(2));
    }
  }

  static gboolean OnLines(gint /*descriptor*/, GIOCondition /*condition*/, gpointer self) {
    bool ended = false;
    for (const std::string& line : stream().Receive(ended)) {
      static_cast<Apps*>(self)->Do(Split(line, '\t'));
    }
    if (ended) std::_Exit(EXIT_SUCCESS);
    return G_SOURCE_CONTINUE;
  }

 private:
  std::map<std::string, std::shared_ptr<App>> m_apps;
};

}  // namespace

int main() {
  try {
    Apps apps;
    g_unix_fd_add(STDOUT_FILENO, G_IO_IN, Apps::OnLines, &apps);
    const std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> loop(g_main_loop_new(nullptr, FALSE),
                                                                g_main_loop_unref);
    say("up");
    g_main_loop_run(loop.get());
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fleet-apps: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
