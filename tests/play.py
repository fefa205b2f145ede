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

import difflib
import itertools
import shlex

from kit import *

hex_frame = lambda text: frame(text.encode()).hex(" ")

def as_object(members):
    return "{" + ", ".join(f'"{key}": {value}' for key, value in members) + "}"


def members(text):
    """The members of «key=value key=value», each value as JSON text."""
    for key, value in re.findall(r'([\w-]+)=("(?:[^"\\]|\\.)*"|\[[^]]*\]|\S*)', text):
        yield key, value if re.match(r'["\[{«\d-]|(true|false|null)$', value) else f'"{value}"'


def request_text(line):
    command, _, rest = line.partition(" ")
    return as_object([("command", f'"{command}"'), *members(rest)]) if re.match(r"\w+( \w+=|$)", line) else line


def message_text(line):
    """The text of a response or an event."""
    kind, _, rest = line.partition(" ")
    event = [("status", '"event"'), ("type", '"state"' if kind.startswith("eState") else '"stdout"')]
    if kind == "ok":
        return as_object(sorted([("status", '"ok"'), *members(rest)]))
    if kind == "error":
        return as_object([("message", f'"{rest}"'), ("status", '"error"')])
    if kind.startswith("eState"):
        status = [("exit_status", rest)] if rest else []
        number = SCHEMA["$defs"]["stateName"]["enum"].index(kind)
        return as_object([*status, ("inferior_state", number), ("state_desc", f'"{kind}"'), *event])
    if kind == "output":
        return as_object([("output", f'"{json.loads(rest).encode().hex()}"'), *event])
    return f'{{"modules": [«…»"file": "{rest}"«…»], «…»"moduleLoaded"}}' if kind == "moduleLoaded" else line


def is_event(text):
    return '"status": "event"' in text


def states_of(events):
    return [event for event in events if '"type": "state"' in event]


def output_of(events):
    return b"".join(bytes.fromhex(found[1]) for event in events if (found := re.search(r'"output": "(\w*)"', event)))


class Session(Host):
    compares = True

    def __init__(self):
        super().__init__()
        self.names = {"inferiors": inferior("")[:-1], "PC": PC, "PLAIN": PLAIN}
        self.events = []  # that no turn has claimed yet

    def _run(self):
        pass  # the player reads

    def value(self, name):
        """The value of a name; the name itself if it matches anything."""
        place, offset, form = re.fullmatch(r"([^+|]*)\+?(\d*)\|?(.*)", name).groups()
        if ":" in place:
            program, function = place.split(":")
            self.program = inferior(program)
            value = self.address(function)
        else:
            value = self.names.get(place, f"«{name}»")
        return format(int(value) + int(offset or 0), form) if offset or form else str(value)

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
        signal.alarm(DEADLINE)
        text = self.receive()
        signal.alarm(0)
        check(text, "the helper has closed its output")
        return text.decode(errors="surrogateescape")

    def response(self):
        while is_event(text := self.next_text()):
            self.events.append(text)
        return json.loads(text)

    def take(self, lines):
        """Sends the requests of these lines in one write. Reads until as much has come as the lines have, and compares."""

        def rests(*signs):
            """Of the lines with these signs; one that ends in "×3" three times."""
            found = [re.fullmatch(r"\S+ (.*?)(?: ×(\d+))?", line) for line in lines if line.startswith(signs)]
            return [match[1] for match in found for _ in range(int(match[2] or 1))]

        lines_of_requests = [line.split(", ") if re.fullmatch(r"[\w, ]+", line) else [line] for line in rests("->", "!>")]
        requests = [self.fill_in(request_text(text)) for texts in lines_of_requests for text in texts]
        responses, events = ([message_text(line) for line in rests(sign)] for sign in ("<-", "*"))
        check(len(requests) == len(responses), f"as many responses as requests, please: {lines}")
        self.checks_requests = not any(line.startswith("!>") for line in lines)
        self.send(*(text.encode() for text in requests))
        came, problem = [], ""
        try:
            while len(came) - sum(map(is_event, came)) < len(requests) or not self.have_come(events):
                came.append(self.next_text())
                self.events += [came[-1]] if is_event(came[-1]) else []
        except Failure as failure:
            problem = str(failure)
        answers = [text for text in came if not is_event(text)]
        exits = [at for at, event in enumerate(self.events) if "eStateExited" in event]
        outputs = [output_of(texts) for texts in (events, self.events[: exits[-1]] if exits else self.events)]
        pairs = [*zip(rests("=>", "<="), map(hex_frame, itertools.chain(*zip(requests, answers))))]
        pairs += itertools.zip_longest(responses, answers, fillvalue="(nothing)")
        pairs += itertools.zip_longest(states_of(events), states_of(self.events), fillvalue="(nothing)")
        pairs += [tuple(f"output {output!r}" for output in outputs)]
        rows = [(self.matches(*pair), self.fill_in(pair[0]), pair[1]) for pair in pairs]
        if problem or self.compares and not all(is_same for is_same, _, _ in rows):
            shown = [f"    {came}" if is_same else f"  - {wanted}\n  + {came}" for is_same, wanted, came in rows]
            raise Failure("\n".join([problem, *(f"    {text}" for text in requests), *shown]))
        self.events = []
        return requests, came

    def have_come(self, events):
        return (
            len(states_of(self.events)) >= len(states_of(events))
            and len(output_of(self.events)) >= len(output_of(events))
            and all(any(self.matches(event, came) for came in self.events) for event in events if '"moduleLoaded"' in event)
        )

    def instruct(self, line):
        """What a line that begins with "$" asks for, as turns."""
        line, *events = line.splitlines()
        name, _, rest = line.partition(" ")
        if name == "continue":
            yield ["-> continueExecution", "<- ok", "* eStateRunning", *events]
        elif name == "launch":
            program, _, arguments = rest.partition(" ")
            preparation = {"command": "prepareExecutable", "path": inferior(program), "args": self.fill_in(arguments)}
            yield [f"-> {json.dumps(preparation, ensure_ascii=False)}", "<- ok"]
            yield ["-> createProcess", "<- ok", "* eStateStopped"]
        elif name == "run":
            yield [f"-> setBreakpointAtVirtualAddress address=«{rest.split()[-1]}»", "<- ok bkpt_id=«id» bl0=«location»"]
            yield ["-> continueExecution", "<- ok", "* eStateRunning", "* eStateStopped"]
        elif name == "lldb-server":
            words = [self.fill_in(word).replace("«port»", "PORT") for word in shlex.split(rest)]
            _, self.names["port"] = server(CACHE["LLDB_SERVER"], *words)
        else:
            self.names["pid"] = Program(*(self.fill_in(word) for word in shlex.split(line))).pid

    def play(self, lines):
        """Yields each turn's lines, its requests, and the messages that came."""
        turns = re.findall(r"(?:^\$ continue(?:\n\* .*)*)|(?:^\$ .*$)|(?:^[-!]> .*\n?)+(?:^[<*=].*\n?)*", "\n".join(lines), re.M)
        check(sum(len(turn.strip("\n").split("\n")) for turn in turns) == len(lines), f"not understood: {lines}")
        for text in turns:
            if text.startswith("$ "):
                for turn in self.instruct(text[2:]):
                    self.take(turn)
                yield text, None, []
            else:
                yield text, *self.take(text.strip("\n").split("\n"))

    def finish(self):
        self.end()
        self.events += iter(lambda: self.receive().decode(errors="surrogateescape"), "")
        check(not states_of(self.events), f"more has come than the page has: {self.events}")


def play_console(block):
    """Messages end without a line end; each begins a line on the page."""
    typed = [line for line in block if line.startswith("> ")]
    data = "".join(line[2:] + "\n" for line in typed).encode()
    output = subprocess.run([HELPER, *block[0].split()[2:]], input=data, stdout=subprocess.PIPE, timeout=DEADLINE, check=True)
    lines = re.sub(r"(?<!\n)(INPUT|OUTPUT): ", r"\n\1: ", output.stdout.decode()).strip("\n").splitlines()
    return [block[0], *typed, *lines]


def blocks(path):
    """The page in pieces: (heading, lines, whether they are a session)."""
    heading = ""
    for number, piece in enumerate(re.split(r"^```\n|^```$", read(path), flags=re.M)):
        headings = re.findall(r"^#+ (.*)", piece, re.M) if number % 2 == 0 else []
        heading = headings[-1] if headings else heading
        yield heading, piece.splitlines(), number % 2 == 1


def play(path, name):
    """Plays the sessions below the headings with this name."""

    def give_up(*_):
        raise Failure("the helper says nothing more")

    signal.signal(signal.SIGALRM, give_up)
    for lines in [lines for heading, lines, is_session in blocks(path) if is_session and heading == name]:
        if lines[0].startswith("$ lldb-helper"):
            came = play_console(lines)
            check(came == lines, "\n" + "\n".join(difflib.ndiff(lines, came)))
        else:
            session = Session()
            list(session.play(lines))
            session.finish()
