"""The tests beside the unit tests: the sessions of pages and the test_ functions of Python files.

Usage: run.py BUILD          prints them for ctest, as CMake commands
       run.py BUILD NAME     runs one, in a folder of its own; no process that it starts outlives it

A function with a parameter gets a host, which must end with status 0.
"""

import glob
import importlib
import os
import sys

os.environ["LLDB_HELPER_TESTS"] = sys.argv[1]
import play  # noqa: E402
from kit import *  # noqa: E402


def run(function):
    hosts = [Host() for _ in range(function.__code__.co_argcount)]
    function(*hosts)
    for host in hosts:
        host.end()


def tests():
    """The name and the function of each test. A name is the file's, a dot, and the words of the heading or function."""
    name = lambda path, words: os.path.basename(path).partition(".")[0] + "." + re.sub("[^A-Za-z0-9]+", "-", words)
    for path in glob.glob(f"{SOURCE}/tests/sessions/*.md") + glob.glob(f"{SOURCE}/docs/transcripts/*.md"):
        for heading in dict.fromkeys(heading for heading, _, is_session in play.blocks(path) if is_session):
            yield name(path, heading), functools.partial(play.play, path, heading)
    for path in glob.glob(f"{SOURCE}/tests/*_test.py"):
        for words, function in vars(importlib.import_module(os.path.basename(path)[:-3])).items():
            if words.startswith("test_"):
                yield name(path.replace("_test.py", "."), words[5:]), functools.partial(run, function)


def main(test):
    # What the helper leaves when it dies becomes this process's child, so that it can be ended.
    pr_set_child_subreaper = 36
    libc.prctl(pr_set_child_subreaper, 1)
    with tempfile.TemporaryDirectory() as own:
        os.environ["TMPDIR"] = tempfile.tempdir = own
        try:
            dict(tests())[test]()
        except NotTested as reason:
            print(f"NOT TESTED: {reason}")
        except Failure as failure:
            sys.exit(f"{test}: {failure}")
        finally:
            while left := descendants(os.getpid()):
                for pid in left:
                    with contextlib.suppress(ProcessLookupError):
                        os.kill(pid, signal.SIGKILL)


if len(sys.argv) > 2:
    sys.exit(main(sys.argv[2]))
for test, _ in sorted(tests()):
    print(f'add_test("{test}" "{sys.executable}" -B "{__file__}" "{sys.argv[1]}" "{test}")')
    print(f'set_tests_properties("{test}" PROPERTIES TIMEOUT 300 SKIP_REGULAR_EXPRESSION "NOT TESTED")')
