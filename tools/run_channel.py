#!/usr/bin/python3
"""Runs the whole channel on this machine, as ./dev run does.

    run_channel.py [OPTION...] BUILD_FOLDER [COMMAND [ARGUMENT...]]
    run_channel.py --restart host|broker [--kill]

Starts a message bus with the shipped policy, a broker on loopback and the host with the plug-in. Without
a command: says where they are and shows the host's log until Ctrl-C. With one: runs it once the channel is
ready, with DBUS_SYSTEM_BUS_ADDRESS, LUMO_BROKER, LUMO_THING_ID and VCONF_DIR set, and ends with its status.

Everything of a run is in one folder, ADC_RUN_FOLDER, which only the user can enter: among the rest host.log,
broker.log and the socket `control`, where --restart asks for a restart.

The broker has two listeners. The one for MQTT takes everybody, as it is for loopback alone. Any web page in
the user's browser can reach loopback, too, so the one for WebSocket wants the user `console` and a key that is
made for the run. It serves the page; the key is in the fragment of the page's address, ADC_RUN_PAGE, which
no browser sends anywhere. The broker has only a hash of it.

Whatever happens, nothing is left: no process, no socket, no file. That takes two processes.

    front    what the caller started. It waits for the keeper and passes signals on to it.
    keeper   its child, in a process group of its own: starts, watches and ends everything else.

Both are subreapers: whatever was started below them, and lost its parent, becomes their child. So the keeper
finds all that is left when it ends, and the front does when the keeper was killed. The keeper gets a SIGTERM
when the front is killed. Should both be killed at once, the kernel still ends what the keeper started itself.
"""

import argparse
import collections
import contextlib
import ctypes
import errno
import glob
import os
import pwd
import queue
import re
import secrets
import select
import shlex
import shutil
import signal
import socket
import stat
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
ROOT = Path(__file__).resolve().parent.parent
POLICY_FILE = ROOT / f"packaging/dbus/{BUS_NAME}.conf"
PAGE_FILE = ROOT / "console/dist/index.html"
PAGE_USER = "console"
LONGEST_SOCKET_PATH = 107  # bytes; the kernel's

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

# With that many queued messages the page gets all that the broker keeps, also of many things. With 0, no limit,
# mosquitto closes the connection of a client whose publication it refuses.
# The settings of a listener come after it, and the one for WebSocket must not be the first: it would lose
# some. With IPv6 it would listen on every address of the machine, whatever address it is given. The cookies
# of other servers on loopback come with every request to it.
BROKER_CONFIGURATION = """\
per_listener_settings true
websockets_headers_size 16384
persistence true
persistence_location {folder}/
max_queued_messages 1000000
set_tcp_nodelay true
user {user}
log_dest stderr
log_type error
log_type warning
log_type information
connection_messages false

listener {mqtt} 127.0.0.1
allow_anonymous true

listener {websockets} 127.0.0.1
protocol websockets
socket_domain ipv4
http_dir {folder}/page
allow_anonymous false
password_file {folder}/passwords
"""

ADDRESSES = """\
The channel is up; Ctrl-C ends it.

The page, in a browser:
  {page}
To use the channel in other terminals, paste there:
{exports}
The application's side:
  gdbus call -a {bus} -d {name} -o {path} -m {name}.service.register_app qz
  gdbus monitor -a {bus} -d {name}
The cloud's side:
  mosquitto_rr -p {mqtt} -q 2 -t things/{thing}/{service}/set -e reply/1 -m '{{"qz": "hello"}}'
  mosquitto_sub -p {mqtt} -t 'things/{thing}/#' -v
Recovery, with --kill as after a crash:
  ./dev run restart host
  ./dev run restart broker

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


class SignalPipe:
    """The signals that ask for the end, as bytes in a pipe.

    A handler in Python runs between two of its instructions only: a signal that came just before a call that
    waits would be seen after it.
    """

    def __init__(self):
        self._read, write = os.pipe2(os.O_CLOEXEC)
        os.set_blocking(write, False)
        for number in ENDING_SIGNALS:
            signal.signal(number, lambda *_: None)
        signal.set_wakeup_fd(write)

    def fileno(self):
        return self._read

    def take(self):
        """The numbers of those that came; waits for one."""
        return os.read(self._read, 64)

    def pass_on(self, events):
        while True:
            for number in self.take():
                events.put((None, number))


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
    ones are kept. A process with `shared` output keeps the caller's. All lines also go to the `log`, an
    unbuffered file, if there is one.
    """

    def __init__(self, events, name, command, shared=False, log=None, **options):
        self.name = name
        self._events = events
        self._log = log
        self._ended = threading.Event()
        self._lock = threading.Lock()
        self._lines = collections.deque(maxlen=KEPT_LINES)  # under the lock
        self._shown = False  # under the lock
        output = {} if shared else {
            "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT,
            "text": True, "errors": "replace", "start_new_session": True}
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *command], **{**output, **options})
        threading.Thread(target=self._watch).start()

    @property
    def status(self):
        return self._process.returncode

    def send(self, number):
        self._process.send_signal(number)

    def end(self, number=signal.SIGTERM):
        """Ends the process: politely, and then not."""
        self.send(number)
        self.wait(STOP_LIMIT_S)

    def wait(self, limit):
        if not self._ended.wait(limit):
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
            if self._log:
                with contextlib.suppress(OSError):  # a log that cannot be written is none
                    self._log.write(line.encode())
            with self._lock:
                self._lines.append(line)
                if self._shown:
                    self._print(line)
            self._events.put((self, line))
        self._process.wait()
        self._ended.set()
        self._events.put((self, None))

    def _print(self, text):
        try:
            print(text, end="", flush=True)
        except OSError:  # nobody reads any more
            self._shown = False
            self._events.put((None, signal.SIGPIPE))


class Control:
    """The socket where a restart is asked for.

    A request is a line: the part, and `kill` if it shall not be told. It goes to the queue of events, with the
    connection, where the answer is a line that is empty or says what went wrong.
    """

    def __init__(self, events, path):
        self._events = events
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            connection = self._listener.accept()[0]
            connection.settimeout(STOP_LIMIT_S)
            with contextlib.suppress(OSError), connection.makefile() as lines:
                self._events.put((self, (connection, lines.readline().split())))

    @staticmethod
    def answer(connection, text=""):
        with contextlib.suppress(OSError), connection:  # nobody waits for it any more
            connection.sendall(f"{text}\n".encode())


class Channel:
    """The bus, the broker and the host, in a folder that is there already. Ended in reverse."""

    def __init__(self, events, folder, options):
        self.bus_path = options.bus or f"{folder}/bus"
        # As addresses of a bus are escaped.
        self.bus_address = f"unix:path={quote(self.bus_path, safe='/-_.')}"
        self.thing = os.environ.get("LUMO_THING_ID") or "tv"
        self.ports = ()
        self._folder = folder
        self._options = options
        self._user = pwd.getpwuid(os.geteuid()).pw_name
        self._key = secrets.token_urlsafe(24)
        self._has_page = os.path.isfile(options.page)
        self._events = events
        self._control = None
        self._command = None
        self._later = []  # events that came while something else was waited for
        self._running = {}  # parts and the command, in the order of their starts
        self._logs = {}

    @property
    def host(self):
        return self._running["host"]

    @property
    def environment(self):
        return {"DBUS_SYSTEM_BUS_ADDRESS": self.bus_address,
                "LUMO_BROKER": f"mqtt://127.0.0.1:{self.ports[0]}",
                "LUMO_THING_ID": self.thing,
                "VCONF_DIR": f"{self._folder}/vconf",
                "ADC_RUN_FOLDER": self._folder}

    @property
    def page_address(self):
        """Empty without a page."""
        return f"http://127.0.0.1:{self.ports[1]}/#key={self._key}" if self._has_page else ""

    def start(self):
        self._open_logs()
        self._start_bus()
        self._prepare_page()
        self._start_broker()
        self._start_host()
        self._control = Control(self._events, f"{self._folder}/control")

    def run(self, command, group):
        """Runs the command in the caller's process group; the result is its exit status."""
        try:
            page = {"ADC_RUN_PAGE": self.page_address} if self._has_page else {}
            self._command = Process(self._events, command[0], command, shared=True, process_group=group,
                                    env={**os.environ, **self.environment, **page})
            self._running["command"] = self._command
            self._serve()
        except Ended as ended:
            self._command.send(ended.number)
            self._command.wait(STOP_LIMIT_S)
        return exit_status(self._command.status)

    def show(self):
        """Says where everything is, and shows the host's log, until a signal."""
        exports = "".join(f"  export {name}={shlex.quote(value)}\n"
                          for name, value in self.environment.items())
        print(ADDRESSES.format(
            page=self.page_address or
            "not built: ./dev run builds it where Node.js (18 or newer) and npm are installed",
            exports=exports, bus=shlex.quote(self.bus_address), mqtt=self.ports[0], thing=self.thing,
            service=SERVICE, name=BUS_NAME, path=OBJECT_PATH), end="", flush=True)
        self.host.show()
        self._serve()

    def stop(self):
        for process in reversed(self._running.values()):
            process.end()

    def _serve(self):
        """Does the restarts that are asked for until the command has ended."""
        while True:
            source, what = self._until(lambda source, what: source is self._control or
                                       (source is self._command and what is None))
            if source is self._command:
                return
            self._restart(*what)

    def _restart(self, connection, request):
        starts = {"broker": self._start_broker, "host": self._start_host}
        part, number = request[0] if request else "", signal.SIGTERM
        if part not in starts or request[1:] not in ([], ["kill"]):
            Control.answer(connection, f"no request: {' '.join(request)}")
            return
        if request[1:]:
            number = signal.SIGKILL
        try:
            self._running[part].end(number)
            starts[part]()
            if part == "host" and not self._command:
                self.host.show()
        except (Failure, OSError) as failure:
            Control.answer(connection, failure)
            raise
        Control.answer(connection)

    def _direct_log(self):
        """Where the host writes its log itself, if it shall."""
        if not self._options.direct_log:
            return {}
        try:
            return {"stderr": open(self._options.direct_log, "ab")}
        except OSError as error:
            raise Failure(f"cannot write {self._options.direct_log}: {error.strerror}") from None

    def _open_logs(self):
        if self._options.log:
            os.symlink(os.path.abspath(self._options.log), f"{self._folder}/host.log")
        for part in ("broker", "host"):
            path = f"{self._folder}/{part}.log"
            try:
                self._logs[part] = open(path, "wb", buffering=0)
            except OSError as error:
                raise Failure(f"cannot write {os.path.realpath(path)}: {error.strerror}") from None

    def _prepare_page(self):
        """The broker serves all that is in the folder of the page, and follows no link out of it."""
        os.mkdir(f"{self._folder}/page")
        if self._has_page:
            shutil.copy(self._options.page, f"{self._folder}/page/index.html")
        passwords = f"{self._folder}/passwords"
        with open(os.open(passwords, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w",
                  encoding="ascii") as file:
            file.write(f"{PAGE_USER}:{self._key}\n")
        subprocess.run(["mosquitto_passwd", "-U", passwords], stdin=subprocess.DEVNULL, check=True)

    def _start_bus(self):
        policy = f"{self._folder}/policy.conf"
        configuration = f"{self._folder}/bus.conf"
        shipped = POLICY_FILE.read_text(encoding="utf-8")
        Path(policy).write_text(shipped.replace(f'user="{POLICY_USER}"', f'user="{self._user}"'),
                                encoding="utf-8")
        Path(configuration).write_text(
            BUS_CONFIGURATION.format(address=escape(self.bus_address), policy=escape(policy)),
            encoding="utf-8")
        self._start("bus", "the message bus",
                    ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile",
                     "--nosyslog", "--print-address=1"], r"^unix:path=")

    def _start_broker(self):
        # A port that was free a moment ago may be taken when the broker wants it.
        again = bool(self.ports)
        for attempt in range(5):
            if not again:
                with socket.socket() as first, socket.socket() as second:
                    first.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                    first.bind(("127.0.0.1", self._options.port or 0))
                    second.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                    second.bind(("127.0.0.1", self._options.page_port or 0))
                    self.ports = (first.getsockname()[1], second.getsockname()[1])
            configuration = f"{self._folder}/broker.conf"
            Path(configuration).write_text(
                BROKER_CONFIGURATION.format(mqtt=self.ports[0], websockets=self.ports[1],
                                            user=self._user, folder=self._folder), encoding="utf-8")
            try:
                self._start("broker", "the broker", ["mosquitto", "-c", configuration], r"running$")
                return
            except Failure as failure:
                if attempt == 4 or not re.search("in use|websockets listener", str(failure)):
                    raise
                if again:
                    time.sleep(0.2)  # whoever has it has it for the time of one connection

    def _start_host(self):
        # Of the settings whoever starts this may choose the time-out alone.
        environment = {key: value for key, value in os.environ.items()
                       if not key.startswith("LUMO_") or key == "LUMO_REQUEST_TIMEOUT_MS"}
        self._start("host", "the host",
                    [f"{self._options.build}/host/qivo-thing",
                     f"{self._options.build}/src/app-data-channel-plugin/libappdatachannel.so"],
                    r"^qivo-thing: ready", env={**environment, **self.environment}, **self._direct_log())
        # The device service says that it is online once all else that it publishes is at the broker. Before
        # that, the broker may have that it was offline.
        seen = Process(self._events, "mosquitto_sub",
                       ["mosquitto_sub", "-V", "5", "-p", str(self.ports[0]),
                        "-t", f"things/{self.thing}/status"])
        self._until(lambda source, line: source is seen and line == '"online"\n', START_LIMIT_S,
                    "the device service does not come to the broker", self.host)
        seen.end(signal.SIGKILL)

    def _start(self, part, name, command, ready, **options):
        process = Process(self._events, name, command, log=self._logs.get(part), **options)
        self._running[part] = process
        pattern = re.compile(ready)
        self._until(lambda source, line: source is process and line and pattern.search(line),
                    START_LIMIT_S, f"{name} does not start", process)

    def _until(self, reached, limit=None, complaint="", culprit=None):
        """Takes events until one is what is waited for; the result is that one.

        Raises Ended for a signal, and Failure when the limit has passed or a part of the channel ended."""
        for event in self._later:
            if reached(*event):
                self._later.remove(event)
                return event
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
                return source, what
            if source in (self._control, self._command):
                self._later.append((source, what))
            elif what is None and source in self._running.values():
                raise Failure(self._tell(f"{source.name} ended with status "
                                         f"{exit_status(source.status)}", source))

    @staticmethod
    def _tell(complaint, culprit):
        return "\n".join([complaint, *(f"  {line.rstrip()}" for line in culprit.last_lines())])


def check_port(port):
    with socket.socket() as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            listener.bind(("127.0.0.1", port))
        except OSError as error:
            if error.errno == errno.EADDRINUSE:
                raise Failure(f"port {port} is taken") from None
            raise Failure(f"port {port}: {error.strerror}") from None


def check_bus(path):
    if len(os.fsencode(path)) > LONGEST_SOCKET_PATH:
        raise Failure(f"{path} is too long for a socket")
    if not os.path.isdir(os.path.dirname(path)):
        raise Failure(f"no folder {os.path.dirname(path)}")
    with socket.socket(socket.AF_UNIX) as client:
        try:
            client.connect(path)
        except FileNotFoundError:
            return
        except ConnectionRefusedError:
            # A socket without a listener: the bus removes it. Connecting to a file is refused, too.
            if stat.S_ISSOCK(os.stat(path).st_mode):
                return
        except OSError:
            pass
    raise Failure(f"{path} is taken")


def check(options):
    os.environ["PATH"] = os.environ.get("PATH", os.defpath) + ":/usr/sbin"  # where brokers are
    for tool in ("dbus-daemon", "mosquitto", "mosquitto_passwd", "mosquitto_sub", "setpriv"):
        if not shutil.which(tool):
            raise Failure(f"{tool} is missing: ./dev setup installs it")
    for file in (f"{options.build}/host/qivo-thing",
                 f"{options.build}/src/app-data-channel-plugin/libappdatachannel.so", POLICY_FILE):
        if not os.path.exists(file):
            raise Failure(f"no file {file}: ./dev build makes it")
    if options.command and not shutil.which(options.command[0]):
        raise Failure(f"no command {options.command[0]}")
    for port in filter(None, (options.port, options.page_port)):
        check_port(port)
    if options.bus:
        check_bus(options.bus)


def keep(events, folder, options, group):
    """The keeper's work; the result is the exit status."""
    channel = Channel(events, folder, options)
    command = options.command
    os.mkdir(folder, 0o700)
    try:
        channel.start()
        if command:
            if not options.log and not options.direct_log:
                print(f"run: the host's log is {folder}/host.log until the command ends; --log FILE keeps it",
                      file=sys.stderr, flush=True)
            return channel.run(command, group)
        channel.show()
        return 0
    except Ended as ended:
        return 0 if ended.number == signal.SIGINT and not command else 128 + ended.number
    except (Failure, OSError, subprocess.SubprocessError) as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1
    finally:
        channel.stop()


def clean(folder, options):
    end_descendants()
    shutil.rmtree(folder, ignore_errors=True)
    if options.bus:
        with contextlib.suppress(OSError):
            os.unlink(options.bus)


def folder_of_run():
    """Of the run that this process is part of, or else of the only one."""
    folder = os.environ.get("ADC_RUN_FOLDER")
    if folder:
        return folder
    found = [os.path.dirname(path) for path in glob.glob(f"{tempfile.gettempdir()}/{SERVICE}-*/control")]
    if not found:
        raise Failure("no channel runs: ./dev run starts one")
    if len(found) > 1:
        raise Failure(f"ADC_RUN_FOLDER must say which one: {' '.join(found)}")
    return found[0]


def restart(part, kill):
    folder = folder_of_run()
    with socket.socket(socket.AF_UNIX) as connection:
        try:
            connection.connect(f"{folder}/control")
            connection.sendall(f"{part} kill\n".encode() if kill else f"{part}\n".encode())
            with connection.makefile() as lines:
                answer = lines.read()
        except OSError:
            raise Failure(f"no channel runs in {folder}") from None
    if answer != "\n":
        raise Failure(answer.rstrip() or "the channel ended")


def parse_arguments():
    parser = argparse.ArgumentParser(allow_abbrev=False)
    parser.add_argument("--port", type=int, help="of the broker's listener for MQTT")
    parser.add_argument("--page-port", type=int, help="of the page, and of the broker's listener for WebSocket")
    parser.add_argument("--bus", type=os.path.abspath, metavar="PATH", help="of the bus's socket")
    parser.add_argument("--log", metavar="FILE", help="for the host's log")
    parser.add_argument("--direct-log", metavar="FILE",
                        help="the host's log goes there, and not through this program, which would take the "
                        "processor of what is measured")
    parser.add_argument("--page", metavar="FILE", default=PAGE_FILE, help="that the broker serves")
    parser.add_argument("--restart", choices=("host", "broker"), help="in a channel that runs")
    parser.add_argument("--kill", action="store_true", help="restart without a clean shutdown")
    parser.add_argument("build", nargs="?", metavar="BUILD_FOLDER")
    parser.add_argument("command", nargs=argparse.REMAINDER, metavar="COMMAND")
    options = parser.parse_args()
    if bool(options.build) == bool(options.restart):
        parser.error("either BUILD_FOLDER or --restart")
    return options


def main():
    options = parse_arguments()
    try:
        if options.restart:
            restart(options.restart, options.kill)
            return 0
        check(options)
    except Failure as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1

    # Both need to know the folder, whoever is left to remove it; the keeper makes it.
    folder = f"{tempfile.gettempdir()}/{SERVICE}-{secrets.token_hex(6)}"
    front = os.getpid()
    signals = SignalPipe()  # before the fork, so that no signal is missed
    prctl(PR_SET_CHILD_SUBREAPER, 1)
    keeper = os.fork()
    if keeper == 0:
        group = os.getpgid(0)
        os.setpgid(0, 0)
        prctl(PR_SET_CHILD_SUBREAPER, 1)
        prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
        events = queue.SimpleQueue()
        signals = SignalPipe()  # what comes until here, the front passes on
        threading.Thread(target=signals.pass_on, args=(events,), daemon=True).start()
        try:
            return keep(events, folder, options, group) if os.getppid() == front else 1
        finally:
            clean(folder, options)

    ended = os.pidfd_open(keeper)
    while ended not in select.select([ended, signals], [], [])[0]:
        for number in signals.take():
            os.kill(keeper, number)
    status = os.waitstatus_to_exitcode(os.waitpid(keeper, 0)[1])
    clean(folder, options)
    return exit_status(status)


if __name__ == "__main__":
    sys.exit(main())
