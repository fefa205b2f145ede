"""examples/console.py, as a script and at a terminal."""

import os
import re
import signal
import tempfile

import pexpect
import pytest

from examples_test import CONSOLE, helper_with, run
from harness.machine import (
    DEADLINE,
    HELPER,
    PC,
    descendants,
    die_with_parent,
    eventually,
    inferior,
    shim,
)

WHERE = r"thread 1 \(steps\); 0x[0-9a-f]{16} "


def test_the_console_as_a_script():
    session = (
        ("# a comment\nwait", r"^"),
        (f"launch '{inferior('steps')}'", rf"\* stopped: the program's entry; {WHERE}ld-\S*`"),
        ("b leaf", r"Breakpoint 1: where = steps`leaf"),
        (
            "c",
            rf"\* loaded (shim\S+ at \w+, )?libc\S* at 0x(?s:.*)\* stopped: breakpoint 1\.1; {WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:7\n +6 .*\n-> 7 +\s*counted(?s:.*?)\n-> +0x\w+ <\+\d+>: .*\n",
        ),
        ("bt", r"frame #1: \S+ steps`middle.*\n.*steps`main"),
        ("s", rf"\* stopped: .*; {WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:\d\n"),
        (f"regs {PC}", rf"\*{PC} 0x[0-9a-f]{{16}}\n"),
        ("regs", r"(?s)(rax.*?rbx.*?rip|x0.*?x1.*?pc)[^\n]*\n"),
        ("x $sp", r"(0x[0-9a-f]{16}(  [0-9a-f ]{47}).*\n){4}"),
        ("x main+4 2\nx leaf 2", r"(0x\S+  [0-9a-f]{2} [0-9a-f]{2} .*\n){2}"),
        ("code", r"\n-> +0x[0-9a-f]+ <\+\d+>"),
        (
            "help readMemory",
            r"readMemory: .*\n +address +integer .*\n.*\nErrors: no process · unable to read memory\n",
        ),
        ("raw on\nping\nraw off", r'\{"command": "ping"\}\n\{"id": \d+, "status": "ok"\}\n'),
        (
            "b middle if number==2\nb *main\nrun",
            r"1: name = 'leaf'.*\n2: name = 'middle'.*\n3: address = 0x\w+,",
        ),
        ("i b", r"Condition: number==2"),
        ("c", r"\* stopped: breakpoint 3\.1"),
        ("delete 1\nc\np number", r"\* stopped: breakpoint 2\.1(?s:.*)\(int\) \$\d+ = 2"),
        (
            "x/2gx $sp\np/x 255\nset var number=7\np number",
            r"(?s)0x\w+: 0x.*0x0*ff\n.*= 7\n.*= 7\n",
        ),
        ("info reg sp", r"[*]?r?sp 0x"),
        ("info sha", r"0x\w+ libc"),
        ("disas leaf", r"steps`leaf:\n +0x"),
        ("delete\nc", r"counted \d+\n(?s:.*)\* exited, status 0\n"),
        ("b leaf\nrun", r"Breakpoint \d(?s:.*?)\* stopped: the program's entry"),
        (
            "kill",
            r"(?s)(\* exited, status 9.*?killed the program|killed the program.*?\* exited, status 9)",
        ),
        (f"launch '{inferior('wait')}'\nc &\ninterrupt\nwait", r"\* stopped: .*thread 1 \(wait\)"),
    )
    output, status = run(
        [*CONSOLE, helper_with(shim())], "\n".join(typed for typed, _ in session), SLOW_EVENTS="10"
    )
    at = 0
    for typed, pattern in session:
        found = re.compile(pattern).search(output, at)
        assert found, f"{typed!r} does not show {pattern}: {output[at:]}"
        at = found.end() - 1
    assert status == 0


@pytest.mark.parametrize(
    "typed, words",
    (
        ("where", "There is no program. launch PROGRAM starts one."),
        ("LAUNCH\nreadMemory length=4 address=nowhere", "«nowhere» is not a number"),
        ("LAUNCH\nc &\nregs", "The program is running."),
        ("LAUNCH\nregs sp zzz", "there is no register «zzz»"),
        ("LAUNCH\nb main 5", "b does not take «5» after «main»"),
        ("LAUNCH\nb main if", "b PLACE if CONDITION"),
        ("LAUNCH\nregz", "there is no command «regz»; regs?"),
        ("LAUNCH\n!register read nowhere", "nowhere"),
    ),
)
def test_a_mistake_ends_a_script(typed, words):
    output, status = run(
        [*CONSOLE, HELPER], typed.replace("LAUNCH", f"launch '{inferior('wait')}'") + "\nhelp\n"
    )
    assert words in output and "launch PROGRAM [ARG" not in output, output
    assert status == 1


def test_the_console_at_a_terminal():
    home = tempfile.mkdtemp()
    terminal = pexpect.spawn(CONSOLE[0], [*CONSOLE[1:], HELPER, inferior("wait")], DEADLINE, encoding="utf-8",
                             env=os.environ | {"TERM": "xterm", "XDG_STATE_HOME": home, "NO_COLOR": "1"},
                             preexec_fn=die_with_parent)  # fmt: skip

    def brings(typed, pattern):
        terminal.send(typed)
        terminal.expect([re.compile(pattern)])
        return terminal.match

    for typed, pattern in (
        ("", r"\* stopped: the program's entry[\s\S]*\r\n\(helper\) $"),
        ("getPro\t\r", r"getProcessState \r\nstate 5 .*\r\n\(helper\) $"),
        ("b mai\t\r", r"b main \r\nBreakpoint 1"),
        ("s\r", r"\* stopped: [\s\S]*\r\n\(helper\) $"),
        ("\r", r"\r\n\* stopped: [\s\S]*\r\n\(helper\) $"),  # repeats
        ("dance", "dance"),
        ("\x03", r"^\r\n\(helper\) $"),
        ("getProcessState\r", r"^getProcessState\r\nstate 5 "),
        ("delete\rc\r", "ready"),
        ("half", "half"),  # an event arrives while a line is typed, and the line stays
    ):
        brings(typed, pattern)
    os.kill(eventually(lambda: descendants(terminal.pid, "wait"), "the program")[0], signal.SIGUSR1)
    brings("", r"\* stopped: signal SIGUSR1[\s\S]*\r\n\(helper\) half$")
    brings("\x03", r"\(helper\) $")
    brings("!process handle SIGUSR1 --pass false\r", "SIGUSR1 ")
    brings("c\r", r"\(helper\) $")
    eventually(lambda: brings("getProcessState\r", r"state (\d+) ")[1] == "6", "it runs")
    brings("\x03", r"\* stopped: [\s\S]*\r\n\(helper\) $")
    brings("\x04", r"Ctrl-D again ends it[\s\S]*\(helper\) $")
    terminal.send("\x04")
    assert terminal.wait() == 0
    assert os.path.getsize(f"{home}/lldb-helper/history") > 0, "the history is not kept"
