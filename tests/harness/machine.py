"""What tests learn from the machine, not from the helper.

LLDB_HELPER_BUILD names the folder of the build (build/release if it is not set). LLDB_HELPER names
another helper than the build's.
"""

import ctypes
import functools
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SOURCE = str(Path(__file__).resolve().parents[2])
BUILD = os.path.abspath(os.environ.get("LLDB_HELPER_BUILD", f"{SOURCE}/build/release"))
DEADLINE = 60  # seconds, for whatever is awaited
IS_LINUX = sys.platform == "linux"
IS_ARM = os.uname().machine in ("aarch64", "arm64")
# The program counter, a register that calls preserve, and a vector register, as LLDB names them.
PC, PLAIN, VECTOR = ("pc", "x19", "v0") if IS_ARM else ("rip", "rbx", "xmm0")


def read(path):
    with open(path, errors="surrogateescape") as file:
        return file.read()


def read_cache():
    """The variables of the build's CMakeCache.txt."""
    try:
        return dict(re.findall(r"^(\w+):\w+=(.*)$", read(f"{BUILD}/CMakeCache.txt"), re.M))
    except FileNotFoundError:
        sys.exit(f"{BUILD} is no build; script/build --tests makes build/release")


CACHE = read_cache()
SANITIZER = CACHE["LLDB_HELPER_SANITIZE"]  # "", "address,undefined" or "thread"
LLDB_MAJOR = int(CACHE["TESTS_LLDB"])
LLDB_SERVER = CACHE["LLDB_SERVER"]  # empty on macOS
HELPER = os.environ.get("LLDB_HELPER", f"{BUILD}/lldb-helper")


def inferior(name):
    """The path of one of the programs in tests/inferiors."""
    return f"{BUILD}/tests/inferiors/{name}"


# --- Portability. A test without the mark "linux" must run on macOS too. ---------------------------

_may_need_linux = True  # outside of tests, and in tests with the mark


def set_portable(is_portable):
    """Called before and after each test: whether it claims to run on every system."""
    global _may_need_linux
    _may_need_linux = not is_portable


def only_on_linux(function):
    """Marks a function of the harness that only a test with the mark "linux" may call."""

    @functools.wraps(function)
    def checked(*arguments, **options):
        assert _may_need_linux, f"{function.__name__} needs Linux: mark the test with 'linux'"
        return function(*arguments, **options)

    return checked


def _calls_from_the_harness():
    """Whether the nearest function that is not Python's own belongs to tests/harness."""
    frame = sys._getframe(2)
    while frame and not frame.f_code.co_filename.startswith(SOURCE):
        frame = frame.f_back
    return frame is None or "/tests/harness/" in frame.f_code.co_filename


def _watch(event, arguments):
    if _may_need_linux or event not in ("open", "os.listdir", "os.scandir"):
        return
    path = os.fsdecode(arguments[0]) if isinstance(arguments[0], (str, bytes)) else ""
    if path.startswith("/proc") and not _calls_from_the_harness():
        raise AssertionError(f"{path} is Linux's: mark the test with 'linux'")


def watch_portability():
    """From here on a test without the mark fails when it looks into /proc."""
    sys.addaudithook(_watch)


# --- Processes. ------------------------------------------------------------------------------------

libc = ctypes.CDLL(None)


def become_subreaper():
    """What the helper leaves when it dies becomes a child of this process, so that it can be ended."""
    if IS_LINUX:
        pr_set_child_subreaper = 36
        libc.prctl(pr_set_child_subreaper, 1)


def die_with_parent():
    """For preexec_fn. On macOS isolation.py alone ends what a test leaves."""
    if IS_LINUX:
        pr_set_pdeathsig, pr_set_ptracer, anybody = 1, 0x59616D61, ctypes.c_ulong(-1)
        libc.prctl(pr_set_pdeathsig, signal.SIGKILL)
        libc.prctl(pr_set_ptracer, anybody)


def stat(pid):
    """Name, state letter and parent of a process. A process that is gone has the state "X"."""
    if not IS_LINUX:
        return everybody().get(int(pid), ("", "X", 0))
    try:
        text = read(f"/proc/{pid}/stat")
        name, state, parent = re.match(r"\d+ \((.*)\) (\w) (\d+)", text, re.S).groups()
        return name, state, int(parent)
    except OSError:
        return "", "X", 0


def everybody():
    """Name, state letter and parent of each process, by its id."""
    if IS_LINUX:
        return {int(pid): stat(pid) for pid in os.listdir("/proc") if pid.isdigit()}
    table = subprocess.run(
        ["ps", "-axo", "pid=,ppid=,state=,ucomm="], stdout=subprocess.PIPE, text=True, check=True
    )
    rows = [line.split(None, 3) for line in table.stdout.splitlines()]
    return {int(pid): (name, state[0], int(parent)) for pid, parent, state, name in rows}


def is_gone(pid):
    return stat(pid)[1] in "XZ"


def descendants(ancestor, name=None):
    """The living descendants of a process, nearest first; only those with this name."""
    processes = everybody()
    family = [ancestor]
    for elder in family:
        family += [pid for pid, (_, _, parent) in processes.items() if parent == elder]
    # The kernel cuts a name after 15 bytes.
    names = (None,) if name is None else (name, name[:15])
    return [
        pid
        for pid in family[1:]
        if processes[pid][1] not in "XZ" and (name is None or processes[pid][0] in names)
    ]


def eventually(condition, what):
    """Returns what the condition returns, once that is true."""
    end = time.monotonic() + DEADLINE
    while not (value := condition()):
        assert time.monotonic() < end, f"awaited in vain: {what}"
        time.sleep(0.002)
    return value


class Program(subprocess.Popen):
    """A program that a test starts beside the helper, and that prints a line when it is ready."""

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


def script(line):
    """Returns an executable file with this shell script."""
    path = f"{tempfile.mkdtemp()}/script"
    with open(path, "w", errors="surrogateescape") as file:
        file.write(f"#!/bin/sh\n{line}\n")
    os.chmod(path, 0o755)
    return path


# --- Servers. --------------------------------------------------------------------------------------


def free_port():
    """Tests that run at the same time search different ranges, and none the system's own range."""
    for port in range(20000 + os.getpid() * 16 % 12000, 32768):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) != 0:
                return port
    raise AssertionError("no port is free")


def is_listening(port):
    """Whether somebody listens there. Connecting would use up a debug server's one connection."""
    if not IS_LINUX:
        command = ["lsof", f"-iTCP:{port}", "-sTCP:LISTEN"]
        return subprocess.run(command, stdout=subprocess.DEVNULL).returncode == 0
    listening = re.compile(rf":{port:04X} [0:]+ 0A ")
    return listening.search(read("/proc/net/tcp") + read("/proc/net/tcp6"))


def server(*command):
    """Starts a debug server, and returns it and its port. "PORT" in its command line is the port."""
    port = free_port()
    words = [word.replace("PORT", str(port)) for word in command]
    program = Program(*words, speaks=False)
    eventually(lambda: is_listening(port), f"{command[0]} listens on port {port}")
    return program, port


# --- Programs and memory. --------------------------------------------------------------------------


def symbol(program, name):
    """The address of a symbol as the file has it. macOS puts an underscore before C's names."""
    nm = subprocess.run(["nm", program], text=True, stdout=subprocess.PIPE, check=True)
    return int(re.search(rf"^(\w+) \w _?{name}$", nm.stdout, re.M)[1], 16)


@only_on_linux
def mappings(pid):
    """(start, end, offset, file) of each mapping of a file, as the kernel shows it."""
    line_of_file = re.compile(r"^(\w+)-(\w+) \S+ (\w+) \S+ \d+ +(/.*)$", re.M)
    for start, end, offset, file in line_of_file.findall(read(f"/proc/{pid}/maps")):
        yield int(start, 16), int(end, 16), int(offset, 16), file


@only_on_linux
def image_base(pid, path):
    return next(start - offset for start, _, offset, file in mappings(pid) if file == path)


@only_on_linux
def peek(pid, address, size):
    """Memory as the kernel shows it."""
    with open(f"/proc/{pid}/mem", "rb", 0) as memory:
        memory.seek(address)
        return memory.read(size)


@only_on_linux
def status_figure(pid, name):
    """A number of /proc/PID/status; sizes are in KiB."""
    return int(re.search(rf"^{name}:\s*(\d+)", read(f"/proc/{pid}/status"), re.M)[1])


@only_on_linux
def preload(library, name, **variables):
    """An environment that loads this library, under this name, into every program."""
    # LD_PRELOAD separates names by spaces, so a folder must have none.
    copy = shutil.copy(library, f"{tempfile.mkdtemp()}/{name}")
    sanitizers = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    return os.environ | variables | {"LD_PRELOAD": copy, "ASAN_OPTIONS": sanitizers}


def shim(**variables):
    """An environment with tests/tools/shim.cpp, which delays LLDB's events and records the log."""
    return preload(f"{BUILD}/tests/tools/libshim.so", "shim.so", **variables)
