// Loads and unloads the shared object again and again, with the platform's own libraries and a real
// bus, and checks what stays behind in the process.
#include <dlfcn.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "GLibCheck.h"
#include "PrivateBus.h"
#include "TemporaryFolder.h"

namespace {

constexpr bool kInstrumented = ADC_INSTRUMENTED != 0;
// The first cycles fill what GLib and the C library keep for the life of the process.
constexpr int kWarmUpCycles = kInstrumented ? 10 : 100;
constexpr int kCycles = kInstrumented ? 50 : 500;
constexpr std::chrono::seconds kPatience(60);
// Far less than one small block per cycle.
constexpr long kMaxHeapGrowthBytes = kCycles * 48L;
// Resident memory also moves with how the heap's free blocks lie: this is for what is not heap, as
// a mapping that stays, which takes more than a page per cycle.
constexpr long kMaxResidentGrowthKiB = 400;
constexpr guint kTickMilliseconds = 5;
constexpr int kQuietTicks = 60;

[[maybe_unused]] const bool checked = (GLibCheck::Install(), true);

std::size_t countEntries(const char* folder) {
  const std::filesystem::directory_iterator entries(folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// What the process has now.
struct Counts {
  std::size_t descriptors = countEntries("/proc/self/fd");
  std::size_t threads = countEntries("/proc/self/task");

  bool operator==(const Counts& other) const {
    return descriptors == other.descriptors && threads == other.threads;
  }
};

bool isMapped(const std::string& library) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(library) != std::string::npos) return true;
  }
  return false;
}

long residentKiB() {
  malloc_trim(0);
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

// What is allocated now.
long heapBytes() {
  return static_cast<long>(mallinfo2().uordblks);
}

// Turns the main loop until `condition` holds; false after kPatience.
bool runUntil(const std::function<bool()>& condition) {
  // Wakes the loop, so that conditions are checked which no event announces.
  const guint tick = g_timeout_add(
      kTickMilliseconds, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < deadline) {
    g_main_context_iteration(nullptr, TRUE);
    holds = condition();
  }
  g_source_remove(tick);
  return holds;
}

class UnloadTest : public ::testing::Test {
 protected:
  UnloadTest() {
    setenv("VCONF_DIR", m_settings.Path().c_str(), 1);
    setenv("DLOG_LEVEL", "none", 1);
  }

  std::string Status() const {
    std::ifstream file(m_settings.Path() / "memory/iot/thing/thing_status");
    std::string line;
    std::getline(file, line);
    return line;
  }

  void RunCycle() {
    void* const library = dlopen(ADC_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    ASSERT_TRUE(isMapped("libappdatachannel.so"));
    using EntryPoint = bool (*)();
    const auto create = reinterpret_cast<EntryPoint>(dlsym(library, "CreatePlugin"));
    const auto destroy = reinterpret_cast<EntryPoint>(dlsym(library, "DestroyPlugin"));
    ASSERT_TRUE(create());
    ASSERT_EQ("0", Status());
    ASSERT_TRUE(runUntil([this] { return Status() == "1"; }));
    ASSERT_TRUE(destroy());
    ASSERT_EQ("0", Status());
    ASSERT_EQ(0, dlclose(library));
    ASSERT_FALSE(isMapped("libappdatachannel.so"));
  }

  // Until nothing has changed for a while: GIO closes the connection and ends idle threads of its
  // own some time after the last use.
  static Counts Settle() {
    g_thread_pool_stop_unused_threads();
    Counts counts;
    int unchanged = 0;
    EXPECT_TRUE(runUntil([&] {
      const Counts now;
      unchanged = now == counts ? unchanged + 1 : 0;
      counts = now;
      return unchanged == kQuietTicks;
    }));
    return counts;
  }

  PrivateBus m_bus;
  const TemporaryFolder m_settings;
};

TEST_F(UnloadTest, ManyLivesLeaveNoMappingDescriptorThreadOrMemoryBehind) {
  for (int i = 0; i < kWarmUpCycles; ++i) ASSERT_NO_FATAL_FAILURE(RunCycle());
  const Counts before = Settle();
  const long residentBeforeKiB = residentKiB();
  const long heapBeforeBytes = heapBytes();

  for (int i = 0; i < kCycles; ++i) ASSERT_NO_FATAL_FAILURE(RunCycle());
  const Counts after = Settle();
  EXPECT_LE(after.descriptors, before.descriptors);
  EXPECT_LE(after.threads, before.threads);
  const long residentGrowthKiB = residentKiB() - residentBeforeKiB;
  const long heapGrowthBytes = heapBytes() - heapBeforeBytes;
  RecordProperty("ResidentGrowthKiB", static_cast<int>(residentGrowthKiB));
  RecordProperty("HeapGrowthBytes", static_cast<int>(heapGrowthBytes));
  // An instrumented heap keeps what is freed.
  if (!kInstrumented) {
    EXPECT_LE(heapGrowthBytes, kMaxHeapGrowthBytes);
    EXPECT_LE(residentGrowthKiB, kMaxResidentGrowthKiB);
  }
}

}  // namespace
