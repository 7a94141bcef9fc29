#ifndef TESTS_SOAK_SETLOG_H
#define TESTS_SOAK_SETLOG_H

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

namespace Soak {

// The cloud's sets for one application, against which its connections check their events. Any
// thread.
class SetLog {
 public:
  // Names the set, and its requester; it is the string that is set, up to a ':'.
  using Id = std::uint64_t;
  static Id MakeId(int requester, std::uint64_t number) {
    return static_cast<Id>(requester + 1) * kNumbers + number;
  }
  static std::uint64_t RequesterOf(Id id) { return id / kNumbers; }
  // 0 when there is none.
  static Id IdIn(std::string_view text) {
    Id id = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, id);
    const bool isWhole = error == std::errc() && (rest == end || *rest == ':');
    return isWhole && id >= kNumbers ? id : 0;
  }

  enum class Fate { Forwarded, Refused, Cancelled };

  // Before it is sent, and after it is answered.
  void Begin(Id id) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open.emplace(id, m_begun++);
  }
  void End(Id id, Fate fate) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_open.find(id);
    if (found == m_open.end()) return;
    m_ended.push_back({id, found->second, fate});
    m_open.erase(found);
  }

  std::size_t Begun() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_begun;
  }
  std::size_t Ended() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ended.size();
  }

  // What one connection knows of the log.
  struct Reader {
    std::size_t begun = 0;  // as many had begun when it began to listen
    std::size_t ended = 0;  // as many are dealt with
    std::set<Id> events;    // received, and not dealt with
  };
  // Deals with the sets up to the `ended`th, whose events the reader must have by now. Returns what
  // is wrong; empty when nothing is.
  std::string Check(Reader& reader, std::size_t ended) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::string wrong;
    for (; reader.ended < ended; ++reader.ended) {
      const Set& set = m_ended[reader.ended];
      const bool received = reader.events.erase(set.id) != 0;
      const bool mustBeThere = set.fate == Fate::Forwarded && set.number >= reader.begun;
      if (mustBeThere && !received) wrong += " lost " + std::to_string(set.id);
      if (set.fate == Fate::Refused && received) wrong += " refused " + std::to_string(set.id);
    }
    // The rest belongs to sets that have ended only now, or not yet.
    for (const Id id : reader.events) {
      const bool isKnown =
          m_open.count(id) != 0 ||
          std::any_of(m_ended.begin() + static_cast<std::ptrdiff_t>(ended), m_ended.end(),
                      [id](const Set& set) { return set.id == id; });
      if (!isKnown) wrong += " unasked " + std::to_string(id);
    }
    return wrong;
  }

 private:
  static constexpr Id kNumbers = 1'000'000'000'000;  // of one requester

  struct Set {
    Id id;
    std::size_t number;  // how many had begun before
    Fate fate;
  };

  mutable std::mutex m_mutex;
  // All guarded by m_mutex:
  std::size_t m_begun = 0;
  std::unordered_map<Id, std::size_t> m_open;  // not ended: how many had begun before
  std::vector<Set> m_ended;                    // in the order of their ends
};

}  // namespace Soak

#endif  // TESTS_SOAK_SETLOG_H
