#!/usr/bin/python3
"""Runs the whole channel on this machine, as ./dev run does.

    run_channel.py BUILD_FOLDER [COMMAND [ARGUMENT...]]

Starts a message bus with the shipped policy, a broker on loopback and the host with the plug-in. Without
a command: says where they are and shows the host's log until Ctrl-C. With one: runs it once the channel is
ready, with DBUS_SYSTEM_BUS_ADDRESS, LUMO_BROKER, LUMO_THING_ID and VCONF_DIR set, and ends with its status.

Whatever happens, nothing is left: no process, no socket, no file. That takes two processes.

    front    what the caller started. It waits for the keeper and passes signals on to it.
    keeper   its child, in a process group of its own: starts, watches and ends everything else.

Both are subreapers: whatever was started below them, and lost its parent, becomes their child. So the keeper
finds all that is left when it ends, and the front does when the keeper was killed. The keeper gets a SIGTERM
when the front is killed. Should both be killed at once, the kernel still ends what the keeper started itself.
"""

import collections
import contextlib
import ctypes
import os
import pwd
import queue
import re
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from urllib.parse import quote
from xml.sax.saxutils import escape

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36

START_LIMIT_S = 30
STOP_LIMIT_S = 5
KEPT_LINES = 500  # more than anything writes while it starts
TOLD_LINES = 20
ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

SERVICE = "appdatachannel"
BUS_NAME = "org.tizen.qivo_thing"
OBJECT_PATH = "/org/tizen/qivo_thing"
POLICY_USER = "qivo-thing"
POLICY_FILE = Path(__file__).resolve().parent.parent / f"packaging/dbus/{BUS_NAME}.conf"

# What a system bus allows before any service's own policy, as the distribution has it.
BUS_CONFIGURATION = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>{address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>{policy}</include>
</busconfig>
"""

BROKER_CONFIGURATION = """\
listener {mqtt} 127.0.0.1
listener {websockets} 127.0.0.1
protocol websockets
allow_anonymous true
persistence false
set_tcp_nodelay true
user {user}
log_dest stderr
log_type error
log_type warning
log_type information
connection_messages false
"""

ADDRESSES = """\
The channel is up; Ctrl-C ends it.

  message bus  {bus}
  broker       mqtt://127.0.0.1:{mqtt}  ws://127.0.0.1:{websockets}
  thing        {thing}

The application's side, in other terminals:
  gdbus call -a {bus} -d {name} -o {path} -m {name}.service.register_app qz
  gdbus monitor -a {bus} -d {name}
The cloud's side:
  mosquitto_rr -p {mqtt} -q 2 -t things/{thing}/{service}/set -e reply/1 -m '{{"qz": "hello"}}'
  mosquitto_sub -p {mqtt} -t 'things/{thing}/#' -v

"""


class Failure(Exception):
    """What the user is told, in one line and the last lines of whoever failed."""


class Ended(Exception):
    """A signal asked for the end."""

    def __init__(self, number):
        super().__init__(number)
        self.number = number


def prctl(option, value):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(option, ctypes.c_ulong(value), 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def end_descendants():
    """Kills every child, and every grandchild that becomes one, until there is none."""
    children = Path(f"/proc/self/task/{os.getpid()}/children")
    while True:
        for child in children.read_text(encoding="ascii").split():
            os.kill(int(child), signal.SIGKILL)
        try:
            if os.waitpid(-1, os.WNOHANG)[0] == 0:
                time.sleep(0.001)  # killed, and not yet dead
        except ChildProcessError:
            return


def exit_status(status):
    """As a shell has it: 128 and the signal's number for a process that a signal ended."""
    return status if status >= 0 else 128 - status


class Process:
    """A process that the keeper started, told of through the queue of events.

    Its output is read as long as it lives, on a thread of its own; each line goes to the queue, and the last
    ones are kept. A process with `shared` output keeps the caller's.
    """

    def __init__(self, events, name, command, shared=False, **options):
        self.name = name
        self._events = events
        self._lock = threading.Lock()
        self._lines = collections.deque(maxlen=KEPT_LINES)  # under the lock
        self._shown = False  # under the lock
        output = {} if shared else {
            "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT,
            "text": True, "errors": "replace", "start_new_session": True}
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *command], **output, **options)
        threading.Thread(target=self._watch).start()

    @property
    def status(self):
        return self._process.returncode

    def send(self, number):
        self._process.send_signal(number)

    def end(self):
        """Ends the process: politely, and then not."""
        self.send(signal.SIGTERM)
        self.wait(STOP_LIMIT_S)

    def wait(self, limit):
        try:
            self._process.wait(limit)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def show(self):
        """Prints what it has written so far and, from now on, what it writes."""
        with self._lock:
            self._shown = True
            self._print("".join(self._lines))

    def last_lines(self):
        with self._lock:
            return list(self._lines)[-TOLD_LINES:]

    def _watch(self):
        for line in self._process.stdout or ():
            with self._lock:
                self._lines.append(line)
                if self._shown:
                    self._print(line)
            self._events.put((self, line))
        self._process.wait()
        self._events.put((self, None))

    def _print(self, text):
        try:
            print(text, end="", flush=True)
        except OSError:  # nobody reads any more
            self._shown = False
            self._events.put((None, signal.SIGPIPE))


class Channel:
    """The bus, the broker and the host, in a folder that is there already. Ended in reverse."""

    def __init__(self, events, folder, build, thing):
        # As addresses of a bus are escaped.
        self.bus_address = f"unix:path={quote(folder, safe='/-_.')}/bus"
        self.thing = thing
        self.ports = ()
        self._folder = folder
        self._build = build
        self._user = pwd.getpwuid(os.geteuid()).pw_name
        self._events = events
        self._running = []

    @property
    def host(self):
        return self._running[2]

    @property
    def environment(self):
        return {"DBUS_SYSTEM_BUS_ADDRESS": self.bus_address,
                "LUMO_BROKER": f"mqtt://127.0.0.1:{self.ports[0]}",
                "LUMO_THING_ID": self.thing,
                "VCONF_DIR": f"{self._folder}/vconf"}

    def start(self):
        self._start_bus()
        self._start_broker()
        self._start_host()

    def run(self, command, group):
        """Runs the command in the caller's process group; the result is its exit status."""
        try:
            process = Process(self._events, command[0], command, shared=True, process_group=group,
                              env={**os.environ, **self.environment})
            self._running.append(process)
            self._until(lambda source, line: source is process and line is None)
        except Ended as ended:
            process.send(ended.number)
            process.wait(STOP_LIMIT_S)
        return exit_status(process.status)

    def wait_for_signal(self):
        self._until(lambda source, line: False)

    def stop(self):
        while self._running:
            self._running.pop().end()

    def _start_bus(self):
        policy = f"{self._folder}/policy.conf"
        configuration = f"{self._folder}/bus.conf"
        shipped = POLICY_FILE.read_text(encoding="utf-8")
        Path(policy).write_text(shipped.replace(f'user="{POLICY_USER}"', f'user="{self._user}"'),
                                encoding="utf-8")
        Path(configuration).write_text(
            BUS_CONFIGURATION.format(address=self.bus_address, policy=escape(policy)), encoding="utf-8")
        self._start("the message bus",
                    ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile",
                     "--nosyslog", "--print-address=1"], r"^unix:path=")

    def _start_broker(self):
        # A port that was free a moment ago may be taken when the broker wants it.
        for attempt in range(5):
            with socket.socket() as first, socket.socket() as second:
                first.bind(("127.0.0.1", 0))
                second.bind(("127.0.0.1", 0))
                self.ports = (first.getsockname()[1], second.getsockname()[1])
            configuration = f"{self._folder}/broker.conf"
            Path(configuration).write_text(
                BROKER_CONFIGURATION.format(mqtt=self.ports[0], websockets=self.ports[1],
                                            user=self._user), encoding="utf-8")
            try:
                self._start("the broker", ["mosquitto", "-c", configuration], r"running$")
                return
            except Failure as failure:
                if attempt == 4 or "in use" not in str(failure):
                    raise
                self._running.pop()

    def _start_host(self):
        environment = {key: value for key, value in os.environ.items()
                       if not key.startswith("LUMO_BROKER")}
        self._start("the host",
                    [f"{self._build}/host/qivo-thing",
                     f"{self._build}/src/app-data-channel-plugin/libappdatachannel.so"],
                    r"^qivo-thing: ready", env={**environment, **self.environment})
        # The device service says that it is online once all else that it publishes is at the broker.
        seen = Process(self._events, "mosquitto_sub",
                       ["mosquitto_sub", "-V", "5", "-p", str(self.ports[0]), "-C", "1",
                        "-t", f"things/{self.thing}/status"])
        self._until(lambda source, line: source is seen and line is None, START_LIMIT_S,
                    "the device service does not come to the broker", self.host)

    def _start(self, name, command, ready, **options):
        process = Process(self._events, name, command, **options)
        self._running.append(process)
        pattern = re.compile(ready)
        self._until(lambda source, line: source is process and line and pattern.search(line),
                    START_LIMIT_S, f"{name} does not start", process)

    def _until(self, reached, limit=None, complaint="", culprit=None):
        """Takes events until one is what is waited for.

        Raises Ended for a signal, and Failure when the limit has passed or a part of the channel ended."""
        deadline = None if limit is None else time.monotonic() + limit
        while True:
            left = None if deadline is None else max(0, deadline - time.monotonic())
            try:
                source, what = self._events.get(timeout=left)
            except queue.Empty:
                raise Failure(self._tell(complaint, culprit)) from None
            if source is None:
                raise Ended(what)
            if reached(source, what):
                return
            if what is None and source in self._running:
                raise Failure(self._tell(f"{source.name} ended with status "
                                         f"{exit_status(source.status)}", source))

    @staticmethod
    def _tell(complaint, culprit):
        return "\n".join([complaint, *(f"  {line.rstrip()}" for line in culprit.last_lines())])


def check(build, command):
    os.environ["PATH"] = os.environ.get("PATH", os.defpath) + ":/usr/sbin"  # where brokers are
    for tool in ("dbus-daemon", "mosquitto", "mosquitto_sub", "setpriv"):
        if not shutil.which(tool):
            raise Failure(f"{tool} is missing: ./dev setup installs it")
    for file in (f"{build}/host/qivo-thing",
                 f"{build}/src/app-data-channel-plugin/libappdatachannel.so", POLICY_FILE):
        if not os.path.exists(file):
            raise Failure(f"no file {file}: ./dev build makes it")
    if command and not shutil.which(command[0]):
        raise Failure(f"no command {command[0]}")


def keep(events, folder, build, command, group):
    """The keeper's work; the result is the exit status."""
    channel = Channel(events, folder, build, os.environ.get("LUMO_THING_ID") or "tv")
    os.mkdir(folder, 0o700)
    try:
        channel.start()
        if command:
            return channel.run(command, group)
        print(ADDRESSES.format(bus=channel.bus_address, mqtt=channel.ports[0],
                               websockets=channel.ports[1], thing=channel.thing, service=SERVICE,
                               name=BUS_NAME, path=OBJECT_PATH), end="", flush=True)
        channel.host.show()
        channel.wait_for_signal()
        return 0
    except Ended as ended:
        return 0 if ended.number == signal.SIGINT and not command else 128 + ended.number
    except (Failure, OSError) as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1
    finally:
        channel.stop()


def clean(folder):
    end_descendants()
    shutil.rmtree(folder, ignore_errors=True)


def main():
    if len(sys.argv) < 2:
        print("usage: run_channel.py BUILD_FOLDER [COMMAND [ARGUMENT...]]", file=sys.stderr)
        return 2
    build, command = sys.argv[1], sys.argv[2:]
    try:
        check(build, command)
    except Failure as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1

    # Both need to know the folder, whoever is left to remove it; the keeper makes it.
    folder = f"{tempfile.gettempdir()}/{SERVICE}-{secrets.token_hex(6)}"
    front = os.getpid()
    events = queue.SimpleQueue()  # set up before the fork, so that the keeper misses no signal
    for number in ENDING_SIGNALS:
        signal.signal(number, lambda number, _: events.put((None, number)))
    prctl(PR_SET_CHILD_SUBREAPER, 1)
    keeper = os.fork()
    if keeper == 0:
        group = os.getpgid(0)
        os.setpgid(0, 0)
        prctl(PR_SET_CHILD_SUBREAPER, 1)
        prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
        try:
            return keep(events, folder, build, command, group) if os.getppid() == front else 1
        finally:
            clean(folder)

    def forward(number, _=None):
        with contextlib.suppress(ProcessLookupError):  # it has just ended by itself
            os.kill(keeper, number)

    for number in ENDING_SIGNALS:
        signal.signal(number, forward)
    while not events.empty():
        forward(events.get()[1])
    status = os.waitstatus_to_exitcode(os.waitpid(keeper, 0)[1])
    clean(folder)
    return exit_status(status)


if __name__ == "__main__":
    sys.exit(main())
