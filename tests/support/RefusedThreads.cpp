// Preloaded into a program: refuses it one thread, as a system does that has no more. The variable
// REFUSED_THREAD says which, counted from 1 over those that C++ code starts; GLib ends the process
// when it cannot have one of its own.
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<long> g_count{0};

bool isOfCpp(void* caller) {
  Dl_info place{};
  return dladdr(caller, &place) != 0 && place.dli_fname != nullptr &&
         std::strstr(place.dli_fname, "libstdc++") != nullptr;
}

bool isToBeRefused() {
  const char* const number = std::getenv("REFUSED_THREAD");
  return number != nullptr && ++g_count == std::strtol(number, nullptr, 10);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                  const pthread_attr_t* attributes,
                                                  void* (*function)(void*),
                                                  void* argument) noexcept {
  static const auto real =
      reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (isOfCpp(__builtin_return_address(0)) && isToBeRefused()) {
    static_cast<void>(std::fputs("a thread is refused\n", stderr));
    return EAGAIN;
  }
  return real(thread, attributes, function, argument);
}

}  // extern "C"
