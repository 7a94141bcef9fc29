#!/usr/bin/python3
"""Runs the commands of a page of the documentation, and compares what they print with what the page shows.

    run_docs.py PAGE [BUILD_FOLDER]

The page's ```console blocks are run in order, in bash. A line that starts with `$ ` is a command; it goes on in the
next lines while a quote or a backslash at the end leaves it open. The lines up to the next command are what it prints,
on standard output and standard error. It must print just that, and end with status 0, in 60 seconds.

    …         on a line of its own stands for any lines, in a line for any text of that line. No line may be among
              them that says that the broker refuses something, unless the page shows such a line of this command
    ^C        on a line of its own is Ctrl-C, for the command that runs

What else the runner has to know, the page says in comments. This one stands once, before the first block:

    <!-- varies: 49869 cc6617d733d5 :1.7 -->
        These texts are others in each run. Each is learned where it is printed first, and from then on the text stands
        for what was printed there: in commands and in output.

These stand right before the block that they are about:

    <!-- not run: REASON -->
        Nothing of the block is run. Blocks of ```sh and ```bash must have this, or become ```console.
    <!-- run: MARK, MARK… -->
        terminal NAME    in a terminal of that name; each has a shell of its own. Without it: the terminal `1`.
        stays            the last command need not have ended when the page goes on: a monitor, or ./dev run. The
                         runner waits until it has printed what the block shows. A later block of this terminal that
                         does not start with a command is what it prints next. The next command of this terminal waits
                         until it has ended; the end of the page is a Ctrl-C. All that it has printed must be shown.
        soon             a command that does not print what is shown is run again, for 10 seconds
        status NUMBER    the last command ends with that status
        within SECONDS   what is waited for comes in that time instead of 60 seconds

The commands run in a folder that has all that the source folder has. ./dev starts the programs of BUILD_FOLDER
(build/release when it is not given) and builds nothing. The page gets no variables of a bus or broker: it starts with
./dev run, as its reader does. Prints what is wrong; the exit status is 1 then.
"""

import argparse
import difflib
import os
import re
import secrets
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent.parent
LIMIT_S = 60
SOON_S = 10
AGAIN, AGAIN_S = 5, 3  # Ctrl-C
END_S = 20  # for what still runs at the end of the page
LANGUAGES = ("sh", "bash")
MARKS = re.compile(r"terminal (?P<terminal>\S+)|(?P<stays>stays)|(?P<soon>soon)|status (?P<status>\d+)"
                   r"|within (?P<within>\d+)")
COMMENT = re.compile(r"<!--\s*(run|not run|varies):\s*(.*?)\s*-->")
REFUSAL = re.compile(r".* LUMO: the broker refuses .*")
FENCE = re.compile(r"( *)```(\S*)")


class Wrong(Exception):
    """What is wrong with the page or with what its commands did."""


class Block:
    """A block of commands and output, and what the comment before it says."""

    def __init__(self, line, marks=""):
        self.line = line
        self.terminal, self.stays, self.soon, self.status, self.limit = "1", False, False, 0, LIMIT_S
        for mark in filter(None, re.split(r",\s*", marks)):
            found = MARKS.fullmatch(mark)
            if not found:
                raise Wrong(f"line {line}: no mark '{mark}'")
            self.terminal = found["terminal"] or self.terminal
            self.stays = self.stays or bool(found["stays"])
            self.soon = self.soon or bool(found["soon"])
            self.status = int(found["status"] or self.status)
            self.limit = int(found["within"] or self.limit)
        self.text = []

    def steps(self):
        """The line, the command and the lines shown, of each step. The command is None for what one shown before
        prints next, and ^C."""
        steps = []
        number, lines = self.line, iter(self.text)
        for text in lines:
            number += 1
            if text.startswith("$ "):
                steps.append((number, text[2:], []))
                while is_open(steps[-1][1]):
                    more = next(lines, None)
                    if more is None:
                        raise Wrong(f"line {number}: the command has no end")
                    number += 1
                    steps[-1] = (steps[-1][0], steps[-1][1] + "\n" + more, [])
            elif text == "^C":
                steps.append((number, text, []))
            else:
                if not steps:
                    steps.append((number, None, []))
                steps[-1][2].append(text)
        return steps


def is_open(command):
    if command.endswith("\\"):
        return True
    checked = subprocess.run(["bash", "-n", "-c", command], capture_output=True, check=False)
    return bool(checked.returncode or checked.stderr)


def parse(page):
    """The blocks to run, and the texts that vary."""
    blocks, varying = [], []
    comment, block, fence = None, None, ""
    for number, line in enumerate(page.read_text(encoding="utf-8").splitlines(), 1):
        if fence:
            if line.strip() == "```":
                fence = ""
            elif block:
                block.text.append(line.removeprefix(indent).rstrip())
            continue
        found = COMMENT.fullmatch(line.strip())
        start = FENCE.fullmatch(line)
        if comment and line.strip() and not start:
            raise Wrong(f"line {number}: there is no block after the comment")
        if found and found[1] == "varies":
            varying += found[2].split()
        elif found:
            comment = found
        elif start:
            indent, fence, block = start[1], start[2] or "text", None
            if comment and comment[1] == "not run":
                if not comment[2]:
                    raise Wrong(f"line {number}: why is the block not run?")
            elif fence == "console":
                block = Block(number, comment[2] if comment else "")
                blocks.append(block)
            elif fence in LANGUAGES or comment:
                raise Wrong(f"line {number}: a block of '{fence}' is not run: say so, or make it one of 'console'")
            comment = None
        elif re.search(r"<!--\s*(run|not run|varies)\b", line):
            raise Wrong(f"line {number}: the comment is not as it should be")
    if fence or comment:
        raise Wrong("the page ends in a block, or with a comment of one")
    if not blocks:
        raise Wrong("the page has no block to run")
    return blocks, varying


class Varying:
    """The texts that vary, and what each of them is in this run, once that is known."""

    def __init__(self, texts):
        self._values = dict.fromkeys(texts)
        # A text that is a part of another one comes after it.
        longest = sorted(texts, key=len, reverse=True)
        self._any = re.compile("|".join(rf"(?<!\w){re.escape(text)}(?!\w)" for text in longest) or r"(?!)")

    def in_command(self, command):
        return self._any.sub(lambda found: self._known(found[0]), command)

    def _known(self, text):
        if self._values[text] is None:
            raise Wrong(f"'{text}' varies, and nothing has printed it yet")
        return self._values[text]

    def pattern(self, lines):
        """What the output must match, and the texts that its groups are the values of."""
        learned = []
        return "".join(self._pattern_of(line, learned) for line in lines), learned

    def _pattern_of(self, line, learned):
        if line == "…":
            return r"(?:.*\n)*?"
        result, at = "", 0
        for found in self._any.finditer(line):
            result += self._any_text(line[at:found.start()])
            at = found.end()
            text = found[0]
            if self._values[text] is not None:
                result += re.escape(self._values[text])
            elif text in learned:
                result += f"(?P=v{learned.index(text)})"
            else:
                result += rf"(?P<v{len(learned)}>[\w.:+-]+?)"
                learned.append(text)
        return result + self._any_text(line[at:]) + r"\n"

    @staticmethod
    def _any_text(text):
        return re.escape(text).replace("…", ".*?")

    def learn(self, match, learned):
        for index, text in enumerate(learned):
            self._values[text] = match[f"v{index}"]


class Terminal:
    """A shell. Its output is read on a thread of its own."""

    def __init__(self, folder, environment):
        self._shell = subprocess.Popen(
            ["bash", "--noprofile", "--norc"], cwd=folder, env=environment, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self._changed = threading.Condition()
        self._output = b""
        self._ended = False
        self._mark = None
        self._reader = threading.Thread(target=self._read)
        self._reader.start()
        self._write("trap : INT")  # Ctrl-C is for the command

    def start(self, command):
        self._mark = secrets.token_hex(8)
        with self._changed:
            self._output = b""
        self._write(f"{{ {command}\n}} </dev/null; printf '\\n%s %d\\n' {self._mark} $?")

    def interrupt(self):
        os.killpg(self._shell.pid, signal.SIGINT)

    def wait(self, reached, limit):
        """Waits until what the command has printed and its status, None before it ends, are what is waited for.
        Returns both in any case."""
        deadline = time.monotonic() + limit
        with self._changed:
            while True:
                printed, status = self._state()
                left = deadline - time.monotonic()
                if left <= 0 or self._ended or reached(printed, status):
                    return printed, status
                self._changed.wait(left)

    def end(self):
        """Ends the shell and what it has started. The output ends when the last of them has closed it."""
        for number in (signal.SIGTERM, signal.SIGKILL):
            try:
                os.killpg(self._shell.pid, number)
            except ProcessLookupError:
                pass
            with self._changed:
                if self._changed.wait_for(lambda: self._ended, END_S):
                    break
        self._shell.wait()
        self._shell.stdin.close()
        self._reader.join()
        self._shell.stdout.close()

    def _state(self):
        text = self._output.decode("utf-8", "replace")
        status = None
        end = re.search(rf"\n{self._mark} (\d+)\n", text)
        if end:
            text, status = text[:end.start()], int(end[1])
        lines = "".join(line.rstrip() + "\n" for line in text.splitlines())
        return lines, status

    def _write(self, text):
        try:
            self._shell.stdin.write(text.encode() + b"\n")
            self._shell.stdin.flush()
        except BrokenPipeError:
            raise Wrong("the shell of the terminal has ended") from None

    def _read(self):
        while data := os.read(self._shell.stdout.fileno(), 65536):
            with self._changed:
                self._output += data
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()


class Running:
    """A command that a terminal has started, and what the page shows of it so far."""

    def __init__(self, terminal, varying, line, command, block):
        self._terminal = terminal
        self._varying = varying
        self._status = block.status
        self._limit = block.limit
        self._interrupted = False
        self.line = line
        self.command = command
        self.shown = []
        try:
            terminal.start(varying.in_command(command))
        except Wrong as wrong:
            raise Wrong(f"line {line}: {wrong}") from None

    def show(self, lines, limit):
        """Waits until the command has printed the lines, too."""
        self.shown += lines
        self._limit = limit
        self._expect(False)

    def interrupt(self):
        """Presses Ctrl-C; again for a command that was just being started."""
        self._interrupted = True
        for _ in range(AGAIN):
            self._terminal.interrupt()
            if self._terminal.wait(lambda printed, status: status is not None, AGAIN_S)[1] is not None:
                return

    def end(self, status):
        """Waits until the command has ended."""
        ended = self._expect(True)
        if ended != status and not self._interrupted:
            raise Wrong(f"line {self.line}: status {ended} instead of {status}: $ {self.command}")

    def interrupt_at_end(self):
        if self._terminal.wait(lambda printed, status: True, 0)[1] is None:
            self.interrupt()
        self.end(self._status)

    def _expect(self, whole):
        pattern, learned = self._varying.pattern(self.shown)
        expression = re.compile(pattern)
        match = expression.fullmatch if whole else expression.match

        def reached(printed, status):
            return status is not None or (not whole and match(printed))
        printed, status = self._terminal.wait(reached, self._limit)
        found = match(printed)
        if whole and status is None:
            self._complain(f"has not ended in {self._limit} s", printed)
        if not found:
            is_expected = status in (None, self._status) or self._interrupted
            what = "does not print what is shown" if is_expected else f"ends with {status}"
            self._complain(what, printed)
        refusal = REFUSAL.search(printed)
        if refusal and not REFUSAL.search("\n".join(self.shown)):
            raise Wrong(f"line {self.line}: the page does not show '{refusal[0]}': $ {self.command}")
        self._varying.learn(found, learned)
        return status

    def _complain(self, what, printed):
        difference = difflib.unified_diff(self.shown, printed.splitlines(), "shown", "printed", n=1000, lineterm="")
        raise Wrong("\n  ".join([f"line {self.line}: {what}: $ {self.command}", *difference]))


class Page:
    """A page that is run: its terminals, and what runs in each."""

    def __init__(self, varying, folder, environment):
        self._varying = Varying(varying)
        self._folder = folder
        self._environment = environment
        self._terminals = {}
        self._running = {}  # by terminal, in the order in which they were started

    def run(self, block):
        steps = block.steps()
        for index, (line, command, shown) in enumerate(steps):
            stays = block.stays and index == len(steps) - 1
            status = block.status if index == len(steps) - 1 else 0
            if command is None or command == "^C":
                running = self._running.get(block.terminal)
                if not running:
                    raise Wrong(f"line {line}: nothing runs in the terminal '{block.terminal}'")
                if command:
                    running.interrupt()
                    running.shown += shown
                    running.end(status)
                    del self._running[block.terminal]
                else:
                    running.show(shown, block.limit)
            elif block.soon:
                self._run_until_right(line, command, shown, block, status)
            else:
                running = self._start(line, command, block)
                running.show(shown, block.limit) if stays else self._finish(block.terminal, shown, status)

    def finish(self):
        """Nothing may run or print that is not shown."""
        while self._running:
            self._running.popitem()[1].interrupt_at_end()

    def close(self):
        for terminal in reversed(self._terminals.values()):
            terminal.end()

    def _start(self, line, command, block):
        terminal = self._terminals.get(block.terminal)
        if not terminal:
            terminal = self._terminals[block.terminal] = Terminal(self._folder, self._environment)
        before = self._running.pop(block.terminal, None)
        if before:
            before.end(0)
        print(f"[{block.terminal}] $ {command}", flush=True)
        self._running[block.terminal] = Running(terminal, self._varying, line, command, block)
        return self._running[block.terminal]

    def _finish(self, terminal, shown, status):
        running = self._running[terminal]
        running.shown += shown
        running.end(status)
        del self._running[terminal]

    def _run_until_right(self, line, command, shown, block, status):
        deadline = time.monotonic() + SOON_S
        while True:
            try:
                self._start(line, command, block)
                self._finish(block.terminal, shown, status)
                return
            except Wrong:
                self._running.pop(block.terminal, None)
                if time.monotonic() >= deadline:
                    raise
            time.sleep(0.1)


def furnish(folder, build):
    """Makes a folder in which ./dev is the project's, and what it would build is there."""
    for entry in SOURCE.iterdir():
        if entry.name not in ("build", "console", ".git"):
            (folder / entry.name).symlink_to(entry)
    (folder / "console").mkdir()  # without its sources: ./dev would build them
    if (SOURCE / "console/dist").exists():
        (folder / "console/dist").symlink_to(SOURCE / "console/dist")
    (folder / "build").mkdir()
    (folder / "build/release").symlink_to(build)
    programs = folder / "build/programs"
    programs.mkdir()
    # What is built already can be installed.
    install = f"[ \"$1\" != --install ] || exec {shutil.which('cmake')} \"$@\""
    for name, script in (("cmake", install), ("apt-get", "echo 'a package is missing' >&2; exit 1")):
        (programs / name).write_text(f"#!/bin/sh\n{script}\n", encoding="utf-8")
        (programs / name).chmod(0o755)
    environment = {name: value for name, value in os.environ.items()
                   if not name.startswith(("ADC_", "DBUS_", "LUMO_", "DLOG_", "VCONF_")) and name != "TMPDIR"}
    environment["PATH"] = f"{programs}:{environment.get('PATH', os.defpath)}:/usr/sbin"
    return {**environment, "LC_ALL": "C.UTF-8", "NO_COLOR": "1", "TERM": "dumb"}


def run(path, build):
    """What is wrong with the page; None when nothing is."""
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        try:
            blocks, varying = parse(path)
            page = Page(varying, folder, furnish(folder, build))
            try:
                for block in blocks:
                    page.run(block)
                page.finish()
            finally:
                page.close()
        except Wrong as wrong:
            return str(wrong)
    return None


def main():
    parser = argparse.ArgumentParser(description="Runs the commands of a page of the documentation.")
    parser.add_argument("page", type=Path)
    parser.add_argument("build", type=Path, nargs="?", default=SOURCE / "build/release")
    arguments = parser.parse_args()
    wrong = run(arguments.page, arguments.build.resolve())
    if wrong:
        print(f"{arguments.page}: {wrong}", file=sys.stderr)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
