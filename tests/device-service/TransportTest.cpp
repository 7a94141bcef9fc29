// The connection to a broker, against plain sockets and OpenSSL's own server.
#include "mqtt/Transport.h"

#include <dlfcn.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Certificates.h"
#include "GLibCheck.h"
#include "NewProcess.h"
#include "Program.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"
#include "Watched.h"

namespace {

// Before any use of GLib.
const bool g_isChecked = (GLibCheck::Install(), true);

constexpr const char* kNameThatHangs = "hangs.example.com";

// Look-ups of that name wait until they are released.
Watched<int> g_hanging;
Watched<bool> g_areReleased;

// How often the system's authorities have been asked for.
std::atomic<int> g_systemDatabases{0};

}  // namespace

// Instead of the C library's, for GIO as well.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
  if (name != nullptr && std::string(name) == kNameThatHangs) {
    g_hanging.Change([](int& count) { ++count; });
    g_areReleased.WaitFor([](bool areReleased) { return areReleased; });
    g_hanging.Change([](int& count) { --count; });
    return EAI_AGAIN;
  }
  using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(name, service, hints, result);
}

// Instead of GIO's, for its TLS module as well.
extern "C" __attribute__((visibility("default"))) GTlsDatabase* g_tls_backend_get_default_database(
    GTlsBackend* backend) {
  ++g_systemDatabases;
  using Function = GTlsDatabase* (*)(GTlsBackend*);
  static const auto real =
      reinterpret_cast<Function>(dlsym(RTLD_NEXT, "g_tls_backend_get_default_database"));
  return real(backend);
}

namespace {

using Lumo::BrokerSettings;
using Lumo::GLibDeleter;
using Lumo::Mqtt::Transport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr std::chrono::seconds kPatience{60};
constexpr std::size_t kTlsHeaderBytes = 5;  // the last two are the length of what follows

// A listening socket of the loopback interface, of one family.
class Server {
 public:
  // Port 0: any. Throws std::system_error.
  explicit Server(int family, int port = 0, int backlog = SOMAXCONN)
      : m_family(family), m_socket(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (family == AF_INET6) setsockopt(m_socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    Address address = loopback(port);
    if (bind(m_socket, &address.any, address.Size()) != 0 || listen(m_socket, backlog) != 0) {
      const int error = errno;
      close(m_socket);
      throw std::system_error(error, std::generic_category(), "listen");
    }
  }
  ~Server() {
    for (const int client : m_clients) close(client);
    close(m_socket);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int Port() const {
    Address address{};
    socklen_t size = sizeof address;
    getsockname(m_socket, &address.any, &size);
    return ntohs(m_family == AF_INET ? address.v4.sin_port : address.v6.sin6_port);
  }
  // From now on, it answers no attempt.
  void FillBacklog() {
    constexpr int kMoreThanFit = 4;
    const Address address = loopback(Port());
    for (int i = 0; i < kMoreThanFit; ++i) {
      m_clients.push_back(socket(m_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      connect(m_clients.back(), &address.any, address.Size());
    }
  }
  // Returns a socket that is connected to another server of this family.
  int Connect(int port) {
    const Address address = loopback(port);
    m_clients.push_back(socket(m_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    connect(m_clients.back(), &address.any, address.Size());
    return m_clients.back();
  }
  bool HasClient() const {
    pollfd waiting{m_socket, POLLIN, 0};
    return poll(&waiting, 1, 0) == 1;
  }
  // Non-blocking.
  int Accept() {
    m_clients.push_back(accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    return m_clients.back();
  }
  void CloseClients(bool reset = false) {
    const linger hard{1, 0};
    for (const int client : m_clients) {
      if (reset) setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      close(client);
    }
    m_clients.clear();
  }

 private:
  union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
    socklen_t Size() const { return any.sa_family == AF_INET ? sizeof v4 : sizeof v6; }
  };

  Address loopback(int port) const {
    Address address{};
    if (m_family == AF_INET) {
      address.v4.sin_family = AF_INET;
      address.v4.sin_port = htons(static_cast<std::uint16_t>(port));
      address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      address.v6.sin6_family = AF_INET6;
      address.v6.sin6_port = htons(static_cast<std::uint16_t>(port));
      address.v6.sin6_addr = in6addr_loopback;
    }
    return address;
  }

  const int m_family;
  int m_socket;
  std::vector<int> m_clients;
};

bool hasIpv6() {
  try {
    const Server server(AF_INET6);
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

std::size_t countDescriptors() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

std::string contentOf(const std::string& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// OpenSSL's server: it sends every line back, reversed.
class TlsServer {
 public:
  TlsServer(const Certificates& certificates, const std::string& name,
            std::vector<std::string> options = {}) {
    options.insert(options.begin(),
                   {"openssl", "s_server", "-accept", "127.0.0.1:0", "-rev", "-cert",
                    certificates.Path(name + ".crt"), "-key", certificates.Path(name + ".key")});
    const std::string output = m_folder.Path() / "output";
    m_program = std::make_unique<Program>(options, output);
    const std::string sign = "ACCEPT 127.0.0.1:";
    const bool isReady = WaitUntil([&] {
      const std::string text = contentOf(output);
      const std::size_t found = text.find(sign);
      if (found != std::string::npos && text.find('\n', found) != std::string::npos) {
        m_port = std::stoi(text.substr(found + sign.size()));
      }
      return m_port != 0 || m_program->HasEnded();
    });
    if (!isReady || m_port == 0) throw std::runtime_error("no server: " + contentOf(output));
  }

  int Port() const { return m_port; }
  void Freeze() { m_program->Signal(SIGSTOP); }
  void Thaw() { m_program->Signal(SIGCONT); }
  void Kill() { m_program->Signal(SIGKILL); }

 private:
  const TemporaryFolder m_folder;
  std::unique_ptr<Program> m_program;
  int m_port = 0;
};

class TransportTest : public ::testing::Test, public Transport::Listener {
 protected:
  TransportTest() : m_context(g_main_context_new()) {
    g_main_context_push_thread_default(m_context.get());
  }
  ~TransportTest() override {
    end();
    g_main_context_pop_thread_default(m_context.get());
  }

  static void SetUpTestSuite() {
    s_folder = std::make_unique<TemporaryFolder>();
    s_certificates = std::make_unique<Certificates>(s_folder->Path(), "authority");
    s_certificates->Sign("broker", "IP:127.0.0.1,DNS:localhost");
  }
  static void TearDownTestSuite() {
    s_certificates.reset();
    s_folder.reset();
  }

  // Of a broker on this port; over TLS, with the authority that has signed the brokers'
  // certificates.
  static BrokerSettings brokerAt(int port, bool tls = true, const std::string& host = "127.0.0.1") {
    BrokerSettings broker;
    broker.host = host;
    broker.port = port;
    broker.tls = tls;
    if (tls) broker.authorityFile = s_certificates->Path("ca.crt");
    return broker;
  }
  // From now on, with nothing of what came before.
  void use(const BrokerSettings& broker) {
    end();
    m_isOpened = false;
    m_bytes.clear();
    m_closed.clear();
    m_transport = std::make_unique<Transport>(broker, m_context.get(), *this);
  }
  void use(const std::string& host, int port, bool tls = false) { use(brokerAt(port, tls, host)); }
  void end() {
    if (!m_transport) return;
    m_transport->Close();
    EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
    m_transport.reset();
  }

  bool runUntil(const std::function<bool()>& condition) const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      if (!g_main_context_iteration(m_context.get(), FALSE)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    return true;
  }
  // All that is ready.
  void runWhatIsReady() const {
    while (g_main_context_iteration(m_context.get(), FALSE)) {
    }
  }
  bool open() {
    m_transport->Open();
    return runUntil([this] { return m_isOpened || !m_closed.empty(); }) && m_isOpened;
  }
  // To this server. Returns the server's end.
  int connectTo(Server& server) {
    use("127.0.0.1", server.Port());
    EXPECT_TRUE(open());
    return server.Accept();
  }
  // Until the server, whose end is returned, has the first bytes of a handshake.
  int beginHandshakeWith(Server& server) {
    use("127.0.0.1", server.Port(), true);
    m_transport->Open();
    EXPECT_TRUE(runUntil([&] { return server.HasClient(); }));
    const int client = server.Accept();
    EXPECT_TRUE(runUntil([&] { return !(m_hello = receive(client)).empty(); }));
    return client;
  }
  bool hasEndedInTime() const {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
    return std::chrono::steady_clock::now() - start < std::chrono::seconds(5);
  }
  std::string whyItFails() {
    m_closed.clear();
    m_transport->Open();
    EXPECT_TRUE(runUntil([this] { return !m_closed.empty(); }));
    EXPECT_FALSE(m_isOpened);
    EXPECT_FALSE(m_transport->IsOpen());
    return m_closed.empty() ? "" : m_closed.front();
  }
  // Writes all of it, however long that takes.
  bool write(std::string_view bytes) {
    return runUntil([&] {
      if (m_isBlocked) return false;
      const std::size_t taken = m_transport->Write(bytes);
      m_isBlocked = taken < bytes.size();
      bytes.remove_prefix(taken);
      return bytes.empty();
    });
  }
  // What TlsServer makes of "hello", or else why the connection has ended.
  std::string whatIsEchoed(const BrokerSettings& broker) {
    use(broker);
    if (open()) {
      m_transport->Write("hello\n");
      runUntil([this] { return m_bytes.size() == 6 || !m_closed.empty(); });
    }
    return m_closed.empty() ? m_bytes : m_closed.front();
  }
  // Until the peer, which does not read, takes no more; returns how much that was.
  std::size_t writeWhatFits() {
    constexpr std::chrono::milliseconds kQuiet{300};
    const std::string block(1 << 20, 'x');
    std::size_t sent = 0;
    auto last = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - last < kQuiet) {
      runWhatIsReady();
      const std::size_t taken = m_isBlocked ? 0 : m_transport->Write(block);
      if (taken < block.size()) m_isBlocked = true;
      if (taken > 0) last = std::chrono::steady_clock::now();
      sent += taken;
    }
    EXPECT_TRUE(m_isBlocked);
    return sent;
  }
  // What the peer sends first when it is sent this.
  static std::string answerTo(const std::string& bytes, int socket) {
    send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    pollfd waiting{socket, POLLIN, 0};
    poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count()));
    return receive(socket);
  }
  static std::string receive(int socket) {
    std::string bytes(1 << 20, '\0');
    const ssize_t size = recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return bytes;
  }

  void OnOpened() override {
    EXPECT_TRUE(m_transport->IsOpen());
    m_isOpened = true;
    ++m_calls;
    if (const auto call = m_onOpened) call();
  }
  void OnBytes(std::string_view bytes) override {
    m_bytes += bytes;
    ++m_calls;
    if (const auto call = m_onBytes) call();
  }
  void OnWritable() override {
    EXPECT_TRUE(m_isBlocked);
    m_isBlocked = false;
    ++m_calls;
  }
  void OnClosed(const std::string& why) override {
    EXPECT_FALSE(m_transport->IsOpen());
    m_isOpened = false;
    m_closed.push_back(why);
    ++m_calls;
    if (const auto call = m_onClosed) call();
  }

  static inline std::unique_ptr<TemporaryFolder> s_folder;
  static inline std::unique_ptr<Certificates> s_certificates;

  const std::unique_ptr<GMainContext, GLibDeleter<g_main_context_unref>> m_context;
  std::unique_ptr<Transport> m_transport;
  bool m_isOpened = false;
  bool m_isBlocked = false;  // OnWritable is to come
  int m_calls = 0;
  std::string m_hello;  // the first bytes of the last handshake
  std::string m_bytes;
  std::vector<std::string> m_closed;
  std::function<void()> m_onOpened;
  std::function<void()> m_onBytes;
  std::function<void()> m_onClosed;
};

TEST_F(TransportTest, CarriesBytesBothWays) {
  Server server(AF_INET);
  const int client = connectTo(server);
  EXPECT_EQ(m_transport->Write("hello"), 5U);
  std::string received;
  EXPECT_TRUE(runUntil([&] { return (received += receive(client)) == "hello"; }));
  ASSERT_EQ(send(client, "a\0b", 3, MSG_NOSIGNAL), 3);
  EXPECT_TRUE(runUntil([&] { return m_bytes == std::string("a\0b", 3); }));
  EXPECT_THAT(m_closed, IsEmpty());
}

TEST_F(TransportTest, ARefusedConnectionIsToldOnceAndFromAnIterationOnly) {
  use("127.0.0.1", 1);
  EXPECT_TRUE(m_transport->HasEnded());
  m_transport->Open();
  EXPECT_EQ(m_calls, 0);
  EXPECT_FALSE(m_transport->HasEnded());
  EXPECT_TRUE(runUntil([this] { return m_closed.size() == 1 && m_transport->HasEnded(); }));
  EXPECT_THAT(m_closed, ElementsAre(HasSubstr("Connection refused")));
  EXPECT_EQ(m_calls, 1);
}

TEST_F(TransportTest, FindsTheAddressThatAnswersInBothFamilies) {
  const auto opens = [this](int family, const std::string& host) {
    const Server server(family);
    use(host, server.Port());
    return open();
  };
  EXPECT_TRUE(opens(AF_INET, "localhost"));
  if (!hasIpv6()) GTEST_SKIP() << "this machine has no IPv6: only IPv4 is tested";
  EXPECT_TRUE(opens(AF_INET6, "localhost"));
  EXPECT_TRUE(opens(AF_INET6, "::1"));
}

TEST_F(TransportTest, DoesNotWaitForAnAddressThatDoesNotAnswerWhenAnotherDoes) {
  if (!hasIpv6()) GTEST_SKIP() << "this machine has no IPv6";
  const Server server(AF_INET);
  Server silent(AF_INET6, server.Port(), 0);
  silent.FillBacklog();
  use("localhost", server.Port());
  ASSERT_TRUE(open());
  // The attempt at the other address is over as well.
  EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
  EXPECT_TRUE(m_transport->IsOpen());
}

TEST_F(TransportTest, CloseEndsAnAttemptThatGetsNoAnswer) {
  Server silent(AF_INET, 0, 0);
  silent.FillBacklog();
  use("127.0.0.1", silent.Port());
  m_transport->Open();
  runWhatIsReady();
  EXPECT_FALSE(m_transport->HasEnded());
  m_transport->Close();
  EXPECT_TRUE(hasEndedInTime());
  EXPECT_EQ(m_calls, 0);
}

TEST_F(TransportTest, CloseEndsALookUpThatHangs) {
  g_areReleased.Change([](bool& areReleased) { areReleased = false; });
  use(kNameThatHangs, 1883);
  m_transport->Open();
  EXPECT_TRUE(runUntil([] { return g_hanging.Get() > 0; }));
  runWhatIsReady();
  EXPECT_FALSE(m_transport->HasEnded());
  m_transport->Close();
  EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
  EXPECT_GT(g_hanging.Get(), 0);
  EXPECT_EQ(m_calls, 0);
  m_transport.reset();
  g_areReleased.Change([](bool& areReleased) { areReleased = true; });
  EXPECT_TRUE(g_hanging.WaitFor([](int count) { return count == 0; }));
  // They stay released: GIO may begin another one of this name only now.
  runWhatIsReady();
}

TEST_F(TransportTest, SaysThatANameIsUnknown) {
  use("unknown.invalid", 1883);
  EXPECT_THAT(whyItFails(), HasSubstr("unknown.invalid"));
}

TEST_F(TransportTest, TakesLittleMoreThanTheNetworkCarriesWhileNobodyReads) {
  Server server(AF_INET);
  const int client = connectTo(server);
  const std::size_t sent = writeWhatFits();
  EXPECT_EQ(m_transport->Write("more"), 0U);
  int carried = 0;  // to the peer's kernel
  ASSERT_EQ(ioctl(client, FIONREAD, &carried), 0);
  EXPECT_LT(sent - static_cast<std::size_t>(carried), 256U * 1024);
  const int before = m_calls;
  runWhatIsReady();
  EXPECT_EQ(m_calls, before);
  std::size_t received = 0;
  EXPECT_TRUE(runUntil([&] {
    received += receive(client).size();
    return !m_isBlocked && received == sent;
  }));
  EXPECT_EQ(m_calls, before + 1);
  EXPECT_EQ(m_transport->Write("more"), 4U);
  std::string rest;
  EXPECT_TRUE(runUntil([&] { return (rest += receive(client)) == "more"; }));
}

TEST_F(TransportTest, SaysThatTheBrokerHasClosedTheConnection) {
  Server server(AF_INET);
  ASSERT_EQ(send(connectTo(server), "last", 4, MSG_NOSIGNAL), 4);
  server.CloseClients();
  EXPECT_TRUE(runUntil([this] { return !m_closed.empty(); }));
  EXPECT_EQ(m_bytes, "last");
  EXPECT_THAT(m_closed, ElementsAre("the broker closed the connection"));
}

TEST_F(TransportTest, HandsUpWhatTheBrokerSentBeforeAWriteFailed) {
  Server server(AF_INET);
  const int client = connectTo(server);
  ASSERT_EQ(send(client, "reason", 6, MSG_NOSIGNAL), 6);
  server.CloseClients(true);
  // The first write after a reset fails; nothing of that is told from within the call.
  m_transport->Write("x");
  m_transport->Write("x");
  EXPECT_EQ(m_calls, 1);
  EXPECT_TRUE(runUntil([this] { return !m_closed.empty(); }));
  EXPECT_EQ(m_bytes, "reason");
  runWhatIsReady();
  EXPECT_EQ(m_closed.size(), 1U);
  EXPECT_EQ(m_closed.front().find('\n'), std::string::npos);
}

TEST_F(TransportTest, CallsNobodyAfterClose) {
  Server server(AF_INET);
  const int client = connectTo(server);
  writeWhatFits();
  send(client, "x", 1, MSG_NOSIGNAL);
  const int before = m_calls;
  m_transport->Close();
  EXPECT_FALSE(m_transport->IsOpen());
  receive(client);
  server.CloseClients();
  runWhatIsReady();
  EXPECT_TRUE(m_transport->HasEnded());
  EXPECT_EQ(m_calls, before);
}

TEST_F(TransportTest, CallsNobodyWhenItIsClosedBeforeItsAttemptHasBeenTold) {
  Server server(AF_INET);
  use("127.0.0.1", server.Port());
  m_transport->Open();
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!server.HasClient() && std::chrono::steady_clock::now() < deadline) {
    if (m_isOpened) break;
    g_main_context_iteration(m_context.get(), FALSE);
  }
  const int before = m_calls;
  m_transport->Close();
  EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
  EXPECT_EQ(m_calls, before);
}

TEST_F(TransportTest, ItsListenerMayCloseAndOpenInEachCall) {
  Server server(AF_INET);
  use("127.0.0.1", server.Port());
  const auto again = [this] {
    m_onOpened = m_onBytes = m_onClosed = nullptr;
    m_isOpened = false;
    m_transport->Close();
    m_transport->Open();
  };
  m_onOpened = again;
  m_transport->Open();
  ASSERT_TRUE(runUntil([this] { return m_isOpened; }));
  server.Accept();
  ASSERT_TRUE(runUntil([&] { return server.HasClient(); }));
  m_onBytes = again;
  send(server.Accept(), "x", 1, MSG_NOSIGNAL);
  ASSERT_TRUE(runUntil([this] { return m_isOpened && m_bytes == "x" && !m_onBytes; }));
  ASSERT_TRUE(runUntil([&] { return server.HasClient(); }));
  server.Accept();
  m_onClosed = again;
  server.CloseClients();
  ASSERT_TRUE(runUntil([this] { return m_isOpened && !m_onClosed; }));
  EXPECT_EQ(m_closed.size(), 1U);
}

TEST_F(TransportTest, AThousandConnectionsLeaveNoDescriptor) {
  Server server(AF_INET);
  use("localhost", server.Port());
  std::size_t before = 0;
  constexpr int kTimes = 1000;
  for (int i = 0; i <= kTimes; ++i) {
    m_isOpened = false;
    if (i % 3 == 0) {
      m_transport->Open();
      if (i % 2 == 0) g_main_context_iteration(m_context.get(), FALSE);
    } else {
      ASSERT_TRUE(open());
      server.Accept();
    }
    m_transport->Close();
    server.CloseClients();
    if (i > 0) continue;
    ASSERT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
    while (server.HasClient()) server.Accept();
    server.CloseClients();
    before = countDescriptors();
  }
  EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
  while (server.HasClient()) server.Accept();
  server.CloseClients();
  EXPECT_EQ(countDescriptors(), before);
}

TEST_F(TransportTest, WithoutTlsNoModuleOfGioIsLoaded) {
  ExpectInNewProcess(
      [this]() -> std::string {
        const Server server(AF_INET);
        use("localhost", server.Port());
        if (!open()) return "not open";
        const std::string maps = contentOf("/proc/self/maps");
        return maps.find("/gio/modules/") == std::string::npos ? "" : maps;
      },
      TearDownTestSuite, "");
}

TEST_F(TransportTest, SpeaksTls) {
  for (const char* version : {"-tls1_2", "-tls1_3"}) {
    const TlsServer server(*s_certificates, "broker", {version});
    for (const char* host : {"127.0.0.1", "localhost"}) {
      EXPECT_EQ(whatIsEchoed(brokerAt(server.Port(), true, host)), "olleh\n") << version << host;
    }
  }
}

TEST_F(TransportTest, WithTlsNothingIsLostWhileTheBrokerDoesNotRead) {
  TlsServer server(*s_certificates, "broker");
  use("127.0.0.1", server.Port(), true);
  ASSERT_TRUE(open());
  server.Freeze();
  const std::string line = std::string(999, 'a') + "b\n";
  std::string text;
  while (text.size() < 20'000'000) text += line;
  std::string_view rest = text;
  while (!m_isBlocked) {
    const std::size_t taken = m_transport->Write(rest);
    m_isBlocked = taken < rest.size();
    rest.remove_prefix(taken);
  }
  ASSERT_FALSE(rest.empty());
  // Other bytes than those that were not taken.
  EXPECT_EQ(m_transport->Write("urgent\n"), 0U);
  server.Thaw();
  EXPECT_TRUE(write(rest));
  EXPECT_TRUE(runUntil([&] { return m_bytes.size() >= text.size() || !m_isOpened; }));
  EXPECT_EQ(m_bytes.size(), text.size());
  const std::string reversed = "b" + std::string(999, 'a') + "\n";
  for (std::size_t at = 0; at < m_bytes.size(); at += reversed.size()) {
    ASSERT_EQ(m_bytes.compare(at, reversed.size(), reversed), 0) << at;
  }
}

TEST_F(TransportTest, ClosingTlsWaitsForNobody) {
  TlsServer server(*s_certificates, "broker");
  use("127.0.0.1", server.Port(), true);
  ASSERT_TRUE(open());
  server.Freeze();
  writeWhatFits();
  m_transport->Close();
  EXPECT_TRUE(hasEndedInTime());
}

TEST_F(TransportTest, CloseEndsAHandshakeThatGetsNoAnswer) {
  Server silent(AF_INET);
  beginHandshakeWith(silent);
  m_transport->Close();
  EXPECT_FALSE(m_transport->HasEnded());
  EXPECT_TRUE(hasEndedInTime());
  EXPECT_EQ(m_calls, 0);
}

TEST_F(TransportTest, RefusesABrokerWithoutTls) {
  Server server(AF_INET);
  send(beginHandshakeWith(server), "this is no TLS\n", 15, MSG_NOSIGNAL);
  EXPECT_TRUE(runUntil([this] { return !m_closed.empty(); }));
  EXPECT_FALSE(m_isOpened);
  EXPECT_THAT(m_closed, ElementsAre(HasSubstr("TLS")));
}

TEST_F(TransportTest, SaysWhatIsWrongWithTheBrokersCertificate) {
  s_certificates->Sign("elsewhere", "IP:127.0.0.2,DNS:other.example.com");
  s_certificates->SignExpired("expired", "IP:127.0.0.1");
  s_certificates->SelfSign("selfsigned", "IP:127.0.0.1");
  s_certificates->Sign("thing", "IP:127.0.0.1", "clientAuth");
  for (const auto& [name, why] :
       {std::pair("elsewhere", "it is for another host"), std::pair("expired", "it has expired"),
        std::pair("selfsigned", "no known authority has signed it"),
        std::pair("thing", "it is not for servers")}) {
    const TlsServer server(*s_certificates, name);
    use("127.0.0.1", server.Port(), true);
    EXPECT_EQ(whyItFails(), std::string("the broker's certificate is refused: ") + why);
  }
}

TEST_F(TransportTest, SaysWhatMayBeWrongWhenTheBrokerEndsAHandshakeBehindItsCertificate) {
  const TlsServer server(*s_certificates, "broker", {"-tls1_3"});
  Server relay(AF_INET);
  const int client = beginHandshakeWith(relay);
  // OpenSSL sends its half at once. The thing answers the first record before it reads the rest,
  // which the certificate is in.
  const std::string half = answerTo(m_hello, relay.Connect(server.Port()));
  ASSERT_GT(half.size(), kTlsHeaderBytes);
  const std::size_t first = kTlsHeaderBytes +
                            (std::size_t{static_cast<unsigned char>(half[3])} << 8U) +
                            static_cast<unsigned char>(half[4]);
  ASSERT_GT(half.size(), first);
  send(client, half.data(), first, MSG_NOSIGNAL);
  ASSERT_TRUE(runUntil([&] { return !receive(client).empty(); }));
  send(client, half.data() + first, half.size() - first, MSG_NOSIGNAL);
  relay.CloseClients(true);
  EXPECT_TRUE(runUntil([this] { return !m_closed.empty() || m_isOpened; }));
  EXPECT_THAT(m_closed, ElementsAre(StartsWith("the broker ended the TLS handshake: it may refuse "
                                               "this thing's certificate, or want one (")));
}

TEST_F(TransportTest, ByDefaultOnlyTheSystemsAuthoritiesAreTrusted) {
  const TlsServer server(*s_certificates, "broker");
  BrokerSettings broker = brokerAt(server.Port());
  broker.authorityFile.clear();
  use(broker);
  EXPECT_THAT(whyItFails(), HasSubstr("no known authority has signed it"));
}

TEST_F(TransportTest, WithAnAuthorityOfItsOwnTheSystemsAreNotLoaded) {
  // They take megabytes, for the rest of the process.
  const TlsServer server(*s_certificates, "broker");
  BrokerSettings broker = brokerAt(server.Port());
  const int before = g_systemDatabases;
  EXPECT_EQ(whatIsEchoed(broker), "olleh\n");
  EXPECT_EQ(g_systemDatabases, before);
  broker.authorityFile.clear();
  use(broker);
  whyItFails();
  EXPECT_GT(g_systemDatabases, before) << "the system's authorities come from elsewhere";
}

TEST_F(TransportTest, ACertificateIsJudgedAtEachConnection) {
  // A session that is resumed must not pass for a certificate.
  const Certificates others(s_folder->Path(), "others");
  for (const char* version : {"-tls1_2", "-tls1_3"}) {
    const TlsServer server(*s_certificates, "broker", {version});
    BrokerSettings broker = brokerAt(server.Port());
    broker.authorityFile = s_folder->Write("renewed.crt", "");
    for (int i = 0; i < 3; ++i) {
      std::filesystem::copy_file(s_certificates->Path("ca.crt"), broker.authorityFile,
                                 std::filesystem::copy_options::overwrite_existing);
      EXPECT_EQ(whatIsEchoed(broker), "olleh\n");
      m_transport->Close();
      m_isOpened = false;
      std::filesystem::copy_file(others.Path("ca.crt"), broker.authorityFile,
                                 std::filesystem::copy_options::overwrite_existing);
      EXPECT_THAT(whyItFails(), HasSubstr("no known authority has signed it")) << version;
    }
  }
}

TEST_F(TransportTest, RefusesABrokerThatSpeaksOldVersionsOfTlsOnly) {
  for (const char* version : {"-tls1", "-tls1_1"}) {
    const TlsServer server(*s_certificates, "broker", {version, "-cipher", "ALL:@SECLEVEL=0"});
    use("localhost", server.Port(), true);
    EXPECT_THAT(whyItFails(), HasSubstr("an old version of TLS")) << version;
  }
}

// Of a broker that wants a certificate of this authority.
std::vector<std::string> demanding(const Certificates& certificates) {
  return {"-Verify", "1", "-verify_return_error", "-CAfile", certificates.Path("ca.crt")};
}

TEST_F(TransportTest, ShowsItsCertificateWithItsKeyToABrokerThatWantsOne) {
  s_certificates->Sign("television", "DNS:tv");
  const TlsServer server(*s_certificates, "broker", demanding(*s_certificates));
  BrokerSettings broker = brokerAt(server.Port());
  EXPECT_THAT(whatIsEchoed(broker), HasSubstr("TLS"));
  broker.certificateFile = s_certificates->Path("television.crt");
  broker.keyFile = s_certificates->Path("ca.key");  // of another certificate
  EXPECT_THAT(whatIsEchoed(broker), HasSubstr("TLS"));
  broker.keyFile = s_certificates->Path("television.key");
  EXPECT_EQ(whatIsEchoed(broker), "olleh\n");
}

TEST_F(TransportTest, TheKeyOrBothMayBeOnAToken) {
  for (const char* needed : {"/usr/bin/softhsm2-util", "/usr/bin/pkcs11-tool"}) {
    if (access(needed, X_OK) != 0) GTEST_SKIP() << needed << " is not installed";
  }
  ExpectInNewProcess(
      [this] {
        const TemporaryFolder folder;
        const std::string module = "/usr/lib/softhsm/libsofthsm2.so";
        const std::string pin = "1234";
        setenv("SOFTHSM2_CONF",
               folder
                   .Write("softhsm.conf", "directories.tokendir = " + folder.Path().string() +
                                              "\nobjectstore.backend = file\n")
                   .c_str(),
               1);
        s_certificates->Sign("television", "DNS:tv");
        const std::string key = folder.Path() / "key";
        const std::string certificate = folder.Path() / "certificate";
        RunToEnd({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in",
                  s_certificates->Path("television.key"), "-out", key});
        RunToEnd({"openssl", "x509", "-in", s_certificates->Path("television.crt"), "-outform",
                  "DER", "-out", certificate});
        RunToEnd({"softhsm2-util", "--init-token", "--free", "--label", "thing", "--pin", pin,
                  "--so-pin", "5678"});
        RunToEnd({"softhsm2-util", "--import", key, "--token", "thing", "--label", "mine", "--id",
                  "01", "--pin", pin});
        RunToEnd({"pkcs11-tool", "--module", module, "--token-label", "thing", "--pin", pin,
                  "--write-object", certificate, "--type", "cert", "--id", "01", "--label",
                  "mine"});
        const TlsServer server(*s_certificates, "broker", demanding(*s_certificates));
        BrokerSettings broker = brokerAt(server.Port());
        const std::string token = "pkcs11:token=thing;object=mine;type=";
        broker.keyFile = token + "private?pin-source=" + folder.Write("pin", pin);
        std::string echoes;
        for (const std::string& file : {s_certificates->Path("television.crt"), token + "cert"}) {
          broker.certificateFile = file;
          echoes += whatIsEchoed(broker);
        }
        return echoes;
      },
      TearDownTestSuite, "olleh\nolleh\n");
}

TEST_F(TransportTest, AFileThatHasGoneIsAnErrorOfTheNextConnection) {
  BrokerSettings broker = brokerAt(1);
  broker.authorityFile = s_certificates->Path("missing");
  use(broker);
  m_transport->Open();
  EXPECT_EQ(m_calls, 0);
  EXPECT_THAT(whyItFails(), StartsWith("cannot read '"));
}

TEST_F(TransportTest, WithTlsSaysThatTheBrokerHasClosedTheConnection) {
  TlsServer server(*s_certificates, "broker");
  EXPECT_EQ(whatIsEchoed(brokerAt(server.Port())), "olleh\n");
  server.Kill();
  EXPECT_TRUE(runUntil([this] { return !m_closed.empty(); }));
  EXPECT_THAT(m_closed, ElementsAre("the broker closed the connection"));
}

TEST_F(TransportTest, ConnectionsWithTlsLeaveNoDescriptor) {
  const TlsServer server(*s_certificates, "broker");
  use("127.0.0.1", server.Port(), true);
  std::size_t before = 0;
  constexpr int kTimes = 40;
  for (int i = 0; i <= kTimes; ++i) {
    m_isOpened = false;
    if (i % 2 == 0) {
      ASSERT_TRUE(open()) << ::testing::PrintToString(m_closed);
    } else {
      m_transport->Open();
      for (int turns = 0; turns < i; ++turns) g_main_context_iteration(m_context.get(), FALSE);
    }
    m_transport->Close();
    EXPECT_TRUE(runUntil([this] { return m_transport->HasEnded(); }));
    if (i == 0) before = countDescriptors();
  }
  // Threads of GIO may hold one a little longer.
  EXPECT_TRUE(runUntil([&] { return countDescriptors() <= before; })) << countDescriptors();
}

}  // namespace
