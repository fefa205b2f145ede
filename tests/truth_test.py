"""Answers are what the kernel and plain calls say, also after a write, and through any descriptor."""

import json
import os
import re
import select
import struct
import subprocess
import tempfile
import threading

import pytest
from harness import linux, machine
from harness.checking import OK, Host, error, frame
from harness.linux import peek
from harness.machine import DEADLINE, HELPER, PC, Program, descendants, eventually, inferior
from harness.stub import STOPPED, remote, stub

STACK_POINTER = "sp" if machine.IS_ARM else "rsp"
CACHE_IS_OFF = "target.process.disable-memory-cache"


def stack_pointer(host):
    return int(host.registers()[STACK_POINTER], 16)


def memory(host, address, size):
    return host.ok("readMemory", address=address, length=size)["memory"]


def write(host, way, address, value):
    if way == "writeByte":
        host.ok("writeByte", address=address, value=value)
    elif way == "memory write":
        host.cli(f"memory write {address} {value:#x}")
    else:
        host.cli(f"expression *(unsigned char *){address} = {value}")


def launch_deep(host):
    """Stops a program whose stack goes on for thousands of bytes above the stack pointer."""
    host.launch("recurse", "100")
    host.run_to("bottom")


def check_a_write(host, way):
    """After two large reads that overlap, a small read and a large one must show a write."""
    start = stack_pointer(host)
    host.stack()
    memory(host, start - 100, 1500)
    memory(host, start - 300, 1000)
    address = start + 40
    value = memory(host, address, 1)[0] ^ 0x55
    write(host, way, address, value)
    assert peek(host.inferior_pid(), address, 1)[0] == value
    assert memory(host, address, 1) == [value]
    assert memory(host, start - 100, 1500)[140] == value


@pytest.mark.linux("the kernel shows the program's memory in /proc")
@pytest.mark.parametrize("way", ("writeByte", "memory write", "expression"))
def test_a_read_shows_what_any_command_has_written(host, way):
    launch_deep(host)
    check_a_write(host, way)


@pytest.mark.linux("the kernel shows the program's memory in /proc")
def test_a_read_shows_what_was_written_with_another_cache_line_and_another_target(host):
    launch_deep(host)
    host.cli("settings set target.process.memory-cache-line-size 64")
    host.resume(how="stepInstruction")
    start = stack_pointer(host)
    for below in (100, 150):
        memory(host, start - below, 400)
    check_a_write(host, "writeByte")
    host.cli("target create /bin/true")
    check_a_write(host, "writeByte")
    assert "* target #1" in host.cli("target list"), "the person's target stays selected"


def test_a_large_read_keeps_the_persons_setting_and_the_selected_frame(host):
    launch_deep(host)
    for value in ("true", "false"):
        host.cli(f"settings set {CACHE_IS_OFF} {value}")
        memory(host, stack_pointer(host), 2000)
        assert value in host.cli(f"settings show {CACHE_IS_OFF}")
    host.ok("selectFrame", index=1)
    caller = host.registers()[PC]
    memory(host, stack_pointer(host), 2000)
    assert host.registers()[PC] == caller


@pytest.mark.linux("the program needs userfaultfd")
def test_a_stack_follows_the_registers_that_were_set(host):
    """Another stack pointer has another return address, or none."""
    host.launch("steps")
    host.run_to("leaf")
    before = host.stack()
    host.ok("setRegister", register=PC, value=hex(host.address("middle")))
    after = host.stack()
    assert (after[0]["function"], after[0]["pc"]) == ("middle", host.address("middle"))
    assert after[1] == before[1]
    host.ok("setRegister", register=STACK_POINTER, value=hex(stack_pointer(host) + 8))
    assert host.stack()[1:2] != before[1:2]
    host.cli(f"register write {PC} {host.address('leaf')}")
    assert host.stack()[0]["function"] == "leaf"


def test_the_stack_is_not_read_past_its_end(host):
    """Memory follows that nobody fills: who reads it never returns."""
    host.launch("edge")
    host.run_to("leaf")
    threads = host.ok("getThreadIDList")["threads"]
    stopped = next(thread for thread in threads if thread["state"] == "Breakpoint")
    host.ok("selectThreadID", tid=stopped["thread-id"])
    assert host.stack()[0]["function"] == "leaf"


FORMATS = {
    "as many formats as before": [
        "type format clear -a",
        'type format add -f decimal "unsigned long"',
    ],
    "an uppercase format": ['type format add -f uppercase-hex "unsigned long"'],
    "a disabled category": [
        'type format add -w extra -f octal "unsigned long"',
        "type category disable extra",
    ],
}


@pytest.mark.parametrize("lines", FORMATS.values(), ids=FORMATS)
def test_register_texts_are_those_of_values_whatever_the_formats(host, lines):
    host.launch("registers")
    host.registers()
    for line in lines:
        host.ok("executeCommand", cli=line)
    registers = host.registers()
    host.read_registers_plainly()
    assert registers == host.registers()


def selected_thread(host):
    return int(re.search(r"tid = (\w+)", host.cli("thread info"))[1], 0)


def break_in_threads(host):
    """Runs the program with threads that spin, and stops it. Returns its threads."""
    host.launch("spin")
    host.resume_only()
    host.await_output("ready\r\n")
    host.ok("breakExecution")
    host.state("eStateStopped")
    return [thread["thread-id"] for thread in host.ok("getThreadIDList")["threads"]]


def test_the_thread_that_was_stepped_stays_selected(host):
    threads = break_in_threads(host)
    for thread in reversed(threads):
        host.ok("selectThreadID", tid=thread)
        for how in ("stepInstruction", "stepOver"):
            host.resume(how=how)
            assert selected_thread(host) == thread, how
    host.ok("selectThreadID", tid=threads[0])  # ends it
    assert selected_thread(host) == threads[0]


@pytest.mark.linux("the shim")
def test_a_step_that_comes_before_the_stop_of_the_last_one_steps_the_same_thread():
    host = Host(env=linux.shim(SLOW_EVENTS="50", SLOW_SELECTION="50"))
    for thread in reversed(break_in_threads(host)):
        host.ok("selectThreadID", tid=thread)
        host.resume_only("stepInstruction")
        # LLDB shows the stop when its event is taken. The host receives it a tenth of a second later.
        eventually(lambda: host.ok("getProcessState")["state"] == 5, "the stop")
        host.ok("stepInstruction")
        for name in ("eStateStopped", "eStateRunning", "eStateStopped"):
            host.state(name)
        assert selected_thread(host) == thread
    host.end()


def create(host):
    host.prepare("hello")
    return host.ask("createProcess")


def attach(host):
    program = Program(inferior("wait"))
    answer = host.ask("attachToProcess", pid=program.pid)
    # It is not stopped by a tracer.
    eventually(lambda: machine.status(program.pid) == "sleeping", "it goes on")
    return answer


def connect(host):
    port = machine.server(machine.LLDB_SERVER, "gdbserver", "127.0.0.1:PORT", inferior("hello"))
    return host.ask("connectRemote", **remote(port))


WITHOUT_REPORTS = {
    "createProcess": (create, "1", "no target"),
    "attachToProcess": (attach, "1", "no target"),
    # The first thread watches the connection.
    "connectRemote": (connect, "2", "no process"),
}


@pytest.mark.linux("the shim keeps a thread from starting")
@pytest.mark.parametrize("begin, thread, left", WITHOUT_REPORTS.values(), ids=WITHOUT_REPORTS)
def test_a_process_whose_events_nobody_can_report_is_ended(begin, thread, left):
    host = Host(env=linux.shim(FAIL_THREAD=thread))
    # The rest of the message is the C++ library's.
    assert begin(host)["message"].startswith("bad request: ")
    assert host.ask("getProcessState") == error(left)
    eventually(lambda: not descendants(host.pid, "hello"), "the launched program is ended")
    if left == "no process":
        assert begin(host) == OK
        host.state("eStateStopped")
        host.ok("deleteProcess")
    else:
        assert host.run_session("hello") == ("hello\r\nworld\r\n", 3)
    host.end()


def test_a_stop_that_a_failing_detach_causes_is_reported(host):
    """Otherwise the host believes that the program runs: a stop that an end causes is hidden."""

    def close_connection():
        raise ConnectionResetError

    host.ok("connectRemote", **stub(interrupt=STOPPED, c=None, D=close_connection))
    host.state("eStateStopped")
    host.resume_only()
    host.ok("detach")
    host.state("eStateStopped")


@pytest.mark.linux("the wrapper's child is found by what it writes to a pipe")
def test_a_child_that_is_no_debug_server_can_be_debugged(host):
    """A wrapper script started it before it became the helper."""
    folder = tempfile.mkdtemp()
    wrapper = machine.script(
        f"'{inferior('wait')}' >/dev/null &\n"
        f"echo $! >'{folder}/pid'\n"
        f"exec '{HELPER}' \"$@\""
    )
    parent = Host(wrapper)
    parent.ok("ping")
    parent.ok("attachToProcess", pid=int(machine.read(f"{folder}/pid")))
    parent.state("eStateStopped")
    parent.ok("stopExecution")
    parent.state("eStateExited")
    parent.end()
    refused = error("cannot attach to process: It is a part of this debugger")
    assert host.ask("attachToProcess", pid=host.pid) == refused


def test_a_channel_that_becomes_non_blocking_loses_nothing():
    """The flag comes in the middle of a session, in both directions, with a host that reads late."""
    requests_out, requests_in = os.pipe()
    messages_out, messages_in = os.pipe()
    helper = subprocess.Popen(
        [HELPER, str(requests_out), str(messages_in)],
        pass_fds=(requests_out, messages_in),
        preexec_fn=machine.die_with_parent,
    )
    request = frame(b'{"command": "executeCommand", "cli": "settings list"}')
    count = 100

    def send():
        for number in range(count):
            if number % 40 == 1:
                os.set_blocking(requests_out, False)  # the same open file as the helper's
                os.set_blocking(messages_in, False)
            os.write(requests_in, request[:7])
            os.write(requests_in, request[7:])
        os.close(requests_in)

    threading.Thread(target=send, daemon=True).start()
    eventually(lambda: not select.select([], [messages_in], [], 0)[1], "the pipe is full")
    with os.fdopen(messages_out, "rb") as messages:
        for _ in range(count):
            (length,) = struct.unpack("=I", messages.read(4))
            assert json.loads(messages.read(length))["succeeded"]
    assert helper.wait(DEADLINE) == 0
    for descriptor in (requests_out, messages_in):
        assert not os.get_blocking(descriptor), "the flag stays"
        os.close(descriptor)
