"""Runs an example host from start to end, and once more to kill it in the middle.

Usage: run.py [--expect PATTERN]... -- COMMAND...

COMMAND debugs examples/sample.c. Its run must end with status 0 and show what the sample does, and
each PATTERN. However it ends, none of the processes that it started may stay.
"""

import argparse
import contextlib
import os
import re
import resource
import select
import signal
import subprocess
import sys
import threading
import time
import uuid

DEADLINE = 60  # seconds; only failures wait this long
ALWAYS = ["Good morning, world!", "sample: 1 arguments", "exit status 3"]


def marked(mark):
    """The processes that inherited the mark in their environment, which survives the death of parents."""
    pids = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/environ", "rb") as file:
                if mark.encode() in file.read():
                    pids.append(int(pid))
        except OSError:
            pass  # gone, or another user's
    return pids


def end(mark):
    for pid in marked(mark):
        with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", "rb") as file:
            print(f"ending {pid}:", file.read().replace(b"\0", b" ").decode(errors="replace"), flush=True)
            os.kill(pid, signal.SIGKILL)


def await_end(mark):
    """Waits for the end of all processes with this mark."""
    until = time.monotonic() + DEADLINE
    while pids := marked(mark):
        try:
            descriptor = os.pidfd_open(pids[0])
        except ProcessLookupError:
            continue
        poll = select.poll()
        poll.register(descriptor, select.POLLIN)
        ended = poll.poll(max(0, until - time.monotonic()) * 1000)
        os.close(descriptor)
        if not ended:
            end(mark)
            sys.exit("processes stay")


def start(command):
    mark = f"LLDB_HELPER_EXAMPLE={uuid.uuid4()}"
    name, value = mark.split("=")
    # Python says nothing until its end when it writes to a pipe.
    environment = os.environ | {name: value, "PYTHONUNBUFFERED": "1"}
    host = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, errors="replace")
    timer = threading.Timer(DEADLINE, end, [mark])
    timer.daemon = True
    timer.start()
    return host, mark, timer


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--expect", action="append", default=[])
    parser.add_argument("command", nargs="+")
    options = parser.parse_args()
    # A helper whose host dies ends by abort.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

    host, mark, timer = start(options.command)
    output = host.communicate()[0]
    timer.cancel()
    print(output)
    await_end(mark)
    if host.returncode != 0:
        sys.exit(f"the run ended with {host.returncode}")
    for pattern in ALWAYS + options.expect:
        if not re.search(pattern, output):
            sys.exit(f"the run does not show {pattern!r}")

    host, mark, timer = start(options.command)
    stopped = any("eStateStopped" in line for line in host.stdout)
    timer.cancel()
    host.kill()
    host.wait()
    await_end(mark)
    if not stopped:
        sys.exit("the second run never came to a stop")
    print("killed at the stop, and nothing stays")


if __name__ == "__main__":
    main()
