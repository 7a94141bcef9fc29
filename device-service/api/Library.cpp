#include "api/Library.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "link/CloudLink.h"

namespace Lumo {

// Other threads may still call in while the process exits, so the object is never destroyed; its
// Shutdown leaves nothing behind in it.
union Library::Immortal {
  Immortal() : library() {}
  ~Immortal() {}  // a default one would be deleted, as Library has a destructor
  Library library;
};

namespace {

class ShutdownAtUnload {
 public:
  ShutdownAtUnload() = default;
  ~ShutdownAtUnload() { Library::Get().Shutdown(); }
  ShutdownAtUnload(const ShutdownAtUnload&) = delete;
  ShutdownAtUnload& operator=(const ShutdownAtUnload&) = delete;
};

const ShutdownAtUnload g_shutdownAtUnload;

}  // namespace

Library& Library::Get() {
  static Immortal immortal;
  return immortal.library;  // NOLINT(cppcoreguidelines-pro-type-union-access): its only member
}

void* Library::CreateService(const std::string& name, std::string description,
                             const ServiceCallbacks& callbacks, const Settings& settings) {
  releaseEndedServices();
  if (!reserveName(name)) return nullptr;
  void* handle = nullptr;
  void* const writerBefore = m_healthWriter;
  try {
    ServiceLimits limits;
    limits.requestTimeout = settings.RequestTimeout();
    handle = m_services.NewHandle();
    const auto service = std::make_shared<Service>(
        handle, name, std::move(description), callbacks, m_lists, limits,
        HealthSettings{settings.HealthFile(), settings.HealthInterval(), [this] { tellHealth(); },
                       [this, handle] { return m_healthWriter == handle; }});
    // Before it is connected: a callback may use the handle at once.
    m_services.Insert(handle, service);
    m_healthWriter = handle;
    service->Connect(settings.Broker()
                         ? std::make_unique<CloudLink>(*settings.Broker(), name, *service)
                         : nullptr);
    LockGuard lock(m_mutex);
    m_newest = service;
  } catch (...) {
    m_services.Take(handle);
    void* failed = handle;
    m_healthWriter.compare_exchange_strong(failed, writerBefore);
    releaseName(name);
    throw;
  }
  return handle;
}

lumo_error Library::DestroyService(void* handle) {
  std::shared_ptr<Service> service = m_services.Find(handle);
  if (service == nullptr) return kUnknownHandle;
  // While the handle is valid: a request that is delivered later cannot be answered.
  service->StopDelivering();
  if (m_services.Take(handle) == nullptr) return kUnknownHandle;
  service->Close();
  releaseName(service->Name());
  {
    LockGuard lock(m_mutex);
    if (m_newest.lock() == service) m_newest.reset();
    m_closedServices.push_back(std::move(service));
  }
  releaseEndedServices();
  return kSuccess;
}

void* Library::CreateList() {
  void* handle = m_lists.NewHandle();
  m_lists.Insert(handle, std::make_shared<PropertyList>());
  return handle;
}

std::optional<Properties> Library::TakeList(void* handle) {
  const std::shared_ptr<PropertyList> list = m_lists.Find(handle);
  if (list == nullptr || list->IsReadOnly() || m_lists.Take(handle) == nullptr) return std::nullopt;
  return list->TakeProperties();
}

void Library::Shutdown() {
  std::vector<std::shared_ptr<Service>> services = m_services.TakeAll();
  for (const auto& service : services) service->Close();
  std::vector<std::shared_ptr<Service>> closedServices;
  {
    LockGuard lock(m_mutex);
    closedServices.swap(m_closedServices);
    m_names.clear();
    m_newest.reset();  // it keeps the memory of a service that is gone
  }
  // Joined before they are released: a running callback may hold the last reference to its service,
  // and would destroy its own thread.
  for (const auto& service : services) service->Join();
  for (const auto& service : closedServices) service->Join();
  m_lists.TakeAll();
}

std::shared_ptr<Service> Library::NewestService() {
  LockGuard lock(m_mutex);
  return m_newest.lock();
}

void Library::ListenToHealth(std::function<void()> listener) {
  LockGuard lock(m_listenerMutex);
  m_listener.swap(listener);
}

void Library::tellHealth() {
  LockGuard lock(m_listenerMutex);
  if (m_listener) m_listener();
}

bool Library::reserveName(const std::string& name) {
  LockGuard lock(m_mutex);
  return m_names.insert(name).second;
}

void Library::releaseName(const std::string& name) {
  LockGuard lock(m_mutex);
  m_names.erase(name);
}

void Library::releaseEndedServices() {
  std::vector<std::shared_ptr<Service>> ended;  // released with no lock held
  LockGuard lock(m_mutex);
  const auto firstEnded = std::partition(m_closedServices.begin(), m_closedServices.end(),
                                         [](const auto& service) { return !service->HasEnded(); });
  std::move(firstEnded, m_closedServices.end(), std::back_inserter(ended));
  m_closedServices.erase(firstEnded, m_closedServices.end());
}

}  // namespace Lumo
