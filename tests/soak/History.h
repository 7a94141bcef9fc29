#ifndef TESTS_SOAK_HISTORY_H
#define TESTS_SOAK_HISTORY_H

#include <cstddef>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace Soak {

// The values that one thing of the channel has had. One thread changes it, one change after the
// other; any thread reads. Who reads the thing while it is being changed may see the value before
// or the one after: a read is right when it gives one of Since(the mark from before the read).
template <typename T>
class History {
 public:
  using Mark = std::size_t;

  explicit History(T first) { m_values.push_back(std::move(first)); }

  // Before the change is asked for, and after it is known to be done.
  void Begin(T value) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_values.push_back(std::move(value));
  }
  void End() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_known = m_first + m_values.size() - 1;
  }

  Mark Now() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_known;
  }
  std::vector<T> Since(Mark mark) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return {m_values.begin() + static_cast<std::ptrdiff_t>(mark - m_first), m_values.end()};
  }
  T Last() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_values.back();
  }

  // Forgets all but the last value; while nobody reads or changes the thing.
  void Settle() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_first += m_values.size() - 1;
    m_values.erase(m_values.begin(), m_values.end() - 1);
    m_known = m_first;
  }

 private:
  mutable std::mutex m_mutex;
  // All guarded by m_mutex:
  std::deque<T> m_values;
  Mark m_first = 0;  // of m_values
  Mark m_known = 0;  // the last one that is known to have been reached
};

}  // namespace Soak

#endif  // TESTS_SOAK_HISTORY_H
