"""Requests that LLDB would never answer. lldb-helper refuses them, or cuts the connection."""

import contextlib
import os
import socket
import tempfile
import threading
import time

from kit import *

REFUSED = error("cannot connect to remote, invalid process")


def connect(port, file=""):
    return {"url": f"connect://127.0.0.1:{port}", "plugin": "gdb-remote", "file": file}


def test_files_that_never_end_or_never_open(host):
    pipe = os.path.join(tempfile.mkdtemp(), "pipe")
    os.mkfifo(pipe)
    program = Program(inferior("wait"))
    for file in (pipe, "/dev/zero"):
        host.prepare(file)
        expect(host.ask("createProcess"), error(f"cannot build target: '{file}' is not a file"))
        for plugin in ("gdb-remote", "kdp-remote"):
            expect(host.ask("connectRemote", **connect(1, file) | {"plugin": plugin}), REFUSED)
        expect(host.ask("getProcessState"), error("no target"))
        # LLDB finds the executable of a running process by itself.
        host.ok("attachToProcess", pid=program.pid, executable=file)
        host.state("eStateStopped")
        host.ok("deleteProcess")
    expect(host.run("hello")[1], 3)


def test_processes_that_cannot_be_attached_to(host):
    host.launch("wait")
    servers = descendants(host.pid, "lldb-server")
    check(servers, "there is a debug server")
    host.cli("target delete")
    list(host.rest())  # its exit, if LLDB had time for it
    program = Program(inferior("wait"))  # to 0 LLDB would attach to this one, by its name
    for pid in (host.pid, *servers, 0, 2**22 + 1, 2**32 + program.pid, 2**64 - 1):
        for executable in (inferior("wait"), "/nowhere"):
            message = host.ask("attachToProcess", pid=pid, executable=executable)["message"]
            check(message.startswith("cannot attach to process: ") and len(message) > 30, (pid, message))
            expect(host.ask("getProcessState"), error("no target"))
    expect(host.run("hello")[1], 3)


def echo(connection, data):
    connection.sendall(data)


def stop_always(connection, data):
    connection.sendall(b"+$T05thread:1;#d7" * max(1, data.count(b"$")))


def send_without_end(connection, data):
    connection.sendall(b"+$")
    while True:
        connection.sendall(b"x" * 65536)


def peer(answer):
    """A server whose connections are answered by this function. Returns its port."""
    listener = socket.create_server(("127.0.0.1", 0))

    def serve(connection):
        with contextlib.suppress(OSError):  # the helper has cut it
            while data := connection.recv(65536):
                answer(connection, data)

    def accept():
        while True:
            threading.Thread(target=serve, args=(listener.accept()[0],), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()
    return listener.getsockname()[1]


def test_connections_that_never_come_about_are_cut_after_a_minute():
    hosts = [Host() for _ in range(3)]
    start = time.monotonic()
    for host, answer in zip(hosts, (echo, stop_always, send_without_end)):
        host.send(json.dumps({"command": "connectRemote"} | connect(peer(answer))).encode())
    for host in hosts:
        host.TIMEOUT = 240
        expect(host.response(), REFUSED)
        check(58 < (took := time.monotonic() - start) < 200, took)
        host.cli("target delete --all")
        expect(host.run("hello")[1], 3)
        eventually(lambda: SANITIZER or status_figure(host.pid, "VmRSS") < 300 << 10, "its memory is given back")
        host.end()
