#ifndef TESTS_SUPPORT_NOTHREADS_H
#define TESTS_SUPPORT_NOTHREADS_H

#include <pthread.h>

#include <cstddef>
#include <limits>

// No thread can be started while it lives: none gets so large a stack.
class NoThreads {
 public:
  NoThreads() {
    // Half of the addresses may be free, on 32 bits.
    constexpr std::size_t kPageBytes = 4096;
    constexpr std::size_t kTooLarge = std::numeric_limits<std::size_t>::max() / 4 * 3 / kPageBytes;
    pthread_attr_t large;
    pthread_getattr_default_np(&m_before);
    pthread_getattr_default_np(&large);
    pthread_attr_setstacksize(&large, kTooLarge * kPageBytes);
    pthread_setattr_default_np(&large);
    pthread_attr_destroy(&large);
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

#endif  // TESTS_SUPPORT_NOTHREADS_H
