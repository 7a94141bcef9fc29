#include "MsgDispatcher.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Gate.h"
#include "PlatformTest.h"

namespace {

// What the waits of one worker do instead of only waiting. It is called with the clock and the
// deadline, which it may move; false lets the wait time out at once. A job sets it, on the worker.
using WaitHook = std::function<bool(clockid_t clock, timespec& deadline)>;
thread_local const WaitHook* t_waitHook = nullptr;

}  // namespace

// In front of the C library's: the timed waits on condition variables of everything in this file's
// executable come by here.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      clockid_t clock, const timespec* deadline) {
  using Function = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
  // The headers call it by another name where time_t is wider than the processor's words.
  constexpr const char* kName = sizeof(deadline->tv_sec) > sizeof(long)
                                    ? "__pthread_cond_clockwait64"
                                    : "pthread_cond_clockwait";
  static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, kName));
  if (t_waitHook == nullptr) return original(condition, mutex, clock, deadline);
  timespec moved = *deadline;
  if (!(*t_waitHook)(clock, moved)) return ETIMEDOUT;
  return original(condition, mutex, clock, &moved);
}

namespace ThingCommon {
namespace {

using Job = std::function<void()>;

// More than one block of a std::deque holds, so that their order in several blocks shows.
constexpr int kManyJobs = 200;

ExpectedLog Line(const std::string& function, const std::string& message) {
  return {6, "THING_COMMON", "MsgDispatcher.cpp", function, message};
}

std::int64_t NanosecondsUntil(const timespec& deadline, clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return (std::int64_t{deadline.tv_sec} - now.tv_sec) * 1'000'000'000 + deadline.tv_nsec -
         now.tv_nsec;
}

// Something for a job to capture: calls `released` when the last copy is destroyed.
std::shared_ptr<void> MakeToken(Job released) {
  return {nullptr, [released = std::move(released)](void*) { released(); }};
}

// Numbers in the order in which they came, from any thread.
class Numbers {
 public:
  void Add(int number) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_numbers.push_back(number);
  }
  std::vector<int> All() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_numbers;
  }

 private:
  std::mutex m_mutex;
  std::vector<int> m_numbers;
};

std::vector<int> UpTo(int count) {
  std::vector<int> numbers;
  for (int i = 0; i < count; ++i) numbers.push_back(i);
  return numbers;
}

// True when the thread of this process sleeps, by the kernel's account.
bool Sleeps(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(file, stat);
  // The state follows the name, which is in brackets.
  const auto bracket = stat.rfind(')');
  return bracket != std::string::npos && stat.substr(bracket).rfind(") S", 0) == 0;
}

// True when `operation` ends on a thread of its own although this one waits for it.
bool EndsOnAnotherThread(const Job& operation, std::future<void>& pending) {
  pending = std::async(std::launch::async, operation);
  return pending.wait_for(fake::kPatience) == std::future_status::ready;
}

// No thread can be started while it lives: none gets so large a stack.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&m_before);
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    constexpr std::size_t kPageBytes = 4096;
    // Half of the addresses may be free, on 32 bits.
    constexpr std::size_t kTooLarge = std::numeric_limits<std::size_t>::max() / 4 * 3 / kPageBytes;
    pthread_attr_setstacksize(&attributes, kTooLarge * kPageBytes);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
  }
  ~NoThreads() {
    pthread_setattr_default_np(&m_before);
    pthread_attr_destroy(&m_before);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t m_before{};
};

// --- the queue -----------------------------------------------------------------------------------

using MsgQueueTest = PlatformTest;

TEST_F(MsgQueueTest, IsEmptyAtFirst) {
  MsgDispatcher::MsgQueue queue("queue");
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(queue.Size(), 0U);
}

TEST_F(MsgQueueTest, KeepsCopiesOfJobsInTheOrderOfTheirComing) {
  Numbers ran;
  MsgDispatcher::MsgQueue queue("queue");
  Job job = [&ran] { ran.Add(1); };
  queue.Push(job);
  EXPECT_TRUE(job) << "the caller's job must stay whole";
  job = [&ran] { ran.Add(2); };
  queue.Push(job);

  EXPECT_FALSE(queue.IsEmpty());
  EXPECT_EQ(queue.Size(), 2U);
  queue.Front()();
  queue.Pop();
  EXPECT_EQ(queue.Size(), 1U);
  queue.Front()();
  queue.Pop();
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(ran.All(), (std::vector<int>{1, 2}));
}

TEST_F(MsgQueueTest, RunsNothingWhenThereIsNothing) {
  MsgDispatcher::MsgQueue queue("queue");
  queue.RunFirstJob();
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(MsgQueueTest, RunsTheFrontJobAndNoOther) {
  Numbers ran;
  MsgDispatcher::MsgQueue queue("queue");
  queue.Push([&ran] { ran.Add(1); });
  queue.Push([&ran] { ran.Add(2); });
  queue.RunFirstJob();
  EXPECT_EQ(ran.All(), std::vector<int>{1});
  EXPECT_EQ(queue.Size(), 1U);
}

TEST_F(MsgQueueTest, HoldsNoLockWhileAJobRunsOrIsDestroyed) {
  MsgDispatcher::MsgQueue queue("queue");
  std::size_t sizeInJob = 99;
  std::size_t sizeInRelease = 99;
  std::future<void> inJob;
  std::future<void> inRelease;
  bool jobEnded = false;
  bool releaseEnded = false;
  {
    const auto token = MakeToken([&] {
      releaseEnded = EndsOnAnotherThread([&] { sizeInRelease = queue.Size(); }, inRelease);
    });
    queue.Push(
        [&, token] { jobEnded = EndsOnAnotherThread([&] { sizeInJob = queue.Size(); }, inJob); });
  }
  queue.RunFirstJob();
  EXPECT_TRUE(jobEnded);
  EXPECT_TRUE(releaseEnded);
  EXPECT_EQ(sizeInJob, 0U);
  EXPECT_EQ(sizeInRelease, 0U);
}

TEST_F(MsgQueueTest, DropsAnEmptyJobSilentlyAtItsTurn) {
  MsgDispatcher::MsgQueue queue("queue");
  queue.Push(Job());
  EXPECT_EQ(queue.Size(), 1U);
  queue.RunFirstJob();
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(MsgQueueTest, LogsWhatAJobThrowsAndReturns) {
  MsgDispatcher::MsgQueue queue("%s");
  queue.Push([] { throw std::runtime_error("100%d"); });
  queue.Push([] { throw 1; });
  EXPECT_NO_THROW(queue.RunFirstJob());
  EXPECT_NO_THROW(queue.RunFirstJob());

  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Line("RunFirstJob", "exception from job : 100%d\n")));
  EXPECT_EQ(logs[0].format, "%s : %s(%d)  exception from job : %s\n");
  EXPECT_TRUE(Matches(logs[1], Line("RunFirstJob", "[%s] unknown exception from job\n")));
  EXPECT_EQ(logs[1].format, "%s : %s(%d)  [%s] unknown exception from job\n");
}

TEST_F(MsgQueueTest, DestroysAJobAfterTheLineAboutIt) {
  MsgDispatcher::MsgQueue queue("queue");
  {
    const auto token = MakeToken([] { vconf_set_int("released", 1); });
    queue.Push([token] { throw std::runtime_error("thrown"); });
  }
  queue.RunFirstJob();
  EXPECT_EQ(platform.Summaries(),
            (std::vector<std::string>{
                "6 THING_COMMON MsgDispatcher.cpp RunFirstJob exception from job : thrown",
                "vconf_set_int(released, 1)"}));
}

TEST_F(MsgQueueTest, DestroysAJobThatHasRunBeforeItReturns) {
  MsgDispatcher::MsgQueue queue("queue");
  bool released = false;
  queue.Push([token = MakeToken([&released] { released = true; })] {});
  queue.RunFirstJob();
  EXPECT_TRUE(released);
}

TEST_F(MsgQueueTest, ClearsFrontFirstAndRunsNothing) {
  Numbers released;
  std::atomic<int> runs = 0;
  MsgDispatcher::MsgQueue queue("queue");
  for (int i = 0; i < kManyJobs; ++i) {
    const auto token = MakeToken([&released, i] { released.Add(i); });
    queue.Push([token, &runs] { ++runs; });
  }
  queue.Clear();
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(released.All(), UpTo(kManyJobs));
  EXPECT_EQ(runs, 0);
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(MsgQueueTest, LogsItsDestructionBeforeItDropsItsJobsFrontFirst) {
  Numbers released;
  {
    MsgDispatcher::MsgQueue queue("queue");
    for (int i = 0; i < kManyJobs; ++i) {
      const auto token = MakeToken([this, &released, i] {
        EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 1U);
        released.Add(i);
      });
      queue.Push([token] { ADD_FAILURE() << "a job of a destroyed queue ran"; });
    }
  }
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(Matches(platform.Logs()[0], Line("~MsgQueue", "MsgQueue destructed\n")));
  EXPECT_EQ(released.All(), UpTo(kManyJobs));
}

// --- the dispatcher ------------------------------------------------------------------------------

class MsgDispatcherTest : public PlatformTest {
 protected:
  // Has the worker run a job that waits for `gate`, and returns when it does.
  void BlockWorker(MsgDispatcher& dispatcher, Gate& gate) {
    Gate started;
    dispatcher.EnqueueData([&started, &gate] {
      started.Open();
      EXPECT_TRUE(gate.Wait());
    });
    ASSERT_TRUE(started.Wait());
  }

  // Waits until every job queued so far has run.
  void WaitForJobs(MsgDispatcher& dispatcher) {
    Gate done;
    dispatcher.EnqueueData([&done] { done.Open(); });
    ASSERT_TRUE(done.Wait());
  }

  // Waits until the worker has left its loop for good; there is only one.
  bool WaitForTheEnd() {
    return platform.WaitUntil(
        [this] { return platform.CountLogs("Finished thread running") == 1; });
  }

  // Sets the hook for the worker's waits from the next one on.
  void HookWaits(MsgDispatcher& dispatcher, const WaitHook& hook) {
    dispatcher.EnqueueData([&hook] { t_waitHook = &hook; });
  }

  std::vector<std::string> Messages() {
    std::vector<std::string> messages;
    for (const fake::LogLine& line : platform.Logs()) messages.push_back(line.Message());
    return messages;
  }
};

TEST_F(MsgDispatcherTest, CanNeitherBeCopiedNorMoved) {
  static_assert(!std::is_copy_constructible_v<MsgDispatcher>);
  static_assert(!std::is_move_constructible_v<MsgDispatcher>);
  static_assert(!std::is_copy_assignable_v<MsgDispatcher>);
  static_assert(std::has_virtual_destructor_v<MsgDispatcher>);
}

TEST_F(MsgDispatcherTest, RunsJobsOneAtATimeOnOneThreadInEachProducersOrder) {
  constexpr int kProducers = 4;
  std::vector<std::vector<int>> ran(kProducers);  // touched by the worker only
  std::set<std::thread::id> threads;
  std::atomic<int> inside = 0;
  std::atomic<bool> overlapped = false;
  {
    MsgDispatcher dispatcher("name");
    std::vector<std::thread> producers;
    for (std::size_t p = 0; p < kProducers; ++p) {
      producers.emplace_back([&, p] {
        for (int i = 0; i < kManyJobs; ++i) {
          dispatcher.EnqueueData([&, p, i] {
            if (++inside != 1) overlapped = true;
            ran[p].push_back(i);
            threads.insert(std::this_thread::get_id());
            --inside;
          });
        }
      });
    }
    for (std::thread& producer : producers) producer.join();
    WaitForJobs(dispatcher);
  }
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
  for (const auto& one : ran) EXPECT_EQ(one, UpTo(kManyJobs));
}

TEST_F(MsgDispatcherTest, QueuesACopyOfTheJob) {
  Numbers ran;
  MsgDispatcher dispatcher("name");
  Job job = [&ran] { ran.Add(1); };
  dispatcher.EnqueueData(job);
  EXPECT_TRUE(job);
  job = [&ran] { ran.Add(2); };
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
}

TEST_F(MsgDispatcherTest, TakesJobsWhileOneRuns) {
  Gate gate;
  Numbers ran;
  MsgDispatcher dispatcher("name");
  BlockWorker(dispatcher, gate);
  dispatcher.EnqueueData([&ran] { ran.Add(1); });
  EXPECT_FALSE(dispatcher.isEmptyQueue());
  EXPECT_TRUE(ran.All().empty());
  gate.Open();
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
}

TEST_F(MsgDispatcherTest, LetsAJobQueueAnother) {
  Gate ran;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([&] { dispatcher.EnqueueData([&ran] { ran.Open(); }); });
  EXPECT_TRUE(ran.Wait());
}

TEST_F(MsgDispatcherTest, WakesAnIdleWorkerForAJob) {
  // A worker whose waits outlast this test's patience: only a notification ends them.
  const WaitHook endless = [](clockid_t, timespec& deadline) {
    deadline.tv_sec += static_cast<std::time_t>(2 * fake::kPatience.count());
    return true;
  };
  std::atomic<int> ran = 0;
  MsgDispatcher dispatcher("name");
  HookWaits(dispatcher, endless);
  WaitForJobs(dispatcher);
  // Again and again, since one notification may come before the wait and be lost.
  EXPECT_TRUE(platform.WaitUntil([&] {
    dispatcher.EnqueueData([&ran] { ++ran; });
    return ran > 3;
  }));
  EXPECT_TRUE(platform.WaitUntil([&] {
    dispatcher.Quit();
    return platform.CountLogs("Finished thread running") == 1;
  }));
}

TEST_F(MsgDispatcherTest, StartsAJobWhoseNotificationWasLostWithinASecond) {
  std::promise<std::pair<clockid_t, std::int64_t>> waited;
  Gate ran;
  std::atomic<int> waits = 0;
  MsgDispatcher* target = nullptr;
  const WaitHook loseNotification = [&](clockid_t clock, timespec& deadline) {
    if (++waits > 1) return true;
    // The worker has found the queue empty and does not wait yet.
    target->EnqueueData([&ran] { ran.Open(); });
    waited.set_value({clock, NanosecondsUntil(deadline, clock)});
    return false;  // as if the rest of the time had passed
  };
  MsgDispatcher dispatcher("name");
  target = &dispatcher;
  HookWaits(dispatcher, loseNotification);

  auto result = waited.get_future();
  ASSERT_EQ(result.wait_for(fake::kPatience), std::future_status::ready);
  const auto [clock, remaining] = result.get();
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_LE(remaining, 1'000'000'000);
  EXPECT_GT(remaining, 0);
  EXPECT_TRUE(ran.Wait());
}

TEST_F(MsgDispatcherTest, WakesAnIdleWorkerToEndIt) {
  // The quickest of several counts, so that one delay elsewhere does not.
  auto quickest = std::chrono::milliseconds::max();
  for (int i = 0; i < 3; ++i) {
    std::atomic<pid_t> waiting = 0;
    const WaitHook report = [&waiting](clockid_t, timespec&) {
      waiting = gettid();
      return true;
    };
    auto dispatcher = std::make_unique<MsgDispatcher>("name");
    HookWaits(*dispatcher, report);
    // It is about to wait, and then it does.
    ASSERT_TRUE(platform.WaitUntil([&] { return waiting != 0 && Sleeps(waiting); }));
    const auto start = std::chrono::steady_clock::now();
    dispatcher.reset();
    quickest = std::min(quickest, std::chrono::duration_cast<std::chrono::milliseconds>(
                                      std::chrono::steady_clock::now() - start));
  }
  EXPECT_LT(quickest.count(), 500);
}

TEST_F(MsgDispatcherTest, GoesOnAfterAJobThatThrewAnException) {
  Numbers ran;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([] { throw std::runtime_error("thrown"); });
  dispatcher.EnqueueData([&ran] { ran.Add(1); });
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(Matches(platform.Logs()[0], Line("RunFirstJob", "exception from job : thrown\n")));
}

TEST_F(MsgDispatcherTest, GoesOnAfterAJobThatThrewSomethingElse) {
  Numbers ran;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([] { throw 1; });
  dispatcher.EnqueueData([&ran] { ran.Add(1); });
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
  ASSERT_EQ(platform.Logs().size(), 1U);
  EXPECT_TRUE(
      Matches(platform.Logs()[0], Line("RunFirstJob", "[name] unknown exception from job\n")));
}

TEST_F(MsgDispatcherTest, DropsAnEmptyJobSilently) {
  Numbers ran;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData(Job());
  dispatcher.EnqueueData([&ran] { ran.Add(1); });
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
  EXPECT_TRUE(platform.Logs().empty());
}

TEST_F(MsgDispatcherTest, DestroysAJobOnTheWorkerAfterItRan) {
  Gate gate;
  std::promise<std::thread::id> released;
  std::thread::id worker;
  MsgDispatcher dispatcher("name");
  BlockWorker(dispatcher, gate);
  // Copied while the worker is busy, so that the queue's copy is the last one.
  dispatcher.EnqueueData([&worker, token = MakeToken([&] {
                                     released.set_value(std::this_thread::get_id());
                                   })] { worker = std::this_thread::get_id(); });
  gate.Open();
  auto result = released.get_future();
  ASSERT_EQ(result.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_EQ(result.get(), worker);
}

TEST_F(MsgDispatcherTest, RefusesJobsAfterQuitThoughTheWorkerStillRunsOne) {
  Gate gate;
  std::atomic<int> runs = 0;
  const Job job = [&runs] { ++runs; };
  {
    MsgDispatcher dispatcher("name");
    BlockWorker(dispatcher, gate);
    dispatcher.Quit();
    dispatcher.EnqueueData(job);
    EXPECT_TRUE(job);
    EXPECT_TRUE(dispatcher.isEmptyQueue());
    ASSERT_EQ(platform.Logs().size(), 1U);
    EXPECT_TRUE(Matches(platform.Logs()[0],
                        Line("EnqueueData", "Thread already finished! Can not do enqueue!!\n")));
    gate.Open();
  }
  EXPECT_EQ(runs, 0);
}

TEST_F(MsgDispatcherTest, RefusesJobsAfterTheWorkerEnded) {
  MsgDispatcher dispatcher("name");
  dispatcher.Quit();
  ASSERT_TRUE(WaitForTheEnd());
  platform.ClearTrace();
  dispatcher.EnqueueData([] { ADD_FAILURE() << "a refused job ran"; });
  dispatcher.EnqueueData(Job());
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 2U);
  for (const fake::LogLine& log : logs) {
    EXPECT_TRUE(
        Matches(log, Line("EnqueueData", "Thread already finished! Can not do enqueue!!\n")));
  }
}

TEST_F(MsgDispatcherTest, EndsTheRunningJobAtQuitAndDropsTheQueuedOnesFrontFirst) {
  Gate gate;
  Numbers released;
  std::atomic<int> runs = 0;
  std::atomic<bool> runningEnded = false;
  Gate started;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([&] {
    started.Open();
    runningEnded = gate.Wait();
  });
  ASSERT_TRUE(started.Wait());
  // Ten, and then enough for several blocks of the queue.
  for (int i = 0; i < 10 + kManyJobs; ++i) {
    const auto token = MakeToken([&released, i] { released.Add(i); });
    dispatcher.EnqueueData([token, &runs] { ++runs; });
  }
  dispatcher.Quit();
  EXPECT_TRUE(platform.Logs().empty()) << "Quit must not wait for the worker";
  EXPECT_TRUE(released.All().empty());
  gate.Open();
  ASSERT_TRUE(WaitForTheEnd());

  EXPECT_TRUE(runningEnded);
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(released.All(), UpTo(10 + kManyJobs));
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Line("runDispatchingThread", "[name] ESCAPE!\n")));
  EXPECT_TRUE(Matches(logs[1], Line("runDispatchingThread", "[name] Finished thread running\n")));
}

TEST_F(MsgDispatcherTest, DropsTheQueuedJobsBetweenItsTwoLastLines) {
  Gate gate;
  std::thread::id worker;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([&worker] { worker = std::this_thread::get_id(); });
  BlockWorker(dispatcher, gate);
  dispatcher.EnqueueData([token = MakeToken([] { vconf_set_int("released", 1); })] {});
  dispatcher.Quit();
  gate.Open();
  ASSERT_TRUE(WaitForTheEnd());

  const std::string prefix = "6 THING_COMMON MsgDispatcher.cpp runDispatchingThread ";
  EXPECT_EQ(platform.Summaries(),
            (std::vector<std::string>{prefix + "[name] ESCAPE!", "vconf_set_int(released, 1)",
                                      prefix + "[name] Finished thread running"}));
  for (const fake::Entry& entry : platform.Trace()) EXPECT_EQ(entry.thread, worker);
}

TEST_F(MsgDispatcherTest, StaysFinishedWhenToldToQuitAgain) {
  MsgDispatcher dispatcher("name");
  dispatcher.Quit();
  ASSERT_TRUE(WaitForTheEnd());
  dispatcher.Quit();
  EXPECT_EQ(platform.Logs().size(), 2U);
}

TEST_F(MsgDispatcherTest, ClearsItsQueueOnRequestAndGoesOn) {
  Gate gate;
  Numbers released;
  Numbers ran;
  MsgDispatcher dispatcher("name");
  BlockWorker(dispatcher, gate);
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  for (int i = 0; i < 3; ++i) {
    dispatcher.EnqueueData(
        [token = MakeToken([&released, i] { released.Add(i); }), &ran] { ran.Add(0); });
  }
  EXPECT_FALSE(dispatcher.isEmptyQueue());
  dispatcher.clearData();
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  EXPECT_EQ(released.All(), UpTo(3));
  gate.Open();
  dispatcher.EnqueueData([&ran] { ran.Add(1); });
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
}

TEST_F(MsgDispatcherTest, JoinsTheWorkerInItsDestructorWithTheUsualLines) {
  std::atomic<int> runs = 0;
  std::atomic<bool> runningEnded = false;
  {
    Gate started;
    MsgDispatcher dispatcher("100%s");
    dispatcher.EnqueueData([&] {
      started.Open();
      // Runs until the destructor waits for it.
      EXPECT_TRUE(platform.WaitUntil([&] { return platform.CountLogs("before join") == 1; }));
      runningEnded = true;
    });
    for (int i = 0; i < 10; ++i) dispatcher.EnqueueData([&runs] { ++runs; });
    ASSERT_TRUE(started.Wait());
  }
  EXPECT_TRUE(runningEnded);
  EXPECT_EQ(runs, 0);
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 5U);
  EXPECT_TRUE(Matches(logs[0], Line("~MsgDispatcher", "[100%s] before join\n")));
  EXPECT_TRUE(Matches(logs[1], Line("runDispatchingThread", "[100%s] ESCAPE!\n")));
  EXPECT_TRUE(Matches(logs[2], Line("runDispatchingThread", "[100%s] Finished thread running\n")));
  EXPECT_TRUE(Matches(logs[3], Line("~MsgDispatcher", "[100%s] after join\n")));
  EXPECT_TRUE(Matches(logs[4], Line("~MsgQueue", "MsgQueue destructed\n")));
  EXPECT_EQ(logs[0].format, "%s : %s(%d)  [%s] before join\n");
  EXPECT_EQ(logs[1].format, "%s : %s(%d)  [%s] ESCAPE!\n");
  EXPECT_EQ(logs[2].format, "%s : %s(%d)  [%s] Finished thread running\n");
  EXPECT_EQ(logs[3].format, "%s : %s(%d)  [%s] after join\n");
}

TEST_F(MsgDispatcherTest, DestroysThroughAPointerAfterQuit) {
  auto dispatcher = std::make_unique<MsgDispatcher>("name");
  dispatcher->Quit();
  ASSERT_TRUE(WaitForTheEnd());
  dispatcher.reset();
  EXPECT_EQ(Messages(),
            (std::vector<std::string>{"  [name] ESCAPE!", "  [name] Finished thread running",
                                      "  [name] before join", "  [name] after join",
                                      "  MsgQueue destructed"}));
}

// The address of a private member, by the one context in which the language does not ask whether
// it may be named.
std::thread& WorkerOf(MsgDispatcher& dispatcher);
template <std::thread MsgDispatcher::*member>
struct WorkerAccess {
  friend std::thread& WorkerOf(MsgDispatcher& dispatcher) { return dispatcher.*member; }
};
template struct WorkerAccess<&MsgDispatcher::m_thread>;

TEST_F(MsgDispatcherTest, SaysSoWhenThereIsNoWorkerToJoin) {
  {
    MsgDispatcher dispatcher("name");
    dispatcher.Quit();
    WorkerOf(dispatcher).join();
    platform.ClearTrace();
  }
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Line("~MsgDispatcher", "[name] Not joinable\n")));
  EXPECT_TRUE(Matches(logs[1], Line("~MsgQueue", "MsgQueue destructed\n")));
}

TEST_F(MsgDispatcherTest, PassesOnThatNoThreadCouldBeStarted) {
  {
    const NoThreads noThreads;
    EXPECT_THROW(MsgDispatcher("name"), std::system_error);
  }
  EXPECT_EQ(Messages(), std::vector<std::string>{"  MsgQueue destructed"});
  MsgDispatcher dispatcher("name");
  WaitForJobs(dispatcher);
}

// --- succession ----------------------------------------------------------------------------------

bool IsReady(const std::future<void>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

TEST_F(MsgDispatcherTest, RunsNothingBeforeItsPredecessorHasEndedAndDeletesIt) {
  Gate gate;
  Numbers ran;
  auto first = std::make_unique<MsgDispatcher>("first");
  BlockWorker(*first, gate);
  first->EnqueueData([] { ADD_FAILURE() << "a dropped job ran"; });
  MsgDispatcher second("second", first);
  EXPECT_EQ(first, nullptr);
  std::future<void> gone = second.PredecessorGone();
  second.EnqueueData([&ran] { ran.Add(1); });
  // The second's worker has come to the wait for the first's.
  ASSERT_TRUE(platform.WaitUntil([&] { return platform.CountLogs("[first] before join") == 1; }));
  EXPECT_FALSE(IsReady(gone));
  EXPECT_FALSE(second.isEmptyQueue());

  gate.Open();
  ASSERT_EQ(gone.wait_for(fake::kPatience), std::future_status::ready);
  WaitForJobs(second);
  EXPECT_EQ(ran.All(), std::vector<int>{1});
  EXPECT_EQ(Messages(),
            (std::vector<std::string>{"  [first] before join", "  [first] ESCAPE!",
                                      "  [first] Finished thread running", "  [first] after join",
                                      "  MsgQueue destructed"}));
}

TEST_F(MsgDispatcherTest, HasNothingToWaitForWithoutAPredecessor) {
  std::unique_ptr<MsgDispatcher> nobody;
  MsgDispatcher dispatcher("name", nobody);
  EXPECT_TRUE(IsReady(dispatcher.PredecessorGone()));
  MsgDispatcher other("other");
  EXPECT_TRUE(IsReady(other.PredecessorGone()));
  WaitForJobs(dispatcher);
}

TEST_F(MsgDispatcherTest, RunsJobsOneAtATimeOverAChainOfSuccessors) {
  constexpr int kSuccessors = 5;
  Gate gate;
  Numbers ran;
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  const auto job = [&](int number) {
    most = std::max(most.load(), ++running);
    if (number == 0) {
      EXPECT_TRUE(gate.Wait());
    }
    std::this_thread::yield();
    ran.Add(number);
    --running;
  };
  auto dispatcher = std::make_unique<MsgDispatcher>("0");
  Gate started;
  dispatcher->EnqueueData([&] {
    started.Open();
    job(0);
  });
  ASSERT_TRUE(started.Wait());
  const auto token = std::make_shared<int>();
  for (int i = 1; i <= kSuccessors; ++i) {
    // Stopped before it could begin: what is queued is dropped, and its own successor still waits.
    dispatcher->EnqueueData([token] { ADD_FAILURE() << "a dropped job ran"; });
    dispatcher->Quit();
    dispatcher = std::make_unique<MsgDispatcher>(std::to_string(i), dispatcher);
  }
  for (int i = 1; i <= 3; ++i) dispatcher->EnqueueData([&job, i] { job(i); });
  EXPECT_EQ(platform.CountLogs("after join"), 0U);
  gate.Open();
  WaitForJobs(*dispatcher);

  EXPECT_EQ(ran.All(), UpTo(4));
  EXPECT_EQ(most, 1);
  EXPECT_EQ(token.use_count(), 1);
  EXPECT_EQ(platform.CountLogs("Finished thread running"), std::size_t{kSuccessors});
  EXPECT_EQ(platform.CountLogs("after join"), std::size_t{kSuccessors});
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), std::size_t{kSuccessors});
}

TEST_F(MsgDispatcherTest, JoinsItsPredecessorsAsWellInItsDestructor) {
  Gate started;
  std::atomic<bool> ended = false;
  {
    auto first = std::make_unique<MsgDispatcher>("first");
    first->EnqueueData([&] {
      started.Open();
      // Until the last one's destructor waits.
      EXPECT_TRUE(
          platform.WaitUntil([&] { return platform.CountLogs("[third] before join") == 1; }));
      ended = true;
    });
    ASSERT_TRUE(started.Wait());
    auto second = std::make_unique<MsgDispatcher>("second", first);
    const MsgDispatcher third("third", second);
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 3U);
}

TEST_F(MsgDispatcherTest, LeavesThePredecessorAloneWhenNoThreadCouldBeStarted) {
  auto first = std::make_unique<MsgDispatcher>("first");
  {
    const NoThreads noThreads;
    EXPECT_THROW(MsgDispatcher("second", first), std::system_error);
  }
  ASSERT_NE(first, nullptr);
  WaitForJobs(*first);
}

}  // namespace
}  // namespace ThingCommon
