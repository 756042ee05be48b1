"""Test cases: how a companion answers the broadcasts of devices."""
from __future__ import annotations

from guilink.conform.case import case
from guilink.conform.companion_attempt import SECOND, CompanionAttempt
from guilink.conform.companion_plain import FOUND, LINKED
from guilink.conform.event_loop import UdpSocket
from guilink.conform.private_network import BROADCAST
from guilink.discovery import ANSWER
from guilink.wire import HEADER, START, MessageType, frame

BROADCASTS = 4
AFTERMATH = 0.3  # s; how long to wait for surplus answers
LARGEST = 1472  # bytes; the largest broadcast that fits into one Ethernet frame


@case("companion", "DISC-4", "DISC-5", needs=FOUND)
def answers_every_broadcast(attempt: CompanionAttempt) -> None:
    """The device broadcasts several times in a row; the companion must answer each broadcast."""
    attempt.find()
    for number in range(BROADCASTS):
        before = attempt.device.answers
        attempt.device.broadcast()
        attempt.require("DISC-5", attempt.loop.until(lambda: attempt.device.answers > before),
                        f"broadcast {number + 2} is not answered")
    asked, before = attempt.device.broadcasts, attempt.device.answers
    attempt.loop.until(lambda: attempt.device.answers > max(asked, before), AFTERMATH)
    attempt.forbid("DISC-4", attempt.device.answers > max(asked, before),
                   f"{attempt.device.answers} answers to {asked} broadcasts")


@case("companion", "DISC-5", needs=FOUND)
def answers_overlapping_searches(attempt: CompanionAttempt) -> None:
    """The device sends several broadcasts at once; the companion must answer each of them."""
    attempt.find()
    before = attempt.device.answers
    for _ in range(BROADCASTS):
        attempt.device.broadcast()
    attempt.require("DISC-5", attempt.loop.until(lambda: attempt.device.answers >= before + BROADCASTS),
                    f"{BROADCASTS} broadcasts at once, {attempt.device.answers - before} answers")


@case("companion", "DISC-5", needs=FOUND)
def answers_after_a_connection_was_given_up(attempt: CompanionAttempt) -> None:
    """The device closes a connection and broadcasts again; the companion must answer."""
    attempt.candidate().close()
    attempt.find()
    attempt.candidate(find=False).close()
    attempt.find()


@case("companion", "DISC-5", needs=FOUND)
def answers_as_a_candidate(attempt: CompanionAttempt) -> None:
    """The device broadcasts again before the connection is the link; the companion must answer."""
    channel = attempt.candidate()
    for _ in range(2):
        before = attempt.device.answers
        attempt.device.broadcast()
        answered = attempt.loop.until(lambda: attempt.device.answers > before or channel.ended)
        attempt.require("DISC-5", answered, "a broadcast is not answered while a connection is open that has "
                        "shown no image")


@case("companion", "DISC-6", "LINK-10", needs=FOUND)
def ignores_strange_datagrams(attempt: CompanionAttempt) -> None:
    """The device sends strange datagrams and a broadcast; the companion must answer only the broadcast."""
    identity = frame(MessageType.IDENTITY, attempt.device.identity)
    wrong_checksum = bytearray(identity)
    wrong_checksum[-1] ^= 1
    strange = {
        "an empty datagram": b"", "noise": bytes(range(256)), "half a header": identity[:20],
        "a cut identity": identity[:-1], "an identity with another byte behind it": identity + b"1",
        "an identity with another byte before it": b"1" + identity, "a wrong checksum": bytes(wrong_checksum),
        "an identity of 4 bytes": frame(MessageType.IDENTITY, b"1111"),
        "a ConnectRequest": ANSWER, "a ControlMessage": frame(MessageType.CONTROL),
        "an ImageMessage": frame(MessageType.IMAGE, attempt.device.identity),
        "a DataMessage": frame(MessageType.DATA, attempt.device.identity),
        "an unknown type": frame(259, attempt.device.identity),
        "an endless length": HEADER.pack(START, 0, 0xFFFFFFFF, MessageType.IDENTITY),
    }
    attempt.find()
    sockets = {}
    for what, datagram in strange.items():
        sockets[what] = UdpSocket(attempt.loop, (attempt.device.address, 0))
        sockets[what].send(datagram, (BROADCAST, 3152))
    attempt.find()
    attempt.kept.add("LINK-10")
    for what, udp in sockets.items():
        attempt.require("DISC-6", not udp.arrived, f"{what} is answered", b"", strange[what])


@case("companion", "DISC-11", needs=FOUND)
def accepts_a_long_version(attempt: CompanionAttempt) -> None:
    """The device sends the largest broadcast that fits an Ethernet frame; the companion must answer."""
    attempt.find()
    attempt.device.identity = b"11111" + b"v" * (LARGEST - HEADER.size - 5)
    before = attempt.device.answers
    for _ in range(2):
        attempt.device.broadcast()
    attempt.require("DISC-11", attempt.loop.until(lambda: attempt.device.answers > before),
                    f"a broadcast of {LARGEST} bytes is not answered")


@case("companion", "DISC-10", needs=LINKED)
def second_device_calls_while_linked(attempt: CompanionAttempt) -> None:
    """Another device broadcasts while the companion is linked; the companion must stay linked."""
    channel = attempt.link()
    attempt.forbid("TIME-1", not attempt.keep_alives(channel), "the companion closes the link by itself")
    linked = True
    other = attempt.other_device()
    for _ in range(2):
        other.broadcast()
        linked = linked and attempt.keep_alives(channel, 1)
    attempt.forbid("DISC-10", not linked, "the companion closes the link when another device broadcasts")
    attempt.require("DISC-10", not other.answers, "the other device is answered")


@case("companion", "LINK-9", needs=LINKED)
def device_returns_changed(attempt: CompanionAttempt) -> None:
    """The device closes the link, and returns with another identity, version or address; the companion must answer."""
    first, moved = attempt.device, attempt.other_device(b"33333fw2.0")
    for device, identity, what in ((first, b"33333fw1.1", "a new identity"), (first, b"33333fw2.0", "a new version"),
                                   (moved, b"33333fw2.0", "a new address")):
        channel = attempt.link()
        # A companion that asks for the identity must have it before the link ends.
        attempt.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY_REQUEST) > 0, SECOND)
        attempt.keep_alives(channel, 1)
        channel.close()
        device.identity, attempt.device = identity, device
        answered = device.broadcast_until_answered()
        attempt.require("LINK-9", answered, f"{what} is not answered")
        if not answered:
            break
