"""Test cases: how a device reads frames, sends images, and passes button presses on."""
from __future__ import annotations

import time

import numpy as np

from guilink.conform.case import Untestable, case
from guilink.conform.device_link import ASK, REQUEST
from guilink.conform.device_trial import DeviceTrial
from guilink.conform.stage import Channel, UdpSocket
from guilink.wire import HEADER, MAX_PAYLOAD, START, MessageType, frame

GATE = 4.0   # s; how long the kit sends no ControlMessage. After 2 s, the device must send no new image.
AFTERMATH = 0.3  # s; how long to wait for surplus answers
SIZES = {(1280, 960), (1024, 768)}


@case("device", "FRAME-13", gentle=False)
def frames_cut_and_joined(trial: DeviceTrial) -> None:
    """The companion sends split and joined IdentityRequests; the device must answer each one."""
    channel = silent_link(trial)
    expected = channel.count(MessageType.IDENTITY) + 1
    channel.send_parts(*(bytes([byte]) for byte in ASK))
    trial.judge.require("FRAME-13", trial.stage.until(lambda: channel.count(MessageType.IDENTITY) == expected),
                        "a request byte by byte is not answered")
    for cut in range(1, len(ASK), 5):
        channel.send_parts(ASK[:cut], ASK[cut:])
    expected += len(range(1, len(ASK), 5))
    channel.send(ASK * 5 + frame(MessageType.CONTROL) + ASK)
    expected += 6
    trial.stage.until(lambda: channel.count(MessageType.IDENTITY) >= expected)
    trial.judge.require("FRAME-13", channel.count(MessageType.IDENTITY) == expected,
                        f"{channel.count(MessageType.IDENTITY)} answers to {expected} requests")


def silent_link(trial: DeviceTrial) -> Channel:
    """Returns a link on which the kit sends no keep-alives, so the test case must send them."""
    channel = trial.link()
    trial.speaking.clear()
    channel.send(frame(MessageType.CONTROL))
    trial.ask(channel, "LINK-14", "an IdentityRequest on the link is not answered")
    # The device answers in order, so it has answered all earlier IdentityRequests by now.
    return channel


def answers(trial: DeviceTrial, channel: Channel, data: bytes, requests: int, rule: str, what: str) -> None:
    """Sends `data`, in which the device must find `requests` IdentityRequests. Then sends further IdentityRequests
    until the device answers one of them. If the device sends more answers than it got requests, the rule is broken."""
    before = channel.count(MessageType.IDENTITY)
    channel.send(data)
    trial.stage.until(lambda: channel.ended or channel.delivered())
    if requests:
        trial.stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= before + requests)
    asked = 0
    while asked < 5 and channel.count(MessageType.IDENTITY) <= before + requests and not channel.ended:
        channel.send(ASK)
        asked += 1
        trial.stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) > before + requests, 1)
    got = channel.count(MessageType.IDENTITY) - before
    trial.judge.require(rule, got > requests and not channel.ended, f"{what}: the device answers no more",
                        b"", data[:64])
    # Wait for surplus answers. If a slow device sends them later, this check misses the fault.
    trial.stage.until(lambda: channel.count(MessageType.IDENTITY) - before > requests + asked, AFTERMATH)
    got = channel.count(MessageType.IDENTITY) - before
    trial.judge.require(rule, got <= requests + asked, f"{what}: {got} answers to {requests + asked} "
                        "questions", b"", data[:64])


@case("device", "FRAME-14", "FRAME-15", "FRAME-18", gentle=False)
def damaged_frames(trial: DeviceTrial) -> None:
    """The companion sends damaged frames; the device must answer the IdentityRequest after each of them."""
    wrong = bytearray(frame(MessageType.DATA, ASK + b"."))
    wrong[32] ^= 1
    channel = silent_link(trial)
    answers(trial, channel, bytes(10) + ASK, 1, "FRAME-14", "10 bytes before a frame")
    answers(trial, channel, START[:31] + ASK, 1, "FRAME-14", "the beginning of a start sequence")
    answers(trial, channel, bytes(wrong) + ASK, 1, "FRAME-15", "a frame with a wrong checksum")
    for kind in (MessageType.IMAGE, MessageType.IDENTITY, 7, 0xFFFF):
        answers(trial, channel, frame(kind, ASK) + ASK, 1, "FRAME-18", f"a frame of type {kind}")


@case("device", "FRAME-16", "FRAME-17", gentle=False)
def too_long_frames(trial: DeviceTrial) -> None:
    """The companion sends frames that are too long; the device must still answer IdentityRequests."""
    channel = silent_link(trial)
    for length in (MAX_PAYLOAD - HEADER.size + 1, 0x7FFFFFFF, 0xFFFFFFFF):
        header = HEADER.pack(START, 0, length, MessageType.DATA)
        answers(trial, channel, header + ASK, 0, "FRAME-16", f"a length of {length}")
    begun = HEADER.pack(START, 1, MAX_PAYLOAD - HEADER.size, MessageType.DATA) + bytes(MAX_PAYLOAD - 50)
    answers(trial, channel, begun + bytes(600), 0, "FRAME-17", "more bytes than the buffer holds")


@case("device", "TIME-7", "PICT-8", "PICT-9", "PICT-10", "PICT-11", "LINK-18")
def shows_and_repeats(trial: DeviceTrial) -> None:
    """The device must send images on the link, and repeat the last image if there is no new one."""
    channel = trial.link()
    trial.image(channel, 4)
    for payload in channel.payloads(MessageType.IMAGE)[:50]:
        judge_image(trial, payload)
    trial.judge.kept |= {"TIME-7", "LINK-18"}


def judge_image(trial: DeviceTrial, payload: bytes) -> None:
    require, start = trial.judge.require, payload[:64]
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


@case("device", "TIME-8")
def gate_closes(trial: DeviceTrial) -> None:
    """While the companion sends no ControlMessages, the device must send no new image."""
    channel = trial.link()
    trial.image(channel, 3)
    trial.stage.until(lambda: len(set(channel.payloads(MessageType.IMAGE))) > 1)
    if len(set(channel.payloads(MessageType.IMAGE))) < 2:
        raise Untestable("the device's picture does not change by itself")
    trial.speaking.clear()
    trial.stage.every(0.5, lambda: channel.send(ASK))
    closed = time.monotonic()
    trial.stage.until(lambda: channel.ended or time.monotonic() > closed + GATE, 2 * GATE)
    before = channel.count(MessageType.IMAGE)
    trial.image(channel, 3)
    late = set(channel.payloads(MessageType.IMAGE)[before:])
    trial.judge.require("TIME-8", len(late) == 1, f"{len(late)} different images without a ControlMessage")
    trial.speaking.add(channel.number)
    news = trial.stage.until(lambda: channel.ended or channel.payloads(MessageType.IMAGE)[-1] not in late)
    trial.judge.require("TIME-8", news and not channel.ended, "no new image after a ControlMessage")


@case("device", "PRESS-3", "PRESS-4", gentle=False)
def presses_buttons(trial: DeviceTrial) -> None:
    """The companion sends valid and invalid ButtonMessages; the device must pass the right presses on."""
    trial.hear()
    trial.broadcast()
    port = trial.control_port()
    channel = silent_link(trial)
    for button in range(16):
        press(trial, channel, port, "PRESS-3", bytes([button]), [button])
    press(trial, channel, port, "PRESS-4", b"", [])
    press(trial, channel, port, "PRESS-4", bytes([16]), [15])
    press(trial, channel, port, "PRESS-4", bytes([3]), [3])
    press(trial, channel, port, "PRESS-4", bytes([255]), [3])
    press(trial, channel, port, "PRESS-4", bytes([5, 6, 7]), [5])


def press(trial: DeviceTrial, channel: Channel, port: UdpSocket, rule: str, payload: bytes,
          expected: list[int]) -> None:
    """Sends a ButtonMessage, waits until the device has handled it, and checks which presses the device passed on."""
    before = len(port.arrived)
    trial.ask(channel, rule, "no answer behind a press", frame(MessageType.BUTTON, payload))
    trial.stage.until(lambda: len(port.arrived) >= before + len(expected))
    trial.stage.serve()
    got = b" ".join(each.data for each in port.arrived[before:])
    wanted = b" ".join(b'[{"msg_id":%d,"param":"On"}]' % (100 + button) for button in expected)
    trial.judge.require(rule, got == wanted, f"a press of {payload.hex() or 'nothing'}", wanted, got)


@case("device", "LINK-15", gentle=False)
def candidate_cannot_press(trial: DeviceTrial) -> None:
    """The companion sends ButtonMessages before it is linked; the device must drop them."""
    trial.broadcast()
    port = trial.control_port()
    channel = trial.candidate()
    channel.send(frame(MessageType.BUTTON, b"\1") + REQUEST + frame(MessageType.BUTTON, b"\2"))
    trial.speak(channel, MessageType.CONNECT_REQUEST, MessageType.CONTROL, MessageType.IDENTITY_REQUEST)
    trial.stage.until(lambda: channel.ended or channel.count(MessageType.IDENTITY) >= 3)
    if channel.ended:
        raise Untestable("the device has given the connection up")
    trial.judge.require("LINK-15", not port.arrived, "a candidate's press is handed on", b"",
                        b" ".join(each.data for each in port.arrived))
    press(trial, channel, port, "PRESS-3", b"\4", [4])
