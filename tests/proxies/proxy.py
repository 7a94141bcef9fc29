#!/usr/bin/python3
"""With a proxy that GDBus makes of the interface file: see proxies_test.py.

    proxy.py INTERFACE_FILE NAME
"""

import sys

from gi.repository import Gio, GLib

interface_file, name = sys.argv[1:]
with open(interface_file, encoding="utf-8") as file:
    interface, = Gio.DBusNodeInfo.new_for_xml(file.read()).interfaces
proxy = Gio.DBusProxy.new_for_bus_sync(Gio.BusType.SYSTEM, Gio.DBusProxyFlags.NONE, interface,
                                       "org.tizen.qivo_thing", "/org/tizen/qivo_thing", interface.name)
loop = GLib.MainLoop()


def say(*words):
    print(*(str(word).lower() if isinstance(word, bool) else word for word in words), flush=True)


def on_signal(_proxy, _sender, signal, parameters):
    arguments = list(parameters)
    if signal == "send_event":
        if arguments[0] != name:
            return
        say(signal, arguments[1])
        if arguments[1] == "end":
            loop.quit()
            return
        say("send_data", proxy.send_data("(ss)", name, arguments[1]))
        return
    say(signal, *arguments)
    if signal == "dbus_server_ready":
        say("register_app", proxy.register_app("(s)", name))
    elif signal == "cloud_connection_changed":
        say("get_cloud_connection", proxy.get_cloud_connection())
        say("get_thing_information", proxy.get_thing_information().strip())


proxy.connect("g-signal", on_signal)
say("register_app", proxy.register_app("(s)", name))
loop.run()
say("unregister_app", proxy.unregister_app("(s)", name))
