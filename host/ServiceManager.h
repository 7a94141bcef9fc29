#ifndef HOST_SERVICEMANAGER_H
#define HOST_SERVICEMANAGER_H

#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

namespace QivoThing {

// Tells the service manager how the process is, when NOTIFY_SOCKET names a socket for that (a path,
// or an abstract one with '@'). Does nothing otherwise.
//
// While the main loop runs, it also says that it does: twice in the time of WATCHDOG_USEC. Until
// the service is ready for the first time, the same message extends the time for the start, so that
// a start may wait for as long as the loop runs.
//
// Each message is one datagram. It never waits: what the socket does not take is told again a
// second later, the last status only. Created, used and destroyed on the thread of GLib's default
// main context.
class ServiceManager {
 public:
  // Reads the environment, and tells for the first time that the loop runs.
  ServiceManager();
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  // `status` is one line for the operator. Nothing is sent when there is no news.
  void TellStatus(const std::string& status);
  void TellReady(const std::string& status);
  void TellStopping(const std::string& status);

 private:
  // -1 when there is none.
  class Socket {
   public:
    Socket() = default;
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // `name` is what NOTIFY_SOCKET has. False, with errno, when it cannot be used.
    bool Open(const std::string& name);
    bool IsOpen() const { return m_descriptor >= 0; }
    bool Send(const std::string& datagram) const;

   private:
    int m_descriptor = -1;
    sockaddr_un m_address{};
    socklen_t m_addressLength = 0;
  };

  void openSocket();
  void startWatchdog();
  void tell();

  static gboolean on_alive(gpointer manager);
  static gboolean on_again(gpointer manager);

  Socket m_socket;
  std::uint64_t m_watchdogUs = 0;  // 0: not wanted
  std::string m_status;            // as it was given last
  // What the manager has not got yet.
  bool m_statusIsNews = false;
  bool m_readyIsNews = false;
  bool m_stoppingIsNews = false;
  bool m_wasReady = false;
  guint m_aliveTimer = 0;
  guint m_againTimer = 0;
};

}  // namespace QivoThing

#endif  // HOST_SERVICEMANAGER_H
