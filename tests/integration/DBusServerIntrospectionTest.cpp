#include "DBusServerTest.h"

namespace {

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

// What GLib writes for our interface of this node.
std::string interfaceOf(const std::string& xml) {
  const std::unique_ptr<GDBusNodeInfo, void (*)(GDBusNodeInfo*)> node(
      g_dbus_node_info_new_for_xml(xml.c_str(), nullptr), g_dbus_node_info_unref);
  auto* const interface =
      node ? g_dbus_node_info_lookup_interface(node.get(), kInterface) : nullptr;
  if (interface == nullptr) return "no interface in " + xml;
  const std::unique_ptr<GString, void (*)(GString*)> written(
      g_string_new(nullptr), [](GString* text) { g_string_free(text, TRUE); });
  g_dbus_interface_info_generate_xml(interface, 0, written.get());
  return written->str;
}

using DBusServerIntrospectionTest = ReadyDBusServerTest;

TEST_F(DBusServerIntrospectionTest, ParsesOneLineToTheLastBlankAndTheBusSeesItsMembers) {
  EXPECT_EQ(kXml, gio.Xml());
  const std::string reply =
      WaitFor(client->Call("Introspect", nullptr, BusClient::kCallLimit, kBusName, kObjectPath,
                           "org.freedesktop.DBus.Introspectable"));
  const BusClient::VariantPtr value(
      g_variant_parse(G_VARIANT_TYPE("(s)"), reply.c_str(), nullptr, nullptr, nullptr));
  ASSERT_TRUE(value) << reply;
  const char* xml = nullptr;
  g_variant_get(value.get(), "(&s)", &xml);
  EXPECT_EQ(interfaceOf(kXml), interfaceOf(xml));
  EXPECT_NE(std::string::npos, interfaceOf(xml).find("dbus_server_ready"));
}

}  // namespace
