#ifndef TESTS_SUPPORT_WATCHED_H
#define TESTS_SUPPORT_WATCHED_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

// A value that several threads share, and that a test can wait for.
template <typename T>
class Watched {
 public:
  explicit Watched(T value = T()) : m_value(std::move(value)) {}

  template <typename Function>
  void Change(Function change) {
    std::lock_guard<std::mutex> lock(m_mutex);
    change(m_value);
    m_changed.notify_all();  // under the lock: who waited may destroy this object right after
  }

  T Get() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_value;
  }

  // False when the condition has not come true within the limit: without one, within a time that is
  // far more than enough.
  template <typename Condition>
  bool WaitFor(Condition condition,
               std::chrono::milliseconds limit = std::chrono::seconds(60)) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] { return condition(m_value); });
  }

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  T m_value;  // guarded by m_mutex
};

#endif  // TESTS_SUPPORT_WATCHED_H
