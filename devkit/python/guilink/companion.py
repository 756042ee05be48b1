"""Implements a companion: answers a device's broadcast, waits until the device connects, and keeps the link alive.

If the link is lost, the companion waits for the same device. It works on the thread of the ports. Any thread may call
its methods. "Becoming the link" and "Staying linked" in docs/link-protocol.md describe the rules.
"""
from __future__ import annotations

import math
import socket
import time
from collections import deque
from typing import Sequence

from guilink.connection import READY_REQUESTS, Connection
from guilink.discovery import Broadcast
from guilink.link import HeardDevice, Link, LinkStatus, Order
from guilink.ports import LINK_PORT, Ports, Wish
from guilink.wire import Identity, Message, MessageType

REQUEST_INTERVAL = 0.1  # s between two ConnectRequests before the link exists; a device waits 1 s for one
KEEP_ALIVE = 0.5        # s between keep-alives; after 2 s without one, a device sends no new pictures
LINK_SILENCE = 3.0      # s; if nothing arrives for this long, the companion closes the connection
CANDIDATE_SILENCE = 1.0  # s; if a new connection is silent for this long, the companion accepts another one
GRACE = 1.0             # s; the companion ignores the device's broadcasts for this long after linking
SURE_AFTER = 6.0        # s; a device with two addresses searches from both until it is linked, and not for longer
MAX_ANSWERED = 64       # number of answered addresses that are remembered; only these may connect
MAX_WAITING = 16        # number of connections that wait for the companion's thread
ASK_EVERY = 5           # number of ConnectRequests per IdentityRequest, before the link exists


class Companion(Link):
    """Implements `guilink.link.Link` with a link that only the calling program uses.

    `device` is the identity or the address of the wanted device; the companion then answers no other device. Without
    `device`, the companion answers a device once no other device has broadcast for long enough.

    A process may have many companions, one for each device. They share the ports of the computer. A companion leaves
    alone the devices that the other companions have chosen.
    """

    def __init__(self, device: str | None = None):
        super().__init__()
        self._device = device
        # Guarded by self._changed.
        self._status = LinkStatus()
        self._linked_to: LinkStatus | None = None  # the most recently linked device, or None
        self._several: tuple[HeardDevice, ...] = ()  # the broadcasting devices, if the caller must choose one
        self._answered: dict[str, Identity] = {}   # the devices that the companion has answered, by address
        # Used only by the thread of the ports, or after it has let go of this companion.
        self.wish = Wish(device or "")
        self.connection: Connection | None = None
        self._waiting: deque[tuple[socket.socket, str]] = deque()  # further connections
        self._next_send = 0.0
        self._ports = Ports.join(self)

    # --- called from any thread --------------------------------------------------------------------

    def status(self) -> LinkStatus:
        with self._changed:
            return self._status

    def devices(self) -> list[HeardDevice]:
        return self._ports.devices()

    @property
    def connected(self) -> bool:
        """Whether the device has connected, even if nothing shows yet that this connection is the link."""
        return self.connection is not None

    def ask(self, deadline: float) -> None:
        """Waits until the device has handled everything that was sent before. Raises like `press`."""
        self._deliver(Order("ask", ""), deadline)

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
        if heard := self._ports.devices():
            if not self._device:
                return f"no link: listening whether other devices than {heard[0]} broadcast"
            return f"no link: there is no {wanted}; heard: {'; '.join(map(str, heard))}"
        return (f"no link: no {wanted} calls; is it on, in this network, without another companion, and is "
                "UDP port 3152 open in this machine's firewall?")

    def _wake(self) -> None:
        self._ports.wake()

    def close(self) -> None:
        super().close()
        self._ports.leave(self)
        self._close_connections()

    # --- on the thread of the ports -----------------------------------------------------------------

    def on_several(self, devices: tuple[HeardDevice, ...]) -> None:
        with self._changed:
            if self.wish == Wish():
                self._several = devices
                self._changed.notify_all()

    def on_connection(self, connected: socket.socket, address: str) -> None:
        if len(self._waiting) == MAX_WAITING:
            return connected.close()
        self._waiting.append((connected, address))

    def on_failure(self, error: Exception) -> None:
        self._fail(error)
        self._close_connections()

    def work(self, readable: bool) -> None:
        if self.connection and readable:
            for message in self.connection.receive():
                self._take(self.connection, message)
        # Do not take another connection while the current one may still become the link.
        if self.connection is None or self.connection.ready or self._is_silent(self.connection):
            self._take_connection()
        if self.connection:
            self._send(self.connection)

    def due(self) -> float:
        return self._next_send if self.connection else 0.0 if self._waiting else math.inf

    def _close_connections(self) -> None:
        if self.connection:
            self._drop(self.connection)
        while self._waiting:
            self._waiting.pop()[0].close()

    def on_broadcast(self, broadcast: Broadcast) -> bool:
        if (link := self.connection) and link.ready and link.address == broadcast.device.address:
            # Right after linking, ignore the device's broadcasts, because an old search may still be running.
            if time.monotonic() < (link.linked_since or 0) + GRACE:
                return False
            link.ended = True  # the device searches again, so it has dropped the link
        elif link and link.ready:
            return False
        with self._changed:
            self._answered.pop(broadcast.device.address, None)
            self._answered[broadcast.device.address] = Identity(broadcast.device.identity, broadcast.device.firmware)
            if len(self._answered) > MAX_ANSWERED:
                del self._answered[next(iter(self._answered))]
        return True

    def _take_connection(self) -> None:
        """Takes one connection from an answered device. While there is a link, closes every new connection."""
        while self._waiting:
            connected, address = self._waiting.popleft()
            link = self.connection
            if address not in self._answered or (link and link.ready and not link.ended):
                connected.close()
                continue
            if link:
                self._drop(link)
            self.connection = Connection(connected, address, self._answered[address])
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
            self.wish = Wish(self._device or "", connection.identity.id, connection.address, connection.address)
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
                    if isinstance(order.value, int):
                        connection.send(MessageType.BUTTON, bytes([order.value]))
                    elif order.name == "text":
                        connection.send(MessageType.DATA, order.value.encode())
                    connection.send(MessageType.IDENTITY_REQUEST)
                    order.request = connection.asked

    def _drop(self, connection: Connection) -> None:
        connection.close()
        self.connection = None
        with self._changed:
            self._status = LinkStatus()
            lasted = connection.received_at - (connection.linked_since or math.inf)
            self.wish = self.wish._replace(link="", last_heard=connection.received_at if lasted > SURE_AFTER else 0.0)
            self._lose("the link")
