#ifndef APPDATACHANNEL_BUSBACKLOG_H
#define APPDATACHANNEL_BUSBACKLOG_H

#include <gio/gio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

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

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_BUSBACKLOG_H
