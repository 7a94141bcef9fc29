#include "DBusServerTest.h"

void DBusServerTest::SetUp() {
  ASSERT_TRUE(control.Create());
  SetFromCloud(
      {fake::Property::Json("signinStatus", "null"), fake::Property::Json("signupInfo", "null")});
  platform.ClearTrace();
}

void DBusServerTest::TearDown() {
  server.Deinit();
  control.Destroy();
  RunPending();
  BusTest::TearDown();
}

void DBusServerTest::StartServer() {
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  platform.ClearTrace();
}

void DBusServerTest::SetFromCloud(const std::vector<fake::Property>& properties) {
  const std::size_t before = platform.Responses().size();
  platform.DeliverSet(properties);
  ASSERT_TRUE(RunUntil([this, before] { return platform.Responses().size() > before; }));
}

ExpectedLog ServerError(const std::string& function, const std::string& message) {
  return {6, "TVCONTROL_A", "DBusServer.cpp", function, message};
}

ExpectedLog ServerInfo(const std::string& function, const std::string& message) {
  return {4, "TVCONTROL_A", "DBusServer.cpp", function, message};
}
