#include "StandardStreams.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int kLongestWaitMs = 10;

bool isWritable(int descriptor, int waitMs) {
  pollfd waiting{descriptor, POLLOUT, 0};
  return poll(&waiting, 1, waitMs) > 0;
}

bool isRegularFile(int descriptor) {
  struct stat file {};
  return fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode);
}

// As write(), but fails where that would block. The descriptor's flags belong to everybody who
// shares it, so they stay as they are; a kernel without RWF_NOWAIT for pipes is asked by poll().
ssize_t writeNow(int descriptor, std::string_view text) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): it is only read
  const iovec part{const_cast<char*>(text.data()), text.size()};
  const ssize_t count = pwritev2(descriptor, &part, 1, -1, RWF_NOWAIT);
  if (count >= 0) return count;
  const bool isUnknown = errno != EAGAIN && errno != EINTR;
  const bool mayWrite = isRegularFile(descriptor) || (isUnknown && isWritable(descriptor, 0));
  return mayWrite ? write(descriptor, text.data(), text.size()) : -1;
}

}  // namespace

void QivoThing::WriteLine(int descriptor, std::string_view line) noexcept {
  bool mayWait = true;
  while (!line.empty()) {
    const ssize_t count = writeNow(descriptor, line);
    if (count > 0) {
      line.remove_prefix(static_cast<std::size_t>(count));
    } else if (mayWait) {
      mayWait = false;
      isWritable(descriptor, kLongestWaitMs);
    } else {
      return;
    }
  }
}
