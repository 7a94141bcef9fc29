#include "ChildProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace {

constexpr unsigned kHangLimitSeconds = 60;

}  // namespace

ChildProcess::ChildProcess(const std::function<int()>& body) {
  static_cast<void>(std::fflush(nullptr));  // or else the child would print it as well
  m_pid = fork();
  if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (m_pid == 0) {
    alarm(kHangLimitSeconds);
    std::exit(body());
  }
}

ChildProcess::~ChildProcess() {
  if (m_pid > 0) Wait();
}

int ChildProcess::Wait() {
  int status = -1;  // no child ends like this
  const pid_t pid = std::exchange(m_pid, -1);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string ReadToEnd(int descriptor) {
  std::string text;
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return text;  // a terminal without writers ends with an error
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}
