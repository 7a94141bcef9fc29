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
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Gate.h"
#include "NoThreads.h"
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

// `format` may be left out where it is the message.
ExpectedLog Line(const std::string& function, const std::string& message,
                 const std::string& format = "") {
  return {6, "THING_COMMON", "MsgDispatcher.cpp", function, message, 0, format};
}

const ExpectedLog kQueueDestructed = Line("~MsgQueue", "MsgQueue destructed\n");
const ExpectedLog kRefused = Line("EnqueueData", "Thread already finished! Can not do enqueue!!\n");

// A line of the dispatcher of that name.
ExpectedLog Named(const std::string& function, const std::string& name,
                  const std::string& message) {
  return Line(function, "[" + name + "] " + message, "[%s] " + message);
}

const std::string kBody = "runDispatchingThread";
const std::string kEnd = "~MsgDispatcher";
const auto Escapes = [](const std::string& name) { return Named(kBody, name, "ESCAPE!\n"); };
const auto Finished = [](const std::string& name) {
  return Named(kBody, name, "Finished thread running\n");
};
const auto BeforeJoin = [](const std::string& name) { return Named(kEnd, name, "before join\n"); };
const auto AfterJoin = [](const std::string& name) { return Named(kEnd, name, "after join\n"); };

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

// --- the queue -----------------------------------------------------------------------------------

class MsgQueueTest : public PlatformTest {
 protected:
  MsgDispatcher::MsgQueue queue{"%s"};
};

TEST_F(MsgQueueTest, KeepsCopiesOfJobsInTheOrderOfTheirComing) {
  std::vector<int> ran;
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(queue.Size(), 0U);
  Job job = [&ran] { ran.push_back(1); };
  queue.Push(job);
  EXPECT_TRUE(job) << "the caller's job must stay whole";
  job = [&ran] { ran.push_back(2); };
  queue.Push(job);

  EXPECT_FALSE(queue.IsEmpty());
  EXPECT_EQ(queue.Size(), 2U);
  queue.Front()();
  queue.Pop();
  EXPECT_EQ(queue.Size(), 1U);
  queue.Front()();
  queue.Pop();
  EXPECT_TRUE(queue.IsEmpty());
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST_F(MsgQueueTest, RunsTheFrontJobAndNoOtherAndDropsAnEmptyOneSilently) {
  std::vector<int> ran;
  queue.RunFirstJob();
  EXPECT_TRUE(queue.IsEmpty());
  queue.Push([&ran] { ran.push_back(1); });
  queue.Push(Job());
  queue.Push([&ran] { ran.push_back(2); });
  queue.RunFirstJob();
  queue.RunFirstJob();
  EXPECT_EQ(ran, std::vector<int>{1});
  EXPECT_EQ(queue.Size(), 1U);
  EXPECT_TRUE(LoggedExactly({}));
}

TEST_F(MsgQueueTest, HoldsNoLockWhileAJobRunsOrIsDestroyed) {
  std::vector<std::future<std::size_t>> sizes;
  // On another thread, for which this one waits.
  const Job askForSize = [this, &sizes] {
    sizes.push_back(std::async(std::launch::async, [this] { return queue.Size(); }));
    EXPECT_EQ(sizes.back().wait_for(fake::kPatience), std::future_status::ready);
  };
  queue.Push([&askForSize, token = MakeToken(askForSize)] { askForSize(); });
  queue.RunFirstJob();
  ASSERT_EQ(sizes.size(), 2U) << "in the job, and in its destruction";
  for (auto& size : sizes) EXPECT_EQ(size.get(), 0U);
}

TEST_F(MsgQueueTest, LogsWhatAJobThrowsThenDestroysItAndReturns) {
  queue.Push([token = MakeToken([] { vconf_set_int("released", 1); })] {
    throw std::runtime_error("100%d");
  });
  queue.Push([token = MakeToken([] { vconf_set_int("released", 2); })] { throw 1; });
  queue.Push([token = MakeToken([] { vconf_set_int("released", 3); })] {});
  for (int i = 0; i < 3; ++i) EXPECT_NO_THROW(queue.RunFirstJob());

  EXPECT_TRUE(LoggedExactly(
      {Line("RunFirstJob", "exception from job : 100%d\n", "exception from job : %s\n"),
       Line("RunFirstJob", "[%s] unknown exception from job\n",
            "[%s] unknown exception from job\n")}));
  const std::string line = "6 THING_COMMON MsgDispatcher.cpp RunFirstJob ";
  EXPECT_EQ(
      platform.Summaries(),
      (std::vector<std::string>{line + "exception from job : 100%d", "vconf_set_int(released, 1)",
                                line + "[%s] unknown exception from job",
                                "vconf_set_int(released, 2)", "vconf_set_int(released, 3)"}));
}

TEST_F(MsgQueueTest, DropsItsJobsUnrunFrontFirstWhenClearedOrAfterTheLineOfItsDestruction) {
  for (const bool isCleared : {true, false}) {
    SCOPED_TRACE(isCleared);
    platform.ClearTrace();
    std::vector<int> released;
    {
      MsgDispatcher::MsgQueue dropping("queue");
      for (int i = 0; i < kManyJobs; ++i) {
        const auto token = MakeToken([this, isCleared, &released, i] {
          EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), isCleared ? 0U : 1U);
          released.push_back(i);
        });
        dropping.Push([token] { ADD_FAILURE() << "a dropped job ran"; });
      }
      if (isCleared) {
        dropping.Clear();
        EXPECT_TRUE(dropping.IsEmpty());
        EXPECT_EQ(released, UpTo(kManyJobs));
        EXPECT_TRUE(LoggedExactly({}));
      }
    }
    EXPECT_TRUE(LoggedExactly({kQueueDestructed}));
    EXPECT_EQ(released, UpTo(kManyJobs));
  }
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

  bool WaitForLog(const std::string& message) {
    return platform.WaitUntil([&] { return platform.CountLogs(message) == 1; });
  }

  // Waits until the worker has left its loop for good; there is only one.
  bool WaitForTheEnd() { return WaitForLog("Finished thread running"); }

  // Sets the hook for the worker's waits from the next one on.
  void HookWaits(MsgDispatcher& dispatcher, const WaitHook& hook) {
    dispatcher.EnqueueData([&hook] { t_waitHook = &hook; });
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
    std::vector<std::future<void>> producers;
    for (std::vector<int>& own : ran) {
      producers.push_back(std::async(std::launch::async, [&] {
        for (int i = 0; i < kManyJobs; ++i) {
          dispatcher.EnqueueData([&, i] {
            if (++inside != 1) overlapped = true;
            own.push_back(i);
            threads.insert(std::this_thread::get_id());
            --inside;
          });
        }
      }));
    }
    for (auto& producer : producers) producer.wait();
    WaitForJobs(dispatcher);
  }
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
  for (const auto& own : ran) EXPECT_EQ(own, UpTo(kManyJobs));
}

TEST_F(MsgDispatcherTest, TakesCopiesOfJobsWhileOneRunsAndClearsThemOnRequest) {
  Gate gate;
  std::vector<int> ran;
  MsgDispatcher dispatcher("name");
  BlockWorker(dispatcher, gate);
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  bool released = false;
  dispatcher.EnqueueData(
      [&ran, token = MakeToken([&released] { released = true; })] { ran.push_back(0); });
  EXPECT_FALSE(dispatcher.isEmptyQueue());
  dispatcher.clearData();
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  EXPECT_TRUE(released);

  Job job = [&ran] { ran.push_back(1); };
  dispatcher.EnqueueData(job);
  EXPECT_TRUE(job);
  job = [&ran] { ran.push_back(2); };
  EXPECT_TRUE(ran.empty());
  gate.Open();
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran, std::vector<int>{1});
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

TEST_F(MsgDispatcherTest, GoesOnAfterAJobThatThrewOrWasEmpty) {
  std::vector<int> ran;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([] { throw std::runtime_error("thrown"); });
  dispatcher.EnqueueData([&ran] { ran.push_back(1); });
  dispatcher.EnqueueData([] { throw 1; });
  dispatcher.EnqueueData([&ran] { ran.push_back(2); });
  dispatcher.EnqueueData(Job());
  dispatcher.EnqueueData([&ran] { ran.push_back(3); });
  WaitForJobs(dispatcher);
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(LoggedExactly({Line("RunFirstJob", "exception from job : thrown\n"),
                             Line("RunFirstJob", "[name] unknown exception from job\n")}));
}

TEST_F(MsgDispatcherTest, RefusesJobsAfterQuitWhetherTheWorkerStillRunsOneOrHasEnded) {
  Gate gate;
  const Job job = [] { ADD_FAILURE() << "a refused job ran"; };
  MsgDispatcher dispatcher("name");
  BlockWorker(dispatcher, gate);
  dispatcher.Quit();
  dispatcher.EnqueueData(job);
  EXPECT_TRUE(job);
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  EXPECT_TRUE(LoggedExactly({kRefused}));

  gate.Open();
  ASSERT_TRUE(WaitForTheEnd());
  platform.ClearTrace();
  dispatcher.Quit();  // once more
  dispatcher.EnqueueData(job);
  dispatcher.EnqueueData(Job());
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  EXPECT_TRUE(LoggedExactly({kRefused, kRefused}));
}

TEST_F(MsgDispatcherTest, EndsTheRunningJobAtQuitAndDropsTheQueuedOnesBetweenItsTwoLastLines) {
  constexpr int kJobs = 10 + kManyJobs;  // ten, and then enough for several blocks of the queue
  Gate gate;
  Gate started;
  std::vector<int> released;
  std::atomic<bool> runningEnded = false;
  std::thread::id worker;
  MsgDispatcher dispatcher("name");
  dispatcher.EnqueueData([&] {
    worker = std::this_thread::get_id();
    started.Open();
    runningEnded = gate.Wait();
  });
  ASSERT_TRUE(started.Wait());
  for (int i = 0; i < kJobs; ++i) {
    const auto token = MakeToken([&released, i] {
      if (i == 0 || i == kJobs - 1) vconf_set_int("released", i);
      released.push_back(i);
    });
    dispatcher.EnqueueData([token] { ADD_FAILURE() << "a dropped job ran"; });
  }
  dispatcher.Quit();
  EXPECT_TRUE(platform.Trace().empty()) << "Quit must not wait for the worker";
  EXPECT_TRUE(released.empty());
  gate.Open();
  ASSERT_TRUE(WaitForTheEnd());

  EXPECT_TRUE(runningEnded);
  EXPECT_EQ(released, UpTo(kJobs));
  EXPECT_TRUE(dispatcher.isEmptyQueue());
  EXPECT_TRUE(LoggedExactly({Escapes("name"), Finished("name")}));
  const std::string prefix = "6 THING_COMMON MsgDispatcher.cpp runDispatchingThread ";
  EXPECT_EQ(platform.Summaries(),
            (std::vector<std::string>{prefix + "[name] ESCAPE!", "vconf_set_int(released, 0)",
                                      "vconf_set_int(released, 209)",
                                      prefix + "[name] Finished thread running"}));
  for (const fake::Entry& entry : platform.Trace()) EXPECT_EQ(entry.thread, worker);
}

TEST_F(MsgDispatcherTest, JoinsTheWorkerInItsDestructorWithTheUsualLines) {
  std::atomic<bool> runningEnded = false;
  {
    Gate started;
    MsgDispatcher dispatcher("100%s");
    dispatcher.EnqueueData([&] {
      started.Open();
      // Runs until the destructor waits for it.
      EXPECT_TRUE(WaitForLog("before join"));
      runningEnded = true;
    });
    for (int i = 0; i < 10; ++i) {
      dispatcher.EnqueueData([] { ADD_FAILURE() << "a dropped job ran"; });
    }
    ASSERT_TRUE(started.Wait());
  }
  EXPECT_TRUE(runningEnded);
  EXPECT_TRUE(LoggedExactly({BeforeJoin("100%s"), Escapes("100%s"), Finished("100%s"),
                             AfterJoin("100%s"), kQueueDestructed}));
}

TEST_F(MsgDispatcherTest, SaysSoWhenThereIsNoWorkerToJoin) {
  {
    MsgDispatcher dispatcher("name");
    dispatcher.Quit();
    dispatcher.m_thread.join();
    platform.ClearTrace();
  }
  EXPECT_TRUE(LoggedExactly({Named(kEnd, "name", "Not joinable\n"), kQueueDestructed}));
}

TEST_F(MsgDispatcherTest, PassesOnThatNoThreadCouldBeStartedAndLeavesThePredecessorAlone) {
  auto first = std::make_unique<MsgDispatcher>("first");
  {
    const NoThreads noThreads;
    EXPECT_THROW(MsgDispatcher("name"), std::system_error);
    EXPECT_THROW(MsgDispatcher("second", first), std::system_error);
  }
  EXPECT_TRUE(LoggedExactly({kQueueDestructed, kQueueDestructed}));
  ASSERT_NE(first, nullptr);
  WaitForJobs(*first);
  MsgDispatcher dispatcher("name");
  WaitForJobs(dispatcher);
}

// --- succession ----------------------------------------------------------------------------------

bool IsReady(const std::future<void>& future) {
  return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

TEST_F(MsgDispatcherTest, RunsNothingBeforeItsPredecessorHasEndedAndDeletesIt) {
  Gate gate;
  std::vector<int> ran;
  auto first = std::make_unique<MsgDispatcher>("first");
  BlockWorker(*first, gate);
  first->EnqueueData([] { ADD_FAILURE() << "a dropped job ran"; });
  MsgDispatcher second("second", first);
  EXPECT_EQ(first, nullptr);
  std::future<void> gone = second.PredecessorGone();
  second.EnqueueData([&ran] { ran.push_back(1); });
  // The second's worker has come to the wait for the first's.
  ASSERT_TRUE(WaitForLog("[first] before join"));
  EXPECT_FALSE(IsReady(gone));
  EXPECT_FALSE(second.isEmptyQueue());

  gate.Open();
  ASSERT_EQ(gone.wait_for(fake::kPatience), std::future_status::ready);
  WaitForJobs(second);
  EXPECT_EQ(ran, std::vector<int>{1});
  EXPECT_TRUE(LoggedExactly({BeforeJoin("first"), Escapes("first"), Finished("first"),
                             AfterJoin("first"), kQueueDestructed}));
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
  constexpr std::size_t kSuccessors = 5;
  Gate started;
  Gate gate;
  std::vector<int> ran;
  std::atomic<bool> ended = false;
  auto dispatcher = std::make_unique<MsgDispatcher>("0");
  dispatcher->EnqueueData([&] {
    started.Open();
    EXPECT_TRUE(gate.Wait());
    std::this_thread::yield();
    ended = true;
  });
  ASSERT_TRUE(started.Wait());
  const auto token = std::make_shared<int>();
  for (std::size_t i = 1; i <= kSuccessors; ++i) {
    // Stopped before it could begin: what is queued is dropped, and its own successor still waits.
    dispatcher->EnqueueData([token] { ADD_FAILURE() << "a dropped job ran"; });
    dispatcher->Quit();
    dispatcher = std::make_unique<MsgDispatcher>(std::to_string(i), dispatcher);
  }
  for (int i = 0; i < 3; ++i) {
    dispatcher->EnqueueData([&, i] {
      EXPECT_TRUE(ended);
      ran.push_back(i);
    });
  }
  EXPECT_EQ(platform.CountLogs("after join"), 0U);
  gate.Open();
  WaitForJobs(*dispatcher);
  EXPECT_EQ(ran, UpTo(3));
  EXPECT_EQ(token.use_count(), 1);
  for (const std::string line : {"Finished thread running", "after join", "MsgQueue destructed"}) {
    EXPECT_EQ(platform.CountLogs(line), kSuccessors) << line;
  }
}

TEST_F(MsgDispatcherTest, JoinsItsPredecessorsAsWellInItsDestructor) {
  Gate started;
  std::atomic<bool> ended = false;
  {
    auto first = std::make_unique<MsgDispatcher>("first");
    first->EnqueueData([&] {
      started.Open();
      // Until the last one's destructor waits.
      EXPECT_TRUE(WaitForLog("[third] before join"));
      ended = true;
    });
    ASSERT_TRUE(started.Wait());
    auto second = std::make_unique<MsgDispatcher>("second", first);
    const MsgDispatcher third("third", second);
  }
  EXPECT_TRUE(ended);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 3U);
}

}  // namespace
}  // namespace ThingCommon
