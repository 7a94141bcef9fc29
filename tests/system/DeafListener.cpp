#include "DeafListener.h"

#include <gio/gio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>

#include "BusClient.h"

namespace {

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

// The user's number as the authentication wants it: its digits' bytes in hexadecimal.
std::string userInHex() {
  std::string hex;
  for (const char digit : std::to_string(geteuid())) hex += std::string("3") + digit;  // ASCII
  return hex;
}

}  // namespace

DeafListener::DeafListener(const std::string& address) {
  m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_socket < 0) throw std::runtime_error("no socket for a listener");
  try {
    join(address.substr(address.find('=') + 1));
  } catch (...) {
    close(m_socket);
    throw;
  }
}

DeafListener::~DeafListener() {
  close(m_socket);
}

// All at once, so that no answer has to be read but the one to the authentication.
void DeafListener::join(const std::string& path) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path) throw std::runtime_error("a bus with a long path");
  path.copy(name.sun_path, path.size());
  if (connect(m_socket, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    throw std::runtime_error("no bus for a listener");
  }
  send(std::string(1, '\0') + "AUTH EXTERNAL " + userInHex() + "\r\n");
  std::array<char, 256> answer{};
  const ssize_t count = recv(m_socket, answer.data(), answer.size() - 1, 0);
  if (count <= 0 || std::string(answer.data()).rfind("OK ", 0) != 0) {
    throw std::runtime_error("the bus does not take a listener");
  }
  send("BEGIN\r\n");
  call("Hello", nullptr, 1);
  const std::string rule = "type='signal',interface='" + std::string(kInterface) + "'";
  call("AddMatch", rule.c_str(), 2);
}

void DeafListener::send(const std::string& bytes) const {
  if (::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(bytes.size())) {
    throw std::runtime_error("a listener cannot send");
  }
}

void DeafListener::call(const char* method, const char* argument, unsigned serial) const {
  const std::unique_ptr<GDBusMessage, void (*)(gpointer)> message(
      g_dbus_message_new_method_call(kBus, kBusPath, kBus, method), g_object_unref);
  if (argument != nullptr) g_dbus_message_set_body(message.get(), g_variant_new("(s)", argument));
  g_dbus_message_set_serial(message.get(), serial);
  gsize size = 0;
  const std::unique_ptr<guchar, void (*)(gpointer)> blob(
      g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr), g_free);
  if (!blob) throw std::runtime_error("no message of a listener");
  send(std::string(reinterpret_cast<const char*>(blob.get()), size));
}
