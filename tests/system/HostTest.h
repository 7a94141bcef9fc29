#ifndef TESTS_SYSTEM_HOSTTEST_H
#define TESTS_SYSTEM_HOSTTEST_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "BusClient.h"
#include "HostProcess.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"

inline constexpr const char* kReadyLine = "qivo-thing: ready\n";
inline constexpr const char* kStatusKey = "memory/iot/thing/thing_status";

// The host as a process of its own, on a bus with the shipped policy, in which the user that runs
// the tests stands for the service's. One bus per test process; it runs when a test begins.
class HostTest : public ::testing::Test {
 protected:
  HostTest();
  ~HostTest() override;

  static PrivateBus& Bus();
  static std::unique_ptr<BusClient> NewClient() {
    return std::make_unique<BusClient>(Bus().Address());
  }

  // Starts the host with these plug-ins; the one that ships when there are none.
  std::unique_ptr<HostProcess> StartHost(const std::vector<std::string>& plugins = {});
  // The same, and waits until the channel is up.
  std::unique_ptr<HostProcess> StartReadyHost();
  // What the stand-in for the settings store has, as the command prints it.
  std::string Setting(const std::string& key);
  HostProcess::Environment Variables() const;
  // Calls a method of the plug-in's interface with one text.
  static Reply Call(BusClient& client, const std::string& method, const std::string& argument);

 private:
  const TemporaryFolder m_folder;  // the settings
};

#endif  // TESTS_SYSTEM_HOSTTEST_H
