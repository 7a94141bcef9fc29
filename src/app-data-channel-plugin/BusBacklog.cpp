#include "BusBacklog.h"

#include <limits>
#include <utility>

namespace AppDataChannel {
namespace {

// Whether the bus has answered, be it with an error. A question that every policy allows.
bool hasAnswered(GDBusConnection* connection, GCancellable* cancellable) {
  GError* rawError = nullptr;
  const VariantPtr answer(g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, std::numeric_limits<gint>::max(),
      cancellable, &rawError));
  const GErrorPtr error(rawError);
  return answer || g_dbus_error_is_remote_error(error.get()) != FALSE;
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
    g_cancellable_cancel(m_cancellable.get());
    m_answered.wait(lock, [this] { return m_questions == 0; });
    m_cancellable.reset();
    m_read = m_added.load();
    finished = std::move(m_thread);
  }
  if (finished.joinable()) finished.join();
}

bool BusBacklog::TryAdd(std::size_t bytes, std::size_t limit) {
  const bool added = m_added - m_read <= kLimit / 2 || fits(bytes, limit);
  // Before the question: it is about this message as well.
  if (added) Add(bytes);
  if (m_added - m_read <= kLimit / 2) return added;
  try {
    askMeanwhile();
  } catch (...) {
    if (added) m_added -= bytes + kMessageBytes;
    throw;
  }
  return added;
}

bool BusBacklog::ask() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_connection) return false;
  ConnectionPtr connection(static_cast<GDBusConnection*>(g_object_ref(m_connection.get())));
  GCancellable* const cancellable = m_cancellable.get();  // lives as long as there is a question
  const std::size_t added = m_added;
  ++m_questions;
  lock.unlock();
  const bool answered = hasAnswered(connection.get(), cancellable);
  connection.reset();
  lock.lock();
  // An answer to an earlier question may be noted after one to a later question.
  if (answered && added - m_read <= m_added - m_read) m_read = added;
  --m_questions;
  m_answered.notify_all();
  return answered;
}

void BusBacklog::askMeanwhile() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_threadAsks || !m_connection) return;
  if (m_thread.joinable()) m_thread.join();  // it has asked, and is about to end
  m_thread = std::thread([this] {
    ask();
    const std::lock_guard<std::mutex> lockAgain(m_mutex);
    m_threadAsks = false;
  });
  m_threadAsks = true;
}

}  // namespace AppDataChannel
