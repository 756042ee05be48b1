"""Plays a device for the companion under test: it broadcasts, connects, answers and sends images."""
from __future__ import annotations

import socket
import time
from typing import TYPE_CHECKING

from guilink.conform.stage import Channel, UdpSocket
from guilink.conform.strict import Fault
from guilink.picture import Pixels, encode
from guilink.wire import Message, MessageType, frame

if TYPE_CHECKING:
    from guilink.conform.companion_trial import Trial

ANSWER = frame(MessageType.CONNECT_REQUEST)
SEND_BUFFER = 1 << 20  # bytes; SO_SNDBUF, as on a real device
CALL_INTERVAL = 0.25   # s between two broadcasts, until the companion answers
REPEAT = 0.5           # s; an image is sent again after this time
REQUESTS_TO_PRESS = 3  # until the first image, a companion may press a button only after this many ConnectRequests


class ScriptedDevice:
    def __init__(self, trial: Trial, address: str, identity: bytes = b"11111fw1.1"):
        self.identity, self.address = identity, address
        self.udp = UdpSocket(trial.stage, (address, 3153))
        self._other_port = UdpSocket(trial.stage, (address, 3152))  # finds answers to the wrong port
        self._trial, self._judged = trial, 0
        self.calls, self.called = 0, 0.0

    def call(self, datagram: bytes | None = None, target: str | None = None) -> None:
        self.calls, self.called = self.calls + 1, time.monotonic()
        data = frame(MessageType.IDENTITY, self.identity) if datagram is None else datagram
        self.udp.send(data, (target or self._trial.broadcast, 3152))

    @property
    def answers(self) -> int:
        """The number of answers so far. Reading this property also checks the new answers."""
        for datagram in self._other_port.arrived:
            self._trial.stage.faults.append(Fault("DISC-4", "an answer to port 3152", ANSWER, datagram.data))
        self._other_port.arrived.clear()
        for datagram in self.udp.arrived[self._judged:]:
            self._judged += 1
            if datagram.data != ANSWER:
                self._trial.stage.faults.append(Fault(
                    "DISC-4", f"an answer of {len(datagram.data)} bytes that is not the ConnectRequest",
                    ANSWER, datagram.data))
            elif datagram.sender[0] != self._trial.companion:
                self._trial.stage.faults.append(Fault(
                    "DISC-4", f"an answer from {datagram.sender[0]}, not from {self._trial.companion}"))
        return len(self.udp.arrived)

    def call_until_answered(self, patience: float | None = None) -> bool:
        """Broadcasts repeatedly until the companion answers. Returns whether it has answered."""
        before, stage = self.answers, self._trial.stage
        limit = stage.patience if patience is None else patience
        for _ in range(max(1, round(limit / CALL_INTERVAL))):
            self.call()
            if stage.until(lambda: self.answers > before, CALL_INTERVAL):
                return True
            if self._trial.subject_ended():
                return False
        return False

    def connect(self) -> Channel:
        """Connects to the companion, as a device does after an answer."""
        try:
            connected = socket.create_connection((self._trial.companion, 8399), self._trial.stage.patience,
                                                 (self.address, 0))
        except OSError as error:
            self._trial.stage.exchange.note(f"cannot connect to TCP port 8399: {error}")
            self._trial.judge.blame("DISC-7", f"TCP port 8399 does not accept: {error.strerror}")
            raise AssertionError("a must was broken") from error
        connected.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SEND_BUFFER)
        channel = Channel(self._trial.stage, connected, by_companion=True)
        watch = Watch(self, channel, self._trial.judge.kept)
        channel.on_message = watch.take
        channel.watch = watch  # type: ignore[attr-defined]
        return channel

    def show(self, channel: Channel, pixels: Pixels) -> bool:
        return self.show_payload(channel, encode(pixels))

    def show_payload(self, channel: Channel, payload: bytes) -> bool:
        return channel.send(frame(MessageType.IMAGE, payload))

    def repeat(self, channel: Channel, pixels: Pixels) -> None:
        """Sends the image now, and then twice a second."""
        payload = encode(pixels)
        self._trial.stage.every(REPEAT, lambda: channel.ended or self.show_payload(channel, payload))


class Watch:
    """Answers the IdentityRequests on a connection, and records messages that the companion must not send."""

    def __init__(self, device: ScriptedDevice, channel: Channel, kept: set[str]):
        self.answering = True
        self.may_press = False
        self._device, self._channel, self._kept = device, channel, kept
        self._requests = 0

    def take(self, message: Message) -> None:
        stage, kind = self._channel.stage, message.type
        # These rules count as kept. If a fault is found, `run_once` removes its rule from `kept`.
        self._kept |= {"FRAME-1", "FRAME-2", "FRAME-3", "FRAME-10", "FRAME-11", "LINK-1"}
        if len(self._channel.arrived) == 1 and kind != MessageType.CONNECT_REQUEST:
            stage.faults.append(Fault("LINK-1", f"the first message has type {kind}", ANSWER,
                                      frame(kind, message.payload)))
        if kind == MessageType.CONNECT_REQUEST:
            self._requests += 1
        elif kind == MessageType.IDENTITY_REQUEST and self.answering:
            self._channel.send(frame(MessageType.IDENTITY, self._device.identity))
            self.may_press |= self._requests >= REQUESTS_TO_PRESS
        elif kind in (MessageType.BUTTON, MessageType.DATA):
            self._kept |= {"PRESS-1", "PRESS-2"} if kind == MessageType.BUTTON else {"PRESS-1"}
            if not (self.may_press or self._channel.image_sent):
                stage.faults.append(Fault(
                    "PRESS-1", f"a {'Button' if kind == MessageType.BUTTON else 'Data'}Message before the first "
                    "image, and before the answer to an IdentityRequest that followed the third ConnectRequest; "
                    f"{self._requests} were sent",
                    b"", frame(kind, message.payload)))
            if kind == MessageType.BUTTON and not (len(message.payload) == 1 and message.payload[0] < 16):
                stage.faults.append(Fault("PRESS-2", "a ButtonMessage that is not one byte from 0 to 15",
                                          b"", frame(kind, message.payload)))


def watch_of(channel: Channel) -> Watch:
    watch: Watch = channel.watch  # type: ignore[attr-defined]
    return watch
