"""What was said on the wire, by whom and when: for the report, the capture file and the judge."""
from __future__ import annotations

import time
from dataclasses import dataclass, field
from typing import Iterator

Address = tuple[str, int]
KIT = "kit"          # speaks for the scripted end
SUBJECT = "subject"  # what is being proved


@dataclass(frozen=True)
class Event:
    """Bytes, or `opened`, `ended` and `reset` of a connection, or a `note` of the kit."""

    time: float       # time.monotonic()
    speaker: str      # KIT or SUBJECT
    transport: str    # udp or tcp
    channel: int      # number of the connection or socket in this exchange
    kind: str         # bytes, opened, ended, reset or note
    source: Address
    target: Address
    data: bytes = b""
    text: str = ""


@dataclass
class Exchange:
    events: list[Event] = field(default_factory=list)
    channels: int = 0

    def new_channel(self) -> int:
        self.channels += 1
        return self.channels

    def add(self, speaker: str, transport: str, channel: int, kind: str, source: Address, target: Address,
            data: bytes = b"") -> None:
        self.events.append(Event(time.monotonic(), speaker, transport, channel, kind, source, target, data))

    def note(self, text: str) -> None:
        nowhere = ("", 0)
        self.events.append(Event(time.monotonic(), KIT, "", 0, "note", nowhere, nowhere, text=text))

    def __iter__(self) -> Iterator[Event]:
        return iter(self.events)
