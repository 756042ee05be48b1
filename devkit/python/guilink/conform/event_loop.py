"""Reads the kit's sockets in one loop, until a condition holds."""
from __future__ import annotations

import errno
import fcntl
import select
import socket
import struct
import termios
import time
from abc import ABC, abstractmethod
from typing import Callable, NamedTuple

from guilink.conform.exchange import KIT, SUBJECT, Address, Exchange
from guilink.conform.strict import Fault, StrictReader
from guilink.wire import FrameReader, Message, MessageType

POLL = 0.02          # s between two checks of a condition
LISTENING = 0.2      # s; a kit that has not waited for its sockets for longer notices messages late
DELIVERY_POLL = 0.001  # s between two checks whether the subject's TCP stack has acknowledged all bytes
CHUNK = 1 << 18      # bytes; limit of one read
CASE_LIMIT = 30.0    # s; a test case must end within this time and CASE_LIMIT_PATIENCES x the patience
CASE_LIMIT_PATIENCES = 10
IP_RECVERR = 11      # Linux's value of this socket option, which Python does not define
RESET_ON_CLOSE = struct.pack("ii", 1, 0)  # for SO_LINGER: close() then resets the connection


class Arrived(NamedTuple):
    time: float  # EventLoop.clock()
    message: Message


class Datagram(NamedTuple):
    time: float
    data: bytes
    sender: Address


class Source(ABC):
    """A socket that `EventLoop.serve` waits for and reads from."""

    def __init__(self, loop: EventLoop, socket_: socket.socket):
        self._socket, self.readable = socket_, True  # if it is not readable, the kit does not read
        socket_.setblocking(False)
        loop.add(self)

    def fileno(self) -> int:
        return self._socket.fileno()

    @abstractmethod
    def receive(self) -> None: ...

    def close(self) -> None:
        self._socket.close()


class DeadlineError(Exception):
    """The test case has not ended in time."""


class EventLoop:
    """The sockets of one test case. `patience` (s) is the default limit of `until`."""

    def __init__(self, patience: float):
        self.patience = patience
        self.exchange = Exchange()
        self.faults: list[Fault] = []  # faults found in the bytes that the subject has sent
        self.clock: Callable[[], float] = time.monotonic  # the time that the subject is judged by
        self.busy, self._waited = 0.0, time.monotonic()   # s in which the kit did not listen; end of its latest wait
        self._sources: list[Source] = []
        self._timers: list[tuple[float, Callable[[], object]]] = []
        self._due: list[float] = []
        self._limit = CASE_LIMIT + CASE_LIMIT_PATIENCES * patience
        self._deadline = time.monotonic() + self._limit

    def add(self, source: Source) -> None:
        self._sources.append(source)

    def check_deadline(self) -> None:
        """Every loop that waits calls this, so that no test case lasts for ever."""
        if time.monotonic() > self._deadline:
            raise DeadlineError(f"the case has not ended within {self._limit:.0f} s")

    def every(self, interval: float, action: Callable[[], object]) -> None:
        """Calls `action` every `interval` seconds until the end of the test case, but only while the kit waits."""
        self._timers.append((interval, action))
        self._due.append(time.monotonic())

    def until(self, condition: Callable[[], object], within: float | None = None) -> bool:
        """Serves the sockets until the condition holds. Returns False if `within` seconds pass first."""
        end = time.monotonic() + (self.patience if within is None else within)
        while not condition():
            if time.monotonic() >= end:
                return False
            self.serve()
        return True

    def serve(self, wait: float = POLL) -> None:
        self.check_deadline()
        now = time.monotonic()
        for i, (interval, action) in enumerate(self._timers):
            if now >= self._due[i]:
                self._due[i] = now + interval
                action()
        self.read(wait)

    def read(self, wait: float = 0.0) -> None:
        for each in self.wait([each for each in self._sources if each.readable], [], wait)[0]:
            each.receive()

    def wait(self, readable: list[Source], writable: list[Source], limit: float) -> tuple[list[Source], list[Source]]:
        """Waits for sockets like `select.select`, and adds to `busy` if the previous wait was long ago."""
        ready = select.select(readable, writable, [], limit)
        before, self._waited = self._waited, time.monotonic()
        if self._waited - before > LISTENING:
            self.busy += self._waited - before
        return ready[:2]

    def close(self) -> None:
        for each in self._sources:
            each.close()


class UdpSocket(Source):
    def __init__(self, loop: EventLoop, address: Address):
        self.arrived: list[Datagram] = []
        self.refused = False  # a datagram that the kit sent reached a closed port
        self._loop, self.channel = loop, loop.exchange.new_channel()
        udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for option in (socket.SO_BROADCAST, socket.SO_REUSEADDR):
            udp.setsockopt(socket.SOL_SOCKET, option, 1)
        udp.setsockopt(socket.IPPROTO_IP, IP_RECVERR, 1)
        udp.bind(address)
        self.address: Address = udp.getsockname()
        super().__init__(loop, udp)

    def send(self, data: bytes, target: Address) -> None:
        self._loop.exchange.add(KIT, "udp", self.channel, "bytes", self.address, target, data)
        try:
            self._socket.sendto(data, target)
        except OSError:  # the error reports the loss of an earlier datagram, so send this one again
            self.refused = True
            self._socket.sendto(data, target)

    def receive(self) -> None:
        try:
            data, sender = self._socket.recvfrom(65536)
        except ConnectionRefusedError:
            self.refused = True
            return
        except BlockingIOError:
            return
        self._loop.exchange.add(SUBJECT, "udp", self.channel, "bytes", sender, self.address, data)
        self.arrived.append(Datagram(time.monotonic(), data, sender))


class Channel(Source):
    def __init__(self, loop: EventLoop, connected: socket.socket, by_companion: bool):
        self.arrived: list[Arrived] = []
        self.ended = False      # the subject has ended the connection
        self.was_reset = False  # by a reset
        self.over: float | None = None  # time at which one of the two sides has ended it
        self.reader = StrictReader(by_companion)
        self.linked: float | None = None  # time at which the kit has sent the first whole image
        self._sent = FrameReader()
        self._sending, self._behind = False, bytearray()
        self.loop, self._closed = loop, False
        self.sent_at = time.monotonic()
        self.stall = loop.patience  # s; if the subject reads nothing for this long, `send` fails
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.here: Address = connected.getsockname()
        self.there: Address = connected.getpeername()
        self.number = loop.exchange.new_channel()
        self._log(SUBJECT if not by_companion else KIT, "opened")
        super().__init__(loop, connected)

    def count(self, kind: int) -> int:
        return sum(each.message.type == kind for each in self.arrived)

    def times(self, kind: int) -> list[float]:
        return [each.time for each in self.arrived if each.message.type == kind]

    def payloads(self, kind: int) -> list[bytes]:
        return [each.message.payload for each in self.arrived if each.message.type == kind]

    def receive(self) -> None:
        try:
            data = self._socket.recv(CHUNK)
        except BlockingIOError:
            return
        except OSError:
            self._end("reset")
            return
        if not data:
            self._end("ended")
            return
        self._log(SUBJECT, "bytes", data)
        before = len(self.reader.faults)
        messages = self.reader.feed(data)
        self.loop.faults += self.reader.faults[before:]
        for message in messages:
            self.take(message)

    def take(self, message: Message) -> None:
        self.arrived.append(Arrived(self.loop.clock(), message))

    def send(self, data: bytes) -> bool:
        """Sends data. Returns False if the subject has ended the connection, or reads nothing for `stall` seconds."""
        return self.send_parts(data)

    def send_parts(self, *parts: bytes, between: Callable[[], object] = lambda: None) -> bool:
        """Sends the parts one by one. Waits until a part is delivered before it sends the next part. If `send` is
        called during such a wait, its data is sent after all parts."""
        if self._sending:
            self._behind += b"".join(parts)
            return True
        self._sending, sent = True, False
        for number, part in enumerate(parts):
            if number:
                if not (sent := self._wait_delivered()):
                    break
                between()
            if not (sent := self._write(part)):
                break
        while sent and self._behind:
            behind = bytes(self._behind)
            self._behind.clear()
            sent = self._write(behind)
        self._behind.clear()
        self._sending = False
        return sent

    def _wait_delivered(self) -> bool:
        end = time.monotonic() + self.stall
        while not (self.ended or self.delivered()) and time.monotonic() < end:
            self.loop.check_deadline()
            if self.loop.wait([self] if self.readable else [], [], DELIVERY_POLL)[0]:
                self.receive()
        return not self.ended and self.delivered()

    def delivered(self) -> bool:
        """Whether the subject's TCP stack has acknowledged all bytes that were sent."""
        return self._left() == 0

    def _left(self) -> int:
        left = fcntl.ioctl(self._socket, termios.TIOCOUTQ, bytes(4))
        return int.from_bytes(left, "little")

    def _write(self, data: bytes) -> bool:
        if self.over is not None:
            return False
        if data:
            self.sent_at = time.monotonic()
            self._log(KIT, "bytes", data)
            if any(each.type == MessageType.IMAGE for each in self._sent.feed(data)) and self.linked is None:
                self.linked = self.loop.clock()
        rest = memoryview(data)
        end, before = self.loop.clock() + self.stall, -1
        while rest and not self.ended and self.loop.clock() < end:
            self.loop.check_deadline()
            if (left := self._left()) != before:  # some bytes have been sent or acknowledged
                end, before = self.loop.clock() + self.stall, left
            try:
                rest = rest[self._socket.send(rest):]
            except BlockingIOError:
                if self.loop.wait([self] if self.readable else [], [self], POLL)[0]:
                    self.receive()
            except OSError as error:
                self._end("reset" if error.errno == errno.ECONNRESET else "ended")
        return not rest

    def close(self) -> None:
        if not self._closed:
            self._closed, self.readable = True, False
            if not self.ended:
                self._log(KIT, "ended")
            self._note_end()
            self._socket.close()

    def half_close(self) -> None:
        self._log(KIT, "ended")
        self._note_end()
        self._socket.shutdown(socket.SHUT_WR)

    def reset(self) -> None:
        if not self._closed:
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET_ON_CLOSE)
            self._closed, self.readable = True, False
            self._log(KIT, "reset")
            self._note_end()
            self._socket.close()

    def _end(self, kind: str) -> None:
        self.ended, self.readable, self.was_reset = True, False, kind == "reset"
        self._note_end()
        self._log(SUBJECT, kind)

    def _note_end(self) -> None:
        self.over = self.loop.clock() if self.over is None else self.over

    def _log(self, speaker: str, kind: str, data: bytes = b"") -> None:
        ends = (self.here, self.there) if speaker == KIT else (self.there, self.here)
        self.loop.exchange.add(speaker, "tcp", self.number, kind, *ends, data)
