"""A host that checks every message, for pages and for Python tests.

It is examples/host.py, with the methods that tests use again and again: launch, run to a function, await an output.
"""

import collections
import contextlib
import functools
import json
import os
import struct
import sys
import threading

import jsonschema

from harness.machine import (
    HELPER,
    SOURCE,
    descendants,
    die_with_parent,
    eventually,
    image_base,
    inferior,
    read,
    symbol,
)

sys.path.insert(0, f"{SOURCE}/examples")
from host import Helper  # noqa: E402

OK = {"status": "ok"}
SCHEMA = json.loads(read(f"{SOURCE}/docs/protocol.schema.json"))
# LLDB's setting. It makes lldb-helper read all registers by one packet.
AT_ONCE = "plugin.process.gdb-remote.use-g-packet-for-reading"
# A longer message is counted, not checked: shorter ones have the same form.
LONGEST = 1 << 18


def error(message):
    """The response that reports this failure."""
    return {"message": message, "status": "error"}


def frame(text):
    """The bytes that carry a text through the pipe."""
    return struct.pack("=I", len(text)) + text


@functools.cache
def validator(part):
    """For a part of the schema, "responses/ping" for example."""
    kind = jsonschema.validators.validator_for(SCHEMA)
    return kind({"$defs": SCHEMA["$defs"], "$ref": f"#/$defs/{part}"})


@functools.lru_cache(256)  # floods repeat themselves
def check_form(part, text):
    """Checks that a message has the form that the schema gives it."""
    problem = jsonschema.exceptions.best_match(validator(part).iter_errors(json.loads(text)))
    if problem:
        raise AssertionError(f"the schema refuses {part} {text[:500]!r}: {problem.message[:500]}")


class Host(Helper):
    """Checks every message against docs/protocol.schema.json, a response by its request, and drops no event."""

    def __init__(self, program=HELPER, checks_requests=True, prepare=lambda: None, **options):
        """`prepare` runs in the new process before the helper does."""
        self.checks_requests = checks_requests
        self.asked = collections.deque()  # the parts of the schema for the responses to come
        self.history = []  # all messages that have come, the longest as {}
        self.output = ""  # of the program, as far as its events were taken
        self.program = None
        self.symbols = None  # the file that has the symbols, where the program has none
        self.reading = threading.Event()  # clear for a host that does not read
        self.reading.set()

        def start():
            die_with_parent()
            prepare()

        super().__init__(program, preexec_fn=start, **options)
        self.pid = self.child.pid

    # What goes over the pipes.

    def received(self, text):
        self.check_message(text.decode(errors="surrogateescape"))
        self.reading.wait()

    def check_message(self, text):
        is_checked = len(text) < LONGEST
        message = json.loads(text) if is_checked else {}
        self.history.append(message)
        if message.get("status") == "event":
            return check_form(f"events/{message.get('type')}", text)
        assert self.asked, f"nobody asked for {text[:500]!r}"
        part = self.asked.popleft()
        is_of_the_loop = validator("responses/*").is_valid
        if is_checked and not is_of_the_loop(message):
            check_form(part, text)

    def sending(self, text):
        command = None
        if len(text) < LONGEST:
            with contextlib.suppress(ValueError, TypeError, KeyError):
                command = json.loads(text.split(b"\0")[0])["command"]
        is_known = isinstance(command, str) and command in SCHEMA["$defs"]["requests"]
        if self.checks_requests and len(text) < LONGEST:
            assert is_known, f"no host should send {text[:500]!r}"
            check_form(f"requests/{command}", text.decode())
        self.asked.append(f"responses/{command}" if is_known else "response")

    # Requests and responses.

    def ask_all(self, *requests):
        """Sends requests without ids in one write, and returns their responses.

        A request without arguments may be just its command.
        """
        texts = []
        for request in requests:
            if isinstance(request, str):
                request = {"command": request}
            texts.append(json.dumps(request).encode())
        self.send(*texts)
        return [self.response() for _ in requests]

    def ask(self, command, **arguments):
        """Sends a request and returns its response without the id."""
        response = super().ask(command, **arguments)
        del response["id"]
        return response

    def ok(self, command, **arguments):
        """Sends a request whose response must be ok. Returns the other members."""
        response = self.ask(command, **arguments)
        assert response.pop("status") == "ok", f"{command} {arguments} {response}"
        return response

    def cli(self, line):
        """Runs a line of LLDB's command line, which must succeed. Returns its output."""
        answer = self.ok("executeCommand", cli=line)
        assert answer["succeeded"], f"{line}: {answer}"
        return answer.get("output", "")

    # Events.

    def next_event(self):
        """Adds output to `output`."""
        event = super().next_event()
        self.output += bytes.fromhex(event.get("output", "")).decode()
        return event

    def state(self, name):
        """Takes events up to the next state, which must be this one. Returns that event."""
        event = self.next_event()
        while event["type"] != "state":
            event = self.next_event()
        assert event["state_desc"] == name, f"after the output {self.output[-200:]!r}"
        return event

    def await_output(self, end):
        """Takes events until the output ends so. No state may come before that."""
        while not self.output.endswith(end):
            event = self.next_event()
            assert event["type"] != "state", f"before {end!r}, after {self.output[-200:]!r}"

    def rest(self):
        """Takes the events that have arrived, and returns them. All that preceded a response have."""
        events = []
        while not self.events.empty():
            events.append(self.next_event())
        return events

    # The life of a program.

    def prepare(self, program, args="", **more):
        """Prepares a program of tests/inferiors, or one with a path."""
        self.program = program if "/" in program else inferior(program)
        self.ok("prepareExecutable", path=self.program, args=args, triple="", **more)

    def launch(self, program, args="", **more):
        """Launches it, up to the stop at the entry."""
        self.output = ""
        self.prepare(program, args, **more)
        self.ok("createProcess")
        self.state("eStateStopped")

    def launch_flood(self, lines):
        """Launches a program that writes numbered lines of seven digits. Returns what will arrive."""
        numbers = range(1000000, 1000000 + lines)
        self.launch("/usr/bin/seq", f"{numbers[0]} {numbers[-1]}")
        return "".join(f"{number}\r\n" for number in numbers)

    def resume_only(self, how="continueExecution"):
        """Resumes the program and takes the events up to its running state."""
        self.ok(how)
        self.state("eStateRunning")

    def resume(self, to="eStateStopped", how="continueExecution"):
        """Resumes the program up to the next state, which must be this one. Returns that event."""
        self.resume_only(how)
        return self.state(to)

    def run_to(self, function):
        self.ok("setBreakpointAtVirtualAddress", address=self.address(function))
        self.resume()

    def start_waiting(self, program="wait"):
        """Launches a program and lets it run until it waits."""
        self.launch(program)
        self.resume_only()
        self.await_output("ready\r\n")

    def run(self, program, args="", **more):
        """Runs a program from the launch to the deletion. Returns output and exit status."""
        self.launch(program, args, **more)
        status = self.resume("eStateExited")["exit_status"]
        self.ok("deleteProcess")
        return self.output, status

    def end(self):
        """Deletes the process, if there is one, and ends the helper, which must leave nothing."""
        if self.child.returncode is not None:
            return  # the test has ended it and has seen the status
        if self.ask("hasProcess") == OK:
            self.ok("deleteProcess")
        assert self.close() == 0, "the helper's end status"
        eventually(lambda: not descendants(self.pid), "the helper's processes end")

    # The program.

    def inferior_pid(self):
        # A name in /proc has at most 15 bytes.
        return descendants(self.pid, os.path.basename(self.program)[:15])[0]

    def address(self, function):
        """Where the function is in the process."""
        address = symbol(self.symbols or self.program, function)
        with open(self.program, "rb") as file:
            is_fixed = file.read(17)[16] == 2  # ET_EXEC
        return address if is_fixed else address + image_base(self.inferior_pid(), self.program)

    def stack(self):
        return self.ok("getCallstack")["callstack"]

    def registers(self):
        return self.ok("getRegisters")["registers"]

    def read_registers_plainly(self):
        """Has each register read by a packet and as a value of its own, as LLDB does by default."""
        self.ok("executeCommand", cli=f"settings set {AT_ONCE} false")
        self.cli("type format add -f hex unused_type")
