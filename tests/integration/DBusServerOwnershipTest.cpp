#include "DBusServerTest.h"

namespace {

// The bus's own numbers.
constexpr guint kAllowReplacement = 1;
constexpr guint kReplace = 2;
constexpr guint kPrimaryOwner = 1;
constexpr guint kInQueue = 2;
constexpr guint kReleased = 1;

class DBusServerOwnershipTest : public DBusServerTest {
 protected:
  // Starts the server while `owner` holds the name for itself, up to its place in the queue.
  void StartQueuedBehind(BusClient& owner) {
    ASSERT_EQ(kPrimaryOwner, owner.RequestName(kBusName, 0));
    ASSERT_TRUE(server.Init());
    const std::vector<std::string> queue{owner.UniqueName(), Shared().UniqueName()};
    ASSERT_TRUE(RunUntil([&] { return owner.QueuedOwnersOf(kBusName) == queue; }));
    RunPending();
  }

  // Has the shared connection call the message bus itself.
  guint CallBus(const char* method, GVariant* parameters) {
    GVariant* const reply = g_dbus_connection_call_sync(
        Shared().Get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        method, parameters, G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    guint result = 0;
    if (reply != nullptr) {
      g_variant_get(reply, "(u)", &result);
      g_variant_unref(reply);
    }
    return result;
  }

  // A call that does not depend on the bus name.
  Reply CallConnection(BusClient& client) {
    return WaitFor(
        client.Call("get_cloud_connection", nullptr, BusClient::kCallLimit, Shared().UniqueName()));
  }
};

TEST_F(DBusServerOwnershipTest, InitIsTrueAndNotReadyWhileAnotherOwnerKeepsTheName) {
  const auto owner = NewClient();
  StartQueuedBehind(*owner);
  EXPECT_EQ(std::nullopt, platform.Setting(kStatusKey));
  EXPECT_EQ(0U, platform.CountLogs("on_name_acquired"));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-9, server.SendCloudConnectionChange(true));
  EXPECT_TRUE(LoggedOnce(ServerError("SendSetRequest", "not initialized")));
  EXPECT_TRUE(LoggedOnce(ServerError("SendCloudConnectionChange", "not initialized")));
}

TEST_F(DBusServerOwnershipTest, TheObjectAnswersAlreadyWhileTheNameIsQueued) {
  const auto owner = NewClient();
  StartQueuedBehind(*owner);
  EXPECT_EQ("(false,)", CallConnection(*owner).value);
}

TEST_F(DBusServerOwnershipTest, BecomesReadyWhenTheOwnerLeaves) {
  const auto owner = NewClient();
  StartQueuedBehind(*owner);
  ASSERT_EQ(kReleased, owner->ReleaseName(kBusName));
  ASSERT_TRUE(WaitUntilReady());
  const std::vector<Signal> signals = WaitForSignals(*owner, 1);
  ASSERT_EQ(1U, signals.size());
  EXPECT_EQ("dbus_server_ready", signals[0].member);
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ("(false,)", Call(*owner, "get_cloud_connection").value);
}

TEST_F(DBusServerOwnershipTest, BecomesReadyWhenTheOwnersConnectionEnds) {
  const auto owner = NewClient();
  StartQueuedBehind(*owner);
  owner->Close();
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(DBusServerOwnershipTest, DeinitUnregistersAnObjectWhoseNameNeverCame) {
  const auto owner = NewClient();
  StartQueuedBehind(*owner);
  server.Deinit();
  EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", CallConnection(*owner).error);
  EXPECT_EQ(std::vector<std::string>{owner->UniqueName()}, owner->QueuedOwnersOf(kBusName));

  ASSERT_EQ(kReleased, owner->ReleaseName(kBusName));
  StartServer();
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
  EXPECT_EQ("(false,)", Call(*owner, "get_cloud_connection").value);
}

TEST_F(DBusServerOwnershipTest, ANewInitBehindTheSameOwnerRegistersTheObjectAgain) {
  const auto owner = NewClient();
  StartQueuedBehind(*owner);
  server.Deinit();
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(RunUntil([this] { return gio.Calls(FaultyGio::kRegisterObject) == 2; }));
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
  EXPECT_EQ("(false,)", CallConnection(*owner).value);
  ASSERT_EQ(kReleased, owner->ReleaseName(kBusName));
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(DBusServerOwnershipTest, ReplacesAnOwnerThatAllowsIt) {
  const auto owner = NewClient();
  ASSERT_EQ(kPrimaryOwner, owner->RequestName(kBusName, kAllowReplacement));
  StartServer();
  EXPECT_EQ(Shared().UniqueName(), owner->OwnerOf(kBusName));
  EXPECT_EQ("(false,)", Call(*owner, "get_cloud_connection").value);
}

TEST_F(DBusServerOwnershipTest, LetsNobodyReplaceIt) {
  StartServer();
  const auto other = NewClient();
  EXPECT_EQ(kInQueue, other->RequestName(kBusName, kReplace));
  EXPECT_EQ(Shared().UniqueName(), other->OwnerOf(kBusName));
}

TEST_F(DBusServerOwnershipTest, LosingTheNameLaterChangesNothing) {
  StartServer();
  const auto client = NewClient();
  EXPECT_EQ(1U, CallBus("ReleaseName", g_variant_new("(s)", kBusName)));
  ASSERT_EQ("", client->OwnerOf(kBusName));
  RunPending();

  EXPECT_EQ((std::vector<std::string>{}), SummariesOfThisThread());
  EXPECT_EQ(1, platform.Setting(kStatusKey));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  EXPECT_EQ(2U, WaitForSignals(*client, 2).size());
  EXPECT_EQ("(false,)", CallConnection(*client).value);

  // GIO warns when it cannot give back a name that was taken from it.
  EXPECT_EQ(kPrimaryOwner, CallBus("RequestName", g_variant_new("(su)", kBusName, 0)));
}

}  // namespace
