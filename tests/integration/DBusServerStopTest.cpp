// Stops while another thread is inside the server. Compiled without access control: holds locks to
// keep that thread there.
#include <algorithm>
#include <atomic>
#include <chrono>

#include "DBusServerTest.h"
#include "Gate.h"
#include "MainLoopThread.h"

namespace {

using AppDataChannel::DBusServer;
using Clock = std::chrono::steady_clock;

// A stop that waits in vain ends with this limit, each time.
constexpr std::chrono::milliseconds kLimitOfTheStop(100);

class DBusServerStopTest : public DBusServerTest {
 protected:
  unsigned CallsOnTheLoop() {
    const std::lock_guard<std::mutex> lock(server.m_name_release.m_mutex);
    return server.m_name_release.m_calls;
  }

  bool HasLogged(const std::string& function) {
    return platform.WaitUntil([&] { return !platform.LogsOf(function).empty(); });
  }

  // With the core's lock held, which the call wants: the end of a call that is inside.
  std::future<Reply> CallThatWaits() {
    auto call = client->Call("get_cloud_connection");
    EXPECT_TRUE(platform.WaitUntil([this] { return CallsOnTheLoop() == 1; }));
    return call;
  }

  // A start, with a main loop that another thread turns.
  void StartOnTheLoop() {
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(WaitUntilReady());
  }
};

TEST_F(DBusServerStopTest, HasReleasedTheNameAtAnyMomentWhileAnotherThreadTurnsTheMainLoop) {
  constexpr int kRounds = 180;
  MainLoopThread loop;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(server.Init());
    // The stop comes at once, when the bus has been acquired, or when the server is ready.
    if (round % 3 == 1) {
      ASSERT_TRUE(HasLogged("on_bus_acquired"));
    } else if (round % 3 == 2) {
      ASSERT_TRUE(WaitUntilReady());
    }
    server.Deinit();
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    // The next start comes at once, when the bus has answered, or when nothing is left of this one.
    if (round / 3 % 3 == 1) {
      ASSERT_EQ("", client->OwnerOf(kBusName)) << round;
    } else if (round / 3 % 3 == 2) {
      loop.Drain();
    }
    platform.ClearTrace();
  }
  StartOnTheLoop();
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  server.Deinit();
  loop.Drain();
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(DBusServerStopTest, HasReleasedTheNameWhileApplicationsCallAndAllCallsEnd) {
  constexpr int kRounds = 30;
  constexpr std::chrono::seconds kLimit(1);  // for a call that nobody knows any more
  control.Destroy();
  std::atomic<bool> stop{false};
  std::atomic<unsigned> answered{0};
  std::atomic<unsigned> refused{0};
  MainLoopThread loop;
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&] {
      const auto caller = NewClient();
      while (!stop) {
        if (caller->Call("get_cloud_connection", nullptr, kLimit).get().value == "(false,)") {
          ++answered;
        }
        const auto nobody = g_variant_new("(s)", "nobody");
        if (caller->Call("register_app", nobody, kLimit).get().value == "(-20,)") ++refused;
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    core.Initialize();
    const std::pair<unsigned, unsigned> before(answered, refused);
    EXPECT_TRUE(
        platform.WaitUntil([&] { return answered > before.first && refused > before.second; }));
    core.Deinitialize();
    EXPECT_EQ("", client->OwnerOf(kBusName)) << round;
  }
  stop = true;
  for (std::thread& caller : callers) caller.join();
  loop.Drain();
}

TEST_F(DBusServerStopTest, HasReleasedTheNameThoughACallWaitsForTheLockOfWhoStops) {
  constexpr int kRounds = 5;
  Clock::duration shortest = Clock::duration::max();
  MainLoopThread loop;
  for (int round = 0; round < kRounds; ++round) {
    StartOnTheLoop();
    std::future<Reply> call;
    {
      const std::lock_guard<std::recursive_mutex> lock(core.m_mutex);
      call = CallThatWaits();
      const auto start = Clock::now();
      server.Deinit();
      shortest = std::min(shortest, Clock::now() - start);
      EXPECT_EQ("", client->OwnerOf(kBusName));
    }
    EXPECT_EQ("(false,)", call.get().value);
    loop.Drain();
  }
  EXPECT_LT(shortest, kLimitOfTheStop);
}

TEST_F(DBusServerStopTest, HasReleasedTheNameThoughACallbackWaitsForTheLock) {
  constexpr int kRounds = 5;
  MainLoopThread loop;
  Clock::duration shortest = Clock::duration::max();
  for (int round = 0; round < kRounds; ++round) {
    platform.ClearTrace();
    ASSERT_EQ(1U, client->RequestName(kBusName, 0));
    ASSERT_TRUE(server.Init());
    ASSERT_TRUE(platform.WaitUntil([&] { return client->QueuedOwnersOf(kBusName).size() == 2; }));
    // The name comes while the stop holds the lock.
    platform.OnCall("vconf_set_int", [&] {
      EXPECT_EQ(1U, client->ReleaseName(kBusName));
      EXPECT_TRUE(HasLogged("on_name_acquired"));
    });
    const auto start = Clock::now();
    server.Deinit();
    shortest = std::min(shortest, Clock::now() - start);
    platform.OnCall("vconf_set_int", nullptr);
    EXPECT_EQ("", client->OwnerOf(kBusName));
  }
  loop.Drain();
  EXPECT_LT(shortest, kLimitOfTheStop);
  EXPECT_EQ(nullptr, server.m_connection);
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

TEST_F(DBusServerStopTest, DoesNotWaitForAMainLoopThatIsStuck) {
  struct {
    Gate begun, end;
  } stuck;
  MainLoopThread loop;
  StartOnTheLoop();
  g_idle_add(
      [](gpointer userData) -> gboolean {
        auto& gates = *static_cast<decltype(stuck)*>(userData);
        gates.begun.Open();
        EXPECT_TRUE(gates.end.Wait());
        return G_SOURCE_REMOVE;
      },
      &stuck);
  ASSERT_TRUE(stuck.begun.Wait());
  server.Deinit();
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_NE("", client->OwnerOf(kBusName));
  stuck.end.Open();
  loop.Drain();
  EXPECT_EQ("", client->OwnerOf(kBusName));
}

TEST_F(DBusServerStopTest, TheNameOfAnEarlierStartDoesNotMakeALaterStartReady) {
  struct Hold {
    static gboolean Run(gpointer self) {
      static_cast<Hold*>(self)->begun.Open();
      EXPECT_TRUE(static_cast<Hold*>(self)->end.Wait());
      return G_SOURCE_REMOVE;
    }
    void Add() { g_idle_add_full(G_PRIORITY_DEFAULT, &Hold::Run, this, nullptr); }
    Gate begun, end;
  } first, second;
  // The main loop's thread has got everything that the bus has sent so far.
  const auto readBus = [this] {
    g_variant_unref(g_dbus_connection_call_sync(
        Shared(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
        nullptr, G_DBUS_CALL_FLAGS_NONE, BusClient::kCallLimit.count(), nullptr, nullptr));
  };
  MainLoopThread loop;
  ASSERT_EQ(1U, client->RequestName(kBusName, 0));
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(platform.WaitUntil([&] { return client->QueuedOwnersOf(kBusName).size() == 2; }));
  readBus();
  loop.Drain();
  // The name comes, and the main loop is held up when it is about to tell the server.
  first.Add();
  ASSERT_TRUE(first.begun.Wait());
  second.Add();
  EXPECT_EQ(1U, client->ReleaseName(kBusName));
  readBus();
  first.end.Open();
  ASSERT_TRUE(second.begun.Wait());

  platform.ClearTrace();
  server.Deinit();
  ASSERT_TRUE(server.Init());
  std::vector<bool> isRegistered;
  gio.OnCall(FaultyGio::kEmitSignal,
             [&] { isRegistered.push_back(server.m_registration_id != 0); });
  second.end.Open();
  ASSERT_TRUE(WaitUntilReady());
  loop.Drain();
  ASSERT_TRUE(platform.WaitUntil([&] { return client->OwnerOf(kBusName) == SharedName(); }));
  readBus();
  loop.Drain();
  EXPECT_EQ(2U, platform.LogsOf("on_name_acquired").size());
  EXPECT_EQ(std::vector<bool>{true}, isRegistered);
  EXPECT_EQ("(false,)", Call("get_cloud_connection"));
  server.Deinit();
  loop.Drain();
}

TEST_F(DBusServerStopTest, ACallbackThatWaitedThroughAStopBelongsToThePastAlsoAfterAStart) {
  for (const auto& [callback, name] :
       {std::pair(&DBusServer::on_bus_acquired, std::string("on_bus_acquired")),
        std::pair(&DBusServer::on_name_acquired, std::string("on_name_acquired"))}) {
    for (const bool isStartedAgain : {false, true}) {
      SCOPED_TRACE(name + (isStartedAgain ? " and a start" : ""));
      client->TakeSignals();
      std::thread late;
      {
        const std::lock_guard<std::recursive_mutex> lock(server.m_mutex);
        ASSERT_TRUE(server.Init());
        late = std::thread([&, call = callback] { call(Shared(), kBusName, &server); });
        EXPECT_TRUE(HasLogged(name));
        server.Deinit();
        EXPECT_TRUE(!isStartedAgain || server.Init());
      }
      late.join();
      EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
      EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
      EXPECT_EQ(nullptr, server.m_registration_connection);
      EXPECT_FALSE(server.isInit());
      EXPECT_EQ(0, platform.Setting(kStatusKey));
      if (isStartedAgain) {
        ASSERT_TRUE(WaitUntilReady());
        EXPECT_EQ(1U, Received(1).size());
        EXPECT_EQ(1U, gio.Calls(FaultyGio::kEmitSignal));
      }
      server.Deinit();
      RunPending();
      gio.Reset();
      platform.ClearTrace();
    }
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
  EXPECT_TRUE(LoggedOnce(kServer.Error("Shutdown", "[on_bus_acquired] still running after 2 s")));
  end.Open();
  shutdown.get();
  loop.Drain();
}

TEST_F(DBusServerStopTest, ShutdownNamesTheMethodThatIsStillInsideAndSaysNothingWhenNobodyIs) {
  MainLoopThread loop;
  StartOnTheLoop();
  std::future<Reply> call;
  {
    const std::lock_guard<std::recursive_mutex> lock(core.m_mutex);
    call = CallThatWaits();
    server.Shutdown();
    EXPECT_TRUE(
        LoggedOnce(kServer.Error("Shutdown", "[get_cloud_connection] still running after 2 s")));
  }
  EXPECT_EQ("(false,)", call.get().value);
  server.Deinit();
  loop.Drain();
  platform.ClearTrace();
  server.Shutdown();
  EXPECT_EQ(Lines{}, Written());
}

}  // namespace
