#include "Require.h"

#include <cstdio>
#include <cstdlib>

namespace fuzz {

void Break(std::string_view rule, const std::string& details) {
  std::fprintf(stderr, "broken rule: %.*s\n%s\n", static_cast<int>(rule.size()), rule.data(),
               details.c_str());
  std::abort();
}

}  // namespace fuzz
