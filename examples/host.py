"""A host for lldb-helper in one screen of code. Copy it, or read it before you write your own.

The rules for hosts:

* The helper is a child process. Its arguments are the numbers of two descriptors. It reads requests
  from the first and writes messages to the second. Each is a frame: the length of its JSON text as 4
  bytes in this machine's byte order, then the text.
* A request is an object with "command", the command's arguments, and an "id" (a number). Every request
  gets exactly one response, in order, with the same "id".
* A message with "status": "event" reports a change of the debugged process. Events arrive at any time,
  even before the response to the request that caused them, so keep them apart from the responses.
* Read all the time. The helper waits for a host that does not read.
"""

import json
import os
import queue
import struct
import subprocess
import threading


class Helper:
    TIMEOUT = 120  # seconds; connectRemote takes more than a minute where no connection comes about

    def __init__(self, program, **options):
        """Starts the helper. `options` go to subprocess.Popen: env, cwd, stderr and so on."""
        requests_out, requests_in = os.pipe()
        messages_out, messages_in = os.pipe()
        options.setdefault("start_new_session", True)  # keeps Ctrl-C at this program's terminal from the helper
        self.child = subprocess.Popen(
            [program, str(requests_out), str(messages_in)],
            pass_fds=(requests_out, messages_in),
            **options,
        )
        os.close(requests_out)
        os.close(messages_in)
        self.requests = os.fdopen(requests_in, "wb")
        self.messages = os.fdopen(messages_out, "rb")
        self.next_id = 1
        self.responses = queue.Queue()
        self.events = queue.Queue()
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        """Reads messages in a thread. At the end, wakes everyone who waits for a message."""
        end = EOFError("the helper has ended")
        try:
            self._read()
        except Exception as problem:
            end = problem
        for messages in (self.responses, self.events):
            messages.put(end)

    def _read(self):
        """Sorts messages into responses and events, until the helper ends."""
        while text := self.receive():
            self.received(text)
            # File names may have bytes that are not UTF-8. os.fsencode() turns such a text back into the bytes.
            message = json.loads(text.decode(errors="surrogateescape"))
            is_event = message["status"] == "event"
            (self.events if is_event else self.responses).put(message)

    def receive(self):
        """Returns the text of the next message, or an empty one at the end."""
        if len(prefix := self.messages.read(4)) < 4:
            return b""
        (length,) = struct.unpack("=I", prefix)
        return self.messages.read(length)

    def received(self, text):
        """For a subclass that logs or checks messages. Runs in the reading thread, before anybody gets the message.

        What it raises ends the reading, and everybody who waits for a message gets it.
        """

    def sending(self, text):
        """For a subclass that logs or checks requests. Runs before the request is sent."""

    def send(self, *texts):
        """Sends requests, each in a frame of its own, in one write."""
        for text in texts:
            self.sending(text)
        self.requests.write(b"".join(struct.pack("=I", len(text)) + text for text in texts))
        self.requests.flush()

    def _take(self, messages):
        try:
            message = messages.get(timeout=self.TIMEOUT)
        except queue.Empty:
            raise TimeoutError(f"the helper has sent nothing for {self.TIMEOUT} seconds") from None
        if isinstance(message, Exception):
            messages.put(message)  # for the next call
            raise message
        return message

    def ask(self, command, **arguments):
        """Sends a request and returns its response, also if its status is "error"."""
        request = {"command": command, "id": self.next_id, **arguments}
        self.send(json.dumps(request, ensure_ascii=False).encode(errors="surrogateescape"))
        response = self.response()
        assert response.get("id") == self.next_id, response
        self.next_id += 1
        return response

    def response(self):
        """Returns the next response. They come in the order of the requests."""
        return self._take(self.responses)

    def next_event(self):
        """Returns the next event."""
        return self._take(self.events)

    def close(self):
        """Ends the helper, which stops only at the end of its input. Send deleteProcess first if there is a process."""
        self.requests.close()
        return self.child.wait(timeout=self.TIMEOUT)
