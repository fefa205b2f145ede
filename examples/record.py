#!/usr/bin/env python3
"""Stands between a host and lldb-helper, and records what both send; or sends a recording again.

Usage: record.py FILE -- HELPER IN OUT     records; IN and OUT are inherited, as lldb-helper's are
       record.py --replay FILE -- HELPER   sends the requests to a new helper, and compares answers

A host that starts a program by its name starts this script instead (and makes it executable):

    #!/bin/sh
    exec python3 examples/record.py /tmp/session.txt -- build/release/lldb-helper "$@"

FILE has a line for each message: seconds since the start, "->" for a request, "<-" for a response
and "* " for an event, and the JSON text. `cut -c12-` leaves lines to compare with diff. A text with
control characters or bytes that are not UTF-8 is written as Python writes bytes. Each line is
written at once, so the file is whole whoever dies.

A replay goes through the recording. It sends each request, and waits for each response, state,
module and byte of output where it stands. Numbers of four digits and more may differ (addresses,
ids of processes and threads, counters), but one that comes again must differ in the same way. They
are replaced in requests too.
"""

import ast
import json
import os
import queue
import re
import resource
import subprocess
import sys
import threading
import time

sys.dont_write_bytecode = True  # leaves no file where the examples are installed
from host import Helper  # noqa: E402

PATIENCE = 30  # seconds without a message that a replay waits for
# The numbers that may differ: four digits and more, and ids of processes and threads, but not those
# of requests.
VARYING = re.compile(
    r'(?<!"id": )\b(?:0x)?0*(?=\w*\d)[1-9a-f][0-9a-f]{3,}\b'
    r'|(?:(?<="[pt]id": )|(?<="thread-id": )|(?<=tid = )|(?<=Process ))\d+'
)


class Recording:
    """The file that is written. Complete lines only, each in one write."""

    def __init__(self, path):
        self.file = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_APPEND, 0o600)
        self.start = time.monotonic()

    def line(self, mark, text):
        # Bytes that are not UTF-8 become surrogates, which are not printable.
        is_printable = text.decode(errors="surrogateescape").isprintable()
        is_plain = is_printable and not text.startswith((b"b'", b'b"'))
        shown = text if is_plain else repr(bytes(text)).encode()
        seconds = time.monotonic() - self.start
        os.write(self.file, b"%10.4f %s %s\n" % (seconds, mark, shown))


def pass_on(source, target, recording, mark):
    """Copies bytes until the source ends. Records each frame before its last byte goes on."""
    for descriptor in (source, target):  # a host may have made its ends non-blocking
        os.set_blocking(descriptor, True)
    pending = bytearray()
    while data := os.read(source, 1 << 16):
        pending += data
        while len(pending) >= 4:
            end = 4 + int.from_bytes(pending[:4], sys.byteorder)
            if len(pending) < end:
                break
            text = bytes(pending[4:end])
            is_event = mark == b"<-" and b'"status": "event"' in text
            recording.line(b"* " if is_event else mark, text)
            del pending[:end]
        try:
            while data:
                data = data[os.write(target, data) :]
        except BrokenPipeError:
            pass  # nobody reads any more; this is lost, as it is without this script
    if pending:
        recording.line(b"# ", b"cut short: " + repr(bytes(pending)).encode())


def record(path, helper, requests, messages):
    recording = Recording(path)
    recording.line(b"# ", f"{helper}, {time.strftime('%Y-%m-%d %H:%M:%S')}".encode())
    requests_out, requests_in = os.pipe()
    messages_out, messages_in = os.pipe()
    inherited = (requests_out, messages_in)
    child = subprocess.Popen([helper, *map(str, inherited)], pass_fds=inherited)
    os.close(requests_out)
    os.close(messages_in)

    def pass_requests_on():
        pass_on(requests, requests_in, recording, b"->")
        os.close(requests_in)

    threading.Thread(target=pass_requests_on, daemon=True).start()
    pass_on(messages_out, messages, recording, b"<-")
    status = child.wait()
    recording.line(b"# ", f"the helper ended with status {status}".encode())
    if status < 0:  # as the helper ended, but without a core file of this script
        resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))
        os.kill(os.getpid(), -status)
    os._exit(status)  # the other thread may still wait for the host


def names_of_modules(event):
    return {module["file"] for module in event.get("modules", [])}


class Replay:
    def __init__(self, program):
        self.helper = Helper(program)
        self.helper.TIMEOUT = PATIENCE
        self.now = {}  # what this run has for a number of the recording
        self.unanswered = []
        self.states = []  # of this run, not yet compared
        self.modules = set()  # the names of those that were loaded since the last exit
        self.output = self.recorded_output = b""  # also since then
        self.differences = 0

    def compare(self, what, recorded, now):
        old, new = (json.dumps(value, ensure_ascii=False) for value in (recorded, now))
        pairs = zip(VARYING.findall(old), VARYING.findall(new))
        agree = all([self.now.setdefault(number, other) == other for number, other in pairs])
        if not agree or VARYING.split(old) != VARYING.split(new):
            self.differences += 1
            print(f"{what}\n  recorded  {old}\n  now       {new}")

    def compare_output(self):
        self.compare(
            "output", self.recorded_output.decode("latin-1"), self.output.decode("latin-1")
        )
        self.output = self.recorded_output = b""

    def number_now(self, found):
        """A number of a request. An address moves with the nearest known one below it."""
        number = found[0]
        if not number.isdigit():
            return self.now.get(number, number)
        reach = 1 << 24 if int(number) >= 1 << 32 else 1  # a module is smaller, an address larger
        known = {int(old): int(new) for old, new in self.now.items() if (old + new).isdigit()}
        below = [old for old in known if 0 <= int(number) - old < reach]
        return str(int(number) - max(below) + known[max(below)]) if below else number

    def take_event(self):
        event = self.helper.next_event()
        self.output += bytes.fromhex(event.get("output", ""))
        self.modules |= names_of_modules(event)
        if event["type"] == "state":
            self.states.append(event)

    def await_event(self, recorded):
        """Waits until this run has the states, the modules and as much output as the recording."""
        modules = names_of_modules(recorded)
        self.recorded_output += bytes.fromhex(recorded.get("output", ""))
        # The output's length may vary with the numbers in it. An exit comes after all output.
        while len(self.output) < len(self.recorded_output) or not modules <= self.modules:
            if self.states and self.states[-1]["state_desc"] == "eStateExited":
                break
            self.take_event()
        if recorded["type"] == "state":
            while not self.states:
                self.take_event()
            self.compare("state", recorded, self.states.pop(0))
            if recorded["state_desc"] == "eStateExited":
                self.compare_output()
                self.modules.clear()

    def run(self, path):
        """Returns the number of differences."""
        lines = list(read_recording(path))
        try:
            for mark, text in lines:
                if mark == "->":
                    self.unanswered.append(VARYING.sub(self.number_now, text))
                    self.helper.send(self.unanswered[-1].encode(errors="surrogateescape"))
                elif mark == "<-":
                    self.compare(self.unanswered.pop(0), json.loads(text), self.helper.response())
                elif mark == "* ":
                    self.await_event(json.loads(text))
            status = f"the helper ended with status {self.helper.close()}"
            if text.startswith("the helper ended"):  # else its recorder died before it
                self.compare("the end", text, status)
        except (queue.Empty, EOFError, OSError, subprocess.TimeoutExpired) as problem:
            self.helper.child.kill()
            what = str(problem) or f"nothing for {PATIENCE} seconds"
            self.compare("waiting", "more messages", what)
        self.compare_output()
        requests = sum(mark == "->" for mark, _ in lines)
        print(f"{requests} requests, {self.differences or 'no'} differences")
        return self.differences


def read_recording(path):
    """Yields the mark and the text of each line."""
    with open(path, encoding="utf-8") as file:
        for line in file:
            mark, text = line[11:13], line[14:].rstrip("\n")
            if text.startswith(("b'", 'b"')):
                text = ast.literal_eval(text).decode(errors="surrogateescape")
            yield mark, text


def main(*words):
    if len(words) == 5 and words[1] == "--":
        record(words[0], words[2], int(words[3]), int(words[4]))
    elif len(words) == 4 and words[0] == "--replay" and words[2] == "--":
        sys.stdout.reconfigure(errors="backslashreplace")  # file names may not be UTF-8
        sys.exit(1 if Replay(words[3]).run(words[1]) else 0)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(*sys.argv[1:])
