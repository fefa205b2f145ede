"""Starting, stopping and ending, in orders and at speeds that a debugger's threads dislike."""

import os
import shutil
import signal
import statistics
import tempfile
import time

from kit import *

HELLO = {"command": "prepareExecutable", "path": inferior("hello"), "triple": ""}


def one_processor():
    """Where all threads share a processor, the one that takes LLDB's events comes late."""
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})


def attach(pid, executable=""):
    return {"command": "attachToProcess", "pid": pid, "executable": executable, "triple": "", "is64Bits": True}


def test_create_and_delete_back_to_back():
    host = Host()
    for _ in range(60):
        expect(host.ask_all(HELLO, "createProcess", "deleteProcess"), [OK] * 3)
    host.end()
    # Nothing of a run is reported in the next one.
    states = {event["state_desc"] for event in host.rest() if event["type"] == "state"}
    check(states <= {"eStateStopped"}, states)


def test_a_launch_that_fails_leaves_no_target():
    denied = shutil.copy(inferior("hello"), tempfile.mkdtemp())
    os.chmod(denied, 0o644)
    host = Host()
    for prefix, preparation in (
        ("cannot build target: ", {"path": "/nowhere/program"}),
        ("cannot ", {"path": "/etc/passwd"}),
        ("cannot ", {"path": ""}),
        ("cannot create process: ", {"cwd": "/nowhere"}),
        ("cannot ", {"triple": "bogus-bogus-bogus"}),
        ("cannot ", {"triple": "x86_64-linux-gnu"}),  # selects another platform in LLDB; launches must go on to work
        ("cannot create process: ", {"path": denied}),
    ):
        host.ok(**HELLO | preparation)
        for _ in range(2):
            message = host.ask("createProcess")["message"]
            check(message.startswith(prefix) and len(message) > len(prefix) + 5, message)
            expect(host.ask("getProcessState"), error("no target"))
    expect(host.run("hello"), ("hello\r\nworld\r\n", 3))
    expect(host.ok("executeCommand", cli="target list")["output"], "No targets.\n")
    host.end()


def continue_right_after_create(host):
    expect(host.ask_all(HELLO, "createProcess", "continueExecution"), [OK] * 3)
    host.state("eStateStopped")
    host.state("eStateRunning")
    expect(host.state("eStateExited")["exit_status"], 3)
    host.ok("deleteProcess")


def test_continue_right_after_create():
    for rounds in (40, *[1] * 10):  # in one helper, and in new ones
        host = Host()
        for _ in range(rounds):
            continue_right_after_create(host)
        host.end()


def test_delete_does_not_wait_for_the_event_thread():
    """It waits for a whole second at a time, and has just begun to."""
    host, times = Host(), []
    for _ in range(7):
        host.launch("wait")
        start = time.monotonic()
        host.ok("deleteProcess")
        times.append(time.monotonic() - start)
    check(statistics.median(times) < 0.4, times)
    host.end()


def test_a_running_process_is_deleted_or_stopped_and_gone():
    """Of a process that the host ends only the exit is reported, never the stop before it."""
    host = Host()
    for round in range(10):
        host.launch("wait")
        host.resume_only()
        host.await_output("ready\r\n")
        if round % 2:
            host.ok("stopExecution")
            host.state("eStateExited")
        host.ok("deleteProcess")
        expect(descendants(host.pid, "wait"), [])
    host.end()


def test_ending_right_after_a_step():
    """LLDB's public state is old here. A kill that trusts it crashes LLDB, or waits 20 seconds."""
    kill = {"command": "executeCommand", "cli": "process kill"}
    for host in (Host(prepare=one_processor), Host(env=shim(SLOW_EVENTS="20"))):
        for end in ("deleteProcess", "stopExecution", kill) * 7:
            expect(host.ask_all(HELLO, "createProcess"), [OK] * 2)
            start = time.monotonic()
            answers = host.ask_all("stepOver", "stepInstruction", end)
            expect([answer["status"] for answer in answers], ["ok"] * 3)
            check(time.monotonic() - start < 10, end)
            host.ask("deleteProcess")
        host.end()


def test_end_of_input_under_a_process_is_an_abort():
    host = launched("wait")
    expect(host.close(), -signal.SIGABRT)


def test_a_stop_asked_for_before_the_event_thread_runs_is_kept():
    """The shim holds back each of the helper's threads for longer than any wait of the helper's."""
    host = Host(env=shim(SLOW_THREADS="3"))
    expect(host.ask_all(HELLO, "createProcess", "deleteProcess"), [OK] * 3)
    host.end()


def test_attach_to_a_running_program():
    for executable in (inferior("wait"), "/nowhere", ""):
        program, host = attached()
        answer = host.ok(**attach(program.pid, executable))
        expect(sorted(answer), ["aslrSlide", "fileAddr", "loadAddr", "sectionName"])
        check(answer["sectionName"], "a section without name")
        expect(answer["loadAddr"] - answer["fileAddr"], image_base(program.pid, inferior("wait")))
        expect(answer["aslrSlide"], answer["loadAddr"] - answer["fileAddr"])
        expect(stat(program.pid)[1], "t")
        for again in (attach(program.pid), {"command": "createProcess"}):
            expect(host.ask(**again), error("process already exists"))
        host.state("eStateStopped")
        host.resume_only()
        host.ok("detach")
        host.state("eStateDetached")
        eventually(lambda: stat(program.pid)[1] == "S", "it sleeps, as before")
        host.ok("deleteProcess")
        # An attached program outlives the deletion, too, and can be attached to again.
        for end in ("deleteProcess", "stopExecution"):
            host.ok(**attach(program.pid))
            host.state("eStateStopped")
            host.ok(end)
            if end == "deleteProcess":
                eventually(lambda: stat(program.pid)[1] == "S", "LLDB detaches from what it did not start")
        host.state("eStateExited")
        host.ok("deleteProcess")
        eventually(lambda: is_gone(program.pid), "it is gone")
        host.end()


def test_continue_right_after_attach():
    for _ in range(10):
        program, host = attached()
        expect([response["status"] for response in host.ask_all(attach(program.pid), "continueExecution")], ["ok"] * 2)
        host.state("eStateStopped")
        host.state("eStateRunning")
        os.kill(program.pid, signal.SIGTERM)
        host.state("eStateStopped")
        host.ok("stopExecution")
        host.end()


def test_a_failed_attach_leaves_no_target():
    host = Host(checks_requests=False)
    for pid in (999999999, 0, -1):
        for _ in range(2):
            message = host.ask(**attach(pid, "/nowhere"))["message"]
            check(message.startswith("cannot attach to process: ") and len(message) > 30, message)
            expect(host.ask("getProcessState"), error("no target"))
    expect(host.run("hello"), ("hello\r\nworld\r\n", 3))
    host.end()


def test_detach_leaves_the_program_alone():
    host = waiting()
    pid = host.inferior_pid()
    host.ok("detach")
    host.state("eStateDetached")
    expect(host.ask("createProcess"), error("process already exists"))
    host.ok("deleteProcess")
    os.kill(pid, signal.SIGKILL)  # fails if it is gone
    expect(host.run("hello")[1], 3)
    host.end()


def test_connect_and_delete_back_to_back():
    """A server without a program: nothing stops, so only the event thread's start orders what follows."""
    host = Host()
    program, port = server(settings["lldb-server"], "gdbserver", "127.0.0.1:PORT")
    connect = {"command": "connectRemote", "url": f"connect://127.0.0.1:{port}", "plugin": "gdb-remote"}
    expect(host.ask_all(connect, "deleteProcess"), [OK] * 2)
    program.kill()
    host.end()


def test_a_server_that_hangs_up_ends_the_process_only():
    host = Host()
    program, port = server(settings["lldb-server"], "gdbserver", "127.0.0.1:PORT", inferior("wait"))
    host.ok("connectRemote", url=f"connect://127.0.0.1:{port}", plugin="gdb-remote", file=inferior("wait"))
    host.state("eStateStopped")
    program.kill()
    host.ask("continueExecution")  # how LLDB notices
    host.await_exit()
    for command in ("continueExecution", "getRegisters", "stopExecution"):
        host.ask(command)
    host.end()
