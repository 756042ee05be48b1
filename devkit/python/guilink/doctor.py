"""`guilink doctor`: finds out why there is no picture. Checks one thing after the other, from this computer's
network to a button press, and names the cause and the remedy of the first fault."""
from __future__ import annotations

import argparse
import ipaddress
import json
import socket
import struct
import subprocess
import time
from contextlib import closing
from typing import Any, Callable

from guilink import check_arguments
from guilink.companion import LINK_SILENCE, Companion
from guilink.discovery import DISCOVERY_PORT
from guilink.link import HeardDevice, LinkError, PortsTakenError
from guilink.picture import DamagedPictureError, decode
from guilink.ports import LINK_PORT

LIMIT = 8.0          # s to wait for a connection, an answer or an image
BROADCASTS = 4.0     # s to wait for a broadcast; a device broadcasts once a second
NOBODY = "nobody"    # no device has this identity, because an identity has 5 characters
IMAGES = 3.0         # s during which images are counted
SLOW = 1.0           # s; a slower answer counts as a fault, because a healthy network needs milliseconds
JUMP = 0.5           # s; if the system clock and the monotonic clock drift apart by more, someone has set the clock
POLL = 0.02          # s between two checks of a condition
DEVICE_PORT = 3153   # UDP port from which a device broadcasts
ETH_IPV4 = 0x0800


class DiagnosisError(Exception):
    """The first fault: what is wrong, why, and what to do."""

    def __init__(self, what: str, cause: str, remedy: str):
        super().__init__(what)
        self.what, self.cause, self.remedy = what, cause, remedy


class Sniffer:
    """Sees packets even if a firewall drops them. Needs root; otherwise sees nothing, and `allowed` is False."""

    def __init__(self) -> None:
        self.seen: set[tuple[str, int]] = set()  # protocol and destination port
        self.allowed = True
        try:
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(ETH_IPV4))
            self._socket.setblocking(False)
        except PermissionError:
            self.allowed = False

    def look(self) -> set[tuple[str, int]]:
        while self.allowed:
            try:
                packet, where = self._socket.recvfrom(2048)
            except BlockingIOError:
                break
            if where[2] == socket.PACKET_OUTGOING or len(packet) < 24:
                continue
            start = (packet[0] & 15) * 4
            name = {6: "tcp", 17: "udp"}.get(packet[9])
            if name and len(packet) >= start + 4:
                self.seen.add((name, struct.unpack_from(">H", packet, start + 2)[0]))
        return self.seen


class Doctor:
    def __init__(self, options: argparse.Namespace):
        self.findings: list[dict[str, str]] = []
        self._options = options
        self._sniffer = Sniffer()

    def examine(self) -> None:
        """Raises DiagnosisError at the first fault."""
        clock = time.time() - time.monotonic()
        subnets = own_subnets()
        self._note("network", ", ".join(map(str, subnets)))
        try:
            with closing(Companion(NOBODY)) as listener:
                self._note("ports", f"UDP {DISCOVERY_PORT} and TCP {LINK_PORT} are free")
                device = self._find(listener, subnets)
            self._note("broadcasts", str(device))
            with closing(Companion(device.address)) as link:
                self._connect(link)
                self._note("connection", "the device has connected")
                until(lambda: link.status().linked or not link.connected)
                self._ask(link.ask, "requests", "right after it connected")
                self._look(link)
                self._ask(link.ask, "requests while images arrive", "while it showed images")
                if (button := self._options.press) is not None:
                    self._ask(lambda end: link.press(button, end), f"button {button}", "at a press")
        except PortsTakenError as error:
            raise DiagnosisError(str(error).split(";")[0], "another companion or viewer runs on this computer",
                                 "end it, or share the viewer's link") from error
        if abs(moved := time.time() - time.monotonic() - clock) > JUMP:
            raise DiagnosisError(f"the clock of this computer was set by {moved:.1f} s", "a time service, or a user",
                                 "let the companion measure time with a monotonic clock")

    def _note(self, step: str, text: str) -> None:
        self.findings.append({"step": step, "result": "ok", "text": text})
        if not self._options.json:
            print(f"ok      {step}: {text}", flush=True)

    def _find(self, listener: Companion, subnets: list[ipaddress.IPv4Interface]) -> HeardDevice:
        wanted = self._options.device

        def heard() -> list[HeardDevice]:
            self._sniffer.look()
            return [each for each in listener.devices() if wanted in (None, each.identity, each.address)]

        if not until(heard, BROADCASTS):
            if others := listener.devices():
                raise DiagnosisError(f"device {wanted} is not heard, only "
                                     + ", ".join(sorted({each.address for each in others})),
                                     "another identity or address", "name one of those, or none")
            if ("udp", DISCOVERY_PORT) in self._sniffer.look():
                raise DiagnosisError("broadcasts arrive, and this computer drops them",
                                     "a firewall on this computer", f"open UDP port {DISCOVERY_PORT}")
            if wanted and refused_at(wanted):
                raise DiagnosisError(f"{wanted} is on, and does not search", "another companion is linked to it",
                                     "end the other companion")
            why = "" if self._sniffer.allowed else ", or a firewall on this computer (run this as root to see)"
            raise DiagnosisError("no broadcast is heard", "the device is off, in another network, or linked to "
                                 f"another companion{why}",
                                 f"look at the device; end other companions; open UDP port {DISCOVERY_PORT}")
        device = heard()[0]
        if not any(ipaddress.IPv4Address(device.address) in each.network for each in subnets):
            raise DiagnosisError(f"the device at {device.address} is in none of this computer's subnets",
                                 "a wrong address or netmask here or there",
                                 f"give this computer an address near {device.address}")
        return device

    def _connect(self, link: Companion) -> None:
        if until(lambda: self._sniffer.look() and False or link.connected):
            return
        before = time.monotonic()
        again = until(lambda: any(each.heard > before for each in link.devices()), BROADCASTS)
        if ("tcp", LINK_PORT) in self._sniffer.look():
            raise DiagnosisError("connections arrive, and this computer drops them", "a firewall on this computer",
                                 f"open TCP port {LINK_PORT}")
        if again:
            raise DiagnosisError("the device is answered and does not connect",
                                 "a firewall drops the answer or the connection",
                                 f"open TCP port {LINK_PORT} here, and UDP port {DEVICE_PORT} on the way to the device")
        raise DiagnosisError("the device has stopped broadcasting and has not connected here",
                             "another companion has answered first, or the device is down", "end the other companion")

    def _ask(self, deliver: Callable[[float], object], step: str, when: str) -> None:
        """Sends the device something that it must answer."""
        began = time.monotonic()
        try:
            deliver(began + LIMIT)
        except LinkError as error:
            if time.monotonic() < began + LINK_SILENCE:
                raise closed(when) from error
            raise DiagnosisError("the device does not answer", "the device or its network is down",
                                 "look at the device's cable") from error
        trip = time.monotonic() - began
        self._note(step, f"answered within {trip * 1000:.0f} ms")
        if trip > SLOW:
            raise DiagnosisError(f"the device needs {trip:.1f} s to answer", "a slow network, or a busy computer",
                                 "use a cable; look for what loads the network")

    def _look(self, link: Companion) -> None:
        """Checks the first image, and how often images arrive."""
        until(lambda: link.pictures.number or not link.connected)
        if not link.pictures.number:
            if not link.connected:
                raise closed("before it showed an image")
            raise DiagnosisError("the link is up, and no image comes", "the device's core has drawn nothing, or draws "
                                 "too many colours for a frame", "start the GUI on the device")
        try:
            height, width = decode(link.pictures.recent()[-1].payload).shape
        except DamagedPictureError as error:
            raise DiagnosisError(f"the device sends a damaged image: {error}", "a fault in the device",
                                 "prove it with `guilink conform device`") from error
        self._note("image", f"{width} x {height} pixels")
        began = time.monotonic()
        ended = until(lambda: not link.connected, IMAGES)
        times = [began, *(each.time for each in link.pictures.recent() if each.time > began), time.monotonic()]
        gap = max(after - before for before, after in zip(times, times[1:]))
        if gap > 2 * SLOW:
            raise DiagnosisError(f"no image for {gap:.1f} s", "the device is down, or the network loses packets",
                                 "look at the cable; use a cable instead of radio")
        if ended:
            raise closed("while it showed images")
        self._note("rate", f"{(len(times) - 2) / IMAGES:.1f} images a second, {gap:.2f} s between two at most")


def add_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--device", metavar="ID", help="identity or address of the device")
    parser.add_argument("--press", metavar="N", type=int, choices=range(16), help="also press this button")
    parser.add_argument("--json", action="store_true", help="print the result as JSON")
    parser.set_defaults(run=doctor)


def doctor(options: argparse.Namespace) -> tuple[dict[str, Any], str]:
    check_arguments(options.device)
    examination = Doctor(options)
    try:
        examination.examine()
    except DiagnosisError as wrong:
        finding = {"result": "wrong", "text": wrong.what, "cause": wrong.cause, "remedy": wrong.remedy}
        text = f"WRONG   {wrong.what}\n  cause  {wrong.cause}\n  remedy {wrong.remedy}"
        return {"healthy": False, "findings": [*examination.findings, finding], "status": 1}, text
    return {"healthy": True, "findings": examination.findings}, "healthy"


def own_subnets() -> list[ipaddress.IPv4Interface]:
    addresses = json.loads(subprocess.run(["ip", "-json", "-4", "address"], stdout=subprocess.PIPE,
                                          check=True).stdout)
    found = [ipaddress.IPv4Interface(f"{info['local']}/{info['prefixlen']}") for link in addresses
             for info in link.get("addr_info", []) if "UP" in link["flags"] and link["ifname"] != "lo"]
    if not found:
        raise DiagnosisError("this computer has no IPv4 address", "no cable, or no address was assigned",
                             "connect it to the device's network")
    return found


def refused_at(address: str) -> bool:
    """Whether the host's discovery port is closed, as on a device that is not searching."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.settimeout(1)
        try:
            probe.connect((address, DEVICE_PORT))
            probe.send(b"")
            probe.recv(1)
        except ConnectionRefusedError:
            return True
        except OSError:  # no answer in time, or `address` is not an address
            pass
    return False


def until(condition: Callable[[], object], seconds: float = LIMIT) -> bool:
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() >= end:
            return False
        time.sleep(POLL)
    return True


def closed(when: str) -> DiagnosisError:
    return DiagnosisError(f"the device has closed the link {when}", "it was switched off, restarted, or has got a new "
                          "identity", "try again; look at the device's log")
