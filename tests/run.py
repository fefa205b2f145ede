"""Runs one test: a session of a page, or a function of a Python file. A function with a parameter gets a host, which must end with status 0.

Usage: run.py PAGE|FILE NAME        (see machine.py for what the environment must hold; ctest knows it)
"""

import contextlib
import importlib
import os
import signal
import sys
import tempfile

import kit
import play


def run(path, name):
    if path.endswith(".md"):
        return play.play(path, name)
    sys.path.insert(0, os.path.dirname(path))
    test = getattr(importlib.import_module(os.path.basename(path)[: -len(".py")]), name)
    if test.__code__.co_argcount == 0:
        return test()
    host = kit.Host()
    test(host)
    host.end()


def main(path, name):
    # What the helper leaves when it dies becomes this process's child, so that it can be ended.
    pr_set_child_subreaper = 36
    kit.libc.prctl(pr_set_child_subreaper, 1)
    with tempfile.TemporaryDirectory() as own:
        os.environ["TMPDIR"] = tempfile.tempdir = own
        try:
            run(path, name)
        except kit.NotTested as reason:
            print(f"NOT TESTED: {reason}")
        except kit.Failure as failure:
            sys.exit(f"{os.path.basename(path)}: {name}: {failure}")
        finally:
            while left := kit.descendants(os.getpid()):
                for pid in left:
                    with contextlib.suppress(ProcessLookupError):
                        os.kill(pid, signal.SIGKILL)


main(*sys.argv[1:])
