#include <atomic>
#include <chrono>

#include "MainLoopThread.h"
#include "PluginTest.h"

namespace {

using fake::Property;

class PluginRestartTest : public PluginTest {
 protected:
  // Until that many workers, all that there were, have ended.
  bool WaitForWorkers(std::size_t count) {
    return platform.WaitUntil(
        [this, count] { return platform.CountLogs("Finished thread running") == count; });
  }

  // An answer that was on its way when its service was destroyed reaches the library late, which
  // ignores it. Everything else that the platform complains about fails the test.
  void ForgiveLateAnswers() {
    const std::string late =
        "lumo_service_send_set_property_result: service used after it was destroyed";
    for (const std::string& violation : platform.TakeViolations()) EXPECT_EQ(late, violation);
  }
};

TEST_F(PluginRestartTest, AHandlerThatIsStuckHoldsUpTheNextRequestsAndNotTheHost) {
  std::atomic<bool> stuck{false};
  std::atomic<bool> release{false};
  std::atomic<int> answering{0};
  std::atomic<bool> overlapped{false};
  platform.OnCall("lumo_property_list_create", [&] {
    if (++answering > 1) overlapped = true;
    if (!stuck.exchange(true)) {
      EXPECT_TRUE(platform.WaitUntil([&release] { return release.load(); }));
    }
    --answering;
  });
  CreateUntilReady();
  platform.PostSet({Property::Bool("signinStatus", true)});
  ASSERT_TRUE(platform.WaitUntil([&stuck] { return stuck.load(); }));

  EXPECT_TRUE(Destroy());
  EXPECT_TRUE(Create());
  EXPECT_EQ(0U, platform.CountLogs("after join"));
  ASSERT_TRUE(WaitUntilReady());
  // Applications are served meanwhile.
  EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
  platform.PostSet({Property::Bool("signinStatus", false)});
  platform.Drain();
  EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
  EXPECT_TRUE(platform.Responses().empty());

  release = true;
  ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 2; }));
  EXPECT_FALSE(overlapped);
  EXPECT_EQ("(false,)", Call(*client, "get_cloud_connection").value);
  EXPECT_EQ(1U, platform.CountLogs("after join"));
}

TEST_F(PluginRestartTest, AHandlerThatAnswersDuringTheNextStartDoesNotHangIt) {
  std::atomic<bool> answering{false};
  std::atomic<bool> starting{false};
  CreateUntilReady();
  platform.OnCall("lumo_service_create", [&starting] { starting = true; });
  platform.OnCall("lumo_property_list_create", [&] {
    answering = true;
    EXPECT_TRUE(platform.WaitUntil([&starting] { return starting.load(); }));
  });
  platform.PostSet({Property::Bool("signinStatus", true)});
  ASSERT_TRUE(platform.WaitUntil([&answering] { return answering.load(); }));
  // Waits behind the first, and is dropped by the stop.
  platform.PostSet({Property::Bool("signinStatus", false)});
  platform.Drain();
  EXPECT_TRUE(Destroy());
  // From here the answer wants the wrapper's lock, which the start takes as well.
  EXPECT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
  ASSERT_TRUE(platform.WaitUntil([this] { return platform.Responses().size() == 1; }));
  EXPECT_EQ("(true,)", Call(*client, "get_cloud_connection").value);
}

TEST_F(PluginRestartTest, QuickRestartsWithCloudWritesInFlightNeverHang) {
  constexpr std::size_t kRounds = 8;
  constexpr int kWrites = 40;
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(Create());
    for (int i = 0; i < kWrites; ++i) {
      platform.PostSet({Property::Bool("signinStatus", i % 2 == 0), Property::String("qz", "1")});
    }
    if (round % 2 == 0) RunPending();
    ASSERT_TRUE(Destroy());
  }
  platform.Drain();
  EXPECT_TRUE(WaitForWorkers(kRounds));
  EXPECT_EQ(0U, platform.LiveServices());
  ForgiveLateAnswers();
  // Each start waits two seconds at most for the worker that it replaces.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));

  ASSERT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
  EXPECT_NE("", Call(*client, "get_cloud_connection").value);
}

TEST_F(PluginRestartTest, RestartsWhileAppsAndCloudUseThePluginFromOtherThreads) {
  constexpr std::size_t kRounds = 6;
  constexpr std::chrono::seconds kLimit(1);
  std::atomic<bool> stop{false};
  std::atomic<unsigned> answered{0};
  std::thread app([&] {
    const auto caller = NewClient();
    while (!stop) {
      caller->Call("register_app", g_variant_new("(s)", "qz"), kLimit).get();
      if (caller->Call("send_data", g_variant_new("(ss)", "qz", "1"), kLimit).get().error.empty()) {
        ++answered;
      }
    }
  });
  // The plug-in's object is made before the loop's thread: ThreadSanitizer does not see how GLib
  // hands a callback to another thread.
  EXPECT_TRUE(Create());
  EXPECT_TRUE(Destroy());
  {
    MainLoopThread loop;
    for (std::size_t round = 0; round < kRounds; ++round) {
      EXPECT_TRUE(Create());
      EXPECT_TRUE(WaitUntilReady());
      for (int i = 0; i < 20; ++i) {
        platform.PostSet({Property::Bool("signinStatus", true), Property::String("qz", "1")});
      }
      const unsigned before = answered;
      EXPECT_TRUE(platform.WaitUntil([&] { return answered > before; }));
      EXPECT_TRUE(Destroy());
    }
    stop = true;
    app.join();
    loop.Drain();
  }
  platform.Drain();
  EXPECT_TRUE(WaitForWorkers(kRounds + 1));
  EXPECT_EQ(0U, platform.LiveServices());
  ForgiveLateAnswers();
}

}  // namespace
