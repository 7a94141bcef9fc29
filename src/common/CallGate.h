#ifndef COMMON_CALLGATE_H
#define COMMON_CALLGATE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ThingCommon {

// Counts the calls from outside that are inside an object now, so that its end can wait for them.
//
// Any thread may pass. A call that has not come as far as its Pass, or is past its end, is not
// counted: what calls must have been told to stop before.
class CallGate {
 public:
  CallGate() = default;
  CallGate(const CallGate&) = delete;
  CallGate& operator=(const CallGate&) = delete;

  // One call, for as long as this lives. A null gate is allowed and counts nothing.
  class Pass {
   public:
    explicit Pass(CallGate* gate) : m_gate(gate) {
      if (m_gate == nullptr) return;
      const std::lock_guard<std::mutex> lock(m_gate->m_mutex);
      ++m_gate->m_inside;
    }
    ~Pass() {
      if (m_gate == nullptr) return;
      // Notified with the lock held: once it is free, the gate may be gone.
      const std::lock_guard<std::mutex> lock(m_gate->m_mutex);
      --m_gate->m_inside;
      m_gate->m_left.notify_all();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    CallGate* m_gate;
  };

  // Waits until nobody is inside.
  void WaitUntilEmpty() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_left.wait(lock, [this] { return m_inside == 0; });
  }

  // The same, for `timeout` at most; true when nobody is inside.
  bool WaitUntilEmpty(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_left.wait_for(lock, timeout, [this] { return m_inside == 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_left;
  unsigned m_inside = 0;  // guarded by m_mutex
};

}  // namespace ThingCommon

#endif  // COMMON_CALLGATE_H
