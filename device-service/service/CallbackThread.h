#ifndef DEVICE_SERVICE_SERVICE_CALLBACKTHREAD_H
#define DEVICE_SERVICE_SERVICE_CALLBACKTHREAD_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <thread>

#include "values/Mutex.h"

namespace Lumo {

// A thread that runs jobs one after another, by their due times and then in the order of posting.
// No lock is held while a job runs. An exception from a job is logged.
class CallbackThread {
 public:
  using Clock = std::chrono::steady_clock;
  using Job = std::function<void()>;

  CallbackThread();
  // Stops, and waits for the running job, unless that job is the caller.
  ~CallbackThread();
  CallbackThread(const CallbackThread&) = delete;
  CallbackThread& operator=(const CallbackThread&) = delete;

  // Any thread, jobs included. After Refuse the job is dropped.
  void Post(Job job, Clock::time_point due = Clock::now());
  // The same, for a job that calls the plug-in.
  void PostCallback(Job job);
  // Post in two steps, for a caller with a lock that the job takes: Wake comes after its release.
  // Until then the job may wait.
  void Add(Job job, Clock::time_point due = Clock::now());
  void Wake() { m_changed.notify_one(); }

  // Drops the waiting jobs, and those that come later.
  void Refuse();
  // The same, and ends the thread: after the running job, and then `last`, if it is not empty.
  // Waits for neither. Only the first call counts.
  void Stop(Job last = {});

  // After Stop: waits until the thread runs no job any more, at most until then. False when it
  // still does, and at once when that calls the plug-in: the caller may hold a lock that the
  // plug-in needs. True, without waiting, when a job is the caller.
  bool WaitForEnd(Clock::time_point limit);
  // The same without a limit.
  void Join();

  // True after Stop once no job runs any more: the destructor will not have to wait.
  bool HasEnded() const { return m_ended; }

 private:
  struct Posted {
    Job job;
    bool callsPlugIn;
  };
  using Jobs = std::multimap<Clock::time_point, Posted>;  // by due time

  void add(Posted posted, Clock::time_point due);
  void run();

  Mutex m_mutex;
  std::condition_variable m_changed;
  Jobs m_jobs GUARDED_BY(m_mutex);
  bool m_callsPlugIn GUARDED_BY(m_mutex) = false;  // the running job does
  bool m_refuses GUARDED_BY(m_mutex) = false;
  bool m_stopped GUARDED_BY(m_mutex) = false;
  Job m_last GUARDED_BY(m_mutex);
  std::condition_variable m_end;
  std::atomic<bool> m_ended{false};
  std::thread m_thread;  // last: it uses all of the above
};

}  // namespace Lumo

#endif  // DEVICE_SERVICE_SERVICE_CALLBACKTHREAD_H
