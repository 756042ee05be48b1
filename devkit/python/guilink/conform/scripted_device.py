"""Plays a device for the companion under test: it broadcasts, connects, answers and sends images."""
from __future__ import annotations

import socket
import time

from guilink.conform.case import Attempt
from guilink.conform.event_loop import Channel, UdpSocket
from guilink.conform.private_network import BROADCAST, COMPANION
from guilink.conform.strict import Fault
from guilink.discovery import ANSWER
from guilink.picture import Pixels, encode
from guilink.wire import Message, MessageType, frame

BROADCAST_INTERVAL = 0.25  # s between two broadcasts, until the companion answers
REPEAT = 0.5           # s; an image is sent again after this time
SEND_BUFFER = 1 << 20  # bytes; SO_SNDBUF, as on a real device
REQUESTS_TO_PRESS = 3  # until the first image, a companion may press a button only after this many ConnectRequests


class Connection(Channel):
    """A connection to the companion. Answers its IdentityRequests, and records messages that it must not send."""

    def __init__(self, attempt: Attempt, connected: socket.socket, device: ScriptedDevice):
        super().__init__(attempt.loop, connected, by_companion=True)
        self.answering = True
        self._may_press = False
        self._requests = 0
        self._attempt, self._device = attempt, device

    def take(self, message: Message) -> None:
        super().take(message)
        kind, faults, kept = message.type, self.loop.faults, self._attempt.kept
        # These rules count as kept. If a fault is found, `run_once` removes its rule from `kept`.
        kept |= {"FRAME-1", "FRAME-2", "FRAME-3", "FRAME-10", "FRAME-11", "LINK-1"}
        if len(self.arrived) == 1 and kind != MessageType.CONNECT_REQUEST:
            faults.append(Fault("LINK-1", f"the first message has type {kind}", ANSWER, frame(kind, message.payload)))
        if kind == MessageType.CONNECT_REQUEST:
            self._requests += 1
        elif kind == MessageType.IDENTITY_REQUEST and self.answering:
            self.send(frame(MessageType.IDENTITY, self._device.identity))
            self._may_press |= self._requests >= REQUESTS_TO_PRESS
        elif kind in (MessageType.BUTTON, MessageType.DATA):
            kept |= {"PRESS-1", "PRESS-2"} if kind == MessageType.BUTTON else {"PRESS-1"}
            if not (self._may_press or self.image_sent):
                faults.append(Fault(
                    "PRESS-1", f"a {'Button' if kind == MessageType.BUTTON else 'Data'}Message before the first "
                    "image, and before the answer to an IdentityRequest that followed the third ConnectRequest; "
                    f"{self._requests} were sent",
                    b"", frame(kind, message.payload)))
            if kind == MessageType.BUTTON and not (len(message.payload) == 1 and message.payload[0] < 16):
                faults.append(Fault("PRESS-2", "a ButtonMessage that is not one byte from 0 to 15",
                                    b"", frame(kind, message.payload)))


class ScriptedDevice:
    def __init__(self, attempt: Attempt, address: str, identity: bytes = b"11111fw1.1"):
        self.identity, self.address = identity, address
        self.udp = UdpSocket(attempt.loop, (address, 3153))
        self._other_port = UdpSocket(attempt.loop, (address, 3152))  # finds answers to the wrong port
        self._attempt, self._checked = attempt, 0
        self.broadcasts, self.last_broadcast = 0, 0.0

    def broadcast(self, datagram: bytes | None = None) -> None:
        self.broadcasts, self.last_broadcast = self.broadcasts + 1, time.monotonic()
        data = frame(MessageType.IDENTITY, self.identity) if datagram is None else datagram
        self.udp.send(data, (BROADCAST, 3152))

    @property
    def answers(self) -> int:
        """The number of answers so far. Reading this property also checks the new answers."""
        faults = self._attempt.loop.faults
        for datagram in self._other_port.arrived:
            faults.append(Fault("DISC-4", "an answer to port 3152", ANSWER, datagram.data))
        self._other_port.arrived.clear()
        for datagram in self.udp.arrived[self._checked:]:
            self._checked += 1
            if datagram.data != ANSWER:
                faults.append(Fault("DISC-4", f"an answer of {len(datagram.data)} bytes that is not the "
                                    "ConnectRequest", ANSWER, datagram.data))
            elif datagram.sender[0] != COMPANION:
                faults.append(Fault("DISC-4", f"an answer from {datagram.sender[0]}, not from {COMPANION}"))
        return len(self.udp.arrived)

    def broadcast_until_answered(self, patience: float | None = None) -> bool:
        """Broadcasts repeatedly until the companion answers. Returns whether it has answered."""
        before, loop = self.answers, self._attempt.loop
        limit = loop.patience if patience is None else patience
        for _ in range(max(1, round(limit / BROADCAST_INTERVAL))):
            self.broadcast()
            if loop.until(lambda: self.answers > before, BROADCAST_INTERVAL):
                return True
            if self._attempt.subject_ended():
                return False
        return False

    def connect(self) -> Connection:
        """Connects to the companion, as a device does after an answer."""
        try:
            connected = socket.create_connection((COMPANION, 8399), self._attempt.loop.patience, (self.address, 0))
        except OSError as error:
            self._attempt.fail("DISC-7", f"TCP port 8399 does not accept: {error.strerror}")
            raise AssertionError("a must was broken") from error
        connected.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SEND_BUFFER)
        return Connection(self._attempt, connected, self)

    def show(self, channel: Channel, pixels: Pixels) -> bool:
        return self.show_payload(channel, encode(pixels))

    def show_payload(self, channel: Channel, payload: bytes) -> bool:
        return channel.send(frame(MessageType.IMAGE, payload))

    def repeat(self, channel: Channel, pixels: Pixels) -> None:
        """Sends the image now, and then twice a second."""
        payload = encode(pixels)
        self._attempt.loop.every(REPEAT, lambda: channel.ended or self.show_payload(channel, payload))
