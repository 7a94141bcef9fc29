#ifndef APPDATACHANNEL_NAMERELEASE_H
#define APPDATACHANNEL_NAMERELEASE_H

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "CallGate.h"
#include "GLibHandle.h"

namespace AppDataChannel {

// Gives up owners of the bus name (ids from g_bus_own_name) without harm to GLib 2.74: the thread
// that runs the main loop may just be acquiring the name for an owner, and must finish before
// another thread gives that owner up.
//
// So an owner is given up by the first of these:
// - the caller, at once, when no other thread runs the main loop;
// - a source that the main loop runs before anything of a later start;
// - the caller that waits, while the main loop's thread is in a method call of the plug-in, and so
//   in no function of GLib about names. Such a call may wait for a lock of the thread that stops,
//   and cannot end meanwhile.
//
// Any thread. Its own lock is held while an owner is given up, and nothing else is locked below it.
class NameRelease {
 public:
  // The gate counts the source while it runs, and outlives this object.
  explicit NameRelease(ThingCommon::CallGate& gate) : m_gate(gate) {}
  // GiveUpNow has run before.
  ~NameRelease() = default;
  NameRelease(const NameRelease&) = delete;
  NameRelease& operator=(const NameRelease&) = delete;

  // Call before g_bus_own_name, on the same thread: from then on owners are given up in its
  // thread-default context, and GiveUp for one more does not throw.
  void Prepare();
  void GiveUp(guint owner);
  // Whether an owner is left to the main loop. A callback of GLib that runs there meanwhile is that
  // owner's: none of a later one comes before it is given up.
  bool IsPending();
  // Waits until everything is given up, `limit` at most. With no lock held that a callback of GLib
  // may need.
  void Wait(std::chrono::milliseconds limit);
  // Gives up what the main loop has left, on this thread, unless another thread is doing so.
  void GiveUpNow();

  // A method call on the thread of the main loop, for as long as this lives. Does nothing on
  // others.
  class LoopCall {
   public:
    explicit LoopCall(NameRelease& names);
    ~LoopCall();
    LoopCall(const LoopCall&) = delete;
    LoopCall& operator=(const LoopCall&) = delete;

   private:
    NameRelease* m_names;  // null on another thread
  };

 private:
  // With m_mutex held:
  bool giveUpIfLoopIsOurs();
  void giveUpAll();

  static gboolean on_release(gpointer userData);

  ThingCommon::CallGate& m_gate;
  std::mutex m_mutex;  // guards what follows
  std::condition_variable m_changed;
  MainContextPtr m_context;     // null before the first start
  std::vector<guint> m_owners;  // to be given up
  SourcePtr m_source;           // does that; null when there are none
  unsigned m_calls = 0;         // on the thread of the main loop
};

inline void NameRelease::Prepare() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  MainContextPtr context(g_main_context_ref_thread_default());
  if (m_context && m_context != context) giveUpAll();
  m_context = std::move(context);
  giveUpIfLoopIsOurs();
  m_owners.reserve(m_owners.size() + 1);
}

inline void NameRelease::GiveUp(guint owner) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_owners.push_back(owner);
  if (giveUpIfLoopIsOurs() || m_source) return;
  m_source.reset(g_idle_source_new());
  g_source_set_priority(m_source.get(), G_PRIORITY_HIGH);
  g_source_set_callback(m_source.get(), &NameRelease::on_release, this, nullptr);
  g_source_attach(m_source.get(), m_context.get());
}

inline bool NameRelease::IsPending() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return !m_owners.empty();
}

inline void NameRelease::Wait(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_owners.empty()) return;
  m_changed.wait_for(lock, limit, [this] { return m_owners.empty() || m_calls != 0; });
  if (m_calls != 0) {
    giveUpAll();
  } else {
    giveUpIfLoopIsOurs();  // it may have ended meanwhile
  }
}

inline void NameRelease::GiveUpNow() {
  const std::unique_lock<std::mutex> lock(m_mutex, std::try_to_lock);
  if (lock) giveUpAll();
}

inline bool NameRelease::giveUpIfLoopIsOurs() {
  if (!g_main_context_acquire(m_context.get())) return false;
  giveUpAll();
  g_main_context_release(m_context.get());
  return true;
}

inline void NameRelease::giveUpAll() {
  if (m_source) g_source_destroy(m_source.get());
  m_source.reset();
  for (const guint owner : m_owners) g_bus_unown_name(owner);
  m_owners.clear();  // keeps its room, which Prepare has made
  m_changed.notify_all();
}

inline gboolean NameRelease::on_release(gpointer userData) {
  auto* const names = static_cast<NameRelease*>(userData);
  const ThingCommon::CallGate::Pass pass(&names->m_gate, __func__);
  const std::lock_guard<std::mutex> lock(names->m_mutex);
  names->giveUpAll();
  return G_SOURCE_REMOVE;
}

inline NameRelease::LoopCall::LoopCall(NameRelease& names) : m_names(&names) {
  const std::lock_guard<std::mutex> lock(names.m_mutex);
  if (!names.m_context || g_main_context_is_owner(names.m_context.get()) == FALSE) {
    m_names = nullptr;
    return;
  }
  ++names.m_calls;
  if (!names.m_owners.empty()) names.m_changed.notify_all();
}

inline NameRelease::LoopCall::~LoopCall() {
  if (m_names == nullptr) return;
  const std::lock_guard<std::mutex> lock(m_names->m_mutex);
  --m_names->m_calls;
}

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_NAMERELEASE_H
