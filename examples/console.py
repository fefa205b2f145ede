"""A person's host for lldb-helper: type commands, see answers as tables and events as they come.

Usage: console.py [--helper PATH] [PROGRAM [ARGUMENTS...]]

"help" lists the commands. All of the protocol's can be typed, arguments by name or in their order:
readMemory 0x401000 length=64. A line behind "!" goes to LLDB's own command line, one behind "<" to the
program's input. Tab completes; Ctrl-C interrupts the program; Ctrl-D ends. Where standard input is no
terminal the lines of a script are taken from it, and "wait" waits for the program's next stop or exit.
"""

import argparse
import atexit
import glob
import json
import os
import shlex
import signal
import sys
import threading

from host import Helper

try:
    import readline
except ImportError:  # everything works without, but for editing, history and Tab
    readline = None

HERE = os.path.dirname(os.path.abspath(__file__))
PROMPT = "(helper) "
NOWHERE = 2**64 - 1  # LLDB's address of what is not in memory

# What people type all day. The rest of the line follows.
ALIASES = {
    "c": "continueExecution", "s": "stepInstruction", "n": "stepOver", "finish": "stepOut", "bt": "getCallstack",
    "regs": "getRegisters", "x": "readMemory", "threads": "getThreadIDList", "run": "createProcess",
    "interrupt": "breakExecution", "kill": "stopExecution", "attach": "attachToProcess", "state": "getProcessState",
}  # fmt: skip
RUNNING = ("eStateRunning", "eStateStepping")
# What a stop or an exit follows.
RESUMING = ("createProcess", "attachToProcess", "connectRemote", "continueExecution", "stepInstruction", "stepOver",
            "stepOut")  # fmt: skip


class Mistake(Exception):
    """What the person typed cannot be sent."""


def load_schema():
    """Beside the sources' examples, or where the examples are installed."""
    for folder in (os.path.join(HERE, "..", "docs"), os.path.join(HERE, "..")):
        path = os.path.join(folder, "protocol.schema.json")
        if os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                schema = json.load(file)["$defs"]
            for request in schema["requests"].values():
                request["arguments"] = [name for name in request["properties"] if name not in ("command", "id")]
            return schema
    sys.exit("console.py: protocol.schema.json is not where it should be")


def errors_in(kinds):
    """The error texts that a response's schema allows, with … for what differs."""
    texts = []
    for kind in kinds:
        message = kind["properties"]["message"]
        texts += message.get("enum") or [
            text.get("const") or text["description"] for text in message.get("anyOf", [message])
        ]
    return texts


def address(number):
    return "nowhere" if number == NOWHERE else f"0x{number:x}"


def table(rows):
    """Columns as wide as they must be."""
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows)


def show_registers(response, _):
    names = [f"{name:>8} {value}" for name, value in response["registers"].items()]
    wide = [name for name in names if len(name) > 38]
    narrow = [name.ljust(39) for name in names if len(name) <= 38]
    rows = ["".join(narrow[at : at + 3]).rstrip() for at in range(0, len(narrow), 3)]
    return "\n".join(rows + wide)


def show_memory(response, request):
    lines = []
    for at in range(0, len(response["memory"]), 16):
        piece = bytes(response["memory"][at : at + 16])
        text = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in piece)
        lines.append(f"0x{request['address'] + at:016x}  {piece.hex(' '):<47}  {text}")
    return "\n".join(lines)


def show_stack(response, _):
    frames = enumerate(response["callstack"])
    return table([("#", "pc", "function", "module")] + [
        (str(i), address(f["pc"]), f.get("function", "?"), f.get("filename", "")) for i, f in frames
    ])  # fmt: skip


def show_threads(response, _):
    return table([("thread", "reason")] + [(str(t["thread-id"]), t["state"]) for t in response["threads"]])


def show_module(response, _):
    module = response["module"]
    head = f"{module.get('filename', '?')}  {module.get('uuid', '')}".rstrip()
    rows = [(s.get("name", ""), address(s["loadAddr"]), address(s["fileAddr"]), str(s["byteSize"]))
            for s in module["sections"]]  # fmt: skip
    return head + "\n" + table([("section", "loaded at", "in the file", "bytes")] + rows)


def show_lldb(response, _):
    return (response.get("output", "") + response.get("error", "")).rstrip("\n")


RENDERERS = {
    "getRegisters": show_registers, "readMemory": show_memory, "getCallstack": show_stack,
    "getThreadIDList": show_threads, "moduleAtIndex": show_module, "moduleForFile": show_module,
    "executeCommand": show_lldb,
}  # fmt: skip


def show_rest(response, _):
    """What has no table: its members, addresses in hexadecimal, nothing for a plain ok."""
    words = []
    for key, value in response.items():
        if key not in ("id", "status"):
            words.append(f"{key} {address(value) if key.lower().endswith(('addr', 'slide')) else json.dumps(value)}")
    return "  ".join(words)


class Console:
    def __init__(self, program):
        self.schema = load_schema()
        # No thread takes Ctrl-C but one; the helper's reader is the first that is started.
        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
        self.helper = Helper(program)
        self.raw = False
        self.lock = threading.Lock()  # what is printed comes whole
        self.asking = threading.Lock()  # a request and its response belong together
        self.changed = threading.Condition()  # guards the two below
        self.state = None
        self.stops = 0  # exits among them
        self.stops_before = 0  # the last command that a stop follows
        self.is_terminal = sys.stdin.isatty()
        self.has_colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ
        self.at_prompt = False
        for watch in (self.watch, self.watch_interrupts):
            threading.Thread(target=watch, daemon=True).start()

    # --- What is shown ------------------------------------------------------------------------------

    def colour(self, code, text):
        return f"\033[{code}m{text}\033[0m" if self.has_colour and text else text

    def show(self, text):
        """Prints above the line that is being typed, and puts that line back."""
        if not text:
            return
        with self.lock:
            if self.at_prompt:
                sys.stdout.write("\r\033[K")
            sys.stdout.write(text.rstrip("\n") + "\n")
            if self.at_prompt:
                sys.stdout.write(PROMPT + (readline.get_line_buffer() if readline else ""))
            sys.stdout.flush()

    def watch(self):
        """The thread that shows events."""
        while True:
            event = self.helper.events.get()
            if isinstance(event, threading.Event):
                event.set()
                continue
            if event["type"] == "state":  # before it is seen: a quick Ctrl-C must find it
                with self.changed:
                    self.state = event["state_desc"]
                    self.stops += self.state not in RUNNING
                    self.changed.notify_all()
            if self.raw:
                self.show(self.colour(2, json.dumps(event)))
            self.show(self.event_text(event))

    def event_text(self, event):
        if event["type"] == "state":
            status = f", status {event['exit_status']}" if "exit_status" in event else ""
            return self.colour(33, f"* {event['state_desc'].removeprefix('eState').lower()}{status}")
        if event["type"] in ("stdout", "stderr"):
            return bytes.fromhex(event["output"]).decode(errors="replace").replace("\r\n", "\n")
        names = [f"{m['file']} at {address(m['loadAddress'])}" for m in event["modules"]]
        return self.colour(2, f"* {'loaded' if event['type'] == 'moduleLoaded' else 'unloaded'} {', '.join(names)}")

    # --- What is sent -------------------------------------------------------------------------------

    def catch_up(self):
        """Returns when the events that have come so far have been shown."""
        mark = threading.Event()
        self.helper.events.put(mark)
        mark.wait()

    def ask(self, command, **arguments):
        if self.raw:
            self.show(self.colour(2, json.dumps({"command": command, **arguments})))
        self.catch_up()
        before = self.stops
        with self.asking:
            response = self.helper.ask(command, **arguments)
        self.catch_up()
        if command in RESUMING and response["status"] == "ok":
            self.stops_before = before
        if self.raw:
            self.show(self.colour(2, json.dumps(response)[:2000]))
        return response

    def perform(self, command, **arguments):
        response = self.ask(command, **arguments)
        if response["status"] == "error":
            self.show(self.colour(31, response["message"]))
        else:
            self.show(RENDERERS.get(command, show_rest)(response, arguments))
        return response["status"] == "ok"

    def value(self, text, kind):
        """A word as the schema wants it."""
        try:
            if kind == "integer":
                return int(text, 0)
            if kind == "boolean":
                return {"true": True, "false": False}[text.lower()]
        except (ValueError, KeyError):
            raise Mistake(f"«{text}» is no {kind}") from None
        return list(text.encode()) if kind == "array" else text

    def arguments_of(self, command, words):
        request = self.schema["requests"][command]
        order = list(request["arguments"])
        arguments = {}
        for word in words:
            name, equals, text = word.partition("=")
            if not equals or name not in request["arguments"]:
                if not order:
                    raise Mistake(f"{command} takes no «{word}»; see help {command}")
                name, text = order[0], word
            order = [other for other in order if other != name]
            arguments[name] = self.value(text, request["properties"][name].get("type", "integer"))
        return arguments

    def prepare(self, words):
        """Launches a program with arguments, as a shell would write them down."""
        quoted = " ".join('"' + word + '"' if " " in word or not word else word for word in words[1:])
        path = os.path.abspath(words[0])
        if self.perform("prepareExecutable", path=path, args=quoted, env="", cwd=os.getcwd(), triple="", is64Bits=True):
            self.perform("createProcess")

    # --- Words of this console ----------------------------------------------------------------------

    def do_b(self, words):
        """b ADDRESS or b FUNCTION: sets a breakpoint."""
        try:
            self.perform("setBreakpointAtVirtualAddress", address=int(words[0], 0))
        except ValueError:
            self.perform("executeCommand", cli=f"breakpoint set --name {shlex.quote(words[0])}")
        except IndexError:
            raise Mistake("b ADDRESS or b FUNCTION") from None

    def do_modules(self, _):
        """modules: the executable and its libraries."""
        rows = [("#", "loaded at", "module")]
        for index in range(self.ask("moduleCount").get("count", 0)):
            module = self.ask("moduleAtIndex", index=index)["module"]
            loaded = [s["loadAddr"] for s in module["sections"] if s["loadAddr"] != NOWHERE]
            rows.append((str(index), address(min(loaded, default=NOWHERE)), module.get("filename", "?")))
        self.show(table(rows))

    def do_launch(self, words):
        """launch PROGRAM [ARGUMENTS...]: starts a program, stopped at its entry."""
        if not words:
            raise Mistake("launch PROGRAM [ARGUMENTS...]")
        self.prepare(words)

    def do_wait(self, _):
        """wait: waits for the stop or the exit that follows what was asked for last."""
        with self.changed:
            self.changed.wait_for(lambda: self.stops > self.stops_before)

    def do_raw(self, words):
        """raw on, raw off: shows the messages too."""
        self.raw = words != ["off"]

    def do_help(self, words):
        """help [COMMAND]: what can be typed."""
        if words:
            return self.show(self.help_of(ALIASES.get(words[0], words[0])))
        rows = [(name, " ".join(request["arguments"]), request["description"])
                for name, request in self.schema["requests"].items()]  # fmt: skip
        own = [getattr(self, name).__doc__ for name in dir(self) if name.startswith("do_")]
        short = ", ".join(f"{alias} {command}" for alias, command in ALIASES.items())
        self.show("\n".join([table(rows), "", *own, "! LINE: LLDB's own command line    < LINE: the program's input",
                             "quit", "", f"Short: {short}"]))  # fmt: skip

    def help_of(self, command):
        if hasattr(self, f"do_{command}"):
            return getattr(self, f"do_{command}").__doc__
        if command not in self.schema["requests"]:
            raise Mistake(f"there is no command «{command}»")
        request = self.schema["requests"][command]
        rows = [(f"  {name}", request["properties"][name].get("type", "integer"), request["properties"][name].get("description", ""))
                for name in request["arguments"]]  # fmt: skip
        errors = errors_in(self.schema["responses"][command]["oneOf"][1:])
        return "\n".join(filter(None, [
            f"{command}: {request['description']}", table(rows) if rows else "",
            "Errors: " + " · ".join(errors) if errors else "",
        ]))  # fmt: skip

    # --- Ctrl-C -------------------------------------------------------------------------------------

    def watch_interrupts(self):
        """The thread that takes Ctrl-C: the one that reads lines may be anywhere when it comes."""
        while True:
            signal.sigwait({signal.SIGINT})
            if self.state in RUNNING:
                self.perform("breakExecution")
            else:
                self.show("Ctrl-D ends; Ctrl-C interrupts a running program.")

    # --- The loop -----------------------------------------------------------------------------------

    def obey(self, line):
        """One line. Returns whether to go on."""
        line = line.strip()
        if line.startswith(("!", "lldb ")):
            self.perform("executeCommand", cli=line.removeprefix("!").removeprefix("lldb ").strip())
        elif line.startswith("<"):
            self.perform("sendToApplication", data=list((line[1:].lstrip() + "\n").encode()))
        elif line in ("quit", "q", "exit"):
            return False
        elif line:
            word, *words = shlex.split(line)
            command = ALIASES.get(word, word)
            own = getattr(self, f"do_{command}", None)
            if own is not None:
                own(words)
            elif command in self.schema["requests"]:
                self.perform(command, **self.arguments_of(command, words))
            else:
                raise Mistake(f"there is no command «{word}»; type help")
        return True

    def read_line(self):
        if not self.is_terminal:
            line = sys.stdin.readline()
            if not line:
                raise EOFError
            return line
        self.at_prompt = True
        try:
            return input(PROMPT)
        finally:
            self.at_prompt = False

    def run(self):
        goes_on = True
        while goes_on:
            try:
                goes_on = self.obey(self.read_line())
            except EOFError:
                goes_on = False
            except (Mistake, ValueError) as mistake:  # shlex's missing quotes are ValueErrors
                self.show(self.colour(31, str(mistake)))
        return self.end()

    def end(self):
        if self.ask("hasProcess")["status"] == "ok":
            self.ask("deleteProcess")
        status = self.helper.close()
        if status != 0:
            print(f"lldb-helper ended with {status}", file=sys.stderr)
        return status

    # --- Tab ----------------------------------------------------------------------------------------

    def complete(self, text, index):
        if index == 0:
            self.candidates = self.candidates_for(text, readline.get_line_buffer()[: readline.get_endidx()])
        return self.candidates[index] if index < len(self.candidates) else None

    def candidates_for(self, text, line):
        if line.startswith(("!", "lldb ")):
            cut = 1 if line.startswith("!") else 5
            cli = line[cut:].lstrip()
            found = self.ask("completeCommand", cli=cli, pos=len(cli))["completions"]
            mark = "!" if text.startswith("!") else ""
            words = [mark + word for word in found[1:]]
            return [words[0] + " "] if len(words) == 1 and found[0].endswith(" ") else words
        if " " not in line.lstrip():
            own = [name[3:] for name in dir(self) if name.startswith("do_")]
            words = [*self.schema["requests"], *ALIASES, *own, "quit"]
            return sorted(word + " " for word in words if word.startswith(text))
        request = self.schema["requests"].get(ALIASES.get(line.split()[0], line.split()[0]), {"arguments": []})
        names = [name + "=" for name in request["arguments"] if name.startswith(text)]
        head, equals, path = text.rpartition("=")
        files = [head + equals + file + ("/" if os.path.isdir(file) else " ") for file in sorted(glob.glob(path + "*"))]
        return names + files

    def use_readline(self):
        if readline is None or not self.is_terminal:
            return
        folder = os.path.join(os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state"), "lldb-helper")
        history = os.path.join(folder, "history")
        try:
            os.makedirs(folder, exist_ok=True)
            open(history, "a", encoding="utf-8").close()
            readline.read_history_file(history)
        except OSError:
            history = os.devnull  # a home that cannot be written to is no reason not to debug
        atexit.register(readline.write_history_file, history)
        readline.set_completer_delims(" ")
        readline.set_completer(self.complete)
        readline.parse_and_bind("tab: complete")


def main():
    parser = argparse.ArgumentParser(usage="console.py [--helper PATH] [PROGRAM [ARGUMENTS...]]")
    parser.add_argument("--helper", default="lldb-helper")
    parser.add_argument("program", nargs=argparse.REMAINDER)
    options = parser.parse_args()
    console = Console(options.helper)
    console.use_readline()
    if options.program:
        console.prepare(options.program)
    return console.run()


if __name__ == "__main__":
    sys.exit(main())
