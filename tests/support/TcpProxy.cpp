#include "TcpProxy.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::size_t kMaxWaitingChunks = 256;  // then the sender has to wait

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int newSocket(int flags = 0) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (descriptor < 0) throw std::runtime_error("no socket");
  return descriptor;
}

TcpProxy::Direction opposite(TcpProxy::Direction direction) {
  return direction == TcpProxy::kToServer ? TcpProxy::kToClient : TcpProxy::kToServer;
}

}  // namespace

TcpProxy::TcpProxy(int serverPort) : m_serverPort(serverPort) {
  openListener();
  m_wakeup = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_wakeup < 0) throw std::runtime_error("no eventfd");
  m_thread = std::thread([this] { run(); });
}

TcpProxy::~TcpProxy() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
  }
  wake();
  m_thread.join();
  Close();
  for (Connection& connection : m_connections) close(connection, true);
  ::close(m_wakeup);
}

void TcpProxy::Delay(std::chrono::milliseconds delay) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_delay = delay;
}

void TcpProxy::Stall(bool stalled) {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stalled = stalled;
  }
  wake();
}

void TcpProxy::Close() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_listener >= 0) ::close(m_listener);
  m_listener = -1;
}

void TcpProxy::Open() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_listener < 0) openListener();
  }
  wake();
}

void TcpProxy::Cut() {
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (Connection& connection : m_connections) connection.broken = true;
  }
  wake();
}

void TcpProxy::CutAfter(Direction direction, std::size_t bytes) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_bytesLeft[direction] = bytes;
}

std::size_t TcpProxy::Cuts() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_cuts;
}

void TcpProxy::run() {
  std::vector<pollfd> polled;
  while (true) {
    polled.clear();
    polled.push_back({m_wakeup, POLLIN, 0});
    int timeout = -1;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopped) return;
      polled.push_back({m_listener, POLLIN, 0});  // a negative one is overlooked
      const Clock::time_point now = Clock::now();
      for (const Connection& connection : m_connections) {
        for (const Direction direction : {kToServer, kToClient}) {
          const std::deque<Chunk>& out = connection.chunks[direction];
          const std::deque<Chunk>& in = connection.chunks[opposite(direction)];
          short events = 0;
          if (!connection.ended[opposite(direction)] && in.size() < kMaxWaitingChunks) {
            events = POLLIN;
          }
          if (!out.empty() && !m_stalled) {
            const auto wait =
                std::chrono::ceil<std::chrono::milliseconds>(out.front().due - now).count();
            if (wait <= 0) {
              events = static_cast<short>(events | POLLOUT);
            } else {
              timeout =
                  timeout < 0 ? static_cast<int>(wait) : std::min(timeout, static_cast<int>(wait));
            }
          }
          polled.push_back({events == 0 ? -1 : connection.sockets[direction], events, 0});
        }
      }
    }
    poll(polled.data(), polled.size(), timeout);

    const std::lock_guard<std::mutex> lock(m_mutex);
    std::uint64_t ignored = 0;
    while (read(m_wakeup, &ignored, sizeof ignored) > 0) {
    }
    auto entry = polled.begin() + 2;
    for (Connection& connection : m_connections) {
      for (const Direction direction : {kToServer, kToClient}) {
        const short events = (entry++)->revents;
        if ((events & POLLOUT) != 0) send(connection, direction);
        if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) receive(connection, opposite(direction));
      }
    }
    if (polled[1].revents != 0) accept();
    m_connections.remove_if([](Connection& connection) {
      const bool over = connection.ended[kToServer] && connection.chunks[kToServer].empty() &&
                        connection.ended[kToClient] && connection.chunks[kToClient].empty();
      if (connection.broken || over) close(connection, connection.broken);
      return connection.broken || over;
    });
  }
}

void TcpProxy::accept() {
  if (m_listener < 0) return;
  const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return;
  const int server = newSocket();
  const sockaddr_in address = loopback(m_serverPort);
  const int on = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  m_connections.emplace_back();
  Connection& connection = m_connections.back();
  connection.sockets[kToServer] = server;
  connection.sockets[kToClient] = client;
  connection.broken =
      connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0;
}

// What is to go in this direction.
void TcpProxy::receive(Connection& connection, Direction direction) {
  std::array<char, 4096> buffer{};
  const ssize_t count =
      recv(connection.sockets[opposite(direction)], buffer.data(), buffer.size(), MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count < 0) {
    connection.broken = true;
  } else if (count == 0) {
    connection.ended[direction] = true;
    if (connection.chunks[direction].empty()) shutdown(connection.sockets[direction], SHUT_WR);
  } else {
    connection.chunks[direction].push_back(
        {Clock::now() + m_delay, std::string(buffer.data(), static_cast<std::size_t>(count))});
  }
}

void TcpProxy::send(Connection& connection, Direction direction) {
  Chunk& chunk = connection.chunks[direction].front();
  std::optional<std::size_t>& left = m_bytesLeft[direction];
  const std::size_t size = std::min(chunk.bytes.size(), left.value_or(chunk.bytes.size()));
  const ssize_t count =
      ::send(connection.sockets[direction], chunk.bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0) {
    connection.broken = errno != EAGAIN && errno != EINTR;
    return;
  }
  chunk.bytes.erase(0, static_cast<std::size_t>(count));
  if (left) {
    *left -= static_cast<std::size_t>(count);
    if (*left == 0) {
      left.reset();
      ++m_cuts;
      connection.broken = true;
      return;
    }
  }
  if (chunk.bytes.empty()) connection.chunks[direction].pop_front();
  if (connection.ended[direction] && connection.chunks[direction].empty()) {
    shutdown(connection.sockets[direction], SHUT_WR);
  }
}

void TcpProxy::close(Connection& connection, bool broken) {
  for (const int descriptor : connection.sockets) {
    if (broken) shutdown(descriptor, SHUT_RDWR);
    ::close(descriptor);
  }
}

void TcpProxy::openListener() {
  // It may have nobody waiting any more when the poll's result is looked at.
  m_listener = newSocket(SOCK_NONBLOCK);
  const int on = 1;
  setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(m_port);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (bind(m_listener, any, size) != 0 || listen(m_listener, SOMAXCONN) != 0 ||
      getsockname(m_listener, any, &size) != 0) {
    ::close(m_listener);
    throw std::runtime_error("no port for the proxy");
  }
  m_port = ntohs(address.sin_port);
}

void TcpProxy::wake() {
  const std::uint64_t one = 1;
  static_cast<void>(write(m_wakeup, &one, sizeof one) == sizeof one);
}
