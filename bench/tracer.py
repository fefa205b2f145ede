"""Times the inner loop of a tracer: a step, then the program counter or the general registers, a thousand
times. script/bench --tracer calls it, with LLDB_DEBUGSERVER_PATH set for LLDB's module:

tracer.py HELPER TARGET LLDB-PYTHON GDB     prints a table: the medians of five rounds

For x86-64. Each way is the script that a user of that debugger would write, in Python. lldb-helper's script runs beside
it, the others within their debugger. LLDB-PYTHON is the folder of LLDB's module.
"""

import json
import os
import statistics
import struct
import subprocess
import sys
import time
from functools import partial

STEPS, ROUNDS = 1000, 5
GDB_WAY = "gdb's Python"
GENERAL = "rax rbx rcx rdx rdi rsi rbp rsp r8 r9 r10 r11 r12 r13 r14 r15 rip rflags".split()

GDB = """
import gdb, time
gdb.execute("set confirm off")
gdb.execute("break ready")
gdb.execute("run work")
names = {names}
start = time.monotonic()
for _ in range({steps}):
    gdb.execute("stepi", to_string=True)
    frame = gdb.selected_frame()
    values = [int(frame.read_register(name.replace("rflags", "eflags"))) for name in names]
print("seconds", time.monotonic() - start)
"""

LLDB = """
import lldb, time
debugger = lldb.SBDebugger.Create()
debugger.SetAsync(False)
target = debugger.CreateTarget("{target}")
target.BreakpointCreateByName("ready")
process = target.LaunchSimple(["work"], None, ".")
assert process.IsValid()
names = {names}
start = time.monotonic()
for _ in range({steps}):
    thread = process.GetSelectedThread()
    thread.StepInstruction(False)
    frame = thread.GetFrameAtIndex(0)
    values = [frame.FindRegister(name).GetValueAsUnsigned() for name in names]
print("seconds", time.monotonic() - start)
process.Kill()
"""


class Helper:
    """A host with one thread, which waits for each message in turn."""

    def __init__(self, program, target):
        requests_out, self.requests = os.pipe()
        messages_out, messages_in = os.pipe()
        ends = (requests_out, messages_in)
        self.child = subprocess.Popen([program, *map(str, ends)], pass_fds=ends)
        for end in ends:
            os.close(end)
        self.messages = open(messages_out, "rb")
        self.stops = 0
        self.ask("prepareExecutable", path=target, args="work")
        self.ask("createProcess")
        self.await_stop()
        self.ask("executeCommand", cli="breakpoint set --name ready")
        self.ask("continueExecution")
        self.await_stop()

    def send(self, *requests):
        texts = [json.dumps(request).encode() for request in requests]
        frames = [struct.pack("=I", len(text)) + text for text in texts]
        os.write(self.requests, b"".join(frames))

    def receive(self):
        (length,) = struct.unpack("=I", self.messages.read(4))
        return json.loads(self.messages.read(length))

    def response(self):
        while (message := self.receive())["status"] == "event":
            self.stops += message.get("state_desc") == "eStateStopped"
        assert message["status"] == "ok", message
        return message

    def ask(self, command, **arguments):
        self.send({"command": command, **arguments})
        return self.response()

    def await_stop(self):
        """A stop may arrive before the response to the request that caused it."""
        while self.stops == 0:
            self.stops += self.receive().get("state_desc") == "eStateStopped"
        self.stops -= 1

    def step(self):
        self.ask("stepInstruction")
        self.await_stop()

    def close(self):
        self.ask("deleteProcess")
        os.close(self.requests)
        self.child.wait()


def general_registers(response):
    return [int(response["registers"][name], 16) for name in GENERAL]


def all_registers(helper):
    return general_registers(helper.ask("getRegisters"))


def call_stack(helper):
    return helper.ask("getCallstack")["callstack"][0]["pc"]


def register_read(helper, names):
    line = "register read " + " ".join(names)
    output = helper.ask("executeCommand", cli=line)["output"]
    return [int(text.split()[2], 16) for text in output.splitlines()]


def nothing(_helper):
    pass


def time_helper(program, target, read):
    helper = Helper(program, target)
    start = time.monotonic()
    for _ in range(STEPS):
        helper.step()
        read(helper)
    seconds = time.monotonic() - start
    helper.close()
    return seconds


def time_read_and_step(program, target):
    """Sends the request for the registers and that for the next step in one write."""
    helper = Helper(program, target)
    start = time.monotonic()
    helper.step()
    for _ in range(STEPS):
        helper.send({"command": "getRegisters"}, {"command": "stepInstruction"})
        general_registers(helper.response())
        helper.response()
        helper.await_stop()
    seconds = time.monotonic() - start
    helper.close()
    return seconds


def seconds_printed(command, **options):
    output = subprocess.run(
        command, stdout=subprocess.PIPE, text=True, check=True, **options
    ).stdout
    (line,) = [line for line in output.splitlines() if line.startswith("seconds ")]
    return float(line.split()[1])


def time_gdb(gdb, target, names):
    script = GDB.format(names=names, steps=STEPS)
    command = [gdb, "-nx", "-q", "-batch", "-ex", f"python exec({script!r})", target]
    return seconds_printed(command)


def time_lldb(folder, target, names):
    script = LLDB.format(target=target, names=names, steps=STEPS)
    # LLDB's packages are built for the system's Python.
    environment = {**os.environ, "PYTHONPATH": folder}
    return seconds_printed(["/usr/bin/python3", "-c", script], env=environment)


def main(program, target, lldb_python, gdb):
    ways = []
    for job, names in (("step", []), ("step, pc", ["rip"]), ("step, registers", GENERAL)):
        ways += [
            (job, "LLDB's Python", partial(time_lldb, lldb_python, target, names)),
            (job, GDB_WAY, partial(time_gdb, gdb, target, names)),
        ]
    for job, way, read in (
        ("step", "stepInstruction", nothing),
        ("step, pc", "getRegisters", all_registers),
        ("step, pc", "getCallstack", call_stack),
        ("step, pc", "register read", partial(register_read, names=["rip"])),
        ("step, registers", "getRegisters", all_registers),
        ("step, registers", "register read", partial(register_read, names=GENERAL)),
    ):
        ways.append((job, f"lldb-helper, {way}", partial(time_helper, program, target, read)))
    together = partial(time_read_and_step, program, target)
    ways.append(
        ("step, registers", "lldb-helper, getRegisters and the next step together", together)
    )
    tables = []
    all_processors = os.sched_getaffinity(0)
    for processors in ({min(all_processors)}, all_processors):
        os.sched_setaffinity(0, processors)  # of this process and those that it starts
        seconds = {way[:2]: [] for way in ways}
        for _ in range(ROUNDS):
            for job, way, measure in ways:
                seconds[job, way].append(measure())
        tables.append({way: statistics.median(samples) for way, samples in seconds.items()})
    print("| job | way | one processor | gdb = 1 | all processors | gdb = 1 |\n" + "|---" * 6 + "|")
    for job, way, _ in sorted(ways, key=lambda way: way[0]):
        cells = [job, way]
        for medians in tables:
            took = medians[job, way]
            cells += [f"{took * 1000:.0f} ms", f"{took / medians[job, GDB_WAY]:.2f}"]
        print("| " + " | ".join(cells) + " |")


if __name__ == "__main__":
    main(*sys.argv[1:])
