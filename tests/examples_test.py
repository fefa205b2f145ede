"""The example hosts on examples/sample.c; and examples/console.py, as a script and at a terminal."""

import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile

import pexpect
import pytest

from harness.machine import (
    BUILD,
    DEADLINE,
    HELPER,
    PC,
    SOURCE,
    descendants,
    die_with_parent,
    eventually,
    inferior,
    preload,
    script,
    shim,
)


EXAMPLES, SAMPLE = f"{SOURCE}/examples", f"{BUILD}/examples/sample"
SESSION = [sys.executable, "-B", f"{EXAMPLES}/session.py"]
CONSOLE = [sys.executable, "-B", f"{EXAMPLES}/console.py", "--helper"]
EXACT_PC = r"pc 0x[0-9a-f]{5,16}\b"
# The helper with a library that its host does not load: a sanitizer would report Python's own leaks.
helper_with = lambda odd: script(
    f"LD_PRELOAD={odd['LD_PRELOAD']} ASAN_OPTIONS={odd['ASAN_OPTIONS']} exec '{HELPER}' \"$@\""
)
WHERE = r"thread 1 \(steps\); 0x[0-9a-f]{16} "


def run(command, typed="", **environment):
    """What a command prints, and its status."""
    child = subprocess.run(command, input=typed, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                           timeout=DEADLINE, preexec_fn=die_with_parent, env=os.environ | environment)  # fmt: skip
    return child.stdout, child.returncode


def run_session(*command, shows=()):
    """To its end, and killed in the middle. The program loads a library whose name is not UTF-8."""
    # A helper whose host dies ends by abort. Only the soft limit can be raised again.
    _, most = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (0, most))
    helper = helper_with(preload("libplugin.so", "b\udcff.so"))
    # Python writes to a pipe only at its end.
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True, "errors": "surrogateescape",
               "env": os.environ | {"PYTHONUNBUFFERED": "1"}}  # fmt: skip
    host = subprocess.Popen([*command, helper, SAMPLE], **options)
    output = host.communicate(timeout=DEADLINE)[0]
    assert host.returncode == 0, output
    for pattern in (
        "Good morning, world!",
        "sample: 1 arguments",
        "exit status 3",
        r"b(\udcff|\\udcff)\.so",
        *shows,
    ):
        assert re.search(pattern, output), f"the run does not show {pattern!r}: {output}"
    eventually(lambda: not descendants(os.getpid()), "nothing stays")

    host = subprocess.Popen(host.args, **options)
    assert any("eStateStopped" in line for line in host.stdout), "it never came to a stop"
    host.kill()
    host.wait()
    eventually(lambda: not descendants(os.getpid()), "nothing stays when the host is killed")


def test_python_c_and_cpp():
    run_session(*SESSION)
    for name in ("c", "cpp"):
        run_session(f"{BUILD}/examples/example-{name}", shows=[EXACT_PC])


def test_node():
    node = shutil.which("node") or shutil.which("nodejs")
    if not node:
        pytest.skip("there is no node")
    run_session(node, f"{EXAMPLES}/session.js", shows=[EXACT_PC, r"not in memory: \S+ 0xf{16}\b"])
    subprocess.run(
        [node, f"{SOURCE}/tests/numbers.js", HELPER, SAMPLE], check=True, timeout=DEADLINE
    )


def test_a_failure_is_a_sentence_and_comes_at_once():
    for command, environment, words in (
        (CONSOLE + ["/nonexistent"], {}, "there is no /nonexistent"),
        (CONSOLE + ["/bin/true"], {}, "lldb-helper has ended"),
        (SESSION + ["/nonexistent", SAMPLE], {}, "the helper does not start"),
        (SESSION + ["/bin/true", SAMPLE], {}, "the helper has ended; docs/troubleshooting.md"),
        (SESSION + [HELPER, "/nonexistent"], {}, "docs/troubleshooting.md explains"),
        (
            SESSION + [HELPER, SAMPLE],
            {"LLDB_DEBUGSERVER_PATH": "/nonexistent"},
            "cannot create process: ",
        ),
    ):
        output, status = run(command, **environment)
        assert words in output and "Traceback" not in output and status == 1, output


def test_the_console_as_a_script():
    session = (
        ("wait\nwhere", r"There is no program\. launch "),
        (f"launch '{inferior('steps')}'", rf"\* stopped: the program's entry; {WHERE}ld-\S*`"),
        ("b leaf", r"Breakpoint 1: where = steps`leaf"),
        (
            "c\nwait",
            rf"\* loaded (shim\S+ at \w+, )?libc\S* at 0x(?s:.*)\* stopped: breakpoint 1\.1; {WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:7\n",
        ),
        ("bt", r"frame #1: \S+ steps`middle.*\n.*steps`main"),
        ("s", rf"\* stopped: .*; {WHERE}steps`leaf\(.*\) \+ \d+ at steps\.c:\d\n"),
        (f"regs {PC}", rf"\*{PC} 0x[0-9a-f]{{16}}\n"),
        ("regs", r"(?s)(rax.*?rbx.*?rip|x0.*?x1.*?pc)[^\n]*\n"),
        ("x $sp", r"(0x[0-9a-f]{16}(  [0-9a-f ]{47}).*\n){4}"),
        ("x main+4 2\nx leaf 2", r"(0x\S+  [0-9a-f]{2} [0-9a-f]{2} .*\n){2}"),
        ("code", r"\n-> +0x[0-9a-f]+ <\+\d+>"),
        ("readMemory length=4 address=nowhere", r"«nowhere» is not a number"),
        (
            "help readMemory",
            r"readMemory: .*\n +address +integer .*\n.*\nErrors: no process · unable to read memory\n",
        ),
        ("raw on\nping\nraw off", r'\{"command": "ping"\}\n\{"id": \d+, "status": "ok"\}\n'),
        (
            "delete\nc\nwait\nx $sp",
            r"counted 20\n(?s:.*)\* exited, status 0\nThe program has ended with status 0\. run ",
        ),
        (
            "run\nkill\nwait\nx $sp",
            r"\* stopped: the program's entry(?s:.*)\* exited, status 9\nThe program has ended with status 9",
        ),
        (
            f"launch '{inferior('wait')}'\nc\nregs\ninterrupt\nwait",
            r"The program is running\.(?s:.*)\* stopped: ",
        ),
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
        ("", r"\* stopped: the program's entry.*\r\n\(helper\) $"),
        ("getPro\t\r", r"getProcessState \r\nstate 5 .*\r\n\(helper\) $"),
        ("b mai\t\r", r"b main \r\nBreakpoint 1"),
        ("s\r", r"\* stopped: .*\r\n\(helper\) $"),
        ("\r", r"\r\n\* stopped: .*\r\n\(helper\) $"),  # repeats
        ("dance", "dance"),
        ("\x03", r"^\r\n\(helper\) $"),
        ("getProcessState\r", r"^getProcessState\r\nstate 5 "),
        ("delete\rc\r", "ready"),
        ("half", "half"),  # an event arrives while a line is typed, and the line stays
    ):
        brings(typed, pattern)
    os.kill(eventually(lambda: descendants(terminal.pid, "wait"), "the program")[0], signal.SIGUSR1)
    brings("", r"\* stopped: signal SIGUSR1.*\r\n\(helper\) half$")
    brings("\x03", r"\(helper\) $")
    brings("!process handle SIGUSR1 --pass false\r", "SIGUSR1 ")
    brings("c\r", r"\(helper\) $")
    eventually(lambda: brings("getProcessState\r", r"state (\d+) ")[1] == "6", "it runs")
    brings("\x03", r"\* stopped: .*\r\n\(helper\) $")
    terminal.send("\x04")
    assert terminal.wait() == 0
    assert os.path.getsize(f"{home}/lldb-helper/history") > 0, "the history is not kept"
