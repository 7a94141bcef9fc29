#include "Broker.h"

#include <unistd.h>

#include <csignal>
#include <fstream>
#include <random>
#include <stdexcept>

namespace {

// Below the range that the system takes ports of outgoing connections from: none of those can take
// the broker's port while it is stopped.
constexpr int kFirstPort = 20000;
constexpr int kLastPort = 32000;
constexpr int kPortsTried = 20;

}  // namespace

Broker::Broker(const std::filesystem::path& folder)
    : m_folder(folder), m_configuration(folder / "broker.conf") {
  startAtNewPort(m_port);
}

void Broker::Guard(const std::string& lines) {
  Stop();
  m_guard = lines;
  startAtNewPort(m_guardedPort);
}

void Broker::Stop() {
  if (!m_program) return;
  if (m_program->End(SIGTERM) != 0) throw std::runtime_error("the broker does not end in order");
  m_program.reset();
}

void Broker::Kill() {
  if (!m_program) return;
  m_program->End(SIGKILL);
  m_program.reset();
}

void Broker::Freeze() {
  if (m_program) m_program->Send(SIGSTOP);
}

void Broker::Thaw() {
  if (m_program) m_program->Send(SIGCONT);
}

void Broker::Forget() {
  std::filesystem::remove(m_folder / "mosquitto.db");
}

void Broker::Start() {
  if (!m_program && !tryToStart()) {
    throw std::runtime_error("the broker does not start again: " + m_program->Errors());
  }
}

void Broker::startAtNewPort(int& port) {
  std::random_device random;
  std::uniform_int_distribution<int> ports(kFirstPort, kLastPort);
  for (int i = 0; i < kPortsTried; ++i) {
    port = ports(random);
    configure();
    if (tryToStart()) return;
  }
  throw std::runtime_error("the broker does not start (is it installed?) " + m_program->Errors());
}

void Broker::configure() {
  std::ofstream file(m_configuration);
  file << "per_listener_settings true\n"
       << "persistence true\n"
       << "persistence_location " << m_folder.string() << "/\n"
       << "max_queued_messages 0\n"
       << "set_tcp_nodelay true\n"
       << "log_dest stderr\n";
  // As root, the broker would become a user of its own, who cannot write to the folder.
  if (geteuid() == 0) file << "user root\n";
  file << "listener " << m_port << " 127.0.0.1\n"
       << "allow_anonymous true\n";
  if (m_guardedPort != 0) file << "listener " << m_guardedPort << " 127.0.0.1\n" << m_guard;
}

bool Broker::tryToStart() {
  m_program =
      std::make_unique<HostProcess>(std::vector<std::string>{ADC_MOSQUITTO, "-c", m_configuration});
  return m_program->WaitForError("running\n");
}
