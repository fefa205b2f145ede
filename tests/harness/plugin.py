"""What pytest needs: fixtures, the pages as tests, and the end of everything that a test started.

Nothing of a test outlives it, also when it failed or ran out of time: processes, its folder, the environment, limits, signals.
"""

import contextlib
import os
import pathlib
import resource
import shutil
import signal
import sys
import tempfile

import pytest

from harness import machine, pages
from harness.host import Host

FAILED = pytest.StashKey[bool]()


def pytest_configure():
    os.environ.update(machine.sanitizer_options())
    machine.adopt_orphans()


def pytest_collect_file(file_path, parent):
    if file_path.suffix == ".md":
        return Page.from_parent(parent, path=file_path)


def pytest_collection_modifyitems(items):
    for item in items:
        if machine.SANITIZER == "thread":
            item.add_marker(pytest.mark.timeout(900))
        if (mark := item.get_closest_marker("linux")) and sys.platform != "linux":
            reason = mark.args[0] if mark.args else "it needs Linux"
            item.add_marker(pytest.mark.skip(reason=reason))
    # The longest first, so that all processors are busy to the end.
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_protocol():
    with own_surroundings():
        yield


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if report.when == "call":
        item.stash[FAILED] = not report.passed


@contextlib.contextmanager
def own_surroundings():
    """Gives a test a folder for temporary files. Ends what the test started, and restores what it changed."""
    environment = dict(os.environ)
    folder = os.getcwd()
    core_size = resource.getrlimit(resource.RLIMIT_CORE)
    handlers = {number: signal.getsignal(number) for number in signal.valid_signals()}
    blocked = signal.pthread_sigmask(signal.SIG_BLOCK, [])
    own = tempfile.mkdtemp()
    os.environ["TMPDIR"] = tempfile.tempdir = own
    try:
        yield
    finally:
        machine.kill_descendants()
        os.environ.clear()
        os.environ.update(environment)
        os.chdir(folder)
        resource.setrlimit(resource.RLIMIT_CORE, core_size)
        for number, handler in handlers.items():
            if handler is not None and handler != signal.getsignal(number):
                signal.signal(number, handler)
        signal.pthread_sigmask(signal.SIG_SETMASK, blocked)
        tempfile.tempdir = None
        shutil.rmtree(own, ignore_errors=True)


@pytest.fixture
def tmp_path():
    """The test's folder. It is empty and ends with the test."""
    return pathlib.Path(os.environ["TMPDIR"])


@pytest.fixture
def start_host(request):
    """A function that starts hosts. After a test that passes, each must end with status 0 and leave nothing."""
    hosts = []

    def start(*arguments, **options):
        hosts.append(Host(*arguments, **options))
        return hosts[-1]

    yield start
    if not request.node.stash.get(FAILED, True):
        for host in hosts:
            host.end()


@pytest.fixture
def host(start_host):
    """A host with a helper of its own."""
    return start_host()


@pytest.fixture
def port():
    """A port of this machine that nobody listens on."""
    return machine.free_port()


class Page(pytest.File):
    """A page of sessions. The sessions below one heading are one test, named by the heading."""

    def collect(self):
        sessions = {}
        for block in pages.blocks(self.path):
            if block.is_session:
                sessions.setdefault(block.heading, []).append(block)
        for heading, blocks in sessions.items():
            yield Session.from_parent(self, name=heading, blocks=blocks)


class Session(pytest.Item):
    def __init__(self, blocks, **options):
        super().__init__(**options)
        self.blocks = blocks
        for block in blocks:
            for name in block.marks:
                self.add_marker(name)

    def runtest(self):
        for block in self.blocks:
            pages.play(block)

    def reportinfo(self):
        return self.path, self.blocks[0].line - 1, self.name

    def repr_failure(self, excinfo):
        if isinstance(excinfo.value, pages.Difference):
            return f"{os.path.relpath(self.path, machine.SOURCE)}:{excinfo.value}"
        return super().repr_failure(excinfo, style="short")
