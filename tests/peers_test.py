"""Hosts, debug servers and programs that behave badly. One of them must not harm the others."""

import os
import re
import select
import signal
import tempfile
import time

from kit import *

# A session whose answers are the same every time: the program stays at its entry.
SESSION = [
    {"command": "prepareExecutable", "path": inferior("hello"), "triple": ""},
    "createProcess",
    "getProcessState",
    {"command": "setBreakpointAtVirtualAddress", "address": 1},
    "getRegisters",
    "getCallstack",
    {"command": "moduleAtIndex", "index": 0},
    {"command": "readMemory", "address": 0, "length": 16},
    "deleteProcess",
    "hasProcess",
]


def flood_of(lines):
    return "".join(f"{line:07}\r\n" for line in range(lines))


def test_requests_get_the_same_answers_however_they_come(host):
    expected = [host.ask_all(request)[0] for request in SESSION]
    expect(host.ask_all(*SESSION), expected, "in one write")
    write = host.requests.write
    host.requests.write = lambda data: [(write(bytes([byte])), host.requests.flush()) for byte in data]
    expect(host.ask_all(*SESSION), expected, "byte by byte")


def test_no_output_is_lost(host):
    # Eight bytes a line leave the program, nine arrive; 256 is what one event carries.
    for lines in (1, 28, 32, 256, 1250, 131072):
        output, status = host.run("flood", str(8 * lines))
        check(output == flood_of(lines) and status == 0, f"{lines} lines are not what was written")


def test_a_host_that_reads_late_misses_nothing(host):
    """Neither output nor answers, which two threads write while the pipe is full."""

    def is_full():
        """The number of bytes in the pipe does not show it: a message may begin a page of its own."""
        write_end = os.open(f"/proc/self/fd/{host.messages.fileno()}", os.O_WRONLY | os.O_NONBLOCK)
        is_writable = select.select([], [write_end], [], 0)[1]
        os.close(write_end)
        return not is_writable

    host.launch("flood", str(8 * 20000))
    host.reading.clear()
    host.send(b'{"command": "continueExecution"}')
    eventually(is_full, "the pipe is full")
    host.send(*[b'{"command": "ping"}'] * 1000)
    host.reading.set()
    expect([host.response() for _ in range(1001)], [OK] * 1001)
    host.state("eStateRunning")
    expect(host.state("eStateExited")["exit_status"], 0)
    check(host.output == flood_of(20000), "output is missing")


def test_either_pipe_may_close_at_every_point():
    """A process that is left makes the end of input an abort. Without its output the helper does what it is asked."""
    for point in range(len(SESSION) + 1):
        has_process = 1 < point < len(SESSION) - 1
        host = Host()
        host.ask_all(*SESSION[:point])
        expect(host.close(), -signal.SIGABRT if has_process else 0, point)
        host = Host()
        host.ask_all(*SESSION[:point])
        host.reading.clear()
        os.dup2(os.open(os.devnull, os.O_RDONLY), host.messages.fileno())
        host.send(b'{"command": "deleteProcess"}', *[b'{"command": "ping"}'] * 100)
        expect(host.close(), 0)


def test_a_program_or_its_server_is_killed_from_outside(host):
    for start in (host.start_waiting, lambda: host.launch("wait")):
        for victim in ("wait", "lldb-server"):
            start()
            os.kill(descendants(host.pid, victim)[0], signal.SIGKILL)
            if start != host.start_waiting:
                host.ask("continueExecution")  # how LLDB notices
            status = host.await_exit()
            check(start != host.start_waiting or victim != "wait" or status == signal.SIGKILL, status)
            host.ask("getCallstack")
            host.ok("deleteProcess")
            expect(host.run("hello")[1], 3)


def test_what_a_lost_helper_leaves():
    """The debug server always goes, a launched program goes where it stopped, an attached one is let go."""

    def lose(host, aborts):
        servers = descendants(host.pid, "lldb-server")
        host.requests.close() if aborts else os.kill(host.pid, signal.SIGKILL)
        check(host.child.wait(DEADLINE) < 0, "an orderly end")
        eventually(lambda: all(map(is_gone, servers)), "lldb-server ends")

    for aborts in (False, True):
        host = launched("wait")
        pid = host.inferior_pid()
        lose(host, aborts)
        eventually(lambda: is_gone(pid), "the stopped program ends")
        # A launched program that runs may go on: lldb-server lets it go, and its terminal hangs up.
        host = Host()
        host.start_waiting()
        lose(host, aborts)
        for continues in (False, True):
            host, program = Host(), Program(inferior("wait"))
            host.ok("attachToProcess", pid=program.pid, executable=inferior("wait"), triple="")
            if continues:
                host.ok("continueExecution")
            lose(host, aborts)
            eventually(lambda: status_figure(program.pid, "TracerPid") == 0, "nobody traces it")
            check(not is_gone(program.pid), "an attached program ended")


def test_the_channel_stays_private():
    """lldb-server and the program hold neither the host's pipes nor any descriptor that the helper inherited."""
    starter = os.path.join(tempfile.mkdtemp(), "starter")
    with open(starter, "w", opener=lambda name, flags: os.open(name, flags, 0o755)) as script:
        script.write(f"#!/bin/sh\nexec '{settings['helper']}' \"$@\" 9>&2\n")
    host = launched("wait", program=starter)
    link = lambda pid, number: os.readlink(f"/proc/{pid}/fd/{number}")
    channel = {link("self", host.requests.fileno()), link("self", host.messages.fileno())}
    link(host.pid, 9)
    family = descendants(host.pid)
    check(len(family) > 1, family)
    for pid in family:
        held = {number: link(pid, number) for number in os.listdir(f"/proc/{pid}/fd")}
        check("9" not in held and not channel & set(held.values()), held)
    host.end()


def test_a_program_gets_what_was_prepared_and_nothing_else():
    host = Host(env=os.environ | {"LLDB_HELPER_TEST": "inherited"})
    folder = os.environ["TMPDIR"]
    host.prepare("hello", "gone", env="GONE=1", cwd="/nowhere")
    output, _ = host.run("show", 'one "two  three" ', env='ADDED="a b" EMPTY=', cwd=folder)
    shown = [line.split(" <") for line in output.replace("\r", "").replace(">\n", "\n").splitlines()]
    values = lambda heading: [value for found, value in shown if found == heading]
    expect([values(name) for name in ("argument", "folder", "blocked")], [["one", "two  three"], [folder], ["0" * 16]])
    own = [f"{name}={value}" for name, value in os.environ.items()]
    expect(sorted(values("environment")), sorted([*own, "LLDB_HELPER_TEST=inherited", "ADDED=a b", "EMPTY="]))
    host.end()


def test_a_long_input_arrives_whole(host):
    """More than the terminal holds, with three times as much coming back meanwhile."""
    host.launch("echo")
    host.resume_only()
    host.await_output("ready\r\n")
    host.output, text = "", [*(index % 100 for index in range(100000)), ord("x")]
    host.ok("sendToApplication", data=text)
    host.state("eStateExited")
    check(host.output == bytes(text).hex(" ") + " ", "not what was sent")


def test_a_program_that_does_not_read_holds_nothing_up(host):
    """Neither requests nor LLDB, which would try again and again to write to a full terminal, or wait in it."""
    # Most of LLDB's threads, which come and go, have names of their own.
    task = f"{host.pid}/task"
    threads = lambda: sum(stat(f"{task}/{thread}")[0] == "lldb-helper" for thread in os.listdir(f"/proc/{task}"))
    for texts in ([b"nobody reads this line\n" * 20000] * 2, [b"x" * 255 + b"\n"] * 60):
        host.start_waiting()
        before = threads()
        for text in texts:
            host.ok("sendToApplication", data=list(text))
        # ThreadSanitizer has a thread of its own that never rests.
        eventually(lambda: settings["sanitizer"] == "thread" or is_at_rest(host.pid), "the helper rests: nothing can be written")
        for number in os.listdir(f"/proc/{host.pid}/fd"):
            if os.readlink(f"/proc/{host.pid}/fd/{number}").endswith("ptmx"):
                flags = int(re.search(r"flags:\s+(\d+)", read(f"/proc/{host.pid}/fdinfo/{number}"))[1], 8)
                check(flags & os.O_NONBLOCK, "a write to the terminal may wait")
        for _ in range(3):
            host.ok("breakExecution")
            host.state("eStateStopped")
            host.resume_only()
        expect(threads(), before + 1)
        host.ok("deleteProcess")
        check(threads() < before, "the writer outlives its process")


def is_at_rest(pid):
    """Whether the process hardly needs the processor, for a second."""

    def seconds():
        user, system = read(f"/proc/{pid}/stat").rsplit(")", 1)[1].split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    start = seconds()
    time.sleep(1)  # the span that is measured
    return seconds() - start < 0.1
