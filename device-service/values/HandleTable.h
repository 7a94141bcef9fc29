#ifndef DEVICE_SERVICE_VALUES_HANDLETABLE_H
#define DEVICE_SERVICE_VALUES_HANDLETABLE_H

#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "values/Handle.h"
#include "values/Mutex.h"

namespace Lumo {

// Maps handles to the live objects of one kind. A handle of a destroyed object, or of another kind,
// is refused and never dereferenced. Any thread; an object that was found stays alive while it is
// held.
template <typename Object>
class HandleTable {
 public:
  // A handle that no object of the table has.
  void* NewHandle() const {
    LockGuard lock(m_mutex);
    void* handle = Lumo::NewHandle();
    while (m_objects.count(handle) != 0) handle = Lumo::NewHandle();
    return handle;
  }

  void Insert(void* handle, std::shared_ptr<Object> object) {
    LockGuard lock(m_mutex);
    m_objects.emplace(handle, std::move(object));
  }

  // Null when the handle is not that of a live object.
  std::shared_ptr<Object> Find(void* handle) const {
    LockGuard lock(m_mutex);
    const auto found = m_objects.find(handle);
    return found == m_objects.end() ? nullptr : found->second;
  }

  // Removes and returns the object; null when another call came first.
  std::shared_ptr<Object> Take(void* handle) {
    LockGuard lock(m_mutex);
    const auto found = m_objects.find(handle);
    if (found == m_objects.end()) return nullptr;
    std::shared_ptr<Object> object = std::move(found->second);
    m_objects.erase(found);
    return object;
  }

  std::vector<std::shared_ptr<Object>> TakeAll() {
    Objects taken;
    {
      LockGuard lock(m_mutex);
      taken.swap(m_objects);
    }
    std::vector<std::shared_ptr<Object>> objects;
    objects.reserve(taken.size());
    for (auto& [handle, object] : taken) objects.push_back(std::move(object));
    return objects;
  }

 private:
  using Objects = std::unordered_map<void*, std::shared_ptr<Object>>;

  mutable Mutex m_mutex;
  Objects m_objects GUARDED_BY(m_mutex);
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_HANDLETABLE_H
