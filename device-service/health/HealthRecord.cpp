#include "health/HealthRecord.h"

#include <exception>

#include "dlog.h"
#include "values/Utf8.h"

namespace Lumo {
namespace {

// With "…" less than the 200 characters of the contract and the 256 bytes of lumo_health.
constexpr std::size_t kMaxReasonBytes = 190;

// The cause stands at the end, after a topic or a name: both have to fit.
std::string toReason(const std::string& text) {
  return Abbreviate(ToLine(text), kMaxReasonBytes);
}

Health::Time now() {
  return std::chrono::system_clock::now();
}

}  // namespace

HealthRecord::HealthRecord(OnChange onChange) : m_onChange(std::move(onChange)), m_started(now()) {
  m_link.since = m_started;
}

void HealthRecord::SetLink(Health::Link link) {
  {
    LockGuard lock(m_mutex);
    if (m_link.link == link) return;
    m_link.link = link;
    m_link.since = now();
    if (link == Health::Link::Online) m_link.reason.clear();
  }
  Changed();
}

void HealthRecord::NoteTrouble(const std::string& why) {
  {
    LockGuard lock(m_mutex);
    m_link.reason = toReason(why);
  }
  Changed();
}

void HealthRecord::NoteRefusal(const std::string& what) {
  {
    LockGuard lock(m_mutex);
    m_link.refusal = toReason(what);
  }
  Changed();
}

void HealthRecord::NoteLoss(const std::string& why) {
  {
    LockGuard lock(m_mutex);
    m_link.reason = toReason(why);
    m_link.lastLoss = m_link.reason;
    m_link.lostAt = now();
  }
  Changed();
}

Health HealthRecord::Read() const {
  Health health;
  {
    LockGuard lock(m_mutex);
    health = m_link;
  }
  health.started = m_started;
  for (std::size_t kind = 0; kind < kCountedKinds; ++kind) {
    health.counts.at(kind) = m_counts.at(kind);
  }
  return health;
}

void HealthRecord::tell() noexcept {
  try {
    m_onChange();
  } catch (const std::exception& e) {
    // Out of memory. The next change is told.
    m_isListening = true;
    dlog_print(6, "LUMO", "the health is not reported yet: %s\n", e.what());
  }
}

}  // namespace Lumo
