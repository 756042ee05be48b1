"""Test cases: a companion receives split, joined and damaged frames, and must show the right image."""
from __future__ import annotations

from typing import Callable

import numpy as np

from guilink.conform.case import case
from guilink.conform.companion_attempt import PLAIN, CompanionAttempt, shown_of
from guilink.conform.scripted_device import Connection
from guilink.picture import Pixels, encode
from guilink.wire import HEADER, MAX_PAYLOAD, START, MessageType, frame

GARBAGE = bytes(range(1, 100))


def image(pixels: Pixels) -> bytes:
    return frame(MessageType.IMAGE, encode(pixels))


def shows_after(attempt: CompanionAttempt, rule: str, what: str, send: Callable[[Connection, bytes], object]) -> None:
    """Calls `send`, which sends an image among other bytes. The companion must then show this image."""
    channel, wanted = attempt.candidate(), attempt.picture()
    send(channel, image(wanted))
    attempt.forbid(rule, channel.ended, f"the companion closes the link: {what}")
    attempt.must_show(rule, wanted, what)
    attempt.kept.add("LINK-10")


@case("companion", "FRAME-4")
def frame_byte_by_byte(attempt: CompanionAttempt) -> None:
    """The device sends an identity and an image byte by byte; the companion must show the image."""
    identity = frame(MessageType.IDENTITY, attempt.device.identity)
    shows_after(attempt, "FRAME-4", "every byte on its own",
                lambda channel, data: channel.send_parts(*(bytes([b]) for b in identity + data)))


@case("companion", "FRAME-4")
def frames_cut_at_every_place(attempt: CompanionAttempt) -> None:
    """The device splits many images in two; the companion must show the whole image that follows."""
    channel, first, wanted = attempt.candidate(), image(PLAIN), attempt.picture()
    for cut in range(1, len(first)):
        channel.send_parts(first[:cut], first[cut:])
        attempt.loop.serve(0)
    channel.send(image(wanted))
    attempt.must_show("FRAME-4", wanted, "images cut in two")


@case("companion", "FRAME-4")
def frames_in_one_piece(attempt: CompanionAttempt) -> None:
    """The device sends an identity, a text and images at once; the companion must show the last image."""
    identity = frame(MessageType.IDENTITY, attempt.device.identity)
    shows_after(attempt, "FRAME-4", "several frames at once", lambda channel, data: channel.send(
        identity + frame(MessageType.DATA, b"text") + image(PLAIN) + data))


@case("companion", "FRAME-5")
def bytes_between_frames(attempt: CompanionAttempt) -> None:
    """The device sends stray bytes, then an image; the companion must show the image."""
    def send(channel: Connection, data: bytes) -> None:
        channel.answering = False
        # Wait until the companion has read all earlier bytes, so that the stray bytes arrive separately.
        attempt.keep_alives(channel, 1)
        channel.send(GARBAGE + image(PLAIN) + START[:20] + GARBAGE + START[:31] + data)

    shows_after(attempt, "FRAME-5", "bytes before the frame", send)


@case("companion", "FRAME-5")
def bytes_without_a_frame(attempt: CompanionAttempt) -> None:
    """The device sends 5000 stray bytes, then an image in two pieces; the companion must show the image."""
    shows_after(attempt, "FRAME-5", "a start sequence in two pieces behind other bytes",
                lambda channel, data: channel.send_parts(bytes(5000) + data[:10], data[10:],
                                                         between=lambda: attempt.keep_alives(channel, 1)))


@case("companion", "FRAME-6")
def wrong_checksum(attempt: CompanionAttempt) -> None:
    """The device sends a damaged image and a good one; the companion must show only the good one."""
    damaged = bytearray(image(PLAIN))
    damaged[HEADER.size - 10] ^= 1  # changes the checksum

    first = attempt.picture()

    def send(channel: Connection, data: bytes) -> None:
        channel.send(image(first))
        attempt.must_show("FRAME-6", first, "an image")
        channel.send(bytes(damaged) * 3)
        attempt.keep_alives(channel)
        attempt.must_show("FRAME-6", first, "a frame with a wrong checksum was shown")
        channel.send(bytes(damaged) + data)

    shows_after(attempt, "FRAME-6", "a good frame behind a wrong checksum", send)


@case("companion", "FRAME-7")
def absurd_length(attempt: CompanionAttempt) -> None:
    """The device sends impossible lengths, each before an image; the companion must show the last image."""
    def send(channel: Connection, data: bytes) -> None:
        for length in (0xFFFFFFFF, 0x80000000, MAX_PAYLOAD + 1):
            channel.send(HEADER.pack(START, 0, length, MessageType.IMAGE))
            channel.send(image(PLAIN))
        channel.send(data)

    shows_after(attempt, "FRAME-7", "a good frame behind a length of 4,294,967,295", send)


@case("companion", "FRAME-8")
def unknown_types(attempt: CompanionAttempt) -> None:
    """The device sends frames of types that a companion does not use; the companion must skip them."""
    others = [frame(kind, b"x" * kind) for kind in (0, 1, 4, 5, 7, 99, 255)]
    largest = frame(0xFFFF, image(PLAIN) * 3)  # the payload contains frames, which the companion must ignore

    first = attempt.picture()

    def send(channel: Connection, data: bytes) -> None:
        channel.send(image(first))
        attempt.must_show("FRAME-8", first, "an image")
        channel.send(b"".join(others) + largest)
        attempt.keep_alives(channel)
        attempt.must_show("FRAME-8", first, "the payload of an unknown type was read as frames")
        channel.send(data)

    shows_after(attempt, "FRAME-8", "a good frame behind unknown types", send)


@case("companion", "FRAME-12", gentle=False)
def damaged_length(attempt: CompanionAttempt) -> None:
    """The device sends a header with a wrong length, then images; the companion must show an image."""
    wanted = attempt.picture()
    channel = attempt.candidate()
    channel.send(HEADER.pack(START, 1, MAX_PAYLOAD, MessageType.IMAGE))
    repeat = image(wanted) * 200
    for _ in range(2 * MAX_PAYLOAD // len(repeat) + 1):
        channel.send(repeat)
    attempt.must_show("FRAME-12", wanted, "images of 2 MiB behind a damaged length")


@case("companion", "FRAME-9", gentle=False)
def largest_image(attempt: CompanionAttempt) -> None:
    """The device sends an image with the largest payload, 1,048,576 bytes; the companion must show it."""
    runs = MAX_PAYLOAD // 4 - 1
    pixels = np.where(np.arange(runs + 1) % 2, 0xF00F, 0xFF00).astype(np.uint16).reshape(512, 512)
    payload = encode(pixels)
    assert len(payload) == MAX_PAYLOAD
    channel = attempt.candidate()
    channel.send(frame(MessageType.IMAGE, payload))
    attempt.must_show("FRAME-9", shown_of(pixels), "an image of 1 MiB")


@case("companion", "LINK-8")
def half_a_frame_on_the_last_connection(attempt: CompanionAttempt) -> None:
    """A connection ends inside a frame; the companion must show the first image of the next connection."""
    channel = attempt.link()
    channel.send(HEADER.pack(START, 1, MAX_PAYLOAD // 2, MessageType.IMAGE) + bytes(100))
    attempt.keep_alives(channel, 1)
    channel.reset()
    channel, wanted = attempt.candidate(), attempt.picture()
    channel.send(image(wanted))
    attempt.must_show("LINK-8", wanted, "the first image of a connection, whose forerunner ended in a frame")
