#ifndef APPDATACHANNEL_APPDATACHANNELINFO_H
#define APPDATACHANNEL_APPDATACHANNELINFO_H

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "DBusNames.h"
#include "JsonValueAdaptor.h"

namespace AppDataChannel {

// The registry of the applications that use the channel: which ones may, how often each has
// registered, and the last data that each has sent.
//
// Names are byte strings, compared as they are. Every public operation takes the lock, so that the
// bus thread and the dispatcher's worker share one registry.
class AppDataChannelInfo {
 public:
  // Checks once whether /etc/release exists, which decides whether "diag-menu" may register.
  AppDataChannelInfo();
  ~AppDataChannelInfo();
  AppDataChannelInfo(const AppDataChannelInfo&) = delete;
  AppDataChannelInfo& operator=(const AppDataChannelInfo&) = delete;

  bool IsValidAppName(const std::string& name);

  // 0, or -20 when the application may not register; then `alreadyRegistered` is not written.
  int RegisterApp(const std::string& name, bool& alreadyRegistered);

  // Takes back one registration; the last one drops the application and its data. 0, or -20 when
  // the application is not registered.
  int UnregisterApp(const std::string& name);

  bool IsRegisteredApp(const std::string& name);

  // The last data; empty when the application sent none yet or is not registered.
  std::string GetAppData(const std::string& name);

  // False when the application is not registered; then nothing is stored.
  bool SetAppData(const std::string& name, const std::string& data);

  // Drops every application, however often it has registered.
  void UnregisterAll();
  void Reset();

 private:
  struct AppData {
    std::uint32_t count = 0;  // outstanding registrations, at least 1 in the map
    std::string data;
  };

  // Both without the lock: for the constructor and the destructor only.
  void clear();
  void initAppList();

  std::recursive_mutex m_mutex;
  std::set<std::string> m_appList;              // constant from construction to destruction
  std::map<std::string, AppData> m_appDataMap;  // guarded by m_mutex; registered now
};

// The table of the thing's own properties: which there are, of what type, and the values that the
// cloud has set. A value's type is not compared with the declared one.
//
// Every public operation but getPropertyType takes the lock. Writes no log lines.
class ThingInfo {
 public:
  using JsonValueAdaptor = ThingCommon::JsonValueAdaptor;

  ThingInfo();
  ~ThingInfo();
  ThingInfo(const ThingInfo&) = delete;
  ThingInfo& operator=(const ThingInfo&) = delete;

  bool IsThingProperty(const std::string& name);

  // Null when the property is unknown or was never set.
  JsonValueAdaptor GetThingProperty(const std::string& name);

  // Does nothing when the property is unknown.
  void SetThingProperty(const std::string& name, const JsonValueAdaptor& value);

  std::map<std::string, JsonValueAdaptor::_Type> GetThingPropertyTypeList();

  // TYPE_NULL when the property is unknown. Needs no lock: the declarations never change.
  JsonValueAdaptor::_Type getPropertyType(const std::string& name) const;

 private:
  // Both without the lock: for the constructor and the destructor only.
  void init();
  void deinit();
  // Called with the lock held.
  bool isValidPropertyName(const std::string& name) const;

  std::recursive_mutex m_mutex;
  // Constant from construction to destruction.
  std::map<std::string, JsonValueAdaptor::_Type> m_propertyTypes;
  // Guarded by m_mutex; its keys are keys of m_propertyTypes.
  std::map<std::string, JsonValueAdaptor> m_properties;
};

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_APPDATACHANNELINFO_H
