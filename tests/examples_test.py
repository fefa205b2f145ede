"""The example hosts on examples/sample.c."""

import os
import re
import resource
import shutil
import sys

import pytest
from harness import linux, machine
from harness.machine import BUILD, HELPER, SOURCE, Program, descendants, eventually, inferior, run

EXAMPLES = f"{SOURCE}/examples"
SAMPLE = f"{BUILD}/examples/sample"
NODE = shutil.which("node") or shutil.which("nodejs")
# Python writes to a pipe at its end, without -u.
SESSION = [sys.executable, "-uB", f"{EXAMPLES}/session.py"]
CONSOLE = [sys.executable, "-B", f"{EXAMPLES}/console.py", "--helper"]
NO_FILE = "/nonexistent"
NOT_A_HELPER = shutil.which("true")

HOSTS = {
    "Python": SESSION,
    "C": [f"{BUILD}/examples/example-c"],
    "C++": [f"{BUILD}/examples/example-cpp"],
    "JavaScript": [NODE or "node", f"{EXAMPLES}/session.js"],
}


@pytest.fixture(params=HOSTS)
def example(request):
    """The command of an example host."""
    command = HOSTS[request.param]
    if not shutil.which(command[0]):
        pytest.skip(f"there is no {command[0]}")
    return command


def helper_with(environment):
    """The helper with a library that its host does not load.

    In the host a sanitizer would report Python's own leaks.
    """
    names = ("LD_PRELOAD", "ASAN_OPTIONS")
    variables = " ".join(f"{name}={environment[name]}" for name in names)
    return machine.script(f"{variables} exec '{HELPER}' \"$@\"")


def test_an_example_shows_a_session_and_leaves_nothing(example):
    output, status = run([*example, HELPER, SAMPLE])
    assert status == 0, output
    for shown in ("Good morning, world!", "sample: 1 arguments", "exit status 3"):
        assert shown in output
    assert example == SESSION or re.search(r"pc 0x[0-9a-f]{5,16}\b", output)
    assert not descendants(os.getpid())


@pytest.mark.linux("LD_PRELOAD; on macOS file names are always UTF-8")
def test_an_example_shows_a_file_name_that_is_not_utf_8(example):
    plugin = linux.preload(inferior("libplugin.so"), "b\udcff.so")
    output, status = run([*example, helper_with(plugin), SAMPLE])
    assert status == 0, output
    assert re.search(r"b(\udcff|\\udcff)\.so", output)


def test_nothing_stays_when_an_example_is_killed(example):
    # A helper whose host dies ends by abort.
    hard_limit = resource.getrlimit(resource.RLIMIT_CORE)[1]
    resource.setrlimit(resource.RLIMIT_CORE, (0, hard_limit))
    child = Program(*example, HELPER, SAMPLE, speaks=False)
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
    output, _ = run([*HOSTS["JavaScript"], HELPER, SAMPLE])
    assert re.search(r"not in memory: \S+ 0xf{16}\b", output)


FAILURES = {
    "console without helper": (CONSOLE + [NO_FILE], f"there is no {NO_FILE}"),
    "console with another program": (CONSOLE + [NOT_A_HELPER], "lldb-helper has ended"),
    "no helper": (SESSION + [NO_FILE, SAMPLE], "the helper does not start"),
    "another program as helper": (
        SESSION + [NOT_A_HELPER, SAMPLE],
        "the helper has ended; docs/troubleshooting.md",
    ),
    "no program": (SESSION + [HELPER, NO_FILE], "docs/troubleshooting.md explains"),
    "no debug server": (
        ["env", f"LLDB_DEBUGSERVER_PATH={NO_FILE}", *SESSION, HELPER, SAMPLE],
        "cannot create process: ",
    ),
}


@pytest.mark.parametrize("command, words", FAILURES.values(), ids=FAILURES)
def test_an_example_that_fails_says_why_in_a_sentence(command, words):
    output, status = run(command)
    assert words in output
    assert "Traceback" not in output
    assert status == 1
