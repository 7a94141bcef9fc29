#include "Broker.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

class Socket {
 public:
  Socket() : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() { close(m_socket); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int Get() const { return m_socket; }

 private:
  int m_socket;
};

std::string readFile(const std::filesystem::path& path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// A port that was free just now.
int findFreePort() {
  // Below those that connections get, one of which could take the port of a broker that is stopped.
  constexpr int kFirstPort = 10000;
  constexpr int kLastPort = 19999;
  constexpr int kPortsTried = 100;
  std::random_device random;
  std::uniform_int_distribution<int> ports(kFirstPort, kLastPort);
  for (int i = 0; i < kPortsTried; ++i) {
    const Socket socket;
    const int port = ports(random);
    sockaddr_in address = loopback(port);
    if (bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return port;
  }
  throw std::runtime_error("no free port");
}

std::string userName() {
  const passwd* const user = getpwuid(geteuid());
  return user == nullptr ? "root" : user->pw_name;
}

// In the child, between fork and exec: only what is safe there.
[[noreturn]] void execute(pid_t parent, char* const* arguments, const char* outputFile) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);  // a stopped process may bring SIGHUP to its process group
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const int output = open(outputFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (output >= 0) {
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
  }
  if (getppid() == parent) execvp(arguments[0], arguments);
  _exit(127);
}

}  // namespace

Program::Program(const std::vector<std::string>& command, const std::string& outputFile) {
  std::vector<std::string> texts = command;
  std::vector<char*> arguments;
  for (std::string& text : texts) arguments.push_back(text.data());
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) execute(parent, arguments.data(), outputFile.c_str());
  if (m_pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
}

Program::~Program() {
  if (HasEnded()) return;
  Signal(SIGKILL);
  Wait();
}

void Program::Signal(int signal) const {
  if (m_pid > 0) kill(m_pid, signal);
}

int Program::Wait() {
  if (m_pid <= 0) return m_status;
  int status = 0;
  while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
  }
  m_pid = 0;
  m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return m_status;
}

bool Program::HasEnded() {
  if (m_pid <= 0) return true;
  siginfo_t info{};
  const bool ended =
      waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
      info.si_pid == m_pid;
  if (ended) Wait();
  return ended;
}

void RunToEnd(const std::vector<std::string>& command) {
  const TemporaryFolder folder;
  const std::string output = folder.Path() / "output";
  Program program(command, output);
  if (program.Wait() != 0) throw std::runtime_error(command.front() + ": " + readFile(output));
}

Broker::Broker(std::string configuration, bool started)
    : m_configuration(std::move(configuration)), m_port(findFreePort()) {
  constexpr int kPortsTried = 20;
  if (!started) return;
  // A broker of another test may get to the port first.
  for (int i = 1; i < kPortsTried && !tryToStart(); ++i) m_port = findFreePort();
  Start();
}

Broker::~Broker() = default;

void Broker::Start() {
  if (!m_program && !tryToStart()) {
    throw std::runtime_error("the broker does not start (is it installed?) " + Log());
  }
}

bool Broker::tryToStart() {
  const std::string folder = m_folder.Path();
  const std::string file = m_folder.Write(
      "broker.conf", "user " + userName() + "\npersistence true\npersistence_location " + folder +
                         "/\nmax_queued_messages 0\nset_tcp_nodelay true\nlistener " +
                         std::to_string(m_port) + " 127.0.0.1\n" + m_configuration);
  const std::size_t logged = Log().size();
  // Where the package puts it is not on everybody's path.
  m_program = std::make_unique<Program>(
      std::vector<std::string>{"/usr/sbin/mosquitto", "-v", "-c", file}, folder + "/log");
  // It says so once it listens. Who only tries to connect may find a broker of another test.
  const auto isRunning = [&] { return Log().find(" running\n", logged) != std::string::npos; };
  if (WaitUntil([&] { return isRunning() || m_program->HasEnded(); }) && isRunning()) return true;
  m_program.reset();
  return false;
}

void Broker::Stop() {
  if (!m_program) return;
  m_program->Signal(SIGTERM);
  m_program->Wait();
  m_program.reset();
}

void Broker::Kill() {
  m_program.reset();
}

void Broker::Forget() {
  std::filesystem::remove(m_folder.Path() / "mosquitto.db");
}

void Broker::Freeze() {
  m_program->Signal(SIGSTOP);
}

void Broker::Thaw() {
  m_program->Signal(SIGCONT);
}

bool Broker::WaitForLog(const std::string& text) const {
  return WaitUntil([&] { return Log().find(text) != std::string::npos; });
}

std::string Broker::Log() const {
  return readFile(m_folder.Path() / "log");
}
