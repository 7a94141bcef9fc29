#include "mqtt/WorkLoop.h"

#include <algorithm>

namespace Lumo::Mqtt {
namespace {

gboolean goOn(GSource*, GSourceFunc, gpointer) {
  return G_SOURCE_CONTINUE;
}

// A source that only becomes ready at its time.
GSource* newTimer() {
  static GSourceFuncs functions{nullptr, nullptr, goOn, nullptr, nullptr, nullptr};
  return g_source_new(&functions, sizeof(GSource));
}

}  // namespace

WorkLoop::Owner::Owner(const WorkLoop& loop) : m_context(loop.Context()) {
  g_main_context_push_thread_default(m_context);
}

WorkLoop::Owner::~Owner() {
  g_main_context_pop_thread_default(m_context);
}

WorkLoop::WorkLoop() : m_context(g_main_context_new()), m_timer(newTimer()) {
  g_source_attach(m_timer.get(), m_context.get());
}

void WorkLoop::Wait(Clock::time_point latest) {
  using Microseconds = std::chrono::microseconds;
  // GLib's monotonic time is that of the steady clock.
  const gint64 time = latest == Clock::time_point::max()
                          ? -1
                          : std::chrono::ceil<Microseconds>(latest.time_since_epoch()).count();
  if (g_source_get_ready_time(m_timer.get()) != time) g_source_set_ready_time(m_timer.get(), time);
  g_main_context_iteration(m_context.get(), TRUE);
  m_isWoken = false;
}

void WorkLoop::Wake() {
  if (!m_isWoken.exchange(true)) g_main_context_wakeup(m_context.get());
}

}  // namespace Lumo::Mqtt
