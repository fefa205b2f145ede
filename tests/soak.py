"""Thousands of sessions in one lldb-helper, in random order, against a model of what must come.

Usage: soak.py HELPER INFERIORS SECONDS [SEED]; see script/soak.

Every response is compared with the model's, every state event must come in its order, a program's
output must be whole, and nothing may be left at the end: no process, thread, descriptor or file.
"""

import collections
import os
import queue
import random
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "examples"))
from host import Helper  # noqa: E402

# What LLDB keeps of a session that is over, with a margin: most of it in the first hundred sessions, so
# that short runs show more a session than long ones. See docs/reliability.md.
GROWTH_ALLOWED = 160 * 1024  # bytes a session
WARM_UP = 40  # sessions, before anything is counted

OK = {"status": "ok"}


def error(message):
    return {"status": "error", "message": message}


class Wrong(Exception):
    pass


def expect(found, wanted, what):
    if found != wanted:
        shown, expected = (text if len(text := repr(value)) < 300 else f"{text[:100]} … {text[-190:]}"
                           for value in (found, wanted))
        raise Wrong(f"{what}: {shown}, not {expected}")


def symbols(program):
    lines = subprocess.run(["nm", program], text=True, capture_output=True, check=True).stdout.splitlines()
    return {words[2]: int(words[0], 16) for words in map(str.split, lines) if len(words) == 3}


def children(pid):
    """Whoever the helper has started: debug servers, and through them the programs."""
    found = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/stat") as file:
                fields = file.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if int(fields[1]) == pid:
            found += [int(entry)] + children(int(entry))
    return found


class Session:
    """One program from its launch to its deletion, and what the model knows of it."""

    def __init__(self, helper, dice, folder):
        self.helper, self.dice, self.folder = helper, dice, folder
        self.output = ""

    def ask(self, wanted, command, **arguments):
        """Asks and compares: with the whole answer, or where `wanted` is None only that it is ok."""
        response = self.helper.ask(command, **arguments)
        del response["id"]
        if wanted is None:
            expect(response["status"], "ok", f"{command}: {response}")
        else:
            expect(response, wanted, command)
        return response

    def await_state(self, name):
        """The next state event must be this one. Output on the way is kept."""
        while True:
            event = self.helper.next_event()
            if event["type"] == "stdout":
                self.output += bytes.fromhex(event["output"]).decode()
            elif event["type"] == "state":
                expect(event["state_desc"], name, "state event")
                return event

    def await_output(self, text):
        while text not in self.output:
            event = self.helper.next_event()
            if event["type"] == "state":
                raise Wrong(f"{event} before the output {text!r}")
            if event["type"] == "stdout":
                self.output += bytes.fromhex(event["output"]).decode()

    def launch(self, name, arguments=""):
        self.ask(OK, "prepareExecutable", path=os.path.join(self.folder, name), args=arguments,
                 triple="", cwd=self.dice.choice(["", "/"]), env=self.dice.choice(["", "A=1 B=2"]),
                 is64Bits=True)
        self.ask(error("no process"), "hasProcess")
        self.ask(OK, "createProcess")
        self.await_state("eStateStopped")
        self.pid = self.ask(None, "getThreadIDList")["threads"][0]["thread-id"]

    def resume(self, next_state):
        self.ask(OK, "continueExecution")
        self.await_state("eStateRunning")
        return self.await_state(next_state)

    def end_stopped(self):
        """The ways to end a stopped program before its time."""
        way = self.dice.choice(["delete", "kill", "detach"])
        if way == "kill":
            self.ask(OK, "stopExecution")
            self.await_state("eStateExited")
        elif way == "detach":
            self.ask(OK, "detach")
            self.await_state("eStateDetached")
        self.delete()
        if way == "detach":
            try:
                os.kill(self.pid, 9)
            except ProcessLookupError:
                pass  # it has come to its own end

    def delete(self):
        self.ask(OK, "deleteProcess")
        for command in ("hasProcess", "getRegisters", "continueExecution"):
            wanted = "no target" if command == "continueExecution" else "no process"
            self.ask(error(wanted), command)
        # Answers come behind all events that were sent before them.
        while not self.helper.events.empty():
            event = self.helper.events.get()
            if event["type"] == "state":
                raise Wrong(f"{event} after the deletion")

    # The kinds of sessions.

    def to_the_end(self):
        self.launch("hello")
        expect(self.resume("eStateExited")["exit_status"], 3, "exit status")
        expect(self.output.replace("\r", ""), "hello\nworld\n", "output")
        self.delete()

    def flood(self):
        lines = self.dice.choice([1, 100, 4000])
        self.launch("flood", str(8 * lines))
        expect(self.resume("eStateExited")["exit_status"], 0, "exit status")
        expect(self.output, "".join(f"{line:07}\r\n" for line in range(lines)), "output")
        self.delete()

    def running(self):
        self.launch("wait")
        self.ask(OK, "continueExecution")
        self.await_state("eStateRunning")
        self.await_output("ready\r\n")
        for _ in range(self.dice.randrange(3)):
            self.ask(OK, "breakExecution")
            self.await_state("eStateStopped")
            self.look_around()
            self.ask(OK, "continueExecution")
            self.await_state("eStateRunning")
        if self.dice.random() < 0.5:
            self.ask(OK, "stopExecution")
            self.await_state("eStateExited")
        self.delete()

    def breakpoints(self):
        """leaf() is called twice a round with the round's number, which it adds to `counted`."""
        where = symbols(os.path.join(self.folder, "steps-fixed"))
        self.launch("steps-fixed")
        number = self.ask(None, "setBreakpointAtVirtualAddress", address=where["leaf"])["bkpt_id"]
        last_hit = self.dice.randrange(12)
        for hit in range(10):
            self.resume("eStateStopped")
            registers = self.ask(None, "getRegisters")["registers"]
            expect(int(registers["rip"], 16), where["leaf"], f"rip at hit {hit}")
            memory = self.ask(None, "readMemory", address=where["counted"], length=4)["memory"]
            counted = sum(call // 2 for call in range(hit))
            expect(int.from_bytes(bytes(memory), "little"), counted, f"counted at hit {hit}")
            expect(self.ask(None, "getCallstack")["callstack"][0]["function"], "leaf", "function")
            for _ in range(self.dice.randrange(3)):
                self.ask(OK, self.dice.choice(["stepInstruction", "stepOver"]))
                self.await_state("eStateRunning")
                self.await_state("eStateStopped")
            self.look_around()
            if hit == last_hit:
                return self.end_stopped()
        if self.dice.random() < 0.5:
            self.ask(OK, "removeBreakpoint", bkpt_id=number)
        expect(self.resume("eStateExited")["exit_status"], 0, "exit status")
        expect(self.output, "counted 20\r\n", "output")
        self.delete()

    def look_around(self):
        """Questions that change nothing, and mistakes that must not."""
        for _ in range(self.dice.randrange(4)):
            self.dice.choice([
                lambda: self.ask(OK, "ping"),
                lambda: self.ask(OK, "hasProcess"),
                lambda: self.ask({"status": "ok", "state": 5, "state-string": "eStateStopped"}, "getProcessState"),
                lambda: self.ask(error("process already exists"), "createProcess"),
                lambda: self.ask(error("unknown command 'nonsense'"), "nonsense"),
                lambda: self.ask(error("index out of range"), "moduleAtIndex", index=100000),
                lambda: self.ask(None, "moduleAtIndex", index=0),
                lambda: self.ask(error("register not found"), "setRegister", register="none", value="1"),
                lambda: self.ask(error("unable to read memory"), "readMemory", address=1, length=4),
                lambda: self.ask(None, "executeCommand", cli="thread list"),
                lambda: self.ask(OK, "selectFrame", index=0),
            ])()


class Resources:
    """What the helper holds."""

    def __init__(self, pid):
        self.pid = pid
        self.threads = len(os.listdir(f"/proc/{pid}/task"))
        self.descriptors = len(os.listdir(f"/proc/{pid}/fd"))
        self.children = children(pid)
        self.files = set(os.listdir(os.environ["TMPDIR"]))
        with open(f"/proc/{pid}/status") as file:
            self.memory = next(int(line.split()[1]) * 1024 for line in file if line.startswith("VmRSS"))

    def settled(self):
        """LLDB's threads and servers of a session that is over take a moment to end."""
        deadline = time.monotonic() + 10
        while (now := Resources(self.pid)).more_than(self) and time.monotonic() < deadline:
            time.sleep(0.05)
        return now

    def more_than(self, start):
        return [f"{name}: {len(mine)} at the end" if isinstance(mine, (list, set)) else f"{name}: {before}, then {mine}"
                for name, before, mine in (("threads", start.threads, self.threads),
                                           ("descriptors", start.descriptors, self.descriptors),
                                           ("children", 0, len(self.children)),
                                           ("files", 0, len(self.files - start.files)))
                if mine > before]


def soak(helper, folder, seconds, dice):
    kinds = [Session.to_the_end, Session.flood, Session.running, Session.breakpoints, Session.breakpoints]
    done, start, count = collections.Counter(), None, 0
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline or count <= 2 * WARM_UP:
        if count == WARM_UP:
            start = Resources(helper.child.pid)
        kind = dice.choice(kinds)
        try:
            kind(Session(helper, dice, folder))
        except (Wrong, AssertionError, queue.Empty) as problem:
            raise Wrong(f"session {count}, {kind.__name__}: {problem!r}") from problem
        done[kind.__name__] += 1
        count += 1
    end = start.settled()
    growth = (end.memory - start.memory) / (count - WARM_UP)
    print(f"{count} sessions ({', '.join(f'{number} {name}' for name, number in sorted(done.items()))}), "
          f"{helper.next_id - 1} requests, {growth / 1024:.1f} KiB a session")
    if left := end.more_than(start):
        raise Wrong("left behind: " + ", ".join(left))
    if growth > GROWTH_ALLOWED:
        raise Wrong(f"more than {GROWTH_ALLOWED // 1024} KiB a session")
    status = helper.close()
    expect((status, helper.responses.empty()), (0, True), "end status, and no response too many")


def main(program, folder, seconds, seed=None):
    seed = seed or str(random.SystemRandom().randrange(10**9))
    print(f"seed {seed}", flush=True)
    with tempfile.TemporaryDirectory() as own:
        os.environ["TMPDIR"] = own  # what is left there is nobody else's
        helper = Helper(program)
        try:
            soak(helper, folder, float(seconds), random.Random(seed))
        except Wrong as wrong:
            sys.exit(f"soak: {wrong}\nseed {seed}")
        finally:
            for child in children(helper.child.pid):
                os.kill(child, 9)
            helper.child.kill()
    print("nothing was lost, nothing is left")


if __name__ == "__main__":
    main(*sys.argv[1:])
