"""What commands do to a program: breakpoints, steps, threads, frames, LLDB's command line, input."""

from harness.checking import OK, error
from harness.machine import PC, PLAIN


def test_a_breakpoint_stops_until_it_is_removed(host):
    """One at an address without code has a location all the same."""
    host.launch("steps")
    addresses = (host.address("leaf"), 16, 2**64 - 1)
    for number, address in enumerate(addresses, 1):
        answer = host.ok("setBreakpointAtVirtualAddress", address=address)
        assert answer == {"bkpt_id": number, "bl0": f"load addr: {address:x}"}
    host.resume()
    # LLDB's command line may resume the process, too.
    host.cli("process continue")
    host.state("eStateRunning")
    host.state("eStateStopped")
    (thread,) = host.ok("getThreadIDList")["threads"]
    assert thread["state"] == "Breakpoint"
    for _ in range(2):
        host.ok("removeBreakpoint", bkpt_id=1)
    assert host.resume("eStateExited")["exit_status"] == 0
    assert host.output == "counted 20\r\n"
    host.ok("removeAllBreakpoints")
    assert host.cli("breakpoint list") == "No breakpoints currently set.\n"


def test_threads_are_listed_and_selected_by_all_64_bits(host):
    """LLDB selects a thread at a stop, and not always the one that caused it."""
    host.launch("threads")
    host.run_to("work")
    threads = host.ok("getThreadIDList")["threads"]
    assert [thread["state"] for thread in threads] == ["None", "Breakpoint", "None"]
    main, worker, _ = (thread["thread-id"] for thread in threads)
    for thread, function in ((main, "main"), (worker, "work")):
        host.ok("selectThreadID", tid=thread)
        assert function in [frame.get("function") for frame in host.stack()]
    for nobody in (0, main + 2**32, 2**64 - 2**32 + 1):
        assert host.ask("selectThreadID", tid=nobody) == error(f"no thread {nobody}")


def test_a_frame_is_selected_by_32_bits_and_has_its_own_registers(host):
    """An index past the last frame keeps the selection."""
    host.launch("steps")
    host.run_to("leaf")
    leaf, caller = host.stack()[:2]
    assert leaf.pop("uuid") == caller.pop("uuid")
    assert leaf == {"filename": "steps", "function": "leaf", "pc": host.address("leaf")}
    assert caller == {"filename": "steps", "function": "middle", "pc": caller["pc"]}
    for index in (1, 100000, 2**32 + 1):
        host.ok("selectFrame", index=index)
        assert host.registers()[PC] == f"{caller['pc']:#018x}"
    host.ok("setRegister", register=PC, value="0x1234")
    assert host.registers()[PC] == "0x0000000000001234"
    host.ok("selectFrame")
    assert host.registers()[PC] == f"{leaf['pc']:#018x}"
    host.ok("setRegister", register=PLAIN, value="0x123456789abcdef0")
    assert host.registers()[PLAIN] == "0x123456789abcdef0"
    assert host.ask("setRegister", register="none", value="1") == error("register not found")
    message = host.ask("setRegister", register=PLAIN, value="no number")["message"]
    assert message.startswith("cannot set the register value: ")


def test_what_comes_while_the_program_runs_is_answered_and_harms_nothing(host):
    host.start_waiting()
    assert host.ask_all("stepInstruction", "stepOver", "stepOut") == [OK] * 3
    assert host.ask("continueExecution")["status"] == "error"
    for command in ("getThreadIDList", "getRegisters", "getCallstack"):
        host.ok(command)
    message = host.ask("writeByte", address=16, value=1)["message"]
    assert message.startswith("unable to write memory: ")
    assert message.endswith(" (state eStateRunning)")
    assert host.ok("getProcessState") == {"state": 6, "state-string": "eStateRunning"}
    host.ok("breakExecution")
    host.state("eStateStopped")
    host.resume_only()
    host.ok("stopExecution")
    assert host.state("eStateExited")["exit_status"] == 9
    commands = [
        "stepInstruction",
        "stepOver",
        "stepOut",
        "breakExecution",
        "stopExecution",
        "detach",
    ]
    assert host.ask_all(*commands) == [OK] * len(commands)
    host.ok("getCallstack")
    host.ok("moduleCount")
    assert host.ask("continueExecution")["status"] == "error"
    host.ok("deleteProcess")


def test_lldbs_answers_come_back_and_a_hosts_lines_stay_out_of_its_history(host):
    assert host.cli("version").startswith("lldb version ")
    host.cli("settings set target.x86-disassembly-flavor intel")
    for line in ("no-such-command", "register read"):
        answer = host.ok("executeCommand", cli=line)
        assert not answer["succeeded"]
        assert answer["error"].startswith("error: ")
    host.ok("executeCommand")
    assert host.cli("session history") == ""
    # What docs/protocol.md says of settings. An LLDB may lack one.
    for setting, value in (
        ("plugin.process.gdb-remote.use-g-packet-for-reading", "true"),
        ("target.process.disable-language-runtime-unwindplans", "true"),
        ("target.parallel-module-load", "false"),
    ):
        shown = host.ok("executeCommand", cli=f"settings show {setting}").get("output", "").strip()
        assert not shown or shown.endswith(f" = {value}"), setting


def test_completions_begin_with_what_all_have_in_common(host):
    def completions(line, position):
        return host.ok("completeCommand", cli=line, pos=position)["completions"]

    # Of a position only 32 bits count; past the end there is nothing.
    for position in (3, 2**32 + 3):
        assert completions("bre", position)[:2] == ["akpoint ", "breakpoint"]
    assert {"clear", "command", "delete"} < set(completions("breakpoint ", 11))
    for line, position in (("bre", 4), ("bre", 100000), ("bre", 2**32 - 1), ("bre\0ak", 5)):
        assert completions(line, position) == []
    assert "breakpoint" in host.ok("completeCommand")["completions"]


def test_input_reaches_the_program_byte_by_byte(host):
    host.checks_requests = False
    host.start_waiting("echo")
    host.ok("sendToApplication")
    for data in ([104, 105, 10], [], [0, 255, 13, 3, 4], [256, -1, 1.9, "5", None, 353]):
        host.ok("sendToApplication", data=data)
    host.await_output("ready\r\n68 69 0a 00 ff 0d 03 04 00 ff 01 00 00 61 ")
    host.ok("sendToApplication", data=[120])
    assert host.state("eStateExited")["exit_status"] == 0
    assert host.output.endswith(" 78 ")
    host.ok("sendToApplication", data=[1, 2])
