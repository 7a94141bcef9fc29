#ifndef DEVICE_SERVICE_MQTT_WORKLOOP_H
#define DEVICE_SERVICE_MQTT_WORKLOOP_H

#include <gio/gio.h>

#include <atomic>
#include <chrono>

#include "values/GLibHandle.h"

namespace Lumo::Mqtt {

// A main context for one thread, with a wake-up time. Other threads can wake it.
class WorkLoop {
 public:
  using Clock = std::chrono::steady_clock;

  // While it lives, the loop is the calling thread's default context, in which GIO calls back.
  class Owner {
   public:
    explicit Owner(const WorkLoop& loop);
    ~Owner();
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;

   private:
    GMainContext* const m_context;
  };

  WorkLoop();
  WorkLoop(const WorkLoop&) = delete;
  WorkLoop& operator=(const WorkLoop&) = delete;

  GMainContext* Context() const { return m_context.get(); }

  // Waits until something happens, Wake is called or it is `latest`; runs the ready sources. Does
  // not wait when `latest` is another one than in the last call: what has moved it may also have
  // given the caller more to do. The loop's thread only. What a caller of Wake wants is to be
  // handled after this returns.
  void Wait(Clock::time_point latest);
  // Any thread: has Wait return, the current one or the next.
  void Wake();

 private:
  const MainContextPtr m_context;
  const AttachedSourcePtr m_timer;
  std::atomic<bool> m_isWoken{false};  // and has not returned from Wait since
};

}  // namespace Lumo::Mqtt

#endif  // DEVICE_SERVICE_MQTT_WORKLOOP_H
