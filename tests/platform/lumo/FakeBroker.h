#ifndef TESTS_PLATFORM_LUMO_FAKEBROKER_H
#define TESTS_PLATFORM_LUMO_FAKEBROKER_H

#include <chrono>
#include <cstdint>
#include <string>

// A broker that says, packet by packet, what a test tells it to say, to one client at a time. On a
// port of the loopback interface. Each wait ends the test when nothing comes for a minute.
class FakeBroker {
 public:
  enum class Type : std::uint8_t {
    Connect = 0x10,
    Publish = 0x30,
    PubAck = 0x40,
    PubRec = 0x50,
    PubRel = 0x60,
    PubComp = 0x70,
    Subscribe = 0x80,
    Unsubscribe = 0xA0,
    Ping = 0xC0,
    Disconnect = 0xE0,
    Closed = 0,  // no packet: the client has closed the connection
  };
  struct Packet {
    Type type;
    std::uint8_t flags;
    std::string body;
  };

  FakeBroker();
  ~FakeBroker();
  FakeBroker(const FakeBroker&) = delete;
  FakeBroker& operator=(const FakeBroker&) = delete;

  int Port() const { return m_port; }

  // Accepts a connection and returns its CONNECT.
  Packet Accept();
  // As Accept, and accepts the session, too.
  void AcceptSession(bool present);
  void Close();
  // As a broker that ends while the client is held up: what was sent before can be read, and
  // nothing can be written any more.
  void Break();

  // Skips packets of other types, and acknowledges the publications among them. Acknowledges every
  // subscription, unless it is told not to.
  Packet Receive(Type type);
  // As Receive, for a packet about this message.
  bool ReceiveAbout(Type type, std::uint16_t id);

  void IgnoreSubscriptions(bool ignore) { m_ignoresSubscriptions = ignore; }

  void ConnAck(bool sessionPresent, std::uint8_t reason = 0);
  void Publish(std::uint16_t id, const std::string& topic, const std::string& payload,
               bool again = false);  // at QoS 2
  // The same, with a Response Topic.
  void Request(std::uint16_t id, const std::string& topic, const std::string& payload,
               const std::string& responseTopic);
  void PubRel(std::uint16_t id);
  void PubAck(const Packet& publication);
  // True when the client says nothing for this long, and does not close the connection.
  bool IsQuietFor(std::chrono::milliseconds time) const;

 private:
  void send(std::uint8_t typeAndFlags, const std::string& body) const;
  std::string read(std::size_t size) const;
  Packet receive() const;

  int m_listener;
  int m_port = 0;
  int m_client = -1;
  bool m_ignoresSubscriptions = false;
};

#endif  // TESTS_PLATFORM_LUMO_FAKEBROKER_H
