#!/usr/bin/python3
"""Holds a whole channel against its contract.

    run_channel.py BUILD_FOLDER contract_test.py CONTRACT

Runs in a channel, as run_channel.py starts one: an application at its bus, a cloud at its broker, and a
watcher that gets every message of the broker.
"""

import os
import queue
import subprocess
import sys
import unittest
from urllib.parse import urlparse

import jsonschema
from paho.mqtt.client import MQTTv5, Client
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties
from paho.mqtt.subscribeoptions import SubscribeOptions

from contract import Contract, Watcher, strict

PATIENCE_S = 60
SERVICE = "things/tv/appdatachannel/"
NAMES = {"ResponseTopic": "responseTopic", "CorrelationData": "correlationData",
         "ContentType": "contentType", "PayloadFormatIndicator": "payloadFormatIndicator",
         "MessageExpiryInterval": "messageExpiryInterval", "UserProperty": "userProperties"}

contract = Contract(sys.argv.pop(1))


class Peer:
    """A client of the broker; everything that it gets is in `messages`."""

    def __init__(self, topic):
        self.messages = queue.SimpleQueue()
        subscribed = queue.SimpleQueue()
        self._client = Client(protocol=MQTTv5)
        self._client.on_message = lambda client, data, message: self.messages.put(message)
        self._client.on_subscribe = lambda *_: subscribed.put(None)
        self._client.connect("127.0.0.1", urlparse(os.environ["LUMO_BROKER"]).port)
        self._client.loop_start()
        self._client.subscribe(topic, options=SubscribeOptions(qos=2, retainAsPublished=True))
        subscribed.get(timeout=PATIENCE_S)

    def publish(self, topic, payload, qos=1, retain=False, answer=None, correlation=None):
        properties = Properties(PacketTypes.PUBLISH)
        if answer is not None:
            properties.ResponseTopic = answer
        if correlation is not None:
            properties.CorrelationData = correlation
        self._client.publish(topic, payload, qos, retain, properties).wait_for_publish(PATIENCE_S)

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()


class ContractTest(unittest.TestCase):
    def setUp(self):
        self.watcher = Watcher(contract)
        self.everything = Peer("#")
        self.cloud = Peer("cloud/answers")
        self.number = 0

    def tearDown(self):
        self.everything.close()
        self.cloud.close()

    def watch_until(self, topic, payload):
        """Has the watcher take what comes, up to this message."""
        while True:
            message = self.everything.messages.get(timeout=PATIENCE_S)
            properties = {NAMES.get(name, name): value
                          for name, value in message.properties.json().items()} \
                if message.properties else {}
            if "correlationData" in properties:
                properties["correlationData"] = message.properties.CorrelationData
            self.watcher.take(message.topic, message.payload, message.qos, bool(message.retain), properties)
            if (message.topic, message.payload) == (topic, payload):
                return

    def request(self, operation, payload, qos=2):
        """The answer's payload."""
        self.number += 1
        correlation = b"request-%d" % self.number
        self.cloud.publish(SERVICE + operation, payload, qos, answer="cloud/answers", correlation=correlation)
        message = self.cloud.messages.get(timeout=PATIENCE_S)
        self.assertEqual(correlation, message.properties.CorrelationData)
        self.watch_until("cloud/answers", message.payload)
        return strict(message.payload)

    def call(self, method, *arguments):
        """What an application gets from the method."""
        command = ["gdbus", "call", "-a", os.environ["DBUS_SYSTEM_BUS_ADDRESS"], "-d", "org.tizen.qivo_thing",
                   "-o", "/org/tizen/qivo_thing", "-m", f"org.tizen.qivo_thing.service.{method}", *arguments]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()

    def test_each_example_is_one_of_its_message_and_each_schema_is_one(self):
        for schema in contract.document["components"]["schemas"].values():
            jsonschema.Draft7Validator.check_schema(schema)
        for name, message in contract.document["components"]["messages"].items():
            for example in message.get("examples", ()):
                with self.subTest(name, example=example):
                    self.assertTrue(contract.fits(message["payload"], example["payload"]))

    def test_every_message_of_a_channel_is_in_the_contract(self):
        self.assertEqual("(0,)", self.call("register_app", "qz"))
        self.assertEqual("(0,)", self.call("send_data", "qz", 'a "text" of any kind \u00e4\n'))
        for qos in (0, 1, 2):
            self.assertEqual(0, self.request("set", b'{"qz": 1}', qos)["result"])
        self.assertEqual(0, self.request("set", b'{"signinStatus": true}')["result"])
        self.assertEqual({"result": 0, "properties": {"signinStatus": ""}},
                         self.request("get", b'["signinStatus"]'))
        self.assertEqual(0, self.request("set", b'{"signupInfo": {"a": [1, null, "b"]}}')["result"])
        self.assertEqual(6, self.request("get", b'["qz", "nobody"]')["result"])
        self.assertEqual(6, self.request("set", b'{"nobody": "x"}')["result"])
        for operation, payload in (
                ("get", b"{}"), ("get", b'["a"'), ("get", b'["\\u0000"]'), ("get", b"\xff"), ("get", b""),
                ("get", b'["a",' * 2 + b"]" * 2), ("get", b"[%s]" % b",".join([b'"a"'] * 1001)),
                ("set", b"[]"), ("set", b'{"qz": null}'), ("set", b'{"qz": 1.5}'), ("set", b'{"qz": 2147483648}'),
                ("set", b'{"qz": "\\u0000"}'), ("set", b'{"qz": {"$bytes": "%"}}'), ("set", b'{"\\u0000": 1}'),
                ("set", b'{"qz": {"$bytes": "/w=="}}'), ("set", b"[" * 101 + b"]" * 101),
                ("set", b'{"qz": "%s"}' % (b"x" * 262144)),
                ("set", b"{%s}" % b",".join(b'"%d": 1' % number for number in range(1001)))):
            with self.subTest(operation, payload=payload[:80]):
                self.assertIn("error", self.request(operation, payload))
        self.assertEqual({"error": "the request was not answered in time"}, self.request("set", b'{"qz": {}}'))
        self.cloud.publish(SERVICE + "cancel", b"any", 2, correlation=b"nothing")
        self.watch_until(SERVICE + "cancel", b"any")
        self.assertEqual("(0,)", self.call("unregister_app", "qz"))
        self.watch_until(SERVICE + "value/qz", b"")
        self.cloud.publish("things/tv/status", b'"offline"', 1, retain=True)
        self.watch_until("things/tv/status", b'"online"')  # the thing corrects what others claim

        self.assertEqual([], self.watcher.violations())
        sent = {name for channel in contract.document["channels"] for name in contract.payloads_of(channel)}
        self.assertEqual(sent, set(self.watcher.seen))

    def test_the_watcher_notices_what_is_not_in_the_contract(self):
        topic = SERVICE + "value/qz"
        breaks = {
            "a topic that the contract does not have": lambda: ("things/tv/else", b"1", 1, True, {}),
            "a payload that the contract does not have": lambda: (topic, b"1", 1, True, {}),
            "QoS 0": lambda: (topic, b'"a"', 0, True, {}),
            "retain is False": lambda: (topic, b'"a"', 1, False, {}),
            "the properties ['messageExpiryInterval']": lambda: (topic, b'"a"', 1, True, {"messageExpiryInterval": 1}),
            "an answer to no request":
                lambda: ("a", b'{"error": "busy"}', 1, False, {"correlationData": b"2"}),
            "a request that the contract does not have is carried out":
                lambda: ("a", b'{"result": 0, "properties": {}}', 1, False, {"correlationData": b"wrong"}),
            "a request of the contract is refused":
                lambda: ("a", b'{"error": "qz: null"}', 1, False, {"correlationData": b"right"})}
        for what, message in breaks.items():
            with self.subTest(what):
                watcher = Watcher(contract)
                for correlation, payload in ((b"right", b'{"qz": "1"}'), (b"wrong", b'{"qz": null}')):
                    watcher.take(SERVICE + "set", payload, 2, False,
                                 {"responseTopic": "a", "correlationData": correlation})
                self.assertEqual([], watcher.violations())
                watcher.take(*message())
                self.assertEqual([what], [violation.rsplit(": ", 1)[1] for violation in watcher.violations()])


if __name__ == "__main__":
    unittest.main()
