#include "MainLoopThread.h"

namespace {

gboolean quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

MainLoopThread::MainLoopThread()
    : m_loop(g_main_loop_new(nullptr, FALSE), g_main_loop_unref),
      m_thread([loop = m_loop.get()] { g_main_loop_run(loop); }) {}

MainLoopThread::~MainLoopThread() {
  // As a source, so that it also ends a loop that has not begun to run.
  g_idle_add(quit, m_loop.get());
  m_thread.join();
}

void MainLoopThread::Drain() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_markReached = false;
  // At idle priority: after everything else that is ready.
  g_idle_add(&MainLoopThread::ReachMark, this);
  m_changed.wait(lock, [this] { return m_markReached; });
}

gboolean MainLoopThread::ReachMark(gpointer userData) {
  auto* const self = static_cast<MainLoopThread*>(userData);
  const std::lock_guard<std::mutex> lock(self->m_mutex);
  self->m_markReached = true;
  self->m_changed.notify_all();
  return G_SOURCE_REMOVE;
}
