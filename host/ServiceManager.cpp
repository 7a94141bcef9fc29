#include "ServiceManager.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "HostLog.h"

namespace QivoThing {
namespace {

constexpr guint kAgainMs = 1000;

std::string variable(const char* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in the process changes the environment
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// 0 when it is not a number.
std::uint64_t toNumber(std::string_view text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  return result.ec == std::errc() && result.ptr == end ? number : 0;
}

}  // namespace

ServiceManager::Socket::~Socket() {
  if (m_descriptor >= 0) close(m_descriptor);
}

bool ServiceManager::Socket::Open(const std::string& name) {
  const bool isAbstract = name.front() == '@';
  if ((!isAbstract && name.front() != '/') || name.size() >= sizeof m_address.sun_path) {
    errno = EINVAL;
    return false;
  }
  m_address.sun_family = AF_UNIX;
  name.copy(m_address.sun_path, name.size());
  if (isAbstract) m_address.sun_path[0] = '\0';
  m_addressLength = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  m_descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  return m_descriptor >= 0;
}

bool ServiceManager::Socket::Send(const std::string& datagram) const {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as the socket's interface wants it
  const auto* const address = reinterpret_cast<const sockaddr*>(&m_address);
  return sendto(m_descriptor, datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                address, m_addressLength) >= 0;
}

ServiceManager::ServiceManager() {
  openSocket();
  if (m_socket.IsOpen()) startWatchdog();
}

ServiceManager::~ServiceManager() {
  if (m_aliveTimer != 0) g_source_remove(m_aliveTimer);
  if (m_againTimer != 0) g_source_remove(m_againTimer);
}

void ServiceManager::openSocket() {
  const std::string name = variable("NOTIFY_SOCKET");
  if (name.empty() || m_socket.Open(name)) return;
  LOG_E(LOG_TAG_HOST, "NOTIFY_SOCKET: '%s' cannot be used: %s", name.c_str(),
        std::generic_category().message(errno).c_str());
}

void ServiceManager::startWatchdog() {
  // It may be meant for the process that started this one.
  const std::string process = variable("WATCHDOG_PID");
  if (!process.empty() && process != std::to_string(getpid())) return;
  m_watchdogUs = toNumber(variable("WATCHDOG_USEC"));
  if (m_watchdogUs == 0) return;
  constexpr std::uint64_t kUsPerMs = 1000;
  constexpr std::uint64_t kLongestMs = G_MAXUINT;
  const std::uint64_t half = std::min(m_watchdogUs / 2 / kUsPerMs, kLongestMs);
  m_aliveTimer = g_timeout_add(std::max(static_cast<guint>(half), 1U), &on_alive, this);
  on_alive(this);
}

void ServiceManager::TellStatus(const std::string& status) {
  if (!m_socket.IsOpen()) return;
  if (m_status != status) {
    m_status = status;
    m_statusIsNews = true;
  }
  tell();
}

void ServiceManager::TellReady(const std::string& status) {
  m_readyIsNews = true;
  m_wasReady = true;
  TellStatus(status);
}

void ServiceManager::TellStopping(const std::string& status) {
  m_stoppingIsNews = true;
  TellStatus(status);
}

void ServiceManager::tell() {
  std::string lines;
  if (m_readyIsNews) lines += "READY=1\n";
  if (m_stoppingIsNews) lines += "STOPPING=1\n";
  if (m_statusIsNews) lines += "STATUS=" + m_status + "\n";
  if (lines.empty()) return;
  if (m_socket.Send(lines)) {
    m_readyIsNews = m_stoppingIsNews = m_statusIsNews = false;
  } else if (m_againTimer == 0) {
    m_againTimer = g_timeout_add(kAgainMs, &on_again, this);
  }
}

gboolean ServiceManager::on_alive(gpointer manager) {
  const auto* const self = static_cast<ServiceManager*>(manager);
  std::string lines = "WATCHDOG=1\n";
  if (!self->m_wasReady) {
    lines += "EXTEND_TIMEOUT_USEC=" + std::to_string(self->m_watchdogUs) + "\n";
  }
  // Lost when the socket takes no more: the next one comes in time.
  self->m_socket.Send(lines);
  return G_SOURCE_CONTINUE;
}

gboolean ServiceManager::on_again(gpointer manager) {
  auto* const self = static_cast<ServiceManager*>(manager);
  self->m_againTimer = 0;
  self->tell();
  return G_SOURCE_REMOVE;
}

}  // namespace QivoThing
