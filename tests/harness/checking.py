"""Host: an example host that checks every message against docs/protocol.schema.json.

pytest shows the messages of a test that fails: they are logged.
"""

import collections
import contextlib
import functools
import json
import logging
import os
import queue
import struct
import sys

import jsonschema

from harness.machine import DEADLINE, HELPER, SOURCE, descendants, die_with_parent, eventually
from harness.machine import inferior, read, symbol

sys.path.insert(0, f"{SOURCE}/examples")
from host import Helper  # noqa: E402

OK = {"status": "ok"}
NOWHERE = 2**64 - 1  # LLDB's invalid address
SCHEMA_TEXT = read(f"{SOURCE}/docs/protocol.schema.json")
SCHEMA = json.loads(SCHEMA_TEXT)
# A setting of LLDB's: all registers are read by one packet.
AT_ONCE = "plugin.process.gdb-remote.use-g-packet-for-reading"
# In bytes. A longer message is counted, not checked: shorter ones have the same form.
LONGEST = 1 << 18


def error(message):
    return {"message": message, "status": "error"}


def frame(text):
    """The bytes of a message on the wire."""
    return struct.pack("=I", len(text)) + text


def closed(part):
    """A part of the schema whose objects have no other members than those listed.

    Hosts ignore members that they do not know. This version sends none.
    """
    is_object = part.get("type") == "object" and "properties" in part
    return {"additionalProperties": False} | part if is_object else part


CLOSED_PARTS = json.loads(SCHEMA_TEXT, object_hook=closed)["$defs"]


@functools.cache
def validator(part):
    """For a part of the schema, "responses/ping" for example."""
    root = {"$defs": CLOSED_PARTS, "$ref": f"#/$defs/{part}"}
    return jsonschema.validators.validator_for(SCHEMA)(root)


@functools.lru_cache(256)  # floods repeat themselves
def conform(part, text):
    """Fails if a text is not as this part of the schema says."""
    problem = jsonschema.exceptions.best_match(validator(part).iter_errors(json.loads(text)))
    reason = problem and problem.message[:500]
    assert problem is None, f"not as the schema has {part}: {text[:500]!r}: {reason}"


def log(sign, text):
    logging.getLogger("messages").debug("%s %s", sign, text[:500].decode(errors="backslashreplace"))


class Host(Helper):
    """Checks requests, responses (each by its request) and events, and drops no event.

    A failed check in the reading thread is raised where the test waits for a message.
    """

    TIMEOUT = DEADLINE

    def __init__(
        self,
        program=HELPER,
        checks_requests=True,
        prepare=lambda: None,
        on_text=lambda text: None,
        **options,
    ):
        """`prepare` runs in the child before the helper.

        `on_text` gets each message's text; the host reads no further until it returns. Without
        `checks_requests` a test may send what no host should.
        """
        self.checks_requests = checks_requests
        self.asked = collections.deque()  # the parts of the schema for the responses to come
        self.history = []  # the events that were taken
        self.output = ""  # of the program, as far as events were taken
        self.symbols = None  # the file that has the symbols, where the program has none
        self.on_text = on_text

        def check(message):
            text = message.decode(errors="surrogateescape")
            log("<-", message)
            self.on_text(text)
            self._check_message(text)

        def in_child():
            die_with_parent()
            prepare()

        super().__init__(program, on_message=check, preexec_fn=in_child, **options)
        self.pid = self.child.pid

    def _check_message(self, text):
        message = json.loads(text) if len(text) < LONGEST else {}
        if message.get("status") == "event":
            conform(f"events/{message.get('type')}", text)
            return
        assert self.asked, f"nobody asked for {text[:500]!r}"
        part = self.asked.popleft()
        # Every request may get one of the request loop's own answers.
        if message and not validator("responses/*").is_valid(message):
            conform(part, text)

    def _expect_answer_to(self, text):
        """Checks a request, and notes how its response must look."""
        log("->", text)
        command = None
        with contextlib.suppress(ValueError, TypeError, KeyError):
            command = json.loads(text.split(b"\0")[0])["command"]
        is_known = isinstance(command, str) and command in SCHEMA["$defs"]["requests"]
        if self.checks_requests:
            assert is_known, f"no host should send {text[:500]!r}"
            conform(f"requests/{command}", text.decode(errors="surrogateescape"))
        self.asked.append(f"responses/{command}" if is_known else "response")

    def send(self, *texts):
        """Sends a frame for each text, all in one write."""
        for text in texts:
            self._expect_answer_to(text)
        super().send(*texts)

    def response(self):
        try:
            return super().response()
        except queue.Empty:
            raise AssertionError("the helper does not answer") from None

    def next_event(self):
        """Adds output to `output`."""
        try:
            event = super().next_event()
        except queue.Empty:
            raise AssertionError("no event comes") from None
        self.history.append(event)
        self.output += bytes.fromhex(event.get("output", "")).decode()
        return event

    # Requests.

    def ask_all(self, *requests):
        """Sends requests without ids in one write, and returns their responses.

        A request is an object, or just the name of a command without arguments.
        """
        objects = [{"command": asked} if isinstance(asked, str) else asked for asked in requests]
        self.send(*(json.dumps(request).encode() for request in objects))
        return [self.response() for _ in requests]

    def ask(self, command, **arguments):
        """Sends a request with an id, which its response must have. Returns the other members."""
        request = {"command": command, "id": self.next_id} | arguments
        response = self.ask_all(request)[0]
        assert response.pop("id", None) == self.next_id, (request, response)
        self.next_id += 1
        return response

    def ok(self, command, **arguments):
        """Sends a request whose response must be ok. Returns its members without the status."""
        response = self.ask(command, **arguments)
        assert response.pop("status") == "ok", (command, arguments, response)
        return response

    def cli(self, line):
        """Runs a line of LLDB's command line, which must succeed. Returns its output."""
        answer = self.ok("executeCommand", cli=line)
        assert answer["succeeded"], (line, answer)
        return answer.get("output", "")

    # Events.

    def state(self, name):
        """Takes the next state event, which must be this one."""
        while (event := self.next_event())["type"] != "state":
            pass
        assert event["state_desc"] == name
        return event

    def await_output(self, end):
        """Takes events until the program's output ends so. No state may come before that."""
        while not self.output.endswith(end):
            event = self.next_event()
            assert event["type"] != "state", f"{event} before {end!r}"

    def rest(self):
        """The events that have arrived and were not taken."""
        while not self.events.empty():
            yield self.next_event()

    # Sessions.

    def prepare(self, program, args="", **more):
        """Names the next program: one of tests/inferiors, or a path."""
        self.program = program if "/" in program else inferior(program)
        self.ok("prepareExecutable", path=self.program, args=args, triple="", **more)

    def launch(self, program, args="", **more):
        """Launches a program, to the stop at its entry."""
        self.output = ""
        self.prepare(program, args, **more)
        self.ok("createProcess")
        self.state("eStateStopped")
        return self

    def resume_only(self, how="continueExecution"):
        self.ok(how)
        self.state("eStateRunning")

    def resume(self, to="eStateStopped", how="continueExecution"):
        """Resumes the program and waits for the next state, which it returns."""
        self.resume_only(how)
        return self.state(to)

    def launch_flood(self, lines):
        """Launches a program that writes numbered lines of 7 digits. Returns what will arrive."""
        self.launch("lines", str(lines))
        first = 1000000
        return "".join(f"{number}\r\n" for number in range(first, first + lines))

    def start_waiting(self, program="wait"):
        """Runs a program until it waits."""
        self.launch(program)
        self.resume_only()
        self.await_output("ready\r\n")

    def run_session(self, program):
        """Runs a program from the launch to the deletion. Returns its output and exit status."""
        self.launch(program)
        status = self.resume("eStateExited")["exit_status"]
        self.ok("deleteProcess")
        return self.output, status

    def run_to(self, function):
        """Continues to a breakpoint at a function."""
        self.ok("setBreakpointAtVirtualAddress", address=self.address(function))
        self.resume()

    def read_registers_plainly(self):
        """Has each register read by a packet and as a value of its own, as LLDB does by default."""
        self.ok("executeCommand", cli=f"settings set {AT_ONCE} false")
        self.cli("type format add -f hex unused_type")

    # What is known of the program.

    def inferior_pid(self):
        return descendants(self.pid, os.path.basename(self.program))[0]

    def slide(self):
        """By how much the program lies above its addresses in the file, as the helper reports it."""
        sections = self.ok("moduleForFile", file=self.program)["module"]["sections"]
        loaded = next(section for section in sections if section["loadAddr"] != NOWHERE)
        return loaded["loadAddr"] - loaded["fileAddr"]

    def address(self, function):
        """Where a function of the program is in the process."""
        return symbol(self.symbols or self.program, function) + self.slide()

    def stack(self):
        return self.ok("getCallstack")["callstack"]

    def registers(self):
        return self.ok("getRegisters")["registers"]

    def end(self):
        """Deletes the process, if there is one, and ends the helper, which must leave nothing."""
        if self.ask("hasProcess") == OK:
            self.ok("deleteProcess")
        assert self.close() == 0
        eventually(lambda: not descendants(self.pid), "its processes end")
