// Compiled without access control: calls the server's callbacks as GDBus would never do, and holds
// the server's lock to keep them waiting.
#include <atomic>

#include "DBusServerTest.h"
#include "MainLoopThread.h"

namespace {

using AppDataChannel::DBusServer;
using Strings = std::vector<std::string>;

// An object on the shared connection whose calls go to a function of the test, which has to end the
// invocation.
class ForwardingObject {
 public:
  using Handler = std::function<void(const char* method, GVariant*, GDBusMethodInvocation*)>;
  static constexpr const char* kPath = "/forward";
  static constexpr const char* kForwardInterface = "test.forward";

  ForwardingObject(GDBusConnection* connection, Handler handler)
      : m_connection(connection), m_handler(std::move(handler)) {
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(
        "<node><interface name='test.forward'>"
        "<method name='no_such_method'><arg type='s' direction='in'/></method>"
        "<method name='register_app'><arg type='s' direction='in'/></method>"
        "</interface></node>",
        nullptr);
    m_id = g_dbus_connection_register_object(m_connection, kPath, node->interfaces[0], &kTable,
                                             this, nullptr, nullptr);
    g_dbus_node_info_unref(node);
  }
  ~ForwardingObject() { g_dbus_connection_unregister_object(m_connection, m_id); }
  ForwardingObject(const ForwardingObject&) = delete;
  ForwardingObject& operator=(const ForwardingObject&) = delete;

 private:
  static void HandleCall(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                         const gchar* /*path*/, const gchar* /*interface*/, const gchar* method,
                         GVariant* parameters, GDBusMethodInvocation* invocation,
                         gpointer userData) {
    static_cast<ForwardingObject*>(userData)->m_handler(method, parameters, invocation);
  }
  static const GDBusInterfaceVTable kTable;

  GDBusConnection* m_connection;
  Handler m_handler;
  guint m_id = 0;
};

const GDBusInterfaceVTable ForwardingObject::kTable = {
    &ForwardingObject::HandleCall, nullptr, nullptr, {nullptr}};

class DBusServerCallbacksTest : public DBusServerTest {
 protected:
  // Hands the invocation of a real call of `method` to `handler`, and expects that the caller gets
  // no reply and that the invocation is released.
  void ExpectReleasedWithoutReply(const std::string& method, ForwardingObject::Handler handler) {
    const auto client = NewClient();
    bool released = false;
    bool handled = false;
    const ForwardingObject object(Shared().Get(), [&](const char* name, GVariant* parameters,
                                                      GDBusMethodInvocation* invocation) {
      g_object_weak_ref(
          G_OBJECT(invocation),
          [](gpointer flag, GObject* /*object*/) { *static_cast<bool*>(flag) = true; }, &released);
      handler(name, parameters, invocation);
      handled = true;
    });
    auto pending = client->Call(method, g_variant_new("(s)", "qz"), BusClient::kCallLimit,
                                Shared().UniqueName(), ForwardingObject::kPath,
                                ForwardingObject::kForwardInterface);
    ASSERT_TRUE(RunUntil([&handled] { return handled; }));
    RunPending();
    EXPECT_TRUE(released);

    // A reply would have come before the reply to a later call.
    const Reply later =
        WaitFor(client->Call("Ping", nullptr, BusClient::kCallLimit, Shared().UniqueName(), "/",
                             "org.freedesktop.DBus.Peer"));
    EXPECT_EQ("()", later.value) << later.error;
    client->Close();
    const Reply reply = pending.get();
    EXPECT_EQ("", reply.value);
    EXPECT_EQ(0U, reply.error.find("local: ")) << reply.error;
  }

  void HandleCall(const char* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                  gpointer userData) {
    DBusServer::handle_method_call(Shared().Get(), ":1.0", kObjectPath, kInterface, method,
                                   parameters, invocation, userData);
  }

  const ExpectedLog nullLine = ServerError("handle_method_call", "this_obj or method_name is null");
};

TEST_F(DBusServerCallbacksTest, TheAcquiredCallbacksRefuseNull) {
  GDBusConnection* const connection = Shared().Get();
  const auto expectRefused = [this](const std::string& function, auto callback) {
    platform.ClearTrace();
    callback();
    EXPECT_TRUE(LoggedOnce(ServerError(function, "Invalid Param")));
    EXPECT_EQ(1U, SummariesOfThisThread().size());
  };
  expectRefused("on_bus_acquired",
                [&] { DBusServer::on_bus_acquired(nullptr, kBusName, &server); });
  expectRefused("on_bus_acquired",
                [&] { DBusServer::on_bus_acquired(connection, nullptr, &server); });
  expectRefused("on_bus_acquired",
                [&] { DBusServer::on_bus_acquired(connection, kBusName, nullptr); });
  expectRefused("on_name_acquired",
                [&] { DBusServer::on_name_acquired(nullptr, kBusName, &server); });
  expectRefused("on_name_acquired",
                [&] { DBusServer::on_name_acquired(connection, nullptr, &server); });
  expectRefused("on_name_acquired",
                [&] { DBusServer::on_name_acquired(connection, kBusName, nullptr); });
}

TEST_F(DBusServerCallbacksTest, TheAcquiredCallbacksDoNothingOnceTheServerIsStopped) {
  DBusServer::on_bus_acquired(Shared().Get(), kBusName, &server);
  DBusServer::on_name_acquired(Shared().Get(), kBusName, &server);
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(std::nullopt, platform.Setting(kStatusKey));
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
}

TEST_F(DBusServerCallbacksTest, AMethodCallWithoutAnInvocationIsOnlyLogged) {
  GVariant* const parameters = g_variant_ref_sink(g_variant_new("(s)", "qz"));
  HandleCall("register_app", parameters, nullptr, &server);
  g_variant_unref(parameters);
  EXPECT_TRUE(LoggedOnce(nullLine));
  EXPECT_EQ(1U, SummariesOfThisThread().size());
}

TEST_F(DBusServerCallbacksTest, AMethodCallWithoutAServerGetsNoReplyAndIsReleased) {
  ExpectReleasedWithoutReply("register_app", [this](auto method, auto parameters, auto invocation) {
    HandleCall(method, parameters, invocation, nullptr);
  });
  EXPECT_TRUE(LoggedOnce(nullLine));
}

TEST_F(DBusServerCallbacksTest, AMethodCallWithoutANameGetsNoReplyAndIsReleased) {
  ExpectReleasedWithoutReply("register_app", [this](auto, auto parameters, auto invocation) {
    HandleCall(nullptr, parameters, invocation, &server);
  });
  EXPECT_TRUE(LoggedOnce(nullLine));
}

TEST_F(DBusServerCallbacksTest, AMethodCallWithoutParametersGetsNoReplyAndIsReleased) {
  ExpectReleasedWithoutReply("register_app", [this](auto method, auto, auto invocation) {
    HandleCall(method, nullptr, invocation, &server);
  });
  EXPECT_TRUE(LoggedOnce(nullLine));
}

TEST_F(DBusServerCallbacksTest, AnUnsupportedMethodGetsNoReplyAndIsReleased) {
  StartServer();
  ExpectReleasedWithoutReply("no_such_method",
                             [this](auto method, auto parameters, auto invocation) {
                               HandleCall(method, parameters, invocation, &server);
                             });
  EXPECT_TRUE(LoggedOnce(ServerError("handle_method_call", "unsupported method: no_such_method")));
  EXPECT_EQ(1U, SummariesOfThisThread().size());
}

TEST_F(DBusServerCallbacksTest, AStoppedServerKnowsNoMethod) {
  StartServer();
  server.Deinit();
  platform.ClearTrace();
  ExpectReleasedWithoutReply("register_app", [this](auto method, auto parameters, auto invocation) {
    HandleCall(method, parameters, invocation, &server);
  });
  EXPECT_TRUE(LoggedOnce(ServerError("handle_method_call", "unsupported method: register_app")));
  EXPECT_EQ(1U, SummariesOfThisThread().size());
}

TEST_F(DBusServerCallbacksTest, EachMethodNameHasItsType) {
  const auto typeOf = [this](std::string name) -> int { return server.convert_method(name); };
  EXPECT_EQ(999, typeOf("register_app"));
  server.make_method_map();
  server.make_method_map();
  EXPECT_EQ(5U, server.m_method_map.size());
  EXPECT_EQ(0, typeOf("register_app"));
  EXPECT_EQ(1, typeOf("unregister_app"));
  EXPECT_EQ(2, typeOf("send_data"));
  EXPECT_EQ(3, typeOf("get_cloud_connection"));
  EXPECT_EQ(4, typeOf("get_thing_information"));
  for (const char* name : {"", "get_thing_info", "send_dat", "send_data ", "SEND_DATA"}) {
    EXPECT_EQ(999, typeOf(name)) << name;
  }
  server.Deinit();
  EXPECT_TRUE(server.m_method_map.empty());
}

TEST_F(DBusServerCallbacksTest, ASignalWithoutAConnectionLeavesItsParametersToTheCaller) {
  GVariant* const parameters = g_variant_new("(b)", TRUE);
  EXPECT_FALSE(server.emit_signal("some_signal", parameters));
  EXPECT_TRUE(LoggedOnce(ServerError("emit_signal", "dbus not ready")));
  EXPECT_EQ(1U, SummariesOfThisThread().size());
  EXPECT_TRUE(g_variant_is_floating(parameters));
  g_variant_unref(parameters);
}

TEST_F(DBusServerCallbacksTest, ReadinessDoesNotDependOnTheObject) {
  gio.Fail(FaultyGio::kRegisterObject, FaultyGio::Report::kError);
  EXPECT_FALSE(server.isInit());
  ASSERT_TRUE(server.Init());
  EXPECT_FALSE(server.isInit());
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(0U, server.m_registration_id);
  EXPECT_TRUE(server.isInit());
  server.Deinit();
  EXPECT_FALSE(server.isInit());
}

TEST_F(DBusServerCallbacksTest, HoldsTheNodeDataFromTheStartAndTheConnectionFromTheNameToTheStop) {
  GDBusConnection* const none = nullptr;
  ASSERT_TRUE(server.Init());
  const GDBusNodeInfo* const node = server.m_node_info;
  ASSERT_NE(nullptr, node);
  EXPECT_STREQ(kObjectPath, node->path);
  EXPECT_EQ(none, server.m_connection);
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(Shared().Get(), server.m_connection);
  EXPECT_EQ(node, server.m_node_info);
  server.Deinit();
  EXPECT_EQ(none, server.m_connection);
  EXPECT_EQ(nullptr, server.m_node_info);
}

TEST_F(DBusServerCallbacksTest, AStopWhileTheBusCallbackWaitsForTheLockWins) {
  std::thread callback;
  {
    const std::lock_guard<std::recursive_mutex> lock(server.m_mutex);
    ASSERT_TRUE(server.Init());
    callback =
        std::thread([this] { DBusServer::on_bus_acquired(Shared().Get(), kBusName, &server); });
    EXPECT_TRUE(platform.WaitUntil([this] { return !platform.LogsOf("on_bus_acquired").empty(); }));
    server.Deinit();
  }
  callback.join();
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
  EXPECT_EQ(0U, server.m_registration_id);
  EXPECT_EQ(nullptr, server.m_registration_connection);
  EXPECT_EQ(0, platform.Setting(kStatusKey));
}

TEST_F(DBusServerCallbacksTest, AStopWhileTheNameCallbackWaitsForTheLockWins) {
  const auto owner = NewClient();
  ASSERT_EQ(1U, owner->RequestName(kBusName, 0));
  MainLoopThread loop;
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(platform.WaitUntil([&] { return owner->QueuedOwnersOf(kBusName).size() == 2; }));
  {
    const std::lock_guard<std::recursive_mutex> lock(server.m_mutex);
    ASSERT_EQ(1U, owner->ReleaseName(kBusName));
    ASSERT_TRUE(
        platform.WaitUntil([this] { return !platform.LogsOf("on_name_acquired").empty(); }));
    server.Deinit();
  }
  loop.Drain();
  EXPECT_EQ(nullptr, server.m_connection);
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(0, platform.Setting(kStatusKey));
  EXPECT_EQ("", owner->OwnerOf(kBusName));
}

TEST_F(DBusServerCallbacksTest, StopsAtAnyMomentWhileAnotherThreadTurnsTheMainLoop) {
  constexpr int kRounds = 60;
  MainLoopThread loop;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(server.Init());
    // The stop comes at once, when the bus has been acquired, or when the server is ready.
    if (round % 3 == 1) {
      ASSERT_TRUE(
          platform.WaitUntil([this] { return !platform.LogsOf("on_bus_acquired").empty(); }));
    } else if (round % 3 == 2) {
      ASSERT_TRUE(WaitUntilReady());
    }
    server.Deinit();
    EXPECT_EQ(0, platform.Setting(kStatusKey));
    loop.Drain();
    platform.ClearTrace();
  }
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ("(false,)", NewClient()->Call("get_cloud_connection").get().value);
  server.Deinit();
  loop.Drain();
  EXPECT_EQ("", NewClient()->OwnerOf(kBusName));
}

TEST_F(DBusServerCallbacksTest, RestartsAtOnceWhileAnotherThreadTurnsTheMainLoop) {
  constexpr int kRounds = 60;
  MainLoopThread loop;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(server.Init());
    if (round % 2 == 1) {
      ASSERT_TRUE(
          platform.WaitUntil([this] { return !platform.LogsOf("on_bus_acquired").empty(); }));
    }
    server.Deinit();
    platform.ClearTrace();
  }
  ASSERT_TRUE(server.Init());
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ("(false,)", NewClient()->Call("get_cloud_connection").get().value);
  server.Deinit();
  loop.Drain();
  EXPECT_EQ("", NewClient()->OwnerOf(kBusName));
}

TEST_F(DBusServerCallbacksTest, CallsDuringStopsAndStartsAllEnd) {
  constexpr int kRounds = 20;
  constexpr int kCallers = 4;
  // A call that the server has accepted and no longer knows gets no reply: it ends by this limit.
  constexpr std::chrono::seconds kLimit(1);
  std::atomic<bool> stop{false};
  std::atomic<unsigned> answered{0};
  MainLoopThread loop;
  std::vector<std::thread> callers;
  for (int i = 0; i < kCallers; ++i) {
    callers.emplace_back([&] {
      const auto client = NewClient();
      while (!stop) {
        const Reply reply =
            client->Call("register_app", g_variant_new("(s)", "nobody"), kLimit).get();
        if (reply.value == "(-20,)") ++answered;
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    EXPECT_TRUE(server.Init());
    EXPECT_TRUE(WaitUntilReady());
    const unsigned before = answered;
    EXPECT_TRUE(platform.WaitUntil([&] { return answered > before; }));
    server.Deinit();
  }
  stop = true;
  for (std::thread& caller : callers) caller.join();
  loop.Drain();
}

}  // namespace
