// Services through the C interface.
#include "lumo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "CapturedLog.h"
#include "Gate.h"
#include "Refused.h"
#include "WaitUntil.h"
#include "Watched.h"
#include "api/Library.h"

namespace {

using namespace std::string_literals;
using Lumo::Library;
using Lumo::Properties;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

lumo_string text(const std::string& string) {
  return lumo_string_new(string.data(), string.size());
}

const lumo_string kNothing{nullptr, 0};

void ignoreStatus(void*, lumo_string, lumo_protocol_status, void*) {}
void ignoreCancel(void*, void*, void*) {}

using Replies = Watched<std::vector<lumo_error>>;

Lumo::Reply replyTo(Replies& replies) {
  return [&replies](lumo_error code, const std::optional<Properties>&) {
    replies.Change([code](auto& codes) { codes.push_back(code); });
  };
}

std::ptrdiff_t countThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

// A service whose request callbacks run `onRequest`, when it is set.
class LumoTest : public ::testing::Test {
 protected:
  LumoTest() {
    CapturedLog::Get().Take();
    start();
  }
  ~LumoTest() override {
    if (m_service != nullptr) destroy();
    // The callbacks that still run use this object.
    Library::Get().Shutdown();
  }

  void* create(lumo_string name, lumo_get_property_cb getCallback = onRequest) {
    return lumo_service_create(name, text("description"), ignoreStatus, getCallback, onRequest,
                               ignoreCancel, this);
  }
  // There is no broker here, and the log says so.
  void start() {
    m_service = create(text("name"));
    ASSERT_NE(m_service, nullptr);
    const std::vector<CapturedLog::Line> lines = CapturedLog::Get().Take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].priority, 5);
    EXPECT_EQ(lines[0].message, "LUMO_BROKER is not set: nothing goes out\n");
  }
  lumo_error destroy() { return lumo_service_destroy(std::exchange(m_service, nullptr)); }

  void* get(const std::vector<std::string>& names) {
    return Library::Get().FindService(m_service)->Get(names, replyTo(m_replies));
  }
  void* set(Properties properties) {
    return Library::Get().FindService(m_service)->Set(std::move(properties), replyTo(m_replies));
  }

  lumo_error registerString(const std::string& name) {
    return lumo_service_register_property(m_service, text(name), LUMO_PROPERTY_TYPE_STRING, 0, 0,
                                          text(""));
  }

  static void* newList(const std::string& name, const std::string& value) {
    void* list = lumo_property_list_create();
    void* property = lumo_property_create_string(text(name), text(value));
    EXPECT_EQ(lumo_property_list_push_property(list, property, 0), 0);
    return list;
  }
  static bool isFreed(void* list) { return Library::Get().FindList(list) == nullptr; }

  static void onRequest(void* service, void* request, void* list, void* userData) {
    auto* test = static_cast<LumoTest*>(userData);
    if (test->m_onRequest) test->m_onRequest(service, request, list);
  }

  void* m_service = nullptr;
  std::function<void(void* service, void* request, void* list)> m_onRequest;
  Replies m_replies;
};

TEST_F(LumoTest, AStringIsAView) {
  const std::string original("a\0b", 3);
  const lumo_string view = text(original);
  EXPECT_EQ(view.data, original.data());
  EXPECT_EQ(view.length, 3U);
}

TEST_F(LumoTest, CreatesAServiceWithItsNameAndDescription) {
  EXPECT_EQ(Library::Get().FindService(m_service)->Name(), "name");
  EXPECT_EQ(Library::Get().FindService(m_service)->Description(), "description");
  EXPECT_THAT(CapturedLog::Get().Take(), IsEmpty());
}

TEST_F(LumoTest, RefusesAServiceWithoutACallbackOrAName) {
  EXPECT_TRUE(Refused(create(text("other"), nullptr)));
  EXPECT_TRUE(Refused(create(kNothing)));
}

TEST_F(LumoTest, RefusesAServiceWhoseNameCannotBePartOfATopic) {
  for (const std::string& name :
       {""s, "a/b"s, "a+"s, "#"s, "a\0b"s, "\xFF"s, "a\nb"s, std::string(257, 'a')}) {
    EXPECT_TRUE(Refused(create(text(name)))) << name;
  }
}

TEST_F(LumoTest, RefusesASecondServiceOfTheSameName) {
  EXPECT_TRUE(Refused(create(text("name"))));
  void* other = create(text("other"));
  EXPECT_NE(other, nullptr);
  EXPECT_EQ(lumo_service_destroy(other), 0);
  EXPECT_EQ(destroy(), 0);
  CapturedLog::Get().Take();
  start();
}

TEST_F(LumoTest, RegistersAndUnregistersProperties) {
  EXPECT_EQ(registerString("a"), 0);
  EXPECT_TRUE(Library::Get().FindService(m_service)->FindRegistration("a"));
  EXPECT_TRUE(Refused(registerString("a")));
  EXPECT_TRUE(Refused(registerString("a/b")));
  EXPECT_TRUE(Refused(lumo_service_register_property(m_service, kNothing, 3, 0, 0, text(""))));
  EXPECT_TRUE(Refused(lumo_service_register_property(m_service, text("b"), -1, 0, 0, text(""))));
  EXPECT_EQ(lumo_service_unregister_property(m_service, text("a")), 0);
  EXPECT_FALSE(Library::Get().FindService(m_service)->FindRegistration("a"));
}

TEST_F(LumoTest, UnregistersAlsoWhatIsNotRegistered) {
  registerString("kept");
  for (const char* name : {"a", "", "a/b", "#"}) {
    EXPECT_EQ(lumo_service_unregister_property(m_service, text(name)), 0);
    EXPECT_THAT(CapturedLog::Get().Take(), IsEmpty());
  }
  EXPECT_TRUE(Library::Get().FindService(m_service)->FindRegistration("kept"));
  EXPECT_EQ(lumo_service_unregister_property(m_service, {nullptr, 1}), Lumo::kInvalidArgument);
  EXPECT_TRUE(LoggedAnError());
  EXPECT_EQ(lumo_service_unregister_property(nullptr, text("a")), Lumo::kUnknownHandle);
  EXPECT_TRUE(LoggedAnError());
}

TEST_F(LumoTest, TakesANotifiedList) {
  registerString("a");
  void* list = newList("a", "value");
  EXPECT_EQ(lumo_service_notify(m_service, list), 0);
  EXPECT_TRUE(isFreed(list));
  const auto notified = Library::Get().FindService(m_service)->FindNotified("a");
  ASSERT_TRUE(notified);
  EXPECT_EQ(std::get<std::string>(notified->value), "value");
}

TEST_F(LumoTest, FreesAListThatItRefuses) {
  const std::function<lumo_error(void*)> calls[] = {
      [this](void* list) { return lumo_service_notify(m_service, list); },  // not registered
      [](void* list) { return lumo_service_notify(nullptr, list); },
      [this](void* list) {
        return lumo_service_send_get_property_result(m_service, nullptr, list, 0);
      },
      [](void* list) { return lumo_service_send_set_property_result(nullptr, nullptr, list, 0); }};
  for (const auto& call : calls) {
    void* const list = newList("a", "value");
    EXPECT_NE(call(list), 0);
    EXPECT_TRUE(isFreed(list));
  }
}

TEST_F(LumoTest, PassesAnAnswerOn) {
  Watched<std::vector<std::string>> answer;
  void* request = Library::Get().FindService(m_service)->Get(
      {"a"}, [&](lumo_error code, const std::optional<Properties>& properties) {
        answer.Change([&](auto& lines) {
          lines.push_back(std::to_string(code));
          lines.push_back(std::get<std::string>(properties.value().at(0).value));
        });
      });
  void* list = newList("a", "value");
  EXPECT_EQ(lumo_service_send_get_property_result(m_service, request, list, 6), 0);
  EXPECT_TRUE(isFreed(list));
  EXPECT_THAT(answer.Get(), ElementsAre("6", "value"));
}

TEST_F(LumoTest, IgnoresALateAnswerAndFreesItsList) {
  void* request = set({});
  EXPECT_TRUE(Library::Get().FindService(m_service)->Cancel(request));
  void* list = newList("a", "value");
  EXPECT_TRUE(Refused(lumo_service_send_set_property_result(m_service, request, list, 0)));
  EXPECT_TRUE(isFreed(list));
  EXPECT_THAT(m_replies.Get(), ElementsAre(Lumo::kCancelled));
}

TEST_F(LumoTest, AnAnswerWithoutAListIsRefusedAndMayBeRepeated) {
  void* request = set({});
  EXPECT_TRUE(Refused(lumo_service_send_set_property_result(m_service, request, nullptr, 0)));
  EXPECT_EQ(lumo_service_send_set_property_result(m_service, request, newList("a", ""), 0), 0);
  EXPECT_THAT(m_replies.Get(), ElementsAre(0));
}

TEST_F(LumoTest, ACallbacksListIsTheLibrarysOwn) {
  Gate done;
  m_onRequest = [&](void* service, void* request, void* list) {
    void* property = lumo_property_create_bool(text("b"), true);
    EXPECT_TRUE(Refused(lumo_property_list_push_property(list, property, 0)));
    EXPECT_TRUE(Refused(lumo_service_send_set_property_result(service, request, list, 0)));
    EXPECT_NE(lumo_property_list_get_first(list), nullptr);
    void* own = lumo_property_list_create();
    EXPECT_EQ(lumo_property_list_push_property(own, property, 0), 0);
    EXPECT_EQ(lumo_service_send_set_property_result(service, request, own, 0), 0);
    done.Open();
  };
  set({{"a", 1}});
  ASSERT_TRUE(done.Wait());
  EXPECT_THAT(m_replies.Get(), ElementsAre(0));
}

TEST_F(LumoTest, RefusesHandlesThatAreNoService) {
  void* destroyed = m_service;
  EXPECT_EQ(destroy(), 0);
  void* list = newList("a", "");
  for (void* wrong :
       {static_cast<void*>(nullptr), destroyed, list, lumo_property_list_get_first(list)}) {
    EXPECT_TRUE(Refused(lumo_service_destroy(wrong)));
    EXPECT_TRUE(Refused(lumo_service_register_property(wrong, text("a"), 3, 0, 0, text(""))));
    EXPECT_TRUE(Refused(lumo_service_unregister_property(wrong, text("a"))));
  }
  EXPECT_NE(lumo_service_notify(destroyed, list), 0);
  EXPECT_TRUE(isFreed(list));
}

TEST_F(LumoTest, DestroyEndsPendingRequests) {
  get({"a"});
  set({});
  destroy();
  EXPECT_THAT(m_replies.Get(), ElementsAre(Lumo::kServiceGone, Lumo::kServiceGone));
}

TEST_F(LumoTest, DestroyMayBeCalledWithALockThatACallbackWants) {
  std::mutex mutex;
  Gate started;
  Gate finished;
  m_onRequest = [&](void*, void*, void*) {
    started.Open();
    std::lock_guard<std::mutex> lock(mutex);
    finished.Open();
  };
  {
    std::unique_lock<std::mutex> lock(mutex);
    get({"a"});
    ASSERT_TRUE(started.Wait());
    EXPECT_EQ(destroy(), 0);
    // The next one does not wait for the callback either.
    start();
    EXPECT_EQ(destroy(), 0);
  }
  EXPECT_TRUE(finished.Wait());
  Library::Get().Shutdown();  // the callback does not use the mutex any more
}

TEST_F(LumoTest, DestroyMayBeCalledFromACallback) {
  Gate bothMade;
  Gate done;
  m_onRequest = [&](void* service, void* request, void*) {
    EXPECT_TRUE(bothMade.Wait());
    EXPECT_EQ(lumo_service_destroy(service), 0);
    EXPECT_NE(lumo_service_send_get_property_result(service, request, newList("a", ""), 0), 0);
    done.Open();
  };
  get({"a"});
  get({"never delivered"});
  bothMade.Open();
  ASSERT_TRUE(done.Wait());
  m_service = nullptr;
  EXPECT_THAT(m_replies.Get(), ElementsAre(Lumo::kServiceGone, Lumo::kServiceGone));
}

TEST_F(LumoTest, ThreadsOfADestroyedServiceAreJoinedByALaterCall) {
  destroy();
  Library::Get().Shutdown();
  const auto before = countThreads();
  // One that ends late, by a callback that is held up.
  Gate started;
  Gate proceed;
  m_onRequest = [&](void*, void*, void*) {
    started.Open();
    EXPECT_TRUE(proceed.Wait());
  };
  start();
  get({"a"});
  ASSERT_TRUE(started.Wait());
  destroy();
  proceed.Open();
  EXPECT_TRUE(WaitUntil([&] {
    start();
    destroy();
    return countThreads() <= before + 2;  // those of the service just destroyed
  }));
  Library::Get().Shutdown();
  EXPECT_TRUE(WaitUntil([&] { return countThreads() == before; }));
}

TEST_F(LumoTest, ServicesComeAndGoOnSeveralThreads) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads(4);
  for (std::size_t i = 0; i < threads.size(); ++i) {
    threads[i] = std::thread([&, name = std::to_string(i)] {
      for (int round = 0; round < 50; ++round) {
        void* service = create(text(name));
        const auto found = Library::Get().FindService(service);
        if (found == nullptr || found->Get({"a"}, replyTo(m_replies)) == nullptr) ++failures;
        if (lumo_service_destroy(service) != 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(m_replies.Get().size(), 200U);
}

}  // namespace
