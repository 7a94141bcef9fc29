// Compiled without access control: calls the server's callbacks as GDBus would never do.
#include "DBusServerTest.h"

namespace {

using AppDataChannel::DBusServer;

constexpr const char* kForwardXml =
    "<node><interface name='test.forward'>"
    "<method name='no_such_method'><arg type='s' direction='in'/></method>"
    "<method name='register_app'><arg type='s' direction='in'/></method>"
    "</interface></node>";

// What a handler is called with, and what became of it.
struct Invocation {
  std::function<void(const char* method, GVariant* parameters, GDBusMethodInvocation*)> handler;
  GDBusMethodInvocation* invocation = nullptr;
  bool isReleased = false;
  bool isHandled = false;

  static void Handle(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                     const gchar* /*path*/, const gchar* /*interface*/, const gchar* method,
                     GVariant* parameters, GDBusMethodInvocation* invocation, gpointer userData) {
    auto* const self = static_cast<Invocation*>(userData);
    g_object_weak_ref(
        G_OBJECT(invocation),
        [](gpointer flag, GObject* /*object*/) { *static_cast<bool*>(flag) = true; },
        &self->isReleased);
    self->invocation = invocation;
    self->handler(method, parameters, invocation);
    self->isHandled = true;
  }
};

class DBusServerCallbacksTest : public DBusServerTest {
 protected:
  enum class After { Left, Released };
  // Hands the invocation of a real call to the handler, and expects that the caller gets no reply
  // and that the invocation is released, or the test's as before.
  void ExpectNoReply(const std::string& method, Invocation call, After after) {
    const auto caller = NewClient();
    const std::unique_ptr<GDBusNodeInfo, void (*)(GDBusNodeInfo*)> node(
        g_dbus_node_info_new_for_xml(kForwardXml, nullptr), g_dbus_node_info_unref);
    const GDBusInterfaceVTable table{&Invocation::Handle, nullptr, nullptr, {nullptr}};
    const guint id = g_dbus_connection_register_object(Shared(), "/forward", node->interfaces[0],
                                                       &table, &call, nullptr, nullptr);
    auto pending = caller->Call(method, g_variant_new("(s)", "qz"), BusClient::kCallLimit,
                                SharedName(), "/forward", "test.forward");
    EXPECT_TRUE(RunUntil([&call] { return call.isHandled; }));
    RunPending();
    EXPECT_EQ(after == After::Released, call.isReleased);
    if (after == After::Left) g_object_unref(call.invocation);
    EXPECT_TRUE(call.isReleased);

    // A reply would have come before the reply to a later call.
    EXPECT_EQ("()", WaitFor(caller->Call("Ping", nullptr, BusClient::kCallLimit, SharedName(), "/",
                                         "org.freedesktop.DBus.Peer")));
    caller->Close();
    const Reply reply = pending.get();
    EXPECT_EQ("", reply.value);
    EXPECT_EQ(0U, reply.error.find("local: ")) << reply.error;
    g_dbus_connection_unregister_object(Shared(), id);
  }

  void HandleCall(const char* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                  gpointer userData) {
    DBusServer::handle_method_call(Shared(), ":1.0", kObjectPath, kInterface, method, parameters,
                                   invocation, userData);
  }

  const Lines nullLine{kServer.Error("handle_method_call", "this_obj or method_name is null")};
};

TEST_F(DBusServerCallbacksTest, TheAcquiredCallbacksRefuseNull) {
  for (const auto& [callback, name] :
       {std::pair(&DBusServer::on_bus_acquired, "on_bus_acquired"),
        std::pair(&DBusServer::on_name_acquired, "on_name_acquired")}) {
    platform.ClearTrace();
    callback(nullptr, kBusName, &server);
    callback(Shared(), nullptr, &server);
    callback(Shared(), kBusName, nullptr);
    EXPECT_EQ(Lines(3, kServer.Error(name, "Invalid Param")), Written());
  }
}

TEST_F(DBusServerCallbacksTest, TheAcquiredCallbacksDoNothingOnceTheServerIsStopped) {
  DBusServer::on_bus_acquired(Shared(), kBusName, &server);
  DBusServer::on_name_acquired(Shared(), kBusName, &server);
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kRegisterObject));
  EXPECT_EQ(0U, gio.Calls(FaultyGio::kEmitSignal));
  EXPECT_EQ(std::nullopt, platform.Setting(kStatusKey));
  EXPECT_EQ(-9, server.SendSetRequest("qz", "1"));
}

TEST_F(DBusServerCallbacksTest, AMethodCallWithoutAnInvocationIsOnlyLogged) {
  const BusClient::VariantPtr parameters(g_variant_ref_sink(g_variant_new("(s)", "qz")));
  HandleCall("register_app", parameters.get(), nullptr, &server);
  EXPECT_EQ(nullLine, Written());
}

TEST_F(DBusServerCallbacksTest, AMethodCallWithoutServerNameOrParametersIsLeftWithoutAReply) {
  const std::function<void(const char*, GVariant*, GDBusMethodInvocation*)> handlers[] = {
      [this](auto method, auto parameters, auto call) {
        HandleCall(method, parameters, call, nullptr);
      },
      [this](auto, auto parameters, auto call) { HandleCall(nullptr, parameters, call, &server); },
      [this](auto method, auto, auto call) { HandleCall(method, nullptr, call, &server); }};
  for (const auto& handler : handlers) {
    platform.ClearTrace();
    ExpectNoReply("register_app", {handler}, After::Left);
    EXPECT_EQ(nullLine, Written());
  }
}

TEST_F(DBusServerCallbacksTest, AnUnsupportedMethodGetsNoReplyAndIsReleasedIfTheInterfaceHasIt) {
  const auto expectUnsupported = [this](const std::string& method, After after) {
    platform.ClearTrace();
    ExpectNoReply(method, {[this](auto name, auto parameters, auto call) {
                    HandleCall(name, parameters, call, &server);
                  }},
                  after);
    EXPECT_EQ(Lines{kServer.Error("handle_method_call", "unsupported method: " + method)},
              Written());
  };
  StartServer();
  expectUnsupported("no_such_method", After::Left);
  server.Deinit();
  expectUnsupported("register_app", After::Released);  // a stopped server knows none
}

TEST_F(DBusServerCallbacksTest, EachMethodNameHasItsType) {
  const auto typeOf = [this](std::string name) -> int { return server.convert_method(name); };
  EXPECT_EQ(999, typeOf("register_app"));
  server.make_method_map();
  server.make_method_map();
  EXPECT_EQ(5U, server.m_method_map.size());
  int type = 0;
  for (const char* name : {"register_app", "unregister_app", "send_data", "get_cloud_connection",
                           "get_thing_information"}) {
    EXPECT_EQ(type++, typeOf(name));
  }
  for (const char* name : {"", "get_thing_info", "send_dat", "send_data ", "SEND_DATA"}) {
    EXPECT_EQ(999, typeOf(name)) << name;
  }
  server.Deinit();
  EXPECT_TRUE(server.m_method_map.empty());
}

TEST_F(DBusServerCallbacksTest, ASignalWithoutAConnectionLeavesItsParametersToTheCaller) {
  GVariant* const parameters = g_variant_new("(b)", TRUE);
  EXPECT_FALSE(server.emit_signal("some_signal", parameters));
  EXPECT_EQ(Lines{kServer.Error("emit_signal", "dbus not ready")}, Written());
  EXPECT_TRUE(g_variant_is_floating(parameters));
  g_variant_unref(parameters);
}

TEST_F(DBusServerCallbacksTest, HoldsTheNodeDataFromTheStartAndTheConnectionFromTheNameToTheStop) {
  GDBusConnection* const none = nullptr;
  ASSERT_TRUE(server.Init());
  const GDBusNodeInfo* const node = server.m_node_info;
  ASSERT_NE(nullptr, node);
  EXPECT_STREQ(kObjectPath, node->path);
  EXPECT_EQ(none, server.m_connection);
  ASSERT_TRUE(WaitUntilReady());
  EXPECT_EQ(Shared(), server.m_connection);
  EXPECT_EQ(node, server.m_node_info);
  server.Deinit();
  EXPECT_EQ(none, server.m_connection);
  EXPECT_EQ(nullptr, server.m_node_info);
}

}  // namespace
