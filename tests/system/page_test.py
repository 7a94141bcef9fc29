#!/usr/bin/python3
"""Checks who can reach what through the broker's listener for WebSocket.

    run_channel.py --page PAGE BUILD_FOLDER page_test.py PAGE
"""

import contextlib
import os
import queue
import secrets
import socket
import sys
import unittest
from pathlib import Path
from urllib.parse import parse_qs, urlparse

from paho.mqtt.client import MQTTv5, MQTTv311, Client

PATIENCE_S = 60
PAGE = Path(sys.argv.pop(1))
FOLDER = Path(os.environ["ADC_RUN_FOLDER"])
ADDRESS = urlparse(os.environ["ADC_RUN_PAGE"])
KEY = parse_qs(ADDRESS.fragment)["key"][0]
MQTT_PORT = urlparse(os.environ["LUMO_BROKER"]).port


def get(target, host="127.0.0.1", headers=()):
    """The status line's code and the body of the answer to a GET of exactly this target."""
    with socket.create_connection((host, ADDRESS.port), PATIENCE_S) as connection:
        lines = [f"GET {target} HTTP/1.1", f"Host: {ADDRESS.netloc}", *headers, "", ""]
        connection.sendall("\r\n".join(lines).encode())
        with connection.makefile("rb") as stream:
            head, _, body = stream.read().partition(b"\r\n\r\n")
    return int(head.split()[1]), body


class Peer:
    """A client of the broker, with what the broker answered to its CONNECT."""

    def __init__(self, user=None, key=None, version=MQTTv5, transport="websockets"):
        self.messages = queue.SimpleQueue()
        self._answers = queue.SimpleQueue()
        self._subscribed = queue.SimpleQueue()
        self._client = Client(protocol=version, transport=transport, reconnect_on_failure=False)
        if user is not None:
            self._client.username_pw_set(user, key)
        self._client.on_connect = lambda *about: self._answers.put(about[3])
        self._client.on_message = lambda client, data, message: self.messages.put(message.payload)
        self._client.on_subscribe = lambda *_: self._subscribed.put(None)
        self._client.connect("127.0.0.1", ADDRESS.port if transport == "websockets" else MQTT_PORT)
        self._client.loop_start()
        self.answer = str(self._answers.get(timeout=PATIENCE_S))

    def subscribe(self, topic):
        self._client.subscribe(topic, 1)
        self._subscribed.get(timeout=PATIENCE_S)

    def publish(self, topic, payload):
        self._client.publish(topic, payload, 1).wait_for_publish(PATIENCE_S)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._client.disconnect()
        self._client.loop_stop()


class PageTest(unittest.TestCase):
    def test_the_page_is_served_whole(self):
        for target in ("/", "/index.html", "/?query"):
            with self.subTest(target):
                self.assertEqual((200, PAGE.read_bytes()), get(target))

    def test_the_cookies_of_other_servers_do_not_keep_the_page_away(self):
        self.assertEqual(200, get("/", headers=[f"Cookie: other={'c' * 8000}"])[0])

    def test_nothing_but_the_page_is_served(self):
        self.assertTrue((FOLDER / "passwords").exists())
        for target in ("/passwords", "/page/index.html", "/../passwords", "/./../passwords", "/..//passwords",
                       "/%2e%2e/passwords", "/..%2fpasswords", "/index.html/../../passwords", "/....//passwords",
                       "../passwords", "..", str(FOLDER / "passwords"), f"/{FOLDER}/passwords", "//etc/passwd",
                       "/../../../../../../etc/passwd"):
            with self.subTest(target):
                status, body = get(target)
                self.assertIn(status, (403, 404))
                self.assertNotIn(b"console:", body)
                self.assertNotIn(b"root:", body)

    def test_only_this_machine_reaches_the_broker(self):
        for port in (ADDRESS.port, MQTT_PORT):
            # Every address of 127/8 is this machine; a listener for all addresses would answer.
            with self.assertRaises(ConnectionRefusedError), socket.create_connection(("127.0.0.2", port)):
                pass

    def test_without_the_key_nobody_gets_in(self):
        for version in (MQTTv311, MQTTv5):
            for user, key in ((None, None), ("console", None), ("console", ""), ("console", KEY[:-1]),
                              ("console", KEY + "x"), ("console", secrets.token_urlsafe(24)), ("", KEY),
                              ("other", KEY)):
                with self.subTest(user=user, key=key, version=version):
                    with Peer(user, key, version) as peer:
                        self.assertIn(peer.answer, ("5", "Not authorized"))

    def test_with_the_key_the_page_sends_and_receives(self):
        for version in (MQTTv311, MQTTv5):
            with Peer("console", KEY, version) as page, Peer(transport="tcp") as other:
                self.assertIn(page.answer, ("0", "Success"))
                page.subscribe("test/down")
                other.subscribe("test/up")
                page.publish("test/up", "up")
                self.assertEqual(b"up", other.messages.get(timeout=PATIENCE_S))
                other.publish("test/down", "down")
                self.assertEqual(b"down", page.messages.get(timeout=PATIENCE_S))

    def test_the_key_is_in_no_file_and_no_command_line(self):
        get("/")
        with Peer("console", KEY):
            pass
        with Peer("console", KEY + "x"):
            pass
        files = [path for path in FOLDER.rglob("*") if path.is_file()]
        self.assertLessEqual({"broker.log", "host.log", "passwords"}, {file.name for file in files})
        self.assertGreater((FOLDER / "broker.log").stat().st_size, 0)
        for file in files:
            self.assertNotIn(KEY.encode(), file.read_bytes(), file)
        for process in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):  # it has just ended
                self.assertNotIn(KEY.encode(), (process / "cmdline").read_bytes())

    def test_only_the_user_can_enter_the_folder(self):
        self.assertEqual(0o40700, FOLDER.stat().st_mode)
        self.assertEqual(0o100600, (FOLDER / "passwords").stat().st_mode)


if __name__ == "__main__":
    unittest.main(verbosity=2)
