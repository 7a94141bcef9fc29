#ifndef TESTS_SUPPORT_MAINLOOPTHREAD_H
#define TESTS_SUPPORT_MAINLOOPTHREAD_H

#include <glib.h>

#include <memory>
#include <thread>

#include "Watched.h"

// Turns the default main context on a thread of its own, as long as the object lives.
class MainLoopThread {
 public:
  MainLoopThread()
      : m_loop(g_main_loop_new(nullptr, FALSE), g_main_loop_unref),
        m_thread([loop = m_loop.get()] { g_main_loop_run(loop); }) {}
  ~MainLoopThread() {
    // As a source, so that it also ends a loop that has not begun to run.
    g_idle_add(&MainLoopThread::Quit, m_loop.get());
    m_thread.join();
  }
  MainLoopThread(const MainLoopThread&) = delete;
  MainLoopThread& operator=(const MainLoopThread&) = delete;

  // Returns when everything that was waiting in the context has run.
  void Drain() {
    const unsigned before = m_marks.Get();
    // At idle priority: after everything else that is ready.
    g_idle_add(&MainLoopThread::ReachMark, this);
    m_marks.WaitFor([before](unsigned marks) { return marks > before; });
  }

 private:
  static gboolean Quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
  }
  static gboolean ReachMark(gpointer self) {
    static_cast<MainLoopThread*>(self)->m_marks.Change([](unsigned& marks) { ++marks; });
    return G_SOURCE_REMOVE;
  }

  std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> m_loop;
  Watched<unsigned> m_marks;
  std::thread m_thread;  // made last, so that it finds all of the above
};

#endif  // TESTS_SUPPORT_MAINLOOPTHREAD_H
