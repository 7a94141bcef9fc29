#include "service/CallbackThread.h"

#include <utility>

#include "values/CatchAll.h"

namespace Lumo {

CallbackThread::CallbackThread() : m_thread([this] { run(); }) {}

CallbackThread::~CallbackThread() {
  Stop();
  Join();
  // Still joinable: a callback on this thread has called exit() and does not return.
  if (m_thread.joinable()) m_thread.detach();
}

void CallbackThread::Post(Job job, Clock::time_point due) {
  Add(std::move(job), due);
  Wake();
}

void CallbackThread::PostCallback(Job job) {
  add({std::move(job), true}, Clock::now());
  Wake();
}

void CallbackThread::Add(Job job, Clock::time_point due) {
  add({std::move(job), false}, due);
}

void CallbackThread::Refuse() {
  Jobs dropped;  // destroyed with no lock held
  LockGuard lock(m_mutex);
  m_refuses = true;
  dropped.swap(m_jobs);
}

void CallbackThread::Stop(Job last) {
  Refuse();
  {
    LockGuard lock(m_mutex);
    if (!std::exchange(m_stopped, true)) m_last = std::move(last);
  }
  m_changed.notify_one();
}

bool CallbackThread::WaitForEnd(Clock::time_point limit) {
  if (m_thread.get_id() == std::this_thread::get_id()) return true;
  UniqueLock lock(m_mutex);
  if (m_callsPlugIn) return false;
  return m_end.wait_until(lock.ForWait(), limit, [this] { return m_ended.load(); });
}

void CallbackThread::Join() {
  if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) m_thread.join();
}

void CallbackThread::add(Posted posted, Clock::time_point due) {
  LockGuard lock(m_mutex);
  if (!m_refuses) m_jobs.emplace(due, std::move(posted));
}

void CallbackThread::run() {
  UniqueLock lock(m_mutex);
  while (!m_stopped) {
    if (m_jobs.empty()) {
      m_changed.wait(lock.ForWait());
      continue;
    }
    const auto first = m_jobs.begin();
    const Clock::time_point due = first->first;
    if (due > Clock::now()) {
      m_changed.wait_until(lock.ForWait(), due);
      continue;
    }
    {
      const Posted posted = std::move(first->second);
      m_jobs.erase(first);
      m_callsPlugIn = posted.callsPlugIn;
      lock.Unlock();
      CatchAll("exception from a callback", posted.job);
    }
    lock.Lock();
    m_callsPlugIn = false;
  }
  const Job last = std::exchange(m_last, {});
  lock.Unlock();
  if (last) CatchAll("exception from the last job", last);
  lock.Lock();
  m_ended = true;
  m_end.notify_all();
}

}  // namespace Lumo
