#ifndef TESTS_SYSTEM_BROKER_H
#define TESTS_SYSTEM_BROKER_H

#include <filesystem>
#include <memory>
#include <string>

#include "HostProcess.h"

// A broker of its own for one test: on loopback, at a port that stays the same when it is started
// again, with everything that it must remember in the test's folder. Failures are thrown as
// std::runtime_error.
class Broker {
 public:
  // Starts it. The folder must live longer.
  explicit Broker(const std::filesystem::path& folder);

  int Port() const { return m_port; }
  std::string Address() const { return "mqtt://127.0.0.1:" + std::to_string(m_port); }

  // Starts it again with a second listener at a port of its own, which has these lines of
  // configuration. The first one stays open to everybody.
  void Guard(const std::string& lines);
  std::string GuardedAddress(const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_guardedPort);
  }

  // Ends the broker in order: it writes down its sessions first.
  void Stop();
  void Start();
  // Ends it as a crash would: it has only what it wrote down before.
  void Kill();
  // It goes on, but neither reads nor writes, until it is thawed.
  void Freeze();
  void Thaw();
  // While it is not running: its sessions and retained messages are gone.
  void Forget();

 private:
  // Tries ports until it runs with one.
  void startAtNewPort(int& port);
  void configure();
  bool tryToStart();

  const std::filesystem::path m_folder;
  const std::string m_configuration;
  int m_port = 0;
  int m_guardedPort = 0;  // 0: there is no second listener
  std::string m_guard;
  std::unique_ptr<HostProcess> m_program;  // null while the broker is stopped
};

#endif  // TESTS_SYSTEM_BROKER_H
