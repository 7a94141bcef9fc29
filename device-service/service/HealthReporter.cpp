#include "service/HealthReporter.h"

#include <algorithm>
#include <utility>

#include "dlog.h"
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
  if (!mayWrite()) return;
  const Health health = m_read();
  LockGuard lock(m_mutex);
  if (m_written && !IsNews(health, *m_written)) return;
  m_written = health;
  m_publish();
}

void HealthReporter::WriteLast(Clock::time_point limit) {
  if (!m_file.IsWanted()) {
    m_thread.Stop();
    return;
  }
  m_thread.Stop([this] { writeFile(m_read()); });
  if (m_thread.WaitForEnd(limit)) return;
  dlog_print(5, "LUMO", "LUMO_HEALTH_FILE: '%s' does not have the last figures yet\n",
             m_settings.file.c_str());
}

void HealthReporter::report() {
  m_record.Listen();
  const Health health = m_read();
  if (m_settings.onNews) m_settings.onNews();
  if (mayWrite() && publishNews(health)) writeFile(health);
}

bool HealthReporter::publishNews(const Health& health) {
  LockGuard lock(m_mutex);
  if (m_written && !IsNews(health, *m_written)) return false;
  const Clock::time_point now = Clock::now();
  if (now >= m_nextWrite) {
    m_nextWrite = now + m_settings.interval;
    m_written = health;
    m_publish();
    return true;
  }
  if (!std::exchange(m_isWritePosted, true)) {
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
  return false;
}

void HealthReporter::writeFile(const Health& health) {
  if (!m_file.IsWanted()) return;
  // A service that was created meanwhile has the same file.
  static Mutex oneAtATime;
  LockGuard lock(oneAtATime);
  if (mayWrite()) m_file.Write(EncodeMetrics(health));
}

}  // namespace Lumo
