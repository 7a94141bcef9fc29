#ifndef DEVICE_SERVICE_VALUES_MUTEX_H
#define DEVICE_SERVICE_VALUES_MUTEX_H

#include <mutex>

// Annotations for clang's -Wthread-safety; other compilers ignore them. A member that is GUARDED_BY
// a mutex is used only with it held, a function that REQUIRES one is called only with it held.
#ifdef __clang__
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif
#define GUARDED_BY(mutex) THREAD_SAFETY(guarded_by(mutex))
#define REQUIRES(mutex) THREAD_SAFETY(requires_capability(mutex))

namespace Lumo {

// std::mutex, std::lock_guard and std::unique_lock with the annotations that the standard library's
// lack. They add no instruction.

class THREAD_SAFETY(capability("mutex")) Mutex {
 private:
  friend class LockGuard;
  friend class UniqueLock;
  std::mutex m_mutex;
};

class THREAD_SAFETY(scoped_lockable) LockGuard {
 public:
  explicit LockGuard(Mutex& mutex) THREAD_SAFETY(acquire_capability(mutex))
      : m_lock(mutex.m_mutex) {}
  ~LockGuard() THREAD_SAFETY(release_capability()) = default;
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  std::lock_guard<std::mutex> m_lock;
};

class THREAD_SAFETY(scoped_lockable) UniqueLock {
 public:
  explicit UniqueLock(Mutex& mutex) THREAD_SAFETY(acquire_capability(mutex))
      : m_lock(mutex.m_mutex) {}
  ~UniqueLock() THREAD_SAFETY(release_capability()) = default;
  UniqueLock(const UniqueLock&) = delete;
  UniqueLock& operator=(const UniqueLock&) = delete;

  void Lock() THREAD_SAFETY(acquire_capability()) { m_lock.lock(); }
  void Unlock() THREAD_SAFETY(release_capability()) { m_lock.unlock(); }

  // For a wait of a std::condition_variable, which returns with the mutex held. Clang treats the
  // mutex as held meanwhile.
  std::unique_lock<std::mutex>& ForWait() { return m_lock; }

 private:
  std::unique_lock<std::mutex> m_lock;
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_MUTEX_H
