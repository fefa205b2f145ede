"""Programs that LLDB stops and resumes by itself, and processes that LLDB's command line replaces."""

from kit import OK, Host, check, descendants, error, eventually, expect, inferior, launched, shim, waiting

ALREADY_RUNNING = error("resume request failed - process already running")


def condition(host, text):
    check(host.ok("executeCommand", cli=f"breakpoint set -n call -c '{text}'")["succeeded"], text)


def test_a_stop_that_lldb_resumes_is_no_stop():
    """Each of these programs stops for LLDB dozens of times; the host gets running and exited."""
    host = Host()
    for how in ("fork", "vfork", "spawn", "shell", "timer"):
        expect(host.run("forks", f"{how} 20"), ("done\r\n", 5), how)
    host.launch("forks", "calls 100")
    condition(host, "calls < 0")
    expect(host.resume("eStateExited")["exit_status"], 5)
    host.end()


def test_a_stop_among_them_is_one():
    host = launched("forks", "vfork 30")
    condition(host, "calls == 23")
    host.resume()
    check("= 23" in (answer := host.ok("executeCommand", cli="expression calls")).get("output", ""), answer)
    host.resume("eStateExited")
    host.ok("deleteProcess")
    host.launch("forks", "timer 20")
    host.ok("executeCommand", cli="process handle --stop true SIGALRM")
    for _ in range(5):
        host.resume()
    host.ok("executeCommand", cli="process handle --stop false SIGALRM")
    host.resume("eStateExited")
    host.end()


def test_a_continue_that_crosses_them_is_refused_and_strands_nothing():
    host = Host()
    for how in ("vfork", "calls"):
        host.launch("forks", f"{how} 30")
        condition(host, "calls < 0")
        host.resume_only()
        while host.events.empty():  # of the program's output or exit
            answer = host.ask("continueExecution")
            check(answer == ALREADY_RUNNING or not host.events.empty(), answer)
        expect(host.state("eStateExited")["exit_status"], 5)
        host.ok("deleteProcess")
    host.end()


def test_ending_in_the_middle_of_them_leaves_nothing():
    host = Host()
    for how in ("vfork", "fork", "timer"):
        for end in ("deleteProcess", "stopExecution") * 3:
            host.launch("forks", f"{how} 1000000")
            host.resume_only()
            host.ok(end)
            if end == "stopExecution":
                host.state("eStateExited")
                host.ok("deleteProcess")
            eventually(lambda: not descendants(host.pid, "forks"), f"{how}, {end}: it is gone")
    host.end()
    expect([event for event in host.rest() if event["type"] == "state"], [])


def test_the_stop_that_an_end_causes_is_hidden_however_late_it_is_handled():
    host = Host(env=shim(SLOW_EVENTS="150"))
    host.launch("wait")
    host.resume_only()
    host.await_output("ready\r\n")
    host.ok("stopExecution")
    host.state("eStateExited")
    host.end()


def test_input_reaches_the_process_that_is_there():
    host = Host()
    for how in ("process kill", "target delete"):
        host.launch("echo")
        host.resume_only()
        host.await_output("ready\r\n")
        host.ok("sendToApplication", data=list(b"1\n"))
        host.await_output("31 0a ")
        check(host.ok("executeCommand", cli=how)["succeeded"], how)
        if how == "process kill":
            check(host.ok("executeCommand", cli="process launch")["succeeded"], how)
        else:
            expect(host.ask_all("createProcess", "continueExecution"), [OK] * 2)
        while host.next_event().get("output") != b"ready\r\n".hex():
            pass
        host.ok("sendToApplication", data=list(b"2\n"))
        host.await_output("32 0a ")
        host.ok("deleteProcess")
    host.end()


def test_a_target_deleted_by_hand_takes_its_event_thread_along():
    for command in ("target delete", "target delete --all"):
        host = waiting()
        check(host.ok("executeCommand", cli=command)["succeeded"], command)
        expect(host.ask("deleteProcess"), error("no process"))
        expect(host.ask("getProcessState"), error("no target"))
        host.end()  # with status 0
