"""A test finds the process as the test before it did, and leaves nothing: no process, no file."""

import contextlib
import os
import resource
import signal
import tempfile

from harness.machine import descendants

SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGCHLD, signal.SIGPIPE, signal.SIGUSR1)


def kill_descendants():
    """Ends every process that this one has started, and what those have left."""
    while left := descendants(os.getpid()):
        for pid in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        reap()
    reap()


def reap():
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass


@contextlib.contextmanager
def surroundings():
    """A temporary folder of its own; afterwards everything that a test may change is as before."""
    folder, environment = os.getcwd(), dict(os.environ)
    core_limit = resource.getrlimit(resource.RLIMIT_CORE)
    handlers = {number: signal.getsignal(number) for number in SIGNALS}
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, [])
    temporary = tempfile.tempdir
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as own:
        os.environ["TMPDIR"] = tempfile.tempdir = own
        try:
            yield own
        finally:
            kill_descendants()
            tempfile.tempdir = temporary
            os.environ.clear()
            os.environ.update(environment)
            os.chdir(folder)
            signal.pthread_sigmask(signal.SIG_SETMASK, mask)
            for number, handler in handlers.items():
                signal.signal(number, handler)
            # Fails if a test lowered the hard limit.
            resource.setrlimit(resource.RLIMIT_CORE, core_limit)
