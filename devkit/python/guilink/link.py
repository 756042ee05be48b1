"""What every link to a device has in common, and the errors that its methods raise."""
from __future__ import annotations

import threading
import time
from abc import ABC, abstractmethod
from collections import deque
from dataclasses import dataclass, field
from typing import Callable, NamedTuple, Sequence


HISTORY = 5.0              # s; pictures are kept for this long, because a failed wait saves them
HISTORY_BYTES = 64 << 20   # bytes; limit for all kept payloads together


Progress = Callable[[str], None]  # receives a line about what is being done


class GuilinkError(Exception):
    """Base class of the errors that this package defines."""


class LinkError(GuilinkError):
    """There is no device, or no link to it."""


class SeveralDevicesError(LinkError):
    """Several devices are in sight and none was chosen."""


class PortsTakenError(LinkError):
    """Another companion on this computer has its ports."""

    def __init__(self, port: str, error: OSError):
        super().__init__(f"cannot listen on {port}: {error.strerror}; is another companion or viewer running? "
                         "To share a viewer's link, pass the URL that it prints (viewer=, --viewer).")


class AccessError(LinkError):
    """The viewer does not let this program in, and waiting will not change that."""


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
    """Whether there is a link, and to which device."""

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


@dataclass(eq=False)
class Order:
    """A press, a text or a question for the device, or a lock, which only a viewer can grant."""

    name: str             # "press", "text" or "hold", as in the viewer's messages, or "ask"
    value: int | str      # the number of the button, the text, or the lock's seconds
    request: int = 0      # number of the request whose answer will confirm this order; 0 until the order is sent
    number: int = 0       # number of the newest picture at the time of the confirmation
    done: bool = False
    why_not: str = ""     # why the device may not have handled it


class Link(ABC):
    """A link to a device. Any thread may call the public methods. `deadline` is a value of time.monotonic().

    Two classes extend this one: Companion has a link of its own, and Viewer uses the link of a running viewer. Each of
    them works on a thread.
    """

    def __init__(self) -> None:
        self._changed = threading.Condition()  # guards all members that both the thread and its callers use
        self.pictures = Pictures(self._changed, lambda: self._failure)
        self._failure: Exception | None = None  # why the link is of no more use
        self._orders: list[Order] = []

    @abstractmethod
    def status(self) -> LinkStatus:
        """Returns whether there is a link, and to which device."""

    @abstractmethod
    def devices(self) -> list[HeardDevice]:
        """Returns all devices that have broadcast. The device with the newest broadcast comes first."""

    def wait_linked(self, deadline: float) -> LinkStatus:
        """Waits until the device accepts presses. At the deadline, raises LinkError with the reason."""
        with self._changed:
            while not self._ready():
                self._raise_failure()
                if rivals := self._rivals():
                    raise SeveralDevicesError("several devices are in sight: " + "; ".join(map(str, rivals))
                                              + "; choose one by its identity or address")
                self._wait(deadline)
            return self.status()

    def press(self, button: int, deadline: float) -> int:
        """Waits for a link, presses a button, and waits until the press is confirmed. Returns the number of the newest
        picture at that time. Raises LinkError."""
        return self._deliver(Order("press", button), deadline)

    def send_text(self, text: str, deadline: float) -> int:
        """Sends a line for the device's log. Waits, returns and raises like `press`."""
        return self._deliver(Order("text", text), deadline)

    def lock(self, seconds: float, deadline: float) -> None:
        """For this long, or until the link is closed, refuses the orders of all others who share it; 0 ends this.
        Raises LinkError if another has a lock. On a link that nobody shares, does nothing."""

    def close(self) -> None:
        """Ends the link."""
        with self._changed:
            self._failure = self._failure or LinkError("the link was closed")
            self._changed.notify_all()

    @abstractmethod
    def _wake(self) -> None:
        """Makes the thread look at `_orders` and `_failure`. Called from any thread."""

    @abstractmethod
    def _ready(self) -> bool:
        """Whether the wanted device accepts presses, and is known by its identity."""

    @abstractmethod
    def _rivals(self) -> Sequence[HeardDevice]:
        """The devices between which the caller must choose, if any."""

    @abstractmethod
    def _why_not(self) -> str:
        """Why there is no link."""

    def _deliver(self, order: Order, deadline: float) -> int:
        with self._changed:
            self._raise_failure()
            self._orders.append(order)
            self._wake()
            try:
                while not order.done:
                    self._wait(deadline, order)
                    self._raise_failure()
            finally:
                self._orders.remove(order)
            if order.why_not:
                raise LinkError(order.why_not)
            return order.number

    def _wait(self, deadline: float, order: Order | None = None) -> None:
        if not self._changed.wait(max(0.0, deadline - time.monotonic())):
            raise LinkError("the device has not confirmed it" if order and order.request else self._why_not())

    def _finish(self, order: Order, why_not: str = "") -> None:
        order.done, order.number, order.why_not = True, self.pictures.number, why_not

    def _lose(self, what: str) -> None:
        """Notes that the link has ended. Each order that was sent but not confirmed is lost."""
        for order in self._orders:
            if order.request and not order.done:
                self._finish(order, f"{what} ended before the device confirmed it, so it may or may not have arrived")
        self.pictures.link_ended()
        self._changed.notify_all()

    def _raise_failure(self) -> None:
        if self._failure:
            raise self._failure

    def _fail(self, error: Exception) -> None:
        """Ends the link because of a bug in this package. The waiting threads raise this error."""
        with self._changed:
            self._failure = GuilinkError(f"the link's thread failed: {error!r}")
            self._failure.__cause__ = error
            self._changed.notify_all()


@dataclass
class Pictures:
    """Keeps the pictures of the last HISTORY seconds, and lets a thread wait for a newer picture."""

    condition: threading.Condition  # the link's condition; it guards all members, and each new picture notifies it
    failure: Callable[[], Exception | None] = lambda: None  # returns why no more pictures will come, or None
    number: int = 0  # of the newest picture; 0 if none has arrived
    ended: int = 0   # number of the newest picture when a link last ended; pictures up to it may be out of date
    returned_at: float = 0.0  # time.monotonic() of the first picture after a lost link; 0 if no link was lost
    _recent: deque[Picture] = field(default_factory=deque)
    _bytes: int = 0
    _changed_at: float = 0.0
    _listeners: list[Listener] = field(default_factory=list)

    @property
    def unchanged(self) -> float:
        """For how many seconds all pictures have been equal; 0 if none has arrived."""
        return time.monotonic() - self._changed_at if self.number else 0.0

    def link_ended(self) -> None:
        with self.condition:
            self.ended = self.number

    def add(self, payload: bytes) -> None:
        with self.condition:
            if self._recent and self._recent[-1].payload == payload:
                # Share the bytes, so that an equal picture needs no memory and no decoding.
                payload = self._recent[-1].payload
            else:
                self._bytes += len(payload)
                self._changed_at = time.monotonic()
            if self.number == self.ended > 0:
                self.returned_at = time.monotonic()
            self.number += 1
            picture = Picture(self.number, time.monotonic(), payload)
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
            while self.number <= max(than, self.ended):
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
