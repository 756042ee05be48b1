"""Test cases: how a companion gets a link, keeps it, and gets a new link after a loss."""
from __future__ import annotations

from guilink.conform.case import UntestableError, case
from guilink.conform.companion_attempt import PLAIN, SECOND, CompanionAttempt
from guilink.conform.companion_plain import LINKED, SOON
from guilink.picture import encode
from guilink.wire import MessageType, frame

DEAD = 9               # number of connections that the device closes before the companion accepts them
REPEATS = 2            # number of further ConnectRequests that the companion must send
BLANK = 4.0            # s for which the device draws nothing
CONNECTIONS = 70       # number of connections that the device drops
SLOW = 1.5             # s; longest permitted time between two ConnectRequests, which should come every 0.5 s
LATE = 1.5             # s; how much later than a rule says the companion may do something
LOAD = 10              # number of images that the device sends without a pause
MANY = 40              # number of small images before them
STALL = 3.0            # s; if the device's send buffer stays full for this long, a device closes the link


@case("companion", "LINK-2", "LINK-4", "PRESS-1", needs=LINKED)
def repeats_its_request(attempt: CompanionAttempt) -> None:
    """The device sends its identity, but no image; the companion must repeat its ConnectRequest."""
    channel = attempt.candidate()
    for _ in range(2):
        channel.send(frame(MessageType.IDENTITY, attempt.device.identity))
    end = attempt.loop.clock() + BLANK
    attempt.loop.until(lambda: channel.ended or attempt.loop.clock() > end)
    attempt.forbid("LINK-4", channel.ended, "the companion closes a candidate on which answers arrive")
    times = [*channel.times(MessageType.CONNECT_REQUEST), attempt.loop.clock()]
    gap = max(after - before for before, after in zip(times, times[1:]))
    attempt.require("LINK-2", gap <= SLOW, f"no ConnectRequest for {gap:.1f} s, although no image has arrived")


@case("companion", "LINK-2", needs=LINKED)
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


@case("companion", "PRESS-1", "PRESS-2", "PRESS-6", needs=LINKED, fresh=True)
def presses_nothing_early(attempt: CompanionAttempt) -> None:
    """The device answers late and sends no image; the companion must not press a button yet."""
    channel = attempt.candidate()
    channel.answering = False
    attempt.press(3)
    # Texts keep the candidate from being silent.
    attempt.loop.every(SECOND / 3, lambda: channel.over or channel.send(frame(MessageType.DATA, b"text")))
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.CONNECT_REQUEST) >= REPEATS + 2)
    channel.answer()  # this answer belongs to the first IdentityRequest
    attempt.keep_alives(channel, 2)
    channel.close()
    channel = attempt.link()
    attempt.keep_alives(channel, 1)
    attempt.kept.add("PRESS-1")
    if attempt.can_press:
        for button in (0, 7, 15):
            before = len(channel.payloads(MessageType.BUTTON))
            attempt.press(button)
            if not attempt.loop.until(lambda: len(channel.payloads(MessageType.BUTTON)) > before):
                raise UntestableError("the command of --press has made no press")
        if attempt.can_choose:
            pressed = channel.payloads(MessageType.BUTTON)
            attempt.require("PRESS-2", {b"\0", b"\7", b"\17"} <= set(pressed), "asked to press 0, 7 and 15, the "
                            f"companion has pressed {b' '.join(pressed).hex()}")


@case("companion", "LINK-3", needs=LINKED)
def uses_the_live_one_of_ten(attempt: CompanionAttempt) -> None:
    """The device opens ten connections and closes nine; the companion must use the tenth."""
    attempt.candidate().close()  # now the companion has no open connection
    attempt.find()
    waiting = [attempt.device.connect("LINK-3") for _ in range(DEAD + 1)]
    for dead in waiting[:DEAD]:
        dead.close()
    asked = attempt.loop.until(lambda: waiting[-1].count(MessageType.CONNECT_REQUEST) or waiting[-1].ended)
    attempt.require("LINK-3", asked and not waiting[-1].ended, "nine connections have ended, and the "
                    "tenth gets no ConnectRequest")
    attempt.device.repeat(waiting[-1], PLAIN)
    attempt.require("LINK-3", attempt.keep_alives(waiting[-1]), "the tenth connection is not kept")


@case("companion", "LINK-4", needs=LINKED)
def leaves_silent_connections(attempt: CompanionAttempt) -> None:
    """The device opens three connections and is silent on two; the companion must use the third."""
    attempt.candidate().close()  # now the companion has no open connection
    attempt.find()
    channels = [attempt.device.connect("LINK-4") for _ in range(3)]
    began = attempt.loop.clock()
    for channel in channels[:2]:
        channel.answering = False
    asked = attempt.loop.until(lambda: channels[2].count(MessageType.CONNECT_REQUEST) or channels[2].ended)
    attempt.require("LINK-4", asked and not channels[2].ended,
                    "two connections are silent, and the third gets no ConnectRequest")
    took = channels[2].arrived[0].time - began
    attempt.require("LINK-4", took <= 2 * SECOND + LATE, "two connections are silent for a second each, and the third "
                    f"gets its ConnectRequest after {took:.1f} s")


@case("companion", "LINK-5", needs=LINKED)
def closes_further_connections(attempt: CompanionAttempt) -> None:
    """The device opens connections before the link and after it; the companion should close all but the link."""
    channel = attempt.candidate()
    second = attempt.device.connect()
    second.answering = False
    attempt.device.repeat(channel, PLAIN)
    attempt.forbid("LINK-5", not attempt.keep_alives(channel), "the companion closes the link, and keeps a second "
                   "connection")
    third, began = attempt.device.try_to_connect() or second, attempt.loop.clock()
    third.answering = False
    attempt.loop.until(lambda: second.ended and third.ended or attempt.loop.clock() > began + SECOND + LATE)
    attempt.final = not (second.ended and third.ended)
    attempt.require("LINK-5", second.ended, "a connection that waited when the link began stays open")
    attempt.require("LINK-5", third.ended, "a second connection stays open")
    attempt.forbid("LINK-5", not attempt.keep_alives(channel, 1), "the link ends with a second connection")


@case("companion", "LINK-6", needs=LINKED)
def device_has_dropped_the_link(attempt: CompanionAttempt) -> None:
    """The device drops the link silently and broadcasts; the companion must close the link and answer."""
    late = attempt.answer_to_lost_device(attempt.device, attempt.device.identity)
    attempt.require("LINK-6", not late, f"a broadcast of the link's device {late}")


@case("companion", "LINK-9", needs=(*LINKED, "device_has_dropped_the_link"))
def lost_device_has_changed(attempt: CompanionAttempt) -> None:
    """The device falls silent, then broadcasts a new identity or from a new address; the companion must answer."""
    if late := attempt.answer_to_lost_device(attempt.device, b"44444fw1.1"):
        attempt.fail("LINK-9", f"the broadcast of a new identity from the same address {late}")
        return
    # A companion may wait for a second of silence, because two devices may have the same identity.
    late = attempt.answer_to_lost_device(attempt.other_device(), attempt.device.identity, tries=3)
    attempt.require("LINK-9", not late, f"the broadcast of the same identity from a new address {late}")


@case("companion", "LINK-7", needs=LINKED)
def late_broadcast_of_an_old_search(attempt: CompanionAttempt) -> None:
    """The device broadcasts right after its first image; the companion must keep the link."""
    channel = attempt.link()
    attempt.loop.serve()
    for _ in range(2):
        attempt.device.broadcast()
    attempt.require("LINK-7", attempt.keep_alives(channel), "the companion closes the link")


@case("companion", "TIME-2", "TIME-4", gentle=False, needs=LINKED)
def reads_and_speaks_under_load(attempt: CompanionAttempt) -> None:
    """The device sends images without a pause; the companion must read them all and send keep-alives."""
    images, channel = list(attempt.large_images(LOAD)), attempt.link()
    attempt.keep_alives(channel, 1)
    channel.stall = STALL
    channel.send(frame(MessageType.IMAGE, encode(PLAIN)) * MANY)
    for i, payload in enumerate(images):
        taken = attempt.device.show_payload(channel, payload)
        attempt.final = not (taken or channel.ended)
        attempt.require("TIME-4", taken or channel.ended, f"image {i}: nothing is read for {STALL:.0f} s")
        attempt.forbid("TIME-4", channel.ended, f"the companion closes the link at image {i}")
        attempt.loop.serve(0)
    attempt.require("TIME-4", attempt.keep_alives(channel), f"the companion closes the link after {LOAD} images")


@case("companion", "LINK-3", needs=(*LINKED, "reads_and_speaks_under_load"))
def stream_ends(attempt: CompanionAttempt) -> None:
    """The device ends its stream, but goes on reading; the companion must close the link."""
    channel = attempt.link()
    attempt.keep_alives(channel, 1)
    channel.half_close()
    attempt.require("LINK-3", attempt.loop.until(lambda: channel.ended, SOON),
                    "the companion does not close a link whose stream has ended")


@case("companion", "LINK-3", "LINK-10", gentle=False, needs=LINKED)
def a_long_life_in_seconds(attempt: CompanionAttempt) -> None:
    """The device drops seventy connections; the companion must get a new link each time."""
    for i in range(CONNECTIONS):
        channel = attempt.candidate()
        if i % 10 == 0:
            attempt.device.show(channel, PLAIN)
        attempt.loop.serve(0)
        channel.close() if i % 2 else channel.reset()
    attempt.require("LINK-3", attempt.keep_alives(attempt.link()), f"the companion closes link {CONNECTIONS + 1}")
    attempt.kept.add("LINK-10")
