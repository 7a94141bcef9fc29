#include "ReadyCheck.h"

#include <string_view>
#include <utility>

#include "SettingWatch.h"

namespace QivoThing {
namespace {

constexpr guint kTimeToBeReadyS = 5;
constexpr guint kMsPerS = 1000;
constexpr const char* kBusName = "org.tizen.qivo_thing";

std::string notReady(const std::string& why) {
  return "not ready after " + std::to_string(kTimeToBeReadyS) + " s: " + why;
}

}  // namespace

ReadyCheck::ReadyCheck(GDBusConnection* connection, Findings findings)
    : m_connection(connection),
      m_findings(std::move(findings)),
      m_cancellable(g_cancellable_new()),
      m_timer(g_timeout_add(kTimeToBeReadyS * kMsPerS, &ReadyCheck::on_time, this)) {}

ReadyCheck::~ReadyCheck() {
  g_cancellable_cancel(m_cancellable.get());
  if (m_timer != 0) g_source_remove(m_timer);
}

gboolean ReadyCheck::on_time(gpointer check) {
  auto* const self = static_cast<ReadyCheck*>(check);
  if (IsReady()) {
    self->m_timer = 0;
    return G_SOURCE_REMOVE;
  }
  if (!self->m_isAsking) self->ask();
  return G_SOURCE_CONTINUE;
}

void ReadyCheck::ask() {
  m_isAsking = true;
  g_dbus_connection_call(m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "ListQueuedOwners", g_variant_new("(s)", kBusName),
                         G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE, -1, m_cancellable.get(),
                         &ReadyCheck::on_answer, this);
}

void ReadyCheck::on_answer(GObject* source, GAsyncResult* result, gpointer check) {
  GError* rawError = nullptr;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-cstyle-cast): GLib's macro
  const VariantPtr answer(
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &rawError));
  const GErrorPtr error(rawError);
  // Cancelled means that the object is gone.
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) return;
  auto* const self = static_cast<ReadyCheck*>(check);
  self->m_isAsking = false;
  // The bus answers in order: the plug-in's request for the name, then this.
  if (IsReady()) return;
  if (answer) {
    const VariantPtr list(g_variant_get_child_value(answer.get(), 0));
    const StringsPtr owners(g_variant_get_strv(list.get(), nullptr));
    self->judge(owners.get());
  } else if (g_error_matches(error.get(), G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
    const gchar* const nobody = nullptr;
    self->judge(&nobody);
  }
}

void ReadyCheck::judge(const gchar* const* owners) {
  const std::string_view me = g_dbus_connection_get_unique_name(m_connection);
  bool isMine = false;
  for (const gchar* const* owner = owners; *owner != nullptr; ++owner) isMine |= me == *owner;

  if (isMine && me != *owners) {
    if (std::exchange(m_owner, *owners) != *owners) m_findings.waits(*owners);
    return;
  }
  g_source_remove(std::exchange(m_timer, 0));
  if (isMine) {
    m_findings.isNotStored();
  } else if (*owners != nullptr) {
    m_findings.fails(notReady(std::string(kBusName) + " is owned by " + *owners +
                              ", and the bus does not let this user have it: install the bus "
                              "policy for this user, then reload the bus"));
  } else {
    m_findings.fails(notReady(std::string("nobody owns ") + kBusName +
                              ": correct the errors above, or install the bus policy for this "
                              "user and reload the bus"));
  }
}

}  // namespace QivoThing
