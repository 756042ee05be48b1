"""Test cases: how a device searches for a companion, gets a link, and searches again after a loss."""
from __future__ import annotations

import time

from guilink.conform.case import UntestableError, case
from guilink.conform.device_attempt import DeviceAttempt
from guilink.discovery import ANSWER
from guilink.wire import MessageType, frame

REQUEST = frame(MessageType.CONNECT_REQUEST)
ASK = frame(MessageType.IDENTITY_REQUEST)
FLOOD = 40       # number of answers to one broadcast
BUFFERS = 8 << 20  # bytes; approximate size of all socket buffers between the device and the kit
PER_HOST = 8     # number of connections that a device may open to one host
EARLY = 0.6      # s; how much earlier than a rule says the device may do something: keep-alives are 0.4 s apart
LATE = 1.5       # s; how much later
LINK_SILENCE = 3.0    # s; a device closes the link if nothing arrives for this long


@case("device", "DISC-1", "DISC-2")
def broadcasts(attempt: DeviceAttempt) -> None:
    """The device has no companion, so it must broadcast again and again."""
    heard = [attempt.broadcast().time for _ in range(4)]
    gap = sorted(after - before for before, after in zip(heard, heard[1:]))[1]
    attempt.require("DISC-1", gap <= 1 + LATE, f"a broadcast every {gap:.1f} s")


@case("device", "DISC-8")
def connects_to_who_answers(attempt: DeviceAttempt) -> None:
    """The companion answers from a port other than 3152; the device must connect."""
    attempt.candidate()


@case("device", "DISC-9", gentle=False)
def ignores_strange_answers(attempt: DeviceAttempt) -> None:
    """The companion sends datagrams that are almost an answer; the device must not connect."""
    strange = [ANSWER[:-1], ANSWER + b"\0", bytes([ANSWER[0] ^ 1]) + ANSWER[1:], ANSWER[:-1] + b"\1",
               b"", ANSWER[:40] + b"\5\0", ANSWER[:36] + b"\1" + ANSWER[37:], ANSWER * 2]
    broadcast = attempt.broadcast()
    for datagram in strange:
        attempt.answer(broadcast, datagram)
    for _ in range(3):
        attempt.broadcast()
    attempt.require("DISC-9", not attempt.channels, "a datagram that is not the answer leads to a connection")
    attempt.candidate()


@case("device", "LINK-14", "LINK-18")
def answers_a_candidate(attempt: DeviceAttempt) -> None:
    """The companion sends IdentityRequests before it is linked; the device must answer without images."""
    channel = attempt.candidate()
    channel.send(ASK * 3)
    answered = attempt.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= 3)
    attempt.require("LINK-14", answered and not channel.ended,
                    f"3 IdentityRequests, {channel.count(MessageType.IDENTITY)} answers")
    said = {payload for payload in channel.payloads(MessageType.IDENTITY)}
    broadcast = attempt.broadcasts[-1].data
    attempt.require("LINK-14", {frame(MessageType.IDENTITY, each) for each in said} == {broadcast},
                    "the answer differs from the broadcast", broadcast, b"".join(said))
    attempt.require("LINK-18", not channel.count(MessageType.IMAGE), "a candidate gets an image")


@case("device", "LINK-13")
def closes_a_silent_candidate(attempt: DeviceAttempt) -> None:
    """The companion sends nothing on a new connection; the device must close the connection."""
    channel = attempt.candidate()
    attempt.require("LINK-13", attempt.loop.until(lambda: channel.ended),
                    "a connection without a ConnectRequest stays open")
    attempt.candidate()


@case("device", "LINK-12", "LINK-14", "DISC-12", "FRAME-1", "FRAME-2", "FRAME-3", "FRAME-19")
def first_request_wins(attempt: DeviceAttempt) -> None:
    """The companion sends a ConnectRequest on one of two connections; this one must become the link."""
    both = attempt.loop.until(lambda: two_connections(attempt), 3 * attempt.loop.patience)
    attempt.require("DISC-8", both, "two answers to one broadcast do not lead to two connections")
    first, link = attempt.channels[-2:]
    attempt.keep_alive(link, MessageType.CONNECT_REQUEST, MessageType.CONTROL, MessageType.IDENTITY_REQUEST)
    closed = attempt.loop.until(lambda: first.ended or link.ended)
    attempt.require("LINK-12", closed and not link.ended, "the other connection is not closed"
                    if not link.ended else "the connection that asked is closed")
    attempt.ask(link, "LINK-14", "an IdentityRequest on the link is not answered")
    heard, answers = attempt.count_broadcasts(), link.count(MessageType.IDENTITY)
    alive = attempt.loop.until(lambda: link.ended or link.count(MessageType.IDENTITY) >= answers + 7)
    attempt.require("LINK-12", alive and not link.ended, "the link does not last")
    attempt.require("DISC-12", attempt.count_broadcasts() <= heard + 1, "the device broadcasts although it is linked")


def two_connections(attempt: DeviceAttempt) -> bool:
    """Answers each new broadcast twice. Returns whether two connections are open."""
    heard = len(attempt.broadcasts)
    if attempt.count_broadcasts() > heard:
        for _ in range(2):
            attempt.answer(attempt.broadcasts[-1])
    return len(attempt.channels) >= 2 and not any(each.ended for each in attempt.channels[-2:])


@case("device", "LINK-17", "TIME-9")
def companion_falls_silent(attempt: DeviceAttempt) -> None:
    """The companion falls silent; the device must close the link and search again."""
    channel = attempt.link()
    attempt.kept_alive.clear()
    began = time.monotonic()
    closed = attempt.loop.until(lambda: channel.ended, LINK_SILENCE + attempt.loop.patience)
    took = time.monotonic() - began
    attempt.require("TIME-9", closed, "the link stays open")
    attempt.require("TIME-9", LINK_SILENCE - EARLY <= took <= LINK_SILENCE + LATE,
                    f"the link is closed after {took:.1f} s without a byte")
    attempt.broadcast("LINK-17", "no broadcast after the companion fell silent")


@case("device", "LINK-17")
def link_ends_in_every_way(attempt: DeviceAttempt) -> None:
    """The companion closes or resets the link; the device must search again."""
    for way in ("close", "reset", "reset inside a frame"):
        channel = attempt.link("DISC-1" if way == "close" else "LINK-17")
        if "inside" in way:
            channel.send(REQUEST[:20])
        channel.close() if way == "close" else channel.reset()
    attempt.broadcast("LINK-17", "no broadcast after a reset inside a frame")
    attempt.ask(attempt.link("LINK-17"), "FRAME-13", "half a frame of the last link swallows a request of this one")


@case("device", "LINK-16", gentle=False)
def flood_of_answers(attempt: DeviceAttempt) -> None:
    """The companion answers one broadcast many times; the device must open at most 8 connections."""
    broadcast = attempt.broadcast()
    for _ in range(FLOOD):
        attempt.answer(broadcast)
    for _ in range(2):
        attempt.broadcast()
    attempt.require("LINK-16", len(attempt.channels) <= PER_HOST,
                    f"{FLOOD} answers to one broadcast lead to {len(attempt.channels)} connections")
    attempt.link()


@case("device", "TIME-10", gentle=False)
def companion_does_not_read(attempt: DeviceAttempt) -> None:
    """The companion sends keep-alives, but does not read; the device must search again."""
    channel = attempt.link()
    attempt.image(channel)
    began, before = time.monotonic(), sum(map(len, channel.payloads(MessageType.IMAGE)))
    attempt.image(channel, 3)
    rate = (sum(map(len, channel.payloads(MessageType.IMAGE))) - before) / (time.monotonic() - began)
    limit = 3 * attempt.loop.patience
    if rate * limit < BUFFERS:
        raise UntestableError(f"{rate / 1000:.0f} kB of images a second do not fill the buffers in {limit:g} s")
    channel.readable = False
    heard = attempt.count_broadcasts()
    found = attempt.loop.until(lambda: attempt.count_broadcasts() > heard, limit)
    attempt.require("TIME-10", found, "the link stays although nothing is read")
