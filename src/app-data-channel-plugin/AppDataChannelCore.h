#ifndef APPDATACHANNEL_APPDATACHANNELCORE_H
#define APPDATACHANNEL_APPDATACHANNELCORE_H

#include <mutex>

#include "AppDataChannelControl.h"
#include "DBusNames.h"
#include "DBusServer.h"

namespace AppDataChannel {

// The plug-in's only object: owns the channel control and the D-Bus server, starts them in this
// order and stops them in reverse, and gives each access to the other.
//
// Every public operation takes the core's lock; Initialize and Deinitialize hold it until they
// return, so that IsInitialized waits for the end of a start or stop. The references from
// GetControl and GetDbusServer are valid for the life of the process.
class AppDataChannelCore {
 public:
  // Made on first use, destroyed when the process exits or the library is unloaded.
  static AppDataChannelCore& GetInstance();

  AppDataChannelCore(const AppDataChannelCore&) = delete;
  AppDataChannelCore& operator=(const AppDataChannelCore&) = delete;

  // Starts the control, then the server. Failures are only logged: ask IsInitialized.
  void Initialize();

  // Stops the server, then the control; harmless when they are not running.
  void Deinitialize();

  bool IsInitialized();
  AppDataChannelControl& GetControl();
  DBusServer& GetDbusServer();

 private:
  AppDataChannelCore();
  ~AppDataChannelCore();

  std::recursive_mutex m_mutex;
  bool m_initialized = false;  // guarded by m_mutex
  AppDataChannelControl m_control;
  DBusServer m_dbus_server;
};

}  // namespace AppDataChannel

// What the host calls: plain names, found in the shared object.
extern "C" {

// True when this call started the plug-in, which does not say that the start succeeded; false when
// it was started already.
[[gnu::visibility("default")]] bool CreatePlugin();

// True when this call stopped the plug-in; false when it was not started.
[[gnu::visibility("default")]] bool DestroyPlugin();

}  // extern "C"

#endif  // APPDATACHANNEL_APPDATACHANNELCORE_H
