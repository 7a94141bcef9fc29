#include <set>

#include "DBusServerTest.h"

namespace {

using namespace std::string_literals;

const Lines kEventFails{kServer.Error("send_event", "[qz] fail to send data to app")};

Lines dataLine(const std::string& data) {
  return {kServer.Info("SendSetRequest", "[qz] data: " + data)};
}

Lines changeLine(const std::string& status) {
  return {kServer.Info("SendCloudConnectionChange", "cloud connection status: " + status)};
}

class DBusServerSignalsTest : public ReadyDBusServerTest {
 protected:
  // The signals that the client has once a call after them has been answered.
  Lines SignalsSoFar() {
    EXPECT_EQ("(false,)", Call("get_cloud_connection"));
    return Received(0);
  }
};

TEST_F(DBusServerSignalsTest, EverySignalGoesToEverybodyAndEachStepIsLogged) {
  const auto second = NewClient();
  EXPECT_EQ(0, server.SendSetRequest("qz", "{\"a\": 1, \"b\": \"100%s\"}"));
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  EXPECT_EQ(0, server.SendCloudConnectionChange(false));
  EXPECT_EQ(dataLine("{\"a\": 1, \"b\": \"100%s\"}") + EmitLines("send_event") +
                changeLine("true") + EmitLines("cloud_connection_changed") + changeLine("false") +
                EmitLines("cloud_connection_changed"),
            Written());
  server.Deinit();
  ASSERT_TRUE(server.Init());
  for (BusClient* listener : {client.get(), second.get()}) {
    const Lines received = Received(*listener, 4);
    for (const Signal& signal : listener->Signals()) {
      EXPECT_EQ("", signal.destination);
      EXPECT_EQ(SharedName(), signal.sender);
      EXPECT_EQ(kObjectPath, signal.path);
      EXPECT_EQ(kInterface, signal.interface);
    }
    EXPECT_EQ((Lines{"send_event('qz', '{\"a\": 1, \"b\": \"100%s\"}')",
                     "cloud_connection_changed(true,)", "cloud_connection_changed(false,)",
                     "dbus_server_ready()"}),
              received);
  }
}

TEST_F(DBusServerSignalsTest, SendSetRequestLogsTheDataBeforeItWaitsForTheLock) {
  // The signal's own lines come from inside the lock; the data line must not.
  std::thread sender;
  gio.OnCall(FaultyGio::kEmitSignal, [&] {
    if (sender.joinable()) return;
    sender = std::thread([this] { server.SendSetRequest("qz", "second"); });
    EXPECT_TRUE(platform.WaitUntil([this] { return platform.CountLogs("data: second") == 1; }));
  });
  EXPECT_EQ(0, server.SendSetRequest("qz", "first"));
  sender.join();
  gio.Reset();
  EXPECT_EQ(2U, Received(2).size());
}

TEST_F(DBusServerSignalsTest, SendEventCarriesAMegabyteAndTheEmptyString) {
  const std::string large(1024 * 1024, 'x');
  EXPECT_EQ(0, server.SendSetRequest("qz", large));
  EXPECT_EQ(0, server.SendSetRequest("", ""));
  EXPECT_EQ((Lines{"send_event('qz', '" + large + "')", "send_event('', '')"}), Received(2));
}

TEST_F(DBusServerSignalsTest, NothingIsSentBeforeTheNameIsAcquiredOrAfterTheStop) {
  server.Deinit();
  platform.ClearTrace();
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-9, server.SendCloudConnectionChange(true));
  EXPECT_EQ(dataLine("1") + Lines{kServer.Error("SendSetRequest", "not initialized")} +
                changeLine("true") +
                Lines{kServer.Error("SendCloudConnectionChange", "not initialized")},
            Written());

  ASSERT_TRUE(server.Init());
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-9, server.SendCloudConnectionChange(true));
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(Lines{"dbus_server_ready()"}, SignalsSoFar());
}

TEST_F(DBusServerSignalsTest, AnEventThatCannotBeEmittedGivesMinus100) {
  for (const auto report : {FaultyGio::Report::kNoError, FaultyGio::Report::kError}) {
    platform.ClearTrace();
    // The server takes no error from GIO: one that is reported all the same must not leak.
    gio.Fail(FaultyGio::kEmitSignal, report);
    EXPECT_EQ(-100, server.SendSetRequest("qz", "1"));
    EXPECT_EQ(dataLine("1") + EmitLines("send_event", "fail") + kEventFails, Written());
  }
}

TEST_F(DBusServerSignalsTest, AConnectionChangeThatCannotBeEmittedGivesMinus10) {
  gio.Fail(FaultyGio::kEmitSignal, FaultyGio::Report::kNoError);
  EXPECT_EQ(-10, server.SendCloudConnectionChange(true));
  EXPECT_EQ(changeLine("true") + EmitLines("cloud_connection_changed", "fail") +
                Lines{kServer.Error("SendCloudConnectionChange", "fail to send event to clients")},
            Written());
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
}

TEST_F(DBusServerSignalsTest, AStringThatDBusCannotCarryIsNotSentAndGivesMinus100) {
  for (const std::string& bad : {"\xff"s, "a\xc3"s, "\xed\xa0\x80"s, "\xc0\x80"s, "a\0b"s, "\0"s}) {
    platform.ClearTrace();
    EXPECT_EQ(-100, server.SendSetRequest("qz", bad));
    EXPECT_TRUE(LoggedOnce(kEventFails[0]));
    EXPECT_EQ(-100, server.SendSetRequest(bad, "1"));
    EXPECT_TRUE(
        LoggedOnce(kServer.Error("send_event", "["s + bad.c_str() + "] fail to send data to app")));
  }
  EXPECT_EQ(0, server.SendSetRequest("qz", "ä\xf0\x9f\x98\x80"));
  EXPECT_EQ(Lines{"send_event('qz', 'ä\xf0\x9f\x98\x80')"}, SignalsSoFar());
}

// A text is checked in blocks, whose size is the processor's.
TEST_F(DBusServerSignalsTest, AByteThatDBusCannotCarryIsFoundAtEveryPlace) {
  constexpr std::size_t kSomeBlocks = 70;
  for (std::size_t place = 0; place < kSomeBlocks; ++place) {
    for (const char bad : {'\0', '\x80', '\xff'}) {
      std::string text(kSomeBlocks, 'a');
      text[place] = bad;
      EXPECT_EQ(-100, server.SendSetRequest("qz", text)) << place;
    }
  }
  const std::string good = std::string(40, 'a') + "ä\xf0\x9f\x98\x80" + std::string(40, 'z');
  EXPECT_EQ(0, server.SendSetRequest("qz", good));
  EXPECT_EQ(Lines{"send_event('qz', '" + good + "')"}, SignalsSoFar());
}

// The bytes of the message that the bus sees, with names as long as D-Bus allows.
std::size_t sizeOnTheBus(const std::string& appName, const std::string& data) {
  const std::string longestName = ":1." + std::string(252, '1');
  const BusClient::MessagePtr message(
      g_dbus_message_new_signal(kObjectPath, kInterface, "send_event"));
  g_dbus_message_set_sender(message.get(), longestName.c_str());
  g_dbus_message_set_destination(message.get(), longestName.c_str());
  g_dbus_message_set_serial(message.get(), 1);
  g_dbus_message_set_body(message.get(), g_variant_new("(ss)", appName.c_str(), data.c_str()));
  gsize size = 0;
  g_free(g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
  return size;
}

TEST_F(DBusServerSignalsTest, AMessageOfSixteenMebibytesIsSentAndALongerOneIsNot) {
  constexpr std::size_t kMaxMessage = std::size_t{16} * 1024 * 1024;
  constexpr std::size_t kMaxStrings = kMaxMessage - 1024 - 2 * 8;  // header, and around each string
  const std::string half(kMaxStrings / 2, 'a');
  const std::string rest(kMaxStrings - half.size(), 'x');
  const std::string most(kMaxStrings - 2, 'x');
  EXPECT_LE(sizeOnTheBus(half, rest), kMaxMessage);
  EXPECT_GT(sizeOnTheBus(half, rest), kMaxMessage - 1024);
  EXPECT_LE(sizeOnTheBus("qz", most), kMaxMessage);
  EXPECT_EQ(0, server.SendSetRequest(half, rest));
  EXPECT_EQ(0, server.SendSetRequest("qz", most));
  platform.ClearTrace();
  EXPECT_EQ(-100, server.SendSetRequest("qz", most + "x"));
  EXPECT_EQ(1U, platform.CountLogs("[qz] fail to send data to app"));
  EXPECT_EQ(-100, server.SendSetRequest(most + "xxx", ""));
  EXPECT_EQ(-100, server.SendSetRequest(half + "a", rest));  // though each of them is short enough
  EXPECT_EQ(
      (Lines{"send_event('" + half + "', '" + rest + "')", "send_event('qz', '" + most + "')"}),
      SignalsSoFar());
}

TEST_F(DBusServerSignalsTest, TwoThreadsSendWithoutMixingTheirSignals) {
  constexpr std::size_t kEach = 100;
  std::thread other([this] {
    for (std::size_t i = 0; i < kEach; ++i) EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  });
  for (std::size_t i = 0; i < kEach; ++i) EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  other.join();
  const Lines signals = Received(2 * kEach);
  ASSERT_EQ(2 * kEach, signals.size());
  EXPECT_EQ(
      kEach,
      std::multiset<std::string>(signals.begin(), signals.end()).count("send_event('qz', '1')"));
}

}  // namespace
