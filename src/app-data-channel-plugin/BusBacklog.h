#ifndef APPDATACHANNEL_BUSBACKLOG_H
#define APPDATACHANNEL_BUSBACKLOG_H

#include <gio/gio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <utility>

#include "GLibHandle.h"

namespace AppDataChannel {

// Limits how much GDBus queues of one kind of message for a bus that does not read. GDBus itself
// has no limit, and does not tell how much it has queued.
//
// The bus reads in order, so its answer to a call means that it has read everything sent before.
// The messages are counted here, and the bus is asked only when they would exceed kLimit. (A flush
// would show the same, but it cannot be cancelled, and reports success for a lost connection, too.)
// A bus that has more for this process than its limits allow drops its own answer, without an
// error. So a question without an answer is asked again.
//
// The asking thread runs a main context that is created with this object, so it needs no file
// descriptor: GDBus's blocking calls create a context each, and GLib ends the process when it gets
// no descriptor for one. No function of this class runs on a thread of GLib's, or after Close has
// returned, so that the library can be unloaded.
//
// Any thread, but Open and Close one at a time. The lock is not held while the bus is asked. With
// it held, Close runs only code of GLib, which takes no lock of this project.
class BusBacklog {
 public:
  // In bytes. A longer message passes when it is the only one.
  static constexpr std::size_t kLimit = std::size_t{8} * 1024 * 1024;
  // About what a queued message takes besides its strings: objects of GLib.
  static constexpr std::size_t kMessageBytes = 2048;
  // Until the bus is asked again; then twice as long each time, so that hours add few questions.
  static constexpr std::chrono::milliseconds kFirstPatience{1000};
  static constexpr std::chrono::milliseconds kLongestPatience{300'000};

  BusBacklog() : m_context(g_main_context_new()) {}
  ~BusBacklog() { Close(); }
  BusBacklog(const BusBacklog&) = delete;
  BusBacklog& operator=(const BusBacklog&) = delete;

  // Counts for this connection, from 0; does nothing when it does so already.
  void Open(GDBusConnection* connection);
  // Ends every wait. When it returns, nothing here refers to the connection any more.
  void Close();

  // Counts a message with so many bytes of strings, which was queued.
  void Add(std::size_t bytes) { m_added.fetch_add(bytes + kMessageBytes); }

  // Waits until a message with so many bytes of strings fits, the connection is lost or Close is
  // called. Two waiting threads may pass together.
  void WaitForRoom(std::size_t bytes) {
    while (!fits(bytes) && ask()) {
    }
  }

  // Waits until such a message fits, `patience` at most, and counts it. The loss of the connection
  // and Close end the wait, too. False when it still does not fit; then no later call waits either,
  // until the bus has answered again.
  //
  // From half of kLimit on, a thread asks the bus in the background. Below that nobody has asked,
  // so a message of any length fits. The caller sends the message afterwards, so that an answer may
  // count it as read too early: one message at most.
  bool AddInTime(std::size_t bytes, std::chrono::milliseconds patience);

 private:
  bool fits(std::size_t bytes) const {
    const std::size_t unread = m_added - m_read;
    return unread == 0 || unread + bytes + kMessageBytes <= kLimit;
  }
  bool isHalfFull() const { return m_added - m_read > kLimit / 2; }
  // Asks the bus and waits for its answer, or waits until another thread's question has ended.
  // False when there is no answer, or no connection.
  bool ask();
  // Starts a thread that asks, unless one does already. Does nothing when no thread can be started.
  // With m_mutex held.
  void askMeanwhile() noexcept;
  bool waitForRoom(std::size_t bytes, std::chrono::milliseconds patience);

  // How a question ended.
  struct Ending {
    bool isOver = false;
    bool isAnswered = false;  // by the bus, be it with an error
    bool isTooLate = false;
  };
  static void on_answer(GObject* connection, GAsyncResult* result, gpointer userData);
  // Makes a call that every bus policy allows, and runs the context until it has ended.
  static Ending askOnce(GMainContext* context, GDBusConnection* connection,
                        GCancellable* cancellable, std::chrono::milliseconds patience);
  // Calls until one has ended in time. True when the bus has answered it.
  static bool hasAnswered(GMainContext* context, GDBusConnection* connection,
                          GCancellable* cancellable);

  std::atomic<std::size_t> m_added{0};  // bytes in all; may overflow
  std::atomic<std::size_t> m_read{0};   // of those; written with m_mutex held

  std::mutex m_mutex;  // guards what follows
  std::condition_variable m_answered;
  ConnectionPtr m_connection;    // null when closed
  CancellablePtr m_cancellable;  // of the questions to m_connection
  // Run by the thread that asks, and once by Close. Never null.
  const MainContextPtr m_context;
  bool m_isAsking = false;  // some thread does
  bool m_threadAsks = false;
  bool m_waitedInVain = false;  // since the last answer
  std::thread m_thread;         // joinable from its first question to Close
};

inline void BusBacklog::on_answer(GObject* connection, GAsyncResult* result, gpointer userData) {
  GError* rawError = nullptr;
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-cstyle-cast): GLib's cast
  const VariantPtr answer(
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &rawError));
  const GErrorPtr error(rawError);
  auto* const ending = static_cast<Ending*>(userData);
  ending->isAnswered = answer || g_dbus_error_is_remote_error(error.get()) != FALSE;
  ending->isTooLate = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_TIMED_OUT) != FALSE;
  ending->isOver = true;
}

inline BusBacklog::Ending BusBacklog::askOnce(GMainContext* context, GDBusConnection* connection,
                                              GCancellable* cancellable,
                                              std::chrono::milliseconds patience) {
  Ending ending;
  g_main_context_push_thread_default(context);
  g_dbus_connection_call(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", "GetId", nullptr, nullptr,
                         G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(patience.count()),
                         cancellable, &on_answer, &ending);
  while (!ending.isOver) g_main_context_iteration(context, TRUE);
  g_main_context_pop_thread_default(context);
  return ending;
}

inline bool BusBacklog::hasAnswered(GMainContext* context, GDBusConnection* connection,
                                    GCancellable* cancellable) {
  std::chrono::milliseconds patience = kFirstPatience;
  Ending ending = askOnce(context, connection, cancellable, patience);
  while (ending.isTooLate) {
    patience = std::min(2 * patience, kLongestPatience);
    ending = askOnce(context, connection, cancellable, patience);
  }
  return ending.isAnswered;
}

inline void BusBacklog::Open(GDBusConnection* connection) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_connection.get() == connection) return;
  m_connection.reset(static_cast<GDBusConnection*>(g_object_ref(connection)));
  if (!m_cancellable) m_cancellable.reset(g_cancellable_new());
  m_read = m_added.load();
}

inline void BusBacklog::Close() {
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

inline bool BusBacklog::AddInTime(std::size_t bytes, std::chrono::milliseconds patience) {
  if (isHalfFull() && !waitForRoom(bytes, patience)) return false;
  Add(bytes);
  if (isHalfFull()) {
    // About this message as well.
    const std::lock_guard<std::mutex> lock(m_mutex);
    askMeanwhile();
  }
  return true;
}

inline bool BusBacklog::waitForRoom(std::size_t bytes, std::chrono::milliseconds patience) {
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

inline bool BusBacklog::ask() {
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

inline void BusBacklog::askMeanwhile() noexcept {
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

#endif  // APPDATACHANNEL_BUSBACKLOG_H
