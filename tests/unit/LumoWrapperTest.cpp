#include "LumoWrapperFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

#include "NoThreads.h"

namespace ThingCommon {
namespace {

using Strings = std::vector<std::string>;

const ExpectedLog kInvalidHandle =
    Line(6, "executeFunctionAndRetryIfFailed", "invalid service_handle\n", 123);
const std::string kDispatcher = "6 THING_COMMON MsgDispatcher.cpp ";

ExpectedLog Failed(unsigned attempt, lumo_error code) {
  return Line(6, "executeFunctionAndRetryIfFailed",
              "(" + std::to_string(attempt) + "/3) fail. ret = " + std::to_string(code) + "\n", 137,
              "(%u/%u) fail. ret = %d\n");
}

ExpectedLog Succeeded(unsigned attempt) {
  return Line(3, "executeFunctionAndRetryIfFailed",
              "(" + std::to_string(attempt) + "/3) success.\n", 134, "(%u/%u) success.\n");
}

std::chrono::steady_clock::duration TimeOf(const std::function<void()>& operation) {
  const auto start = std::chrono::steady_clock::now();
  operation();
  return std::chrono::steady_clock::now() - start;
}

class LumoWrapperTest : public LumoWrapperFixture {
 protected:
  // An info whose get handler answers with {"from": name}.
  _ServiceInfo AnsweringInfo(const std::string& name) {
    _ServiceInfo info = Info(name);
    info.get_handler = [this, name](void* request, const std::vector<Adaptor>&) {
      wrapper->SendGetResponse(request, RESULT_SUCCESS, Object("from", name));
    };
    return info;
  }

  // Waits until there are `count` responses; the last one is that of AnsweringInfo(name).
  void ExpectAnsweredBy(const std::string& name, std::size_t count) {
    ASSERT_TRUE(WaitForResponses(count));
    const fake::Response response = platform.Responses().back();
    EXPECT_EQ(response.service, wrapper->getServiceHandleSafely());
    EXPECT_EQ(response.properties, std::vector<Property>{Property::String("from", name)});
  }

  void ExpectServedBy(const std::string& name) {
    const std::size_t before = platform.Responses().size();
    platform.DeliverGet({});
    ExpectAnsweredBy(name, before + 1);
  }

  // True when another thread can take and release the wrapper's lock meanwhile.
  bool LockIsFree() {
    m_probes.push_back(
        std::async(std::launch::async, [this] { wrapper->getServiceHandleSafely(); }));
    return m_probes.back().wait_for(fake::kPatience) == std::future_status::ready;
  }

  // Dispatchers that have ended and are deleted.
  void ExpectDispatchersGone(std::size_t count) {
    EXPECT_EQ(platform.CountLogs("after join"), count);
    EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), count);
  }

  Strings Summaries() {
    Strings summaries;
    for (const std::string& summary : platform.Summaries()) {
      const std::regex wrapperFile(" THING_COMMON LumoWrapper.cpp");
      summaries.push_back(std::regex_replace(summary, wrapperFile, ""));
    }
    return summaries;
  }

  bool Register(JsonValueAdaptor::_Type type = Adaptor::TYPE_STRING) {
    return wrapper->RegisterProperty("p", type, 0, 0, "");
  }

 private:
  std::vector<std::future<void>> m_probes;
};

TEST_F(LumoWrapperTest, IsAsItsUsersExpectAndDoesNothingWhenItIsMadeAndDestroyed) {
  static_assert(RESULT_SUCCESS == 0 && RESULT_FAIL == 3);
  static_assert(!std::is_copy_constructible_v<LumoWrapper>);
  static_assert(!std::is_move_constructible_v<LumoWrapper>);
  static_assert(!std::is_copy_assignable_v<LumoWrapper>);
  static_assert(!std::is_polymorphic_v<LumoWrapper>);
  const _ServiceInfo info;
  EXPECT_EQ(info.name + info.description, "");
  EXPECT_FALSE(info.get_handler || info.set_handler);
  EXPECT_FALSE(info.cancel_handler || info.protocol_status_handler);
  { const LumoWrapper unused; }
  EXPECT_TRUE(platform.Trace().empty());
}

// --- Create --------------------------------------------------------------------------------------

TEST_F(LumoWrapperTest, CreatesTheServiceWithAllOfItsNameAndDescription) {
  _ServiceInfo info;
  info.name = std::string("n\0m", 3);
  info.description = std::string("d\0e", 3);
  EXPECT_TRUE(wrapper->Create(info));
  EXPECT_EQ(platform.Calls(), Strings{std::string("lumo_service_create(n\0m, d\0e)", 29)});
  EXPECT_NE(platform.Service(), nullptr);
  EXPECT_EQ(wrapper->getServiceHandleSafely(), platform.Service());
  EXPECT_TRUE(LoggedExactly({Entered("Create", 32), Left("Create", 32)}));
}

TEST_F(LumoWrapperTest, StoresNothingWhenTheLibraryRefusesToCreateAndMayTryAgain) {
  platform.Fail("lumo_service_create", 1);
  EXPECT_FALSE(wrapper->Create(AnsweringInfo("100%s")));
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
  EXPECT_EQ(platform.LiveServices(), 0U);
  EXPECT_TRUE(LoggedExactly({Entered("Create", 32),
                             Line(6, "Create", "[100%s] fail to lumo_service_create\n", 42,
                                  "[%s] fail to lumo_service_create\n"),
                             Left("Create", 32)}));
  // No dispatcher either.
  std::function<void()> job = [] {};
  EXPECT_FALSE(wrapper->addJobToDispatcher(job));

  ASSERT_TRUE(wrapper->Create(AnsweringInfo("second")));
  ExpectServedBy("second");
}

TEST_F(LumoWrapperTest, HoldsNoLockWhileTheLibraryCreatesAndRegisters) {
  std::vector<bool> free;
  for (const char* operation : {"lumo_service_create", "lumo_service_register_property",
                                "lumo_service_unregister_property"}) {
    platform.OnCall(operation, [&] { free.push_back(LockIsFree()); });
  }
  EXPECT_TRUE(wrapper->Create(Info()));
  EXPECT_TRUE(Register());
  EXPECT_TRUE(wrapper->UnregisterProperty("p"));
  EXPECT_EQ(free, (std::vector<bool>{true, true, true}));
}

TEST_F(LumoWrapperTest, ReplacesAServiceThatItDoesNotDestroyAndDeletesItsDispatcher) {
  CreateQuietly(AnsweringInfo("first"));
  void* const first = wrapper->getServiceHandleSafely();
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("second")));

  EXPECT_NE(wrapper->getServiceHandleSafely(), first);
  EXPECT_EQ(platform.LiveServices(), 2U);
  Strings lines = Summaries();
  // The worker may end before its thread is waited for, or while it is.
  const auto beforeJoin =
      std::find(lines.begin(), lines.end(), kDispatcher + "~MsgDispatcher [first] before join");
  ASSERT_NE(beforeJoin, lines.end());
  EXPECT_EQ(std::count(beforeJoin, lines.end(), kDispatcher + "~MsgDispatcher [first] after join"),
            1);
  lines.erase(beforeJoin);
  EXPECT_EQ(lines, (Strings{"4 Create > Entered", "lumo_service_create(second, a service)",
                            kDispatcher + "runDispatchingThread [first] ESCAPE!",
                            kDispatcher + "runDispatchingThread [first] Finished thread running",
                            kDispatcher + "~MsgDispatcher [first] after join",
                            kDispatcher + "~MsgQueue MsgQueue destructed", "4 Create > Left"}));
  ExpectServedBy("second");
}

TEST_F(LumoWrapperTest, CreatesAlthoughAHandlerOfTheReplacedDispatcherWaitsForTheCaller) {
  std::mutex heldByTheCaller;
  std::atomic<bool> ended = false;
  std::unique_lock<std::mutex> lock(heldByTheCaller);
  RunInHandler("first", [&] {
    const std::lock_guard<std::mutex> lockOfTheHandler(heldByTheCaller);
    ended = true;
  });
  ASSERT_TRUE(wrapper->Destroy());
  ExpectDispatchersGone(0);

  const auto waited = TimeOf([this] { EXPECT_TRUE(wrapper->Create(AnsweringInfo("second"))); });
  EXPECT_GE(waited, std::chrono::seconds(2));
  EXPECT_LT(waited, std::chrono::seconds(20));
  EXPECT_FALSE(ended);
  EXPECT_EQ(platform.CountLogs("[first] ESCAPE"), 0U);
  // One request at a time: the new one has its turn when the old one has ended.
  platform.DeliverGet({});
  EXPECT_TRUE(platform.Responses().empty());

  lock.unlock();
  ExpectAnsweredBy("second", 1);
  EXPECT_TRUE(ended);
  ExpectDispatchersGone(1);
}

TEST_F(LumoWrapperTest, HoldsNoLockWhileItWaitsForAReplacedDispatcher) {
  std::atomic<bool> stored = false;
  RunInHandler("first", [&] {
    // Ends only when the second service has been stored, and needs the lock for it.
    stored = platform.WaitUntil([&] {
      return platform.ServicesCreated() == 2 &&
             wrapper->getServiceHandleSafely() == platform.Service();
    });
  });
  EXPECT_TRUE(wrapper->Create(Info("second")));
  ExpectDispatchersGone(1);
  wrapper->Shutdown();  // should the handler still run, it may not outlast its variables
  EXPECT_TRUE(stored);
}

TEST_F(LumoWrapperTest, LetsAHandlerRestartTheServiceItServes) {
  constexpr const char* kText = "captured, and longer than a short string";
  std::atomic<bool> restarted = false;
  RunInHandler("first", [&, text = std::string(kText)] {
    const bool isRestarted = wrapper->Destroy() && wrapper->Create(AnsweringInfo("second"));
    restarted = isRestarted && text == kText;
  });
  EXPECT_TRUE(platform.WaitUntil([&] { return restarted.load(); }));
  EXPECT_EQ(platform.LiveServices(), 1U);
  ExpectServedBy("second");
  ExpectDispatchersGone(1);
}

TEST_F(LumoWrapperTest, LeavesTheFirstServiceWholeWhenASecondCannotBeCreated) {
  ASSERT_TRUE(wrapper->Create(AnsweringInfo("first")));
  void* const first = wrapper->getServiceHandleSafely();
  {
    const NoThreads noThreads;
    EXPECT_THROW(wrapper->Create(AnsweringInfo("second")), std::system_error);
  }
  platform.Fail("lumo_service_create");
  EXPECT_FALSE(wrapper->Create(AnsweringInfo("third")));
  EXPECT_EQ(wrapper->getServiceHandleSafely(), first);
  EXPECT_EQ(platform.LiveServices(), 1U);
  ExpectServedBy("first");
  EXPECT_EQ(platform.CountLogs("ESCAPE"), 0U);
}

// The parameter: whether the service's end throws as well.
class LumoWrapperNoThreadTest : public LumoWrapperTest,
                                public ::testing::WithParamInterface<bool> {};

TEST_P(LumoWrapperNoThreadTest, DestroysTheServiceAgain) {
  platform.OnCall("lumo_service_destroy", [] {
    if (GetParam()) throw std::runtime_error("the second");
  });
  {
    const NoThreads noThreads;
    EXPECT_THROW(wrapper->Create(Info()), std::system_error);
  }
  EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
  EXPECT_EQ(platform.ServicesCreated(), 1U);
  EXPECT_EQ(platform.LiveServices(), GetParam() ? 1U : 0U);
  EXPECT_TRUE(
      LoggedExactly({Entered("Create", 32),
                     {6, "THING_COMMON", "MsgDispatcher.cpp", "~MsgQueue", "MsgQueue destructed\n"},
                     Left("Create", 32)}));
  platform.OnCall("lumo_service_destroy", {});
  EXPECT_TRUE(wrapper->Create(Info()));
}
INSTANTIATE_TEST_SUITE_P(EndThrows, LumoWrapperNoThreadTest, ::testing::Bool());

// --- Destroy -------------------------------------------------------------------------------------

TEST_F(LumoWrapperTest, DestroysTheServiceOnceWhateverTheLibrarySaysAndNothingBeforeCreate) {
  const auto expectDestroy = [this](const Strings& calls) {
    platform.ClearTrace();
    EXPECT_EQ(wrapper->Destroy(), !calls.empty());
    EXPECT_EQ(wrapper->getServiceHandleSafely(), nullptr);
    EXPECT_EQ(platform.Calls(), calls);
    EXPECT_TRUE(LoggedOnce(Entered("Destroy", 55)));
    EXPECT_TRUE(LoggedOnce(Left("Destroy", 55)));
    EXPECT_EQ(platform.LogsOf("Destroy").size(), 2U);
  };
  expectDestroy({});
  for (const lumo_error code : {0, 5, -3}) {
    platform.Fail("lumo_service_destroy", fake::Platform::kAlways, code);
    ASSERT_TRUE(wrapper->Create(Info()));
    expectDestroy({"lumo_service_destroy(service)"});
    expectDestroy({});
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

TEST_F(LumoWrapperTest, StopsTheDispatcherThenDestroysTheServiceAndLocksOthersOut) {
  CreateQuietly();
  std::future<void*> handle;
  platform.OnCall("lumo_service_destroy", [&] {
    std::function<void()> job = [] { ADD_FAILURE() << "a refused job ran"; };
    EXPECT_TRUE(wrapper->addJobToDispatcher(job));
    EXPECT_EQ(platform.LogsOf("EnqueueData").size(), 1U);
    handle = std::async(std::launch::async, [&] { return wrapper->getServiceHandleSafely(); });
    EXPECT_EQ(handle.wait_for(kGlimpse), std::future_status::timeout);
  });
  EXPECT_TRUE(wrapper->Destroy());
  EXPECT_EQ(handle.get(), nullptr);
}

TEST_F(LumoWrapperTest, ReleasesTheHandlersInDestroyAlsoWithoutAServiceToDestroy) {
  for (const bool isLost : {false, true}) {
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
    if (isLost) wrapper->m_service_handle = nullptr;
    EXPECT_EQ(wrapper->Destroy(), !isLost);
    EXPECT_EQ(token.use_count(), 1);
  }
}

// --- Shutdown and the destructor -----------------------------------------------------------------

TEST_F(LumoWrapperTest, WaitsForTheRunningHandlerAtItsEndWithTheLockFree) {
  for (const bool inDestructor : {false, true}) {
    SCOPED_TRACE(inDestructor);
    platform.ClearTrace();
    std::atomic<bool> ended = false;
    RunInHandler("service", [&, ending = wrapper.get()] {
      // Until the end waits for this very handler.
      EXPECT_TRUE(platform.WaitUntil([&] { return platform.CountLogs("before join") == 1; }));
      ending->SendSetResponse(nullptr, RESULT_SUCCESS, Adaptor());
      ended = true;
    });
    EXPECT_TRUE(wrapper->Destroy());
    if (inDestructor) {
      wrapper.reset();
      wrapper = std::make_unique<LumoWrapper>();
    } else {
      wrapper->Shutdown();
      wrapper->Shutdown();  // once is enough
    }
    EXPECT_TRUE(ended);
    EXPECT_EQ(platform.CountLogs("before join"), 1U);
    ExpectDispatchersGone(1);
  }
}

TEST_F(LumoWrapperTest, WaitsForEveryKindOfCallbackAtItsEnd) {
  const std::vector<std::pair<std::string, std::function<void()>>> kinds = {
      {"getCallback", [this] { platform.DeliverGet({Property::Int("a", 1)}); }},
      {"setCallback", [this] { platform.DeliverSet({Property::Int("a", 1)}); }},
      {"cancelCallback", [this] { platform.DeliverCancel(nullptr); }},
      {"protocolStatusCallback", [this] { platform.DeliverProtocolStatus("p", 1); }},
  };
  const std::function<void()> ends[] = {[this] { wrapper->Shutdown(); },
                                        [this] { wrapper.reset(); }};
  for (const auto& [name, deliver] : kinds) {
    for (const auto& end : ends) {
      SCOPED_TRACE(name);
      wrapper = std::make_unique<LumoWrapper>();
      ASSERT_TRUE(wrapper->Create(Info()));
      Pause pause;
      // Held up in its first line, and then left alone.
      const auto callback = std::async(std::launch::async, [&, run = deliver] {
        platform.OnCall("dlog_print", [&, self = std::this_thread::get_id()] {
          if (std::this_thread::get_id() != self) return;
          platform.OnCall("dlog_print", {});
          pause.Here();
        });
        run();
      });
      ASSERT_TRUE(pause.WaitUntilReached());
      EXPECT_TRUE(wrapper->Destroy());
      platform.ClearTrace();
      const auto ending = std::async(std::launch::async, end);
      EXPECT_EQ(ending.wait_for(kGlimpse), std::future_status::timeout);
      pause.End();
      ASSERT_EQ(ending.wait_for(fake::kPatience), std::future_status::ready);

      // The callback was over before the dispatcher went.
      const Strings lines = Summaries();
      const auto left = std::find(lines.begin(), lines.end(), "4 " + name + " > Left");
      const auto join = std::find(lines.begin(), lines.end(),
                                  kDispatcher + "~MsgDispatcher [service] before join");
      EXPECT_NE(join, lines.end());
      EXPECT_LT(left, join);
    }
  }
  wrapper = std::make_unique<LumoWrapper>();
}

TEST_F(LumoWrapperTest, GivesCallbacksThatStayInsideUpAfterTwoSecondsAndNamesThem) {
  Pause pause;
  _ServiceInfo info = Info();
  info.protocol_status_handler = [&](const std::string&, lumo_protocol_status) { pause.Here(); };
  ASSERT_TRUE(wrapper->Create(info));
  const auto callback =
      std::async(std::launch::async, [&] { platform.DeliverProtocolStatus("p", 1); });
  ASSERT_TRUE(pause.WaitUntilReached());
  EXPECT_TRUE(wrapper->Destroy());
  const auto waited = TimeOf([this] { wrapper->Shutdown(); });
  EXPECT_GE(waited, std::chrono::seconds(2));
  EXPECT_LT(waited, std::chrono::seconds(20));
  EXPECT_EQ(platform.LogsOf("Shutdown").size(), 1U);
  EXPECT_TRUE(
      LoggedOnce(Line(6, "Shutdown", "[protocolStatusCallback] still inside at the end\n", 0)));
  // The worker is joined all the same.
  EXPECT_EQ(platform.CountLogs("[service] after join"), 1U);
  pause.End();
  callback.wait();
}

TEST_F(LumoWrapperTest, GivesACallbackUpThatStaysInsideWithTheLock) {
  Pause pause;
  ASSERT_TRUE(wrapper->Create(Info()));
  EXPECT_TRUE(wrapper->Destroy());
  const auto callback = std::async(std::launch::async, [&] {
    // Its first line is "Entered"; the second one is the dispatcher's, which refuses the job.
    std::atomic<int> lines = 0;
    platform.OnCall("dlog_print", [&, self = std::this_thread::get_id()] {
      if (std::this_thread::get_id() == self && ++lines == 2) pause.Here();
    });
    platform.DeliverGet({});
    platform.OnCall("dlog_print", {});
  });
  ASSERT_TRUE(pause.WaitUntilReached());
  const auto waited = TimeOf([this] { wrapper->Shutdown(); });
  EXPECT_GE(waited, std::chrono::seconds(4));
  EXPECT_LT(waited, std::chrono::seconds(40));
  EXPECT_EQ(platform.LogsOf("Shutdown").size(), 2U);
  EXPECT_TRUE(LoggedOnce(Line(6, "Shutdown", "[getCallback] still inside at the end\n", 0)));
  EXPECT_TRUE(LoggedOnce(Line(6, "Shutdown", "the lock is still held at the end\n", 0)));
  EXPECT_EQ(platform.CountLogs("before join"), 0U);
  pause.End();
  callback.wait();
  // The destructor is left with it.
  wrapper = std::make_unique<LumoWrapper>();
  EXPECT_EQ(platform.CountLogs("[service] after join"), 1U);
}

// --- the retry policy ----------------------------------------------------------------------------

TEST_F(LumoWrapperTest, RegistersNothingBeforeCreateAndAfterDestroy) {
  for (const bool destroyed : {false, true}) {
    if (destroyed) {
      ASSERT_TRUE(wrapper->Create(Info()));
      ASSERT_TRUE(wrapper->Destroy());
      wrapper->Shutdown();
      platform.ClearTrace();
    }
    EXPECT_FALSE(Register());
    EXPECT_FALSE(wrapper->UnregisterProperty("p"));
    EXPECT_FALSE(wrapper->executeFunctionAndRetryIfFailed([](void*) {
      ADD_FAILURE() << "called without a service";
      return 0;
    }));
    EXPECT_FALSE(wrapper->executeFunctionAndRetryIfFailed({}));
    EXPECT_TRUE(platform.Calls().empty());
    EXPECT_TRUE(LoggedExactly({Entered("RegisterProperty", 74), kInvalidHandle,
                               Left("RegisterProperty", 74), Entered("UnregisterProperty", 84),
                               kInvalidHandle, Left("UnregisterProperty", 84), kInvalidHandle,
                               kInvalidHandle}));
  }
}

TEST_F(LumoWrapperTest, RegistersAtTheFirstAttemptWithTheArgumentsUnchanged) {
  CreateQuietly();
  const std::string name("n\0m", 3);
  EXPECT_TRUE(wrapper->RegisterProperty(name, Adaptor::TYPE_BOOL, -1, 2147483647, "a text"));
  EXPECT_EQ(platform.Calls(),
            Strings{"lumo_service_register_property(" + name + ", 0, -1, 2147483647, \"a text\")"});
  EXPECT_TRUE(
      LoggedExactly({Entered("RegisterProperty", 74), Succeeded(1), Left("RegisterProperty", 74)}));
  // By the table of types, also where that has none.
  for (const auto& [type, expected] :
       std::vector<std::pair<int, lumo_property_type>>{{0, -1}, {4, 6}, {5, 3}, {8, -1}}) {
    EXPECT_TRUE(Register(static_cast<Adaptor::_Type>(type)));
    EXPECT_EQ(platform.Registrations().back().type, expected) << type;
  }

  platform.ClearTrace();
  EXPECT_TRUE(wrapper->UnregisterProperty(name));
  EXPECT_EQ(platform.Registrations().size(), 4U);
  EXPECT_EQ(platform.Calls(), Strings{"lumo_service_unregister_property(" + name + ")"});
  EXPECT_TRUE(LoggedExactly(
      {Entered("UnregisterProperty", 84), Succeeded(1), Left("UnregisterProperty", 84)}));
}

TEST_F(LumoWrapperTest, TriesThreeTimesWithASleepAfterEachFailure) {
  ASSERT_TRUE(wrapper->Create(Info()));
  const std::string call = "lumo_service_register_property(p, 3, 0, 0, \"\")";
  const std::string sleep = "usleep(200000)";
  const std::string retry = "executeFunctionAndRetryIfFailed ";
  platform.ClearTrace();
  platform.Fail("lumo_service_register_property", 2, -3);
  EXPECT_TRUE(Register());
  EXPECT_EQ(Summaries(),
            (Strings{"4 RegisterProperty > Entered", call, "6 " + retry + "(1/3) fail. ret = -3",
                     sleep, call, "6 " + retry + "(2/3) fail. ret = -3", sleep, call,
                     "3 " + retry + "(3/3) success.", "4 RegisterProperty > Left"}));
  EXPECT_TRUE(LoggedExactly({Entered("RegisterProperty", 74), Failed(1, -3), Failed(2, -3),
                             Succeeded(3), Left("RegisterProperty", 74)}));
  // A positive code is a failure like a negative one.
  for (const lumo_error code : {5, 1, -3}) {
    platform.Fail("lumo_service_unregister_property", 3, code);
    platform.ClearTrace();
    EXPECT_FALSE(wrapper->UnregisterProperty("p"));
    const std::string other = "lumo_service_unregister_property(p)";
    EXPECT_EQ(platform.Calls(), (Strings{other, sleep, other, sleep, other, sleep}));
    EXPECT_TRUE(LoggedExactly({Entered("UnregisterProperty", 84), Failed(1, code), Failed(2, code),
                               Failed(3, code), Left("UnregisterProperty", 84)}));
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

TEST_F(LumoWrapperTest, LogsLeftWhenAnExceptionPasses) {
  CreateQuietly();
  platform.OnCall("lumo_service_register_property", [] { throw std::runtime_error("away"); });
  EXPECT_THROW(Register(), std::runtime_error);
  EXPECT_TRUE(LoggedExactly({Entered("RegisterProperty", 74), Left("RegisterProperty", 74)}));
  EXPECT_THROW(wrapper->executeFunctionAndRetryIfFailed({}), std::bad_function_call);
}

// --- notifications and answers -------------------------------------------------------------------

// The three ways in which a value goes to the library.
class LumoWrapperSendingTest : public LumoWrapperFixture {
 protected:
  struct Way {
    std::string operation;  // of the library
    std::string function;   // of the wrapper
    int line;
    std::string end;  // of the call: the code of an answer
    std::function<void(const Adaptor&)> send;

    std::string Call(const std::string& arguments) const {
      return operation + "(" + arguments + end + ")";
    }
  };

  const Way ways[3] = {{"lumo_service_notify", "NotifyProperty", 108, "",
                        [this](const Adaptor& value) { wrapper->NotifyProperty("a name", value); }},
                       {"lumo_service_send_get_property_result", "SendGetResponse", 94, ", 0",
                        [this](const Adaptor& value) {
                          wrapper->SendGetResponse(NewRequest(), RESULT_SUCCESS, value);
                        }},
                       {"lumo_service_send_set_property_result", "SendSetResponse", 101, ", 0",
                        [this](const Adaptor& value) {
                          wrapper->SendSetResponse(NewRequest(), RESULT_SUCCESS, value);
                        }}};

  void* NewRequest() { return &m_requests.emplace_back(); }

 private:
  std::deque<char> m_requests;
};

TEST_F(LumoWrapperSendingTest, SendsTheMembersOfTheValueOnceWhateverTheLibrarySays) {
  ASSERT_TRUE(wrapper->Create(Info()));
  for (const Way& way : ways) {
    for (const lumo_error code : {0, 5, -3}) {
      platform.Fail(way.operation, fake::Platform::kAlways, code);
      platform.ClearTrace();
      way.send(Object("b", 1));
      EXPECT_EQ(platform.Calls(), std::vector{way.Call("service, [b (type 1) = 1]")});
      EXPECT_TRUE(LoggedExactly({Entered(way.function, way.line), Left(way.function, way.line)}));
    }
  }
}

TEST_F(LumoWrapperSendingTest, SendsNullHandlesAllTheSame) {
  for (const Way& way : ways) {
    platform.ClearTrace();
    way.send(Object("a", 1));
    platform.Fail("lumo_property_list_create", 1);
    way.send(Object("a", 1));
    EXPECT_EQ(platform.Calls(),
              (std::vector{way.Call("null, [a (type 1) = 1]"), way.Call("null, null")}));
  }
  wrapper->SendSetResponse(nullptr, RESULT_SUCCESS, Object("a", 1));
  EXPECT_EQ(platform.Responses().back().request, nullptr);
}

TEST_F(LumoWrapperSendingTest, SendsAnEmptyListForAValueThatIsNoObject) {
  ASSERT_TRUE(wrapper->Create(Info()));
  for (const Way& way : ways) {
    platform.ClearTrace();
    way.send(Adaptor::Create("[1]"));
    EXPECT_EQ(platform.Calls(), std::vector{way.Call("service, []")});
    EXPECT_TRUE(LoggedOnce(Line(6, "convertPropertyToLumoList", "exception occurred\n", 336)));
  }
}

TEST_F(LumoWrapperSendingTest, ConvertsBeforeItReadsTheHandle) {
  for (const Way& way : ways) {
    CreateQuietly();
    // A service that goes while the list is made is not used any more.
    platform.OnCall("lumo_property_create_int", [&] { EXPECT_TRUE(wrapper->Destroy()); });
    way.send(Object("a", 1));
    platform.OnCall("lumo_property_create_int", {});
    EXPECT_EQ(platform.Calls().back(), way.Call("null, [a (type 1) = 1]"));
  }
}

TEST_F(LumoWrapperSendingTest, LetsTheLibraryCallBackFromInside) {
  std::atomic<int> cancelled = 0;
  _ServiceInfo info = Info();
  info.cancel_handler = [&cancelled](void*) { ++cancelled; };
  ASSERT_TRUE(wrapper->Create(info));
  std::vector<std::future<void>> callbacks;
  for (const Way& way : ways) {
    platform.OnCall(way.operation, [&] {
      callbacks.push_back(std::async(std::launch::async, [&] { platform.DeliverCancel(nullptr); }));
      EXPECT_EQ(callbacks.back().wait_for(fake::kPatience), std::future_status::ready);
    });
    way.send(Adaptor());
  }
  EXPECT_EQ(callbacks.size(), 3U);
  EXPECT_TRUE(platform.WaitUntil([&] { return cancelled == 3; }));
}

TEST_F(LumoWrapperSendingTest, AnswersItsRequestWithCodeZeroForSuccessAndSixForAllElse) {
  ASSERT_TRUE(wrapper->Create(Info()));
  for (const int result : {0, 3, 1, 2}) {
    SCOPED_TRACE(result);
    void* const get = NewRequest();
    void* const set = NewRequest();
    platform.ClearTrace();
    wrapper->SendGetResponse(get, static_cast<_Result>(result), Object("a", "b"));
    wrapper->SendSetResponse(set, static_cast<_Result>(result), Object("c", true));
    const std::string code = result == 0 ? "0" : "6";
    EXPECT_EQ(
        platform.Calls(),
        (std::vector<std::string>{
            "lumo_service_send_get_property_result(service, [a (type 3) = \"b\"], " + code + ")",
            "lumo_service_send_set_property_result(service, [c (type 0) = 1], " + code + ")"}));
    EXPECT_EQ(platform.Responses().at(0).request, get);
    EXPECT_EQ(platform.Responses().at(1).request, set);
  }
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

TEST_F(LumoWrapperTest, QueuesACopyOfAJobOnItsDispatcherAndDropsItWhenThatIsStopped) {
  ASSERT_TRUE(wrapper->Create(Info()));
  Gate ran;
  std::thread::id thread;
  std::function<void()> job = [&] {
    thread = std::this_thread::get_id();
    ran.Open();
  };
  EXPECT_TRUE(wrapper->addJobToDispatcher(job));
  EXPECT_TRUE(job);
  job = [] { ADD_FAILURE() << "a refused job ran"; };
  ASSERT_TRUE(ran.Wait());
  EXPECT_NE(thread, std::this_thread::get_id());

  ASSERT_TRUE(wrapper->Destroy());
  EXPECT_TRUE(wrapper->addJobToDispatcher(job));
  wrapper->executeJob(job);
  EXPECT_EQ(platform.CountLogs("Thread already finished! Can not do enqueue!!"), 2U);
  wrapper->Shutdown();
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
    wrapper.NotifyProperty("p",
                           Adaptor::Create(R"({"b":true,"i":1,"r":1.5,"s":"text","o":{},"a":[]})"));
    if (created) {
      const std::vector<Property> properties = {
          Property::Bool("b", true), Property::Int("i", 1),      Property::Double("d", 1.5),
          Property::String("s", ""), Property::Json("j", "[1]"), Property::Bytes("x", "y")};
      platform.DeliverGet(properties);
      platform.DeliverSet(properties);
      EXPECT_TRUE(platform.WaitUntil([&] { return platform.Responses().size() == 2; }));
    }
    wrapper.UnregisterProperty("p");
    EXPECT_EQ(wrapper.Destroy(), created);
    wrapper.Shutdown();
    return created ? 2 : 0;
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

INSTANTIATE_TEST_SUITE_P(Operations, LumoWrapperFailingLibraryTest,
                         ::testing::ValuesIn(fake::LumoOperations()),
                         [](const auto& parameter) { return parameter.param; });

}  // namespace
}  // namespace ThingCommon
