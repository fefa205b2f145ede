"""Times whole runs and pings through the pipes. Usage: sessions.py HELPER PROGRAM ROUNDS"""

import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "examples"))
from host import Helper  # noqa: E402


def timed(action):
    start = time.perf_counter()
    action()
    return 1000 * (time.perf_counter() - start)


def await_state(helper, state):
    while helper.next_event().get("state_desc") != state:
        pass


def main():
    helper = Helper(sys.argv[1])
    rounds = int(sys.argv[3])
    helper.ask("prepareExecutable", path=os.path.abspath(sys.argv[2]), triple="", cwd="", is64Bits=True)
    times = {"ping": [], "launch to entry": [], "continue to exit": [], "deleteProcess": []}
    for _ in range(rounds):
        times["ping"].append(timed(lambda: helper.ask("ping")))
        times["launch to entry"].append(timed(lambda: helper.ask("createProcess")))
        helper.ask("continueExecution")
        times["continue to exit"].append(timed(lambda: await_state(helper, "eStateExited")))
        times["deleteProcess"].append(timed(lambda: helper.ask("deleteProcess")))
    helper.close()
    for job, values in times.items():
        print(f"{job:18} median {statistics.median(values):8.2f} ms of {rounds}")


if __name__ == "__main__":
    main()
