#include "health/ProcessFigures.h"

#include <unistd.h>

#include <charconv>
#include <fstream>
#include <string>
#include <system_error>

#include "dlog_dropped.h"

// The platform's log may not have it.
#pragma weak dlog_dropped_lines

namespace Lumo {
namespace {

std::uint64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::string line;
  std::getline(statm, line);
  // In pages: all, then what is resident.
  const std::size_t second = line.find(' ') + 1;
  const long pageBytes = sysconf(_SC_PAGESIZE);
  std::uint64_t pages = 0;
  const auto result = std::from_chars(line.data() + second, line.data() + line.size(), pages);
  if (second == 0 || result.ec != std::errc() || pageBytes <= 0) return 0;
  return pages * static_cast<std::uint64_t>(pageBytes);
}

}  // namespace

void AddProcessFigures(Health& health) {
  health.residentBytes = residentBytes();
  if (dlog_dropped_lines != nullptr) health.droppedLogLines = dlog_dropped_lines();
}

}  // namespace Lumo
