"""A debug server whose answers a test writes.

stub() is a server for LLDB's "gdb-remote" plug-in. It has one stopped x86-64 program with one thread,
on whatever machine it runs, and answers well enough for LLDB to connect. A test says what differs:

    host.ok("connectRemote", **stub(c="T05thread:1;reason:trace;"))  # the answer to each packet "c"
    stub(c=function)  # whatever the function returns
    stub(c=None)      # silence

An answer's name is the longest one that the packet begins with; "interrupt" is the byte 3.
serve() alone sends what a test gives it, without frames: for bytes that are no packets.
"""

import contextlib
import re
import socket
import threading

STOPPED = "T05thread:1;threads:1;"
HOST = f"triple:{'x86_64-pc-linux-gnu'.encode().hex()};ptrsize:8;endian:little;"
REGISTERS = "".join(
    f'<reg name="{name}" bitsize="64" regnum="{number}" generic="{role}"/>'
    for number, (name, role) in enumerate((("rip", "pc"), ("rsp", "sp"), ("rbp", "fp")))
)
DESCRIPTION = (
    '<target version="1.0"><architecture>i386:x86-64</architecture>'
    f'<feature name="org.gnu.gdb.i386.core">{REGISTERS}</feature></target>'
)

# What the stub answers where a test does not say otherwise. "" means "not supported".
ANSWERS = {
    "": "",
    "qSupported": "PacketSize=4000;qXfer:features:read+",
    "qHostInfo": HOST,
    "qProcessInfo": "pid:1;" + HOST,
    "qXfer:features:read:target.xml": "l" + DESCRIPTION,
    "qfThreadInfo": "m1",
    "qsThreadInfo": "l",
    "qC": "QC1",
    "?": STOPPED,
    "H": "OK",
    "g": "0010400000000000" + "0010fe7f00000000" * 2,
    "m": "E14",
    "k": "X09",
    "D": "OK",
}


def framed(text):
    """A packet: "$", its text, "#" and the sum of its bytes."""
    return f"${text}#{sum(text.encode()) % 256:02x}".encode()


def serve(answer):
    """Starts a server. Returns its port.

    answer(data) gets the bytes of each read, and returns or yields texts (bytes), which are sent as
    they are. Each connection has a thread, which ends with it.
    """
    listener = socket.create_server(("127.0.0.1", 0))

    def talk(connection):
        with contextlib.suppress(OSError):  # the helper has cut it
            while data := connection.recv(65536):
                for text in answer(data):
                    connection.sendall(text)

    def accept():
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=talk, args=(connection,), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()
    return listener.getsockname()[1]


def remote(port, file=""):
    """The arguments of connectRemote for a server on this machine."""
    return {"url": f"connect://127.0.0.1:{port}", "plugin": "gdb-remote", "file": file}


def stub(**answers):
    """Starts a server for one connection. Returns the arguments of connectRemote for it."""
    answers = ANSWERS | answers
    unread = bytearray()

    def answer(data):
        """Yields an acknowledgement and the answer for each packet that is complete."""
        unread.extend(data)
        while found := re.search(rb"\$([^#]*)#..|\x03", unread, re.S):
            packet = "interrupt" if found[1] is None else found[1].decode("latin-1")
            del unread[: found.end()]
            name = max((name for name in answers if packet.startswith(name)), key=len)
            text = answers[name]() if callable(answers[name]) else answers[name]
            yield b"+"
            if text is not None:
                yield framed(text)

    return remote(serve(answer))
