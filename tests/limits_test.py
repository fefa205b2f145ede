"""More is asked for than there is: descriptors, processes, memory, depth, requests; and odd surroundings.

The answer is an error, or the end that docs/reliability.md has, and the next request is answered as usual."""

import ctypes
import os
import resource
import signal
import socket
import struct
import tempfile

from kit import *

CLONE, PTRACE, SOCKET, PERSONALITY = (220, 117, 198, 92) if ARM else (56, 101, 41, 135)
ADDR_NO_RANDOMIZE, CLONE_CHILD_SETTID = 0x40000, 0x1000000
UNLIMITED = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)


def refuse(call, bits=0):
    """From here on a system call fails if its first argument has these bits. Containers have such filters."""
    rows = [(0x20, 0, 0, 0), (0x15, 0, 4, call), (0x20, 0, 0, 16), (0x54, 0, 0, bits), (0x15, 0, 1, bits),
            (0x06, 0, 0, 0x50001), (0x06, 0, 0, 0x7FFF0000)]  # loads, jumps, and; EPERM, allow
    code = ctypes.create_string_buffer(b"".join(struct.pack("=HBBI", *row) for row in rows))
    program = ctypes.create_string_buffer(struct.pack("HxxxxxxP", len(rows), ctypes.addressof(code)))
    no_new_privileges, seccomp, filter_mode = 38, 22, 2
    libc.prctl(no_new_privileges, 1, 0, 0, 0)
    if libc.prctl(seccomp, filter_mode, program) != 0:
        os._exit(126)


def needs_no_sanitizer(why):
    if settings["sanitizer"]:
        raise NotTested(f"a sanitizer {why}")


def expect_good_health(host):
    if host.ask("hasProcess") == OK:
        host.ok("deleteProcess")
    expect(host.run("hello"), ("hello\r\nworld\r\n", 3))
    host.end()


def launch_hello(host):
    host.prepare("hello")
    return host.ask("createProcess")


def test_descriptors_run_out_at_each_step_of_a_launch():
    needs_no_sanitizer("needs a pipe to look at memory")
    host, refused = Host(), 0
    host.ok("ping")
    before = resource.prlimit(host.pid, resource.RLIMIT_NOFILE)
    while True:
        few = len(os.listdir(f"/proc/{host.pid}/fd")) + refused
        resource.prlimit(host.pid, resource.RLIMIT_NOFILE, (few, before[1]))
        answer = launch_hello(host)
        resource.prlimit(host.pid, resource.RLIMIT_NOFILE, before)
        if answer == OK:
            break
        expect(answer["status"], "error")
        expect(host.ask("getProcessState"), error("no target"))
        refused += 1
        check(refused < 32, answer)
    check(refused, "it needs no descriptors")
    host.state("eStateStopped")
    expect_good_health(host)


def test_processes_run_out():
    host = Host(prepare=lambda: refuse(CLONE, CLONE_CHILD_SETTID))  # fork, not the start of a thread
    check(launch_hello(host)["message"].startswith("cannot create process: "), "launched")
    expect(host.ask("getProcessState"), error("no target"))
    host.end()


def test_address_space_runs_out_in_a_launch():
    """LLVM's own code ends the program where it gets no memory. Where ours does it answers."""
    needs_no_sanitizer("needs the address space itself")
    for megabytes in (0, 8, 16, 24, 32, 64, 128, 1024):
        host = Host()
        host.ok("ping")
        size = status_figure(host.pid, "VmSize") * 1024 + (megabytes << 20)
        resource.prlimit(host.pid, resource.RLIMIT_AS, (size, resource.RLIM_INFINITY))
        try:
            answer = launch_hello(host)
        except Failure:
            expect(host.child.wait(60), -signal.SIGABRT, megabytes)
            continue
        check(answer == OK or answer["status"] == "error", answer)
        resource.prlimit(host.pid, resource.RLIMIT_AS, UNLIMITED)
        if answer == OK:
            host.state("eStateStopped")
        expect_good_health(host)


def test_memory_runs_out_for_an_answer():
    needs_no_sanitizer("ends the program where memory runs out")
    host = launched("wait")
    size = (status_figure(host.pid, "VmSize") + 256 * 1024) * 1024
    resource.prlimit(host.pid, resource.RLIMIT_AS, (size, resource.RLIM_INFINITY))
    # In a handler, and outside of one.
    expect(host.ask("readMemory", length=2147483647), error("bad request: std::bad_alloc"))
    host.conformance.asked.append("response")
    host.requests.write(struct.pack("=I", 0x70000000))
    host.requests.flush()
    expect(host.response(), {"message": "EOF", "status": "ok"})
    host.end()


def test_a_log_that_is_full_holds_nothing_up():
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as daemon:
        try:
            daemon.bind("/dev/log")
        except OSError as problem:
            raise NotTested(f"no place for a log at /dev/log: {problem}") from None
        try:
            host = Host()
            for _ in range(1000):
                expect(host.ask("getRegisters"), error("no process"))
            check(daemon.recv(1024, socket.MSG_DONTWAIT), "no record")
        finally:
            os.unlink("/dev/log")


def test_requests_may_be_large_deep_and_many():
    host = Host(checks_requests=False)
    name = "x" * (64 << 20)
    host.send(b'{"command":"%s"}' % name.encode())
    check(host.response() == error(f"unknown command '{name}'"), "not the whole name")
    # The number lies one deeper than the lists around it, and they one deeper than the object.
    for lists, answer in ((199, "unknown command ''"), (200, "Cannot decode JSON: exceeded maximum nesting depth")):
        host.send(b'{"command":%s1%s}' % (b"[" * lists, b"]" * lists))
        expect(host.response(), error(answer))
    # The answers do not fit the pipe, so the helper stops reading until they are read.
    ids = range(10000)
    expect(host.ask_all(*({"command": "ping", "id": number} for number in ids)), [OK | {"id": number} for number in ids])
    host.end()


def test_odd_surroundings_work_or_are_refused_with_a_reason():
    folder = tempfile.mkdtemp()
    os.makedirs(os.path.join(folder, "lldb"))
    for name, text in ((".lldbinit", "settings set prompt surprise\nquit 7\n"), ("lldb/__init__.py", "raise ImportError\n")):
        with open(os.path.join(folder, name), "w") as file:
            file.write(text)
    sanitizers = {name: os.environ[name] for name in ("LSAN_OPTIONS", "TSAN_OPTIONS") if name in os.environ}
    without = lambda name: {key: value for key, value in os.environ.items() if key != name}
    no_leaks = os.environ | {"ASAN_OPTIONS": "detect_leaks=0"}  # the search for leaks needs ptrace itself

    def lose_folder():
        os.chdir(tempfile.mkdtemp())
        os.rmdir(os.getcwd())

    server = os.environ | {"LLDB_DEBUGSERVER_PATH": "/nowhere/lldb-server"}
    only_in_path = os.path.join(folder, "bin")
    os.makedirs(only_in_path)
    rows = [
        ("an empty environment", {"env": sanitizers}, True),
        ("no home", {"env": without("HOME")}, True),
        ("commands in ~/.lldbinit", {"env": os.environ | {"HOME": folder}}, True),
        ("commands in ./.lldbinit", {"cwd": folder}, True),
        ("a working directory that was removed", {"prepare": lose_folder}, True),
        ("no Python package beside LLDB", {"env": os.environ | {"PYTHONPATH": folder}}, True),
        ("another Python's home", {"env": os.environ | {"PYTHONHOME": folder}}, True),
        ("no log socket", {"prepare": lambda: refuse(SOCKET, socket.AF_UNIX)}, True),
        ("fixed addresses refused", {"prepare": lambda: refuse(PERSONALITY, ADDR_NO_RANDOMIZE)}, True),
        ("no debug server", {"env": server}, False),
        ("ptrace refused", {"env": no_leaks, "prepare": lambda: refuse(PTRACE)}, False),
    ]
    for surroundings, options, works in rows:
        host = Host(**options)
        answer = launch_hello(host)
        check((answer == OK) == works, f"{surroundings}: {answer}")
        if works:
            host.state("eStateStopped")
            expect(host.resume("eStateExited")["exit_status"], 3, surroundings)
            check("surprise" not in host.ok("executeCommand", cli="settings show prompt")["output"], surroundings)
            host.ok("deleteProcess")
        else:
            check(answer["message"].startswith("cannot create process: "), answer)
            expect(host.ask("getProcessState"), error("no target"))
        host.end()


def test_attaching_without_permission_is_refused():
    program = Program(inferior("wait"))
    program.line()
    host = Host(env=os.environ | {"ASAN_OPTIONS": "detect_leaks=0"}, prepare=lambda: refuse(PTRACE))
    check(host.ask("attachToProcess", pid=program.pid)["message"].startswith("cannot attach to process: "), "attached")
    expect(stat(program.pid)[1], "S")
    host.end()
