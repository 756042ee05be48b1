"""What every way to a device offers to the layers above, and the errors that they can meet."""
from __future__ import annotations

import threading
import time
from collections import deque
from dataclasses import dataclass, field
from typing import Callable, NamedTuple, Protocol

HISTORY = 5.0              # s of pictures that are kept, to show what came before a failure
HISTORY_BYTES = 64 << 20   # of payload that they may hold; 1 MiB each is the most, 30 kB is common


class GuilinkError(Exception):
    """Anything that goes wrong between a script and its device."""


class LinkError(GuilinkError):
    """No device, or no link to it."""


class SeveralDevices(LinkError):
    """Several devices are in sight and none was chosen."""


@dataclass(frozen=True)
class HeardDevice:
    """A device that broadcasts, because it has no companion."""

    identity: str
    firmware: str
    address: str
    heard: float  # time.monotonic() of its last broadcast

    def __str__(self) -> str:
        return f"{self.identity} ({self.firmware}) at {self.address}"


@dataclass(frozen=True)
class LinkStatus:
    linked: bool = False
    address: str = ""
    identity: str = ""
    firmware: str = ""


class Picture(NamedTuple):
    """A picture as it came: encoded. Numbers count all pictures of a link's life, reconnects included."""

    number: int
    time: float  # time.monotonic() of its arrival
    payload: bytes


Listener = Callable[[Picture], None]  # runs on the link's thread: must not block, nor throw


class Link(Protocol):
    """A way to a device. Any thread may call; `deadline` is a time.monotonic().

    Device and everything above know no more than this, so that a companion of one's own and a share in
    another's link can take each other's place.
    """

    pictures: Pictures

    def status(self) -> LinkStatus: ...

    def devices(self) -> list[HeardDevice]:
        """All that were heard, the last one first."""

    def wait_linked(self, deadline: float) -> LinkStatus:
        """Returns once buttons reach the device. Throws LinkError, which says why not."""

    def press(self, button: int, deadline: float) -> int:
        """Presses, and returns once the device has handed the press on: the number of the last picture
        that came before. If the link is away, waits for it. Throws LinkError."""

    def send_text(self, text: bytes, deadline: float) -> int:
        """Sends a line for the device's log; as press."""

    def close(self) -> None: ...


@dataclass
class Pictures:
    """The pictures of a link: the newest for those who wait, the last seconds for those who ask why."""

    condition: threading.Condition  # the link's; guards all below, and is notified by each picture
    failure: Callable[[], Exception | None] = lambda: None  # why no more will come
    _recent: deque[Picture] = field(default_factory=deque)
    _bytes: int = 0
    _number: int = 0
    _listeners: list[Listener] = field(default_factory=list)

    @property
    def number(self) -> int:
        """Of the last one; 0 before the first."""
        return self._number

    def add(self, payload: bytes) -> None:
        with self.condition:
            if self._recent and self._recent[-1].payload == payload:
                payload = self._recent[-1].payload  # a repeat costs no memory, and no decoding
            else:
                self._bytes += len(payload)
            self._number += 1
            picture = Picture(self._number, time.monotonic(), payload)
            self._recent.append(picture)
            while len(self._recent) > 1 and (self._recent[0].time < picture.time - HISTORY
                                             or self._bytes > HISTORY_BYTES):
                oldest = self._recent.popleft().payload
                if oldest is not self._recent[0].payload:
                    self._bytes -= len(oldest)
            listeners = list(self._listeners)
            self.condition.notify_all()
        for listener in listeners:
            listener(picture)

    def newer(self, than: int, deadline: float) -> Picture | None:
        """Waits for a picture with a number above `than`; returns the newest, None at the deadline."""
        with self.condition:
            while self._number <= than:
                if failure := self.failure():
                    raise failure
                if not self.condition.wait(max(0.0, deadline - time.monotonic())):
                    return None
            return self._recent[-1]

    def recent(self) -> list[Picture]:
        """Those of the last seconds, oldest first."""
        with self.condition:
            return list(self._recent)

    def listen(self, listener: Listener) -> None:
        with self.condition:
            self._listeners.append(listener)

    def unlisten(self, listener: Listener) -> None:
        with self.condition:
            self._listeners.remove(listener)
