#include "ChannelTest.h"

#include <utility>

ChannelTest::ChannelTest() = default;

ChannelTest::~ChannelTest() = default;

std::unique_ptr<HostProcess> ChannelTest::StartLocally(HostProcess::Environment variables) {
  variables.merge(ChannelVariables());
  auto host = std::make_unique<HostProcess>(
      std::vector<std::string>{ADC_HOST_FILE, ADC_PLUGIN_FILE}, variables);
  EXPECT_TRUE(host->WaitForOutput(kReadyLine)) << host->Errors();
  return host;
}

std::unique_ptr<HostProcess> ChannelTest::StartChannel(HostProcess::Environment variables) {
  auto host = StartLocally(std::move(variables));
  EXPECT_TRUE(cloud.WaitFor("status", kOnline)) << host->Errors();
  EXPECT_TRUE(cloud.WaitForProperty("signupInfo")) << host->Errors();
  return host;
}

HostProcess::Environment ChannelTest::ChannelVariables() const {
  HostProcess::Environment variables = Variables();
  variables["LUMO_BROKER"] = broker.Address();
  variables["LUMO_THING_ID"] = kThing;
  return variables;
}

std::string ChannelTest::Register(BusClient& app, const std::string& name) {
  const Reply reply = Call(app, "register_app", name);
  return reply.value + reply.error;
}

std::string ChannelTest::Unregister(BusClient& app, const std::string& name) {
  const Reply reply = Call(app, "unregister_app", name);
  return reply.value + reply.error;
}

std::string ChannelTest::SendData(BusClient& app, const std::string& name,
                                  const std::string& data) {
  const Reply reply =
      app.Call("send_data", g_variant_new("(ss)", name.c_str(), data.c_str())).get();
  return reply.value + reply.error;
}

std::string ChannelTest::CloudConnection(BusClient& app) {
  const Reply reply = app.Call("get_cloud_connection").get();
  return reply.value + reply.error;
}

std::vector<std::string> ChannelTest::Received(const BusClient& app, const std::string& signal) {
  std::vector<std::string> parameters;
  for (const Signal& received : app.Signals()) {
    if (received.member == signal) parameters.push_back(received.parameters);
  }
  return parameters;
}

std::vector<std::string> ChannelTest::WaitForEvents(const BusClient& app, std::size_t count,
                                                    const std::string& signal) {
  EXPECT_TRUE(WaitUntil([&app, count, &signal] { return Received(app, signal).size() >= count; }));
  return Received(app, signal);
}
