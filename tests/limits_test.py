"""Requests that need more than there is, that LLDB would never answer, or that come in odd surroundings."""

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
import seccomp

from harness import stub
from harness.host import OK, error
from harness.machine import (
    Program,
    SANITIZER,
    descendants,
    eventually,
    inferior,
    stat,
    status_figure,
)


ADDR_NO_RANDOMIZE, CLONE_CHILD_SETTID = 0x40000, 0x1000000


def refuse(call, bits=0):
    """From here on a system call fails if its first argument has these bits. Containers have such filters."""
    calls = seccomp.SyscallFilter(seccomp.ALLOW)
    calls.add_rule(seccomp.ERRNO(errno.EPERM), call, seccomp.Arg(0, seccomp.MASKED_EQ, bits, bits))
    calls.load()


def launch_hello(host):
    """Returns the answer to createProcess."""
    host.prepare("hello")
    answer = host.ask("createProcess")
    assert answer == OK or host.ask("getProcessState") == error("no target"), "a target is left"
    return answer


def test_descriptors_run_out_at_each_step_of_a_launch(host):
    if SANITIZER:
        pytest.skip("a sanitizer needs a pipe to look at memory")
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
    assert host.run("hello")[1] == 3


def test_memory_runs_out_for_an_answer(host):
    if SANITIZER:
        pytest.skip("a sanitizer ends the program where memory runs out")
    host.launch("wait")
    resource.prlimit(
        host.pid, resource.RLIMIT_AS, [(status_figure(host.pid, "VmSize") + 256 * 1024) * 1024] * 2
    )
    # In a handler, and outside of one.
    assert host.ask("readMemory", length=2147483647) == error("bad request: std::bad_alloc")
    host.asked.append("response")
    host.requests.write(struct.pack("=I", 0x70000000))
    host.requests.flush()
    assert host.response() == OK | {"message": "EOF"}


def test_a_log_that_is_full_holds_nothing_up(start_host):
    daemon = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    try:
        daemon.bind("/dev/log")
    except OSError as problem:
        pytest.skip(f"no place for a log at /dev/log: {problem}")
    try:
        assert start_host().ask_all(*["getRegisters"] * 1000) == [error("no process")] * 1000
        assert daemon.recv(1024, socket.MSG_DONTWAIT), "no record"
    finally:
        os.unlink("/dev/log")


def test_requests_may_be_large_and_many(host):
    host.checks_requests = False
    name = "x" * (64 << 20)
    host.send(b'{"command":"%s"}' % name.encode())
    assert host.response() == error(f"unknown command '{name}'"), "not the whole name"
    # The answers do not fit the pipe, so the helper stops reading until they are read.
    ids = range(10000)
    assert host.ask_all(*({"command": "ping", "id": number} for number in ids)) == [
        OK | {"id": number} for number in ids
    ]


def test_odd_surroundings_work_or_are_refused_with_a_reason(start_host):
    folder, program = pathlib.Path(tempfile.mkdtemp()), Program(inferior("wait"))
    (folder / ".lldbinit").write_text("settings set prompt surprise\nquit 7\n")
    (folder / "lldb.py").write_text("raise ImportError\n")

    def lose_folder():
        os.chdir(tempfile.mkdtemp())
        os.rmdir(os.getcwd())

    variables = lambda **changed: {"env": os.environ | changed}
    sanitizers = {
        name: os.environ[name] for name in ("LSAN_OPTIONS", "TSAN_OPTIONS") if name in os.environ
    }
    no_leaks = variables(ASAN_OPTIONS="detect_leaks=0")  # the search for leaks needs ptrace itself
    for surroundings, options, works in (
        ("an empty environment", {"env": sanitizers}, True),
        (
            "no home",
            {"env": {name: value for name, value in os.environ.items() if name != "HOME"}},
            True,
        ),
        ("commands in ~/.lldbinit", variables(HOME=folder), True),
        ("commands in ./.lldbinit", {"cwd": folder}, True),
        ("a working directory that was removed", {"prepare": lose_folder}, True),
        ("no Python package beside LLDB", variables(PYTHONPATH=folder), True),
        ("another Python's home", variables(PYTHONHOME=folder), True),
        ("no log socket", {"prepare": lambda: refuse("socket", socket.AF_UNIX)}, True),
        (
            "fixed addresses refused",
            {"prepare": lambda: refuse("personality", ADDR_NO_RANDOMIZE)},
            True,
        ),
        ("no debug server", variables(LLDB_DEBUGSERVER_PATH="/nowhere/lldb-server"), False),
        (
            "no new processes",
            {"prepare": lambda: refuse("clone", CLONE_CHILD_SETTID)},
            False,
        ),  # threads may start
        ("ptrace refused", no_leaks | {"prepare": lambda: refuse("ptrace")}, False),
    ):
        host = start_host(**options)
        answer = launch_hello(host)
        assert (answer == OK) == works, f"{surroundings}: {answer}"
        if works:
            host.state("eStateStopped")
            assert host.resume("eStateExited")["exit_status"] == 3, surroundings
            assert "surprise" not in host.cli("settings show prompt"), surroundings
        else:
            assert answer["message"].startswith("cannot create process: "), answer
            answer = host.ask("attachToProcess", pid=program.pid)
            assert (
                answer["message"].startswith("cannot attach to process: ")
                and stat(program.pid)[1] == "S"
            ), answer


REFUSED = error("cannot connect to remote, invalid process")


def connect(port, file=""):
    return {"url": f"connect://127.0.0.1:{port}", "plugin": "gdb-remote", "file": file}


def test_files_that_never_end_or_never_open(host):
    pipe = os.path.join(tempfile.mkdtemp(), "pipe")
    os.mkfifo(pipe)
    program = Program(inferior("wait"))
    for file in (pipe, "/dev/zero"):
        host.prepare(file)
        assert host.ask("createProcess") == error(f"cannot build target: '{file}' is not a file")
        for plugin in ("gdb-remote", "kdp-remote"):
            assert host.ask("connectRemote", **connect(1, file) | {"plugin": plugin}) == REFUSED
        assert host.ask("getProcessState") == error("no target")
        # LLDB finds the executable of a running process by itself.
        host.ok("attachToProcess", pid=program.pid, executable=file)
        host.state("eStateStopped")
        host.ok("deleteProcess")
    assert host.run("hello")[1] == 3


def test_processes_that_cannot_be_attached_to(host):
    host.launch("wait")
    servers = descendants(host.pid, "lldb-server")
    assert servers, "there is a debug server"
    host.cli("target delete")
    list(host.rest())  # its exit, if LLDB had time for it
    program = Program(inferior("wait"))  # to 0 LLDB would attach to this one, by its name
    for pid in (host.pid, *servers, 0, 2**22 + 1, 2**32 + program.pid, 2**64 - 1):
        for executable in (inferior("wait"), "/nowhere"):
            message = host.ask("attachToProcess", pid=pid, executable=executable)["message"]
            assert message.startswith("cannot attach to process: ") and len(message) > 30, (
                pid,
                message,
            )
            assert host.ask("getProcessState") == error("no target")
    assert host.run("hello")[1] == 3


def test_connections_that_never_come_about_are_cut_after_a_minute(start_host):
    echo = lambda data: [data]
    stop_always = lambda data: [b"+$T05thread:1;#d7" * max(1, data.count(b"$"))]
    send_without_end = lambda _: itertools.chain([b"+$"], itertools.repeat(b"x" * 65536))
    hosts = {answer: start_host() for answer in (echo, stop_always, send_without_end)}
    start = time.monotonic()
    for answer, host in hosts.items():
        host.send(json.dumps({"command": "connectRemote"} | connect(stub.serve(answer))).encode())
    for host in hosts.values():
        host.TIMEOUT = 240
        assert host.response() == REFUSED
        assert 58 < (took := time.monotonic() - start) < 200, took
        host.cli("target delete --all")
        assert host.run("hello")[1] == 3
        eventually(
            lambda: SANITIZER or status_figure(host.pid, "VmRSS") < 300 << 10,
            "its memory is given back",
        )
