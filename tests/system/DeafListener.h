#ifndef TESTS_SYSTEM_DEAFLISTENER_H
#define TESTS_SYSTEM_DEAFLISTENER_H

#include <gio/gio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string>

#include "BusClient.h"

// Somebody on a message bus who listens to the channel's signals and never reads one. It leaves
// with the object. Throws std::runtime_error.
class DeafListener {
 public:
  // An address as PrivateBus has it: "unix:path=…". All is sent at once, so that no answer has to
  // be read but the one to the authentication.
  explicit DeafListener(const std::string& address) {
    const std::string path = address.substr(address.find('=') + 1);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    check(path.size() < sizeof name.sun_path);
    path.copy(name.sun_path, path.size());
    check(connect(m_socket, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0);
    // The user's number, its digits' bytes in hexadecimal.
    std::string user;
    for (const char digit : std::to_string(geteuid())) user += std::string("3") + digit;  // ASCII
    send(std::string(1, '\0') + "AUTH EXTERNAL " + user + "\r\n");
    std::array<char, 256> answer{};
    check(recv(m_socket, answer.data(), answer.size() - 1, 0) > 0);
    check(std::string(answer.data()).rfind("OK ", 0) == 0);
    send("BEGIN\r\n");
    call("Hello", nullptr, 1);
    const std::string rule = "type='signal',interface='" + std::string(kInterface) + "'";
    call("AddMatch", g_variant_new("(s)", rule.c_str()), 2);
  }
  ~DeafListener() { close(m_socket); }
  DeafListener(const DeafListener&) = delete;
  DeafListener& operator=(const DeafListener&) = delete;

 private:
  void check(bool isRight) const {
    if (isRight) return;
    close(m_socket);
    throw std::runtime_error("the bus does not take a listener");
  }
  void send(const std::string& bytes) const {
    check(::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(bytes.size()));
  }
  void call(const char* method, GVariant* parameters, unsigned serial) const {
    constexpr const char* kBus = "org.freedesktop.DBus";
    const BusClient::MessagePtr message(
        g_dbus_message_new_method_call(kBus, "/org/freedesktop/DBus", kBus, method));
    if (parameters != nullptr) g_dbus_message_set_body(message.get(), parameters);
    g_dbus_message_set_serial(message.get(), serial);
    gsize size = 0;
    const std::unique_ptr<guchar, void (*)(gpointer)> blob(
        g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr),
        g_free);
    send(std::string(reinterpret_cast<const char*>(blob.get()), size));
  }

  const int m_socket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

#endif  // TESTS_SYSTEM_DEAFLISTENER_H
