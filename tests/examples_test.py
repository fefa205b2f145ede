"""The example hosts: each runs its session on examples/sample.c, and is killed in the middle of it."""

import os
import re
import resource
import shutil
import subprocess
import tempfile

from kit import *

EXAMPLES = os.path.join(SOURCE, "examples")
EXACT_PC = r"pc 0x[0-9a-f]{5,16}\b"


def helper_with_odd_library():
    """A helper that loads a library into its programs whose name is not UTF-8."""
    folder = tempfile.mkdtemp().encode()
    library = shutil.copy(inferior("libplugin.so").encode(), folder + b"/b\xff.so")
    script = os.path.join(folder, b"helper")
    with open(script, "wb") as file:
        file.write(b"#!/bin/sh\nexport ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0\nLD_PRELOAD=%b exec %b \"$@\"\n"
                   % (library, HELPER.encode()))
    os.chmod(script, 0o755)
    return script


def run_example(*command, shows=()):
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # a helper whose host dies ends by abort
    # Python writes to a pipe only at its end.
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True, "errors": "surrogateescape",
               "env": os.environ | {"PYTHONUNBUFFERED": "1"}}
    host = subprocess.Popen([*command, helper_with_odd_library(), f"{BUILD}/examples/sample"], **options)
    output = host.communicate(timeout=DEADLINE)[0]
    expect(host.returncode, 0, output)
    for pattern in ("Good morning, world!", "sample: 1 arguments", "exit status 3", r"b(\udcff|\\udcff)\.so", *shows):
        check(re.search(pattern, output), f"the run does not show {pattern!r}: {output}")
    eventually(lambda: not descendants(os.getpid()), "nothing stays")

    host = subprocess.Popen(host.args, **options)
    check(any("eStateStopped" in line for line in host.stdout), "it never came to a stop")
    host.kill()
    host.wait()
    eventually(lambda: not descendants(os.getpid()), "nothing stays when the host is killed")


def node():
    found = shutil.which("node") or shutil.which("nodejs")
    if not found:
        raise NotTested("there is no node")
    return found


def test_python_c_and_cpp():
    run_example(sys.executable, os.path.join(EXAMPLES, "session.py"))
    for name in ("c", "cpp"):
        run_example(f"{BUILD}/examples/example-{name}", shows=[EXACT_PC])


def test_node():
    run_example(node(), os.path.join(EXAMPLES, "session.js"), shows=[EXACT_PC, r"not in memory: \S+ 0xf{16}\b"])
    numbers = os.path.join(SOURCE, "tests", "numbers.js")
    subprocess.run([node(), numbers, HELPER, f"{BUILD}/examples/sample"], check=True, timeout=DEADLINE)
