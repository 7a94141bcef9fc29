#ifndef BENCH_BUS_INTERFACE_H
#define BENCH_BUS_INTERFACE_H

// The channel's interface, for services that only reply: what GLib is given is as long to parse.
inline constexpr const char* kBareObjectPath = "/org/tizen/qivo_thing";
inline constexpr const char* kBareInterface = "org.tizen.qivo_thing.service";
inline constexpr const char* kBareIntrospection =
    "<node name='/org/tizen/qivo_thing'>"
    "<interface name='org.tizen.qivo_thing.service'>"
    "<method name='register_app'>"
    "<arg type='s' name='app_name' direction='in'/>"
    "<arg type='i' name='result' direction='out'/>"
    "</method>"
    "<method name='unregister_app'>"
    "<arg type='s' name='app_name' direction='in'/>"
    "<arg type='i' name='result' direction='out'/>"
    "</method>"
    "<method name='send_data'>"
    "<arg type='s' name='app_name' direction='in'/>"
    "<arg type='s' name='data' direction='in'/>"
    "<arg type='i' name='result' direction='out'/>"
    "</method>"
    "<method name='get_cloud_connection'>"
    "<arg type='b' name='connected' direction='out'/>"
    "</method>"
    "<method name='get_thing_information'>"
    "<arg type='s' name='info' direction='out'/>"
    "</method>"
    "<signal name='send_event'>"
    "<arg type='s' name='app_name'/>"
    "<arg type='s' name='data'/>"
    "</signal>"
    "<signal name='cloud_connection_changed'>"
    "<arg type='b' name='connected'/>"
    "</signal>"
    "<signal name='dbus_server_ready'>"
    "</signal>"
    "</interface>"
    "</node>";

#endif  // BENCH_BUS_INTERFACE_H
