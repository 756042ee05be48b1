"""Test cases: a companion receives split, joined and damaged frames, and must show the right image."""
from __future__ import annotations

import time
from typing import Callable

import numpy as np

from guilink.conform.case import UntestableError, case
from guilink.conform.companion_attempt import PLAIN, SIZE, CompanionAttempt
from guilink.conform.companion_plain import SHOWN
from guilink.conform.scripted_device import Connection
from guilink.picture import Pixels, encode
from guilink.wire import HEADER, MAX_PAYLOAD, START, MessageType, frame

PAUSE = 2.4  # s inside a frame; longer than the time between two keep-alives, shorter than the end of a silent link
GARBAGE = bytes(range(1, 100))


def image(pixels: Pixels) -> bytes:
    return frame(MessageType.IMAGE, encode(pixels))


def shows_after(attempt: CompanionAttempt, rule: str, what: str, send: Callable[[Connection, bytes], object]) -> None:
    """Calls `send`, which sends an image among other bytes. The companion must then show this image."""
    channel, wanted = attempt.candidate(), attempt.picture()
    send(channel, image(wanted))
    attempt.must_show(rule, wanted, what, channel)
    attempt.kept.add("LINK-10")


@case("companion", "FRAME-4", needs=SHOWN)
def frame_byte_by_byte(attempt: CompanionAttempt) -> None:
    """The device sends an identity and an image byte by byte; the companion must show the image."""
    identity = frame(MessageType.IDENTITY, attempt.device.identity)
    shows_after(attempt, "FRAME-4", "every byte on its own",
                lambda channel, data: channel.send_parts(*(bytes([b]) for b in identity + data)))


@case("companion", "FRAME-4", needs=SHOWN)
def frames_cut_at_every_place(attempt: CompanionAttempt) -> None:
    """The device splits identities and images in two; the companion must show each image."""
    channel, identity = attempt.candidate(), frame(MessageType.IDENTITY, attempt.device.identity)
    for cut in range(1, len(identity)):
        channel.send_parts(identity[:cut], identity[cut:])
        attempt.loop.serve(0)
    for cut in (1, HEADER.size - 1, HEADER.size, HEADER.size + 1, HEADER.size + 9):
        wanted = attempt.picture()
        data = image(wanted)
        channel.send_parts(data[:cut], data[cut:])
        attempt.must_show("FRAME-4", wanted, f"an image cut in two behind byte {cut}", channel)


@case("companion", "FRAME-4", "TIME-2", "TIME-6", needs=SHOWN)
def pause_inside_a_frame(attempt: CompanionAttempt) -> None:
    """The device pauses inside an image; the companion must send keep-alives, and then show the image."""
    channel, wanted = attempt.candidate(), attempt.picture()
    attempt.device.show(channel, PLAIN)
    attempt.keep_alives(channel, 1)
    data = image(wanted)
    channel.answering = False
    channel.send(data[:len(data) // 2])
    end = time.monotonic() + PAUSE
    attempt.loop.until(lambda: channel.ended or time.monotonic() > end, 2 * PAUSE)
    if channel.ended:
        attempt.fail("TIME-6", f"the companion closes the link within {PAUSE} s of silence, in the middle of an image")
        return
    channel.send(data[len(data) // 2:])
    attempt.must_show("FRAME-4", wanted, f"an image in two pieces, {PAUSE} s apart", channel)


@case("companion", "FRAME-4", needs=SHOWN)
def frames_in_one_piece(attempt: CompanionAttempt) -> None:
    """The device sends an identity, a text and images at once; the companion must show the last image."""
    def send(channel: Connection, data: bytes) -> None:
        channel.answering = False  # no later byte helps the companion to find the image
        attempt.keep_alives(channel, 1)
        channel.send(identity + frame(MessageType.DATA, b"text") + image(PLAIN) + data)

    identity = frame(MessageType.IDENTITY, attempt.device.identity)
    shows_after(attempt, "FRAME-4", "several frames at once", send)


@case("companion", "FRAME-5", needs=SHOWN)
def bytes_between_frames(attempt: CompanionAttempt) -> None:
    """The device sends stray bytes, then an image; the companion must show the image."""
    def send(channel: Connection, data: bytes) -> None:
        channel.answering = False
        # Wait until the companion has read all earlier bytes, so that the stray bytes arrive separately.
        attempt.keep_alives(channel, 1)
        channel.send(GARBAGE + image(PLAIN) + START[:20] + GARBAGE + START[:31] + data)

    shows_after(attempt, "FRAME-5", "bytes before the frame", send)


@case("companion", "FRAME-5", needs=SHOWN)
def bytes_without_a_frame(attempt: CompanionAttempt) -> None:
    """The device sends 5000 stray bytes, then an image in two pieces; the companion must show the image."""
    shows_after(attempt, "FRAME-5", "a start sequence in two pieces behind other bytes",
                lambda channel, data: channel.send_parts(bytes(5000) + data[:10], data[10:],
                                                         between=lambda: attempt.keep_alives(channel, 1)))


@case("companion", "FRAME-6", needs=SHOWN)
def wrong_checksum(attempt: CompanionAttempt) -> None:
    """The device sends a damaged image and a good one; the companion must show only the good one."""
    damaged = bytearray(image(PLAIN))
    damaged[HEADER.size - 10] ^= 1  # changes the checksum

    first = attempt.picture()

    def send(channel: Connection, data: bytes) -> None:
        channel.send(image(first))
        attempt.must_show("FRAME-6", first, "an image", channel)
        channel.send(bytes(damaged) * 3)
        attempt.keep_alives(channel, 2)
        attempt.must_show("FRAME-6", first, "an image with a wrong checksum behind another one", channel)
        channel.send(bytes(damaged) + data)

    shows_after(attempt, "FRAME-6", "a good frame behind a wrong checksum", send)


@case("companion", "FRAME-9", gentle=False, needs=SHOWN)
def largest_image(attempt: CompanionAttempt) -> None:
    """The device sends an image with the largest payload, 1,048,576 bytes; the companion must show it."""
    runs = MAX_PAYLOAD // 4 - 1
    lengths = np.full(runs, SIZE[0] * SIZE[1] // runs)
    lengths[:SIZE[0] * SIZE[1] - lengths.sum()] += 1
    pixels = np.repeat(np.where(np.arange(runs) % 2, 0xF00F, 0xFF00).astype(np.uint16), lengths).reshape(SIZE)
    payload = encode(pixels)
    assert len(payload) == MAX_PAYLOAD
    channel = attempt.candidate()
    channel.send(frame(MessageType.IMAGE, payload))
    attempt.must_show("FRAME-9", pixels, "an image of 1 MiB", channel)


@case("companion", "FRAME-7", needs=(*SHOWN, "largest_image"))
def absurd_length(attempt: CompanionAttempt) -> None:
    """The device sends impossible lengths, each before an image; the companion must show the last image."""
    def send(channel: Connection, data: bytes) -> None:
        for length in (0xFFFFFFFF, 0x80000000, MAX_PAYLOAD + 1):
            channel.send(HEADER.pack(START, 0, length, MessageType.IMAGE))
            channel.send(image(PLAIN))
        channel.send(data)

    shows_after(attempt, "FRAME-7", "a good frame behind a length of 4,294,967,295", send)


@case("companion", "FRAME-8", needs=SHOWN)
def unknown_types(attempt: CompanionAttempt) -> None:
    """The device sends frames of types that a companion does not use; the companion must skip them."""
    others = [frame(kind, b"x" * kind) for kind in (0, 1, 4, 5, 7, 99, 255)]
    others += [frame(0x0100 | kind, encode(PLAIN)) for kind in (MessageType.IMAGE, MessageType.IDENTITY)]
    largest = frame(0xFFFF, image(PLAIN) * 3)  # the payload contains frames, which the companion must ignore

    first = attempt.picture()

    def send(channel: Connection, data: bytes) -> None:
        channel.send(image(first))
        attempt.must_show("FRAME-8", first, "an image", channel)
        channel.send(b"".join(others) + largest)
        attempt.keep_alives(channel, 2)
        attempt.must_show("FRAME-8", first, "an image in the payload of an unknown type behind another one", channel)
        channel.send(data)

    shows_after(attempt, "FRAME-8", "a good frame behind unknown types", send)


@case("companion", "FRAME-12", gentle=False, needs=(*SHOWN, "largest_image"))
def damaged_length(attempt: CompanionAttempt) -> None:
    """The device sends a header with a wrong length, then images; the companion must show an image."""
    damaged = HEADER.pack(START, 1, MAX_PAYLOAD, MessageType.IMAGE) + b"".join(
        frame(MessageType.IMAGE, payload) for payload in attempt.large_images(5))
    shows_after(attempt, "FRAME-12", "an image behind a damaged length and 1.25 MiB of other images",
                lambda channel, data: channel.send(damaged + data))


@case("companion", "LINK-8", needs=SHOWN)
def half_a_frame_on_the_last_connection(attempt: CompanionAttempt) -> None:
    """A connection ends inside a frame; the companion must show the first image of the next connection."""
    channel = attempt.link()
    channel.send(HEADER.pack(START, 1, MAX_PAYLOAD // 2, MessageType.IMAGE) + bytes(100))
    attempt.keep_alives(channel, 1)
    channel.reset()
    channel, wanted = attempt.candidate(), attempt.picture()
    channel.send(image(wanted))
    attempt.must_show("LINK-8", wanted, "the first image of a connection, whose forerunner ended in a frame", channel)


@case("companion", "LINK-8", needs=SHOWN)
def frames_on_two_connections(attempt: CompanionAttempt) -> None:
    """The device sends half an image, then a frame on another connection; the companion must show the image."""
    channel, wanted = attempt.candidate(), attempt.picture()
    second = attempt.device.connect()
    data = image(wanted)
    channel.answering = False
    attempt.keep_alives(channel, 1)
    channel.send_parts(data[:70], b"")
    second.send(frame(MessageType.IDENTITY, attempt.device.identity))
    attempt.keep_alives(channel, 1)
    if channel.ended:
        raise UntestableError("the companion uses the newer of two candidates")
    channel.send(data[70:])
    attempt.must_show("LINK-8", wanted, "an image in two pieces, with a frame on another connection between them",
                      channel)


@case("companion", "LINK-10", needs=SHOWN)
def strange_texts(attempt: CompanionAttempt) -> None:
    """The device sends identities and texts of unusual sizes and bytes; the companion must show the next image."""
    channel, wanted = attempt.candidate(), attempt.picture()
    for text in (b"", b"1", b"1111", b"11111", b"%s%n%x" * 100, b"\0" * 20, bytes(range(256)), b"v" * MAX_PAYLOAD):
        for kind in (MessageType.IDENTITY, MessageType.DATA):
            channel.send(frame(kind, text))
        attempt.loop.serve(0)
    channel.send(image(wanted))
    attempt.must_show("LINK-10", wanted, "an image behind strange identities and texts", channel)
