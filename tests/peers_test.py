"""Hosts, debug servers and programs that behave badly. One of them must not harm the others."""

import os
import select
import signal
import time

from harness.host import OK
from harness.machine import (
    HELPER,
    SANITIZER,
    descendants,
    eventually,
    inferior,
    is_gone,
    read,
    script,
    stat,
)


# A session whose answers are the same every time: the program stays at its entry.
SESSION = [{"command": "prepareExecutable", "path": inferior("hello"), "triple": ""}, "createProcess", "getProcessState",
           {"command": "setBreakpointAtVirtualAddress", "address": 1}, "getRegisters", "getCallstack",
           {"command": "moduleAtIndex", "index": 0}, "deleteProcess", "hasProcess"]  # fmt: skip


def test_requests_get_the_same_answers_however_they_come(host):
    expected = [host.ask_all(request)[0] for request in SESSION]
    assert host.ask_all(*SESSION) == expected, "in one write"
    write = host.requests.write
    host.requests.write = lambda data: [
        (write(bytes([byte])), host.requests.flush()) for byte in data
    ]
    assert host.ask_all(*SESSION) == expected, "byte by byte"


def test_no_output_is_lost(host):
    # Eight bytes a line leave the program, nine arrive; 256 is what one event carries.
    for lines in (1, 28, 32, 256, 131072):
        expected = host.launch_flood(lines)
        host.resume("eStateExited")
        assert host.output == expected, f"{lines} lines are not what was written"
        host.ok("deleteProcess")


def test_a_host_that_reads_late_misses_nothing(host):
    """Neither output nor answers, which two threads write while the pipe is full."""

    def is_full():
        """The number of bytes in the pipe does not show it: a message may begin a page of its own."""
        write_end = os.open(f"/proc/self/fd/{host.messages.fileno()}", os.O_WRONLY | os.O_NONBLOCK)
        is_writable = select.select([], [write_end], [], 0)[1]
        os.close(write_end)
        return not is_writable

    expected = host.launch_flood(20000)
    host.reading.clear()
    host.send(b'{"command": "continueExecution"}')
    eventually(is_full, "the pipe is full")
    host.send(*[b'{"command": "ping"}'] * 1000)
    host.reading.set()
    assert [host.response() for _ in range(1001)] == [OK] * 1001
    host.state("eStateRunning")
    host.state("eStateExited")
    assert host.output == expected, "output is missing"


def test_either_pipe_may_close_at_every_point(start_host):
    """A process that is left makes the end of input an abort. Without its output the helper does what it is asked."""
    for point in range(len(SESSION) + 1):
        for closes_output in (False, True):
            host = start_host()
            host.ask_all(*SESSION[:point])
            family = descendants(host.pid)
            if closes_output:
                host.reading.clear()
                os.dup2(os.open(os.devnull, os.O_RDONLY), host.messages.fileno())
                host.send(b'{"command": "deleteProcess"}', *[b'{"command": "ping"}'] * 100)
            assert (
                host.close() == 0
                if closes_output or not 1 < point < len(SESSION) - 1
                else -signal.SIGABRT
            ), point
            eventually(
                lambda: all(map(is_gone, family)), "the debug server and the stopped program end"
            )


def test_a_program_or_its_server_is_killed_from_outside(host):
    for start in (host.start_waiting, lambda: host.launch("wait")):
        for victim in ("wait", "lldb-server"):
            start()
            os.kill(descendants(host.pid, victim)[0], signal.SIGKILL)
            if start != host.start_waiting:
                host.ask("continueExecution")  # how LLDB notices
            while (event := host.next_event()).get("state_desc") != "eStateExited":
                pass
            assert (
                start != host.start_waiting
                or victim != "wait"
                or event["exit_status"] == signal.SIGKILL
            ), event
            host.ok("deleteProcess")
    assert host.run("hello")[1] == 3


def test_the_channel_stays_private(start_host):
    """lldb-server and the program hold neither the host's pipes nor any descriptor that the helper inherited."""
    host = start_host(script(f"exec '{HELPER}' \"$@\" 9>&2"))
    host.launch("wait")
    link = lambda pid, number: os.readlink(f"/proc/{pid}/fd/{number}")
    channel = {link("self", host.requests.fileno()), link("self", host.messages.fileno())}
    link(host.pid, 9)
    for pid in (host.inferior_pid(), *descendants(host.pid, "lldb-server")):
        held = {number: link(pid, number) for number in os.listdir(f"/proc/{pid}/fd")}
        assert "9" not in held and not channel & set(held.values()), held


def test_a_program_gets_what_was_prepared_and_nothing_else(start_host):
    host, folder = (
        start_host(env=os.environ | {"LLDB_HELPER_TEST": "inherited"}),
        os.environ["TMPDIR"],
    )
    host.prepare("hello", "gone", env="GONE=1", cwd="/nowhere")
    host.launch("hello", 'one "two  three" ', env='ADDED="a b" EMPTY=', cwd=folder)
    of_process = f"/proc/{host.inferior_pid()}"
    arguments, environment = (
        read(f"{of_process}/{name}").split("\0")[:-1] for name in ("cmdline", "environ")
    )
    assert (arguments[1:], os.readlink(f"{of_process}/cwd")) == (["one", "two  three"], folder)
    assert "\nSigBlk:\t0000000000000000\n" in read(f"{of_process}/status"), "a signal is blocked"
    own = [f"{name}={value}" for name, value in os.environ.items()]
    assert sorted(environment) == sorted(
        [*own, "LLDB_HELPER_TEST=inherited", "ADDED=a b", "EMPTY="]
    )


def test_a_long_input_arrives_whole(host):
    """More than the terminal holds, with three times as much coming back meanwhile."""
    host.start_waiting("echo")
    host.output, text = "", [*(index % 100 for index in range(100000)), ord("x")]
    host.ok("sendToApplication", data=text)
    host.state("eStateExited")
    assert host.output == bytes(text).hex(" ") + " ", "not what was sent"


def test_a_program_that_does_not_read_holds_nothing_up(host):
    """Neither requests nor LLDB, which would try again and again to write to a full terminal, or wait in it."""
    # Most of LLDB's threads, which come and go, have names of their own.
    task = f"{host.pid}/task"
    threads = lambda: sum(
        stat(f"{task}/{thread}")[0] == "lldb-helper" for thread in os.listdir(f"/proc/{task}")
    )
    seconds = lambda: sum(
        map(int, read(f"/proc/{host.pid}/stat").rsplit(")", 1)[1].split()[11:13])
    ) / os.sysconf("SC_CLK_TCK")

    def is_at_rest():
        start = seconds()
        time.sleep(1)  # the span that is measured
        return (
            seconds() - start < 0.1 or SANITIZER == "thread"
        )  # which has a thread that never rests

    for texts in ([b"nobody reads this line\n" * 20000] * 2, [b"x" * 255 + b"\n"] * 60):
        host.start_waiting()
        before = threads()
        for text in texts:
            host.ok("sendToApplication", data=list(text))
        eventually(is_at_rest, "the helper rests: nothing can be written")
        for _ in range(3):
            host.ok("breakExecution")
            host.state("eStateStopped")
            host.resume_only()
        assert threads() == before + 1
        host.ok("deleteProcess")
        assert threads() < before, "the writer outlives its process"
