"""Plays docs/transcripts/*.md against the program, and records them anew.

Usage: transcripts.py [--record] HELPER INFERIORS LLDB_SERVER PAGE...

A page's code blocks are sessions. A line "-> " is a request, "<- " its response, "* " an event that
came before the next request; "$ " tells what is started beside the helper: a program (its number is
«pid») or a debug server (it listens at «port»). Lines "=> " and "<= " are frames as bytes. Other parts
in «» vary from run to run: «inferiors» is the folder of the programs, the rest matches anything. In a
block that begins with "$ lldb-helper" a person types: lines behind "> " go in, the rest comes out.

Playing compares responses as they are. Events are compared by kind: states in their order, output
joined (a terminal may deliver it in pieces), modules not at all, because what comes in how many events
is LLDB's affair. Recording keeps requests, "$" lines and prose, and writes what came.
"""

import itertools
import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import time

DEADLINE = 60

# Members whose values vary from run to run, and what stands in their place.
VARYING = dict.fromkeys(
    "pc loadAddr fileAddr loadAddress fileAddress slide aslrSlide byteSize fileByteSize bkpt_id thread-id pid "
    "uuid directory registers sections memory".split()
)


class Vary(str):
    """Written without quotes."""


def marked(value, key=""):
    if key in VARYING:
        return Vary(f"«{key}»")
    if isinstance(value, dict):
        return {k: marked(v, k) for k, v in value.items()}
    if key == "callstack":
        # How deep the system's libraries are, and what their functions are called, is theirs.
        is_own = lambda frame: not frame.get("filename", "lib").startswith(("lib", "ld-"))
        own = list(itertools.takewhile(is_own, value))
        return marked(own) + [Vary("«frames»")] * (len(own) < len(value))
    if isinstance(value, list):
        return [marked(v) for v in value]
    if isinstance(value, str) and value.startswith("Breakpoint "):
        return Vary("«output»")
    return value


def text_of(value):
    """As the helper writes it: keys in order, ", " and ": "; what varies without its quotes."""
    if isinstance(value, Vary):
        return str(value)
    if isinstance(value, dict):
        return "{" + ", ".join(f"{json.dumps(k)}: {text_of(v)}" for k, v in sorted(value.items())) + "}"
    if isinstance(value, list):
        return "[" + ", ".join(map(text_of, value)) + "]"
    return json.dumps(value, ensure_ascii=False)


def matches(line, text):
    pattern = "".join("[\\s\\S]*" if part.startswith("«") else re.escape(part) for part in re.split("(«[^»]*»)", line))
    return re.fullmatch(pattern, text) is not None


def frame(text):
    return struct.pack("=I", len(text.encode())) + text.encode()


class Session:
    """A helper, what was started beside it, and what the page's names stand for."""

    def __init__(self, helper, inferiors, server):
        requests_out, self.requests = os.pipe()
        self.messages, messages_in = os.pipe()
        self.helper = subprocess.Popen(
            [helper, str(requests_out), str(messages_in)], pass_fds=(requests_out, messages_in)
        )
        os.close(requests_out)
        os.close(messages_in)
        self.names = {"inferiors": inferiors}
        self.server = server
        self.started = []

    def fill_in(self, text):
        for name, value in self.names.items():
            text = text.replace(f"«{name}»", str(value))
        return text

    def start(self, command):
        """A program, which must say something before it counts as started, or a debug server."""
        if "lldb-server" in command:
            with socket.socket() as free:
                free.bind(("127.0.0.1", 0))
                self.names["port"] = free.getsockname()[1]
        words = self.fill_in(command).split()
        words[0] = self.server if words[0] == "lldb-server" else words[0]
        child = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.started.append(child)
        if "port" in self.names:
            await_listener(self.names["port"])
        else:
            child.stdout.readline()
            self.names["pid"] = child.pid

    def send(self, text):
        os.write(self.requests, frame(text))

    def message(self):
        def exactly(count):
            data = b""
            while len(data) < count:
                if not select.select([self.messages], [], [], DEADLINE)[0]:
                    raise SystemExit("the helper says nothing")
                piece = os.read(self.messages, count - len(data))
                if not piece:
                    raise SystemExit("the helper has closed its output")
                data += piece
            return data

        return exactly(struct.unpack("=I", exactly(4))[0]).decode()

    def end(self):
        os.close(self.requests)
        status = self.helper.wait(DEADLINE)
        for child in self.started:
            child.kill()
            child.wait()
        if status != 0:
            raise SystemExit(f"the helper ended with {status}")


def await_listener(port):
    """Without connecting: a debug server takes one connection only."""
    local = f":{port:04X} "
    end = time.monotonic() + DEADLINE
    while time.monotonic() < end:
        for table in ("/proc/net/tcp", "/proc/net/tcp6"):
            with open(table) as lines:
                if any(local in line[:60] and " 0A " in line for line in lines):
                    return
    raise SystemExit(f"nobody listens on port {port}")


def summary(events):
    """State events in their order, and all output in one piece: output and the news that the program runs
    may change places. No modules."""
    states, output = [], ""
    for event in map(json.loads, events):
        if event["type"] == "state":
            states.append(text_of(event))
        output += event.get("output", "")
    return states, output


def hexadecimal(text):
    return frame(text).hex(" ")


def play(block, session, record):
    """Yields the block's lines as they came; compares unless it records."""
    lines, at = block, 0
    while at < len(lines):
        line = lines[at]
        at += 1
        if line.startswith("$ "):
            session.start(line[2:])
            yield line
            continue
        if not line.startswith("-> "):
            raise SystemExit(f"not understood: {line}")
        request = session.fill_in(line[3:])
        told = []
        while at < len(lines) and not lines[at].startswith(("-> ", "$ ")):
            told.append(lines[at])
            at += 1
        session.send(request)
        yield line
        if any(l.startswith("=> ") for l in told):
            yield "=> " + hexadecimal(request)
        wanted = [l[2:] for l in told if l.startswith("* ")]
        response, events = None, []
        # A request's events may come behind its response: wait for as many as the page tells of.
        while response is None or not complete(wanted, events):
            message = session.message()
            if json.loads(message)["status"] == "event":
                events.append(message)
                yield "* " + text_of(marked(json.loads(message)))
            else:
                response = message
                yield "<- " + text_of(marked(json.loads(message)))
                if any(l.startswith("<= ") for l in told):
                    yield "<= " + hexadecimal(message)
        if record:
            continue
        for sign, got in (("<- ", response), ("=> ", hexadecimal(request)), ("<= ", hexadecimal(response))):
            for l in told:
                if l.startswith(sign) and not matches(session.fill_in(l[3:]), got):
                    raise SystemExit(f"{line}\n  told: {l[3:]}\n  came: {got}")
        if summary_told(wanted) != summary(events):
            raise SystemExit(f"{line}\n  told: {summary_told(wanted)}\n  came: {summary(events)}")


def summary_told(wanted):
    return summary([re.sub("«[^»]*»", "0", line) for line in wanted])


def complete(wanted, events):
    """Whether as much has come as the page tells of."""
    (states, output), (told_states, told_output) = summary(events), summary_told(wanted)
    return len(states) >= len(told_states) and len(output) >= len(told_output)


def play_console(block, helper, record):
    typed = "".join(line[2:] + "\n" for line in block if line.startswith("> "))
    output = subprocess.run([helper], input=typed.encode(), stdout=subprocess.PIPE, timeout=DEADLINE).stdout.decode()
    # Messages end without a line end; each begins a line here.
    output = re.sub(r"(?<!\n)(INPUT|OUTPUT): ", r"\n\1: ", output)
    came = [block[0], *(line for line in block if line.startswith("> ")), *output.strip("\n").splitlines()]
    if not record and came != block:
        raise SystemExit("told:\n" + "\n".join(block) + "\ncame:\n" + "\n".join(came))
    return came


def play_block(block, helper, inferiors, server, record):
    if block[0].startswith("$ lldb-helper"):
        return play_console(block, helper, record)
    session = Session(helper, os.path.abspath(inferiors), server)
    try:
        came = list(play(block, session, record))
        session.end()
        return came
    finally:
        for child in (session.helper, *session.started):
            child.kill()


def main(arguments):
    record = arguments[0] == "--record"
    helper, inferiors, server, *pages = arguments[record:]
    signal.alarm(5 * DEADLINE)
    for page in pages:
        written, block = [], None
        with open(page) as file:
            for line in file.read().splitlines():
                if line == "```":
                    if block is not None:
                        written += play_block(block, helper, inferiors, server, record)
                    block = [] if block is None else None
                    written.append(line)
                else:
                    (written if block is None else block).append(line)
        if record:
            with open(page, "w") as file:
                file.write("\n".join(written) + "\n")
        print(f"{os.path.basename(page)}: {'recorded' if record else 'as told'}")


main(sys.argv[1:])
