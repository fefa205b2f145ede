"""Bytes on the wire, the console, the log, and debug servers of several makers."""

import json
import os
import re
import shutil
import subprocess
import tempfile

import pytest
from harness import machine
from harness.checking import AT_ONCE, OK, SCHEMA, Host, error, frame
from harness.machine import DEADLINE, HELPER, PC, SOURCE, inferior, read

PING = b'{"command":"ping"}'
NOTHING_TO_DECODE = error("Cannot decode JSON: unexpected end of input")


def output_of(arguments, data):
    """What a helper with these arguments and this standard input writes to its standard output."""
    helper = subprocess.run(
        [HELPER, *arguments], input=data, stdout=subprocess.PIPE, timeout=DEADLINE, check=True
    )
    return helper.stdout


FRAMES = {
    "an empty text": (frame(b""), [NOTHING_TO_DECODE]),
    "a text ends at its first zero byte": (frame(PING + b"\0garbage"), [OK]),
    "a text that begins with a zero byte": (frame(b"\0"), [NOTHING_TO_DECODE]),
    "a line end in a string": (
        frame(b'{"command":"\xff\n"}'),
        [error("Cannot decode JSON: unescaped (10) in string")],
    ),
    "a byte that is not UTF-8 comes back": (
        frame(b'{"command":"\xff"}'),
        [error("unknown command '\udcff'")],
    ),
    # The end of input ends the program in order, wherever it comes, and is not answered.
    "no input": (b"", []),
    "half of a length": (b"\5\0", []),
    "half of a text": (b'\5\0\0\0{"co', []),
    "4 GiB less a byte": (b"\xff\xff\xff\xff{}", []),
    "2 GiB": (b"\0\0\0\x80{}" + frame(PING), []),
    "2 GiB less a byte, of which two come": (b"\xff\xff\xff\x7f{}", []),
    "a byte after a request": (frame(PING) + b"\5", [OK]),
}


@pytest.mark.parametrize("data, answers", FRAMES.values(), ids=FRAMES)
def test_a_frame_is_answered_as_its_bytes_say(data, answers):
    texts = [json.dumps(answer, ensure_ascii=False) for answer in answers]
    wanted = b"".join(frame(text.encode(errors="surrogateescape")) for text in texts)
    assert output_of(["0", "1"], data) == wanted


def test_a_frame_of_2_gib_ends_the_helper_before_its_text_comes(host):
    host.requests.write(b"\0\0\0\x80{}")
    host.requests.flush()
    assert host.child.wait(DEADLINE) == 0


@pytest.mark.parametrize("arguments", ([], ["7"], ["7", "8", "9"]), ids=len)
def test_any_number_of_arguments_but_two_makes_a_console(arguments):
    assert output_of(arguments, PING) == b'INPUT: {"command":"ping"}\nOUTPUT: {"status": "ok"}'


def test_prompts_of_lldb_take_no_lines_of_the_console():
    lines = (
        "breakpoint set -n main",
        "breakpoint delete",
        "script",
        "expression",
        "platform shell cat",
    )
    requests = [json.dumps({"command": "executeCommand", "cli": line}) for line in lines]
    typed = "".join(f"{request}\n{PING.decode()}\n" for request in requests)
    assert output_of([], typed.encode()).count(b'OUTPUT: {"status": "ok"}') == len(lines)


def padded(size):
    """A ping of so many bytes, without its line end."""
    return PING + b" " * (size - len(PING))


CONSOLE_LINES = {
    "an empty line is a request": (
        b"\n" + PING + b"\n",
        b'INPUT: \n\nOUTPUT: {"message": "Cannot decode JSON: unexpected end of input", '
        b'"status": "error"}INPUT: ' + PING + b'\n\nOUTPUT: {"status": "ok"}',
    ),
    "1,022 bytes and a line end fit": (
        padded(1022) + b"\n",
        b"INPUT: " + padded(1022) + b'\n\nOUTPUT: {"status": "ok"}',
    ),
    "after 1,023 bytes the line end is a request of its own": (
        padded(1023) + b"\n",
        b"INPUT: " + padded(1023) + b'\nOUTPUT: {"status": "ok"}INPUT: \n\nOUTPUT: '
        b'{"message": "Cannot decode JSON: unexpected end of input", "status": "error"}',
    ),
    "the 1,024th byte begins another request": (
        padded(1023) + b"7\n",
        b"INPUT: " + padded(1023) + b'\nOUTPUT: {"status": "ok"}INPUT: 7\n\nOUTPUT: '
        b'{"message": "unknown command \'\'", "status": "error"}',
    ),
    "1,023 bytes at the end of input": (
        padded(1023),
        b"INPUT: " + padded(1023) + b'\nOUTPUT: {"status": "ok"}',
    ),
}


@pytest.mark.parametrize("typed, shown", CONSOLE_LINES.values(), ids=CONSOLE_LINES)
def test_a_console_line_has_at_most_1023_bytes(typed, shown):
    assert output_of([], typed) == shown


def test_options_of_the_console_print_and_end():
    for option, words in (
        ("--help", b"usage: lldb-helper INPUT OUTPUT"),
        ("--version", b"lldb-helper 0."),
    ):
        assert output_of([option], b"").startswith(words)
    answer = b'INPUT: null\nOUTPUT: {"message": "Cannot decode JSON: ", "status": "error"}'
    assert output_of(["--helpful"], b"null") == answer


def test_a_person_at_a_terminal_is_greeted():
    terminal, its_end = os.openpty()
    os.write(terminal, b"\x04")
    console = subprocess.run(
        [HELPER], stdin=its_end, capture_output=True, timeout=DEADLINE, check=True
    )
    assert console.stdout == b""
    assert console.stderr.count(b"\n") == 2
    assert b"Ctrl-D" in console.stderr


@pytest.mark.parametrize(
    "arguments, words",
    ((["-h"], b'"-h"'), (["/bin/ls"], b'"/bin/ls"'), (["7", "8", "9"], b"3 arg")),
)
def test_a_person_at_a_terminal_reads_how_arguments_are_understood(arguments, words):
    terminal, its_end = os.openpty()
    command = [HELPER, *arguments]
    options = {"input": b"null", "stdout": subprocess.PIPE, "timeout": DEADLINE, "check": True}
    shown = subprocess.run(command, stderr=its_end, **options)
    said = os.read(terminal, 4096)
    assert said.count(b"\n") == 1
    assert words in said
    to_a_file = subprocess.run(command, stderr=subprocess.PIPE, **options)
    assert to_a_file.stderr == b""
    assert to_a_file.stdout == shown.stdout


@pytest.mark.parametrize("arguments", (["77", "78"], ["0", "78"], ["77", "1"], ["-1", "1"]))
def test_descriptors_that_cannot_be_used_are_refused(arguments):
    read_end, _ = os.pipe()
    helper = subprocess.run(
        [HELPER, *arguments], stdin=read_end, capture_output=True, timeout=DEADLINE
    )
    wanted = (
        f"lldb-helper: cannot use descriptors {arguments[0]} and {arguments[1]} "
        "as input and output\n"
    )
    assert (helper.returncode, helper.stderr.decode()) == (1, wanted)


VALUES = {
    "null": None,
    "true": True,
    "minus one": -1,
    "zero": 0,
    "a fraction": 0.5,
    "a huge number": 1e300,
    "all ones": 2**64 - 1,
    "a text": "text",
    "an empty text": "",
    "a quote": '"',
    "a long text": "a" * 5000,
    "an empty list": [],
    "a list": [None, "x", 7],
    "an object": {"a": 1},
}


@pytest.mark.slow
@pytest.mark.parametrize("has_process", (False, True), ids=("no process", "a process"))
def test_every_command_survives_arguments_of_every_kind(host, has_process):
    """None ends the helper or goes without an answer."""
    requests = SCHEMA["$defs"]["requests"]
    names = {name for request in requests.values() for name in request["properties"]}
    host.checks_requests = False
    for value in VALUES.values():
        if has_process:
            host.launch("wait")
        arguments = dict.fromkeys(names - {"command", "id", "pid"}, value)
        # From the last to the first: those that end a process come after those that look into it.
        for command in reversed(requests):
            if command != "connectRemote" or value == "text":  # it takes seconds each time
                host.ask_all(arguments | {"command": command})
        host.ask("deleteProcess")
        list(host.rest())


def test_the_reference_the_schema_and_the_program_have_the_same_commands(host):
    """And the first two the same arguments."""
    requests = SCHEMA["$defs"]["requests"]
    page = read(f"{SOURCE}/docs/protocol.md")
    commands = page[page.index("\n## Commands") : page.index("\n## Events")]
    sections = re.split(r"\n### (.*)\n", commands)
    described = {}
    for heading, text in zip(sections[1::2], sections[2::2]):
        for name in re.findall(r"\w+", heading):
            described[name] = text
    assert set(described) == set(requests)
    assert len(described) == 32
    for name, request in requests.items():
        for argument in set(request["properties"]) - {"command", "id"}:
            assert f"`{argument}`" in described[name], f"{name} lacks {argument}"
    host.checks_requests = False
    for command in requests:
        answer = host.ask(command, pid=host.pid)
        assert not answer.get("message", "").startswith("unknown command"), command
        assert host.ask(command + "x") == error(f"unknown command '{command}x'")


@pytest.mark.linux("the shim records what goes to syslog")
def test_the_log_has_what_was_refused_and_which_states_came():
    file = os.path.join(tempfile.mkdtemp(), "log")
    host = Host(env=machine.shim(SYSLOG_FILE=file), checks_requests=False)
    launch = {"command": "prepareExecutable", "path": inferior("hello"), "triple": ""}
    attach = {"command": "attachToProcess", "pid": 2**22 + 1}
    connection = {"command": "connectRemote", "plugin": "kdp-remote", "url": "a url"}
    host.ask_all({"command": "x%s%n"}, "getProcessState", launch, "createProcess", "deleteProcess")
    host.ask_all(attach, connection)
    assert host.close() == 0
    user, notice = 8, 5
    records = read(file).split("\x1e")[:-1]
    assert all(record.startswith(f"lldb-helper {user | notice} ") for record in records)
    for text in (
        "-------------- STARTING --------------\n",
        "Debugger version: lldb version ",
        "Error in handleRequest: unknown command 'x%s%n'",
        "Error in getProcessState: no target",
        "State changed to eStateStopped",
        "Error in attachToProcess: cannot attach to process: ",
        'process connect --plugin kdp-remote "a url"\n',
        "step 0: eState",
        "Error in connectRemote: cannot connect to remote, invalid process",
    ):
        assert [record for record in records if text in record], text


SERVERS = {
    "lldb-server": (
        PC,
        "steps-fixed",
        "",
        [machine.LLDB_SERVER, "gdbserver", "127.0.0.1:PORT", inferior("steps-fixed")],
    ),
    "GNU gdbserver": (
        PC,
        "steps-fixed",
        "",
        ["gdbserver", "127.0.0.1:PORT", inferior("steps-fixed")],
    ),
    # -R: the program's addresses are QEMU's own choice. Otherwise they are the host's, which differ
    # from run to run.
    "QEMU with a program of another architecture": (
        "pc",
        "steps-aarch64",
        "aarch64-unknown-linux-gnu",
        [
            "qemu-aarch64",
            "-R",
            "0x100000000",
            "-seed",
            "1",
            "-g",
            "PORT",
            inferior("steps-aarch64"),
        ],
    ),
}


@pytest.mark.linux("macOS has a debug server of its own")
@pytest.mark.parametrize("pc, program, triple, command", SERVERS.values(), ids=SERVERS)
def test_a_server_of_each_maker_is_debugged(pc, program, triple, command):
    """With the registers read at once, and one by one."""
    file = inferior(program)
    if not shutil.which(command[0]) or not os.path.exists(file):
        pytest.skip(f"{command[0]} or {program} is missing here")
    if command[0] == "gdbserver" and machine.LLDB_MAJOR < 22:
        pytest.skip("this LLDB mistakes GNU gdbserver's stops, see docs/platforms.md")
    at_once, one_by_one = (
        registers_after_debugging(pc, file, triple, command, is_plain) for is_plain in (False, True)
    )
    assert at_once == one_by_one


def registers_after_debugging(pc, file, triple, command, is_plain):
    """Registers, memory, a breakpoint, a step, and on to the exit."""
    leaf = machine.symbol(file, "leaf")
    _, port = machine.server(*command)
    host = Host()
    assert host.cli(f"settings show {AT_ONCE}").endswith("true\n")
    if is_plain:
        host.read_registers_plainly()
    connect = {
        "url": f"connect://127.0.0.1:{port}",
        "plugin": "gdb-remote",
        "file": file,
        "triple": triple,
    }
    host.ok("connectRemote", **connect, platform="ignored")
    host.state("eStateStopped")
    assert host.ask("connectRemote", **connect) == error("already has a process")
    code = host.ok("readMemory", address=leaf, length=4)
    host.ok("setBreakpointAtVirtualAddress", address=leaf)
    host.resume()
    at_leaf, innermost = host.registers(), host.stack()[0]
    assert int(at_leaf[pc].split()[0], 16) == leaf
    assert (innermost["pc"], innermost["function"]) == (leaf, "leaf")
    assert host.ok("readMemory", address=leaf, length=4) == code
    assert host.ok("getThreadIDList")["threads"][0]["state"] == "Breakpoint"
    host.resume(how="stepInstruction")
    after_step = host.registers()
    assert after_step[pc] != at_leaf[pc]
    host.ok("removeAllBreakpoints")
    host.resume("eStateExited")
    host.end()
    return at_leaf, after_step
