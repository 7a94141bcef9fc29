// The command `vconf`: shows a setting of the stand-in store.
//
//   vconf get KEY    prints the number
//   vconf --help     and --version: what their names say
//
// Exit status: 0; 1 when the setting is not there or not a number; 2 for a wrong command line.
#include <charconv>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "SettingsFolder.h"

namespace {

constexpr int kExitNotSet = 1;
constexpr int kExitUsage = 2;

constexpr const char* kHelp =
    "Usage: vconf get KEY\n"
    "\n"
    "Shows a setting of the thing service's settings store: prints the number of the key.\n"
    "\n"
    "  --help     Print this help and exit\n"
    "  --version  Print the version and exit\n"
    "\n"
    "Exit status: 0, 1 when the setting is not there or not a number, 2 for a wrong command "
    "line.\n";

// The decimal number and line feed that the library writes.
std::optional<int> parseNumber(std::string_view text) {
  if (text.empty() || text.back() != '\n') return std::nullopt;
  text.remove_suffix(1);
  int number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

int get(const char* key) {
  const std::optional<std::string> text = SettingsFolder::FromEnvironment().Read(key);
  const std::optional<int> number = text ? parseNumber(*text) : std::nullopt;
  if (!number) {
    static_cast<void>(
        std::fprintf(stderr, "vconf: %s: %s\n", key, text ? "not a number" : "not set"));
    return kExitNotSet;
  }
  static_cast<void>(std::printf("%d\n", *number));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view option = argc == 2 ? argv[1] : "";
  if (option == "--help" || option == "--version") {
    static_cast<void>(std::fputs(option == "--help" ? kHelp : "vconf " VCONF_VERSION "\n", stdout));
    return 0;
  }
  if (argc != 3 || std::string_view(argv[1]) != "get") {
    static_cast<void>(std::fputs("usage: vconf get KEY\n", stderr));
    return kExitUsage;
  }
  try {
    return get(argv[2]);
  } catch (const std::exception& e) {
    static_cast<void>(std::fprintf(stderr, "vconf: %s\n", e.what()));
    return kExitNotSet;
  }
}
