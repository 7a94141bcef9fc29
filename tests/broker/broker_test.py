#!/usr/bin/python3
"""Runs mosquitto with the files of packaging/broker, and checks who gets what from it.

    broker_test.py BUILD_FOLDER [UNITTEST_OPTION...]

`enrol` makes all certificates. Of the shipped configuration only ports and paths are others. The television is a host
of BUILD_FOLDER where a test says so, and else a client with its certificate.
"""

import contextlib
import datetime
import json
import os
import queue
import random
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path
from unittest import mock

import yaml
from paho.mqtt.client import Client, MQTTv5
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from paho.mqtt.subscribeoptions import SubscribeOptions

ROOT = Path(__file__).resolve().parent.parent.parent
SHIPPED = ROOT / "packaging/broker"
BUILD = Path()
PATIENCE_S = 60

SERVICE = "appdatachannel"
# Each channel of the contract, and the topic of it that belongs to a thing.
TOPICS = {
    "status": "things/{}/status",
    "properties": f"things/{{}}/{SERVICE}/properties",
    "value": f"things/{{}}/{SERVICE}/value/qz",
    "get": f"things/{{}}/{SERVICE}/get",
    "set": f"things/{{}}/{SERVICE}/set",
    "cancel": f"things/{{}}/{SERVICE}/cancel",
    "answer": "answers/{}/1",
    "health": "things/{}/health",
}
STATE = {"status", "properties", "value", "health"}
REQUESTS = {"get", "set", "cancel"}
# Who reads and writes which channels of the television "tv".
MAY_READ = {
    "tv": {"status", "value"} | REQUESTS,
    "other": set(),
    "reader": STATE,
    "operator": set(TOPICS),
    "edge": set(),
    "hub": set(),
}
MAY_WRITE = {
    "tv": STATE | {"answer"},
    "other": {"answer"},
    "reader": set(),
    "operator": REQUESTS | {"answer"},
    "edge": STATE | {"answer"},
    "hub": REQUESTS,
}
# What no channel has: nobody may write it.
NOWHERE = ["things", "things/tv", "things/tv/other", f"things/tv/{SERVICE}/value", f"things/tv/{SERVICE}/value/qz/x",
           "things/tv/other/set", "things//status", "things/tv/status/x", "thing/tv/status",
           "/things/tv/status", "reply/1", "$SYS/broker/version", "$share/things/tv/status", "answer"]


def wait_until(condition, what):
    end = time.monotonic() + PATIENCE_S
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not in {PATIENCE_S} s: {what() if callable(what) else what}")
        time.sleep(0.01)


class Broker:
    """mosquitto with the shipped files, in a folder of its own. `enrol` works in its folder `fleet`, or in another's."""

    def __init__(self, folder, fleet=None):
        self.folder = folder
        self.fleet = fleet or folder / "fleet"
        self.ca = self.fleet / "broker/ca.pem"
        self._process = None
        (folder / "state").mkdir()
        (folder / "conf.d").mkdir()
        if not fleet:
            self.enrol("authority")
            self.enrol("broker", "localhost")
        for attempt in range(20):
            self.port, self.page_port = random.sample(range(10000, 32000), 2)
            self._configure()
            with contextlib.suppress(ChildProcessError):
                return self.start()
        raise AssertionError(self.log())

    def _configure(self):
        text = (SHIPPED / "mosquitto.conf").read_text(encoding="ascii")
        for old, new in (("/etc/mosquitto/appdatachannel", self.fleet / "broker"),
                         ("listener 8883", f"listener {self.port} 127.0.0.1"),
                         ("listener 8884", f"listener {self.page_port} 127.0.0.1")):
            assert old in text, old
            text = text.replace(old, str(new))
        (self.folder / "conf.d/appdatachannel.conf").write_text(text, encoding="ascii")
        # What Debian's own file has, but for the user.
        (self.folder / "mosquitto.conf").write_text(f"""\
user root
persistence true
persistence_location {self.folder}/state/
log_dest file {self.folder}/log
log_type all
include_dir {self.folder}/conf.d
""", encoding="ascii")

    def extend(self, shipped, name, **changes):
        """Starts it again with a file that joins it to another broker."""
        text = (SHIPPED / shipped).read_text(encoding="ascii")
        for old, new in (("/etc/mosquitto/appdatachannel/ca.pem", self.ca),
                         ("/etc/mosquitto/appdatachannel/bridge.pem", self.pem(name)),
                         ("restart_timeout 1 30", "restart_timeout 1 2"), *changes.items()):
            assert old in text, old
            text = text.replace(old, str(new))
        (self.folder / "conf.d" / shipped).write_text(text, encoding="ascii")
        self.stop()
        self.start()

    def enrol(self, *arguments, status=0):
        """What the command printed, on both streams."""
        result = subprocess.run([SHIPPED / "enrol", "--folder", self.fleet, *arguments], text=True, check=False,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        assert result.returncode == status, f"{arguments}: {result.returncode}, {result.stdout}"
        return result.stdout

    def pem(self, name):
        return self.fleet / f"issued/{name}.pem"

    def log(self):
        file = self.folder / "log"
        return file.read_text(encoding="utf-8", errors="replace") if file.exists() else ""

    def start(self):
        runs = self.log().count(" running\n")
        self._process = subprocess.Popen(["/usr/sbin/mosquitto", "-c", self.folder / "mosquitto.conf"],
                                         env={**os.environ, "OPENSSL_CONF": str(SHIPPED / "openssl.cnf")},
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(lambda: self.log().count(" running\n") > runs or self._process.poll() is not None, "the broker runs")
        if self._process.poll() is not None:
            raise ChildProcessError

    def stop(self):
        self._process.terminate()
        self._process.wait(PATIENCE_S)

    def reload(self):
        reloads = self.log().count("Reloading config.")
        self._process.send_signal(signal.SIGHUP)
        wait_until(lambda: self.log().count("Reloading config.") > reloads, "the broker reloads")


class Refused(Exception):
    """The broker does not let a client in."""


class LoopingClient(Client):
    """Ends its loop without a word when the connection ends in TLS; with TLS 1.3 a client learns with its first read
    that its certificate is refused. Then calls `on_end`."""

    on_end = None

    def loop_forever(self, *arguments, **more):
        with contextlib.suppress(OSError):
            super().loop_forever(*arguments, **more)
        self.on_end()


class Peer:
    """A client of the broker. `pem` is its certificate and key; with a password it comes to the page's listener."""

    def __init__(self, broker, pem=None, client_id="", user=None, password=None, clean=True, page=None):
        self.messages = queue.SimpleQueue()
        self.end = queue.SimpleQueue()
        self._connected = queue.SimpleQueue()
        self._subscribed = queue.SimpleQueue()
        page = password is not None if page is None else page
        self._client = LoopingClient(client_id, protocol=MQTTv5, transport="websockets" if page else "tcp",
                                     reconnect_on_failure=False)
        self._client.on_end = self._on_end
        self._client.tls_set(broker.ca, pem, pem)
        if user:
            self._client.username_pw_set(user, password)
        self._client.on_connect = self._on_connect
        self._client.on_disconnect = self._on_disconnect
        self._client.on_message = lambda client, data, message: self.messages.put(message)
        self._client.on_subscribe = lambda *about: self._subscribed.put(about[3])
        properties = Properties(PacketTypes.CONNECT)
        if not clean:
            properties.SessionExpiryInterval = 3600
        try:
            self._client.connect("localhost", broker.page_port if page else broker.port, clean_start=clean,
                                 properties=properties)
        except (OSError, ValueError) as error:
            raise Refused(error) from error
        self._client.loop_start()  # so that one thread alone uses the connection
        answer = self._connected.get(timeout=PATIENCE_S)
        if answer != 0:
            self._client.loop_stop()
            raise Refused(answer)

    def _on_end(self):
        self._connected.put("the connection ended")
        self.end.put("the connection ended")

    def _on_connect(self, client, data, flags, reason, properties=None):
        self.limits = properties
        self._connected.put(reason.value)

    def _on_disconnect(self, client, data, reason, properties=None):
        self._connected.put(reason)
        self.end.put(getattr(reason, "value", reason))

    def is_connected(self):
        return self._client.is_connected()

    def leave(self):
        self._client.disconnect()
        self._client.loop_stop()

    def subscribe(self, *filters, qos=1):
        """Returns when the broker has answered, and with it all that it had sent before."""
        self._client.subscribe([(topic, SubscribeOptions(qos=qos)) for topic in filters])
        return [str(reason) for reason in self._subscribed.get(timeout=PATIENCE_S)]

    def publish(self, topic, payload="x", qos=1, retain=False, answer_to=None):
        """Returns when the broker has taken, or refused, it."""
        properties = Properties(PacketTypes.PUBLISH)
        if answer_to:
            properties.ResponseTopic, properties.CorrelationData = answer_to, payload.encode()
        information = self._client.publish(topic, payload, qos, retain, properties)
        information.wait_for_publish(PATIENCE_S)
        assert information.is_published(), topic

    def try_publish(self, topic, payload="x"):
        """Returns when the broker has dealt with it."""
        self.publish(topic, payload)
        self.publish(topic, payload, 0)
        self.subscribe("fence")

    def received(self):
        """Topics and payloads of all that the broker has sent so far."""
        self.subscribe("fence")
        seen = []
        with contextlib.suppress(queue.Empty):
            while True:
                message = self.messages.get_nowait()
                seen.append((message.topic, message.payload.decode()))
        return seen


class BrokerTest(unittest.TestCase):
    def setUp(self):
        self._folder = tempfile.TemporaryDirectory(prefix="adc-broker-")
        self.addCleanup(self._folder.cleanup)
        self.folder = Path(self._folder.name)
        self.broker = Broker(self.folder)
        self.addCleanup(self.broker.stop)

    def peer(self, name, **more):
        peer = Peer(self.broker, self.broker.pem(name), **more)
        self.addCleanup(peer.leave)
        return peer

    def page(self, name, password, **more):
        peer = Peer(self.broker, user=name, password=password, **more)
        self.addCleanup(peer.leave)
        return peer

    def assert_refused(self, *arguments, **more):
        with self.assertRaises(Refused):
            Peer(self.broker, *arguments, **more).leave()


class AccessTest(BrokerTest):
    """Every cell of who, topic, and read or write."""

    def setUp(self):
        super().setUp()
        for kind, name in (("television", "tv"), ("television", "other"), ("reader", "reader"),
                           ("operator", "operator"), ("edge", "edge"), ("hub", "hub"),
                           ("operator", "watcher"), ("operator", "second"), ("television", "lost")):
            self.broker.enrol(kind, name)
        self.passwords = {name: self.broker.enrol("password", name).splitlines()[0] for name in ("reader", "operator")}
        self.broker.reload()
        self.watcher = self.peer("watcher")
        self.watcher.subscribe("#", "$SYS/broker/version")
        self.writers = {"tv": self.peer("tv"), "operator": self.peer("second")}

    def expect_writes(self, who, peer, expected):
        for channel, topic in TOPICS.items():
            with self.subTest(who=who, channel=channel, access="write"):
                peer.try_publish(topic.format("tv"), "mine")
                seen = [(topic.format("tv"), "mine")] * 2 if channel in expected else []
                self.assertEqual(seen, self.watcher.received())

    def expect_reads(self, who, peer, expected):
        peer.subscribe("#", "things/#", "things/+/+", "+/+/+", *(topic.format("tv") for topic in TOPICS.values()))
        for channel, topic in TOPICS.items():
            with self.subTest(who=who, channel=channel, access="read"):
                writer = self.writers["operator" if channel in REQUESTS else "tv"]
                writer.publish(topic.format("tv"), channel)
                seen = set(peer.received())
                self.assertEqual({(topic.format("tv"), channel)} if channel in expected else set(), seen)
        self.watcher.received()

    def test_the_table_has_each_channel_of_the_contract(self):
        contract = yaml.safe_load((ROOT / "contract/asyncapi.yaml").read_text(encoding="utf-8"))["channels"]
        self.assertEqual(set(contract) | {"health"}, set(TOPICS))
        for name, channel in contract.items():
            if channel["address"]:
                self.assertEqual(channel["address"].format(thing="tv", property="qz"), TOPICS[name].format("tv"))

    def test_a_television_reaches_its_own_topics_only(self):
        for name in ("tv", "other"):
            peer = self.peer(name) if name == "other" else self.writers["tv"]
            self.expect_writes(name, peer, MAY_WRITE[name])
            self.expect_reads(name, peer, MAY_READ[name])

    def test_the_cloud_has_the_access_of_its_roles_with_a_certificate_and_with_a_password(self):
        for name, password in self.passwords.items():
            for peer in (self.peer(name), self.page(name, password)):
                self.expect_writes(name, peer, MAY_WRITE[name])
                self.expect_reads(name, peer, MAY_READ[name])

    def test_a_broker_writes_what_goes_its_way_and_reads_nothing(self):
        for name in ("edge", "hub"):
            self.expect_writes(name, self.peer(name), MAY_WRITE[name])
            self.expect_reads(name, self.peer(name), MAY_READ[name])

    def test_nobody_writes_what_no_channel_has(self):
        everybody = {name: self.peer(name) for name in ("other", "reader", "operator", "edge", "hub")}
        everybody["tv"] = self.writers["tv"]
        for who, peer in everybody.items():
            for topic in NOWHERE:
                if (who, topic) == ("edge", "things//status"):
                    continue  # it writes for all televisions, and a + is an empty level, too
                with self.subTest(who=who, topic=topic):
                    if not topic.startswith("$"):
                        peer.try_publish(topic)
                    peer.subscribe(topic.replace("$share", "$share/group"))
                    self.assertEqual([], peer.received() + self.watcher.received())

    def test_a_user_is_no_television(self):
        for who in ("reader", "operator"):
            peer = self.peer(who)
            for channel, topic in TOPICS.items():
                with self.subTest(who=who, channel=channel):
                    if channel == "answer":
                        continue
                    peer.try_publish(topic.format(who))
                    self.assertEqual([], self.watcher.received())

    def test_what_is_retained_is_only_for_those_who_may_read_it(self):
        for channel in STATE:
            self.writers["tv"].publish(TOPICS[channel].format("tv"), channel, retain=True)
        for who in ("other", "reader", "operator"):
            peer = self.peer(who)
            peer.subscribe("#")
            seen = {payload for _, payload in peer.received()}
            self.assertEqual(STATE & MAY_READ[who], seen, who)

    def test_nobody_comes_in_without_a_certificate_or_with_a_wrong_one(self):
        strangers = self.folder / "strangers"
        subprocess.run([SHIPPED / "enrol", "--folder", strangers, "authority"], check=True)
        subprocess.run([SHIPPED / "enrol", "--folder", strangers, "television", "tv"], check=True)
        self.broker.enrol("--until", "1 minute ago", "television", "expired")
        self.broker.enrol("revoke", "lost", status=0)
        self.broker.reload()
        self.assert_refused()
        self.assert_refused(user="operator", password=self.passwords["operator"], page=False)
        self.assert_refused(strangers / "issued/tv.pem")
        self.assert_refused(self.broker.pem("expired"))
        self.assert_refused(self.broker.fleet / "broker/broker.pem")

    def test_the_page_is_for_names_with_their_passwords(self):
        self.assert_refused(page=True)
        self.assert_refused(user="operator", password=self.passwords["reader"])
        self.assert_refused(user="watcher", password="")
        self.assert_refused(user="tv", password="")
        self.assert_refused(self.broker.pem("operator"), page=True)

    def test_a_password_ends_with_the_next_one_and_with_its_user(self):
        second = self.broker.enrol("password", "reader").splitlines()[0]
        self.broker.reload()
        self.assert_refused(user="reader", password=self.passwords["reader"])
        peer = self.page("reader", second)
        self.broker.enrol("revoke", "reader")
        self.broker.reload()
        self.assert_refused(user="reader", password=second)
        peer.end.get(timeout=PATIENCE_S)

    def test_a_reload_leaves_everybody_else_connected(self):
        page = self.page("operator", self.passwords["operator"])
        self.broker.enrol("revoke", "lost")
        self.broker.reload()
        for peer in (page, self.watcher, *self.writers.values()):
            peer.received()
            self.assertTrue(peer.is_connected())

    def test_a_client_id_is_the_name_in_the_certificate(self):
        ids = {"client_id": f"tv:{SERVICE}"}
        peers = [self.peer(name, **ids) for name in ("tv", "other", "reader")]
        peers.append(self.peer("operator", client_id="tv"))
        for peer in peers:
            peer.received()
            self.assertTrue(peer.is_connected())

    def test_two_televisions_with_one_certificate_end_each_others_connections_and_nobody_elses(self):
        first = self.peer("tv", client_id="tv:one")  # self.writers["tv"] is out
        self.writers["tv"].end.get(timeout=PATIENCE_S)
        second = self.peer("tv", client_id="tv:two")
        first.end.get(timeout=PATIENCE_S)
        second.received()
        self.watcher.received()
        self.assertIn("Client tv already connected, closing old connection.", self.broker.log())

    def test_a_client_learns_the_largest_packet_and_one_of_that_size_passes(self):
        operator = self.writers["operator"]
        self.assertEqual(1048576, operator.limits.MaximumPacketSize)
        operator.publish(TOPICS["set"].format("tv"), "x" * 1_048_000)
        self.assertEqual([1_048_000], [len(payload) for _, payload in self.watcher.received()])


class RevocationTest(BrokerTest):
    def setUp(self):
        super().setUp()
        for kind, name in (("television", "tv"), ("television", "other"), ("operator", "operator")):
            self.broker.enrol(kind, name)
        self.broker.reload()
        self.operator = self.peer("operator")
        self.operator.subscribe("#")

    def expect_out(self, peer, who="tv"):
        """An open connection neither reads nor writes any more."""
        peer.received()
        for topic in TOPICS.values():
            peer.try_publish(topic.format(who), "late")
        self.assertEqual([], self.operator.received())
        self.operator.publish(TOPICS["set"].format(who), "secret")
        self.operator.received()
        self.assertEqual([], peer.received())

    def test_a_revoked_television_is_out_with_the_reload(self):
        peer = self.peer("tv", client_id="tv")
        peer.subscribe("#", "things/tv/#")
        copy = shutil.copy(self.broker.pem("tv"), self.folder / "copy.pem")
        self.broker.enrol("revoke", "tv")
        self.broker.reload()
        self.expect_out(peer)
        self.assert_refused(copy)

    def test_what_waits_for_a_television_is_not_for_the_revoked_one(self):
        peer = self.peer("tv", clean=False)
        peer.subscribe(TOPICS["set"].format("tv"))
        peer.leave()
        self.operator.publish(TOPICS["set"].format("tv"), "secret")
        copy = shutil.copy(self.broker.pem("tv"), self.folder / "copy.pem")
        self.broker.enrol("revoke", "tv")
        self.broker.stop()
        self.broker.start()
        self.assert_refused(copy, clean=False)

    def test_all_certificates_of_a_name_are_revoked_also_those_that_were_renewed(self):
        copies = []
        for number in range(3):
            copies.append(shutil.copy(self.broker.pem("tv"), self.folder / f"{number}.pem"))
            self.broker.enrol("renew", "tv")
        copies.append(shutil.copy(self.broker.pem("tv"), self.folder / "last.pem"))
        for copy in copies:
            Peer(self.broker, copy).leave()
        self.broker.enrol("revoke", "tv")
        self.broker.reload()
        for copy in copies:
            self.assert_refused(copy)

    def test_each_reload_knows_the_newest_list(self):
        names = [f"tv-{number}" for number in range(4)]
        copies = {}
        for name in names:
            self.broker.enrol("television", name)
            copies[name] = shutil.copy(self.broker.pem(name), self.folder / name)
        for number, name in enumerate(names):
            self.broker.enrol("revoke", name)
            self.broker.reload()
            for which, copy in enumerate(copies.values()):
                if which <= number:
                    self.assert_refused(copy)
                else:
                    Peer(self.broker, copy).leave()
        self.peer("other").received()

    def test_a_revoked_name_can_be_enrolled_again_and_the_old_certificate_stays_out(self):
        copy = shutil.copy(self.broker.pem("tv"), self.folder / "copy.pem")
        self.broker.enrol("revoke", "tv")
        self.broker.reload()
        self.assertIn("restart", self.broker.enrol("television", "tv"))
        self.broker.stop()
        self.broker.start()
        self.operator = self.peer("operator")
        self.operator.subscribe("#")
        self.assert_refused(copy)
        peer = self.peer("tv")
        peer.publish(TOPICS["status"].format("tv"), "back")
        self.assertEqual([(TOPICS["status"].format("tv"), "back")], self.operator.received())

    def test_a_session_of_tls_does_not_outlive_the_certificate(self):
        self.broker.enrol("--until", "4 seconds", "television", "brief")
        ended = time.monotonic() + 5
        pem, session = self.broker.pem("brief"), self.folder / "session"
        self.assertRegex(self.handshake(pem, "-sess_out", session), "(?m)^New, TLSv1.3")
        wait_until(lambda: time.monotonic() > ended, "the certificate has ended")
        resume = ["-sess_in", session] if session.exists() else []
        self.assertRegex(self.handshake(pem, *resume), "alert certificate expired")
        # Nor is there a version of TLS whose sessions could.
        self.assertRegex(self.handshake(self.broker.pem("tv"), "-tls1_2"), "alert protocol version")

    def handshake(self, pem, *options):
        command = ["openssl", "s_client", "-connect", f"localhost:{self.broker.port}", "-CAfile", self.broker.ca,
                   "-cert", pem, "-key", pem, *options]
        # Stays for a second: tickets and alerts come after the handshake.
        return subprocess.run(["bash", "-c", 'sleep 1 | "$@"', "-", *command], check=False, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout


class EnrolTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="adc-enrol-")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.enrol("authority")

    def enrol(self, *arguments, status=0):
        return Broker.enrol(self, *arguments, status=status)

    @property
    def fleet(self):
        return self.folder / "fleet"

    def content(self):
        return {path: path.read_bytes() for path in self.fleet.rglob("*") if path.is_file() and path.name != "lock"}

    def test_refuses_names_that_are_no_thing_ids(self):
        before = self.content()
        for name in ("", "+", "#", "tv/1", "tv+", "tv#", "/", "tv 1", "tv\n", "tv\nuser x", "ö", "tv$", "a" * 65,
                     "tv:1", "%u", "../tv", "tv\\1", "'", '"', "a,b", "CN=x", "*"):
            for command in ("television", "reader", "operator", "renew", "revoke", "password"):
                with self.subTest(name=name, command=command):
                    self.assertIn("is no name", self.enrol(command, name, status=1))
        self.assertEqual(before, self.content())

    def test_takes_all_names_that_are_thing_ids(self):
        for name in ("a", "A-Za-z0-9._-", "x" * 64, "..", "-tv", "1", "01", "1e0", "0x1"):
            self.enrol("television", name)
        self.assertEqual(9, len(self.enrol("list").splitlines()))

    def test_a_name_has_one_kind(self):
        self.enrol("television", "one")
        self.enrol("reader", "two")
        before = self.content()
        for kind in ("television", "reader", "operator"):
            for name in ("one", "two"):
                self.assertIn("enrolled already", self.enrol(kind, name, status=1))
        self.assertIn("is a television", self.enrol("password", "one", status=1))
        for command in ("renew", "revoke", "password"):
            self.assertIn("not enrolled", self.enrol(command, "three", status=1))
        self.assertIn("an authority already", self.enrol("authority", status=1))
        self.assertEqual(before, self.content())

    def test_a_request_of_the_television_gets_its_name_from_the_authority(self):
        key, request = self.folder / "key", self.folder / "request"
        subprocess.run(["openssl", "req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-noenc", "-keyout", key, "-subj", "/CN=operator", "-addext", "subjectAltName=DNS:localhost", "-addext",
                        "basicConstraints=critical,CA:TRUE", "-addext", "extendedKeyUsage=serverAuth", "-out", request],
                       check=True, stderr=subprocess.DEVNULL)
        self.enrol("television", "tv", str(request))
        pem = self.fleet / "issued/tv.pem"
        self.assertNotIn("PRIVATE KEY", pem.read_text(encoding="ascii"))
        text = subprocess.run(["openssl", "x509", "-in", pem, "-noout", "-text"], check=True, text=True,
                              stdout=subprocess.PIPE).stdout
        self.assertIn("Subject: CN = tv\n", text)
        self.assertIn("TLS Web Client Authentication", text)
        for absent in ("localhost", "CA:TRUE", "Server Authentication"):
            self.assertNotIn(absent, text)

    def test_keys_and_passwords_are_nobody_elses(self):
        self.enrol("broker", "localhost", "127.0.0.1", "::1")
        self.enrol("television", "tv")
        self.enrol("operator", "operator")
        password = self.enrol("password", "operator").splitlines()[0]
        for path, content in self.content().items():
            self.assertNotIn(password.encode(), content, path)
            mode = path.stat().st_mode & 0o777
            is_for_broker = path.parent.name == "broker" and path.name != "ca.pem"
            self.assertEqual(0, mode & (0o137 if is_for_broker else 0o133), path)
            if b"PRIVATE KEY" in content:
                self.assertEqual(0, mode & 0o037, path)
        for folder, mode in (("authority", 0o700), ("issued", 0o700), ("broker", 0o2750)):
            self.assertEqual(mode, (self.fleet / folder).stat().st_mode & 0o7777)

    def test_a_failure_changes_nothing(self):
        self.enrol("television", "tv")
        before = self.content()
        garbage = self.folder / "garbage"
        garbage.write_text("no request\n", encoding="ascii")
        self.enrol("renew", "tv", str(garbage), status=1)
        self.enrol("television", "new", str(garbage), status=1)
        self.enrol("television", "new", str(self.folder / "nothing"), status=1)
        self.enrol("broker", "two words", status=1)
        self.enrol("--until", "some day", "television", "new", status=2)
        self.enrol("television", status=2)
        self.enrol("nothing", status=2)
        self.assertEqual(before, self.content())

    def with_program(self, name, text):
        """An environment in which `name` is a shell script, which has the real program's path in $real."""
        folder = self.folder / f"bin-{name}"
        folder.mkdir(exist_ok=True)
        program = folder / name
        program.write_text(f"#!/bin/sh\nreal={shutil.which(name)}\n{text}\n", encoding="ascii")
        program.chmod(0o755)
        return mock.patch.dict(os.environ, PATH=f"{folder}:{os.environ['PATH']}")

    def test_a_program_that_is_killed_loses_no_name_and_no_password(self):
        self.enrol("reader", "one")
        self.enrol("password", "one")
        before = self.content()
        # What writes the names, and the passwords, without one of them.
        with self.with_program("awk", "case \"$*\" in *' != name'*) kill -9 $$ ;; esac\nexec $real \"$@\""):
            self.enrol("reader", "two", status=137)
            self.enrol("password", "one", status=137)
        after = self.content()
        for name in ("authority/names", "broker/passwords", "broker/access"):
            self.assertEqual(before[self.fleet / name], after[self.fleet / name], name)

    def test_an_enrolment_that_is_interrupted_can_be_revoked_or_repeated(self):
        for name in ("one", "two"):
            # After the certificate, before the list of names.
            with self.with_program("mv", "[ $2 != authority/names ] || exit 1\nexec $real \"$@\""):
                self.enrol("reader", name, status=1)
            self.assertTrue((self.fleet / f"issued/{name}.pem").exists())
            self.assertEqual(b"", self.content()[self.fleet / "authority/names"])
        serials = [line.split("\t")[3] for line in self.index()]
        self.enrol("revoke", "one")
        self.enrol("reader", "two")
        states = {line.split("\t")[3]: line[0] for line in self.index()}
        self.assertEqual(["R", "V"], [states[serial] for serial in serials])
        access = (self.fleet / "broker/access").read_text(encoding="ascii")
        self.assertIn("user one\ntopic deny #\n", access)
        self.assertIn("user two\ntopic deny things/two/#\n", access)

    def index(self):
        return (self.fleet / "authority/index").read_text(encoding="ascii").splitlines()

    def test_a_full_disk_loses_no_record_and_is_no_success(self):
        for name in ("one", "two", "three"):
            self.enrol("operator", name)
        self.enrol("password", "one")
        before = self.content()
        # openssl and mosquitto_passwd end with 0 when what they write is cut.
        cut = "for file in authority/work.*/{}; do truncate -s {} $file; done; exit $status"
        for name, size in (("index", 86), ("index", 0), ("crlnumber", 0)):
            with self.with_program("openssl", f"$real \"$@\"; status=$?; [ $1 != ca ] || {cut.format(name, size)}"):
                for command in ("renew", "revoke"):
                    self.assertIn("could not write", self.enrol(command, "one", status=1))
                self.assertIn("could not write", self.enrol("television", "four", status=1))
            self.assertEqual(before, self.content(), (name, size))
        with self.with_program("mosquitto_passwd", f"$real \"$@\"; status=$?; {cut.format('password', 0)}"):
            self.assertIn("could not write", self.enrol("password", "two", status=1))
        self.assertEqual(before, self.content())
        self.enrol("revoke", "one")

    def test_half_an_authority_is_not_left_in_the_way(self):
        shutil.rmtree(self.fleet)
        with self.with_program("openssl", "[ $1 != req ] || exit 1\nexec $real \"$@\""):
            self.enrol("authority", status=1)
        self.assertIn("no authority in", self.enrol("list", status=1))
        self.enrol("authority")
        self.enrol("television", "tv")

    def test_a_file_of_the_authority_that_is_missing_is_named_and_nothing_is_done(self):
        self.enrol("reader", "one")
        for name in ("authority/ca.key", "authority/index", "authority/names", "authority/crlnumber",
                     "broker/ca.pem", "broker/passwords"):
            with self.subTest(name=name):
                file, aside = self.fleet / name, self.folder / "aside"
                file.rename(aside)
                before = self.content()
                for command in ("television", "renew", "revoke", "password"):
                    self.assertIn(f"{name} is missing", self.enrol(command, "one", status=1))
                self.assertIn(f"{name} is missing", self.enrol("list", status=1))
                self.assertEqual(before, self.content())
                aside.rename(file)
        self.enrol("television", "tv")

    def test_of_several_authorities_at_the_same_time_one_is_made(self):
        for _ in range(5):
            shutil.rmtree(self.fleet)
            runs = [subprocess.Popen([SHIPPED / "enrol", "--folder", self.fleet, "authority"],
                                     stderr=subprocess.DEVNULL) for _ in range(4)]
            self.assertEqual([0, 1, 1, 1], sorted(run.wait(PATIENCE_S) for run in runs))
            self.enrol("television", "tv")
            subprocess.run(["openssl", "verify", "-CAfile", self.fleet / "broker/ca.pem",
                            self.fleet / "issued/tv.pem"], check=True, stdout=subprocess.DEVNULL)

    def test_several_enrolments_at_the_same_time_are_all_there(self):
        names = [f"tv-{number}" for number in range(8)]
        runs = [subprocess.Popen([SHIPPED / "enrol", "--folder", self.fleet, "reader", name],
                                 stdout=subprocess.DEVNULL) for name in names]
        self.assertEqual([0] * 8, [run.wait(PATIENCE_S) for run in runs])
        self.assertEqual(names, [line.split()[0] for line in self.enrol("list").splitlines()])
        access = (self.fleet / "broker/access").read_text(encoding="ascii")
        self.assertEqual(names, [line[5:] for line in access.splitlines() if line.startswith("user ")])


class Proxy:
    """Carries connections to a port, which can be cut."""

    def __init__(self, port):
        self._target = port
        self._sockets = []
        self.port = 0
        self.open()

    def open(self):
        self._listener = socket.create_server(("127.0.0.1", self.port))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                near = self._listener.accept()[0]
                far = socket.create_connection(("127.0.0.1", self._target))
                self._sockets += [near, far]
                for source, sink in ((near, far), (far, near)):
                    threading.Thread(target=self._carry, args=(source, sink), daemon=True).start()

    @staticmethod
    def _carry(source, sink):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                sink.sendall(data)
        for end in (source, sink):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)

    def cut(self):
        for end in self._sockets:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()
        self._sockets.clear()

    def close(self):
        with contextlib.suppress(OSError):  # is closed
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self.cut()


class Program:
    """A program whose lines are kept, on both streams."""

    def __init__(self, command, environment):
        self.lines = []
        self._process = subprocess.Popen(command, env={**os.environ, **environment}, text=True, errors="replace",
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self._thread = threading.Thread(target=lambda: self.lines.extend(self._process.stdout))
        self._thread.start()

    def count(self, text):
        return sum(text in line for line in list(self.lines))

    def wait_for(self, text, count=1):
        wait_until(lambda: self.count(text) >= count, lambda: f"{text} {count} times in {''.join(self.lines[-30:])}")

    def end(self):
        self._process.terminate()
        self._process.wait(PATIENCE_S)
        self._thread.join(PATIENCE_S)


def qos_above(channel):
    """What a message of the edge, or for it, has at the other end: 0 if none of it waits for a link."""
    return 0 if channel in {"status", "properties", "health"} else 1


class FederationTest(unittest.TestCase):
    """A hub and an edge as they ship: one authority, TLS and the access list at both."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="adc-broker-")
        self.addCleanup(folder.cleanup)
        for name in ("hub", "edge"):
            (Path(folder.name) / name).mkdir()
        self.hub = Broker(Path(folder.name) / "hub")
        self.edge = Broker(Path(folder.name) / "edge", self.hub.fleet)
        for broker in (self.hub, self.edge):
            self.addCleanup(broker.stop)
        for kind, name in (("edge", "edge-1"), ("hub", "hub"), ("television", "tv"), ("operator", "operator")):
            self.hub.enrol(kind, name)
        self.edge.extend("bridge-up.conf", "edge-1", **{"hub.example:8883": f"localhost:{self.hub.port}"})
        # The connection to the hub before it starts again must not pass for the one after.
        wait_until(lambda: " as edge-1 " in self.hub.log(), "the edge comes to the hub")
        before = self.hub.log().count(" as edge-1 ")
        self.hub.extend("bridge-down.conf", "hub", **{"edge-1.example:8883": f"localhost:{self.edge.port}"})
        wait_until(lambda: self.hub.log().count(" as edge-1 ") > before and " as hub " in self.edge.log(),
                   "they are joined")

    def peer(self, broker, name, **more):
        peer = Peer(broker, broker.pem(name), **more)
        self.addCleanup(peer.leave)
        return peer

    def test_what_a_message_says_of_itself_comes_through_in_both_directions(self):
        labels = Properties(PacketTypes.PUBLISH)
        labels.ResponseTopic = "answers/operator"
        labels.CorrelationData = b"\0\xff #+/"
        labels.UserProperty = [("run", "1"), ("sequence", "2"), ("run", "3")]
        labels.ContentType = "application/json"
        labels.PayloadFormatIndicator = 1
        labels.MessageExpiryInterval = 100
        tv, operator = self.peer(self.edge, "tv"), self.peer(self.hub, "operator")
        operator.subscribe("#")
        tv.subscribe(TOPICS["set"].format("tv"), qos=2)
        for source, sink, qos, channels in ((tv, operator, 1, sorted(STATE | {"answer"})), (operator, tv, 2, ["set"])):
            for channel in channels:
                topic = TOPICS[channel].format("tv")
                source._client.publish(topic, '"x"', qos, channel in STATE, labels)
                message = sink.messages.get(timeout=PATIENCE_S)
                while message.topic != topic:  # the operator's own set, too
                    message = sink.messages.get(timeout=PATIENCE_S)
                self.assertEqual((b'"x"', qos_above(channel)), (message.payload, message.qos), channel)
                for name in ("ResponseTopic", "CorrelationData", "UserProperty", "ContentType",
                             "PayloadFormatIndicator"):
                    self.assertEqual(getattr(labels, name), getattr(message.properties, name), (channel, name))
                self.assertIn(message.properties.MessageExpiryInterval, range(80, 101), channel)
        late = self.peer(self.hub, "operator")
        late.subscribe("#")
        self.assertEqual({TOPICS[channel].format("tv") for channel in STATE}, {topic for topic, _ in late.received()})

    def test_nothing_else_goes_either_way_and_nothing_comes_back(self):
        tv, operator = self.peer(self.edge, "tv"), self.peer(self.hub, "operator")
        below = self.peer(self.edge, "operator")
        for peer in (operator, below):
            peer.subscribe("#")
        for name in ("get", "set", "cancel"):
            operator.publish(TOPICS[name].format("tv"), "down", 2)
            below.publish(TOPICS[name].format("tv"), "below", 2)
        tv.publish(TOPICS["status"].format("tv"), "up", 1, retain=True)
        operator.publish("answers/operator", "above")
        for peer, last in ((operator, "up"), (below, "up")):
            seen = []
            wait_until(lambda: seen.extend(peer.received()) or len(seen) >= (5 if peer is operator else 7), "all of them")
            payloads = sorted(payload for _, payload in seen)
            # A bridge that connects again sends retained state again. What comes back would be there twice below.
            if peer is operator:
                payloads = [payload for payload in payloads if payload != "up"] + ["up"] * ("up" in payloads)
            expected = ["above", "down", "down", "down", "up"]
            if peer is below:
                expected = ["below"] * 3 + ["down"] * 3 + ["up"]
            self.assertEqual(expected, payloads)

    def test_the_hub_shows_whether_an_edge_is_there(self):
        state = "$SYS/broker/connection/edge-1/state"
        watcher = self.peer(self.hub, "operator")
        watcher.subscribe(state)
        self.assertEqual((state, b"1"), (lambda m: (m.topic, m.payload))(watcher.messages.get(timeout=5)))


class HostTest(BrokerTest):
    """A real host, behind a proxy, and an application."""

    def setUp(self):
        super().setUp()
        self.broker.enrol("operator", "operator")
        self.broker.reload()
        self.operator = self.peer("operator", clean=False)
        self.answers = []
        self.operator._client.on_message = lambda client, data, message: self.answers.append(
            (message.properties.CorrelationData.decode(), json.loads(message.payload)))
        self.operator.subscribe("answers/operator", qos=1)
        self.proxy = Proxy(self.broker.port)
        self.addCleanup(self.proxy.close)

    def start(self, name="tv"):
        bus = f"unix:path={self.folder}/bus-{name}"
        variables = {
            "DBUS_SYSTEM_BUS_ADDRESS": bus, "VCONF_DIR": f"{self.folder}/vconf-{name}", "LUMO_THING_ID": name,
            "LUMO_BROKER": f"mqtts://localhost:{self.proxy.port}", "LUMO_BROKER_CA": str(self.broker.ca),
            "LUMO_BROKER_CERT": str(self.broker.pem("tv")), "LUMO_BROKER_KEY": str(self.broker.pem("tv")),
            "PYTHONUNBUFFERED": "1"}
        self.run_program(["dbus-daemon", "--session", "--nofork", "--print-address", f"--address={bus}"],
                         {}).wait_for(bus)
        host = self.run_program([BUILD / "host/qivo-thing", BUILD / "src/app-data-channel-plugin/libappdatachannel.so"],
                                variables)
        host.wait_for("qivo-thing: ready")
        app = self.run_program([ROOT / "examples/app.py", "qz"], variables)
        app.wait_for("registered")
        wait_until(lambda: f"tv 2 things/{name}/{SERVICE}/set" in self.broker.log(), "the host subscribes")
        return host, app

    def run_program(self, command, environment):
        program = Program(command, environment)
        self.addCleanup(program.end)
        return program

    def set(self, number, thing="tv"):
        self.operator.publish(f"things/{thing}/{SERVICE}/set", json.dumps({"qz": str(number)}), 2,
                              answer_to="answers/operator")

    @staticmethod
    def events(app):
        return [line.split()[1] for line in list(app.lines) if line.startswith("event: ")]

    def test_no_set_is_lost_or_doubled_when_the_certificate_expires_and_is_renewed(self):
        end = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=8)
        self.broker.enrol("--until", end.isoformat(timespec="seconds"), "television", "tv")
        host, app = self.start()
        stop, sent = threading.Event(), []

        def flow():
            while not stop.wait(0.02):
                # The television may be away for so long that it would refuse some as busy when it is back.
                if len(sent) - len(self.answers) < 100:
                    self.set(len(sent))
                    sent.append(str(len(sent)))

        thread = threading.Thread(target=flow)
        thread.start()
        try:
            wait_until(lambda: len(self.events(app)) > 50, "sets reach the application")
            ended = end + datetime.timedelta(seconds=1)
            wait_until(lambda: datetime.datetime.now(datetime.timezone.utc) > ended, "the end")
            before = len(self.events(app))
            # The broker judges a certificate when a connection begins, and not later.
            wait_until(lambda: len(self.events(app)) > before, "sets go on over the connection that is there")
            self.proxy.cut()
            host.wait_for("Certificate is expired")
            wait_until(lambda: len(sent) > len(self.events(app)) + 20, "sets wait for the television")
            self.broker.enrol("renew", "tv")
            host.wait_for("connected to localhost", 2)
            # In time, the next one.
            self.broker.enrol("renew", "tv")
            self.proxy.cut()
            host.wait_for("connected to localhost", 3)
            after = len(sent)
            wait_until(lambda: len(sent) > after + 20, "sets go on")
        finally:
            stop.set()
            thread.join()
        wait_until(lambda: len(self.events(app)) >= len(sent), f"{len(sent)} events")
        self.assertEqual(sent, self.events(app))
        self.operator.subscribe("fence")
        wait_until(lambda: len(dict(self.answers)) >= len(sent), "answers")
        self.assertEqual({0}, {answer.get("result") for _, answer in self.answers})
        print(f"{len(sent)} sets")

    def test_a_set_waits_for_a_television_that_is_offline_over_a_restart_of_the_broker(self):
        self.broker.enrol("television", "tv")
        host, app = self.start()
        self.set(1)
        wait_until(lambda: self.events(app) == ["1"], "the first event")
        self.proxy.close()
        host.wait_for("cannot connect")
        self.set(2)
        self.broker.stop()
        self.broker.start()
        self.operator = self.peer("operator", clean=False)
        self.set(3)
        self.proxy.open()
        wait_until(lambda: len(self.events(app)) >= 3, "the other events")
        self.assertEqual(["1", "2", "3"], self.events(app))

    def test_a_revoked_television_gets_no_event_and_does_not_come_back(self):
        self.broker.enrol("television", "tv")
        host, app = self.start()
        self.set(1)
        wait_until(lambda: self.events(app) == ["1"], "the event")
        shutil.copy(self.broker.pem("tv"), self.folder / "copy.pem")
        self.broker.enrol("revoke", "tv")
        shutil.copy(self.folder / "copy.pem", self.broker.pem("tv"))  # the television has its own
        self.broker.reload()
        self.set(2)
        self.operator.subscribe("fence")
        self.proxy.cut()
        host.wait_for("Certificate was revoked")
        self.assertEqual(["1"], self.events(app))

    def test_a_television_with_anothers_certificate_writes_nothing(self):
        self.broker.enrol("television", "tv")
        self.broker.enrol("operator", "watcher")
        self.broker.reload()
        watcher = self.peer("watcher")
        watcher.subscribe("#")
        host, _ = self.start("false")
        for topic in ("status", f"{SERVICE}/properties", "health"):
            host.wait_for(f"the broker refuses things/false/{topic}: not authorised")
        self.set(1, "false")
        self.assertEqual([f"things/false/{SERVICE}/set"], [topic for topic, _ in watcher.received()])


if __name__ == "__main__":
    BUILD = Path(sys.argv.pop(1)).resolve()
    unittest.main()
