#ifndef TESTS_FUZZ_SOCKETBROKER_H
#define TESTS_FUZZ_SOCKETBROKER_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace fuzz {

// The broker's end of TCP, on a port of the loopback interface: one connection at a time, any bytes
// and no protocol. What only the machine can refuse, and a service that does not take its part,
// ends the process. One thread uses an object.
class SocketBroker {
 public:
  SocketBroker();
  ~SocketBroker();
  SocketBroker(const SocketBroker&) = delete;
  SocketBroker& operator=(const SocketBroker&) = delete;

  int Port() const { return m_port; }

  // Waits for the next connection; there must be none.
  void Accept();
  // The same, without waiting; false when there is none.
  bool AcceptWaiting();
  // Closes the connections that nobody has accepted.
  void RefuseWaiting();
  // True from Accept to Drop.
  bool HasConnection() const { return m_connection >= 0; }
  // Closes the connection, if any; `resets`: what was sent may be lost.
  void Drop(bool resets = false);
  // Nothing more is sent.
  void EndSending();
  bool MaySend() const { return HasConnection() && m_maySend; }

  // Sends everything, unless the service has closed the connection.
  void Send(std::string_view bytes);
  // What has come. Nothing: the service has closed the connection.
  std::optional<std::string> Receive();
  // Waits for something to come from the service: bytes, an end or a connection. With `other`, an
  // open descriptor, also for something to be read there. False after `limit`; true for nothing
  // when a signal interrupts.
  bool Wait(std::chrono::milliseconds limit, int other = -1) const;

 private:
  int m_listener;
  int m_port = 0;
  int m_connection = -1;
  bool m_maySend = false;
};

}  // namespace fuzz

#endif  // TESTS_FUZZ_SOCKETBROKER_H
