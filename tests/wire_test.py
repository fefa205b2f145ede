"""Bytes on the wire, console mode, the log, and debug servers of several makers."""

import json
import os
import re
import shutil
import subprocess
import tempfile

import pytest
from harness import linux, machine
from harness.checking import AT_ONCE, OK, SCHEMA, Host, error, frame
from harness.machine import DEADLINE, HELPER, PC, SOURCE, inferior, read
from harness.stub import remote, stub

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
    "a byte that is not UTF-8 comes back": (
        frame(b'{"command":"\xff"}'),
        [error("unknown command '\udcff'")],
    ),
    # The end of input ends the program in order, wherever it comes, and is not answered.
    "no input": (b"", []),
    "half of a length": (b"\5\0", []),
    "half of a text": (b'\5\0\0\0{"co', []),
    "4 GiB less a byte": (b"\xff\xff\xff\xff{}", []),
    "2 GiB less a byte, of which two come": (b"\xff\xff\xff\x7f{}", []),
    "a byte after a request": (frame(PING) + b"\5", [OK]),
}


@pytest.mark.parametrize("data, answers", FRAMES.values(), ids=FRAMES)
def test_a_frame_is_answered_as_its_bytes_say(data, answers):
    texts = [json.dumps(answer, ensure_ascii=False) for answer in answers]
    wanted = b"".join(frame(text.encode(errors="surrogateescape")) for text in texts)
    assert output_of(["0", "1"], data) == wanted


ANSWERS = [
    ('{"command":"ping"}', '{"status": "ok"}'),
    ('{"command":"ping","id":5}', '{"id": 5, "status": "ok"}'),
    (
        '{"id":18446744073709551615,"command":"ping"}',
        '{"id": 18446744073709551615, "status": "ok"}',
    ),
    # The id comes back as an unsigned number, whatever it was.
    ('{"command":"ping","id":null}', '{"status": "ok"}'),
    ('{"command":"ping","id":"abc"}', '{"id": 0, "status": "ok"}'),
    ('{"command":"ping","id":true}', '{"id": 0, "status": "ok"}'),
    ('{"command":"ping","id":[1]}', '{"id": 0, "status": "ok"}'),
    ('{"command":"ping","id":-1}', '{"id": 18446744073709551615, "status": "ok"}'),
    ('{"command":"ping","id":2.9}', '{"id": 2, "status": "ok"}'),
    (
        '{"command":"Ping","id":1}',
        '{"id": 1, "message": "unknown command \'Ping\'", "status": "error"}',
    ),
    ('{"command":"ping "}', '{"message": "unknown command \'ping \'", "status": "error"}'),
    ('{"command":5}', '{"message": "unknown command \'\'", "status": "error"}'),
    ("[1, 2]", '{"message": "unknown command \'\'", "status": "error"}'),
    (" true", '{"message": "unknown command \'\'", "status": "error"}'),
    (" null", '{"message": "Cannot decode JSON: ", "status": "error"}'),
    ('{"id":3', '{"message": "Cannot decode JSON: unexpected end of input", "status": "error"}'),
]


def test_answers_are_exact_to_the_byte():
    came = []
    host = Host(on_text=came.append, checks_requests=False)
    host.send(*(request.encode() for request, _ in ANSWERS))
    for request, wanted in ANSWERS:
        host.response()
        assert came.pop(0) == wanted, request


def test_a_frame_of_2_gib_ends_the_helper_before_its_text_comes(host):
    host.requests.write(b"\0\0\0\x80{}")
    host.requests.flush()
    assert host.child.wait(DEADLINE) == 0


def test_prompts_of_lldb_take_no_lines_of_the_console():
    lines = (
        "breakpoint set -n main",
        "breakpoint delete",
        "breakpoint command add 1",
        "command script add x",
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


def shown(request, answer):
    return b"INPUT: " + request + b"\nOUTPUT: " + json.dumps(answer).encode()


CONSOLE_LINES = {
    "an empty line is a request": (
        b"\n" + PING + b"\n",
        shown(b"\n", NOTHING_TO_DECODE) + shown(PING + b"\n", OK),
    ),
    "1,022 bytes and a line end fit": (padded(1022) + b"\n", shown(padded(1022) + b"\n", OK)),
    "after 1,023 bytes the line end is a request of its own": (
        padded(1023) + b"\n",
        shown(padded(1023), OK) + shown(b"\n", NOTHING_TO_DECODE),
    ),
    "the 1,024th byte begins another request": (
        padded(1023) + b"7\n",
        shown(padded(1023), OK) + shown(b"7\n", error("unknown command ''")),
    ),
    "1,023 bytes at the end of input": (padded(1023), shown(padded(1023), OK)),
}


@pytest.mark.parametrize("typed, wanted", CONSOLE_LINES.values(), ids=CONSOLE_LINES)
def test_a_console_line_has_at_most_1023_bytes(typed, wanted):
    assert output_of([], typed) == wanted


@pytest.mark.parametrize("arguments", (["7"], ["7", "8", "9"], ["--helpful"]))
def test_arguments_that_are_no_two_descriptors_make_a_console(arguments):
    assert output_of(arguments, PING) == shown(PING, OK)


@pytest.mark.parametrize(
    "option, words",
    [("--help", b"usage: lldb-helper INPUT OUTPUT"), ("--version", b"lldb-helper 0.")],
)
def test_help_and_version_are_printed_without_a_session(option, words):
    assert output_of([option], b"").startswith(words)


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


VALUES = (None, True, -1, 0.5, 1e300, 2**64 - 1, "text", '"', "a" * 5000, [None, 7], {"a": 1})


@pytest.mark.slow
@pytest.mark.parametrize("has_process", (False, True), ids=("no process", "a process"))
def test_every_command_survives_arguments_of_every_kind(host, has_process):
    """None ends the helper or goes without an answer."""
    requests = SCHEMA["$defs"]["requests"]
    names = {name for request in requests.values() for name in request["properties"]}
    host.checks_requests = False
    for value in VALUES:
        if has_process:
            host.launch("wait")
        arguments = dict.fromkeys(names - {"command", "id", "pid"}, value)
        # From the last to the first: those that end a process come after those that look into it.
        for command in reversed(requests):
            if command != "connectRemote" or value == "text":  # it takes seconds each time
                host.ask_all(arguments | {"command": command})
        host.ask("deleteProcess")
        list(host.rest())


# Why a command is refused that needs this: without a target, with one, and with a process.
# "" means that it is not, and None that it would change the session.
REFUSALS = {
    "nothing": ("", "", ""),
    "no target": (None, "process already exists", "process already exists"),
    "no process": (None, None, "already has a process"),
    "a target": ("no target", "", ""),
    "a process": ("no process", "no process", None),
    "a target, then a process": ("no target", "no process", None),
}


def test_the_reference_the_schema_and_the_program_have_the_same_commands(host):
    """With the same arguments and needs."""
    parts = SCHEMA["$defs"]
    requests, pairs = parts["requests"], parts["pairs"]
    # The lists that code generators read. The request loop has responses of its own.
    listed = [reference["$ref"].split("/")[-1] for reference in parts["request"]["anyOf"]]
    answered = [reference["$ref"].split("/")[-1] for reference in parts["response"]["anyOf"]]
    assert set(requests) == set(listed) == set(pairs["properties"]) == set(pairs["required"])
    assert set(requests) == set(answered) - {"*"} == set(parts["responses"]) - {"*"}
    page = read(f"{SOURCE}/docs/protocol.md")
    rows = re.findall(r"^\| ([\w, ]+) \| ([\w, ]+) \| ", page, re.M)
    needs = {name: need for names, need in rows for name in names.split(", ") if need in REFUSALS}
    sections = re.findall(r"^### (.*)\n([^#]*)", page, re.M)
    described = {name: text for heading, text in sections for name in re.findall(r"\w+", heading)}
    assert len(requests) == 32, "README.md and docs/beyond.md say how many there are, too"
    assert set(requests) == set(needs) <= set(described)
    # A command of the program alone would answer none of the requests here.
    table = re.findall(r'^    {"(\w+)", ', read(f"{SOURCE}/src/channel/Dispatcher.cpp"), re.M)
    assert table == [name for name in described if name in requests], "rows and sections, in order"
    for name, request in requests.items():
        for argument in set(request["properties"]) - {"command", "id"}:
            assert f"`{argument}`" in described[name], f"{name} lacks {argument}"

    host.checks_requests = False
    reasons = {reason for row in REFUSALS.values() for reason in row if reason}
    for number in range(3):
        if number == 1:
            host.ask("connectRemote", plugin="none", file=inferior("hello"))  # leaves a target
        if number == 2:
            host.ok("connectRemote", **stub())
        for name, need in needs.items():
            if REFUSALS[need][number] is not None:
                message = host.ask(name).get("message", "")
                reason = message if message in reasons else ""
                assert reason == REFUSALS[need][number], name
                assert not message.startswith("unknown command"), name


@pytest.mark.linux("the shim records what goes to syslog")
def test_the_log_has_what_was_refused_and_which_states_came():
    file = os.path.join(tempfile.mkdtemp(), "log")
    host = Host(env=linux.shim(SYSLOG_FILE=file), checks_requests=False)
    launch = {"command": "prepareExecutable", "path": inferior("hello"), "triple": ""}
    attach = {"command": "attachToProcess", "pid": 2**22 + 1}
    connection = {"command": "connectRemote", "plugin": "kdp-remote", "url": "a url"}
    host.ask_all({"command": "x%s%n"}, "getProcessState", launch, "createProcess", "deleteProcess")
    host.ask_all(attach, connection)
    # The kernel's plug-in is reached by LLDB's command line, which creates the target too.
    host.ask_all(connection | {"file": inferior("hello")})
    assert host.ask("getProcessState") == error("no process")
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
    "lldb-server": ("steps-fixed", "", [machine.LLDB_SERVER, "gdbserver", "127.0.0.1:PORT"]),
    "GNU gdbserver": ("steps-fixed", "", ["gdbserver", "127.0.0.1:PORT"]),
    # -R: the program's addresses are QEMU's own choice. Otherwise they are the host's, which differ
    # from run to run.
    "QEMU with a program of another architecture": (
        "steps-aarch64",
        "aarch64-unknown-linux-gnu",
        ["qemu-aarch64", "-R", "0x100000000", "-seed", "1", "-g", "PORT"],
    ),
}


@pytest.mark.linux("macOS has a debug server of its own")
@pytest.mark.parametrize("program, triple, command", SERVERS.values(), ids=SERVERS)
def test_a_server_of_each_maker_is_debugged(program, triple, command):
    """With the registers read at once, and one by one."""
    file = inferior(program)
    if not shutil.which(command[0]) or not os.path.exists(file):
        pytest.skip(f"{command[0]} or {program} is missing here")
    if command[0] == "gdbserver" and machine.LLDB_MAJOR < 22:
        pytest.skip("this LLDB mistakes GNU gdbserver's stops, see docs/platforms.md")
    at_once, one_by_one = (
        registers_after_debugging(file, triple, command, is_plain) for is_plain in (False, True)
    )
    assert at_once == one_by_one


def registers_after_debugging(file, triple, command, is_plain):
    """Registers, memory, a breakpoint, a step, and on to the exit."""
    leaf = machine.symbol(file, "leaf")
    pc = "pc" if triple else PC
    arguments = remote(machine.server(*command, file), file) | {"triple": triple}
    host = Host()
    assert host.cli(f"settings show {AT_ONCE}").endswith("true\n")
    if is_plain:
        host.read_registers_plainly()
    host.ok("connectRemote", **arguments, platform="ignored")
    host.state("eStateStopped")
    assert host.ask("connectRemote", **arguments) == error("already has a process")
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
