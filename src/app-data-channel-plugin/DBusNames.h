#ifndef APPDATACHANNEL_DBUSNAMES_H
#define APPDATACHANNEL_DBUSNAMES_H

#include <string>

namespace AppDataChannel {

// The members of the interface towards applications. The headers of all four classes of the plug-in
// include this one.
inline const std::string DBUS_METHOD_NAME_REGISTER_APP = "register_app";
inline const std::string DBUS_METHOD_NAME_UNREGISTER_APP = "unregister_app";
inline const std::string DBUS_METHOD_NAME_SEND_DATA = "send_data";
inline const std::string DBUS_METHOD_NAME_GET_CLOUD_CONNECTION = "get_cloud_connection";
inline const std::string DBUS_METHOD_NAME_GET_THING_INFO = "get_thing_information";

inline const std::string DBUS_SIGNAL_NAME_SEND_EVENT = "send_event";
inline const std::string DBUS_SIGNAL_NAME_CLOUD_CONNECTION_CHANGED = "cloud_connection_changed";
inline const std::string DBUS_SIGNAL_NAME_DBUS_SERVER_READY = "dbus_server_ready";

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_DBUSNAMES_H
