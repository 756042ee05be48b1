"""Test cases: how a companion gets a link, keeps it, and gets a new link after a loss."""
from __future__ import annotations

import time

import numpy as np

from guilink.conform.case import case
from guilink.conform.companion_attempt import PLAIN, SECOND, LINK_SILENCE, CompanionAttempt
from guilink.conform.event_loop import Channel
from guilink.picture import encode
from guilink.wire import MessageType, frame

DEAD = 9               # number of connections that the device closes before the companion accepts them
REPEATS = 3            # number of further ConnectRequests that the companion must send
KEEP_ALIVES = 5        # number of ControlMessages to wait for
MUST_GAP = 2.0         # s; longest permitted time between two ControlMessages
SHOULD_GAP = 1.0       # s; the kit warns if the typical time between two ControlMessages is longer
LOAD = 120             # number of images that the device sends without a pause
STALL = 3.0            # s; if the device's send buffer stays full for this long, a device closes the link


@case("companion", "LINK-1", "LINK-2")
def repeats_its_request(attempt: CompanionAttempt) -> None:
    """The device sends its identity, but no image; the companion must repeat its ConnectRequest."""
    channel = attempt.candidate()
    for _ in range(2):
        channel.send(frame(MessageType.IDENTITY, attempt.device.identity))
    again = channel.count(MessageType.CONNECT_REQUEST) + REPEATS
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONNECT_REQUEST) >= again)
    attempt.require("LINK-2", channel.count(MessageType.CONNECT_REQUEST) >= again,
                    f"{channel.count(MessageType.CONNECT_REQUEST)} ConnectRequests in all, although no "
                    "image has arrived")


@case("companion", "LINK-2")
def damaged_image_is_no_link(attempt: CompanionAttempt) -> None:
    """The device sends an image with a wrong checksum; the companion must repeat its ConnectRequest."""
    channel = attempt.candidate()
    damaged = bytearray(frame(MessageType.IMAGE, encode(PLAIN)))
    damaged[-1] ^= 1
    channel.send(bytes(damaged))
    attempt.keep_alives(channel, 1)
    again = channel.count(MessageType.CONNECT_REQUEST) + REPEATS
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONNECT_REQUEST) >= again)
    attempt.require("LINK-2", channel.count(MessageType.CONNECT_REQUEST) >= again,
                    "no ConnectRequest follows an image with a wrong checksum")


@case("companion", "PRESS-1", "PRESS-2")
def presses_nothing_early(attempt: CompanionAttempt) -> None:
    """Until the device sends an answer or an image, the companion must not send a ButtonMessage."""
    channel = attempt.candidate()
    channel.answering = False
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) >= 2, SECOND)
    channel.close()
    channel = attempt.candidate()
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONNECT_REQUEST) > REPEATS)
    channel.close()
    attempt.keep_alives(attempt.link())
    attempt.kept.add("PRESS-1")


@case("companion", "LINK-3")
def uses_the_live_one_of_ten(attempt: CompanionAttempt) -> None:
    """The device opens ten connections and closes nine; the companion must use the tenth."""
    attempt.candidate().close()  # now the companion has no open connection
    attempt.find()
    waiting = [attempt.device.connect() for _ in range(DEAD + 1)]
    for dead in waiting[:DEAD]:
        dead.close()
    asked = attempt.loop.until(lambda: waiting[-1].count(MessageType.CONNECT_REQUEST) or waiting[-1].ended)
    attempt.require("LINK-3", asked and not waiting[-1].ended, "nine connections have ended, and the "
                    "tenth gets no ConnectRequest")
    attempt.device.repeat(waiting[-1], PLAIN)
    attempt.require("LINK-3", attempt.keep_alives(waiting[-1]), "the tenth connection is not kept")


@case("companion", "LINK-4")
def leaves_silent_connections(attempt: CompanionAttempt) -> None:
    """The device opens three connections and is silent on two; the companion must use the third."""
    attempt.candidate().close()  # now the companion has no open connection
    attempt.find()
    channels = [attempt.device.connect() for _ in range(3)]
    for channel in channels[:2]:
        channel.answering = False
    asked = attempt.loop.until(lambda: channels[2].count(MessageType.CONNECT_REQUEST) or channels[2].ended)
    attempt.require("LINK-4", asked and not channels[2].ended,
                    "two connections are silent, and the third gets no ConnectRequest")


@case("companion", "LINK-5")
def closes_further_connections(attempt: CompanionAttempt) -> None:
    """The linked device opens a second connection; the companion should close this second connection."""
    channel = attempt.link()
    attempt.keep_alives(channel)
    second = attempt.device.connect()
    second.answering = False
    closed = attempt.loop.until(lambda: second.ended, attempt.loop.patience / 2)
    attempt.require("LINK-5", closed, "a second connection stays open")
    attempt.forbid("LINK-5", not attempt.keep_alives(channel), "the link ends with a second connection")


@case("companion", "LINK-6")
def device_has_dropped_the_link(attempt: CompanionAttempt) -> None:
    """The device drops the link silently and broadcasts; the companion must close the link and answer."""
    channel = attempt.candidate()
    late = attempt.answer_to_lost_device(channel, attempt.device.identity)
    attempt.require("LINK-6", not late, f"the link's device broadcasts, and {late}")
    attempt.require("LINK-6", attempt.loop.until(lambda: channel.ended),
                    "the link is kept although its device broadcasts")


@case("companion", "LINK-7")
def late_broadcast_of_an_old_search(attempt: CompanionAttempt) -> None:
    """The device broadcasts right after its first image; the companion must keep the link."""
    channel = attempt.link()
    attempt.loop.serve()
    for _ in range(2):
        attempt.device.broadcast()
    attempt.require("LINK-7", attempt.keep_alives(channel), "the link ends")


@case("companion", "LINK-3", "LINK-10")
def link_ends_in_every_way(attempt: CompanionAttempt) -> None:
    """The device closes or resets a connection; the companion must answer the next broadcast."""
    inside = frame(MessageType.IMAGE, encode(PLAIN))[:50]
    for way in ("close", "reset", "reset inside a frame"):
        channel = attempt.link()
        attempt.keep_alives(channel, 1)
        if "inside" in way:
            channel.send(inside)
        channel.close() if way == "close" else channel.reset()
        attempt.require("LINK-3", attempt.device.broadcast_until_answered(),
                        f"no broadcast is answered after {way}")
    attempt.device.connect().reset()
    attempt.candidate().close()
    attempt.kept |= {"LINK-3", "LINK-10"}


@case("companion", "TIME-1", "TIME-2", "TIME-3", "FRAME-1", "FRAME-2", "FRAME-3", "FRAME-10", "FRAME-11")
def keeps_the_link_alive(attempt: CompanionAttempt) -> None:
    """The device repeats its image; the companion must send keep-alives in time."""
    channel = attempt.link()
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) >= KEEP_ALIVES,
                       attempt.loop.patience)
    check_keep_alives(attempt, channel)


def check_keep_alives(attempt: CompanionAttempt, channel: Channel) -> None:
    now = time.monotonic()
    words = [each.time for each in channel.arrived] + [now]
    gap = max(after - before for before, after in zip(words, words[1:]))
    attempt.require("TIME-1", gap <= 3, f"{gap:.1f} s without a word")
    times = channel.times(MessageType.CONTROL)
    attempt.require("TIME-2", times, "no ControlMessage")
    gaps = [after - before for before, after in zip(times, [*times[1:], now])]
    attempt.require("TIME-2", max(gaps) <= MUST_GAP, f"{max(gaps):.1f} s without a ControlMessage")
    typical = float(np.median(gaps))
    attempt.require("TIME-3", typical <= SHOULD_GAP, f"a ControlMessage every {typical:.1f} s, not "
                    f"every 0.5 s (up to {SHOULD_GAP:.0f} s is tolerated)")


@case("companion", "TIME-2", "TIME-4", gentle=False)
def reads_and_speaks_under_load(attempt: CompanionAttempt) -> None:
    """The device sends images without a pause; the companion must read them all and send keep-alives."""
    channel = attempt.link()
    attempt.keep_alives(channel, 1)
    channel.stall = STALL
    random = np.random.default_rng(1)
    images = [encode(random.integers(0xF000, 0xFFFF, (64, 200), np.uint16)) for _ in range(4)]
    for i in range(LOAD):
        taken = attempt.device.show_payload(channel, images[i % 4])
        attempt.require("TIME-4", taken or channel.ended, f"image {i}: nothing is read for {STALL:.0f} s")
        attempt.forbid("LINK-3", channel.ended, f"the companion closes the link at image {i}")
        attempt.loop.serve(0)
    attempt.require("TIME-2", attempt.keep_alives(channel), "no keep-alive follows")
    check_keep_alives(attempt, channel)


@case("companion", "TIME-5", "TIME-6")
def device_falls_silent(attempt: CompanionAttempt) -> None:
    """The device sends one image and nothing more; the companion should close the link after 3 s."""
    channel = attempt.candidate()
    attempt.device.show(channel, PLAIN)
    channel.answering = False
    asked = channel.count(MessageType.IDENTITY_REQUEST)
    closed = attempt.loop.until(lambda: channel.ended, LINK_SILENCE + attempt.loop.patience)
    attempt.require("TIME-5", channel.count(MessageType.IDENTITY_REQUEST) > asked,
                    "no IdentityRequest, although nothing arrives")
    attempt.require("TIME-6", closed, "the link is kept although nothing arrives")


@case("companion", "LINK-3", "LINK-10", gentle=False)
def a_long_life_in_seconds(attempt: CompanionAttempt) -> None:
    """The device drops the link twelve times; the companion must get a new link each time."""
    for i in range(12):
        channel = attempt.candidate()
        for _ in range(20):
            attempt.device.show(channel, PLAIN)
        attempt.loop.serve(0)
        channel.close() if i % 2 else channel.reset()
    attempt.require("LINK-3", attempt.keep_alives(attempt.link()), "link 13 is not kept")
    attempt.kept.add("LINK-10")
