#ifndef TESTS_FUZZ_SOCKETBROKER_H
#define TESTS_FUZZ_SOCKETBROKER_H

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "Require.h"

namespace fuzz {

// The broker's end of TCP, on a port of the loopback interface: one connection at a time, any bytes
// and no protocol. What only the machine can refuse, and a service that does not take its part,
// ends the process. One thread uses an object.
class SocketBroker {
 public:
  SocketBroker() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const bool isListening = bind(m_listener, generic, length) == 0 &&
                             listen(m_listener, 16) == 0 &&
                             getsockname(m_listener, generic, &length) == 0;
    Require(isListening, "a port can be listened on");
    m_port = ntohs(address.sin_port);
  }

  ~SocketBroker() {
    Drop();
    close(m_listener);
  }
  SocketBroker(const SocketBroker&) = delete;
  SocketBroker& operator=(const SocketBroker&) = delete;

  int Port() const { return m_port; }

  // Waits for the next connection; there must be none.
  void Accept() {
    Require(!HasConnection(), "there is one connection at a time");
    Require(waitFor(m_listener, POLLIN) && AcceptWaiting(),
            "a service that has lost its connection makes another one");
  }

  // The same, without waiting; false when there is none.
  bool AcceptWaiting() {
    m_connection = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (m_connection < 0) return false;
    const int yes = 1;
    setsockopt(m_connection, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    m_maySend = true;
    return true;
  }

  // Closes the connections that nobody has accepted.
  void RefuseWaiting() {
    Drop();
    while (AcceptWaiting()) Drop(true);
  }

  // True from Accept to Drop.
  bool HasConnection() const { return m_connection >= 0; }

  // Closes the connection, if any; `resets`: what was sent may be lost.
  void Drop(bool resets = false) {
    if (!HasConnection()) return;
    const linger reset{1, 0};
    if (resets) setsockopt(m_connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(m_connection);
    m_connection = -1;
    m_maySend = false;
  }

  // Nothing more is sent.
  void EndSending() {
    if (HasConnection()) shutdown(m_connection, SHUT_WR);
    m_maySend = false;
  }

  bool MaySend() const { return HasConnection() && m_maySend; }

  // Sends everything, unless the service has closed the connection.
  void Send(std::string_view bytes) {
    while (!bytes.empty() && MaySend()) {
      const ssize_t sent = send(m_connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent >= 0) {
        bytes.remove_prefix(static_cast<std::size_t>(sent));
      } else if (errno == EAGAIN) {
        Require(waitFor(m_connection, POLLOUT),
                "a service reads what it is sent, or closes the connection");
      } else if (errno != EINTR) {
        m_maySend = false;  // what it has sent before can still be read
      }
    }
  }

  // What has come. Nothing: the service has closed the connection.
  std::optional<std::string> Receive() {
    std::string all;
    std::array<char, 65536> buffer;
    for (;;) {
      const ssize_t size = recv(m_connection, buffer.data(), buffer.size(), 0);
      if (size > 0) {
        all.append(buffer.data(), static_cast<std::size_t>(size));
        continue;
      }
      if (size < 0 && errno == EINTR) continue;
      const bool isOpen = size < 0 && errno == EAGAIN;
      if (!isOpen && all.empty()) return std::nullopt;
      return all;
    }
  }

  // Waits for something to come from the service: bytes, an end or a connection. With `other`, an
  // open descriptor, also for something to be read there. False after `limit`; true for nothing
  // when a signal interrupts.
  bool Wait(std::chrono::milliseconds limit, int other = -1) const {
    // What is negative is not waited for.
    std::array<pollfd, 2> polls{pollfd{HasConnection() ? m_connection : m_listener, POLLIN, 0},
                                pollfd{other, POLLIN, 0}};
    return poll(polls.data(), polls.size(), static_cast<int>(limit.count())) != 0;
  }

 private:
  // A fuzzer interrupts with its timer. Nothing in an input takes so long, not even on a machine
  // that is busy.
  static bool waitFor(int descriptor, short events) {
    constexpr int kPatienceMs = 20'000;
    pollfd poll{descriptor, events, 0};
    int count = 0;
    do {
      count = ::poll(&poll, 1, kPatienceMs);
    } while (count < 0 && errno == EINTR);
    return count > 0;
  }

  const int m_listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int m_port = 0;
  int m_connection = -1;
  bool m_maySend = false;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_SOCKETBROKER_H
