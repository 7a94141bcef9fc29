// What one start and one stop take, in microseconds, in a process of its own:
//
//     start-time plugin FILE   from CreatePlugin until the settings key is 1, and DestroyPlugin
//     start-time bare NAME     from asking for the name until it is there, and giving it up
#include <dlfcn.h>
#include <gio/gio.h>
#include <unistd.h>
#include <vconf.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "BareService.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kLimitSeconds = 60;

std::optional<Clock::time_point> g_ready;

long long microseconds(Clock::duration time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

void report(Clock::time_point start, Clock::time_point stop) {
  std::printf("%lld %lld\n", microseconds(*g_ready - start), microseconds(Clock::now() - stop));
}

void runUntilReady() {
  while (!g_ready) g_main_context_iteration(nullptr, TRUE);
}

int timeBareService(const char* name) {
  const Clock::time_point start = Clock::now();
  auto service = std::make_unique<BareService>(name, [] { g_ready = Clock::now(); });
  runUntilReady();
  const Clock::time_point stop = Clock::now();
  service.reset();
  report(start, stop);
  return EXIT_SUCCESS;
}

int timePlugin(const char* file) {
  void* const plugin = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "start-time: %s\n", dlerror());
    return EXIT_FAILURE;
  }
  using Entry = bool (*)();
  const auto create = reinterpret_cast<Entry>(dlsym(plugin, "CreatePlugin"));
  const auto destroy = reinterpret_cast<Entry>(dlsym(plugin, "DestroyPlugin"));
  const Clock::time_point start = Clock::now();
  if (!create()) return EXIT_FAILURE;
  runUntilReady();
  const Clock::time_point stop = Clock::now();
  if (!destroy()) return EXIT_FAILURE;
  report(start, stop);
  std::fflush(stdout);
  dlclose(plugin);
  return EXIT_SUCCESS;
}

}  // namespace

// Instead of the platform's settings store: the plug-in says here that it is ready.
[[gnu::visibility("default")]] int vconf_set_int(const char* /*key*/, const int value) {
  if (value == 1) g_ready = Clock::now();
  return 0;
}

int main(int argc, char** argv) {
  alarm(kLimitSeconds);  // whatever hangs is ended
  const std::string kind = argc == 3 ? argv[1] : "";
  if (kind == "plugin") return timePlugin(argv[2]);
  if (kind == "bare") return timeBareService(argv[2]);
  std::fputs("usage: start-time plugin FILE | start-time bare NAME\n", stderr);
  return 2;
}
