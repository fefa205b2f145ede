"""The example hosts on examples/sample.c."""

import os
import re
import resource
import shutil
import subprocess
import sys

import pytest
from harness import linux, machine
from harness.machine import BUILD, DEADLINE, HELPER, SOURCE, descendants, die_with_parent
from harness.machine import eventually, inferior, run

EXAMPLES = f"{SOURCE}/examples"
SAMPLE = f"{BUILD}/examples/sample"
NODE = shutil.which("node") or shutil.which("nodejs")
SESSION = [sys.executable, "-B", f"{EXAMPLES}/session.py"]
CONSOLE = [sys.executable, "-B", f"{EXAMPLES}/console.py", "--helper"]
EXACT_PC = r"pc 0x[0-9a-f]{5,16}\b"
NO_FILE = "/nonexistent"
NOT_A_HELPER = shutil.which("true")


def helper_with(environment):
    """The helper with a library that its host does not load.

    In the host a sanitizer would report Python's own leaks.
    """
    names = ("LD_PRELOAD", "ASAN_OPTIONS")
    variables = " ".join(f"{name}={environment[name]}" for name in names)
    return machine.script(f"{variables} exec '{HELPER}' \"$@\"")


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
    plugin = linux.preload(inferior("libplugin.so"), "b\udcff.so")
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
