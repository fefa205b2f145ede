"""A debugger's command line on top of lldb-helper: a host for a person.

Usage: console.py [--helper PATH] [PROGRAM [ARGUMENTS...]]

"help" lists the commands. If standard input is not a terminal, it is a script of such lines. In a script "c"
and the steps wait for the program's next stop or exit ("c &" does not, "wait" does it later), and a line that
fails ends the script with status 1.

There are two threads. The main thread reads lines and sends requests. The other thread shows events as they
arrive, and asks the helper where the program is after a stop.
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
import tempfile
import threading
import time

sys.dont_write_bytecode = True  # leaves no file where the examples are installed
from host import Helper  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
PROMPT = "(helper) "
NOWHERE = 2**64 - 1  # LLDB's invalid address
RUNNING = ("eStateLaunching", "eStateRunning", "eStateStepping")
ENDED = (None, "eStateExited", "eStateDetached")

HELP = """\
start   launch PROGRAM [ARGUMENTS]    run [ARGUMENTS]   attach PID   detach   kill
leave   quit, or Ctrl-D (ends the program too)
resume  c (continue)   s, si (one instruction)   n, ni (over calls)
        finish (to the caller)   step, next (a line of source)
        interrupt, or Ctrl-C     wait (for the stop)
break   b (lists)   b PLACE   b PLACE if CONDITION   tbreak PLACE   delete [N]
        PLACE: FUNCTION   FILE:LINE   ADDRESS   +N (from the program counter)
        watch VARIABLE   watch *ADDRESS
inspect where (why and where it stopped)   bt [COUNT]   f N   up   down   threads
        thread N   code [ADDRESS]   disas [PLACE]   list   p EXPRESSION   p/x   modules
        x [ADDRESS [LENGTH]]   x/4gx ADDRESS   regs   regs all   regs NAME...   vmmap
        info registers, breakpoints, threads, sharedlibrary, locals   intel
send    < LINE (to the program)   ! LINE (to LLDB: !help)   raw on, raw off

ADDRESS is a number, a symbol, $REGISTER, or a sum without spaces: $sp+0x10. Tab
completes. An empty line repeats s, n, step, next, c, x and code.
help COMMAND explains a command. "help protocol" lists the protocol's commands.
Type their arguments in order or by name: readMemory main length=64.
"""

# Other names for commands of the protocol. The arguments follow.
ALIASES = {
    "attach": "attachToProcess", "cont": "continueExecution", "fin": "stepOut", "k": "stopExecution",
    "ni": "stepOver", "nexti": "stepOver", "si": "stepInstruction", "stepi": "stepInstruction",
    "c": "continueExecution", "continue": "continueExecution", "finish": "stepOut",
    "interrupt": "breakExecution", "kill": "stopExecution", "n": "stepOver", "s": "stepInstruction",
}  # fmt: skip
# Other names for LLDB's commands. The rest of the line follows.
LLDB_LINES = {
    "backtrace": "bt", "call": "expression --", "d": "breakpoint delete --force", "disable": "breakpoint disable",
    "enable": "breakpoint enable", "list": "list", "l": "list", "set": "expression --", "t": "thread select",
    "until": "thread until", "vmmap": "memory region --all", "ptype": "type lookup",
    "bt": "bt", "delete": "breakpoint delete --force", "down": "down", "f": "frame select",
    "frame": "frame select", "modules": "image list --header --basename", "next": "thread step-over",
    "p": "expression --", "print": "expression --", "source": "source list", "step": "thread step-in",
    "thread": "thread select", "threads": "thread list", "up": "up", "where": "thread info",
}  # fmt: skip
# What "info" shows, by the names of its subjects.
INFO = {
    "registers": "regs", "breakpoints": "breakpoint list", "threads": "thread list",
    "sharedlibrary": "image list --header --basename", "watchpoints": "watchpoint list",
    "locals": "frame variable --no-args", "args": "frame variable --no-locals", "signals": "process handle",
    "proc": "memory region --all",
}  # fmt: skip
STEPS = ("stepInstruction", "stepOver", "stepOut", "step", "next", "until")
NEED_A_STOP = ("continueExecution", "stepInstruction", "stepOver", "stepOut", "getThreadIDList", "selectThreadID",
               "getRegisters", "setRegister", "readMemory", "writeByte", "getCallstack", "selectFrame")  # fmt: skip
REPEATED = ("s", "n", "step", "next", "c", "continue", "x", "code", "stepInstruction", "stepOver", "continueExecution")

GENERAL_REGISTERS = {  # by the name of the program counter
    "rip": "rax rbx rcx rdx rsi rdi rbp rsp r8 r9 r10 r11 r12 r13 r14 r15 rip rflags cs ss ds es fs gs fs_base gs_base",
    "pc": " ".join(f"x{n}" for n in range(31)) + " fp lr sp pc cpsr",
}
# LLDB's description of a thread: the stop reason, the module, function and offset, the file and line.
WHERE = (
    "{${thread.stop-reason}; }thread ${thread.index}{ (${thread.name})}; ${frame.pc}"
    "{ ${module.file.basename}{`${function.name-with-args}${function.pc-offset}}}"
    "{ at ${line.file.basename}:${line.number}}\\n"
)


# What a command without data did.
SAID = {
    "attachToProcess": "attached to process", "detach": "detached: the program runs without this debugger",
    "stopExecution": "killed the program",
}  # fmt: skip


class Mistake(Exception):
    """The typed line cannot be carried out."""


def load_schema():
    with open(os.path.join(HERE, "..", "docs", "protocol.schema.json"), encoding="utf-8") as file:
        return json.load(file)["$defs"]


def find_helper(named):
    """Returns the named lldb-helper, or else the one built in this source tree, or else the installed one."""
    built = os.path.join(HERE, "..", "build", "release", "lldb-helper")
    # From share/lldb-helper/examples and share/doc/lldb-helper/examples.
    installed = [os.path.join(HERE, *[".."] * levels, "bin", "lldb-helper") for levels in (3, 4)]
    for path in [named] if named else [built, *installed, "lldb-helper"]:
        if found := shutil.which(path):
            return found
    sys.exit(f"console.py: there is no {named or 'lldb-helper: script/build builds it, or --helper PATH names one'}")


def address(number):
    return "nowhere" if number == NOWHERE else f"0x{number:x}"


def table(rows):
    """Aligns the columns of the rows."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows)


def bytes_table(start, data):
    lines = []
    for at in range(0, len(data), 16):
        piece = bytes(data[at : at + 16])
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in piece)
        lines.append(f"0x{start + at:016x}  {piece.hex(' '):<47}  {text}")
    return "\n".join(lines)


def show(response, request):
    """The text of a response: addresses in hexadecimal, lists of objects as tables, nothing for a plain ok."""
    def text_of(key, value):
        is_address = key == "pc" or key.lower().endswith(("addr", "address", "slide"))
        return address(value) if is_address else value if isinstance(value, str) else json.dumps(value)

    if "memory" in response:
        return bytes_table(request.get("address", 0), response["memory"])
    if "succeeded" in response:
        return response.get("output", "") + response.get("error", "")
    words, tables = [], []
    for key, value in (response.get("module") or response).items():
        if isinstance(value, list) and value and isinstance(value[0], dict):
            keys = list({key: None for row in value for key in row})
            tables.append(table([keys] + [[text_of(key, row.get(key, "")) for key in keys] for row in value]))
        elif key not in ("id", "status"):
            words.append(f"{key} {text_of(key, value)}")
    return "\n".join(filter(None, ["  ".join(words), *tables]))


def error_texts(response):
    """The error messages that a response's schema allows, with … for variable parts."""
    kinds = [kind["properties"]["message"] for kind in response["oneOf"] if "message" in kind["properties"]]
    texts = [text for kind in kinds for text in kind.get("anyOf", [kind])]
    return [word for text in texts for word in text.get("enum") or [text.get("const") or text["description"]]]


class Screen:
    """Prints above the line that is being typed."""

    def __init__(self):
        self.lock = threading.Lock()
        self.at_prompt = False
        self.has_colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ

    def colour(self, code, text):
        return f"\033[{code}m{text}\033[0m" if self.has_colour and code else text

    def show(self, text, code=0):
        if not text:
            return
        with self.lock:
            if self.at_prompt:
                rows = (len(PROMPT) + len(readline.get_line_buffer())) // shutil.get_terminal_size().columns
                sys.stdout.write(f"\033[{rows}A" * bool(rows) + "\r\033[J")
            sys.stdout.write(self.colour(code, text.rstrip("\n")) + "\n")
            if self.at_prompt:
                sys.stdout.write(PROMPT + readline.get_line_buffer())
            sys.stdout.flush()

    def read_line(self):
        """Reads a line from the terminal. Shows nothing after readline draws the prompt and before at_prompt is
        set. Otherwise the prompt would be drawn twice, or not at all."""
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
        self.schema = load_schema()
        self.screen = Screen()
        self.show = self.screen.show
        # Only the main thread handles Ctrl-C. New threads inherit the signal mask. The helper and its programs
        # must not.
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
        self.helper = Helper(helper, preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGINT}))
        self.is_terminal = sys.stdin.isatty()
        self.raw = False
        self.asking = threading.Lock()  # held from a request to its response
        self.changed = threading.Condition()  # guards state, ending and stops
        self.state = None  # of the process; None without a process
        self.ending = None
        self.stops = 0  # includes exits
        self.is_entering = False  # whether the next stop is at the entry, where LLDB reports a signal
        self.program = []
        self.thread = None  # the selected thread's id
        self.registers = self.registers_before = {}  # at this stop and the one before
        self.next_address = None  # where x continues
        self.last_line = ""
        self.is_in_background = False  # whether the line ends with &, so that a script does not wait
        self.has_warned = False  # that Ctrl-D ends the program
        self.has_failed = False  # the last line; a script ends with status 1 then
        self.watcher = threading.Thread(target=self.watch, daemon=True)
        self.watcher.start()
        signal.signal(signal.SIGINT, self.interrupt)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGINT})

    def watch(self):
        """Shows events. The second thread runs this."""
        while event := self.helper.events.get():
            if isinstance(event, threading.Event):
                event.set()
                continue
            if isinstance(event, Exception):
                return self.enter("eStateExited")  # the helper has ended
            self.show(json.dumps(event) * self.raw, 2)
            if event["type"] == "state":
                self.take_state(event)
            elif event["type"] in ("stdout", "stderr"):
                self.show(bytes.fromhex(event["output"]).decode(errors="replace").replace("\r\n", "\n"))
            else:
                names = [f"{m['file']} at {address(self.base(m))}" for m in event["modules"]]
                self.show(f"* {'loaded' if event['type'] == 'moduleLoaded' else 'unloaded'} {', '.join(names)}", 2)

    def base(self, module):
        """Returns the address of the module's image, the one that modules shows. The event has a section's."""
        found = self.request("moduleForFile", file=f"{module['directory']}/{module['file']}").get("module", {})
        places = [section["loadAddr"] for section in found.get("sections", []) if section["fileByteSize"]]
        return min(places, default=module["loadAddress"])

    def take_state(self, event):
        state = event["state_desc"]
        if state == "eStateStopped":
            if self.request("getProcessState").get("state-string") in RUNNING:
                return  # LLDB has resumed the process itself
            text = "stopped: " + self.where()
        elif state == "eStateExited":
            self.ending = event["exit_status"]
            text = f"exited, status {self.ending}"
        else:
            text = "" if state in RUNNING else state.removeprefix("eState").lower()
        self.enter(state)  # before the text, after which a person may press Ctrl-C
        self.show(text and f"* {text}", 33)

    def enter(self, state):
        with self.changed:
            self.state = state
            self.stops += state not in RUNNING
            self.changed.notify_all()

    def where(self):
        """Returns why and where the program stopped. Selects the thread with the stop reason, because a stop selects
        no thread. Stores the registers."""
        threads = self.request("getThreadIDList").get("threads", [])
        stopped = [thread["thread-id"] for thread in threads if thread["state"] not in ("None", "Invalid")]
        if stopped and self.thread not in stopped:
            self.thread = stopped[0]
            self.request("selectThreadID", tid=self.thread)
        self.registers_before, self.registers = self.registers, self.request("getRegisters").get("registers", {})
        text = self.request("executeCommand", cli="thread info").get("output", "").strip()
        if self.is_entering:
            text = text.replace("signal SIGSTOP", "the program's entry", 1)
        self.is_entering = False
        code = self.request("executeCommand", cli="frame select 0").get("output", "").splitlines()
        # The first line says where the frame is, as the text above.
        return "\n".join([text or "no thread has a stop reason", *(line for line in code[1:] if line.strip())])

    def request(self, command, **arguments):
        """Sends a request and returns its response."""
        if self.raw:
            self.show(json.dumps({"command": command, **arguments}), 2)
        with self.asking:
            response = self.helper.ask(command, **arguments)
        if self.raw:
            self.show(json.dumps(response)[:2000], 2)
        return response

    def ask(self, command, **arguments):
        """The same for the main thread. Shows earlier events first, and waits until the events so far are shown."""
        self.catch_up()
        before = self.stops
        self.is_entering = command == "createProcess"
        response = self.request(command, **arguments)
        if response["status"] == "ok" and command in ("continueExecution", *STEPS[:3]):
            self.resumed(before)
        elif response["status"] == "ok" and command in ("deleteProcess", "detach"):
            self.enter(None if command == "deleteProcess" else "eStateDetached")
            self.registers = {}
        self.catch_up()
        return response

    def resumed(self, stops_before):
        """Sets the running state. Its event may arrive later."""
        with self.changed:
            if self.stops == stops_before:
                self.state = "eStateRunning"

    def catch_up(self):
        """Returns when all events that have arrived are shown."""
        mark = threading.Event()
        self.helper.events.put(mark)
        while not mark.wait(1):
            if not self.watcher.is_alive():
                raise EOFError

    def perform(self, command, **arguments):
        """Sends a request and shows the response. Returns whether it is ok."""
        if command in NEED_A_STOP:
            self.need_a_stop()
        elif command in ("attachToProcess", "connectRemote") and self.state in ("eStateExited", "eStateDetached"):
            self.ask("deleteProcess")
        response = self.ask(command, **arguments)
        if response["status"] == "error":
            without = response["message"] in ("no process", "no target")
            self.show((without and self.obstacle()) or response["message"], 31)
        elif command in SAID:
            self.show(f"{SAID[command]} {arguments.get('pid', '')}".rstrip())
        else:
            self.show(show(response, arguments))
        waits = (*STEPS, "stopExecution") if self.is_terminal else (*STEPS, "stopExecution", "continueExecution")
        if command in waits and response["status"] == "ok" and not self.is_in_background:
            self.await_stop(0.5 if self.is_terminal else None, is_killed=command == "stopExecution")
        is_ok = response["status"] == "ok" and response.get("succeeded", True)
        self.has_failed |= not is_ok
        return is_ok

    def await_stop(self, seconds=None, is_killed=False):
        """Waits until the program stops or exits. A killed program exits soon after the response."""
        with self.changed:
            self.changed.wait_for(lambda: self.state in ENDED if is_killed else self.state not in RUNNING, seconds)
        self.catch_up()

    def obstacle(self):
        """Returns why the program cannot be inspected, or None if it can."""
        if self.state in RUNNING:
            return "The program is running. Ctrl-C or interrupt stops it, wait waits for its stop."
        return {
            None: "There is no program. launch PROGRAM starts one. attach PID attaches to a running one.",
            "eStateExited": f"The program has ended with status {self.ending}. run starts it again.",
            "eStateDetached": "The program runs without this debugger. attach PID attaches again.",
        }.get(self.state)

    def need_a_stop(self):
        self.catch_up()
        if text := self.obstacle():
            raise Mistake(text)

    def number(self, text):
        """Returns the value of a number, symbol, register or sum. LLDB evaluates all but numbers."""
        try:
            return int(text, 0)
        except ValueError:
            self.need_a_stop()
        # Without debug information LLDB's expressions do not know a symbol, but its symbol table does.
        for place in (text, re.sub(r"(?<![$\w])[A-Za-z_]\w*", self.symbol, text)):
            if found := self.search(r"^(0x\w+):", f'memory read --size 1 --count 1 --format x -- "{place}"'):
                return int(found, 16)
        raise Mistake(f"«{text}» is not a number, symbol, $register or sum of them")

    def symbol(self, name):
        return self.search(r"range = \[(0x\w+)", f"image lookup --verbose --symbol {name[0]}") or name[0]

    def search(self, pattern, line):
        """Runs an LLDB command. Returns the part of its output that matches the pattern's group, or None."""
        found = re.search(pattern, self.ask("executeCommand", cli=line).get("output", ""), re.M)
        return found and found[1]

    def arguments(self, command):
        """Returns the schemas of a command's arguments, by name, in their order."""
        properties = self.schema["requests"].get(ALIASES.get(command, command), {}).get("properties", {})
        return {name: schema for name, schema in properties.items() if name not in ("command", "id")}

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
            arguments[name] = {"boolean": lambda: text.lower() == "true", "array": lambda: list(text.encode()),
                               "integer": lambda: self.number(text), "string": lambda: text}[kind]()  # fmt: skip
        return arguments

    def do_launch(self, words):
        """launch PROGRAM [ARGUMENTS...]: ends the current program, and starts this one, stopped at its entry."""
        if not words:
            raise Mistake("launch PROGRAM [ARGUMENTS...]")
        path = words[0] if "/" in words[0] or os.path.exists(words[0]) else shutil.which(words[0]) or words[0]
        path = os.path.abspath(path)
        kept = self.keep_breakpoints() if self.program[:1] == [path] else None
        self.ask("deleteProcess")
        self.program = [path, *words[1:]]
        quoted = " ".join('"' + word + '"' if " " in word or not word else word for word in words[1:])
        self.ask("prepareExecutable", path=self.program[0], args=quoted, cwd=os.getcwd())
        if self.perform("createProcess") and kept:
            self.request("executeCommand", cli=f"breakpoint read --file '{kept}'")
            self.show(self.request("executeCommand", cli="breakpoint list --brief").get("output", ""), 2)
        if kept:
            os.remove(kept)

    def keep_breakpoints(self):
        """Writes the target's breakpoints to a file, because they end with the target. Returns its name, or None
        if there is no breakpoint."""
        handle, path = tempfile.mkstemp(prefix="lldb-helper-")
        os.close(handle)
        if not self.request("executeCommand", cli=f"breakpoint write --file '{path}'").get("succeeded"):
            os.remove(path)
            return None
        # LLDB takes an address's offset in its section for the one in its module when it reads the file. ASLR is
        # off, so the address itself can stand there.
        listed = self.request("executeCommand", cli="breakpoint list").get("output", "")
        places = [re.search(r"address = (0x\w+)", text) for text in re.split(r"^\d+: ", listed, flags=re.M)[1:]]
        with open(path, encoding="utf-8") as file:
            breakpoints = json.load(file)
        for breakpoint_, place in zip(breakpoints, places):
            resolver = breakpoint_["Breakpoint"]["BKPTResolver"]
            if resolver["Type"] == "Address" and place:
                resolver["Options"] = {**resolver["Options"], "AddressOffset": int(place[1], 16)}
                resolver["Options"].pop("ModuleName", None)
        with open(path, "w", encoding="utf-8") as file:
            json.dump(breakpoints, file)
        return path

    def do_run(self, words):
        """run [ARGUMENTS...]: starts the program again, with the same arguments or with these. Breakpoints stay."""
        self.do_launch(self.program[:1] + (words or self.program[1:]))

    def do_wait(self, _):
        """wait: waits until the program stops or exits."""
        self.catch_up()
        self.await_stop()

    def do_b(self, words, *options):
        """b: lists the breakpoints. b PLACE [if CONDITION]: sets one. PLACE is a FUNCTION, FILE:LINE, ADDRESS, or
        +N for N bytes after the program counter."""
        self.catch_up()
        if self.state is None:
            self.need_a_stop()
        place, condition = words, []
        if "if" in words:
            place, condition = words[: words.index("if")], words[words.index("if") + 1 :]
        if "if" in words and not (place and condition):
            raise Mistake("b PLACE if CONDITION")
        if len(place) > 1 and not re.search(r"[-+*]", "".join(place[1:])):
            raise Mistake(f"b does not take «{place[1]}» after «{place[0]}»; see help b")
        place = "".join(place)
        is_exact = place.startswith("*")  # *main is the first instruction, main the one after the prologue
        place = place.lstrip("*")
        if not place:
            return self.perform("executeCommand", cli="breakpoint list")
        if found := re.fullmatch(r"(.*[^:]):(\d+)", place):
            line = f"breakpoint set --file {shlex.quote(found[1])} --line {found[2]}"
        elif not is_exact and re.match(r"[A-Za-z_~]", place) and not re.search(r"[-+*]", place):
            line = f"breakpoint set --name {shlex.quote(place)}"
        else:
            line = f"breakpoint set --address {self.number(re.sub(r'^(?=[-+])', '$pc', place))}"
        if condition:
            options += ("--condition", "'" + " ".join(condition).replace("'", "\"'\"'\"'") + "'")
        return self.perform("executeCommand", cli=" ".join([line, *options]))

    def do_tbreak(self, words):
        """tbreak PLACE [if CONDITION]: sets a breakpoint for one stop."""
        if not words:
            raise Mistake("tbreak PLACE [if CONDITION]")
        self.do_b(words, "--one-shot", "true")

    def do_watch(self, words):
        """watch VARIABLE, watch *ADDRESS: stops when the program writes to it."""
        self.need_a_stop()
        if len(words) != 1:
            raise Mistake("watch VARIABLE or watch *ADDRESS")
        is_address = words[0].startswith("*")
        place = f"expression -- {self.number(words[0][1:])}" if is_address else f"variable {words[0]}"
        self.perform("executeCommand", cli=f"watchpoint set {place}")

    def do_code(self, words):
        """code [ADDRESS]: shows the instructions around the program counter, or from an address on."""
        self.need_a_stop()
        if words:
            line = f"disassemble --count 16 --start-address {self.number(''.join(words))}"
            return self.perform("executeCommand", cli=line)
        lines = self.ask("executeCommand", cli="disassemble --frame --force").get("output", "").splitlines()
        if not (current := [at for at, line in enumerate(lines) if line.startswith("->")]):
            return self.perform("executeCommand", cli="disassemble --pc --count 16")
        first = max(0, current[0] - 8)
        self.show("\n".join(lines[:1] * (first > 0) + lines[first : first + 17]))

    def do_x(self, words):
        """x [ADDRESS [LENGTH]]: shows LENGTH bytes of memory (default: 64). x alone continues after them."""
        self.need_a_stop()
        if len(words) > 2 or not words and self.next_address is None:
            raise Mistake("x ADDRESS [LENGTH], the address without spaces")
        start = self.number(words[0]) if words else self.next_address
        length = self.number(words[1]) if len(words) > 1 else 64
        response = self.ask("readMemory", address=start, length=length)
        if "message" in response:
            raise Mistake(f"{response['message']} at {address(start)}")
        self.next_address = start + length
        self.show(bytes_table(start, response["memory"]))

    def do_regs(self, words):
        """regs: shows general registers. regs NAME...: these. regs all: all. A star marks changes by the last step."""
        self.need_a_stop()
        values = self.ask("getRegisters")["registers"]  # some texts also have the place that the register points to
        general = next((names for pc, names in GENERAL_REGISTERS.items() if pc in values), "").split()
        rest = sorted(values, key=lambda name: re.sub(r"\d+", lambda digits: digits[0].zfill(3), name))
        general = [name for name in general if name in values]
        generic = {"pc": "rip", "sp": "rsp", "fp": "rbp"} if "rip" in values else {}
        names = [generic.get(name.lstrip("$"), name.lstrip("$")) for name in words] or general or rest
        names = general + [name for name in rest if name not in general] if words == ["all"] else names
        if unknown := [name for name in names if name not in values]:
            raise Mistake(f"there is no register «{unknown[0]}»; regs all shows all registers")
        before = {**values, **self.registers_before}  # self.registers has those of the innermost frame
        changed = {name for name in names if before[name] != values[name] == self.registers.get(name)}
        width = max(map(len, names))
        words = {name: re.sub(r"(?<=\w) .*", "", values[name]) for name in names}
        cells = [f"{'*' if name in changed else ' '}{name:>{width}} {words[name]}" for name in names]
        cell = max(map(len, cells)) + 1
        columns = max(1, shutil.get_terminal_size().columns // cell)
        shown = [self.screen.colour(33 * (name in changed), text.ljust(cell)) for name, text in zip(names, cells)]
        self.show("\n".join("".join(shown[at : at + columns]).rstrip() for at in range(0, len(shown), columns)))

    def do_info(self, words):
        """info registers [NAME...], breakpoints, watchpoints, threads, sharedlibrary, locals, args, signals, proc.
        The beginning of the second word is enough, and i for info."""
        found = [name for name in INFO if words and name.startswith(words[0])]
        if not found:
            raise Mistake(f"info knows {', '.join(INFO)}")
        if INFO[found[0]] == "regs":
            return self.do_regs(words[1:])
        self.catch_up()
        return self.perform("executeCommand", cli=INFO[found[0]])

    do_i = do_info

    def do_disas(self, words):
        """disas [FUNCTION or ADDRESS]: shows the instructions of a whole function."""
        self.need_a_stop()
        place = "".join(words)
        if re.fullmatch(r"[A-Za-z_~][\w:~]*", place):
            return self.perform("executeCommand", cli=f"disassemble --force --name {place}")
        return self.do_code(words) if words else self.perform("executeCommand", cli="disassemble --force --frame")

    do_break, do_disassemble = do_b, do_disas

    def do_intel(self, words):
        """intel: shows x86 instructions in Intel's syntax. intel off: in AT&T's."""
        flavor = "att" if words == ["off"] else "intel"
        for scope in ("--global ", ""):  # of later programs, and of this one
            self.ask("executeCommand", cli=f"settings set {scope}target.x86-disassembly-flavor {flavor}")

    def do_raw(self, words):
        """raw on: also shows the messages. raw off: hides them again."""
        self.raw = words != ["off"]

    def do_help(self, words):
        """help [COMMAND]: lists the commands, or explains one."""
        if not words:
            return self.show(HELP)
        if words == ["protocol"]:
            return self.show("\n".join(" ".join([name, *self.arguments(name)]) for name in self.schema["requests"]))
        command = ALIASES.get(words[0], words[0])
        if hasattr(self, f"do_{command}"):
            return self.show(getattr(self, f"do_{command}").__doc__)
        if command in LLDB_LINES:
            return self.show(f"{command}: LLDB's «{LLDB_LINES[command]}». !help {LLDB_LINES[command]} explains it.")
        if command not in self.schema["requests"]:
            raise Mistake(f"there is no command «{command}»")
        rows = []
        for name, schema in self.arguments(command).items():
            rows.append((f"  {name}", schema.get("type", "integer"), schema.get("description", "")))
        errors = " · ".join(error_texts(self.schema["responses"][command]))
        head = f"{command}: {self.schema['requests'][command]['description']}"
        self.show("\n".join(filter(None, [head, rows and table(rows), errors and "Errors: " + errors])))

    def obey(self, line):
        """Carries out one line. Returns whether to continue."""
        if not line and self.is_terminal:
            line = self.last_line
        self.last_line = ""
        self.is_in_background = line in ("c &", "continue &")
        line = line.removesuffix(" &") if self.is_in_background else "" if line.startswith("#") else line
        if line.startswith("!"):
            self.perform("executeCommand", cli=line[1:].strip())
        elif line.startswith("<"):
            self.perform("sendToApplication", data=list(os.fsencode(line[1:].lstrip() + "\n")))
        elif line in ("quit", "q", "exit"):
            return False
        elif line:
            word, _, rest = line.partition(" ")
            command = ALIASES.get(word, word)
            if re.match(r"(x|p|print|po)/", word):  # LLDB has gdb's formats
                self.need_a_stop()
                self.perform("executeCommand", cli=line)
            elif own := getattr(self, f"do_{word}", None):
                own(shlex.split(rest))
            elif word in LLDB_LINES:
                if word == "set":
                    rest = re.sub(r"^var(iable)?\s+", "", rest)
                self.need_a_stop()
                before, self.thread = self.stops, None if word == "thread" else self.thread
                if self.perform("executeCommand", cli=f"{LLDB_LINES[word]} {rest}".strip()) and word in STEPS:
                    self.resumed(before)
                    self.await_stop(0.5 if self.is_terminal else None)
            elif command in self.schema["requests"]:
                self.perform(command, **self.arguments_of(command, shlex.split(rest)))
            else:
                near = difflib.get_close_matches(word, self.words(), 1)
                raise Mistake(f"there is no command «{word}»; " + (f"{near[0]}?" if near else "help lists them"))
            if word in REPEATED:
                self.last_line = word if word == "x" else line  # x continues after what it has shown
        return True

    def interrupt(self, *_):
        """Handles Ctrl-C, in the main thread, which may be waiting for a response."""
        if self.state in RUNNING:
            threading.Thread(target=self.request, args=("breakExecution",), daemon=True).start()
        elif self.screen.at_prompt or not self.is_terminal:  # ends a script
            raise KeyboardInterrupt

    def run(self):
        goes_on = True
        while goes_on:
            try:
                line = self.screen.read_line() if self.is_terminal else sys.stdin.readline() or "quit"
            except EOFError:
                print()
                if self.state not in ENDED and not self.has_warned:
                    self.has_warned = True
                    self.show("The program is still there. Ctrl-D again ends it and the console.", 33)
                    continue
                line = "quit"
            except KeyboardInterrupt:  # drops the typed line
                print()
                continue
            self.has_warned = self.has_failed = False
            try:
                goes_on = self.obey(line.strip())
            except (Mistake, ValueError) as mistake:  # shlex raises ValueError for a missing quote
                self.show(str(mistake), 31)
                self.has_failed = True
            if self.has_failed and not self.is_terminal:
                break
        self.ask("deleteProcess")
        return self.helper.close() or int(self.has_failed and not self.is_terminal)

    def complete(self, text, index):
        if index == 0:
            self.candidates = self.candidates_for(text, readline.get_line_buffer()[: readline.get_endidx()])
        return self.candidates[index] if index < len(self.candidates) else None

    def words(self):
        own = [name[3:] for name in dir(self) if name.startswith("do_")]
        return sorted([*self.schema["requests"], *ALIASES, *LLDB_LINES, *own, "quit"])

    def candidates_for(self, text, line):
        if line.startswith("!"):
            return self.completions(line[1:].lstrip(), "!" if text.startswith("!") else "")
        word, space, _ = line.lstrip().partition(" ")
        commands = self.words()
        if not space or word == "help":
            return [command + " " for command in commands if command.startswith(text)]
        if word == "regs" or text.startswith("$"):
            mark = "$" if text.startswith("$") else ""
            return [mark + name + " " for name in sorted(self.registers) if name.startswith(text.lstrip("$"))]
        if word in ("b", "x", "code", "p"):
            return self.completions(f"breakpoint set --name {text}", "") if text else []
        names = [name + "=" for name in self.arguments(word) if name.startswith(text)]
        head, equals, path = text.rpartition("=")
        files = [head + equals + file + ("/" if os.path.isdir(file) else " ") for file in sorted(glob.glob(path + "*"))]
        return names + files

    def completions(self, cli, mark):
        """Returns LLDB's candidates. Its list begins with their common beginning."""
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
        # Python's readline misses a signal that arrives between its handling of a key and its wait for the next.
        # Another signal, a moment later, makes it handle both.
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
        for setting in (f'thread-format "{WHERE}"', "use-color false", "stop-line-count-before 1",
                        "stop-line-count-after 1", "stop-disassembly-display always", "stop-disassembly-count 1"):
            console.ask("executeCommand", cli=f"settings set {setting}")
        if options.program:
            console.do_launch(options.program)
        elif console.is_terminal:
            console.show("launch PROGRAM starts a program, attach PID debugs a running one, help lists the rest.")
        return console.run()
    except (EOFError, BrokenPipeError):
        sys.exit("console.py: lldb-helper has ended, or nobody reads this output any more")


if __name__ == "__main__":
    sys.exit(main())
