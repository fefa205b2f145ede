"""Plays sessions: pages of prose with blocks of requests, responses and events. docs/transcripts are such pages too.

    -> {"command": "readMemory", …}     a request; consecutive requests are sent in one write
    -> readMemory address=16 length=4   its short form; "!> " for a request that no host should send
    -> stepOver, stepOut                short for two requests without arguments
    <- {"id": 1, "status": "ok"}        its response, byte for byte
    <- ok count=5                       {"count": 5, "status": "ok"} for short
    <- error no process ×3              {"message": "no process", "status": "error"} for short, three times
    * {"exit_status": 3, …}             an event that comes before the next request
    * eStateExited 3                    the same for short; also "* output", a JSON text, and "* moduleLoaded FILE"
    => 1c 00 …  and  <= 19 00 …         the frames of the request and of the response before it
    $ launch steps one two              prepares and creates tests/inferiors/steps, up to the stop at its entry
    $ run to steps:leaf                 sets a breakpoint there, continues, and waits for the stop
    $ continue                          continues; eStateRunning comes, then the events of the lines after it
    $ lldb-server gdbserver :«port» …   starts a server; any other program prints a line when it is ready: «pid»
    $ lldb-helper …                     a console; lines after "> " are its input, the rest is its output

A block below a heading is a session with a helper of its own, which must end with status 0. State events must be exactly
these, in this order. Output must be complete before an exit, in any pieces. The named modules must be loaded; others may.

«inferiors», «PC», «PLAIN» (registers), «pid» and «port» have values. «steps:leaf» is the address of a function of the running
program. «=name» matches a number or text and keeps it as «name». «name+5» adds, and «name|x» is a number in one of Python's
forms. Any other name matches anything.
"""

import collections
import dataclasses
import difflib
import itertools
import json
import re
import shlex
import subprocess

from harness.host import SCHEMA, Host, frame
from harness.machine import CACHE, DEADLINE, HELPER, PC, PLAIN, Program, inferior, read, server


class Difference(AssertionError):
    """What came is not what the page has. The text begins with the page's line."""


@dataclasses.dataclass
class Block:
    heading: str
    line: int  # of the page, of the block's first line
    lines: list
    is_session: bool
    marks: tuple = ()


def blocks(path):
    """The page in pieces: prose, and the sessions between lines of three backquotes."""
    heading = ""
    block = Block(heading, 1, [], False)
    for number, line in enumerate(read(path).splitlines(), 1):
        if line == "```":
            yield block
            block = Block(heading, number + 1, [], not block.is_session)
            continue
        if not block.is_session and line.startswith("#"):
            heading = line.lstrip("# ")
        block.lines.append(line)
    yield block


def hex_frame(text):
    return frame(text.encode()).hex(" ")


# The short forms of requests, responses and events.


def as_object(members):
    return "{" + ", ".join(f'"{key}": {value}' for key, value in members) + "}"


def members(text):
    """The members of «key=value key=value», each value as JSON text."""
    for key, value in re.findall(r'([\w-]+)=("(?:[^"\\]|\\.)*"|\[[^]]*\]|\S*)', text):
        is_json = re.match(r'["\[{«\d-]|(true|false|null)$', value)
        yield key, value if is_json else f'"{value}"'


def request_texts(line):
    """The requests of a line: JSON text, or the short form of one or more."""
    if re.fullmatch(r"\w+(, \w+)*", line):
        return [as_object([("command", f'"{command}"')]) for command in line.split(", ")]
    if re.match(r"\w+ \w+=", line):
        command, _, arguments = line.partition(" ")
        return [as_object([("command", f'"{command}"'), *members(arguments)])]
    return [line]


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
        output = json.loads(rest).encode().hex()
        return as_object([("output", f'"{output}"'), ("status", '"event"'), ("type", '"stdout"')])
    if kind == "moduleLoaded":
        return f'{{"modules": [«…»"file": "{rest}"«…»], «…»"moduleLoaded"}}'
    return line


def is_event(text):
    return '"status": "event"' in text


def states_of(events):
    return [event for event in events if '"type": "state"' in event]


def output_of(events):
    output = b""
    for event in events:
        if found := re.search(r'"output": "(\w*)"', event):
            output += bytes.fromhex(found[1])
    return output


# The player.


class Player(Host):
    """Plays the turns of a session. A turn sends requests and takes the messages that belong to them."""

    TIMEOUT = DEADLINE

    def __init__(self, block, compares=True):
        """A player that does not compare returns what comes, so that it can be recorded."""
        super().__init__()
        self.block = block
        self.compares = compares
        self.names = {"inferiors": inferior("")[:-1], "PC": PC, "PLAIN": PLAIN}
        self.unclaimed = []  # texts of events that no turn has claimed yet
        self.texts = collections.deque()  # of all messages that were not taken
        self.responses = self.events  # one queue, in which messages keep their order

    def received(self, text):
        self.texts.append(text.decode(errors="surrogateescape"))
        super().received(text)

    def next_text(self):
        """The text of the next message, of either kind."""
        super().response()
        text = self.texts.popleft()
        if is_event(text):
            self.unclaimed.append(text)
        return text

    def response(self):
        while is_event(text := self.next_text()):
            pass
        return json.loads(text)

    # The values of names.

    def value(self, name):
        """The value of a name; the name itself if it matches anything."""
        place, offset, form = re.fullmatch(r"([^+|]*)\+?(\d*)\|?(.*)", name).groups()
        if ":" in place:
            program, function = place.split(":")
            self.program = inferior(program)
            value = self.address(function)
        else:
            value = self.names.get(place, f"«{name}»")
        if offset or form:
            return format(int(value) + int(offset or 0), form)
        return str(value)

    def fill_in(self, text):
        return re.sub("«([^»=]+)»", lambda match: self.value(match[1]), text)

    def matches(self, wanted, came):
        pattern = ""
        for part in re.split("(«[^»]*»)", self.fill_in(wanted)):
            if part.startswith("«="):
                pattern += f'"?(?P<{part[2:-1]}>-?[0-9]+|(?<=")[^"]*)"?'
            elif part.startswith("«"):
                pattern += r"[\s\S]*"
            else:
                pattern += re.escape(part)
        found = re.fullmatch(pattern, came)
        self.names |= found.groupdict() if found else {}
        return found is not None

    # Turns.

    def take(self, lines, number):
        """Sends the requests of these lines in one write. Takes as many messages as the lines have, and compares.

        Returns the requests and the messages in the order in which they came.
        """

        def rests(*signs):
            """Of the lines with these signs; one that ends in "×3" three times."""
            for line in lines:
                if line.startswith(signs):
                    rest, times = re.fullmatch(r"\S+ (.*?)(?: ×(\d+))?", line).groups()
                    yield from [rest] * int(times or 1)

        requests = []
        for line in rests("->", "!>"):
            requests += [self.fill_in(text) for text in request_texts(line)]
        responses = [message_text(line) for line in rests("<-")]
        events = [message_text(line) for line in rests("*")]
        if len(requests) != len(responses):
            raise Difference(f"{number}: {len(requests)} requests, {len(responses)} responses")

        self.checks_requests = not any(line.startswith("!>") for line in lines)
        came, answers, problem = [], [], ""
        try:
            self.send(*(text.encode() for text in requests))
            while len(answers) < len(requests) or not self.have_come(events):
                came.append(self.next_text())
                if not is_event(came[-1]):
                    answers.append(came[-1])
        except (AssertionError, EOFError, OSError) as failure:
            problem = f"{failure}\n"

        frames = []
        for request, answer in zip(requests, answers):
            frames += [hex_frame(request), hex_frame(answer)]
        wanted_and_came = list(zip(rests("=>", "<="), frames))
        nothing = {"fillvalue": "(nothing)"}
        wanted_and_came += itertools.zip_longest(responses, answers, **nothing)
        wanted_and_came += itertools.zip_longest(
            states_of(events), states_of(self.unclaimed), **nothing
        )
        before_exit = self.unclaimed
        for at, event in enumerate(self.unclaimed):
            if "eStateExited" in event:
                before_exit = self.unclaimed[:at]
        wanted_and_came.append(
            (f"output {output_of(events)!r}", f"output {output_of(before_exit)!r}")
        )
        rows = []
        for wanted, text in wanted_and_came:
            if self.matches(wanted, text):
                rows.append(f"    {text}")
            else:
                rows += [f"  - {self.fill_in(wanted)}", f"  + {text}"]
                problem = problem or "- is what the page has, + is what came"
        if problem and (self.compares or not rows):
            sent = [f"    {text}" for text in requests]
            raise Difference("\n".join([f"{number}: {problem}", *sent, *rows]))
        self.unclaimed = []
        return requests, came

    def have_come(self, events):
        def has_come(event):
            return any(self.matches(event, came) for came in self.unclaimed)

        return (
            len(states_of(self.unclaimed)) >= len(states_of(events))
            and len(output_of(self.unclaimed)) >= len(output_of(events))
            and all(has_come(event) for event in events if '"moduleLoaded"' in event)
        )

    def instruct(self, turn):
        """What a line that begins with "$" asks for, as turns. A turn is a list of lines."""
        line, *events = turn
        name, _, rest = line.removeprefix("$ ").partition(" ")
        to_running = ["-> continueExecution", "<- ok", "* eStateRunning"]
        if name == "continue":
            yield [*to_running, *events]
        elif name == "launch":
            program, _, arguments = rest.partition(" ")
            request = {
                "command": "prepareExecutable",
                "path": inferior(program),
                "args": self.fill_in(arguments),
            }
            yield [f"-> {json.dumps(request, ensure_ascii=False)}", "<- ok"]
            yield ["-> createProcess", "<- ok", "* eStateStopped"]
        elif name == "run":
            address = f"«{rest.removeprefix('to ')}»"
            yield [
                f"-> setBreakpointAtVirtualAddress address={address}",
                "<- ok bkpt_id=«id» bl0=«location»",
            ]
            yield [*to_running, "* eStateStopped"]
        elif name == "lldb-server":
            words = [self.fill_in(word).replace("«port»", "PORT") for word in shlex.split(rest)]
            _, self.names["port"] = server(CACHE["LLDB_SERVER"], *words)
        else:
            command = shlex.split(line.removeprefix("$ "))
            self.names["pid"] = Program(*(self.fill_in(word) for word in command)).pid

    def play(self):
        """Yields each turn's lines, its requests, and the messages that came."""
        for number, turn in turns(self.block):
            if not turn[0].startswith("$ "):
                yield turn, *self.take(turn, number)
                continue
            if len(turn) > 1 and turn[0] != "$ continue":
                raise Difference(f"{number + 1}: events come after requests and after $ continue")
            for lines in self.instruct(turn):
                self.take(lines, number)
            yield turn, [], []

    def finish(self):
        self.end()
        try:
            while True:
                self.next_text()
        except EOFError:
            pass
        if more := states_of(self.unclaimed):
            number = self.block.line + len(self.block.lines)
            raise Difference("\n  + ".join([f"{number}: more comes than the page has", *more]))


def turns(block):
    """Cuts a session into turns: each with the page's number of its first line.

    A turn is a line with "$", and for "$ continue" its events; or requests and all that comes because of them.
    """
    turn, start = [], block.line
    for number, line in enumerate(block.lines, block.line):
        sign = line.partition(" ")[0]
        if sign not in ("->", "!>", "<-", "*", "=>", "<=", "$"):
            raise Difference(f"{number}: not understood: {line}")
        # Frames follow their request. Other requests begin a turn when the one before has its responses.
        is_request = sign in ("->", "!>")
        begins = sign == "$" or is_request and not all(is_asking(line) for line in turn)
        if begins and turn:
            yield start, turn
            turn = []
        if not turn:
            start = number
        turn.append(line)
    if turn:
        yield start, turn


def is_asking(line):
    return line.startswith(("->", "!>"))


def play_console(block):
    """Runs a console. Returns its page. Messages end without a line end; each begins a line on the page."""
    typed = [line for line in block.lines if line.startswith("> ")]
    output = subprocess.run(
        [HELPER, *block.lines[0].split()[2:]],
        input="".join(line.removeprefix("> ") + "\n" for line in typed).encode(),
        stdout=subprocess.PIPE,
        timeout=DEADLINE,
        check=True,
    ).stdout.decode()
    lines = re.sub(r"(?<!\n)(INPUT|OUTPUT): ", r"\n\1: ", output).strip("\n").splitlines()
    return [block.lines[0], *typed, *lines]


def is_console(block):
    return block.lines[0].startswith("$ lldb-helper")


def play(block):
    """Plays one session and checks that what comes is what the page has."""
    if is_console(block):
        came = play_console(block)
        if came != block.lines:
            difference = "\n".join(difflib.ndiff(block.lines, came))
            raise Difference(f"{block.line}: the console says something else\n{difference}")
        return
    player = Player(block)
    for _ in player.play():
        pass
    player.finish()
