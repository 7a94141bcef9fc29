// The descriptor's flags belong to everybody who shares it, so O_NONBLOCK is not set on it. What
// takes its place depends on what standard error is:
//
//   pipe, socket   RWF_NOWAIT, for this write alone. Linux before 6.4 does not have it: poll()
//                  before a plain write, which blocks only when another writer has taken the room
//                  in between
//   terminal       it may take a part of a line and block then, whatever poll() says; opened once
//                  more, it has flags of its own
//   regular file   a plain write, as poll() says: it does not wait for a reader
#include "StandardError.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

constexpr int kLongestWaitMs = 10;

// The line before could not be written, or only in part.
std::atomic<bool> lineFailed{false};
std::atomic<bool> lineUnfinished{false};

bool isWritable(int waitMs) {
  pollfd descriptor{STDERR_FILENO, POLLOUT, 0};
  return poll(&descriptor, 1, waitMs) > 0;  // also when the write would give an error
}

ssize_t writeToTerminal(const char* data, std::size_t size) {
  const int terminal = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0) return write(STDERR_FILENO, data, size);
  const ssize_t count = write(terminal, data, size);
  const int number = errno;
  close(terminal);
  errno = number;
  return count;
}

// As write(), but fails with EAGAIN where that would block.
ssize_t writeNow(const char* data, std::size_t size) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): it is only read
  const iovec part{const_cast<char*>(data), size};
  const ssize_t count = pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT);
  if (count >= 0) return count;

  if (errno == EAGAIN) {
    // A file system may refuse, too. Not asked of every line: a write after fstat() takes longer.
    struct stat file {};
    if (fstat(STDERR_FILENO, &file) == 0 && S_ISREG(file.st_mode)) {
      return write(STDERR_FILENO, data, size);
    }
    errno = EAGAIN;
    return -1;
  }
  if (!isWritable(0)) {
    errno = EAGAIN;
    return -1;
  }
  return isatty(STDERR_FILENO) != 0 ? writeToTerminal(data, size)
                                    : write(STDERR_FILENO, data, size);
}

// The number of bytes written.
std::size_t writeAll(std::string_view text, bool mayWait) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = writeNow(text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN && mayWait) {
      mayWait = false;
      isWritable(kLongestWaitMs);
      continue;
    }
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  return written;
}

}  // namespace

bool WriteLineToStandardError(std::string_view line) {
  const bool mayWait = !lineFailed;
  if (lineUnfinished && lineUnfinished.exchange(false) && writeAll("\n", mayWait) == 0) {
    lineUnfinished = true;
    return false;
  }
  const std::size_t written = writeAll(line, mayWait);
  const bool whole = written == line.size();
  if (written > 0 && !whole) lineUnfinished = true;
  if (lineFailed == whole) lineFailed = !whole;
  return whole;
}
