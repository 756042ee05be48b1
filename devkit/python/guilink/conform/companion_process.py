"""The process of the companion under test: starts it, watches it, and starts it again if it has ended."""
from __future__ import annotations

import os
import signal
import subprocess
import threading
from pathlib import Path
from typing import IO, Sequence

from guilink.conform.case import Subject
from guilink.conform.strict import Fault

LAST_OUTPUT = 4000       # bytes; a report shows this much of the end of the companion's output
LAST_LINES = 3          # number of output lines that a fault quotes if the companion has crashed
ASKED_TO_END = 2.0      # s between SIGTERM and SIGKILL
OUTPUT_DELAY = 0.5      # s; how long to wait for the last output of a companion that has ended


class CompanionProcess(Subject):
    def __init__(self, command: Sequence[str], within: Sequence[str], network: int):
        """`within` is the command that runs another one in the companion's network namespace, which process `network`
        keeps open."""
        self._command = [*within, "setpriv", "--pdeathsig", "KILL", *command]
        self._process: subprocess.Popen[bytes] | None = None
        self._network = os.stat(f"/proc/{network}/ns/net").st_ino
        self._holder = network
        self._waited: dict[Path, int] = {}  # ns that each thread has waited for a processor
        self._output = bytearray()
        self._missed: Fault | None = None  # a crash that nobody had noticed when the companion was started afresh
        self.status: int | None = None  # exit status, if the companion ended by itself
        self.has_answered = False       # whether it has answered any broadcast since the kit started
        self.greeted = 0                # connections on which it has sent a ConnectRequest since it started

    def ensure_running(self) -> bool:
        """Starts the companion unless it is running. Returns whether this call started it."""
        if self.alive():
            return False
        self._missed = self.crash()
        self.stop()
        self._output.clear()
        self.status, self.greeted = None, 0
        self._process = subprocess.Popen(self._command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT, start_new_session=True)
        self._keeper = threading.Thread(target=self._keep_output, args=(self._process.stdout,), daemon=True)
        self._keeper.start()
        return True

    def _keep_output(self, pipe: IO[bytes]) -> None:
        with pipe:
            while data := os.read(pipe.fileno(), 1 << 16):
                self._output += data
                del self._output[:-LAST_OUTPUT]

    def alive(self) -> bool:
        if self._process is None:
            return False
        self.status = self._process.poll()
        return self.status is None

    def crash(self) -> Fault | None:
        if missed := self._missed:
            self._missed = None
            return missed
        if self._process is None or self.alive():
            return None
        lines = " / ".join(self.last_output().strip().splitlines()[-LAST_LINES:])
        return Fault("LINK-10", f"the companion has ended with {self.end()}"
                     + (f"; its last lines: {lines}" if lines else ""))

    def stop(self) -> None:
        if self._process is None:
            return
        for number in (signal.SIGTERM, signal.SIGKILL):
            self._end_all(number)
            try:
                self._process.wait(ASKED_TO_END)
                break
            except subprocess.TimeoutExpired:
                continue
        self._end_all(signal.SIGKILL)
        self._process, self.status = None, None

    def _end_all(self, number: int) -> None:
        """Sends a signal to all processes in the companion's network, because some may have left its process group."""
        for folder in Path("/proc").glob("[0-9]*"):
            try:
                if int(folder.name) != self._holder and (folder / "ns/net").stat().st_ino == self._network:
                    os.kill(int(folder.name), number)
            except OSError:  # the process has just ended, or belongs to somebody else
                continue

    def starved(self) -> float:
        """Returns how long (s) the threads of the companion have waited for a processor. The kit waits, too, but is
        only late by its latest wait, whatever the sum is."""
        if self._process:
            for pid in _family(self._process.pid):
                for thread in Path(f"/proc/{pid}/task").glob("*/schedstat"):
                    try:
                        self._waited[thread] = int(thread.read_text().split()[1])
                    except OSError:  # the thread has just ended
                        continue
        return sum(self._waited.values()) / 1e9

    def peak_memory(self) -> int:
        """The peak memory of the process and its children, added up, in bytes."""
        return self._peak("VmHWM:")

    def peak_reserved(self) -> int:
        """The peak of the memory that they have reserved, used or not."""
        return self._peak("VmPeak:")

    def _peak(self, name: str) -> int:
        return sum(_peak(pid, name) for pid in _family(self._process.pid)) if self._process else 0

    def end(self) -> str:
        number = self.status or 0
        return f"signal {-number}" if number < 0 else f"status {number}"

    def last_output(self) -> str:
        if not self.alive() and self._process:
            self._keeper.join(OUTPUT_DELAY)
        return bytes(self._output).decode("utf-8", "replace")


def _family(pid: int) -> list[int]:
    try:
        children = [int(child) for task in Path(f"/proc/{pid}/task").iterdir()
                    for child in (task / "children").read_text().split()]
    except OSError:  # the process has just ended
        return []
    return [pid] + [member for child in children for member in _family(child)]


def _peak(pid: int, name: str) -> int:
    try:
        lines = Path(f"/proc/{pid}/status").read_text().splitlines()
        return sum(int(line.split()[1]) << 10 for line in lines if line.startswith(name))
    except OSError:
        return 0
