#include "Program.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "TemporaryFolder.h"

namespace {

constexpr int kNotFound = 127;

std::vector<std::string> environmentWith(const Program::Environment& changes) {
  Program::Environment all = changes;
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

// In the child, between fork and exec: only what is safe there.
[[noreturn]] void execute(pid_t parent, char* const* arguments, char* const* variables,
                          Program::Streams streams) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Stopped in the tests' own process group it would be a reason for the kernel to hang up on all
  // of them, once nobody outside of that group waits for any of it.
  setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (getppid() == parent && dup2(streams.output, STDOUT_FILENO) >= 0 &&
      dup2(streams.errors, STDERR_FILENO) >= 0) {
    execvpe(arguments[0], arguments, variables);
  }
  _exit(kNotFound);
}

pid_t spawn(std::vector<std::string> command, Program::Streams streams,
            const Program::Environment& changes) {
  std::vector<std::string> environment = environmentWith(changes);
  const std::vector<char*> arguments = pointersTo(command);
  const std::vector<char*> variables = pointersTo(environment);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) execute(parent, arguments.data(), variables.data(), streams);
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  return child;
}

pid_t spawnInto(const std::string& path, const std::vector<std::string>& command) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "ae"),
                                                             std::fclose);
  if (!file) throw std::system_error(errno, std::generic_category(), path);
  return spawn(command, {fileno(file.get()), fileno(file.get())}, {});
}

}  // namespace

Program::Program(std::vector<std::string> command, Streams streams, const Environment& changes)
    : m_pid(spawn(std::move(command), streams, changes)) {}

Program::Program(const std::vector<std::string>& command, const std::string& outputFile)
    : m_pid(spawnInto(outputFile, command)) {}

Program::~Program() {
  Signal(SIGKILL);
  Wait();
}

void Program::Signal(int signal) const {
  if (m_running) kill(m_pid, signal);
}

bool Program::HasEnded() const {
  if (!m_running) return true;
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT);
  return info.si_pid != 0;
}

int Program::Wait() {
  if (m_running) {
    while (waitpid(m_pid, &m_status, 0) == -1 && errno == EINTR) {
    }
    m_running = false;
  }
  return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -WTERMSIG(m_status);
}

void ClearInherited(Program::Environment& changes, const std::string& prefix) {
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    if (text.rfind(prefix, 0) == 0) changes.emplace(text.substr(0, text.find('=')), "");
  }
}

void RunToEnd(const std::vector<std::string>& command) {
  const TemporaryFolder folder;
  const std::string output = folder.Path() / "output";
  if (Program(command, output).Wait() == 0) return;
  throw std::runtime_error(command.front() + ": " + folder.Read("output"));
}
