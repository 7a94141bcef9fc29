#include "FakeBroker.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int kPatienceMs = 60'000;

void waitForInput(int descriptor) {
  pollfd input{descriptor, POLLIN, 0};
  if (poll(&input, 1, kPatienceMs) <= 0) throw std::runtime_error("nothing comes");
}

std::string twoBytes(std::size_t number) {
  return {static_cast<char>(number >> 8), static_cast<char>(number & 0xFF)};
}

std::size_t numberAt(const std::string& text, std::size_t index) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text.at(i)); };
  return byte(index) * 256UL + byte(index + 1);
}

}  // namespace

FakeBroker::FakeBroker() : m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (bind(m_listener, generic, size) != 0 || listen(m_listener, 8) != 0 ||
      getsockname(m_listener, generic, &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "listen");
  }
  m_port = ntohs(address.sin_port);
}

FakeBroker::~FakeBroker() {
  Close();
  close(m_listener);
}

FakeBroker::Packet FakeBroker::Accept() {
  Close();
  waitForInput(m_listener);
  m_client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
  if (m_client < 0) throw std::system_error(errno, std::generic_category(), "accept");
  return Receive(Type::Connect);
}

void FakeBroker::AcceptSession(bool present) {
  Accept();
  ConnAck(present);
}

void FakeBroker::Close() {
  if (m_client >= 0) close(m_client);
  m_client = -1;
}

void FakeBroker::Break() {
  shutdown(m_client, SHUT_WR);
  const linger none{1, 0};
  setsockopt(m_client, SOL_SOCKET, SO_LINGER, &none, sizeof none);
  Close();
}

FakeBroker::Packet FakeBroker::Receive(Type type) {
  while (true) {
    Packet packet = receive();
    if (packet.type == Type::Publish && type != Type::Publish) PubAck(packet);
    if (packet.type == Type::Subscribe && !m_ignoresSubscriptions) {
      send(0x90, packet.body.substr(0, 2) + std::string({'\0', '\2'}));
    }
    if (packet.type == type || packet.type == Type::Closed) return packet;
  }
}

bool FakeBroker::ReceiveAbout(Type type, std::uint16_t id) {
  const Packet packet = Receive(type);
  return packet.type == type && numberAt(packet.body, 0) == id;
}

void FakeBroker::ConnAck(bool sessionPresent, std::uint8_t reason) {
  send(0x20, {sessionPresent ? '\1' : '\0', static_cast<char>(reason), '\0'});
}

void FakeBroker::Publish(std::uint16_t id, const std::string& topic, const std::string& payload,
                         bool again) {
  const std::string body =
      twoBytes(topic.size()) + topic + twoBytes(id) + std::string(1, '\0') + payload;
  send(static_cast<std::uint8_t>(again ? 0x3C : 0x34), body);
}

void FakeBroker::Request(std::uint16_t id, const std::string& topic, const std::string& payload,
                         const std::string& responseTopic) {
  const std::string properties = "\x08" + twoBytes(responseTopic.size()) + responseTopic;
  const std::string body = twoBytes(topic.size()) + topic + twoBytes(id) +
                           std::string(1, static_cast<char>(properties.size())) + properties +
                           payload;
  send(0x34, body);
}

void FakeBroker::PubRel(std::uint16_t id) {
  send(0x62, twoBytes(id));
}

void FakeBroker::PubAck(const Packet& publication) {
  const std::size_t id = numberAt(publication.body, 2 + numberAt(publication.body, 0));
  send(static_cast<std::uint8_t>(Type::PubAck), twoBytes(id));
}

bool FakeBroker::IsQuietFor(std::chrono::milliseconds time) const {
  pollfd input{m_client, POLLIN, 0};
  return poll(&input, 1, static_cast<int>(time.count())) == 0;
}

void FakeBroker::send(std::uint8_t typeAndFlags, const std::string& body) const {
  if (body.size() > 127) throw std::invalid_argument("too large for this broker");
  const std::string packet =
      std::string{static_cast<char>(typeAndFlags), static_cast<char>(body.size())} + body;
  static_cast<void>(::send(m_client, packet.data(), packet.size(), MSG_NOSIGNAL));
}

std::string FakeBroker::read(std::size_t size) const {
  std::string bytes;
  while (bytes.size() < size) {
    waitForInput(m_client);
    std::string part(size - bytes.size(), '\0');
    const ssize_t count = recv(m_client, part.data(), part.size(), 0);
    if (count <= 0) return {};
    bytes.append(part, 0, static_cast<std::size_t>(count));
  }
  return bytes;
}

FakeBroker::Packet FakeBroker::receive() const {
  const Packet closed{Type::Closed, 0, {}};
  const std::string first = read(1);
  if (first.empty()) return closed;
  std::size_t size = 0;
  for (unsigned shift = 0;; shift += 7) {
    const std::string byte = read(1);
    if (byte.empty()) return closed;
    size |= std::size_t{static_cast<std::uint8_t>(byte[0]) & 0x7FU} << shift;
    if ((byte[0] & 0x80) == 0) break;
  }
  std::string body = read(size);
  if (body.size() < size) return closed;
  const auto header = static_cast<std::uint8_t>(first[0]);
  return {static_cast<Type>(header & 0xF0), static_cast<std::uint8_t>(header & 0x0F),
          std::move(body)};
}
