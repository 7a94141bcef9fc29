#ifndef TESTS_SOAK_SETLOG_H
#define TESTS_SOAK_SETLOG_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Soak {

// The cloud's sets for one application, against which its connections check their events. Any
// thread.
class SetLog {
 public:
  // Names the set, and its requester; it is the text that is set, up to a ':'.
  using Id = std::uint64_t;
  static Id MakeId(int requester, std::uint64_t number);
  static std::uint64_t RequesterOf(Id id);
  // 0 when there is none.
  static Id IdIn(std::string_view text);

  // Unknown: it was cancelled.
  enum class Fate { Forwarded, Refused, Unknown };

  // Before it is sent, and after it is answered.
  void Begin(Id id);
  void End(Id id, Fate fate);

  std::size_t Begun() const;
  std::size_t Ended() const;

  // What one connection knows of the log.
  struct Reader {
    std::size_t begun = 0;  // as many had begun when it began to listen
    std::size_t ended = 0;  // as many are dealt with
    std::set<Id> events;    // received, and not dealt with
  };
  // Deals with the sets up to the `ended`th, whose events the reader must have by now. Returns what
  // is wrong; empty when nothing is.
  std::string Check(Reader& reader, std::size_t ended) const;

 private:
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
