#!/usr/bin/python3
"""A small back end in Python: follows televisions, and reads and sets their properties over MQTT 5.

    cloud.py [OPTION...] watch                  prints the televisions and what happens to them
    cloud.py [OPTION...] get TV NAME...         prints the answer
    cloud.py [OPTION...] set TV NAME VALUE...   sets the strings, one after the other, each until it is confirmed
    cloud.py [OPTION...] sign-in TV [JSON]      signs in, with this sign-up information, whenever TV comes online

docs/cloud.md says how it works. Needs Debian's python3-paho-mqtt.
"""

import argparse
import json
import os
import signal
import sys
import threading
import time
import uuid
from types import SimpleNamespace
from urllib.parse import urlsplit

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

SESSION_S = 3600  # for how long the broker keeps what comes while this client is away
PAUSE_S = 0.5  # before a request is sent again
NOT_CARRIED_OUT = ("busy", "the service was destroyed")
PERHAPS_CARRIED_OUT = "the request was not answered in time"
# The answer did not fit, and it would have had the result 0.
CARRIED_OUT = ("the answer is larger than the broker takes", "too many answers wait for the broker")


class Refused(Exception):
    """The request cannot be carried out, however often it is sent."""


def properties_of(packet, **values):
    properties = mqtt.Properties(packet)
    for name, value in values.items():
        setattr(properties, name, value)
    return properties


class Cloud:
    """A client of the broker. What it knows changes on paho's thread, with the condition `changed` held."""

    def __init__(self, options):
        self.changed = threading.Condition()
        self._options = options
        self._televisions = {}
        self._is_subscribed = False
        self._answers = {}  # by Correlation Data; None until one has come
        client_id = options.id or f"cloud-{uuid.uuid4()}"
        self._topic = f"answers/{client_id}"
        self._client = mqtt.Client(client_id, protocol=mqtt.MQTTv5)
        self._client.on_connect = self._on_connect
        self._client.on_subscribe = self._on_subscribe
        self._client.on_disconnect = self._on_disconnect
        self._client.on_message = self._on_message
        broker = urlsplit(options.broker)
        if broker.username:
            self._client.username_pw_set(broker.username, broker.password)
        if broker.scheme == "mqtts":
            self._client.tls_set()
        # With a session that lasts, paho and the broker complete what the loss of a connection has interrupted: at
        # QoS 2 nothing is lost and nothing doubled.
        self._client.connect_async(broker.hostname, broker.port or (8883 if broker.scheme == "mqtts" else 1883),
                                   clean_start=False,
                                   properties=properties_of(PacketTypes.CONNECT, SessionExpiryInterval=SESSION_S))
        self._client.loop_start()

    def close(self):
        expiry = SESSION_S if self._options.id else 0  # nobody comes back with a random id
        self._client.disconnect(properties=properties_of(PacketTypes.DISCONNECT, SessionExpiryInterval=expiry))
        self._client.loop_stop()

    def television(self, name):
        return self._televisions.setdefault(name, SimpleNamespace(
            name=name, online=False, since=0.0, onlines=0, run=None, former=set(), names={}, names_run=None, values={},
            stamps={}, news={}))

    def wait(self, condition, limit=None):
        with self.changed:
            self.changed.wait_for(condition, limit)

    def _wait_for(self, tv, condition):
        """With a limit, to which no time counts in which the television is away."""
        start = time.monotonic()
        while not condition() and not (tv.online and time.monotonic() - max(start, tv.since) > self._options.limit):
            self.wait(condition, PAUSE_S)

    def request(self, tv, operation, payload):
        """The answer; None when none came, and then it is not carried out later, either."""
        self.wait(lambda: self._is_subscribed)  # else the answer may come before
        correlation = uuid.uuid4().bytes
        self._answers[correlation] = None
        self._publish(tv, operation, json.dumps(payload), correlation)
        self._wait_for(tv, lambda: self._answers[correlation] is not None)
        answer = self._answers.pop(correlation)
        if answer is None:
            self._publish(tv, "cancel", None, correlation)
        return answer

    def set(self, tv, name, value):
        """Returns whether the application has confirmed the value, by sending it."""
        while True:
            # A set that waits for the television at the broker comes before the application: the result is 6.
            # So do properties of an earlier run, which the broker may still have.
            self.wait(lambda: tv.online and name in tv.names and tv.names_run in (None, tv.run))
            run, before = tv.run, tv.news.get(name)

            def is_confirmed():
                return tv.values.get(name) == value and tv.news.get(name) != before

            answer = self.request(tv, "set", {name: value}) or {"error": PERHAPS_CARRIED_OUT}
            error = answer.get("error")
            if error in CARRIED_OUT:
                error = None
            if answer.get("result") == 6 or error in NOT_CARRIED_OUT:
                time.sleep(PAUSE_S)
                continue
            if error not in (None, PERHAPS_CARRIED_OUT):
                raise Refused(error)
            self._wait_for(tv, lambda: is_confirmed() or tv.run != run)
            if is_confirmed() or (error is None and tv.run == run):
                return is_confirmed()
            # Nobody knows whether the application got it before the host ended. So it may get it twice.

    def _publish(self, tv, operation, payload, correlation):
        properties = properties_of(PacketTypes.PUBLISH, ResponseTopic=self._topic, CorrelationData=correlation)
        self._client.publish(f"things/{tv.name}/appdatachannel/{operation}", payload, 2, properties=properties)

    def _on_connect(self, client, _userdata, _flags, reason, _properties):
        if reason != 0:
            print(f"cloud: the broker refuses: {reason}", file=sys.stderr)
            return
        # Each time: the broker may have lost the session. What is retained comes again.
        thing = f"things/{getattr(self._options, 'tv', '+')}"
        topics = self._topic, f"{thing}/status", f"{thing}/appdatachannel/properties", f"{thing}/appdatachannel/value/+"
        client.subscribe([(topic, mqtt.SubscribeOptions(qos=1)) for topic in topics])

    def _on_subscribe(self, *_):
        with self.changed:
            self._is_subscribed = True
            self.changed.notify_all()

    def _on_disconnect(self, *_):
        with self.changed:
            for tv in self._televisions.values():
                tv.online = False  # as far as is known

    def _on_message(self, _client, _userdata, message):
        user = dict(getattr(message.properties, "UserProperty", ()))  # empty, if the television sends none
        content = json.loads(message.payload) if message.payload else None
        with self.changed:
            if message.topic == self._topic:
                correlation = getattr(message.properties, "CorrelationData", None)
                if correlation in self._answers:
                    self._answers[correlation] = content
            else:
                _, name, *topic = message.topic.split("/")
                tv = self.television(name)
                if user.get("run") in tv.former:
                    return  # a broker that was killed has brought it back
                if topic[0] == "status":
                    self._on_status(tv, content, user)
                elif topic[1] == "properties":
                    tv.names, tv.names_run = content or {}, user.get("run")
                    self._tell(tv.name, "has", *sorted(tv.names))
                else:
                    self._on_value(tv, topic[2], content, message.retain, user)
            self.changed.notify_all()

    def _on_status(self, tv, status, user):
        tv.online, tv.since = status == "online", time.monotonic()
        if status is None:  # larger than the broker takes
            self._tell(tv.name, "has no status")
            return
        tv.onlines += tv.online
        run = user.get("run", tv.onlines)  # without runs, each "online" may be a new one
        if tv.run not in (None, run):
            tv.former.add(tv.run)
            self._tell(tv.name, "has restarted")
        tv.run = run
        # The will, by which the broker tells of a loss, has no time.
        is_lost = not tv.online and "run" in user and "time" not in user
        self._tell(tv.name, "lost" if is_lost else status)

    def _on_value(self, tv, name, value, is_retained, user):
        if value is None:
            if tv.values.pop(name, None) is not None:
                self._tell(tv.name, name, "is removed")
            return
        run, last = tv.stamps.get(name, (None, 0))
        is_same = is_retained and tv.values.get(name) == value
        number = int(user.get("sequence", last if is_same else last + 1))
        if run == user.get("run") and (number < last or (number == last and name in tv.values)):
            return  # it came before
        replaced = number - last - 1 if last and run == user.get("run") else 0
        tv.values[name], tv.stamps[name] = value, (user.get("run"), number)
        if last or not is_retained:  # else it may be older than this client
            tv.news[name] = tv.news.get(name, 0) + 1
        self._tell(tv.name, name, json.dumps(value, ensure_ascii=False),
                   *([f"({replaced} values before it were replaced)"] if replaced > 0 else []))

    def _tell(self, *words):
        if self._options.command == "watch":
            print(" ".join(words), flush=True)


def run_command(cloud, options):
    if options.command == "watch":
        cloud.wait(lambda: False)
    tv = cloud.television(options.tv)
    if options.command == "get":
        answer = cloud.request(tv, "get", options.names)
        print(json.dumps(answer, ensure_ascii=False, separators=(",", ":")))
        return 0 if answer and answer.get("result") == 0 else 1
    if options.command == "set":
        for value in options.values:
            print(value, "is confirmed" if cloud.set(tv, options.name, value) else "is answered", flush=True)
        return 0
    onlines = 0
    while True:  # both are lost when the television restarts
        cloud.wait(lambda: tv.online and tv.onlines != onlines)
        now = tv.onlines
        answer = cloud.request(tv, "set", {"signinStatus": True, "signupInfo": options.info})
        if answer and answer.get("result") == 0:
            onlines = now
            print(tv.name, "is signed in", flush=True)
        else:
            time.sleep(PAUSE_S)


def main():
    parser = argparse.ArgumentParser(usage="cloud.py [OPTION...] watch|get|set|sign-in ...")
    parser.add_argument("--broker", default=os.environ.get("LUMO_BROKER", "mqtt://127.0.0.1"), metavar="URL")
    parser.add_argument("--id", help="the client's id; the broker then keeps its session when it ends")
    parser.add_argument("--limit", type=float, default=15, metavar="SECONDS", help="for an answer")
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("watch")
    for command in ("get", "set", "sign-in"):
        commands.add_parser(command).add_argument("tv")
    commands.choices["get"].add_argument("names", nargs="+", metavar="name")
    commands.choices["set"].add_argument("name")
    commands.choices["set"].add_argument("values", nargs="+", metavar="value")
    commands.choices["sign-in"].add_argument("info", nargs="?", default={}, type=json.loads)
    options = parser.parse_args()
    ends = (signal.SIGINT, signal.SIGTERM)
    for number in ends:
        signal.signal(number, signal.default_int_handler)
    try:
        cloud = Cloud(options)
        try:
            return run_command(cloud, options)
        finally:
            for number in ends:
                signal.signal(number, signal.SIG_IGN)
            cloud.close()
    except Refused as refused:
        print(f"cloud: {refused}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
