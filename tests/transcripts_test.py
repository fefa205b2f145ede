"""The sessions of docs/transcripts happen today as the pages show them."""

import sys
from pathlib import Path

import pytest
from harness.machine import BUILD, SOURCE, run

PAGES = sorted(Path(SOURCE, "docs/transcripts").glob("*.md"))
NEEDS_MORE = 77


@pytest.mark.linux("the pages show sessions on Linux")
@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_a_transcript_shows_what_the_program_sends(page):
    command = [sys.executable, "-B", f"{SOURCE}/script/record-transcripts", "--check", str(page)]
    shown, status = run(command, LLDB_HELPER_BUILD=BUILD)
    if status == NEEDS_MORE:
        pytest.skip(shown)
    assert status == 0, shown
