"""Requests that need more than there is, that LLDB would never answer, or in odd surroundings."""

import errno
import itertools
import json
import os
import resource
import socket
import struct
import tempfile
import time
from pathlib import Path

import pytest
from harness import linux, machine
from harness.checking import OK, Host, error
from harness.machine import Program, descendants, eventually, inferior, status
from harness.stub import remote, serve

REFUSED = error("cannot connect to remote, invalid process")


def refuse(call, bits=0):
    """From here on a system call fails if its first argument has these bits.

    Containers have such filters.
    """
    import seccomp  # only Linux has it

    calls = seccomp.SyscallFilter(seccomp.ALLOW)
    has_bits = seccomp.Arg(0, seccomp.MASKED_EQ, bits, bits)
    calls.add_rule(seccomp.ERRNO(errno.EPERM), call, has_bits)
    calls.load()


def launch_hello(host):
    """Returns the answer to createProcess. One that fails leaves no target."""
    host.prepare("hello")
    answer = host.ask("createProcess")
    assert answer == OK or host.ask("getProcessState") == error("no target")
    return answer


@pytest.mark.linux("prlimit, and /proc shows the descriptors")
@pytest.mark.skipif(bool(machine.SANITIZER), reason="a sanitizer needs a pipe to look at memory")
def test_a_launch_that_runs_out_of_descriptors_at_any_step_fails_and_the_next_works(host):
    host.ok("ping")
    before = resource.prlimit(host.pid, resource.RLIMIT_NOFILE)
    for more in range(32):
        few = len(os.listdir(f"/proc/{host.pid}/fd")) + more
        resource.prlimit(host.pid, resource.RLIMIT_NOFILE, (few, before[1]))
        answer = launch_hello(host)
        resource.prlimit(host.pid, resource.RLIMIT_NOFILE, before)
        if answer == OK:
            break
    assert 0 < more < 31, "it needs as many descriptors as it gets"
    host.state("eStateStopped")
    host.ok("deleteProcess")
    assert host.run_session("hello")[1] == 3


@pytest.mark.linux("prlimit")
@pytest.mark.skipif(
    bool(machine.SANITIZER), reason="a sanitizer ends the program where memory runs out"
)
def test_a_request_that_memory_does_not_suffice_for_is_refused(host):
    host.launch("wait")
    limit = (linux.status_figure(host.pid, "VmSize") + 256 * 1024) * 1024
    resource.prlimit(host.pid, resource.RLIMIT_AS, (limit, limit))
    # In a handler: it needs the memory for its answer.
    assert host.ask("readMemory", length=2147483647) == error("bad request: std::bad_alloc")
    # Outside of one: a frame of this length has no place.
    host.asked.append("response")
    host.requests.write(struct.pack("=I", 0x70000000))
    host.requests.flush()
    assert host.response() == OK | {"message": "EOF"}


@pytest.mark.linux("/dev/log")
def test_a_log_that_is_full_holds_nothing_up():
    daemon = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    try:
        daemon.bind("/dev/log")
    except OSError as problem:
        pytest.skip(f"no place for a log at /dev/log: {problem}")
    try:
        answers = Host().ask_all(*["getRegisters"] * 1000)
        assert answers == [error("no process")] * 1000
        assert daemon.recv(1024, socket.MSG_DONTWAIT), "no record"
    finally:
        os.unlink("/dev/log")


def test_a_request_of_64_mib_is_answered(host):
    host.checks_requests = False
    name = "x" * (64 << 20)
    host.send(b'{"command":"%s"}' % name.encode())
    is_whole = host.response() == error(f"unknown command '{name}'")
    assert is_whole  # without the texts: pytest would compare them for minutes


# --- Odd surroundings. -----------------------------------------------------------------------------

CLONE_CHILD_SETTID = 0x1000000  # of clone(2): a process is started, no thread
ADDR_NO_RANDOMIZE = 0x40000  # of personality(2)


def refusal(call, bits=0, **variables):
    """A case in which a system call is refused."""
    filters = pytest.mark.linux("a filter of system calls")
    return pytest.param(lambda: refuse(call, bits), variables, marks=filters, id=f"{call} refused")


def lose_folder():
    os.chdir(tempfile.mkdtemp())
    os.rmdir(os.getcwd())


def do_nothing():
    pass


@pytest.mark.parametrize(
    "prepare, variables",
    [
        pytest.param(do_nothing, {"HOME": "FOLDER"}, id="commands at home"),
        pytest.param(do_nothing, {"PYTHONPATH": "FOLDER"}, id="a broken Python package"),
        pytest.param(do_nothing, {"PYTHONHOME": "FOLDER"}, id="the home of another Python"),
        pytest.param(lose_folder, {}, id="a removed working directory"),
        refusal("socket", socket.AF_UNIX),  # that of the log
        refusal("personality", ADDR_NO_RANDOMIZE),
    ],
)
def test_a_program_runs_in_odd_surroundings(isolation, prepare, variables):
    Path(isolation, ".lldbinit").write_text("settings set prompt surprise\nquit 7\n")
    Path(isolation, "lldb.py").write_text("raise ImportError\n")
    changed = {name: value.replace("FOLDER", isolation) for name, value in variables.items()}
    host = Host(prepare=prepare, env=os.environ | changed)
    assert host.run_session("hello")[1] == 3
    assert "surprise" not in host.cli("settings show prompt")
    host.end()


def test_a_program_runs_without_environment():
    """But for what a sanitized build needs."""
    kept = ("LSAN_OPTIONS", "TSAN_OPTIONS")
    host = Host(env={name: os.environ[name] for name in kept if name in os.environ})
    assert host.run_session("hello")[1] == 3
    host.end()


@pytest.mark.parametrize(
    "prepare, variables",
    [
        pytest.param(do_nothing, {"LLDB_DEBUGSERVER_PATH": "/nowhere"}, id="no debug server"),
        refusal("clone", CLONE_CHILD_SETTID),
        # The search for leaks needs ptrace itself.
        refusal("ptrace", ASAN_OPTIONS="detect_leaks=0"),
    ],
)
def test_where_nothing_can_be_debugged_the_helper_says_why(prepare, variables):
    program = Program(inferior("wait"))
    host = Host(prepare=prepare, env=os.environ | variables)
    message = launch_hello(host)["message"]
    assert message.startswith("cannot create process: ")
    message = host.ask("attachToProcess", pid=program.pid)["message"]
    assert message.startswith("cannot attach to process: ")
    assert status(program.pid) == "sleeping", "the program does not run on"
    host.end()


# --- What LLDB would wait for without end. ---------------------------------------------------------


@pytest.mark.parametrize("file", ["a pipe that nobody writes to", "/dev/zero", "/dev/random"])
def test_a_file_that_never_opens_or_never_ends_is_not_read(host, isolation, file):
    if not file.startswith("/"):
        file = f"{isolation}/{file}"
        os.mkfifo(file)
    program = Program(inferior("wait"))
    host.prepare(file)
    assert host.ask("createProcess") == error(f"cannot build target: '{file}' is not a file")
    for plugin in ("gdb-remote", "kdp-remote"):
        connection = remote(1, file) | {"plugin": plugin}
        assert host.ask("connectRemote", **connection) == REFUSED
    assert host.ask("getProcessState") == error("no target")
    # LLDB finds the executable of a running process by itself.
    host.ok("attachToProcess", pid=program.pid, executable=file)
    host.state("eStateStopped")
    host.ok("deleteProcess")
    assert host.run_session("hello")[1] == 3


@pytest.mark.linux("lldb-server; macOS has another server")
def test_an_attach_that_cannot_succeed_is_refused_with_a_reason(host):
    """All in one helper: its own debug server is one of them, and the launch comes after all."""
    host.launch("wait")
    servers = descendants(host.pid, "lldb-server")
    assert servers, "there is no debug server"
    host.cli("target delete")
    list(host.rest())  # its exit, if LLDB had time for it
    # To the process 0 LLDB would attach as to this one, by its name.
    program = Program(inferior("wait"))
    for pid in (host.pid, *servers, 0, 2**22 + 1, 2**32 + program.pid, 2**64 - 1):
        for executable in (inferior("wait"), "/nowhere"):
            message = host.ask("attachToProcess", pid=pid, executable=executable)["message"]
            assert message.startswith("cannot attach to process: "), pid
            assert len(message) > 30, (pid, message)
            assert host.ask("getProcessState") == error("no target")
    assert host.run_session("hello")[1] == 3


def stop_at_each_packet(data):
    return [b"+$T05thread:1;#d7" * max(1, data.count(b"$"))]


def send_without_end(data):
    return itertools.chain([b"+$"], itertools.repeat(b"x" * 65536))


@pytest.mark.slow
@pytest.mark.linux("/proc shows the memory that the helper has")
@pytest.mark.parametrize("answer", [stop_at_each_packet, send_without_end])
def test_a_connection_that_never_comes_about_is_cut(host, answer):
    """After sixty times LLDB's patience for a packet, and never in less than a minute."""
    host.TIMEOUT = 240
    host.cli("settings set plugin.process.gdb-remote.packet-timeout 1")
    start = time.monotonic()
    connection = {"command": "connectRemote"} | remote(serve(answer))
    host.send(json.dumps(connection).encode())
    assert host.response() == REFUSED
    assert 58 < time.monotonic() - start < 200
    host.cli("target delete --all")
    assert host.run_session("hello")[1] == 3
    if not machine.SANITIZER:
        eventually(
            lambda: linux.status_figure(host.pid, "VmRSS") < 300 << 10,
            "its memory is given back",
        )
