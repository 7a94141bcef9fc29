"""The contract, as something that messages can be held against."""

import json
import re

import jsonschema
import yaml

ANSWER = "answer"


def strict(payload):
    """The JSON in the payload; raises ValueError for what is not."""
    def refuse(constant):
        raise ValueError(f"{constant} is no JSON")
    return json.loads(payload.decode("utf-8"), parse_constant=refuse)


class Contract:
    """What contract/asyncapi.yaml says of channels, their messages, QoS and retain."""

    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            self.document = yaml.safe_load(file)
        self._resolver = jsonschema.RefResolver("", self.document)
        self._addresses = {}
        for name, channel in self.document["channels"].items():
            if channel["address"] is None:
                continue
            levels = re.split(r"\{[a-z]+\}", channel["address"])
            self._addresses[name] = re.compile("([^/]+)".join(map(re.escape, levels)) + r"\Z")
        self.operations = {
            operation["channel"]["$ref"].rsplit("/", 1)[1]: operation
            for operation in self.document["operations"].values()}

    def channel_of(self, topic):
        return next((name for name, address in self._addresses.items() if address.match(topic)), None)

    def payloads_of(self, channel):
        """The schemas of the channel's messages, by name."""
        return {name: self._resolver.resolve(message["$ref"])[1]["payload"]
                for name, message in self.document["channels"][channel]["messages"].items()}

    def fits(self, schema, value):
        return jsonschema.Draft7Validator(schema, resolver=self._resolver).is_valid(value)

    def message_of(self, channel, payload):
        """The name of the message with this payload; None when the contract has none."""
        schemas = self.payloads_of(channel)
        if channel == "cancel":
            return "cancel"
        if payload == b"":
            return next((name for name, schema in schemas.items() if schema == {"const": ""}), None)
        try:
            value = strict(payload)
        except (ValueError, UnicodeDecodeError, RecursionError):
            return None
        return next((name for name, schema in schemas.items()
                     if schema != {"const": ""} and self.fits(schema, value)), None)


class Watcher:
    """Holds every message of a broker against the contract.

    An answer may come before its request does: a message at QoS 2 takes longer to its subscriber.
    """

    def __init__(self, contract):
        self._contract = contract
        self._valid = {}  # whether the request is one of the contract, by Response Topic and Correlation Data
        self._answers = []  # to requests that have not come yet
        self._violations = []
        self.seen = {}  # how often, by the message's name

    def take(self, topic, payload, qos, retain, properties):
        """`properties` are the PUBLISH's, by their names in the contract's headers."""
        channel = self._contract.channel_of(topic)
        if channel is None:
            self._answers.append((topic, payload, qos, retain, properties))
        elif self._contract.operations[channel]["action"] == "receive":
            self._count(message := self._contract.message_of(channel, payload))
            if "responseTopic" in properties:
                self._valid[properties["responseTopic"], properties.get("correlationData")] = message is not None
        else:
            self._judge(channel, topic, payload, qos, retain, properties, set())

    def violations(self):
        """What was wrong with the messages so far, a line for each fault."""
        for answer in self._answers:
            self._judge_answer(*answer)
        self._answers.clear()
        return self._violations

    def _judge_answer(self, topic, payload, qos, retain, properties):
        if topic not in {response for response, _ in self._valid}:
            self._complain(topic, payload, "a topic that the contract does not have")
            return
        message = self._judge(ANSWER, topic, payload, qos, retain, properties, {"correlationData"})
        key = (topic, properties.get("correlationData"))
        if key not in self._valid:
            self._complain(topic, payload, "an answer to no request")
        elif message == "result" and not self._valid[key]:
            self._complain(topic, payload, "a request that the contract does not have is carried out")
        elif message == "error" and self._valid[key] and self._is_fault(payload):
            self._complain(topic, payload, "a request of the contract is refused")

    def _judge(self, channel, topic, payload, qos, retain, properties, allowed):
        """The name of the message that the thing has sent, or None."""
        message = self._contract.message_of(channel, payload)
        expected = self._contract.operations[channel]["bindings"]["mqtt"]
        self._count(message)
        if message is None:
            self._complain(topic, payload, "a payload that the contract does not have")
        if qos != expected["qos"]:
            self._complain(topic, payload, f"QoS {qos}")
        if retain != expected["retain"]:
            self._complain(topic, payload, f"retain is {retain}")
        if set(properties) - allowed - {"contentType", "payloadFormatIndicator", "userProperties"}:
            self._complain(topic, payload, f"the properties {sorted(properties)}")
        return message

    def _is_fault(self, payload):
        """Whether the error says that the request's payload does not fit its schema."""
        reasons = self._contract.document["components"]["schemas"]["error"]["properties"]["error"]["anyOf"]
        return any("x-shown-by-schema" in reason and re.search(reason["pattern"], strict(payload)["error"])
                   for reason in reasons)

    def _count(self, message):
        if message is not None:
            self.seen[message] = self.seen.get(message, 0) + 1

    def _complain(self, topic, payload, what):
        self._violations.append(f"{topic} {payload[:200]!r}: {what}")
