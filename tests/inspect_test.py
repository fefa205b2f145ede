"""Registers, memory, call stack and modules, compared with the kernel's view and with the files."""

import os
import struct
import tempfile

import pytest
from harness import linux, machine
from harness.checking import NOWHERE, OK, error
from harness.linux import mappings, peek
from harness.machine import PC, PLAIN, SANITIZER, VECTOR, Program, descendants, eventually, inferior


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
    assert host.ok("getThreadIDList")["threads"][0]["state"] == "Plan Complete"
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


def start_static(host):
    host.launch("steps-static")
    host.run_to("leaf")


def start_by_exec(host):
    host.launch("/bin/sh", f"-c \"exec '{inferior('registers')}'\"")
    host.resume()
    assert host.ok("getThreadIDList")["threads"][0]["state"] == "Exec"


def start_with_32_bits(host):
    if not os.path.exists(inferior("bare")):
        pytest.skip("no program with 32 bits: it is built on x86-64 only")
    host.launch("bare")


def start_attached(host):
    host.ok("attachToProcess", pid=Program(inferior("wait")).pid)
    host.state("eStateStopped")


@pytest.mark.linux("static programs, and a shell that may be debugged")
@pytest.mark.parametrize("start", [start_static, start_by_exec, start_with_32_bits, start_attached])
def test_registers_are_whole_however_the_program_was_started(host, start):
    start(host)
    registers = host.registers()
    assert len(registers) > 50
    pc = PC if PC in registers else "eip"
    assert int(registers[pc], 16) == program_counter(host)
    host.read_registers_plainly()
    assert host.registers() == registers


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


def test_a_call_stack_has_frames_that_are_inlined_tail_calls_and_a_signal_handlers(host):
    host.launch("frames")
    host.run_to("stop")
    functions = [frame.get("function") for frame in host.stack()]
    assert functions[:5] == ["stop", "inlined", "outer", "tail", "handler"]
    assert "main" in functions


@pytest.mark.linux("the kernel's own code in a process is Linux's")
def test_a_frame_in_the_kernels_own_code_belongs_to_its_module(host):
    host.launch("wait")
    host.run_to("main")
    vdso = next(module for module in modules_of(host) if module["filename"] == "[vdso]")
    loaded = next(part for part in vdso["sections"] if part["loadAddr"] != NOWHERE)
    host.cli(f"register write {PC} {loaded['loadAddr']}")
    frame = host.stack()[0]
    assert (frame["filename"], frame["uuid"]) == ("[vdso]", vdso["uuid"])
    list(host.rest())
    host.cli("target modules load --file [vdso] --slide 4096")  # LLDB reports what it has placed
    (reported,) = host.next_event()["modules"]
    assert (reported["directory"], reported["file"]) == ("", "[vdso]")


def peak_memory(host):
    """Of the helper, in KiB."""
    return linux.status_figure(host.pid, "VmHWM")


@pytest.mark.linux("the kernel shows the program's memory in /proc")
def test_memory_is_read_as_the_kernel_shows_it(host):
    """A byte becomes up to five bytes of text. lldb-helper holds that text twice at most."""
    host.launch("wait")
    host.run_to("main")
    pid = host.inferior_pid()
    start, end = next((start, end) for start, end, file in mappings(pid) if file == "[stack]")
    files = [(start, end - start) for start, end, file in mappings(pid) if file.startswith("/")]
    largest = max(files, key=lambda file: file[1])
    before = peak_memory(host)
    lengths = [(start, length) for length in (-1, -(2**31), 2**31 - 1)]
    for address, length in (*lengths, (end - 8, 16), (end, 16), (0, 16)):
        answer = host.ask("readMemory", address=address, length=length)
        assert answer == error("unable to read memory")
    assert SANITIZER or peak_memory(host) < before + 64 * 1024, "what cannot be read takes memory"
    places = [(start, 0), (start, 1), (start + 4090, 300), (end - 64, 64), (start + 1, 70000)]
    for address, length in (*places, largest):
        before = peak_memory(host)
        memory = host.ok("readMemory", address=address, length=length)["memory"]
        assert bytes(memory) == peek(pid, address, length)
        assert SANITIZER or peak_memory(host) < before + (10 * length + (1 << 20)) // 1024


BYTES = [(255, 255), (256, 0), (511, 255), (-1, 255), (128, 128), ("7", 0), (1.9, 1), (2**32, 0)]


def test_a_write_takes_the_low_byte_of_any_value(host):
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
    images = sorted(mappings(host.inferior_pid()), reverse=True)
    bases = {os.path.basename(file): start for start, _, file in images}
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
    here = os.path.basename(os.getcwd())
    relative = os.path.join("..", here, os.path.relpath(host.program))
    for file in (relative, "steps"):
        assert host.ok("moduleForFile", file=file)["module"] == steps
    for index in (len(modules), -1):
        assert host.ask("moduleAtIndex", index=index) == error("index out of range")
    assert host.ok("moduleAtIndex", index=2**32)["module"] == modules[0]
    for file in ("", "/nowhere"):
        assert host.ask("moduleForFile", file=file) == error("can't find module")


def program_without_sections():
    """A file that has a header, one segment, and one instruction, which jumps to itself."""
    header_size, segment_size = 64, 56
    start = header_size + segment_size
    code = bytes.fromhex("00000014" if machine.IS_ARM else "ebfe")
    size = start + len(code)
    shared_object, machine_number = 3, 183 if machine.IS_ARM else 62
    sizes = (header_size, segment_size, 1, 0, 0, 0)
    places = (start, header_size, 0)
    header = struct.pack("<HHIQQQI6H", shared_object, machine_number, 1, *places, 0, *sizes)
    load, readable_and_executable, alignment = 1, 5, 0x1000
    segment = struct.pack("<2I6Q", load, readable_and_executable, 0, 0, 0, size, size, alignment)
    identification = b"\x7fELF" + bytes([2, 1, 1]) + bytes(9)
    path = f"{tempfile.mkdtemp()}/sectionless"
    with open(path, "wb") as file:
        file.write(identification + header + segment + code)
    os.chmod(path, 0o755)
    return path


@pytest.mark.linux("an ELF file may have no sections")
def test_a_module_without_sections_is_reported_without_a_place(host):
    file = program_without_sections()
    program = Program(file, speaks=False)
    eventually(lambda: descendants(os.getpid(), "sectionless"), "it runs")
    assert host.ask("attachToProcess", pid=program.pid, executable=file) == OK
    host.state("eStateStopped")
    host.ok("deleteProcess")

    host.launch("hello")
    host.history.clear()
    host.cli(f"target modules add '{file}'")
    directory, name = os.path.split(file)
    module = {"filename": name, "is_valid": True, "sections": []}  # and no UUID
    assert host.ok("moduleForFile", file=file) == {"module": module}
    place = {"fileAddress": NOWHERE, "loadAddress": NOWHERE, "slide": 0}
    assert host.next_event()["modules"] == [{"directory": directory, "file": name} | place]


@pytest.mark.linux("the second section of an ELF file has an address above 0")
def test_a_module_below_its_address_in_the_file_is_left_out_of_the_report(host):
    host.launch("hello")
    host.cli(f"target modules add '{inferior('wait')}'")
    host.next_event()
    for slide, is_reported in ((0x800, True), (2**64 - 0x800, False)):
        host.cli(f"target modules load --file wait --slide {slide:#x}")
        slides = [module["slide"] for module in host.next_event()["modules"]]
        assert slides == ([slide] if is_reported else [])


@pytest.mark.linux("the kernel shows where the library is mapped in /proc")
def test_a_library_is_reported_when_it_is_loaded_and_unloaded(host):
    library = inferior("libplugin.so")
    host.launch("loader", f'"{library}"')
    host.run_to("opened")
    host.ok("moduleForFile", file=library)
    # LLDB 14 may report a library twice, the first time before it has placed it.
    reports = [message for message in host.history if message.get("type") == "moduleLoaded"]
    loaded = [module for report in reports for module in report["modules"]]
    plugin = [module for module in loaded if module["file"] == "libplugin.so"][-1]
    assert os.path.join(plugin["directory"], plugin["file"]) == library
    assert plugin["slide"] == linux.image_base(host.inferior_pid(), library)
    assert plugin["loadAddress"] - plugin["fileAddress"] == plugin["slide"]
    host.history.clear()
    host.run_to("done")
    assert {"modules": [], "status": "event", "type": "moduleUnloaded"} in host.history
    assert host.ask("moduleForFile", file=library) == error("can't find module")
