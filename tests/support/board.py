"""Controls the virtual board, for a command that `scripts/board ARCHITECTURE --run COMMAND` runs. All waits have the
same limit, because emulation on a busy machine is slow."""
import base64
import itertools
import json
import os
import socket
import time

LIMIT = 1200  # s


def wait_until(condition, what):
    end = time.monotonic() + LIMIT
    while not (result := condition()):
        assert time.monotonic() < end, f"in {LIMIT} s, not seen: {what}"
        time.sleep(0.5)
    return result


class Channel:
    """A socket of QEMU, which carries lines of JSON."""

    def __init__(self, name):
        self.name, self.socket = name, socket.socket(socket.AF_UNIX)
        file = f"{os.environ['GUILINK_BOARD']}/{name}"
        wait_until(lambda: self.socket.connect_ex(file) == 0, f"QEMU's socket {name}")
        self.received = b""

    def send(self, command, **arguments):
        self.socket.sendall(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")

    def line(self, limit=LIMIT):
        self.socket.settimeout(limit)
        while b"\n" not in self.received:
            received = self.socket.recv(1 << 16)
            assert received, f"QEMU closed {self.name}"
            self.received += received
        line, _, self.received = self.received.partition(b"\n")
        return line

    def call(self, command, **arguments):
        self.send(command, **arguments)
        while True:
            try:
                answer = json.loads(self.line())
            except TimeoutError:
                raise AssertionError(f"in {LIMIT} s, no answer from {self.name} to {command} {arguments}") from None
            assert "error" not in answer, answer
            if "return" in answer:
                return answer["return"]


class Agent(Channel):
    """Runs commands on the board."""

    numbers = itertools.count(1)

    def synchronise(self):
        """Waits until the agent runs, and skips what it still had to say."""
        number = next(self.numbers)
        self.send("guest-sync", id=number)
        try:
            return wait_until(lambda: json.loads(self.line(20) or b"{}").get("return") == number, "the agent's answer")
        except (TimeoutError, ValueError):
            return False

    def run(self, command):
        """Runs a command of the shell, and returns its output. Then `status` is its status."""
        wait_until(self.synchronise, "the agent")
        pid = self.call("guest-exec", path="/bin/sh", arg=["-c", command], **{"capture-output": True})["pid"]
        status = {}

        def ended():
            status.update(self.call("guest-exec-status", pid=pid))
            return status["exited"]
        wait_until(ended, f"the end of {command}")
        self.status = status.get("exitcode")
        return base64.b64decode(status.get("out-data", "") + "").decode().strip()
