"""Implements a companion: answers a device's broadcast, waits until the device connects, and keeps the link alive.

If the link is lost, the companion waits for the same device. It works on a thread of its own. Any thread may call
its methods. "Becoming the link" and "Staying linked" in docs/link-protocol.md describe the rules.
"""
from __future__ import annotations

import selectors
import socket
import time
from typing import Sequence

from guilink.connection import READY_REQUESTS, Connection
from guilink.discovery import Broadcast, Discovery
from guilink.link import HeardDevice, Link, LinkError, LinkStatus
from guilink.wire import Identity, Message, MessageType

LINK_PORT = 8399        # TCP port to which devices connect
REQUEST_INTERVAL = 0.1  # s between two ConnectRequests before the link exists; a device waits 1 s for one
KEEP_ALIVE = 0.5        # s between keep-alives; after 2 s without one, a device sends no new pictures
LINK_SILENCE = 3.0      # s; if nothing arrives for this long, the companion closes the connection
CANDIDATE_SILENCE = 1.0  # s; if a new connection is silent for this long, the companion accepts another one
GRACE = 1.0             # s; the companion ignores the device's broadcasts for this long after linking
MAX_ANSWERED = 64       # number of answered addresses that are remembered; only these may connect
MAX_ACCEPTS = 16        # number of connections that one call of `_accept` handles; a flood must not delay the link
ASK_EVERY = 5           # number of ConnectRequests per IdentityRequest, before the link exists


class Companion(Link):
    """Implements `guilink.link.Link` with a link that only the calling program uses.

    `device` is the identity or the address of the wanted device; the companion then answers no other device. Without
    `device`, the companion answers a device once no other device has broadcast for long enough.
    """

    def __init__(self, device: str | None = None):
        super().__init__()
        self._device = device
        # Guarded by self._changed.
        self._status = LinkStatus()
        self._linked_to: LinkStatus | None = None  # the most recently linked device, or None
        self._several: tuple[HeardDevice, ...] = ()  # the broadcasting devices, if the caller must choose one
        self._answered: dict[str, Identity] = {}   # the devices that the companion has answered, by address
        # Used only by the companion's thread.
        self._connection: Connection | None = None
        self._next_send = 0.0
        self._next_accept = 0.0

        self._discovery = Discovery()
        try:
            self._listener = socket.create_server(("", LINK_PORT), backlog=64)
        except OSError as error:
            self._discovery.close()
            raise LinkError(f"cannot listen on TCP port {LINK_PORT}: {error.strerror}; "
                            "is another companion or viewer running?") from error
        self._listener.setblocking(False)
        self._wake_receiver, self._wake_sender = socket.socketpair()
        self._wake_receiver.setblocking(False)
        self._wake_sender.setblocking(False)
        self._thread.start()

    # --- called from any thread --------------------------------------------------------------------

    def status(self) -> LinkStatus:
        with self._changed:
            return self._status

    def devices(self) -> list[HeardDevice]:
        with self._changed:
            return self._discovery.devices()

    def _ready(self) -> bool:
        return self._status.linked and bool(self._status.identity)

    def _rivals(self) -> Sequence[HeardDevice]:
        return self._several

    def _why_not(self) -> str:
        wanted = f"device {self._device}" if self._device else "device"
        if self._linked_to:
            return f"no link: {self._linked_to.identity} at {self._linked_to.address} has not come back"
        if self._answered:
            return (f"no link: the {wanted} was answered at {', '.join(self._answered)} and has not "
                    f"connected; is TCP port {LINK_PORT} open in this machine's firewall?")
        if heard := self._discovery.devices():
            if not self._device:
                return f"no link: listening whether other devices than {heard[0]} broadcast"
            return f"no link: there is no {wanted}; heard: {'; '.join(map(str, heard))}"
        return (f"no link: no {wanted} calls; is it on, in this network, without another companion, and is "
                "UDP port 3152 open in this machine's firewall?")

    def _wake(self) -> None:
        try:
            self._wake_sender.send(b"\0")
        except OSError:  # the socket is closed, or full; if it is full, the thread will wake anyway
            pass

    # --- on the companion's thread -----------------------------------------------------------------

    def _run(self) -> None:
        try:
            while not self._failure:
                self._turn()
        finally:
            if self._connection:
                self._drop(self._connection)
            self._discovery.close()
            for each in (self._wake_receiver, self._wake_sender, self._listener):
                each.close()
            with self._changed:
                self._status = LinkStatus()
                self._changed.notify_all()

    def _turn(self) -> None:
        """Waits until data arrives or a message is due. Handles the data, then sends the due messages."""
        connection = self._connection
        with selectors.PollSelector() as selector:
            selector.register(self._wake_receiver, selectors.EVENT_READ)
            selector.register(self._discovery, selectors.EVENT_READ)
            # Do not accept another connection while the current one may still become the link.
            idle = connection is None or connection.ready or self._is_silent(connection)
            if idle and time.monotonic() >= self._next_accept:
                selector.register(self._listener, selectors.EVENT_READ)
            wait = KEEP_ALIVE
            if connection:
                selector.register(connection, selectors.EVENT_READ
                                  | (selectors.EVENT_WRITE if connection.wants_to_write else 0))
                wait = max(0.0, self._next_send - time.monotonic())
            ready = {key.fileobj: mask for key, mask in selector.select(wait)}

        if self._wake_receiver in ready:
            self._wake_receiver.recv(4096)
        if connection and ready.get(connection, 0) & selectors.EVENT_READ:
            for message in connection.receive():
                self._take(connection, message)
        if self._discovery in ready:
            with self._changed:
                for broadcast in self._discovery.receive():
                    self._handle_broadcast(broadcast)
        if self._listener in ready:
            self._accept()
        if self._connection:
            self._send(self._connection)

    def _handle_broadcast(self, broadcast: Broadcast) -> None:
        if not self._wants(broadcast):
            return
        if (link := self._connection) and link.ready and link.address == broadcast.device.address:
            # Right after linking, ignore the device's broadcasts, because an old search may still be running.
            if time.monotonic() < (link.linked_since or 0) + GRACE:
                return
            link.ended = True  # the device searches again, so it has dropped the link
        elif link and link.ready:
            return
        self._answered.pop(broadcast.device.address, None)
        self._answered[broadcast.device.address] = Identity(broadcast.device.identity, broadcast.device.firmware)
        if len(self._answered) > MAX_ANSWERED:
            del self._answered[next(iter(self._answered))]
        self._discovery.answer(broadcast.sender)

    def _wants(self, broadcast: Broadcast) -> bool:
        names = {broadcast.device.identity, broadcast.device.address}
        if self._linked_to and names & {self._linked_to.identity, self._linked_to.address}:
            return True  # the most recently linked device; its identity or its address may have changed
        if self._device or self._linked_to:
            return self._device in names
        self._several = (broadcast.device, *broadcast.rivals) if broadcast.rivals else ()
        if self._several:
            self._changed.notify_all()
        return broadcast.alone

    def _accept(self) -> None:
        """Accepts one connection from an answered device. Closes connections from other hosts. While there is a link,
        closes every new connection."""
        for _ in range(MAX_ACCEPTS):
            try:
                connected, (address, _) = self._listener.accept()
            except BlockingIOError:
                return
            except OSError:  # no file descriptor is free; wait instead of spinning
                self._next_accept = time.monotonic() + KEEP_ALIVE
                return
            link = self._connection
            if address not in self._answered or (link and link.ready and not link.ended):
                connected.close()
                continue
            if link:
                self._drop(link)
            self._connection = Connection(connected, address, self._answered[address])
            self._next_send = 0.0
            return

    @staticmethod
    def _is_silent(connection: Connection) -> bool:
        return time.monotonic() > connection.received_at + CANDIDATE_SILENCE

    def _take(self, connection: Connection, message: Message) -> None:
        connection.note(message)
        if connection.ready and connection.linked_since is None:
            connection.linked_since = time.monotonic()
            self._report(connection)
        if message.type == MessageType.IMAGE:
            self.pictures.add(message.payload)
        elif message.type == MessageType.IDENTITY:
            if connection.ready:
                self._report(connection)
            self._confirm(connection)

    def _report(self, connection: Connection) -> None:
        with self._changed:
            self._status = LinkStatus(True, connection.address, *connection.identity)
            self._linked_to, self._several = self._status, ()
            self._changed.notify_all()

    def _confirm(self, connection: Connection) -> None:
        with self._changed:
            for order in self._orders:
                if order.request and order.request <= connection.answered and not order.done:
                    self._finish(order)
            self._changed.notify_all()

    def _send(self, connection: Connection) -> None:
        if connection.ready:
            self._send_orders(connection)
        now = time.monotonic()
        if now > connection.received_at + LINK_SILENCE:
            connection.ended = True
        if connection.wants_to_write:
            connection.flush()
        if now >= self._next_send and not connection.ended:
            self._send_what_is_due(connection, now)
        if connection.ended:
            self._drop(connection)

    def _send_what_is_due(self, connection: Connection, now: float) -> None:
        if not connection.image_seen:
            connection.send(MessageType.CONNECT_REQUEST)
        connection.send(MessageType.CONTROL)
        with self._changed:
            unconfirmed = any(order.request and not order.done for order in self._orders)
        quiet = now > connection.received_at + KEEP_ALIVE
        due = connection.requests % ASK_EVERY == READY_REQUESTS
        if (quiet or unconfirmed) if connection.ready else due:
            connection.send(MessageType.IDENTITY_REQUEST)
        self._next_send = now + (KEEP_ALIVE if connection.ready else REQUEST_INTERVAL)

    def _send_orders(self, connection: Connection) -> None:
        """Sends each unsent order, and an IdentityRequest after it. The answer will confirm the order."""
        with self._changed:
            for order in self._orders:
                if connection.ended or connection.wants_to_write:
                    return
                if not order.request:
                    connection.send(order.kind, order.payload)
                    connection.send(MessageType.IDENTITY_REQUEST)
                    order.request = connection.asked

    def _drop(self, connection: Connection) -> None:
        connection.close()
        self._connection = None
        with self._changed:
            self._status = LinkStatus()
            self._lose("the link")
