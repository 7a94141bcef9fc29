#include "service/HealthReporter.h"

#include <algorithm>
#include <utility>

#include "health/HealthText.h"

namespace Lumo {
namespace {

// For what belongs to a change: a request is to be seen with its end.
constexpr std::chrono::milliseconds kSettlingTime{1000};

}  // namespace

HealthReporter::HealthReporter(HealthSettings settings, CallbackThread& thread,
                               std::function<Health()> read, std::function<void()> publish)
    : m_settings(std::move(settings)),
      m_thread(thread),
      m_read(std::move(read)),
      m_publish(std::move(publish)),
      m_record([this] {
        m_thread.Post([this] { report(); },
                      Clock::now() + std::min(kSettlingTime, m_settings.interval));
      }),
      m_file(m_settings.file) {}

void HealthReporter::Begin() {
  m_record.Listen();
  m_record.Changed();
}

void HealthReporter::PublishLast() {
  const Health health = m_read();
  LockGuard lock(m_mutex);
  if (m_written && !IsNews(health, *m_written)) return;
  m_written = health;
  m_publish();
}

void HealthReporter::WriteLast() {
  const Health health = m_read();
  LockGuard lock(m_mutex);
  if (m_file.IsWanted()) m_file.Write(EncodeMetrics(health));
}

void HealthReporter::report() {
  m_record.Listen();
  const Health health = m_read();
  if (m_settings.onNews) m_settings.onNews();
  LockGuard lock(m_mutex);
  if (m_written && !IsNews(health, *m_written)) return;
  const Clock::time_point now = Clock::now();
  if (now >= m_nextWrite) {
    write(health);
  } else if (!std::exchange(m_isWritePosted, true)) {
    m_thread.Post(
        [this] {
          {
            LockGuard again(m_mutex);
            m_isWritePosted = false;
          }
          report();
        },
        m_nextWrite);
  }
}

void HealthReporter::write(const Health& health) {
  m_nextWrite = Clock::now() + m_settings.interval;
  m_written = health;
  if (m_file.IsWanted()) m_file.Write(EncodeMetrics(health));
  m_publish();
}

}  // namespace Lumo
