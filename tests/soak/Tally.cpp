#include "Tally.h"

#include <cstdio>

namespace Soak {
namespace {

constexpr std::uint64_t kPrinted = 50;

}  // namespace

void Tally::Mismatch(const std::string& what) {
  if (++mismatches <= kPrinted) std::fprintf(stderr, "mismatch: %s\n", what.c_str());
}

}  // namespace Soak
