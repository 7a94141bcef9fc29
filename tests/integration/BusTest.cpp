#include "BusTest.h"

#include <chrono>
#include <cstdio>
#include <stdexcept>

#include "GLibCheck.h"

namespace {

std::unique_ptr<PrivateBus> theBus;

// One bus per process, made before there is a second thread.
class BusEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { theBus = std::make_unique<PrivateBus>(); }
  void TearDown() override { theBus.reset(); }
};

// googletest owns its environments.
[[maybe_unused]] const auto* const environment =
    ::testing::AddGlobalTestEnvironment(std::make_unique<BusEnvironment>().release());
[[maybe_unused]] const bool checked = (GLibCheck::Install(), true);

// The summary; fails the test for a log line that is not as the lines of its file are.
std::string checkedSummary(const fake::Entry& entry) {
  if (entry.kind != fake::Entry::Kind::kLog) return entry.Summary();
  const fake::LogLine& log = entry.log;
  std::string message = log.Message();
  message.erase(0, message.find_first_not_of(' '));
  const bool isFrame = message == "> Entered" || message == "> Left";
  const bool hasNoLineFeed = log.file == "AppDataChannelInfo.cpp" || log.file == "DBusServer.cpp";
  if (isFrame || !hasNoLineFeed) message += "\n";
  EXPECT_TRUE(Matches(log, {log.priority, log.tag, log.file, log.function, message}));
  return entry.Summary();
}

Lines propertyLines(const std::string& function, const std::string& call) {
  return kWrapper.Frame(
      function, {call, kWrapper.Line(3, "executeFunctionAndRetryIfFailed", "(1/3) success.")});
}

}  // namespace

BusTest::BusTest() : client(NewClient()) {
  gio.Reset();
  RenewShared();
}

BusTest::~BusTest() {
  gio.Reset();
  theBus->Start();
}

PrivateBus& BusTest::Bus() {
  return *theBus;
}

bool BusTest::RunUntil(const std::function<bool()>& condition) {
  return platform.WaitUntil([&condition] {
    RunPending();
    return condition();
  });
}

void BusTest::RunPending() {
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
}

std::vector<Signal> BusTest::WaitForSignals(BusClient& receiver, std::size_t count) {
  EXPECT_TRUE(RunUntil([&] { return receiver.Signals().size() >= count; }));
  return receiver.Signals();
}

Lines BusTest::Received(BusClient& receiver, std::size_t count) {
  Lines received;
  for (const Signal& signal : WaitForSignals(receiver, count)) {
    received.push_back(signal.member + signal.parameters);
  }
  return received;
}

std::string BusTest::WaitFor(std::future<Reply> reply) {
  EXPECT_TRUE(RunUntil(
      [&reply] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  const Reply result = reply.get();
  return result.error.empty() ? result.value : result.error;
}

GVariant* BusTest::ParametersOf(const std::vector<std::string>& arguments) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
  for (const std::string& argument : arguments) {
    g_variant_builder_add(&builder, "s", argument.c_str());
  }
  return g_variant_builder_end(&builder);
}

std::string BusTest::CallConnection() {
  return WaitFor(
      client->Call("get_cloud_connection", nullptr, BusClient::kCallLimit, SharedName()));
}

void BusTest::RenewShared() {
  // GIO keeps giving out a connection that has died or could not be made for as long as anybody
  // refers to it, and callbacks about its end may still be waiting in the main loop.
  const auto deadline = std::chrono::steady_clock::now() + fake::kPatience;
  do {
    m_shared.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (m_shared) {
      g_dbus_connection_set_exit_on_close(Shared(), FALSE);
      if (g_dbus_connection_is_closed(Shared()) == FALSE) return;
      m_shared.reset();
    }
    g_main_context_iteration(nullptr, FALSE);
  } while (std::chrono::steady_clock::now() < deadline);
  throw std::runtime_error("no shared connection to the bus");
}

Lines BusTest::Written(std::thread::id thread) {
  Lines lines;
  for (const fake::Entry& entry : platform.Trace()) {
    if (entry.thread == thread) lines.push_back(checkedSummary(entry));
  }
  return lines;
}

::testing::AssertionResult BusTest::LoggedOnce(const std::string& line) {
  std::size_t count = 0;
  for (const fake::Entry& entry : platform.Trace()) {
    if (checkedSummary(entry) == line) ++count;
  }
  if (count == 1) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << count << " times: " << line << "\nin "
                                       << ::testing::PrintToString(platform.Summaries());
}

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

Lines EmitLines(const std::string& signal, const std::string& result) {
  return {kServer.Error("emit_signal", "try to emit signal: " + signal),
          kServer.Error("emit_signal", result + " to emit signal: " + signal)};
}

Lines ReadyLines(GDBusConnection* connection) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", static_cast<void*>(connection));
  const std::string arguments =
      "dbus connection: " + std::string(text) + ", name: org.tizen.qivo_thing";
  return Lines{kServer.Info("on_bus_acquired", arguments),
               kServer.Info("on_name_acquired", arguments)} +
         EmitLines("dbus_server_ready") + Lines{kStatus1};
}

Lines RegisterPropertyLines(const std::string& call) {
  return propertyLines("RegisterProperty", "lumo_service_register_property(" + call + ")");
}

Lines UnregisterPropertyLines(const std::string& call) {
  return propertyLines("UnregisterProperty", "lumo_service_unregister_property(" + call + ")");
}
