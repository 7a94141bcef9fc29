// A stand-in for the platform's settings store: every setting is a file that holds the decimal
// number and a line feed.

// What the header declares is what the library exports.
#pragma GCC visibility push(default)
#include "vconf.h"
#pragma GCC visibility pop

#include <exception>
#include <string>

#include "SettingsFolder.h"

// 0, or -1 when the setting could not be stored.
int vconf_set_int(const char* key, int value) {
  if (key == nullptr) return -1;
  try {
    const std::string text = std::to_string(value) + "\n";
    return SettingsFolder::FromEnvironment().Write(key, text) ? 0 : -1;
  } catch (const std::exception&) {
    return -1;  // no memory
  }
}
