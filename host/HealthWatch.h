#ifndef HOST_HEALTHWATCH_H
#define HOST_HEALTHWATCH_H

#include <glib.h>

#include <atomic>
#include <functional>
#include <optional>

#include "Plugin.h"
#include "lumo_health.h"

namespace QivoThing {

// Asks the device service of a plug-in how it is, if that tells, and hears when that has changed.
//
// Created, used and destroyed on the thread of GLib's default main context, which calls back, once
// a second at most. The plug-in outlives it.
class HealthWatch {
 public:
  HealthWatch(const Plugin& plugin, std::function<void()> onChange);
  // Calls back no more.
  ~HealthWatch();
  HealthWatch(const HealthWatch&) = delete;
  HealthWatch& operator=(const HealthWatch&) = delete;

  // Nothing when the device service does not tell, or the plug-in has no service.
  std::optional<lumo_health> Read() const;

 private:
  static void on_changed(void* watch);  // a thread of the device service
  static gboolean on_main_loop(gpointer watch);

  const std::function<void()> m_onChange;
  decltype(&lumo_health_read) m_read = nullptr;
  decltype(&lumo_health_listen) m_listen = nullptr;
  std::atomic<bool> m_isPosted{false};  // to the main loop
};

}  // namespace QivoThing

#endif  // HOST_HEALTHWATCH_H
