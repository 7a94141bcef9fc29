#ifndef APPDATACHANNEL_APPDATACHANNELCONTROL_H
#define APPDATACHANNEL_APPDATACHANNELCONTROL_H

#include <mutex>
#include <string>
#include <vector>

#include "AppDataChannelInfo.h"
#include "CallGate.h"
#include "DBusNames.h"
#include "JsonValueAdaptor.h"
#include "LumoWrapper.h"

namespace AppDataChannel {

// Connects the cloud side and the application side: owns the registry, the thing's own properties
// and the device service, carries out the applications' calls and answers the cloud's requests.
//
// Every registered application is one string property of the service, named after it.
//
// Threads: Create and Destroy on the host's thread, the application operations on the thread of the
// bus, the three handlers on the dispatcher's worker. The control's lock is taken by Create and
// Destroy for their whole length and by IsCreated, and by nothing else: registry, table and service
// guard themselves.
//
// Exceptions pass to the caller, except those in the get and set handlers. What they interrupt is
// undone first (Create, RegisterApp) or finished all the same (Destroy).
class AppDataChannelControl {
 public:
  AppDataChannelControl();
  ~AppDataChannelControl();  // does not call Destroy
  AppDataChannelControl(const AppDataChannelControl&) = delete;
  AppDataChannelControl& operator=(const AppDataChannelControl&) = delete;

  // Creates the device service and registers the thing's properties. False when that was done
  // already or the service cannot be created.
  bool Create();

  // Undoes Create and forgets every application; the values of the thing's properties stay. Waits,
  // 250 ms at most, for a handler that has sent an event and not yet its answer; for no other one,
  // which may want the core's lock. Does nothing when not created.
  void Destroy();

  bool IsCreated();

  // Waits for running handlers. For the end of the process or of the library: after Destroy, with
  // no lock held that a handler may need.
  void Shutdown();

  // 0; -20 when the application may not register; -100 when the device service refuses the
  // application's property, and then the application is not registered.
  int RegisterApp(const std::string& name);

  // 0, or -20 when the application is not registered. Every successful call removes the property,
  // also when registrations are left.
  int UnregisterApp(const std::string& name);

  // Stores the data and notifies the cloud. 0, or -20 when the application is not registered.
  int NotifyData(const std::string& name, const std::string& data);

  // Always 0. `connected` is the sign-in status as far as it is a boolean, false otherwise.
  int GetCloudConnection(bool& connected);

  // 0 with the sign-up information as styled JSON text, or -100 when the cloud has set none.
  int GetThingInfo(std::string& info);

 private:
  using JsonValueAdaptor = ThingCommon::JsonValueAdaptor;

  bool createLumo();
  void destroyLumo();
  void registerThingProperties();
  void unregisterThingProperties();

  // The cloud's requests. Get and set answer once, unless an exception prevents that: then the
  // library's time-out ends the request.
  void getHandler(void* request, const std::vector<JsonValueAdaptor>& properties);
  void setHandler(void* request, const std::vector<JsonValueAdaptor>& properties);
  void cancelHandler(void* request);

  std::recursive_mutex m_mutex;
  bool m_created = false;  // guarded by m_mutex
  AppDataChannelInfo m_app_info;
  ThingInfo m_thing_info;
  ThingCommon::CallGate m_sent_events;  // set handlers from an event to the answer
  ThingCommon::LumoWrapper m_lumo_api;
};

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_APPDATACHANNELCONTROL_H
