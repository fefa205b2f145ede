"""Every line of docs/beyond.md, on a stopped program."""

import json
import re

import pytest
from harness import machine
from harness.machine import LLDB_MAJOR, SOURCE

# What the answer has to have in it, by the first cell of a row: for people, and as JSON.
WANTED = {
    "disassembly": ("threads`work", lambda rows: len(rows) == 3 and rows[0][2]),
    "symbol and line of an address": ("threads.c:8", lambda row: row[:2] == ["work"] * 2),
    "address of a symbol": ("threads`main", lambda found: found[0] > 0x1000),
    "memory region of an address": ("rw-", lambda row: row[2:5] == [True, True, False]),
    "all memory regions": ("threads", lambda rows: all(row[0] < row[1] for row in rows)),
    "size and type of registers": ("8 bytes", lambda found: found[machine.PC][0] == 8),
    "pid": ("Process ", lambda pid: pid > 1),
    "description of a stop": ("breakpoint 1.1", lambda row: row == ["breakpoint 1.1", [1, 1]]),
    "names of threads": ("thread #2", lambda names: set(names.values()) == {"threads"}),
    "watchpoint": ("Watchpoint created", lambda row: row == [2, None] or row == [2, "success"]),
    "condition of a breakpoint": ("", lambda row: row == ["$sp == 0", 1]),
    "what a signal does": ("SIGUSR1 ", lambda row: row[0] > 0 and row[1:] == [True, False]),
}


def rows():
    for line in machine.read(f"{SOURCE}/docs/beyond.md").splitlines():
        if cells := re.match(r"\| ([^|]*) \| `(.*?)`( \(LLDB (\d+)[^|]*\))? \| `(.*)` \|$", line):
            yield cells[1], cells[2], int(cells[4] or 0), cells[5]


@pytest.fixture
def at_work(host):
    host.launch("threads")
    host.cli("breakpoint set --name work")
    host.resume()
    stopped = [t for t in host.ok("getThreadIDList")["threads"] if t["state"] == "Breakpoint"]
    host.ok("selectThreadID", tid=stopped[0]["thread-id"])
    return host


def test_the_commands_for_people_on_the_page_show_what_it_says(at_work):
    assert {row[0] for row in rows()} == set(WANTED)
    for name, line, version, _ in rows():
        if LLDB_MAJOR >= version:
            assert WANTED[name][0] in at_work.cli(line), name


def test_the_commands_with_json_on_the_page_print_what_it_says(at_work):
    # The watchpoint of the page is the second one.
    at_work.cli("watchpoint set expression --watch write --size 4 -- $sp")
    has_python = at_work.ok("executeCommand", cli="script import json, lldb")["succeeded"]
    for name, _, _, line in rows():
        answer = at_work.ok("executeCommand", cli=line)
        assert answer["succeeded"] == has_python, (name, answer)
        if has_python:
            assert WANTED[name][1](json.loads(answer["output"])), (name, answer)
        else:
            assert answer["error"].startswith("error: "), (name, answer)
    if not has_python:
        pytest.skip("LLDB's Python is missing here (Debian: python3-lldb-N): JSON was not checked")
