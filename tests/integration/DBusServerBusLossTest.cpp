#include "DBusServerTest.h"

namespace {

// Ends the bus while the server lives, as far as the server can see: the host keeps the connection
// from ending the process, and holds no reference to it.
class DBusServerBusLossTest : public DBusServerTest {
 protected:
  using ConnectionPtr = std::unique_ptr<GDBusConnection, void (*)(gpointer)>;

  DBusServerBusLossTest() { g_weak_ref_init(&m_connection, Shared()); }
  ~DBusServerBusLossTest() override { g_weak_ref_clear(&m_connection); }

  void LoseBus() {
    ReleaseShared();
    Bus().Kill();
    ASSERT_TRUE(RunUntil([this] {
      const ConnectionPtr connection = Connection();
      return !connection || g_dbus_connection_is_closed(connection.get()) != FALSE;
    }));
    RunPending();
  }

  // Null when nobody else holds it any more.
  ConnectionPtr Connection() {
    return {static_cast<GDBusConnection*>(g_weak_ref_get(&m_connection)), g_object_unref};
  }

  // The stop releases the dead connection, and the next start becomes ready on a new bus.
  void ExpectCleanStopAndStartOnANewBus() {
    server.Deinit();
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
    RunPending();
    EXPECT_FALSE(Connection());

    Bus().Start();
    RenewShared();
    client = NewClient();
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(WaitUntilReady());
    EXPECT_EQ(SharedName(), client->OwnerOf(kBusName));
    EXPECT_EQ("(false,)", Call("get_cloud_connection"));
    server.Deinit();
  }

 private:
  GWeakRef m_connection;
};

TEST_F(DBusServerBusLossTest, SignalsFailWithTheirCodesAndTheDeadConnectionLivesUntilTheStop) {
  StartServer();
  LoseBus();
  EXPECT_EQ(-100, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(-10, server.SendCloudConnectionChange(true));
  for (const std::string& line :
       {EmitLines("send_event", "fail")[1], EmitLines("cloud_connection_changed", "fail")[1],
        kServer.Error("send_event", "[qz] fail to send data to app"),
        kServer.Error("SendCloudConnectionChange", "fail to send event to clients")}) {
    EXPECT_TRUE(LoggedOnce(line));
  }
  EXPECT_EQ(1, platform.Setting(kStatusKey));
  EXPECT_TRUE(Connection());
  ExpectCleanStopAndStartOnANewBus();
}

TEST_F(DBusServerBusLossTest, ABusThatGoesWhileTheNameIsQueuedLeavesNothingBehind) {
  ASSERT_EQ(1U, client->RequestName(kBusName, 0));
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(RunUntil([&] { return client->QueuedOwnersOf(kBusName).size() == 2; }));
  LoseBus();
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  ExpectCleanStopAndStartOnANewBus();
}

TEST_F(DBusServerBusLossTest, WithoutABusInitIsTrueAndTheServerNeverReady) {
  LoseBus();
  ASSERT_FALSE(Connection());
  ASSERT_TRUE(server.Init());
  RunPending();
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
  ExpectCleanStopAndStartOnANewBus();
}

}  // namespace
