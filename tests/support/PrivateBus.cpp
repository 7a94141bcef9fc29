#include "PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

const char* const kConfigurationStart =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
)";
const char* const kOpenRules = R"(
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
)";
const char* const kSystemRules = R"(
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Properties"/>
    <deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"
          send_member="UpdateActivationEnvironment"/>
    <!-- What a careless policy file of another service adds. -->
    <allow own_prefix="org.tizen"/>
    <allow send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  <include>service.conf</include>
)";
// The limits leave room for a test with some hundred connections of one user.
const char* const kConfigurationEnd = R"(
  <limit name="max_connections_per_user">1024</limit>
  <limit name="max_completed_connections">1024</limit>
  <limit name="max_incomplete_connections">1024</limit>
</busconfig>
)";

// The two ends of a pipe, closed with the object; none is inherited by another program.
class Pipe {
 public:
  Pipe() {
    if (pipe2(m_ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the bus");
  }
  ~Pipe() {
    close(m_ends[0]);
    CloseWriting();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int Reading() const { return m_ends[0]; }
  int Writing() const { return m_ends[1]; }
  void CloseWriting() {
    if (m_ends[1] >= 0) close(m_ends[1]);
    m_ends[1] = -1;
  }

 private:
  std::array<int, 2> m_ends{-1, -1};
};

// In the child, between fork and exec: only what is safe there.
[[noreturn]] void runDaemon(pid_t parent, int addressPipe, const char* configuration,
                            const char* printAddress, const char* logFile) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setpgid(0, 0);  // a stopped process may bring SIGHUP to its process group
  const int log = open(logFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (log >= 0) dup2(log, STDERR_FILENO);
  if (getppid() == parent && fcntl(addressPipe, F_SETFD, 0) == 0) {
    execlp("dbus-daemon", "dbus-daemon", configuration, "--nofork", "--nopidfile", "--nosyslog",
           printAddress, nullptr);
  }
  _exit(127);
}

}  // namespace

PrivateBus::PrivateBus() {
  setUp(kOpenRules, "");
}

PrivateBus::PrivateBus(const std::string& servicePolicy) {
  setUp(kSystemRules, servicePolicy);
}

PrivateBus::~PrivateBus() {
  Kill();
}

void PrivateBus::Kill() {
  if (m_pid == 0) return;
  kill(m_pid, SIGKILL);
  while (waitpid(m_pid, nullptr, 0) == -1 && errno == EINTR) {
  }
  m_pid = 0;
}

void PrivateBus::Freeze() {
  if (m_pid != 0) kill(m_pid, SIGSTOP);
}

void PrivateBus::Thaw() {
  if (m_pid != 0) kill(m_pid, SIGCONT);
}

void PrivateBus::Start() {
  if (m_pid != 0) return;
  Pipe pipe;
  const std::string configuration = "--config-file=" + m_folder.Path().string() + "/bus.conf";
  const std::string printAddress = "--print-address=" + std::to_string(pipe.Writing());
  const std::string logFile = m_folder.Path() / "bus.log";
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    runDaemon(parent, pipe.Writing(), configuration.c_str(), printAddress.c_str(), logFile.c_str());
  }
  if (m_pid == -1) {
    m_pid = 0;
    throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  }
  pipe.CloseWriting();

  // The daemon prints its address once it listens, and nothing when it cannot.
  std::string printed;
  char character = 0;
  ssize_t count = 0;
  while ((count = read(pipe.Reading(), &character, 1)) == 1 || (count == -1 && errno == EINTR)) {
    if (count == 1 && character == '\n') break;
    if (count == 1) printed.push_back(character);
  }
  if (printed.rfind(m_address, 0) != 0) {
    Kill();
    std::ostringstream log;
    log << std::ifstream(logFile).rdbuf();
    throw std::runtime_error("dbus-daemon does not start (is it installed?) " + log.str());
  }
}

void PrivateBus::setUp(const std::string& rules, const std::string& servicePolicy) {
  m_folder.Write("bus.conf", std::string(kConfigurationStart) + "  <listen>" + m_address +
                                 "</listen>" + rules + kConfigurationEnd);
  if (!servicePolicy.empty()) {
    m_folder.Write("service.conf", servicePolicy);
    chmod(m_folder.Path().c_str(), 0711);  // the socket is for everybody
  }
  setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
  Start();
}
