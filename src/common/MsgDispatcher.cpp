#include "MsgDispatcher.h"

#include <pthread.h>

#include <chrono>
#include <exception>
#include <utility>

#include "Log.h"

namespace ThingCommon {
namespace {

// EnqueueData and Quit notify without taking the worker's lock, so that a producer never waits for
// a running job. A notification between the worker's check of the queue and its wait is lost; this
// bounds how late the worker then is.
constexpr std::chrono::nanoseconds kMaxWait(1'000'000'000);

constexpr std::size_t kMaxThreadNameLength = 15;  // of the kernel's

}  // namespace

MsgDispatcher::MsgQueue::MsgQueue(const std::string& name) : m_name(name) {}

MsgDispatcher::MsgQueue::~MsgQueue() {
  LOG_E(LOG_TAG_COMMON, "MsgQueue destructed\n");
  Clear();
}

void MsgDispatcher::MsgQueue::Push(const std::function<void()>& job) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_queue.push_back(job);
}

void MsgDispatcher::MsgQueue::Pop() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_queue.pop_front();
}

std::function<void()>& MsgDispatcher::MsgQueue::Front() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_queue.front();
}

bool MsgDispatcher::MsgQueue::IsEmpty() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_queue.empty();
}

std::size_t MsgDispatcher::MsgQueue::Size() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_queue.size();
}

void MsgDispatcher::MsgQueue::Clear() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  // One by one: std::deque::clear does not say in which order it destroys.
  while (!m_queue.empty()) m_queue.pop_front();
}

void MsgDispatcher::MsgQueue::RunFirstJob() {
  std::function<void()> job;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_queue.empty()) return;
    job = std::move(m_queue.front());
    m_queue.pop_front();
  }
  if (!job) return;
  try {
    job();
  } catch (const std::exception& e) {
    LOG_E(LOG_TAG_COMMON, "exception from job : %s\n", e.what());
  } catch (...) {
    LOG_E(LOG_TAG_COMMON, "[%s] unknown exception from job\n", m_name.c_str());
  }
}

MsgDispatcher::MsgDispatcher(const std::string& name)
    : m_msg_queue(name), m_running(true), m_name(name) {
  m_predecessor_gone.set_value();
  m_thread = std::thread(&MsgDispatcher::runDispatchingThread, this);
}

MsgDispatcher::MsgDispatcher(const std::string& name, std::unique_ptr<MsgDispatcher>& predecessor)
    : m_msg_queue(name), m_running(true), m_name(name) {
  m_predecessor.swap(predecessor);
  if (!m_predecessor) m_predecessor_gone.set_value();
  try {
    m_thread = std::thread(&MsgDispatcher::runDispatchingThread, this);
  } catch (...) {
    m_predecessor.swap(predecessor);
    throw;
  }
}

MsgDispatcher::~MsgDispatcher() {
  Quit();
  if (m_thread.joinable()) {
    LOG_E(LOG_TAG_COMMON, "[%s] before join\n", m_name.c_str());
    m_thread.join();
    LOG_E(LOG_TAG_COMMON, "[%s] after join\n", m_name.c_str());
  } else {
    LOG_E(LOG_TAG_COMMON, "[%s] Not joinable\n", m_name.c_str());
  }
}

void MsgDispatcher::EnqueueData(const std::function<void()>& job) {
  if (!m_running) {
    LOG_E(LOG_TAG_COMMON, "Thread already finished! Can not do enqueue!!\n");
    return;
  }
  m_msg_queue.Push(job);
  m_cv.notify_one();
}

void MsgDispatcher::Quit() {
  m_running = false;
  m_cv.notify_one();
}

std::future<void> MsgDispatcher::PredecessorGone() {
  return m_predecessor_gone.get_future();
}

bool MsgDispatcher::isEmptyQueue() {
  return m_msg_queue.IsEmpty();
}

void MsgDispatcher::clearData() {
  m_msg_queue.Clear();
}

void MsgDispatcher::runDispatchingThread() {
  pthread_setname_np(pthread_self(), m_name.substr(0, kMaxThreadNameLength).c_str());
  if (m_predecessor) {
    m_predecessor.reset();
    m_predecessor_gone.set_value();
  }
  std::unique_lock<std::mutex> lock(m_mutex);
  while (true) {
    const bool empty = isEmptyQueue();
    if (!m_running) break;
    if (!empty) {
      m_msg_queue.RunFirstJob();
    } else {
      m_cv.wait_until(lock, std::chrono::steady_clock::now() + kMaxWait);
    }
  }
  LOG_E(LOG_TAG_COMMON, "[%s] ESCAPE!\n", m_name.c_str());
  clearData();
  lock.unlock();
  LOG_E(LOG_TAG_COMMON, "[%s] Finished thread running\n", m_name.c_str());
}

}  // namespace ThingCommon
