#ifndef COMMON_MSGDISPATCHER_H
#define COMMON_MSGDISPATCHER_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace ThingCommon {

// A named job queue with one worker thread. Jobs run one at a time, in the order in which they were
// queued, and one that throws does not stop the worker. After Quit no more jobs are taken and those
// still queued are dropped.
//
// A dispatcher that replaces another one runs its first job when the other's worker has ended, so
// that the jobs of both still run one at a time and in order.
//
// Any thread may queue jobs, a job included. The destructor joins the worker, however long that
// takes: a thread cannot be left behind. So it must not run on the worker itself: a job never
// deletes its own dispatcher, or the owner of it.
class MsgDispatcher {
 public:
  // The jobs and their lock, which every operation holds until it returns; RunFirstJob releases it
  // before it runs the job.
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
    // Destroys every job without running it, front first.
    void Clear();
    // Takes the front job out, if there is one, and runs it with no lock of the queue held. An
    // empty job is dropped; what a job throws is logged.
    void RunFirstJob();

   private:
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_queue;  // guarded by m_mutex
    std::string m_name;
  };

  // Starts the worker. Throws std::system_error when no thread can be started.
  explicit MsgDispatcher(const std::string& name);
  // The same, and takes over `predecessor`, which may be null. The worker deletes it first, which
  // stops it and waits for its running job. When this throws, `predecessor` is unchanged.
  MsgDispatcher(const std::string& name, std::unique_ptr<MsgDispatcher>& predecessor);
  virtual ~MsgDispatcher();
  MsgDispatcher(const MsgDispatcher&) = delete;
  MsgDispatcher& operator=(const MsgDispatcher&) = delete;

  // Queues a copy of `job` and wakes the worker; never waits for a running job. After Quit the job
  // is refused with a log line.
  void EnqueueData(const std::function<void()>& job);

  // Has the worker end after the job that it is running. Returns at once.
  void Quit();

  // Ready once the predecessor has been deleted; at once when there is none. May be called once,
  // and the result outlives the dispatcher.
  std::future<void> PredecessorGone();

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

  std::unique_ptr<MsgDispatcher> m_predecessor;  // the worker's, once it has started
  std::promise<void> m_predecessor_gone;
};

}  // namespace ThingCommon

#endif  // COMMON_MSGDISPATCHER_H
