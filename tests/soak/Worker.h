#ifndef TESTS_SOAK_WORKER_H
#define TESTS_SOAK_WORKER_H

#include <atomic>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "Tally.h"

namespace Soak {

// Work on a thread of its own, told to stop and waited for when the object ends. What the work
// throws is a mismatch.
class Worker {
 public:
  using Work = std::function<void(const std::atomic<bool>& stop)>;

  Worker(const std::string& name, Work work, Tally& tally)
      : m_thread([this, name, work = std::move(work), &tally] {
          try {
            work(m_stop);
          } catch (const std::exception& error) {
            tally.Mismatch(name + " gives up: " + error.what());
          }
        }) {}
  ~Worker() {
    m_stop = true;
    m_thread.join();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

 private:
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

}  // namespace Soak

#endif  // TESTS_SOAK_WORKER_H
