"""Plays a device for the companion under test: it broadcasts, connects, answers and sends images."""
from __future__ import annotations

import math
import socket
import statistics
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
QUIET = 1.0            # s; a link on which the kit has sent nothing for this long gets a message, to keep it alive
SEND_BUFFER = 1 << 20  # bytes; SO_SNDBUF, as on a real device
DATA_SEGMENTS_IN = 152  # bytes before tcpi_data_segs_in in Linux's struct tcp_info
SURELY_SPLIT = 5  # number of split frames
SURPLUS = 3  # number of answers that may belong to broadcasts of the case before
MUST_SPEAK = 3.0       # s; longest permitted time between two messages on the link
MUST_GAP = 2.0         # s; longest permitted time between two ControlMessages
SHOULD_GAP = 0.75      # s; the kit warns if the typical time between two ControlMessages is longer
FEWEST_GAPS = 3        # number of gaps from which a typical one is known
REQUESTS_TO_PRESS = 3  # until the first image, a companion may press a button only after this many ConnectRequests


class Connection(Channel):
    """A connection to the companion. Answers its IdentityRequests, and records messages that it must not send."""

    def __init__(self, attempt: Attempt, connected: socket.socket, device: ScriptedDevice):
        super().__init__(attempt.loop, connected, by_companion=True)
        self.answering = True
        self._may_press = False
        self._permitted = False  # the kit has sent the answer that permits presses
        self._split = 0          # number of frames that have arrived in pieces
        self._segments: int | None = None  # number of segments that have been read, if it is known
        self._requests = 0
        self._unanswered: list[bool] = []  # for each IdentityRequest: whether its answer permits presses
        self._attempt, self._device = attempt, device
        self.loop.every(QUIET, self._keep_alive)

    def _keep_alive(self) -> None:
        if self.answering and self.linked and self.over is None and time.monotonic() > self.sent_at + QUIET:
            self.send(frame(MessageType.IDENTITY, self._device.identity))

    def receive(self) -> None:
        self._may_press = self._permitted  # an answer to these messages cannot have arrived before them
        before, segments = len(self.arrived), self._count_segments()
        super().receive()
        frames, known = self.arrived[before:], self._segments
        # If another segment has just arrived, nobody knows whether it has been read.
        self._segments = segments if segments == self._count_segments() else None
        if known is not None and self._segments is not None and segments - known > len(frames) > 0:
            self._split += SURELY_SPLIT if any(each.message.payload for each in frames) else 1
            if self._split >= SURELY_SPLIT:
                self.loop.faults.append(Fault("FRAME-11", f"{segments - known} segments for {len(frames)} frames"))

    def _count_segments(self) -> int:
        if self.over is not None:
            return 0
        information = self._socket.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, DATA_SEGMENTS_IN + 4)
        return int.from_bytes(information[DATA_SEGMENTS_IN:], "little")

    def take(self, message: Message) -> None:
        super().take(message)
        kind, faults, kept = message.type, self.loop.faults, self._attempt.kept
        # These rules count as kept. If a fault is found, `run_once` removes its rule from `kept`.
        kept |= {"FRAME-1", "FRAME-2", "FRAME-3", "FRAME-10", "FRAME-11", "LINK-1"}
        if len(self.arrived) == 1 and kind != MessageType.CONNECT_REQUEST:
            faults.append(Fault("LINK-1", f"the first message has type {kind}", ANSWER, frame(kind, message.payload)))
        if kind == MessageType.CONNECT_REQUEST:
            self._requests += 1
        elif kind == MessageType.IDENTITY_REQUEST:
            self._unanswered.append(self._requests >= REQUESTS_TO_PRESS)
            if self.answering:
                self.answer(len(self._unanswered))
        elif kind in (MessageType.BUTTON, MessageType.DATA):
            kept |= {"PRESS-1", "PRESS-2" if kind == MessageType.BUTTON else "PRESS-6"}
            if kind == MessageType.DATA and message.payload.endswith(b"\0"):
                faults.append(Fault("PRESS-6", "a DataMessage whose text ends with a terminator", b"",
                                    frame(kind, message.payload)))
            if not (self._may_press or self.linked):
                faults.append(Fault(
                    "PRESS-1", f"a {'Button' if kind == MessageType.BUTTON else 'Data'}Message before the first "
                    "image, and before the answer to an IdentityRequest that followed the third ConnectRequest; "
                    f"{self._requests} were sent",
                    b"", frame(kind, message.payload)))
            if kind == MessageType.BUTTON and not (len(message.payload) == 1 and message.payload[0] < 16):
                faults.append(Fault("PRESS-2", "a ButtonMessage that is not one byte from 0 to 15",
                                    b"", frame(kind, message.payload)))

    def answer(self, number: int = 1) -> None:
        """Answers the oldest IdentityRequests that have no answer yet."""
        for permits in self._unanswered[:number]:
            self.send(frame(MessageType.IDENTITY, self._device.identity))
            self._permitted |= permits
        del self._unanswered[:number]

    def late(self) -> list[Fault]:
        """Returns what the companion has not sent on this connection, or not in time."""
        faults = []
        linked = math.inf if self.linked is None else self.linked
        candidate = [each.message.type for each in self.arrived if each.time < linked]
        controls = [i for i, kind in enumerate(candidate) if kind == MessageType.CONTROL]
        if any(MessageType.CONNECT_REQUEST not in candidate[a:b] for a, b in zip(controls, controls[1:])):
            faults.append(Fault("LINK-2", "a keep-alive without a ConnectRequest before the first image"))
        if self.linked is None:
            return faults
        end = self.loop.clock() if self.over is None else self.over
        words = _gaps([each.time for each in self.arrived], linked, end)
        controls_late = _gaps(self.times(MessageType.CONTROL), linked, end)
        if max(words) > MUST_SPEAK:
            faults.append(Fault("TIME-1", f"nothing is sent on the link for {max(words):.1f} s"))
        if max(controls_late) > MUST_GAP:
            faults.append(Fault("TIME-2", f"no ControlMessage on the link for {max(controls_late):.1f} s"))
        typical = statistics.median(controls_late[:-1] or [0])
        if len(controls_late) > FEWEST_GAPS and typical > SHOULD_GAP:
            faults.append(Fault("TIME-3", f"a ControlMessage every {typical:.1f} s, not every 0.5 s "
                                f"(up to {SHOULD_GAP} s is tolerated)"))
        self._attempt.kept |= {"TIME-1", "TIME-2"} | ({"TIME-3"} if len(controls_late) > FEWEST_GAPS else set())
        return faults


def _gaps(times: list[float], begin: float, end: float) -> list[float]:
    marks = [begin, *(each for each in times if begin < each < end), max(begin, end)]
    return [after - before for before, after in zip(marks, marks[1:])]


class ScriptedDevice:
    def __init__(self, attempt: Attempt, address: str, identity: bytes = b"11111fw1.1"):
        self.identity, self.address = identity, address
        self.udp = UdpSocket(attempt.loop, (address, 3153))
        # These find answers to a wrong port or address.
        self._astray = [UdpSocket(attempt.loop, (address, 3152)), UdpSocket(attempt.loop, (BROADCAST, 3153))]
        self._attempt, self.connections = attempt, list[Connection]()
        self.broadcasts, self.last_broadcast = 0, 0.0

    def broadcast(self, datagram: bytes | None = None) -> None:
        self.broadcasts, self.last_broadcast = self.broadcasts + 1, time.monotonic()
        data = frame(MessageType.IDENTITY, self.identity) if datagram is None else datagram
        self.udp.send(data, (BROADCAST, 3152))

    @property
    def answers(self) -> int:
        return len(self.udp.arrived)

    def check_answers(self) -> None:
        faults = self._attempt.loop.faults
        for socket_ in self._astray:
            for datagram in socket_.arrived[:1]:
                faults.append(Fault("DISC-4", "an answer to {} port {}".format(*socket_.address), ANSWER,
                                    datagram.data))
        if len(self.udp.arrived) > self.broadcasts + SURPLUS:
            faults.append(Fault("DISC-4", f"{len(self.udp.arrived)} answers to {self.broadcasts} broadcasts"))
        for datagram in self.udp.arrived:
            if datagram.data != ANSWER:
                faults.append(Fault("DISC-4", f"an answer of {len(datagram.data)} bytes that is not the "
                                    "ConnectRequest", ANSWER, datagram.data))
            elif datagram.sender[0] != COMPANION:
                faults.append(Fault("DISC-4", f"an answer from {datagram.sender[0]}, not from {COMPANION}"))

    def broadcast_until_answered(self, patience: float | None = None) -> bool:
        before, loop = self.answers, self._attempt.loop
        limit = loop.patience if patience is None else patience
        for _ in range(max(1, round(limit / BROADCAST_INTERVAL))):
            self.broadcast()
            if loop.until(lambda: self.answers > before, BROADCAST_INTERVAL):
                return True
            if self._attempt.subject_ended():
                return False
        return False

    def connect(self, rule: str = "DISC-7") -> Connection:
        """Connects to the companion, as a device does after an answer. If this fails, `rule` counts as broken."""
        if (connection := self.try_to_connect()) is None:
            self._attempt.fail(rule, "TCP port 8399 accepts no connection")
            raise AssertionError("a must was broken")
        return connection

    def try_to_connect(self) -> Connection | None:
        try:
            connected = socket.create_connection((COMPANION, 8399), self._attempt.loop.patience, (self.address, 0))
        except OSError:
            return None
        connected.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SEND_BUFFER)
        self.connections.append(Connection(self._attempt, connected, self))
        return self.connections[-1]

    def show(self, channel: Channel, pixels: Pixels) -> bool:
        return self.show_payload(channel, encode(pixels))

    def show_payload(self, channel: Channel, payload: bytes) -> bool:
        return channel.send(frame(MessageType.IMAGE, payload))

    def repeat(self, channel: Channel, pixels: Pixels) -> None:
        payload = encode(pixels)
        self._attempt.loop.every(REPEAT, lambda: channel.ended or self.show_payload(channel, payload))
