#ifndef COMMON_CLEANUP_H
#define COMMON_CLEANUP_H

#include <exception>
#include <utility>

namespace ThingCommon {

// Runs every step of a clean-up, whatever earlier steps throw. The first exception can be rethrown
// afterwards; later ones are dropped.
//
// For one thread. Only RethrowFirst throws.
class CleanUp {
 public:
  CleanUp() = default;
  CleanUp(const CleanUp&) = delete;
  CleanUp& operator=(const CleanUp&) = delete;

  template <typename Step>
  void Run(Step&& step) noexcept {
    try {
      std::forward<Step>(step)();
    } catch (...) {
      if (!m_first) m_first = std::current_exception();
    }
  }

  // Returns when no step has thrown.
  void RethrowFirst() {
    if (m_first) std::rethrow_exception(std::exchange(m_first, nullptr));
  }

 private:
  std::exception_ptr m_first;
};

}  // namespace ThingCommon

#endif  // COMMON_CLEANUP_H
