#ifndef TESTS_SUPPORT_PROGRAM_H
#define TESTS_SUPPORT_PROGRAM_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

// A program as a child, in a process group of its own. It ends with the object at the latest, and
// with the thread that started it. One thread uses an object.
class Program {
 public:
  using Environment = std::map<std::string, std::string>;

  // Descriptors for what it prints; the program gets copies of them.
  struct Streams {
    int output;
    int errors;
  };

  // `command[0]` is searched for in PATH. `changes` are laid over this process's environment.
  // Throws std::system_error when no child can be made; a program that is not there ends with 127.
  Program(std::vector<std::string> command, Streams streams, const Environment& changes = {});
  // What it prints is appended to the file.
  Program(const std::vector<std::string>& command, const std::string& outputFile);
  ~Program();  // kills it
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // That of a program which has ended, too.
  pid_t Pid() const { return m_pid; }
  // Does nothing once Wait has returned.
  void Signal(int signal) const;
  // Whether it has ended; does not wait for it.
  bool HasEnded() const;
  // Waits for its end. The exit status, or minus the number of the signal that ended it.
  int Wait();

 private:
  const pid_t m_pid;
  bool m_running = true;  // until Wait has returned
  int m_status = 0;       // as waitpid gives it, after that
};

// Adds an empty value for each variable of this process that begins so and that the changes leave
// as it is.
void ClearInherited(Program::Environment& changes, const std::string& prefix);

// Runs it to its end; throws std::runtime_error when that is no success.
void RunToEnd(const std::vector<std::string>& command);

#endif  // TESTS_SUPPORT_PROGRAM_H
