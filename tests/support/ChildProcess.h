#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>

// A forked child that runs a function and exits, as main() would, with what it returns. The parent
// should have no other threads. A child that hangs is ended by the alarm clock.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The exit status, or minus the number of the signal that ended it.
  int Wait();

 private:
  pid_t m_pid;
};

// All that comes until the last writer closes its end.
std::string ReadToEnd(int descriptor);

#endif  // TESTS_SUPPORT_CHILDPROCESS_H
