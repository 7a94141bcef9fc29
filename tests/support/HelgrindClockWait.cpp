// Preloaded into a program that runs in helgrind, which does not know pthread_cond_clockwait, the
// function that the C++ library waits with, and would take the mutex for held during the wait. The
// function that it does know stands in, with the time until the deadline on its clock.
#include <pthread.h>

#include <chrono>
#include <ctime>

namespace {

std::chrono::nanoseconds toDuration(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::chrono::nanoseconds timeOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return toDuration(now);
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_cond_clockwait(pthread_cond_t* condition,
                                                                     pthread_mutex_t* mutex,
                                                                     clockid_t clock,
                                                                     const timespec* deadline) {
  const std::chrono::nanoseconds time =
      toDuration(*deadline) - timeOf(clock) + timeOf(CLOCK_REALTIME);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const timespec converted{static_cast<std::time_t>(seconds.count()),
                           static_cast<long>((time - seconds).count())};
  return pthread_cond_timedwait(condition, mutex, &converted);
}
