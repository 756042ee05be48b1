"""The process of the companion under test: starts it, watches it, and starts it again if it has ended."""
from __future__ import annotations

import os
import signal
import subprocess
import tempfile
from pathlib import Path
from typing import Sequence

from guilink.conform.strict import Fault

LAST_OUTPUT = 4000       # bytes; a report shows this much of the end of the companion's output
LAST_LINES = 3          # number of output lines that a fault quotes if the companion has crashed
ASKED_TO_END = 2.0      # s between SIGTERM and SIGKILL


class CompanionProcess:
    def __init__(self, command: Sequence[str], within: Sequence[str]):
        self._command = [*within, "setpriv", "--pdeathsig", "KILL", *command]
        self._process: subprocess.Popen[bytes] | None = None
        self._output = tempfile.TemporaryFile()
        self.status: int | None = None  # exit status, if the companion ended by itself
        self.has_answered = False       # whether it has answered any broadcast since the kit started
        self.greeted = 0                # connections on which it has sent a ConnectRequest since it started

    def ensure_running(self) -> bool:
        """Starts the companion unless it is running. Returns whether this call started it."""
        if self.alive():
            return False
        self._output.seek(0)
        self._output.truncate()
        self.status, self.greeted = None, 0
        self._process = subprocess.Popen(self._command, stdin=subprocess.DEVNULL, stdout=self._output,
                                         stderr=subprocess.STDOUT, start_new_session=True)
        return True

    def alive(self) -> bool:
        if self._process is None:
            return False
        self.status = self._process.poll()
        return self.status is None

    def crash(self) -> Fault | None:
        """Returns a fault if the companion has ended by itself, and not with status 0."""
        if self.alive() or not self.status:
            return None
        lines = " / ".join(self.last_output().strip().splitlines()[-LAST_LINES:])
        return Fault("LINK-10", f"the companion has ended with {self.end()}"
                     + (f"; its last lines: {lines}" if lines else ""))

    def stop(self) -> None:
        if self._process is None:
            return
        for number in (signal.SIGTERM, signal.SIGKILL):
            try:
                os.killpg(self._process.pid, number)
            except ProcessLookupError:
                pass
            try:
                self._process.wait(ASKED_TO_END)
                break
            except subprocess.TimeoutExpired:
                continue
        self._process, self.status = None, None

    def peak_memory(self) -> int:
        """The peak memory of the process and its children, added up, in bytes."""
        return sum(map(_peak, _family(self._process.pid))) if self._process else 0

    def end(self) -> str:
        """Returns how the companion ended, in words."""
        number = self.status or 0
        return f"signal {-number}" if number < 0 else f"status {number}"

    def last_output(self) -> str:
        size = self._output.seek(0, os.SEEK_END)
        self._output.seek(max(0, size - LAST_OUTPUT))
        return self._output.read().decode("utf-8", "replace")


def _family(pid: int) -> list[int]:
    try:
        children = [int(child) for task in Path(f"/proc/{pid}/task").iterdir()
                    for child in (task / "children").read_text().split()]
    except OSError:  # the process has just ended
        return []
    return [pid] + [member for child in children for member in _family(child)]


def _peak(pid: int) -> int:
    try:
        lines = Path(f"/proc/{pid}/status").read_text().splitlines()
        return sum(int(line.split()[1]) << 10 for line in lines if line.startswith("VmHWM:"))
    except OSError:
        return 0
