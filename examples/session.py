"""Debugs a small program from its launch to its exit and shows all that goes over the two pipes.

Usage: session.py HELPER PROGRAM
"""

import json
import os
import sys

from host import Helper

COLOURS = {"request": "36", "ok": "32", "error": "31", "event": "33", "note": "1"}


def show(kind, mark, text):
    if sys.stdout.isatty():
        text = f"\033[{COLOURS[kind]}m{text}\033[0m"
    print(f"{mark} {text}")


def ask(helper, command, **arguments):
    show("request", "->", " ".join([command] + [f"{k}={json.dumps(v)}" for k, v in arguments.items()]))
    response = helper.ask(command, **arguments)
    show(response["status"], "<-", json.dumps(response))
    return response


def show_event(event):
    if event["type"] in ("stdout", "stderr"):
        # The program runs on a terminal of its own, which ends lines with "\r\n".
        for line in bytes.fromhex(event["output"]).decode(errors="replace").splitlines():
            show("event", " *", f"output: {line}")
    elif event["type"] == "state":
        status = f", exit status {event['exit_status']}" if "exit_status" in event else ""
        show("event", " *", f"state: {event['state_desc']}{status}")
    else:
        names = ", ".join(module["file"] for module in event["modules"]) or "some"
        show("event", " *", f"{event['type']}: {names}")


def show_events_until(helper, state):
    """Shows events up to the one with this state and returns that."""
    while True:
        event = helper.next_event()
        show_event(event)
        if event.get("state_desc") == state:
            return event


def debug(helper, program, greeting, arguments):
    ask(helper, "prepareExecutable", path=program, args=arguments, env=f'GREETING="{greeting}"',
        cwd=os.getcwd(), triple="", is64Bits=True)
    ask(helper, "createProcess")
    show_events_until(helper, "eStateStopped")
    ask(helper, "continueExecution")
    exited = show_events_until(helper, "eStateExited")
    ask(helper, "deleteProcess")
    return exited["exit_status"]


def main():
    helper = Helper(sys.argv[1])
    program = os.path.abspath(sys.argv[2])
    show("note", "##", "A run from the stop at entry to the exit")
    first = debug(helper, program, "Good morning", "world")
    show("note", "##", "And the next one, in the same helper")
    second = debug(helper, program, "Good night", '"sleepy world"')
    status = helper.close()
    show("note", "##", f"The runs ended with {first} and {second}, the helper with {status}")
    sys.exit(0 if (first, second, status) == (3, 3, 0) else 1)


if __name__ == "__main__":
    main()
