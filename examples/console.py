"""A debugger's command line on top of lldb-helper: a host for a person.

Usage: console.py [--helper PATH] [PROGRAM [ARGUMENTS...]]

"help" lists the commands. Most of them are gdb's words for lines of LLDB's own command line: the
table in console_words.py. If standard input is not a terminal, it is a script of such lines. In a
script "c", "run" and the steps wait for the program's next stop or exit ("c &" does not, "wait"
does it later), and a line that fails ends the script with status 1.

There are two threads. The main thread reads lines and sends requests. The other thread shows events
as they arrive, and asks the helper where the program is after a stop.
"""

import argparse
import atexit
import contextlib
import difflib
import glob
import json
import os
import re
import readline
import shlex
import shutil
import signal
import sys
import threading
import time

sys.dont_write_bytecode = True  # leaves no file where the examples are installed
from console_words import ARM_REGISTERS, INFO, NOTES, PROTOCOL, REPEATED  # noqa: E402
from console_words import SAID, SETTINGS, WHERE, WORDS, X86_REGISTERS  # noqa: E402
from host import Helper  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
SCHEMA = os.path.join(HERE, "..", "docs", "protocol.schema.json")
PROMPT = "(helper) "
NOWHERE = 2**64 - 1  # LLDB's invalid address
RUNNING = ("eStateLaunching", "eStateRunning", "eStateStepping")
ENDED = (None, "eStateExited", "eStateDetached")
# The commands, and LLDB's lines, that resume the program.
RESUMING = re.compile(
    r"continueExecution|step(Instruction|Over|Out)|thread (step|until|continue)|process continue"
    r"|(continue|step|next|finish|[csn]|si|ni)\b"
)
# Those that need a program that has stopped.
INSPECTING = re.compile(
    r"(thread|frame|bt|up|down|disassemble|memory|register|expression|p|po|x|watchpoint set)\b"
    r"|continueExecution|step(Instruction|Over|Out)|(get|set)Register|(get|select)Thread"
    r"|selectFrame|getCallstack|readMemory|writeByte"
)
THREAD = re.compile(r"\bthread (\d+)")  # in LLDB's description of a thread
RED, YELLOW, DIM, BOLD = 31, 33, 2, 1


class Mistake(Exception):
    """The typed line cannot be carried out."""


def find_helper(named):
    """Returns the named lldb-helper, or the one built in this source tree, or the installed one."""
    built = os.path.join(HERE, "..", "build", "release", "lldb-helper")
    installed = os.path.join(HERE, "..", "..", "..", "bin", "lldb-helper")
    for path in [named] if named else [built, installed, "lldb-helper"]:
        if found := shutil.which(path):
            return found
    advice = "lldb-helper: script/build builds it, or --helper PATH names one"
    sys.exit(f"console.py: there is no {named or advice}")


def address(number):
    return "nowhere" if number == NOWHERE else f"0x{number:x}"


def table(rows):
    """Aligns the columns of the rows."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    lines = []
    for row in rows:
        cells = [cell.ljust(width) for cell, width in zip(row, widths)]
        lines.append("  ".join(cells).rstrip())
    return "\n".join(lines)


def bytes_table(start, data):
    lines = []
    for at in range(0, len(data), 16):
        piece = bytes(data[at : at + 16])
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in piece)
        lines.append(f"0x{start + at:016x}  {piece.hex(' '):<47}  {text}")
    return "\n".join(lines)


def member_text(key, value):
    if key == "pc" or key.lower().endswith(("addr", "address", "slide")):
        return address(value)
    return value if isinstance(value, str) else json.dumps(value)


def has_succeeded(response):
    return response["status"] == "ok" and response.get("succeeded", True)


def response_text(response, request):
    """Addresses in hexadecimal, lists of objects as tables, nothing for a plain ok."""
    if "memory" in response:
        return bytes_table(request.get("address", 0), response["memory"])
    if "succeeded" in response:
        return response.get("output", "") + response.get("error", "")
    words, tables = [], []
    for key, value in (response.get("module") or response).items():
        if isinstance(value, list) and value and isinstance(value[0], dict):
            keys = list({key: None for row in value for key in row})
            rows = [[member_text(key, row.get(key, "")) for key in keys] for row in value]
            tables.append(table([keys, *rows]))
        elif key not in ("id", "status"):
            words.append(f"{key} {member_text(key, value)}")
    return "\n".join(filter(None, ["  ".join(words), *tables]))


class Screen:
    """Prints above the line that is being typed."""

    def __init__(self):
        self.lock = threading.Lock()
        self.at_prompt = False
        self.has_colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ

    def colour(self, code, text):
        return f"\033[{code}m{text}\033[0m" if self.has_colour and code and text else text

    def show(self, text, code=0):
        if not text:
            return
        with self.lock:
            if self.at_prompt:
                typed = len(PROMPT) + len(readline.get_line_buffer())
                rows = typed // shutil.get_terminal_size().columns
                sys.stdout.write(f"\033[{rows}A" * bool(rows) + "\r\033[J")
            sys.stdout.write(self.colour(code, text.rstrip("\n")) + "\n")
            if self.at_prompt:
                sys.stdout.write(PROMPT + readline.get_line_buffer())
            sys.stdout.flush()

    def read_line(self):
        """Reads a line from the terminal. Shows nothing after readline draws the prompt and before
        at_prompt is set. Otherwise the prompt would be drawn twice, or not at all."""
        self.lock.acquire()
        readline.set_pre_input_hook(self.prompt_is_drawn)
        try:
            return input(PROMPT)
        finally:
            if self.at_prompt:
                self.lock.acquire()
            self.at_prompt = False
            self.lock.release()

    def prompt_is_drawn(self):
        self.at_prompt = True
        self.lock.release()


class Console:
    def __init__(self, helper):
        with open(SCHEMA, encoding="utf-8") as file:
            self.schema = json.load(file)["$defs"]
        self.screen = Screen()
        self.show = self.screen.show
        # Only the main thread handles Ctrl-C. New threads inherit the signal mask. The helper and
        # its programs must not.
        interrupts = {signal.SIGINT}
        signal.pthread_sigmask(signal.SIG_BLOCK, interrupts)
        unblock = lambda: signal.pthread_sigmask(signal.SIG_UNBLOCK, interrupts)  # noqa: E731
        self.helper = Helper(helper, preexec_fn=unblock)
        self.is_terminal = sys.stdin.isatty()
        self.raw = False
        self.asking = threading.Lock()  # held from a request to its response
        self.changed = threading.Condition()  # guards state, ending and stops
        self.state = None  # of the process; None without a process
        self.ending = None
        self.reason = ""  # for the last stop
        self.stops = 0  # includes exits
        self.is_entering = False  # the next stop is at the entry, where LLDB reports a signal
        self.is_fresh = False  # the program stands at its entry and was never resumed
        self.program = []
        self.thread = None  # the number of the thread that was selected when the program went on
        self.registers = self.registers_before = {}  # at this stop and the one before
        self.has_context = False
        self.row = None  # of the table, for the word that is carried out
        self.last_line = ""
        self.is_in_background = False  # the line ends with &, so a script does not wait
        self.has_warned = False  # that Ctrl-D ends the program
        self.has_failed = False  # the last line; a script ends with status 1 then
        self.watcher = threading.Thread(target=self.watch, daemon=True)
        self.watcher.start()
        signal.signal(signal.SIGINT, self.interrupt)
        unblock()

    def watch(self):
        """Shows events. The second thread runs this and what it calls."""
        while event := self.helper.events.get():
            if isinstance(event, threading.Event):
                event.set()
                continue
            if isinstance(event, Exception):
                return self.enter("eStateExited")  # the helper has ended
            self.show(json.dumps(event) * self.raw, DIM)
            if event["type"] == "state":
                self.take_state(event)
            elif event["type"] in ("stdout", "stderr"):
                output = bytes.fromhex(event["output"]).decode(errors="replace")
                self.show(output.replace("\r\n", "\n"))
            elif event["modules"]:
                bases = [(module["file"], self.base(module)) for module in event["modules"]]
                names = [f"{name} at {address(base)}" for name, base in bases if base != NOWHERE]
                self.show(names and f"* loaded {', '.join(names)}", DIM)

    def base(self, module):
        """The address of the image, which "modules" shows too. The event has a section's."""
        path = f"{module['directory']}/{module['file']}"
        found = self.request("moduleForFile", file=path).get("module", {})
        sections = found.get("sections", [])
        places = [section["loadAddr"] for section in sections if section["fileByteSize"]]
        return min(places, default=module["loadAddress"])

    def take_state(self, event):
        state = event["state_desc"]
        shown = ""
        if state == "eStateStopped":
            if self.request("getProcessState").get("state-string") in RUNNING:
                return  # LLDB has resumed the process itself
            text = "stopped: " + self.where()
            shown = self.surroundings(self.has_context)
        elif state == "eStateExited":
            self.ending = event["exit_status"]
            text = f"exited, status {self.ending}"
        else:
            text = "" if state in RUNNING else state.removeprefix("eState").lower()
        self.enter(state)  # before the text, after which a person may press Ctrl-C
        self.show(text and f"* {text}", YELLOW)
        self.show(shown)

    def enter(self, state):
        with self.changed:
            self.state = state
            self.stops += state not in RUNNING
            self.changed.notify_all()

    def where(self):
        """Why and where the program stopped. Of the threads with a reason to stop this selects the
        one that was selected before, else keeps LLDB's choice, else takes the first."""
        threads = self.output_of("thread list").splitlines()[1:]
        stopped = [line for line in threads if "; thread " in line] or threads or ["* "]
        was_selected = f"thread {self.thread} "
        chosen = max(stopped, key=lambda line: (was_selected in line, line.startswith("*")))
        if not chosen.startswith("*"):
            self.output_of("thread select " + THREAD.search(chosen)[1])
        self.registers_before = self.registers
        self.registers = self.request("getRegisters").get("registers", {})
        text = chosen[2:]
        if self.is_entering:
            text = text.replace("signal SIGSTOP", "the program's entry", 1)
        self.is_entering = False
        self.reason = text.split(";")[0]
        return text or "no thread has a stop reason"

    def surroundings(self, has_context):
        """What a stop shows below its reason: the code, or with "context on" all that is here."""
        lines = self.output_of("frame select").splitlines()
        source = [line for line in lines if re.match(r"(->)?\s+\d+\s", line)]
        if not has_context:
            lines = source + self.output_of("disassemble --pc --count 1").splitlines()
            return self.with_arrow([line for line in lines if line.startswith("->")])
        parts = {
            "registers": self.general_registers(self.registers),
            "instructions": self.with_arrow(self.instructions(2, 5)),
            "source": self.with_arrow(source),
            "stack": self.output_of("memory read --format A --count 6 $sp").rstrip(),
        }
        shown = [f"{self.head(name)}\n{text}" for name, text in parts.items() if text]
        return "\n".join([*shown, self.head("")])

    def head(self, text):
        width = min(shutil.get_terminal_size().columns, 100)
        return self.screen.colour(DIM, f"── {text} ".ljust(width, "─") if text else "─" * width)

    def with_arrow(self, lines):
        """Sets off the line of the program counter."""
        colour = self.screen.colour
        return "\n".join(colour(BOLD * line.startswith("->"), line.rstrip()) for line in lines)

    def instructions(self, before, after):
        """The lines of the instructions around the program counter."""
        lines = self.output_of("disassemble --frame").splitlines()
        current = [at for at, line in enumerate(lines) if line.startswith("->")]
        if not current:  # no function is known here, or it is too long
            return self.output_of(f"disassemble --pc --count {after + 1}").splitlines()
        first = max(1, current[0] - before)
        return lines[:1] + lines[first : current[0] + after + 1]

    def request(self, command, **arguments):
        """Sends a request and returns its response."""
        if self.raw:
            self.show(json.dumps({"command": command, **arguments}), DIM)
        with self.asking:
            response = self.helper.ask(command, **arguments)
        if self.raw:
            self.show(json.dumps(response)[:2000], DIM)
        return response

    def output_of(self, line):
        """The output of one of LLDB's lines, empty if it fails."""
        return self.request("executeCommand", cli=line).get("output", "")

    def ask(self, command, **arguments):
        """Like request(), for the main thread. Shows earlier events first, and waits until the
        events so far are shown."""
        self.catch_up()
        before = self.stops
        line = arguments.get("cli", "")
        self.is_entering = command == "createProcess" or line.startswith("process launch --stop")
        resumes = RESUMING.match(line or command)
        if resumes:
            selected = THREAD.search(self.output_of("thread info"))
            self.thread = selected and selected[1]
        response = self.request(command, **arguments)
        is_ok = has_succeeded(response)
        if is_ok and resumes:
            self.is_fresh = False
            with self.changed:
                if self.stops == before:
                    self.state = "eStateRunning"  # the event may arrive later
        elif is_ok and command in ("deleteProcess", "detach"):
            self.enter(None if command == "deleteProcess" else "eStateDetached")
            self.registers = {}
            self.is_fresh = False
        self.catch_up()
        return response

    def catch_up(self):
        """Returns when all events that have arrived are shown."""
        mark = threading.Event()
        self.helper.events.put(mark)
        while not mark.wait(1):
            if not self.watcher.is_alive():
                raise EOFError

    def perform(self, command, **arguments):
        """Sends a request and shows the response. Returns whether it is ok."""
        if INSPECTING.match(command):
            self.need_a_stop()
        if command in ("detach", "stopExecution") and self.state in ENDED:
            raise Mistake(self.obstacle())
        response = self.ask(command, **arguments)
        is_ok = has_succeeded(response)
        self.has_failed |= not is_ok
        if response["status"] == "error":
            without = response["message"] in ("no process", "no target")
            self.show((without and self.obstacle()) or response["message"], RED)
        elif command in SAID:
            self.show(SAID[command].format(**arguments))
        else:
            self.show(response_text(response, arguments))
        is_kill = command == "stopExecution"
        resumes = is_kill or RESUMING.match(arguments.get("cli", command))
        if is_ok and resumes and not self.is_in_background:
            self.await_stop(0.5 if self.is_terminal else None, is_kill)
        return is_ok

    def lldb(self, line):
        """Carries out one of LLDB's lines."""
        if INSPECTING.match(line):
            self.need_a_stop()
        is_ok = self.perform("executeCommand", cli=line)
        if is_ok and line.startswith("thread select"):
            self.show(self.output_of("frame select"))  # LLDB says nothing
        return is_ok

    def await_stop(self, seconds=None, is_killed=False):
        """Waits until the program stops or exits. A killed program exits after the response."""
        with self.changed:
            self.changed.wait_for(
                lambda: self.state in ENDED if is_killed else self.state not in RUNNING, seconds
            )
        self.catch_up()

    def obstacle(self):
        """Returns why the program cannot be inspected, or None if it can."""
        if self.state in RUNNING:
            return "The program is running. Ctrl-C or interrupt stops it, wait waits for its stop."
        return {
            None: "There is no program. launch PROGRAM starts one. attach PID attaches to one.",
            "eStateExited": f"The program ended with status {self.ending}. run starts it again.",
            "eStateDetached": "The program runs without this debugger. attach PID attaches again.",
        }.get(self.state)

    def need_a_stop(self):
        self.catch_up()
        if text := self.obstacle():
            raise Mistake(text)

    def number(self, text):
        """The value of a number, symbol, register or sum. LLDB evaluates all but numbers."""
        try:
            return int(text, 0)
        except ValueError:
            self.need_a_stop()
        # Without debug information LLDB's expressions know no symbol, but its symbol table does.
        for place in (text, re.sub(r"(?<![$\w])[A-Za-z_]\w*", self.symbol, text)):
            line = f'memory read --size 1 --count 1 --format x -- "{place}"'
            if found := self.search(r"^(0x\w+):", line):
                return int(found, 16)
        raise Mistake(f"«{text}» is not a number, symbol, $register or sum of them")

    def symbol(self, name):
        line = f"image lookup --verbose --symbol {name[0]}"
        return self.search(r"range = \[(0x\w+)", line) or name[0]

    def search(self, pattern, line):
        """Runs an LLDB line. Returns what the pattern's group finds in its output, or None."""
        found = re.search(pattern, self.ask("executeCommand", cli=line).get("output", ""), re.M)
        return found and found[1]

    def arguments(self, command):
        """The schemas of a command's arguments, by name, in their order."""
        request = self.schema["requests"].get(command, {})
        properties = request.get("properties", {})
        return {name: properties[name] for name in properties if name not in ("command", "id")}

    def arguments_of(self, command, words):
        schemas = self.arguments(command)
        order = list(schemas)
        arguments = {}
        for word in words:
            name, equals, text = word.partition("=")
            if not equals or name not in schemas:
                if not order:
                    raise Mistake(f"{command} does not take «{word}»; see help {command}")
                name, text = order[0], word
            order = [other for other in order if other != name]
            kind = schemas[name].get("type", "integer")  # as the schema wants it
            if kind == "boolean":
                arguments[name] = text.lower() == "true"
            elif kind == "array":
                arguments[name] = list(os.fsencode(text))
            else:
                arguments[name] = self.number(text) if kind == "integer" else text
        return arguments

    def do_launch(self, rest):
        """launch PROGRAM [ARGUMENTS...]: ends the current program, and starts this one, stopped at
        its entry. A name without a folder is searched in this folder, then in PATH."""
        words = shlex.split(rest)
        if not words:
            raise Mistake("There is no program to start. launch PROGRAM [ARGUMENTS...] names one.")
        path = words[0]
        if "/" not in path and not os.path.exists(path):
            path = shutil.which(path) or path
        path = os.path.abspath(path)
        for word in words[1:]:
            if re.fullmatch(r'[<>|]|>>|2>|.*["\\].*|', word):
                raise Mistake(
                    f"«{word}» cannot be passed, nor can quotes, backslashes, empty words"
                )
        is_again = self.program[:1] == [path] and self.state is not None
        self.say_what_is_lost("watchpoint" if is_again else "(watch|break)point")
        if not is_again:
            self.ask("deleteProcess")
        elif self.state not in ENDED:
            self.ask("stopExecution")
            self.await_stop(is_killed=True)
        self.program = [path, *words[1:]]
        quoted = " ".join(f'"{word}"' for word in words[1:])
        if is_again:  # in the same target, so that the breakpoints stay
            folder = shlex.quote(os.getcwd())
            line = f"process launch --stop-at-entry --working-dir {folder} -- {quoted}"
            response = self.ask("executeCommand", cli=line)
            if not response["succeeded"]:
                raise Mistake(response["error"])
            with self.changed:
                self.changed.wait_for(lambda: self.state == "eStateStopped", 2)
            if self.state in ENDED:  # LLDB 14 does not report the stop at the entry
                self.take_state({"state_desc": "eStateStopped"})
            self.is_fresh = True
        else:
            self.ask("prepareExecutable", path=path, args=quoted, cwd=os.getcwd())
            self.is_fresh = self.perform("createProcess")
        return self.is_fresh

    def say_what_is_lost(self, pattern):
        """Breakpoints end with their target, watchpoints with their process."""
        for kind in ("breakpoint", "watchpoint"):
            listed = self.output_of(f"{kind} list --brief")
            if re.match(pattern, kind) and re.search(r"^(Watchpoint )?\d+:", listed, re.M):
                self.show(f"* the {kind}s of the program before are gone", YELLOW)
        self.output_of("watchpoint delete --force")

    def do_run(self, rest):
        """run [ARGUMENTS...]: starts the program again, with the same arguments or with these, and
        goes on to the first breakpoint or to the end. Breakpoints stay."""
        if (self.is_fresh and not rest) or self.do_starti(rest):
            self.perform("continueExecution")

    def do_starti(self, rest):
        arguments = rest or shlex.join(self.program[1:])
        return self.do_launch(f"{shlex.join(self.program[:1])} {arguments}")

    def do_start(self, rest):
        if (self.is_fresh and not rest) or self.do_starti(rest):
            name = shlex.quote(self.program[0])
            line = f"breakpoint set --one-shot true --name main --shlib {name}"
            if self.search(r"^Breakpoint (\d+): (?!no locations)", line):
                self.perform("continueExecution")
            else:
                self.show("* no main is known: the program stands at its entry", YELLOW)

    def do_attach(self, rest):
        if not rest.isdigit():
            raise Mistake(self.usage())
        if self.state in ENDED and self.state:
            self.say_what_is_lost("")
            self.ask("deleteProcess")
        if self.perform("attachToProcess", pid=int(rest)):
            self.program = []

    def do_wait(self, _):
        self.await_stop()

    def do_break(self, rest):
        """b: lists the breakpoints. b PLACE [if CONDITION]: sets one, tbreak PLACE one for one
        stop. PLACE is a FUNCTION, FILE:LINE, LINE of the current file, *ADDRESS or 0xADDRESS, or +N
        for N bytes after the program counter."""
        if self.state is None:
            self.need_a_stop()
        if not rest:
            return self.lldb("breakpoint list")
        place, *condition = re.split(r"\s+if\b\s*", rest, maxsplit=1)
        place = place.replace('"', "")
        # *main is the first instruction, main is past the prologue.
        if found := re.fullmatch(r"(.*[^:]):(\d+)", place):
            line = f"--file {shlex.quote(found[1])} --line {found[2]}"
        elif re.fullmatch(r"[1-9]\d*", place):
            line = f"--line {place}"
        elif re.fullmatch(r"[A-Za-z_~]([^-+*\s]|\(.*\))*", place):
            line = f"--name {shlex.quote(place)}"
        else:
            line = f"--address {self.number(re.sub(r'^(?=[-+])', '$pc', place.lstrip('*')))}"
        if condition == [""]:
            raise Mistake(self.usage())
        if condition:
            line += f" --condition {shlex.quote(condition[0])}"
        return self.lldb(f"{self.row.line} {line}")

    def do_watch(self, rest):
        """watch VARIABLE, watch *ADDRESS: stops when the program writes to it."""
        if rest.startswith("*"):
            return self.lldb(f"watchpoint set expression -- {self.number(rest[1:])}")
        return self.lldb(f"watchpoint set variable {rest}")

    do_tbreak = do_break

    def do_context(self, rest):
        """context: shows registers, instructions, source and stack. context on: so does each stop.
        context off: a stop shows the source line and the next instruction."""
        if rest in ("on", "off"):
            self.has_context = rest == "on"
        elif rest:
            raise Mistake(self.usage())
        else:
            self.need_a_stop()
            self.show(self.surroundings(True))

    def do_code(self, rest):
        """code [ADDRESS]: shows instructions around the program counter, or from an address on."""
        if rest:
            return self.lldb(f"disassemble --count 16 --start-address {self.number(rest)}")
        self.need_a_stop()
        self.show(self.with_arrow(self.instructions(8, 8)))

    def do_disassemble(self, rest):
        """disas [FUNCTION or ADDRESS]: shows the instructions of a whole function."""
        if re.fullmatch(r"[A-Za-z_~][\w:~]*", rest):
            return self.lldb(f"disassemble --force --name {rest}")
        return self.do_code(rest) if rest else self.lldb("disassemble --force --frame")

    def do_x(self, rest):
        """x [ADDRESS]: shows 64 bytes of memory, or those after the last ones. x/4gx ADDRESS: shows
        four giant words in hexadecimal, and so on."""
        return self.lldb(f"memory read --count 64 {self.number(rest) if rest else ''}")

    def do_regs(self, rest):
        """regs: shows general registers. regs NAME...: these. regs all: all. A star marks those
        that the last step has changed."""
        if rest:
            return self.lldb("register read " + ("--all" if rest == "all" else rest))
        self.need_a_stop()
        self.show(self.general_registers(self.ask("getRegisters")["registers"]))

    def general_registers(self, values):
        """These registers, in as many columns as the terminal has room for."""
        names = X86_REGISTERS if "rip" in values else ARM_REGISTERS
        names = [name for name in names if name in values] or list(values)
        # self.registers has those of the innermost frame, which may not be the selected one.
        now, before = self.registers, self.registers_before
        changed = {name for name in names if values[name] == now.get(name) != before.get(name)}
        changed &= before.keys()
        # Some texts also have the place that the register points to.
        values = {name: re.sub(r"(?<=\w) .*", "", values[name]) for name in names}
        width = max(map(len, values.values()), default=0)
        cells = []
        for name in names:
            cell = f"{'*' if name in changed else ' '}{name:>6} {values[name]:<{width}} "
            cells.append(self.screen.colour(YELLOW * (name in changed), cell))
        columns = max(1, shutil.get_terminal_size().columns // (width + 9))
        rows = [cells[at : at + columns] for at in range(0, len(cells), columns)]
        return "\n".join("".join(row).rstrip() for row in rows)

    def do_info(self, rest):
        """info SUBJECT: the beginning of a subject's name is enough. help lists the subjects."""
        subject, _, rest = rest.partition(" ")
        found = [name for name in INFO if subject and name.startswith(subject)]
        if not found:
            raise Mistake(f"info knows {', '.join(INFO)}")
        if found[0] == "registers":
            return self.do_regs(rest)
        return self.lldb(f"{INFO[found[0]]} {rest}")

    def do_set(self, rest):
        """set VARIABLE=VALUE, set $REGISTER=VALUE: writes it. set args [ARGUMENTS...]: for the next
        run. set disassembly-flavor intel, set follow-fork-mode child: as gdb's."""
        name, _, value = rest.partition(" ")
        if name == "args":
            self.program[1:] = shlex.split(value)
            self.is_fresh = False
        elif name in SETTINGS:
            for scope in ("--global", ""):  # of later programs, and of this one
                self.lldb(f"settings set {scope} {SETTINGS[name]} {value}")
        else:
            self.lldb("expression -- " + re.sub(r"^var(iable)? ", "", rest))

    def do_raw(self, rest):
        self.raw = rest != "off"

    def do_help(self, rest):
        """help [COMMAND]: lists the commands, or explains one."""
        requests = self.schema["requests"]
        if not rest:
            rows = [("gdb's word", "LLDB's", "")]
            for row in dict.fromkeys(WORDS.values()):
                rows.append((", ".join(row.names) + " " + row.takes, row.line, row.about))
            self.show(table(rows) + "\n\n" + NOTES.format(info=", ".join(INFO)))
        elif rest == "protocol":
            self.show("\n".join(" ".join([name, *self.arguments(name)]) for name in requests))
        elif row := WORDS.get(rest):
            own = getattr(self, f"do_{row.names[0]}", None)
            text = own and own.__doc__ or f"{', '.join(row.names)} {row.takes}: {row.about}"
            self.show(re.sub(r"\n +", "\n", text))
            self.show(row.line and f"LLDB's word is «{row.line}»; !help {row.line} explains it.")
        elif rest in requests:
            self.show(f"{rest}: {requests[rest]['description']}")
            rows = []
            for name, schema in self.arguments(rest).items():
                kind = schema.get("type", "integer")
                rows.append((f"  {name}", kind, schema.get("description", "")))
            self.show(rows and table(rows))
        else:
            self.lldb_word(f"help {rest}", rest.split()[0])

    def obey(self, line):
        """Carries out one line. Returns whether to continue."""
        if not line and self.is_terminal:
            line = self.last_line
        self.last_line = ""
        self.is_in_background = line.endswith(" &")
        line = line.removesuffix(" &")
        if line.startswith("!"):
            self.perform("executeCommand", cli=line[1:].strip())
        elif line.startswith("<"):
            data = list(os.fsencode(line[1:].lstrip() + "\n"))
            self.perform("sendToApplication", data=data)
        elif line in ("quit", "q", "exit"):
            return False
        elif line and not line.startswith("#"):
            word, _, rest = line.partition(" ")
            self.obey_word(word, rest.strip(), line)
            if word in REPEATED:
                self.last_line = "x" if word == "x" else line  # x goes on after the last bytes
        return True

    def obey_word(self, word, rest, line):
        self.row = row = WORDS.get(word)
        name = row.names[0] if row else word
        command = PROTOCOL.get(name, name)
        if re.match(r"(x|p|print|po)/", word):  # LLDB has gdb's formats
            self.lldb(line.replace("print/", "p/", 1))
        elif rest and name in ("step", "next", "stepi", "nexti", "continue"):
            self.repeat(row, rest)
        elif row and hasattr(self, f"do_{name}"):
            getattr(self, f"do_{name}")(rest)
        elif name in ("frame", "thread") and not rest.isdigit():
            self.lldb(f"{name} {rest or 'info'}")
        elif command in self.schema["requests"]:
            if row and command == "continueExecution":
                # A step that a breakpoint has cut short would go on, and stop at its end.
                self.output_of("thread plan discard 1")
            self.perform(command, **self.arguments_of(command, shlex.split(rest)))
        elif row:
            line = row.line.removesuffix(" --all") if rest else row.line
            self.lldb(f"{line} {rest}".strip())
        else:
            self.lldb_word(line, word)

    def repeat(self, row, count):
        """Steps that many times, or continues past the breakpoint that many times, as gdb does."""
        if not re.fullmatch(r"[1-9]\d*", count):
            raise Mistake(f"{row.names[0]} takes a count, not «{count}»")
        if row.names[0] == "continue":
            self.lldb(f"{row.line} --ignore-count {int(count) - 1}")
            return
        for _ in range(int(count)):
            self.reason = ""
            if self.lldb(row.line):
                self.await_stop()
            if "step" not in self.reason:
                break

    def lldb_word(self, line, word):
        """Carries out a line with one of LLDB's own words."""
        if word in (
            "display",
            "undisplay",
        ):  # these add a stop hook, whose output does not come here
            raise Mistake("stops do not show values here; p EXPRESSION shows one")
        if not self.ask("executeCommand", cli=f"help {word}").get("succeeded"):
            near = difflib.get_close_matches(word, self.words(), 1)
            advice = f"{near[0]}?" if near else "help lists them"
            raise Mistake(f"there is no command «{word}»; {advice}")
        self.lldb(line)

    def usage(self):
        return f"{self.row.names[0]} {self.row.takes}"

    def interrupt(self, *_):
        """Handles Ctrl-C, in the main thread, which may be waiting for a response."""
        if self.state in RUNNING:
            threading.Thread(target=self.request, args=("breakExecution",), daemon=True).start()
        elif self.screen.at_prompt or not self.is_terminal:  # ends a script
            raise KeyboardInterrupt

    def next_line(self):
        """The next line, None at the end of the input."""
        if not self.is_terminal:
            return sys.stdin.readline() or None
        try:
            return self.screen.read_line()
        except EOFError:
            print()
        if self.state in ENDED or self.has_warned:
            return None
        self.has_warned = True
        self.show("The program is still there. Ctrl-D again ends it and the console.", YELLOW)
        return self.next_line()

    def run(self, program):
        """Launches the program, if there is one, and carries out the lines."""
        goes_on = self.attempt(self.do_launch, shlex.join(program)) if program else True
        while goes_on:
            try:
                line = self.next_line()
            except KeyboardInterrupt:  # drops the typed line
                print()
                continue
            self.has_warned = False
            goes_on = line is not None and self.attempt(self.obey, line.strip())
        self.ask("deleteProcess")
        return self.helper.close() or int(self.has_failed and not self.is_terminal)

    def attempt(self, function, argument):
        """Returns whether to go on. A mistake ends a script."""
        self.has_failed = False
        try:
            goes_on = function(argument)
        except (Mistake, ValueError) as mistake:  # shlex raises ValueError for a missing quote
            self.show(str(mistake), RED)
            self.has_failed = True
        return self.is_terminal if self.has_failed else goes_on

    def complete(self, text, index):
        if index == 0:
            line = readline.get_line_buffer()[: readline.get_endidx()]
            self.candidates = self.candidates_for(text, line)
        return self.candidates[index] if index < len(self.candidates) else None

    def words(self):
        return sorted([*self.schema["requests"], *WORDS])

    def candidates_for(self, text, line):
        if line.startswith("!"):
            return self.completions(line[1:].lstrip(), "!" if text.startswith("!") else "")
        word, space, _ = line.lstrip().partition(" ")
        if not space or word == "help":
            return [command + " " for command in self.words() if command.startswith(text)]
        if word in ("b", "break", "tbreak", "x", "code", "disas", "p", "print"):
            return self.completions(f"breakpoint set --name {text}", "") if text else []
        names = [name + "=" for name in self.arguments(word) if name.startswith(text)]
        head, equals, path = text.rpartition("=")
        for file in sorted(glob.glob(path + "*")):
            names.append(head + equals + file + ("/" if os.path.isdir(file) else " "))
        return names

    def completions(self, cli, mark):
        """LLDB's candidates. Its list begins with their common beginning."""
        found = self.ask("completeCommand", cli=cli, pos=len(cli))["completions"]
        words = [mark + word for word in found[1:]]
        return [words[0] + " "] if len(words) == 1 and found[0].endswith(" ") else words

    def use_readline(self):
        state = os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state")
        history = os.path.join(state, "lldb-helper", "history")
        with contextlib.suppress(OSError):  # the console works without a writable home folder
            os.makedirs(os.path.dirname(history), exist_ok=True)
            open(history, "a", encoding="utf-8").close()
            readline.read_history_file(history)
            atexit.register(readline.write_history_file, history)
        readline.set_completer_delims(" ")
        readline.set_completer(self.complete)
        readline.parse_and_bind("tab: complete")
        # Python's readline misses a signal that arrives between its handling of a key and its wait
        # for the next. Another signal, a moment later, makes it handle both.
        signal.signal(signal.SIGUSR1, lambda *_: None)
        arrived, wakeup = os.pipe()
        os.set_blocking(wakeup, False)
        signal.set_wakeup_fd(wakeup, warn_on_full_buffer=False)
        threading.Thread(target=self.repeat_interrupts, args=(arrived,), daemon=True).start()

    def repeat_interrupts(self, arrived):
        """Reads the numbers of the signals that arrive. A thread of its own runs this."""
        while number := os.read(arrived, 1):
            if number[0] == signal.SIGINT:
                time.sleep(0.05)
                signal.pthread_kill(threading.main_thread().ident, signal.SIGUSR1)


def main():
    parser = argparse.ArgumentParser(usage="console.py [--helper PATH] [PROGRAM [ARGUMENTS...]]")
    parser.add_argument("--helper")
    parser.add_argument("program", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    for stream in (sys.stdin, sys.stdout):  # file names may have bytes that are not UTF-8
        stream.reconfigure(errors="surrogateescape")
    console = Console(find_helper(options.helper))
    if console.is_terminal:
        console.use_readline()
    try:
        for setting in (f'thread-format "{WHERE}"', "use-color false", "stop-show-column none"):
            console.ask("executeCommand", cli=f"settings set {setting}")
        console.has_context = console.is_terminal
        if console.is_terminal and not options.program:
            console.show("launch PROGRAM or attach PID comes first. help lists all words.")
        return console.run(options.program)
    except (EOFError, BrokenPipeError):
        sys.exit("console.py: lldb-helper has ended, or nobody reads this output any more")


if __name__ == "__main__":
    sys.exit(main())
