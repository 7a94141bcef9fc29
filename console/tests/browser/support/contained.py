#!/usr/bin/python3
"""Runs a command, and leaves nothing of it.

    contained.py COMMAND [ARGUMENT...]

The command has a folder of its own as TMPDIR. When it ends, or when whoever started this is killed, every process
that was started below it is killed, and the folder is removed.
"""

import ctypes
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36


def prctl(option, value):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(option, ctypes.c_ulong(value), 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def end_descendants():
    """Kills every child, and every grandchild that becomes one, until there is none."""
    children = Path(f"/proc/self/task/{os.getpid()}/children")
    while True:
        for child in children.read_text(encoding="ascii").split():
            os.kill(int(child), signal.SIGKILL)
        try:
            if os.waitpid(-1, os.WNOHANG)[0] == 0:
                time.sleep(0.001)  # killed, and not yet dead
        except ChildProcessError:
            return


def keep(command):
    def end(number, _):
        sys.exit(128 + number)

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)
    folder = tempfile.mkdtemp(prefix="console-tests-")
    try:
        status = subprocess.call(command, env={**os.environ, "TMPDIR": folder})
        return status if status >= 0 else 128 - status
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        end_descendants()
        shutil.rmtree(folder, ignore_errors=True)


def main():
    if len(sys.argv) < 2:
        print("usage: contained.py COMMAND [ARGUMENT...]", file=sys.stderr)
        return 2
    front = os.getpid()
    keeper = os.fork()
    if keeper == 0:
        os.setpgid(0, 0)  # a Ctrl-C in the terminal reaches the front alone, which passes it on
        prctl(PR_SET_CHILD_SUBREAPER, 1)
        prctl(PR_SET_PDEATHSIG, signal.SIGTERM)
        return keep(sys.argv[1:]) if os.getppid() == front else 1
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: os.kill(keeper, number))
    status = os.waitstatus_to_exitcode(os.waitpid(keeper, 0)[1])
    return status if status >= 0 else 128 - status


if __name__ == "__main__":
    sys.exit(main())
