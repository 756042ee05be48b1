"""Test cases: how a companion answers the broadcasts of devices."""
from __future__ import annotations

from guilink.conform.case import case
from guilink.conform.companion_trial import Trial
from guilink.conform.scripted_device import ANSWER
from guilink.conform.stage import UdpSocket
from guilink.wire import HEADER, START, MessageType, frame

BROADCASTS = 4
LARGEST = 1472  # bytes; the largest broadcast that fits into one Ethernet frame


@case("companion", "DISC-3", "DISC-4", "DISC-5", "DISC-7", "LINK-1")
def answers_a_broadcast(trial: Trial) -> None:
    """The device broadcasts; the companion must answer, accept the connection, and send a ConnectRequest."""
    trial.candidate()


@case("companion", "DISC-5")
def answers_every_broadcast(trial: Trial) -> None:
    """The device broadcasts several times in a row; the companion must answer each broadcast."""
    trial.find()
    for number in range(BROADCASTS):
        before = trial.device.answers
        trial.device.call()
        trial.judge.require("DISC-5", trial.stage.until(lambda: trial.device.answers > before),
                            f"broadcast {number + 2} is not answered")


@case("companion", "DISC-5")
def answers_overlapping_searches(trial: Trial) -> None:
    """The device sends several broadcasts at once; the companion must answer each of them."""
    trial.find()
    before = trial.device.answers
    for _ in range(BROADCASTS):
        trial.device.call()
    trial.judge.require("DISC-5", trial.stage.until(lambda: trial.device.answers >= before + BROADCASTS),
                        f"{BROADCASTS} broadcasts at once, {trial.device.answers - before} answers")


@case("companion", "DISC-5")
def answers_after_a_connection_was_given_up(trial: Trial) -> None:
    """The device closes a connection and broadcasts again; the companion must answer."""
    trial.candidate().close()
    trial.find()
    trial.candidate(find=False).close()
    trial.find()


@case("companion", "DISC-5")
def answers_as_a_candidate(trial: Trial) -> None:
    """The device broadcasts again before the connection is the link; the companion must answer."""
    channel = trial.candidate()
    for _ in range(2):
        before = trial.device.answers
        trial.device.call()
        answered = trial.stage.until(lambda: trial.device.answers > before or channel.ended)
        trial.judge.require("DISC-5", answered, "a broadcast is not answered while a connection is open that has "
                            "shown no image")


@case("companion", "DISC-6", "LINK-10")
def ignores_strange_datagrams(trial: Trial) -> None:
    """The device sends strange datagrams and a broadcast; the companion must answer only the broadcast."""
    identity = frame(MessageType.IDENTITY, trial.device.identity)
    wrong_checksum = bytearray(identity)
    wrong_checksum[-1] ^= 1
    strange = {
        "an empty datagram": b"", "noise": bytes(range(256)), "half a header": identity[:20],
        "a cut identity": identity[:-1], "a wrong checksum": bytes(wrong_checksum),
        "an identity of 4 bytes": frame(MessageType.IDENTITY, b"1111"),
        "a ConnectRequest": ANSWER, "a ControlMessage": frame(MessageType.CONTROL),
        "an endless length": HEADER.pack(START, 0, 0xFFFFFFFF, MessageType.IDENTITY),
    }
    trial.find()
    sockets = {}
    for what, datagram in strange.items():
        sockets[what] = UdpSocket(trial.stage, (trial.device.address, 0))
        sockets[what].send(datagram, (trial.broadcast, 3152))
    trial.find()
    trial.judge.kept.add("LINK-10")
    for what, udp in sockets.items():
        trial.judge.require("DISC-6", not udp.arrived, f"{what} is answered", b"", strange[what])


@case("companion", "DISC-11")
def accepts_a_long_version(trial: Trial) -> None:
    """The device sends the largest broadcast that fits an Ethernet frame; the companion must answer."""
    trial.find()
    trial.device.identity = b"11111" + b"v" * (LARGEST - HEADER.size - 5)
    before = trial.device.answers
    for _ in range(2):
        trial.device.call()
    trial.judge.require("DISC-11", trial.stage.until(lambda: trial.device.answers > before),
                        f"a broadcast of {LARGEST} bytes is not answered")


@case("companion", "DISC-10")
def second_device_calls_while_linked(trial: Trial) -> None:
    """Another device broadcasts while the companion is linked; the companion must stay linked."""
    channel = trial.link()
    linked = trial.keep_alives(channel)
    other = trial.other_device()
    for _ in range(3):
        other.call()
        linked = linked and trial.keep_alives(channel, 1)
    trial.judge.refuse("DISC-10", not linked, "the link ends when another device broadcasts")
    trial.judge.require("DISC-10", not other.answers, "the other device is answered")


@case("companion", "LINK-9")
def device_returns_with_a_new_identity(trial: Trial) -> None:
    """The device closes the link and broadcasts a new identity; the companion must answer."""
    channel = trial.link()
    trial.keep_alives(channel)
    channel.close()
    trial.device.identity = b"33333fw1.1"
    trial.judge.require("LINK-9", trial.device.call_until_answered(), "the new identity is not answered")


@case("companion", "LINK-9")
def lost_device_has_a_new_identity(trial: Trial) -> None:
    """The device falls silent, then broadcasts a new identity; the companion must answer."""
    late = trial.answer_to_lost_device(trial.candidate(), b"44444fw1.1")
    trial.judge.require("LINK-9", not late, f"the new identity from the same address {late}")
