#ifndef TESTS_FLEET_HELPER_H
#define TESTS_FLEET_HELPER_H

#include <csignal>
#include <string>
#include <string_view>
#include <vector>

#include "LineStream.h"
#include "Program.h"

// A helper process of the runner, with a socket for lines both ways. It ends with the object. One
// thread uses it: the one that made it.
class Helper {
 public:
  // What it writes to standard error goes to `errors`. Throws std::system_error.
  Helper(std::vector<std::string> command, int errors);
  ~Helper();
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  int Descriptor() const { return m_ends.ours; }
  void Send(std::string_view line) { m_stream.Send(line); }
  void Flush() { m_stream.Flush(); }
  bool HasWaiting() const { return m_stream.HasWaiting(); }
  // What it has said so far, also before it ended.
  std::vector<std::string> Receive() { return m_stream.Receive(m_hasEnded); }
  bool HasEnded() const { return m_hasEnded; }
  void Kill() { m_program.Signal(SIGKILL); }

 private:
  struct Ends {
    int ours = -1;
    int theirs = -1;
  };
  static Ends connect();

  const Ends m_ends;
  Program m_program;
  LineStream m_stream;
  bool m_hasEnded = false;
};

#endif  // TESTS_FLEET_HELPER_H
