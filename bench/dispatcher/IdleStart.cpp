// How long it takes an idle worker to start a job, beside what else runs jobs on one thread:
//
//     idle-start COUNT PAIRS
//
// COUNT samples of each worker, in PAIRS of blocks by turns; the time of a sample is from the call
// that queues the job to the job's first statement. Prints what the blocks took, as JSON:
//
//     {"dispatcher": [{"median_us": 1.0, "p99_us": 1.0}, ...], "thread_pool": [...], ...}
//
// The peers: a GThreadPool of one thread; the main context of a thread, as g_main_context_invoke
// serves it; and "plain", a queue with a mutex and a condition variable, as one writes it by hand.
#include <glib.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Gate.h"
#include "MsgDispatcher.h"
#include "Percentile.h"

namespace {

using Clock = std::chrono::steady_clock;
using Job = std::function<void()>;
using Post = std::function<void(const Job& job)>;

// For the worker to be asleep again.
constexpr std::chrono::microseconds kPause(200);

class ThreadPool {
 public:
  ThreadPool() : m_pool(g_thread_pool_new(&run, nullptr, 1, TRUE, nullptr)) {}
  ~ThreadPool() { g_thread_pool_free(m_pool, FALSE, TRUE); }
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  void Queue(const Job& job) {
    g_thread_pool_push(m_pool, std::make_unique<Job>(job).release(), nullptr);
  }

 private:
  static void run(gpointer data, gpointer /*userData*/) {
    const std::unique_ptr<const Job> job(static_cast<const Job*>(data));
    (*job)();
  }

  GThreadPool* const m_pool;
};

class MainContext {
 public:
  MainContext()
      : m_context(g_main_context_new()),
        m_loop(g_main_loop_new(m_context, FALSE)),
        m_thread([this] { g_main_loop_run(m_loop); }) {}
  ~MainContext() {
    Queue([this] { g_main_loop_quit(m_loop); });
    m_thread.join();
    g_main_loop_unref(m_loop);
    g_main_context_unref(m_context);
  }
  MainContext(const MainContext&) = delete;
  MainContext& operator=(const MainContext&) = delete;

  void Queue(const Job& job) {
    g_main_context_invoke_full(
        m_context, G_PRIORITY_DEFAULT, &run, std::make_unique<Job>(job).release(),
        [](gpointer data) { std::unique_ptr<const Job>(static_cast<const Job*>(data)).reset(); });
  }

 private:
  static gboolean run(gpointer data) {
    (*static_cast<const Job*>(data))();
    return G_SOURCE_REMOVE;
  }

  GMainContext* const m_context;
  GMainLoop* const m_loop;
  std::thread m_thread;
};

class Plain {
 public:
  Plain() : m_thread([this] { run(); }) {}
  ~Plain() {
    Queue(nullptr);
    m_thread.join();
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;

  void Queue(const Job& job) {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_jobs.push_back(job);
    }
    m_changed.notify_one();
  }

 private:
  // Until an empty job.
  void run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      m_changed.wait(lock, [this] { return !m_jobs.empty(); });
      const Job job = std::move(m_jobs.front());
      m_jobs.pop_front();
      if (!job) return;
      lock.unlock();
      job();
      lock.lock();
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Job> m_jobs;
  std::thread m_thread;
};

Json::Value runBlock(std::size_t count, const Post& post) {
  std::vector<double> times;
  for (std::size_t i = 0; i < count; ++i) {
    std::this_thread::sleep_for(kPause);
    Gate done;
    Clock::time_point started;
    const Clock::time_point queued = Clock::now();
    post([&done, &started] {
      started = Clock::now();
      done.Open();
    });
    if (!done.Wait()) throw std::runtime_error("a job was lost");
    times.push_back(std::chrono::duration<double, std::micro>(started - queued).count());
  }
  Json::Value block;
  block["median_us"] = Percentile(times, 50);
  block["p99_us"] = Percentile(times, 99);
  return block;
}

Json::Value measure(std::size_t count, std::size_t pairs) {
  ThingCommon::MsgDispatcher dispatcher("bench");
  ThreadPool pool;
  MainContext context;
  Plain plain;
  std::vector<std::pair<const char*, Post>> workers = {
      {"dispatcher", [&dispatcher](const Job& job) { dispatcher.EnqueueData(job); }},
      {"thread_pool", [&pool](const Job& job) { pool.Queue(job); }},
      {"main_context", [&context](const Job& job) { context.Queue(job); }},
      {"plain", [&plain](const Job& job) { plain.Queue(job); }}};
  Json::Value result;
  for (std::size_t i = 0; i < pairs; ++i) {
    for (const auto& [name, post] : workers) result[name].append(runBlock(count / pairs, post));
    // So that nothing that grows or falls is always to the advantage of the same ones.
    std::reverse(workers.begin(), workers.end());
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 3) throw std::runtime_error("usage: idle-start COUNT PAIRS");
    std::cout << measure(std::stoul(argv[1]), std::stoul(argv[2])) << std::endl;
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "idle-start: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
