#ifndef TESTS_PLATFORM_LUMO_BROKER_H
#define TESTS_PLATFORM_LUMO_BROKER_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "TemporaryFolder.h"

// A program of the system, which does not outlive the thread that started it.
class Program {
 public:
  // What it prints goes to the file. Throws std::runtime_error.
  Program(const std::vector<std::string>& command, const std::string& outputFile);
  ~Program();  // kills it
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void Signal(int signal) const;
  // The exit status, or minus the signal that ended it.
  int Wait();
  bool HasEnded();

 private:
  pid_t m_pid;
  int m_status = 0;  // once it has ended
};

// Runs it to its end; throws std::runtime_error when that is no success.
void RunToEnd(const std::vector<std::string>& command);

// A real broker on a port of the loopback interface, with its sessions and retained messages in a
// temporary folder, from where it takes them up when it is started again.
class Broker {
 public:
  // `configuration`: lines for the listener, after the usual ones.
  explicit Broker(std::string configuration = "allow_anonymous true\n", bool started = true);
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  int Port() const { return m_port; }
  // Returns once it can be connected to.
  void Start();
  // It keeps its sessions and retained messages; in order, as an update of the machine does it.
  void Stop();
  // It loses what it has not saved.
  void Kill();
  void Forget();  // while it is stopped: its sessions and retained messages
  // It goes on, but neither reads nor writes.
  void Freeze();
  void Thaw();
  std::string Log() const;
  // Until the text is in the log; false after a minute.
  bool WaitForLog(const std::string& text) const;

 private:
  // False, and why is in the log, when it ends instead.
  bool tryToStart();

  TemporaryFolder m_folder;
  const std::string m_configuration;
  int m_port;
  std::unique_ptr<Program> m_program;
};

#endif  // TESTS_PLATFORM_LUMO_BROKER_H
