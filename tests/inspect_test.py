"""Registers, memory, call stack and modules, compared with the kernel's view and with the files."""

import os
import re

from harness.host import error
from harness.machine import (
    PC,
    PLAIN,
    SANITIZER,
    VECTOR,
    image_base,
    inferior,
    mappings,
    peek,
    read,
    status_figure,
)


NOWHERE = 2**64 - 1  # LLDB's invalid address


def test_steps_go_into_over_and_out_of_calls(host):
    """The same program, linked in ways that change the place of its code, and without symbols."""
    for program in ("steps", "steps-fixed", "steps-static", "steps-stripped"):
        host.launch(program)
        host.symbols = inferior("steps") if program == "steps-stripped" else None
        leaf, middle, end = (host.address(name) for name in ("leaf", "middle", "main"))
        pc = lambda: host.stack()[0]["pc"]
        host.ok("setBreakpointAtVirtualAddress", address=middle)
        host.resume()
        assert pc() == middle, program
        while middle <= pc() < end:
            call = pc()
            host.resume(how="stepInstruction")
        assert pc() == leaf, program
        host.resume(how="stepOut")
        assert call < pc() <= call + 8, f"{program}: {pc():x} is not after the call at {call:x}"
        seen = set()
        while middle <= pc() < end:
            seen.add(pc())
            host.resume(how="stepOver")
            assert pc() != leaf, f"{program}: a step over the second call went into it"
        assert len(seen) > 3, seen
        host.ok("deleteProcess")


def all_registers(host):
    """After a stop, a step, and changes by the host and by LLDB's command line; and of an outer frame."""
    registers = lambda: host.ok("getRegisters")["registers"]
    host.launch("registers")
    host.run_to("filled")
    yield registers()
    host.resume(how="stepInstruction")
    yield registers()
    host.ok("setRegister", register=PLAIN, value="0x123456789abcdef")
    yield registers()
    value = " ".join(f"0x{byte:02x}" for byte in range(1, 17))
    host.ok("executeCommand", cli=f'register write {VECTOR} "{{{value}}}"')
    yield registers()
    host.ok("selectFrame", index=1)
    yield registers()


def test_registers_read_at_once_are_those_read_one_by_one(host):
    at_once = list(all_registers(host))
    filled, _, _, written, outer = at_once
    assert len(filled) > 50 and not any(name.startswith(("ymm", "zmm")) for name in filled), filled
    assert (int(filled[PC], 16), "<error>" in filled.values()) == (host.address("filled"), False)
    assert written[VECTOR] == "0x" + bytes(range(16, 0, -1)).hex()
    # In an outer frame LLDB recovers few; of the others there is nothing to read.
    assert (outer.keys(), outer[VECTOR], "0x" in outer.values()) == (
        filled.keys(),
        "<error>",
        False,
    )
    host.ok("selectFrame")
    host.ok("setRegister", register=PLAIN, value="7")
    for change, value in (("add -f decimal", "7"), ("delete", "0x0000000000000007")):
        host.cli(f'type format {change} "unsigned long"')
        assert host.ok("getRegisters")["registers"][PLAIN] == value
    host.ok("deleteProcess")
    host.read_registers_plainly()
    for one_by_one, registers in zip(all_registers(host), at_once):
        assert registers == one_by_one


def test_a_deep_call_stack_through_code_of_no_module(host):
    host.launch("recurse", "1000")
    host.run_to("bottom")
    packets = os.environ["TMPDIR"] + "/packets"
    host.cli(f"log enable -f '{packets}' gdb-remote packets")
    stack = host.stack()
    host.cli("log disable gdb-remote")
    assert (
        len(re.findall(r"^(?!.*history).* send packet: ", read(packets), re.M)) < 24
    ), "it is read in large pieces"
    assert [frame.get("function") for frame in stack[:1003]] == [
        "bottom",
        None,
        *["recurse"] * 1000,
        "main",
    ]
    assert stack[1] == {"pc": stack[1]["pc"]}
    names = [(frame["filename"], len(frame["uuid"]) > 10) for frame in (stack[0], *stack[2:])]
    assert names == [("recurse", True)] * 1002 + [("libc.so.6", True)] * (len(stack) - 1004) + [
        ("recurse", True)
    ]


def test_memory_is_what_the_kernel_shows(host):
    """A byte of memory becomes up to five bytes of text. lldb-helper holds that text twice at most."""
    host.launch("wait")
    host.run_to("main")
    pid, peak = host.inferior_pid(), lambda: status_figure(host.pid, "VmHWM")
    start, end = (
        int(number, 16)
        for number in re.search(
            r"^(\w+)-(\w+) .*\[stack\]", read(f"/proc/{pid}/maps"), re.M
        ).groups()
    )
    large = max(
        (file_end - file_start, file_start) for file_start, file_end, _, _ in mappings(pid)
    )[::-1]
    for address, length in (
        (start, 0),
        (start, 1),
        (start + 4090, 300),
        (end - 64, 64),
        (start + 1, 70000),
        large,
    ):
        before, memory = peak(), host.ok("readMemory", address=address, length=length)["memory"]
        assert bytes(memory) == peek(pid, address, length), (address - start, length)
        assert (
            SANITIZER or peak() < before + (10 * length + (1 << 20)) // 1024
        ), f"a peak of {peak()} KiB after {before}"
    before = peak()
    for address, length in (
        (end - 8, 16),
        (end, 16),
        (0, 16),
        (start, -1),
        (start, -(2**31)),
        (start, 2**31 - 1),
    ):
        assert host.ask("readMemory", address=address, length=length) == error(
            "unable to read memory"
        )
    assert SANITIZER or peak() < before + 64 * 1024, f"a peak of {peak()} KiB after {before}"
    host.checks_requests = False
    for value, byte in (
        (255, 255),
        (256, 0),
        (511, 255),
        (-1, 255),
        (128, 128),
        ("7", 0),
        (1.9, 1),
        (2**32, 0),
    ):
        host.ok("writeByte", address=start, value=77)
        host.ok("writeByte", address=start, value=value)
        assert (host.ok("readMemory", address=start, length=1)["memory"], peek(pid, start, 2)) == (
            [byte],
            bytes([byte, 0]),
        ), value
    message = host.ask("writeByte", address=16, value=1)["message"]
    assert message.startswith("unable to write memory: ") and message.endswith(
        " (state eStateStopped)"
    ), message


def test_modules_lie_where_the_kernel_put_them(host):
    host.checks_requests = False
    host.launch("steps")
    host.run_to("main")
    bases = {
        os.path.basename(file): start
        for start, _, offset, file in mappings(host.inferior_pid())
        if offset == 0
    }
    count = host.ok("moduleCount")["count"]
    modules = [host.ok("moduleAtIndex", index=index)["module"] for index in range(count)]
    loaded = [(module["filename"], section) for module in modules for section in module["sections"]
              if section["loadAddr"] != NOWHERE and module.get("filename") in bases]  # fmt: skip
    assert len(loaded) > 5 and all(module["is_valid"] for module in modules), modules
    for name, section in loaded:
        assert section["loadAddr"] - section["fileAddr"] == bases[name], section
    steps = host.ok("moduleForFile", file=host.program)["module"]
    assert steps["filename"] == "steps" and steps in modules, steps
    # What is not loaded has no size in memory, but one in the file.
    debug = next(section for section in steps["sections"] if section.get("name") == ".debug_info")
    assert debug["loadAddr"] == NOWHERE and debug["byteSize"] == 0 < debug["fileByteSize"], debug
    for index in (count, -1):
        assert host.ask("moduleAtIndex", index=index) == error("index out of range")
    assert host.ok("moduleAtIndex", index=2**32)["module"] == modules[0]
    for file in ("", "/nowhere"):
        assert host.ask("moduleForFile", file=file) == error("can't find module")


def test_a_library_comes_and_goes(host):
    library = inferior("libplugin.so")
    host.launch("loader", f'"{library}"')
    host.run_to("opened")
    host.ok("moduleForFile", file=library)
    # LLDB 14 may report a library twice, the first time before it has placed it.
    loaded = [
        module
        for event in host.history
        if event.get("type") == "moduleLoaded"
        for module in event["modules"]
    ]
    plugin = [module for module in loaded if module["file"] == "libplugin.so"][-1]
    assert os.path.join(plugin["directory"], plugin["file"]) == library
    assert plugin["slide"] == image_base(host.inferior_pid(), library)
    assert plugin["loadAddress"] - plugin["fileAddress"] == plugin["slide"]
    host.history.clear()
    host.run_to("done")
    assert {
        "modules": [],
        "status": "event",
        "type": "moduleUnloaded",
    } in host.history, host.history
    assert host.ask("moduleForFile", file=library) == error("can't find module")
