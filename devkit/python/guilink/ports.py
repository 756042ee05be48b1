"""The ports on which devices find and reach the companions of this process.

Decides which companion answers a device, and passes the device's connections to that companion.
"""
from __future__ import annotations

import os
import selectors
import socket
import threading
import time
from contextlib import ExitStack, closing
from typing import NamedTuple, Protocol

from guilink.discovery import MAX_HEARD, Broadcast, Discovery, Sender
from guilink.link import HeardDevice, PortsTakenError

LINK_PORT = 8399    # TCP port to which devices connect
ACCEPT_RETRY = 0.5  # s; wait when no file descriptor is free


class Wish(NamedTuple):
    """Which device a companion wants."""

    device: str = ""         # identity or address of the chosen device; empty: any
    last_identity: str = ""  # of the device that was linked last
    last_address: str = ""
    link: str = ""           # the address of the linked device; the companion then wants no other

    def claim(self, device: HeardDevice) -> int:
        """Returns how good the claim to this device is; 0 means that there is none.

        A device that changes its identity into another's stays with its companion. A device that gets the address of
        another one goes to the companion that names it, once the link from this address has ended."""
        address, identity = self.last_address == device.address, self.last_identity == device.identity
        if address and identity:
            return 4
        return 3 if self.device in (device.address, device.identity) else 2 if identity else 1 if address else 0


class Member(Protocol):
    """A companion. The thread of the ports calls these methods for all companions, so they must return at once."""

    wish: Wish

    def on_broadcast(self, broadcast: Broadcast) -> None:
        """A device broadcasts that this companion shall answer, if it wants to."""

    def on_several(self, devices: tuple[HeardDevice, ...]) -> None:
        """These devices search that no companion of this process claims, if there are several."""

    def on_connection(self, connected: socket.socket, address: str) -> None:
        """A device has connected whose broadcast this companion got. Must take no lock."""

    def on_failure(self, error: Exception) -> None:
        """The ports are of no more use."""


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
                failure = ports._failure
            if failure:
                member.on_failure(failure)
            return ports

    @classmethod
    def _forget(cls) -> None:
        """In a forked process, there is no thread that serves the ports."""
        cls._shared, cls._sharing = None, threading.Lock()

    def leave(self, member: Member) -> None:
        """Closes the ports after the last member."""
        with self._sharing:
            with self._lock:
                self._members.remove(member)
                if self._members:
                    return
            Ports._shared = None
            self._wake_sender.send(b"\0")
            self._thread.join()
            self._opened.close()

    def __init__(self) -> None:
        self._lock = threading.Lock()  # guards _members, _failure, and what _discovery remembers
        self._members: list[Member] = []
        self._failure: Exception | None = None
        # Used only by the thread of the ports.
        self._next_accept = 0.0
        self._owners: dict[str, Member] = {}  # who got the last broadcast from this address; the oldest comes first
        with ExitStack() as opened:
            self._discovery = opened.enter_context(closing(Discovery()))
            try:
                self._listener = opened.enter_context(socket.create_server(("", LINK_PORT), backlog=64))
            except OSError as error:
                raise PortsTakenError(f"TCP port {LINK_PORT}", error) from error
            self._listener.setblocking(False)
            self._wake_receiver, self._wake_sender = socket.socketpair()
            opened.enter_context(self._wake_receiver)
            opened.enter_context(self._wake_sender)
            self._thread = threading.Thread(target=self._work, name="guilink-ports", daemon=True)
            self._thread.start()
            self._opened = opened.pop_all()

    def devices(self) -> list[HeardDevice]:
        """Returns the devices that have broadcast. The device with the newest broadcast comes first."""
        with self._lock:
            return self._discovery.devices()

    def answer(self, sender: Sender) -> None:
        """Asks the device to connect."""
        self._discovery.answer(sender)

    def _work(self) -> None:
        try:
            while True:
                with selectors.PollSelector() as selector:
                    selector.register(self._wake_receiver, selectors.EVENT_READ)
                    selector.register(self._discovery, selectors.EVENT_READ)
                    pause = self._next_accept - time.monotonic()
                    if pause <= 0:
                        selector.register(self._listener, selectors.EVENT_READ)
                    ready = {key.fileobj for key, _ in selector.select(pause if pause > 0 else None)}
                if self._wake_receiver in ready:
                    return
                with self._lock:
                    members = list(self._members)
                    broadcasts = self._discovery.receive() if self._discovery in ready else []
                self._owners = {address: owner for address, owner in self._owners.items() if owner in members}
                for broadcast in broadcasts:
                    self._pass_on(broadcast, members)
                if self._listener in ready:
                    self._accept()
        except Exception as error:  # a bug in this package
            with self._lock:
                self._failure, members = error, list(self._members)
            for member in members:
                member.on_failure(error)

    def _pass_on(self, broadcast: Broadcast, members: list[Member]) -> None:
        device = broadcast.device
        claimants = [member for member in members if _claims(member, device)]
        owner: Member | None
        if linked := [member for member in claimants if member.wish.link == device.address]:
            owner = linked[0]  # the device searches again, so it has dropped this link
        elif claimants:
            free = [member for member in claimants if not member.wish.link]
            owner = max(free, key=lambda member: member.wish.claim(device)) if free else None
        else:
            owner = self._any(broadcast, members)
        if owner:
            self._owners.pop(device.address, None)
            self._owners[device.address] = owner
            if len(self._owners) > MAX_HEARD:
                del self._owners[next(iter(self._owners))]
            owner.on_broadcast(broadcast)

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
        owner = self._owners.get(address)
        with self._lock:  # a member that has left takes no connection
            if owner and owner in self._members:
                owner.on_connection(connected, address)
            else:
                connected.close()


def _claims(member: Member, device: HeardDevice) -> bool:
    return member.wish.link == device.address or member.wish.claim(device) > 0


os.register_at_fork(after_in_child=Ports._forget)
