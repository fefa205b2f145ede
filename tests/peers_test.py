"""Hosts, debug servers and programs that behave badly. One of them must not harm the others."""

import contextlib
import os
import select
import signal
import threading

import psutil
import pytest
from harness import linux, machine
from harness.checking import OK, Host
from harness.machine import HELPER, descendants, eventually, inferior, is_gone, read

# A session whose answers are the same every time: the program stays at its entry.
SESSION = [
    {"command": "prepareExecutable", "path": inferior("hello"), "triple": ""},
    "createProcess",
    "getProcessState",
    {"command": "setBreakpointAtVirtualAddress", "address": 1},
    "getRegisters",
    "getCallstack",
    {"command": "moduleAtIndex", "index": 0},
    "deleteProcess",
    "hasProcess",
]
CREATED, DELETED = 2, 8  # the numbers of requests after which there is a process, and none again


def test_requests_get_the_same_answers_in_one_write_and_byte_by_byte(host):
    expected = [host.ask_all(request)[0] for request in SESSION]
    assert host.ask_all(*SESSION) == expected

    write = host.requests.write

    def write_bytes(data):
        for byte in data:
            write(bytes([byte]))
            host.requests.flush()

    host.requests.write = write_bytes
    assert host.ask_all(*SESSION) == expected


# Eight bytes a line leave the program, nine arrive; 256 is what one event carries.
@pytest.mark.parametrize("lines", [1, 28, 32, 256, 131072], ids="{} lines".format)
def test_no_output_is_lost(host, lines):
    expected = host.launch_flood(lines)
    host.resume("eStateExited")
    assert host.output == expected


@pytest.mark.linux("/proc shows when the pipe is full")
def test_a_host_that_reads_late_misses_nothing(host):
    """Neither output nor answers, which two threads write while the pipe is full."""

    def is_full():
        """The number of bytes in the pipe does not show it: a message may begin a page of its own."""
        pipe = f"/proc/self/fd/{host.messages.fileno()}"
        write_end = os.open(pipe, os.O_WRONLY | os.O_NONBLOCK)
        is_writable = select.select([], [write_end], [], 0)[1]
        os.close(write_end)
        return not is_writable

    expected = host.launch_flood(20000)
    may_read = threading.Event()
    host.on_text = lambda text: may_read.wait()
    host.send(b'{"command": "continueExecution"}')
    eventually(is_full, "the pipe is full")
    host.send(*[b'{"command": "ping"}'] * 1000)
    may_read.set()
    assert [host.response() for _ in range(1001)] == [OK] * 1001
    host.state("eStateRunning")
    host.state("eStateExited")
    assert host.output == expected


@pytest.mark.parametrize("requests", range(len(SESSION) + 1), ids="after {} requests".format)
def test_the_end_of_input_in_a_session_is_an_abort_where_a_process_is_left(requests):
    host = Host()
    host.ask_all(*SESSION[:requests])
    family = descendants(host.pid)
    has_process = CREATED <= requests < DELETED
    assert host.close() == (-signal.SIGABRT if has_process else 0)
    eventually(lambda: all(map(is_gone, family)), "the debug server and the stopped program end")


@pytest.mark.parametrize("requests", range(len(SESSION) + 1), ids="after {} requests".format)
def test_a_helper_whose_output_is_closed_does_what_it_is_asked(requests):
    host = Host()
    host.ask_all(*SESSION[:requests])
    family = descendants(host.pid)
    host.on_text = lambda text: threading.Event().wait()  # reads no more
    os.dup2(os.open(os.devnull, os.O_RDONLY), host.messages.fileno())
    host.send(b'{"command": "deleteProcess"}', *[b'{"command": "ping"}'] * 100)
    assert host.close() == 0
    eventually(lambda: all(map(is_gone, family)), "the debug server and the stopped program end")


@pytest.mark.linux("lldb-server is killed; macOS has another server")
@pytest.mark.parametrize("victim", ["wait", "lldb-server"])
@pytest.mark.parametrize("is_running", [True, False], ids=["running", "stopped"])
def test_a_session_whose_program_or_server_is_killed_ends_and_the_next_one_works(
    host, is_running, victim
):
    if is_running:
        host.start_waiting()
    else:
        host.launch("wait")
    os.kill(descendants(host.pid, victim)[0], signal.SIGKILL)
    if not is_running:
        host.ask("continueExecution")  # how LLDB notices
    while (event := host.next_event()).get("state_desc") != "eStateExited":
        pass
    if is_running and victim == "wait":
        assert event["exit_status"] == signal.SIGKILL
    host.ok("deleteProcess")
    assert host.run_session("hello")[1] == 3


@pytest.mark.linux("/proc shows the open descriptors")
def test_the_server_and_the_program_hold_no_descriptor_of_the_helper():
    """Neither the host's pipes nor a descriptor that the helper inherited."""

    def link(pid, number):
        return os.readlink(f"/proc/{pid}/fd/{number}")

    inherited = "9"
    host = Host(machine.script(f"exec '{HELPER}' \"$@\" {inherited}>&2")).launch("wait")
    channel = {link("self", pipe.fileno()) for pipe in (host.requests, host.messages)}
    assert link(host.pid, inherited)
    for pid in (host.inferior_pid(), *descendants(host.pid, "lldb-server")):
        held = {number: link(pid, number) for number in os.listdir(f"/proc/{pid}/fd")}
        assert inherited not in held
        assert not channel & set(held.values())
    host.end()


@pytest.mark.linux("/proc shows arguments, environment, folder and signals")
def test_a_program_gets_what_was_prepared_and_nothing_else(isolation):
    host = Host(env=os.environ | {"LLDB_HELPER_TEST": "inherited"})
    host.prepare("hello", "gone", env="GONE=1", cwd="/nowhere")
    host.launch("hello", 'one "two  three" ', env='ADDED="a b" EMPTY=', cwd=isolation)
    of_process = f"/proc/{host.inferior_pid()}"

    arguments = read(f"{of_process}/cmdline").split("\0")[1:-1]
    assert arguments == ["one", "two  three"]
    assert os.readlink(f"{of_process}/cwd") == isolation
    assert "\nSigBlk:\t0000000000000000\n" in read(f"{of_process}/status")  # no signal is blocked

    environment = read(f"{of_process}/environ").split("\0")[:-1]
    own = [f"{name}={value}" for name, value in os.environ.items()]
    added = ["LLDB_HELPER_TEST=inherited", "ADDED=a b", "EMPTY="]
    assert sorted(environment) == sorted([*own, *added])
    host.end()


def test_a_long_input_arrives_whole(host):
    """More than the terminal holds, with three times as much coming back meanwhile."""
    text = bytes(index % 100 for index in range(100000)) + b"x"
    host.start_waiting("echo")
    host.output = ""
    host.ok("sendToApplication", data=list(text))
    host.state("eStateExited")
    assert host.output == text.hex(" ") + " "


# LLDB would wait in a write to a full terminal, or try again and again.
@pytest.mark.linux("/proc shows threads and the time that they take")
@pytest.mark.parametrize(
    "texts",
    [[b"nobody reads this line\n" * 20000] * 2, [b"x" * 250 + b"\n"] * 400],
    ids=["two long texts", "many short texts"],
)
def test_a_program_that_does_not_read_holds_up_neither_requests_nor_lldb(host, texts):
    def threads():
        """The number of the helper's own. Most of LLDB's, which come and go, have other names."""
        names = []
        for task in os.listdir(f"/proc/{host.pid}/task"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # it has just ended
                names.append(read(f"/proc/{host.pid}/task/{task}/comm"))
        return names.count("lldb-helper\n")

    def is_at_rest():
        """For a second. ThreadSanitizer has a thread that never rests."""
        percent = psutil.Process(host.pid).cpu_percent(1)
        return percent < 10 or machine.SANITIZER == "thread"

    host.start_waiting()
    before = threads()
    for text in texts:
        host.ok("sendToApplication", data=list(text))
    eventually(is_at_rest, "the helper rests: nothing can be written")
    assert linux.are_ptys_non_blocking(host.pid)
    for _ in range(3):
        host.ok("breakExecution")
        host.state("eStateStopped")
        host.resume_only()
    assert threads() == before + 1
    host.ok("deleteProcess")
    assert threads() < before
