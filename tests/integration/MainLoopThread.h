#ifndef TESTS_MAINLOOPTHREAD_H
#define TESTS_MAINLOOPTHREAD_H

#include <glib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

// Turns the default main context on a thread of its own, as long as the object lives.
class MainLoopThread {
 public:
  MainLoopThread();
  ~MainLoopThread();
  MainLoopThread(const MainLoopThread&) = delete;
  MainLoopThread& operator=(const MainLoopThread&) = delete;

  // Returns when everything that was waiting in the context has run.
  void Drain();

 private:
  static gboolean ReachMark(gpointer userData);

  std::unique_ptr<GMainLoop, void (*)(GMainLoop*)> m_loop;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_markReached = false;  // guarded by m_mutex
  std::thread m_thread;        // made last, so that it finds all of the above
};

#endif  // TESTS_MAINLOOPTHREAD_H
