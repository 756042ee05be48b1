"""Records what each side sent and when, for the report, the capture file and the checks."""
from __future__ import annotations

import time
from dataclasses import dataclass

Address = tuple[str, int]
KIT = "kit"          # plays the other end of the link
SUBJECT = "subject"  # the companion or device under test


@dataclass(frozen=True)
class Event:
    """One event: `bytes` were sent, or a connection was `opened`, `ended` or `reset`."""

    time: float       # time.monotonic()
    speaker: str      # KIT or SUBJECT
    transport: str    # udp or tcp
    channel: int      # number of the connection or socket in this exchange
    kind: str         # bytes, opened, ended or reset
    source: Address
    target: Address
    data: bytes = b""


class Exchange(list[Event]):
    channels = 0

    def new_channel(self) -> int:
        self.channels += 1
        return self.channels

    def add(self, speaker: str, transport: str, channel: int, kind: str, source: Address, target: Address,
            data: bytes = b"") -> None:
        self.append(Event(time.monotonic(), speaker, transport, channel, kind, source, target, data))
