"""examples/console.py, as a script and at a terminal."""

import os
import re
import signal

import pexpect
import pytest
from examples_test import CONSOLE, helper_with
from harness import linux
from harness.machine import DEADLINE, HELPER, PC, descendants, die_with_parent, eventually
from harness.machine import inferior, run

WHERE = r"thread 1 \(steps\); 0x[0-9a-f]{16} "
AT_LEAF = rf"{WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:"
ENTRY = r"\* stopped: the program's entry; thread 1 "
BREAKPOINT = r"\* stopped: breakpoint "


def show_in_turn(output, typed_and_shown):
    """Each line shows its pattern after that of the line before."""
    at = 0
    for typed, pattern in typed_and_shown:
        found = re.compile(pattern).search(output, at)
        assert found, f"{typed!r} does not show {pattern}: {output[at:]}"
        at = found.end() - 1


# What a script's lines show. "launch" stands before each.
SCRIPTS = {
    "looking around": [
        ("launch", rf"{ENTRY}\(steps\); 0x[0-9a-f]{{16}} ld-\S*`"),
        ("b leaf", r"Breakpoint 1: where = steps`leaf"),
        ("c", rf"\* loaded (?s:.*?){BREAKPOINT}1\.1; {AT_LEAF}7\n"),
        ("# the code", r"\n-> 7 +\s*counted.*\n-> +0x\w+ <\+\d+>: .*\n"),
        ("bt", r"frame #1: \S+ steps`middle.*\n.*steps`main"),
        ("si", rf"\* stopped: instruction step into; {AT_LEAF}\d\n"),
        ("regs", rf"(?s)(rax.*?rbx|x0.*?x1).*?\* *{PC} 0x[0-9a-f]{{16}}"),
        ("regs all", r"(?s)(rax.*?\bgs = |x0.*?fpcr)"),
        ("info reg pc", rf" {PC} = 0x"),
        ("s", rf"\* stopped: step in; {AT_LEAF}8\n"),
        ("x $sp\nx\nx main+4", r"(0x[0-9a-f]+: ([0-9a-f]{2} ){16}.*\n){12}"),
        ("readMemory leaf 2", r"0x\S+  [0-9a-f]{2} [0-9a-f]{2} .*\n"),
        ("x/2gx $sp\np/x 255", r"0x\w+: 0x.*\n(.*\n)?.*0x0*ff\n"),
        ("set var number=7\np number", r"= 7\n.*= 7\n"),
        ("code\ndisas leaf", r"(?s)\n-> +0x[0-9a-f]+ <\+\d+>.*?steps`leaf:\n"),
        ("si", r"\* stopped: instruction step into; "),
        ("context", r"(?s)registers.*?instructions.*?-> .*?source.*?-> .*?stack.*?0x\w+: 0x"),
        ("help readMemory", r"\n +address +integer .*\n.*\n"),
        ("help", r"\nstep, s \[COUNT\] +thread step-in +one line"),
        ("raw on\nping\nraw off", r'\{"command": "ping"\}\n\{"id": \d+, "status": "ok"\}\n'),
        ("finish\nn 9", rf"(?s)stopped: step out; .*?{BREAKPOINT}1\.1; .*(?=\nAll )"),
        ("delete\nc", r"counted \d+\n(?s:.*?)\* exited, status 0\n"),
    ],
    "breakpoints stay": [
        ("b leaf\nb middle if number==2\nb *main\nb +3\nd 4", r"4: .* \+ \d+, "),
        ("run", rf"{BREAKPOINT}3\.1"),
        ("run\ni b", rf"exited(?s:.*?){ENTRY}(?s:.*?){BREAKPOINT}3\.1(?s:.*?)Condition: number==2"),
        ("c\ndelete 1 3", rf"{BREAKPOINT}1\.1"),
        ("c\np number", rf"{BREAKPOINT}2\.1(?s:.*?)\(int\) \$\d+ = 2"),
        ("kill", r"(?s)(exited, status 9.*?killed the|killed the.*?exited, status 9)"),
        ("b leaf\nstart", r"5: .*leaf(?s:.*?)\* stopped: one-shot breakpoint .* steps`main"),
        (
            "d\ntbreak leaf\nc\nwatch counted\nc",
            r"one-shot breakpoint .*leaf(?s:.*?)stopped: watchpoint 1;",
        ),
        ("run", r"watchpoints of the program before are gone(?s:.*?)exited, status 0"),
        ("starti\ndetach", rf"{ENTRY}(?s:.*?)detached: "),
        ("launch WAIT\nc &\ninterrupt\nwait", r"\* stopped: .*thread 1 \(wait\)"),
    ],
    "threads": [
        ("launch SPIN\nb spin.c:21\nrun\ndelete\nthread 3", rf"{BREAKPOINT}(?s:.*?)frame #0: "),
        ("si", r"\* stopped: instruction step into; thread 3 "),
        ("thread 2\nni 2", r"\* stopped: instruction step over; thread 2 "),
        ("threads", r"\n\* .*; thread 2 "),
    ],
}


def script(lines):
    for name in ("WAIT", "SPIN"):
        lines = lines.replace(name, f"'{inferior(name.lower())}'")
    return f"launch '{inferior('steps')}'\n{lines}\n"


@pytest.mark.linux("the shim delays events")
@pytest.mark.parametrize("typed_and_shown", SCRIPTS.values(), ids=SCRIPTS)
def test_a_script_shows_what_each_of_its_lines_asks_for(typed_and_shown):
    lines = "\n".join(typed for typed, _ in typed_and_shown if typed != "launch")
    helper = helper_with(linux.shim())
    output, status = run([*CONSOLE, helper], script(lines), SLOW_EVENTS="10")
    show_in_turn(output, typed_and_shown)
    assert status == 0, output


MISTAKES = {
    "kill\nx $sp": "The program ended with status 9. run ",
    "readMemory length=4 address=nowhere": "«nowhere» is not a number",
    "launch WAIT\nc &\nregs": "The program is running.",
    "regs sp zzz": "Invalid register name 'zzz'",
    "b main 5": "«main 5» is not a number, symbol,",
    "b main if": "break PLACE [if CONDITION]",
    "s twice": "step takes a count, not «twice»",
    "run > file": "«>» cannot be passed",
    "launch true\nlaunch /none": "cannot build target: ",
    "regz": "there is no command «regz»; regs?",
    "display number": "p EXPRESSION shows one",
    "register read nowhere": "nowhere",
    "attach -1": "attach PID",
}


@pytest.mark.parametrize("typed, words", MISTAKES.items(), ids=MISTAKES)
def test_a_mistake_ends_a_script(typed, words):
    output, status = run([*CONSOLE, HELPER], script(typed) + "!version\n")
    assert words in output
    assert "lldb version" not in output
    assert status == 1


def test_without_a_program_the_console_says_what_to_type():
    output, status = run([*CONSOLE, HELPER], "where\n")
    assert "There is no program. launch PROGRAM starts one." in output
    assert status == 1


@pytest.mark.linux("loaded libraries that are mapped from files")
def test_an_image_has_one_base_in_all_lists():
    typed = script("b leaf\nc\nmodules\ninfo sharedlibrary")
    output, _ = run([*CONSOLE, HELPER], typed)
    base = re.search(r"\* loaded .*libc\S* at 0x(\w+)", output)[1]
    assert len(re.findall(rf"^\[ *\d+\] 0x0*{base} libc", output, re.M)) == 2, output


def test_an_attached_program_shows_its_stop_and_runs_on_after_detach():
    # Without arguments pexpect would split the path at its spaces.
    program = pexpect.spawn("env", [inferior("wait")], DEADLINE, preexec_fn=die_with_parent)
    program.expect("ready")
    pid = program.pid
    output, status = run([*CONSOLE, HELPER], f"attach {pid}\nwhy\ndetach\n")
    assert re.search(rf"\* stopped: (?s:.*?)attached to process {pid}\n", output)
    assert "sectionName" not in output
    assert status == 0
    assert program.isalive()


def test_a_person_at_a_terminal_types_completes_repeats_and_interrupts(isolation):
    variables = {"TERM": "xterm", "XDG_STATE_HOME": isolation, "NO_COLOR": "1"}
    terminal = pexpect.spawn(
        CONSOLE[0],
        [*CONSOLE[1:], HELPER, inferior("wait")],
        DEADLINE,
        encoding="utf-8",
        env=os.environ | variables,
        preexec_fn=die_with_parent,
    )

    def brings(typed, pattern):
        terminal.send(typed)
        terminal.expect([re.compile(pattern)])
        return terminal.match

    prompt = r"\r\n\(helper\) $"
    context = rf"── registers(?s:.*?)── instructions(?s:.*?)-> (?s:.*?)── stack(?s:.*?){prompt}"
    brings("", ENTRY)
    brings("", context)
    brings("getPro\t\r", rf"getProcessState \r\nstate 5 .*{prompt}")
    brings("b mai\t\r", r"b main \r\nBreakpoint 1")
    brings("si\r", rf"\* stopped: (?s:.*?){context}")
    brings(
        "\r", rf"\r\n\* stopped: (?s:.*?)\* +(rip|pc) 0x(?s:.*?){prompt}"
    )  # repeats the last line
    brings("context off\rsi\r", rf"\* stopped: [^─]*-> [^─]*{prompt}")
    brings("dance", "dance")
    brings("\x03", rf"^{prompt}")
    brings("getProcessState\r", r"^getProcessState\r\nstate 5 ")
    brings("delete\rc\r", "ready")

    # An event arrives while a line is typed, and the line stays.
    brings("half", "half")
    pid = eventually(lambda: descendants(terminal.pid, "wait"), "the program")[0]
    os.kill(pid, signal.SIGUSR1)
    brings("", r"\* stopped: signal SIGUSR1(?s:.*?)\r\n\(helper\) half$")

    brings("\x03", r"\(helper\) $")
    brings("!process handle SIGUSR1 --pass false\r", "SIGUSR1 ")
    brings("c\r", r"\(helper\) $")
    running = "6"
    eventually(lambda: brings("getProcessState\r", r"state (\d+) ")[1] == running, "it runs")
    brings("\x03", rf"\* stopped: (?s:.*?){prompt}")
    brings("\x04", rf"Ctrl-D again ends it(?s:.*?){prompt}")
    terminal.send("\x04")
    assert terminal.wait() == 0
    assert os.path.getsize(f"{isolation}/lldb-helper/history") > 0
