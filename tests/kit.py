"""A host that checks every message, for sessions and Python tests.

`from kit import *` gives a test this file's names, those of machine.py, and the standard modules that both import."""

import collections
import contextlib
import functools
import json
import os
import queue
import struct
import sys
import threading

import jsonschema

from machine import *

sys.path.insert(0, f"{SOURCE}/examples")
from host import Helper  # noqa: E402

OK = {"status": "ok"}
SCHEMA = json.loads(read(f"{SOURCE}/docs/protocol.schema.json"))
AT_ONCE = "plugin.process.gdb-remote.use-g-packet-for-reading"  # LLDB's setting
LONGEST = 1 << 18  # a longer message is counted, not checked: shorter ones have the same form
error = lambda message: {"message": message, "status": "error"}
frame = lambda text: struct.pack("=I", len(text)) + text


@functools.cache
def validator(part):
    """For a part of the schema, "responses/ping" for example."""
    return jsonschema.validators.validator_for(SCHEMA)({"$defs": SCHEMA["$defs"], "$ref": f"#/$defs/{part}"})


@functools.lru_cache(256)  # floods repeat themselves
def conform(part, text):
    problem = jsonschema.exceptions.best_match(validator(part).iter_errors(json.loads(text)))
    check(problem is None, problem and f"not as the schema has {part}: {text[:500]!r}: {problem.message[:500]}")


class Host(Helper):
    """A host that checks every message against docs/protocol.schema.json, a response by its request, and drops no event."""

    def __init__(self, program=HELPER, checks_requests=True, prepare=lambda: None, **options):
        self.checks_requests = checks_requests
        self.asked = collections.deque()  # the parts of the schema for the responses to come
        self.history = []
        self.output = ""
        self.symbols = None  # the file that has the symbols, where the program has none
        self.problem = Failure("the helper has closed its output")
        self.reading = threading.Event()  # clear for a host that does not read
        self.reading.set()
        super().__init__(program, preexec_fn=lambda: (die_with_parent(), prepare()), **options)
        self.pid = self.child.pid

    def _read(self):
        try:
            super()._read()
        except Exception as found:
            self.problem = found

    def receive(self):
        if text := super().receive():
            self.check_message(text.decode(errors="surrogateescape"))
        self.reading.wait()
        return text

    def check_message(self, text):
        message = json.loads(text) if len(text) < LONGEST else {}
        if message.get("status") == "event":
            return conform(f"events/{message.get('type')}", text)
        check(self.asked, f"nobody asked for {text[:500]!r}")
        part = self.asked.popleft()
        if message and not validator("responses/*").is_valid(message):  # the request loop's own answers
            conform(part, text)

    def check_request(self, text):
        is_known = False
        with contextlib.suppress(ValueError, TypeError, KeyError):
            command = json.loads(text.split(b"\0")[0])["command"] if len(text) < LONGEST else None
            is_known = command in SCHEMA["$defs"]["requests"]
        if self.checks_requests and len(text) < LONGEST:
            check(is_known, f"no host should send {text[:500]!r}")
            conform(f"requests/{command}", text.decode())
        self.asked.append(f"responses/{command}" if is_known else "response")

    def send(self, *texts):
        """Sends frames in one write."""
        for text in texts:
            self.check_request(text)
        self.requests.write(b"".join(map(frame, texts)))
        self.requests.flush()

    def _take(self, messages):
        try:
            self.history.append(super()._take(messages))
        except EOFError:
            raise self.problem from None
        except queue.Empty:
            raise Failure("the helper says nothing") from None
        return self.history[-1]

    def response(self):
        return self._take(self.responses)

    def ask_all(self, *requests):
        """Sends requests without ids in one write, and returns their responses."""
        self.send(*(json.dumps(r if isinstance(r, dict) else {"command": r}).encode() for r in requests))
        return [self.response() for _ in requests]

    def ask(self, command, **arguments):
        response = self.ask_all({"command": command, "id": self.next_id} | arguments)[0]
        expect(response.pop("id", None), self.next_id, command)
        self.next_id += 1
        return response

    def ok(self, command, **arguments):
        """Sends a request whose response must be ok. Returns the other members."""
        response = self.ask(command, **arguments)
        expect(response.pop("status"), "ok", f"{command} {arguments} {response}")
        return response

    def next_event(self):
        """Adds output to `output`."""
        event = super().next_event()
        self.output += bytes.fromhex(event.get("output", "")).decode()
        return event

    def state(self, name):
        """The next state event, which must be this one."""
        while (event := self.next_event())["type"] != "state":
            pass
        expect(event["state_desc"], name, f"the next state, after the output {self.output[-200:]!r}")
        return event

    def await_output(self, end):
        while not self.output.endswith(end):
            event = self.next_event()
            check(event["type"] != "state", f"{event} before {end!r}, after {self.output[-200:]!r}")

    def prepare(self, program, args="", **more):
        self.program = program if "/" in program else inferior(program)
        self.ok("prepareExecutable", path=self.program, args=args, triple="", **more)

    def launch(self, program, args="", **more):
        """To the stop at the entry."""
        self.output = ""
        self.prepare(program, args, **more)
        self.ok("createProcess")
        self.state("eStateStopped")
        return self

    def resume_only(self, how="continueExecution"):
        self.ok(how)
        self.state("eStateRunning")

    def resume(self, to="eStateStopped", how="continueExecution"):
        self.resume_only(how)
        return self.state(to)

    def launch_flood(self, lines):
        """Launches a program that writes numbered lines of seven digits. Returns what will arrive."""
        numbers = range(1000000, 1000000 + lines)
        self.launch("/usr/bin/seq", f"{numbers[0]} {numbers[-1]}")
        return "".join(f"{number}\r\n" for number in numbers)

    def start_waiting(self, program="wait"):
        """Runs a program until it waits."""
        self.launch(program)
        self.resume_only()
        self.await_output("ready\r\n")

    def run(self, *launch, **more):
        """From the launch to the deletion. Returns output and exit status."""
        self.launch(*launch, **more)
        status = self.resume("eStateExited")["exit_status"]
        self.ok("deleteProcess")
        return self.output, status

    def cli(self, line):
        """Runs a line of LLDB's command line, which must succeed. Returns its output."""
        answer = self.ok("executeCommand", cli=line)
        check(answer["succeeded"], (line, answer))
        return answer.get("output", "")

    def read_registers_plainly(self):
        """Has each register read by a packet and as a value of its own, as LLDB does by default."""
        self.ok("executeCommand", cli=f"settings set {AT_ONCE} false")
        self.cli("type format add -f hex unused_type")

    def run_to(self, function):
        self.ok("setBreakpointAtVirtualAddress", address=self.address(function))
        self.resume()

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

    def rest(self):
        """The events that have arrived and were not taken."""
        while not self.events.empty():
            yield self.next_event()

    def end(self):
        """Deletes the process, if there is one, and ends the helper, which must leave nothing."""
        if self.ask("hasProcess") == OK:
            self.ok("deleteProcess")
        expect(self.close(), 0, "end status")
        eventually(lambda: not descendants(self.pid), "its processes end")
