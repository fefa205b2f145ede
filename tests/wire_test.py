"""Bytes on the wire, the console, the log, and debug servers of several makers."""

import json
import os
import re
import shutil
import subprocess
import tempfile

import pytest

from harness.host import AT_ONCE, OK, SCHEMA, error, frame
from harness.machine import (
    CACHE,
    DEADLINE,
    HELPER,
    LLDB_VERSION,
    PC,
    SOURCE,
    inferior,
    read,
    server,
    shim,
    symbol,
)


PING = b'{"command":"ping"}'
NOTHING = "Cannot decode JSON: unexpected end of input"


def said(arguments, data):
    """What a helper with these arguments and this standard input writes to its standard output."""
    command = [HELPER, *arguments]
    return subprocess.run(
        command, input=data, stdout=subprocess.PIPE, timeout=DEADLINE, check=True
    ).stdout


def test_frames_that_no_page_can_show(start_host):
    for data, answers in (
        (frame(b""), [error(NOTHING)]),
        (frame(b"\0"), [error(NOTHING)]),
        (frame(PING + b"\0garbage"), [OK]),
        (frame(b'{"command":"\xff\n"}'), [error("Cannot decode JSON: unescaped (10) in string")]),
        (
            frame(b'{"command":"\xff"}'),
            [{"message": "unknown command '\udcff'", "status": "error"}],
        ),
        # The end of input ends the program in order, wherever it comes, and is not answered.
        (b"", []),
        (b"\5\0", []),
        (b'\5\0\0\0{"co', []),
        (b"\xff\xff\xff\xff{}", []),  # 4 GiB less a byte
        (b"\0\0\0\x80{}" + frame(PING), []),  # 2 GiB
        (b"\xff\xff\xff\x7f{}", []),  # 2 GiB less a byte, of which two come
        (frame(PING) + b"\5", [OK]),
    ):
        wanted = b"".join(
            frame(json.dumps(answer, ensure_ascii=False).encode(errors="surrogateescape"))
            for answer in answers
        )
        assert said(["0", "1"], data) == wanted, data
    host = start_host()
    host.requests.write(b"\0\0\0\x80{}")  # is refused before the rest of its text comes
    host.requests.flush()
    assert host.child.wait(DEADLINE) == 0


def test_the_console():
    for arguments in ([], ["7"], ["7", "8", "9"]):
        assert said(arguments, PING) == b'INPUT: {"command":"ping"}\nOUTPUT: {"status": "ok"}'
    # Prompts do not take lines.
    lines = (
        "breakpoint set -n main",
        "breakpoint delete",
        "script",
        "expression",
        "platform shell cat",
    )
    typed = "".join(
        json.dumps({"command": "executeCommand", "cli": line}) + "\n" + PING.decode() + "\n"
        for line in lines
    )
    assert said([HELPER], typed.encode()).count(b'OUTPUT: {"status": "ok"}') == len(lines)


def test_a_person_at_the_terminal_is_greeted():
    for option, words in (
        ("--help", b"usage: lldb-helper INPUT OUTPUT"),
        ("--version", b"lldb-helper 0."),
    ):
        assert said([option], b"").startswith(words), option
    assert (
        said(["--helpful"], b"null")
        == b'INPUT: null\nOUTPUT: {"message": "Cannot decode JSON: ", "status": "error"}'
    )
    terminal, its_end = os.openpty()
    os.write(terminal, b"\x04")
    run = subprocess.run([HELPER], stdin=its_end, capture_output=True, timeout=DEADLINE, check=True)
    assert (run.stdout, run.stderr.count(b"\n"), b"Ctrl-D" in run.stderr) == (b"", 2, True)


def test_descriptors_that_cannot_be_used():
    for arguments in (["77", "78"], ["0", "78"], ["77", "1"], ["-1", "1"]):
        read, write = os.pipe()  # the requests' end can be read, not written
        run = subprocess.run(
            [HELPER, *arguments], stdin=read, capture_output=True, timeout=DEADLINE
        )
        complaint = f"lldb-helper: cannot use descriptors {arguments[0]} and {arguments[1]} as input and output\n"
        assert (run.returncode, run.stderr.decode()) == (1, complaint)


def test_commands_without_a_target_or_a_process(host):
    free = "ping prepareExecutable createProcess attachToProcess executeCommand completeCommand connectRemote".split()
    no_target = "getProcessState continueExecution removeBreakpoint removeAllBreakpoints setBreakpointAtVirtualAddress".split()
    for command in SCHEMA["$defs"]["requests"].keys() - free:
        assert host.ask(command) == error(
            "no target" if command in no_target else "no process"
        ), command


def test_every_command_takes_arguments_of_every_kind(host):
    """None ends the helper or goes without an answer, with a process or without."""
    requests = SCHEMA["$defs"]["requests"]
    arguments = {name for request in requests.values() for name in request["properties"]} - {
        "command",
        "id",
        "pid",
    }
    host.checks_requests = False
    for has_process in (False, True):
        for value in (
            None,
            True,
            -1,
            0,
            0.5,
            1e300,
            2**64 - 1,
            "text",
            "",
            '"',
            "a" * 5000,
            [],
            [None, "x", 7],
            {"a": 1},
        ):
            if has_process:
                host.launch("wait")
            # From the last to the first: those that end a process come after those that look into it.
            for command in list(requests)[::-1]:
                if command != "connectRemote" or value == "text":  # it takes seconds each time
                    host.ask_all(dict.fromkeys(arguments, value) | {"command": command})
            host.ask("deleteProcess")
            list(host.rest())


def test_the_reference_the_schema_and_the_table_name_the_same_commands():
    code, table = read(f"{SOURCE}/src/channel/Dispatcher.cpp").split("const Command commands[]")
    rows = re.split(r'\{"(\w+)",', table)
    in_code = {
        name: set(re.findall(r'r\["(\w+)"\]', row)) for name, row in zip(rows[1::2], rows[2::2])
    }
    in_code["prepareExecutable"] = set(
        re.findall(r'request\["(\w+)"\]', code)
    )  # the row with a function of its own
    in_code["connectRemote"].add("platform")  # part of the request, not used
    in_schema = {
        name: set(part["properties"]) - {"command", "id"}
        for name, part in SCHEMA["$defs"]["requests"].items()
    }
    assert (in_code, list(in_code)) == (in_schema, list(in_schema))
    page = read(f"{SOURCE}/docs/protocol.md")
    sections = re.split(
        r"\n### (.*)\n", page[page.index("\n## Commands") : page.index("\n## Events")]
    )
    in_page = {
        name: text
        for heading, text in zip(sections[1::2], sections[2::2])
        for name in re.findall(r"\w+", heading)
    }
    assert (set(in_page), len(in_page)) == (set(in_schema), 32)
    assert {
        (name, word)
        for name, words in in_schema.items()
        for word in words
        if f"`{word}`" not in in_page[name]
    } == set()


def test_the_log(start_host):
    """A connection is watched for a second. A kernel is reached through two command lines."""
    refused = [
        *(f"step {step}: eState" for step in range(10)),
        "Error in connectRemote: cannot connect to remote, invalid process",
    ]
    true = {"command": "prepareExecutable", "path": "/bin/true", "triple": ""}
    for requests, wanted in (
        (["ping", "hasProcess", "getProcessState", {"command": "x%s%n"}, true | {"is64Bits": True}, "createProcess",
          "deleteProcess", true],
         ["Error in hasProcess: no process", "Error in getProcessState: no target",
          "Error in handleRequest: unknown command 'x%s%n'", "Preparing executable /bin/true, 64bit", "Building launchinfo\n",
          "About to launch target\n", "Restarting event thread\n", "Starting to wait for process to change state",
          "Process current state eStateStopped\n", "Process is ready with final state eStateStopped\n",
          "Preparing executable /bin/true, 32bit", "State changed to eStateStopped"]),
        ([{"command": "connectRemote", "plugin": "gdb-remote", "url": "no-such-scheme://"}],
         [*refused[:10], "Cannot connect: ", refused[10]]),
        ([{"command": "connectRemote", "plugin": "kdp-remote", "url": "a url", "file": "/bin/true"}],
         ['target create "/bin/true"\n', 'process connect --plugin kdp-remote "a url"\n', *refused]),
        ([{"command": "attachToProcess", "pid": 2**22 + 1}],
         [f"About to attach to process {2**22 + 1}", "Error in attachToProcess: cannot attach to process: "]),
    ):  # fmt: skip
        file = os.path.join(tempfile.mkdtemp(), "log")
        host = start_host(env=shim(SYSLOG_FILE=file), checks_requests=False)
        for request in requests:
            host.ask_all(request)
        assert host.close() == 0
        user, notice = 8, 5
        wanted = [
            "\n\n-------------- STARTING --------------\n",
            "Debugger version: lldb version ",
            *wanted,
        ]
        logged = read(file).split("\x1e")[:-1]
        # The event thread's records fall where they fall.
        logged.sort(key=lambda record: "State changed to " in record)
        starts = [f"lldb-helper {user | notice} {text}" for text in wanted]
        assert len(logged) == len(wanted) and all(map(str.startswith, logged, starts)), logged


def debug_through(start_host, pc, file, triple, *command):
    """Registers, memory, a breakpoint, a step, and on to the exit: with the registers read at once, and one by one."""
    if not shutil.which(command[0]) or not os.path.exists(file):
        pytest.skip(f"{command[0]} or {os.path.basename(file)} is missing here")
    seen, leaf = [], symbol(file, "leaf")
    for is_plain in (False, True):
        program, port = server(*command)
        host = start_host()
        assert host.cli(f"settings show {AT_ONCE}").endswith("true\n"), "the setting is LLDB's"
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
        registers, frame = host.ok("getRegisters")["registers"], host.stack()[0]
        assert (int(registers[pc].split()[0], 16), frame["pc"], frame["function"]) == (
            leaf,
            leaf,
            "leaf",
        )
        assert host.ok("readMemory", address=leaf, length=4) == code
        assert host.ok("getThreadIDList")["threads"][0]["state"] == "Breakpoint"
        host.resume(how="stepInstruction")
        seen.append((registers, host.ok("getRegisters")["registers"]))
        assert seen[-1][1][pc] != registers[pc], "it has not stepped"
        host.ok("removeAllBreakpoints")
        host.resume("eStateExited")
    assert seen[0] == seen[1]


def test_lldb_server(start_host):
    program = inferior("steps-fixed")
    debug_through(
        start_host, PC, program, "", CACHE["LLDB_SERVER"], "gdbserver", "127.0.0.1:PORT", program
    )


def test_gnu_gdbserver(start_host):
    if LLDB_VERSION < 22:
        pytest.skip("this LLDB mistakes GNU gdbserver's stops, see docs/platforms.md")
    program = inferior("steps-fixed")
    debug_through(start_host, PC, program, "", "gdbserver", "127.0.0.1:PORT", program)


def test_qemu_with_a_program_of_another_architecture(start_host):
    program = inferior("steps-aarch64")
    debug_through(
        start_host,
        "pc",
        program,
        "aarch64-unknown-linux-gnu",
        "qemu-aarch64",
        "-seed",
        "1",
        "-g",
        "PORT",
        program,
    )
