"""What the test cases for devices use. The kit plays a companion that sends only what a case asks for."""
from __future__ import annotations

import socket
from dataclasses import dataclass

from guilink.conform.case import Judge, Untestable
from guilink.conform.rules import IN_EVERY_CASE
from guilink.conform.scripted_device import ANSWER
from guilink.conform.stage import Channel, Datagram, Stage, UdpSocket
from guilink.conform.strict import Fault, StrictReader
from guilink.link import GuilinkError
from guilink.wire import Identity, MessageType, frame, identity_datagram

KEEP_ALIVE = 0.4       # s between keep-alives
CONNECT_PATIENCE = 3   # number of broadcasts that the kit answers before it gives up
CONTROL_PORT = ("127.0.0.1", 3426)


@dataclass
class Wanted:
    """The device under test. `name` is its identity or address. Without a name, the first device that broadcasts is
    tested."""

    name: str | None = None
    address: str = ""
    identity: Identity | None = None


class Listener:
    """The TCP port to which the device connects."""

    def __init__(self, trial: DeviceTrial):
        self.readable, self._trial = True, trial
        try:
            self._socket = socket.create_server(("", 8399), backlog=64)
        except OSError as error:
            raise GuilinkError(f"cannot listen on TCP port 8399: {error.strerror}; "
                               "is another companion or viewer running?") from error
        self._socket.setblocking(False)

    def fileno(self) -> int:
        return self._socket.fileno()

    def receive(self) -> None:
        try:
            connected, (address, _) = self._socket.accept()
        except BlockingIOError:
            return
        if self._trial.wanted.address in ("", address):
            self._trial.channels.append(Channel(self._trial.stage, connected, by_companion=False))
        else:
            connected.close()

    def close(self) -> None:
        self._socket.close()


class DeviceTrial:
    """One attempt to run one case."""

    def __init__(self, stage: Stage, wanted: Wanted):
        self.stage, self.wanted, self.judge = stage, wanted, Judge()
        self.channels: list[Channel] = []  # connections that the device has opened
        self.broadcasts: list[Datagram] = []
        self.speaking: set[int] = set()    # numbers of the channels on which the kit sends keep-alives
        self._read = 0
        try:
            self._ear = UdpSocket(stage, ("", 3152))
        except OSError as error:
            raise GuilinkError(f"cannot listen on UDP port 3152: {error.strerror}; "
                               "is another companion or viewer running?") from error
        stage.join(Listener(self))

    def died(self) -> list[Fault]:
        return []

    def gave_up(self) -> str:
        return ""

    # --- discovery -----------------------------------------------------------------------------------

    def hear(self) -> int:
        """Checks the new broadcasts of the device under test. Returns the number of its broadcasts so far."""
        for datagram in self._ear.arrived[self._read:]:
            self._read += 1
            said = identity_datagram(datagram.data)
            if self.wanted.name and said and self.wanted.name not in (said.id, datagram.sender[0]):
                continue
            if self.wanted.address not in ("", datagram.sender[0]):
                continue
            self.broadcasts.append(datagram)
            # These rules count as kept. If a fault is found, `run_once` removes its rule from `kept`.
            self.judge.kept |= set(IN_EVERY_CASE["device"])
            reader = StrictReader(by_companion=False)
            reader.feed(datagram.data)
            for fault in reader.faults:
                self.stage.faults.append(Fault("DISC-2", f"in a broadcast, {fault.text}", fault.expected,
                                               fault.actual))
            if said is None and not reader.faults:
                self.stage.faults.append(Fault("DISC-2", "a broadcast that is not one IdentityMessage", b"",
                                               datagram.data))
            if datagram.sender[1] != 3153:
                self.stage.faults.append(Fault("DISC-2", f"a broadcast from port {datagram.sender[1]}, "
                                               "not 3153"))
            if said:
                self.wanted.address, self.wanted.identity = datagram.sender[0], said
        return len(self.broadcasts)

    def heard_all(self) -> list[Datagram]:
        """Returns the broadcasts of all devices."""
        return [each for each in self._ear.arrived if identity_datagram(each.data)]

    def refused_at(self, address: str) -> bool:
        """Returns whether the host's discovery port is closed, as on a device that is not searching."""
        probe = UdpSocket(self.stage, ("", 0))
        try:
            probe.send(b"", (address, 3153))
        except OSError:  # `address` is not a valid address
            return False
        return self.stage.until(lambda: probe.refused, 1.0)

    def broadcast(self, rule: str = "DISC-1", text: str = "no broadcast is received") -> Datagram:
        """Waits for a new broadcast. If no broadcast comes, `rule` counts as broken."""
        before = self.hear()
        self.judge.require(rule, self.stage.until(lambda: self.hear() > before), text)
        return self.broadcasts[-1]

    def answer(self, broadcast: Datagram, data: bytes = ANSWER) -> None:
        """Answers a broadcast. Uses a new port, because the device must accept an answer from any port."""
        UdpSocket(self.stage, ("", 0)).send(data, broadcast.sender)

    # --- connections ---------------------------------------------------------------------------------

    def candidate(self, rule: str = "DISC-1") -> Channel:
        """Answers broadcasts until the device connects. Returns the new connection."""
        before = len(self.channels)
        for _ in range(CONNECT_PATIENCE):
            called = self.broadcast(rule, "the device does not broadcast" if rule == "DISC-1" else
                                    "the device does not broadcast again")
            self.answer(called)
            heard = self.hear()
            if self.stage.until(lambda: len(self.channels) > before or self.hear() > heard) and \
                    len(self.channels) > before:
                self.judge.kept.add("DISC-8")
                return self.channels[-1]
        self.judge.blame("DISC-8", f"no connection to TCP port 8399 after {CONNECT_PATIENCE} answers")
        raise AssertionError("a must was broken")

    def speak(self, channel: Channel, *kinds: int) -> None:
        """From now on, sends messages of these types every KEEP_ALIVE seconds, to keep the connection alive."""
        self.speaking.add(channel.number)
        words = b"".join(map(frame, kinds))
        self.stage.every(KEEP_ALIVE, lambda: channel.number in self.speaking and channel.send(words))

    def link(self, rule: str = "DISC-1") -> Channel:
        """Waits for a connection from the device, makes it the link, and returns it. If the device closes the
        connection, tries again with the next connection."""
        for _ in range(CONNECT_PATIENCE):
            channel = self.candidate(rule)
            self.speak(channel, MessageType.CONNECT_REQUEST, MessageType.CONTROL, MessageType.IDENTITY_REQUEST)
            if self.stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= 4) \
                    and not channel.ended:
                return channel
        self.judge.blame("LINK-12", "a connection on which a ConnectRequest was sent is not kept")
        raise AssertionError("a must was broken")

    def ask(self, channel: Channel, rule: str, what: str, more: bytes = b"") -> None:
        """Sends `more` and an IdentityRequest. The device must answer the IdentityRequest."""
        before = channel.count(MessageType.IDENTITY)
        channel.send(more + frame(MessageType.IDENTITY_REQUEST))
        answered = self.stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) > before)
        self.judge.require(rule, answered and not channel.ended, what)

    def image(self, channel: Channel, more: int = 1) -> bytes:
        """Waits for `more` images. Returns the payload of the last one."""
        before = channel.count(MessageType.IMAGE)
        if not self.stage.until(lambda: channel.ended or channel.count(MessageType.IMAGE) >= before + more) \
                or channel.ended:
            if before == 0:
                raise Untestable("the device shows no image; its core has drawn nothing")
            self.judge.blame("TIME-7", "no further image")
        return channel.payloads(MessageType.IMAGE)[-1]

    def control_port(self) -> UdpSocket:
        """Opens UDP port 3426, to which a device on this machine forwards button presses."""
        if self.wanted.address:
            try:
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM).bind((self.wanted.address, 0))
            except OSError:
                raise Untestable("presses are seen only on the device itself") from None
        try:
            return UdpSocket(self.stage, CONTROL_PORT)
        except OSError as error:
            raise Untestable("UDP port 3426 of 127.0.0.1 belongs to another program") from error
