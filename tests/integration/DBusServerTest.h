#ifndef TESTS_DBUSSERVERTEST_H
#define TESTS_DBUSSERVERTEST_H

#include <vector>

#include "AppDataChannelCore.h"
#include "BusTest.h"

// The core's D-Bus server on the real bus, beside a channel control that is created: the server's
// method handlers ask the core for it. Stopped and destroyed after the test.
class DBusServerTest : public BusTest {
 protected:
  // The thing's own properties outlive the control: they are set back to nothing.
  void SetUp() override;
  void TearDown() override;

  // Starts the server until it is ready; then empties the trace and the client's inbox.
  void StartServer();

  // A write of the cloud, and its answer.
  void SetFromCloud(const std::vector<fake::Property>& properties);

  AppDataChannel::AppDataChannelCore& core = AppDataChannel::AppDataChannelCore::GetInstance();
  AppDataChannel::AppDataChannelControl& control = core.GetControl();
  AppDataChannel::DBusServer& server = core.GetDbusServer();
};

class ReadyDBusServerTest : public DBusServerTest {
 protected:
  void SetUp() override {
    DBusServerTest::SetUp();
    StartServer();
  }
};

#endif  // TESTS_DBUSSERVERTEST_H
