"""Test cases: a companion shows images, and drops payloads that are not images."""
from __future__ import annotations

import struct

import numpy as np

from guilink.conform.case import case
from guilink.conform.companion_attempt import CompanionAttempt, shown_of
from guilink.picture import Pixels, encode
from guilink.wire import MessageType, frame

MEMORY = 1 << 29  # bytes of memory that a companion may use for a picture
LARGE, SMALL = (960, 1280), (768, 1024)


def words(*values: int) -> bytes:
    return struct.pack(f"<{len(values)}H", *values)


def show(attempt: CompanionAttempt, rule: str, pixels: Pixels, what: str, payload: bytes | None = None) -> None:
    channel = attempt.candidate()
    attempt.device.show_payload(channel, encode(pixels) if payload is None else payload)
    attempt.must_show(rule, pixels, what)


@case("companion", "PICT-1")
def documented_image(attempt: CompanionAttempt) -> None:
    """The device sends the image of 3 x 2 pixels in docs/link-protocol.md; the companion must show it."""
    wanted = np.array([[0xF0BC, 0, 0xF00F], [0xF00F] * 3], np.uint16)
    show(attempt, "PICT-1", wanted, "the image of 3 x 2 pixels")


@case("companion", "PICT-2")
def last_pixel(attempt: CompanionAttempt) -> None:
    """The device omits the last pixel of an image; the companion must repeat the pixel before it."""
    wanted = np.array([[0xF111, 0xF222], [0xF333, 0xF333]], np.uint16)
    show(attempt, "PICT-2", wanted, "an image of 2 x 2 pixels", words(2, 2, 1, 0xF111, 1, 0xF222, 1, 0xF333))


@case("companion", "PICT-2", "LINK-10")
def single_pixel(attempt: CompanionAttempt) -> None:
    """The device sends an image of one pixel, which has no run; the companion must show it."""
    show(attempt, "PICT-2", np.zeros((1, 1), np.uint16), "an image of one pixel", words(1, 1))


@case("companion", "PICT-3")
def every_opaque_colour(attempt: CompanionAttempt) -> None:
    """The device sends an image with all 4096 opaque colours; the companion must show it exactly."""
    pixels = shown_of(np.arange(0xF000, 0x10000, dtype=np.uint32).astype(np.uint16).reshape(64, 64))
    show(attempt, "PICT-3", pixels, "all opaque colours")


@case("companion", "PICT-3")
def every_transparency(attempt: CompanionAttempt) -> None:
    """The device sends an image with all alpha values but 0; the companion must show it exactly."""
    values = [alpha << 12 | colour for alpha in range(1, 16) for colour in (0xF00, 0x0F0, 0x00F, 0x123)]
    wanted = shown_of(np.array(values, np.uint16).reshape(6, 10))
    show(attempt, "PICT-3", wanted, "all values of alpha")


@case("companion", "PICT-1")
def longest_runs(attempt: CompanionAttempt) -> None:
    """The device sends an image with runs of 65535 pixels; the companion must show it exactly."""
    pixels = np.full(LARGE, 0xF123, np.uint16)
    pixels[500, 7] = 0xFABC
    show(attempt, "PICT-1", pixels, "runs of 65535 pixels")


@case("companion", "PICT-4")
def size_changes(attempt: CompanionAttempt) -> None:
    """The device sends a small, a large and a small image; the companion must show each."""
    channel = attempt.candidate()
    for size, colour in ((SMALL, 0xF00F), (LARGE, 0xF0F0), (SMALL, 0xFF00)):
        wanted = np.full(size, colour, np.uint16)
        wanted[100:150, ::2] = 0xFFFF
        attempt.device.show(channel, wanted)
        attempt.must_show("PICT-4", wanted, f"{size[1]} x {size[0]} pixels")


DAMAGED = {
    "runs that are too short": words(4, 4, 14, 0xF00F),
    "runs that are too long": words(4, 4, 16, 0xF00F),
    "no runs": words(4, 4),
    "a run without a pixel": words(4, 4, 15, 0xF00F, 1),
    "half a word": words(4, 4, 15, 0xF00F) + b"\1",
    "half a size": words(4),
    "no bytes": b"",
    "far too long runs": words(4, 4, *[0xFFFF, 0xF00F] * 100),
}
NO_SCREEN = {
    "a width of 0": words(0, 4, 15, 0xF00F),
    "a height of 0": words(4, 0),
    "65535 x 65535 pixels": words(0xFFFF, 0xFFFF, *[0xFFFF, 0xF00F] * 0xFFFE, 0xFFFE, 0xF00F),
    "65535 x 65 pixels": words(0xFFFF, 65, *[0xFFFF, 0xF00F] * 64, 0xFFFE, 0xF00F),
}


@case("companion", "PICT-5", "LINK-10")
def damaged_images(attempt: CompanionAttempt) -> None:
    """The device sends damaged images between good ones; the companion must show only the good ones."""
    must_drop(attempt, "PICT-5", DAMAGED)


@case("companion", "PICT-6", "LINK-10", gentle=False)
def images_of_no_screen(attempt: CompanionAttempt) -> None:
    """The device sends images of impossible sizes, up to 65535 x 65535; the companion must drop them."""
    must_drop(attempt, "PICT-6", NO_SCREEN)


def must_drop(attempt: CompanionAttempt, rule: str, payloads: dict[str, bytes]) -> None:
    """Sends a good image, all the payloads, another good image, and all the payloads again. The companion must show
    the good images only."""
    channel = attempt.candidate()
    good, last = attempt.picture(), attempt.picture()
    attempt.device.show(channel, good)
    if attempt.shown:
        attempt.must_show(rule, good, "an image")
    needed = attempt.subject.peak_memory()
    for what, payload in payloads.items():
        before = channel.count(MessageType.CONTROL)
        attempt.device.show_payload(channel, payload)
        attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) > before
                           or attempt.subject.peak_memory() > needed + MEMORY)
        held = max(0, attempt.subject.peak_memory() - needed)
        attempt.forbid(rule, held > MEMORY, f"{what}: {held >> 20} MiB of memory are reserved", payload[:64])
        silent = channel.ended or channel.count(MessageType.CONTROL) == before
        attempt.forbid(rule if rule == "PICT-6" else "LINK-10", silent,
                       f"{what}: the companion falls silent", payload[:64])
    attempt.kept.add("LINK-10")
    attempt.keep_alives(channel, 2)
    if attempt.shown:
        attempt.must_show(rule, good, f"{' or '.join(payloads)} was shown")
    channel.send(b"".join(frame(MessageType.IMAGE, payload) for payload in (encode(last), *payloads.values())))
    attempt.must_show(rule, last, f"an image between such ones ({held >> 20} MiB more memory than before are held)")
