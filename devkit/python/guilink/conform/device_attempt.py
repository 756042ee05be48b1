"""What the test cases for devices use. The kit plays a companion that sends only what a case asks for."""
from __future__ import annotations

import socket
import time
from dataclasses import dataclass
from pathlib import Path

from guilink.conform.case import Attempt, Subject, UntestableError
from guilink.conform.rules import IN_EVERY_CASE
from guilink.conform.event_loop import Channel, Datagram, EventLoop, Source, UdpSocket
from guilink.conform.strict import Fault, StrictReader
from guilink.discovery import ANSWER
from guilink.link import GuilinkError
from guilink.wire import Identity, MessageType, frame, identity_datagram

KEEP_ALIVE = 0.4       # s between keep-alives
CONNECT_PATIENCE = 3   # number of broadcasts that the kit answers before it gives up
CONTROL_PORT = ("127.0.0.1", 3426)
IPV4 = 0x0800          # Linux's ETH_P_IP, which Python does not define
UDP_HEADER = 8         # bytes


@dataclass
class Wanted(Subject):
    """The device under test. `name` is its identity or address. Without a name, the first device that broadcasts is
    tested."""

    name: str | None = None
    address: str = ""
    identity: Identity | None = None
    log: Path | None = None

    def logged(self) -> bytes:
        return self.log.read_bytes() if self.log and self.log.exists() else b""


class Listener(Source):
    def __init__(self, attempt: DeviceAttempt):
        self._attempt = attempt
        try:
            listener = socket.create_server(("", 8399), backlog=64)
        except OSError as error:
            raise GuilinkError(f"cannot listen on TCP port 8399: {error.strerror}; "
                               "is another companion or viewer running?") from error
        super().__init__(attempt.loop, listener)

    def receive(self) -> None:
        try:
            connected, (address, _) = self._socket.accept()
        except BlockingIOError:
            return
        if self._attempt.wanted.address in ("", address):
            self._attempt.channels.append(Channel(self._attempt.loop, connected, by_companion=False))
        else:
            connected.close()


class Eavesdropper(Source):
    """Reads the datagrams that arrive at a port of the loopback interface, which another program owns. Needs root."""

    def __init__(self, loop: EventLoop, port: int):
        self.arrived: list[Datagram] = []
        self._port = port
        packets = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(IPV4))
        packets.bind(("lo", IPV4))
        super().__init__(loop, packets)

    def receive(self) -> None:
        packet, (_, _, direction, *_) = self._socket.recvfrom(65536)
        ports = packet[(packet[0] & 15) * 4:]  # behind the header of the IP packet
        if direction == socket.PACKET_HOST and packet[9] == socket.IPPROTO_UDP and \
                int.from_bytes(ports[2:4], "big") == self._port:
            self.arrived.append(Datagram(time.monotonic(), ports[UDP_HEADER:], CONTROL_PORT))


class DeviceAttempt(Attempt):
    def __init__(self, loop: EventLoop, wanted: Wanted):
        super().__init__(loop)
        self.wanted = wanted
        self.channels: list[Channel] = []  # connections that the device has opened
        self.broadcasts: list[Datagram] = []
        self.kept_alive: set[int] = set()    # numbers of the channels on which the kit sends keep-alives
        self._read = 0
        try:
            self._discovery = UdpSocket(loop, ("", 3152))
        except OSError as error:
            raise GuilinkError(f"cannot listen on UDP port 3152: {error.strerror}; "
                               "is another companion or viewer running?") from error
        Listener(self)

    # --- discovery -----------------------------------------------------------------------------------

    def count_broadcasts(self) -> int:
        """Checks the new broadcasts of the device under test. Returns the number of its broadcasts so far."""
        for datagram in self._discovery.arrived[self._read:]:
            self._read += 1
            said = identity_datagram(datagram.data)
            if self.wanted.name and said and self.wanted.name not in (said.id, datagram.sender[0]):
                continue
            if self.wanted.address not in ("", datagram.sender[0]):
                continue
            self.broadcasts.append(datagram)
            # These rules count as kept. If a fault is found, `run_once` removes its rule from `kept`.
            self.kept |= set(IN_EVERY_CASE["device"])
            reader = StrictReader(by_companion=False)
            reader.feed(datagram.data)
            for fault in reader.faults:
                self.loop.faults.append(Fault("DISC-2", f"in a broadcast, {fault.text}", fault.expected,
                                              fault.actual))
            if said is None and not reader.faults:
                self.loop.faults.append(Fault("DISC-2", "a broadcast that is not one IdentityMessage", b"",
                                              datagram.data))
            if datagram.sender[1] != 3153:
                self.loop.faults.append(Fault("DISC-2", f"a broadcast from port {datagram.sender[1]}, "
                                              "not 3153"))
            if said:
                self.wanted.address, self.wanted.identity = datagram.sender[0], said
        return len(self.broadcasts)

    def broadcast(self, rule: str = "DISC-1", text: str = "no broadcast is received") -> Datagram:
        """Waits for a new broadcast. If no broadcast comes, `rule` counts as broken."""
        before = self.count_broadcasts()
        self.require(rule, self.loop.until(lambda: self.count_broadcasts() > before), text)
        return self.broadcasts[-1]

    def answer(self, broadcast: Datagram, data: bytes = ANSWER) -> None:
        """Answers a broadcast. Uses a new port, because the device must accept an answer from any port."""
        UdpSocket(self.loop, ("", 0)).send(data, broadcast.sender)

    # --- connections ---------------------------------------------------------------------------------

    def candidate(self, rule: str = "DISC-1") -> Channel:
        before = len(self.channels)
        for _ in range(CONNECT_PATIENCE):
            broadcast = self.broadcast(rule, "the device does not broadcast" if rule == "DISC-1" else
                                       "the device does not broadcast again")
            self.answer(broadcast)
            heard = self.count_broadcasts()
            if self.loop.until(lambda: len(self.channels) > before or self.count_broadcasts() > heard) and \
                    len(self.channels) > before:
                self.kept.add("DISC-8")
                return self.channels[-1]
        self.fail("DISC-8", f"no connection to TCP port 8399 after {CONNECT_PATIENCE} answers")
        raise AssertionError("a must was broken")

    def keep_alive(self, channel: Channel, *kinds: int) -> None:
        """From now on, sends messages of these types every KEEP_ALIVE seconds, to keep the connection alive."""
        self.kept_alive.add(channel.number)
        words = b"".join(map(frame, kinds))
        self.loop.every(KEEP_ALIVE, lambda: channel.number in self.kept_alive and channel.send(words))

    def link(self, rule: str = "DISC-1") -> Channel:
        """Waits for a connection from the device, makes it the link, and returns it. If the device closes the
        connection, tries again with the next connection."""
        for _ in range(CONNECT_PATIENCE):
            channel = self.candidate(rule)
            self.keep_alive(channel, MessageType.CONNECT_REQUEST, MessageType.CONTROL, MessageType.IDENTITY_REQUEST)
            if self.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= 4) \
                    and not channel.ended:
                return channel
        self.fail("LINK-12", "a connection on which a ConnectRequest was sent is not kept")
        raise AssertionError("a must was broken")

    def ask(self, channel: Channel, rule: str, what: str, more: bytes = b"") -> None:
        """Sends `more` and an IdentityRequest. The device must answer the IdentityRequest."""
        before = channel.count(MessageType.IDENTITY)
        channel.send(more + frame(MessageType.IDENTITY_REQUEST))
        answered = self.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) > before)
        self.require(rule, answered and not channel.ended, what)

    def image(self, channel: Channel, more: int = 1) -> bytes:
        """Waits for `more` images. Returns the payload of the last one."""
        before = channel.count(MessageType.IMAGE)
        if not self.loop.until(lambda: channel.ended or channel.count(MessageType.IMAGE) >= before + more) \
                or channel.ended:
            if before == 0:
                raise UntestableError("the device shows no image; its core has drawn nothing")
            self.fail("TIME-7", "no further image")
        return channel.payloads(MessageType.IMAGE)[-1]

    def control_port(self) -> UdpSocket | Eavesdropper:
        """Reads UDP port 3426, to which a device on this machine forwards button presses."""
        if self.wanted.address:
            try:
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM).bind((self.wanted.address, 0))
            except OSError:
                raise UntestableError("presses are seen only on the device itself") from None
        try:
            return UdpSocket(self.loop, CONTROL_PORT)
        except OSError:  # the device's core owns it
            pass
        try:
            return Eavesdropper(self.loop, CONTROL_PORT[1])
        except PermissionError as error:
            raise UntestableError("UDP port 3426 of 127.0.0.1 belongs to another program; as root, the kit reads what "
                                  "this program receives") from error
