#include <gio/gio.h>

#include <array>
#include <memory>

#include "DBusServerTest.h"

namespace {

using NodeInfo = std::unique_ptr<GDBusNodeInfo, void (*)(GDBusNodeInfo*)>;

constexpr const char* kXml =
    " <node name='/org/tizen/qivo_thing'>"
    "\t<interface name='org.tizen.qivo_thing.service'>"
    "\t\t<method name='register_app'>"
    "\t\t\t<arg type='s' name='app_name' direction='in'/>"
    "\t\t\t<arg type='i' name='result' direction='out'/>"
    "\t\t</method>"
    "\t\t<method name='unregister_app'>"
    "\t\t\t<arg type='s' name='app_name' direction='in'/>"
    "\t\t\t<arg type='i' name='result' direction='out'/>"
    "\t\t</method>"
    "\t\t<method name='send_data'>"
    "\t\t\t<arg type='s' name='app_name' direction='in'/>"
    "\t\t\t<arg type='s' name='data' direction='in'/>"
    "\t\t\t<arg type='i' name='result' direction='out'/>"
    "\t\t</method>"
    "\t\t<method name='get_cloud_connection'>"
    "\t\t\t<arg type='b' name='connected' direction='out'/>"
    "\t\t</method>"
    "\t\t<method name='get_thing_information'>"
    "\t\t\t<arg type='s' name='info' direction='out'/>"
    "\t\t</method>"
    "\t\t<signal name='send_event'>"
    "\t\t\t<arg type='s' name='app_name'/>"
    "\t\t\t<arg type='s' name='data'/>"
    "\t\t</signal>"
    "\t\t<signal name='cloud_connection_changed'>"
    "\t\t\t<arg type='b' name='connected'/>"
    "\t\t</signal>"
    "\t\t<signal name='dbus_server_ready'>"
    "\t\t</signal>"
    "\t</interface></node>";

std::string describe(GDBusArgInfo** arguments) {
  std::string text;
  for (GDBusArgInfo** argument = arguments; argument != nullptr && *argument != nullptr;
       ++argument) {
    text += std::string(" ") + (*argument)->signature + ":" + (*argument)->name;
  }
  return text;
}

// One line per member, in order: "method send_data(s:app_name s:data) -> i:result".
std::vector<std::string> membersOf(const GDBusInterfaceInfo& interface) {
  std::vector<std::string> members;
  for (GDBusMethodInfo** method = interface.methods; method != nullptr && *method != nullptr;
       ++method) {
    members.push_back(std::string("method ") + (*method)->name + " in" +
                      describe((*method)->in_args) + " out" + describe((*method)->out_args));
  }
  for (GDBusSignalInfo** signal = interface.signals; signal != nullptr && *signal != nullptr;
       ++signal) {
    members.push_back(std::string("signal ") + (*signal)->name + describe((*signal)->args));
  }
  for (GDBusPropertyInfo** property = interface.properties;
       property != nullptr && *property != nullptr; ++property) {
    members.push_back(std::string("property ") + (*property)->name);
  }
  return members;
}

const std::vector<std::string> kMembers{"method register_app in s:app_name out i:result",
                                        "method unregister_app in s:app_name out i:result",
                                        "method send_data in s:app_name s:data out i:result",
                                        "method get_cloud_connection in out b:connected",
                                        "method get_thing_information in out s:info",
                                        "signal send_event s:app_name s:data",
                                        "signal cloud_connection_changed b:connected",
                                        "signal dbus_server_ready"};

using DBusServerIntrospectionTest = DBusServerTest;

TEST_F(DBusServerIntrospectionTest, ParsesOneLineOfTextToTheLastBlank) {
  StartServer();
  EXPECT_EQ(kXml, gio.Xml());
}

TEST_F(DBusServerIntrospectionTest, TheBusSeesExactlyTheseMembersInThisOrder) {
  StartServer();
  const auto client = NewClient();
  GError* error = nullptr;
  auto call = std::async(std::launch::async, [this, &client] {
    const std::unique_ptr<GDBusConnection, void (*)(gpointer)> connection(
        g_dbus_connection_new_for_address_sync(
            Bus().Address().c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr),
        g_object_unref);
    GVariant* const reply = g_dbus_connection_call_sync(
        connection.get(), kBusName, kObjectPath, "org.freedesktop.DBus.Introspectable",
        "Introspect", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    std::string xml;
    if (reply != nullptr) {
      const char* text = nullptr;
      g_variant_get(reply, "(&s)", &text);
      xml = text;
      g_variant_unref(reply);
    }
    return xml;
  });
  ASSERT_TRUE(RunUntil(
      [&call] { return call.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  const std::string xml = call.get();
  const NodeInfo node(g_dbus_node_info_new_for_xml(xml.c_str(), &error), g_dbus_node_info_unref);
  ASSERT_NE(nullptr, node) << xml;
  const GDBusInterfaceInfo* const interface =
      g_dbus_node_info_lookup_interface(node.get(), kInterface);
  ASSERT_NE(nullptr, interface) << xml;
  EXPECT_EQ(kMembers, membersOf(*interface));
}

TEST_F(DBusServerIntrospectionTest, TheTextDescribesOneNodeWithOneInterface) {
  StartServer();
  const std::string xml = gio.Xml();
  const NodeInfo node(g_dbus_node_info_new_for_xml(xml.c_str(), nullptr), g_dbus_node_info_unref);
  ASSERT_NE(nullptr, node);
  EXPECT_STREQ(kObjectPath, node->path);
  ASSERT_NE(nullptr, node->interfaces);
  ASSERT_NE(nullptr, node->interfaces[0]);
  EXPECT_EQ(nullptr, node->interfaces[1]);
  EXPECT_STREQ(kInterface, node->interfaces[0]->name);
  EXPECT_EQ(kMembers, membersOf(*node->interfaces[0]));
}

}  // namespace
