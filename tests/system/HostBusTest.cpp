#include <gio/gunixfdlist.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string_view>

#include "HostTest.h"
#include "ManagerSocket.h"
#include "Pipe.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kWaiting = "waiting for the bus: ";
constexpr std::string_view kConnected = "connected to the bus as ";

// Something that listens where a bus would, and never answers.
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
  void LaunchOn(const SilentBus& bus) {
    channel.Launch({{"DBUS_SYSTEM_BUS_ADDRESS", bus.Address()}});
  }

  void ExpectServes() {
    const auto client = NewClient();
    EXPECT_EQ("(0,)", Register(*client, "qz"));
    EXPECT_EQ("(0,)", SendData(*client, "qz", "1"));
    EXPECT_EQ("(0,)", Unregister(*client, "qz"));
  }
};

TEST_F(HostBusTest, SaysNothingWhenTheSettingCannotBeStored) {
  channel.Launch({{"VCONF_DIR", "/proc/nowhere"}});
  ASSERT_TRUE(Host().WaitForError("fail to vconf_set_int"));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ("", Host().Output());
}

TEST_F(HostBusTest, ServesAndSaysSoWhenTheSettingCannotBeStored) {
  const ManagerSocket manager;
  channel.Launch({{"VCONF_DIR", "/proc/nowhere"}, {"NOTIFY_SOCKET", manager.Name()}});
  ASSERT_TRUE(Host().WaitForError("the settings store does not take the channel's status"));
  EXPECT_NE(std::string::npos,
            manager.ReceiveUntil("READY=1").find(
                "[READY=1\nSTATUS=up, but the settings store does not take the channel's "
                "status\n]"));
  ExpectServes();
}

TEST_F(HostBusTest, DescriptorsThatComeWithACallAreClosedBeforeTheMainLoopTakesTheCall) {
  // Its CreatePlugin does not return, so the main loop takes nothing.
  channel.Launch({}, {PLUGIN_STUCK});
  ASSERT_TRUE(Host().WaitForOutput("stuck created\n"));
  ASSERT_TRUE(Host().WaitForError(kConnected.data()));
  const std::string log = Host().Errors();
  const std::size_t start = log.find(kConnected) + kConnected.size();
  const std::string name = log.substr(start, log.find('\n', start) - start);
  const auto client = NewClient();
  Pipe pipe;
  {
    // Other calls are refused by the bus, as the host does not have its name yet.
    const BusClient::MessagePtr call(g_dbus_message_new_method_call(
        name.c_str(), "/", "org.freedesktop.DBus.Properties", "GetAll"));
    g_dbus_message_set_body(call.get(), g_variant_new("(s)", "test.Plugin"));
    const std::unique_ptr<GUnixFDList, void (*)(gpointer)> list(g_unix_fd_list_new(),
                                                                g_object_unref);
    ASSERT_EQ(0, g_unix_fd_list_append(list.get(), pipe.Writing(), nullptr));
    g_dbus_message_set_unix_fd_list(call.get(), list.get());
    client->Post(call);
  }
  client->Sync();
  pipe.CloseWriting();
  pollfd closed{pipe.Reading(), POLLIN, 0};
  EXPECT_EQ(1, poll(&closed, 1, static_cast<int>(milliseconds(HostProcess::kPatience).count())));
  EXPECT_EQ(POLLHUP, closed.revents);
  EXPECT_EQ(-SIGKILL, Host().End(SIGKILL));
}

TEST_F(HostBusTest, WaitsForANameThatAnotherProcessHasAndNamesIt) {
  const ManagerSocket manager;
  const auto owner = NewClient();
  ASSERT_EQ(1U, owner->RequestName(kBusName, 0));
  channel.Launch({{"NOTIFY_SOCKET", manager.Name()}});
  const std::string why = "not ready: the name is owned by " + owner->UniqueName();
  const std::string told = manager.ReceiveUntil("STATUS=not ready");
  EXPECT_NE(std::string::npos, told.find("[STATUS=" + why + "\n]")) << told;
  EXPECT_TRUE(Host().WaitForError(why + ", and waited for\n"));
  EXPECT_EQ("", Host().Output());
  owner->ReleaseName(kBusName);
  EXPECT_EQ(
      "[READY=1\nSTATUS=LUMO_BROKER is not set: nothing goes out, 0 applications, 0 requests "
      "waiting\n]",
      manager.ReceiveUntil("READY=1"));
  ExpectServes();
}

TEST_F(HostBusTest, AStartIsNotJudgedBeforeTheBusAnswers) {
  // A plug-in that never comes up.
  channel.Launch({}, {PLUGIN_FIRST});
  ASSERT_TRUE(Host().WaitForOutput("first created\n"));
  Bus().Freeze();
  const auto later = steady_clock::now() + std::chrono::seconds(7);
  ASSERT_TRUE(WaitUntil([&] { return Host().HasEnded() || steady_clock::now() > later; }));
  EXPECT_FALSE(Host().HasEnded());
  Bus().Thaw();
  EXPECT_EQ(1, Host().Wait());
}

TEST_F(HostBusTest, WaitsForABusThatIsAwayAtStart) {
  Bus().Kill();
  channel.Launch();
  ASSERT_TRUE(Host().WaitForError(kWaiting));
  EXPECT_EQ("", Host().Output());
  BringBusBack(1);
  ExpectServes();
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ(1U, CountOf(kWaiting, Host().Errors()));
}

TEST_F(HostBusTest, ASignalEndsTheWaitForTheBusWith0) {
  Bus().Kill();
  for (const int signal : {SIGINT, SIGTERM}) {
    channel.Launch();
    ASSERT_TRUE(Host().WaitForError(kWaiting));
    EXPECT_EQ(0, Host().End(signal));
  }
}

TEST_F(HostBusTest, ASignalEndsTheAttemptToConnectToABusThatDoesNotAnswer) {
  const SilentBus silent;
  LaunchOn(silent);
  const int connection = silent.Accept();
  ASSERT_NE(-1, connection);
  const auto start = steady_clock::now();
  EXPECT_EQ(0, Host().End(SIGTERM));
  // GDBus gives up by itself only after 25 seconds.
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(20));
  close(connection);
}

TEST_F(HostBusTest, TriesAgainAfterWaitsThatDouble) {
  const SilentBus silent;
  LaunchOn(silent);
  auto last = steady_clock::now();
  for (const int wait : {0, 100, 200, 400}) {
    const int connection = silent.Accept();
    ASSERT_NE(-1, connection);
    EXPECT_GE(steady_clock::now() - last, milliseconds(wait));
    // The host learns only from the close below that it must wait.
    last = steady_clock::now();
    close(connection);
  }
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ(1U, CountOf(kWaiting, Host().Errors()));
}

TEST_F(HostBusTest, ComesBackWithTheBusEveryTime) {
  constexpr unsigned kLosses = 3;
  channel.StartLocally();
  for (unsigned loss = 1; loss <= kLosses; ++loss) {
    EXPECT_EQ("1\n", Setting(kStatusKey));
    ExpectServes();
    LoseBus(loss);
    EXPECT_EQ("0\n", Setting(kStatusKey));
    BringBusBack(loss + 1);
  }
  ExpectServes();
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ("0\n", Setting(kStatusKey));
  // One line each.
  for (const char* line : {"the bus connection has closed", kWaiting}) {
    EXPECT_EQ(kLosses, CountOf(line, Host().Errors())) << line;
  }
  for (const char* line : {kConnected.data(), "] created", "] destroyed"}) {
    EXPECT_EQ(kLosses + 1, CountOf(line, Host().Errors())) << line;
  }
  EXPECT_EQ(kLosses + 1, CountOf(kReadyLine, Host().Output()));
  EXPECT_EQ(kLosses + 1, CountOf("\n", Host().Output())) << Host().Output();
}

}  // namespace
