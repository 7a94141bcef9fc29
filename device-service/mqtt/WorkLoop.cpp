#include "mqtt/WorkLoop.h"

#include <algorithm>
#include <utility>

namespace Lumo::Mqtt {
namespace {

// A source that only becomes ready at its time. GLib has such a time for every source, but wakes
// the loop whenever it is set, also by the loop's own thread.
struct Timer {
  GSource source;
  gint64 time;  // as g_get_monotonic_time; kNever: none
};
constexpr gint64 kNever = G_MAXINT64;

gint64& timeOf(GSource* timer) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): the source is its first member
  return reinterpret_cast<Timer*>(timer)->time;
}

// `timeout` in milliseconds, rounded up; -1: none.
gboolean prepareTimer(GSource* timer, gint* timeout) {
  *timeout = -1;
  const gint64 time = timeOf(timer);
  if (time == kNever) return FALSE;
  const gint64 now = g_source_get_time(timer);
  if (time <= now) return TRUE;
  constexpr gint64 kMicrosecondsPerMillisecond = 1000;
  const gint64 milliseconds = (time - now - 1) / kMicrosecondsPerMillisecond + 1;
  *timeout = static_cast<gint>(std::min<gint64>(milliseconds, G_MAXINT));
  return FALSE;
}

gboolean checkTimer(GSource* timer) {
  const gint64 time = timeOf(timer);
  return time != kNever && time <= g_source_get_time(timer) ? TRUE : FALSE;
}

gboolean goOn(GSource*, GSourceFunc, gpointer) {
  return G_SOURCE_CONTINUE;
}

GSource* newTimer() {
  static GSourceFuncs functions{prepareTimer, checkTimer, goOn, nullptr, nullptr, nullptr};
  GSource* const timer = g_source_new(&functions, sizeof(Timer));
  timeOf(timer) = kNever;
  g_source_set_can_recurse(timer, TRUE);  // as it does nothing
  return timer;
}

}  // namespace

WorkLoop::Owner::Owner(const WorkLoop& loop) : m_context(loop.Context()) {
  g_main_context_push_thread_default(m_context);
  // Also between the iterations: GLib wakes a context that nobody owns for each change of a source,
  // and the next iteration would first wait in vain.
  g_main_context_acquire(m_context);
}

WorkLoop::Owner::~Owner() {
  g_main_context_release(m_context);
  g_main_context_pop_thread_default(m_context);
}

WorkLoop::WorkLoop() : m_context(g_main_context_new()), m_timer(newTimer()) {
  g_source_attach(m_timer.get(), m_context.get());
}

void WorkLoop::Wait(Clock::time_point latest) {
  // GLib's monotonic time is that of the steady clock. A time before its beginning has passed, too.
  const gint64 time =
      latest == Clock::time_point::max()
          ? kNever
          : std::chrono::ceil<std::chrono::microseconds>(latest.time_since_epoch()).count();
  const bool isAnother = std::exchange(timeOf(m_timer.get()), time) != time;
  g_main_context_iteration(m_context.get(), isAnother ? FALSE : TRUE);
  m_isWoken = false;
}

void WorkLoop::Wake() {
  if (!m_isWoken.exchange(true)) g_main_context_wakeup(m_context.get());
}

}  // namespace Lumo::Mqtt
