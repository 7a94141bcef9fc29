#include "SetLog.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace Soak {
namespace {

constexpr std::uint64_t kNumbers = 1'000'000'000'000;  // of one requester

}  // namespace

SetLog::Id SetLog::MakeId(int requester, std::uint64_t number) {
  return static_cast<Id>(requester + 1) * kNumbers + number;
}

std::uint64_t SetLog::RequesterOf(Id id) {
  return id / kNumbers;
}

SetLog::Id SetLog::IdIn(std::string_view text) {
  Id id = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, id);
  const bool isWhole = error == std::errc() && (rest == end || *rest == ':');
  return isWhole && id >= kNumbers ? id : 0;
}

void SetLog::Begin(Id id) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_open.emplace(id, m_begun++);
}

void SetLog::End(Id id, Fate fate) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  const auto found = m_open.find(id);
  if (found == m_open.end()) return;
  m_ended.push_back({id, found->second, fate});
  m_open.erase(found);
}

std::size_t SetLog::Begun() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_begun;
}

std::size_t SetLog::Ended() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_ended.size();
}

std::string SetLog::Check(Reader& reader, std::size_t ended) const {
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
    const auto isIt = [id](const Set& set) { return set.id == id; };
    const bool isKnown =
        m_open.count(id) != 0 ||
        std::any_of(m_ended.begin() + static_cast<std::ptrdiff_t>(ended), m_ended.end(), isIt);
    if (!isKnown) wrong += " unasked " + std::to_string(id);
  }
  return wrong;
}

}  // namespace Soak
