"""Connects pytest with tests/harness: isolation, the `host`, the marks, and docs/transcripts."""

import json
import sys

import pytest
from harness import machine
from harness.checking import Host
from harness.isolation import surroundings


def pytest_configure(config):
    machine.become_subreaper()
    machine.watch_portability()


@pytest.fixture(scope="session", autouse=True)
def sanitizer_options():
    """The environment of the build's test preset, for the helper and what it starts."""
    presets = json.loads(machine.read(f"{machine.SOURCE}/CMakePresets.json"))["testPresets"]
    of_build = [p for p in presets if machine.BUILD == f"{machine.SOURCE}/build/{p['name']}"]
    with pytest.MonkeyPatch.context() as patch:
        for preset in of_build:
            for name, value in preset.get("environment", {}).items():
                patch.setenv(name, value.replace("${sourceDir}", machine.SOURCE))
        yield


@pytest.fixture(autouse=True)
def isolation(request, sanitizer_options):
    """A folder of the test's own. What the test starts and changes ends with it."""
    mark = request.node.get_closest_marker("linux")
    if mark and not machine.IS_LINUX:
        pytest.skip(f"needs Linux: {mark.args[0]}")
    machine.set_portable(mark is None)
    with surroundings() as folder:
        yield folder
    machine.set_portable(False)


class Transcript(pytest.Item):
    """A page of docs/transcripts. It fails where the program no longer sends what the page shows."""

    def runtest(self):
        if not machine.IS_LINUX:
            pytest.skip("the pages show sessions on Linux")
        recorder = f"{machine.SOURCE}/script/record-transcripts"
        command = [sys.executable, "-B", recorder, "--check", str(self.path)]
        shown, status = machine.run(command, LLDB_HELPER_BUILD=machine.BUILD)
        needs_more = 77
        if status == needs_more:
            pytest.skip(shown)
        if status != 0:
            pytest.fail(shown, pytrace=False)

    def reportinfo(self):
        return self.path, None, f"a session as {self.path.name} shows it"


class Page(pytest.File):
    def collect(self):
        yield Transcript.from_parent(self, name="session")


def pytest_collect_file(file_path, parent):
    if file_path.match("docs/transcripts/*.md"):
        return Page.from_parent(parent, path=file_path)


@pytest.fixture
def host(request, isolation):
    """A helper with a host, which must end in order after a test that passed.

    A test that has waited for the helper's end has judged it itself.
    """
    failed_before = request.session.testsfailed
    host = Host()
    yield host
    has_passed = request.session.testsfailed == failed_before
    if has_passed and host.child.returncode is None:
        host.end()


def pytest_collection_modifyitems(items):
    """Slow tests start first. script/run-tests has pytest-xdist hand out one test after the other."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)
