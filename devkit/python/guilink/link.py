"""The interface of every link to a device, and the errors that its methods raise."""
from __future__ import annotations

import threading
import time
from collections import deque
from dataclasses import dataclass, field
from typing import Callable, NamedTuple, Protocol

HISTORY = 5.0              # s; pictures are kept for this long, because a failed wait saves them
HISTORY_BYTES = 64 << 20   # bytes; limit for all kept payloads together


class GuilinkError(Exception):
    """Base class of the errors that this package defines."""


class LinkError(GuilinkError):
    """There is no device, or no link to it."""


class SeveralDevicesError(LinkError):
    """Several devices are in sight and none was chosen."""


@dataclass(frozen=True)
class HeardDevice:
    """A device whose broadcast was received."""

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
    """A received picture, still encoded. The numbers are consecutive, even after a reconnection."""

    number: int
    time: float  # time.monotonic() of its arrival
    payload: bytes


Listener = Callable[[Picture], None]  # is called on the link's thread, so it must neither block nor raise


class Link(Protocol):
    """A link to a device. Any thread may call the methods. `deadline` is a value of time.monotonic().

    Two classes implement this interface: Companion has a link of its own, and Viewer uses the link of a running viewer.
    """

    pictures: Pictures

    def status(self) -> LinkStatus: ...

    def devices(self) -> list[HeardDevice]:
        """Returns all devices that have broadcast. The device with the newest broadcast comes first."""

    def wait_linked(self, deadline: float) -> LinkStatus:
        """Waits until the device accepts button presses. At the deadline, raises LinkError with the reason."""

    def press(self, button: int, deadline: float) -> int:
        """Waits for a link, presses a button, and waits until the device confirms the press. Returns the number of the
        newest picture at the time of the confirmation. Raises LinkError."""

    def send_text(self, text: bytes, deadline: float) -> int:
        """Sends a line for the device's log. Waits, returns and raises like `press`."""

    def close(self) -> None: ...


@dataclass
class Pictures:
    """Keeps the pictures of the last HISTORY seconds, and lets a thread wait for a newer picture."""

    condition: threading.Condition  # the link's condition; it guards all members, and each new picture notifies it
    failure: Callable[[], Exception | None] = lambda: None  # returns why no more pictures will come, or None
    _recent: deque[Picture] = field(default_factory=deque)
    _bytes: int = 0
    _number: int = 0
    _ended: int = 0
    _listeners: list[Listener] = field(default_factory=list)

    @property
    def number(self) -> int:
        """The number of the newest picture, or 0 if no picture has arrived."""
        return self._number

    @property
    def ended(self) -> int:
        """The number of the newest picture when a link last ended. Pictures up to this number may be out of date."""
        return self._ended

    def link_ended(self) -> None:
        with self.condition:
            self._ended = self._number

    def add(self, payload: bytes) -> None:
        with self.condition:
            if self._recent and self._recent[-1].payload == payload:
                # Share the bytes, so that an equal picture needs no memory and no decoding.
                payload = self._recent[-1].payload
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
        """Waits for a picture of the present link with a number above `than`. Returns the newest one, or None at the
        deadline."""
        with self.condition:
            while self._number <= max(than, self._ended):
                if failure := self.failure():
                    raise failure
                if not self.condition.wait(max(0.0, deadline - time.monotonic())):
                    return None
            return self._recent[-1]

    def recent(self) -> list[Picture]:
        """Returns the pictures of the last HISTORY seconds, oldest first."""
        with self.condition:
            return list(self._recent)

    def listen(self, listener: Listener) -> None:
        with self.condition:
            self._listeners.append(listener)

    def unlisten(self, listener: Listener) -> None:
        with self.condition:
            self._listeners.remove(listener)
