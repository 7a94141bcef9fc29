// What the host tells the service manager.
#include <sys/socket.h>

#include <chrono>

#include "HostTest.h"
#include "ManagerSocket.h"

namespace {

using std::chrono::milliseconds;

class HostNotifyTest : public HostTest {
 protected:
  HostProcess::Environment Told(HostProcess::Environment changes = {}) {
    changes.merge(HostProcess::Environment{
        {"NOTIFY_SOCKET", manager.Name()}, {"WATCHDOG_USEC", ""}, {"WATCHDOG_PID", ""}});
    return changes;
  }
  // Whether the manager hears within ten of the times in which it should that the loop runs.
  bool HearsOfTheLoop(milliseconds interval) {
    const auto end = std::chrono::steady_clock::now() + 10 * interval;
    while (std::chrono::steady_clock::now() < end) {
      if (CountOf("WATCHDOG=1\n", manager.Receive(interval)) != 0) return true;
    }
    return false;
  }

  ManagerSocket manager;
};

const std::string kStarts = "[STATUS=waiting for the bus\n][STATUS=starting\n]";
const std::string kIsReady =
    "[READY=1\nSTATUS=LUMO_BROKER is not set: nothing goes out, 0 applications, 0 requests "
    "waiting\n]";
const std::string kStops = "[STOPPING=1\nSTATUS=stopping\n]";

TEST_F(HostNotifyTest, TellsThatItStartsIsReadyAndStopsEachInOneDatagram) {
  channel.Launch(Told(), {ADC_PLUGIN_FILE});
  EXPECT_EQ(kStarts + kIsReady, manager.ReceiveUntil("READY=1"));
  EXPECT_EQ("1\n", Setting(kStatusKey));
  EXPECT_NE("", NewClient()->OwnerOf(kBusName));
  EXPECT_EQ(0, Host().End(SIGTERM));
  EXPECT_EQ(kStops, manager.ReceiveUntil("STOPPING=1"));
  EXPECT_EQ("", manager.Receive(milliseconds(1)));
}

TEST_F(HostNotifyTest, TheSocketMayBeAnAbstractOne) {
  const ManagerSocket abstract(ManagerSocket::Kind::Abstract);
  channel.Launch(Told({{"NOTIFY_SOCKET", abstract.Name()}}));
  EXPECT_EQ(kStarts + kIsReady, abstract.ReceiveUntil("READY=1"));
}

TEST_F(HostNotifyTest, RunsWithoutAManagerAndWithASocketThatIsOfNoUse) {
  for (const std::string name : {"", "/nowhere/notify", "vsock:2:1234", "@"}) {
    channel.StartLocally(Told({{"NOTIFY_SOCKET", name}, {"WATCHDOG_USEC", "1000"}}));
    EXPECT_EQ(0, Host().End(SIGTERM));
    EXPECT_EQ(name == "vsock:2:1234" ? 1U : 0U, CountOf("E QIVO_THING: ", Host().Errors()));
  }
  const std::string tooLong = "/" + std::string(200, 'x');
  channel.StartLocally(Told({{"NOTIFY_SOCKET", tooLong}}));
  EXPECT_TRUE(Host().WaitForError("NOTIFY_SOCKET: '" + tooLong + "' cannot be used: "));
}

TEST_F(HostNotifyTest, TellsThatItWaitsForTheBusAndIsReadyAgainWithIt) {
  channel.Launch(Told());
  EXPECT_EQ(kStarts + kIsReady, manager.ReceiveUntil("READY=1"));
  LoseBus();
  BringBusBack();
  EXPECT_EQ(kStarts + kIsReady, manager.ReceiveUntil("READY=1"));
}

TEST_F(HostNotifyTest, TellsHowManyApplicationsThereAreAndHowTheBrokerIs) {
  ChannelBroker& broker = channel.Broker();
  const std::string settings =
      "mqtt://127.0.0.1:" + std::to_string(broker.Port()) + " as " + Channel::kThing;
  channel.StartLocally(Told());
  manager.ReceiveUntil("STATUS=online at " + settings + ", 0 applications, 0 requests waiting\n");
  const auto app = NewClient();
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("[STATUS=online at " + settings + ", 1 application, 0 requests waiting\n]",
            manager.ReceiveUntil(", 1 application, "));
  broker.Kill();
  manager.ReceiveUntil("Connection refused): " + settings + ", 1 application, ");
  broker.Start();
  manager.ReceiveUntil("STATUS=online at " + settings + ", 1 application, ");
  EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  EXPECT_EQ("[STATUS=online at " + settings + ", 0 applications, 0 requests waiting\n]",
            manager.ReceiveUntil(", 0 applications, "));
}

TEST_F(HostNotifyTest, TellsOfMuchThatHappensOnceASecondAtMostAndOfNothingNothing) {
  channel.StartLocally(Told());
  manager.ReceiveUntil("READY=1");
  const auto app = NewClient();
  const auto start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() < start + std::chrono::seconds(3)) {
    EXPECT_EQ("(0,)", Register(*app, "qz"));
    EXPECT_EQ("(0,)", Unregister(*app, "qz"));
  }
  // Both of them were never there before.
  EXPECT_EQ("(0,)", Register(*app, "qz"));
  EXPECT_EQ("(0,)", Register(*app, "qmap"));
  const std::string told = manager.ReceiveUntil(", 2 applications, ");
  const auto seconds = (std::chrono::steady_clock::now() - start) / std::chrono::seconds(1);
  EXPECT_LE(CountOf("STATUS=", told), static_cast<unsigned>(seconds) + 1);
  EXPECT_EQ("", manager.Receive(milliseconds(3000)));
}

// The manager must hear of it, even if it reads nothing for a while.
TEST_F(HostNotifyTest, AManagerThatDoesNotReadStopsNobodyAndHearsTheLastStatusLater) {
  const int full = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  unsigned fillers = 0;
  for (; manager.SendTo(full, "x"); ++fillers) {
  }
  ASSERT_GT(fillers, 0U);
  channel.StartLocally(Told());
  EXPECT_EQ("(0,)", Register(*NewClient(), "qz"));  // served after it has tried to tell
  for (; fillers > 0; --fillers) EXPECT_EQ("x", manager.Receive(milliseconds(1)));
  // The application came before the host told that it is ready, or after.
  const std::string told = manager.ReceiveUntil(", 1 application, ");
  EXPECT_EQ(0U, told.find("[READY=1\nSTATUS=LUMO_BROKER is not set: nothing goes out, ")) << told;
  EXPECT_EQ(1U, CountOf("READY=1", told));
  close(full);
}

TEST_F(HostNotifyTest, TheLoopIsSaidToRunTwiceInTheTimeOfTheWatchdog) {
  constexpr int kTimes = 10;
  constexpr milliseconds kWatchdog(200);
  channel.Launch(Told({{"WATCHDOG_USEC", "200000"}}));
  manager.ReceiveUntil("READY=1");
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kTimes; ++i) EXPECT_EQ("[WATCHDOG=1\n]", manager.ReceiveUntil("WATCHDOG=1"));
  // The first of them may come at once.
  EXPECT_GE(std::chrono::steady_clock::now() - start, (kTimes - 1) * kWatchdog / 2 - kWatchdog / 4);
}

TEST_F(HostNotifyTest, AStartThatWaitsForTheBusIsExtendedForAsLongAsTheLoopRuns) {
  Bus().Kill();
  channel.Launch(Told({{"WATCHDOG_USEC", "100000"}}));
  for (int i = 0; i < 5; ++i) {
    EXPECT_NE(
        std::string::npos,
        manager.ReceiveUntil("WATCHDOG=1").find("[WATCHDOG=1\nEXTEND_TIMEOUT_USEC=100000\n]"));
  }
  BringBusBack(1);
  manager.ReceiveUntil("READY=1");
  EXPECT_EQ("[WATCHDOG=1\n]", manager.ReceiveUntil("WATCHDOG=1"));
}

TEST_F(HostNotifyTest, ALoopThatIsStuckIsNotSaidToRun) {
  constexpr milliseconds kWatchdog(100);
  // Its CreatePlugin does not return before the process ends.
  channel.Launch(Told({{"WATCHDOG_USEC", "100000"}}), {PLUGIN_STUCK});
  EXPECT_TRUE(Host().WaitForOutput("stuck created\n"));
  manager.ReceiveUntil("STATUS=starting");
  EXPECT_FALSE(HearsOfTheLoop(kWatchdog));
  EXPECT_EQ(-SIGKILL, Host().End(SIGKILL));
}

TEST_F(HostNotifyTest, AWatchdogForAnotherProcessOrNoneIsNotFed) {
  constexpr milliseconds kWatchdog(100);
  for (const auto& [time, process] :
       {std::pair("100000", "1"), std::pair("", ""), std::pair("0", ""), std::pair("100ms", "")}) {
    channel.Launch(Told({{"WATCHDOG_USEC", time}, {"WATCHDOG_PID", process}}));
    EXPECT_EQ(kStarts + kIsReady, manager.ReceiveUntil("READY=1"));
    EXPECT_FALSE(HearsOfTheLoop(kWatchdog));
    EXPECT_EQ(0, Host().End(SIGTERM));
    manager.ReceiveUntil("STOPPING=1");
  }
}

}  // namespace
