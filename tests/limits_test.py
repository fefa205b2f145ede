"""Requests that need more than there is, that LLDB would never answer, or in odd surroundings."""

import errno
import itertools
import json
import os
import pathlib
import resource
import socket
import struct
import tempfile
import time

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


# --- Odd surroundings. Each returns what Host() gets for them; `folder` is the test's own. ---------


def variables(**changed):
    return {"env": os.environ | changed}


def empty_environment(folder):
    """All but what a sanitized build needs."""
    kept = ("LSAN_OPTIONS", "TSAN_OPTIONS")
    return {"env": {name: os.environ[name] for name in kept if name in os.environ}}


def commands_at_home(folder):
    commands = "settings set prompt surprise\nquit 7\n"
    pathlib.Path(folder, ".lldbinit").write_text(commands)
    return variables(HOME=folder)


def removed_working_directory(folder):
    def lose_folder():
        os.chdir(tempfile.mkdtemp())
        os.rmdir(os.getcwd())

    return {"prepare": lose_folder}


def broken_python_package(folder):
    pathlib.Path(folder, "lldb.py").write_text("raise ImportError\n")
    return variables(PYTHONPATH=folder)


def home_of_another_python(folder):
    return variables(PYTHONHOME=folder)


def no_log_socket(folder):
    return {"prepare": lambda: refuse("socket", socket.AF_UNIX)}


def fixed_addresses_refused(folder):
    addr_no_randomize = 0x40000
    return {"prepare": lambda: refuse("personality", addr_no_randomize)}


LINUX_FILTER = pytest.mark.linux("a filter of system calls")


@pytest.mark.parametrize(
    "surroundings",
    [
        empty_environment,
        commands_at_home,
        removed_working_directory,
        broken_python_package,
        home_of_another_python,
        pytest.param(no_log_socket, marks=LINUX_FILTER),
        pytest.param(fixed_addresses_refused, marks=LINUX_FILTER),
    ],
)
def test_a_program_runs_in_odd_surroundings(isolation, surroundings):
    host = Host(**surroundings(isolation))
    assert launch_hello(host) == OK
    host.state("eStateStopped")
    assert host.resume("eStateExited")["exit_status"] == 3
    assert "surprise" not in host.cli("settings show prompt")
    host.end()


def no_debug_server():
    return variables(LLDB_DEBUGSERVER_PATH="/nowhere/lldb-server")


def no_new_processes():
    clone_child_settid = 0x1000000  # threads are started without it
    return {"prepare": lambda: refuse("clone", clone_child_settid)}


def ptrace_refused():
    # The search for leaks needs ptrace itself.
    no_leaks = variables(ASAN_OPTIONS="detect_leaks=0")
    return no_leaks | {"prepare": lambda: refuse("ptrace")}


@pytest.mark.parametrize(
    "surroundings",
    [
        no_debug_server,
        pytest.param(no_new_processes, marks=LINUX_FILTER),
        pytest.param(ptrace_refused, marks=LINUX_FILTER),
    ],
)
def test_where_nothing_can_be_debugged_the_helper_says_why(surroundings):
    program = Program(inferior("wait"))
    host = Host(**surroundings())
    message = launch_hello(host)["message"]
    assert message.startswith("cannot create process: ")
    message = host.ask("attachToProcess", pid=program.pid)["message"]
    assert message.startswith("cannot attach to process: ")
    assert status(program.pid) == "sleeping", "the program does not run on"
    host.end()


# --- What LLDB would wait for without end. ---------------------------------------------------------


def named_pipe():
    path = os.path.join(tempfile.mkdtemp(), "pipe")
    os.mkfifo(path)
    return path


@pytest.mark.parametrize(
    "make_file",
    [
        pytest.param(named_pipe, id="a pipe that nobody writes to"),
        pytest.param(lambda: "/dev/zero", id="a device without end"),
        pytest.param(lambda: "/dev/random", id="a device without end or position"),
    ],
)
def test_a_file_that_never_opens_or_never_ends_is_not_read(host, make_file):
    file = make_file()
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


def echo(data):
    return [data]


def stop_at_each_packet(data):
    return [b"+$T05thread:1;#d7" * max(1, data.count(b"$"))]


def send_without_end(data):
    return itertools.chain([b"+$"], itertools.repeat(b"x" * 65536))


@pytest.mark.slow
@pytest.mark.linux("/proc shows the memory that the helper has")
@pytest.mark.parametrize("answer", [echo, stop_at_each_packet, send_without_end])
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
