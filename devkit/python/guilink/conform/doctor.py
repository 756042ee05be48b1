"""`guilink doctor`: finds out why there is no picture. Checks one thing after the other, from this computer's
network to a button press, and names the cause and the cure of the first fault."""
from __future__ import annotations

import argparse
import ipaddress
import json
import socket
import struct
import subprocess
import time
from dataclasses import dataclass, field
from typing import Any

from guilink.conform.case import Broken
from guilink.conform.device_trial import DeviceTrial, Wanted
from guilink.conform.stage import Stage
from guilink.link import GuilinkError
from guilink.picture import DamagedPicture, decode
from guilink.wire import MessageType, frame

BROADCASTS = 4.0     # s to wait for a broadcast; a device broadcasts once a second
IMAGES = 3.0         # s during which images are counted
SLOW = 1.0           # s; a slower answer counts as a fault, because a healthy network needs milliseconds
JUMP = 0.5           # s; if the system clock and the monotonic clock drift apart by more, someone has set the clock
ETH_IPV4 = 0x0800


class Sick(Exception):
    """The first fault: what is wrong, why, and what to do."""

    def __init__(self, what: str, cause: str, cure: str):
        super().__init__(what)
        self.what, self.cause, self.cure = what, cause, cure


@dataclass
class Visit:
    options: argparse.Namespace
    findings: list[dict[str, str]] = field(default_factory=list)

    def note(self, step: str, text: str) -> None:
        self.findings.append({"step": step, "result": "ok", "text": text})
        if not self.options.json:
            print(f"ok      {step}: {text}", flush=True)


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


def add_parser(commands: Any) -> None:
    text = "Find out why there is no picture."
    parser = commands.add_parser("doctor", help=text, description=text)
    parser.add_argument("--device", metavar="ID", help="identity or address of the device")
    parser.add_argument("--press", metavar="N", type=int, choices=range(16), help="also press this button")
    parser.add_argument("--json", action="store_true", help="print the result as JSON")
    parser.set_defaults(run=doctor)


def doctor(options: argparse.Namespace) -> tuple[dict[str, Any], str]:
    visit, stage = Visit(options), Stage(patience=8.0)
    clock = time.time() - time.monotonic()
    try:
        examine(visit, stage)
        if abs(moved := time.time() - time.monotonic() - clock) > JUMP:
            raise Sick(f"the clock of this computer was set by {moved:.1f} s", "a time service, or a user",
                       "let the companion measure time with a monotonic clock")
    except Sick as sick:
        visit.findings.append({"result": "wrong", "text": sick.what, "cause": sick.cause, "cure": sick.cure})
        text = f"WRONG   {sick.what}\n  cause {sick.cause}\n  cure  {sick.cure}"
        return {"healthy": False, "findings": visit.findings, "status": 1}, text
    finally:
        stage.close()
    return {"healthy": True, "findings": visit.findings}, "healthy"


def examine(visit: Visit, stage: Stage) -> None:
    subnets = own_subnets()
    visit.note("network", ", ".join(map(str, subnets)))
    sniffer = Sniffer()
    try:
        trial = DeviceTrial(stage, Wanted(visit.options.device))
    except GuilinkError as error:
        raise Sick(str(error).split(";")[0], "another companion or viewer runs on this computer",
                   "end it, or share the viewer's link") from error
    visit.note("ports", "UDP 3152 and TCP 8399 are free")
    hear(visit, trial, sniffer, subnets)
    try:
        channel = trial.candidate()
    except Broken as error:
        raise no_connection(trial, sniffer) from error
    visit.note("connection", "the device has connected")
    trial.speak(channel, MessageType.CONNECT_REQUEST, MessageType.CONTROL)
    ask(visit, stage, channel, "requests", "right after it connected")
    see(visit, trial, channel)
    ask(visit, stage, channel, "requests while images arrive", "while it showed images")
    if visit.options.press is not None:
        channel.send(frame(MessageType.BUTTON, bytes([visit.options.press])))
        ask(visit, stage, channel, f"button {visit.options.press}", "at a press")


def ask(visit: Visit, stage: Stage, channel: Any, step: str, when: str) -> None:
    """Sends an IdentityRequest. Its answer proves that the device has read everything that was sent before."""
    before, began = channel.count(MessageType.IDENTITY), time.monotonic()
    channel.send(frame(MessageType.IDENTITY_REQUEST))
    stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) > before)
    lost_if(channel.ended, when)
    if channel.count(MessageType.IDENTITY) == before:
        raise Sick("the device does not answer", "it has gone, or its network has", "look at the device's cable")
    trip = time.monotonic() - began
    visit.note(step, f"answered within {trip * 1000:.0f} ms")
    if trip > SLOW:
        raise Sick(f"the device needs {trip:.1f} s to answer", "a slow network, or a busy computer",
                   "use a cable; look for what loads the network")


def own_subnets() -> list[ipaddress.IPv4Interface]:
    addresses = json.loads(subprocess.run(["ip", "-json", "-4", "address"], stdout=subprocess.PIPE,
                                          check=True).stdout)
    found = [ipaddress.IPv4Interface(f"{info['local']}/{info['prefixlen']}") for link in addresses
             for info in link.get("addr_info", []) if "UP" in link["flags"] and link["ifname"] != "lo"]
    if not found:
        raise Sick("this computer has no IPv4 address", "no cable, or no address was assigned",
                   "connect it to the device's network")
    return found


def hear(visit: Visit, trial: DeviceTrial, sniffer: Sniffer, subnets: list[ipaddress.IPv4Interface]) -> None:
    if not trial.stage.until(lambda: sniffer.look() and False or trial.hear(), BROADCASTS):
        others = [each.sender[0] for each in trial.heard_all()]
        if others:
            raise Sick(f"device {visit.options.device} is not heard, only {', '.join(sorted(set(others)))}",
                       "another identity or address", "name one of those, or none")
        if ("udp", 3152) in sniffer.look():
            raise Sick("broadcasts arrive, and this computer drops them", "a firewall on this computer",
                       "open UDP port 3152")
        if visit.options.device and trial.refused_at(visit.options.device):
            raise Sick(f"{visit.options.device} is on, and does not search", "another companion is linked to it",
                       "end the other companion")
        why = "" if sniffer.allowed else ", or a firewall on this computer (run this as root to see)"
        raise Sick("no broadcast is heard", "the device is off, in another network, or linked to another "
                   f"companion{why}", "look at the device; end other companions; open UDP port 3152")
    said, address = trial.wanted.identity, ipaddress.IPv4Address(trial.wanted.address)
    if not any(address in each.network for each in subnets):
        raise Sick(f"the device at {address} is in none of this computer's subnets",
                   "a wrong address or netmask here or there", f"give this computer an address near {address}")
    visit.note("broadcasts", f"{said.id if said else '?'} ({said.firmware if said else '?'}) at {address}")


def no_connection(trial: DeviceTrial, sniffer: Sniffer) -> Sick:
    before = trial.hear()
    again = trial.stage.until(lambda: trial.hear() > before, BROADCASTS)
    if ("tcp", 8399) in sniffer.look():
        return Sick("connections arrive, and this computer drops them", "a firewall on this computer",
                    "open TCP port 8399")
    if again:
        return Sick("the device is answered and does not connect", "a firewall drops the answer or the "
                    "connection", "open TCP port 8399 here, and UDP port 3153 on the way to the device")
    return Sick("the device has stopped broadcasting and has not connected here",
                "another companion has answered first, or the device has gone", "end the other companion")


def see(visit: Visit, trial: DeviceTrial, channel: Any) -> None:
    trial.stage.until(lambda: channel.ended or channel.count(MessageType.IMAGE))
    lost_if(channel.ended, "before it showed an image")
    if not channel.count(MessageType.IMAGE):
        raise Sick("the link is up, and no image comes", "the device's core has drawn nothing, or draws too "
                   "many colours for a frame", "start the GUI on the device")
    try:
        height, width = decode(channel.payloads(MessageType.IMAGE)[-1]).shape
    except DamagedPicture as error:
        raise Sick(f"the device sends a damaged image: {error}", "a fault in the device",
                   "prove it with `guilink conform device`") from error
    visit.note("image", f"{width} x {height} pixels")
    end = time.monotonic() + IMAGES
    trial.stage.until(lambda: channel.ended or time.monotonic() > end, IMAGES + SLOW)
    lost_if(channel.ended, "while it showed images")
    times = [*channel.times(MessageType.IMAGE), time.monotonic()]
    gap = max((after - before for before, after in zip(times, times[1:])), default=IMAGES)
    if gap > 2 * SLOW:
        raise Sick(f"no image for {gap:.1f} s", "the device has gone, or the network loses packets",
                   "look at the cable; use a cable instead of radio")
    visit.note("rate", f"{(len(times) - 1) / IMAGES:.1f} images a second, {gap:.2f} s between two at most")


def lost_if(ended: bool, when: str) -> None:
    if ended:
        raise Sick(f"the device has closed the link {when}", "it was switched off, restarted, or has got a new "
                   "identity", "try again; look at the device's log")
