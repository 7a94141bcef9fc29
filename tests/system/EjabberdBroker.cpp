#include "EjabberdBroker.h"

#include <csignal>
#include <fstream>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

constexpr int kTries = 5;

// As in Broker: nobody gets one of these for an outgoing connection.
int randomPort() {
  std::random_device random;
  return std::uniform_int_distribution<int>(20000, 32000)(random);
}

}  // namespace

ErlangNames::ErlangNames() {
  std::random_device random;
  m_cookie = "c" + std::to_string(random()) + std::to_string(random());
  for (int i = 0; i < kTries; ++i) {
    m_port = randomPort();
    m_program = std::make_unique<HostProcess>(std::vector<std::string>{
        "epmd", "-d", "-address", "127.0.0.1", "-port", std::to_string(m_port)});
    if (m_program->WaitForError("epmd running")) return;
  }
  throw std::runtime_error("epmd does not start: " + m_program->Errors());
}

EjabberdBroker::EjabberdBroker(const std::filesystem::path& folder, Node node)
    : m_node(std::move(node)), m_folder(folder / ("ejabberd" + m_node.name)) {
  if (!IsInstalled()) throw std::runtime_error("ejabberd is not installed");
  std::filesystem::create_directory(m_folder);
  for (int i = 0; i < kTries; ++i) {
    m_port = randomPort();
    configure();
    if (tryToStart()) return;
    std::filesystem::remove_all(m_folder / "spool");
  }
  throw std::runtime_error("ejabberd does not start: " + m_program->Output() + m_program->Errors());
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
  std::vector<std::string> command{
      "erl", "-noinput", "-mnesia", "dir", "\"" + folder + "/spool\"", "-pa", ADC_EJABBERD_CODE};
  HostProcess::Environment variables{{"HOME", folder},
                                     {"EJABBERD_CONFIG_PATH", folder + "/ejabberd.yml"},
                                     {"EJABBERD_LOG_PATH", folder + "/ejabberd.log"}};
  if (m_node.names != nullptr) {
    command.insert(command.end(),
                   {"-name", nodeName(), "-setcookie", m_node.names->Cookie(), "-start_epmd",
                    "false", "-kernel", "inet_dist_use_interface", "{127,0,0,1}"});
    variables["ERL_EPMD_ADDRESS"] = "127.0.0.1";
    variables["ERL_EPMD_PORT"] = std::to_string(m_node.names->Port());
  }
  command.insert(command.end(), {"-s", "ejabberd"});
  if (m_node.joins != nullptr) {
    // What `ejabberdctl join_cluster` runs.
    command.insert(command.end(), {"-eval", "io:format(\"joined: ~p~n\", [ejabberd_cluster:join('" +
                                                m_node.joins->nodeName() + "')])"});
  }
  m_program = std::make_unique<HostProcess>(command, variables);
  // A node that joins starts a second time.
  const unsigned starts = m_node.joins != nullptr ? 2 : 1;
  const std::string listens =
      "Start accepting TCP connections at 127.0.0.1:" + std::to_string(m_port);
  return m_program->WaitForOutput(listens, starts) &&
         (m_node.joins == nullptr || m_program->WaitForOutput("joined: ok"));
}
