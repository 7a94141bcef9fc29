#include "Listeners.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>

#include "BusClient.h"
#include "Environment.h"
#include "Names.h"

namespace Latency {
namespace {

// False when the other side is gone. The numbers are smaller than what a socket takes or gives at
// once.
bool put(int socket, std::uint64_t number) {
  return send(socket, &number, sizeof(number), MSG_NOSIGNAL) == sizeof(number);
}

bool take(int socket, std::uint64_t& number) {
  ssize_t count = 0;
  do {
    count = recv(socket, &number, sizeof(number), 0);
  } while (count < 0 && errno == EINTR);
  return count == sizeof(number);
}

}  // namespace

Listeners::Listeners(std::size_t count) {
  if (count == 0) return;
  std::array<int, 2> sockets{};
  Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0,
          "no sockets for the listeners");
  m_process = fork();
  if (m_process == 0) {
    close(sockets[0]);
    int status = EXIT_SUCCESS;
    try {
      listen(sockets[1], count);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "channel-latency: a listener: %s\n", error.what());
      status = EXIT_FAILURE;
    }
    std::_Exit(status);  // all else here is the other process's
  }
  close(sockets[1]);
  m_socket = sockets[0];
  std::uint64_t ready = 0;
  if (m_process < 0 || !take(m_socket, ready)) {
    end();
    Require(false, "there are no listeners");
  }
}

Listeners::~Listeners() {
  end();
}

std::uint64_t Listeners::Stop() {
  std::uint64_t events = 0;
  if (m_process < 0) return events;
  shutdown(m_socket, SHUT_WR);
  Require(take(m_socket, events), "the listeners have failed");
  end();
  return events;
}

void Listeners::listen(int socket, std::size_t count) {
  std::atomic<std::uint64_t> events{0};
  const auto read = [&events](GDBusMessage& signal) {
    if (g_strcmp0(g_dbus_message_get_member(&signal), kEvent) != 0) return;
    const char* data = nullptr;
    g_variant_get(g_dbus_message_get_body(&signal), "(&s&s)", nullptr, &data);
    ++events;
  };
  std::deque<BusClient> connections;
  for (std::size_t i = 0; i < count; ++i) {
    BusClient& connection = connections.emplace_back(BusAddress(), read);
    connection.Match(MatchRule(kInterface, kEvent, kObjectPath));
    connection.Match(MatchRule(kBaselineInterface, kEvent, kBaselinePath));
  }
  std::uint64_t nothing = 0;
  if (!put(socket, nothing)) return;
  if (take(socket, nothing)) return;  // waits until it is shut down or its owner is gone
  for (BusClient& connection : connections) connection.Sync();
  put(socket, events);
}

void Listeners::end() {
  if (m_socket >= 0) close(m_socket);
  m_socket = -1;
  if (m_process > 0) waitpid(m_process, nullptr, 0);
  m_process = -1;
}

}  // namespace Latency
