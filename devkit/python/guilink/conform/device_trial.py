"""The tools of a case against a device: here the kit is the companion, and sends only what a case wants."""
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
CONNECT_PATIENCE = 3   # number of answers to broadcasts, after which a device that has not connected fails the case
CONTROL_PORT = ("127.0.0.1", 3426)


@dataclass
class Wanted:
    """The device under test: the one with this identity or address, or else the first that broadcasts."""

    name: str | None = None
    address: str = ""
    identity: Identity | None = None


class Listener:
    """The port to which the device connects."""

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
    """One attempt at one case."""

    def __init__(self, stage: Stage, wanted: Wanted):
        self.stage, self.wanted, self.judge = stage, wanted, Judge()
        self.channels: list[Channel] = []  # connections that the device has opened
        self.broadcasts: list[Datagram] = []
        self.speaking: set[int] = set()    # numbers of the channels that are kept alive
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
        """Returns the number of broadcasts from the device so far, and judges the new ones."""
        for datagram in self._ear.arrived[self._read:]:
            self._read += 1
            said = identity_datagram(datagram.data)
            if self.wanted.name and said and self.wanted.name not in (said.id, datagram.sender[0]):
                continue
            if self.wanted.address not in ("", datagram.sender[0]):
                continue
            self.broadcasts.append(datagram)
            self.judge.kept |= set(IN_EVERY_CASE["device"])  # a fault that the stage records overrides this
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
        """Returns whether the host exists and its discovery port is closed, as on a device that is not searching."""
        probe = UdpSocket(self.stage, ("", 0))
        try:
            probe.send(b"", (address, 3153))
        except OSError:  # not an address
            return False
        return self.stage.until(lambda: probe.refused, 1.0)

    def broadcast(self, rule: str = "DISC-1", text: str = "no broadcast is received") -> Datagram:
        """Waits for the next broadcast. If there is none, `rule` counts as broken."""
        before = self.hear()
        self.judge.require(rule, self.stage.until(lambda: self.hear() > before), text)
        return self.broadcasts[-1]

    def answer(self, broadcast: Datagram, data: bytes = ANSWER) -> None:
        """Answers from a new port, because the source port must not matter."""
        UdpSocket(self.stage, ("", 0)).send(data, broadcast.sender)

    # --- connections ---------------------------------------------------------------------------------

    def candidate(self, rule: str = "DISC-1") -> Channel:
        """Answers broadcasts until the device connects. Returns the connection, on which nothing was sent yet."""
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
        """Keeps a connection alive from now on, with messages of these types."""
        self.speaking.add(channel.number)
        words = b"".join(map(frame, kinds))
        self.stage.every(KEEP_ALIVE, lambda: channel.number in self.speaking and channel.send(words))

    def link(self, rule: str = "DISC-1") -> Channel:
        """Returns a connection after the device has made it its link. If the device drops the connection first,
        tries with a new one."""
        for _ in range(CONNECT_PATIENCE):
            channel = self.candidate(rule)
            self.speak(channel, MessageType.CONNECT_REQUEST, MessageType.CONTROL, MessageType.IDENTITY_REQUEST)
            if self.stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= 4) \
                    and not channel.ended:
                return channel
        self.judge.blame("LINK-12", "a connection on which a ConnectRequest was sent is not kept")
        raise AssertionError("a must was broken")

    def ask(self, channel: Channel, rule: str, what: str, more: bytes = b"") -> None:
        """Sends `more` and an IdentityRequest, which must be answered."""
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
        """Opens UDP port 3426, to which a device on this machine forwards presses."""
        if self.wanted.address:
            try:
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM).bind((self.wanted.address, 0))
            except OSError:
                raise Untestable("presses are seen only on the device itself") from None
        try:
            return UdpSocket(self.stage, CONTROL_PORT)
        except OSError as error:
            raise Untestable("UDP port 3426 of 127.0.0.1 belongs to another program") from error
