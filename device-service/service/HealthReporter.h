#ifndef DEVICE_SERVICE_SERVICE_HEALTHREPORTER_H
#define DEVICE_SERVICE_SERVICE_HEALTHREPORTER_H

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "health/Health.h"
#include "health/HealthFile.h"
#include "health/HealthRecord.h"
#include "service/CallbackThread.h"
#include "values/Mutex.h"

namespace Lumo {

// Where and how often the health of a service is written.
struct HealthSettings {
  std::string file;                                              // empty: none
  std::chrono::milliseconds interval = std::chrono::minutes(1);  // at least between two
  // Called when something may have changed, a second later at most and once a second at most.
  std::function<void()> onNews;
  // Whether this service is the one that writes: several would overwrite each other's figures. Any
  // thread; takes no lock. Empty: it always is.
  std::function<bool()> mayWrite;
};

// Writes the health of a service when something has changed: to the file, and to whoever publishes
// it. It waits a second after a change, for what belongs to it, and then until the interval since
// the last one is over. A service to which nothing happens wakes nobody.
class HealthReporter {
 public:
  // A job of `thread` is what writes. `read` gives all figures; `publish` is told that there are
  // others. Neither calls this object. All of them are there until the thread has ended.
  HealthReporter(HealthSettings settings, CallbackThread& thread, std::function<Health()> read,
                 std::function<void()> publish);
  HealthReporter(const HealthReporter&) = delete;
  HealthReporter& operator=(const HealthReporter&) = delete;

  HealthRecord& Record() { return m_record; }
  const HealthRecord& Record() const { return m_record; }

  // The service is created: its figures are the first news.
  void Begin();
  // The service ends: what is not yet published is published now. Nothing is waited for.
  void PublishLast();
  // Then stops the thread, whose last job gives the last figures to the file, which stays. Waits
  // for that job, at most until the limit; what is not written by then is written later.
  void WriteLast(CallbackThread::Clock::time_point limit);

 private:
  using Clock = CallbackThread::Clock;

  void report();
  bool mayWrite() const { return !m_settings.mayWrite || m_settings.mayWrite(); }
  // Whether the figures are to be written now. Publishes them, too.
  bool publishNews(const Health& health);
  void writeFile(const Health& health);

  const HealthSettings m_settings;
  CallbackThread& m_thread;
  const std::function<Health()> m_read;
  const std::function<void()> m_publish;
  HealthRecord m_record;

  HealthFile m_file;  // jobs of the thread only: a disk may take its time

  Mutex m_mutex;  // nobody waits while holding it
  std::optional<Health> m_written GUARDED_BY(m_mutex);
  Clock::time_point m_nextWrite GUARDED_BY(m_mutex);  // not before
  bool m_isWritePosted GUARDED_BY(m_mutex) = false;   // for then
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SERVICE_HEALTHREPORTER_H
