#include <atomic>
#include <chrono>

#include "Gate.h"
#include "MainLoopThread.h"
#include "PluginTest.h"

namespace {

using fake::Property;

class PluginRestartTest : public PluginTest {
 protected:
  // All workers that there were have ended. An answer that was on its way when its service was
  // destroyed reaches the library late, which ignores it. Everything else that the platform
  // complains about fails the test.
  void ExpectNothingLeftOf(std::size_t lives) {
    platform.Drain();
    EXPECT_TRUE(WaitForWorkers(lives));
    EXPECT_EQ(0U, platform.LiveServices());
    for (const std::string& violation : platform.TakeViolations()) {
      EXPECT_EQ("lumo_service_send_set_property_result: service used after it was destroyed",
                violation);
    }
  }
};

TEST_F(PluginRestartTest, AHandlerThatIsStuckHoldsUpTheNextRequestsAndNotTheHost) {
  Gate stuck;
  Gate end;
  std::atomic<int> answers{0};
  std::atomic<int> answering{0};
  std::atomic<bool> overlapped{false};
  platform.OnCall("lumo_property_list_create", [&] {
    if (++answering > 1) overlapped = true;
    if (++answers == 1) {
      stuck.Open();
      EXPECT_TRUE(end.Wait());
    }
    --answering;
  });
  CreateUntilReady();
  platform.PostSet({Property::Bool("signinStatus", true)});
  ASSERT_TRUE(stuck.Wait());

  EXPECT_TRUE(Destroy());
  EXPECT_TRUE(Create());
  EXPECT_EQ(0U, platform.CountLogs("after join"));
  ASSERT_TRUE(WaitUntilReady());
  // Applications are served meanwhile.
  EXPECT_EQ("(true,)", Call("get_cloud_connection"));
  platform.PostSet({Property::Bool("signinStatus", false)});
  platform.Drain();
  EXPECT_EQ("(true,)", Call("get_cloud_connection"));
  EXPECT_TRUE(platform.Responses().empty());

  end.Open();
  ASSERT_TRUE(WaitForAnswers(2));
  EXPECT_FALSE(overlapped);
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  EXPECT_EQ(1U, platform.CountLogs("after join"));
}

TEST_F(PluginRestartTest, AHandlerThatAnswersDuringTheNextStartDoesNotHangIt) {
  Gate answering;
  Gate starting;
  std::atomic<bool> isAnswering{false};
  std::atomic<bool> isStarting{false};
  CreateUntilReady();
  platform.OnCall("lumo_service_create", [&] {
    if (!isStarting.exchange(true)) starting.Open();
  });
  platform.OnCall("lumo_property_list_create", [&] {
    if (!isAnswering.exchange(true)) answering.Open();
    EXPECT_TRUE(starting.Wait());
  });
  platform.PostSet({Property::Bool("signinStatus", true)});
  ASSERT_TRUE(answering.Wait());
  // Waits behind the first, and is dropped by the stop.
  platform.PostSet({Property::Bool("signinStatus", false)});
  platform.Drain();
  EXPECT_TRUE(Destroy());
  // From here the answer wants the wrapper's lock, which the start takes as well.
  EXPECT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
  ASSERT_TRUE(WaitForAnswers(1));
  EXPECT_EQ("(true,)", Call("get_cloud_connection"));
}

TEST_F(PluginRestartTest, AStopWaitsForTheAnswerOfASetWhoseEventWasSent) {
  Gate answering;
  CreateUntilReady();
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  platform.OnCall("lumo_property_list_create", [&] {
    answering.Open();
    EXPECT_TRUE(platform.WaitUntil([&] { return !platform.LogsOf("Destroy").empty(); }));
    // Long enough for a stop that does not wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(1U, platform.LiveServices());
  });
  platform.PostSet({Property::String("qz", "1")});
  ASSERT_TRUE(answering.Wait());
  EXPECT_TRUE(Destroy());
  ASSERT_EQ(1U, platform.Responses().size());
  EXPECT_EQ(Lines(), platform.TakeViolations());
}

TEST_F(PluginRestartTest, AStopDoesNotWaitForeverForAnAnswer) {
  Gate answering;
  Gate end;
  CreateUntilReady();
  ASSERT_EQ("(0,)", Call("register_app", {"qz"}));
  platform.OnCall("lumo_property_list_create", [&] {
    answering.Open();
    EXPECT_TRUE(end.Wait());
  });
  platform.PostSet({Property::String("qz", "1")});
  ASSERT_TRUE(answering.Wait());
  EXPECT_TRUE(Destroy());
  EXPECT_EQ(0U, platform.LiveServices());
  end.Open();
  ExpectNothingLeftOf(1);
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
  ExpectNothingLeftOf(kRounds);
  // Each start waits two seconds at most for the worker that it replaces.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));

  ASSERT_TRUE(Create());
  EXPECT_TRUE(WaitUntilReady());
  EXPECT_EQ("(", Call("get_cloud_connection").substr(0, 1));
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
  ExpectNothingLeftOf(kRounds + 1);
}

}  // namespace
