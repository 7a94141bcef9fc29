#ifndef DEVICE_SERVICE_HEALTH_HEALTHRECORD_H
#define DEVICE_SERVICE_HEALTH_HEALTHRECORD_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "health/Health.h"
#include "values/Mutex.h"

namespace Lumo {

// Where a service notes what happens to it. Any thread, whatever locks it holds. To note something
// takes an addition and a comparison, except for the first time after Listen.
class HealthRecord {
 public:
  using OnChange = std::function<void()>;

  // `onChange` is called once after each Listen, at the next change, on the thread that makes it
  // and with its locks.
  explicit HealthRecord(OnChange onChange);

  void Count(Counted what) {
    ++m_counts[static_cast<std::size_t>(what)];
    Changed();
  }
  // Something has changed that others count: what waits, what is registered.
  void Changed() {
    if (m_isListening && m_isListening.exchange(false)) tell();
  }
  void SetLink(Health::Link link);
  // Why the link is offline, or is not online yet.
  void NoteTrouble(const std::string& why);
  // What the broker refuses although the link is online; empty: nothing any more.
  void NoteRefusal(const std::string& what);
  // A connection was lost.
  void NoteLoss(const std::string& why);

  // Before the figures are read, so that no later change is missed.
  void Listen() { m_isListening = true; }
  // All but what others count.
  Health Read() const;

 private:
  void tell() noexcept;

  const OnChange m_onChange;
  const Health::Time m_started;
  std::array<std::atomic<std::uint64_t>, kCountedKinds> m_counts{};
  std::atomic<bool> m_isListening{false};
  mutable Mutex m_mutex;
  Health m_link GUARDED_BY(m_mutex);  // what it has of the link
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_HEALTH_HEALTHRECORD_H
