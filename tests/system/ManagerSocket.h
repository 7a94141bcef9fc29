#ifndef TESTS_SYSTEM_MANAGERSOCKET_H
#define TESTS_SYSTEM_MANAGERSOCKET_H

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "TemporaryFolder.h"

// The socket of a service manager, as NOTIFY_SOCKET names it. One thread uses it. Failures are
// thrown as std::runtime_error.
class ManagerSocket {
 public:
  enum class Kind { Path, Abstract };

  explicit ManagerSocket(Kind kind = Kind::Path) {
    const std::string path = m_folder.Path() / "notify";
    m_name = kind == Kind::Path ? path : "@" + path;
    m_address.sun_family = AF_UNIX;
    m_name.copy(m_address.sun_path, sizeof m_address.sun_path - 1);
    if (kind == Kind::Abstract) m_address.sun_path[0] = '\0';
    m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(m_socket, reinterpret_cast<const sockaddr*>(&m_address), length()) != 0) {
      throw std::runtime_error("no socket");
    }
  }
  ~ManagerSocket() { close(m_socket); }
  ManagerSocket(const ManagerSocket&) = delete;
  ManagerSocket& operator=(const ManagerSocket&) = delete;

  const std::string& Name() const { return m_name; }

  // From another socket; false when there is no room for it.
  bool SendTo(int from, const std::string& datagram) const {
    return sendto(from, datagram.data(), datagram.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&m_address), length()) >= 0;
  }

  // The next datagram; empty when none comes in this time.
  std::string Receive(std::chrono::milliseconds limit) const {
    const timeval time{limit.count() / 1000, static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
    setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    std::array<char, 4096> buffer{};
    const ssize_t count = recv(m_socket, buffer.data(), buffer.size(), 0);
    return count <= 0 ? "" : std::string(buffer.data(), static_cast<std::size_t>(count));
  }
  // The datagrams up to the one that has this part, which is the last of them; all that come within
  // a minute when none has it.
  std::string ReceiveUntil(const std::string& part) const {
    std::string all;
    for (std::string next; !(next = Receive(std::chrono::seconds(60))).empty();) {
      all += "[" + next + "]";
      if (next.find(part) != std::string::npos) break;
    }
    return all;
  }

 private:
  socklen_t length() const {
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_name.size());
  }

  const TemporaryFolder m_folder;
  std::string m_name;
  sockaddr_un m_address{};
  int m_socket = -1;
};

#endif  // TESTS_SYSTEM_MANAGERSOCKET_H
