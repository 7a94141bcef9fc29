#include "AppConnection.h"

#include <sys/socket.h>

#include <chrono>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "WaitUntil.h"

namespace Soak {
namespace {

constexpr const char* kBusName = "org.tizen.qivo_thing";
constexpr const char* kObjectPath = "/org/tizen/qivo_thing";
constexpr const char* kInterface = "org.tizen.qivo_thing.service";
constexpr const char* kMessageBus = "org.freedesktop.DBus";
constexpr const char* kMessageBusPath = "/org/freedesktop/DBus";

}  // namespace

// What the connection's messages leave behind.
struct AppConnection::Inbox {
  Inbox(std::string itsApp, Tally& itsTally) : app(std::move(itsApp)), tally(itsTally) {}

  void TakeEvent(GVariant* body) {
    const char* name = nullptr;
    const char* text = nullptr;
    g_variant_get(body, "(&s&s)", &name, &text);
    const SetLog::Id id = SetLog::IdIn(text);
    if (name != app || id == 0) {
      tally.Mismatch("an event for " + app + " is for " + name + ": " + std::string(text, 0, 80));
      return;
    }
    SetLog::Id& last = lastEvents[SetLog::RequesterOf(id)];
    if (id <= last) {
      tally.Mismatch(app + ": event " + std::to_string(id) + " comes after " +
                     std::to_string(last));
    }
    last = id;
    events.push_back(id);
  }

  void TakeSignin(GVariant* body) {
    gboolean connected = FALSE;
    g_variant_get(body, "(b)", &connected);
    // They are set in turn.
    if (lastSignin == (connected != FALSE)) tally.Mismatch(app + ": a sign-in is lost or doubled");
    lastSignin = connected != FALSE;
    ++signinChanges;
  }

  // On GDBus's thread.
  static GDBusMessage* Filter(GDBusConnection* /*bus*/, GDBusMessage* message, gboolean incoming,
                              gpointer userData) {
    GVariant* const body = g_dbus_message_get_body(message);
    if (incoming == FALSE || body == nullptr ||
        g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_SIGNAL) {
      return message;
    }
    Inbox& inbox = **static_cast<std::shared_ptr<Inbox>*>(userData);
    const std::string member = g_dbus_message_get_member(message);
    const std::lock_guard<std::mutex> lock(inbox.mutex);
    if (member == "send_event") inbox.TakeEvent(body);
    if (member == "cloud_connection_changed") inbox.TakeSignin(body);
    if (g_strcmp0(g_dbus_message_get_interface(message), kInterface) == 0) ++inbox.tally.signals;
    return message;
  }
  static void Free(gpointer userData) {
    const std::unique_ptr<std::shared_ptr<Inbox>> own(
        static_cast<std::shared_ptr<Inbox>*>(userData));
  }

  const std::string app;
  Tally& tally;
  std::mutex mutex;
  // All guarded by mutex:
  std::vector<SetLog::Id> events;
  std::map<std::uint64_t, SetLog::Id> lastEvents;  // by requester
  std::optional<bool> lastSignin;
  unsigned signinChanges = 0;
};

AppConnection::AppConnection(const std::string& address, const std::string& app, Tally& tally)
    : m_tally(tally),
      m_inbox(std::make_shared<Inbox>(app, tally)),
      m_context(g_main_context_new()) {
  g_main_context_push_thread_default(m_context.get());
  m_bus.reset(g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr));
  g_main_context_pop_thread_default(m_context.get());
  if (!m_bus) throw std::runtime_error("the message bus cannot be reached");
  m_filter = g_dbus_connection_add_filter(
      m_bus.get(), &Inbox::Filter, std::make_unique<std::shared_ptr<Inbox>>(m_inbox).release(),
      &Inbox::Free);
}

AppConnection::~AppConnection() {
  bool isClosed = false;
  g_signal_connect(m_bus.get(), "closed", G_CALLBACK(&AppConnection::on_closed), &isClosed);
  g_dbus_connection_close_sync(m_bus.get(), nullptr, nullptr);
  // GDBus holds the connection, and its socket if the bus was the one to close it, until it has
  // said so.
  while (!isClosed) g_main_context_iteration(m_context.get(), TRUE);
  g_dbus_connection_remove_filter(m_bus.get(), m_filter);
}

void AppConnection::on_closed(GDBusConnection* /*bus*/, gboolean /*byPeer*/, GError* /*error*/,
                              gpointer isClosed) {
  *static_cast<bool*>(isClosed) = true;
}

void AppConnection::Subscribe(Listening listening) {
  const std::string rule = std::string("type='signal',interface='") + kInterface + "',member='";
  const auto add = [this, &rule](const std::string& rest) {
    callBus("AddMatch", g_variant_new("(s)", (rule + rest).c_str()), "()");
  };
  add("cloud_connection_changed'");
  if (listening == Listening::ToAll) add("send_event',arg0='" + m_inbox->app + "'");
}

int AppConnection::Register(const std::string& app) {
  return callForResult("register_app", g_variant_new("(s)", app.c_str()));
}

int AppConnection::Unregister(const std::string& app) {
  return callForResult("unregister_app", g_variant_new("(s)", app.c_str()));
}

int AppConnection::SendData(const std::string& app, const std::string& data) {
  return callForResult("send_data", g_variant_new("(ss)", app.c_str(), data.c_str()));
}

bool AppConnection::CloudConnection() {
  gboolean connected = FALSE;
  g_variant_get(call("get_cloud_connection", nullptr, "(b)").get(), "(b)", &connected);
  return connected != FALSE;
}

std::string AppConnection::ThingInformation() {
  const VariantPtr reply = call("get_thing_information", nullptr, "(s)");
  const char* info = nullptr;
  g_variant_get(reply.get(), "(&s)", &info);
  return info;
}

void AppConnection::Post(const std::string& app, const std::string& data) {
  const std::unique_ptr<GDBusMessage, Deleter<g_object_unref>> message(
      g_dbus_message_new_method_call(kBusName, kObjectPath, kInterface, "send_data"));
  g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", app.c_str(), data.c_str()));
  if (g_dbus_connection_send_message(m_bus.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                     nullptr, nullptr) == FALSE) {
    throw std::runtime_error("send_data cannot be sent");
  }
}

void AppConnection::Kill(const std::string& app, const std::string& data, AppConnection& other) {
  const std::string name = g_dbus_connection_get_unique_name(m_bus.get());
  Post(app, data);
  auto* const stream = G_SOCKET_CONNECTION(g_dbus_connection_get_stream(m_bus.get()));
  shutdown(g_socket_get_fd(g_socket_connection_get_socket(stream)), SHUT_RDWR);
  const bool noticed = WaitUntil([&] {
    gboolean isThere = TRUE;
    const VariantPtr reply =
        other.callBus("NameHasOwner", g_variant_new("(s)", name.c_str()), "(b)");
    g_variant_get(reply.get(), "(b)", &isThere);
    return isThere == FALSE;
  });
  if (!noticed) throw std::runtime_error("the bus does not notice that a connection is gone");
  ++m_tally.kills;
}

void AppConnection::CallBus() {
  callBus("GetId", nullptr, "(s)");
}

std::vector<SetLog::Id> AppConnection::TakeEvents() {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  return std::exchange(m_inbox->events, {});
}

unsigned AppConnection::SigninChanges() const {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  return m_inbox->signinChanges;
}

std::optional<bool> AppConnection::LastSignin() const {
  const std::lock_guard<std::mutex> lock(m_inbox->mutex);
  return m_inbox->lastSignin;
}

AppConnection::VariantPtr AppConnection::call(const char* method, GVariant* parameters,
                                              const char* type) {
  VariantPtr reply = call(kBusName, kObjectPath, kInterface, method, parameters, type);
  ++m_tally.calls;
  return reply;
}

AppConnection::VariantPtr AppConnection::callBus(const char* method, GVariant* parameters,
                                                 const char* type) {
  return call(kMessageBus, kMessageBusPath, kMessageBus, method, parameters, type);
}

AppConnection::VariantPtr AppConnection::call(const char* name, const char* path,
                                              const char* interface, const char* method,
                                              GVariant* parameters, const char* type) {
  constexpr std::chrono::milliseconds kLimit = HostProcess::kPatience;
  GError* rawError = nullptr;
  VariantPtr reply(g_dbus_connection_call_sync(
      m_bus.get(), name, path, interface, method, parameters, G_VARIANT_TYPE(type),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<int>(kLimit.count()), nullptr, &rawError));
  const std::unique_ptr<GError, Deleter<g_error_free>> error(rawError);
  if (!reply) throw std::runtime_error(std::string(method) + ": " + error->message);
  return reply;
}

int AppConnection::callForResult(const char* method, GVariant* parameters) {
  int result = 0;
  g_variant_get(call(method, parameters, "(i)").get(), "(i)", &result);
  return result;
}

}  // namespace Soak
