"""An agent that serves, and clients of it."""

import atexit
import contextlib
import json
import signal
import socket
import subprocess

from _agent import AGENT, FOLDER


class Serving:
    """Programmed and listening from the construction on."""

    def __init__(self, config, *options, state="state", errors=None, started=lambda process: None):
        self.socket = str(FOLDER / state / "agent.sock")
        self.process = subprocess.Popen([AGENT, "serve", config, "--state", state, *map(str, options)], cwd=FOLDER, text=True,
                                        stdout=subprocess.PIPE, stderr=errors)
        atexit.register(self.process.kill)  # a script that raises leaves nobody behind
        started(self.process)
        self.shown = []
        for line in self.process.stdout:
            self.shown.append(line.rstrip("\n"))
            if line.startswith("Serving at "):
                break

    def ask(self, method, **params):
        """The whole answer."""
        return self.exchange({"jsonrpc": "2.0", "id": 1, "method": method, "params": params})

    def result(self, method, **params):
        return self.ask(method, **params)["result"]

    def exchange(self, message):
        with self.connected() as client:
            return said(client, message)

    def connected(self):
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.settimeout(600)
        client.connect(self.socket)
        return client

    def end(self, number=signal.SIGTERM):
        """Its exit status."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        with contextlib.closing(self.process.stdout):
            return self.process.wait(timeout=600)


def lines_of(client):
    """Every line until the server closes."""
    with client.makefile("rb") as file:
        return file.read().splitlines()


def said(client, message):
    """The answer to one message, which is a text or what JSON can hold."""
    text = message if isinstance(message, bytes) else (json.dumps(message) + "\n").encode()
    client.sendall(text)
    answer = b""
    while not answer.endswith(b"\n"):
        part = client.recv(1 << 16)
        if not part:
            break
        answer += part
    return json.loads(answer) if answer else None
