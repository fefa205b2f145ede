"""Plays sessions: pages of prose with blocks of requests, responses and events. docs/transcripts are such pages too.

A block below a heading is a session with a helper of its own.

    -> {"command": "readMemory", …}     a request; requests in a row go out in one write
    -> readMemory address=16 length=4   the same for short; "!> " where no host should send it
    <- {"id": 1, "status": "ok"}        its response, byte for byte
    <- ok count=5                       {"count": 5, "status": "ok"} for short
    <- error no process ×3              {"message": "no process", "status": "error"} for short, three times
    * {"exit_status": 3, …}             an event that comes before the next request
    * eStateExited 3                    the same for short; also "* output", a JSON text, and "* moduleLoaded FILE"
    => 1c 00 …  and  <= 19 00 …         the frames of the request and of the response before it
    $ launch steps one two              prepares and creates tests/inferiors/steps, up to the stop at its entry
    $ run to steps:leaf                 sets a breakpoint there, continues, and awaits the stop
    $ lldb-server gdbserver :«port» …   starts a server (or gdbserver, qemu-aarch64), or a program: «pid»
    $ needs LLDB 22 …  $ needs gdbserver    elsewhere the session is not tested, and says so

State events must come as they stand, in their order; output must come whole, in any pieces, before an exit. Modules that
a line names must come; others may. At the end a process that is left is deleted, and the helper ends with status 0.

«inferiors», «folder» (empty, the session's own), «PC», «PLAIN» (registers), «pid» and «port» stand for what they are.
«steps:leaf» is the address of a function of the running program, «hex steps:leaf» in hexadecimal digits, «reg steps:leaf» in
16 of them. «=name» matches a number or text and keeps it as «name», «name+5» adds; any other name matches anything.

In a block that begins with "$ lldb-helper" a person types: lines after "> " go in, the rest comes out.
"""

import difflib
import itertools
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile

import kit
from kit import Failure, Host, NotTested, check, settings

# --- The short forms ----------------------------------------------------------------------------------


def members(text):
    """The members of «key=value key=value», each value as JSON text."""
    pairs = re.findall(r'([\w-]+)=("(?:[^"\\]|\\.)*"|\[[^]]*\]|\S*)', text)
    is_json = re.compile(r'["\[{«\d-]|(true|false|null)$')
    return [(key, value if is_json.match(value) else json.dumps(value, ensure_ascii=False)) for key, value in pairs]


def as_object(pairs):
    return "{" + ", ".join(f'"{key}": {value}' for key, value in pairs) + "}"


def request_text(line):
    if line[:1] in "{[" or not re.match(r"\w+( \w+=|$)", line):
        return line
    command, _, rest = line.partition(" ")
    return as_object([("command", json.dumps(command)), *members(rest)])


def response_text(line):
    kind, _, rest = line.partition(" ")
    if kind == "ok":
        return as_object(sorted([("status", '"ok"'), *members(rest)]))
    return as_object([("message", f'"{rest}"'), ("status", '"error"')]) if kind == "error" else line


def event_text(line):
    kind, _, rest = line.partition(" ")
    if kind.startswith("eState"):
        number = kit.SCHEMA["$defs"]["stateName"]["enum"].index(kind)
        exit_status = [("exit_status", rest)] if rest else []
        state = [("inferior_state", str(number)), ("state_desc", f'"{kind}"'), ("status", '"event"'), ("type", '"state"')]
        return as_object(exit_status + state)
    if kind == "output":
        return as_object([("output", f'"{json.loads(rest).encode().hex()}"'), ("status", '"event"'), ("type", '"stdout"')])
    if kind == "moduleLoaded":
        return f'{{"modules": [«…»"file": "{rest}"«…»], "status": "event", "type": "moduleLoaded"}}'
    return line


# --- Playing ------------------------------------------------------------------------------------------


def is_state(event):
    return '"type": "state"' in event


def output_of(events):
    return b"".join(bytes.fromhex(found[1]) for event in events if (found := re.search(r'"output": "(\w*)"', event)))


class Turn:
    """Requests that go out in one write, and what the page has of what comes then."""

    def __init__(self, lines):
        def taken(*signs):
            """The rests of the lines with these signs; one that ends in "×3" three times."""
            found = [re.fullmatch(r"(.*?)(?: ×(\d+))?", line[3:]) for line in lines if line.startswith(signs)]
            return [match[1] for match in found for _ in range(int(match[2] or 1))]

        self.lines = lines
        self.requests = [request_text(line) for line in taken("-> ", "!> ")]
        self.is_wrong = any(line.startswith("!> ") for line in lines)
        self.responses = [response_text(line) for line in taken("<- ")]
        self.sent, self.received = taken("=> "), taken("<= ")
        events = [event_text(line[2:]) for line in lines if line.startswith("* ")]
        self.states = [event for event in events if is_state(event)]
        self.modules = [event for event in events if '"type": "module' in event]
        self.output = output_of(events)


def frame(text):
    return (len(text.encode()).to_bytes(4, sys.byteorder) + text.encode()).hex(" ")


class Session(Host):
    compares = True

    def __init__(self):
        super().__init__(reads=False)
        self.names = {"inferiors": settings["inferiors"], "folder": tempfile.mkdtemp(), "PC": kit.PC, "PLAIN": kit.PLAIN}
        self.events = []  # that no turn has claimed yet

    def value(self, name):
        """What a name stands for; None where it matches anything."""
        name, _, offset = name.partition("+")
        form, _, place = name.rpartition(" ")
        if ":" in place:
            program, function = place.split(":")
            self.program = kit.inferior(program)
            return {"": "{}", "hex": "{:x}", "reg": "0x{:016x}"}[form].format(self.address(function))
        value = self.names.get(name)
        return str(int(value) + int(offset) if offset else value) if value is not None else None

    def fill_in(self, text):
        return re.sub("«([^»=]+)»", lambda match: self.value(match[1]) or match[0], text)

    def matches(self, wanted, came):
        pattern = ""
        for part in re.split("(«[^»]*»)", self.fill_in(wanted)):
            if part.startswith("«="):
                pattern += f'"?(?P<{part[2:-1]}>-?[0-9]+|(?<=")[^"]*)"?'
            else:
                pattern += "[\\s\\S]*" if part.startswith("«") else re.escape(part)
        found = re.fullmatch(pattern, came)
        self.names |= found.groupdict() if found else {}
        return found is not None

    def next_text(self):
        signal.alarm(kit.DEADLINE)
        text = self.checked_text()
        signal.alarm(0)
        check(text, "the helper has closed its output")
        return text.decode(errors="surrogateescape")

    def take(self, turn):
        """Sends the turn's requests and reads until as much has come as the page has."""
        requests, responses, came = [self.fill_in(text) for text in turn.requests], [], []
        self.conformance.checks_requests = not turn.is_wrong
        self.send(*(text.encode() for text in requests))
        try:
            while len(responses) < len(requests) or not self.has_come(turn):
                came.append(self.next_text())
                (self.events if '"status": "event"' in came[-1] else responses).append(came[-1])
        except Failure as failure:
            raise Failure(f"{failure}{self.difference(turn, responses)}") from None
        events, self.events = self.events, []
        if self.compares:
            self.compare(turn, requests, responses, events)
        return requests, came

    def has_come(self, turn):
        return (
            len(list(filter(is_state, self.events))) >= len(turn.states)
            and len(output_of(self.events)) >= len(turn.output)
            and (not self.compares or all(any(self.matches(m, event) for event in self.events) for m in turn.modules))
        )

    def compare(self, turn, requests, responses, events):
        pairs = list(zip(turn.responses, responses))
        pairs += zip(turn.sent, map(frame, requests))
        pairs += zip(turn.received, map(frame, responses))
        states = list(filter(is_state, events))
        pairs += itertools.zip_longest(turn.states, states, fillvalue="(nothing)")
        exits = [at for at, event in enumerate(events) if "eStateExited" in event]
        output = output_of(events[: exits[-1]] if exits else events)
        pairs.append((repr(turn.output), repr(output)))
        check(len(turn.responses) == len(responses), f"the page has {len(turn.responses)} responses: {turn.lines}")
        if not all(self.matches(wanted, came) for wanted, came in pairs):
            raise Failure(self.difference(turn, responses, events))

    def difference(self, turn, responses, events=None):
        wanted = turn.responses + turn.states + ([f"output {turn.output!r}"] if turn.output else [])
        events = self.events if events is None else events
        output = output_of(events)
        came = responses + list(filter(is_state, events)) + ([f"output {output!r}"] if output else [])
        lines = ["", *("    " + self.fill_in(line) for line in turn.lines if line[1:3] == "> " and line[0] in "-!")]
        for left, right in itertools.zip_longest(map(self.fill_in, wanted), came, fillvalue="(nothing)"):
            lines += [f"    {right}"] if self.matches(left, right) else [f"  - {left}", f"  + {right}"]
        return "\n".join(lines)

    def start(self, words):
        """A server, or a program that says something once it is started."""
        words = [self.fill_in(word) for word in words]
        if any("«port»" in word for word in words):
            words[0] = settings["lldb-server"] if words[0] == "lldb-server" else words[0]
            _, self.names["port"] = kit.server(*(word.replace("«port»", "PORT") for word in words))
        else:
            program = kit.Program(*words)
            program.line()
            self.names["pid"] = program.pid

    def instruct(self, line):
        """What a line that begins with "$" asks for, as turns."""
        name, _, rest = line.partition(" ")
        if name == "needs":
            version = re.fullmatch(r"LLDB (\d+) .*", rest)
            if version and settings["lldb"] < int(version[1]):
                raise NotTested(f"this is LLDB {settings['lldb']}; {rest}")
            if not version and not shutil.which(rest):
                raise NotTested(f"{rest} is not installed")
        elif name == "launch":
            program, _, arguments = rest.partition(" ")
            preparation = {"command": "prepareExecutable", "path": kit.inferior(program), "args": self.fill_in(arguments)}
            yield [f"-> {json.dumps(preparation, ensure_ascii=False)}", "<- ok"]
            yield ["-> createProcess", "<- ok", "* eStateStopped"]
        elif name == "run":
            yield [f"-> setBreakpointAtVirtualAddress address=«{rest.split()[-1]}»", "<- ok bkpt_id=«id» bl0=«location»"]
            yield ["-> continueExecution", "<- ok", "* eStateRunning", "* eStateStopped"]
        else:
            self.start(shlex.split(line))

    def play(self, lines):
        """Yields each turn's lines, its requests, and the messages that came."""
        turns = re.findall(r"(?:^\$ .*$)|(?:^[-!]> .*\n?)+(?:^[<*=].*\n?)*", "\n".join(lines), re.M)
        if (rest := "\n".join(lines)) and sum(len(t.strip("\n").split("\n")) for t in turns) != len(lines):
            raise Failure(f"not understood: {rest}")
        for text in turns:
            if text.startswith("$ "):
                for turn in self.instruct(text[2:]):
                    self.take(Turn(turn))
                yield text, None, []
            else:
                yield text, *self.take(Turn(text.strip("\n").split("\n")))

    def response(self):
        while '"status": "event"' in (text := self.next_text()):
            self.events.append(text)
        return json.loads(text)

    def finish(self):
        self.end()
        self.events += iter(lambda: self.checked_text().decode(errors="surrogateescape"), "")
        check(not any(map(is_state, self.events)), f"more has come than the page has: {self.events}")


def play_console(block):
    """Messages end without a line end; each begins a line on the page."""
    typed = "".join(line[2:] + "\n" for line in block if line.startswith("> "))
    command = [settings["helper"], *block[0].split()[2:]]
    output = subprocess.run(command, input=typed.encode(), stdout=subprocess.PIPE, timeout=kit.DEADLINE, check=True).stdout
    output = re.sub(r"(?<!\n)(INPUT|OUTPUT): ", r"\n\1: ", output.decode())
    return [block[0], *(line for line in block if line.startswith("> ")), *output.strip("\n").splitlines()]


def blocks(path):
    """The page in pieces: (heading, lines, whether they are a session)."""
    heading, lines, is_block = "", [], False
    with open(path) as page:
        for line in page.read().splitlines():
            if line == "```":
                yield heading, lines, is_block
                lines, is_block = [], not is_block
            else:
                lines.append(line)
                heading = line.lstrip("# ") if line.startswith("#") and not is_block else heading
    yield heading, lines, is_block


def play(path, name):
    """Plays the sessions below the headings with this name; "-" stands for what is no letter or digit there."""
    found = [lines for heading, lines, is_block in blocks(path) if is_block and re.sub(r"\W+", "-", heading) == name]
    check(found, f"there is no session {name}")

    def give_up(*_):
        raise Failure("the helper says nothing more")

    signal.signal(signal.SIGALRM, give_up)
    for lines in found:
        if lines[0].startswith("$ lldb-helper"):
            if (came := play_console(lines)) != lines:
                raise Failure("\n" + "\n".join(difflib.ndiff(lines, came)))
        else:
            session = Session()
            for _ in session.play(lines):
                pass
            session.finish()
