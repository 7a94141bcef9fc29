#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Gate.h"
#include "LumoWrapper.h"
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

const ExpectedLog kRefused = {6, "THING_COMMON", "MsgDispatcher.cpp", "EnqueueData",
                              "Thread already finished! Can not do enqueue!!\n"};

struct HandlerCall {
  std::string kind;
  void* request = nullptr;
  std::vector<Json::Value> properties;
  std::thread::id thread;
};

class LumoWrapperRequestTest : public PlatformTest {
 protected:
  void TearDown() override {
    for (const char* operation : {"lumo_service_create", "lumo_service_destroy"}) {
      platform.OnCall(operation, {});
    }
    wrapper.Destroy();
    platform.Drain();
    wrapper.Shutdown();
    PlatformTest::TearDown();
  }

  // Handlers that remember their calls and answer with success and no properties.
  _ServiceInfo RecordingInfo() {
    _ServiceInfo info;
    info.name = "service";
    info.get_handler = [this](void* request, const std::vector<Adaptor>& properties) {
      Remember("get", request, properties);
      wrapper.SendGetResponse(request, RESULT_SUCCESS, Adaptor());
    };
    info.set_handler = [this](void* request, const std::vector<Adaptor>& properties) {
      Remember("set", request, properties);
      wrapper.SendSetResponse(request, RESULT_SUCCESS, Adaptor());
    };
    info.cancel_handler = [this](void* request) { Remember("cancel", request, {}); };
    return info;
  }

  static _ServiceInfo EmptyInfo() {
    _ServiceInfo info;
    info.name = "service";
    return info;
  }

  void Remember(const std::string& kind, void* request, const std::vector<Adaptor>& properties) {
    const std::lock_guard<std::mutex> lock(m_calls_mutex);
    m_calls.push_back(
        {kind, request, {properties.begin(), properties.end()}, std::this_thread::get_id()});
  }

  std::vector<HandlerCall> Calls() {
    const std::lock_guard<std::mutex> lock(m_calls_mutex);
    return m_calls;
  }

  bool WaitForCalls(std::size_t count) {
    return platform.WaitUntil([&] { return Calls().size() >= count; });
  }

  bool WaitForResponses(std::size_t count) {
    return platform.WaitUntil([&] { return platform.Responses().size() >= count; });
  }

  // Waits until the dispatcher has run all that was queued before.
  void WaitForDispatcher() {
    Gate reached;
    std::function<void()> job = [&reached] { reached.Open(); };
    ASSERT_TRUE(wrapper.addJobToDispatcher(job));
    ASSERT_TRUE(reached.Wait());
  }

  // The lines that were logged on this thread.
  std::vector<fake::LogLine> OwnLogs() {
    std::vector<fake::LogLine> logs;
    for (const fake::Entry& entry : platform.Trace()) {
      if (entry.kind == fake::Entry::Kind::kLog && entry.thread == std::this_thread::get_id()) {
        logs.push_back(entry.log);
      }
    }
    return logs;
  }

  static Json::Value Member(const std::string& name, const Json::Value& value) {
    Json::Value object(Json::objectValue);
    object[name] = value;
    return object;
  }

 private:
  std::mutex m_calls_mutex;
  std::vector<HandlerCall> m_calls;

 protected:
  LumoWrapper wrapper;  // the last member: its handlers use the others
};

// --- requests that reach their handlers ----------------------------------------------------------

TEST_F(LumoWrapperRequestTest, HandsAGetRequestToItsHandlerAsOneObjectPerProperty) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  void* const request = platform.DeliverGet({Property::Bool("a", true), Property::Int("b", 5)});
  ASSERT_TRUE(WaitForResponses(1));
  ASSERT_EQ(Calls().size(), 1U);
  EXPECT_EQ(Calls()[0].kind, "get");
  EXPECT_EQ(Calls()[0].request, request);
  EXPECT_EQ(Calls()[0].properties, (std::vector<Json::Value>{Member("a", true), Member("b", 5)}));
  EXPECT_FALSE(platform.Responses()[0].isSet);
  EXPECT_EQ(platform.Responses()[0].request, request);
}

TEST_F(LumoWrapperRequestTest, HandsASetRequestToItsHandlerAsOneObjectPerProperty) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  void* const request =
      platform.DeliverSet({Property::String("a", "text"), Property::Json("b", std::nullopt)});
  ASSERT_TRUE(WaitForResponses(1));
  ASSERT_EQ(Calls().size(), 1U);
  EXPECT_EQ(Calls()[0].kind, "set");
  EXPECT_EQ(Calls()[0].request, request);
  EXPECT_EQ(Calls()[0].properties,
            (std::vector<Json::Value>{Member("a", "text"), Member("b", Json::Value())}));
  EXPECT_TRUE(platform.Responses()[0].isSet);
  EXPECT_EQ(platform.Responses()[0].request, request);
}

TEST_F(LumoWrapperRequestTest, HandsACancelToItsHandlerThoughItNeverSawTheRequest) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  char unknown = 0;
  platform.DeliverCancel(&unknown);
  platform.DeliverCancel(nullptr);
  ASSERT_TRUE(WaitForCalls(2));
  EXPECT_EQ(Calls()[0].kind, "cancel");
  EXPECT_EQ(Calls()[0].request, &unknown);
  EXPECT_EQ(Calls()[1].request, nullptr);
  WaitForDispatcher();
  EXPECT_TRUE(platform.Responses().empty()) << "a cancel is never answered";
}

TEST_F(LumoWrapperRequestTest, LeavesOutWhatItCannotReadAndGoesOnWithTheRest) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  platform.GiveNullNameFor("nameless");
  platform.DeliverSet({Property::Double("d", 1), Property::Int("a", 1), Property::Raw("raw", 7),
                       Property::Int("nameless", 2), Property::Int("b", 3)});
  platform.DeliverGet({Property::Double("d", 1), Property::Raw("raw", 7)});
  ASSERT_TRUE(WaitForResponses(2));
  EXPECT_EQ(Calls()[0].properties, (std::vector<Json::Value>{Member("a", 1), Member("b", 3)}));
  EXPECT_TRUE(Calls()[1].properties.empty()) << "and the request still reaches its handler";
}

TEST_F(LumoWrapperRequestTest, HandsBytesOverWithTheirNuls) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  platform.DeliverSet({Property::Bytes("a", std::string("A\0B", 3))});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(Calls()[0].properties[0]["a"].asString(), std::string("A\0B", 3));
}

TEST_F(LumoWrapperRequestTest, HandsLargeRequestsOver) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  const std::string text(1 << 20, 'x');
  std::vector<Property> properties(10'000, Property::Int("p", 1));
  properties.push_back(Property::String("large", text));
  platform.DeliverSet(properties);
  ASSERT_TRUE(WaitForResponses(1));
  ASSERT_EQ(Calls()[0].properties.size(), 10'001U);
  EXPECT_EQ(Calls()[0].properties.back(), Member("large", text));
}

TEST_F(LumoWrapperRequestTest, RunsAllHandlersOnOneThreadInTheOrderOfTheRequests) {
  Gate gate;
  _ServiceInfo info = RecordingInfo();
  const auto remember = info.get_handler;
  info.get_handler = [&gate, remember](void* request, const std::vector<Adaptor>& properties) {
    EXPECT_TRUE(gate.Wait());
    remember(request, properties);
  };
  ASSERT_TRUE(wrapper.Create(info));
  void* const get = platform.DeliverGet({});
  void* const set = platform.DeliverSet({});
  platform.DeliverCancel(get);
  void* const last = platform.DeliverGet({});
  EXPECT_TRUE(Calls().empty()) << "the callbacks return before the requests are answered";
  gate.Open();
  ASSERT_TRUE(WaitForResponses(3));

  const auto calls = Calls();
  ASSERT_EQ(calls.size(), 4U);
  const std::vector<std::pair<std::string, void*>> expected = {
      {"get", get}, {"set", set}, {"cancel", get}, {"get", last}};
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].kind, expected[i].first);
    EXPECT_EQ(calls[i].request, expected[i].second);
    EXPECT_EQ(calls[i].thread, calls[0].thread);
    EXPECT_NE(calls[i].thread, std::this_thread::get_id());
  }
}

TEST_F(LumoWrapperRequestTest, HandlesRequestsFromSeveralThreadsOneAtATime) {
  std::atomic<int> inside = 0;
  std::atomic<bool> overlapped = false;
  _ServiceInfo info = RecordingInfo();
  info.get_handler = [&](void* request, const std::vector<Adaptor>& properties) {
    if (++inside != 1) overlapped = true;
    Remember("get", request, properties);
    wrapper.SendGetResponse(request, RESULT_SUCCESS, properties.at(0));
    --inside;
  };
  ASSERT_TRUE(wrapper.Create(info));
  constexpr int kRequests = 100;
  for (int i = 0; i < kRequests; ++i) platform.PostGet({Property::Int("i", i)});
  ASSERT_TRUE(WaitForResponses(kRequests));
  WaitForDispatcher();  // until the last handler has returned, too
  EXPECT_FALSE(overlapped);
  std::vector<double> answers;
  for (const fake::Response& response : platform.Responses()) {
    EXPECT_EQ(response.code, 0);
    answers.push_back(response.properties.at(0).number);
  }
  std::sort(answers.begin(), answers.end());
  for (int i = 0; i < kRequests; ++i) EXPECT_EQ(answers[static_cast<std::size_t>(i)], i);
}

TEST_F(LumoWrapperRequestTest, ConvertsTheBorrowedListInsideTheCallback) {
  std::thread::id converting;
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  platform.OnCall("lumo_property_list_get_first",
                  [&converting] { converting = std::this_thread::get_id(); });
  // The platform takes the list back when the callback returns, and objects to a later use.
  platform.DeliverGet({Property::Int("a", 1)});
  EXPECT_EQ(converting, std::this_thread::get_id());
  ASSERT_TRUE(WaitForResponses(1));
}

TEST_F(LumoWrapperRequestTest, AnswersFromTheDispatchersThread) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_EQ(platform.Responses()[0].thread, Calls()[0].thread);
  EXPECT_NE(platform.Responses()[0].thread, std::this_thread::get_id());
}

TEST_F(LumoWrapperRequestTest, NeverAnswersForAHandler) {
  _ServiceInfo info = EmptyInfo();
  info.get_handler = [this](void* request, const std::vector<Adaptor>& properties) {
    Remember("get", request, properties);
  };
  info.set_handler = info.get_handler;
  ASSERT_TRUE(wrapper.Create(info));
  void* const get = platform.DeliverGet({});
  void* const set = platform.DeliverSet({});
  WaitForDispatcher();
  EXPECT_EQ(Calls().size(), 2U);
  EXPECT_TRUE(platform.Responses().empty());
  // The answers may come later and from elsewhere.
  wrapper.SendGetResponse(get, RESULT_SUCCESS, Adaptor());
  wrapper.SendSetResponse(set, RESULT_SUCCESS, Adaptor());
  EXPECT_EQ(platform.Responses().size(), 2U);
}

TEST_F(LumoWrapperRequestTest, GoesOnAfterAHandlerThatThrows) {
  _ServiceInfo info = RecordingInfo();
  info.get_handler = [](void*, const std::vector<Adaptor>&) { throw std::runtime_error("get"); };
  info.cancel_handler = [](void*) { throw 1; };
  ASSERT_TRUE(wrapper.Create(info));
  void* const get = platform.DeliverGet({});
  platform.DeliverCancel(get);
  platform.DeliverSet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_TRUE(platform.Responses()[0].isSet);
  EXPECT_TRUE(LoggedOnce(
      {6, "THING_COMMON", "MsgDispatcher.cpp", "RunFirstJob", "exception from job : get\n"}));
  EXPECT_TRUE(LoggedOnce({6, "THING_COMMON", "MsgDispatcher.cpp", "RunFirstJob",
                          "[service] unknown exception from job\n"}));
}

TEST_F(LumoWrapperRequestTest, HoldsNoLockWhileAHandlerRuns) {
  // Each handler waits for another thread that goes through the wrapper, its callbacks included.
  std::vector<std::shared_future<void>> probes;
  std::atomic<int> ended = 0;
  const auto probe = [&] {
    probes.push_back(std::async(std::launch::async, [&] {
                       wrapper.RegisterProperty("p", Adaptor::TYPE_BOOL, 0, 0, "");
                       std::function<void()> nothing = [] {};
                       wrapper.executeJob(nothing);
                     }).share());
    if (probes.back().wait_for(fake::kPatience) == std::future_status::ready) ++ended;
  };
  _ServiceInfo info = EmptyInfo();
  info.get_handler = [&](void* request, const std::vector<Adaptor>&) {
    probe();
    wrapper.SendGetResponse(request, RESULT_SUCCESS, Adaptor());
  };
  info.set_handler = [&](void* request, const std::vector<Adaptor>&) {
    probe();
    wrapper.SendSetResponse(request, RESULT_SUCCESS, Adaptor());
  };
  info.cancel_handler = [&](void*) { probe(); };
  info.protocol_status_handler = [&](const std::string&, lumo_protocol_status) { probe(); };
  ASSERT_TRUE(wrapper.Create(info));
  platform.DeliverGet({});
  platform.DeliverSet({});
  platform.DeliverCancel(nullptr);
  WaitForDispatcher();
  platform.DeliverProtocolStatus("p", 0);
  EXPECT_EQ(ended, 4);
}

TEST_F(LumoWrapperRequestTest, LetsAHandlerUseTheWrapperItself) {
  _ServiceInfo info = RecordingInfo();
  info.set_handler = [this](void* request, const std::vector<Adaptor>& properties) {
    wrapper.NotifyProperty("a", properties.at(0));
    wrapper.SendSetResponse(request, RESULT_SUCCESS, properties.at(0));
    platform.DeliverGet({});
  };
  ASSERT_TRUE(wrapper.Create(info));
  platform.DeliverSet({Property::Int("a", 1)});
  ASSERT_TRUE(WaitForResponses(2));
  EXPECT_EQ(platform.Notifications().size(), 1U);
  EXPECT_EQ(platform.Responses()[0].properties, std::vector<Property>{Property::Int("a", 1)});
}

// --- the lines of the callbacks ------------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, FramesEachCallbackWithItsLines) {
  ASSERT_TRUE(wrapper.Create(EmptyInfo()));
  const std::vector<std::pair<ExpectedLog, std::function<void()>>> callbacks = {
      {Line(4, "getCallback", "", 396), [this] { platform.DeliverGet({}); }},
      {Line(4, "setCallback", "", 428), [this] { platform.DeliverSet({}); }},
      {Line(4, "cancelCallback", "", 460), [this] { platform.DeliverCancel(nullptr); }}};
  for (const auto& [line, deliver] : callbacks) {
    WaitForDispatcher();
    platform.ClearTrace();
    deliver();
    const auto logs = OwnLogs();
    ASSERT_EQ(logs.size(), 2U);
    EXPECT_TRUE(Matches(logs[0], Line(4, line.function, "> Entered\n", line.line)));
    EXPECT_TRUE(Matches(logs[1], Line(4, line.function, "> Left\n", line.line)));
  }
}

TEST_F(LumoWrapperRequestTest, DropsARequestWithoutUserDataWithALine) {
  void* const list = platform.MakeLibraryList({Property::Int("a", 1)});
  char request = 0;
  platform.OnCall("lumo_property_list_get_first",
                  [] { ADD_FAILURE() << "nobody wants the properties"; });
  LumoWrapper::getCallback(nullptr, &request, list, nullptr);
  LumoWrapper::setCallback(nullptr, &request, list, nullptr);
  LumoWrapper::cancelCallback(nullptr, &request, nullptr);

  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 9U);
  EXPECT_TRUE(Matches(logs[0], Line(4, "getCallback", "> Entered\n", 396)));
  EXPECT_TRUE(Matches(logs[1], Line(6, "getCallback", "null obj\n", 400)));
  EXPECT_TRUE(Matches(logs[2], Line(4, "getCallback", "> Left\n", 396)));
  EXPECT_TRUE(Matches(logs[3], Line(4, "setCallback", "> Entered\n", 428)));
  EXPECT_TRUE(Matches(logs[4], Line(6, "setCallback", "null obj\n", 432)));
  EXPECT_TRUE(Matches(logs[5], Line(4, "setCallback", "> Left\n", 428)));
  EXPECT_TRUE(Matches(logs[6], Line(4, "cancelCallback", "> Entered\n", 460)));
  EXPECT_TRUE(Matches(logs[7], Line(6, "cancelCallback", "null obj\n", 464)));
  EXPECT_TRUE(Matches(logs[8], Line(4, "cancelCallback", "> Left\n", 460)));
  EXPECT_TRUE(platform.Calls().empty()) << "it is never answered";
}

// --- no handlers ---------------------------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, AnswersOnceWithFailureWhenThereIsNoHandler) {
  ASSERT_TRUE(wrapper.Create(EmptyInfo()));
  void* const get = platform.DeliverGet({Property::Int("a", 1)});
  void* const set = platform.DeliverSet({Property::Int("a", 1)});
  ASSERT_TRUE(WaitForResponses(2));
  WaitForDispatcher();
  const auto responses = platform.Responses();
  ASSERT_EQ(responses.size(), 2U);
  for (const fake::Response& response : responses) {
    EXPECT_EQ(response.code, 6);
    EXPECT_FALSE(response.listWasNull);
    EXPECT_TRUE(response.properties.empty());
    EXPECT_NE(response.thread, std::this_thread::get_id());
  }
  EXPECT_FALSE(responses[0].isSet);
  EXPECT_EQ(responses[0].request, get);
  EXPECT_TRUE(responses[1].isSet);
  EXPECT_EQ(responses[1].request, set);
}

TEST_F(LumoWrapperRequestTest, DoesNothingForACancelWithoutAHandler) {
  ASSERT_TRUE(wrapper.Create(EmptyInfo()));
  platform.ClearTrace();
  char request = 0;
  platform.DeliverCancel(&request);
  WaitForDispatcher();
  EXPECT_TRUE(platform.Calls().empty());
  EXPECT_EQ(platform.Logs().size(), 2U);
}

TEST_F(LumoWrapperRequestTest, UsesTheHandlerOfTheRequestsOwnKind) {
  _ServiceInfo info = RecordingInfo();
  info.get_handler = nullptr;
  ASSERT_TRUE(wrapper.Create(info));
  platform.DeliverGet({});
  platform.DeliverSet({});
  ASSERT_TRUE(WaitForResponses(2));
  EXPECT_EQ(platform.Responses()[0].code, 6);
  EXPECT_EQ(platform.Responses()[1].code, 0);
  ASSERT_EQ(Calls().size(), 1U);
  EXPECT_EQ(Calls()[0].kind, "set");
}

// --- while services come and go ------------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, AnswersWithFailureWhatComesBeforeTheHandlersAreStored) {
  platform.OnCall("lumo_service_create", [this] {
    platform.DeliverGet({Property::Int("a", 1)});
    platform.DeliverSet({Property::Int("a", 1)});
    platform.DeliverCancel(nullptr);
    platform.DeliverProtocolStatus("p", 1);
  });
  _ServiceInfo info = RecordingInfo();
  info.protocol_status_handler = [](const std::string&, lumo_protocol_status) {
    ADD_FAILURE() << "called before it was stored";
  };
  ASSERT_TRUE(wrapper.Create(info));

  // At once, on the library's thread: there is no dispatcher yet, and no handle either.
  const auto responses = platform.Responses();
  ASSERT_EQ(responses.size(), 2U);
  for (const fake::Response& response : responses) {
    EXPECT_EQ(response.thread, std::this_thread::get_id());
    EXPECT_EQ(response.service, nullptr);
    EXPECT_EQ(response.code, 6);
    EXPECT_TRUE(response.properties.empty());
  }
  EXPECT_TRUE(Calls().empty());
  // And what comes afterwards is served.
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(3));
  EXPECT_EQ(platform.Responses()[2].code, 0);
}

TEST_F(LumoWrapperRequestTest, DropsWhatComesDuringDestroyWithoutAnAnswer) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  std::future<void> elsewhere;
  platform.OnCall("lumo_service_destroy", [&] {
    platform.DeliverGet({Property::Int("a", 1)});
    // Waits for the lock that Destroy holds.
    elsewhere = std::async(std::launch::async, [&] {
      platform.DeliverSet({Property::Int("a", 1)});
      platform.DeliverCancel(nullptr);
      platform.DeliverProtocolStatus("p", 1);
    });
  });
  EXPECT_TRUE(wrapper.Destroy());
  ASSERT_EQ(elsewhere.wait_for(fake::kPatience), std::future_status::ready);
  std::size_t refused = 0;
  for (const fake::LogLine& log : platform.LogsOf("EnqueueData")) {
    if (Matches(log, kRefused)) ++refused;
  }
  EXPECT_EQ(refused, 3U);
  wrapper.Shutdown();
  EXPECT_TRUE(Calls().empty());
  EXPECT_TRUE(platform.Responses().empty());
}

TEST_F(LumoWrapperRequestTest, DropsWhatComesAfterDestroyWithoutAnAnswer) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  ASSERT_TRUE(wrapper.Destroy());
  platform.DeliverGet({Property::Int("a", 1)});
  EXPECT_TRUE(LoggedOnce(kRefused));
  EXPECT_TRUE(LoggedOnce(Line(4, "getCallback", "> Left\n", 396)));
  wrapper.Shutdown();
  EXPECT_TRUE(Calls().empty());
  EXPECT_TRUE(platform.Responses().empty());
}

TEST_F(LumoWrapperRequestTest, AnswersWithFailureAtOnceWhenTheDispatcherIsGone) {
  ASSERT_TRUE(wrapper.Create(RecordingInfo()));
  ASSERT_TRUE(wrapper.Destroy());
  wrapper.Shutdown();
  platform.DeliverGet({Property::Int("a", 1)});
  ASSERT_EQ(platform.Responses().size(), 1U);
  EXPECT_EQ(platform.Responses()[0].service, nullptr);
  EXPECT_EQ(platform.Responses()[0].code, 6);
  EXPECT_EQ(platform.Responses()[0].thread, std::this_thread::get_id());
  EXPECT_TRUE(Calls().empty());
}

TEST_F(LumoWrapperRequestTest, DropsTheQueuedRequestsInDestroyAndEndsTheRunningOne) {
  Gate gate;
  Gate started;
  _ServiceInfo info = RecordingInfo();
  info.cancel_handler = [&](void* request) {
    started.Open();
    EXPECT_TRUE(gate.Wait());
    Remember("cancel", request, {});
  };
  ASSERT_TRUE(wrapper.Create(info));
  platform.DeliverCancel(nullptr);
  ASSERT_TRUE(started.Wait());
  for (int i = 0; i < 10; ++i) platform.DeliverGet({Property::Int("a", i)});
  EXPECT_TRUE(wrapper.Destroy());
  gate.Open();
  wrapper.Shutdown();
  ASSERT_EQ(Calls().size(), 1U);
  EXPECT_EQ(Calls()[0].kind, "cancel");
  EXPECT_TRUE(platform.Responses().empty());
  EXPECT_EQ(platform.CountLogs("[service] ESCAPE!"), 1U);
}

TEST_F(LumoWrapperRequestTest, SurvivesRequestsFromAllSidesWhileTheServiceComesAndGoes) {
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(wrapper.Create(RecordingInfo()));
    for (int i = 0; i < 10; ++i) {
      platform.PostSet({Property::Int("a", i)});
      platform.PostCancel(platform.PostGet({Property::String("b", "text")}));
    }
    EXPECT_TRUE(wrapper.Destroy());
  }
  platform.Drain();
  wrapper.Shutdown();
  EXPECT_EQ(platform.LiveServices(), 0U);
  EXPECT_EQ(platform.CountLogs("MsgQueue destructed"), 20U);
  // No lock is held over an answer, since the library may call back in it: one that is under way
  // while Destroy runs can reach the library with the handle that it read before.
  for (const std::string& violation : platform.TakeViolations()) {
    EXPECT_NE(violation.find("_property_result: service used after it was destroyed"),
              std::string::npos)
        << violation;
  }
}

// --- protocol status -----------------------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, ReportsAProtocolStatusOnTheLibrarysThread) {
  std::vector<std::pair<std::string, int>> reports;
  std::thread::id thread;
  _ServiceInfo info = EmptyInfo();
  info.protocol_status_handler = [&](const std::string& protocol, lumo_protocol_status status) {
    reports.emplace_back(protocol, status);
    thread = std::this_thread::get_id();
  };
  ASSERT_TRUE(wrapper.Create(info));
  platform.ClearTrace();
  platform.DeliverProtocolStatus("100%s", -7);
  EXPECT_EQ(thread, std::this_thread::get_id());
  const auto logs = platform.Logs();
  ASSERT_EQ(logs.size(), 3U);
  EXPECT_TRUE(Matches(logs[0], Line(4, "protocolStatusCallback", "> Entered\n", 376)));
  EXPECT_TRUE(Matches(logs[1], Line(4, "protocolStatusCallback", "[100%s] status: -7\n", 378)));
  EXPECT_EQ(logs[1].format, "%s : %s(%d)  [%s] status: %d\n");
  EXPECT_TRUE(Matches(logs[2], Line(4, "protocolStatusCallback", "> Left\n", 376)));

  platform.DeliverProtocolStatus(std::string("ab\0cd", 5), 1);
  platform.DeliverProtocolStatus(std::nullopt, 2);
  EXPECT_EQ(reports, (std::vector<std::pair<std::string, int>>{{"100%s", -7}, {"ab", 1}, {"", 2}}));
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "[ab] status: 1\n", 378)));
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "[] status: 2\n", 378)));
}

TEST_F(LumoWrapperRequestTest, ReportsNoProtocolStatusThatComesDuringDestroy) {
  std::atomic<int> reports = 0;
  _ServiceInfo info = EmptyInfo();
  info.protocol_status_handler = [&reports](const std::string&, lumo_protocol_status) {
    ++reports;
  };
  ASSERT_TRUE(wrapper.Create(info));
  std::future<void> elsewhere;
  platform.OnCall("lumo_service_destroy", [&] {
    elsewhere = std::async(std::launch::async, [&] { platform.DeliverProtocolStatus("p", 1); });
    // It waits for the lock to look for a handler, and Destroy forgets that under the same lock.
    EXPECT_EQ(elsewhere.wait_for(kGlimpse), std::future_status::timeout);
  });
  EXPECT_TRUE(wrapper.Destroy());
  ASSERT_EQ(elsewhere.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "[p] status: 1\n", 378)));
  EXPECT_EQ(reports, 0);
}

TEST_F(LumoWrapperRequestTest, LogsAProtocolStatusThatNobodyHandles) {
  ASSERT_TRUE(wrapper.Create(EmptyInfo()));
  platform.ClearTrace();
  platform.DeliverProtocolStatus("p", 1);
  LumoWrapper::protocolStatusCallback(nullptr, lumo_string_new("q", 1), 2, nullptr);
  LumoWrapper::protocolStatusCallback(nullptr, lumo_string_new(nullptr, 0), 3, nullptr);
  EXPECT_EQ(platform.Logs().size(), 9U);
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "[p] status: 1\n", 378)));
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "[q] status: 2\n", 378)));
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "[] status: 3\n", 378)));
  EXPECT_EQ(platform.CountLogs("null obj"), 0U);
}

TEST_F(LumoWrapperRequestTest, LeavesACallbackThroughWhichAnExceptionPasses) {
  _ServiceInfo info = EmptyInfo();
  info.protocol_status_handler = [](const std::string&, lumo_protocol_status) {
    throw std::runtime_error("away");
  };
  ASSERT_TRUE(wrapper.Create(info));
  EXPECT_THROW(platform.DeliverProtocolStatus("p", 1), std::runtime_error);
  EXPECT_TRUE(LoggedOnce(Line(4, "protocolStatusCallback", "> Left\n", 376)));
  // It counts as left: nothing waits for it.
  wrapper.Shutdown();
}

}  // namespace
}  // namespace ThingCommon
