// A bus that does not read. Compiled without access control: checks what the server waits for.
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string_view>

#include "DBusServerTest.h"
#include "MainLoopThread.h"
#include "NoThreads.h"

namespace {

using AppDataChannel::BusBacklog;

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
constexpr std::chrono::hours kForever(1);

// Drops the bus's next answer with a string on its way to this process, as a bus does itself that
// has more for a process than its limits allow. One at a time.
class LostAnswer {
 public:
  explicit LostAnswer(GDBusConnection* connection)
      : m_connection(static_cast<GDBusConnection*>(g_object_ref(connection))),
        m_filter(
            g_dbus_connection_add_filter(connection, &LostAnswer::on_message, nullptr, nullptr)) {
    s_lost = false;
  }
  ~LostAnswer() { g_dbus_connection_remove_filter(m_connection.get(), m_filter); }
  LostAnswer(const LostAnswer&) = delete;
  LostAnswer& operator=(const LostAnswer&) = delete;

  bool IsLost() const { return s_lost; }

 private:
  // On a thread of GDBus, perhaps after the filter was removed.
  static GDBusMessage* on_message(GDBusConnection* /*connection*/, GDBusMessage* message,
                                  gboolean isIncoming, gpointer /*userData*/) {
    const bool isAnswer =
        isIncoming != FALSE &&
        g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_RETURN &&
        std::string_view(g_dbus_message_get_sender(message)) == "org.freedesktop.DBus" &&
        std::string_view(g_dbus_message_get_signature(message)) == "s";
    if (!isAnswer || s_lost.exchange(true)) return message;
    g_object_unref(message);
    return nullptr;
  }

  inline static std::atomic<bool> s_lost{false};
  const AppDataChannel::ConnectionPtr m_connection;
  const guint m_filter;
};

class DBusServerBacklogTest : public ReadyDBusServerTest {
 protected:
  void TearDown() override {
    Bus().Thaw();
    client.reset();
    ReadyDBusServerTest::TearDown();
  }

  bool WaitUntilAsking(bool isAsking = true) {
    return platform.WaitUntil([this, isAsking] {
      const std::lock_guard<std::mutex> lock(server.m_unread_events.m_mutex);
      return server.m_unread_events.m_isAsking == isAsking;
    });
  }

  // Stops the bus and sends as much as the server takes without waiting.
  void FillTheBacklog() {
    Bus().Freeze();
    for (std::size_t i = 1; i < BusBacklog::kLimit / kMebibyte; ++i) {
      ASSERT_EQ(0, server.SendSetRequest("qz", data));
    }
    platform.ClearTrace();
  }

  // An event on a thread of its own that waits for the bus.
  std::future<int> SendWaiting() {
    auto result = std::async(std::launch::async, [this] {
      sender = std::this_thread::get_id();
      return server.SendSetRequest("qz", data + "!");
    });
    EXPECT_TRUE(WaitUntilAsking());
    return result;
  }

  void LoseBus() {
    ReleaseShared();
    Bus().Kill();
  }

  const std::string data = std::string(kMebibyte, 'x');
  const Lines dataLine{kServer.Info("SendSetRequest", "[qz] data: " + data + "!")};
  std::thread::id sender;
  BusBacklog& replies = server.m_unread_replies;
};

TEST_F(DBusServerBacklogTest, AnEventWaitsWithoutTheLockUntilTheBusHasReadWhatWasSent) {
  FillTheBacklog();
  std::future<int> result = SendWaiting();
  EXPECT_EQ(dataLine, Written(sender));
  std::thread([this] {
    const std::unique_lock<std::recursive_mutex> lock(server.m_mutex, std::try_to_lock);
    EXPECT_TRUE(lock.owns_lock());
  }).join();

  Bus().Thaw();
  EXPECT_EQ(0, result.get());
  EXPECT_EQ("send_event('qz', '" + data + "!')", Received(BusBacklog::kLimit / kMebibyte).back());
}

TEST_F(DBusServerBacklogTest, ToAskTheBusTakesNoDescriptor) {
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  rlimit none = before;
  const int lowest = eventfd(0, EFD_CLOEXEC);
  ASSERT_EQ(0, close(lowest));
  none.rlim_cur = static_cast<rlim_t>(lowest);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
  const int noDescriptor = eventfd(0, EFD_CLOEXEC);
  // More than the limit, so that the bus is asked.
  const std::string half(BusBacklog::kLimit / 2, 'x');
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, server.SendSetRequest("qz", half));
  const std::size_t read = server.m_unread_events.m_read;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_EQ(-1, noDescriptor);
  EXPECT_GT(read, half.size());
  EXPECT_EQ(3U, Received(3).size());
}

TEST_F(DBusServerBacklogTest, AConnectionChangeWaitsAsWell) {
  Bus().Freeze();
  ASSERT_EQ(0, server.SendSetRequest("qz", std::string(BusBacklog::kLimit, 'x')));
  auto result =
      std::async(std::launch::async, [this] { return server.SendCloudConnectionChange(true); });
  EXPECT_TRUE(WaitUntilAsking());
  EXPECT_EQ(0U, platform.CountLogs("try to emit signal: cloud_connection_changed"));
  Bus().Thaw();
  EXPECT_EQ(0, result.get());
}

TEST_F(DBusServerBacklogTest, AStopEndsTheWaitAndTheEventIsNotSent) {
  FillTheBacklog();
  std::future<int> result = SendWaiting();
  auto stop = std::async(std::launch::async, [this] { server.Deinit(); });
  // Before the bus has read anything, and so not for that reason.
  EXPECT_TRUE(WaitUntilAsking(false));
  Bus().Thaw();
  stop.get();
  EXPECT_EQ(-9, result.get());
  EXPECT_EQ(dataLine + Lines{kServer.Error("SendSetRequest", "not initialized")}, Written(sender));
}

TEST_F(DBusServerBacklogTest, ALostBusEndsTheWaitAndTheEventFails) {
  FillTheBacklog();
  std::future<int> result = SendWaiting();
  LoseBus();
  EXPECT_EQ(-100, result.get());
  EXPECT_EQ(dataLine + EmitLines("send_event", "fail") +
                Lines{kServer.Error("send_event", "[qz] fail to send data to app")},
            Written(sender));
}

TEST_F(DBusServerBacklogTest, AStoppedServerLetsNothingWaitAndTheNextStartBeginsWithNothing) {
  FillTheBacklog();
  Bus().Thaw();
  server.Deinit();
  Bus().Freeze();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(-9, server.SendSetRequest("qz", data));
  Bus().Thaw();
  StartServer();
  FillTheBacklog();
}

TEST_F(DBusServerBacklogTest, AnEventLongerThanTheLimitIsSentAlone) {
  const std::string longer(BusBacklog::kLimit + 1, 'x');
  EXPECT_EQ(0, server.SendSetRequest("qz", longer));
  EXPECT_EQ(0, server.SendSetRequest("qz", longer));
  EXPECT_EQ(2U, Received(2).size());
}

TEST_F(DBusServerBacklogTest, WhenTheAnswerOfTheBusIsLostTheBusIsAskedAgain) {
  const LostAnswer lost(server.m_connection);
  const std::string longer(BusBacklog::kLimit + 1, 'x');
  EXPECT_EQ(0, server.SendSetRequest("qz", longer));
  EXPECT_EQ(0, server.SendSetRequest("qz", longer));
  EXPECT_TRUE(lost.IsLost());
  EXPECT_EQ(2U, Received(2).size());
}

TEST_F(DBusServerBacklogTest, TwoThousandShortEventsAskTheBusNothing) {
  constexpr std::size_t kEvents = 2000;
  const std::size_t read = server.m_unread_events.m_read;
  for (std::size_t i = 0; i < kEvents; ++i) EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  EXPECT_EQ(read, server.m_unread_events.m_read);
  EXPECT_EQ(kEvents, Received(kEvents).size());
}

TEST_F(DBusServerBacklogTest, TenThousandShortEventsAreHeldUpByABusThatDoesNotReadThem) {
  constexpr std::size_t kEvents = 10'000;
  Bus().Freeze();
  auto sends = std::async(std::launch::async, [this] {
    for (std::size_t i = 0; i < kEvents; ++i) EXPECT_EQ(0, server.SendSetRequest("qz", "1"));
  });
  EXPECT_TRUE(WaitUntilAsking());
  EXPECT_LT(platform.CountLogs("success to emit signal: send_event"), kEvents);
  Bus().Thaw();
  sends.get();
  EXPECT_EQ(kEvents, Received(kEvents).size());
}

TEST_F(DBusServerBacklogTest, OnlyOneReplyWaitsInVainForABusThatDoesNotRead) {
  Bus().Freeze();
  EXPECT_TRUE(replies.AddInTime(BusBacklog::kLimit, kForever));
  EXPECT_FALSE(replies.AddInTime(0, std::chrono::milliseconds(1)));
  EXPECT_FALSE(replies.AddInTime(0, kForever));
  Bus().Thaw();
  EXPECT_TRUE(platform.WaitUntil([this] { return replies.m_read == replies.m_added; }));
  // The bus has answered: a reply waits again.
  Bus().Freeze();
  EXPECT_TRUE(replies.AddInTime(BusBacklog::kLimit, kForever));
  auto result = std::async(std::launch::async, [this] { return replies.AddInTime(0, kForever); });
  EXPECT_EQ(std::future_status::timeout, result.wait_for(std::chrono::milliseconds(20)));
  Bus().Thaw();
  EXPECT_TRUE(result.get());
}

TEST_F(DBusServerBacklogTest, TwoEventsThatWaitAtOnceAreBothSent) {
  FillTheBacklog();
  std::future<int> first = SendWaiting();
  std::future<int> second =
      std::async(std::launch::async, [this] { return server.SendSetRequest("qz", data + "?"); });
  EXPECT_EQ(std::future_status::timeout, second.wait_for(std::chrono::milliseconds(20)));
  Bus().Thaw();
  EXPECT_EQ(0, first.get());
  EXPECT_EQ(0, second.get());
}

TEST_F(DBusServerBacklogTest, NoReplyWaitsWhenNoThreadCanAskTheBus) {
  Bus().Freeze();
  {
    const NoThreads noThreads;
    EXPECT_TRUE(replies.AddInTime(BusBacklog::kLimit, kForever));
    EXPECT_FALSE(replies.AddInTime(0, kForever));
  }
  // The next one asks.
  auto result = std::async(std::launch::async, [this] { return replies.AddInTime(0, kForever); });
  Bus().Thaw();
  EXPECT_TRUE(result.get());
}

TEST_F(DBusServerBacklogTest, TheWaitOfAReplyEndsWhenTheBusHasReadTheOthersOrIsLostOrAtTheStop) {
  const std::function<void()> ends[] = {[] { Bus().Thaw(); }, [this] { replies.Close(); },
                                        [this] { LoseBus(); }};
  for (const auto& end : ends) {
    const bool isLost = &end == &ends[2];
    SCOPED_TRACE(&end - ends);
    StartServer();
    Bus().Freeze();
    EXPECT_TRUE(replies.AddInTime(BusBacklog::kLimit, kForever));
    auto result = std::async(std::launch::async, [this] { return replies.AddInTime(0, kForever); });
    end();
    EXPECT_EQ(!isLost, result.get());
    Bus().Thaw();
    server.Deinit();
  }
}

TEST_F(DBusServerBacklogTest, WithoutAConnectionNoReplyWaitsOrIsLost) {
  BusBacklog unopened;
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(unopened.AddInTime(BusBacklog::kLimit, kForever));
}

TEST_F(DBusServerBacklogTest, AReplyLongerThanTheLimitPassesAmongShortOnes) {
  constexpr int kCalls = 5;
  const std::string longer(BusBacklog::kLimit + 1, 'x');
  SetFromCloud({fake::Property::Json("signupInfo", "{\"id\":\"" + longer + "\"}")});
  const std::string expected = "('{\\n\\t\"id\" : \"" + longer + "\"\\n}\\n',)";
  MainLoopThread loop;
  for (int call = 0; call < kCalls; ++call) {
    EXPECT_EQ("(false,)", client->Call("get_cloud_connection").get().value);
    const Reply reply = client->Call("get_thing_information").get();
    EXPECT_TRUE(reply.value == expected) << "call " << call << ": " << reply.error;
    EXPECT_TRUE(platform.WaitUntil([this] { return replies.m_read == replies.m_added; }));
  }
}

TEST_F(DBusServerBacklogTest, MoreCallsAtOnceThanThereIsRoomForAreAllAnswered) {
  MainLoopThread loop;
  for (int call = 0; call < 3; ++call) {
    replies.Add(BusBacklog::kLimit);
    const Reply reply = client->Call("get_cloud_connection").get();
    EXPECT_EQ("(false,)", reply.value) << reply.error;
  }
  EXPECT_EQ(0U, platform.CountLogs("the bus does not read the replies"));
}

TEST_F(DBusServerBacklogTest, ACallWhoseReplyDoesNotFitIsNotAnsweredAndLaterOnesAre) {
  {
    const std::lock_guard<std::mutex> lock(replies.m_mutex);
    replies.m_waitedInVain = true;
    replies.m_threadAsks = true;  // and so no answer comes
  }
  replies.Add(BusBacklog::kLimit);
  MainLoopThread loop;
  auto refused = client->Call("get_cloud_connection", nullptr, std::chrono::seconds(1));
  EXPECT_TRUE(platform.WaitUntil(
      [this] { return platform.CountLogs("the bus does not read the replies") == 1; }));
  EXPECT_TRUE(LoggedOnce(kServer.Error("reply", "the bus does not read the replies")));
  EXPECT_EQ("", refused.get().value);
  {
    const std::lock_guard<std::mutex> lock(replies.m_mutex);
    replies.m_waitedInVain = false;
    replies.m_threadAsks = false;
  }
  EXPECT_EQ("(false,)", client->Call("get_cloud_connection").get().value);
}

}  // namespace
