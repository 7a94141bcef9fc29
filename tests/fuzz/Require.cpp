#include "Require.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

void Break(std::string_view rule, const std::string& details) {
  std::fprintf(stderr, "broken rule: %.*s\n%s\n", static_cast<int>(rule.size()), rule.data(),
               details.c_str());
  std::abort();
}

std::string Show(std::string_view text) {
  std::string shown = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= 0x20 && byte < 0x7F) {
      shown.push_back(character);
      continue;
    }
    std::array<char, 8> code{};
    std::snprintf(code.data(), code.size(), "\\x%02x", unsigned{byte});
    shown.append(code.data());
  }
  return shown + "\"";
}

}  // namespace fuzz
