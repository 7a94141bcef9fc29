#ifndef TESTS_CAMPAIGN_EJABBERDBROKER_H
#define TESTS_CAMPAIGN_EJABBERDBROKER_H

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "AnyBroker.h"
#include "HostProcess.h"

// A broker of another make: Debian's package ejabberd, with everything that it writes in a folder.
// It keeps sessions in memory, so that it never remembers one when it is started again.
class EjabberdBroker final : public AnyBroker {
 public:
  // The folder must live longer.
  explicit EjabberdBroker(std::filesystem::path folder) : m_folder(std::move(folder) / "ejabberd") {
    if (std::string(ADC_EJABBERD_CODE).empty()) {
      throw std::runtime_error("ejabberd is not installed");
    }
    std::filesystem::create_directory(m_folder);
    std::random_device random;
    // As in Broker: nobody gets one of these for an outgoing connection.
    std::uniform_int_distribution<int> ports(20000, 32000);
    for (int i = 0; i < 5; ++i) {
      m_port = ports(random);
      configure();
      if (tryToStart()) return;
    }
    throw std::runtime_error("ejabberd does not start: " + m_program->Output());
  }

  int Port() const override { return m_port; }
  std::string User() const override { return "somebody@localhost"; }
  std::string Password() const override { return "whatever"; }
  void Stop() override { throw std::logic_error("this broker has its sessions in memory only"); }
  void KillAndForget() override {
    if (m_program) m_program->End(SIGKILL);
    m_program.reset();
    std::filesystem::remove_all(m_folder / "spool");
  }
  void Start() override {
    if (!m_program && !tryToStart()) {
      throw std::runtime_error("ejabberd does not start again: " + m_program->Output());
    }
  }

 private:
  void configure() const {
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

  bool tryToStart() {
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

  const std::filesystem::path m_folder;
  int m_port = 0;
  std::unique_ptr<HostProcess> m_program;  // null while it is not running
};

#endif  // TESTS_CAMPAIGN_EJABBERDBROKER_H
