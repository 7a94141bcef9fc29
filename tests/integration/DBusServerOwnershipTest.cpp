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
  // Starts the server while the client holds the name, up to its place in the queue.
  void StartQueued() {
    ASSERT_EQ(kPrimaryOwner, client->RequestName(kBusName, 0));
    ASSERT_TRUE(server.Init());
    const Lines queue{client->UniqueName(), SharedName()};
    ASSERT_TRUE(RunUntil([&] { return client->QueuedOwnersOf(kBusName) == queue; }));
    RunPending();
  }

  // Has the shared connection call the message bus itself.
  guint CallBus(const char* method, GVariant* parameters) {
    const BusClient::VariantPtr reply(g_dbus_connection_call_sync(
        Shared(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
        parameters, G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    guint result = 0;
    if (reply) g_variant_get(reply.get(), "(u)", &result);
    return result;
  }
};

TEST_F(DBusServerOwnershipTest, AnswersWhileTheNameIsQueuedAndIsReadyWhenItsOwnerReleasesIt) {
  StartQueued();
  EXPECT_EQ(std::nullopt, platform.Setting(kStatusKey));
  EXPECT_EQ(0U, platform.CountLogs("on_name_acquired"));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-9, server.SendCloudConnectionChange(true));
  EXPECT_TRUE(LoggedOnce(kServer.Error("SendSetRequest", "not initialized")));
  EXPECT_TRUE(LoggedOnce(kServer.Error("SendCloudConnectionChange", "not initialized")));
  EXPECT_EQ("(false,)", CallConnection());

  ASSERT_EQ(kReleased, client->ReleaseName(kBusName));
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(Lines{"dbus_server_ready()"}, Received(1));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
}

TEST_F(DBusServerOwnershipTest, BecomesReadyWhenTheOwnersConnectionEnds) {
  StartQueued();
  client->Close();
  EXPECT_TRUE(WaitUntilReady());
}

TEST_F(DBusServerOwnershipTest, AStopUnregistersAnObjectWhoseNameNeverCame) {
  StartQueued();
  server.Deinit();
  EXPECT_EQ(kUnknownMethod, CallConnection());
  EXPECT_EQ(Lines{client->UniqueName()}, client->QueuedOwnersOf(kBusName));

  // A new start behind the same owner registers it again.
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(RunUntil([this] { return gio.Calls(FaultyGio::kRegisterObject) == 2; }));
  EXPECT_EQ("(false,)", CallConnection());
  ASSERT_EQ(kReleased, client->ReleaseName(kBusName));
  EXPECT_TRUE(WaitUntilReady());
  EXPECT_EQ(0U, platform.CountLogs("fail to register_object"));
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
}

TEST_F(DBusServerOwnershipTest, ReplacesAnOwnerThatAllowsItAndIsReplacedByNobody) {
  ASSERT_EQ(kPrimaryOwner, client->RequestName(kBusName, kAllowReplacement));
  StartServer();
  EXPECT_EQ(SharedName(), client->OwnerOf(kBusName));
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  EXPECT_EQ(kInQueue, NewClient()->RequestName(kBusName, kReplace));
  EXPECT_EQ(SharedName(), client->OwnerOf(kBusName));
}

TEST_F(DBusServerOwnershipTest, LosingTheNameLaterChangesNothing) {
  StartServer();
  EXPECT_EQ(kReleased, CallBus("ReleaseName", g_variant_new("(s)", kBusName)));
  ASSERT_EQ("", client->OwnerOf(kBusName));
  RunPending();

  EXPECT_EQ(Lines{}, Written());
  EXPECT_EQ(1, platform.Setting(kStatusKey));
  EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(0, server.SendCloudConnectionChange(true));
  EXPECT_EQ(2U, Received(2).size());
  EXPECT_EQ("(false,)", CallConnection());

  // GIO warns when it cannot give back a name that was taken from it.
  EXPECT_EQ(kPrimaryOwner, CallBus("RequestName", g_variant_new("(su)", kBusName, 0)));
}

}  // namespace
