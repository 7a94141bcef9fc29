#ifndef TESTS_SOAK_MODEL_H
#define TESTS_SOAK_MODEL_H

#include <algorithm>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "SetLog.h"

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
  bool HadSince(Mark mark, const T& value) const {
    const std::vector<T> values = Since(mark);
    return std::find(values.begin(), values.end(), value) != values.end();
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

// What the channel must know of one application. Its owner changes it; any thread reads.
struct AppModel {
  // Its data; nothing when it is not registered.
  using State = std::optional<std::string>;

  AppModel(std::string itsName, bool isAllowed) : name(std::move(itsName)), allowed(isAllowed) {}

  // Whether an answer may give this for the application, to who has asked since the mark.
  bool MayBe(const State& seen, History<State>::Mark mark) const {
    if (state.HadSince(mark, seen)) return true;
    if (seen != State(std::string())) return false;
    // The channel checks whether it is registered, and then reads its data: in between it may
    // leave.
    const std::vector<State> states = state.Since(mark);
    const auto registered = std::find_if(states.begin(), states.end(),
                                         [](const State& one) { return one.has_value(); });
    return std::find(registered, states.end(), State()) != states.end();
  }

  const std::string name;
  const bool allowed;  // to register
  History<State> state{std::nullopt};
  SetLog sets;
};

// What it must know of the thing, as an application's calls print it. The requesters change it,
// each one value.
struct ThingModel {
  History<std::string> signedIn{"(false,)"};
  History<std::string> signupInfo{"('',)"};
};

}  // namespace Soak

#endif  // TESTS_SOAK_MODEL_H
