#ifndef HOST_READYCHECK_H
#define HOST_READYCHECK_H

#include <gio/gio.h>

#include <functional>
#include <string>

#include "GLibHandle.h"

namespace QivoThing {

// Finds out why the channel is not up some time after the plug-ins were created: they need not
// report that themselves. It asks the bus who has the channel's name, again and again, until it
// knows. A bus that does not answer is waited for.
//
// Created, used and destroyed on the thread of GLib's default main context, which calls back.
class ReadyCheck {
 public:
  struct Findings {
    // Another process, with this name on the bus, has the channel's, which will be ours when that
    // one ends. Called whenever that process is another one.
    std::function<void(const std::string& owner)> waits;
    // The channel is up, but its setting is not stored. Called once.
    std::function<void()> isNotStored;
    // It will not come up; one line says what to change. Called once. It may destroy the check.
    std::function<void(const std::string& why)> fails;
  };

  // `connection` is that of the plug-ins.
  ReadyCheck(GDBusConnection* connection, Findings findings);
  // Calls back no more.
  ~ReadyCheck();
  ReadyCheck(const ReadyCheck&) = delete;
  ReadyCheck& operator=(const ReadyCheck&) = delete;

 private:
  void ask();
  // `owners` are those who have the name and wait for it.
  void judge(const gchar* const* owners);

  static gboolean on_time(gpointer check);
  static void on_answer(GObject* source, GAsyncResult* result, gpointer check);

  GDBusConnection* m_connection;  // not owned; it is there while the plug-ins are
  Findings m_findings;
  std::string m_owner;  // that was reported last
  bool m_isAsking = false;
  CancellablePtr m_cancellable;  // ends a question together with this object
  guint m_timer;                 // 0 once all is known
};

}  // namespace QivoThing

#endif  // HOST_READYCHECK_H
