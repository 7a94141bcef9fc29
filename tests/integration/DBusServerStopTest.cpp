// Stops while another thread is inside the server. Compiled without access control: holds locks to
// keep that thread there.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "DBusServerTest.h"
#include "Gate.h"
#include "MainLoopThread.h"

namespace {

using AppDataChannel::DBusServer;
using Strings = std::vector<std::string>;

class DBusServerStopTest : public DBusServerTest {
 protected:
  unsigned CallsOnTheLoop() {
    const std::lock_guard<std::mutex> lock(server.m_name_release.m_mutex);
    return server.m_name_release.m_calls;
  }
};

TEST_F(DBusServerStopTest, HasReleasedTheNameWhileAnotherThreadTurnsTheMainLoop) {
  constexpr int kRounds = 60;
  const auto client = NewClient();
  MainLoopThread loop;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(server.Init());
    if (round % 3 == 1) {
      ASSERT_TRUE(
          platform.WaitUntil([this] { return !platform.LogsOf("on_bus_acquired").empty(); }));
    } else if (round % 3 == 2) {
      ASSERT_TRUE(WaitUntilReady());
    }
    server.Deinit();
    ASSERT_EQ("", client->OwnerOf(kBusName)) << round;
    platform.ClearTrace();
  }
}

TEST_F(DBusServerStopTest, HasReleasedTheNameWhileApplicationsCall) {
  constexpr int kRounds = 30;
  constexpr std::chrono::seconds kLimit(1);  // for a call that nobody knows any more
  control.Destroy();
  const auto observer = NewClient();
  std::atomic<bool> stop{false};
  std::atomic<unsigned> answered{0};
  MainLoopThread loop;
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([&] {
      const auto client = NewClient();
      while (!stop) {
        if (client->Call("get_cloud_connection", nullptr, kLimit).get().value == "(false,)") {
          ++answered;
        }
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    core.Initialize();
    const unsigned before = answered;
    EXPECT_TRUE(platform.WaitUntil([&] { return answered > before; }));
    core.Deinitialize();
    EXPECT_EQ("", observer->OwnerOf(kBusName)) << round;
  }
  stop = true;
  for (std::thread& caller : callers) caller.join();
}

TEST_F(DBusServerStopTest, HasReleasedTheNameThoughACallWaitsForTheLockOfWhoStops) {
  const auto client = NewClient();
  MainLoopThread loop;
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  std::future<Reply> call;
  {
    const std::lock_guard<std::recursive_mutex> lock(core.m_mutex);
    call = client->Call("get_cloud_connection");
    ASSERT_TRUE(platform.WaitUntil([this] { return CallsOnTheLoop() == 1; }));
    server.Deinit();
    EXPECT_EQ("", client->OwnerOf(kBusName));
  }
  EXPECT_EQ("(false,)", call.get().value);
  loop.Drain();
}

TEST_F(DBusServerStopTest, HasReleasedTheNameThoughACallbackWaitsForTheLock) {
  using Clock = std::chrono::steady_clock;
  constexpr int kRounds = 5;
  const auto owner = NewClient();
  MainLoopThread loop;
  Clock::duration shortest = Clock::duration::max();
  for (int round = 0; round < kRounds; ++round) {
    platform.ClearTrace();
    ASSERT_EQ(1U, owner->RequestName(kBusName, 0));
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(platform.WaitUntil([&] { return owner->QueuedOwnersOf(kBusName).size() == 2; }));
    // The name comes while the stop holds the lock.
    platform.OnCall("vconf_set_int", [&] {
      EXPECT_EQ(1U, owner->ReleaseName(kBusName));
      EXPECT_TRUE(
          platform.WaitUntil([this] { return !platform.LogsOf("on_name_acquired").empty(); }));
    });
    const auto start = Clock::now();
    server.Deinit();
    shortest = std::min(shortest, Clock::now() - start);
    platform.OnCall("vconf_set_int", nullptr);
    EXPECT_EQ("", owner->OwnerOf(kBusName));
  }
  loop.Drain();
  // A stop that keeps the callback waiting ends with the limit of its own wait, each time.
  EXPECT_LT(shortest, std::chrono::milliseconds(100));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

// Something of the host that holds the main loop's thread up. Made before that thread.
class HoldUp {
 public:
  void Begin() {
    std::unique_lock<std::mutex> lock(m_mutex);
    g_idle_add(&HoldUp::Run, this);
    m_changed.wait(lock, [this] { return m_begun; });
  }
  void End() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_over = true;
    m_changed.notify_all();
  }

 private:
  static gboolean Run(gpointer userData) {
    auto* const self = static_cast<HoldUp*>(userData);
    std::unique_lock<std::mutex> lock(self->m_mutex);
    self->m_begun = true;
    self->m_changed.notify_all();
    self->m_changed.wait(lock, [self] { return self->m_over; });
    return G_SOURCE_REMOVE;
  }

  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_begun = false;  // guarded by m_mutex
  bool m_over = false;   // guarded by m_mutex
};

TEST_F(DBusServerStopTest, DoesNotWaitForAMainLoopThatIsStuck) {
  const auto client = NewClient();
  HoldUp holdUp;
  MainLoopThread loop;
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  holdUp.Begin();
  server.Deinit();
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_NE("", client->OwnerOf(kBusName));
  holdUp.End();
  loop.Drain();
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(DBusServerStopTest, ACallbackThatWaitedThroughAStopAndAStartBelongsToThePast) {
  for (const auto& [callback, name] :
       {std::pair(&DBusServer::on_bus_acquired, "on_bus_acquired"),
        std::pair(&DBusServer::on_name_acquired, "on_name_acquired")}) {
    SCOPED_TRACE(name);
    const auto client = NewClient();
    std::thread late;
    {
      const std::lock_guard<std::recursive_mutex> lock(server.m_mutex);
      ASSERT_TRUE(server.Init());
      late = std::thread([&, call = callback] { call(Shared().Get(), kBusName, &server); });
      EXPECT_TRUE(platform.WaitUntil(
          [&, wanted = std::string(name)] { return !platform.LogsOf(wanted).empty(); }));
      server.Deinit();
      ASSERT_TRUE(server.Init());
    }
    late.join();
    EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
    EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
    EXPECT_FALSE(server.isInit());
    EXPECT_EQ(0, platform.Setting(kStatusKey));

    ASSERT_TRUE(WaitUntilReady());
    EXPECT_EQ(1U, WaitForSignals(*client, 1).size());
    EXPECT_EQ(1U, gio.Calls(FaultyGio::kEmitSignal));
    server.Deinit();
    RunPending();
    gio.Reset();
    platform.ClearTrace();
  }
}

TEST_F(DBusServerStopTest, ShutdownWaitsTwoSecondsForACallbackThatHoldsTheLockAndNamesIt) {
  Gate inside;
  Gate end;
  MainLoopThread loop;
  gio.OnCall(FaultyGio::kRegisterObject, [&] {
    inside.Open();
    EXPECT_TRUE(end.Wait());
  });
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(inside.Wait());
  auto shutdown = std::async(std::launch::async, [this] { server.Shutdown(); });
  EXPECT_EQ(std::future_status::ready, shutdown.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(LoggedOnce(ServerError("Shutdown", "[on_bus_acquired] still running after 2 s")));
  end.Open();
  shutdown.get();
  loop.Drain();
}

TEST_F(DBusServerStopTest, ShutdownNamesTheMethodThatIsStillInside) {
  const auto client = NewClient();
  MainLoopThread loop;
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  std::future<Reply> call;
  {
    const std::lock_guard<std::recursive_mutex> lock(core.m_mutex);
    call = client->Call("get_cloud_connection");
    ASSERT_TRUE(platform.WaitUntil([this] { return CallsOnTheLoop() == 1; }));
    server.Shutdown();
    EXPECT_TRUE(
        LoggedOnce(ServerError("Shutdown", "[get_cloud_connection] still running after 2 s")));
  }
  EXPECT_EQ("(false,)", call.get().value);
  loop.Drain();
}

TEST_F(DBusServerStopTest, ShutdownSaysNothingWhenNobodyIsInside) {
  StartServer();
  server.Deinit();
  platform.ClearTrace();
  server.Shutdown();
  EXPECT_EQ(Strings{}, SummariesOfThisThread());
}

}  // namespace
