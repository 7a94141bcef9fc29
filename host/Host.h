#ifndef HOST_HOST_H
#define HOST_HOST_H

#include <glib.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "GLibHandle.h"
#include "Plugin.h"
#include "SpareDescriptors.h"

namespace QivoThing {

// Runs plug-ins for as long as the process lives. It loads them once and creates them, in the order
// given, whenever the system bus is up. It destroys them in reverse when the bus is lost and at the
// end.
//
//   waiting for the bus ── bus opened: create ──▶ running
//          ▲  │                                    │  │
//          │  │◀──────── bus closed: destroy ──────┘  │
//          │  └── signal: end          signal: destroy, end
//
// Everything runs on the calling thread, which is that of GLib's default main context.
class Host {
 public:
  // Loads the plug-ins. From here on SIGINT and SIGTERM end Run. Throws std::runtime_error with one
  // line for the user when one cannot be loaded.
  explicit Host(const std::vector<std::string>& files);
  // Unloads in reverse.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Returns after SIGINT or SIGTERM. Throws std::runtime_error with one line for the user when a
  // plug-in cannot be created. Either way the plug-ins are destroyed. Call it once.
  void Run();

 private:
  // Further signals are ignored, so that the shutdown is clean however many come.
  class EndSignal {
   public:
    EndSignal(int number, GMainLoop* loop);
    ~EndSignal();
    EndSignal(const EndSignal&) = delete;
    EndSignal& operator=(const EndSignal&) = delete;

   private:
    static gboolean on_signal(gpointer loop);

    guint m_source;
  };

  // Logs one line when the channel is not up some time after the plug-ins were created: they need
  // not report that themselves.
  class ReadyCheck {
   public:
    ReadyCheck();
    ~ReadyCheck();
    ReadyCheck(const ReadyCheck&) = delete;
    ReadyCheck& operator=(const ReadyCheck&) = delete;

   private:
    static gboolean on_time(gpointer check);

    guint m_source;  // 0 once it has run
  };

  void createPlugins();
  void destroyPlugins();
  void onBusClosed();

  // Released while plug-ins are destroyed.
  SpareDescriptors m_spareDescriptors;
  MainLoopPtr m_loop;
  EndSignal m_interrupt;
  EndSignal m_terminate;
  std::deque<Plugin> m_plugins;
  std::optional<ReadyCheck> m_readyCheck;  // while the plug-ins are created
  std::string m_error;                     // why Run ends by itself; empty when it does not
};

}  // namespace QivoThing

#endif  // HOST_HOST_H
