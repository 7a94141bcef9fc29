#ifndef DEVICE_SERVICE_API_LIBRARY_H
#define DEVICE_SERVICE_API_LIBRARY_H

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "service/Service.h"
#include "settings/Settings.h"
#include "values/HandleTable.h"
#include "values/Mutex.h"
#include "values/PropertyList.h"

namespace Lumo {

// Everything behind the C interface: the services and the property lists that are alive. One per
// process. Any thread.
//
// A destroyed service stays until its last callback has returned. The next creation or destruction
// of a service then joins its threads and releases it, without waiting for a callback. The unload
// of the library and the exit of the process do wait.
class Library {
 public:
  static Library& Get();

  // Null when the process has a service of that name: the two would share their topics. Throws when
  // memory or threads run out.
  void* CreateService(const std::string& name, std::string description,
                      const ServiceCallbacks& callbacks, const Settings& settings);
  lumo_error DestroyService(void* handle);
  // Null for a service that does not exist or was destroyed.
  std::shared_ptr<Service> FindService(void* handle) const { return m_services.Find(handle); }

  void* CreateList();
  // Null for a list that does not exist, was given away, or whose callback has returned.
  std::shared_ptr<PropertyList> FindList(void* handle) const { return m_lists.Find(handle); }
  // Frees the list. Nothing when there is no such list or it is a callback's.
  std::optional<Properties> TakeList(void* handle);

  // The service that was created last, if it was not destroyed.
  std::shared_ptr<Service> NewestService();
  // Called on a thread of a service when its health may have changed. It must not call the library.
  // Empty: nobody is called any more when this returns.
  void ListenToHealth(std::function<void()> listener);

  // Destroys all services and lists and waits for running callbacks.
  void Shutdown();

 private:
  Library() = default;
  ~Library() = default;
  union Immortal;

  bool reserveName(const std::string& name);
  void releaseName(const std::string& name);
  void releaseEndedServices();
  void tellHealth();

  HandleTable<PropertyList> m_lists;
  HandleTable<Service> m_services;
  Mutex m_mutex;
  std::set<std::string> m_names GUARDED_BY(m_mutex);  // of services
  std::vector<std::shared_ptr<Service>> m_closedServices GUARDED_BY(m_mutex);
  std::weak_ptr<Service> m_newest GUARDED_BY(m_mutex);
  // The handle of the service that writes its health: the newest, also after its end.
  std::atomic<void*> m_healthWriter{nullptr};
  Mutex m_listenerMutex;  // held while the listener is called
  std::function<void()> m_listener GUARDED_BY(m_listenerMutex);
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_API_LIBRARY_H
