"""What sessions and Python tests share: a host whose every message is checked, programs, other processes.

LLDB_HELPER_TESTS names a JSON file that the build writes: where the helper, the inferiors and the rest are.
"""

import ctypes
import collections
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import jsonschema

with open(os.environ["LLDB_HELPER_TESTS"]) as file:
    settings = json.load(file)
sys.path.insert(0, os.path.join(settings["source"], "examples"))
from host import Helper  # noqa: E402

DEADLINE = 60  # seconds, for whatever is awaited
OK = {"status": "ok"}
ARM = os.uname().machine == "aarch64"
PC, PLAIN, VECTOR = ("pc", "x19", "v0") if ARM else ("rip", "rbx", "xmm0")
PR_SET_PDEATHSIG, PR_SET_SUBREAPER, PR_SET_PTRACER = 1, 36, 0x59616D61
libc = ctypes.CDLL(None, use_errno=True)

with open(os.path.join(settings["source"], "docs", "protocol.schema.json")) as file:
    SCHEMA = json.load(file)


class Failure(AssertionError):
    pass


class NotTested(Exception):
    """This machine lacks something. ctest shows the reason and counts the test as skipped."""


def expect(came, wanted, what=""):
    if came != wanted:
        shown = [text if len(text := repr(value)) < 1500 else f"{text[:700]} … {text[-700:]}" for value in (wanted, came)]
        raise Failure(f"{what}\n  - {shown[0]}\n  + {shown[1]}")


def check(holds, what):
    if not holds:
        raise Failure(what)


def eventually(condition, what):
    """Returns what the condition returns, once that is true."""
    end = time.monotonic() + DEADLINE
    while not (value := condition()):
        check(time.monotonic() < end, f"awaited in vain: {what}")
        time.sleep(0.002)
    return value


def error(message):
    return {"message": message, "status": "error"}


# --- The protocol -------------------------------------------------------------------------------------

VALIDATOR = jsonschema.validators.validator_for(SCHEMA)
validators = {}


def validator(part):
    """For a part of the schema, "responses/ping" for example."""
    if part not in validators:
        validators[part] = VALIDATOR({"$defs": SCHEMA["$defs"], "$ref": f"#/$defs/{part}"})
    return validators[part]


class Conformance:
    """Checks each message of one conversation against docs/protocol.schema.json, a response by its request."""

    LONGEST = 4 << 20  # what is longer is counted, not read: it says nothing that a shorter one does not

    def __init__(self, checks_requests):
        self.checks_requests = checks_requests
        self.asked = collections.deque()
        self.known = set()  # floods repeat themselves

    def check(self, part, text, message):
        if (part, text) not in self.known:
            problem = jsonschema.exceptions.best_match(validator(part).iter_errors(message))
            check(problem is None, problem and f"not as the schema has {part}: {text[:500]!r}: {problem.message[:500]}")
            if len(text) < 1000:
                self.known.add((part, text))

    def sent(self, text):
        try:
            request = json.loads(text.split(b"\0")[0]) if len(text) < self.LONGEST else None
        except ValueError:
            request = None
        command = request.get("command") if isinstance(request, dict) else None
        is_known = isinstance(command, str) and command in SCHEMA["$defs"]["requests"]
        if self.checks_requests:
            check(is_known, f"no host should send {text[:500]!r}")
            self.check(f"requests/{command}", text, request)
        self.asked.append(f"responses/{command}" if is_known else "response")

    def received(self, text):
        message = json.loads(text.decode(errors="surrogateescape")) if len(text) < self.LONGEST else {}
        if message.get("status") == "event":
            return self.check(f"events/{message.get('type')}", text, message)
        check(self.asked, f"nobody asked for {text[:500]!r}")
        part = self.asked.popleft()
        if message and not validator("responses/*").is_valid(message):  # the loop's own words
            self.check(part, text, message)


# --- Processes ----------------------------------------------------------------------------------------


def die_with_parent():
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    libc.prctl(PR_SET_PTRACER, ctypes.c_ulong(-1))  # whoever is asked to may attach


def stat(pid):
    """Name, state letter and parent of a process; None when it is gone."""
    try:
        with open(f"/proc/{pid}/stat", errors="replace") as file:
            name, rest = re.fullmatch(r"\d+ \((.*)\) (.*)\n", file.read(), re.S).groups()
        return name, rest.split()[0], int(rest.split()[1])
    except OSError:
        return None


def descendants(ancestor, name=None):
    """The processes below one, itself left out, nearest first; only those of this name. No zombies."""
    parents = {int(pid): found for pid in os.listdir("/proc") if pid.isdigit() and (found := stat(pid))}
    family = [ancestor]
    for elder in family:
        family += [pid for pid, (_, _, parent) in parents.items() if parent == elder]
    return [pid for pid in family[1:] if parents[pid][1] != "Z" and name in (None, parents[pid][0])]


def status_figure(pid, name):
    """A number of /proc/PID/status; sizes are in KiB."""
    with open(f"/proc/{pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith(name + ":"))


class Program:
    """A program that a test starts itself, beside the helper. Ends with the test."""

    def __init__(self, *command, **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.DEVNULL, "preexec_fn": die_with_parent} | options
        self.child = subprocess.Popen(command, text=True, **options)
        self.pid = self.child.pid

    def line(self):
        return self.child.stdout.readline()

    def state(self):
        return stat(self.pid)[1]

    def end(self):
        self.child.kill()
        self.child.wait()


def free_port():
    """Tests that run at the same time look in places of their own, and none looks where the system takes ports from."""
    start = os.getpid() * 16 % 12000
    for port in range(20000 + start, 32000):
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                continue
    raise Failure("no port is free")


def server(*command):
    """Starts a debug server; "PORT" in its command line stands for the port that it listens on. Returns both."""
    port = free_port()
    program = Program(*(word.replace("PORT", str(port)) for word in command))

    def listens():
        # Connecting would use up the one connection that a debug server takes.
        for table in ("/proc/net/tcp", "/proc/net/tcp6"):
            with open(table) as lines:
                if any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == "0A" for line in lines):
                    return True
        check(program.child.poll() is None, f"{command[0]} has ended")
        return False

    eventually(listens, f"{command[0]} listens on port {port}")
    return program, port


# --- Programs to debug --------------------------------------------------------------------------------


def inferior(name):
    return os.path.join(settings["inferiors"], name)


def symbol(program, name):
    """The address of a symbol as the file has it."""
    table = subprocess.run(["nm", program], text=True, capture_output=True, check=True).stdout
    return next(int(line.split()[0], 16) for line in table.splitlines() if line.split()[-1] == name)


def mappings(pid):
    """(start, end, offset, file) of each mapping, as the kernel has it."""
    with open(f"/proc/{pid}/maps", errors="surrogateescape") as lines:
        for line in lines:
            span, _, offset, _, _, *file = line.rstrip("\n").split(None, 5)
            yield *(int(end, 16) for end in span.split("-")), int(offset, 16), file[0] if file else ""


def image_base(pid, path):
    return next(start - offset for start, _, offset, file in mappings(pid) if file == path)


def peek(pid, address, size):
    """Memory as the kernel has it."""
    with open(f"/proc/{pid}/mem", "rb", 0) as memory:
        memory.seek(address)
        return memory.read(size)


def shim(**variables):
    """The environment of a helper with tests/inferiors/shim.c in it."""
    # LD_PRELOAD separates names by spaces, so a folder must have none.
    library = shutil.copy(inferior("libshim.so"), tempfile.mkdtemp())
    sanitizers = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    return os.environ | variables | {"LD_PRELOAD": library, "ASAN_OPTIONS": sanitizers}


class Host(Helper):
    """A host that checks all that is said, and takes events in order: none is dropped."""

    def __init__(self, reads=True, checks_requests=True, prepare=None, **options):
        self.conformance = Conformance(checks_requests)
        self.history = []
        self.output = ""
        self.symbols = None  # the file that has the symbols, where the program has none
        self.reading = threading.Event()  # clear for a host that does not read
        if reads:
            self.reading.set()
        options["preexec_fn"] = lambda: (die_with_parent(), prepare and prepare())
        super().__init__(options.pop("program", settings["helper"]), **options)
        self.pid = self.child.pid

    def _read(self):
        self.reading.wait()
        try:
            super()._read()
            problem = Failure("the helper has closed its output")
        except Exception as found:
            problem = found
        self.events.put(problem)
        self.responses.put(problem)

    def receive(self):
        self.checked_text()
        self.reading.wait()
        return self.text

    def checked_text(self):
        self.text = super().receive()
        if self.text:
            self.conformance.received(self.text)
        return self.text

    def send(self, *texts):
        """Sends frames in one write."""
        for text in texts:
            self.conformance.sent(text)
        self.requests.write(b"".join(len(text).to_bytes(4, sys.byteorder) + text for text in texts))
        self.requests.flush()

    def taken(self, messages):
        try:
            message = messages.get(timeout=DEADLINE)
        except Exception:
            raise Failure("the helper says nothing") from None
        if isinstance(message, Exception):
            messages.put(message)
            raise message
        self.history.append(message)
        return message

    def response(self):
        return self.taken(self.responses)

    def next_event(self):
        return self.taken(self.events)

    def rest(self):
        """The events that nobody has taken, of a helper that has ended."""
        while not isinstance(event := self.events.get(timeout=DEADLINE), Exception):
            yield event

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
        """Asks, wants ok, and returns the other members."""
        response = self.ask(command, **arguments)
        expect(response.pop("status"), "ok", f"{command} {arguments} {response}")
        return response

    def state(self, name):
        """The next state event, which must be this one. Adds the output before it to `output`."""
        while (event := self.next_event())["type"] != "state":
            self.output += bytes.fromhex(event.get("output", "")).decode()
        expect(event["state_desc"], name, f"the next state, after the output {self.output[-200:]!r}")
        return event

    def await_output(self, end):
        while not self.output.endswith(end):
            event = self.next_event()
            check(event["type"] != "state", f"{event} before {end!r}, after {self.output[-200:]!r}")
            self.output += bytes.fromhex(event.get("output", "")).decode()

    def prepare(self, program, args="", **more):
        self.program = program if "/" in program else inferior(program)
        self.ok("prepareExecutable", path=self.program, args=args, triple="", **more)

    def launch(self, program, args="", **more):
        """To the stop at the entry."""
        self.output = ""
        self.prepare(program, args, **more)
        self.ok("createProcess")
        self.state("eStateStopped")

    def resume_only(self, how="continueExecution"):
        self.ok(how)
        self.state("eStateRunning")

    def resume(self, to="eStateStopped", how="continueExecution"):
        self.resume_only(how)
        return self.state(to)

    def run(self, *launch, **more):
        """From the launch to the deletion. Returns output and exit status."""
        self.launch(*launch, **more)
        status = self.resume("eStateExited")["exit_status"]
        self.ok("deleteProcess")
        return self.output, status

    def run_to(self, function):
        self.ok("setBreakpointAtVirtualAddress", address=self.address(function))
        self.resume()

    def inferior_pid(self):
        # A name in /proc has at most 15 bytes.
        return descendants(self.pid, os.path.basename(self.program)[:15])[0]

    def address(self, function):
        """Where the function is in the process."""
        fixed = symbol(self.symbols or self.program, function)
        with open(self.program, "rb") as file:
            is_fixed = file.read(17)[16] == 2  # ET_EXEC
        return fixed if is_fixed else fixed + image_base(self.inferior_pid(), self.program)

    def stack(self):
        return self.ok("getCallstack")["callstack"]

    def end(self):
        """Deletes the process, if there is one, and ends the helper, which must leave nothing."""
        if self.ask("hasProcess") == OK:
            self.ok("deleteProcess")
        expect(self.close(), 0, "end status")
        eventually(lambda: not descendants(self.pid), "its processes end")


def launched(program, args="", **options):
    """A host whose program stands at its entry."""
    host = Host(**options)
    host.launch(program, args)
    return host


def waiting():
    """A host whose program runs, and waits."""
    host = launched("wait")
    host.resume_only()
    host.await_output("ready\r\n")
    return host


def attached():
    """A program that waits, and a host, which has not attached to it yet."""
    program = Program(inferior("wait"))
    program.line()
    return program, Host()
