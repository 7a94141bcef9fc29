#!/usr/bin/python3
"""Checks that the documentation names only tests, files and headings that exist.

    check_docs.py SOURCE_FOLDER

A test is named in backquotes: `Suite`, `Suite.Test`, or, in the suite of the name before it in the file, `…Test`.
Where the rest of a name is left out, it has an ellipsis or an asterisk. Prints what is wrong; the exit status is 1 then.
"""

import re
import sys
from pathlib import Path

DEFINITION = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)")
LINK = re.compile(r"\]\(([^)#\s]*)(?:#([^)\s]*))?\)")
QUOTED = re.compile(r"`([^`\n ]+)`")
NAME = re.compile(r"(\w*Test)(?:\.(\S+))?")


def pattern(name):
    return re.compile(re.escape(name).replace(r"\*", ".*").replace("…", ".*"))


def anchors(path):
    headings = re.findall(r"^#+ (.*)$", path.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-") for heading in headings}


def wrong_links(page, text):
    for target, anchor in LINK.findall(text):
        if target.startswith("http"):
            continue
        path = page.parent / target if target else page
        if not path.exists() or (anchor and anchor not in anchors(path)):
            yield f"no '{target}#{anchor}'" if anchor else f"no '{target}'"


def wrong_tests(text, tests):
    suite = ""
    for quoted in QUOTED.findall(text):
        name = NAME.fullmatch(quoted)
        if name:
            suite, test = name[1], name[2] or "…"
        elif quoted.startswith("…") and len(quoted) > 1:
            test = quoted[1:]
        else:
            continue
        if not any(found == suite and pattern(test).fullmatch(other) for found, other in tests):
            yield f"no test {suite}.{test}"


def main():
    root = Path(sys.argv[1])
    tests = {definition for file in (root / "tests").rglob("*")
             if file.suffix in (".cpp", ".h")
             for definition in DEFINITION.findall(file.read_text(encoding="utf-8"))}
    complaints = []
    for page in sorted([*root.glob("*.md"), *(root / "docs").glob("*.md")]):
        text = page.read_text(encoding="utf-8")
        for what in [*wrong_links(page, text), *wrong_tests(text, tests)]:
            complaints.append(f"{page.relative_to(root)}: {what}")
    for complaint in complaints:
        print(complaint)
    return 1 if complaints or not tests else 0


if __name__ == "__main__":
    sys.exit(main())
