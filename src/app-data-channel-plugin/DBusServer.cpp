#include "DBusServer.h"

#include <vconf.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

#include "AppDataChannelCore.h"
#include "Log.h"
#include "PluginConstants.h"

namespace AppDataChannel {
namespace {

using ThingCommon::CallGate;
using ThingCommon::LOG_PRIORITY_ERROR;
using ThingCommon::LOG_TAG_PLUGIN;
using ThingCommon::LogScope;

const char* const kBusName = "org.tizen.qivo_thing";

// A longer signal or reply is refused. Bus daemons disconnect the sender of a message over their
// limit (32 MiB by default), and with it everything else that the host does there.
constexpr std::size_t kMaxMessageBytes = std::size_t{16} * 1024 * 1024;
// The longest header, with a destination and a sender of the longest names (255 bytes).
constexpr std::size_t kMaxHeaderBytes = 1024;

// Longer than the slowest call: the device service is asked three times, 200 ms apart.
constexpr std::chrono::seconds kMaxWaitForCalls(2);

// For a bus that has not read its replies. One that reads needs less, also for thousands of calls
// at once; one that does not read delays the main loop this long only once.
constexpr std::chrono::seconds kMaxWaitForRoom(2);

// A running main loop needs less than a millisecond.
constexpr std::chrono::milliseconds kMaxWaitForMainLoop(100);

// One line: the tabs are the depth of the elements.
const char introspection_xml[] =
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
    "\t</interface>"
    "</node>";

AppDataChannelControl& control() {
  return AppDataChannelCore::GetInstance().GetControl();
}

// How many bytes at the beginning are ASCII, in whole blocks: most of a text, and checked in a
// fraction of the time that GLib takes.
std::size_t countAsciiBytes(const std::string& string) {
  using Block = std::array<std::size_t, 4>;
  constexpr std::size_t kHighBits = ~std::size_t{0} / 0xFF * 0x80;
  std::size_t count = 0;
  for (Block block{}; string.size() - count >= sizeof block; count += sizeof block) {
    std::memcpy(block.data(), string.data() + count, sizeof block);
    if (((block[0] | block[1] | block[2] | block[3]) & kHighBits) != 0) break;
  }
  return count;
}

// GVariant strings are UTF-8 without a NUL; GLib treats anything else as a bug of its caller.
bool isDBusString(const std::string& string) {
  const std::size_t asciiBytes = countAsciiBytes(string);
  if (std::memchr(string.data(), '\0', asciiBytes) != nullptr) return false;
  return g_utf8_validate_len(string.data() + asciiBytes, string.size() - asciiBytes, nullptr) !=
         FALSE;
}

// A string that isDBusString has checked: g_variant_new_string would do it once more.
GVariant* newDBusString(const std::string& string) {
  const BytesPtr bytes(g_bytes_new(string.c_str(), string.size() + 1));  // with the NUL
  return g_variant_new_from_bytes(G_VARIANT_TYPE_STRING, bytes.get(), /*trusted=*/TRUE);
}

// Whether a message with these strings is short enough for the bus. Each has a length before it, a
// NUL after it, and begins at a multiple of four bytes.
template <typename... Strings>
bool fitsIntoMessage(const Strings&... strings) {
  constexpr std::size_t kMaxAroundString = 8;
  return (kMaxHeaderBytes + ... + (strings.size() + kMaxAroundString)) <= kMaxMessageBytes;
}

// The string at `index` of a method's arguments, whose types GDBus has checked. Not with
// g_variant_get, which takes several times as long to parse its format.
std::string stringArgument(GVariant* parameters, gsize index) {
  const VariantPtr string(g_variant_get_child_value(parameters, index));
  gsize length = 0;
  const gchar* const data = g_variant_get_string(string.get(), &length);
  return data == nullptr ? std::string() : std::string(data, length);
}

ConnectionPtr referTo(GDBusConnection* connection) {
  g_object_ref(connection);
  return ConnectionPtr(connection);
}

void logError(const char* function, const GErrorPtr& error) {
  if (!error) return;
  LOG_LINE_AT(LOG_PRIORITY_ERROR, LOG_TAG_PLUGIN, LOG_SITE_AT(function, __LINE__),
              "error code:%d, message: %s", error->code, error->message);
}

InvocationPtr referTo(GDBusMethodInvocation* invocation) {
  g_object_ref(invocation);
  return InvocationPtr(invocation);
}

bool isMethodOfInterface(const std::string& name) {
  return name == DBUS_METHOD_NAME_REGISTER_APP || name == DBUS_METHOD_NAME_UNREGISTER_APP ||
         name == DBUS_METHOD_NAME_SEND_DATA || name == DBUS_METHOD_NAME_GET_CLOUD_CONNECTION ||
         name == DBUS_METHOD_NAME_GET_THING_INFO;
}

void replyFailure(InvocationPtr invocation) {
  g_dbus_method_invocation_return_error_literal(invocation.release(), G_DBUS_ERROR,
                                                G_DBUS_ERROR_FAILED, "the call failed");
}

}  // namespace

const GDBusInterfaceVTable DBusServer::m_interface_table = {
    &DBusServer::handle_method_call, nullptr, nullptr, {nullptr}};

DBusServer::DBusServer() = default;

DBusServer::~DBusServer() {
  Shutdown();
}

bool DBusServer::Init() {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  try {
    release();  // nothing to do, unless a start was repeated without a stop
    m_name_release.Prepare();
    make_method_map();
    if (!init_dbus_node_info()) throw std::runtime_error("fail to init_dbus_node_info");
    m_owner_id = g_bus_own_name(G_BUS_TYPE_SYSTEM, kBusName, G_BUS_NAME_OWNER_FLAGS_REPLACE,
                                &DBusServer::on_bus_acquired, &DBusServer::on_name_acquired,
                                nullptr, this, nullptr);
    if (m_owner_id == 0) throw std::runtime_error("fail to g_bus_own_name");
    return true;
  } catch (const std::exception& e) {
    LOG_E(LOG_TAG_PLUGIN, "exception: %s", e.what());
  } catch (...) {
    LOG_E(LOG_TAG_PLUGIN, "unknown exception");
  }
  deinit();
  return false;
}

void DBusServer::Deinit() {
  const LogScope scope(LOG_TAG_PLUGIN, LOG_SITE());
  {
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    deinit();
  }
  // Everything but the name is released. The lock is free, because the main loop may be in a
  // callback that needs it before it comes to the name.
  m_name_release.Wait(kMaxWaitForMainLoop);
}

void DBusServer::Shutdown() {
  // Without m_mutex, which a call that is still inside may hold for ever.
  if (!m_call_gate.WaitUntilEmpty(kMaxWaitForCalls)) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] still running after %d s", m_call_gate.Inside().c_str(),
          static_cast<int>(kMaxWaitForCalls.count()));
  }
  m_name_release.GiveUpNow();
}

int DBusServer::SendSetRequest(const std::string& appName, const std::string& data) {
  LOG_I(LOG_TAG_PLUGIN, "[%s] data: %s", appName.c_str(), data.c_str());
  m_unread_events.WaitForRoom(appName.size() + data.size());
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (!isInit()) {
    LOG_E(LOG_TAG_PLUGIN, "not initialized");
    return RESULT_CODE_DBUS_NOT_READY;
  }
  return send_event(appName, data) ? RESULT_CODE_SUCCESS : RESULT_CODE_FAILED;
}

int DBusServer::SendCloudConnectionChange(bool connected) {
  LOG_I(LOG_TAG_PLUGIN, "cloud connection status: %s", connected ? "true" : "false");
  m_unread_events.WaitForRoom(0);
  const std::lock_guard<std::recursive_mutex> lock(m_mutex);
  if (!isInit()) {
    LOG_E(LOG_TAG_PLUGIN, "not initialized");
    return RESULT_CODE_DBUS_NOT_READY;
  }
  const VariantPtr parameters(g_variant_ref_sink(g_variant_new("(b)", connected ? TRUE : FALSE)));
  if (!emit_signal(DBUS_SIGNAL_NAME_CLOUD_CONNECTION_CHANGED.c_str(), parameters.get())) {
    LOG_E(LOG_TAG_PLUGIN, "fail to send event to clients");
    return RESULT_CODE_CONNECTION_CHANGE_NOT_SENT;
  }
  m_unread_events.Add(0);
  return RESULT_CODE_SUCCESS;
}

bool DBusServer::isInit() {
  return m_connection != nullptr && m_owner_id != 0 && m_node_info != nullptr;
}

void DBusServer::make_method_map() {
  const std::lock_guard<std::mutex> lock(m_method_map_mutex);
  m_method_map[DBUS_METHOD_TYPE_REGISTER_APP] = DBUS_METHOD_NAME_REGISTER_APP;
  m_method_map[DBUS_METHOD_TYPE_UNREGISTER_APP] = DBUS_METHOD_NAME_UNREGISTER_APP;
  m_method_map[DBUS_METHOD_TYPE_SEND_DATA] = DBUS_METHOD_NAME_SEND_DATA;
  m_method_map[DBUS_METHOD_TYPE_GET_CLOUD_CONNECTION] = DBUS_METHOD_NAME_GET_CLOUD_CONNECTION;
  m_method_map[DBUS_METHOD_TYPE_GET_THING_INFO] = DBUS_METHOD_NAME_GET_THING_INFO;
}

bool DBusServer::init_dbus_node_info() {
  GErrorPtr error;
  try {
    GError* rawError = nullptr;
    m_owned_node_info.reset(g_dbus_node_info_new_for_xml(introspection_xml, &rawError));
    error.reset(rawError);
    m_node_info = m_owned_node_info.get();
    if (m_node_info == nullptr) throw std::runtime_error("fail to load dbus node info");
    return true;
  } catch (const std::exception& e) {
    LOG_E(LOG_TAG_PLUGIN, "exception: %s", e.what());
    logError(__func__, error);
  } catch (...) {
    LOG_E(LOG_TAG_PLUGIN, "unknown exception");
  }
  return false;
}

void DBusServer::deinit() {
  notify_dbus_server_status(THING_STATUS_STOPPED);
  release();
}

void DBusServer::release() {
  ++m_life;
  m_unread_events.Close();
  m_unread_replies.Close();
  unregister_object();
  m_connection = nullptr;
  m_name_connection.reset();
  if (m_owner_id != 0) m_name_release.GiveUp(std::exchange(m_owner_id, 0));
  m_node_info = nullptr;
  m_owned_node_info.reset();
  const std::lock_guard<std::mutex> lock(m_method_map_mutex);
  m_method_map.clear();
}

void DBusServer::unregister_object() {
  if (m_registration_id != 0) {
    g_dbus_connection_unregister_object(m_registration_connection.get(), m_registration_id);
  }
  m_registration_id = 0;
  m_registration_connection.reset();
}

bool DBusServer::emit_signal(const char* signalName, GVariant* parameters) {
  if (m_connection == nullptr) {
    LOG_E(LOG_TAG_PLUGIN, "dbus not ready");
    return false;
  }
  LOG_E(LOG_TAG_PLUGIN, "try to emit signal: %s", signalName);
  if (!g_dbus_connection_emit_signal(m_connection, nullptr, m_node_info->path,
                                     m_node_info->interfaces[0]->name, signalName, parameters,
                                     nullptr)) {
    LOG_E(LOG_TAG_PLUGIN, "fail to emit signal: %s", signalName);
    return false;
  }
  LOG_E(LOG_TAG_PLUGIN, "success to emit signal: %s", signalName);
  return true;
}

bool DBusServer::send_event(const std::string& appName, const std::string& data) {
  bool sent = false;
  if (fitsIntoMessage(appName, data) && isDBusString(appName) && isDBusString(data)) {
    std::array<GVariant*, 2> strings = {newDBusString(appName), newDBusString(data)};
    const VariantPtr parameters(
        g_variant_ref_sink(g_variant_new_tuple(strings.data(), strings.size())));
    sent = emit_signal(DBUS_SIGNAL_NAME_SEND_EVENT.c_str(), parameters.get());
  }
  if (!sent) {
    LOG_E(LOG_TAG_PLUGIN, "[%s] fail to send data to app", appName.c_str());
    return false;
  }
  m_unread_events.Add(appName.size() + data.size());
  return true;
}

void DBusServer::notify_dbus_server_status(int status) {
  if (status == THING_STATUS_READY) {
    emit_signal(DBUS_SIGNAL_NAME_DBUS_SERVER_READY.c_str(), nullptr);
  }
  if (vconf_set_int(THING_STATUS_KEY, status) != 0) {
    LOG_E(LOG_TAG_PLUGIN, "fail to vconf_set_int (%s)", THING_STATUS_KEY);
  }
}

_dbus_method_type_e DBusServer::convert_method(std::string& name) {
  const std::lock_guard<std::mutex> lock(m_method_map_mutex);
  for (const auto& [type, methodName] : m_method_map) {
    if (methodName == name) return type;
  }
  return DBUS_METHOD_TYPE_UNKNOWN;
}

void DBusServer::register_app(GVariant* parameters, GDBusMethodInvocation* invocation) {
  InvocationPtr call(invocation);
  const std::string appName = stringArgument(parameters, 0);
  const int result = control().RegisterApp(appName);
  LOG_I(LOG_TAG_PLUGIN, "[%s] RegisterApp (ret: %d)", appName.c_str(), result);
  reply(std::move(call), g_variant_new_int32(result));
}

void DBusServer::unregister_app(GVariant* parameters, GDBusMethodInvocation* invocation) {
  InvocationPtr call(invocation);
  const std::string appName = stringArgument(parameters, 0);
  const int result = control().UnregisterApp(appName);
  LOG_I(LOG_TAG_PLUGIN, "[%s] UnregisterApp (ret: %d)", appName.c_str(), result);
  reply(std::move(call), g_variant_new_int32(result));
}

void DBusServer::send_data(GVariant* parameters, GDBusMethodInvocation* invocation) {
  InvocationPtr call(invocation);
  const int result =
      control().NotifyData(stringArgument(parameters, 0), stringArgument(parameters, 1));
  reply(std::move(call), g_variant_new_int32(result));
}

void DBusServer::get_cloud_connection(GDBusMethodInvocation* invocation) {
  InvocationPtr call(invocation);
  bool connected = false;
  control().GetCloudConnection(connected);
  reply(std::move(call), g_variant_new_boolean(connected ? TRUE : FALSE));
}

void DBusServer::get_thing_info(GDBusMethodInvocation* invocation) {
  InvocationPtr call(invocation);
  std::string info;
  control().GetThingInfo(info);
  if (!fitsIntoMessage(info) || !isDBusString(info)) {
    // A comment in the cloud's JSON may have any byte, and is part of the string.
    LOG_E(LOG_TAG_PLUGIN, "thing information is too long or not valid UTF-8");
    info.clear();
  }
  reply(std::move(call), g_variant_new_string(info.c_str()), info.size());
}

void DBusServer::reply(InvocationPtr invocation, GVariant* value, std::size_t stringBytes) {
  const VariantPtr result(g_variant_ref_sink(g_variant_new_tuple(&value, 1)));
  if (!m_unread_replies.AddInTime(stringBytes, kMaxWaitForRoom)) {
    LOG_E(LOG_TAG_PLUGIN, "the bus does not read the replies");
    return;
  }
  g_dbus_method_invocation_return_value(invocation.release(), result.get());
}

void DBusServer::on_bus_acquired(GDBusConnection* connection, const gchar* name,
                                 gpointer userData) {
  if (connection == nullptr || name == nullptr || userData == nullptr) {
    LOG_E(LOG_TAG_PLUGIN, "Invalid Param");
    return;
  }
  auto* const server = static_cast<DBusServer*>(userData);
  const CallGate::Pass pass(&server->m_call_gate, __func__);
  const unsigned life = server->m_life;
  LOG_I(LOG_TAG_PLUGIN, "dbus connection: %p, name: %s", static_cast<void*>(connection), name);
  const std::lock_guard<std::recursive_mutex> lock(server->m_mutex);
  if (!server->isOfThisLife(life)) return;

  GError* rawError = nullptr;
  const guint id = g_dbus_connection_register_object(
      connection, server->m_node_info->path, server->m_node_info->interfaces[0], &m_interface_table,
      server, nullptr, &rawError);
  const GErrorPtr error(rawError);
  if (id == 0) {
    LOG_E(LOG_TAG_PLUGIN, "fail to register_object");
    logError(__func__, error);
    return;
  }
  server->unregister_object();
  server->m_registration_id = id;
  server->m_registration_connection = referTo(connection);
  server->m_unread_replies.Open(connection);
}

void DBusServer::on_name_acquired(GDBusConnection* connection, const gchar* name,
                                  gpointer userData) {
  if (connection == nullptr || name == nullptr || userData == nullptr) {
    LOG_E(LOG_TAG_PLUGIN, "Invalid Param");
    return;
  }
  auto* const server = static_cast<DBusServer*>(userData);
  const CallGate::Pass pass(&server->m_call_gate, __func__);
  const unsigned life = server->m_life;
  LOG_I(LOG_TAG_PLUGIN, "dbus connection: %p, name: %s", static_cast<void*>(connection), name);
  const std::lock_guard<std::recursive_mutex> lock(server->m_mutex);
  if (!server->isOfThisLife(life)) return;

  server->m_name_connection = referTo(connection);
  server->m_connection = connection;
  server->m_unread_events.Open(connection);
  server->m_unread_replies.Open(connection);
  server->notify_dbus_server_status(THING_STATUS_READY);
}

bool DBusServer::isOfThisLife(unsigned life) {
  // Stopped, and perhaps started again: while the callback waited for the lock, or before it, when
  // the main loop was held up and has not given up the name of the earlier start.
  return m_life == life && m_node_info != nullptr && !m_name_release.IsPending();
}

void DBusServer::handle_method_call(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                                    const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                                    const gchar* methodName, GVariant* parameters,
                                    GDBusMethodInvocation* invocation, gpointer userData) {
  // GDBus calls with all of these, and only for methods of the interface. Another caller keeps the
  // invocation.
  if (userData == nullptr || methodName == nullptr || parameters == nullptr ||
      invocation == nullptr) {
    LOG_E(LOG_TAG_PLUGIN, "this_obj or method_name is null");
    return;
  }
  auto* const server = static_cast<DBusServer*>(userData);
  // A second reference: a method that throws releases its own, and this one answers the caller. It
  // also keeps the method's name alive.
  InvocationPtr unanswered;
  const CallGate::Pass pass(&server->m_call_gate, methodName);
  const NameRelease::LoopCall onLoop(server->m_name_release);
  const auto answerFailure = [&] {
    if (!unanswered) unanswered.reset(invocation);
    replyFailure(referTo(unanswered.get()));
  };
  // No exception may pass through GLib's frames.
  try {
    std::string method(methodName);
    const _dbus_method_type_e type = server->convert_method(method);
    if (type != DBUS_METHOD_TYPE_UNKNOWN) unanswered = referTo(invocation);
    switch (type) {
      case DBUS_METHOD_TYPE_REGISTER_APP:
        server->register_app(parameters, invocation);
        break;
      case DBUS_METHOD_TYPE_UNREGISTER_APP:
        server->unregister_app(parameters, invocation);
        break;
      case DBUS_METHOD_TYPE_SEND_DATA:
        server->send_data(parameters, invocation);
        break;
      case DBUS_METHOD_TYPE_GET_CLOUD_CONNECTION:
        server->get_cloud_connection(invocation);
        break;
      case DBUS_METHOD_TYPE_GET_THING_INFO:
        server->get_thing_info(invocation);
        break;
      case DBUS_METHOD_TYPE_UNKNOWN:
        LOG_E(LOG_TAG_PLUGIN, "unsupported method: %s", method.c_str());
        if (isMethodOfInterface(method)) unanswered.reset(invocation);  // a stop was faster
        break;
    }
  } catch (const std::exception& e) {
    LOG_E(LOG_TAG_PLUGIN, "exception: %s", e.what());
    answerFailure();
  } catch (...) {
    LOG_E(LOG_TAG_PLUGIN, "unknown exception");
    answerFailure();
  }
}

}  // namespace AppDataChannel
