#ifndef APPDATACHANNEL_DBUSSERVER_H
#define APPDATACHANNEL_DBUSSERVER_H

#include <gio/gio.h>

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <string>

#include "BusBacklog.h"
#include "CallGate.h"
#include "DBusNames.h"
#include "GLibHandle.h"
#include "NameRelease.h"

namespace AppDataChannel {

enum _dbus_method_type_e {
  DBUS_METHOD_TYPE_REGISTER_APP = 0,
  DBUS_METHOD_TYPE_UNREGISTER_APP = 1,
  DBUS_METHOD_TYPE_SEND_DATA = 2,
  DBUS_METHOD_TYPE_GET_CLOUD_CONNECTION = 3,
  DBUS_METHOD_TYPE_GET_THING_INFO = 4,
  DBUS_METHOD_TYPE_UNKNOWN = 999
};

// The plug-in's side towards applications: owns the name on the system bus, exports the object,
// turns method calls into calls of the channel control, emits the signals, and stores in the
// settings whether it is ready (1) or not (0).
//
// Threads: Init is called on the thread whose thread-default main context is iterated; that context
// runs the bus callbacks and the method calls. Deinit may come from another thread. The two Send
// operations come from the dispatcher's worker. Init, Deinit, the bus callbacks and the Send
// operations hold the lock until they return; but not while an event waits for a bus that does not
// read, nor while a stop waits for the main loop. Method calls do not take it: the control guards
// itself.
class DBusServer {
 public:
  DBusServer();
  // Releases neither the bus name nor the object: call Deinit before. Ends with Shutdown.
  ~DBusServer();
  DBusServer(const DBusServer&) = delete;
  DBusServer& operator=(const DBusServer&) = delete;

  // Requests the bus name; true when the request was made. Readiness comes later, on the main loop:
  // "dbus_server_ready" is emitted and the setting becomes 1.
  bool Init();

  // Sets the setting to 0 and releases everything, in whatever state. Harmless when repeated. While
  // another thread runs the main loop, the name is released there; Deinit waits for that, 100 ms at
  // most.
  void Deinit();

  // Waits for running bus callbacks and method calls, two seconds at most, logs those that run on,
  // and releases a name that the main loop has not released. (GLib waits 25 s then for a bus that
  // does not answer.) For the end of the process or of the library only: after Deinit, with no lock
  // held that they may need.
  void Shutdown();

  // Emits "send_event". 0; -9 when the server is not ready; -100 when the signal could not be
  // emitted, also because D-Bus cannot carry it: invalid UTF-8, a NUL, or more than 16 MiB.
  //
  // Before that it waits while the bus has BusBacklog::kLimit of events to read, until it has read
  // them, the server stops or the bus is lost.
  int SendSetRequest(const std::string& appName, const std::string& data);

  // Emits "cloud_connection_changed". 0; -9 when the server is not ready; -10 when the signal could
  // not be emitted. Waits like SendSetRequest.
  int SendCloudConnectionChange(bool connected);

 private:
  // The caller holds m_mutex:
  bool isInit();
  void make_method_map();
  bool init_dbus_node_info();
  void deinit();
  void release();
  void unregister_object();
  bool emit_signal(const char* signalName, GVariant* parameters);
  bool send_event(const std::string& appName, const std::string& data);
  void notify_dbus_server_status(int status);
  // Whether a bus callback that began in `life` is of the present start.
  bool isOfThisLife(unsigned life);

  // The caller need not hold a lock:
  _dbus_method_type_e convert_method(std::string& name);

  // Answer one method call each; take over the invocation.
  void register_app(GVariant* parameters, GDBusMethodInvocation* invocation);
  void unregister_app(GVariant* parameters, GDBusMethodInvocation* invocation);
  void send_data(GVariant* parameters, GDBusMethodInvocation* invocation);
  void get_cloud_connection(GDBusMethodInvocation* invocation);
  void get_thing_info(GDBusMethodInvocation* invocation);
  // `value` is floating, and the method's only result; a string in it has `stringBytes` bytes.
  // Waits while the bus has too many replies to read; when it does not read them, there is no
  // reply.
  void reply(InvocationPtr invocation, GVariant* value, std::size_t stringBytes = 0);

  static void on_bus_acquired(GDBusConnection* connection, const gchar* name, gpointer userData);
  static void on_name_acquired(GDBusConnection* connection, const gchar* name, gpointer userData);
  static void handle_method_call(GDBusConnection* connection, const gchar* sender,
                                 const gchar* objectPath, const gchar* interfaceName,
                                 const gchar* methodName, GVariant* parameters,
                                 GDBusMethodInvocation* invocation, gpointer userData);

  static const GDBusInterfaceVTable m_interface_table;

  std::recursive_mutex m_mutex;  // guards every member up to m_registration_connection but the map
  // Guarded by m_method_map_mutex, which is never held while anything else is locked or called: a
  // method call may run on the main loop's thread while another thread stops the server.
  std::map<_dbus_method_type_e, std::string> m_method_map;
  GDBusNodeInfo* m_node_info = nullptr;     // null when stopped
  guint m_owner_id = 0;                     // 0 when the name is not requested
  guint m_registration_id = 0;              // 0 when the object is not registered
  GDBusConnection* m_connection = nullptr;  // set from when the name is acquired to the stop
  // Keep the node data and the connection above alive.
  NodeInfoPtr m_owned_node_info;
  ConnectionPtr m_name_connection;
  // A reference to the connection on which the object is registered; null when it is not. The
  // object may be registered before the name is owned, and without it.
  ConnectionPtr m_registration_connection;
  std::mutex m_method_map_mutex;

  // Changed by every start and stop, with m_mutex held. A bus callback that has waited for the lock
  // sees by it that its run is over.
  std::atomic<unsigned> m_life{0};
  BusBacklog m_unread_events;         // signals
  BusBacklog m_unread_replies;        // apart, so that events cannot crowd out replies
  ThingCommon::CallGate m_call_gate;  // bus callbacks and method calls pass through it
  NameRelease m_name_release{m_call_gate};
};

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_DBUSSERVER_H
