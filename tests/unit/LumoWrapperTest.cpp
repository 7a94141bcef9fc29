#include "LumoWrapper.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Gate.h"
#include "PlatformTest.h"

namespace ThingCommon {
namespace {

using fake::Property;
using Adaptor = JsonValueAdaptor;

// Long enough for a thread to get somewhere that it must not get to. A slow machine only makes the
// check that uses it weaker.
constexpr std::chrono::milliseconds kGlimpse(50);

ExpectedLog Line(int priority, const std::string& function, const std::string& message, int line) {
  return {priority, "THING_COMMON", "LumoWrapper.cpp", function, message, line};
}

ExpectedLog Entered(const std::string& function, int line) {
  return Line(4, function, "> Entered\n", line);
}

ExpectedLog Left(const std::string& function, int line) {
  return Line(4, function, "> Left\n", line);
}

const ExpectedLog kInvalidHandle =
    Line(6, "executeFunctionAndRetryIfFailed", "invalid service_handle\n", 123);

ExpectedLog Failed(unsigned attempt, lumo_error code) {
  return Line(6, "executeFunctionAndRetryIfFailed",
              "(" + std::to_string(attempt) + "/3) fail. ret = " + std::to_string(code) + "\n",
              137);
}

ExpectedLog Succeeded(unsigned attempt) {
  return Line(3, "executeFunctionAndRetryIfFailed",
              "(" + std::to_string(attempt) + "/3) success.\n", 134);
}

Adaptor Object(const std::string& name, const Json::Value& value) {
  Json::Value object;
  object[name] = value;
  return object;
}

bool IsReady(const std::shared_future<void>& future) {
  return future.wait_for(fake::kPatience) == std::future_status::ready;
}

class LumoWrapperTest : public PlatformTest {
 protected:
  void TearDown() override {
    // By the end of a test nothing that its hooks refer to need be there.
    for (const char* operation : {"lumo_service_create", "lumo_service_destroy"}) {
      platform.OnCall(operation, {});
    }
    wrapper->Destroy();
    platform.Drain();
    wrapper.reset();
    PlatformTest::TearDown();
  }

  static _ServiceInfo Info(const std::string& name = "service") {
    _ServiceInfo info;
    info.name = name;
    info.description = "a service";
    return info;
  }

  // An info whose get handler answers with {"from": name}.
  _ServiceInfo AnsweringInfo(const std::string& name) {
    _ServiceInfo info = Info(name);
    info.get_handler = [this, name](void* request, const std::vector<Adaptor>&) {
      wrapper->SendGetResponse(request, RESULT_SUCCESS, Object("from", name));
    };
    return info;
  }

  bool WaitForResponses(std::size_t count) {
    return platform.WaitUntil([&] { return platform.Responses().size() >= count; });
  }

  // True when another thread can take and release the wrapper's lock meanwhile. The caller keeps
  // what this started.
  bool LockIsFree() {
    m_probes.push_back(
        std::async(std::launch::async, [this] { wrapper->getServiceHandleSafely(); }).share());
    return IsReady(m_probes.back());
  }

  std::vector<std::string> Summaries() {
    std::vector<std::string> summaries;
    for (const std::string& summary : platform.Summaries()) {
      const std::string prefix = " THING_COMMON LumoWrapper.cpp";
      const auto found = summary.find(prefix);
      summaries.push_back(found == std::string::npos
                              ? summary
                              : summary.substr(0, found) + summary.substr(found + prefix.size()));
    }
    return summaries;
  }

  std::unique_ptr<LumoWrapper> wrapper = std::make_unique<LumoWrapper>();

 private:
  std::vector<std::shared_future<void>> m_probes;
};

// --- shared types --------------------------------------------------------------------------------

TEST_F(LumoWrapperTest, NumbersItsResultsAsTheLibrarysUsersExpect) {
  EXPECT_EQ(static_cast<int>(RESULT_SUCCESS), 0);
  EXPECT_EQ(static_cast<int>(RESULT_FAIL), 3);
}

TEST_F(LumoWrapperTest, StartsWithAnEmptyServiceInfo) {
  const _ServiceInfo info;
  EXPECT_EQ(info.name, "");
  EXPECT_EQ(info.description, "");
  EXPECT_FALSE(info.get_handler);
  EXPECT_FALSE(info.set_handler);
  EXPECT_FALSE(info.cancel_handler);
  EXPECT_FALSE(info.protocol_status_handler);
}

TEST_F(LumoWrapperTest, IsNeitherCopiedNorMovedNorDerivedFrom) {
  static_assert(!std::is_copy_constructible_v<LumoWrapper>);
  static_assert(!std::is_move_constructible_v<LumoWrapper>);
  static_assert(!std::is_copy_assignable_v<LumoWrapper>);
  static_assert(!std::is_polymorphic_v<LumoWrapper>);
}

TEST_F(LumoWrapperTest, DoesNothingWhenItIsMadeAndDestroyed) {
  { const LumoWrapper unused; }
  EXPECT_TRUE(platform.Trace().empty());
}

// --- Create --------------------------------------------------------------------------------------

TEST_F(LumoWrapperTest, CreatesTheServiceWithItsNameAndDescription) {
  EXPECT_TRUE(wrapper->Create(Info("100%s")));
  EXPECT_EQ(platform.Calls(), std::vector<std::string>{"lumo_service_create(100%s, a service)"});
  EXPECT_NE(platform.Service(), nullptr);
  EXPECT_EQ(wrapper->getServiceHandleSafely(), platform.Service());
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Entered("Create", 32)));
  EXPECT_TRUE(Matches(logs[1], Left("Create", 32)));
}

TEST_F(LumoWrapperTest, PassesTheNameAndTheDescriptionWithTheirLengths) {
  _ServiceInfo info;
  info.name = std::string("n\0m", 3);
  info.description = std::string("d\0e", 3);
  EXPECT_TRUE(wrapper->Create(info));
  EXPECT_EQ(platform.Calls()[0], std::string("lumo_service_create(n\0m, d\0e)", 29));
}

TEST_F(LumoWrapperTest, StoresNothingWhenTheLibraryRefusesToCreate) {
  platform.Fail("lumo_service_create");
  EXPECT_FALSE(wrapper->Create(AnsweringInfo("100%s")));
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
  EXPECT_EQ(platform.LiveServices(), 0U);
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_TRUE(Matches(logs[0], Entered("Create", 32)));
  EXPECT_TRUE(Matches(logs[1], Line(6, "Create", "[100%s] fail to lumo_service_create\n", 42)));
  EXPECT_EQ(logs[1].format, "%s : %s(%d)  [%s] fail to lumo_service_create\n");
  EXPECT_TRUE(Matches(logs[2], Left("Create", 32)));
  // No dispatcher either.
  std::function<void()> job = [] {};
  EXPECT_FALSE(wrapper->addJobToDispatcher(job));
}

TEST_F(LumoWrapperTest, CreatesAfterAFailure) {
  platform.Fail("lumo_service_create", 1);
  EXPECT_FALSE(wrapper->Create(Info()));
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("second")));
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].properties,
            std::vector<Property>{Property::String("from", "second")});
}

TEST_F(LumoWrapperTest, HoldsNoLockWhileTheLibraryCreates) {
  bool free = false;
  platform.OnCall("lumo_service_create", [&] { free = LockIsFree(); });
  EXPECT_TRUE(wrapper->Create(Info()));
  EXPECT_TRUE(free);
}

TEST_F(LumoWrapperTest, NamesTheDispatcherAfterTheService) {
  ASSERT_TRUE(wrapper->Create(Info("the name")));
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_TRUE(platform.WaitUntil(
      [&] { return platform.CountLogs("  [the name] Finished thread running\n") == 1; }));
}

TEST_F(LumoWrapperTest, LeavesTheFirstServiceWholeWhenASecondIsRefused) {
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("first")));
  void* const first = wrapper->getServiceHandleSafely();
  platform.Fail("lumo_service_create");
  EXPECT_FALSE(wrapper->Create(AnsweringInfo("second")));
  EXPECT_EQ(wrapper->getServiceHandleSafely(), first);
  EXPECT_TRUE(platform.ServiceLives(first));
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].service, first);
  EXPECT_EQ(platform.Responses()[0].properties,
            std::vector<Property>{Property::String("from", "first")});
  EXPECT_EQ(platform.CountLogs("ESCAPE"), 0U);
}

TEST_F(LumoWrapperTest, ReplacesAServiceThatItDoesNotDestroyAndDeletesItsDispatcher) {
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("first")));
  void* const first = wrapper->getServiceHandleSafely();
  platform.ClearTrace();
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("second")));

  EXPECT_NE(wrapper->getServiceHandleSafely(), first);
  EXPECT_EQ(platform.LiveServices(), 2U);
  const std::string dispatcher = "6 THING_COMMON MsgDispatcher.cpp ";
  std::vector<std::string> lines = Summaries();
  // The worker may end before its thread is waited for, or while it is.
  const auto beforeJoin =
      std::find(lines.begin(), lines.end(), dispatcher + "~MsgDispatcher [first] before join");
  ASSERT_NE(beforeJoin, lines.end());
  EXPECT_EQ(std::count(beforeJoin, lines.end(), dispatcher + "~MsgDispatcher [first] after join"),
            1);
  lines.erase(beforeJoin);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "4 Create > Entered", "lumo_service_create(second, a service)",
                       dispatcher + "runDispatchingThread [first] ESCAPE!",
                       dispatcher + "runDispatchingThread [first] Finished thread running",
                       dispatcher + "~MsgDispatcher [first] after join",
                       dispatcher + "~MsgQueue MsgQueue destructed", "4 Create > Left"}));
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].properties,
            std::vector<Property>{Property::String("from", "second")});
}

TEST_F(LumoWrapperTest, CreatesAgainAfterDestroyWithANewDispatcher) {
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("first")));
  ASSERT_TRUE(wrapper->Destroy());
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 0U) << "kept until it is replaced";
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("second")));
  EXPECT_EQ(platform.CountLogs("[first] after join"), 1U);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 1U);
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].properties,
            std::vector<Property>{Property::String("from", "second")});
}

TEST_F(LumoWrapperTest, CreatesAlthoughAHandlerOfTheReplacedDispatcherWaitsForTheCaller) {
  std::mutex heldByTheCaller;
  Gate started;
  std::atomic<bool> ended = false;
  _ServiceInfo info = Info("first");
  info.get_handler = [&](void* request, const std::vector<Adaptor>&) {
    started.Open();
    const std::lock_guard<std::mutex> lock(heldByTheCaller);
    wrapper->SendGetResponse(request, RESULT_SUCCESS, Object("from", "first"));
    ended = true;
  };
  ASSERT_TRUE(wrapper->Create(info));
  std::unique_lock<std::mutex> lock(heldByTheCaller);
  platform.DeliverGet({});
  ASSERT_TRUE(started.Wait());
  ASSERT_TRUE(wrapper->Destroy());

  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(wrapper->Create(AnsweringInfo("second")));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::seconds(2));
  EXPECT_LT(waited, std::chrono::seconds(20));
  EXPECT_FALSE(ended);
  EXPECT_EQ(platform.CountLogs("[first] ESCAPE"), 0U);
  // One request at a time: the new one has its turn when the old one has been answered.
  platform.DeliverGet({});
  EXPECT_TRUE(platform.Responses().empty());

  lock.unlock();
  ASSERT_TRUE(WaitForResponses(2));
  EXPECT_TRUE(ended);
  EXPECT_EQ(platform.Responses()[0].properties,
            std::vector<Property>{Property::String("from", "first")});
  EXPECT_EQ(platform.Responses()[1].properties,
            std::vector<Property>{Property::String("from", "second")});
  EXPECT_EQ(platform.CountLogs("[first] after join"), 1U);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 1U);
}

TEST_F(LumoWrapperTest, HandlesOneRequestAtATimeOverSeveralRestartsWithAStuckHandler) {
  constexpr std::size_t kRestarts = 5;
  Gate gate;
  Gate started;
  std::mutex mutex;
  std::vector<std::string> handled;  // guarded by mutex
  std::atomic<int> running = 0;
  std::atomic<bool> overlapped = false;
  const auto infoOf = [&](const std::string& name) {
    _ServiceInfo info = Info(name);
    info.cancel_handler = [&, name](void* request) {
      if (++running > 1) overlapped = true;
      if (name == "0") {
        started.Open();
        EXPECT_TRUE(gate.Wait());
      }
      {
        const std::lock_guard<std::mutex> lock(mutex);
        handled.push_back(name + ":" + std::to_string(reinterpret_cast<std::uintptr_t>(request)));
      }
      --running;
    };
    return info;
  };
  const auto deliver = [&](std::uintptr_t number) {
    platform.DeliverCancel(reinterpret_cast<void*>(number));
  };
  ASSERT_TRUE(wrapper->Create(infoOf("0")));
  deliver(1);
  ASSERT_TRUE(started.Wait());
  for (std::size_t i = 1; i <= kRestarts; ++i) {
    deliver(9);  // dropped by the stop
    ASSERT_TRUE(wrapper->Destroy());
    ASSERT_TRUE(wrapper->Create(infoOf(std::to_string(i))));
  }
  for (const std::uintptr_t number : {2U, 3U, 4U}) deliver(number);
  EXPECT_EQ(platform.CountLogs("after join"), 0U);
  gate.Open();
  EXPECT_TRUE(platform.WaitUntil([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    return handled.size() == 4;
  }));
  wrapper->Shutdown();
  EXPECT_EQ(handled, (std::vector<std::string>{"0:1", "5:2", "5:3", "5:4"}));
  EXPECT_FALSE(overlapped);
  // Nobody is left behind.
  EXPECT_EQ(platform.CountLogs("after join"), kRestarts + 1);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), kRestarts + 1);
}

TEST_F(LumoWrapperTest, WaitsForReplacedDispatchersInItsDestructor) {
  Gate started;
  std::atomic<bool> ended = false;
  _ServiceInfo info = Info("first");
  info.cancel_handler = [&](void*) {
    started.Open();
    EXPECT_TRUE(
        platform.WaitUntil([&] { return platform.CountLogs("[second] before join") == 1; }));
    ended = true;
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverCancel(nullptr);
  ASSERT_TRUE(started.Wait());
  ASSERT_TRUE(wrapper->Create(Info("second")));
  wrapper->Destroy();
  wrapper = std::make_unique<LumoWrapper>();
  EXPECT_TRUE(ended);
  EXPECT_EQ(platform.CountLogs("[first] after join"), 1U);
  EXPECT_EQ(platform.CountLogs("[second] after join"), 1U);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 2U);
}

TEST_F(LumoWrapperTest, LetsAHandlerRestartTheServiceItServes) {
  std::promise<bool> restarted;
  _ServiceInfo info = Info("first");
  info.cancel_handler = [&, second = AnsweringInfo("second")](void*) {
    restarted.set_value(wrapper->Destroy() && wrapper->Create(second));
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverCancel(nullptr);
  auto result = restarted.get_future();
  ASSERT_EQ(result.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_TRUE(result.get());
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].properties,
            std::vector<Property>{Property::String("from", "second")});
  EXPECT_EQ(platform.CountLogs("[first] after join"), 1U);
}

TEST_F(LumoWrapperTest, HoldsNoLockWhileItWaitsForAReplacedDispatcher) {
  Gate started;
  bool answered = false;
  _ServiceInfo info = Info("first");
  info.get_handler = [&](void* request, const std::vector<Adaptor>&) {
    started.Open();
    // Answers only when the second service has been stored, and needs the lock for it.
    answered = platform.WaitUntil([&] {
      return platform.ServicesCreated() == 2 &&
             wrapper->getServiceHandleSafely() == platform.Service();
    });
    wrapper->SendGetResponse(request, RESULT_SUCCESS, Adaptor());
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverGet({});
  ASSERT_TRUE(started.Wait());
  EXPECT_TRUE(wrapper->Create(Info("second")));
  EXPECT_EQ(platform.CountLogs("[first] after join"), 1U);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 1U);
  wrapper->Shutdown();  // should the handler still run, it may not outlast its variables
  EXPECT_TRUE(answered);
  ASSERT_EQ(platform.Responses().size(), 1U);
  EXPECT_EQ(platform.Responses()[0].service, platform.Service());
}

// No thread can be started while it lives: none gets so large a stack.
class NoThreads {
 public:
  NoThreads() {
    // Half of the addresses may be free, on 32 bits.
    constexpr std::size_t kPageBytes = 4096;
    constexpr std::size_t kTooLarge = std::numeric_limits<std::size_t>::max() / 4 * 3 / kPageBytes;
    pthread_attr_t large;
    EXPECT_EQ(pthread_getattr_default_np(&m_before), 0);
    EXPECT_EQ(pthread_getattr_default_np(&large), 0);
    EXPECT_EQ(pthread_attr_setstacksize(&large, kTooLarge * kPageBytes), 0);
    EXPECT_EQ(pthread_setattr_default_np(&large), 0);
    pthread_attr_destroy(&large);
  }
  ~NoThreads() {
    EXPECT_EQ(pthread_setattr_default_np(&m_before), 0);
    pthread_attr_destroy(&m_before);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t m_before{};
};

TEST_F(LumoWrapperTest, DestroysTheServiceAgainWhenNoThreadCouldBeStarted) {
  {
    const NoThreads noThreads;
    EXPECT_THROW(wrapper->Create(Info()), std::system_error);
  }
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
  EXPECT_EQ(platform.ServicesCreated(), 1U);
  EXPECT_EQ(platform.LiveServices(), 0U);
  EXPECT_TRUE(LoggedOnce(Left("Create", 32)));
  EXPECT_TRUE(wrapper->Create(Info()));
}

TEST_F(LumoWrapperTest, KeepsTheServiceThatItHasWhenNoThreadCouldBeStartedForAnother) {
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("first")));
  void* const first = wrapper->getServiceHandleSafely();
  {
    const NoThreads noThreads;
    EXPECT_THROW(wrapper->Create(AnsweringInfo("second")), std::system_error);
  }
  EXPECT_EQ(wrapper->getServiceHandleSafely(), first);
  EXPECT_EQ(platform.LiveServices(), 1U);
  std::function<void()> job = [this] { wrapper->NotifyProperty("", Object("a", 1)); };
  EXPECT_TRUE(wrapper->addJobToDispatcher(job));
  EXPECT_TRUE(platform.WaitUntil([&] { return platform.Notifications().size() == 1; }));
}

TEST_F(LumoWrapperTest, PassesOnThatNoThreadCouldBeStartedWhenTheServicesEndThrowsAsWell) {
  platform.OnCall("lumo_service_destroy", [] { throw std::runtime_error("the second"); });
  {
    const NoThreads noThreads;
    EXPECT_THROW(wrapper->Create(Info()), std::system_error);
  }
  EXPECT_TRUE(LoggedOnce(Left("Create", 32)));
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
}

// --- Destroy -------------------------------------------------------------------------------------

TEST_F(LumoWrapperTest, DestroysTheServiceOnce) {
  ASSERT_TRUE(wrapper->Create(Info()));
  platform.ClearTrace();
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
  EXPECT_EQ(platform.Calls(), std::vector<std::string>{"lumo_service_destroy(service)"});
  auto logs = platform.LogsOf("Destroy");
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Entered("Destroy", 55)));
  EXPECT_TRUE(Matches(logs[1], Left("Destroy", 55)));

  platform.ClearTrace();
  EXPECT_FALSE(wrapper->Destroy());
  EXPECT_TRUE(platform.Calls().empty());
  EXPECT_EQ(platform.LogsOf("Destroy").size(), 2U);
}

TEST_F(LumoWrapperTest, DestroysNothingBeforeCreate) {
  EXPECT_FALSE(wrapper->Destroy());
  EXPECT_TRUE(platform.Calls().empty());
}

TEST_F(LumoWrapperTest, CountsAServiceAsDestroyedWhateverTheLibrarySays) {
  for (const lumo_error code : {5, -3}) {
    platform.Fail("lumo_service_destroy", fake::Platform::kAlways, code);
    ASSERT_TRUE(wrapper->Create(Info()));
    EXPECT_TRUE(wrapper->Destroy());
    EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
    EXPECT_FALSE(wrapper->Destroy());
  }
}

TEST_F(LumoWrapperTest, ForgetsAServiceWhoseEndThrows) {
  const auto token = std::make_shared<int>();
  _ServiceInfo info = Info();
  info.cancel_handler = [token](void*) {};
  ASSERT_TRUE(wrapper->Create(info));
  info = _ServiceInfo();
  platform.OnCall("lumo_service_destroy", [] { throw std::runtime_error("no memory"); });
  EXPECT_THROW(wrapper->Destroy(), std::runtime_error);
  EXPECT_TRUE(LoggedOnce(Left("Destroy", 55)));
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
  EXPECT_EQ(token.use_count(), 1);
  platform.OnCall("lumo_service_destroy", {});
  // From another thread: the lock is free again.
  EXPECT_FALSE(std::async(std::launch::async, [this] { return wrapper->Destroy(); }).get());
}

TEST_F(LumoWrapperTest, StopsTheDispatcherBeforeItDestroysTheService) {
  ASSERT_TRUE(wrapper->Create(Info()));
  std::size_t refused = 0;
  platform.OnCall("lumo_service_destroy", [&] {
    std::function<void()> job = [] { ADD_FAILURE() << "a refused job ran"; };
    EXPECT_TRUE(wrapper->addJobToDispatcher(job));
    refused = platform.CountLogs("EnqueueData");
  });
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_EQ(refused, 1U);
}

TEST_F(LumoWrapperTest, LocksOthersOutForAllOfDestroy) {
  ASSERT_TRUE(wrapper->Create(Info()));
  std::future<void*> handle;
  platform.OnCall("lumo_service_destroy", [&] {
    handle = std::async(std::launch::async, [&] { return wrapper->getServiceHandleSafely(); });
    EXPECT_EQ(handle.wait_for(kGlimpse), std::future_status::timeout);
  });
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_EQ(handle.get(), nullptr);
}

TEST_F(LumoWrapperTest, ReleasesTheHandlersInDestroy) {
  const auto token = std::make_shared<int>();
  {
    _ServiceInfo info = Info();
    info.get_handler = [token](void*, const std::vector<Adaptor>&) {};
    info.set_handler = [token](void*, const std::vector<Adaptor>&) {};
    info.cancel_handler = [token](void*) {};
    info.protocol_status_handler = [token](const std::string&, lumo_protocol_status) {};
    ASSERT_TRUE(wrapper->Create(info));
    EXPECT_EQ(token.use_count(), 9) << "the wrapper keeps a copy of all four";
  }
  EXPECT_EQ(token.use_count(), 5);
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_EQ(token.use_count(), 1);
}

// A private member, by the one context in which the language does not ask whether it may be named.
void*& HandleOf(LumoWrapper& wrapper);
template <void* LumoWrapper::*member>
struct HandleAccess {
  friend void*& HandleOf(LumoWrapper& wrapper) { return wrapper.*member; }
};
template struct HandleAccess<&LumoWrapper::m_service_handle>;

TEST_F(LumoWrapperTest, ReleasesTheHandlersThoughThereIsNoServiceToDestroy) {
  const auto token = std::make_shared<int>();
  _ServiceInfo info = Info();
  info.cancel_handler = [token](void*) {};
  ASSERT_TRUE(wrapper->Create(info));
  info = _ServiceInfo();
  ASSERT_EQ(token.use_count(), 2);
  HandleOf(*wrapper) = nullptr;
  EXPECT_FALSE(wrapper->Destroy());
  EXPECT_EQ(token.use_count(), 1);
}

TEST_F(LumoWrapperTest, DoesNotWaitForARunningHandlerInDestroy) {
  Gate gate;
  Gate started;
  _ServiceInfo info = Info();
  info.get_handler = [&](void* request, const std::vector<Adaptor>&) {
    started.Open();
    EXPECT_TRUE(gate.Wait());
    wrapper->SendGetResponse(request, RESULT_SUCCESS, Object("a", 1));
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverGet({});
  ASSERT_TRUE(started.Wait());
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_TRUE(platform.Responses().empty());
  gate.Open();
  // The late answer goes to the library without a service, and its list all the same.
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].service, nullptr);
  EXPECT_EQ(platform.Responses()[0].properties, std::vector<Property>{Property::Int("a", 1)});
}

TEST_F(LumoWrapperTest, LetsAHandlerDestroyTheServiceItServes) {
  constexpr const char* kText = "captured, and longer than a short string";
  std::promise<bool> capturedLives;
  _ServiceInfo info = Info();
  info.cancel_handler = [this, &capturedLives, text = std::string(kText)](void*) {
    EXPECT_TRUE(wrapper->Destroy());
    capturedLives.set_value(text == kText);
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverCancel(nullptr);
  auto result = capturedLives.get_future();
  ASSERT_EQ(result.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_TRUE(result.get());
  EXPECT_EQ(platform.LiveServices(), 0U);
}

TEST_F(LumoWrapperTest, LeavesTheServiceToItsOwnerWhenItIsDestroyed) {
  {
    LumoWrapper other;
    ASSERT_TRUE(other.Create(Info("other")));
    platform.ClearTrace();
  }
  EXPECT_TRUE(platform.Calls().empty());
  EXPECT_EQ(platform.LiveServices(), 1U);
  EXPECT_EQ(platform.CountLogs("[other] after join"), 1U);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 1U);
}

// --- Shutdown and the destructor -----------------------------------------------------------------

TEST_F(LumoWrapperTest, WaitsForTheRunningHandlerInShutdownWithTheLockFree) {
  Gate started;
  std::atomic<bool> ended = false;
  _ServiceInfo info = Info();
  info.get_handler = [&](void* request, const std::vector<Adaptor>&) {
    started.Open();
    // Until Shutdown waits for this very handler.
    EXPECT_TRUE(platform.WaitUntil([&] { return platform.CountLogs("before join") == 1; }));
    wrapper->SendGetResponse(request, RESULT_SUCCESS, Adaptor());
    ended = true;
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverGet({});
  ASSERT_TRUE(started.Wait());
  EXPECT_TRUE(wrapper->Destroy());
  wrapper->Shutdown();
  EXPECT_TRUE(ended);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 1U);
  // Once is enough.
  wrapper->Shutdown();
  EXPECT_EQ(platform.CountLogs("before join"), 1U);
}

TEST_F(LumoWrapperTest, WaitsForCallbacksInsideTheWrapperInShutdown) {
  Gate gate;
  Gate started;
  std::atomic<bool> ended = false;
  _ServiceInfo info = Info();
  info.protocol_status_handler = [&](const std::string&, lumo_protocol_status) {
    started.Open();
    EXPECT_TRUE(gate.Wait());
    ended = true;
  };
  ASSERT_TRUE(wrapper->Create(info));
  const auto callback =
      std::async(std::launch::async, [&] { platform.DeliverProtocolStatus("p", 1); });
  ASSERT_TRUE(started.Wait());
  EXPECT_TRUE(wrapper->Destroy());
  std::atomic<bool> endedBeforeShutdownDid = false;
  const auto shutdown = std::async(std::launch::async, [&] {
    wrapper->Shutdown();
    endedBeforeShutdownDid = ended.load();
  });
  EXPECT_EQ(shutdown.wait_for(kGlimpse), std::future_status::timeout);
  gate.Open();
  ASSERT_EQ(shutdown.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_TRUE(endedBeforeShutdownDid);
}

TEST_F(LumoWrapperTest, GivesCallbacksThatStayInsideUpAfterTwoSecondsAndNamesThem) {
  Gate gate;
  Gate started;
  _ServiceInfo info = Info();
  info.protocol_status_handler = [&](const std::string&, lumo_protocol_status) {
    started.Open();
    EXPECT_TRUE(gate.Wait());
  };
  ASSERT_TRUE(wrapper->Create(info));
  const auto callback =
      std::async(std::launch::async, [&] { platform.DeliverProtocolStatus("p", 1); });
  ASSERT_TRUE(started.Wait());
  EXPECT_TRUE(wrapper->Destroy());
  const auto start = std::chrono::steady_clock::now();
  wrapper->Shutdown();
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::seconds(2));
  EXPECT_LT(waited, std::chrono::seconds(20));
  const auto logs = platform.LogsOf("Shutdown");
  ASSERT_EQ(logs.size(), 1U);
  EXPECT_TRUE(Matches(
      logs[0], Line(6, "Shutdown", "[protocolStatusCallback] still inside at the end\n", 0)));
  // The worker is joined all the same.
  EXPECT_EQ(platform.CountLogs("[service] after join"), 1U);
  gate.Open();
  callback.wait();
}

TEST_F(LumoWrapperTest, GivesACallbackUpThatStaysInsideWithTheLock) {
  Gate gate;
  Gate started;
  ASSERT_TRUE(wrapper->Create(Info()));
  EXPECT_TRUE(wrapper->Destroy());
  const auto callback = std::async(std::launch::async, [&] {
    // Its first line is "Entered"; the second one is the dispatcher's, which refuses the job.
    std::atomic<int> lines = 0;
    platform.OnCall("dlog_print", [&, self = std::this_thread::get_id()] {
      if (std::this_thread::get_id() != self || ++lines != 2) return;
      started.Open();
      EXPECT_TRUE(gate.Wait());
    });
    platform.DeliverGet({});
    platform.OnCall("dlog_print", {});
  });
  ASSERT_TRUE(started.Wait());
  const auto start = std::chrono::steady_clock::now();
  wrapper->Shutdown();
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::seconds(4));
  EXPECT_LT(waited, std::chrono::seconds(40));
  const auto logs = platform.LogsOf("Shutdown");
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Line(6, "Shutdown", "[getCallback] still inside at the end\n", 0)));
  EXPECT_TRUE(Matches(logs[1], Line(6, "Shutdown", "the lock is still held at the end\n", 0)));
  EXPECT_EQ(platform.CountLogs("before join"), 0U);
  gate.Open();
  callback.wait();
  // The destructor is left with it.
  wrapper = std::make_unique<LumoWrapper>();
  EXPECT_EQ(platform.CountLogs("[service] after join"), 1U);
}

TEST_F(LumoWrapperTest, WaitsForEveryKindOfCallbackInItsDestructor) {
  const std::vector<std::pair<std::string, std::function<void()>>> kinds = {
      {"getCallback", [this] { platform.DeliverGet({Property::Int("a", 1)}); }},
      {"setCallback", [this] { platform.DeliverSet({Property::Int("a", 1)}); }},
      {"cancelCallback", [this] { platform.DeliverCancel(nullptr); }},
      {"protocolStatusCallback", [this] { platform.DeliverProtocolStatus("p", 1); }},
  };
  for (const auto& [name, deliver] : kinds) {
    SCOPED_TRACE(name);
    wrapper = std::make_unique<LumoWrapper>();
    ASSERT_TRUE(wrapper->Create(Info()));
    Gate gate;
    Gate started;
    // Held up in its first line, and then left alone.
    const auto callback = std::async(std::launch::async, [&, run = deliver] {
      platform.OnCall("dlog_print", [&, self = std::this_thread::get_id()] {
        if (std::this_thread::get_id() != self) return;
        platform.OnCall("dlog_print", {});
        started.Open();
        EXPECT_TRUE(gate.Wait());
      });
      run();
    });
    ASSERT_TRUE(started.Wait());
    EXPECT_TRUE(wrapper->Destroy());
    platform.ClearTrace();
    const auto destructor = std::async(std::launch::async, [&] { wrapper.reset(); });
    EXPECT_EQ(destructor.wait_for(kGlimpse), std::future_status::timeout);
    gate.Open();
    ASSERT_EQ(destructor.wait_for(fake::kPatience), std::future_status::ready);

    // The callback was over before the dispatcher went.
    const auto summaries = Summaries();
    const auto find = [&summaries](const std::string& summary) {
      return std::find(summaries.begin(), summaries.end(), summary) - summaries.begin();
    };
    const auto left = find("4 " + name + " > Left");
    const auto join = find("6 THING_COMMON MsgDispatcher.cpp ~MsgDispatcher [service] before join");
    EXPECT_LT(join, find("not there"));
    EXPECT_LT(left, join);
  }
  wrapper = std::make_unique<LumoWrapper>();
}

TEST_F(LumoWrapperTest, WaitsForTheRunningHandlerInItsDestructor) {
  Gate gate;
  Gate started;
  std::atomic<bool> ended = false;
  _ServiceInfo info = Info();
  info.set_handler = [&, dying = wrapper.get()](void* request, const std::vector<Adaptor>&) {
    started.Open();
    EXPECT_TRUE(gate.Wait());
    dying->SendSetResponse(request, RESULT_SUCCESS, Adaptor());
    ended = true;
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverSet({});
  ASSERT_TRUE(started.Wait());
  EXPECT_TRUE(wrapper->Destroy());
  const auto destructor = std::async(std::launch::async, [&] { wrapper.reset(); });
  EXPECT_EQ(destructor.wait_for(kGlimpse), std::future_status::timeout);
  gate.Open();
  ASSERT_EQ(destructor.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_TRUE(ended);
  wrapper = std::make_unique<LumoWrapper>();
}

// --- the retry policy ----------------------------------------------------------------------------

TEST_F(LumoWrapperTest, RegistersNothingBeforeCreate) {
  EXPECT_FALSE(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""));
  EXPECT_FALSE(wrapper->UnregisterProperty("p"));
  EXPECT_TRUE(platform.Calls().empty());
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 6U);
  EXPECT_TRUE(Matches(logs[0], Entered("RegisterProperty", 74)));
  EXPECT_TRUE(Matches(logs[1], kInvalidHandle));
  EXPECT_TRUE(Matches(logs[2], Left("RegisterProperty", 74)));
  EXPECT_TRUE(Matches(logs[3], Entered("UnregisterProperty", 84)));
  EXPECT_TRUE(Matches(logs[4], kInvalidHandle));
  EXPECT_TRUE(Matches(logs[5], Left("UnregisterProperty", 84)));
}

TEST_F(LumoWrapperTest, RegistersNothingAfterDestroy) {
  ASSERT_TRUE(wrapper->Create(Info()));
  ASSERT_TRUE(wrapper->Destroy());
  platform.ClearTrace();
  EXPECT_FALSE(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""));
  EXPECT_TRUE(platform.Calls().empty());
}

TEST_F(LumoWrapperTest, RegistersAtTheFirstAttemptWithOneDebugLine) {
  ASSERT_TRUE(wrapper->Create(Info()));
  platform.ClearTrace();
  EXPECT_TRUE(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""));
  EXPECT_EQ(platform.Calls(),
            std::vector<std::string>{"lumo_service_register_property(p, 3, 0, 0, \"\")"});
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_TRUE(Matches(logs[0], Entered("RegisterProperty", 74)));
  EXPECT_TRUE(Matches(logs[1], Succeeded(1)));
  EXPECT_EQ(logs[1].format, "%s : %s(%d)  (%u/%u) success.\n");
  EXPECT_TRUE(Matches(logs[2], Left("RegisterProperty", 74)));
}

TEST_F(LumoWrapperTest, PassesTheArgumentsOfARegistrationOnUnchanged) {
  ASSERT_TRUE(wrapper->Create(Info()));
  platform.ClearTrace();
  const std::string name("n\0m", 3);
  EXPECT_TRUE(wrapper->RegisterProperty(name, Adaptor::TYPE_BOOL, -1, 2147483647, "a text"));
  const auto registrations = platform.Registrations();
  ASSERT_EQ(registrations.size(), 1U);
  EXPECT_EQ(registrations[0].name, name);
  EXPECT_EQ(registrations[0].type, LUMO_PROPERTY_TYPE_BOOL);
  EXPECT_EQ(registrations[0].attribute1, -1);
  EXPECT_EQ(registrations[0].attribute2, 2147483647);
  EXPECT_EQ(registrations[0].text, "a text");
}

TEST_F(LumoWrapperTest, RegistersEachTypeByTheTable) {
  ASSERT_TRUE(wrapper->Create(Info()));
  const std::vector<std::pair<int, lumo_property_type>> table = {
      {0, -1}, {1, 0}, {2, 1}, {3, 1}, {4, 6}, {5, 3}, {6, 4}, {7, 4}, {8, -1}};
  for (const auto& [type, expected] : table) {
    EXPECT_TRUE(wrapper->RegisterProperty("p", static_cast<Adaptor::_Type>(type), 0, 0, ""));
    EXPECT_EQ(platform.Registrations().back().type, expected) << type;
  }
}

TEST_F(LumoWrapperTest, UnregistersByName) {
  ASSERT_TRUE(wrapper->Create(Info()));
  ASSERT_TRUE(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""));
  ASSERT_TRUE(wrapper->RegisterProperty("q", Adaptor::TYPE_STRING, 0, 0, ""));
  platform.ClearTrace();
  EXPECT_TRUE(wrapper->UnregisterProperty("p"));
  ASSERT_EQ(platform.Registrations().size(), 1U);
  EXPECT_EQ(platform.Registrations()[0].name, "q");
  EXPECT_EQ(platform.Calls(), std::vector<std::string>{"lumo_service_unregister_property(p)"});
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_TRUE(Matches(logs[0], Entered("UnregisterProperty", 84)));
  EXPECT_TRUE(Matches(logs[1], Succeeded(1)));
  EXPECT_TRUE(Matches(logs[2], Left("UnregisterProperty", 84)));
}

TEST_F(LumoWrapperTest, RegistersAtTheThirdAttemptAfterTwoFailures) {
  ASSERT_TRUE(wrapper->Create(Info()));
  platform.ClearTrace();
  platform.Fail("lumo_service_register_property", 2, -3);
  EXPECT_TRUE(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""));

  const std::string call = "lumo_service_register_property(p, 3, 0, 0, \"\")";
  const std::string retry = "executeFunctionAndRetryIfFailed ";
  EXPECT_EQ(Summaries(),
            (std::vector<std::string>{
                "4 RegisterProperty > Entered", call, "6 " + retry + "(1/3) fail. ret = -3",
                "usleep(200000)", call, "6 " + retry + "(2/3) fail. ret = -3", "usleep(200000)",
                call, "3 " + retry + "(3/3) success.", "4 RegisterProperty > Left"}));
  EXPECT_TRUE(LoggedOnce(Failed(1, -3)));
  EXPECT_TRUE(LoggedOnce(Failed(2, -3)));
  EXPECT_TRUE(LoggedOnce(Succeeded(3)));
}

TEST_F(LumoWrapperTest, GivesUpAfterThreeFailuresAndAThirdSleep) {
  ASSERT_TRUE(wrapper->Create(Info()));
  // A positive code is a failure like a negative one.
  for (const lumo_error code : {5, 1, -3}) {
    platform.Fail("lumo_service_unregister_property", fake::Platform::kAlways, code);
    platform.ClearTrace();
    EXPECT_FALSE(wrapper->UnregisterProperty("p"));
    const std::string call = "lumo_service_unregister_property(p)";
    EXPECT_EQ(platform.Calls(),
              (std::vector<std::string>{call, "usleep(200000)", call, "usleep(200000)", call,
                                        "usleep(200000)"}));
    const auto logs = platform.Logs();
    ASSERT_EQ(logs.size(), 5U);
    EXPECT_TRUE(Matches(logs[1], Failed(1, code)));
    EXPECT_TRUE(Matches(logs[2], Failed(2, code)));
    EXPECT_TRUE(Matches(logs[3], Failed(3, code)));
    EXPECT_EQ(logs[1].format, "%s : %s(%d)  (%u/%u) fail. ret = %d\n");
  }
}

TEST_F(LumoWrapperTest, RetriesWithTheHandleItReadFirstAndWithTheLockFree) {
  ASSERT_TRUE(wrapper->Create(Info("first")));
  void* const first = wrapper->getServiceHandleSafely();
  std::vector<void*> handles;
  EXPECT_FALSE(wrapper->executeFunctionAndRetryIfFailed([&](void* handle) {
    handles.push_back(handle);
    EXPECT_TRUE(LockIsFree());
    if (handles.size() == 1) {
      EXPECT_TRUE(wrapper->Create(Info("second")));
    }
    return 1;
  }));
  EXPECT_EQ(handles, (std::vector<void*>{first, first, first}));
}

TEST_F(LumoWrapperTest, CallsNoFunctionWithoutAService) {
  EXPECT_FALSE(wrapper->executeFunctionAndRetryIfFailed([](void*) {
    ADD_FAILURE() << "called without a service";
    return 0;
  }));
  EXPECT_FALSE(wrapper->executeFunctionAndRetryIfFailed({}));
  ASSERT_EQ(platform.Logs().size(), 2U);
  EXPECT_TRUE(Matches(platform.Logs()[0], kInvalidHandle));
  EXPECT_TRUE(Matches(platform.Logs()[1], kInvalidHandle));
}

TEST_F(LumoWrapperTest, ThrowsForAnEmptyFunction) {
  ASSERT_TRUE(wrapper->Create(Info()));
  EXPECT_THROW(wrapper->executeFunctionAndRetryIfFailed({}), std::bad_function_call);
}

TEST_F(LumoWrapperTest, HoldsNoLockWhileTheLibraryRegisters) {
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("service")));
  std::vector<bool> free;
  for (const char* operation :
       {"lumo_service_register_property", "lumo_service_unregister_property"}) {
    platform.OnCall(operation, [&] { free.push_back(LockIsFree()); });
  }
  EXPECT_TRUE(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""));
  EXPECT_TRUE(wrapper->UnregisterProperty("p"));
  EXPECT_EQ(free, (std::vector<bool>{true, true}));
}

TEST_F(LumoWrapperTest, LogsLeftWhenAnExceptionPasses) {
  ASSERT_TRUE(wrapper->Create(Info()));
  platform.ClearTrace();
  platform.OnCall("lumo_service_register_property", [] { throw std::runtime_error("away"); });
  EXPECT_THROW(wrapper->RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, ""), std::runtime_error);
  ASSERT_EQ(platform.Logs().size(), 2U);
  EXPECT_TRUE(Matches(platform.Logs()[1], Left("RegisterProperty", 74)));
}

// --- notifications and answers -------------------------------------------------------------------

TEST_F(LumoWrapperTest, NotifiesTheMembersOfTheValueAndNotTheName) {
  ASSERT_TRUE(wrapper->Create(Info()));
  platform.ClearTrace();
  wrapper->NotifyProperty("a", Object("b", 1));
  const auto notifications = platform.Notifications();
  ASSERT_EQ(notifications.size(), 1U);
  EXPECT_EQ(notifications[0].service, platform.Service());
  EXPECT_EQ(notifications[0].properties, std::vector<Property>{Property::Int("b", 1)});
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 2U);
  EXPECT_TRUE(Matches(logs[0], Entered("NotifyProperty", 108)));
  EXPECT_TRUE(Matches(logs[1], Left("NotifyProperty", 108)));
}

TEST_F(LumoWrapperTest, NotifiesOnceWhateverTheLibrarySays) {
  ASSERT_TRUE(wrapper->Create(Info()));
  for (const lumo_error code : {5, -3}) {
    platform.ClearTrace();
    platform.Fail("lumo_service_notify", fake::Platform::kAlways, code);
    wrapper->NotifyProperty("a", Object("a", true));
    EXPECT_EQ(platform.Calls(),
              std::vector<std::string>{"lumo_service_notify(service, [a (type 0) = 1])"});
    EXPECT_EQ(platform.Logs().size(), 2U);
  }
}

TEST_F(LumoWrapperTest, NotifiesWithNullHandlesAllTheSame) {
  wrapper->NotifyProperty("a", Object("a", 1));
  platform.Fail("lumo_property_list_create");
  wrapper->NotifyProperty("a", Object("a", 1));
  const auto notifications = platform.Notifications();
  ASSERT_EQ(notifications.size(), 2U);
  EXPECT_EQ(notifications[0].service, nullptr);
  EXPECT_FALSE(notifications[0].listWasNull);
  EXPECT_EQ(notifications[0].properties, std::vector<Property>{Property::Int("a", 1)});
  EXPECT_EQ(notifications[1].service, nullptr);
  EXPECT_TRUE(notifications[1].listWasNull);
}

TEST_F(LumoWrapperTest, NotifiesAnEmptyListForAValueThatIsNoObject) {
  ASSERT_TRUE(wrapper->Create(Info()));
  Json::Value array;
  array.append(1);
  wrapper->NotifyProperty("a", array);
  ASSERT_EQ(platform.Notifications().size(), 1U);
  EXPECT_TRUE(platform.Notifications()[0].properties.empty());
  EXPECT_TRUE(LoggedOnce(Line(6, "convertPropertyToLumoList", "exception occurred\n", 336)));
}

TEST_F(LumoWrapperTest, AnswersWithCodeZeroForSuccessAndSixForAllElse) {
  ASSERT_TRUE(wrapper->Create(Info()));
  std::vector<char> requests(8);
  std::size_t next = 0;
  for (const int result : {0, 3, 1, 2}) {
    void* const get = &requests[next++];
    void* const set = &requests[next++];
    platform.ClearTrace();
    wrapper->SendGetResponse(get, static_cast<_Result>(result), Object("a", "b"));
    wrapper->SendSetResponse(set, static_cast<_Result>(result), Object("c", true));
    const auto responses = platform.Responses();
    ASSERT_EQ(responses.size(), 2U);
    const lumo_error code = result == 0 ? 0 : 6;
    EXPECT_FALSE(responses[0].isSet);
    EXPECT_EQ(responses[0].service, platform.Service());
    EXPECT_EQ(responses[0].request, get);
    EXPECT_EQ(responses[0].code, code) << result;
    EXPECT_EQ(responses[0].properties, std::vector<Property>{Property::String("a", "b")});
    EXPECT_TRUE(responses[1].isSet);
    EXPECT_EQ(responses[1].service, platform.Service());
    EXPECT_EQ(responses[1].request, set);
    EXPECT_EQ(responses[1].code, code) << result;
    EXPECT_EQ(responses[1].properties, std::vector<Property>{Property::Bool("c", true)});
    const auto logs = platform.Logs();
    ASSERT_EQ(logs.size(), 4U);
    EXPECT_TRUE(Matches(logs[0], Entered("SendGetResponse", 94)));
    EXPECT_TRUE(Matches(logs[1], Left("SendGetResponse", 94)));
    EXPECT_TRUE(Matches(logs[2], Entered("SendSetResponse", 101)));
    EXPECT_TRUE(Matches(logs[3], Left("SendSetResponse", 101)));
  }
}

TEST_F(LumoWrapperTest, AnswersOnceWhateverTheLibrarySays) {
  ASSERT_TRUE(wrapper->Create(Info()));
  std::vector<char> requests(4);
  std::size_t next = 0;
  for (const lumo_error code : {5, -3}) {
    platform.Fail("lumo_service_send_get_property_result", fake::Platform::kAlways, code);
    platform.Fail("lumo_service_send_set_property_result", fake::Platform::kAlways, code);
    platform.ClearTrace();
    wrapper->SendGetResponse(&requests[next++], RESULT_SUCCESS, Adaptor());
    wrapper->SendSetResponse(&requests[next++], RESULT_SUCCESS, Adaptor());
    EXPECT_EQ(platform.Responses().size(), 2U);
    EXPECT_EQ(platform.Logs().size(), 4U);
  }
}

TEST_F(LumoWrapperTest, AnswersWithNullHandlesAllTheSame) {
  char request = 0;
  wrapper->SendGetResponse(&request, RESULT_SUCCESS, Object("a", 1));
  wrapper->SendSetResponse(nullptr, RESULT_SUCCESS, Object("a", 1));
  platform.Fail("lumo_property_list_create");
  wrapper->SendGetResponse(&request, RESULT_SUCCESS, Object("a", 1));
  wrapper->SendSetResponse(&request, RESULT_SUCCESS, Object("a", 1));
  const auto responses = platform.Responses();
  ASSERT_EQ(responses.size(), 4U);
  for (const fake::Response& response : responses) EXPECT_EQ(response.service, nullptr);
  EXPECT_EQ(responses[0].properties, std::vector<Property>{Property::Int("a", 1)});
  EXPECT_EQ(responses[1].properties, std::vector<Property>{Property::Int("a", 1)});
  EXPECT_EQ(responses[1].request, nullptr);
  EXPECT_TRUE(responses[2].listWasNull);
  EXPECT_TRUE(responses[3].listWasNull);
}

TEST_F(LumoWrapperTest, ConvertsBeforeItReadsTheHandle) {
  char get = 0;
  char set = 0;
  const std::vector<std::function<void()>> operations = {
      [&] { wrapper->NotifyProperty("a", Object("a", 1)); },
      [&] { wrapper->SendGetResponse(&get, RESULT_SUCCESS, Object("a", 1)); },
      [&] { wrapper->SendSetResponse(&set, RESULT_SUCCESS, Object("a", 1)); }};
  for (const auto& operation : operations) {
    ASSERT_TRUE(wrapper->Create(Info()));
    platform.ClearTrace();
    // A service that goes while the list is made is not used any more.
    platform.OnCall("lumo_property_create_int", [&] { EXPECT_TRUE(wrapper->Destroy()); });
    operation();
    platform.OnCall("lumo_property_create_int", {});
    const std::string call = platform.Calls().back();
    EXPECT_NE(call.find("(null, [a (type 1) = 1]"), std::string::npos) << call;
  }
}

TEST_F(LumoWrapperTest, LetsTheLibraryCallBackFromInsideNotificationsAndAnswers) {
  std::atomic<int> cancelled = 0;
  _ServiceInfo info = Info();
  info.cancel_handler = [&cancelled](void*) { ++cancelled; };
  ASSERT_TRUE(wrapper->Create(info));
  std::vector<std::shared_future<void>> callbacks;
  std::vector<bool> returned;
  for (const char* operation : {"lumo_service_notify", "lumo_service_send_get_property_result",
                                "lumo_service_send_set_property_result"}) {
    platform.OnCall(operation, [&] {
      callbacks.push_back(
          std::async(std::launch::async, [&] { platform.DeliverCancel(nullptr); }).share());
      returned.push_back(IsReady(callbacks.back()));
    });
  }
  char get = 0;
  char set = 0;
  wrapper->NotifyProperty("a", Object("a", 1));
  wrapper->SendGetResponse(&get, RESULT_SUCCESS, Adaptor());
  wrapper->SendSetResponse(&set, RESULT_SUCCESS, Adaptor());
  EXPECT_EQ(returned, (std::vector<bool>{true, true, true}));
  EXPECT_TRUE(platform.WaitUntil([&] { return cancelled == 3; }));
}

TEST_F(LumoWrapperTest, SendsAMebibyte) {
  ASSERT_TRUE(wrapper->Create(Info()));
  const std::string text(1 << 20, 'x');
  wrapper->NotifyProperty("a", Object("a", text));
  ASSERT_EQ(platform.Notifications().size(), 1U);
  EXPECT_EQ(platform.Notifications()[0].properties,
            std::vector<Property>{Property::String("a", text)});
}

// --- jobs ----------------------------------------------------------------------------------------

TEST_F(LumoWrapperTest, RunsAJobAtOnceWithoutADispatcher) {
  std::thread::id thread;
  std::function<void()> job = [&] { thread = std::this_thread::get_id(); };
  EXPECT_FALSE(wrapper->addJobToDispatcher(job));
  EXPECT_EQ(thread, std::thread::id());
  wrapper->executeJob(job);
  EXPECT_EQ(thread, std::this_thread::get_id());
  std::function<void()> empty;
  EXPECT_THROW(wrapper->executeJob(empty), std::bad_function_call);
}

TEST_F(LumoWrapperTest, QueuesACopyOfAJobOnItsDispatcher) {
  ASSERT_TRUE(wrapper->Create(Info()));
  std::promise<std::thread::id> ran;
  std::function<void()> job = [&] { ran.set_value(std::this_thread::get_id()); };
  EXPECT_TRUE(wrapper->addJobToDispatcher(job));
  EXPECT_TRUE(job);
  job = nullptr;
  auto result = ran.get_future();
  ASSERT_EQ(result.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_NE(result.get(), std::this_thread::get_id());
}

TEST_F(LumoWrapperTest, DoesNotRunAJobThatTheStoppedDispatcherRefuses) {
  ASSERT_TRUE(wrapper->Create(Info()));
  ASSERT_TRUE(wrapper->Destroy());
  std::atomic<int> runs = 0;
  std::function<void()> job = [&runs] { ++runs; };
  EXPECT_TRUE(wrapper->addJobToDispatcher(job));
  wrapper->executeJob(job);
  EXPECT_EQ(platform.CountLogs("Thread already finished! Can not do enqueue!!"), 2U);
  wrapper->Shutdown();
  EXPECT_EQ(runs, 0);
}

// --- a library that fails ------------------------------------------------------------------------

// One operation of the library fails or gives null, from the first call on.
class LumoWrapperFailingLibraryTest : public PlatformTest,
                                      public ::testing::WithParamInterface<std::string> {
 protected:
  // All that the wrapper does with the library, once. Gives the number of requests it delivered.
  std::size_t RunOnce(LumoWrapper& wrapper) {
    _ServiceInfo info;
    info.name = "service";
    info.get_handler = [&wrapper](void* request, const std::vector<Adaptor>& properties) {
      wrapper.SendGetResponse(request, RESULT_SUCCESS, Merge(properties));
    };
    info.set_handler = [&wrapper](void* request, const std::vector<Adaptor>& properties) {
      wrapper.SendSetResponse(request, RESULT_SUCCESS, Merge(properties));
    };
    const bool created = wrapper.Create(info);
    wrapper.RegisterProperty("p", Adaptor::TYPE_STRING, 0, 0, "");
    wrapper.NotifyProperty("p", Everything());
    std::size_t delivered = 0;
    if (created) {
      const std::vector<Property> properties = {
          Property::Bool("b", true), Property::Int("i", 1),      Property::Double("d", 1.5),
          Property::String("s", ""), Property::Json("j", "[1]"), Property::Bytes("x", "y")};
      platform.DeliverGet(properties);
      platform.DeliverSet(properties);
      delivered = 2;
      EXPECT_TRUE(platform.WaitUntil([&] { return platform.Responses().size() == delivered; }));
    }
    wrapper.UnregisterProperty("p");
    EXPECT_EQ(wrapper.Destroy(), created);
    wrapper.Shutdown();
    return delivered;
  }

  static Adaptor Everything() {
    return Adaptor::Create(R"({"b":true,"i":1,"r":1.5,"s":"text","o":{},"a":[]})");
  }

  static Adaptor Merge(const std::vector<Adaptor>& properties) {
    Json::Value merged(Json::objectValue);
    for (const Adaptor& property : properties) {
      for (const std::string& name : property.getMemberNames()) merged[name] = property[name];
    }
    return merged;
  }
};

TEST_P(LumoWrapperFailingLibraryTest, IsSurvivedAndForgotten) {
  for (const lumo_error code : {5, -3}) {
    LumoWrapper wrapper;
    platform.ClearTrace();
    platform.Fail(GetParam(), fake::Platform::kAlways, code);
    std::size_t delivered = 0;
    EXPECT_NO_THROW(delivered = RunOnce(wrapper));
    EXPECT_EQ(delivered, GetParam() == "lumo_service_create" ? 0U : 2U);
    EXPECT_EQ(platform.Notifications().size(), 1U);

    platform.ClearFailures();
    platform.ClearTrace();
    EXPECT_EQ(RunOnce(wrapper), 2U);
    ASSERT_EQ(platform.Notifications().size(), 1U);
    EXPECT_EQ(platform.Notifications()[0].properties.size(), 6U);
    for (const fake::Response& response : platform.Responses()) {
      EXPECT_EQ(response.properties.size(), 5U) << "all but the double";
    }
  }
}

std::string ParameterName(const ::testing::TestParamInfo<std::string>& info) {
  return info.param;
}

INSTANTIATE_TEST_SUITE_P(
    Operations, LumoWrapperFailingLibraryTest,
    ::testing::Values("lumo_service_create", "lumo_service_destroy",
                      "lumo_service_register_property", "lumo_service_unregister_property",
                      "lumo_service_notify", "lumo_service_send_get_property_result",
                      "lumo_service_send_set_property_result", "lumo_property_list_create",
                      "lumo_property_list_push_property", "lumo_property_list_get_first",
                      "lumo_property_list_get_next", "lumo_property_create_bool",
                      "lumo_property_create_int", "lumo_property_create_double",
                      "lumo_property_create_string", "lumo_property_create_json_string",
                      "lumo_property_get_name", "lumo_property_get_type", "lumo_property_get_bool",
                      "lumo_property_get_int", "lumo_property_get_string",
                      "lumo_property_get_json_string", "lumo_property_get_bytes"),
    ParameterName);

}  // namespace
}  // namespace ThingCommon
