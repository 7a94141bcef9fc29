// Writes a line to standard output each time the channel comes up, which is when its setting
// becomes 1.
//
// The settings store can be written but not watched, so the host interposes vconf_set_int: the
// dynamic linker resolves a plug-in's call to the executable's function first, and this one calls
// the library's. That works with any libvconf.

#include "SettingWatch.h"

// The executable exports it.
#pragma GCC visibility push(default)
#include <vconf.h>
#pragma GCC visibility pop

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <string_view>

#include "WriteInTime.h"

namespace {

constexpr std::string_view kStatusKey = "memory/iot/thing/thing_status";
constexpr int kReady = 1;

std::atomic<int> status{0};  // as it was stored last

void noteStatus(int value) {
  if (status.exchange(value) == value || value != kReady) return;
  WriteInTime(STDOUT_FILENO, "qivo-thing: ready\n");
}

}  // namespace

bool QivoThing::IsReady() {
  return status == kReady;
}

int vconf_set_int(const char* key, int value) {
  static const auto store =
      // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym gives nothing else
      reinterpret_cast<decltype(&vconf_set_int)>(dlsym(RTLD_NEXT, "vconf_set_int"));
  if (store == nullptr) return -1;
  const int result = store(key, value);
  if (result == 0 && key != nullptr && key == kStatusKey) noteStatus(value);
  return result;
}
