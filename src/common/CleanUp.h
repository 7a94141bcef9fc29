#ifndef COMMON_CLEANUP_H
#define COMMON_CLEANUP_H

#include <exception>
#include <utility>

namespace ThingCommon {

// The steps of a clean-up: each is made, whatever those before it have thrown. The first exception
// can go on afterwards; those behind it are dropped, since only one can.
//
// For one thread. Throws nowhere but in RethrowFirst.
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
