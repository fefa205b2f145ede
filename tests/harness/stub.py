"""A debug server whose answers a test writes.

Stub is a server for LLDB's "gdb-remote" plug-in. It has one stopped x86-64 program with one thread,
on whatever machine it runs, and answers well enough for LLDB to connect. A test says what differs:

    stub = Stub(c="T05thread:1;reason:trace;")               # the answer to each packet "c"
    stub = Stub(c=["O" + "text".encode().hex(), "W00"])      # several packets as one answer
    stub = Stub(m=lambda packet: "E01")                      # a function of the packet
    stub = Stub(qC=None)                                     # silence
    host.ok("connectRemote", **stub.arguments())

An answer's name is the longest one that the packet begins with.
serve() alone sends what a test gives it, without frames: for bytes that are no packets.
"""

import contextlib
import re
import socket
import threading

PC = 0x401000
STACK = 0x7FFE1000
STOPPED = "T05thread:1;threads:1;"
# The general registers, in the order of the packet "g". Each has 8 bytes.
REGISTERS = (
    *("rax", "rbx", "rcx", "rdx", "rsi", "rdi", "rbp", "rsp"),
    *("r8", "r9", "r10", "r11", "r12", "r13", "r14", "r15"),
    *("rip", "rflags", "cs", "ss", "ds", "es", "fs", "gs"),
)
VALUES = {"rip": PC, "rsp": STACK, "rbp": STACK}
ROLES = {"rip": "pc", "rsp": "sp", "rbp": "fp", "rflags": "flags"}


def target_xml():
    """The description of the registers."""
    lines = []
    for number, name in enumerate(REGISTERS):
        role = f' generic="{ROLES[name]}"' if name in ROLES else ""
        lines.append(
            f'<reg name="{name}" bitsize="64" offset="{8 * number}" regnum="{number}"'
            f' group="general" encoding="uint" format="hex"{role}/>'
        )
    registers = "".join(lines)
    architecture = "<architecture>i386:x86-64</architecture>"
    feature = f'<feature name="org.gnu.gdb.i386.core">{registers}</feature>'
    return f'<?xml version="1.0"?><target version="1.0">{architecture}{feature}</target>'


def register_bytes(name):
    return VALUES.get(name, 0).to_bytes(8, "little").hex()


def read_description(packet):
    """The piece that "qXfer:features:read:target.xml:OFFSET,LENGTH" asks for."""
    offset, length = (int(number, 16) for number in packet.rpartition(":")[2].split(","))
    piece = target_xml()[offset : offset + length]
    is_last = offset + length >= len(target_xml())
    return ("l" if is_last else "m") + piece


def read_register(packet):
    number = int(re.match(r"p(\w+)", packet)[1], 16)
    return register_bytes(REGISTERS[number]) if number < len(REGISTERS) else "E45"


def read_memory(packet):
    """All memory is zero, but for the page at address 0, which cannot be read."""
    address, length = (int(number, 16) for number in packet[1:].split(","))
    return "00" * length if address >= 0x1000 else "E14"


HOST = {
    "triple": "x86_64-pc-linux-gnu".encode().hex(),
    "ptrsize": "8",
    "endian": "little",
}
PROCESS = {"pid": "1", **HOST}

# What the stub answers where a test does not say otherwise. "" means "not supported".
ANSWERS = {
    "": "",
    "qSupported": "PacketSize=4000;QStartNoAckMode+;qXfer:features:read+",
    "QStartNoAckMode": "OK",
    "QThreadSuffixSupported": "OK",
    "qHostInfo": "".join(f"{key}:{value};" for key, value in HOST.items()),
    "qProcessInfo": "".join(f"{key}:{value};" for key, value in PROCESS.items()),
    "qXfer:features:read:target.xml": read_description,
    "qfThreadInfo": "m1",
    "qsThreadInfo": "l",
    "qC": "QC1",
    "?": STOPPED,
    "H": "OK",
    "g": "".join(register_bytes(name) for name in REGISTERS),
    "G": "OK",
    "p": read_register,
    "P": "OK",
    "m": read_memory,
    "M": "OK",
    "Z0": "OK",
    "z0": "OK",
    "vCont?": "vCont;c;C;s;S",
    "c": STOPPED,
    "s": STOPPED,
    "k": "X09",
    "D": "OK",
}


def framed(text):
    """A packet: "$", its text with some bytes escaped, "#" and the sum of its bytes."""
    escaped = re.sub(r"[#$}*]", lambda match: "}" + chr(ord(match[0]) ^ 0x20), text)
    return f"${escaped}#{sum(escaped.encode()) % 256:02x}".encode()


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


class Stub:
    """A server for one connection."""

    def __init__(self, answers=None, **more):
        self.answers = ANSWERS | (answers or {}) | more
        self.packets = []  # what LLDB has sent, without frames
        self.acknowledges = True
        self.unread = b""
        self.port = serve(self._read)

    def arguments(self, file=""):
        return remote(self.port, file)

    def _read(self, data):
        """Yields the answers to the packets that are complete."""
        self.unread += data
        while found := re.search(rb"\$([^#]*)#..|\x03", self.unread, re.S):
            self.unread = self.unread[found.end() :]
            is_interrupt = found[0] == b"\x03"
            if not is_interrupt and self.acknowledges:
                yield b"+"
            packet = "\x03" if is_interrupt else found[1].decode("latin-1")
            self.packets.append(packet)
            yield from map(framed, self._answers_to(packet))
            if packet == "QStartNoAckMode":
                self.acknowledges = False

    def _answers_to(self, packet):
        """The texts of the packets that answer this one."""
        if packet.startswith("vCont;"):
            # "vCont;c", "vCont;c:1", "vCont;s:1": the first action, by the packets' old names.
            packet = packet[len("vCont;")]
        name = max((name for name in self.answers if packet.startswith(name)), key=len)
        answer = self.answers[name]
        if callable(answer):
            answer = answer(packet)
        if answer is None:
            return []
        return [answer] if isinstance(answer, str) else answer
