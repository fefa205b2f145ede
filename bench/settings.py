"""Times a session's start with one of LLDB's settings that a host may set. script/bench --settings calls it.

settings.py HELPER PROGRAM    PROGRAM has a symbol main, and runs at the addresses in its file
"""

import os
import re
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "examples"))
from host import Helper  # noqa: E402

SETTINGS = [[], ["symbols.enable-external-lookup false"], ["target.preload-symbols false"],
            ["symbols.enable-lldb-index-cache true"], ["symbols.enable-lldb-index-cache true"]]


def session(helper, program, main):
    """Milliseconds from the launch to the entry, from there to main, and for the first call stack."""

    def timed(command, stops, **arguments):
        start = time.perf_counter()
        helper.ask(command, **arguments)
        while stops and helper.next_event().get("state_desc") != "eStateStopped":
            pass
        return 1000 * (time.perf_counter() - start)

    helper.ask("prepareExecutable", path=program, triple="", args="--version")
    entry = timed("createProcess", True)
    helper.ask("setBreakpointAtVirtualAddress", address=main)
    times = [entry, timed("continueExecution", True)]
    helper.ask("selectThreadID", tid=helper.ask("getThreadIDList")["threads"][0]["thread-id"])
    times.append(timed("getCallstack", False))
    helper.ask("deleteProcess")
    return ", ".join(f"{number:.0f}" if number >= 10 else f"{number:.1f}" for number in times)


def main(program_of_helper, program):
    symbols = subprocess.run(["nm", "-D", program], capture_output=True, text=True, check=True).stdout
    address = int(re.search(r"^(\w+) T main$", symbols, re.M)[1], 16)
    print("milliseconds: launch to entry, entry to main, call stack")
    for settings in SETTINGS:
        helper = Helper(program_of_helper)
        for setting in settings:
            helper.ask("executeCommand", cli=f"settings set {setting}")
        first, second = (session(helper, program, address) for _ in range(2))
        print(f"{' '.join(settings) or 'default'}: first session {first}; second {second}")
        helper.close()


main(*sys.argv[1:])
