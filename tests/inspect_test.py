"""Registers, memory, call stack and modules, compared with the kernel's view and with the files."""

import os
import re

import pytest
from harness import machine
from harness.checking import NOWHERE, error
from harness.machine import PC, PLAIN, SANITIZER, VECTOR, inferior, mappings, peek, read


def program_counter(host):
    return host.stack()[0]["pc"]


@pytest.mark.linux("the ways of linking are those of ELF")
@pytest.mark.parametrize("program", ("steps", "steps-fixed", "steps-static", "steps-stripped"))
def test_steps_go_into_over_and_out_of_calls(host, program):
    """The same program, linked in ways that change the place of its code, and without symbols."""
    host.launch(program)
    host.symbols = inferior("steps") if program == "steps-stripped" else None
    leaf, middle, end = (host.address(name) for name in ("leaf", "middle", "main"))
    host.ok("setBreakpointAtVirtualAddress", address=middle)
    host.resume()
    assert program_counter(host) == middle
    while middle <= (call := program_counter(host)) < end:
        last_call = call
        host.resume(how="stepInstruction")
    assert program_counter(host) == leaf
    host.resume(how="stepOut")
    assert last_call < program_counter(host) <= last_call + 8
    seen = set()
    while middle <= (place := program_counter(host)) < end:
        seen.add(place)
        host.resume(how="stepOver")
        assert program_counter(host) != leaf, "a step over the second call went into it"
    assert len(seen) > 3


def all_registers(host):
    """After a stop, a step, and changes by the host and by LLDB; and of an outer frame."""
    host.launch("registers")
    host.run_to("filled")
    yield host.registers()
    host.resume(how="stepInstruction")
    yield host.registers()
    host.ok("setRegister", register=PLAIN, value="0x123456789abcdef")
    yield host.registers()
    value = " ".join(f"0x{byte:02x}" for byte in range(1, 17))
    host.ok("executeCommand", cli=f'register write {VECTOR} "{{{value}}}"')
    yield host.registers()
    host.ok("selectFrame", index=1)
    yield host.registers()


def test_registers_read_at_once_are_those_read_one_by_one(host):
    at_once = list(all_registers(host))
    filled, _, _, written, outer = at_once
    assert len(filled) > 50
    assert not any(name.startswith(("ymm", "zmm")) for name in filled)
    assert int(filled[PC], 16) == host.address("filled")
    assert "<error>" not in filled.values()
    assert written[VECTOR] == "0x" + bytes(range(16, 0, -1)).hex()
    # In an outer frame LLDB recovers few; of the others there is nothing to read.
    assert outer.keys() == filled.keys()
    assert outer[VECTOR] == "<error>"
    assert "0x" not in outer.values()
    host.ok("selectFrame")
    host.ok("setRegister", register=PLAIN, value="7")
    for change, value in (("add -f decimal", "7"), ("delete", "0x0000000000000007")):
        host.cli(f'type format {change} "unsigned long"')
        assert host.registers()[PLAIN] == value
    host.ok("deleteProcess")
    host.read_registers_plainly()
    for one_by_one, registers in zip(all_registers(host), at_once):
        assert registers == one_by_one


def test_a_deep_call_stack_goes_through_code_of_no_module(host):
    host.launch("recurse", "1000")
    host.run_to("bottom")
    stack = host.stack()
    functions = [frame.get("function") for frame in stack[:1003]]
    assert functions == ["bottom", None, *["recurse"] * 1000, "main"]
    assert stack[1] == {"pc": stack[1]["pc"]}
    of_program = [stack[0], *stack[2:1003]]
    assert all(frame["filename"] == "recurse" for frame in of_program)
    assert all(len(frame["uuid"]) > 10 for frame in of_program)


@pytest.mark.linux("the kernel shows the program's memory in /proc")
def test_memory_is_what_the_kernel_shows(host):
    """A byte becomes up to five bytes of text. lldb-helper holds that text twice at most."""
    host.launch("wait")
    host.run_to("main")
    pid = host.inferior_pid()
    stack = re.search(r"^(\w+)-(\w+) .*\[stack\]", read(f"/proc/{pid}/maps"), re.M)
    start, end = (int(number, 16) for number in stack.groups())
    largest = max(mappings(pid), key=lambda mapping: mapping[1] - mapping[0])
    places = [(start, 0), (start, 1), (start + 4090, 300), (end - 64, 64), (start + 1, 70000)]
    for address, length in (*places, (largest[0], largest[1] - largest[0])):
        before = peak_memory(host)
        memory = host.ok("readMemory", address=address, length=length)["memory"]
        assert bytes(memory) == peek(pid, address, length)
        allowed = before + (10 * length + (1 << 20)) // 1024
        assert SANITIZER or peak_memory(host) < allowed


def peak_memory(host):
    """Of the helper, in KiB."""
    return machine.status_figure(host.pid, "VmHWM")


@pytest.mark.linux("the kernel shows the program's memory in /proc")
def test_memory_that_cannot_be_read_costs_nothing(host):
    host.launch("wait")
    stack = re.search(r"^(\w+)-(\w+) .*\[stack\]", read(f"/proc/{host.inferior_pid()}/maps"), re.M)
    start, end = (int(number, 16) for number in stack.groups())
    before = peak_memory(host)
    places = [(end - 8, 16), (end, 16), (0, 16)]
    lengths = [(start, length) for length in (-1, -(2**31), 2**31 - 1)]
    for address, length in places + lengths:
        answer = host.ask("readMemory", address=address, length=length)
        assert answer == error("unable to read memory")
    assert SANITIZER or peak_memory(host) < before + 64 * 1024


BYTES = [(255, 255), (256, 0), (511, 255), (-1, 255), (128, 128), ("7", 0), (1.9, 1), (2**32, 0)]


def test_of_a_written_value_the_low_byte_counts(host):
    host.launch("steps")
    host.run_to("leaf")
    host.checks_requests = False
    counted = host.address("counted")
    for value, byte in BYTES:
        host.ok("writeByte", address=counted, value=77)
        host.ok("writeByte", address=counted, value=value)
        memory = host.ok("readMemory", address=counted, length=2)["memory"]
        assert memory == [byte, 0], value
    message = host.ask("writeByte", address=16, value=1)["message"]
    assert message.startswith("unable to write memory: ")
    assert message.endswith(" (state eStateStopped)")


def modules_of(host):
    count = host.ok("moduleCount")["count"]
    return [host.ok("moduleAtIndex", index=index)["module"] for index in range(count)]


@pytest.mark.linux("the kernel shows where files are mapped in /proc")
def test_modules_lie_where_the_kernel_put_them(host):
    host.launch("steps")
    host.run_to("main")
    bases = {
        os.path.basename(file): start
        for start, _, offset, file in mappings(host.inferior_pid())
        if offset == 0
    }
    modules = modules_of(host)
    assert all(module["is_valid"] for module in modules)
    compared = 0
    for module in modules:
        for section in module["sections"]:
            if section["loadAddr"] != NOWHERE and module.get("filename") in bases:
                assert section["loadAddr"] - section["fileAddr"] == bases[module["filename"]]
                compared += 1
    assert compared > 5
    steps = host.ok("moduleForFile", file=host.program)["module"]
    # What is not loaded has no size in memory, but one in the file.
    debug = next(part for part in steps["sections"] if part.get("name") == ".debug_info")
    assert debug["loadAddr"] == NOWHERE
    assert debug["byteSize"] == 0 < debug["fileByteSize"]


def test_a_module_is_found_by_index_and_by_file(host):
    host.checks_requests = False
    host.launch("steps")
    modules = modules_of(host)
    steps = host.ok("moduleForFile", file=host.program)["module"]
    assert steps["filename"] == "steps"
    assert steps in modules
    for index in (len(modules), -1):
        assert host.ask("moduleAtIndex", index=index) == error("index out of range")
    assert host.ok("moduleAtIndex", index=2**32)["module"] == modules[0]
    for file in ("", "/nowhere"):
        assert host.ask("moduleForFile", file=file) == error("can't find module")


@pytest.mark.linux("the kernel shows where the library is mapped in /proc")
def test_a_library_comes_and_goes(host):
    library = inferior("libplugin.so")
    host.launch("loader", f'"{library}"')
    host.run_to("opened")
    host.ok("moduleForFile", file=library)
    # LLDB 14 may report a library twice, the first time before it has placed it.
    reports = [message for message in host.history if message.get("type") == "moduleLoaded"]
    loaded = [module for report in reports for module in report["modules"]]
    plugin = [module for module in loaded if module["file"] == "libplugin.so"][-1]
    assert os.path.join(plugin["directory"], plugin["file"]) == library
    assert plugin["slide"] == machine.image_base(host.inferior_pid(), library)
    assert plugin["loadAddress"] - plugin["fileAddress"] == plugin["slide"]
    host.history.clear()
    host.run_to("done")
    assert {"modules": [], "status": "event", "type": "moduleUnloaded"} in host.history
    assert host.ask("moduleForFile", file=library) == error("can't find module")
