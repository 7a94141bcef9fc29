#include "BusBacklog.h"

#include <limits>
#include <utility>

namespace AppDataChannel {
namespace {

// How a question ended.
struct Ending {
  bool isOver = false;
  bool isAnswered = false;  // by the bus, be it with an error
};

void on_answer(GObject* connection, GAsyncResult* result, gpointer userData) {
  GError* rawError = nullptr;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-cstyle-cast): GLib's cast
  const VariantPtr answer(
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &rawError));
  const GErrorPtr error(rawError);
  auto* const ending = static_cast<Ending*>(userData);
  ending->isAnswered = answer || g_dbus_error_is_remote_error(error.get()) != FALSE;
  ending->isOver = true;
}

// Whether the bus has answered a question that every policy allows. Runs the context until then.
bool hasAnswered(GMainContext* context, GDBusConnection* connection, GCancellable* cancellable) {
  Ending ending;
  g_main_context_push_thread_default(context);
  g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, std::numeric_limits<gint>::max(),
                         cancellable, &on_answer, &ending);
  while (!ending.isOver) g_main_context_iteration(context, TRUE);
  g_main_context_pop_thread_default(context);
  return ending.isAnswered;
}

}  // namespace

void BusBacklog::Open(GDBusConnection* connection) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_connection.get() == connection) return;
  m_connection.reset(static_cast<GDBusConnection*>(g_object_ref(connection)));
  if (!m_cancellable) m_cancellable.reset(g_cancellable_new());
  m_read = m_added.load();
}

void BusBacklog::Close() {
  std::thread finished;
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_connection) return;
    m_connection.reset();
    m_answered.notify_all();
    g_cancellable_cancel(m_cancellable.get());
    m_answered.wait(lock, [this] { return !m_isAsking; });
    // A question that was answered and cancelled at the same moment leaves a source of GDBus' here,
    // which would keep the connection.
    while (g_main_context_iteration(m_context.get(), FALSE) != FALSE) {
    }
    m_cancellable.reset();
    m_read = m_added.load();
    m_waitedInVain = false;
    finished = std::move(m_thread);
  }
  if (finished.joinable()) finished.join();
}

bool BusBacklog::AddInTime(std::size_t bytes, std::chrono::milliseconds patience) {
  if (isHalfFull() && !waitForRoom(bytes, patience)) return false;
  Add(bytes);
  if (isHalfFull()) {
    // About this message as well.
    const std::lock_guard<std::mutex> lock(m_mutex);
    askMeanwhile();
  }
  return true;
}

bool BusBacklog::waitForRoom(std::size_t bytes, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::unique_lock<std::mutex> lock(m_mutex);
  while (m_connection && !fits(bytes)) {
    const std::size_t read = m_read;
    askMeanwhile();
    if (!m_threadAsks || m_waitedInVain) return false;
    if (!m_answered.wait_until(lock, deadline, [this] { return !m_threadAsks || !m_connection; })) {
      m_waitedInVain = true;
      return false;
    }
    if (m_connection && m_read == read) return false;  // it is lost
  }
  return true;
}

bool BusBacklog::ask() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_connection) return false;
  if (m_isAsking) {
    m_answered.wait(lock, [this] { return !m_isAsking; });
    return true;
  }
  ConnectionPtr connection(static_cast<GDBusConnection*>(g_object_ref(m_connection.get())));
  GCancellable* const cancellable = m_cancellable.get();  // lives as long as there is a question
  const std::size_t added = m_added;
  m_isAsking = true;
  lock.unlock();
  const bool answered = hasAnswered(m_context.get(), connection.get(), cancellable);
  connection.reset();
  lock.lock();
  if (answered) {
    m_read = added;
    m_waitedInVain = false;
  }
  m_isAsking = false;
  m_answered.notify_all();
  return answered;
}

void BusBacklog::askMeanwhile() noexcept {
  if (m_threadAsks || !m_connection) return;
  if (m_thread.joinable()) m_thread.join();  // it has asked, and is about to end
  try {
    m_thread = std::thread([this] {
      ask();
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_threadAsks = false;
      m_answered.notify_all();
    });
    m_threadAsks = true;
  } catch (...) {  // the next message asks again
  }
}

}  // namespace AppDataChannel
