#include "BusConnection.h"

#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "HostLog.h"
#include "SpareDescriptors.h"

namespace QivoThing {
namespace {

constexpr std::chrono::milliseconds kFirstWait(100);
constexpr std::chrono::milliseconds kLongestWait(5000);

std::string describe(const GError* error) {
  return error == nullptr ? "closed by the bus" : error->message;
}

// Closes the descriptors that came with a call. No method of the host takes any, and calls wait for
// the main loop: whoever sends them faster than they are answered would leave the process no
// descriptor. Runs on GDBus's thread when the message comes.
GDBusMessage* closeDescriptors(GDBusConnection* /*connection*/, GDBusMessage* message,
                               gboolean isIncoming, gpointer /*userData*/) {
  const bool isCall = isIncoming != FALSE &&
                      g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
  GUnixFDList* const list = isCall ? g_dbus_message_get_unix_fd_list(message) : nullptr;
  if (list == nullptr) return message;
  gint count = 0;
  const DescriptorsPtr descriptors(g_unix_fd_list_steal_fds(list, &count));
  for (gint i = 0; i < count; ++i) close(descriptors.get()[i]);
  return message;
}

}  // namespace

BusConnection::BusConnection(OpenedCallback onOpened, Callback onClosed)
    : m_onOpened(std::move(onOpened)),
      m_onClosed(std::move(onClosed)),
      m_wait(kFirstWait, kLongestWait),
      m_cancellable(g_cancellable_new()) {
  connect();
}

BusConnection::~BusConnection() {
  g_cancellable_cancel(m_cancellable.get());
  if (m_timer != 0) g_source_remove(m_timer);
  release();
}

void BusConnection::connect() {
  if (!SpareDescriptors().IsComplete()) {
    LOG_E(LOG_TAG_HOST, "no file descriptors are left for the bus");
    connectLater("no file descriptors are left");
    return;
  }
  g_bus_get(G_BUS_TYPE_SYSTEM, m_cancellable.get(), &BusConnection::on_connected, this);
}

void BusConnection::connectLater(const std::string& reason) {
  if (!m_waiting) {
    LOG_E(LOG_TAG_HOST, "waiting for the bus: %s", reason.c_str());
  }
  m_waiting = true;
  m_timer =
      g_timeout_add(static_cast<guint>(m_wait.Next().count()), &BusConnection::on_wait_over, this);
}

void BusConnection::opened(ConnectionPtr connection, const GError* error) {
  if (!connection) {
    connectLater(describe(error));
    return;
  }
  g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
  // For as long as the connection lives.
  g_dbus_connection_add_filter(connection.get(), &closeDescriptors, nullptr, nullptr);
  if (g_dbus_connection_is_closed(connection.get()) != FALSE) {
    connectLater("somebody keeps a closed connection");
    return;
  }
  // The main loop reports a close, so none is missed before the handler is connected.
  m_closedHandler =
      g_signal_connect(connection.get(), "closed", G_CALLBACK(&BusConnection::on_closed), this);
  m_connection = std::move(connection);
  m_wait.Reset();
  m_waiting = false;
  LOG_I(LOG_TAG_HOST, "connected to the bus as %s",
        g_dbus_connection_get_unique_name(m_connection.get()));
  m_onOpened(m_connection.get());
}

void BusConnection::closed(const GError* error) {
  const std::string reason = describe(error);
  LOG_E(LOG_TAG_HOST, "the bus connection has closed");
  m_onClosed();
  release();
  connectLater(reason);
}

void BusConnection::release() {
  if (m_connection) g_signal_handler_disconnect(m_connection.get(), m_closedHandler);
  m_connection.reset();
}

void BusConnection::on_connected(GObject* /*source*/, GAsyncResult* result, gpointer userData) {
  GError* rawError = nullptr;
  ConnectionPtr connection(g_bus_get_finish(result, &rawError));
  const GErrorPtr error(rawError);
  // Cancelled means that the object is gone.
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return;
  static_cast<BusConnection*>(userData)->opened(std::move(connection), error.get());
}

void BusConnection::on_closed(GDBusConnection* /*connection*/, gboolean /*remotePeerVanished*/,
                              GError* error, gpointer userData) {
  static_cast<BusConnection*>(userData)->closed(error);
}

gboolean BusConnection::on_wait_over(gpointer userData) {
  auto* const bus = static_cast<BusConnection*>(userData);
  bus->m_timer = 0;
  bus->connect();
  return G_SOURCE_REMOVE;
}

}  // namespace QivoThing
