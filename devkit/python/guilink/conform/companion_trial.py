"""What the test cases for companions use: a scripted device, the companion's process, and the picture that it shows."""
from __future__ import annotations

import io
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Sequence

import numpy as np
from PIL import Image

from guilink.conform import sandbox
from guilink.conform.case import Judge, Untestable
from guilink.conform.scripted_device import ScriptedDevice, watch_of
from guilink.conform.stage import Channel, Stage, UdpSocket
from guilink.conform.strict import Fault
from guilink.conform.subject import Subject
from guilink.picture import Pixels
from guilink.screen import Screen
from guilink.wire import MessageType, frame

START_PATIENCE = 20.0  # s; a newly started companion has at least this long to answer the first broadcast
ABOUT_TO_END = 0.5     # s; if the companion exits normally within this time after a fault, it is not blamed
BROADCAST_INTERVAL = 1.0  # s between two broadcasts of a device
SECOND = 1.0           # s; a companion must ignore its device's broadcasts for this long after the first image
SILENCE = 3.0          # s; a companion closes the link if nothing arrives for this long
LAST_LINES = 3         # number of output lines that a report quotes if the companion has ended


@dataclass
class Shown:
    """Where the kit finds the picture that the companion shows: in a file, or in the output of a command."""

    file: Path | None = None
    command: Sequence[str] = ()

    def __bool__(self) -> bool:
        return bool(self.file or self.command)

    def read(self) -> np.ndarray | None:  # type: ignore[type-arg]
        """Returns the picture as RGB or RGBA bytes, or None if there is no picture yet."""
        try:
            data = (self.file.read_bytes() if self.file else
                    subprocess.run(self.command, stdout=subprocess.PIPE, check=False).stdout)
            image = Image.open(io.BytesIO(data))
            return np.asarray(image if image.mode in ("RGB", "RGBA") else image.convert("RGBA"))
        except (OSError, ValueError, SyntaxError):  # the picture does not exist yet, or is incomplete
            return None


class Trial:
    """One attempt to run one case."""

    broadcast, companion = sandbox.BROADCAST, sandbox.COMPANION

    def __init__(self, stage: Stage, subject: Subject, shown: Shown):
        self.stage, self.subject, self.shown, self.judge = stage, subject, shown, Judge()
        self._fresh = subject.ensure_running()
        self._seen: Pixels | None = None  # the most recent picture that the companion has shown correctly
        if shown.file:
            shown.file.unlink(missing_ok=True)
        self.device = ScriptedDevice(self, sandbox.DEVICE)

    def other_device(self) -> ScriptedDevice:
        return ScriptedDevice(self, sandbox.OTHER_DEVICE, b"22222fw1.1")

    # --- used by case.run_once -----------------------------------------------------------------------

    def subject_ended(self) -> bool:
        return not self.subject.alive()

    def died(self) -> list[Fault]:
        if self.subject_ended() and self.subject.status:
            lines = " / ".join(self.subject.last_words().strip().splitlines()[-LAST_LINES:])
            return [Fault("LINK-10", f"the companion has ended with {self.subject.end()}"
                          + (f"; its last lines: {lines}" if lines else ""))]
        if not self.subject_ended():
            self.judge.kept.add("LINK-10")
        return []

    def gave_up(self) -> str:
        """If the companion is not to blame for a broken rule, returns the reason. Otherwise returns an empty string."""
        self.stage.until(self.subject_ended, ABOUT_TO_END)
        if self.subject_ended() and self.subject.status == 0:
            return "the companion has ended by itself in the middle of the case"
        return ""

    # --- used by the test cases ----------------------------------------------------------------------

    def find(self) -> None:
        """Broadcasts until the companion answers. If no answer comes, finds out which rule the companion breaks."""
        patience = max(START_PATIENCE, self.stage.patience) if self._fresh else self.stage.patience
        answered = self.device.call_until_answered(patience)
        self._fresh = False
        if answered:
            self.subject.has_answered = True
            self.judge.kept |= {"DISC-3", "DISC-4", "DISC-5"}
            return
        if self.subject_ended():
            if not self.subject.has_answered:
                raise ValueError(f"cannot prove the companion: it ended with {self.subject.end()} before it "
                                 "answered anything; its last lines:\n"
                                 + (self.subject.last_words().strip() or "(none)"))
            self.judge.blame("LINK-10", "the companion has ended")
        probe = UdpSocket(self.stage, (self.device.address, 0))
        probe.send(frame(MessageType.IDENTITY, self.device.identity), (self.companion, 3152))
        self.stage.until(lambda: probe.arrived or probe.refused)
        self.judge.refuse("DISC-3", probe.refused, "UDP port 3152 is closed (or bound to one address?)")
        if self.device.answers:  # accept a late answer
            return
        self.judge.refuse("DISC-3", probe.arrived, "the companion receives no broadcasts, only what is sent to "
                          "its address")
        self.judge.blame("DISC-5", f"none of {self.device.calls} broadcasts was answered")

    def candidate(self, find: bool = True) -> Channel:
        """Opens a connection, and waits until the companion has sent a ConnectRequest on it.

        If the companion has not yet noticed the end of its previous link, it closes the new connection. The kit then
        broadcasts again after a second, as a device does.
        """
        end = time.monotonic() + self.stage.patience
        while True:
            if find:
                self.find()
            channel = self.device.connect()
            self.judge.kept.add("DISC-7")
            asked = self.stage.until(lambda: channel.count(MessageType.CONNECT_REQUEST) or channel.ended)
            if not channel.ended or time.monotonic() > end or self.subject_ended():
                break
            self.stage.until(lambda: time.monotonic() > self.device.called + BROADCAST_INTERVAL)
            find = True
        # LINK-1 applies to the companion's first connection, LINK-3 to all later connections.
        rule = "LINK-3" if self.subject.greeted else "LINK-1"
        self.judge.require(rule, asked and not channel.ended, "no ConnectRequest arrives on the connection"
                           + (", and the companion closes it" if channel.ended else ""))
        self.subject.greeted += 1
        return channel

    def link(self, pixels: Pixels | None = None) -> Channel:
        """Opens a connection, sends an image on it, and repeats the image twice a second."""
        channel = self.candidate()
        self.device.repeat(channel, PLAIN if pixels is None else pixels)
        return channel

    def answer_to_lost_device(self, channel: Channel, identity: bytes) -> str:
        """Lets the device send images for a second, then fall silent on the link and broadcast `identity`. Returns an
        empty string if the companion answers within SILENCE, and otherwise an error message. A later answer proves
        nothing, because the companion closes every silent link after SILENCE."""
        began, showing = time.monotonic(), True
        self.stage.every(0.5, lambda: showing and self.device.show(channel, PLAIN))
        self.stage.until(lambda: time.monotonic() > began + SECOND)
        showing = watch_of(channel).answering = False
        quiet, before = time.monotonic(), self.device.answers
        self.device.show(channel, PLAIN)  # the last message on this link; from now on, the device only broadcasts
        self.device.identity = identity
        self.stage.every(0.5, self.device.call)
        if not self.stage.until(lambda: self.device.answers > before):
            return "is not answered"
        late = time.monotonic() > quiet + SILENCE
        return f"is answered only after {SILENCE:.0f} s of silence have ended the link" if late else ""

    def picture(self, height: int = 8, width: int = 12) -> Pixels:
        """Returns a random opaque picture, which differs from all earlier ones."""
        drawn = np.random.default_rng().integers(0xF000, 0xFFFF, (height, width), np.uint16, endpoint=True)
        return shown_of(drawn)

    def keep_alives(self, channel: Channel, more: int = 3) -> bool:
        """Waits for `more` further ControlMessages. By then, the companion has handled everything that the kit had sent
        before this call. Returns whether the connection still exists."""
        before = channel.count(MessageType.CONTROL)
        return self.stage.until(lambda: channel.ended or channel.count(MessageType.CONTROL) >= before + more,
                                self.stage.patience + more) and not channel.ended

    def must_show(self, rule: str, pixels: Pixels, what: str) -> None:
        if not self.shown:
            raise Untestable("what the companion shows is unknown; use --picture")
        seen = self.stage.until(lambda: self.shows(pixels) or self.subject_ended())
        seen = seen and (not self.subject_ended() or self.shows(pixels))
        self._seen = pixels if seen else self._seen
        if not seen and self._only_last_differs(pixels):
            rule = "PICT-2"
        self.judge.require(rule, seen, f"{what}: {'' if seen else self._difference(pixels)}")

    def shows(self, pixels: Pixels) -> bool:
        image = self.shown.read()
        if image is None or image.shape[:2] != pixels.shape:
            return False
        wanted = Screen(pixels).rgba
        if image.shape[2] == 4:
            return bool(np.array_equal(image, wanted))
        opaque = wanted[:, :, 3] == 255
        return bool(np.array_equal(image[opaque], wanted[opaque][:, :3]))

    def _only_last_differs(self, pixels: Pixels) -> bool:
        image = self.shown.read()
        if image is None or image.shape[:2] != pixels.shape or pixels.size < 2:
            return False
        wrong = (image != Screen(pixels).rgba[:, :, :image.shape[2]]).any(axis=2).reshape(-1)
        return bool(wrong[-1] and not wrong[:-1].any())

    def _difference(self, pixels: Pixels) -> str:
        image = self.shown.read()
        if image is None:
            return "no picture is shown"
        if self._seen is not None and self.shows(self._seen):
            return "still the picture before it is shown"
        height, width = pixels.shape
        if image.shape[:2] != pixels.shape:
            return f"{image.shape[1]} x {image.shape[0]} pixels are shown, not {width} x {height}"
        channels = image.shape[2]
        wrong = (image != Screen(pixels).rgba[:, :, :channels]).any(axis=2)
        y, x = np.argwhere(wrong)[0]
        return (f"{np.count_nonzero(wrong)} pixels differ, the first at ({x}, {y}): "
                f"{image[y, x].tolist()}, not {Screen(pixels).rgba[y, x, :channels].tolist()}")


def shown_of(pixels: Pixels) -> Pixels:
    """Returns the picture that a companion shows for opaque `pixels`. The device does not send the last pixel, so the
    companion repeats the pixel before it."""
    seen = pixels.copy().reshape(-1)
    seen[-1] = seen[-2]
    return seen.reshape(pixels.shape)


PLAIN = np.full((48, 64), 0xF123, np.uint16)

__all__ = ["PLAIN", "SECOND", "SILENCE", "Shown", "Trial", "shown_of", "watch_of"]
