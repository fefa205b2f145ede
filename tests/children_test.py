"""Programs that LLDB stops and resumes itself, and processes that LLDB's command line replaces."""

import time

from kit import *

ALREADY_RUNNING = error("resume request failed - process already running")


def test_a_stop_that_lldb_resumes_is_no_stop(host):
    """LLDB stops each of these programs dozens of times. The host receives running and exited, and a continue that crosses
    a stop is refused and strands nothing. script/soak goes through more of them."""
    for how in ("vfork", "spawn", "timer", "calls"):
        host.launch("forks", f"{how} 30")
        host.cli("breakpoint set -n call -c 'calls < 0'")
        host.resume_only()
        while host.events.empty():  # of the program's output or exit
            answer = host.ask("continueExecution")
            check(answer == ALREADY_RUNNING or not host.events.empty(), answer)
        expect((host.state("eStateExited")["exit_status"], host.output), (5, "done\r\n"), how)
        host.ok("deleteProcess")


def test_a_stop_among_them_is_one(host):
    host.launch("forks", "vfork 30")
    host.cli("breakpoint set -n call -c 'calls == 23'")
    host.resume()
    check("= 23" in (answer := host.cli("expression calls")), answer)
    host.resume("eStateExited")
    host.ok("deleteProcess")
    host.launch("forks", "timer 20")
    host.cli("process handle --stop true SIGALRM")
    for _ in range(5):
        host.resume()
    host.cli("process handle --stop false SIGALRM")
    host.resume("eStateExited")


def test_ending_in_the_middle_of_them_leaves_nothing(host):
    for how in ("vfork", "fork", "timer"):
        for end in ("deleteProcess", "stopExecution") * 3:
            host.launch("forks", f"{how} 1000000")
            host.resume_only()
            host.ok(end)
            if end == "stopExecution":
                host.state("eStateExited")
                host.ok("deleteProcess")
            eventually(lambda: not descendants(host.pid, "forks"), f"{how}, {end}: it is gone")
            expect([event for event in host.rest() if event["type"] == "state"], [])


def test_the_stop_that_an_end_causes_is_hidden_however_late_it_is_handled():
    host = Host(env=shim(SLOW_EVENTS="150"))
    host.start_waiting()
    host.ok("stopExecution")
    host.state("eStateExited")
    host.end()


def test_input_reaches_the_process_that_is_there(host):
    for how in ("process kill", "target delete"):
        host.start_waiting("echo")
        host.ok("sendToApplication", data=list(b"1\n"))
        host.await_output("31 0a ")
        host.cli(how)
        if how == "process kill":
            host.cli("process launch")
        else:
            expect(host.ask_all("createProcess", "continueExecution"), [OK] * 2)
        while host.next_event().get("output") != b"ready\r\n".hex():
            pass
        host.ok("sendToApplication", data=list(b"2\n"))
        host.await_output("32 0a ")
        host.ok("deleteProcess")


def test_a_target_deleted_by_hand_takes_its_event_thread_along(host):
    host.start_waiting()
    host.cli("target delete --all")
    expect(host.ask_all("deleteProcess", "getProcessState"), [error("no process"), error("no target")])


def test_two_programs_may_load_their_modules_at_the_same_time():
    """On one processor LLDB's pool has one thread, for which both would wait."""
    host = Host(prepare=one_processor)
    host.launch("wait")
    host.cli(f'target create "{inferior("hello")}"')
    host.cli("process launch")
    host.resume_only()
    host.await_output("ready\r\n")
    host.cli("target delete 1")
    host.end()


def test_without_an_event_thread_nothing_waits_for_it(host):
    """A refused connection leaves a target, in which the command line may launch. No thread takes LLDB's events then."""
    refused = {"url": f"connect://127.0.0.1:{free_port()}", "plugin": "gdb-remote", "file": inferior("wait")}
    expect(host.ask("connectRemote", **refused), error("cannot connect to remote, invalid process"))
    host.cli("process launch")
    for ask in (lambda: host.cli("version"), lambda: host.ok("deleteProcess")):
        start = time.monotonic()
        ask()
        check((took := time.monotonic() - start) < 1.9, took)
