#ifndef COMMON_CALLGATE_H
#define COMMON_CALLGATE_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace ThingCommon {

// Keeps track of the calls from outside that are inside an object, so that its end can wait for
// them, and name those that it did not wait for.
//
// Any thread may pass. A call is known from the beginning of its Pass to the end, so callers must
// have been told to stop before the wait. A call that is still inside when the gate is destroyed
// uses destroyed objects: after a vain wait, go on only at the end of the process, where the
// alternative is to hang.
class CallGate {
 public:
  CallGate() = default;
  CallGate(const CallGate&) = delete;
  CallGate& operator=(const CallGate&) = delete;

  // One call, for as long as this lives. A null gate is allowed and ignored. The call's name, by
  // default that of the calling function, is a literal: it is not copied.
  class Pass {
   public:
    explicit Pass(CallGate* gate, const char* name = __builtin_FUNCTION())
        : m_gate(gate), m_name(name) {
      if (m_gate == nullptr) return;
      const std::lock_guard<std::mutex> lock(m_gate->m_mutex);
      m_next = m_gate->m_first;
      if (m_next != nullptr) m_next->m_previous = this;
      m_gate->m_first = this;
    }
    ~Pass() {
      if (m_gate == nullptr) return;
      // Notified with the lock held: once it is free, the gate may be destroyed.
      const std::lock_guard<std::mutex> lock(m_gate->m_mutex);
      (m_previous != nullptr ? m_previous->m_next : m_gate->m_first) = m_next;
      if (m_next != nullptr) m_next->m_previous = m_previous;
      m_gate->m_left.notify_all();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    friend class CallGate;

    CallGate* m_gate;
    const char* m_name;
    // The gate's list; guarded by its lock. A call's own pass may be constant all the same.
    mutable const Pass* m_previous = nullptr;
    mutable const Pass* m_next = nullptr;
  };

  // Waits until nobody is inside, `timeout` at most; true when nobody is.
  bool WaitUntilEmpty(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_left.wait_for(lock, timeout, [this] { return m_first == nullptr; });
  }

  // The names of the calls that are inside, the latest first: "a, b"; empty when nobody is.
  std::string Inside() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::string names;
    for (const Pass* pass = m_first; pass != nullptr; pass = pass->m_next) {
      if (!names.empty()) names += ", ";
      names += pass->m_name;
    }
    return names;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_left;
  const Pass* m_first = nullptr;  // of those inside, the latest; guarded by m_mutex
};

}  // namespace ThingCommon

#endif  // COMMON_CALLGATE_H
