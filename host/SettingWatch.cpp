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
#include <glib.h>
#include <unistd.h>

#include <atomic>
#include <string_view>
#include <utility>

#include "WriteInTime.h"

namespace {

constexpr std::string_view kStatusKey = "memory/iot/thing/thing_status";
constexpr int kReady = 1;

std::atomic<int> status{0};  // as it was stored last

// Of the main loop's thread.
QivoThing::SettingListener& theListener() {
  static QivoThing::SettingListener listener;
  return listener;
}

gboolean on_changed(gpointer /*nothing*/) {
  if (theListener()) theListener()();
  return G_SOURCE_REMOVE;
}

void noteStatus(int value) {
  const int before = status.exchange(value);
  if (before == value || (before != kReady && value != kReady)) return;
  if (value == kReady) WriteInTime(STDOUT_FILENO, "qivo-thing: ready\n");
  g_idle_add_full(G_PRIORITY_DEFAULT, &on_changed, nullptr, nullptr);
}

}  // namespace

void QivoThing::ListenToSetting(SettingListener listener) {
  theListener() = std::move(listener);
}

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
