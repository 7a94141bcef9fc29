#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "HostTest.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kWaiting = "waiting for the bus: ";
constexpr const char* kClosed = "the bus connection has closed";
constexpr const char* kConnected = "connected to the bus as ";
constexpr const char* kCreated = "] created";
constexpr const char* kDestroyed = "] destroyed";

// Something that listens where a bus would, and says nothing.
class SilentBus {
 public:
  SilentBus() {
    m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder.Path() / "bus";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_listener, 1) != 0) {
      throw std::runtime_error("no socket");
    }
    const timeval limit{HostProcess::kPatience.count(), 0};
    setsockopt(m_listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~SilentBus() { close(m_listener); }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;

  std::string Address() const { return "unix:path=" + m_folder.Path().string() + "/bus"; }
  // Waits for somebody to connect; -1 when nobody does.
  int Accept() const { return accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC); }

 private:
  const TemporaryFolder m_folder;
  int m_listener = -1;
};

class HostBusTest : public HostTest {
 protected:
  std::unique_ptr<HostProcess> StartHostOn(const SilentBus& bus) {
    HostProcess::Environment variables = Variables();
    variables["DBUS_SYSTEM_BUS_ADDRESS"] = bus.Address();
    return std::make_unique<HostProcess>(std::vector<std::string>{ADC_HOST_FILE, ADC_PLUGIN_FILE},
                                         variables);
  }

  static void ExpectWorkingChannel() {
    const auto client = NewClient();
    EXPECT_EQ("(0,)", Call(*client, "register_app", "qz").value);
    EXPECT_EQ("(0,)", client->Call("send_data", g_variant_new("(ss)", "qz", "1")).get().value);
    EXPECT_EQ("(0,)", Call(*client, "unregister_app", "qz").value);
  }
};

TEST_F(HostBusTest, SaysReadyOnceWhenTheSettingBecomes1) {
  const auto host = StartReadyHost();
  EXPECT_EQ("1\n", Setting(kStatusKey));
  ExpectWorkingChannel();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_EQ(kReadyLine, host->Output());
  EXPECT_EQ("0\n", Setting(kStatusKey));
}

TEST_F(HostBusTest, SaysNothingWhenTheSettingCannotBeStored) {
  HostProcess::Environment variables = Variables();
  variables["VCONF_DIR"] = "/proc/nowhere";
  HostProcess host({ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
  ASSERT_TRUE(host.WaitForError("fail to vconf_set_int")) << host.Errors();
  EXPECT_EQ(0, host.End(SIGTERM));
  EXPECT_EQ("", host.Output());
}

TEST_F(HostBusTest, WaitsForABusThatIsAwayAtStart) {
  Bus().Kill();
  const auto host = StartHost();
  ASSERT_TRUE(host->WaitForError(kWaiting)) << host->Errors();
  EXPECT_EQ("", host->Output());
  Bus().Start();
  ASSERT_TRUE(host->WaitForOutput(kReadyLine)) << host->Errors();
  ExpectWorkingChannel();
  EXPECT_EQ(0, host->End(SIGTERM));
  EXPECT_EQ(1U, CountOf(kWaiting, host->Errors())) << host->Errors();
}

TEST_F(HostBusTest, ASignalEndsTheWaitForTheBusWith0) {
  Bus().Kill();
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto host = StartHost();
    ASSERT_TRUE(host->WaitForError(kWaiting)) << host->Errors();
    EXPECT_EQ(0, host->End(signal)) << host->Errors();
  }
}

TEST_F(HostBusTest, ASignalEndsTheAttemptToConnectToABusThatDoesNotAnswer) {
  const SilentBus silent;
  const auto host = StartHostOn(silent);
  const int connection = silent.Accept();
  ASSERT_NE(-1, connection);
  const auto start = steady_clock::now();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  // GDBus gives up by itself only after 25 seconds.
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
  close(connection);
}

TEST_F(HostBusTest, TriesAgainAfterWaitsThatDouble) {
  const SilentBus silent;
  const auto host = StartHostOn(silent);
  auto last = steady_clock::now();
  for (const int wait : {0, 100, 200, 400}) {
    const int connection = silent.Accept();
    ASSERT_NE(-1, connection);
    EXPECT_GE(steady_clock::now() - last, milliseconds(wait));
    // The host learns only from the close below that it must wait.
    last = steady_clock::now();
    close(connection);
  }
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  EXPECT_EQ(1U, CountOf(kWaiting, host->Errors())) << host->Errors();
}

TEST_F(HostBusTest, ComesBackWithTheBusEveryTime) {
  constexpr unsigned kLosses = 3;
  const auto host = StartReadyHost();
  for (unsigned loss = 1; loss <= kLosses; ++loss) {
    ExpectWorkingChannel();
    Bus().Kill();
    ASSERT_TRUE(host->WaitForError(kWaiting, loss)) << host->Errors();
    EXPECT_EQ("0\n", Setting(kStatusKey));
    Bus().Start();
    ASSERT_TRUE(host->WaitForOutput(kReadyLine, loss + 1)) << host->Errors();
    EXPECT_EQ("1\n", Setting(kStatusKey));
  }
  ExpectWorkingChannel();
  EXPECT_EQ(0, host->End(SIGTERM)) << host->Errors();
  // One line each.
  EXPECT_EQ(kLosses, CountOf(kClosed, host->Errors()));
  EXPECT_EQ(kLosses, CountOf(kWaiting, host->Errors()));
  EXPECT_EQ(kLosses + 1, CountOf(kConnected, host->Errors()));
  EXPECT_EQ(kLosses + 1, CountOf(kCreated, host->Errors()));
  EXPECT_EQ(kLosses + 1, CountOf(kDestroyed, host->Errors()));
}

TEST_F(HostBusTest, AnApplicationHearsThatItMustRegisterAgain) {
  const auto host = StartReadyHost();
  EXPECT_EQ("(0,)", Call(*NewClient(), "register_app", "qz").value);
  Bus().Kill();
  ASSERT_TRUE(host->WaitForError(kWaiting)) << host->Errors();
  host->Send(SIGSTOP);  // until somebody listens
  Bus().Start();
  const auto client = NewClient();
  host->Send(SIGCONT);
  ASSERT_TRUE(host->WaitForOutput(kReadyLine, 2)) << host->Errors();
  ASSERT_TRUE(WaitUntil([&client] { return !client->Signals().empty(); }));
  EXPECT_EQ("dbus_server_ready", client->Signals()[0].member);
  EXPECT_EQ("(-20,)", client->Call("send_data", g_variant_new("(ss)", "qz", "1")).get().value);
  ExpectWorkingChannel();
}

TEST_F(HostBusTest, AHostThatWasKilledIsReplacedByTheNextOne) {
  const auto client = NewClient();
  std::string owner;
  {
    const auto host = StartReadyHost();
    owner = client->OwnerOf(kBusName);
    EXPECT_NE("", owner);
    EXPECT_EQ(-SIGKILL, host->End(SIGKILL));
  }
  const auto successor = StartReadyHost();
  EXPECT_NE("", client->OwnerOf(kBusName));
  EXPECT_NE(owner, client->OwnerOf(kBusName));
  ExpectWorkingChannel();
  EXPECT_EQ(0, successor->End(SIGTERM)) << successor->Errors();
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(HostBusTest, NobodyReadingItsOutputDoesNotEndIt) {
  // The reader is gone before the host has anything to say.
  HostProcess host({"bash", "-c", "exec \"$0\" \"$1\" > >(:)", ADC_HOST_FILE, ADC_PLUGIN_FILE},
                   Variables());
  const auto client = NewClient();
  ASSERT_TRUE(host.WaitForError("success to emit signal: dbus_server_ready")) << host.Errors();
  EXPECT_NE("", client->OwnerOf(kBusName));
  ExpectWorkingChannel();
  EXPECT_EQ(0, host.End(SIGTERM)) << host.Errors();
}

}  // namespace
