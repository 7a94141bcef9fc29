#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "LumoWrapperFixture.h"

namespace ThingCommon {
namespace {

const ExpectedLog kRefused = {6, "THING_COMMON", "MsgDispatcher.cpp", "EnqueueData",
                              "Thread already finished! Can not do enqueue!!\n"};

ExpectedLog Status(const std::string& message) {
  return Line(4, "protocolStatusCallback", message, 378, "[%s] status: %d\n");
}

struct HandlerCall {
  std::string kind;
  void* request = nullptr;
  std::vector<Json::Value> properties;
  std::thread::id thread;
};

class LumoWrapperRequestTest : public LumoWrapperFixture {
 protected:
  // Handlers that remember their calls and answer with success and no properties.
  _ServiceInfo RecordingInfo() {
    _ServiceInfo info = Info();
    info.get_handler = [this](void* request, const std::vector<Adaptor>& properties) {
      Remember("get", request, properties);
      wrapper->SendGetResponse(request, RESULT_SUCCESS, Adaptor());
    };
    info.set_handler = [this](void* request, const std::vector<Adaptor>& properties) {
      Remember("set", request, properties);
      wrapper->SendSetResponse(request, RESULT_SUCCESS, Adaptor());
    };
    info.cancel_handler = [this](void* request) { Remember("cancel", request, {}); };
    info.protocol_status_handler = [this](const std::string&, lumo_protocol_status) {
      Remember("protocol status", nullptr, {});
    };
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

  // Waits until the dispatcher has run all that was queued before.
  void WaitForDispatcher() {
    Gate reached;
    std::function<void()> job = [&reached] { reached.Open(); };
    ASSERT_TRUE(wrapper->addJobToDispatcher(job));
    ASSERT_TRUE(reached.Wait());
  }

  // What nobody wants any more: it is neither handled nor answered.
  void ExpectNothingServed() {
    wrapper->Shutdown();
    EXPECT_TRUE(Calls().empty());
    EXPECT_TRUE(platform.Responses().empty());
  }

  std::mutex m_calls_mutex;
  std::vector<HandlerCall> m_calls;
};

// --- requests that reach their handlers ----------------------------------------------------------

TEST_F(LumoWrapperRequestTest, HandsRequestsToTheirHandlersAsOneObjectPerProperty) {
  std::thread::id converting;
  ASSERT_TRUE(wrapper->Create(RecordingInfo()));
  platform.OnCall("lumo_property_list_get_first",
                  [&converting] { converting = std::this_thread::get_id(); });
  // The platform takes the list back when the callback returns, and objects to a later use.
  void* const get = platform.DeliverGet({Property::Bool("a", true), Property::Int("b", 5)});
  EXPECT_EQ(converting, std::this_thread::get_id());
  void* const set =
      platform.DeliverSet({Property::String("a", "text"), Property::Json("b", std::nullopt),
                           Property::Bytes("c", std::string("A\0B", 3))});
  ASSERT_TRUE(WaitForResponses(2));
  const auto calls = Calls();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].kind, "get");
  EXPECT_EQ(calls[0].request, get);
  EXPECT_EQ(calls[0].properties, (std::vector<Json::Value>{Object("a", true), Object("b", 5)}));
  EXPECT_EQ(calls[1].kind, "set");
  EXPECT_EQ(calls[1].request, set);
  EXPECT_EQ(calls[1].properties,
            (std::vector<Json::Value>{Object("a", "text"), Object("b", Json::Value()),
                                      Object("c", std::string("A\0B", 3))}));
  for (const std::size_t i : {0U, 1U}) {
    const fake::Response response = platform.Responses()[i];
    EXPECT_EQ(response.isSet, i == 1);
    EXPECT_EQ(response.request, calls[i].request);
    EXPECT_EQ(response.thread, calls[i].thread) << "answered from the dispatcher's thread";
    EXPECT_NE(response.thread, std::this_thread::get_id());
  }
}

TEST_F(LumoWrapperRequestTest, HandsACancelToItsHandlerThoughItNeverSawTheRequest) {
  ASSERT_TRUE(wrapper->Create(RecordingInfo()));
  char unknown = 0;
  platform.DeliverCancel(&unknown);
  platform.DeliverCancel(nullptr);
  WaitForDispatcher();
  ASSERT_EQ(Calls().size(), 2U);
  EXPECT_EQ(Calls()[0].kind, "cancel");
  EXPECT_EQ(Calls()[0].request, &unknown);
  EXPECT_EQ(Calls()[1].request, nullptr);
  EXPECT_TRUE(platform.Responses().empty()) << "a cancel is never answered";
}

TEST_F(LumoWrapperRequestTest, LeavesOutWhatItCannotReadAndGoesOnWithTheRest) {
  ASSERT_TRUE(wrapper->Create(RecordingInfo()));
  platform.GiveNullNameFor("nameless");
  platform.DeliverSet({Property::Double("d", 1), Property::Int("a", 1), Property::Raw("raw", 7),
                       Property::Int("nameless", 2), Property::Int("b", 3)});
  platform.DeliverGet({Property::Double("d", 1), Property::Raw("raw", 7)});
  ASSERT_TRUE(WaitForResponses(2));
  EXPECT_EQ(Calls()[0].properties, (std::vector<Json::Value>{Object("a", 1), Object("b", 3)}));
  EXPECT_TRUE(Calls()[1].properties.empty()) << "and the request still reaches its handler";
}

TEST_F(LumoWrapperRequestTest, RunsAllHandlersOnOneThreadInTheOrderOfTheRequests) {
  Pause pause;
  _ServiceInfo info = RecordingInfo();
  const auto remember = info.cancel_handler;
  info.cancel_handler = [&pause, remember](void* request) {
    if (request == nullptr) pause.Here();
    remember(request);
  };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverCancel(nullptr);
  void* const get = platform.DeliverGet({});
  void* const set = platform.DeliverSet({});
  platform.DeliverCancel(get);
  void* const last = platform.DeliverGet({});
  EXPECT_TRUE(Calls().empty()) << "the callbacks return before the requests are answered";
  pause.End();
  ASSERT_TRUE(WaitForResponses(3));

  std::vector<std::pair<std::string, void*>> handled;
  for (const HandlerCall& call : Calls()) {
    handled.emplace_back(call.kind, call.request);
    EXPECT_EQ(call.thread, Calls()[0].thread);
    EXPECT_NE(call.thread, std::this_thread::get_id());
  }
  EXPECT_EQ(handled,
            (std::vector<std::pair<std::string, void*>>{
                {"cancel", nullptr}, {"get", get}, {"set", set}, {"cancel", get}, {"get", last}}));
}

TEST_F(LumoWrapperRequestTest, NeverAnswersForAHandlerAndTakesAnAnswerLaterAndFromElsewhere) {
  _ServiceInfo info = Info();
  info.get_handler = [](void*, const std::vector<Adaptor>&) {};
  info.set_handler = info.get_handler;
  ASSERT_TRUE(wrapper->Create(info));
  void* const get = platform.DeliverGet({});
  void* const set = platform.DeliverSet({});
  WaitForDispatcher();
  EXPECT_TRUE(platform.Responses().empty());
  wrapper->SendGetResponse(get, RESULT_SUCCESS, Adaptor());
  wrapper->SendSetResponse(set, RESULT_SUCCESS, Adaptor());
  EXPECT_EQ(platform.Responses().size(), 2U);
}

TEST_F(LumoWrapperRequestTest, GoesOnAfterAHandlerThatThrows) {
  _ServiceInfo info = RecordingInfo();
  info.get_handler = [](void*, const std::vector<Adaptor>&) { throw std::runtime_error("get"); };
  info.cancel_handler = [](void*) { throw 1; };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverCancel(platform.DeliverGet({}));
  platform.DeliverSet({});
  ASSERT_TRUE(WaitForResponses(1));
  EXPECT_TRUE(platform.Responses()[0].isSet);
  for (const std::string message :
       {"exception from job : get\n", "[service] unknown exception from job\n"}) {
    EXPECT_TRUE(LoggedOnce({6, "THING_COMMON", "MsgDispatcher.cpp", "RunFirstJob", message}));
  }
}

TEST_F(LumoWrapperRequestTest, HoldsNoLockWhileAHandlerRuns) {
  // Each handler waits for another thread that goes through the wrapper.
  std::vector<std::future<void>> probes;
  std::atomic<int> ended = 0;
  const auto probe = [&] {
    probes.push_back(std::async(std::launch::async, [&] {
      wrapper->RegisterProperty("p", Adaptor::TYPE_BOOL, 0, 0, "");
      std::function<void()> nothing = [] {};
      wrapper->executeJob(nothing);
    }));
    if (probes.back().wait_for(fake::kPatience) == std::future_status::ready) ++ended;
  };
  _ServiceInfo info = Info();
  info.get_handler = [&](void*, const std::vector<Adaptor>&) { probe(); };
  info.set_handler = info.get_handler;
  info.cancel_handler = [&](void*) { probe(); };
  info.protocol_status_handler = [&](const std::string&, lumo_protocol_status) { probe(); };
  ASSERT_TRUE(wrapper->Create(info));
  platform.DeliverGet({});
  platform.DeliverSet({});
  platform.DeliverCancel(nullptr);
  WaitForDispatcher();
  platform.DeliverProtocolStatus("p", 0);
  EXPECT_EQ(ended, 4);
}

// --- no handlers, and no wrapper -----------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, AnswersOnceWithFailureWhenThereIsNoHandlerOfItsKindAndACancelNever) {
  char cancelled = 0;
  struct {
    std::function<void*()> deliver;
    const char* function;
    int line;
  } const requests[] = {
      {[this] { return platform.DeliverGet({Property::Int("a", 1)}); }, "getCallback", 396},
      {[this] { return platform.DeliverSet({Property::Int("a", 1)}); }, "setCallback", 428},
      {[&] { return platform.DeliverCancel(&cancelled), &cancelled; }, "cancelCallback", 460}};
  for (int kind = 0; kind < 3; ++kind) {
    SCOPED_TRACE(requests[kind].function);
    _ServiceInfo info = RecordingInfo();
    if (kind == 0) info.get_handler = nullptr;
    if (kind == 1) info.set_handler = nullptr;
    if (kind == 2) info.cancel_handler = nullptr;
    ASSERT_TRUE(wrapper->Create(info));
    WaitForDispatcher();
    platform.ClearTrace();
    void* const request = requests[kind].deliver();
    WaitForDispatcher();
    EXPECT_TRUE(LoggedOnce(Entered(requests[kind].function, requests[kind].line)));
    EXPECT_TRUE(LoggedOnce(Left(requests[kind].function, requests[kind].line)));
    EXPECT_EQ(platform.LogsOf(requests[kind].function).size(), 2U);
    EXPECT_TRUE(Calls().empty());
    EXPECT_EQ(platform.Calls().empty(), kind == 2);
    const auto responses = platform.Responses();
    ASSERT_EQ(responses.size(), kind == 2 ? 0U : 1U);
    for (const fake::Response& response : responses) {
      EXPECT_EQ(response.code, 6);
      EXPECT_FALSE(response.listWasNull);
      EXPECT_TRUE(response.properties.empty());
      EXPECT_NE(response.thread, std::this_thread::get_id());
      EXPECT_EQ(response.isSet, kind == 1);
      EXPECT_EQ(response.request, request);
    }
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

  EXPECT_TRUE(
      LoggedExactly({Entered("getCallback", 396), Line(6, "getCallback", "null obj\n", 400),
                     Left("getCallback", 396), Entered("setCallback", 428),
                     Line(6, "setCallback", "null obj\n", 432), Left("setCallback", 428),
                     Entered("cancelCallback", 460), Line(6, "cancelCallback", "null obj\n", 464),
                     Left("cancelCallback", 460)}));
  EXPECT_TRUE(platform.Calls().empty()) << "it is never answered";
}

// --- while services come and go ------------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, AnswersWithFailureAtOnceWithoutADispatcherAndHandlers) {
  // On the library's thread, and with no handle.
  const auto deliver = [this] {
    platform.ClearTrace();
    platform.DeliverGet({Property::Int("a", 1)});
    platform.DeliverSet({Property::Int("a", 1)});
    platform.DeliverCancel(nullptr);
    platform.DeliverProtocolStatus("p", 1);
    EXPECT_EQ(platform.Responses().size(), 2U);
    for (const fake::Response& response : platform.Responses()) {
      EXPECT_EQ(response.thread, std::this_thread::get_id());
      EXPECT_EQ(response.service, nullptr);
      EXPECT_EQ(response.code, 6);
      EXPECT_TRUE(response.properties.empty());
    }
    EXPECT_TRUE(Calls().empty());
  };
  // Before they are stored, and after the end.
  platform.OnCall("lumo_service_create", deliver);
  ASSERT_TRUE(wrapper->Create(RecordingInfo()));
  EXPECT_EQ(platform.Responses().size(), 2U);
  platform.DeliverGet({});
  ASSERT_TRUE(WaitForResponses(3));
  EXPECT_EQ(platform.Responses()[2].code, 0) << "what comes meanwhile is served";
  m_calls.clear();
  wrapper->Destroy();
  wrapper->Shutdown();
  deliver();
}

TEST_F(LumoWrapperRequestTest, DropsWhatComesDuringAndAfterDestroyWithoutAnAnswer) {
  ASSERT_TRUE(wrapper->Create(RecordingInfo()));
  std::future<void> elsewhere;
  platform.OnCall("lumo_service_destroy", [&] {
    platform.DeliverGet({Property::Int("a", 1)});
    // Waits for the lock that Destroy holds.
    elsewhere = std::async(std::launch::async, [&] {
      platform.DeliverSet({Property::Int("a", 1)});
      platform.DeliverCancel(nullptr);
      platform.DeliverProtocolStatus("p", 1);
    });
    EXPECT_EQ(elsewhere.wait_for(kGlimpse), std::future_status::timeout);
  });
  EXPECT_TRUE(wrapper->Destroy());
  ASSERT_EQ(elsewhere.wait_for(fake::kPatience), std::future_status::ready);
  EXPECT_EQ(platform.LogsOf("EnqueueData").size(), 3U);
  EXPECT_TRUE(LoggedOnce(Status("[p] status: 1\n")));

  platform.ClearTrace();
  platform.DeliverGet({Property::Int("a", 1)});
  EXPECT_TRUE(LoggedOnce(kRefused));
  EXPECT_TRUE(LoggedOnce(Left("getCallback", 396)));
  ExpectNothingServed();
}

TEST_F(LumoWrapperRequestTest, DropsTheQueuedRequestsInDestroyAndEndsTheRunningOne) {
  Gate gate;
  bool ended = false;
  RunInHandler("service", [&] { ended = gate.Wait(); });
  for (int i = 0; i < 10; ++i) platform.DeliverGet({Property::Int("a", i)});
  EXPECT_TRUE(wrapper->Destroy());
  gate.Open();
  ExpectNothingServed();
  EXPECT_TRUE(ended);
  EXPECT_EQ(platform.CountLogs("[service] ESCAPE!"), 1U);
}

// --- protocol status -----------------------------------------------------------------------------

TEST_F(LumoWrapperRequestTest, ReportsAProtocolStatusOnTheLibrarysThread) {
  std::vector<std::pair<std::string, int>> reports;
  std::thread::id thread;
  _ServiceInfo info = Info();
  info.protocol_status_handler = [&](const std::string& protocol, lumo_protocol_status status) {
    reports.emplace_back(protocol, status);
    thread = std::this_thread::get_id();
  };
  CreateQuietly(info);
  platform.DeliverProtocolStatus("100%s", -7);
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_TRUE(LoggedExactly({Entered("protocolStatusCallback", 376), Status("[100%s] status: -7\n"),
                             Left("protocolStatusCallback", 376)}));
  platform.DeliverProtocolStatus(std::string("ab\0cd", 5), 1);
  platform.DeliverProtocolStatus(std::nullopt, 2);
  EXPECT_EQ(reports, (std::vector<std::pair<std::string, int>>{{"100%s", -7}, {"ab", 1}, {"", 2}}));
  EXPECT_TRUE(LoggedOnce(Status("[ab] status: 1\n")));
  EXPECT_TRUE(LoggedOnce(Status("[] status: 2\n")));
}

TEST_F(LumoWrapperRequestTest, LogsAProtocolStatusThatNobodyHandles) {
  CreateQuietly();
  platform.DeliverProtocolStatus("p", 1);
  LumoWrapper::protocolStatusCallback(nullptr, lumo_string_new("q", 1), 2, nullptr);
  LumoWrapper::protocolStatusCallback(nullptr, lumo_string_new(nullptr, 0), 3, nullptr);
  const ExpectedLog entered = Entered("protocolStatusCallback", 376);
  const ExpectedLog left = Left("protocolStatusCallback", 376);
  EXPECT_TRUE(
      LoggedExactly({entered, Status("[p] status: 1\n"), left, entered, Status("[q] status: 2\n"),
                     left, entered, Status("[] status: 3\n"), left}));
}

TEST_F(LumoWrapperRequestTest, LeavesACallbackThroughWhichAnExceptionPasses) {
  _ServiceInfo info = Info();
  info.protocol_status_handler = [](const std::string&, lumo_protocol_status) {
    throw std::runtime_error("away");
  };
  ASSERT_TRUE(wrapper->Create(info));
  EXPECT_THROW(platform.DeliverProtocolStatus("p", 1), std::runtime_error);
  EXPECT_TRUE(LoggedOnce(Left("protocolStatusCallback", 376)));
  // It counts as left: nothing waits for it.
  wrapper->Shutdown();
}

}  // namespace
}  // namespace ThingCommon
