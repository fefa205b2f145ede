"""The example hosts on examples/sample.c; and examples/console.py, as a script and at a terminal."""

import os
import re
import resource
import shutil
import signal
import subprocess
import sys

import pexpect
import pytest
from harness import machine
from harness.machine import BUILD, DEADLINE, HELPER, PC, SOURCE, descendants, die_with_parent
from harness.machine import eventually, inferior

EXAMPLES = f"{SOURCE}/examples"
SAMPLE = f"{BUILD}/examples/sample"
NODE = shutil.which("node") or shutil.which("nodejs")
SESSION = [sys.executable, "-B", f"{EXAMPLES}/session.py"]
CONSOLE = [sys.executable, "-B", f"{EXAMPLES}/console.py", "--helper"]
EXACT_PC = r"pc 0x[0-9a-f]{5,16}\b"
WHERE = r"thread 1 \(steps\); 0x[0-9a-f]{16} "
NO_FILE = "/nonexistent"
NOT_A_HELPER = shutil.which("true")


def helper_with(environment):
    """The helper with a library that its host does not load.

    In the host a sanitizer would report Python's own leaks.
    """
    names = ("LD_PRELOAD", "ASAN_OPTIONS")
    variables = " ".join(f"{name}={environment[name]}" for name in names)
    return machine.script(f"{variables} exec '{HELPER}' \"$@\"")


def run(command, typed="", **environment):
    """What a command prints, and its status."""
    child = subprocess.run(
        command,
        input=typed,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        encoding="utf-8",
        timeout=3 * DEADLINE,  # a whole session
        preexec_fn=die_with_parent,
        env=os.environ | environment,
    )
    return child.stdout, child.returncode


def start(command):
    # Python writes to a pipe only at its end.
    return subprocess.Popen(
        command,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="surrogateescape",
        preexec_fn=die_with_parent,
        env=os.environ | {"PYTHONUNBUFFERED": "1"},
    )


def hosts():
    """A case for each example host: its command, and a pattern that only this host prints."""
    in_c = [f"{BUILD}/examples/example-c"]
    in_cpp = [f"{BUILD}/examples/example-cpp"]
    in_javascript = [NODE, f"{EXAMPLES}/session.js"]
    no_node = pytest.mark.skipif(not NODE, reason="there is no node")
    return [
        pytest.param(SESSION, "", id="Python"),
        pytest.param(in_c, EXACT_PC, id="C"),
        pytest.param(in_cpp, EXACT_PC, id="C++"),
        pytest.param(in_javascript, EXACT_PC, id="JavaScript", marks=no_node),
    ]


@pytest.mark.parametrize("host, pattern", hosts())
def test_an_example_shows_a_session_and_leaves_nothing(host, pattern):
    output, status = run([*host, HELPER, SAMPLE])
    assert status == 0, output
    for shown in ("Good morning, world!", "sample: 1 arguments", "exit status 3", pattern):
        assert re.search(shown, output)
    assert not descendants(os.getpid())


@pytest.mark.linux("LD_PRELOAD; on macOS file names are always UTF-8")
@pytest.mark.parametrize("host, pattern", hosts())
def test_an_example_shows_a_file_name_that_is_not_utf_8(host, pattern):
    plugin = machine.preload(inferior("libplugin.so"), "b\udcff.so")
    child = start([*host, helper_with(plugin), SAMPLE])
    output = child.communicate(timeout=DEADLINE)[0]
    assert child.returncode == 0, output
    assert re.search(r"b(\udcff|\\udcff)\.so", output)


@pytest.mark.parametrize("host, pattern", hosts())
def test_nothing_stays_when_an_example_is_killed(host, pattern):
    # A helper whose host dies ends by abort.
    hard_limit = resource.getrlimit(resource.RLIMIT_CORE)[1]
    resource.setrlimit(resource.RLIMIT_CORE, (0, hard_limit))
    child = start([*host, HELPER, SAMPLE])
    assert any("eStateStopped" in line for line in child.stdout), "it never came to a stop"
    child.kill()
    child.wait()
    eventually(lambda: not descendants(os.getpid()), "nothing stays")


@pytest.mark.skipif(not NODE, reason="there is no node")
def test_javascript_keeps_all_64_bits_of_numbers():
    output, status = run([NODE, f"{SOURCE}/tests/numbers.js", HELPER, SAMPLE])
    assert status == 0, output


@pytest.mark.linux("an ELF file has sections that are not loaded")
@pytest.mark.skipif(not NODE, reason="there is no node")
def test_javascript_shows_a_section_that_is_not_in_memory():
    output, _ = run([NODE, f"{EXAMPLES}/session.js", HELPER, SAMPLE])
    assert re.search(r"not in memory: \S+ 0xf{16}\b", output)


FAILURES = {
    "console without helper": (CONSOLE + [NO_FILE], {}, f"there is no {NO_FILE}"),
    "console with another program": (CONSOLE + [NOT_A_HELPER], {}, "lldb-helper has ended"),
    "no helper": (SESSION + [NO_FILE, SAMPLE], {}, "the helper does not start"),
    "another program as helper": (
        SESSION + [NOT_A_HELPER, SAMPLE],
        {},
        "the helper has ended; docs/troubleshooting.md",
    ),
    "no program": (SESSION + [HELPER, NO_FILE], {}, "docs/troubleshooting.md explains"),
    "no debug server": (
        SESSION + [HELPER, SAMPLE],
        {"LLDB_DEBUGSERVER_PATH": NO_FILE},
        "cannot create process: ",
    ),
}


@pytest.mark.parametrize("command, environment, words", FAILURES.values(), ids=FAILURES)
def test_a_failure_is_a_sentence(command, environment, words):
    output, status = run(command, **environment)
    assert words in output
    assert "Traceback" not in output
    assert status == 1


@pytest.mark.linux("the shim delays events")
def test_the_console_as_a_script():
    steps, wait = inferior("steps"), inferior("wait")
    at_leaf = rf"{WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:"
    registers = rf"\*{PC} 0x[0-9a-f]{{16}}\n"
    typed_and_shown = [
        ("wait\nwhere", r"There is no program\. launch "),
        (f"launch '{steps}'", rf"\* stopped: the program's entry; {WHERE}ld-\S*`"),
        ("b leaf", r"Breakpoint 1: where = steps`leaf"),
        (
            "c\nwait",
            r"\* loaded (shim\S+ at \w+, )?libc\S* at 0x(?s:.*)"
            rf"\* stopped: breakpoint 1\.1; {at_leaf}7\n",
        ),
        ("bt", r"frame #1: \S+ steps`middle.*\n.*steps`main"),
        ("s", rf"\* stopped: .*; {at_leaf}\d\n"),
        (f"regs {PC}", registers),
        ("regs", r"(?s)(rax.*?rbx.*?rip|x0.*?x1.*?pc)[^\n]*\n"),
        ("x $sp", r"(0x[0-9a-f]{16}(  [0-9a-f ]{47}).*\n){4}"),
        ("x main+4 2\nx leaf 2", r"(0x\S+  [0-9a-f]{2} [0-9a-f]{2} .*\n){2}"),
        ("code", r"\n-> +0x[0-9a-f]+ <\+\d+>"),
        ("readMemory length=4 address=nowhere", r"«nowhere» is not a number"),
        (
            "help readMemory",
            r"readMemory: .*\n +address +integer .*\n.*\n"
            r"Errors: no process · unable to read memory\n",
        ),
        (
            "raw on\nping\nraw off",
            r'\{"command": "ping"\}\n\{"id": \d+, "status": "ok"\}\n',
        ),
        (
            "delete\nc\nwait\nx $sp",
            r"counted 20\n(?s:.*)\* exited, status 0\n"
            r"The program has ended with status 0\. run ",
        ),
        (
            "run\nkill\nwait\nx $sp",
            r"\* stopped: the program's entry(?s:.*)\* exited, status 9\n"
            r"The program has ended with status 9",
        ),
        (
            f"launch '{wait}'\nc\nregs\ninterrupt\nwait",
            r"The program is running\.(?s:.*)\* stopped: ",
        ),
    ]
    script = "\n".join(typed for typed, _ in typed_and_shown)
    output, status = run([*CONSOLE, helper_with(machine.shim())], script, SLOW_EVENTS="10")
    at = 0
    for typed, pattern in typed_and_shown:
        found = re.compile(pattern).search(output, at)
        assert found, f"{typed!r} does not show {pattern}: {output[at:]}"
        at = found.end() - 1
    assert status == 0


def test_the_console_at_a_terminal(isolation):
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
    brings("", rf"\* stopped: the program's entry.*{prompt}")
    brings("getPro\t\r", rf"getProcessState \r\nstate 5 .*{prompt}")
    brings("b mai\t\r", r"b main \r\nBreakpoint 1")
    brings("s\r", rf"\* stopped: .*{prompt}")
    brings("\r", rf"\r\n\* stopped: .*{prompt}")  # an empty line repeats the last one
    brings("dance", "dance")
    brings("\x03", rf"^{prompt}")
    brings("getProcessState\r", r"^getProcessState\r\nstate 5 ")
    brings("delete\rc\r", "ready")

    # An event arrives while a line is typed, and the line stays.
    brings("half", "half")
    pid = eventually(lambda: descendants(terminal.pid, "wait"), "the program")[0]
    os.kill(pid, signal.SIGUSR1)
    brings("", r"\* stopped: signal SIGUSR1.*\r\n\(helper\) half$")

    brings("\x03", r"\(helper\) $")
    brings("!process handle SIGUSR1 --pass false\r", "SIGUSR1 ")
    brings("c\r", r"\(helper\) $")
    running = "6"
    eventually(lambda: brings("getProcessState\r", r"state (\d+) ")[1] == running, "it runs")
    brings("\x03", rf"\* stopped: .*{prompt}")
    terminal.send("\x04")
    assert terminal.wait() == 0
    assert os.path.getsize(f"{isolation}/lldb-helper/history") > 0
