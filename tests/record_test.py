"""examples/record.py between a host and the helper, and its replay."""

import os
import re
import subprocess
import sys

import pytest
from harness import machine
from harness.checking import Host
from harness.machine import BUILD, DEADLINE, HELPER, SOURCE, die_with_parent, eventually, inferior

RECORD = [sys.executable, "-B", f"{SOURCE}/examples/record.py"]


@pytest.fixture
def recorder(isolation):
    """A helper that records its session, and the file."""
    file = os.path.join(isolation, "session")
    command = " ".join(f"'{word}'" for word in [*RECORD, file, "--", HELPER])
    return machine.script(f'exec {command} "$@"'), file


def replay(file):
    command = [*RECORD, "--replay", file, "--", HELPER]
    shown = subprocess.run(
        command,
        stdout=subprocess.PIPE,
        text=True,
        timeout=3 * DEADLINE,
        preexec_fn=die_with_parent,
    )
    return shown.returncode, shown.stdout


def test_a_recorded_session_replays_and_shows_what_differs(recorder):
    helper, file = recorder
    session = [sys.executable, "-B", f"{SOURCE}/examples/session.py", helper]
    subprocess.run(
        [*session, f"{BUILD}/examples/sample"],
        stdout=subprocess.DEVNULL,
        check=True,
        timeout=3 * DEADLINE,
        preexec_fn=die_with_parent,
    )
    status, shown = replay(file)
    assert (status, shown.splitlines()[-1]) == (0, "8 requests, no differences"), shown
    changed = re.sub('"exit_status": 3', '"exit_status": 4', machine.read(file))
    with open(file, "w") as recording:
        recording.write(changed.replace('"id": 8, "status": "ok"', '"id": 8, "status": "error"'))
    status, shown = replay(file)
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
    recorded = machine.read(file)
    with open(file, "w") as recording:
        recording.write(recorded.replace(f'"pid": {first.pid}', f'"pid": {second.pid}'))
    status, shown = replay(file)
    assert status == 0, shown


def test_a_recording_is_whole_whoever_dies(recorder):
    helper, file = recorder
    host = Host(helper, checks_requests=False)
    host.ask_all("ping")
    host.send(b"not \xff JSON\n")
    host.response()
    host.child.kill()
    eventually(lambda: not machine.descendants(os.getpid(), "lldb-helper"), "the helper ends")
    recorded = [line[11:] for line in machine.read(file).splitlines()]
    assert recorded[1:3] == ['-> {"command": "ping"}', '<- {"status": "ok"}']
    assert recorded[3] == r"-> b'not \xff JSON\n'"
    assert recorded[4].startswith('<- {"message": "Cannot decode JSON')
    host = Host(helper)
    host.launch("wait")
    recorded_helper = machine.descendants(host.pid, "lldb-helper")[0]
    os.kill(recorded_helper, 9)
    assert host.child.wait(DEADLINE) == -9
    assert machine.read(file).endswith("the helper ended with status -9\n")
