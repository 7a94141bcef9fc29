#include "BusTest.h"

#include <chrono>
#include <cstdio>

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

}  // namespace

BusTest::BusTest() {
  gio.Reset();
  m_shared.emplace();
}

BusTest::~BusTest() {
  gio.Reset();
  theBus->Start();
}

PrivateBus& BusTest::Bus() {
  return *theBus;
}

bool BusTest::RunUntil(const std::function<bool()>& condition) {
  return platform.WaitUntil([this, &condition] {
    RunPending();
    return condition();
  });
}

void BusTest::RunPending() {
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
}

Reply BusTest::WaitFor(std::future<Reply> reply) {
  EXPECT_TRUE(RunUntil(
      [&reply] { return reply.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  return reply.get();
}

std::vector<Signal> BusTest::WaitForSignals(BusClient& client, std::size_t count) {
  EXPECT_TRUE(RunUntil([&client, count] { return client.Signals().size() >= count; }));
  return client.Signals();
}

bool BusTest::WaitUntilReady() {
  return RunUntil([this] { return platform.Setting(kStatusKey) == 1; });
}

std::string BusTest::SharedPointer() {
  char text[32];
  std::snprintf(text, sizeof text, "%p", static_cast<void*>(m_shared->Get()));
  return text;
}

std::vector<std::string> BusTest::SummariesOfThisThread() {
  return SummariesOf(std::this_thread::get_id());
}

std::vector<std::string> BusTest::SummariesOf(std::thread::id thread) {
  std::vector<std::string> summaries;
  for (const fake::Entry& entry : platform.Trace()) {
    if (entry.thread == thread) summaries.push_back(entry.Summary());
  }
  return summaries;
}
