"""What tests learn from the machine, not from the helper: processes, programs, memory as the kernel shows it.

LLDB_HELPER_BUILD names the folder of the build (build/release), LLDB_HELPER another helper than the build's.
"""

import ctypes
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time


def read(path):
    with open(path, errors="surrogateescape") as file:
        return file.read()


SOURCE = os.path.abspath(f"{os.path.dirname(__file__)}/../..")
BUILD = os.path.abspath(os.environ.get("LLDB_HELPER_BUILD", f"{SOURCE}/build/release"))
CACHE = dict(re.findall(r"^(\w+):\w+=(.*)$", read(f"{BUILD}/CMakeCache.txt"), re.M))
SANITIZER = CACHE["LLDB_HELPER_SANITIZE"]
LLDB_VERSION = int(CACHE["TESTS_LLDB"])
HELPER = os.environ.get("LLDB_HELPER", f"{BUILD}/lldb-helper")
DEADLINE = 60  # seconds, for whatever is awaited
LINUX = sys.platform == "linux"

# Names of registers: of the place in the code, of a number that calls preserve, and of a vector.
if os.uname().machine in ("aarch64", "arm64"):
    PC, PLAIN, VECTOR = "pc", "x19", "v0"
else:
    PC, PLAIN, VECTOR = "rip", "rbx", "xmm0"

libc = ctypes.CDLL(None)


def inferior(name):
    """The path of a program of tests/inferiors."""
    return f"{BUILD}/tests/inferiors/{name}"


def sanitizer_options():
    """The environment variables that CMakePresets.json gives to tests of a build with these sanitizers."""
    presets = json.loads(read(f"{SOURCE}/CMakePresets.json"))
    names = [
        preset["name"]
        for preset in presets["configurePresets"]
        if SANITIZER and preset.get("cacheVariables", {}).get("LLDB_HELPER_SANITIZE") == SANITIZER
    ]
    options = {}
    for preset in presets["testPresets"]:
        if preset.get("configurePreset") in names:
            options |= preset.get("environment", {})
    return {name: value.replace("${sourceDir}", SOURCE) for name, value in options.items()}


def eventually(condition, what):
    """Returns what the condition returns, once that is true."""
    end = time.monotonic() + DEADLINE
    while not (value := condition()):
        assert time.monotonic() < end, f"awaited in vain: {what}"
        time.sleep(0.002)
    return value


def adopt_orphans():
    """What a dying helper leaves becomes this process's child, so that it can be ended."""
    if LINUX:
        pr_set_child_subreaper = 36
        libc.prctl(pr_set_child_subreaper, 1)


def kill_descendants():
    """Ends all processes that this one has started, and what those left behind."""
    while left := descendants(os.getpid()):
        for pid in left:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        time.sleep(0.002)


def die_with_parent():
    """Runs in a new process before its program. The program ends with this one, and anybody may debug it."""
    if not LINUX:
        return
    pr_set_pdeathsig, pr_set_ptracer, anybody = 1, 0x59616D61, ctypes.c_ulong(-1)
    libc.prctl(pr_set_pdeathsig, signal.SIGKILL)
    libc.prctl(pr_set_ptracer, anybody)


def stat(pid):
    """Name, state letter and parent of a process. A process that is gone has the state "X" and the parent 0."""
    try:
        name, state, parent = re.match(
            r"\d+ \((.*)\) (\w) (\d+)", read(f"/proc/{pid}/stat"), re.S
        ).groups()
        return name, state, int(parent)
    except OSError:
        return "", "X", 0


def is_gone(pid):
    return stat(pid)[1] in "XZ"


def descendants(ancestor, name=None):
    """The descendants of a process, nearest first, only those with this name. No zombies."""
    everybody = {int(pid): stat(pid) for pid in os.listdir("/proc") if pid.isdigit()}
    family = [ancestor]
    for elder in family:
        family += [pid for pid, (_, _, parent) in everybody.items() if parent == elder]
    return [
        pid
        for pid in family[1:]
        if everybody[pid][1] not in "XZ" and name in (None, everybody[pid][0])
    ]


def status_figure(pid, name):
    """A number of /proc/PID/status; sizes are in KiB."""
    return int(re.search(rf"^{name}:\s*(\d+)", read(f"/proc/{pid}/status"), re.M)[1])


class Program(subprocess.Popen):
    """A program that a test starts beside the helper, and that prints a line when it is ready. It ends with the test."""

    def __init__(self, *command, speaks=True):
        super().__init__(
            command,
            text=True,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            preexec_fn=die_with_parent,
        )
        if speaks:
            self.stdout.readline()


def free_port():
    """Tests that run at the same time search different ranges, and none searches the system's own range."""
    for port in range(20000 + os.getpid() * 16 % 12000, 32768):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) != 0:
                return port
    raise AssertionError("no port is free")


def server(*command):
    """Starts a debug server; "PORT" in its command line stands for the port that it listens on. Returns both."""
    port = free_port()
    program = Program(*(word.replace("PORT", str(port)) for word in command), speaks=False)
    # Connecting would use up the one connection that a debug server takes.
    listening = re.compile(rf":{port:04X} [0:]+ 0A ")
    eventually(
        lambda: listening.search(read("/proc/net/tcp") + read("/proc/net/tcp6")),
        f"{command[0]} listens on port {port}",
    )
    return program, port


def symbol(program, name):
    """The address of a symbol as the file has it."""
    table = subprocess.run(["nm", program], text=True, capture_output=True, check=True).stdout
    return int(re.search(rf"^(\w+) \w {name}$", table, re.M)[1], 16)


def mappings(pid):
    """(start, end, offset, file) of each mapping of a file, as the kernel shows it."""
    for line in re.findall(
        r"^(\w+)-(\w+) \S+ (\w+) \S+ \d+ +(/.*)$", read(f"/proc/{pid}/maps"), re.M
    ):
        yield *(int(number, 16) for number in line[:3]), line[3]


def image_base(pid, path):
    return next(start - offset for start, _, offset, file in mappings(pid) if file == path)


def peek(pid, address, size):
    """Memory as the kernel shows it."""
    with open(f"/proc/{pid}/mem", "rb", 0) as memory:
        memory.seek(address)
        return memory.read(size)


def script(line):
    """Returns an executable file with this shell script."""
    path = f"{tempfile.mkdtemp()}/script"
    with open(
        path, "w", errors="surrogateescape", opener=lambda name, flags: os.open(name, flags, 0o755)
    ) as file:
        file.write(f"#!/bin/sh\n{line}\n")
    return path


def preload(library, name, **variables):
    """An environment that loads this library, under this name, into every program."""
    # LD_PRELOAD separates names by spaces, so a folder must have none.
    copy = shutil.copy(inferior(library), f"{tempfile.mkdtemp()}/{name}")
    sanitizers = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    return os.environ | variables | {"LD_PRELOAD": copy, "ASAN_OPTIONS": sanitizers}


def shim(**variables):
    """An environment for a helper with tests/shim/shim.cpp."""
    return preload("libshim.so", "shim.so", **variables)
