"""Test cases: how a device reads frames, sends images, and passes button presses on."""
from __future__ import annotations

import time

import numpy as np

from guilink.conform.case import UntestableError, case
from guilink.conform.device_link import ASK, REQUEST
from guilink.conform.device_attempt import DeviceAttempt, Eavesdropper
from guilink.conform.event_loop import Channel, UdpSocket
from guilink.wire import HEADER, MAX_PAYLOAD, START, MessageType, frame

GATE = 4.0   # s; how long the kit sends no ControlMessage. After 2 s, the device must send no new image.
AFTERMATH = 0.3  # s; how long to wait for surplus answers
REPEAT = 0.5  # s between two images, if the picture does not change
SIZES = {(1280, 960), (1024, 768)}


@case("device", "FRAME-13", gentle=False)
def frames_cut_and_joined(attempt: DeviceAttempt) -> None:
    """The companion sends split and joined IdentityRequests; the device must answer each one."""
    channel = silent_link(attempt)
    expected = channel.count(MessageType.IDENTITY) + 1
    channel.send_parts(*(bytes([byte]) for byte in ASK))
    attempt.require("FRAME-13", attempt.loop.until(lambda: channel.count(MessageType.IDENTITY) == expected),
                    "a request byte by byte is not answered")
    for cut in range(1, len(ASK), 5):
        channel.send_parts(ASK[:cut], ASK[cut:])
    expected += len(range(1, len(ASK), 5))
    channel.send(ASK * 5 + frame(MessageType.CONTROL) + ASK)
    expected += 6
    attempt.loop.until(lambda: channel.count(MessageType.IDENTITY) >= expected)
    attempt.require("FRAME-13", channel.count(MessageType.IDENTITY) == expected,
                    f"{channel.count(MessageType.IDENTITY)} answers to {expected} requests")


def silent_link(attempt: DeviceAttempt) -> Channel:
    """Returns a link on which the kit sends no keep-alives, so the test case must send them."""
    channel = attempt.link()
    attempt.kept_alive.clear()
    channel.send(frame(MessageType.CONTROL))
    attempt.ask(channel, "LINK-14", "an IdentityRequest on the link is not answered")
    # The device answers in order, so it has answered all earlier IdentityRequests by now.
    return channel


def answers(attempt: DeviceAttempt, channel: Channel, data: bytes, requests: int, rule: str, what: str) -> None:
    """Sends `data`, in which the device must find `requests` IdentityRequests. Then sends further IdentityRequests
    until the device answers one of them. If the device sends more answers than it got requests, the rule is broken."""
    before = channel.count(MessageType.IDENTITY)
    channel.send(data)
    attempt.loop.until(lambda: channel.ended or channel.delivered())
    if requests:
        attempt.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= before + requests)
    asked = 0
    while asked < 5 and channel.count(MessageType.IDENTITY) <= before + requests and not channel.ended:
        channel.send(ASK)
        asked += 1
        attempt.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) > before + requests, 1)
    got = channel.count(MessageType.IDENTITY) - before
    attempt.require(rule, got > requests and not channel.ended, f"{what}: the device answers no more",
                    b"", data[:64])
    # Wait for surplus answers. If a slow device sends them later, this check misses the fault.
    attempt.loop.until(lambda: channel.count(MessageType.IDENTITY) - before > requests + asked, AFTERMATH)
    got = channel.count(MessageType.IDENTITY) - before
    attempt.require(rule, got <= requests + asked, f"{what}: {got} answers to {requests + asked} "
                    "questions", b"", data[:64])


@case("device", "FRAME-14", "FRAME-15", "FRAME-18", gentle=False)
def damaged_frames(attempt: DeviceAttempt) -> None:
    """The companion sends damaged frames; the device must answer the IdentityRequest after each of them."""
    wrong = bytearray(frame(MessageType.DATA, ASK + b"."))
    wrong[32] ^= 1
    channel = silent_link(attempt)
    answers(attempt, channel, bytes(10) + ASK, 1, "FRAME-14", "10 bytes before a frame")
    answers(attempt, channel, START[:31] + ASK, 1, "FRAME-14", "the beginning of a start sequence")
    answers(attempt, channel, bytes(wrong) + ASK, 1, "FRAME-15", "a frame with a wrong checksum")
    for kind in (MessageType.IMAGE, MessageType.IDENTITY, 7, 0xFFFF):
        answers(attempt, channel, frame(kind, ASK) + ASK, 1, "FRAME-18", f"a frame of type {kind}")


@case("device", "FRAME-16", "FRAME-17", gentle=False)
def too_long_frames(attempt: DeviceAttempt) -> None:
    """The companion sends frames that are too long; the device must still answer IdentityRequests."""
    channel = silent_link(attempt)
    for length in (MAX_PAYLOAD - HEADER.size + 1, 0x7FFFFFFF, 0xFFFFFFFF):
        header = HEADER.pack(START, 0, length, MessageType.DATA)
        answers(attempt, channel, header + ASK, 0, "FRAME-16", f"a length of {length}")
    begun = HEADER.pack(START, 1, MAX_PAYLOAD - HEADER.size, MessageType.DATA) + bytes(MAX_PAYLOAD - 50)
    answers(attempt, channel, begun + bytes(600), 0, "FRAME-17", "more bytes than the buffer holds")


@case("device", "TIME-7", "PICT-8", "PICT-9", "PICT-10", "PICT-11", "LINK-18")
def shows_and_repeats(attempt: DeviceAttempt) -> None:
    """The device must send images on the link, and repeat the last image if there is no new one."""
    channel = attempt.link()
    attempt.image(channel, 4)
    for payload in channel.payloads(MessageType.IMAGE)[:50]:
        check_image(attempt, payload)
    attempt.kept |= {"TIME-7", "LINK-18"}


def check_image(attempt: DeviceAttempt, payload: bytes) -> None:
    require, start = attempt.require, payload[:64]
    require("PICT-8", len(payload) >= 4 and len(payload) % 4 == 0, f"an image of {len(payload)} bytes", b"", start)
    words = np.frombuffer(payload, "<u2")
    width, height = int(words[0]), int(words[1])
    lengths, pixels = words[2::2].astype(int), words[3::2]
    require("PICT-8", int(lengths.sum()) == width * height - 1,
            f"runs of {int(lengths.sum())} pixels in {width} x {height}", b"", start)
    require("PICT-11", (width, height) in SIZES, f"an image of {width} x {height} pixels", b"", start)
    require("PICT-9", not ((pixels[1:] < 0x1000) & (pixels[1:] != 0)).any(),
            "a transparent pixel is not sent as 0", b"", start)
    require("PICT-10", lengths.all(), "a run of length 0", b"", start)
    same = (pixels[1:] == pixels[:-1]) & (lengths[:-1] != 0xFFFF)
    require("PICT-10", not same.any(), "two runs of one pixel value", b"", start)


@case("device", "TIME-7", "TIME-8")
def gate_closes(attempt: DeviceAttempt) -> None:
    """While the companion sends no ControlMessages, the device must send no new image."""
    channel = attempt.link()
    attempt.image(channel, 3)
    attempt.loop.until(lambda: len(set(channel.payloads(MessageType.IMAGE))) > 1)
    if len(set(channel.payloads(MessageType.IMAGE))) < 2:
        raise UntestableError("the device's picture does not change by itself")
    attempt.kept_alive.clear()
    attempt.loop.every(0.5, lambda: channel.send(ASK))
    closed = time.monotonic()
    attempt.loop.until(lambda: channel.ended or time.monotonic() > closed + GATE, 2 * GATE)
    before = channel.count(MessageType.IMAGE)
    attempt.image(channel, 3)
    late = set(channel.payloads(MessageType.IMAGE)[before:])
    times = channel.times(MessageType.IMAGE)[before:]
    gap = max(after - before for before, after in zip(times, times[1:]))
    attempt.require("TIME-7", gap <= REPEAT + 1, f"no image for {gap:.1f} s")
    attempt.require("TIME-8", len(late) == 1, f"{len(late)} different images without a ControlMessage")
    attempt.kept_alive.add(channel.number)
    news = attempt.loop.until(lambda: channel.ended or channel.payloads(MessageType.IMAGE)[-1] not in late)
    attempt.require("TIME-8", news and not channel.ended, "no new image after a ControlMessage")


@case("device", "PRESS-3", "PRESS-4", gentle=False)
def presses_buttons(attempt: DeviceAttempt) -> None:
    """The companion sends valid and invalid ButtonMessages; the device must pass the right presses on."""
    attempt.count_broadcasts()
    attempt.broadcast()
    port = attempt.control_port()
    channel = silent_link(attempt)
    for button in range(16):
        press(attempt, channel, port, "PRESS-3", bytes([button]), [button])
    press(attempt, channel, port, "PRESS-4", b"", [])
    press(attempt, channel, port, "PRESS-4", bytes([16]), [15])
    press(attempt, channel, port, "PRESS-4", bytes([3]), [3])
    press(attempt, channel, port, "PRESS-4", bytes([255]), [3])
    press(attempt, channel, port, "PRESS-4", bytes([5, 6, 7]), [5])


def press(attempt: DeviceAttempt, channel: Channel, port: UdpSocket | Eavesdropper, rule: str, payload: bytes,
          expected: list[int]) -> None:
    """Sends a ButtonMessage, waits until the device has handled it, and checks which presses the device passed on."""
    before = len(port.arrived)
    attempt.ask(channel, rule, "no answer behind a press", frame(MessageType.BUTTON, payload))
    attempt.loop.until(lambda: len(port.arrived) >= before + len(expected))
    attempt.loop.serve()
    got = b" ".join(each.data for each in port.arrived[before:])
    wanted = b" ".join(b'[{"msg_id":%d,"param":"On"}]' % (100 + button) for button in expected)
    attempt.require(rule, got == wanted, f"a press of {payload.hex() or 'nothing'}", wanted, got)


@case("device", "PRESS-5", gentle=False)
def logs_texts(attempt: DeviceAttempt) -> None:
    """The companion sends a text; the device must write it to its log."""
    if not attempt.wanted.log:
        raise UntestableError("the device's log is unknown; use --log")
    text = f"conform {time.monotonic_ns()}"
    attempt.ask(attempt.link(), "PRESS-5", "no answer behind a text", frame(MessageType.DATA, text.encode()))
    attempt.require("PRESS-5", attempt.loop.until(lambda: f"USER {text}".encode() in attempt.wanted.logged()),
                    f"the log has no line 'USER {text}'")


@case("device", "LINK-15", gentle=False)
def candidate_cannot_press(attempt: DeviceAttempt) -> None:
    """The companion sends ButtonMessages before it is linked; the device must drop them."""
    attempt.broadcast()
    port = attempt.control_port()
    channel = attempt.candidate()
    channel.send(frame(MessageType.BUTTON, b"\1") + REQUEST + frame(MessageType.BUTTON, b"\2"))
    attempt.keep_alive(channel, MessageType.CONNECT_REQUEST, MessageType.CONTROL, MessageType.IDENTITY_REQUEST)
    attempt.loop.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= 3)
    if channel.ended:
        raise UntestableError("the device has given the connection up")
    attempt.require("LINK-15", not port.arrived, "a candidate's press is handed on", b"",
                    b" ".join(each.data for each in port.arrived))
    press(attempt, channel, port, "PRESS-3", b"\4", [4])
