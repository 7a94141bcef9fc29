#ifndef TESTS_SYSTEM_HOSTPROCESS_H
#define TESTS_SYSTEM_HOSTPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Pipe.h"
#include "Program.h"

// The host, or one of the commands around it, as a child whose two output streams are collected
// apart, as they come. It ends with the object at the latest, and with the thread that started it.
// One thread uses an object.
class HostProcess {
 public:
  using Environment = Program::Environment;

  // Anything that must happen does so within this, on a busy machine as well.
  static constexpr std::chrono::seconds kPatience = std::chrono::seconds(60);

  // `command[0]` is searched for in PATH. `changes` are laid over this process's environment.
  // Throws std::runtime_error when no child can be made; a program that is not there ends with 127.
  explicit HostProcess(std::vector<std::string> command, const Environment& changes = {});
  ~HostProcess();
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  pid_t Pid() const { return m_program.Pid(); }

  // What has come so far on standard output and standard error.
  std::string Output() const;
  std::string Errors() const;
  // Wait until the text stands in the stream `count` times; false after kPatience, or when both
  // streams have ended without.
  bool WaitForOutput(const std::string& text, unsigned count = 1);
  bool WaitForError(const std::string& text, unsigned count = 1);

  // Standard error is not read, so that its pipe fills, until it is read again. Wait reads it.
  void ReadErrors(bool on);

  void Send(int signal) { m_program.Signal(signal); }
  // Whether it has ended; does not wait for it.
  bool HasEnded() const { return m_program.HasEnded(); }
  // Waits for the end of it and of its output. The exit status, or minus the number of the signal
  // that ended it; it is killed after kPatience.
  int Wait();
  bool IsWaitedFor() const { return !m_output.reader.joinable(); }
  int End(int signal) {
    Send(signal);
    return Wait();
  }

 private:
  struct Stream {
    Pipe pipe;
    std::string text;     // guarded by m_mutex
    bool ended = false;   // guarded by m_mutex
    bool unread = false;  // guarded by m_mutex; nobody reads it
    std::thread reader;
  };

  void read(Stream& stream);
  bool waitFor(const Stream& stream, const std::string& text, unsigned count);

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  Stream m_output;
  Stream m_errors;
  Program m_program;
};

// How often the part stands in the text.
unsigned CountOf(const std::string& part, const std::string& text);

// How often the host has logged that it had nobody to send an event to.
unsigned CountUnsent(const std::string& log);

// A command that has run to its end.
struct CommandResult {
  int status;
  std::string output;
  std::string errors;
};
CommandResult RunCommand(const std::vector<std::string>& command,
                         const HostProcess::Environment& changes = {});

#endif  // TESTS_SYSTEM_HOSTPROCESS_H
