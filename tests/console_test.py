"""Drives examples/console.py as a script and as a person at a terminal does.

Usage: console_test.py script|terminal CONSOLE HELPER INFERIORS
"""

import os
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import time

DEADLINE = 60


def start(console, helper, arguments, **more):
    return subprocess.Popen([sys.executable, "-B", console, "--helper", helper, *arguments], **more)


def as_script(console, helper, inferiors):
    lines = """
        b leaf
        c
        wait
        bt
        threads
        x 0x10 4
        readMemory length=4 address=nowhere
        dance
        setRegister rbx
        help readMemory
        modules
        raw on
        ping
        raw off
        !version
        !breakpoint delete -f
        c
        wait
        c
        state
    """
    told = [
        r"\* stopped\n",
        r"Breakpoint 1: where = steps`leaf",
        r"\* running\n",
        r"\* loaded libc\S* at 0x[0-9a-f]+\n",
        r"# +pc +function +module\n0 +0x[0-9a-f]+ +leaf +steps\n1 +0x[0-9a-f]+ +middle +steps\n",
        r"thread +reason\n\d+ +Breakpoint\n",
        r"unable to read memory\n",
        r"«nowhere» is no integer\n",
        r"there is no command «dance»",
        r"readMemory: .*\n +address +integer .*\n +length +integer .*\nErrors: no process · unable to read memory\n",
        r"# +loaded at +module\n0 +0x[0-9a-f]+ +steps\n",
        r'\{"command": "ping"\}\n\{"id": \d+, "status": "ok"\}\n',
        r"lldb version \d+",
        r"counted 20\n(\* running\n)?\* exited, status 0\n",
        r'state 10  state-string "eStateExited"',
    ]
    child = start(console, helper, [f"{inferiors}/steps"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    output = child.communicate(lines.encode(), timeout=DEADLINE)[0].decode()
    for pattern in told:
        if not re.search(pattern, output):
            sys.exit(f"not there: {pattern}\n{output}")
    if child.returncode != 0:
        sys.exit(f"the console ended with {child.returncode}")


class Terminal:
    """A console on a pseudo-terminal, with a home of its own for its history."""

    def __init__(self, console, helper, arguments, home):
        self.master, slave = pty.openpty()
        environment = dict(os.environ, TERM="xterm", XDG_STATE_HOME=home, NO_COLOR="1")
        self.child = start(
            console, helper, arguments, stdin=slave, stdout=slave, env=environment, start_new_session=True,
            preexec_fn=lambda: __import__("fcntl").ioctl(slave, __import__("termios").TIOCSCTTY, 0),
        )  # fmt: skip
        os.close(slave)
        self.seen = ""

    def type(self, text):
        os.write(self.master, text.encode())

    def expect(self, pattern):
        """Reads until the pattern comes, and drops what was read so far."""
        end = time.monotonic() + DEADLINE
        while not (match := re.search(pattern, self.seen)):
            if not select.select([self.master], [], [], max(0, end - time.monotonic()))[0]:
                self.child.kill()
                sys.exit(f"does not come: {pattern}\nafter: {self.seen!r}")
            self.seen += os.read(self.master, 4096).decode(errors="replace")
        self.seen = self.seen[match.end() :]


def at_a_terminal(console, helper, inferiors):
    try:
        import readline  # noqa: F401
    except ImportError:
        print("NOT TESTED: this Python has no readline")
        return
    with tempfile.TemporaryDirectory() as home:
        terminal = Terminal(console, helper, [f"{inferiors}/wait"], home)
        terminal.expect(r"\* stopped")
        terminal.expect(r"\(helper\) ")
        # Tab: a command, then a line of LLDB's, and the arrow brings the line back.
        terminal.type("getPro\t")
        terminal.expect("getProcessState ")
        terminal.type("\r")
        terminal.expect("state 5")
        terminal.type("!settings show pro\t")
        terminal.expect("prompt")
        terminal.type("\r")
        terminal.expect(r"prompt \(string\)")
        terminal.type("\x1b[A")
        terminal.expect(r"!settings show prompt")
        terminal.type("\r")
        terminal.expect(r"prompt \(string\)")
        # News come while a line is half typed: the line is put back behind them.
        terminal.type("!continue\r")
        terminal.expect(r"(?s)\* running.*ready|ready.*\* running")
        terminal.type("getPr")
        terminal.expect("getPr")
        os.kill(wait_inferior(terminal.child.pid), signal.SIGUSR1)
        terminal.expect(r"\* stopped\r?\n\(helper\) getPr")
        terminal.type("ocessState\r")
        terminal.expect("eStateStopped")
        # Ctrl-C interrupts the program, and not the console.
        terminal.type("!process handle SIGUSR1 --pass false\rc\r")
        terminal.expect(r"\* running")
        terminal.type("\x03")
        terminal.expect(r"\* stopped")
        terminal.expect(r"\(helper\) ")
        terminal.type("\x04")
        if terminal.child.wait(DEADLINE) != 0:
            sys.exit(f"the console ended with {terminal.child.returncode}")
        with open(f"{home}/lldb-helper/history", encoding="utf-8") as history:
            if "getProcessState" not in history.read():
                sys.exit("the history is not kept")


def wait_inferior(ancestor):
    """The debugged program's number: the descendant called wait."""
    above, at = [ancestor], 0
    while at < len(above):
        for task in os.listdir(f"/proc/{above[at]}/task"):
            with open(f"/proc/{above[at]}/task/{task}/children") as children:
                above += map(int, children.read().split())
        at += 1
    for pid in above:
        with open(f"/proc/{pid}/comm") as name:
            if name.read() == "wait\n":
                return pid
    sys.exit("the program does not run")


{"script": as_script, "terminal": at_a_terminal}[sys.argv[1]](*sys.argv[2:])
