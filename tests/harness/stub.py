"""A debug server that answers as a test wants, for answers that no real one gives."""

import contextlib
import socket
import threading


def serve(answer):
    """Starts a server that sends all texts of answer(data) for the data of each read. Returns its port.

    It lives as long as the process of the tests, and takes any number of connections.
    """
    listener = socket.create_server(("127.0.0.1", 0))

    def talk(connection):
        with contextlib.suppress(OSError):  # the helper has cut it
            while data := connection.recv(65536):
                for text in answer(data):
                    connection.sendall(text)

    def accept():
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=talk, args=(connection,), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()
    return listener.getsockname()[1]
