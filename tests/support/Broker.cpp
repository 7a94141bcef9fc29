#include "Broker.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "WaitUntil.h"

namespace {

// Below the range that the system takes ports of outgoing connections from: none of those can take
// the broker's port while it is stopped.
constexpr int kFirstPort = 10000;
constexpr int kLastPort = 32000;
constexpr int kPortsTried = 20;

}  // namespace

Broker::Broker(std::string configuration) : m_configuration(std::move(configuration)) {
  startAtNewPort(m_port);
}

void Broker::Guard(const std::string& lines) {
  Stop();
  m_guard = lines;
  startAtNewPort(m_guardedPort);
  if (m_onStart) m_onStart();
}

void Broker::Extend(const std::string& lines) {
  Stop();
  m_extension = lines;
  configure();
  Start();
}

void Broker::Start() {
  if (m_program) return;
  if (!tryToStart()) throw std::runtime_error("the broker does not start again: " + Log());
  if (m_onStart) m_onStart();
}

void Broker::Save() const {
  const auto fileId = [this] {
    struct stat about {};
    return stat((m_folder.Path() / "mosquitto.db").c_str(), &about) == 0 ? about.st_ino : 0;
  };
  // It writes another file, and gives it the name when it is whole. The second name keeps the
  // number of the first file from being used for the next one.
  const std::filesystem::path kept = m_folder.Path() / "mosquitto.db.before";
  const ino_t before = fileId();
  std::error_code ignored;
  std::filesystem::remove(kept, ignored);
  if (before != 0) std::filesystem::create_hard_link(m_folder.Path() / "mosquitto.db", kept);
  if (m_program) m_program->Signal(SIGUSR1);
  const bool isSaved = WaitUntil([&] { return fileId() != before; });
  std::filesystem::remove(kept, ignored);
  if (!isSaved) throw std::runtime_error("the broker does not save: " + Log());
}

void Broker::Stop() {
  if (!m_program) return;
  // It forgets a signal that comes right after its line that it runs.
  const auto hasEnded = [this] {
    m_program->Signal(SIGTERM);
    return m_program->HasEnded();
  };
  const bool isClean = WaitUntil(hasEnded) && m_program->Wait() == 0;
  m_program.reset();
  if (!isClean) throw std::runtime_error("the broker makes no clean shutdown");
}

bool Broker::WaitForLog(const std::string& text, std::size_t from) const {
  return WaitUntil([&] { return Log().find(text, from) != std::string::npos; });
}

void Broker::startAtNewPort(int& port) {
  std::random_device random;
  std::uniform_int_distribution<int> ports(kFirstPort, kLastPort);
  for (int i = 0; i < kPortsTried; ++i) {
    port = ports(random);
    configure();
    if (tryToStart()) return;
  }
  throw std::runtime_error("the broker does not start (is it installed?) " + Log());
}

void Broker::configure() const {
  std::ostringstream lines;
  lines << "per_listener_settings true\n"
        << "persistence true\n"
        << "persistence_location " << m_folder.Path().string() << "/\n"
        << "max_queued_messages 0\n"
        << "set_tcp_nodelay true\n"
        << "log_dest stderr\n";
  // As root, the broker would become a user of its own, who cannot write to the folder.
  if (geteuid() == 0) lines << "user root\n";
  lines << "listener " << m_port << " 127.0.0.1\n" << m_configuration;
  if (m_guardedPort != 0) lines << "listener " << m_guardedPort << " 127.0.0.1\n" << m_guard;
  lines << m_extension;
  m_folder.Write("broker.conf", lines.str());
}

bool Broker::tryToStart() {
  const std::size_t logged = Log().size();
  m_program = std::make_unique<Program>(
      std::vector<std::string>{ADC_MOSQUITTO, "-c", m_folder.Path() / "broker.conf"},
      m_folder.Path() / "log");
  // It says so once it listens. Who only tries to connect may find a broker of another test.
  const auto isRunning = [&] { return Log().find(" running\n", logged) != std::string::npos; };
  if (WaitUntil([&] { return isRunning() || m_program->HasEnded(); }) && isRunning()) return true;
  m_program.reset();
  return false;
}
