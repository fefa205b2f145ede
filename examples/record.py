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

A replay sends each request after as many responses, states and bytes of output as it came after.
Numbers of four digits and more may differ (addresses, ids of processes and threads, counters),
but one that comes again must differ in the same way. They are replaced in requests too.
"""

import ast
import json
import os
import queue
import re
import resource
import select
import struct
import subprocess
import sys
import threading
import time

sys.dont_write_bytecode = True  # leaves no file where the examples are installed
from host import Helper  # noqa: E402

PATIENCE = 30  # seconds without a message that a replay waits for
SMALLEST = 0x1000  # of the numbers that may differ, but for ids
IDS = ('"thread-id": ', "tid = ", "Process ")  # what stands before an id of a process or a thread
NEAR = 1 << 24  # bytes: an address so far above a known one belongs to the same module


class Recording:
    """The file that is written. Complete lines only, each in one write."""

    def __init__(self, path):
        flags = os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_APPEND
        self.file = os.open(path, flags, 0o600)
        self.start = time.monotonic()

    def line(self, mark, text):
        try:
            is_plain = text.decode().isprintable() and not text.startswith((b"b'", b'b"'))
        except UnicodeDecodeError:
            is_plain = False
        shown = text if is_plain else repr(bytes(text)).encode()
        seconds = time.monotonic() - self.start
        os.write(self.file, b"%10.4f %s %s\n" % (seconds, mark, shown))


def wait_for(descriptor, event):
    """The host may have made its descriptors non-blocking."""
    poll = select.poll()
    poll.register(descriptor, event)
    poll.poll()


def pass_on(source, target, recording, mark_of):
    """Copies frames until the source ends. Records each before its last byte goes on."""
    pending = bytearray()
    while True:
        wait_for(source, select.POLLIN)
        try:
            data = os.read(source, 1 << 16)
        except BlockingIOError:
            continue
        pending += data
        at = 0
        while len(pending) - at >= 4:
            end = at + 4 + struct.unpack_from("=I", pending, at)[0]
            if end > len(pending):
                break
            text = bytes(pending[at + 4 : end])
            recording.line(mark_of(text), text)
            at = end
        del pending[:at]
        if not data:
            break
        while data and target is not None:
            try:
                data = data[os.write(target, data) :]
            except BlockingIOError:
                wait_for(target, select.POLLOUT)
            except BrokenPipeError:
                if mark_of(b"") == b"->":
                    return  # nobody reads requests any more
                target = None  # the messages are lost, as they are without this script
    if pending:
        recording.line(b"# ", b"cut short: " + repr(bytes(pending)).encode())


def mark_of_message(text):
    return b"* " if b'"status": "event"' in text else b"<-"


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
        pass_on(requests, requests_in, recording, lambda text: b"->")
        os.close(requests_in)
        os.close(requests)

    threading.Thread(target=pass_requests_on, daemon=True).start()
    pass_on(messages_out, messages, recording, mark_of_message)
    status = child.wait()
    recording.line(b"# ", f"the helper ended with status {status}".encode())
    if status < 0:  # as the helper ended, but without a core file of this script
        resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))
        os.kill(os.getpid(), -status)
    os._exit(status)  # the other thread may still wait for the host


# --- Replay. ---------------------------------------------------------------------------------------


class Messages:
    """What a helper has sent, as texts."""

    def __init__(self):
        self.responses, self.states, self.output, self.modules = [], [], b"", set()
        self.length = 0  # of the output

    def add(self, text):
        message = json.loads(text)
        if message["status"] != "event":
            self.responses.append(text)
        elif message["type"] == "state":
            self.states.append(text)
        elif "output" in message:
            self.output += bytes.fromhex(message["output"])
            self.length += len(message["output"]) // 2
        else:
            self.modules |= {module["file"] for module in message["modules"]}

    def has_as_much_as(self, wanted):
        # An exit comes after all output. The output's length may vary with the numbers in it.
        is_complete = bool(self.states) and "eStateExited" in self.states[-1]
        return (
            len(self.responses) >= len(wanted.responses)
            and len(self.states) >= len(wanted.states)
            and (is_complete or self.length >= wanted.length)
        )


class Numbers:
    """Which numbers of the recording became which of the replay."""

    def __init__(self):
        self.now = {}

    def agree(self, before, recorded, came):
        """`before` is the text before the number."""
        if recorded == came:
            return True
        is_large = int(recorded, 16) >= SMALLEST and int(came, 16) >= SMALLEST
        may_differ = is_large or before.endswith(IDS)
        return may_differ and self.now.setdefault(recorded, came) == came

    def match(self, recorded, came):
        """Whether two texts are equal but for numbers that may differ."""
        number = r"(\b(?:0x)?[0-9a-f]*[0-9][0-9a-f]*\b)"
        old, new = re.split(number, recorded), re.split(number, came)
        if old[::2] != new[::2]:
            return False
        return all([self.agree(*pair) for pair in zip(old[::2], old[1::2], new[1::2])])

    def replaced(self, before, number):
        """A number of a request. An address moves with the nearest known one below it."""
        if int(number, 0) < SMALLEST and not re.search(r'"[pt]id"\s*:\s*$', before):
            return number
        if number in self.now or not number.isdigit() or int(number) < 1 << 32:
            return self.now.get(number, number)
        known = [int(old) for old in self.now if old.isdigit() and self.now[old].isdigit()]
        near = [old for old in known if 0 <= int(number) - old < NEAR]
        return str(int(number) - max(near) + int(self.now[str(max(near))])) if near else number

    def in_request(self, text):
        number = re.compile(r'(?<!"id": )\b(0x[0-9a-f]+|0|[1-9]\d*)\b')
        return number.sub(
            lambda m: self.replaced(text[max(m.start() - 16, 0) : m.start()], m[0]), text
        )


class Replayed(Helper):
    """Keeps all texts in their order. An empty one is the end."""

    def __init__(self, program):
        self.texts = queue.Queue()
        super().__init__(program)

    def _read(self):
        while text := self.receive():
            self.texts.put(text)
        self.texts.put(b"")


class Replay:
    def __init__(self, program):
        self.helper = Replayed(program)
        self.came, self.wanted, self.numbers = Messages(), Messages(), Numbers()
        self.requests = []
        self.compared = self.differences = 0

    def compare(self, what, recorded, now):
        if not self.numbers.match(recorded, now):
            self.differences += 1
            print(f"{what}\n  recorded  {recorded}\n  now       {now}")

    def catch_up(self):
        """Waits until as much has come as was recorded. Compares the responses."""
        while not self.came.has_as_much_as(self.wanted):
            text = self.helper.texts.get(timeout=PATIENCE)
            if not text:
                raise EOFError("the helper has ended")
            self.came.add(text.decode(errors="surrogateescape"))
        for at in range(self.compared, len(self.wanted.responses)):
            self.compare(self.requests[at], self.wanted.responses[at], self.came.responses[at])
        self.compared = len(self.wanted.responses)
        self.came.length = max(self.came.length, self.wanted.length)

    def send(self, request):
        self.catch_up()
        self.requests.append(self.numbers.in_request(request))
        self.helper.send(self.requests[-1].encode(errors="surrogateescape"))

    def run(self, path):
        status = None
        try:
            for mark, text in read_recording(path):
                if mark == "->":
                    self.send(text)
                elif mark != "# ":
                    self.wanted.add(text)
                elif ended := re.match("the helper ended with status (.*)", text):
                    status = ended[1]
            self.catch_up()
        except queue.Empty:
            self.compare("waiting", "more messages", f"nothing for {PATIENCE} seconds")
            self.helper.child.kill()
        except (EOFError, OSError) as problem:
            self.compare("waiting", "more messages", str(problem))
        self.helper.requests.close()
        now = self.helper.child.wait(PATIENCE)
        self.compare("status", status or str(now), str(now))
        states = self.came.states[: len(self.wanted.states)]
        self.compare(
            "states", "\n            ".join(self.wanted.states), "\n            ".join(states)
        )
        self.compare(
            "output", self.wanted.output.decode("latin-1"), self.came.output.decode("latin-1")
        )
        missing = sorted(self.wanted.modules - self.came.modules)
        self.compare("modules that were not loaded", "", " ".join(missing))
        print(f"{len(self.requests)} requests, {self.differences or 'no'} differences")


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
        replay = Replay(words[3])
        replay.run(words[1])
        sys.exit(1 if replay.differences else 0)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(*sys.argv[1:])
