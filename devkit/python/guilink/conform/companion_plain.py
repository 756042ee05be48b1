"""Test cases: the plain things that all other cases for companions stand on."""
from __future__ import annotations

import struct
import time

import numpy as np

from guilink.conform.case import case
from guilink.conform.companion_attempt import LARGE, LINK_SILENCE, PLAIN, SECOND, SIZE, CompanionAttempt
from guilink.picture import Pixels, encode
from guilink.wire import MessageType, frame

EARLY = 0.5      # s; how much earlier than a rule says the companion may do something
SOON = 2.0       # s in which a companion notices the end of its link
KEEP_ALIVES = 4  # number of ControlMessages to wait for

FOUND = ("answers_a_broadcast",)
LINKED = (*FOUND, "keeps_the_link_alive", "link_ends_in_every_way")
SHOWN = (*LINKED, "shows_a_plain_image")  # what a case needs that looks at pictures


@case("companion", "DISC-3", "DISC-4", "DISC-5", "DISC-7", "LINK-1", fresh=True)
def answers_a_broadcast(attempt: CompanionAttempt) -> None:
    """The device broadcasts; the companion must answer, accept the connection, and send a ConnectRequest at once."""
    attempt.find()
    began = attempt.loop.clock()
    took = attempt.candidate(find=False).arrived[0].time - began
    attempt.require("LINK-1", took <= SECOND, f"the first message comes {took:.1f} s after the connection; by then, "
                    "a device has broadcast again and closed it")


@case("companion", "TIME-1", "TIME-2", "TIME-3", "FRAME-1", "FRAME-2", "FRAME-3", "FRAME-10", "FRAME-11", needs=FOUND)
def keeps_the_link_alive(attempt: CompanionAttempt) -> None:
    """The device repeats its image; the companion must keep the link, and send keep-alives in time."""
    channel = attempt.link()
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) >= KEEP_ALIVES,
                       attempt.loop.patience + LINK_SILENCE)
    attempt.forbid("TIME-1", channel.ended, "the companion closes the link, although the device repeats its image")


@case("companion", "LINK-3", "LINK-10", needs=LINKED[:2])
def link_ends_in_every_way(attempt: CompanionAttempt) -> None:
    """The device ends a connection in several ways; the companion must answer the next broadcast."""
    inside = frame(MessageType.IMAGE, encode(PLAIN))[:50]
    for way in ("close", "reset", "reset inside a frame"):
        channel = attempt.link()
        attempt.keep_alives(channel, 1)
        attempt.forbid("LINK-3", channel.ended, f"the companion closes the link before the {way}")
        if "inside" in way:
            channel.send(inside)
        channel.close() if way == "close" else channel.reset()
        began = attempt.loop.clock()
        attempt.require("LINK-3", attempt.device.broadcast_until_answered(),
                        f"no broadcast is answered after a {way} of the link")
        took = attempt.loop.clock() - began
        attempt.require("LINK-3", took <= SOON, f"{way}: a broadcast is answered only {took:.1f} s later")
    attempt.device.connect().reset()
    attempt.candidate().close()
    attempt.kept |= {"LINK-3", "LINK-10"}


@case("companion", "TIME-5", "TIME-6", "LINK-11", needs=LINKED)
def device_falls_silent(attempt: CompanionAttempt) -> None:
    """The device sends one image and nothing more; the companion should close the link after 3 s."""
    channel = attempt.candidate()
    attempt.device.show(channel, PLAIN)
    channel.answering = False
    began, quiet = attempt.loop.clock(), time.monotonic()
    closed = attempt.loop.until(lambda: channel.ended, LINK_SILENCE + attempt.loop.patience)
    ended = attempt.loop.clock() if channel.over is None else channel.over
    asked, alive = (sum(began + SECOND < each < began + LINK_SILENCE for each in channel.times(kind))
                    for kind in (MessageType.IDENTITY_REQUEST, MessageType.CONTROL))
    attempt.forbid("TIME-6", time.monotonic() < quiet + LINK_SILENCE - EARLY,
                   f"the link is closed after {ended - began:.1f} s without a byte already")
    attempt.require("TIME-5", asked >= max(1, alive - 1), f"nothing arrives, but only {asked} of {alive} keep-alives "
                    "come with an IdentityRequest")
    attempt.require("TIME-6", closed, "the link is kept although nothing arrives")
    attempt.require("TIME-6", ended - began <= LINK_SILENCE + 1,
                    f"the link is closed only after {ended - began:.1f} s without a byte")
    attempt.require("LINK-11", not channel.was_reset, "the companion resets a link on which it has read everything")


@case("companion", "PICT-1", "PICT-2", "PICT-3", "PICT-4", needs=LINKED)
def shows_a_plain_image(attempt: CompanionAttempt) -> None:
    """The device sends an image of 1024 x 768 pixels; the companion must show it."""
    channel, image = attempt.candidate(), plain_image()
    second: Pixels = np.bitwise_xor(image, np.uint16(0x0FFF))  # as many bytes, but other colours
    attempt.device.show(channel, image)
    if attempt.shown and not attempt.loop.until(lambda: attempt.shown.read() is not None):
        full = encode(second) + struct.pack("<2H", 1, second[-1, -1])
        for rule, other, what in (("PICT-2", full, "with a last pixel"),
                                  ("PICT-4", encode(np.full(LARGE, image[0, 0])), "of 1280 x 960 pixels")):
            attempt.device.show_payload(channel, other)
            shown = attempt.loop.until(lambda: attempt.shown.read() is not None)
            attempt.forbid("PICT-1", attempt.shows(image), "an image is shown only when the next one arrives")
            attempt.forbid(rule, shown, f"an image of 1024 x 768 pixels is not shown, but one {what} is")
    attempt.must_show("PICT-1", image, "an image of 1024 x 768 pixels", channel)
    attempt.device.show(channel, second)
    attempt.must_show("PICT-1", second, "a second image of the same size", channel)


def plain_image() -> Pixels:
    """Returns an opaque picture with 16 colours, in runs that do not end with the rows, and some of the longest."""
    colours = np.array([0xF000 | red << 8 | green << 4 | blue for red in (0, 3, 12, 15)
                        for green, blue in ((15, 1), (7, 8), (2, 15), (9, 4))], np.uint16)
    places = np.arange(SIZE[0] * SIZE[1])
    drawn: Pixels = colours[(places // 700 + places // 5001) % len(colours)].reshape(SIZE)
    drawn[300:450] = 0xF5A1
    drawn[-1, -2:] = 0xF26A
    return drawn
