#ifndef APPDATACHANNEL_DBUSNAMES_H
#define APPDATACHANNEL_DBUSNAMES_H

#include <string>

namespace AppDataChannel {

// The members of the interface towards applications.
const std::string DBUS_METHOD_NAME_REGISTER_APP = "register_app";
const std::string DBUS_METHOD_NAME_UNREGISTER_APP = "unregister_app";
const std::string DBUS_METHOD_NAME_SEND_DATA = "send_data";
const std::string DBUS_METHOD_NAME_GET_CLOUD_CONNECTION = "get_cloud_connection";
const std::string DBUS_METHOD_NAME_GET_THING_INFO = "get_thing_information";

const std::string DBUS_SIGNAL_NAME_SEND_EVENT = "send_event";
const std::string DBUS_SIGNAL_NAME_CLOUD_CONNECTION_CHANGED = "cloud_connection_changed";
const std::string DBUS_SIGNAL_NAME_DBUS_SERVER_READY = "dbus_server_ready";

}  // namespace AppDataChannel

#endif  // APPDATACHANNEL_DBUSNAMES_H
