#include "SocketBroker.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "Require.h"

namespace fuzz {
namespace {

// Nothing in an input takes so long, not even on a machine that is busy.
constexpr int kPatienceMs = 20'000;
constexpr int kBacklog = 16;

// A fuzzer interrupts with its timer.
bool waitFor(int descriptor, short events) {
  pollfd poll{descriptor, events, 0};
  int count = 0;
  do {
    count = ::poll(&poll, 1, kPatienceMs);
  } while (count < 0 && errno == EINTR);
  return count > 0;
}

}  // namespace

SocketBroker::SocketBroker()
    : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  const bool isListening = bind(m_listener, generic, length) == 0 &&
                           listen(m_listener, kBacklog) == 0 &&
                           getsockname(m_listener, generic, &length) == 0;
  Require(isListening, "a port can be listened on");
  m_port = ntohs(address.sin_port);
}

SocketBroker::~SocketBroker() {
  Drop();
  close(m_listener);
}

void SocketBroker::Accept() {
  Require(!HasConnection(), "there is one connection at a time");
  Require(waitFor(m_listener, POLLIN) && AcceptWaiting(),
          "a service that has lost its connection makes another one");
}

bool SocketBroker::AcceptWaiting() {
  m_connection = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (m_connection < 0) return false;
  const int yes = 1;
  setsockopt(m_connection, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
  m_maySend = true;
  return true;
}

void SocketBroker::RefuseWaiting() {
  Drop();
  while (AcceptWaiting()) Drop(true);
}

void SocketBroker::Drop(bool resets) {
  if (!HasConnection()) return;
  const linger reset{1, 0};
  if (resets) setsockopt(m_connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  close(m_connection);
  m_connection = -1;
  m_maySend = false;
}

void SocketBroker::EndSending() {
  if (HasConnection()) shutdown(m_connection, SHUT_WR);
  m_maySend = false;
}

void SocketBroker::Send(std::string_view bytes) {
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

std::optional<std::string> SocketBroker::Receive() {
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

bool SocketBroker::Wait(std::chrono::milliseconds limit, int other) const {
  // What is negative is not waited for.
  std::array<pollfd, 2> polls{pollfd{HasConnection() ? m_connection : m_listener, POLLIN, 0},
                              pollfd{other, POLLIN, 0}};
  return poll(polls.data(), polls.size(), static_cast<int>(limit.count())) != 0;
}

}  // namespace fuzz
