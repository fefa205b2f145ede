"""Starting, stopping and ending, in orders and at speeds that are hard for a debugger's threads.

Also programs that LLDB stops and resumes itself, and processes that LLDB's command line replaces.
"""

import os
import shutil
import statistics
import tempfile
import time

import pytest
from harness import linux, machine
from harness.checking import OK, Host, error
from harness.machine import Program, descendants, eventually, inferior, once_within
from harness.machine import seconds, status
from harness.stub import STOPPED, remote, stub

CREATE_HELLO = {"command": "prepareExecutable", "path": inferior("hello"), "triple": ""}
CREATE_WAIT = CREATE_HELLO | {"path": inferior("wait")}


def use_one_processor():
    """For the child, before the helper starts."""
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})


def test_a_launch_that_fails_leaves_no_target(host):
    """All in one helper: what one of them leaves would harm the next, and the launch at the end."""
    denied = shutil.copy(inferior("hello"), tempfile.mkdtemp())
    os.chmod(denied, 0o644)
    failures = [
        ("cannot build target: ", {"path": "/nowhere/program"}),
        ("cannot ", {"path": "/etc/passwd"}),
        ("cannot ", {"path": ""}),
        ("cannot build target: ", {"path": "/dev/null"}),
        ("cannot create process: ", {"cwd": "/nowhere"}),
        ("cannot ", {"triple": "bogus-bogus-bogus"}),
        # This one selects another platform in LLDB.
        ("cannot ", {"triple": "x86_64-linux-gnu"}),
        ("cannot create process: ", {"path": denied}),
    ]
    for prefix, preparation in failures:
        host.ok(**CREATE_HELLO | preparation)
        for _ in range(2):
            message = host.ask("createProcess")["message"]
            assert message.startswith(prefix)
            assert len(message) > len(prefix) + 5, "there is no reason in the message"
            assert "is not a file" not in message, "LLDB refuses it, in its own words"
            assert host.ask("getProcessState") == error("no target")
    assert host.run_session("hello") == ("hello\r\nworld\r\n", 3)
    assert host.cli("target list") == "No targets.\n"


@pytest.mark.linux("on macOS the first triple is the machine's own")
def test_a_launch_before_any_preparation_is_for_the_first_triple_of_a_session(host):
    message = host.ask("createProcess")["message"]
    assert message == "cannot create process: the platform is not currently connected"
    assert host.ask("getProcessState") == error("no target")
    # A refused attach, too, brings an executable and its triple.
    refused = host.ask("attachToProcess", pid=0, executable=inferior("hello"), triple="")
    assert refused["status"] == "error"
    host.ok("createProcess")


@pytest.mark.slow
@pytest.mark.parametrize(
    "helpers, rounds", [(1, 20), (5, 1)], ids=["again and again", "in new helpers"]
)
def test_a_continue_in_the_same_write_as_the_launch_follows_the_stop_at_the_entry(helpers, rounds):
    for _ in range(helpers):
        host = Host()
        for _ in range(rounds):
            answers = host.ask_all(CREATE_HELLO, "createProcess", "continueExecution")
            assert answers == [OK] * 3
            host.state("eStateStopped")
            host.state("eStateRunning")
            host.state("eStateExited")
            host.ok("deleteProcess")
        host.end()


def test_deleting_a_process_does_not_wait_for_the_event_thread(host):
    """That thread waits for a whole second at a time, and has just begun to."""
    times = []
    for _ in range(7):
        host.launch("wait")
        times.append(seconds(host.ok, "deleteProcess"))
    assert statistics.median(times) < 0.4, times


@pytest.mark.slow
@pytest.mark.linux("the shim and the processors of a process")
@pytest.mark.parametrize(
    "delays",
    [None, {"SLOW_EVENTS": "20"}, {"SLOW_SELECTION": "3"}],
    ids=["one processor", "late events", "a late selection"],
)
def test_ending_right_after_a_step_is_quick_and_reports_the_exit(delays):
    """LLDB's public state is old here. A kill that trusts it crashes LLDB, or waits 20 seconds.

    On one processor LLDB's events are taken late. The shim makes sure of it. A kill while the event
    thread selects the thread that was stepped never ends.
    """
    if delays:
        host = Host(env=linux.shim(**delays))
    else:
        host = Host(prepare=use_one_processor)
    for end, exits in [("deleteProcess", 0), ("stopExecution", 1)] * 8:
        assert host.ask_all(CREATE_WAIT, "createProcess") == [OK] * 2
        start = time.monotonic()
        answers = host.ask_all("stepOver", "stepInstruction", end, "deleteProcess")
        assert answers[:3] == [OK] * 3
        assert time.monotonic() - start < 10, end
        reported = [event for event in host.rest() if "exit_status" in event]
        assert len(reported) == exits, end
    host.end()


@pytest.mark.linux("the shim")
def test_a_process_is_deleted_though_its_event_thread_starts_later():
    """The thread starts later than the helper waits for anything."""
    host = Host(env=linux.shim(SLOW_START="3000"))
    assert host.ask_all(CREATE_HELLO, "createProcess", "deleteProcess") == [OK] * 3
    host.end()


# The executable that the host names need not be there: LLDB finds it by itself.
@pytest.mark.linux("the kernel shows where a program lies, and who traces it")
@pytest.mark.parametrize(
    "file, address_in_file, executable",
    [
        pytest.param(inferior("wait"), 0, inferior("wait"), id="named"),
        pytest.param(inferior("wait"), 0, "/nowhere", id="named wrongly"),
        pytest.param(inferior("wait-high"), 0x700000000000, "", id="below its address in the file"),
    ],
)
def test_an_attached_program_outlives_detach_and_deletion_but_no_stop(
    host, file, address_in_file, executable
):
    program = Program(file)
    attach = {"pid": program.pid, "executable": executable, "triple": ""}

    answer = host.ok("attachToProcess", **attach)
    assert sorted(answer) == ["aslrSlide", "fileAddr", "loadAddr", "sectionName"]
    assert answer["sectionName"]
    slide = linux.image_base(program.pid, file) - address_in_file
    assert answer["aslrSlide"] == slide % 2**64
    assert answer["loadAddr"] - answer["fileAddr"] == slide
    assert status(program.pid) == "tracing-stop"
    host.state("eStateStopped")
    host.resume_only()
    host.ok("detach")
    host.state("eStateDetached")
    eventually(lambda: status(program.pid) == "sleeping", "it runs as before")
    host.ok("deleteProcess")

    def attach_resume_and(end):
        """It may be resumed in the write that attaches to it."""
        answers = host.ask_all({"command": "attachToProcess"} | attach, "continueExecution")
        assert [answer["status"] for answer in answers] == ["ok"] * 2
        host.state("eStateStopped")
        host.state("eStateRunning")
        host.ok(end)

    for _ in range(10):
        attach_resume_and("deleteProcess")
        eventually(lambda: status(program.pid) == "sleeping", "it runs as before")
    attach_resume_and("stopExecution")
    eventually(lambda: machine.is_gone(program.pid), "it is ended")
    host.state("eStateExited")
    host.ok("deleteProcess")


@pytest.mark.parametrize("how", ["vfork", "spawn", "timer", "calls"])
def test_a_stop_after_which_lldb_resumes_is_not_reported(host, how):
    """LLDB stops each program dozens of times. A continue that crosses a stop strands nothing."""
    host.launch("forks", f"{how} 30")
    # A signal may keep LLDB from evaluating a condition, and then the program stops.
    if how != "timer":
        host.cli("breakpoint set -n call -c 'calls < 0'")
    host.resume_only()
    while host.events.empty():  # of the program's output or exit
        answer = host.ask("continueExecution")
        is_refused = answer.get("message") == "resume request failed - process already running"
        assert is_refused or not host.events.empty(), answer
    assert host.state("eStateExited")["exit_status"] == 5
    assert host.output == "done\r\n"


def test_a_breakpoint_whose_condition_holds_stops_a_program_that_forks(host):
    host.launch("forks", "vfork 30")
    host.cli("breakpoint set -n call -c 'calls == 23'")
    host.resume()
    assert "= 23" in host.cli("expression calls")
    host.resume("eStateExited")


def test_a_signal_stops_the_program_each_time_until_it_is_set_not_to(host):
    host.launch("forks", "timer 20")
    host.cli("process handle --stop true SIGALRM")
    for _ in range(5):
        host.resume()
    host.cli("process handle --stop false SIGALRM")
    host.resume("eStateExited")


@pytest.mark.parametrize("how", ["vfork", "fork", "timer"])
@pytest.mark.parametrize("end", ["deleteProcess", "stopExecution"])
def test_ending_a_program_that_lldb_keeps_stopping_leaves_nothing(host, how, end):
    for _ in range(3):
        host.launch("forks", f"{how} 1000000")
        host.resume_only()
        host.ok(end)
        if end == "stopExecution":
            host.state("eStateExited")
            host.ok("deleteProcess")
        eventually(lambda: not descendants(host.pid, "forks"), "it is gone")
        assert [event for event in host.rest() if event["type"] == "state"] == []


@pytest.mark.linux("the shim")
def test_a_late_stop_that_an_end_causes_is_not_reported():
    host = Host(env=linux.shim(SLOW_EVENTS="60"))
    host.start_waiting()
    host.ok("stopExecution")
    host.state("eStateExited")
    host.ok("deleteProcess")
    assert [event for event in host.rest() if event["type"] == "state"] == []
    assert host.run_session("hello")[1] == 3
    host.end()


@pytest.mark.linux("the shim")
def test_a_kill_in_the_command_line_does_not_wait_for_a_stop_that_is_queued():
    """LLDB by itself waits 20 seconds for it."""
    host = Host(env=linux.shim(SLOW_EVENTS="100", LATE_RUNNING="1"))
    host.launch("steps")
    host.run_to("main")
    # From here on the loader causes no stops, and the next one is that of this breakpoint.
    host.ok("setBreakpointAtVirtualAddress", address=host.address("leaf"))
    host.resume_only()
    assert seconds(host.cli, "process kill") < 10
    host.end()


@pytest.mark.parametrize("how", ["process kill", "target delete"])
def test_input_reaches_the_process_that_replaced_the_first_one(host, how):
    host.start_waiting("echo")
    host.ok("sendToApplication", data=list(b"1\n"))
    host.await_output("31 0a ")
    host.cli(how)
    if how == "process kill":
        host.cli("process launch")
    else:
        assert host.ask_all("createProcess", "continueExecution") == [OK] * 2
    # The states in between depend on how the process was replaced.
    while host.next_event().get("output") != b"ready\r\n".hex():
        pass
    host.ok("sendToApplication", data=list(b"2\n"))
    host.await_output("32 0a ")


def test_a_target_that_the_command_line_deletes_ends_its_event_thread(host):
    host.start_waiting()
    host.cli("target delete --all")
    answers = host.ask_all("deleteProcess", "getProcessState")
    assert answers == [error("no process"), error("no target")]


@pytest.mark.linux("the processors of a process")
def test_two_programs_may_load_their_modules_at_the_same_time():
    """On one processor LLDB's pool has one thread, for which both would wait."""
    host = Host(prepare=use_one_processor)
    host.launch("wait")
    host.cli(f'target create "{inferior("hello")}"')
    host.cli("process launch")
    host.resume_only()
    host.await_output("ready\r\n")
    host.cli("target delete 1")
    host.end()


@pytest.mark.linux("lldb-server; macOS has another server")
def test_a_connection_that_fails_can_be_tried_again(host):
    refused = error("cannot connect to remote, invalid process")
    assert host.ask("connectRemote", **remote(1, inferior("hello"))) == refused
    # What is left is a target without process.
    reasons = ("no process", "process already exists", "no process")
    answers = host.ask_all("getProcessState", "createProcess", "deleteProcess")
    assert answers == [error(reason) for reason in reasons]
    assert host.ask("connectRemote", url="x", plugin="no such") == refused
    # Without the file LLDB creates no target, and nobody asks the server.
    port = machine.server(machine.LLDB_SERVER, "gdbserver", "127.0.0.1:PORT", inferior("hello"))
    connection = {"command": "connectRemote"} | remote(port, inferior("hello"))
    missing = connection | {"file": inferior("no such")}
    assert host.ask_all(missing, "getProcessState") == [refused, error("no target")]
    assert host.ask_all(connection, "continueExecution") == [OK] * 2
    host.state("eStateStopped")
    host.state("eStateRunning")
    assert host.state("eStateExited")["exit_status"] == 3
    assert host.output == "hello\r\nworld\r\n"
    host.ok("deleteProcess")
    assert host.cli("target list") == "No targets.\n"
    host.launch("hello")


def test_a_process_without_an_event_thread_is_resumed_and_deleted_at_once(host):
    """A refused connection leaves a target, in which the command line may launch.

    No thread takes LLDB's events then.
    """
    refused = remote(machine.free_port(), inferior("wait"))
    message = "cannot connect to remote, invalid process"

    def slower_of_two_requests():
        assert host.ask("connectRemote", **refused) == error(message)
        host.cli("process launch --stop-at-entry")
        host.ok("continueExecution")
        return max(seconds(host.cli, "version"), seconds(host.ok, "deleteProcess"))

    once_within(1.9, slower_of_two_requests)


def test_a_process_that_has_ended_is_deleted_at_once_though_a_resume_failed(host):
    def deletion():
        host.start_waiting()
        host.ok("stopExecution")
        host.state("eStateExited")
        assert host.ask("continueExecution")["status"] == "error"
        return seconds(host.ok, "deleteProcess")

    once_within(1.9, deletion)


def described(text):
    return f"description:{text.encode().hex()};"


REASONS = {
    "Trace": "reason:trace;",
    "Watchpoint": "reason:watchpoint;" + described("4198400 0 0"),
    "Exception": "reason:exception;" + described("EXC_BAD_ACCESS"),
}


@pytest.mark.parametrize("name, reason", REASONS.items(), ids=REASONS)
def test_the_reason_that_a_debug_server_gives_is_the_state_of_the_thread(host, name, reason):
    host.ok("connectRemote", **stub(c=STOPPED + reason))
    host.state("eStateStopped")
    host.resume()
    assert host.ok("getThreadIDList") == {"threads": [{"state": name, "thread-id": 1}]}


@pytest.mark.parametrize("reason", ["fork;fork:p2.2;", "vfork;vfork:p2.2;", "vforkdone;"])
def test_a_fork_that_a_debug_server_reports_does_not_stop_the_program(host, reason):
    """LLDB resumes by itself; the program ends at that."""
    stops = iter([f"{STOPPED}reason:{reason}", "W07"])
    host.ok("connectRemote", **stub(c=lambda: next(stops)))
    host.state("eStateStopped")
    assert host.resume("eStateExited")["exit_status"] == 7
