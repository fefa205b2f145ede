"""examples/console.py, as a script and at a terminal; lldb-helper's own texts for a person; and the failures of the
example sessions."""

import fcntl
import os
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time

import kit
from kit import HELPER, SOURCE, check, expect, inferior

EXAMPLES = os.path.join(SOURCE, "examples")
CONSOLE = [sys.executable, "-B", os.path.join(EXAMPLES, "console.py"), "--helper", HELPER]
WHERE = r"thread 1 \(steps\); 0x[0-9a-f]{16} "


def run(command, typed="", **options):
    """What a command prints, and its status."""
    child = subprocess.run(command, input=typed, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                           timeout=kit.DEADLINE, preexec_fn=kit.die_with_parent, **options)  # fmt: skip
    return child.stdout, child.returncode


def test_a_script():
    session = (
        ("wait\nwhere", r"There is no program\. launch "),
        (f"launch '{inferior('steps')}'", rf"\* stopped: the program's entry; {WHERE}ld-\S*`"),
        ("b leaf", r"Breakpoint 1: where = steps`leaf"),
        ("c\nwait", rf"\* loaded libc\S* at 0x(?s:.*)\* stopped: breakpoint 1\.1; {WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:7\n"),
        ("bt", r"frame #1: \S+ steps`middle.*\n.*steps`main"),
        ("s", rf"\* stopped: .*; {WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:\d\n"),
        (f"regs {kit.PC}", rf"\*{kit.PC} 0x[0-9a-f]{{16}}\n"),
        ("regs", r"(?s)(rax.*?rbx.*?rip|x0.*?x1.*?pc)[^\n]*\n"),
        ("x $sp", r"(0x[0-9a-f]{16}(  [0-9a-f ]{47}).*\n){4}"),
        ("x main+4 2\nx leaf 2", r"(0x\S+  [0-9a-f]{2} [0-9a-f]{2} .*\n){2}"),
        ("code", r"\n-> +0x[0-9a-f]+ <\+\d+>"),
        ("readMemory length=4 address=nowhere", r"«nowhere» is not a number"),
        ("help readMemory", r"readMemory: .*\n +address +integer .*\n.*\nErrors: no process · unable to read memory\n"),
        ("raw on\nping\nraw off", r'\{"command": "ping"\}\n\{"id": \d+, "status": "ok"\}\n'),
        ("delete\nc\nwait", r"counted 20\n(?s:.*)\* exited, status 0\n"),
        ("x $sp", r"The program has ended with status 0\. run "),
        ("run\nkill\nwait", r"\* stopped: the program's entry(?s:.*)\* exited, status 9\n"),
        (f"launch '{inferior('wait')}'\nc\nregs\ninterrupt\nwait", r"The program is running\.(?s:.*)\* stopped: "),
    )  # fmt: skip
    output, status = run(CONSOLE, "\n".join(typed for typed, _ in session))
    at = 0
    for typed, pattern in session:
        found = re.compile(pattern).search(output, at)
        check(found, f"{typed!r} does not show {pattern}: {output[at:]}")
        at = found.end() - 1
    expect(status, 0)


def test_a_failure_is_a_sentence_and_comes_at_once():
    sample = os.path.join(os.path.dirname(HELPER), "examples", "sample")
    session = [*CONSOLE[:2], os.path.join(EXAMPLES, "session.py")]
    for command, environment, words in (
        (CONSOLE[:-1] + ["/nonexistent"], {}, "there is no /nonexistent"),
        (CONSOLE[:-1] + ["/bin/true"], {}, "lldb-helper has ended"),
        (session + ["/nonexistent", sample], {}, "the helper does not start"),
        (session + ["/bin/true", sample], {}, "the helper has ended; docs/troubleshooting.md"),
        (session + [HELPER, "/nonexistent"], {}, "docs/troubleshooting.md explains"),
        (session + [HELPER, sample], {"LLDB_DEBUGSERVER_PATH": "/nonexistent"}, "cannot create process: "),
    ):
        output, status = run(command, env=os.environ | environment)
        check(words in output and "Traceback" not in output, output)
        expect(status, 1, command)


class Terminal:  # with a home of its own
    def __init__(self, command, home, **options):
        self.master, slave = pty.openpty()
        options = {"stdin": slave, "stdout": slave} | options
        self.child = subprocess.Popen(
            command, env=os.environ | {"TERM": "xterm", "XDG_STATE_HOME": home, "NO_COLOR": "1"}, start_new_session=True,
            preexec_fn=lambda: (kit.die_with_parent(), fcntl.ioctl(slave, termios.TIOCSCTTY, 0)), **options,
        )  # fmt: skip
        os.close(slave)
        self.seen = ""

    def type(self, text, pattern):  # and reads until the pattern comes
        os.write(self.master, text.encode())
        end = time.monotonic() + kit.DEADLINE
        while not (match := re.search(pattern, self.seen)):
            comes = select.select([self.master], [], [], max(0, end - time.monotonic()))[0]
            check(comes, f"{text!r} does not bring {pattern}: {self.seen!r}")
            self.seen += os.read(self.master, 4096).decode(errors="replace")
        self.seen = self.seen[match.end() :]
        return match


def test_a_terminal():
    with tempfile.TemporaryDirectory() as home:
        terminal = Terminal([*CONSOLE, inferior("wait")], home)
        for text, pattern in (
            ("", r"\* stopped: the program's entry.*\r\n\(helper\) $"),
            ("getPro\t\r", r"getProcessState \r\nstate 5 .*\r\n\(helper\) $"),
            ("b mai\t\r", r"b main \r\nBreakpoint 1"),
            ("s\r", r"\* stopped: .*\r\n\(helper\) $"),
            ("\r", r"\r\n\* stopped: .*\r\n\(helper\) $"),  # repeats
            ("dance", "dance"),
            ("\x03", r"^\r\n\(helper\) $"),
            ("getProcessState\r", r"^getProcessState\r\nstate 5 "),
            ("delete\rc\r", "ready"),
        ):
            terminal.type(text, pattern)
        terminal.type("half", "half")  # an event arrives while a line is typed, and the line stays
        program = kit.eventually(lambda: kit.descendants(terminal.child.pid, "wait"), "the program")[0]
        os.kill(program, signal.SIGUSR1)
        terminal.type("", r"\* stopped: signal SIGUSR1.*\r\n\(helper\) half$")
        terminal.type("\x03", r"\(helper\) $")
        terminal.type("!process handle SIGUSR1 --pass false\r", "SIGUSR1 ")
        terminal.type("c\r", r"\(helper\) $")
        kit.eventually(lambda: terminal.type("getProcessState\r", r"state (\d+) ")[1] == "6", "it runs")
        terminal.type("\x03", r"\* stopped: .*\r\n\(helper\) $")
        terminal.type("\x04", "")
        expect(terminal.child.wait(kit.DEADLINE), 0)
        check(os.path.getsize(f"{home}/lldb-helper/history") > 0, "the history is not kept")


def test_what_the_program_says_to_a_person():
    helper = HELPER
    for option, words in (("--help", "usage: lldb-helper INPUT OUTPUT"), ("--version", "lldb-helper 0.")):
        output, status = run([helper, option])
        check(output.startswith(words) and status == 0, output)
    expect(run([helper, "--helpful"], "null"), ('INPUT: null\nOUTPUT: {"message": "Cannot decode JSON: ", "status": "error"}', 0))
    terminal = Terminal([helper], "/", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    terminal.type("\x04", "")
    output, greeting = terminal.child.communicate(timeout=kit.DEADLINE)
    expect((output, greeting.count(b"\n"), b"Ctrl-D" in greeting), (b"", 2, True))
