#!/usr/bin/python3
"""Makes docs/reference.md from contract/asyncapi.yaml and the D-Bus interface file.

    reference.py [--check]

With --check it writes nothing: it prints how the page differs from what it would be, and the exit status is 1 then.
What it knows no words for, it shows as it stands, so that nothing of the contract is left out.
"""

import argparse
import difflib
import json
import re
import subprocess
import sys
import tempfile
import textwrap
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import yaml

ROOT = Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/reference.md"
CONTRACT = ROOT / "contract/asyncapi.yaml"
INTERFACE = ROOT / "packaging/dbus/org.tizen.qivo_thing.service.xml"
WIDTH = 120

INTRODUCTION = """\
# Reference

<!-- tools/reference.py makes this page. Change what it is made from, and run ./dev reference. -->

Every topic, payload, method and signal of the channel. `./dev reference` makes this page from
[contract/asyncapi.yaml](../contract/asyncapi.yaml) and
[the D-Bus interface](../packaging/dbus/org.tizen.qivo_thing.service.xml). [cloud.md](cloud.md) and
[applications.md](applications.md) explain by examples how to use them.
"""

# How a schema's keywords are said; what is not here is shown as it stands.
SAID = {"$ref", "description", "type", "const", "enum", "anyOf", "oneOf", "allOf", "not", "items", "properties",
        "required", "propertyNames", "additionalProperties", "pattern", "contentEncoding", "format", "minimum",
        "maximum", "minLength", "maxLength", "minItems", "maxItems", "minProperties", "maxProperties", "title",
        "examples"}
ARTICLES = {"string": "a string", "integer": "an integer", "number": "a number", "boolean": "`true` or `false`",
            "array": "an array", "object": "an object", "null": "`null`"}
COUNTED = {"string": ("Length", "character"), "array": ("Items", "item"), "object": ("Properties", "member")}


# ---- Markdown

def wrap(text, indent=""):
    return textwrap.fill(" ".join(text.split()), WIDTH, subsequent_indent=indent,
                         break_long_words=False, break_on_hyphens=False)


def code(text):
    return f"`` {text} ``" if "`" in text else f"`{text}`"


def as_json(value):
    return code(json.dumps(value, ensure_ascii=False))


def table(header, rows):
    """A row for each; columns without any content are left out."""
    used = [number for number in range(len(header)) if any(row[number] for row in rows)]

    def line(cells):
        return "|" + "|".join(f" {cell} " if cell else " " for cell in cells) + "|"

    lines = [line(header[number] for number in used), "|" + "---|" * len(used)]
    lines += [line(" ".join(row[number].split()).replace("|", "\\|") for number in used) for row in rows]
    return "\n".join(lines)


def prose(text, words=lambda text: text, keys=lambda key: key):
    """The paragraphs of a text, each perhaps with a list in its last lines, whose items may begin with "KEY: "."""
    blocks = []
    for paragraph in re.split(r"\n\s*\n", text.strip()):
        begin, *items = re.split(r"^- ", paragraph, flags=re.M)
        if begin.strip():
            blocks.append(wrap(words(begin)))
        lines = []
        for item in items:
            key, colon, meaning = " ".join(item.split()).partition(": ")
            lines.append(wrap(f"- {keys(key)}: {words(meaning)}" if colon else f"- {words(key)}", "  "))
        blocks += ["\n".join(lines)] if lines else []
    return blocks


def listed(words, last="or"):
    words = list(words)
    return words[0] if len(words) == 1 else f"{', '.join(words[:-1])} {last} {words[-1]}"


def sentence(text):
    """The text as a sentence of its own."""
    text = " ".join(text.split())
    return text if not text or text[-1] in ".:" else text + "."


def first_sentence(text):
    return re.match(r".*?(?:\.(?= [A-Z])|$)", " ".join(text.split()))[0]


# ---- The contract

def characters(inside):
    """What a character class names, in words; None when that is more than characters and control characters."""
    found, control = [], False
    for first, last in re.findall(r"(\\u[0-9a-f]{4}|[^\\])(?:-(\\u[0-9a-f]{4}))?", inside):
        if last:
            if (first, last) not in ((r"\u0000", r"\u001f"), (r"\u007f", r"\u009f")):
                return None
            control = True
        else:
            found.append("U+" + first[2:].upper() if len(first) > 1 else code(first))
    return listed(found + ["control characters"] * control)


def texts_of(pattern):
    """The texts that a pattern of alternatives stands for; None when it is more than that."""
    match = re.fullmatch(r"(\^?)([^()]*)\(([^()]*)\)\$|(\^?)([^()|]*)\$", pattern)
    if not match:
        return None
    begins, prefix, alternatives = (match[1], match[2], match[3]) if match[3] is not None else (match[4], match[5], "")
    texts = []
    for alternative in alternatives.split("|"):
        text = ("" if begins else "….") + prefix + alternative
        text = text.replace("….", "…").replace(".+", "…")
        text = re.sub(r"\\([+$.])", lambda escaped: chr(0xE000 + ord(escaped[1])), text)
        if re.search(r"[\\\[\]*+?{}^$.]", text):
            return None
        texts.append(re.sub("[\ue000-\ue0ff]", lambda kept: chr(ord(kept[0]) - 0xE000), text))
    return texts


class Contract:
    def __init__(self, path):
        self.document = yaml.safe_load(path.read_text(encoding="utf-8"))

    def resolve(self, node):
        while isinstance(node, dict) and "$ref" in node:
            target = self.document
            for step in node["$ref"].lstrip("#/").split("/"):
                target = target[step]
            node = target
        return node

    def schema(self, node):
        """The schema with the parts of its allOf in it."""
        node = self.resolve(node)
        merged = {}
        for part in [*map(self.schema, node.get("allOf", ())), node]:
            for key, value in part.items():
                if key == "properties":
                    members = merged.setdefault(key, {})
                    for name, member in value.items():
                        members[name] = {"allOf": [members[name], member]} if name in members else member
                elif key == "required":
                    merged[key] = [*merged.get(key, []), *value]
                elif key != "allOf":
                    merged[key] = value
        return merged

    def message(self, node):
        node = self.resolve(node)
        merged = {}
        for part in [*map(self.message, node.get("traits", ())), node]:
            headers = [merged["headers"], part["headers"]] if "headers" in merged and "headers" in part else None
            merged = {**merged, **part}
            if headers:
                merged["headers"] = {"allOf": headers}
        return merged

    def channel_names(self, reference):
        return reference["$ref"].rsplit("/", 1)[1]

    # Words for a schema

    def words(self, node, example=None):
        """The schema in one line, without its description. A pattern that has no words is shown by the example."""
        schema = self.schema(node)
        kind = schema.get("type")
        if "const" in schema:
            said = "an empty string" if schema["const"] == "" else as_json(schema["const"])
        elif "enum" in schema:
            said = listed(map(as_json, schema["enum"]))
        elif "anyOf" in schema or "oneOf" in schema:
            said = listed(self.words(option) for option in schema.get("anyOf", schema.get("oneOf")))
        elif "pattern" in schema and texts_of(schema["pattern"]):
            said = listed(code(text) for text in texts_of(schema["pattern"]))
        elif kind is None:
            said = "anything" if not set(schema) - {"description"} else "a value"
        else:
            said = listed(ARTICLES[one] for one in ([kind] if isinstance(kind, str) else kind))
            said += self.limits(schema, example)
            if kind == "array" and "items" in schema:
                said += f"; each item is {self.words(schema['items'])}"
            if kind == "object" and schema.get("properties") and schema.get("additionalProperties") is False:
                members = (f'"{name}": …' for name in schema["properties"])
                said = code("{" + ", ".join(members) + "}") + " with " + listed(
                    (self.words(value) for value in schema["properties"].values()), "and")
        return said + self.unsaid(schema)

    def limits(self, schema, example=None):
        said = ""
        kind = schema.get("type")
        if kind in COUNTED:
            suffix, thing = COUNTED[kind]
            least, most = schema.get("min" + suffix), schema.get("max" + suffix)
            if least is not None and most is not None:
                said += f" of {least} to {most} {thing}s"
            elif most is not None:
                said += f" of at most {most} {thing}s"
            elif least is not None:
                said += f" of at least {least} {thing}{'s' if least != 1 else ''}"
        if "minimum" in schema and "maximum" in schema:
            said += f" from {schema['minimum']} to {schema['maximum']}"
        elif "minimum" in schema:
            said += f" from {schema['minimum']} on"
        elif "maximum" in schema:
            said += f" up to {schema['maximum']}"
        if "contentEncoding" in schema:
            said += f" in {schema['contentEncoding'].capitalize()}"
        elif "pattern" in schema:
            outside = re.fullmatch(r"\^\[\^([^\[\]]+)\][*+]\$", schema["pattern"])
            outside = outside and characters(outside[1])
            if outside:
                said += f" without {outside}"
            elif example is not None:
                said += f" such as {code(example)}"
            else:
                said += f" that matches {code(schema['pattern'])}"
        elif "format" in schema:
            said += f" ({schema['format']})"
        return said

    def unsaid(self, schema):
        said = ""
        if "not" in schema:
            excluded = schema["not"]
            name = excluded.get("required", [""])[0]
            if set(excluded) == {"type"}:
                said += f" other than {ARTICLES[excluded['type']]}"
            elif excluded == {"required": [name], "maxProperties": 1}:
                said += " other than " + code('{"%s": …}' % name)
            else:
                said += f", but not {as_json(excluded)}"
        for key, value in schema.items():
            if key not in SAID and not key.startswith("x-"):
                said += f", {key} {as_json(value)}"
        return said

    def blocks(self, node, what="The payload"):
        """The schema as a sentence, and tables where it has parts."""
        schema = self.schema(node)
        description = sentence(schema.get("description", ""))
        options = schema.get("anyOf", schema.get("oneOf"))
        if options and any(self.schema(option).get("description") for option in options):
            return [wrap(f"{what} is one of these. {description}"), self.options(options)]
        if schema.get("type") != "object":
            return [wrap(f"{what} is {self.words(schema)}. {description}")]
        rows, more = [], []
        required = schema.get("required", ())
        others = schema.get("additionalProperties", True)
        members = [(code(name), "always" if name in required else "perhaps", value)
                   for name, value in schema.get("properties", {}).items()]
        if isinstance(others, dict):
            names = self.schema(schema.get("propertyNames", {}))
            rest = "any other name" if members else "any name"
            members.append((rest + self.limits({"type": "string", **names}), "perhaps", others))
        for name, presence, value in members:
            member = self.schema(value)
            inner = member.get("anyOf", member.get("oneOf"))
            apart = (inner and len(inner) > 2) or (
                member.get("type") == "object" and ("properties" in member or "additionalProperties" in member)
                and member.get("additionalProperties") is not False)
            if apart:
                more += self.blocks(value, "Each value" if name.startswith("any") else name)
                rows.append([name, presence, "see below", sentence(member.get("description", ""))])
            else:
                rows.append([name, presence, self.words(value), sentence(member.get("description", ""))])
        words = self.words({key: value for key, value in schema.items()
                            if key not in ("properties", "additionalProperties", "propertyNames", "required")})
        closed = " with these members only" if members and others is False else ""
        presences = {row[1] for row in rows}
        if presences == {"perhaps"}:
            rows = [[name, "", value, meaning] for name, _, value, meaning in rows]
        tables = [table(["Member", "There", "Value", "Meaning"], rows)] if rows else []
        return [wrap(f"{what} is {words}{closed}. {description}"), *tables, *more]

    def options(self, options):
        rows = []
        for option in options:
            option = self.schema(option)
            rows.append([self.words(option), sentence(option.get("description", ""))])
        return table(["Value", "Meaning"], rows)

    def headers(self, node, examples=()):
        """What the MQTT properties of a message are, with a table of them. The examples are other headers."""
        schema = self.schema(node)

        def example_of(*path):
            for example in examples:
                for step in path:
                    example = example.get(step, {}) if isinstance(example, dict) else {}
                if example != {}:
                    return example
            return None

        rows = []
        for name, value in schema.get("properties", {}).items():
            # As MQTT writes them: "responseTopic" is the Response Topic.
            words = re.sub(r"(?<=[a-z])(?=[A-Z])", " ", name)
            words = words[0].upper() + words[1:]
            value = self.schema(value)
            presence = "always" if name in schema.get("required", ()) else "perhaps"
            if value.get("type") == "object" and value.get("properties"):
                for inner, inner_value in value["properties"].items():
                    inner_value = self.schema(inner_value)
                    there = presence if inner in value.get("required", ()) else "perhaps"
                    rows.append([f"{re.sub('ies$', 'y', words)} {code(inner)}", there,
                                 self.words(inner_value, example_of(name, inner)),
                                 sentence(inner_value.get("description", ""))])
            else:
                rows.append([words, presence, self.words(value, example_of(name)),
                             sentence(value.get("description", ""))])
        if not rows:
            none = schema.get("additionalProperties") is False or schema.get("maxProperties") == 0
            return ["It has no MQTT properties."] if none else []
        return [*prose(schema.get("description", "")), table(["MQTT property", "There", "Value", "Meaning"], rows)]


def seconds(number):
    for size, name in ((86400, "day"), (3600, "hour"), (60, "minute")):
        if number % size == 0 and number:
            return f"{number // size} {name}{'s' if number != size else ''} ({number} s)"
    return f"{number} s"


def connection(server):
    mqtt = server["bindings"]["mqtt"]
    will = mqtt["lastWill"]
    rows = [["Broker", sentence(server["description"])],
            ["Protocol", f"MQTT {server['protocolVersion']}"],
            ["Client identifier", code(mqtt["clientId"])],
            ["Session", f"{'a new one each time' if mqtt['cleanSession'] else 'kept'}; it expires "
                        f"{seconds(mqtt['sessionExpiryInterval'])} after the connection"],
            ["Keep alive", seconds(mqtt["keepAlive"])],
            ["Last will", f"{code(will['message'])} at {code(will['topic'])}, QoS {will['qos']}"
                          f"{', retained' if will['retain'] else ''}"]]
    return table(["The connection", "For the thing `tv`"], rows)


def broker_part(contract):
    document = contract.document
    operations = {contract.channel_names(operation["channel"]): operation
                  for operation in document["operations"].values()}
    rows, sections = [], []
    for name, channel in document["channels"].items():
        operation = operations[name]
        mqtt = operation["bindings"]["mqtt"]
        sends = operation["action"] == "send"
        address = code(channel["address"]) if channel["address"] else "the request's Response Topic"
        summary = operation.get("summary") or channel.get("description", "")
        rows.append([address, "sends" if sends else "receives",
                     str(mqtt["qos"]) if sends else f"up to {mqtt['qos']}", "yes" if mqtt["retain"] else "no",
                     f"[{name}](#{name}): {first_sentence(summary)}"])
        sections.append(f"### {name}")
        told = [channel.get("description", ""), operation.get("summary", ""), operation.get("description", "")]
        who = "The thing sends it" if sends else "The thing receives it"
        told.append(f"{who} at {address}.")
        if "reply" in operation:
            reply = operation["reply"]
            target = contract.channel_names(reply["channel"])
            place = sentence(reply["address"]["description"])
            told.append(f"The [{target}](#{target}) goes to {place[0].lower()}{place[1:]}")
        sections.append(wrap(" ".join(filter(None, map(sentence, told)))))
        several = len(channel["messages"]) > 1
        for message_name, message in channel["messages"].items():
            sections += message_part(contract, message_name if several else None, contract.message(message))
    parameters = [[code("{%s}" % name), sentence(parameter["description"]),
                   listed(map(code, parameter.get("examples", [""])), "and")]
                  for name, parameter in document["components"]["parameters"].items()]
    limits = [[limit["limit"], limit["beyond"]] for limit in document.get("x-limits", ())]
    return ["## At the broker", *prose(document["info"]["description"]),
            table(["Topic", "The thing", "QoS", "Retained", "What"], rows),
            table(["In topics", "Meaning", "Example"], parameters),
            *(connection(server) for server in document["servers"].values()),
            *(["### Limits", table(["Limit", "Beyond it"], limits)] if limits else []),
            *sections]


def message_part(contract, name, message):
    blocks = [f"**{name}**" + (f": {message['summary']}" if "summary" in message else "")] if name else []
    if not name and "summary" in message:
        blocks.append(wrap(sentence(message["summary"])))
    kind = message.get("contentType", contract.document["defaultContentType"])
    payload = contract.schema(message["payload"])
    if kind != "application/json" and payload == {"const": ""}:
        blocks.append("The payload is empty.")
    else:
        blocks += contract.blocks(message["payload"])
    examples = message.get("examples", ())
    if "headers" in message:
        blocks += contract.headers(message["headers"], [example.get("headers", {}) for example in examples])
    # Once each: two examples may differ in their headers only.
    lines = dict.fromkeys(json.dumps(example["payload"], ensure_ascii=False)
                          for example in examples if "payload" in example)
    if lines:
        blocks.append("\n".join(["```json", *lines, "```"]))
    return blocks


# ---- The D-Bus interface

class Interface:
    def __init__(self, path):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["gdbus-codegen", "--generate-docbook", "doc", "--output-directory", folder, path],
                           check=True)
            page, = Path(folder).iterdir()
            self._page = ElementTree.parse(page).getroot()
        # The bus's own view has the path, which the pages for people leave out.
        self.path = ElementTree.parse(path).getroot().get("name")
        self.name = self._page.findtext(".//refname")
        self.purpose = self._page.findtext(".//refpurpose")
        self.description = self._paragraphs(self._page.find(".//refsect1[@role='desc']"))
        self.methods = [self._member(section) for section in self._page.iterfind(".//refsect2[@role='method']")]
        self.signals = [self._member(section) for section in self._page.iterfind(".//refsect2[@role='signal']")]

    @staticmethod
    def _paragraphs(section):
        texts = ("".join(para.itertext()).strip() for para in section.findall("para"))
        return [text for text in texts if text]

    def _member(self, section):
        name = re.search(r"(\w+)\(\)|\"(\w+)\"", section.findtext("title"))
        arguments = []
        for entry in section.iterfind(".//varlistentry"):
            term = "".join(entry.find("term").itertext()).rstrip(":").split()
            direction = term[0] if len(term) == 3 else "OUT"
            arguments.append((direction, term[-2], term[-1], "".join(entry.find("listitem").itertext()).strip()))
        return {"name": name[1] or name[2], "arguments": arguments, "text": self._paragraphs(section)}

    def linked(self, text):
        """With a link at each name of a member."""
        names = "|".join(member["name"] for member in self.methods + self.signals)
        return re.sub(rf"\b({names})\b", r"[\1](#\1)", text)


def said(interface, paragraph):
    return prose(paragraph, interface.linked, code)


def bus_part(interface):
    blocks = ["## On the system bus", f"{interface.purpose}."]
    for paragraph in interface.description:
        blocks += said(interface, paragraph)
    place = [["Bus", "the system bus"], ["Name", code(interface.name.rpartition(".")[0])],
             ["Object", code(interface.path)], ["Interface", code(interface.name)]]
    blocks.insert(2, table(["Where", ""], place))

    def arguments(member, direction):
        return ", ".join(f"{code(kind)} {name}" for way, kind, name, _ in member["arguments"] if way == direction)

    def meaning(member):
        return interface.linked(first_sentence(member["text"][0])) if member["text"] else ""

    blocks.append(table(["Method", "Arguments", "Result", "Meaning"],
                        [[f"[{member['name']}](#{member['name']})", arguments(member, "IN"),
                          arguments(member, "OUT"), meaning(member)] for member in interface.methods]))
    blocks.append(table(["Signal", "Arguments", "Meaning"],
                        [[f"[{member['name']}](#{member['name']})", arguments(member, "OUT"), meaning(member)]
                         for member in interface.signals]))
    for member in interface.methods + interface.signals:
        blocks.append(f"### {member['name']}")
        for paragraph in member["text"]:
            blocks += said(interface, paragraph)
        is_method = member in interface.methods
        rows = [[code(name), code(kind), "" if not is_method else way.lower(), interface.linked(text)]
                for way, kind, name, text in member["arguments"]]
        if rows:
            blocks.append(table(["Argument", "Type", "Direction", "Meaning"], rows))
    return blocks


def page():
    blocks = [INTRODUCTION.rstrip(), None, *broker_part(Contract(CONTRACT)), *bus_part(Interface(INTERFACE))]
    contents, part = [], ""
    for block in blocks:
        heading = re.fullmatch(r"(##+) (.*)", block or "")
        if heading and heading[1] == "##":
            anchor = heading[2].lower().replace(" ", "-")
            part = len(contents)
            contents.append(f"- [{heading[2]}](#{anchor}): ")
        elif heading:
            link = f"[{heading[2]}](#{heading[2].lower()})"
            contents[part] += link if contents[part].endswith(": ") else ", " + link
    blocks[1] = "\n".join(wrap(line, "  ") for line in contents)
    return "\n\n".join(blocks) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true", help="compare, and write nothing")
    check = parser.parse_args().check
    made = page()
    if not check:
        PAGE.write_text(made, encoding="utf-8")
        return 0
    written = PAGE.read_text(encoding="utf-8") if PAGE.exists() else ""
    if written == made:
        return 0
    sys.stdout.writelines(difflib.unified_diff(written.splitlines(True), made.splitlines(True),
                                               "docs/reference.md", "what tools/reference.py makes"))
    print("\ndocs/reference.md is not what its sources say. This makes it: ./dev reference")
    return 1


if __name__ == "__main__":
    sys.exit(main())
