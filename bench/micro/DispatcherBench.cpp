// One worker thread and its queue: MsgDispatcher, an asio thread pool of one, a GThreadPool of one.
//
//   dispatcher_jobs  from the first job's enqueueing until all have run, with 1 and 4 producers
//   dispatcher_idle  from a job's enqueueing until it starts, while the worker has nothing to do:
//                    the time is the median; median_us, p99_us, samples and late say more
//
// A job that MsgDispatcher's worker overlooks on its way to sleep runs up to a second late. That is
// rare and has nothing to do with the usual cost, so it is counted and not averaged in: the jobs
// are run again (late_starts), the sample is left out (late). The peers are judged alike.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks.h"
#include "MsgDispatcher.h"

namespace Micro {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;
using Seconds = std::chrono::duration<double>;

constexpr std::size_t kMaxProducers = 4;
constexpr std::size_t kJobs = 100'000;  // may all be queued at once: some 10 MB
constexpr int kMaxLateStarts = 5;       // in a row
constexpr std::size_t kSamples = 2000;
constexpr std::chrono::microseconds kPause(200);
constexpr std::chrono::milliseconds kLate(500);
constexpr std::chrono::milliseconds kLook(50);  // how often progress is looked at
constexpr std::chrono::seconds kLimit(10);      // without progress

// Counts the jobs that have run and notes when the last one did. One thread waits, the worker
// counts; what the jobs have to do with each other is handed over by the queue that is measured.
class Tally {
 public:
  // Before the first of these jobs is queued, and after the last of those before has run.
  void Expect(std::size_t producers, std::size_t jobsEach) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_expected = producers * jobsEach;
    m_ran.store(0, std::memory_order_relaxed);
    m_next.fill(0);
    m_end.reset();
  }

  // The worker has come to the job with this number, from 0, of this producer.
  void Count(std::size_t producer, std::size_t number) {
    if (number != m_next[producer]) m_inOrder.store(false, std::memory_order_relaxed);
    ++m_next[producer];
    const std::size_t ran = m_ran.load(std::memory_order_relaxed) + 1;
    m_ran.store(ran, std::memory_order_relaxed);
    if (ran != m_expected) return;
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_end = now;
    m_changed.notify_all();
  }

  struct Result {
    Clock::time_point end;  // when the last job ran
    bool stalled;           // there was a time longer than kLate in which none did
  };

  // Waits for the last job. Nothing when jobs were lost or ran out of a producer's order.
  std::optional<Result> Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    bool stalled = false;
    std::size_t ranBefore = 0;
    Clock::time_point progress = Clock::now();
    while (!m_changed.wait_for(lock, kLook, [this] { return m_end.has_value(); })) {
      const Clock::time_point now = Clock::now();
      const std::size_t ran = m_ran.load(std::memory_order_relaxed);
      if (ran != ranBefore) progress = now;
      ranBefore = ran;
      if (now - progress > kLate) stalled = true;
      if (now - progress > kLimit) return std::nullopt;
    }
    if (!m_inOrder.load(std::memory_order_relaxed)) return std::nullopt;
    return Result{*m_end, stalled};
  }

 private:
  std::atomic<std::size_t> m_ran{0};  // written by the worker alone, so no read-modify-write
  std::atomic<bool> m_inOrder{true};
  std::size_t m_expected = 0;                       // unchanged while jobs run
  std::array<std::size_t, kMaxProducers> m_next{};  // the worker's while jobs run

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::optional<Clock::time_point> m_end;  // guarded by m_mutex
};

// Like a request's job a little larger than what std::function keeps without the heap.
struct Job {
  Tally* tally;
  std::size_t producer;
  std::size_t number;

  void operator()() const { tally->Count(producer, number); }
};

class Ours {
 public:
  static constexpr const char* kName = "ours";
  void Post(const Job& job) { m_dispatcher.EnqueueData(job); }

 private:
  ThingCommon::MsgDispatcher m_dispatcher{"bench"};
};

class Asio {
 public:
  static constexpr const char* kName = "asio";
  void Post(const Job& job) { boost::asio::post(m_pool, job); }

 private:
  boost::asio::thread_pool m_pool{1};
};

class GLib {
 public:
  static constexpr const char* kName = "glib";
  GLib() {
    GError* error = nullptr;
    m_pool.reset(g_thread_pool_new(&GLib::run, nullptr, 1, TRUE, &error));
    if (error == nullptr) return;
    g_error_free(error);
    throw std::runtime_error("no thread for a GThreadPool");
  }
  // The pool takes pointers; run deletes what they point to.
  void Post(const Job& job) {
    g_thread_pool_push(m_pool.get(), std::make_unique<Job>(job).release(), nullptr);
  }

 private:
  struct Free {
    void operator()(GThreadPool* pool) const { g_thread_pool_free(pool, FALSE, TRUE); }
  };

  static void run(gpointer data, gpointer /*userData*/) {
    const std::unique_ptr<const Job> job(static_cast<Job*>(data));
    (*job)();
  }

  std::unique_ptr<GThreadPool, Free> m_pool;
};

// Queues the jobs, each producer its own on a thread of its own. Returns when all are queued, with
// the time at which the first producer began.
template <typename Worker>
Clock::time_point produce(Worker& worker, Tally& tally, std::size_t producers,
                          std::size_t jobsEach) {
  std::vector<std::future<Clock::time_point>> starts;  // outlives the gate, which lets them end
  std::promise<void> gate;
  const std::shared_future<void> opened(gate.get_future());
  for (std::size_t producer = 0; producer < producers; ++producer) {
    starts.push_back(std::async(std::launch::async, [&worker, &tally, opened, producer, jobsEach] {
      opened.wait();
      const Clock::time_point start = Clock::now();
      for (std::size_t number = 0; number < jobsEach; ++number) {
        worker.Post({&tally, producer, number});
      }
      return start;
    }));
  }
  gate.set_value();
  Clock::time_point first = Clock::time_point::max();
  for (std::future<Clock::time_point>& start : starts) first = std::min(first, start.get());
  return first;
}

template <typename Worker>
void dispatcherJobs(benchmark::State& state) {
  const auto producers = static_cast<std::size_t>(state.range(0));
  const std::size_t jobsEach = kJobs / producers;
  Tally tally;  // outlives the worker
  Worker worker;
  int lateStarts = 0;
  for (auto _ : state) {
    for (int lateInARow = 0;; ++lateInARow) {
      tally.Expect(producers, jobsEach);
      const Clock::time_point start = produce(worker, tally, producers, jobsEach);
      const std::optional<Tally::Result> result = tally.Wait();
      if (!result) return state.SkipWithError("jobs were lost or ran out of order");
      if (!result->stalled) {
        state.SetIterationTime(Seconds(result->end - start).count());
        break;
      }
      ++lateStarts;
      if (lateInARow == kMaxLateStarts) return state.SkipWithError("late again and again");
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(producers * jobsEach));
  state.counters["late_starts"] = lateStarts;
}

template <typename Worker>
void dispatcherIdle(benchmark::State& state) {
  Tally tally;  // outlives the worker
  Worker worker;
  std::vector<Microseconds> times;
  times.reserve(kSamples);
  for (auto _ : state) {
    times.clear();
    for (std::size_t i = 0; i < kSamples; ++i) {
      std::this_thread::sleep_for(kPause);
      tally.Expect(1, 1);
      const Clock::time_point start = Clock::now();
      worker.Post({&tally, 0, 0});
      const std::optional<Tally::Result> result = tally.Wait();
      if (!result) return state.SkipWithError("a job was lost");
      if (result->end - start <= kLate) times.emplace_back(result->end - start);
    }
    if (times.empty()) return state.SkipWithError("all jobs were late");
    std::sort(times.begin(), times.end());
    const Microseconds median = times[times.size() / 2];
    state.SetIterationTime(Seconds(median).count());
    state.counters["median_us"] = median.count();
    state.counters["p99_us"] = times[(times.size() * 99 + 99) / 100 - 1].count();
    state.counters["samples"] = static_cast<double>(times.size());
    state.counters["late"] = static_cast<double>(kSamples - times.size());
  }
}

template <typename Worker>
void registerWorker() {
  const std::string jobs = std::string("dispatcher_jobs/") + Worker::kName;
  benchmark::RegisterBenchmark(jobs.c_str(), dispatcherJobs<Worker>)
      ->Arg(1)
      ->Arg(4)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  const std::string idle = std::string("dispatcher_idle/") + Worker::kName;
  benchmark::RegisterBenchmark(idle.c_str(), dispatcherIdle<Worker>)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace

void RegisterDispatcherBenchmarks() {
  registerWorker<Ours>();
  registerWorker<Asio>();
  registerWorker<GLib>();
}

}  // namespace Micro
