#ifndef TESTS_TCPPROXY_H
#define TESTS_TCPPROXY_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

// A network that misbehaves: passes TCP connections to a port of the loopback interface on to
// another one, later, not at all, or only so many bytes. Nothing is lost of a connection that is
// not cut. Any thread may use it. Failures are thrown as std::runtime_error.
class TcpProxy {
 public:
  enum Direction { kToServer, kToClient, kDirections };

  explicit TcpProxy(int serverPort);
  ~TcpProxy();
  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;

  int Port() const { return m_port; }

  // From now on, what comes is passed on so much later.
  void Delay(std::chrono::milliseconds delay) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_delay = delay;
  }
  // While stalled, connections are accepted and nothing is passed on.
  void Stall(bool stalled) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stalled = stalled;
  }
  // While closed, all connections are refused.
  void Close();
  void Open();
  // Breaks every connection, and takes CutAfter back.
  void Cut();
  // Breaks the connection over which so many more bytes have been passed on in this direction,
  // once.
  void CutAfter(Direction direction, std::size_t bytes) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bytesLeft[direction] = bytes;
  }
  // How often CutAfter has broken a connection.
  std::size_t Cuts() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_cuts;
  }

 private:
  using Clock = std::chrono::steady_clock;
  struct Chunk {
    Clock::time_point due;
    std::string bytes;
  };
  struct Connection {
    int sockets[kDirections];  // where each direction ends: the server's, the client's
    std::deque<Chunk> chunks[kDirections];
    bool ended[kDirections] = {false, false};  // no more comes in this direction
    bool broken = false;
  };

  // All of these with the lock.
  void openListener();
  void accept();
  short eventsOf(const Connection& connection, Direction direction) const;
  void receive(Connection& connection, Direction direction);
  void send(Connection& connection, Direction direction);
  static void close(Connection& connection);

  void run();

  const int m_serverPort;
  int m_port = 0;
  mutable std::mutex m_mutex;  // guards all of what follows
  int m_listener = -1;         // -1 while closed
  std::chrono::milliseconds m_delay{0};
  bool m_stalled = false;
  bool m_stopped = false;
  std::optional<std::size_t> m_bytesLeft[kDirections];
  std::size_t m_cuts = 0;
  std::list<Connection> m_connections;
  std::thread m_thread;
};

#endif  // TESTS_TCPPROXY_H
