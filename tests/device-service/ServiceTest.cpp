// The class behind a service handle, with its requests.
#include "service/Service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "CapturedLog.h"
#include "Gate.h"
#include "TemporaryFolder.h"
#include "Watched.h"

namespace {

using namespace Lumo;
using namespace std::string_literals;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// A time-out that a request does not reach before its callback has started.
constexpr milliseconds kTimeForDelivery{1000};

struct Call {
  std::string what;  // "get", "set", "cancel" or "status"
  void* request;
  std::vector<std::string> names;  // of the properties, or the protocol
  std::thread::id thread;
};

using Replies = Watched<std::vector<lumo_error>>;

Reply replyTo(Replies& replies) {
  return [&replies](lumo_error code, const std::optional<Properties>&) {
    replies.Change([code](auto& codes) { codes.push_back(code); });
  };
}

template <std::size_t kCount, typename T>
bool waitForCount(Watched<std::vector<T>>& values) {
  return values.WaitFor([](const auto& all) { return all.size() >= kCount; });
}

// A service whose callbacks note their calls; `m_onGet`, `m_onSet` and `m_onStatus`, when set, then
// run in them.
class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest() {
    CapturedLog::Get().Take();
    start();
  }

  void* get() { return m_service->Get({"a"}, replyTo(m_replies)); }
  void* set(Properties properties = {}) {
    return m_service->Set(std::move(properties), replyTo(m_replies));
  }
  // A get whose callback does not return before the gate is open.
  void* getAndHoldUp() {
    m_onGet = [this](void*) { EXPECT_TRUE(m_proceed.Wait()); };
    void* const request = get();
    EXPECT_TRUE(waitForCount<1>(m_calls));
    return request;
  }

  void start(const ServiceLimits& limits = {}, HealthSettings health = {}) {
    m_service = std::make_unique<Service>(m_handle, "name", "description",
                                          ServiceCallbacks{onStatus, onGet, onSet, onCancel, this},
                                          m_lists, limits, std::move(health));
  }

  std::vector<std::string> kindsOfCalls() const {
    std::vector<std::string> kinds;
    for (const Call& call : m_calls.Get()) kinds.push_back(call.what);
    return kinds;
  }

  void note(const char* what, void* service, void* request, std::vector<std::string> names) {
    EXPECT_EQ(service, m_handle);
    m_calls.Change([&](auto& calls) {
      calls.push_back({what, request, std::move(names), std::this_thread::get_id()});
    });
  }

  std::vector<std::string> namesOf(void* list) {
    std::vector<std::string> names;
    const auto found = m_lists.Find(list);
    if (found == nullptr) return {"no list"};
    for (auto* item = found->First(); item != nullptr; item = found->Next(*item)) {
      names.push_back(item->Get().name);
    }
    m_lastList = list;
    return names;
  }

  static void onStatus(void* service, lumo_string protocol, lumo_protocol_status status,
                       void* userData) {
    auto* test = static_cast<ServiceTest*>(userData);
    test->note("status", service, nullptr, {protocol.data, std::to_string(status)});
    if (test->m_onStatus) test->m_onStatus();
  }
  static void onGet(void* service, void* request, void* list, void* userData) {
    auto* test = static_cast<ServiceTest*>(userData);
    test->note("get", service, request, test->namesOf(list));
    if (test->m_onGet) test->m_onGet(request);
  }
  static void onSet(void* service, void* request, void* list, void* userData) {
    auto* test = static_cast<ServiceTest*>(userData);
    test->note("set", service, request, test->namesOf(list));
    if (test->m_onSet) test->m_onSet();
  }
  static void onCancel(void* service, void* request, void* userData) {
    auto* test = static_cast<ServiceTest*>(userData);
    test->note("cancel", service, request, {});
  }

  HandleTable<PropertyList> m_lists;
  void* const m_handle = NewHandle();
  Watched<std::vector<Call>> m_calls;
  Replies m_replies;
  std::function<void(void* request)> m_onGet;
  std::function<void()> m_onSet;
  std::function<void()> m_onStatus;
  Gate m_proceed;  // for callbacks to wait at
  std::atomic<void*> m_lastList{nullptr};
  std::unique_ptr<Service> m_service;  // last: its callbacks use the others
};

TEST_F(ServiceTest, RegistersWhatItIsGivenOnceUntilItIsUnregistered) {
  EXPECT_EQ(m_service->Register("a", {LUMO_PROPERTY_TYPE_STRING, -1, INT64_MAX, "text"}), kSuccess);
  const auto found = m_service->FindRegistration("a");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->type, LUMO_PROPERTY_TYPE_STRING);
  EXPECT_EQ(found->attribute1, -1);
  EXPECT_EQ(found->attribute2, INT64_MAX);
  EXPECT_EQ(found->text, "text");
  EXPECT_EQ(m_service->Register("a", {3, 0, 0, ""}), kAlreadyRegistered);
  EXPECT_EQ(m_service->Unregister("a"), kSuccess);
  EXPECT_EQ(m_service->Register("a", {3, 0, 0, ""}), kSuccess);
}

TEST_F(ServiceTest, RegistersOnlyPartsOfATopicOfTheNamedTypesOrThePlugInsReal) {
  for (const std::string& name : {""s, "a/b"s, "+"s, "a#"s, "a\0b"s}) {
    EXPECT_EQ(m_service->Register(name, {0, 0, 0, ""}), kInvalidArgument);
    EXPECT_FALSE(m_service->FindRegistration(name));
  }
  for (const int type : {0, 1, 2, 3, 4, 5, 6}) {
    EXPECT_EQ(m_service->Register("com.example app-" + std::to_string(type), {type, 0, 0, ""}),
              kSuccess);
  }
  for (const int type : {-1, 7, INT32_MIN, INT32_MAX}) {
    EXPECT_EQ(m_service->Register("other", {type, 0, 0, ""}), kInvalidArgument);
  }
}

TEST_F(ServiceTest, KeepsTheValueNotifiedLastUntilTheNameIsUnregistered) {
  m_service->Register("a", {3, 0, 0, ""});
  EXPECT_FALSE(m_service->FindNotified("a"));
  EXPECT_EQ(m_service->Notify({{"a", std::string("one")}, {"a", std::string("two")}}), kSuccess);
  ASSERT_TRUE(m_service->FindNotified("a"));
  EXPECT_EQ(std::get<std::string>(m_service->FindNotified("a")->value), "two");
  m_service->Unregister("a");
  m_service->Register("a", {3, 0, 0, ""});
  EXPECT_FALSE(m_service->FindNotified("a"));
}

TEST_F(ServiceTest, NumbersTheValuesOfEachPropertyAlsoAfterItIsRegisteredAgain) {
  const auto sequence = [this](const char* name) {
    return m_service->FindNotified(name)->sequence;
  };
  for (const char* name : {"a", "b"}) m_service->Register(name, {1, 0, 0, ""});
  m_service->Notify({{"a", 1}, {"b", 1}});
  EXPECT_EQ(sequence("a"), 1);
  EXPECT_EQ(sequence("b"), 1);
  m_service->Notify({{"a", 2}, {"a", 3}});
  EXPECT_EQ(sequence("a"), 3);
  EXPECT_EQ(sequence("b"), 1);
  m_service->Notify({{"a", 4}, {"nobody", 1}});
  EXPECT_EQ(sequence("a"), 3);
  m_service->Unregister("a");
  m_service->Register("a", {1, 0, 0, ""});
  m_service->Notify({{"a", 5}});
  EXPECT_EQ(sequence("a"), 4);
}

TEST_F(ServiceTest, KnowsWhenAValueWasNotified) {
  using Clock = std::chrono::system_clock;
  m_service->Register("a", {1, 0, 0, ""});
  const Clock::time_point before = Clock::now();
  m_service->Notify({{"a", 1}});
  const Clock::time_point after = Clock::now();
  EXPECT_GE(m_service->FindNotified("a")->time, before);
  EXPECT_LE(m_service->FindNotified("a")->time, after);
}

TEST_F(ServiceTest, TakesNothingOfANotificationWithAnUnregisteredName) {
  m_service->Register("a", {1, 0, 0, ""});
  EXPECT_EQ(m_service->Notify({{"a", 1}, {"b", 2}}), kNotRegistered);
  EXPECT_FALSE(m_service->FindNotified("a"));
  EXPECT_EQ(m_service->Notify({}), kSuccess);
}

TEST_F(ServiceTest, DeliversRequestsWithTheirNamesAndPassesTheirAnswersOn) {
  void* const requests[] = {m_service->Get({"b", "a"}, replyTo(m_replies)),
                            set({{"a", true}, {"b", JsonText{"{}"}}})};
  ASSERT_TRUE(waitForCount<2>(m_calls));
  const std::vector<Call> calls = m_calls.Get();
  EXPECT_THAT(kindsOfCalls(), ElementsAre("get", "set"));
  EXPECT_THAT(calls[0].names, ElementsAre("b", "a"));
  EXPECT_THAT(calls[1].names, ElementsAre("a", "b"));
  for (std::size_t i = 0; i < 2; ++i) EXPECT_EQ(calls[i].request, requests[i]);
  EXPECT_EQ(m_service->Answer(RequestKind::Get, requests[0], 6, {}), kSuccess);
  EXPECT_EQ(m_service->Answer(RequestKind::Set, requests[1], 0, {}), kSuccess);
  EXPECT_THAT(m_replies.Get(), ElementsAre(6, 0));
}

TEST_F(ServiceTest, NamesOfAGetAreNeverCarriedByATypeThatPlugInsDrop) {
  std::atomic<lumo_property_type> type{-1};
  m_service->Register("real", {6, 0, 0, ""});
  m_onGet = [&](void* request) {
    type = m_lists.Find(m_lastList)->First()->Get().Type();
    m_service->Answer(RequestKind::Get, request, 0, {});
  };
  m_service->Get({"real"}, replyTo(m_replies));
  ASSERT_TRUE(waitForCount<1>(m_replies));
  EXPECT_EQ(type, LUMO_PROPERTY_TYPE_STRING);
}

TEST_F(ServiceTest, RepliesWithPropertiesOnlyWhenThePlugInAnswered) {
  Watched<std::vector<std::string>> answers;
  const Reply noteReply = [&](lumo_error, const std::optional<Properties>& properties) {
    std::string names = properties ? "of" : "none";
    for (const Property& property : properties.value_or(Properties())) names += " " + property.name;
    answers.Change([&](auto& all) { all.push_back(names); });
  };
  // The plug-in's code may be one of the library's own.
  m_service->Answer(RequestKind::Get, m_service->Get({"a"}, noteReply), kBusy, {});
  m_service->Answer(RequestKind::Get, m_service->Get({"a"}, noteReply), 0, {{"x", 1}, {"y", 2}});
  m_service->Cancel(m_service->Get({"a"}, noteReply));
  EXPECT_THAT(answers.Get(), ElementsAre("of", "of x y", "none"));
}

TEST_F(ServiceTest, ARealNumberIsAFaultUnlessThePropertyIsRegisteredAsOne) {
  for (const int type : {0, 1, 2, 3, 4, 5, 6}) {
    const std::string name = "type " + std::to_string(type);
    ASSERT_EQ(m_service->Register(name, {type, 0, 0, ""}), kSuccess);
    const bool isReal = type == 2 || type == 6;
    EXPECT_EQ(m_service->FaultOf({{name, 1.0}}),
              isReal ? "" : name + ": a real number, and the property takes none");
    EXPECT_EQ(m_service->FaultOf({{name, 1}}), "");
  }
}

TEST_F(ServiceTest, BytesThatAreNoTextAreAFaultOnlyForAString) {
  for (const int type : {0, 1, 2, 3, 4, 5, 6}) {
    const std::string name = "type " + std::to_string(type);
    ASSERT_EQ(m_service->Register(name, {type, 0, 0, ""}), kSuccess);
    for (const std::string& bytes : {"a\0b"s, "\xFF"s, "\xED\xA0\x80"s}) {
      EXPECT_EQ(m_service->FaultOf({{name, Bytes{bytes}}}),
                type == 3 ? name + ": bytes that are no text, and the property is one" : "");
    }
    EXPECT_EQ(m_service->FaultOf({{name, Bytes{"\xC3\xA4"}}, {name, Bytes{}}}), "");
  }
}

TEST_F(ServiceTest, ValuesThatThePlugInConvertsAndThoseOfNoPropertyAreNoFault) {
  EXPECT_EQ(m_service->FaultOf({{"a", 1.5}, {"text", Bytes{"\xFF"}}}), "");
  m_service->Register("text", {3, 0, 0, ""});
  m_service->Register("flag", {0, 0, 0, ""});
  EXPECT_EQ(m_service->FaultOf({{"text", true}, {"text", -1}, {"text", JsonText{"{}"}}}), "");
  EXPECT_EQ(m_service->FaultOf({{"flag", "yes"s}, {"flag", Bytes{"\xFF"}}}), "");
  EXPECT_EQ(m_service->FaultOf({{"a", 1.5}, {"text", Bytes{"\xFF"}}}),
            "text: bytes that are no text, and the property is one");
  m_service->Unregister("text");
  EXPECT_EQ(m_service->FaultOf({{"a", 1.5}, {"text", Bytes{"\xFF"}}}), "");
}

TEST_F(ServiceTest, AFaultQuotesOnlyTheBeginningOfALongName) {
  const std::string name(200, 'x');
  m_service->Register(name, {1, 0, 0, ""});
  EXPECT_EQ(m_service->FaultOf({{name, 1.5}}),
            std::string(100, 'x') + "\xE2\x80\xA6: a real number, and the property takes none");
}

TEST_F(ServiceTest, UnknownNamesOfASetAreNeverCarriedByATypeThatPlugInsDrop) {
  m_service->Register("real", {6, 0, 0, ""});
  Watched<std::vector<PropertyValue>> values;
  m_onSet = [&] {
    const auto list = m_lists.Find(m_lastList);
    for (auto* item = list->First(); item != nullptr; item = list->Next(*item)) {
      values.Change([item](auto& all) { all.push_back(item->Get().value); });
    }
  };
  set({{"real", 1.5}, {"unknown", 1.0}, {"other", 2}});
  ASSERT_TRUE(waitForCount<3>(values));
  EXPECT_EQ(std::get<double>(values.Get()[0]), 1.5);
  EXPECT_EQ(std::get<JsonText>(values.Get()[1]).text, "1.0");
  EXPECT_EQ(std::get<int>(values.Get()[2]), 2);
}

TEST_F(ServiceTest, AListOfACallbackEndsWithIt) {
  set({{"a", true}});
  set({{"b", true}});
  ASSERT_TRUE(waitForCount<2>(m_calls));
  m_service.reset();
  EXPECT_NE(m_lastList.load(), nullptr);
  EXPECT_THAT(m_lists.TakeAll(), IsEmpty());
}

TEST_F(ServiceTest, DeliversRequestsInTheOrderOfArrivalOnOneThread) {
  for (int i = 0; i < 50; ++i) {
    m_service->Get({std::to_string(2 * i)}, replyTo(m_replies));
    m_service->Set({{std::to_string(2 * i + 1), i}}, replyTo(m_replies));
  }
  ASSERT_TRUE(waitForCount<100>(m_calls));
  const std::vector<Call> calls = m_calls.Get();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].names.front(), std::to_string(i));
    EXPECT_EQ(calls[i].thread, calls.front().thread);
    EXPECT_NE(calls[i].thread, std::this_thread::get_id());
  }
}

TEST_F(ServiceTest, ReportsProtocolStatusWhileARequestCallbackRuns) {
  getAndHoldUp();
  m_service->ReportProtocolStatus("mqtt", 2);
  ASSERT_TRUE(waitForCount<2>(m_calls));
  m_proceed.Open();
  const std::vector<Call> calls = m_calls.Get();
  EXPECT_EQ(calls[1].what, "status");
  EXPECT_THAT(calls[1].names, ElementsAre("mqtt", "2"));
  EXPECT_NE(calls[0].thread, calls[1].thread);
}

TEST_F(ServiceTest, ACallbackMayUseTheService) {
  m_onGet = [&](void* request) {
    EXPECT_EQ(m_service->Register("a", {3, 0, 0, ""}), kSuccess);
    EXPECT_EQ(m_service->Notify({{"a", std::string("x")}}), kSuccess);
    EXPECT_NE(set({{"a", 1}}), nullptr);
    EXPECT_EQ(m_service->Answer(RequestKind::Get, request, 0, {}), kSuccess);
  };
  get();
  ASSERT_TRUE(waitForCount<2>(m_calls));
  EXPECT_THAT(m_replies.Get(), ElementsAre(0));
}

TEST_F(ServiceTest, AnswersOnceAndOnlyInTheRequestsOwnKind) {
  void* request = get();
  EXPECT_EQ(m_service->Answer(RequestKind::Set, request, 0, {}), kWrongType);
  EXPECT_THAT(m_replies.Get(), IsEmpty());
  EXPECT_EQ(m_service->Answer(RequestKind::Get, request, 0, {}), kSuccess);
  EXPECT_EQ(m_service->Answer(RequestKind::Get, request, 0, {}), kUnknownHandle);
  EXPECT_FALSE(m_service->Cancel(request));
  EXPECT_EQ(m_service->Answer(RequestKind::Get, nullptr, 0, {}), kUnknownHandle);
  EXPECT_EQ(m_service->Answer(RequestKind::Get, m_handle, 0, {}), kUnknownHandle);
  EXPECT_THAT(m_replies.Get(), ElementsAre(0));
}

TEST_F(ServiceTest, IsBusyWhenTooManyRequestsAreUnanswered) {
  std::vector<void*> requests(256);
  Replies accepted;
  for (void*& request : requests) request = m_service->Get({"a"}, replyTo(accepted));
  EXPECT_THAT(requests, ::testing::Each(::testing::NotNull()));
  EXPECT_EQ(set(), nullptr);
  EXPECT_THAT(m_replies.Get(), ElementsAre(kBusy));
  EXPECT_THAT(accepted.Get(), IsEmpty());
  EXPECT_EQ(m_service->Answer(RequestKind::Get, requests[7], 0, {}), kSuccess);
  EXPECT_NE(m_service->Set({}, replyTo(accepted)), nullptr);
  m_service.reset();  // it replies to all of them
  EXPECT_THAT(accepted.Get(), SizeIs(257));
}

TEST_F(ServiceTest, EndsARequestThatIsNotAnsweredInTime) {
  start({256, kTimeForDelivery});
  const auto begun = CallbackThread::Clock::now();
  void* request = get();
  ASSERT_TRUE(waitForCount<1>(m_replies));
  EXPECT_GE(CallbackThread::Clock::now() - begun, kTimeForDelivery);
  EXPECT_THAT(m_replies.Get(), ElementsAre(kTimedOut));
  ASSERT_TRUE(waitForCount<2>(m_calls));
  EXPECT_THAT(kindsOfCalls(), ElementsAre("get", "cancel"));
  EXPECT_EQ(m_calls.Get()[1].request, request);
  EXPECT_EQ(m_service->Answer(RequestKind::Get, request, 0, {}), kUnknownHandle);
  EXPECT_THAT(m_replies.Get(), SizeIs(1));
}

TEST_F(ServiceTest, WatchesTheTimeOfLaterRequestsToo) {
  start({256, milliseconds(30)});
  get();
  m_service->Get({"b"}, replyTo(m_replies));
  ASSERT_TRUE(waitForCount<2>(m_replies));
  set();
  ASSERT_TRUE(waitForCount<3>(m_replies));
  EXPECT_THAT(m_replies.Get(), ElementsAre(kTimedOut, kTimedOut, kTimedOut));
}

TEST_F(ServiceTest, NeverDeliversARequestThatTimedOutWhileItWaited) {
  start({256, kTimeForDelivery});
  getAndHoldUp();
  set();
  // Though the request thread is held up.
  ASSERT_TRUE(waitForCount<2>(m_replies));
  EXPECT_THAT(m_replies.Get(), ElementsAre(kTimedOut, kTimedOut));
  m_proceed.Open();
  // The set stood in the queue before the cancellation.
  ASSERT_TRUE(waitForCount<2>(m_calls));
  EXPECT_THAT(kindsOfCalls(), ElementsAre("get", "cancel"));
}

TEST_F(ServiceTest, TellsThePlugInOfACancelledRequest) {
  void* request = get();
  ASSERT_TRUE(waitForCount<1>(m_calls));
  EXPECT_TRUE(m_service->Cancel(request));
  EXPECT_FALSE(m_service->Cancel(request));
  ASSERT_TRUE(waitForCount<2>(m_calls));
  EXPECT_THAT(kindsOfCalls(), ElementsAre("get", "cancel"));
  EXPECT_EQ(m_calls.Get()[1].request, request);
  EXPECT_EQ(m_service->Answer(RequestKind::Get, request, 0, {}), kUnknownHandle);
  EXPECT_THAT(m_replies.Get(), ElementsAre(kCancelled));
}

TEST_F(ServiceTest, DoesNotTellThePlugInOfACancelledRequestThatItNeverSaw) {
  getAndHoldUp();
  EXPECT_TRUE(m_service->Cancel(set()));
  EXPECT_THAT(m_replies.Get(), ElementsAre(kCancelled));
  set({{"last", 1}});
  m_proceed.Open();
  ASSERT_TRUE(waitForCount<2>(m_calls));
  EXPECT_THAT(m_calls.Get()[1].names, ElementsAre("last"));
}

TEST_F(ServiceTest, RepliesExactlyOnceWhenAllWaysOfEndingMeet) {
  constexpr int kRounds = 200;
  start({256, milliseconds(1)});
  std::vector<std::unique_ptr<std::atomic<int>>> replies;
  for (int i = 0; i < kRounds; ++i) {
    auto& count = *replies.emplace_back(std::make_unique<std::atomic<int>>(0));
    void* request = m_service->Get({"a"}, [&count](lumo_error, const auto&) { ++count; });
    std::thread canceller([&] { m_service->Cancel(request); });
    m_service->Answer(RequestKind::Get, request, 0, {});
    canceller.join();
  }
  m_service.reset();
  for (const auto& count : replies) EXPECT_EQ(*count, 1);
}

TEST_F(ServiceTest, CloseNeitherWaitsForACallbackNorLetsAnotherStart) {
  getAndHoldUp();
  m_service->Register("a", {1, 0, 0, ""});
  m_service->Get({"b"}, replyTo(m_replies));
  m_service->Close();  // the callback is still waiting
  EXPECT_FALSE(m_service->HasEnded());
  EXPECT_THAT(m_replies.Get(), ElementsAre(kServiceGone, kServiceGone));
  m_service->ReportProtocolStatus("mqtt", 1);
  EXPECT_EQ(set(), nullptr);
  EXPECT_EQ(m_replies.Get().back(), kServiceGone);
  EXPECT_EQ(m_service->Register("b", {1, 0, 0, ""}), kServiceGone);
  EXPECT_EQ(m_service->Unregister("a"), kServiceGone);
  EXPECT_EQ(m_service->Notify({{"a", 1}}), kServiceGone);
  m_proceed.Open();
  m_service.reset();
  EXPECT_THAT(kindsOfCalls(), ElementsAre("get"));
}

// Its caller may hold the lock, as a plug-in does that destroys its service.
TEST_F(ServiceTest, CloseDoesNotWaitForAStatusCallbackToWriteTheLastHealth) {
  const TemporaryFolder folder;
  start({}, {folder.Path() / "health", std::chrono::minutes(1), {}, {}});
  std::mutex lock;
  m_onStatus = [&lock] { const std::lock_guard<std::mutex> locked(lock); };
  std::unique_lock<std::mutex> locked(lock);
  m_service->ReportProtocolStatus("mqtt", 1);
  ASSERT_TRUE(waitForCount<1>(m_calls));

  const auto begin = CallbackThread::Clock::now();
  m_service->Close();
  EXPECT_LT(CallbackThread::Clock::now() - begin, Service::kClosingTime);
  EXPECT_EQ(folder.Read("health"), "");
  locked.unlock();
  m_service.reset();
  EXPECT_THAT(folder.Read("health"), ::testing::HasSubstr("\nappdatachannel_online 0\n"));
}

// A plug-in that answers nothing until the test does: requests that were cancelled while it held
// them. The limits are small.
class OverdueRequestsTest : public ServiceTest {
 protected:
  static constexpr ServiceLimits kLimits{2, std::chrono::hours(1), 100 * sizeof(Property)};

  // Null when it was refused; otherwise it has been delivered.
  void* deliver(std::size_t properties = 0) {
    void* const request = m_service->Set(Properties(properties, Property{}), replyTo(m_replies));
    if (request == nullptr) return nullptr;
    EXPECT_TRUE(m_calls.WaitFor([request](const auto& calls) {
      return std::any_of(calls.begin(), calls.end(),
                         [request](const Call& call) { return call.request == request; });
    }));
    return request;
  }
  lumo_error answer(void* request) { return m_service->Answer(RequestKind::Set, request, 0, {}); }
};

TEST_F(OverdueRequestsTest, PlacesOfRequestsThatTimedOutAreTakenUntilThePlugInGetsBeyondThem) {
  start({3, kTimeForDelivery});
  deliver();
  deliver();
  ASSERT_TRUE(waitForCount<2>(m_replies));
  void* const later = deliver();
  ASSERT_NE(later, nullptr);
  EXPECT_EQ(deliver(), nullptr);
  EXPECT_THAT(m_replies.Get(), ElementsAre(kTimedOut, kTimedOut, kBusy));
  EXPECT_EQ(answer(later), kSuccess);
  for (int i = 0; i < 3; ++i) EXPECT_NE(deliver(), nullptr);
}

// "in:50" and "busy:50" are requests of 50 properties that are delivered and refused, "cancel:0",
// "answer:0" and "late:0" what becomes of the one that was delivered as number 0.
struct OverdueScript {
  const char* rule;
  std::size_t places;
  const char* script;
};

const std::vector<OverdueScript> kOverdueScripts = {
    {"a late answer frees its place and those of earlier requests", 4,
     "in:0 cancel:0 in:0 cancel:1 in:0 cancel:2 in:0 busy:0 late:1 in:0 in:0 busy:0 late:1 busy:0"},
    {"a request that the plug-in has got beyond leaves at once", 2,
     "in:100 in:0 answer:1 cancel:0 in:50 in:50"},
    {"a probe is let in when only overdue requests are left", 2,
     "in:0 cancel:0 in:0 busy:0 cancel:1 in:0 busy:0"},
    {"an answer to a probe frees all", 2,
     "in:50 cancel:0 in:50 cancel:1 in:50 answer:2 in:50 in:50 busy:0"},
    {"there is one probe per time-out, though it is cancelled", 2,
     "in:0 cancel:0 in:0 cancel:1 in:0 cancel:2 busy:0 busy:0 busy:0"},
    {"bytes of overdue requests are limited", 10, "in:60 cancel:0 in:40 busy:1 answer:1 in:100"},
    {"a single request fits, however long it is", 2,
     "in:1000 answer:0 in:1000 answer:1 in:1000 answer:2"}};

TEST_F(OverdueRequestsTest, TakePlacesAndBytesByTheseRules) {
  for (const OverdueScript& script : kOverdueScripts) {
    start({script.places, std::chrono::hours(1), kLimits.unansweredBytes});
    std::vector<void*> delivered;
    std::istringstream steps(script.script);
    for (std::string step; steps >> step;) {
      SCOPED_TRACE(std::string(script.rule) + ", " + step);
      const std::string verb = step.substr(0, step.find(':'));
      const std::size_t number = std::stoul(step.substr(verb.size() + 1));
      if (verb == "in") {
        delivered.push_back(deliver(number));
        ASSERT_NE(delivered.back(), nullptr);
      } else if (verb == "busy") {
        ASSERT_EQ(deliver(number), nullptr);
      } else if (verb == "cancel") {
        ASSERT_TRUE(m_service->Cancel(delivered.at(number)));
      } else {
        ASSERT_EQ(answer(delivered.at(number)), verb == "late" ? kUnknownHandle : kSuccess);
      }
    }
  }
}

TEST_F(OverdueRequestsTest, ARequestThatThePlugInNeverSawLeavesAtOnce) {
  start(kLimits);
  m_onSet = [this] { EXPECT_TRUE(m_proceed.Wait()); };
  EXPECT_NE(deliver(), nullptr);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(m_service->Cancel(set({{"a", Bytes{"x"}}})));
  }
  m_proceed.Open();
}

TEST_F(OverdueRequestsTest, RequestsThatAreNeverAnsweredDoNotCloseTheServiceForEver) {
  start({1, milliseconds(200)});
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_NE(set(), nullptr);
    ASSERT_TRUE(m_replies.WaitFor([i](const auto& codes) { return codes.size() > i; }));
  }
  EXPECT_THAT(m_replies.Get(), ::testing::Each(kTimedOut));
}

TEST_F(OverdueRequestsTest, BytesOfWaitingRequestsAreLimited) {
  const auto setOf = [this](std::size_t bytes) { return set({{"", std::string(bytes, 'x')}}); };
  start({10, std::chrono::hours(1), 100 + 6 * sizeof(Property)});
  void* const first =
      m_service->Set({{"0123456789", std::string(10, 'x')}, {"0123456789", JsonText{"0123456789"}}},
                     replyTo(m_replies));
  EXPECT_NE(set({{"", Bytes{std::string(10, 'x')}}}), nullptr);
  EXPECT_NE(m_service->Get({std::string(20, 'x'), std::string(10, 'x')}, replyTo(m_replies)),
            nullptr);
  EXPECT_EQ(setOf(21), nullptr);
  EXPECT_THAT(m_replies.Get(), ElementsAre(kBusy));
  EXPECT_NE(setOf(20), nullptr);
  EXPECT_EQ(deliver(1), nullptr);
  EXPECT_EQ(answer(first), kSuccess);
  EXPECT_EQ(setOf(41 + sizeof(Property)), nullptr);
  EXPECT_NE(setOf(40 + sizeof(Property)), nullptr);
}

}  // namespace
