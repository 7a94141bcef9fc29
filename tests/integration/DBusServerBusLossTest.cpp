#include <gio/gio.h>

#include "DBusServerTest.h"

namespace {

// Ends the bus while the server lives, as far as the server can see: the host keeps the connection
// from ending the process, and holds no reference to it.
class DBusServerBusLossTest : public DBusServerTest {
 protected:
  DBusServerBusLossTest() { g_weak_ref_init(&m_connection, Shared().Get()); }
  ~DBusServerBusLossTest() override { g_weak_ref_clear(&m_connection); }

  void LoseBus() {
    ReleaseShared();
    Bus().Kill();
    ASSERT_TRUE(RunUntil([this] {
      auto* const connection = static_cast<GDBusConnection*>(g_weak_ref_get(&m_connection));
      if (connection == nullptr) return true;
      const bool closed = g_dbus_connection_is_closed(connection) != FALSE;
      g_object_unref(connection);
      return closed;
    }));
    RunPending();
  }

  bool ConnectionLives() {
    void* const connection = g_weak_ref_get(&m_connection);
    if (connection == nullptr) return false;
    g_object_unref(connection);
    return true;
  }

  // A new bus, and a start that becomes ready on it.
  void ExpectStartOnANewBus() {
    RunPending();
    Bus().Start();
    const SharedConnection renewed;
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(WaitUntilReady());
    const auto client = NewClient();
    EXPECT_EQ(renewed.UniqueName(), client->OwnerOf(kBusName));
    EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
    server.Deinit();
  }

 private:
  GWeakRef m_connection;
};

TEST_F(DBusServerBusLossTest, SignalsFailWithTheirCodesAndDeinitEndsCleanly) {
  StartServer();
  LoseBus();
  EXPECT_EQ(-100, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-10, server.SendCloudConnectionChange(true));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "fail to emit signal: send_event")));
  EXPECT_TRUE(LoggedOnce(ServerError("send_event", "[qz] fail to send data to app")));
  EXPECT_TRUE(
      LoggedOnce(ServerError("emit_signal", "fail to emit signal: cloud_connection_changed")));
  EXPECT_TRUE(
      LoggedOnce(ServerError("SendCloudConnectionChange", "fail to send event to clients")));
  EXPECT_EQ(1, platform.Setting(kStatusKey));

  server.Deinit();
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  ExpectStartOnANewBus();
}

TEST_F(DBusServerBusLossTest, TheDeadConnectionLivesUntilTheStop) {
  StartServer();
  LoseBus();
  EXPECT_TRUE(ConnectionLives());
  server.Deinit();
  RunPending();
  EXPECT_FALSE(ConnectionLives());
}

TEST_F(DBusServerBusLossTest, ABusThatGoesWhileTheNameIsQueuedLeavesNothingBehind) {
  const auto owner = NewClient();
  ASSERT_EQ(1U, owner->RequestName(kBusName, 0));
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(RunUntil([&] { return owner->QueuedOwnersOf(kBusName).size() == 2; }));
  LoseBus();
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  server.Deinit();
  RunPending();
  EXPECT_FALSE(ConnectionLives());
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  ExpectStartOnANewBus();
}

TEST_F(DBusServerBusLossTest, WithoutABusInitIsTrueAndTheServerNeverReady) {
  LoseBus();
  ASSERT_FALSE(ConnectionLives());
  ASSERT_TRUE(server.Init());
  RunPending();
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  server.Deinit();
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  RunPending();
  ExpectStartOnANewBus();
}

}  // namespace
