"""Finds the devices that search for a companion, and asks a device to connect.

See "Being found" in docs/link-protocol.md.
"""
from __future__ import annotations

import select
import socket
import time
from typing import NamedTuple

from guilink.link import HeardDevice, PortsTakenError
from guilink.wire import MessageType, frame, identity_datagram

DISCOVERY_PORT = 3152  # UDP; devices send their broadcasts to this port
MAX_AT_ONCE = 64       # number of datagrams per call of `receive`; a flood must not delay the link
MAX_HEARD = 64         # number of devices that are remembered; forged broadcasts must not fill the memory
MAX_DATAGRAM = 2048    # bytes; limit of one datagram
INTERVAL = 1.5         # s; a searching device broadcasts again within this time
GONE = 2 * INTERVAL    # s; a device that has not broadcast for this long has stopped searching
ANSWER = frame(MessageType.CONNECT_REQUEST)

Sender = tuple[str, int]


class Broadcast(NamedTuple):
    device: HeardDevice
    sender: Sender
    rivals: tuple[HeardDevice, ...]  # the other devices that search, too
    since: float  # when the device began to search

    @property
    def settled(self) -> bool:
        """Whether any other device that searches would have broadcast by now. Measures time instead of counting
        broadcasts: over two interfaces, each broadcast arrives twice."""
        return self.device.heard >= self.since + INTERVAL


class Discovery:
    """Receives broadcasts on the discovery port, and answers them. Never blocks."""

    def __init__(self) -> None:
        self._heard: dict[tuple[str, str], HeardDevice] = {}  # by identity and address; ordered by last broadcast
        self._searching_since: dict[tuple[str, str], float] = {}  # for each device in _heard
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setblocking(False)
        try:
            self._socket.bind(("", DISCOVERY_PORT))  # bound to one address, the socket would receive no broadcasts
        except OSError as error:
            self._socket.close()
            raise PortsTakenError(f"UDP port {DISCOVERY_PORT}", error) from error

    def fileno(self) -> int:
        return self._socket.fileno()

    def close(self) -> None:
        self._socket.close()

    def devices(self) -> list[HeardDevice]:
        """Returns the devices that have broadcast. The device with the newest broadcast comes first."""
        return list(reversed(list(self._heard.values())))

    def receive(self) -> list[Broadcast]:
        """Reads at most MAX_AT_ONCE datagrams. Returns the broadcasts among them."""
        broadcasts = []
        for _ in range(MAX_AT_ONCE):
            try:
                datagram, sender = self._socket.recvfrom(MAX_DATAGRAM)
            except BlockingIOError:
                break
            except OSError:  # this error reports that an earlier answer was not delivered
                continue
            if said := identity_datagram(datagram):
                broadcasts.append(self._note(HeardDevice(*said, sender[0], time.monotonic()), sender))
        return broadcasts

    def _note(self, device: HeardDevice, sender: Sender) -> Broadcast:
        key = device.identity, device.address
        before = self._heard.pop(key, None)
        if before is None or device.heard > before.heard + GONE:
            self._searching_since[key] = device.heard
        # An old entry with this address is this device, before its identity changed.
        rivals = tuple(other for other in self._heard.values()
                       if other.address != device.address and other.heard > device.heard - GONE)
        self._heard[key] = device
        if len(self._heard) > MAX_HEARD:
            oldest = next(iter(self._heard))
            del self._heard[oldest], self._searching_since[oldest]
        return Broadcast(device, sender, rivals, self._searching_since[key])

    def answer(self, sender: Sender) -> None:
        try:
            self._socket.sendto(ANSWER, sender)
        except OSError:  # there is no network; the device will broadcast again
            pass


def heard_within(seconds: float) -> list[HeardDevice]:
    """Listens for `seconds` and returns the devices that search for a companion. Does not answer them."""
    end = time.monotonic() + seconds
    discovery = Discovery()
    try:
        while (left := end - time.monotonic()) > 0:
            select.select([discovery], [], [], left)
            discovery.receive()
        return discovery.devices()
    finally:
        discovery.close()
