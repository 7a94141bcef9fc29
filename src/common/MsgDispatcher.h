#ifndef COMMON_MSGDISPATCHER_H
#define COMMON_MSGDISPATCHER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace ThingCommon {

// A named job queue with one worker thread. Jobs run one at a time, in the order in which they were
// queued, and one that throws does not stop the worker. After Quit no more jobs are taken and those
// still queued are dropped.
//
// Any thread may queue jobs, a job included. The destructor joins the worker, so it must not run on
// the worker itself.
class MsgDispatcher {
 public:
  // The jobs, behind a lock that is held for the whole of every operation; only RunFirstJob lets it
  // go before it runs the job.
  class MsgQueue {
   public:
    explicit MsgQueue(const std::string& name);
    ~MsgQueue();
    MsgQueue(const MsgQueue&) = delete;
    MsgQueue& operator=(const MsgQueue&) = delete;

    // Appends a copy of `job`.
    void Push(const std::function<void()>& job);
    // Removes the front job. The queue must not be empty.
    void Pop();
    // The front job. The queue must not be empty, and the reference is used without the lock.
    std::function<void()>& Front();
    bool IsEmpty();
    std::size_t Size();
    // Destroys every job unrun, front first.
    void Clear();
    // Takes the front job out, if there is one, and runs it with no lock of the queue held. An
    // empty job is dropped; what a job throws is logged.
    void RunFirstJob();

   private:
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_queue;  // guarded by m_mutex
    std::string m_name;
  };

  // Starts the worker. Throws std::system_error when there is no thread to be had.
  explicit MsgDispatcher(const std::string& name);
  virtual ~MsgDispatcher();
  MsgDispatcher(const MsgDispatcher&) = delete;
  MsgDispatcher& operator=(const MsgDispatcher&) = delete;

  // Queues a copy of `job` and wakes the worker; never waits for a running job. After Quit the job
  // is refused with a log line.
  void EnqueueData(const std::function<void()>& job);

  // Has the worker end after the job that it is running. Returns at once.
  void Quit();

  // Waits until the worker has left its loop for good, `timeout` at most; true when it has. Then
  // the destructor does not block.
  bool WaitUntilFinished(std::chrono::milliseconds timeout);

  bool isEmptyQueue();
  void clearData();

 private:
  // The worker's body.
  void runDispatchingThread();

  std::thread m_thread;
  std::condition_variable m_cv;
  std::mutex m_mutex;  // the worker's own: held but for its waits on m_cv, taken by nobody else
  MsgQueue m_msg_queue;
  std::atomic<bool> m_running{false};
  std::string m_name;

  std::mutex m_finished_mutex;
  std::condition_variable m_finished_cv;
  bool m_finished = false;  // guarded by m_finished_mutex
};

}  // namespace ThingCommon

#endif  // COMMON_MSGDISPATCHER_H
