#include "JournalStream.h"

#include <sys/stat.h>

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

bool IsJournalStream(int descriptor) noexcept {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in the process changes the environment
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat file {};
  if (stream == nullptr || fstat(descriptor, &file) != 0) return false;
  std::array<char, 48> own{};
  static_cast<void>(std::snprintf(own.data(), own.size(), "%" PRIu64 ":%" PRIu64,
                                  static_cast<std::uint64_t>(file.st_dev),
                                  static_cast<std::uint64_t>(file.st_ino)));
  return std::strcmp(stream, own.data()) == 0;
}
