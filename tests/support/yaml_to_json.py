#!/usr/bin/python3
"""yaml_to_json.py YAML JSON: writes the document in the first file into the second one."""

import json
import sys

import yaml

with open(sys.argv[1], encoding="utf-8") as source:
    document = yaml.safe_load(source)
with open(sys.argv[2], "w", encoding="utf-8") as target:
    json.dump(document, target)
