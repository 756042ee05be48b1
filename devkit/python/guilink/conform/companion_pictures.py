"""Test cases: a companion shows images, and drops payloads that are not images."""
from __future__ import annotations

import struct

import numpy as np

from guilink.conform.case import RuleBrokenError, case
from guilink.conform.companion_attempt import LARGE, SIZE, CompanionAttempt
from guilink.conform.companion_plain import SHOWN
from guilink.conform.scripted_device import Connection
from guilink.conform.strict import Fault
from guilink.picture import Pixels, encode
from guilink.wire import MessageType, frame

MEMORY = 1 << 29  # bytes of memory that a companion may use for a picture
RESERVED = 1 << 31  # bytes of memory that it may reserve without using them
GROUP = 4   # number of damaged images for each keep-alive
PACE = 0.2  # s between two of them
AGAIN = 40  # how often the device sends all damaged images at once


def words(*values: int) -> bytes:
    return struct.pack(f"<{len(values)}H", *values)


def show(attempt: CompanionAttempt, rule: str, pixels: Pixels, what: str, payload: bytes | None = None) -> None:
    channel = attempt.candidate()
    attempt.device.show_payload(channel, encode(pixels) if payload is None else payload)
    attempt.must_show(rule, pixels, what, channel)


def large(*pixels: int) -> Pixels:
    """Returns a picture of 1024 x 768 pixels that begins with `pixels`, and repeats the last of them."""
    drawn = np.full(SIZE[0] * SIZE[1], pixels[-1], np.uint16)
    drawn[:len(pixels)] = pixels
    return drawn.reshape(SIZE)


@case("companion", "PICT-4", needs=SHOWN)
def size_changes(attempt: CompanionAttempt) -> None:
    """The device sends a small, a large and a small image; the companion must show each."""
    channel = attempt.candidate()
    for size, colour in ((SIZE, 0xF00F), (LARGE, 0xF0F0), (SIZE, 0xFF00)):
        wanted = np.full(size, colour, np.uint16)
        wanted[100:150, ::2] = 0xFFFF
        attempt.device.show(channel, wanted)
        attempt.must_show("PICT-4", wanted, f"{size[1]} x {size[0]} pixels", channel)


@case("companion", "PICT-1", needs=SHOWN)
def documented_image(attempt: CompanionAttempt) -> None:
    """The device sends the pixels of the image in docs/link-protocol.md, but 1024 x 768; the companion must show it."""
    show(attempt, "PICT-1", large(0x0ABC, 0, 0xF00F), "an image that begins with two transparent pixels")


@case("companion", "PICT-2", needs=SHOWN)
def last_pixel(attempt: CompanionAttempt) -> None:
    """The device omits the last pixel of an image; the companion must repeat the pixel before it."""
    wanted = large(0xF111)
    wanted[-1, -2:] = 0xF333
    show(attempt, "PICT-2", wanted, "an image whose last two pixels differ from all others")


@case("companion", "PICT-2", "LINK-10", needs=SHOWN)
def single_pixel(attempt: CompanionAttempt) -> None:
    """The device sends an image of one pixel, which has no run; the companion must show it, or drop it."""
    channel, before, single = attempt.candidate(), attempt.picture(), np.zeros((1, 1), np.uint16)
    attempt.device.show(channel, before)
    attempt.must_show("PICT-2", before, "an image", channel)
    attempt.device.show_payload(channel, words(1, 1))
    attempt.keep_alives(channel, 2)
    if not attempt.shows(before):
        attempt.must_show("PICT-2", single, "an image of one pixel", channel)
    attempt.forbid("LINK-10", channel.ended, "the companion closes the link after an image of one pixel")


@case("companion", "PICT-7", "LINK-10", needs=SHOWN)
def empty_run(attempt: CompanionAttempt) -> None:
    """The device sends an image with a run of length 0; the companion must show it, or drop it."""
    channel, before, after = attempt.candidate(), attempt.picture(), attempt.picture()
    attempt.device.show(channel, before)
    attempt.must_show("PICT-1", before, "an image", channel)
    attempt.device.show_payload(channel, words(1024, 768, 0, 0xF00F) + encode(after)[4:])
    attempt.keep_alives(channel, 2)
    attempt.forbid("LINK-10", channel.ended, "the companion closes the link after a run of length 0")
    if not attempt.shows(before):
        attempt.must_show("PICT-1", after, "an image with a run of length 0", channel)
    attempt.kept.add("PICT-7")


@case("companion", "PICT-3", needs=SHOWN)
def every_opaque_colour(attempt: CompanionAttempt) -> None:
    """The device sends an image with all 4096 opaque colours; the companion must show it exactly."""
    show(attempt, "PICT-3", large(*range(0xF000, 0x10000)), "all opaque colours")


@case("companion", "PICT-3", needs=SHOWN)
def every_transparency(attempt: CompanionAttempt) -> None:
    """The device sends an image with all alpha values but 0; the companion must show it exactly."""
    values = [alpha << 12 | colour for alpha in range(1, 16) for colour in (0xF00, 0x0F0, 0x00F, 0x123)]
    show(attempt, "PICT-3", large(*values), "all values of alpha")


@case("companion", "PICT-1", needs=SHOWN)
def longest_runs(attempt: CompanionAttempt) -> None:
    """The device sends an image with runs of 65535 pixels; the companion must show it exactly."""
    pixels = np.full(SIZE, 0xF123, np.uint16)
    pixels[500, 7] = 0xFABC
    show(attempt, "PICT-1", pixels, "runs of 65535 pixels")


# The twelve longest runs of an image of 1024 x 768 pixels, of which eleven pixels are left.
BEGUN = words(1024, 768, *[0xFFFF, 0xF00F] * 12)
DAMAGED = {
    "runs that are one pixel too short": BEGUN + words(10, 0xF00F),
    "runs that are one pixel too long": BEGUN + words(12, 0xF00F),
    "half of the runs": BEGUN[:28],
    "no runs": words(1024, 768),
    "a run without a pixel": BEGUN + words(11, 0xF00F, 1),
    "half a word": BEGUN + words(11, 0xF00F) + b"\1",
    "half a size": words(1024),
    "no bytes": b"",
    "far too long runs": words(1024, 768, *[0xFFFF, 0xF00F] * 100),
}
NO_SCREEN = {
    "a width of 0": words(0, 768, 15, 0xF00F),
    "a height of 0": words(1024, 0),
    "65535 x 65535 pixels": words(0xFFFF, 0xFFFF, *[0xFFFF, 0xF00F] * 0xFFFE, 0xFFFE, 0xF00F),
    "65535 x 65 pixels": words(0xFFFF, 65, *[0xFFFF, 0xF00F] * 64, 0xFFFE, 0xF00F),
}


@case("companion", "PICT-5", "LINK-10", needs=SHOWN)
def damaged_images(attempt: CompanionAttempt) -> None:
    """The device sends damaged images between good ones; the companion must show only the good ones."""
    channel = must_drop(attempt, "PICT-5", DAMAGED)
    used, good = attempt.subject.peak_memory(), attempt.picture()
    payloads = [*DAMAGED.values()] * AGAIN + [encode(good)]
    channel.send(b"".join(frame(MessageType.IMAGE, payload) for payload in payloads))
    attempt.must_show("PICT-5", good, f"an image behind {AGAIN * len(DAMAGED)} damaged ones", channel)
    grown = attempt.subject.peak_memory() - used
    if grown > MEMORY:  # only a warning, because the memory may be garbage that is collected later
        attempt.final = True
        attempt.warnings.append(Fault("LINK-10", f"{AGAIN * len(DAMAGED)} damaged images at once use {grown >> 20} MiB "
                                      "more memory"))


@case("companion", "PICT-6", "LINK-10", gentle=False, needs=SHOWN)
def images_of_no_screen(attempt: CompanionAttempt) -> None:
    """The device sends images of impossible sizes, up to 65535 x 65535; the companion must drop them."""
    must_drop(attempt, "PICT-6", NO_SCREEN)


def must_drop(attempt: CompanionAttempt, rule: str, payloads: dict[str, bytes]) -> Connection:
    """Sends the payloads in groups. If the companion breaks the rule, finds out which payload is to blame."""
    try:
        return drops_all(attempt, rule, payloads, GROUP)
    except RuleBrokenError as error:
        if error.fault.rule == rule and not attempt.final:
            attempt.device.connections[-1].close()
            try:
                drops_all(attempt, rule, payloads, 1)
            except RuleBrokenError as exact:
                if exact.fault.rule == rule:
                    raise
        raise


def drops_all(attempt: CompanionAttempt, rule: str, payloads: dict[str, bytes], group: int) -> Connection:
    """Sends a good image, all the payloads, another good image, and all the payloads again. The companion must show
    the good images only. Waits for a keep-alive behind each `group` of payloads. Returns the connection."""
    channel = attempt.candidate()
    good, last = attempt.picture(), attempt.picture()
    attempt.device.show(channel, good)
    if attempt.shown:
        attempt.must_show(rule, good, "an image", channel)
    used, reserved = attempt.subject.peak_memory(), attempt.subject.peak_reserved()
    names = [*payloads]
    for several in (names[at:at + group] for at in range(0, len(names), group)):
        for name in several:
            before, begun, payload = channel.count(MessageType.CONTROL), attempt.loop.clock(), payloads[name]
            attempt.device.show_payload(channel, payload)
            if name != several[-1]:
                attempt.loop.until(lambda: channel.ended or attempt.loop.clock() > begun + PACE)
        what = " or ".join(several)
        attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) > before
                           or attempt.subject.peak_memory() > used + MEMORY)
        for held, limit in ((attempt.subject.peak_memory() - used, MEMORY),
                            (attempt.subject.peak_reserved() - reserved, RESERVED)):
            attempt.final = held > limit  # the next attempt would begin with this peak
            attempt.forbid(rule, held > limit, f"{what}: {held >> 20} MiB of memory are reserved", payload[:64])
        attempt.forbid(rule, channel.ended, f"{what}: the companion closes the link", payload[:64])
        attempt.forbid(rule if rule == "PICT-6" else "LINK-10", channel.count(MessageType.CONTROL) == before,
                       f"{what}: the companion falls silent", payload[:64])
        if attempt.shown:
            attempt.must_show(rule, good, f"an image behind which the device has sent {what}", channel)
    attempt.kept.add("LINK-10")
    if attempt.shown:
        attempt.keep_alives(channel, 1)
        attempt.must_show(rule, good, "an image behind which the device has sent damaged ones", channel)
    channel.send(b"".join(frame(MessageType.IMAGE, payload) for payload in (encode(last), *payloads.values())))
    attempt.must_show(rule, last, "an image between damaged ones", channel)
    return channel
