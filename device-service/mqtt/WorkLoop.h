#ifndef DEVICE_SERVICE_MQTT_WORKLOOP_H
#define DEVICE_SERVICE_MQTT_WORKLOOP_H

#include <gio/gio.h>

#include <atomic>
#include <chrono>

#include "values/GLibHandle.h"

namespace Lumo::Mqtt {

// A main context of its own for one thread, with a time to wake up at and a bell for the others.
class WorkLoop {
 public:
  using Clock = std::chrono::steady_clock;

  // Makes the loop the calling thread's, for as long as it lives: GIO calls back there.
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

  // The loop's thread: waits until something happens, somebody wakes it, or it is `latest`; runs
  // the sources that are ready. What was woken for before this returns is to be done afterwards.
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
