#include "DBusServerTest.h"

void DBusServerTest::SetUp() {
  ASSERT_TRUE(control.Create());
  SetFromCloud(
      {fake::Property::Json("signinStatus", "null"), fake::Property::Json("signupInfo", "null")});
  platform.ClearTrace();
}

void DBusServerTest::TearDown() {
  platform.ClearFailures();
  server.Deinit();
  control.Destroy();
  RunPending();
  BusTest::TearDown();
}

void DBusServerTest::StartServer() {
  client->TakeSignals();
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  WaitForSignals(*client, 1);
  client->TakeSignals();
  platform.ClearTrace();
}

void DBusServerTest::SetFromCloud(const std::vector<fake::Property>& properties) {
  const std::size_t before = platform.Responses().size();
  platform.DeliverSet(properties);
  ASSERT_TRUE(RunUntil([this, before] { return platform.Responses().size() > before; }));
}
