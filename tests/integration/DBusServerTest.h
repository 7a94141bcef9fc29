#ifndef TESTS_DBUSSERVERTEST_H
#define TESTS_DBUSSERVERTEST_H

#include <string>
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

  // Starts the server and turns the main loop until it is ready; then empties the trace.
  void StartServer();

  // A write of the cloud, and its answer.
  void SetFromCloud(const std::vector<fake::Property>& properties);

  AppDataChannel::AppDataChannelCore& core = AppDataChannel::AppDataChannelCore::GetInstance();
  AppDataChannel::AppDataChannelControl& control = core.GetControl();
  AppDataChannel::DBusServer& server = core.GetDbusServer();
};

// A line of the server. None of its messages ends with a line feed, but for Entered and Left.
ExpectedLog ServerError(const std::string& function, const std::string& message);
ExpectedLog ServerInfo(const std::string& function, const std::string& message);

#endif  // TESTS_DBUSSERVERTEST_H
