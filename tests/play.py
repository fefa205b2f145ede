"""Plays sessions: pages of prose with blocks of requests, responses and events. docs/transcripts are such pages too.

A block below a heading is a session with a helper of its own.

    -> {"command": "readMemory", …}     a request; consecutive requests are sent in one write
    -> readMemory address=16 length=4   its short form; "!> " for a request that no host should send
    <- {"id": 1, "status": "ok"}        its response, byte for byte
    <- ok count=5                       {"count": 5, "status": "ok"} for short
    <- error no process ×3              {"message": "no process", "status": "error"} for short, three times
    * {"exit_status": 3, …}             an event that comes before the next request
    * eStateExited 3                    the same for short; also "* output", a JSON text, and "* moduleLoaded FILE"
    => 1c 00 …  and  <= 19 00 …         the frames of the request and of the response before it
    $ launch steps one two              prepares and creates tests/inferiors/steps, up to the stop at its entry
    $ run to steps:leaf                 sets a breakpoint there, continues, and waits for the stop
    $ continue                          continues; eStateRunning comes, then the events of the lines after it
    $ lldb-server gdbserver :«port» …   starts a server, or a program (without «port»): «pid»

State events must be exactly these, in this order. Output must be complete before an exit, in any pieces. The named modules
must be loaded; others may. At the end the runner deletes a process that remains, and the helper must end with status 0.

The names «inferiors», «folder» (empty, the session's own), «PC», «PLAIN» (registers), «pid» and «port» have their values.
«steps:leaf» is the address of a function of the running program, «hex steps:leaf» in hexadecimal digits, «reg steps:leaf» in
16 of them. «=name» matches a number or text and keeps it as «name», «name+5» adds; any other name matches anything.

A block that begins with "$ lldb-helper" is a console session: lines after "> " are its input, the rest is its output.
"""

import collections
import difflib
import itertools
import json
import re
import shlex
import signal
import subprocess
import sys
import tempfile

import kit
from kit import Failure, Host, check, settings

# --- The short forms ----------------------------------------------------------------------------------


def as_object(*members):
    return "{" + ", ".join(f'"{key}": {value}' for key, value in members) + "}"


def members(text):
    """The members of «key=value key=value», each value as JSON text."""
    for key, value in re.findall(r'([\w-]+)=("(?:[^"\\]|\\.)*"|\[[^]]*\]|\S*)', text):
        yield key, value if re.match(r'["\[{«\d-]|(true|false|null)$', value) else f'"{value}"'


def request_text(line):
    command, _, rest = line.partition(" ")
    is_short = re.match(r"\w+( \w+=|$)", line)
    return as_object(("command", f'"{command}"'), *members(rest)) if is_short else line


def response_text(line):
    kind, _, rest = line.partition(" ")
    if kind == "ok":
        return as_object(*sorted([("status", '"ok"'), *members(rest)]))
    return as_object(("message", f'"{rest}"'), ("status", '"error"')) if kind == "error" else line


def event_text(line):
    kind, _, rest = line.partition(" ")
    if kind.startswith("eState"):
        number = kit.SCHEMA["$defs"]["stateName"]["enum"].index(kind)
        state = [("exit_status", rest)] if rest else []
        state += [("inferior_state", number), ("state_desc", f'"{kind}"')]
        return as_object(*state, ("status", '"event"'), ("type", '"state"'))
    if kind == "output":
        return as_object(("output", f'"{json.loads(rest).encode().hex()}"'), ("status", '"event"'), ("type", '"stdout"'))
    if kind == "moduleLoaded":
        return f'{{"modules": [«…»"file": "{rest}"«…»], "status": "event", "type": "moduleLoaded"}}'
    return line


# --- Playing ------------------------------------------------------------------------------------------


def is_event(text):
    return '"status": "event"' in text


def states_of(events):
    return [event for event in events if '"type": "state"' in event]


def output_of(events):
    return b"".join(bytes.fromhex(found[1]) for event in events if (found := re.search(r'"output": "(\w*)"', event)))


def frame(text):
    return (len(text.encode()).to_bytes(4, sys.byteorder) + text.encode()).hex(" ")


class Turn:
    """Requests that go out in one write, and what the page has of what comes then."""

    def __init__(self, lines):
        def taken(*signs):
            """The rests of the lines with these signs; one that ends in "×3" three times."""
            found = [re.fullmatch(r"(.*?)(?: ×(\d+))?", line[3:]) for line in lines if line.startswith(signs)]
            return [match[1] for match in found for _ in range(int(match[2] or 1))]

        self.requests = [request_text(line) for line in taken("-> ", "!> ")]
        self.is_wrong = any(line.startswith("!> ") for line in lines)
        self.responses = [response_text(line) for line in taken("<- ")]
        self.sent, self.received = taken("=> "), taken("<= ")
        events = [event_text(line[2:]) for line in lines if line.startswith("* ")]
        self.states, self.output = states_of(events), output_of(events)
        self.modules = [event for event in events if '"type": "module' in event]
        check(len(self.requests) == len(self.responses), f"as many responses as requests, please: {lines}")


class Session(Host):
    compares = True

    def __init__(self):
        super().__init__(reads=False)
        self.names = {"inferiors": settings["inferiors"], "folder": tempfile.mkdtemp(), "PC": kit.PC, "PLAIN": kit.PLAIN}
        self.events = []  # that no turn has claimed yet

    def value(self, name):
        """The value of a name; the name itself if it matches anything."""
        form, place, offset = re.fullmatch(r"(?:(hex|reg) )?([^+]*)\+?(\d*)", name).groups()
        if ":" in place:
            program, function = place.split(":")
            self.program = kit.inferior(program)
            return {None: "{}", "hex": "{:x}", "reg": "0x{:016x}"}[form].format(self.address(function))
        value = self.names.get(place, f"«{name}»")
        return "0x{:016x}".format(int(value)) if form == "reg" else str(int(value) + int(offset) if offset else value)

    def fill_in(self, text):
        return re.sub("«([^»=]+)»", lambda match: self.value(match[1]), text)

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

    def response(self):
        while is_event(text := self.next_text()):
            self.events.append(text)
        return json.loads(text)

    def take(self, turn):
        """Sends the turn's requests and reads until as much has come as the page has."""
        requests, came = [self.fill_in(text) for text in turn.requests], []
        self.conformance.checks_requests = not turn.is_wrong
        self.send(*(text.encode() for text in requests))
        problem = ""
        try:
            while len(came) - sum(map(is_event, came)) < len(requests) or not self.has_come(turn):
                came.append(self.next_text())
                self.events += [came[-1]] if is_event(came[-1]) else []
        except Failure as failure:
            problem = str(failure)
        events, self.events = self.events, []
        if self.compares or problem:
            self.compare(turn, requests, [text for text in came if not is_event(text)], events, problem)
        return requests, came

    def has_come(self, turn):
        return (
            len(states_of(self.events)) >= len(turn.states)
            and len(output_of(self.events)) >= len(turn.output)
            and all(any(self.matches(module, event) for event in self.events) for module in turn.modules)
        )

    def compare(self, turn, requests, responses, events, problem):
        """Shows differences, and the equal lines around them."""
        exits = [at for at, event in enumerate(events) if "eStateExited" in event]
        output = output_of(events[: exits[-1]] if exits else events)
        pairs = [*zip(turn.sent, map(frame, requests)), *zip(turn.received, map(frame, responses))]
        pairs += itertools.zip_longest(turn.responses, responses, fillvalue="(nothing)")
        pairs += itertools.zip_longest(turn.states, states_of(events), fillvalue="(nothing)")
        pairs += [(f"output {turn.output!r}", f"output {output!r}")]
        rows = [(self.matches(*pair), self.fill_in(pair[0]), pair[1]) for pair in pairs]
        if problem or not all(is_same for is_same, _, _ in rows):
            shown = [f"    {came}" if is_same else f"  - {wanted}\n  + {came}" for is_same, wanted, came in rows]
            raise Failure("\n".join([problem, *(f"    {text}" for text in requests), *shown]))

    def start(self, words):
        """Starts a server, or a program that prints a line when it is ready."""
        words = [self.fill_in(word).replace("«port»", "PORT") for word in words]
        if any("PORT" in word for word in words):
            words[0] = settings.get(words[0], words[0])
            _, self.names["port"] = kit.server(*words)
        else:
            self.names["pid"] = kit.Program(*words).pid

    def instruct(self, line):
        """What a line that begins with "$" asks for, as turns."""
        line, *events = line.splitlines()
        name, _, rest = line.partition(" ")
        if name == "continue":
            yield ["-> continueExecution", "<- ok", "* eStateRunning", *events]
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
        turns = re.findall(r"(?:^\$ continue(?:\n\* .*)*)|(?:^\$ .*$)|(?:^[-!]> .*\n?)+(?:^[<*=].*\n?)*", "\n".join(lines), re.M)
        check(sum(len(turn.strip("\n").split("\n")) for turn in turns) == len(lines), f"not understood: {lines}")
        for text in turns:
            if text.startswith("$ "):
                for turn in self.instruct(text[2:]):
                    self.take(Turn(turn))
                yield text, None, []
            else:
                yield text, *self.take(Turn(text.strip("\n").split("\n")))

    def finish(self):
        self.end()
        self.events += iter(lambda: self.checked_text().decode(errors="surrogateescape"), "")
        check(not states_of(self.events), f"more has come than the page has: {self.events}")


def play_console(block):
    """Messages end without a line end; each begins a line on the page."""
    typed = "".join(line[2:] + "\n" for line in block if line.startswith("> "))
    command = [settings["helper"], *block[0].split()[2:]]
    output = subprocess.run(command, input=typed.encode(), stdout=subprocess.PIPE, timeout=kit.DEADLINE, check=True).stdout
    output = re.sub(r"(?<!\n)(INPUT|OUTPUT): ", r"\n\1: ", output.decode())
    return [block[0], *(line for line in block if line.startswith("> ")), *output.strip("\n").splitlines()]


def blocks(path):
    """The page in pieces: (heading, lines, whether they are a session)."""
    heading = ""
    for number, piece in enumerate(re.split(r"^```\n|^```$", kit.read(path), flags=re.M)):
        headings = re.findall(r"^#+ (.*)", piece, re.M) if number % 2 == 0 else []
        heading = headings[-1] if headings else heading
        yield heading, piece.splitlines(), number % 2 == 1


def play(path, name):
    """Plays the sessions below the headings with this name; "-" stands for what is no letter or digit there."""
    found = [lines for heading, lines, is_block in blocks(path) if is_block and re.sub(r"\W+", "-", heading) == name]
    check(found, f"there is no session {name}")

    def give_up(*_):
        raise Failure("the helper says nothing more")

    signal.signal(signal.SIGALRM, give_up)
    for lines in found:
        if lines[0].startswith("$ lldb-helper"):
            came = play_console(lines)
            check(came == lines, "\n" + "\n".join(difflib.ndiff(lines, came)))
        else:
            session = Session()
            collections.deque(session.play(lines), maxlen=0)
            session.finish()
