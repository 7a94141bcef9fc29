#ifndef APPDATACHANNEL_NAMERELEASE_H
#define APPDATACHANNEL_NAMERELEASE_H

#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "CallGate.h"
#include "GLibHandle.h"

namespace AppDataChannel {

// Gives up owners of the bus name (ids from g_bus_own_name) so that GLib survives it: the thread
// that runs the main loop may be in the middle of getting the name for an owner, which GLib 2.74
// wants to finish before another thread gives that owner up.
//
// So an owner is given up, by whoever comes first,
// - at once, when no other thread runs the main loop;
// - by a source that the main loop runs before anything of a later start;
// - while the main loop's thread is in one of the plug-in's method calls, and so in none of GLib's
//   functions about names: such a call cannot end meanwhile. It may wait for a lock of the thread
//   that stops.
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

  // Before an owner is requested in the thread-default context of the calling thread: from here on
  // that is where owners are given up, and GiveUp for one more does not throw.
  void Prepare();
  void GiveUp(guint owner);
  // Waits until everything is given up, for `limit` at most. With no lock held that a callback of
  // GLib may want.
  void Wait(std::chrono::milliseconds limit);
  // Gives up what the main loop has left, on this thread. Leaves it to whoever does so already.
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

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_NAMERELEASE_H
