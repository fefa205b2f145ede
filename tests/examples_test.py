"""The example hosts on examples/sample.c."""

import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile

import pytest

from harness.machine import (
    BUILD,
    DEADLINE,
    HELPER,
    SOURCE,
    descendants,
    die_with_parent,
    eventually,
    inferior,
    preload,
    script,
)


EXAMPLES, SAMPLE = f"{SOURCE}/examples", f"{BUILD}/examples/sample"
SESSION = [sys.executable, "-B", f"{EXAMPLES}/session.py"]
CONSOLE = [sys.executable, "-B", f"{EXAMPLES}/console.py", "--helper"]
EXACT_PC = r"pc 0x[0-9a-f]{5,16}\b"
# The helper with a library that its host does not load: a sanitizer would report Python's own leaks.
helper_with = lambda odd: script(
    f"LD_PRELOAD={odd['LD_PRELOAD']} ASAN_OPTIONS={odd['ASAN_OPTIONS']} exec '{HELPER}' \"$@\""
)


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
