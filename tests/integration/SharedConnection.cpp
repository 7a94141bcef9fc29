#include "SharedConnection.h"

#include <chrono>
#include <stdexcept>

namespace {

constexpr std::chrono::seconds kRenewalLimit(60);

}  // namespace

SharedConnection::SharedConnection() : m_connection(nullptr, g_object_unref) {
  // GIO keeps giving out a connection that has died or could not be made for as long as anybody
  // refers to it, and callbacks about its end may still be waiting in the main loop.
  const auto deadline = std::chrono::steady_clock::now() + kRenewalLimit;
  std::string reason = "somebody keeps the dead connection";
  while (true) {
    GError* rawError = nullptr;
    m_connection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &rawError));
    const std::unique_ptr<GError, void (*)(GError*)> error(rawError, g_error_free);
    if (m_connection) {
      g_dbus_connection_set_exit_on_close(Get(), FALSE);
      if (g_dbus_connection_is_closed(Get()) == FALSE) return;
      m_connection.reset();
    } else {
      reason = error->message;
    }
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error(reason);
    g_main_context_iteration(nullptr, FALSE);
  }
}

std::string SharedConnection::UniqueName() const {
  return g_dbus_connection_get_unique_name(Get());
}
