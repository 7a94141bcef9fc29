#!/usr/bin/python3
"""An application in Python: registers, prints what the cloud sends it, and confirms it by sending it back.

    app.py NAME

NAME is one of the names on the channel's list, "qz" for example. SIGINT or SIGTERM unregisters and ends it.
"""

import signal
import sys

from gi.repository import Gio, GLib

BUS_NAME = "org.tizen.qivo_thing"
OBJECT_PATH = "/org/tizen/qivo_thing"
INTERFACE = "org.tizen.qivo_thing.service"
NOT_REGISTERED = -20


class App:
    def __init__(self, name):
        self.status = 0
        self._name = name
        self._registered = False
        self._loop = GLib.MainLoop()
        self._bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
        # Every listener gets every event: let the bus select ours by the first argument.
        self._bus.signal_subscribe(BUS_NAME, INTERFACE, "send_event", OBJECT_PATH, name,
                                   Gio.DBusSignalFlags.NONE, self._on_send_event)
        # Registrations end with the channel's process, the owner of the name: register with each new owner.
        Gio.bus_watch_name_on_connection(self._bus, BUS_NAME, Gio.BusNameWatcherFlags.NONE,
                                         self._on_appeared, self._on_vanished)
        # The library would end the program without a word when the bus goes away.
        self._bus.set_exit_on_close(False)
        self._bus.connect("closed", self._on_closed)
        # No KeyboardInterrupt: a second Ctrl-C would end the program before it has unregistered.
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: GLib.idle_add(self._loop.quit))

    def run(self):
        self._loop.run()
        if self._registered:
            self._call("unregister_app", self._name)

    def _call(self, method, *texts):
        """The result of the call; None when it failed, which is printed."""
        try:
            parameters = GLib.Variant("(" + "s" * len(texts) + ")", texts)
            return self._bus.call_sync(BUS_NAME, OBJECT_PATH, INTERFACE, method, parameters,
                                       GLib.VariantType("(i)"), Gio.DBusCallFlags.NONE, -1)[0]
        except GLib.Error as error:
            print(f"app: {method}: {error.message}", file=sys.stderr)
            return None

    def _on_appeared(self, *_):
        # Registrations are counted, and outlive an application that crashes. While some are left, the cloud does not
        # get the property. So take away all that are left of earlier runs, and then register once.
        result = 0
        while result == 0:
            result = self._call("unregister_app", self._name)
        if result == NOT_REGISTERED:
            result = self._call("register_app", self._name)
        if result is None:
            return  # the channel has just gone: it appears again
        if result != 0:
            self._fail(f"cannot register '{self._name}': {result}")
            return
        self._registered = True
        print("registered", flush=True)

    def _fail(self, message):
        print(f"app: {message}", file=sys.stderr)
        self.status = 1
        self._loop.quit()

    def _on_vanished(self, *_):
        self._registered = False

    def _on_closed(self, *_):
        self._registered = False
        self._fail("the message bus is gone")

    def _on_send_event(self, _bus, _sender, _path, _interface, _signal, parameters):
        data = parameters[1]
        print(f"event: {data}", flush=True)
        self._call("send_data", self._name, data)


def main():
    if len(sys.argv) != 2:
        print("usage: app.py NAME", file=sys.stderr)
        return 2
    try:
        app = App(sys.argv[1])
    except GLib.Error as error:
        print(f"app: {error.message}", file=sys.stderr)
        return 1
    app.run()
    return app.status


if __name__ == "__main__":
    sys.exit(main())
