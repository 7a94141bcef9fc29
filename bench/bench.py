#!/usr/bin/python3
"""Measures what the channel costs, side by side with what it stands on.

    bench.py BUILD [--quick]                  everything; a table on standard output
    bench.py BUILD --instructions [--update]  instructions per run of a path, against the baseline

BUILD is the folder of a release build with -DADC_BENCH=ON. Two programs are measured in alternation
(A B A B ...), the classes in a random mix of all; what counts is the ratio of the two in each pair: its
median, and its spread over the pairs. Writes BUILD/../bench/results.json (with --quick results-quick.json)
and, without --quick, the pictures in docs/bench, by gnuplot.
Ends with 1 when something cannot be measured, or when a path's instructions have grown.
"""
import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import select
import shutil
import signal
import statistics
import struct
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BASELINE = ROOT / "bench/instructions/baseline.json"
BUS_NAME = "org.tizen.qivo_thing"
GDBUS_NAME = "bench.gdbus"
SDBUS_NAME = "bench.sdbus"
START_LIMIT = 60  # seconds that a process has to say that it is ready
LIMIT = 1800  # seconds that a measurement may take

BUS_CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_type="method_call"/><allow send_type="signal"/>
    <allow send_type="method_return"/><allow send_type="error"/><allow receive_type="method_call"/>
    <allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
  </policy>
  <limit name="max_completed_connections">4096</limit>
  <limit name="max_connections_per_user">4096</limit>
</busconfig>
"""


class Build:
    """Where the programs are."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        self.results = self.folder.parent / "bench"
        self.results.mkdir(exist_ok=True)
        self.plugin = self.folder / "src/app-data-channel-plugin/libappdatachannel.so"
        self.host = self.folder / "host/qivo-thing"
        self.null_lumo = self.folder / "bench/support"

    def program(self, name):
        return str(self.folder / "bench" / name)


def first_line(process):
    """What the process says first."""
    if not select.select([process.stdout], [], [], START_LIMIT)[0]:
        raise RuntimeError(f"{process.args[0]} says nothing")
    return process.stdout.readline()


class Bus:
    """A message bus of its own, in a temporary folder."""

    def __enter__(self):
        self.folder = tempfile.TemporaryDirectory(prefix="adc-bench-")
        path = pathlib.Path(self.folder.name) / "bus"
        configuration = path.with_suffix(".conf")
        configuration.write_text(BUS_CONFIGURATION.format(path=path))
        self.address = f"unix:path={path}"
        self.daemon = subprocess.Popen(
            ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--print-address"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            first_line(self.daemon)
        except BaseException:  # a signal, too
            self.__exit__()
            raise
        return self

    def __exit__(self, *failure):
        self.daemon.terminate()
        self.daemon.wait()
        self.daemon.stdout.close()
        self.folder.cleanup()

    def environment(self, **more):
        environment = {name: value for name, value in os.environ.items() if not name.startswith("LUMO_")}
        environment.update(DBUS_SYSTEM_BUS_ADDRESS=self.address, DLOG_LEVEL="error",
                           VCONF_DIR=self.folder.name, **more)
        return environment


class Service:
    """A process that says "ready" on a line of its own, and ends at SIGTERM."""

    def __init__(self, command, environment):
        self.process = subprocess.Popen([str(part) for part in command], env=environment,
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)

    def __enter__(self):
        try:
            if "ready" not in first_line(self.process):
                raise RuntimeError(f"{self.process.args[0]} does not start")
        except BaseException:  # a signal, too
            self.__exit__()
            raise
        return self

    def __exit__(self, *failure):
        self.process.terminate()
        try:
            self.process.wait(START_LIMIT)
        finally:
            self.process.kill()
            self.process.wait()
            self.process.stdout.close()

    def resident_kib(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+) kB", status, re.M)[1])


class Host(Service):
    """The real host with the plug-in, on a device service that does nothing."""

    def __init__(self, build, bus, tool=(), **more):
        self.null_lumo = str(build.null_lumo)
        environment = bus.environment(LD_LIBRARY_PATH=self.null_lumo)
        environment.update(more)
        super().__init__([*tool, build.host, build.plugin], environment)

    def __enter__(self):
        super().__enter__()
        if f"{self.null_lumo}/liblumo.so" not in pathlib.Path(f"/proc/{self.process.pid}/maps").read_text():
            self.__exit__()
            raise RuntimeError("the host has another device service")
        return self


class Table:
    """The rows of the result."""

    def __init__(self):
        self.rows = []

    def ratio(self, path, detail, ours, peer, unit, goal=None, more_is_better=False, against="peer"):
        """One measurement per pair in both lists. A goal is the least or the most the ratio may be."""
        ratios = sorted(a / b for a, b in zip(ours, peer))
        median = statistics.median(ratios)
        met = None if goal is None else (median >= goal if more_is_better else median <= goal)
        self.rows.append({
            "path": path, "detail": detail, "unit": unit, "against": against,
            "ours": statistics.median(ours), "peer": statistics.median(peer), "ratio": median,
            "ratio_lowest": ratios[0], "ratio_highest": ratios[-1], "pairs": len(ratios),
            "goal": goal, "more_is_better": more_is_better, "met": met})

    def value(self, path, detail, value, unit, most=None):
        self.rows.append({"path": path, "detail": detail, "unit": unit, "ours": value, "goal": most,
                          "more_is_better": False, "met": None if most is None else value <= most})

    def text(self):
        lines = [f"{'path':<34} {'detail':<34} {'ours':>11} {'peer':>11} {'ratio':>6} {'(spread)':>14} {'goal':>7}"]
        for row in self.rows:
            line = f"{row['path']:<34} {row['detail']:<34} {row['ours']:>11.6g} "
            if "peer" in row:
                spread = f"{row['ratio_lowest']:.2f} - {row['ratio_highest']:.2f}"
                line += f"{row['peer']:>11.6g} {row['ratio']:>6.3f} {spread:>14} "
            else:
                line += " " * 34
            if row["goal"] is not None:
                line += f"{'>=' if row['more_is_better'] else '<='} {row['goal']:<5g} {'' if row['met'] else 'MISSED'}"
            lines.append((line + f"  {row['unit']}").rstrip())
        return "\n".join(lines)


def run(command, environment=None):
    """What the command prints."""
    done = subprocess.run([str(part) for part in command], env=environment, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=LIMIT, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: {done.returncode}\n{done.stderr}")
    return done.stdout


def collected(output):
    """The instructions in a file of callgrind's."""
    return int(re.search(r"^(?:summary|totals): (\d+)", output.read_text(), re.M)[1])


class BusBench:
    """send_data over the bus."""

    def __init__(self, build, quick, table):
        self.build, self.quick, self.table = build, quick, table

    def host(self, bus, tool=(), **more):
        return Host(self.build, bus, tool, **more)

    def bare(self, bus, kind="gdbus", tool=(), **more):
        return Service([*tool, self.build.program(f"bus/bare-{kind}"), f"bench.{kind}"], bus.environment(**more))

    def drive(self, destinations, size=16, in_flight=1, calls=1000, pairs=7, connections=1):
        command = [self.build.program("bus/bus-driver"), size, in_flight, calls, pairs, connections]
        return json.loads(run(command + ["|".join(place) for place in destinations]))

    def places(self, bus):
        return [("ours", bus.address, BUS_NAME, "qz"), ("gdbus", bus.address, GDBUS_NAME, "qz")]

    def throughput(self):
        with Bus() as bus, self.host(bus), self.bare(bus), self.bare(bus, "sdbus"):
            places = self.places(bus) + [("sdbus", bus.address, SDBUS_NAME, "qz")]
            for size, calls in ((16, 4000), (1024, 4000), (65536, 1500), (1048576, 120)):
                for in_flight in (1, 32):
                    blocks = self.drive(places, size, in_flight, max(calls // 40, 10) if self.quick else calls,
                                        3 if self.quick else 15)
                    detail = f"{size} B, {in_flight} in flight"
                    speed = {label: [block["calls_per_second"] for block in blocks[label]] for label in blocks}
                    median = {label: [block["median_us"] for block in blocks[label]] for label in blocks}
                    self.table.ratio("send_data: calls/s", detail, speed["ours"], speed["gdbus"], "calls/s",
                                     0.97, more_is_better=True, against="bare GDBus")
                    self.table.ratio("send_data: median", detail, median["ours"], median["gdbus"], "us",
                                     1.03, against="bare GDBus")
                    self.table.ratio("send_data: calls/s, sd-bus", detail, speed["ours"], speed["sdbus"],
                                     "calls/s", more_is_better=True, against="bare sd-bus")

    def process_instructions(self):
        """Of the whole service process for a call, GDBus's part included; unlike times they hardly scatter."""
        per_call = {}
        for label in ("ours", "gdbus"):
            totals = []
            for calls in (200, 700):
                output = self.build.results / f"callgrind.process.{label}"
                output.unlink(missing_ok=True)
                tool = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={output}"]
                with Bus() as bus:
                    service = self.host(bus, tool=tool) if label == "ours" else self.bare(bus, tool=tool)
                    with service:
                        self.drive([place for place in self.places(bus) if place[0] == label], 16, 1, calls, 1)
                totals.append(collected(output))
            # A block warms up; what start, stop and registration take falls out of the difference.
            per_call[label] = (totals[1] - totals[0]) / (2 * (700 - 200))
        self.table.ratio("send_data: instructions", "16 B, the service's process", [per_call["ours"]],
                         [per_call["gdbus"]], "instructions", against="bare GDBus")

    def memory(self):
        calls = 2000
        with Bus() as bus, tempfile.TemporaryDirectory(prefix="adc-bench-") as folder:
            counters = {name: pathlib.Path(folder) / name for name in ("ours", "gdbus")}
            for path in counters.values():
                path.write_bytes(bytes(16))
            preload = self.build.folder / "bench/support/libcount-allocations.so"
            # GLib's slices would hide what they hand out.
            counting = {name: {"LD_PRELOAD": str(preload), "ADC_ALLOCATIONS_FILE": str(path),
                               "G_SLICE": "always-malloc"} for name, path in counters.items()}
            with self.host(bus, **counting["ours"]), self.bare(bus, **counting["gdbus"]):
                per_call = {}
                for place in self.places(bus):
                    label = place[0]
                    self.drive([place], 16, 1, 100, 1)
                    before = struct.unpack("QQ", counters[label].read_bytes())
                    self.drive([place], 16, 1, calls, 1)
                    after = struct.unpack("QQ", counters[label].read_bytes())
                    # A block warms up, and each run connects and registers once: little beside the calls.
                    per_call[label] = [(b - a) / (2 * calls) for a, b in zip(before, after)]
        for index, unit in enumerate(("allocations", "bytes")):
            self.table.value(f"send_data: {unit} per call", "ours and GDBus's", per_call["ours"][index], unit)
            self.table.value(f"send_data: {unit} per call", "bare GDBus", per_call["gdbus"][index], unit)
            self.table.value(f"send_data: {unit} per call", "more than bare GDBus",
                             per_call["ours"][index] - per_call["gdbus"][index], unit,
                             25 if index == 0 else None)

        million = 20_000 if self.quick else 1_000_000
        with Bus() as bus, self.host(bus) as host, self.bare(bus) as bare:
            self.drive(self.places(bus), 16, 1, 100, 1)
            idle = {"ours": host.resident_kib(), "gdbus": bare.resident_kib()}
            warm = million // 10
            self.drive(self.places(bus), 16, 32, warm // 2, 1)
            start = {"ours": host.resident_kib(), "gdbus": bare.resident_kib()}
            self.drive(self.places(bus), 16, 32, million // 2, 1)
            end = {"ours": host.resident_kib(), "gdbus": bare.resident_kib()}
        for label in ("ours", "gdbus"):
            self.table.value("memory: resident, idle", label, idle[label], "KiB")
        self.table.value("memory: more than bare GDBus", "resident, idle", idle["ours"] - idle["gdbus"],
                         "KiB", 1536)
        self.table.value("memory: more than bare GDBus", f"after {million} calls", end["ours"] - end["gdbus"],
                         "KiB", 1536)
        self.table.value("memory: growth", f"from {warm} calls to {million} more",
                         end["ours"] - start["ours"], "KiB", None if self.quick else 0)
        self.table.value("memory: growth, bare GDBus", f"from {warm} calls to {million} more",
                         end["gdbus"] - start["gdbus"], "KiB")

    def growth(self):
        names = ["qz", "welcome", "lanternapp", "keyringservice", "galleryapp", "vexBrowser", "lantern-pz-agent",
                 "pocketrelay", "handset-server", "panelmosaic", "brightroomapp", "tunerapp", "qmap",
                 "drelservice", "trace-pz-agent"]
        if not pathlib.Path("/etc/release").exists():
            names.append("diag-menu")
        calls, pairs = (60, 3) if self.quick else (2000, 9)
        for count in (4, len(names)):
            # What is registered stays so: one has its own host.
            with Bus() as bus, Bus() as bus_of_one, self.host(bus), self.host(bus_of_one):
                blocks = self.drive([("several", bus.address, BUS_NAME, ",".join(names[:count])),
                                     ("one", bus_of_one.address, BUS_NAME, names[0])], 1024, 1, calls, pairs)
            self.table.ratio("growth: applications", f"{count} for 1",
                             [block["median_us"] for block in blocks["several"]],
                             [block["median_us"] for block in blocks["one"]], "us", 1.10, against="1 application")
        with Bus() as bus, self.host(bus), self.bare(bus):
            for count in (1, 16, 100, 500):
                blocks = self.drive(self.places(bus), 1024, 1, max(calls, count), pairs, connections=count)
                self.table.ratio("growth: connections", f"{count}, by turns",
                                 [block["median_us"] for block in blocks["ours"]],
                                 [block["median_us"] for block in blocks["gdbus"]], "us",
                                 against="bare GDBus, as many")


def channel(build, quick, table):
    """The paths of the cloud, through a broker."""

    def measure(count, size, listeners=0):
        with tempfile.NamedTemporaryFile(prefix="adc-bench-", suffix=".log") as log:
            command = [ROOT / "tools/run_channel.py", "--direct-log", log.name, build.folder,
                       build.program("latency/channel-latency"), count, pairs, size, listeners]
            return json.loads(run(command, dict(os.environ, DLOG_LEVEL="error")))

    def compare(path, detail, blocks, counter, goal=None):
        table.ratio(path, detail, [block[counter] for block in blocks["ours"]],
                    [block[counter] for block in blocks["peer"]], "us", goal, against="bus and broker")

    names = {"set_to_event": "set, QoS 1 -> send_event", "set_to_event_qos2": "set, QoS 2 -> send_event",
             "data_to_value": "send_data -> value"}
    count, pairs = (60, 3) if quick else (3000, 15)
    for size in (16,) if quick else (16, 1024, 65536):
        for path, blocks in measure(count, size).items():
            compare(f"{names[path]}: median", f"{size} B", blocks, "median_us",
                    1.15 if path == "data_to_value" else 1.2)
            compare(f"{names[path]}: p99", f"{size} B", blocks, "p99_us")
    for listeners in (1, 10) if quick else (1, 10, 100):
        blocks = measure(count // 3, 1024, listeners)["set_to_event"]
        compare("growth: listeners", f"{listeners}", blocks, "median_us")


def dispatcher(build, quick, table):
    """How soon an idle worker starts a job, beside the fastest of what else runs jobs on one thread."""
    blocks = json.loads(run([build.program("dispatcher/idle-start"), 600 if quick else 20000, 3 if quick else 20]))
    ours = blocks.pop("dispatcher")
    for counter in ("median_us", "p99_us"):
        def times(measured):
            return [block[counter] for block in measured]

        fastest = min(blocks, key=lambda peer: statistics.median(times(blocks[peer])))
        table.ratio(f"dispatcher: idle to start, {counter[:-3]}", f"the fastest peer: {fastest}", times(ours),
                    times(blocks[fastest]), "us", 1.05, against=fastest)


def size(build, table):
    for name, folder in (("x86-64", build.folder), ("i386", build.folder.parent / "i386")):
        plugin = folder / "src/app-data-channel-plugin/libappdatachannel.so"
        if name == "x86-64" and platform.machine() != "x86_64":
            continue
        if not plugin.exists():
            print(f"bench: no size for {name}: ./dev build {name} first", file=sys.stderr)
            continue
        with tempfile.TemporaryDirectory(prefix="adc-bench-") as stripped:
            run(["objcopy", "--strip-all", plugin, f"{stripped}/plugin.so"])
            table.value("size: stripped .so", name, pathlib.Path(f"{stripped}/plugin.so").stat().st_size / 1024, "KiB", 200)


PATHS = {  # what is run, how often, and the functions whose instructions count: none calls another
    "register": (200, ["AppDataChannel::DBusServer::handle_method_call*"]),
    "send_data": (400, ["AppDataChannel::DBusServer::handle_method_call*"]),
    "send_data_64k": (100, ["AppDataChannel::DBusServer::handle_method_call*"]),
    "set": (400, ["ThingCommon::LumoWrapper::setCallback*", "AppDataChannel::AppDataChannelControl::setHandler*"]),
    "set_64k": (100, ["ThingCommon::LumoWrapper::setCallback*", "AppDataChannel::AppDataChannelControl::setHandler*"]),
    "get": (400, ["ThingCommon::LumoWrapper::getCallback*", "AppDataChannel::AppDataChannelControl::getHandler*"]),
    "dispatch": (2000, ["ThingCommon::MsgDispatcher::EnqueueData*",
                        "ThingCommon::MsgDispatcher::runDispatchingThread*"]),
    "json": (400, ["readAndWriteJson*"]),
    "log_line": (400, ["dlog_print"]),
}
MOST_GROWTH = 0.03
MOST_SHRINKING = 0.1  # more is a gain that the baseline should know, or a function that is not counted any more
COUNTED_WITH = ("g++", "libc6", "libglib2.0-0", "libjsoncpp25")  # what the counts depend on


def count_instructions(build):
    """Instructions per run, by path. They repeat: the processor's own variants of the C library's functions
    are switched off."""
    counts = {}
    for path, (count, functions) in PATHS.items():
        with Bus() as bus:
            output = build.results / f"callgrind.{path}"
            output.unlink(missing_ok=True)
            command = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={output}"]
            command += [f"--toggle-collect={function}" for function in functions]
            run(command + [build.program("instructions/bench-paths"), path, count],
                bus.environment(GLIBC_TUNABLES="glibc.cpu.hwcaps=-AVX2,-AVX512VL,-ERMS,-FSRM"))
            counts[path] = round(collected(output) / count)
    return counts


def instructions(build, update):
    machine = {name: version for name, version in versions().items() if name in COUNTED_WITH}
    counts = count_instructions(build)
    if min(counts.values()) == 0:
        raise RuntimeError(f"a path counts nothing: {counts}")
    if update:
        again = count_instructions(build)
        counts = {path: min(count, again[path]) for path, count in counts.items()}
        BASELINE.write_text(json.dumps({"counted with": machine, "instructions": counts}, indent=2) + "\n")
    baseline = json.loads(BASELINE.read_text())
    known = baseline["instructions"]

    def grown(counts):
        return [path for path, count in counts.items() if count > known.get(path, 0) * (1 + MOST_GROWTH)]

    def shrunk(counts):
        return [path for path in known if counts.get(path, 0) < known[path] * (1 - MOST_SHRINKING)]

    if grown(counts):
        # Threads that meet at a lock make it a little more: the lower of two counts is the path's own.
        again = count_instructions(build)
        counts = {path: min(count, again[path]) for path, count in counts.items()}
    print(f"{'instructions per run':<26} {'now':>9} {'baseline':>9} {'ratio':>7}")
    for path, count in counts.items():
        ratio = f"{count / known[path]:7.3f}" if path in known else "    new"
        print(f"{path:<26} {count:>9} {known.get(path, 0):>9} {ratio}")
    if not grown(counts) and not shrunk(counts):
        return 0
    print(f"bench: grown by more than {MOST_GROWTH:.0%}: {', '.join(grown(counts)) or 'none'}; shrunk by more than "
          f"{MOST_SHRINKING:.0%}, or gone: {', '.join(shrunk(counts)) or 'none'}. If that is wanted: "
          "./dev bench --instructions --update, and commit the baseline with the change", file=sys.stderr)
    if machine != baseline["counted with"]:
        print(f"bench: the baseline is of {baseline['counted with']}, this is {machine}", file=sys.stderr)
    return 1


def versions():
    def package(name):
        query = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", name], stdout=subprocess.PIPE, text=True,
                               check=False)
        return query.stdout or "not a package"

    model = re.search(r"^model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return {"date": datetime.date.today().isoformat(), "processor": model[1] if model else platform.processor(),
            "processors": os.cpu_count(), "kernel": platform.release().split("-")[0],
            **{name: package(name) for name in ("g++", "libc6", "libglib2.0-0", "libjsoncpp25", "dbus-daemon", "mosquitto",
                                                "libmosquitto1")}}


def picture(name, script, folder=ROOT / "docs/bench"):
    """One SVG in the folder, with the machine and the date below it."""
    folder.mkdir(exist_ok=True)
    machine = versions()
    footer = (f"{machine['date']}, {machine['processors']} x {machine['processor']}, Linux {machine['kernel']}, "
              f"GLib {machine['libglib2.0-0']}, dbus {machine['dbus-daemon']}, mosquitto {machine['mosquitto']}")
    drawn = folder / f"{name}.svg.new"
    subprocess.run(["gnuplot"], input=f"""
set terminal svg noenhanced size 900,480 font 'sans,13' background '#ffffff'
set output '{drawn}'
set label '{footer}' at screen 0.01,0.02 font ',9' textcolor '#666666'
set bmargin 5
set grid ytics
set key outside right top
{script}
""", text=True, check=True)
    drawn.replace(folder / f"{name}.svg")


def data_block(name, rows):
    """A gnuplot data block; texts are quoted."""
    lines = [" ".join(f'"{cell}"' if isinstance(cell, str) else f"{cell:g}" for cell in row) for row in rows]
    return "\n".join([f"${name} << EOD"] + lines + ["EOD"])


def pictures(rows):
    def select(path, detail=""):
        return [row for row in rows if row["path"] == path and detail in row["detail"]]

    def number(row):
        return float(re.search(r"\d+", row["detail"])[0])

    speed, lines = [], []
    for in_flight, dash in ((1, 2), (32, 1)):
        ours = select("send_data: calls/s", f" {in_flight} in flight")
        sdbus = select("send_data: calls/s, sd-bus", f" {in_flight} in flight")
        speed.append(data_block(f"calls{in_flight}", [(number(row), row["ours"], row["peer"], other["peer"])
                                                 for row, other in zip(ours, sdbus)]))
        for column, (name, colour) in enumerate((("the plug-in", "#c03030"), ("bare GDBus", "#3060c0"),
                                                 ("bare sd-bus", "#888888")), start=2):
            lines.append(f"$calls{in_flight} using 1:{column} with linespoints dashtype {dash} linewidth 2 "
                         f"linecolor '{colour}' title '{name}, {in_flight} in flight'")
    picture("send-data", "\n".join(speed) + "\nset title 'send_data over the bus'\nset logscale xy\n"
            "set xlabel 'bytes of data'\nset ylabel 'calls a second'\nplot " + ", ".join(lines))

    paths = [row["path"][:-len(": median")] for row in rows
             if row["path"].endswith(": median") and row["against"] == "bus and broker"]
    bars = []
    for path in dict.fromkeys(paths):
        for row in select(f"{path}: median"):
            bars.append((f"{path}\\n{row['detail']}", row["ours"], row["peer"]))
    picture("cloud", data_block("cloud", bars) + "\nset title 'Through the broker: median of one message'\n"
            "set style data histograms\nset style fill solid\nset logscale y\nset ylabel 'microseconds'\n"
            "set xtics rotate by -30 font ',10'\nset bmargin 9\n"
            "plot $cloud using 2:xtic(1) title 'the channel' linecolor '#c03030', "
            "$cloud using 3 title 'one hop each over bus and broker' linecolor '#3060c0'")

    growth, lines = [], []
    for kind, colour in (("applications", "#c03030"), ("connections", "#3060c0"), ("listeners", "#308030")):
        measured = select(f"growth: {kind}")
        growth.append(data_block(kind, [(number(row), row["ratio"]) for row in measured]))
        lines.append(f"${kind} using 1:2 with linespoints linewidth 2 linecolor '{colour}' "
                     f"title '{kind}, for {measured[0]['against']}'")
    picture("growth", "\n".join(growth) + "\nset title 'Cost of one message as the channel grows'\nset logscale x\n"
            "set xlabel 'how many'\nset ylabel 'ratio of the medians'\nset yrange [0:*]\nplot " + ", ".join(lines))


def page():
    """The figures of the page, which also prints them; None where it cannot be measured."""
    console = ROOT / "console"
    if not (shutil.which("npm") and shutil.which("chromium") and (console / "dist/index.html").exists()):
        print("bench: the page is not measured: that needs Node.js, chromium and the built page", file=sys.stderr)
        return None
    subprocess.run(["npm", "run", "--silent", "bench"], cwd=console, timeout=LIMIT, check=True)
    return json.loads((ROOT / "build/bench/page.json").read_text())


def main():
    measurements = ("throughput", "process", "cloud", "dispatcher", "memory", "growth", "size", "page")
    parser = argparse.ArgumentParser()
    parser.add_argument("--check", action="store_true", help="check the arguments and do nothing")
    parser.add_argument("build")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", choices=measurements, help="one of the measurements; writes no files")
    parser.add_argument("--instructions", action="store_true")
    parser.add_argument("--update", action="store_true", help="with --instructions: make the counts the baseline")
    arguments = parser.parse_args()
    if arguments.update and not arguments.instructions:
        parser.error("--update goes with --instructions")
    if arguments.check:
        return 0
    build = Build(arguments.build)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        if arguments.instructions:
            return instructions(build, arguments.update)
        table = Table()
        bus = BusBench(build, arguments.quick, table)
        figures = {}
        measure = {
            "throughput": bus.throughput, "process": bus.process_instructions,
            "cloud": lambda: channel(build, arguments.quick, table),
            "dispatcher": lambda: dispatcher(build, arguments.quick, table), "memory": bus.memory, "growth": bus.growth,
            "size": lambda: size(build, table), "page": lambda: figures.update(page=page())}
        for name in measurements:
            if arguments.quick and name in ("process", "page"):
                continue  # take long, in valgrind and in a browser
            if arguments.only in (None, name):
                print(f"bench: {name}", file=sys.stderr)
                measure[name]()
    except (RuntimeError, OSError, subprocess.SubprocessError) as failure:
        print(f"bench: {failure}", file=sys.stderr)
        return 1
    if table.rows:
        print(table.text())
    if arguments.only:
        return 0
    results = {"machine": versions(), "quick": arguments.quick, "rows": table.rows, **figures}
    name = "results-quick.json" if arguments.quick else "results.json"
    (build.results / name).write_text(json.dumps(results, indent=1) + "\n")
    if not arguments.quick:
        pictures(table.rows)
    return 0


if __name__ == "__main__":
    sys.exit(main())
