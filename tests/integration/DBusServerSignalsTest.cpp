#include <algorithm>
#include <memory>

#include "DBusServerTest.h"

namespace {

using Strings = std::vector<std::string>;

class DBusServerSignalsTest : public DBusServerTest {
 protected:
  void SetUp() override {
    DBusServerTest::SetUp();
    StartServer();
    client = NewClient();
  }

  // The signals that the client has once a call after them has been answered.
  std::vector<Signal> SignalsSoFar() {
    EXPECT_EQ("", Call(*client, "get_cloud_connection").error);
    return client->Signals();
  }

  std::unique_ptr<BusClient> client;
};

TEST_F(DBusServerSignalsTest, SendSetRequestEmitsSendEventToEverybody) {
  const auto second = NewClient();
  EXPECT_EQ(0, server.SendSetRequest("qz", "{\"a\": 1}"));
  for (BusClient* listener : {client.get(), second.get()}) {
    const std::vector<Signal> signals = WaitForSignals(*listener, 1);
    ASSERT_EQ(1U, signals.size());
    EXPECT_EQ("send_event", signals[0].member);
    EXPECT_EQ("('qz', '{\"a\": 1}')", signals[0].parameters);
    EXPECT_EQ("", signals[0].destination);
    EXPECT_EQ(Shared().UniqueName(), signals[0].sender);
    EXPECT_EQ(kObjectPath, signals[0].path);
    EXPECT_EQ(kInterface, signals[0].interface);
  }
}

TEST_F(DBusServerSignalsTest, SendSetRequestLogsTheDataAndEachStep) {
  EXPECT_EQ(0, server.SendSetRequest("qz", "100%s"));
  EXPECT_EQ((Strings{
                "4 TVCONTROL_A DBusServer.cpp SendSetRequest [qz] data: 100%s",
                "6 TVCONTROL_A DBusServer.cpp emit_signal try to emit signal: send_event",
                "6 TVCONTROL_A DBusServer.cpp emit_signal success to emit signal: send_event",
            }),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerInfo("SendSetRequest", "[qz] data: 100%s")));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "try to emit signal: send_event")));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "success to emit signal: send_event")));
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
  EXPECT_EQ(2U, WaitForSignals(*client, 2).size());
}

TEST_F(DBusServerSignalsTest, SendEventCarriesAMegabyteAndTheEmptyText) {
  const std::string large(1024 * 1024, 'x');
  EXPECT_EQ(0, server.SendSetRequest("qz", large));
  EXPECT_EQ(0, server.SendSetRequest("", ""));
  const std::vector<Signal> signals = WaitForSignals(*client, 2);
  ASSERT_EQ(2U, signals.size());
  EXPECT_EQ("('qz', '" + large + "')", signals[0].parameters);
  EXPECT_EQ("('', '')", signals[1].parameters);
}

TEST_F(DBusServerSignalsTest, SendCloudConnectionChangeEmitsTheStateToEverybody) {
  const auto second = NewClient();
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  EXPECT_EQ(0, server.SendCloudConnectionChange(false));
  for (BusClient* listener : {client.get(), second.get()}) {
    const std::vector<Signal> signals = WaitForSignals(*listener, 2);
    ASSERT_EQ(2U, signals.size());
    EXPECT_EQ("cloud_connection_changed", signals[0].member);
    EXPECT_EQ("(true,)", signals[0].parameters);
    EXPECT_EQ("(false,)", signals[1].parameters);
    EXPECT_EQ("", signals[0].destination);
    EXPECT_EQ(kObjectPath, signals[0].path);
  }
}

TEST_F(DBusServerSignalsTest, SendCloudConnectionChangeLogsEachStep) {
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  EXPECT_EQ(0, server.SendCloudConnectionChange(false));
  const std::string prefix = "6 TVCONTROL_A DBusServer.cpp emit_signal ";
  const std::string change = "4 TVCONTROL_A DBusServer.cpp SendCloudConnectionChange ";
  EXPECT_EQ((Strings{change + "cloud connection status: true",
                     prefix + "try to emit signal: cloud_connection_changed",
                     prefix + "success to emit signal: cloud_connection_changed",
                     change + "cloud connection status: false",
                     prefix + "try to emit signal: cloud_connection_changed",
                     prefix + "success to emit signal: cloud_connection_changed"}),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerInfo("SendCloudConnectionChange", "cloud connection status: true")));
  EXPECT_TRUE(
      LoggedOnce(ServerInfo("SendCloudConnectionChange", "cloud connection status: false")));
}

TEST_F(DBusServerSignalsTest, ReadyHasNoArgumentsAndGoesToEverybody) {
  server.Deinit();
  const auto second = NewClient();
  StartServer();
  for (BusClient* listener : {client.get(), second.get()}) {
    const std::vector<Signal> signals = WaitForSignals(*listener, 1);
    ASSERT_EQ(1U, signals.size());
    EXPECT_EQ("dbus_server_ready", signals[0].member);
    EXPECT_EQ("()", signals[0].parameters);
    EXPECT_EQ("", signals[0].destination);
    EXPECT_EQ(kObjectPath, signals[0].path);
    EXPECT_EQ(kInterface, signals[0].interface);
  }
}

TEST_F(DBusServerSignalsTest, NothingIsSentBeforeTheNameIsAcquiredOrAfterTheStop) {
  server.Deinit();
  platform.ClearTrace();
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-9, server.SendCloudConnectionChange(true));
  EXPECT_EQ((Strings{
                "4 TVCONTROL_A DBusServer.cpp SendSetRequest [qz] data: 1",
                "6 TVCONTROL_A DBusServer.cpp SendSetRequest not initialized",
                "4 TVCONTROL_A DBusServer.cpp SendCloudConnectionChange cloud connection status: "
                "true",
                "6 TVCONTROL_A DBusServer.cpp SendCloudConnectionChange not initialized",
            }),
            SummariesOfThisThread());
  EXPECT_TRUE(LoggedOnce(ServerError("SendSetRequest", "not initialized")));
  EXPECT_TRUE(LoggedOnce(ServerError("SendCloudConnectionChange", "not initialized")));

  ASSERT_TRUE(server.Init());
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-9, server.SendCloudConnectionChange(true));
  ASSERT_TRUE(WaitUntilReady());
  const std::vector<Signal> signals = SignalsSoFar();
  ASSERT_EQ(1U, signals.size());
  EXPECT_EQ("dbus_server_ready", signals[0].member);
}

TEST_F(DBusServerSignalsTest, AnEventThatCannotBeEmittedGivesMinus100) {
  for (const auto report : {FaultyGio::Report::kNoError, FaultyGio::Report::kError}) {
    platform.ClearTrace();
    // The server takes no error from GIO: one that is reported all the same must not leak.
    gio.Fail(FaultyGio::kEmitSignal, report);
    EXPECT_EQ(-100, server.SendSetRequest("qz", "1"));
    EXPECT_EQ((Strings{
                  "4 TVCONTROL_A DBusServer.cpp SendSetRequest [qz] data: 1",
                  "6 TVCONTROL_A DBusServer.cpp emit_signal try to emit signal: send_event",
                  "6 TVCONTROL_A DBusServer.cpp emit_signal fail to emit signal: send_event",
                  "6 TVCONTROL_A DBusServer.cpp send_event [qz] fail to send data to app",
              }),
              SummariesOfThisThread());
  }
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "fail to emit signal: send_event")));
  EXPECT_TRUE(LoggedOnce(ServerError("send_event", "[qz] fail to send data to app")));
}

TEST_F(DBusServerSignalsTest, AConnectionChangeThatCannotBeEmittedGivesMinus10) {
  gio.Fail(FaultyGio::kEmitSignal, FaultyGio::Report::kNoError);
  EXPECT_EQ(-10, server.SendCloudConnectionChange(true));
  const std::string prefix = "6 TVCONTROL_A DBusServer.cpp ";
  EXPECT_EQ((Strings{
                "4 TVCONTROL_A DBusServer.cpp SendCloudConnectionChange cloud connection status: "
                "true",
                prefix + "emit_signal try to emit signal: cloud_connection_changed",
                prefix + "emit_signal fail to emit signal: cloud_connection_changed",
                prefix + "SendCloudConnectionChange fail to send event to clients",
            }),
            SummariesOfThisThread());
  EXPECT_TRUE(
      LoggedOnce(ServerError("SendCloudConnectionChange", "fail to send event to clients")));
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
}

TEST_F(DBusServerSignalsTest, TextThatDBusCannotCarryIsNotSentAndGivesMinus100) {
  using namespace std::string_literals;
  const std::vector<std::string> texts{"\xff"s,     "a\xc3"s, "\xed\xa0\x80"s,
                                       "\xc0\x80"s, "a\0b"s,  "\0"s};
  for (const std::string& bad : texts) {
    platform.ClearTrace();
    EXPECT_EQ(-100, server.SendSetRequest("qz", bad));
    EXPECT_TRUE(LoggedOnce(ServerError("send_event", "[qz] fail to send data to app")));
    EXPECT_EQ(-100, server.SendSetRequest(bad, "1"));
    EXPECT_TRUE(
        LoggedOnce(ServerError("send_event", "["s + bad.c_str() + "] fail to send data to app")));
  }
  EXPECT_EQ(0, server.SendSetRequest("qz", "ä\xf0\x9f\x98\x80"));
  const std::vector<Signal> signals = SignalsSoFar();
  ASSERT_EQ(1U, signals.size());
  EXPECT_EQ("('qz', 'ä\xf0\x9f\x98\x80')", signals[0].parameters);
}

// The bytes of the message that the bus sees, with names as long as D-Bus allows.
std::size_t sizeOnTheBus(const std::string& appName, const std::string& data) {
  const std::string longestName = ":1." + std::string(252, '1');
  const std::unique_ptr<GDBusMessage, void (*)(gpointer)> message(
      g_dbus_message_new_signal(kObjectPath, kInterface, "send_event"), g_object_unref);
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
  constexpr std::size_t kMaxTexts = kMaxMessage - 1024 - 2 * 8;  // header, and around each text
  const std::string half(kMaxTexts / 2, 'a');
  const std::string rest(kMaxTexts - half.size(), 'x');
  const std::string most(kMaxTexts - 2, 'x');
  EXPECT_LE(sizeOnTheBus(half, rest), kMaxMessage);
  EXPECT_GT(sizeOnTheBus(half, rest), kMaxMessage - 1024);
  EXPECT_LE(sizeOnTheBus("qz", most), kMaxMessage);
  EXPECT_EQ(0, server.SendSetRequest(half, rest));
  EXPECT_EQ(0, server.SendSetRequest("qz", most));
  platform.ClearTrace();
  EXPECT_EQ(-100, server.SendSetRequest("qz", most + "x"));
  EXPECT_TRUE(LoggedOnce(ServerError("send_event", "[qz] fail to send data to app")));
  EXPECT_EQ(-100, server.SendSetRequest(most + "xxx", ""));
  EXPECT_EQ(-100, server.SendSetRequest(half + "a", rest));  // though each of them is short enough
  const std::vector<Signal> signals = SignalsSoFar();
  ASSERT_EQ(2U, signals.size());
  EXPECT_EQ("('qz', '" + most + "')", signals[1].parameters);
}

TEST_F(DBusServerSignalsTest, TwoThreadsSendWithoutMixingTheirSignals) {
  constexpr std::size_t kEach = 100;
  std::thread other([this] {
    for (std::size_t i = 0; i < kEach; ++i) EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  });
  for (std::size_t i = 0; i < kEach; ++i) EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  other.join();
  const std::vector<Signal> signals = WaitForSignals(*client, 2 * kEach);
  ASSERT_EQ(2 * kEach, signals.size());
  EXPECT_EQ(kEach, static_cast<std::size_t>(
                       std::count_if(signals.begin(), signals.end(), [](const Signal& signal) {
                         return signal.member == "send_event" && signal.parameters == "('qz', '1')";
                       })));
}

}  // namespace
