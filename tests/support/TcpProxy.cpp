#include "TcpProxy.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
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
// After which what is due, and what another thread has changed, is seen.
constexpr int kStepMs = 2;

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
  m_thread = std::thread([this] { run(); });
}

TcpProxy::~TcpProxy() {
  Close();
  Cut();
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stopped = true;
  }
  m_thread.join();
  for (Connection& connection : m_connections) close(connection);
}

void TcpProxy::Close() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_listener >= 0) ::close(m_listener);
  m_listener = -1;
}

void TcpProxy::Open() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  if (m_listener < 0) openListener();
}

void TcpProxy::Cut() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  for (Connection& connection : m_connections) connection.broken = true;
  for (std::optional<std::size_t>& bytes : m_bytesLeft) bytes.reset();
}

void TcpProxy::run() {
  std::vector<pollfd> polled;
  while (true) {
    polled.clear();
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      if (m_stopped) return;
      polled.push_back({m_listener, POLLIN, 0});  // poll() ignores a negative one
      for (const Connection& connection : m_connections) {
        for (const Direction direction : {kToServer, kToClient}) {
          const short events = eventsOf(connection, direction);
          polled.push_back({events == 0 ? -1 : connection.sockets[direction], events, 0});
        }
      }
    }
    poll(polled.data(), polled.size(), kStepMs);

    const std::lock_guard<std::mutex> lock(m_mutex);
    auto entry = polled.begin() + 1;
    for (Connection& connection : m_connections) {
      for (const Direction direction : {kToServer, kToClient}) {
        const short events = (entry++)->revents;
        if ((events & POLLOUT) != 0) send(connection, direction);
        if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) receive(connection, opposite(direction));
      }
    }
    if (polled[0].revents != 0) accept();
    m_connections.remove_if([](Connection& connection) {
      const bool over = connection.ended[kToServer] && connection.chunks[kToServer].empty() &&
                        connection.ended[kToClient] && connection.chunks[kToClient].empty();
      if (connection.broken || over) close(connection);
      return connection.broken || over;
    });
  }
}

// Of the socket where this direction ends.
short TcpProxy::eventsOf(const Connection& connection, Direction direction) const {
  const std::deque<Chunk>& out = connection.chunks[direction];
  const Direction in = opposite(direction);
  const bool takes = !connection.ended[in] && connection.chunks[in].size() < kMaxWaitingChunks;
  const bool gives = !m_stalled && !out.empty() && out.front().due <= Clock::now();
  return static_cast<short>((takes ? POLLIN : 0) | (gives ? POLLOUT : 0));
}

void TcpProxy::accept() {
  if (m_listener < 0) return;
  const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (client < 0) return;
  const int server = newSocket();
  const int on = 1;
  for (const int end : {client, server}) {
    setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
  m_connections.push_back({{server, client}, {}});
  const sockaddr_in address = loopback(m_serverPort);
  m_connections.back().broken =
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
    connection.broken = connection.broken || (errno != EAGAIN && errno != EINTR);
    return;
  }
  chunk.bytes.erase(0, static_cast<std::size_t>(count));
  if (left && (*left -= static_cast<std::size_t>(count)) == 0) {
    left.reset();
    ++m_cuts;
    connection.broken = true;
    return;
  }
  if (chunk.bytes.empty()) connection.chunks[direction].pop_front();
  if (connection.ended[direction] && connection.chunks[direction].empty()) {
    shutdown(connection.sockets[direction], SHUT_WR);
  }
}

void TcpProxy::close(Connection& connection) {
  for (const int descriptor : connection.sockets) {
    if (connection.broken) shutdown(descriptor, SHUT_RDWR);
    ::close(descriptor);
  }
}

void TcpProxy::openListener() {
  // It may have nobody waiting any more when the poll's result is read.
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
