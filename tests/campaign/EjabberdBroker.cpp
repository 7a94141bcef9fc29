#include "EjabberdBroker.h"

#include <csignal>
#include <fstream>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

// As in Broker: nobody gets one of these for an outgoing connection.
constexpr int kFirstPort = 20000;
constexpr int kLastPort = 32000;
constexpr int kPortsTried = 5;

}  // namespace

EjabberdBroker::EjabberdBroker(std::filesystem::path folder)
    : m_folder(std::move(folder) / "ejabberd") {
  if (std::string(ADC_EJABBERD_CODE).empty()) throw std::runtime_error("ejabberd is not installed");
  std::filesystem::create_directory(m_folder);
  std::random_device random;
  std::uniform_int_distribution<int> ports(kFirstPort, kLastPort);
  for (int i = 0; i < kPortsTried; ++i) {
    m_port = ports(random);
    configure();
    if (tryToStart()) return;
  }
  throw std::runtime_error("ejabberd does not start: " + m_program->Output());
}

void EjabberdBroker::Stop() {
  throw std::logic_error("this broker has its sessions in memory only");
}

void EjabberdBroker::KillAndForget() {
  if (m_program) m_program->End(SIGKILL);
  m_program.reset();
  std::filesystem::remove_all(m_folder / "spool");
}

void EjabberdBroker::Start() {
  if (!m_program && !tryToStart()) {
    throw std::runtime_error("ejabberd does not start again: " + m_program->Output());
  }
}

void EjabberdBroker::configure() const {
  std::ofstream file(m_folder / "ejabberd.yml");
  file << "hosts: [localhost]\n"
       << "loglevel: info\n"
       << "auth_method: anonymous\n"
       << "anonymous_protocol: both\n"
       << "allow_multiple_connections: true\n"
       << "listen:\n"
       << "  - port: " << m_port << "\n"
       << "    ip: \"127.0.0.1\"\n"
       << "    module: mod_mqtt\n"
       << "modules:\n"
       << "  mod_mqtt:\n"
       << "    session_expiry: 1 day\n"
       << "    max_queue: 100000\n"
       << "    access_publish: {\"#\": [allow: all]}\n"
       << "    access_subscribe: {\"#\": [allow: all]}\n";
}

bool EjabberdBroker::tryToStart() {
  const std::string folder = m_folder.string();
  m_program = std::make_unique<HostProcess>(
      std::vector<std::string>{"erl", "-noinput", "-mnesia", "dir", "\"" + folder + "/spool\"",
                               "-pa", ADC_EJABBERD_CODE, "-s", "ejabberd"},
      HostProcess::Environment{{"HOME", folder},
                               {"EJABBERD_CONFIG_PATH", folder + "/ejabberd.yml"},
                               {"EJABBERD_LOG_PATH", folder + "/ejabberd.log"}});
  return m_program->WaitForOutput("Start accepting TCP connections at 127.0.0.1:" +
                                  std::to_string(m_port));
}
