// The descriptor's flags belong to everybody who shares it, so O_NONBLOCK is not set on it. What
// takes its place depends on what the descriptor is:
//
//   pipe, socket   RWF_NOWAIT, for this write alone. Linux before 6.4 does not have it: poll()
//                  before a plain write, which blocks only when another writer has taken the room
//                  in between
//   terminal       it may take a part of a line and block then, whatever poll() says; opened once
//                  more, it has flags of its own
//   regular file   a plain write, as poll() says: it does not wait for a reader
#include "WriteInTime.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace {

constexpr int kLongestWaitMs = 10;

bool isWritable(int descriptor, int waitMs) {
  pollfd waiting{descriptor, POLLOUT, 0};
  return poll(&waiting, 1, waitMs) > 0;  // also when the write would give an error
}

ssize_t writeToTerminal(int descriptor, std::string_view text) {
  std::array<char, 32> path{};
  static_cast<void>(std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", descriptor));
  const int terminal = open(path.data(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0) return write(descriptor, text.data(), text.size());
  const ssize_t count = write(terminal, text.data(), text.size());
  const int number = errno;
  close(terminal);
  errno = number;
  return count;
}

// As write(), but fails with EAGAIN where that would block.
ssize_t writeNow(int descriptor, std::string_view text) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): it is only read
  const iovec part{const_cast<char*>(text.data()), text.size()};
  const ssize_t count = pwritev2(descriptor, &part, 1, -1, RWF_NOWAIT);
  if (count >= 0) return count;

  if (errno == EAGAIN) {
    // A file system may refuse, too. Not asked of every line: a write after fstat() takes longer.
    struct stat file {};
    if (fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode)) {
      return write(descriptor, text.data(), text.size());
    }
    errno = EAGAIN;
    return -1;
  }
  if (!isWritable(descriptor, 0)) {
    errno = EAGAIN;
    return -1;
  }
  return isatty(descriptor) != 0 ? writeToTerminal(descriptor, text)
                                 : write(descriptor, text.data(), text.size());
}

}  // namespace

std::size_t WriteInTime(int descriptor, std::string_view text, bool mayWait) noexcept {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = writeNow(descriptor, text.substr(written));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN && mayWait) {
      mayWait = false;
      isWritable(descriptor, kLongestWaitMs);
      continue;
    }
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  return written;
}
