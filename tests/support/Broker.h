#ifndef TESTS_SUPPORT_BROKER_H
#define TESTS_SUPPORT_BROKER_H

#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "Program.h"
#include "TemporaryFolder.h"

// A real broker of its own for one test: on loopback, at a port that stays the same when it is
// started again, with all that it must remember in a temporary folder. Failures are thrown as
// std::runtime_error.
class Broker {
 public:
  // Starts it. `configuration`: lines for the listener, after the usual ones.
  explicit Broker(std::string configuration = "allow_anonymous true\n");
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  int Port() const { return m_port; }
  std::string Address() const { return "mqtt://127.0.0.1:" + std::to_string(m_port); }

  // Starts it again with a second listener at a port of its own, which has these lines of
  // configuration. The first one stays as it is.
  void Guard(const std::string& lines);
  int GuardedPort() const { return m_guardedPort; }
  std::string GuardedAddress(const std::string& scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(m_guardedPort);
  }

  // Starts it again with these lines for the whole broker, such as a connection to another one.
  void Extend(const std::string& lines);

  // Returns once it can be connected to, and when whoever wants to know of each start has returned.
  void Start();
  void CallOnStart(std::function<void()> onStart) { m_onStart = std::move(onStart); }
  bool IsRunning() const { return m_program != nullptr; }
  // Whether it has ended although nobody stopped or killed it here.
  bool HasFailed() const { return m_program && m_program->HasEnded(); }
  pid_t Pid() const { return m_program ? m_program->Pid() : 0; }
  // Returns when it has saved its sessions and retained messages, and goes on.
  void Save() const;
  // A clean shutdown: it saves its sessions and retained messages first.
  void Stop();
  // Ends it as a crash would: it loses what it has not saved.
  void Kill() { m_program.reset(); }
  // While it is not running: its sessions and retained messages are gone.
  void Forget() { std::filesystem::remove(m_folder.Path() / "mosquitto.db"); }
  // It goes on, but neither reads nor writes, until it is thawed.
  void Freeze() {
    if (m_program) m_program->Signal(SIGSTOP);
  }
  void Thaw() {
    if (m_program) m_program->Signal(SIGCONT);
  }

  // Of all its lives. Packets are in it when the configuration says "log_type all".
  std::string Log() const { return m_folder.Read("log"); }
  // Until the text is in the log, behind the first `from` bytes; false when it does not come.
  bool WaitForLog(const std::string& text, std::size_t from = 0) const;

 private:
  // Tries ports until it runs with one.
  void startAtNewPort(int& port);
  void configure() const;
  // False, and why is in the log, when it ends instead.
  bool tryToStart();

  const TemporaryFolder m_folder;
  const std::string m_configuration;
  int m_port = 0;
  int m_guardedPort = 0;  // 0: there is no second listener
  std::string m_guard;
  std::string m_extension;
  std::function<void()> m_onStart;
  std::unique_ptr<Program> m_program;  // null while the broker is stopped
};

#endif  // TESTS_SUPPORT_BROKER_H
