#include "StandardError.h"

#include <unistd.h>

#include <atomic>

#include "WriteInTime.h"

namespace {

// The line before could not be written, or only in part.
std::atomic<bool> lineFailed{false};
std::atomic<bool> lineUnfinished{false};

}  // namespace

bool WriteLineToStandardError(std::string_view line) {
  const bool mayWait = !lineFailed;
  if (lineUnfinished && lineUnfinished.exchange(false) &&
      WriteInTime(STDERR_FILENO, "\n", mayWait) == 0) {
    lineUnfinished = true;
    return false;
  }
  const std::size_t written = WriteInTime(STDERR_FILENO, line, mayWait);
  const bool whole = written == line.size();
  if (written > 0 && !whole) lineUnfinished = true;
  if (lineFailed == whole) lineFailed = !whole;
  return whole;
}
