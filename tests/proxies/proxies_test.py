#!/usr/bin/python3
"""A proxy of the installed interface file, in one language, on a running channel.

    run_channel.py BUILD_FOLDER proxies_test.py LANGUAGE BUILD_FOLDER

LANGUAGE is c, qt, python or javascript. Installs the service, has the language's own tool make a proxy of the
interface file, and runs a small program with it. The program registers, says what it gets from methods and signals
in one line each, sends back the data of each event, registers again with a host that was started again, and
unregisters after the event "end".
"""

import os
import queue
import subprocess
import sys
import tempfile
import threading
import unittest
from pathlib import Path
from urllib.parse import urlparse

HERE = Path(__file__).resolve().parent
EXAMPLES = HERE.parent.parent / "examples"
RUN_CHANNEL = HERE.parent.parent / "tools/run_channel.py"
PATIENCE_S = 60
NAME = "qz"
SERVICE = "things/tv/appdatachannel/"

language, build = sys.argv[1:]


def run(*command, **options):
    result = subprocess.run(list(map(str, command)), capture_output=True, text=True, check=False, **options)
    if result.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))}\n{result.stdout}{result.stderr}")
    return result.stdout


def flags_of(*packages):
    return run("pkg-config", "--cflags", "--libs", *packages).split()


def c_program(folder, interface_file):
    run("gdbus-codegen", "--interface-prefix", "org.tizen.qivo_thing.", "--c-namespace", "Channel",
        "--generate-c-code", "proxy", "--output-directory", folder, interface_file)
    run("cc", "-Wall", "-Werror", "-Wno-deprecated-declarations", f"-I{folder}", HERE / "proxy.c", folder / "proxy.c",
        "-o", folder / "program", *flags_of("gio-2.0", "gio-unix-2.0"))
    return [folder / "program"]


def qt_program(folder, interface_file):
    tools = Path(run("pkg-config", "--variable=host_bins", "Qt5Core").strip())
    run(tools / "qdbusxml2cpp", "-c", "ChannelProxy", "-p", folder / "proxy", interface_file)
    run(tools / "moc", folder / "proxy.h", "-o", folder / "moc.cpp")
    run("c++", "-fPIC", "-Wall", "-Werror", f"-I{folder}", HERE / "proxy.cpp", folder / "proxy.cpp", folder / "moc.cpp",
        "-o", folder / "program", *flags_of("Qt5DBus"))
    return [folder / "program"]


def python_program(_folder, interface_file):
    return [HERE / "proxy.py", interface_file]


def javascript_program(_folder, interface_file):
    return ["node", HERE / "proxy.mjs", EXAMPLES, interface_file]


PROGRAMS = {"c": c_program, "qt": qt_program, "python": python_program, "javascript": javascript_program}


class Program:
    """What runs, and its lines of output."""

    def __init__(self, command):
        self._process = subprocess.Popen(list(map(str, command)), stdout=subprocess.PIPE, text=True)
        self._lines = queue.SimpleQueue()
        threading.Thread(target=self._read, daemon=True).start()

    def line(self):
        return self._lines.get(timeout=PATIENCE_S)

    def end(self):
        """The exit status and the lines that nobody has read."""
        status = self._process.wait(PATIENCE_S)
        lines = []
        while (line := self.line()) is not None:
            lines.append(line)
        return status, lines

    def kill(self):
        self._process.kill()
        self._process.wait()

    def _read(self):
        for line in self._process.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)
        self._process.stdout.close()


class ProxyTest(unittest.TestCase):
    def cloud(self, program, *arguments):
        port = urlparse(os.environ["LUMO_BROKER"]).port
        return run(program, "-V", "5", "-p", port, "-W", PATIENCE_S, *arguments).strip()

    def set(self, payload):
        return self.cloud("mosquitto_rr", "-q", "2", "-t", SERVICE + "set", "-e", "proxies/answer", "-m", payload)

    def value(self):
        return self.cloud("mosquitto_sub", "-C", "1", "-t", SERVICE + "value/" + NAME)

    def test_a_proxy_of_the_installed_interface_calls_methods_and_gets_signals(self):
        with tempfile.TemporaryDirectory() as folder:
            folder = Path(folder)
            run("cmake", "--install", build, "--prefix", folder / "usr", "--component", "service")
            interface_file = folder / "usr/share/dbus-1/interfaces/org.tizen.qivo_thing.service.xml"
            program = Program([*PROGRAMS[language](folder, interface_file), NAME])
            self.addCleanup(program.kill)
            self.assertEqual("register_app 0", program.line())

            self.assertEqual('{"result":0,"properties":{"qz":""}}', self.set('{"qz": "Lautst\u00e4rke 7"}'))
            self.assertEqual("send_event Lautst\u00e4rke 7", program.line())
            self.assertEqual("send_data 0", program.line())
            self.assertEqual('"Lautst\u00e4rke 7"', self.value())

            self.assertIn('"result":0', self.set('{"signupInfo": {}}'))
            self.assertIn('"result":0', self.set('{"signinStatus": true}'))
            self.assertEqual("cloud_connection_changed true", program.line())
            self.assertEqual("get_cloud_connection true", program.line())
            self.assertEqual("get_thing_information {}", program.line())

            run(RUN_CHANNEL, "--restart", "host")
            self.assertEqual("dbus_server_ready", program.line())
            self.assertEqual("register_app 0", program.line())

            self.assertIn('"result":0', self.set('{"qz": "end"}'))
            self.assertEqual((0, ["send_event end", "unregister_app 0"]), program.end())
            self.assertEqual('{"result":6,"properties":{}}', self.set('{"qz": "end"}'))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
