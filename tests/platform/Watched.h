#ifndef TESTS_PLATFORM_WATCHED_H
#define TESTS_PLATFORM_WATCHED_H

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

  // False when the condition has not come true within a time that is far more than enough.
  template <typename Condition>
  bool WaitFor(Condition condition) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return condition(m_value); });
  }

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  T m_value;  // guarded by m_mutex
};

// Opens once; those who wait for it go on.
class Gate {
 public:
  void Open() {
    m_open.Change([](bool& open) { open = true; });
  }
  bool Wait() {
    return m_open.WaitFor([](bool open) { return open; });
  }

 private:
  Watched<bool> m_open;
};

#endif  // TESTS_PLATFORM_WATCHED_H
