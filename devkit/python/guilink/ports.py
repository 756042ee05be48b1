"""The ports on which devices find and reach the companions of this process, and the thread that serves them all.

Decides which companion answers a device, and passes the device's connections to that companion.
"""
from __future__ import annotations

import math
import os
import selectors
import socket
import threading
import time
from contextlib import ExitStack, closing, suppress
from typing import NamedTuple, Protocol, Sequence

from guilink.connection import Connection
from guilink.discovery import MAX_HEARD, Broadcast, Discovery
from guilink.link import HeardDevice, PortsTakenError

LINK_PORT = 8399    # TCP port to which devices connect
ACCEPT_RETRY = 0.5  # s; wait when no file descriptor is free


class Wish(NamedTuple):
    """Which device a companion wants."""

    device: str = ""         # identity or address of the chosen device; empty: any
    last_identity: str = ""  # of the device that was linked last
    last_address: str = ""
    link: str = ""           # the address of the linked device; the companion then wants no other
    last_heard: float = 0.0  # when the last link still worked

    def claim(self, device: HeardDevice, since: float = math.inf) -> int:
        """Returns how good the claim to this device is; 0 means none. `since` is when the device began to search.

        A device that changes its identity into another's stays with its companion. A device that gets the address of
        another one goes to the companion that names it, once the link from this address has ended."""
        address, identity = self.last_address == device.address, self.last_identity == device.identity
        if address and identity:
            return 4
        if self.device == device.address:
            return 3
        if identity and since <= self.last_heard:
            return 0  # another device with this identity, because it has searched while the link still worked
        return 3 if self.device == device.identity else 2 if identity else 1 if address else 0


class Member(Protocol):
    """A companion. The thread of the ports calls these methods, one at a time, so they must return at once. The first
    call may come before `Ports.join` has returned."""

    wish: Wish
    connection: Connection | None

    def on_broadcast(self, broadcast: Broadcast) -> bool:
        """Returns whether to answer the device, which then connects."""

    def on_connection(self, connected: socket.socket, address: str) -> None: ...
    def on_failure(self, error: Exception) -> None: ...

    def on_several(self, devices: tuple[HeardDevice, ...]) -> None:
        """These devices search that no companion of this process claims, if there are several."""

    def work(self, readable: bool) -> None:
        """Reads from the connection if it is `readable`. Sends what is due."""

    def due(self) -> float:
        """When to call `work` at the latest, as a value of time.monotonic()."""


class Ports:
    """Use it through `join` and `leave`."""

    _shared: Ports | None = None
    _sharing = threading.Lock()  # guards _shared

    @classmethod
    def join(cls, member: Member) -> Ports:
        """Returns the ports of this process, and opens them for the first member. Raises PortsTakenError if another
        process has taken one."""
        with cls._sharing:
            ports = cls._shared = cls._shared or cls()
            with ports._lock:
                ports._members.append(member)
                if ports._failure:
                    member.on_failure(ports._failure)
            if not ports._thread.ident:
                ports._thread.start()
            ports.wake()
            return ports

    @classmethod
    def _forget(cls) -> None:
        """In a forked process, there is no thread that serves the ports."""
        cls._shared, cls._sharing = None, threading.Lock()

    def leave(self, member: Member) -> None:
        """Calls no method of this member any more. Closes the ports after the last member."""
        with self._sharing:
            with self._lock:
                if member not in self._members:
                    return
                self._members.remove(member)
            if not self._members:
                Ports._shared = None
                self.wake()
                self._thread.join()
                self._opened.close()

    def __init__(self) -> None:
        self._lock = threading.Lock()  # guards _members and _failure; the thread holds it except while it waits
        self._members: list[Member] = []
        self._failure: Exception | None = None
        self._devices: list[HeardDevice] = []  # replaced as a whole
        # Used only by the thread.
        self._next_accept = 0.0
        self._owners: dict[str, Member] = {}  # who got the last broadcast from this address; the oldest comes first
        self._thread = threading.Thread(target=self._work, name="guilink", daemon=True)
        with ExitStack() as opened:
            self._discovery = opened.enter_context(closing(Discovery()))
            try:
                self._listener = socket.create_server(("", LINK_PORT), backlog=64)
            except OSError as error:
                raise PortsTakenError(f"TCP port {LINK_PORT}", error) from error
            self._wake_receiver, self._wake_sender = socket.socketpair()
            for each in (self._listener, self._wake_receiver, self._wake_sender):
                opened.enter_context(each).setblocking(False)
            self._opened = opened.pop_all()

    def devices(self) -> list[HeardDevice]:
        return self._devices

    def wake(self) -> None:
        """Makes the thread call `work`. Called from any thread."""
        with suppress(OSError):  # it is closed, or full; if it is full, the thread will wake anyway
            self._wake_sender.send(b"\0")

    def _work(self) -> None:
        try:
            while self._members:
                with selectors.PollSelector() as selector:
                    with self._lock:
                        wait = self._register(selector)
                    ready = [key.fileobj for key, mask in selector.select(wait) if mask & selectors.EVENT_READ]
                with self._lock:
                    self._serve(ready)
        except Exception as error:  # a bug in this package
            with self._lock:
                self._failure = error
                for member in self._members:
                    member.on_failure(error)

    def _register(self, selector: selectors.PollSelector) -> float | None:
        """Registers what the thread waits for. Returns how long it may wait at most."""
        now, dues = time.monotonic(), [member.due() for member in self._members]
        if self._next_accept > now:
            dues.append(self._next_accept)
        else:
            selector.register(self._listener, selectors.EVENT_READ)
        selector.register(self._wake_receiver, selectors.EVENT_READ)
        selector.register(self._discovery, selectors.EVENT_READ)
        for connection in filter(None, (member.connection for member in self._members)):
            writes = selectors.EVENT_WRITE if connection.wants_to_write else 0
            selector.register(connection, selectors.EVENT_READ | writes)
        wait = min(dues, default=math.inf) - now
        return None if wait == math.inf else max(0.0, wait)

    def _serve(self, ready: Sequence[object]) -> None:
        if self._wake_receiver in ready:
            self._wake_receiver.recv(4096)
        self._owners = {address: owner for address, owner in self._owners.items() if owner in self._members}
        if self._discovery in ready:
            broadcasts = self._discovery.receive()
            self._devices = self._discovery.devices()
            for broadcast in broadcasts:
                self._pass_on(broadcast, self._members)
        if self._listener in ready:
            self._accept()
        for member in self._members:
            member.work(member.connection in ready)

    def _pass_on(self, broadcast: Broadcast, members: list[Member]) -> None:
        device = broadcast.device
        claimants = [member for member in members if _claims(member, device, broadcast.since)]
        owner: Member | None
        if linked := [member for member in claimants if member.wish.link == device.address]:
            owner = linked[0]  # the device searches again, so it has dropped this link
        elif claimants:
            free = [member for member in claimants if not member.wish.link]
            owner = max(free, key=lambda member: member.wish.claim(device, broadcast.since)) if free else None
        else:
            owner = self._any(broadcast, members)
        if owner:
            self._owners.pop(device.address, None)
            self._owners[device.address] = owner
            if len(self._owners) > MAX_HEARD:
                del self._owners[next(iter(self._owners))]
            if owner.on_broadcast(broadcast):
                self._discovery.answer(broadcast.sender)

    @staticmethod
    def _any(broadcast: Broadcast, members: list[Member]) -> Member | None:
        """Returns the companion that takes any device, if this device is the only one for it."""
        waiting = [member for member in members if member.wish == Wish()]
        if not waiting:
            return None
        rivals = [device for device in broadcast.rivals if not any(_claims(member, device) for member in members)]
        for member in waiting:
            member.on_several((broadcast.device, *rivals) if rivals else ())
        return waiting[0] if broadcast.settled and not rivals else None

    def _accept(self) -> None:
        try:
            connected, (address, _) = self._listener.accept()
        except BlockingIOError:
            return
        except OSError:  # no file descriptor is free; wait instead of spinning
            self._next_accept = time.monotonic() + ACCEPT_RETRY
            return
        if owner := self._owners.get(address):
            owner.on_connection(connected, address)
        else:
            connected.close()


def _claims(member: Member, device: HeardDevice, since: float = math.inf) -> bool:
    return member.wish.link == device.address or member.wish.claim(device, since) > 0


os.register_at_fork(after_in_child=Ports._forget)
