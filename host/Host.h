#ifndef HOST_HOST_H
#define HOST_HOST_H

#include <glib.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "GLibHandle.h"
#include "HealthWatch.h"
#include "Plugin.h"
#include "ReadyCheck.h"
#include "ServiceManager.h"
#include "SpareDescriptors.h"

namespace QivoThing {

// Runs plug-ins for as long as the process lives. It loads them once and creates them, in the order
// given, whenever the system bus is up. It destroys them in reverse when the bus is lost and at the
// end. The service manager gets to know all of it.
//
//   waiting for the bus ── bus opened: create ──▶ running
//          ▲  │                                    │  │
//          │  │◀──────── bus closed: destroy ──────┘  │
//          │  └── signal: end          signal, or the channel does not come up: destroy, end
//
// Everything runs on the calling thread, which is that of GLib's default main context.
class Host {
 public:
  // Loads the plug-ins. From here on SIGINT and SIGTERM end Run, and nothing else: the shutdown is
  // clean however many come, until the process has ended. Throws std::runtime_error with one line
  // for the user when a plug-in cannot be loaded.
  explicit Host(const std::vector<std::string>& files);
  // Unloads in reverse.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  // Returns after SIGINT or SIGTERM. Throws std::runtime_error with one line for the user when a
  // setting is wrong, a plug-in cannot be created, or the channel does not come up. In any case the
  // plug-ins are destroyed. Call it once.
  void Run();

  // What the settings mean, in one line; empty when nobody judges them. Throws the same when one is
  // wrong. Creates nothing.
  std::string CheckSettings() const;

 private:
  void createPlugins(GDBusConnection* connection);
  void destroyPlugins();
  // What the check of a start has found.
  void onNameOwned(const std::string& owner);
  void onStatusNotStored();
  void onBusClosed();
  void onSettingChanged();
  void onHealthChanged();
  // The channel is up: what the operator is to know of it.
  std::string status() const;
  // Ends Run; `why` is empty when that is as it should be.
  void end(const std::string& why);

  // Released while plug-ins are destroyed.
  SpareDescriptors m_spareDescriptors;
  MainLoopPtr m_loop;
  std::deque<Plugin> m_plugins;
  ServiceManager m_serviceManager;
  std::optional<ReadyCheck> m_readyCheck;    // while the plug-ins are created
  std::optional<HealthWatch> m_healthWatch;  // when a device service tells how it is
  std::uint32_t m_ownProperties = 0;         // of the plug-ins, in the device service
  bool m_isUp = false;                       // the channel, and told so
  std::string m_settings;                    // what they mean; empty when nobody judges them
  bool m_isChecked = false;                  // the settings, for the next creation
  std::string m_error;                       // why Run ends by itself; empty when it does not
};

}  // namespace QivoThing

#endif  // HOST_HOST_H
