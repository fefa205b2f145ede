"""Debugs a small program from its launch to its exit, and shows every message on the two pipes.

Usage: session.py HELPER PROGRAM
"""

import json
import os
import sys

sys.dont_write_bytecode = True  # leaves no file where the examples are installed
from host import Helper  # noqa: E402

COLOURS = {"request": "36", "ok": "32", "error": "31", "event": "33", "note": "1"}


HELP = 'docs/troubleshooting.md explains this message under "Launching".'


class Failure(Exception):
    """An error that ends this session."""


def show(kind, mark, text):
    if sys.stdout.isatty():
        text = f"\033[{COLOURS[kind]}m{text}\033[0m"
    print(f"{mark} {text}")


def ask(helper, command, **arguments):
    show(
        "request",
        "->",
        " ".join([command] + [f"{k}={json.dumps(v)}" for k, v in arguments.items()]),
    )
    response = helper.ask(command, **arguments)
    show(response["status"], "<-", json.dumps(response))
    if response["status"] != "ok":
        raise Failure(f"{command}: {response['message']}\n{HELP}")
    return response


def show_event(event):
    if event["type"] in ("stdout", "stderr"):
        # The program runs on its own terminal, which ends lines with "\r\n".
        for line in bytes.fromhex(event["output"]).decode(errors="replace").splitlines():
            show("event", " *", f"output: {line}")
    elif event["type"] == "state":
        status = f", exit status {event['exit_status']}" if "exit_status" in event else ""
        show("event", " *", f"state: {event['state_desc']}{status}")
    else:
        names = ", ".join(module["file"] for module in event["modules"]) or "some"
        show("event", " *", f"{event['type']}: {names}")


def show_events_until(helper, state):
    """Shows events up to the one with this state, and returns that event."""
    while True:
        event = helper.next_event()
        show_event(event)
        if event.get("state_desc") == state:
            return event
        if event.get("state_desc") == "eStateExited":
            raise Failure(f"the program did not reach {state}")


def debug(helper, program, greeting, arguments):
    ask(
        helper,
        "prepareExecutable",
        path=program,
        args=arguments,
        env=f'GREETING="{greeting}"',
        cwd=os.getcwd(),
        triple="",
        is64Bits=True,
    )
    ask(helper, "createProcess")
    show_events_until(helper, "eStateStopped")
    ask(helper, "continueExecution")
    exited = show_events_until(helper, "eStateExited")
    ask(helper, "deleteProcess")
    return exited["exit_status"]


def run(helper, program):
    show("note", "##", "A run from the stop at entry to the exit")
    first = debug(helper, program, "Good morning", "world")
    show("note", "##", "And the next one, in the same helper")
    second = debug(helper, program, "Good night", '"sleepy world"')
    status = helper.close()
    show("note", "##", f"The runs ended with {first} and {second}, the helper with {status}")
    return (first, second, status) == (3, 3, 0)


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: session.py HELPER PROGRAM")
    sys.stdout.reconfigure(errors="surrogateescape")  # file names may have bytes that are not UTF-8
    try:
        helper = Helper(sys.argv[1])
    except OSError as problem:
        sys.exit(f"the helper does not start: {problem}")
    try:
        as_expected = run(helper, os.path.abspath(sys.argv[2]))
    except Failure as failure:
        helper.ask("deleteProcess")  # answers with an error if there is no process
        helper.close()
        sys.exit(str(failure))
    except (EOFError, BrokenPipeError):
        sys.exit(
            'the helper has ended; docs/troubleshooting.md explains this under "No text at all"'
        )
    sys.exit(0 if as_expected else 1)


if __name__ == "__main__":
    main()
