"""What tests learn from the machine, not from the helper.

LLDB_HELPER_BUILD names the folder of the build (build/release if it is not set). LLDB_HELPER names
another helper than the build's.
"""

import ctypes
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import psutil

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


if not os.path.exists(f"{BUILD}/CMakeCache.txt"):
    sys.exit(f"{BUILD} is no build; script/build --tests PRESET makes build/PRESET")
CACHE = dict(re.findall(r"^(\w+):\w+=(.*)$", read(f"{BUILD}/CMakeCache.txt"), re.M))
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


def need_linux(what):
    assert _may_need_linux, f"{what} is Linux's: mark the test with 'linux'"


def _opens_for_every_system():
    """Whether the nearest function of the tests belongs to the harness, but not to linux.py."""
    frame = sys._getframe(2)
    while frame and not frame.f_code.co_filename.startswith(SOURCE):
        frame = frame.f_back
    file = frame.f_code.co_filename if frame else ""
    return not file or "/tests/harness/" in file and not file.endswith("/linux.py")


def _watch(event, arguments):
    if _may_need_linux or event not in ("open", "os.listdir", "os.scandir"):
        return
    path = os.fsdecode(arguments[0]) if isinstance(arguments[0], (str, bytes)) else ""
    if path.startswith("/proc") and not _opens_for_every_system():
        need_linux(path)


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


def status(pid):
    """The state of a process: "sleeping", "tracing-stop" and so on. "dead" if there is none."""
    try:
        return psutil.Process(pid).status()
    except psutil.NoSuchProcess:
        return psutil.STATUS_DEAD


def is_gone(pid):
    return status(pid) in (psutil.STATUS_DEAD, psutil.STATUS_ZOMBIE)


def descendants(ancestor, name=None):
    """The living descendants of a process, nearest first; only those with this name."""
    processes = [process.info for process in psutil.process_iter(["pid", "ppid", "name", "status"])]
    family = [{"pid": ancestor}]
    for elder in family:
        family += [process for process in processes if process["ppid"] == elder["pid"]]
    return [
        process["pid"]
        for process in family[1:]
        if process["status"] not in (psutil.STATUS_DEAD, psutil.STATUS_ZOMBIE)
        and name in (None, process["name"])
    ]


def eventually(condition, what):
    """Returns what the condition returns, once that is true."""
    end = time.monotonic() + DEADLINE
    while not (value := condition()):
        assert time.monotonic() < end, f"awaited in vain: {what}"
        time.sleep(0.002)
    return value


def seconds(function, *arguments):
    """How long a call takes."""
    start = time.monotonic()
    function(*arguments)
    return time.monotonic() - start


def once_within(bound, attempt):
    """One of three attempts must say that it took less than so many seconds.

    On a busy machine one may be late. If the helper waits for something in vain, each is.
    """
    times = []
    while not times or times[-1] >= bound:
        assert len(times) < 3, f"none took less than {bound} s: {times}"
        times.append(attempt())


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


def run(command, typed="", **environment):
    """What a command prints, and its status."""
    child = subprocess.run(
        command,
        input=typed,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        encoding="utf-8",
        errors="surrogateescape",
        timeout=3 * DEADLINE,  # a whole session
        preexec_fn=die_with_parent,
        env=os.environ | environment,
    )
    return child.stdout, child.returncode


def script(line):
    """Returns an executable file with this shell script."""
    path = f"{tempfile.mkdtemp()}/script"
    with open(path, "w", errors="surrogateescape") as file:
        file.write(f"#!/bin/sh\n{line}\n")
    os.chmod(path, 0o755)
    return path


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def server(*command):
    """Starts a debug server, and returns its port. "PORT" in its command line is the port."""
    port = free_port()
    program = Program(*(word.replace("PORT", str(port)) for word in command), speaks=False)

    def is_listening():
        """Without connecting, which would use up the server's one connection."""
        process = psutil.Process(program.pid)
        ask = getattr(process, "net_connections", None) or process.connections  # before psutil 6
        return any(one.status == psutil.CONN_LISTEN for one in ask())

    eventually(is_listening, f"{command[0]} listens on port {port}")
    return port


def symbol(program, name):
    """The address of a symbol as the file has it. macOS puts an underscore before C's names."""
    nm = subprocess.run(["nm", program], text=True, stdout=subprocess.PIPE, check=True)
    return int(re.search(rf"^(\w+) \w _?{name}$", nm.stdout, re.M)[1], 16)
