#ifndef APPDATACHANNEL_BUSBACKLOG_H
#define APPDATACHANNEL_BUSBACKLOG_H

#include <gio/gio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "GLibHandle.h"

namespace AppDataChannel {

// Bounds what GDBus keeps of one kind of message for a bus that does not read. GDBus queues without
// a limit, and tells nobody how much it has.
//
// The bus answers in the order in which it reads: its answer to a call says that it has read
// everything that was sent before the call. So the messages are counted here, and only when there
// would be more than kLimit of them the bus is asked. (A flush would say the same, but it can be
// neither cancelled nor told from a lost connection.)
//
// The thread that asks runs a main context that is made together with this object. So to ask takes
// no file descriptor: GDBus' own calls that wait make a context each, and GLib ends the process
// when it gets no descriptor for one. Besides, no function of this class runs on another thread of
// GLib's, or once Close has returned: the library can be unloaded then.
//
// Any thread, but for Open and Close: one at a time. Its own lock is not held while the bus is
// asked. What Close runs with its lock held is GLib's, and takes no lock of this project.
class BusBacklog {
 public:
  // In bytes. A message that is longer passes when it is the only one.
  static constexpr std::size_t kLimit = std::size_t{8} * 1024 * 1024;
  // What a message takes in the queue besides its texts: about this, in objects of GLib.
  static constexpr std::size_t kMessageBytes = 2048;

  BusBacklog() : m_context(g_main_context_new()) {}
  ~BusBacklog() { Close(); }
  BusBacklog(const BusBacklog&) = delete;
  BusBacklog& operator=(const BusBacklog&) = delete;

  // Counts for this connection, from nothing; does nothing when it does so already.
  void Open(GDBusConnection* connection);
  // Ends every wait, and returns when nobody here refers to the connection any more.
  void Close();

  // A message with texts of so many bytes was queued.
  void Add(std::size_t bytes) { m_added.fetch_add(bytes + kMessageBytes); }

  // Waits until a message with texts of so many bytes fits: as long as the bus does not read, the
  // connection is not lost and this is open. Two threads that wait may get in together.
  void WaitForRoom(std::size_t bytes) {
    while (!fits(bytes) && ask()) {
    }
  }

  // Adds such a message, which may take a wait until it fits: of `patience` at most, and no longer
  // than the bus reads, the connection is not lost and this is open. False when it still does not
  // fit; then no later call waits either, before the bus has answered again.
  //
  // From half of kLimit on a thread of its own asks the bus meanwhile. Up to there nobody has
  // asked, so a message of any length fits. Should the question overtake the message, which the
  // caller sends later, the answer counts it as read: one message at most.
  bool AddInTime(std::size_t bytes, std::chrono::milliseconds patience);

 private:
  bool fits(std::size_t bytes) const {
    const std::size_t unread = m_added - m_read;
    return unread == 0 || unread + bytes + kMessageBytes <= kLimit;
  }
  bool isHalfFull() const { return m_added - m_read > kLimit / 2; }
  // Asks the bus and waits for its answer, or for the end of the question that another thread asks
  // already; false when there is no answer, or nobody to ask.
  bool ask();
  // Has a thread ask, unless it does so already or none is to be had. With m_mutex held.
  void askMeanwhile() noexcept;
  bool waitForRoom(std::size_t bytes, std::chrono::milliseconds patience);

  // How a question ended.
  struct Ending {
    bool isOver = false;
    bool isAnswered = false;  // by the bus, be it with an error
  };
  static void on_answer(GObject* connection, GAsyncResult* result, gpointer userData);
  // Whether the bus has answered a question that every policy allows. Runs the context until then.
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
  ending->isOver = true;
}

inline bool BusBacklog::hasAnswered(GMainContext* context, GDBusConnection* connection,
                                    GCancellable* cancellable) {
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
