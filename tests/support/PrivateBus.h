#ifndef TESTS_PRIVATEBUS_H
#define TESTS_PRIVATEBUS_H

#include <csignal>
#include <memory>
#include <string>

#include "Program.h"
#include "TemporaryFolder.h"

// A message bus of the system type for one test process: a dbus-daemon of its own with a socket and
// a configuration in a temporary folder, which both end with the object. The daemon also ends when
// the thread that started it dies.
//
// The first bus of a process must be made before the process has a second thread: it sets
// DBUS_SYSTEM_BUS_ADDRESS. Failures are thrown as std::runtime_error.
class PrivateBus {
 public:
  // A bus that every user may connect to, with the rules that a system bus comes with, careless
  // ones of another service, and those of one service: the content of its policy file. Without one
  // the bus allows everything.
  explicit PrivateBus(const std::string& servicePolicy = {});
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& Address() const { return m_address; }

  // Ends the daemon as a crash would. Does nothing when it is not running.
  void Kill() { m_daemon.reset(); }
  // It goes on, but neither reads nor writes, until it is thawed.
  void Freeze() {
    if (m_daemon) m_daemon->Signal(SIGSTOP);
  }
  void Thaw() {
    if (m_daemon) m_daemon->Signal(SIGCONT);
  }
  // Starts the daemon, again at the same address. Does nothing when it is running.
  void Start();

 private:
  const TemporaryFolder m_folder;
  const std::string m_address = "unix:path=" + m_folder.Path().string() + "/bus";
  std::unique_ptr<Program> m_daemon;  // null when it is not running
};

#endif  // TESTS_PRIVATEBUS_H
