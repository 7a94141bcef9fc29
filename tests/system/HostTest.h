#ifndef TESTS_SYSTEM_HOSTTEST_H
#define TESTS_SYSTEM_HOSTTEST_H

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "BusClient.h"
#include "Channel.h"
#include "WaitUntil.h"

// The host as a process of its own on a bus of its own, and applications there. A host that still
// runs when the test ends must end with 0. Everything that the channel's broker has had must be in
// the contract. The last host's log and the brokers' are shown when a test fails.
class HostTest : public ::testing::Test {
 protected:
  using Lines = std::vector<std::string>;

  void TearDown() override {
    if (channel.HasHost() && !Host().IsWaitedFor()) {
      EXPECT_EQ(0, Host().End(SIGTERM));
    }
    for (const std::string& violation : channel.TakeContractViolations())
      ADD_FAILURE() << violation;
    if (HasFailure()) std::cerr << channel.Logs();
  }

  HostProcess& Host() { return channel.Host(); }
  PrivateBus& Bus() { return channel.Bus(); }
  std::unique_ptr<BusClient> NewClient() { return std::make_unique<BusClient>(Bus().Address()); }
  // What the stand-in for the settings store has, as the command prints it.
  std::string Setting(const std::string& key) const {
    return RunCommand({ADC_VCONF_FILE, "get", key}, channel.Variables()).output;
  }
  // Ends the bus as a crash would, and returns once the host has noticed for the count-th time.
  void LoseBus(unsigned count = 1) {
    Bus().Kill();
    ASSERT_TRUE(Host().WaitForError("waiting for the bus: ", count));
  }
  // Returns once the host is ready for the count-th time.
  void BringBusBack(unsigned count = 2) {
    Bus().Start();
    ASSERT_TRUE(Host().WaitForOutput(kReadyLine, count));
  }

  // An application's calls; what comes back, or the error.
  static std::string Register(BusClient& app, const std::string& name) {
    return resultOf(app, "register_app", g_variant_new("(s)", name.c_str()));
  }
  static std::string Unregister(BusClient& app, const std::string& name) {
    return resultOf(app, "unregister_app", g_variant_new("(s)", name.c_str()));
  }
  static std::string SendData(BusClient& app, const std::string& name, const std::string& data) {
    return resultOf(app, "send_data", g_variant_new("(ss)", name.c_str(), data.c_str()));
  }
  static std::string CloudConnection(BusClient& app) {
    return resultOf(app, "get_cloud_connection");
  }
  static std::string ThingInformation(BusClient& app) {
    return resultOf(app, "get_thing_information");
  }
  // The parameters of the signals with this name that the application has received.
  static Lines Received(const BusClient& app, const std::string& signal = "send_event") {
    Lines parameters;
    for (const Signal& received : app.Signals()) {
      if (received.member == signal) parameters.push_back(received.parameters);
    }
    return parameters;
  }
  // Waits for that many of them.
  static Lines WaitForEvents(const BusClient& app, std::size_t count,
                             const std::string& signal = "send_event") {
    EXPECT_TRUE(WaitUntil([&] { return Received(app, signal).size() >= count; }));
    return Received(app, signal);
  }

  Channel channel;

 private:
  static std::string resultOf(BusClient& app, const std::string& method,
                              GVariant* parameters = nullptr) {
    const Reply reply = app.Call(method, parameters).get();
    return reply.value + reply.error;
  }
};

#endif  // TESTS_SYSTEM_HOSTTEST_H
