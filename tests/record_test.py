"""examples/record.py between a host and the helper, and its replay."""

import os
import sys
from pathlib import Path

import pytest
from examples_test import SAMPLE, SESSION
from harness import machine
from harness.checking import Host
from harness.machine import DEADLINE, HELPER, SOURCE, descendants, eventually, inferior, run

RECORD = [sys.executable, "-B", f"{SOURCE}/examples/record.py"]


@pytest.fixture
def recorder(isolation):
    """A helper that records its session, and the file."""
    file = os.path.join(isolation, "session")
    command = " ".join(f"'{word}'" for word in [*RECORD, file, "--", HELPER])
    return machine.script(f'exec {command} "$@"'), file


def replay(file):
    """What a replay of a recording shows, and its status."""
    return run([*RECORD, "--replay", file, "--", HELPER])


def change(file, *replacements):
    text = machine.read(file)
    for old, new in replacements:
        text = text.replace(old, new)
    Path(file).write_text(text)


def test_a_recorded_session_replays_and_shows_what_differs(recorder):
    helper, file = recorder
    run([*SESSION, helper, SAMPLE])
    shown, status = replay(file)
    assert (status, shown.splitlines()[-1]) == (0, "8 requests, no differences"), shown
    change(
        file,
        ('"exit_status": 3', '"exit_status": 4'),
        ('"id": 8, "status": "ok"', '"id": 8, "status": "error"'),
    )
    shown, status = replay(file)
    assert (status, shown.splitlines()[-1]) == (1, "8 requests, 3 differences"), shown


def test_a_replay_puts_new_addresses_and_ids_into_requests(recorder):
    """The recorded program has ended; another one with the same code stands for it."""
    helper, file = recorder
    first, second = machine.Program(inferior("wait")), machine.Program(inferior("wait"))
    host = Host(helper)
    text = host.ok("attachToProcess", pid=first.pid)
    assert host.ok("readMemory", address=text["loadAddr"] + 8, length=16)
    thread = host.ok("getThreadIDList")["threads"][0]["thread-id"]
    host.ok("selectThreadID", tid=thread)
    host.ok("detach")
    host.ok("deleteProcess")
    assert host.close() == 0
    change(file, (f'"pid": {first.pid}', f'"pid": {second.pid}'))
    shown, status = replay(file)
    assert status == 0, shown


def test_a_recording_is_whole_whoever_dies(recorder):
    helper, file = recorder
    host = Host(helper, checks_requests=False)
    host.ask_all("ping")
    host.send(b"not \xff JSON\n")
    host.response()
    host.child.kill()
    eventually(lambda: not descendants(os.getpid(), "lldb-helper"), "the helper ends")
    recorded = [line[11:] for line in machine.read(file).splitlines()]
    assert recorded[1:3] == ['-> {"command": "ping"}', '<- {"status": "ok"}']
    assert recorded[3] == r"-> b'not \xff JSON\n'"
    assert recorded[4].startswith('<- {"message": "Cannot decode JSON')
    host = Host(helper)
    host.launch("wait")
    recorded_helper = descendants(host.pid, "lldb-helper")[0]
    os.kill(recorded_helper, 9)
    assert host.child.wait(DEADLINE) == -9
    assert machine.read(file).endswith("the helper ended with status -9\n")
