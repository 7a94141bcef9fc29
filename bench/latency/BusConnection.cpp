#include "BusConnection.h"

#include <atomic>
#include <cstdio>
#include <exception>
#include <utility>

#include "Environment.h"

namespace Latency {
namespace {

constexpr const char* kMessageBus = "org.freedesktop.DBus";
constexpr const char* kMessageBusPath = "/org/freedesktop/DBus";

// What is there when a handler is set must be there for GDBus's thread. GDBus sees to that, in a
// way that ThreadSanitizer does not see.
std::atomic<unsigned> g_handlersSet{0};

using ErrorPtr = std::unique_ptr<GError, Deleter<g_error_free>>;

}  // namespace

BusConnection::BusConnection(Handler handler) : m_handler(std::move(handler)) {
  GError* rawError = nullptr;
  m_bus.reset(g_dbus_connection_new_for_address_sync(
      Environment("DBUS_SYSTEM_BUS_ADDRESS").c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &rawError));
  const ErrorPtr error(rawError);
  if (!m_bus) Require(false, std::string("the message bus: ") + error->message);
  g_handlersSet.fetch_add(1, std::memory_order_release);
  m_filter = g_dbus_connection_add_filter(m_bus.get(), &BusConnection::onMessage, this, nullptr);
}

BusConnection::~BusConnection() {
  // GDBus's thread, which runs the handler, closes the connection itself.
  g_dbus_connection_close_sync(m_bus.get(), nullptr, nullptr);
  g_dbus_connection_remove_filter(m_bus.get(), m_filter);
}

std::string BusConnection::Name() const {
  return g_dbus_connection_get_unique_name(m_bus.get());
}

void BusConnection::Match(const char* sender, const char* interface, const char* member,
                          const char* path, const char* argument) {
  std::string rule = std::string("type='signal',interface='") + interface + "',member='" + member;
  if (sender != nullptr) rule.append("',sender='").append(sender);
  if (path != nullptr) rule.append("',path='").append(path);
  if (argument != nullptr) rule.append("',arg0='").append(argument);
  rule.append("'");
  Call(kMessageBus, kMessageBusPath, kMessageBus, "AddMatch", g_variant_new("(s)", rule.c_str()),
       "()");
}

void BusConnection::Sync() {
  Call(kMessageBus, kMessageBusPath, kMessageBus, "GetId", nullptr, "(s)");
}

VariantPtr BusConnection::Call(const char* name, const char* path, const char* interface,
                               const char* method, GVariant* parameters, const char* replyType) {
  constexpr std::chrono::milliseconds kLimitMs = kLimit;
  GError* rawError = nullptr;
  VariantPtr reply(g_dbus_connection_call_sync(
      m_bus.get(), name, path, interface, method, parameters, G_VARIANT_TYPE(replyType),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<int>(kLimitMs.count()), nullptr, &rawError));
  const ErrorPtr error(rawError);
  if (!reply) Require(false, std::string(method) + ": " + error->message);
  return reply;
}

void BusConnection::Send(GDBusMessage& message) {
  GError* rawError = nullptr;
  const bool sent =
      g_dbus_connection_send_message(m_bus.get(), &message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                     &rawError) != FALSE;
  const ErrorPtr error(rawError);
  if (!sent) Require(false, std::string("a message cannot be sent: ") + error->message);
}

GDBusMessage* BusConnection::onMessage(GDBusConnection* /*bus*/, GDBusMessage* message,
                                       gboolean incoming, gpointer self) {
  if (incoming == FALSE || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_SIGNAL) {
    return message;
  }
  const MessagePtr owner(message);  // nobody else wants it
  static_cast<void>(g_handlersSet.load(std::memory_order_acquire));
  try {
    const Handler& handler = static_cast<BusConnection*>(self)->m_handler;
    if (handler) handler(*message);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
  }
  return nullptr;
}

}  // namespace Latency
