#include "HostProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

namespace {

constexpr int kNotFound = 127;

std::vector<std::string> environmentWith(const HostProcess::Environment& changes) {
  HostProcess::Environment all = changes;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const auto equals = text.find('=');
    if (equals != std::string::npos) all.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  std::vector<std::string> entries;
  for (const auto& [name, value] : all) entries.push_back(std::string(name).append("=") + value);
  return entries;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// The reading end first.
std::array<int, 2> makePipe() {
  std::array<int, 2> ends{-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  return ends;
}

}  // namespace

HostProcess::HostProcess(std::vector<std::string> command, const Environment& changes) {
  std::vector<std::string> environment = environmentWith(changes);
  const std::vector<char*> arguments = pointersTo(command);
  const std::vector<char*> variables = pointersTo(environment);
  const std::array<int, 2> output = makePipe();
  const std::array<int, 2> errors = makePipe();
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    // Only what is safe between fork and exec.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Stopped in the tests' own process group it would be a reason for the kernel to hang up on all
    // of them, once nobody outside of that group waits for any of it.
    setpgid(0, 0);
    if (getppid() == parent && dup2(output[1], STDOUT_FILENO) >= 0 &&
        dup2(errors[1], STDERR_FILENO) >= 0) {
      execvpe(arguments[0], arguments.data(), variables.data());
    }
    _exit(kNotFound);
  }
  close(output[1]);
  close(errors[1]);
  if (m_pid < 0) {
    close(output[0]);
    close(errors[0]);
    throw std::runtime_error("no child process");
  }
  m_running = true;
  m_output.descriptor = output[0];
  m_errors.descriptor = errors[0];
  m_output.reader = std::thread([this] { read(m_output); });
  m_errors.reader = std::thread([this] { read(m_errors); });
}

HostProcess::~HostProcess() {
  if (m_running) End(SIGKILL);
}

std::string HostProcess::Output() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_output.text;
}

std::string HostProcess::Errors() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_errors.text;
}

bool HostProcess::WaitForOutput(const std::string& text, unsigned count) {
  return waitFor(m_output, text, count);
}

bool HostProcess::WaitForError(const std::string& text, unsigned count) {
  return waitFor(m_errors, text, count);
}

void HostProcess::ReadErrors(bool on) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_errors.unread = !on;
  m_changed.notify_all();
}

bool HostProcess::HasEnded() const {
  if (!m_running) return true;
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT);
  return info.si_pid != 0;
}

void HostProcess::Send(int signal) {
  if (m_running) kill(m_pid, signal);
}

int HostProcess::Wait() {
  if (m_running) {
    ReadErrors(true);
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      const auto ended = [this] { return m_output.ended && m_errors.ended; };
      if (!m_changed.wait_for(lock, kPatience, ended)) kill(m_pid, SIGKILL);
    }
    while (waitpid(m_pid, &m_status, 0) == -1 && errno == EINTR) {
    }
    m_running = false;
    for (Stream* stream : {&m_output, &m_errors}) {
      stream->reader.join();
      close(stream->descriptor);
    }
  }
  return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -WTERMSIG(m_status);
}

void HostProcess::read(Stream& stream) {
  std::array<char, 4096> buffer{};
  while (true) {
    const ssize_t count = ::read(stream.descriptor, buffer.data(), buffer.size());
    if (count == -1 && errno == EINTR) continue;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (count > 0) stream.text.append(buffer.data(), static_cast<std::size_t>(count));
    stream.ended = count <= 0;
    m_changed.notify_all();
    if (stream.ended) return;
    m_changed.wait(lock, [&stream] { return !stream.unread; });
  }
}

bool HostProcess::waitFor(const Stream& stream, const std::string& text, unsigned count) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const auto found = [&] { return CountOf(text, stream.text) >= count; };
  m_changed.wait_for(lock, kPatience,
                     [&] { return found() || (m_output.ended && m_errors.ended); });
  return found();
}

unsigned CountOf(const std::string& part, const std::string& text) {
  unsigned count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

CommandResult RunCommand(const std::vector<std::string>& command,
                         const HostProcess::Environment& changes) {
  HostProcess process(command, changes);
  const int status = process.Wait();
  return {status, process.Output(), process.Errors()};
}
