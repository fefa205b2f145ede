"""Pages: prose with blocks of requests, responses and events, played against a helper.

tests/sessions and docs/transcripts are such pages.

    -> {"command": "readMemory", …}     a request; consecutive requests are sent in one write
    -> readMemory address=16 length=4   its short form; "!> " for a request that no host should send
    -> stepOver, stepOut                short for two requests without arguments
    <- {"id": 1, "status": "ok"}        its response, byte for byte
    <- ok count=5                       {"count": 5, "status": "ok"} for short
    <- error no process ×3              {"message": "no process", "status": "error"}, three times
    * {"exit_status": 3, …}             an event that comes before the next request
    * eStateExited 3                    the same for short; also "* output", a JSON text
    => 1c 00 …  and  <= 19 00 …         the frames of the request and of the response before it
    $ launch steps one two              prepares and creates tests/inferiors/steps, up to its entry
    $ run to steps:leaf                 sets a breakpoint there, continues, and waits for the stop
    $ continue                          continues; eStateRunning comes, then the events of the
                                        lines after it
    $ lldb-server gdbserver :«port» …   starts a server, like $ qemu-system-aarch64; any other
                                        program prints a line when it is ready: «pid»
    $ lldb-helper …                     a console; lines after "> " are its input, the rest is its
                                        output

A block below a heading is a session with a helper of its own, which must end with status 0. State
events must be exactly these, in this order. Output must be complete before an exit, in any pieces.
The named modules must be loaded; others may.

«inferiors», «PC», «PLAIN» (registers), «pid» and «port» have values. «steps:leaf» is the address of
a function of the running program. «=name» matches a number or text and keeps it as «name».
«name+5» adds, and «name|x» is a number in one of Python's forms. Any other name matches anything.
"""

import contextlib
import dataclasses
import difflib
import json
import os
import queue
import re
import shlex
import shutil
import subprocess
from itertools import zip_longest

import pytest

from harness import machine
from harness.checking import SCHEMA, Host, frame


class PageFailure(AssertionError):
    """What came is not what a page says. Its text shows both."""


@dataclasses.dataclass
class Block:
    """A part of a page: prose, or a session."""

    heading: str
    line: int  # of the page, counted from 1: where `lines` begin
    lines: list
    is_session: bool


def blocks(path):
    """The page in pieces."""
    heading, line = "", 1
    for number, piece in enumerate(re.split(r"^```\n", machine.read(path), flags=re.M)):
        is_session = number % 2 == 1
        if not is_session:
            heading = ([heading] + re.findall(r"^#+ (.*)", piece, re.M))[-1]
        yield Block(heading, line, piece.splitlines(), is_session)
        line += piece.count("\n") + 1  # the line of the fence


# --- From the short forms to the texts. ------------------------------------------------------------


def as_object(members):
    return "{" + ", ".join(f'"{key}": {value}' for key, value in members) + "}"


def members(text):
    """The members of «key=value key=value», each value as JSON text."""
    for key, value in re.findall(r'([\w-]+)=("(?:[^"\\]|\\.)*"|\[[^]]*\]|\S*)', text):
        is_json = re.match(r'["\[{«\d-]|(true|false|null)$', value)
        yield key, value if is_json else f'"{value}"'


def request_text(line):
    command, _, rest = line.partition(" ")
    is_short = re.match(r"\w+( \w+=|$)", line)
    return as_object([("command", f'"{command}"'), *members(rest)]) if is_short else line


def message_text(line):
    """The text of a response or an event."""
    kind, _, rest = line.partition(" ")
    if kind == "ok":
        return as_object(sorted([("status", '"ok"'), *members(rest)]))
    if kind == "error":
        return as_object([("message", f'"{rest}"'), ("status", '"error"')])
    if kind.startswith("eState"):
        status = [("exit_status", rest)] if rest else []
        number = SCHEMA["$defs"]["stateName"]["enum"].index(kind)
        state = [("inferior_state", number), ("state_desc", f'"{kind}"')]
        return as_object([*status, *state, ("status", '"event"'), ("type", '"state"')])
    if kind == "output":
        output = ("output", f'"{json.loads(rest).encode().hex()}"')
        return as_object([output, ("status", '"event"'), ("type", '"stdout"')])
    return line


def hex_frame(text):
    return frame(text.encode()).hex(" ")


def is_event(text):
    return '"status": "event"' in text


def states_of(events):
    return [event for event in events if '"type": "state"' in event]


def output_of(events):
    return bytes.fromhex("".join(re.findall(r'"output": "(\w*)"', "".join(events))))


# --- A turn: some requests, and what follows them. -------------------------------------------------


class Turn:
    """The lines of a page from a request to the line before the next one."""

    def __init__(self, lines):
        self.lines = lines
        self.requests = []
        for text in self.after("->", "!>"):
            is_list = re.fullmatch(r"\w+(, \w+)+", text)
            self.requests += map(request_text, text.split(", ") if is_list else [text])
        self.responses = [message_text(text) for text in self.after("<-")]
        self.events = [message_text(text) for text in self.after("*")]
        self.frames = self.after("=>", "<=")
        self.is_proper = not self.after("!>")
        if len(self.requests) != len(self.responses):
            raise PageFailure(f"{len(self.requests)} requests, {len(self.responses)} responses")

    def after(self, *signs):
        """What follows one of these signs, in each line; three times where the line ends in ×3."""
        texts = []
        for line in self.lines:
            if line.startswith(signs):
                text, times = re.fullmatch(r"\S+ (.*?)(?: ×(\d+))?", line).groups()
                texts += [text] * int(times or 1)
        return texts


def turns(lines):
    """Cuts a session into turns. A turn that does not begin with a request is a line with "$"."""
    turn = []
    for line in lines:
        if not re.match(r"(\$|[-!]>|<-|\*|=>|<=) ", line):
            raise PageFailure(f"not understood: {line}")
        is_request = line.startswith(("->", "!>"))
        goes_on = is_request and turn and turn[-1].startswith(("->", "!>"))
        if turn and (is_request and not goes_on or line.startswith("$")):
            yield turn
            turn = []
        turn.append(line)
    yield turn


class Player:
    """Plays one session of a page against a helper."""

    def __init__(self):
        self.texts = queue.Queue()  # of messages, in the order of their arrival
        self.host = Host(on_text=self.texts.put)
        self.pending = []  # events that no turn has claimed yet
        self.names = {
            "inferiors": machine.inferior("")[:-1],
            "PC": machine.PC,
            "PLAIN": machine.PLAIN,
        }

    # Names on the page.

    def value(self, name):
        """The value of a name; the name itself if it matches anything."""
        place, offset, form = re.fullmatch(r"([^+|]*)\+?(\d*)\|?(.*)", name).groups()
        if ":" in place:
            value = self.address(*place.split(":"))
        else:
            value = self.names.get(place, f"«{name}»")
        return format(int(value) + int(offset or 0), form) if offset or form else str(value)

    def address(self, program, function):
        """Asks the helper where the program lies."""
        path = machine.inferior(program)
        self.host.send(json.dumps({"command": "moduleForFile", "file": path}).encode())
        while is_event(text := self.next_text()):
            self.pending.append(text)
        sections = json.loads(text)["module"]["sections"]
        loaded = next(part for part in sections if part["loadAddr"] != 2**64 - 1)
        return machine.symbol(path, function) + loaded["loadAddr"] - loaded["fileAddr"]

    def fill_in(self, text):
        return re.sub("«([^»=]+)»", lambda match: self.value(match[1]), text)

    def matches(self, wanted, came):
        """Whether a text is as the page has it. Keeps the values of «=name»."""
        pattern = re.escape(self.fill_in(wanted))
        pattern = re.sub("«=([^»]*)»", r'"?(?P<\1>-?[0-9]+|(?<=")[^"]*)"?', pattern)
        pattern = re.sub("«[^»]*»", r"[\\s\\S]*", pattern)
        found = re.fullmatch(pattern, came)
        if found:
            self.names |= found.groupdict()
        return found is not None

    # Playing.

    def next_text(self):
        try:
            text = self.texts.get(timeout=machine.DEADLINE)
        except queue.Empty:
            raise PageFailure("the helper says nothing more") from None
        # The host has sorted it as well, or found what is wrong with it.
        self.host.next_event() if is_event(text) else self.host.response()
        return text

    def take(self, turn):
        """Plays a turn. Returns its requests, and the messages that came, as texts."""
        requests = [self.fill_in(text) for text in turn.requests]
        self.host.checks_requests = turn.is_proper
        self.host.send(*(text.encode() for text in requests))
        came, answers, problem = [], [], ""
        try:
            while len(answers) < len(requests) or not self.have_come(turn.events):
                came.append(self.next_text())
                (self.pending if is_event(came[-1]) else answers).append(came[-1])
        except (PageFailure, EOFError) as failure:
            problem = str(failure)
        self.compare(turn, requests, answers, problem)
        self.pending = []
        return requests, came

    def have_come(self, events):
        """Whether as much has come as these events are."""
        loaded = [event for event in events if '"moduleLoaded"' in event]
        return (
            len(states_of(self.pending)) >= len(states_of(events))
            and len(output_of(self.pending)) >= len(output_of(events))
            and all(any(self.matches(event, came) for came in self.pending) for event in loaded)
        )

    def compare(self, turn, requests, answers, problem):
        """Fails with a text that shows what was sent, what was expected, and what came."""
        # What comes after an exit belongs to no run.
        exits = [at for at, event in enumerate(self.pending) if "eStateExited" in event]
        before_exit = self.pending[: exits[-1]] if exits else self.pending
        frames = [hex_frame(text) for pair in zip(requests, answers) for text in pair]
        pairs = [
            *zip_longest(turn.responses, answers, fillvalue="(nothing)"),
            *zip(turn.frames, frames),
            *zip_longest(states_of(turn.events), states_of(self.pending), fillvalue="(nothing)"),
            (f"output {output_of(turn.events)!r}", f"output {output_of(before_exit)!r}"),
        ]
        shown, differs = [f"    -> {text}" for text in requests], bool(problem)
        for wanted, text in pairs:
            if self.matches(wanted, text):
                shown.append(f"       {text}")
            else:
                differs = True
                shown += [f"  expected  {self.fill_in(wanted)}", f"  came      {text}"]
        if differs:
            raise PageFailure("\n".join([problem, *shown]).lstrip("\n"))

    def take_lines(self, *lines):
        self.take(Turn(lines))

    def instruct(self, line, events):
        """Does what a line asks for that begins with "$"."""
        name, _, rest = line.partition(" ")
        words = [self.fill_in(word) for word in shlex.split(rest)]
        if name == "continue":
            self.take_lines("-> continueExecution", "<- ok", "* eStateRunning", *events)
        elif events:
            raise PageFailure(f"events after {line}")
        elif name == "launch":
            program, _, arguments = rest.partition(" ")
            path = json.dumps(machine.inferior(program), ensure_ascii=False)
            self.take_lines(
                f"-> prepareExecutable path={path} args={json.dumps(arguments)}", "<- ok"
            )
            self.take_lines("-> createProcess", "<- ok", "* eStateStopped")
        elif name == "run":
            breakpoint_there = f"-> setBreakpointAtVirtualAddress address=«{words[-1]}»"
            self.take_lines(breakpoint_there, "<- ok bkpt_id=«id» bl0=«location»")
            self.take_lines("-> continueExecution", "<- ok", "* eStateRunning", "* eStateStopped")
        elif name in ("lldb-server", "qemu-system-aarch64"):
            program = machine.LLDB_SERVER if name == "lldb-server" else shutil.which(name)
            for path in (program, *words):
                if not path or path.startswith("/") and not os.path.exists(path):
                    pytest.skip(f"there is no {path or name}")
            self.names["port"] = machine.server(
                program, *(word.replace("«port»", "PORT") for word in words)
            )
        else:
            self.names["pid"] = machine.Program(self.fill_in(name), *words).pid

    def play(self, lines, first_line=1):
        """Yields each turn's lines, its requests, and the messages that came."""
        line = first_line
        for turn in turns(lines):
            try:
                if turn[0].startswith("$ "):
                    self.instruct(turn[0][2:], turn[1:])
                    yield turn, [], []
                else:
                    yield turn, *self.take(Turn(turn))
            except (AssertionError, EOFError) as failure:
                raise PageFailure(f"line {line}: {turn[0]}\n{failure}") from failure
            line += len(turn)

    def finish(self):
        """Ends the session. No further state may have come."""
        self.host.end()
        with contextlib.suppress(EOFError):  # at the end of the helper's output
            while True:
                self.host.next_event()
        more = self.pending
        while not self.texts.empty():
            more.append(self.texts.get())
        if states_of(more):
            raise PageFailure(f"more has come than the page has: {states_of(more)}")


def play_console(lines):
    """Runs a console with the typed lines of a block. Returns the block as it should look.

    Messages end without a line end; each begins a line on the page.
    """
    typed = [line for line in lines if line.startswith("> ")]
    console = subprocess.run(
        [machine.HELPER, *lines[0].split()[2:]],
        input="".join(line[2:] + "\n" for line in typed),
        stdout=subprocess.PIPE,
        encoding="utf-8",
        timeout=machine.DEADLINE,
        check=True,
    )
    output = re.sub(r"(?<!\n)(INPUT|OUTPUT): ", r"\n\1: ", console.stdout)
    return [lines[0], *typed, *output.strip("\n").splitlines()]


def play_block(block):
    if block.lines[0].startswith("$ lldb-helper"):
        came = play_console(block.lines)
        if came != block.lines:
            raise PageFailure("\n".join(difflib.ndiff(block.lines, came)))
        return
    player = Player()
    for _ in player.play(block.lines, block.line):
        pass
    player.finish()


# --- Pages as tests. -------------------------------------------------------------------------------


class PageFile(pytest.File):
    def collect(self):
        for block in blocks(self.path):
            if block.is_session:
                yield PageItem.from_parent(self, name=block.heading, block=block)


class PageItem(pytest.Item):
    """A session of a page."""

    def __init__(self, block, **options):
        super().__init__(**options)
        self.block = block

    def runtest(self):
        play_block(self.block)

    def repr_failure(self, excinfo):
        if excinfo.errisinstance(PageFailure):
            return f"{self.path}: {excinfo.value}"
        return super().repr_failure(excinfo)

    def reportinfo(self):
        return self.path, self.block.line - 1, f"{self.path.stem}: {self.name}"
