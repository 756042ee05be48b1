"""What the test cases for companions use: a scripted device, the companion's process, and the picture that it shows."""
from __future__ import annotations

import io
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Sequence

import numpy as np
from numpy.typing import NDArray
from PIL import Image

from guilink.conform.case import Attempt, UntestableError
from guilink.conform.companion_process import CompanionProcess
from guilink.conform.event_loop import Channel, EventLoop, UdpSocket
from guilink.conform.private_network import COMPANION, DEVICE, OTHER_DEVICE
from guilink.conform.scripted_device import Connection, ScriptedDevice
from guilink.conform.strict import Fault
from guilink.picture import Pixels
from guilink.screen import Screen
from guilink.wire import MessageType, frame

START_PATIENCE = 20.0  # s; a newly started companion has at least this long to answer the first broadcast
ABOUT_TO_END = 0.5     # s; if the companion exits normally within this time after a fault, it is not blamed
BROADCAST_INTERVAL = 1.0  # s between two broadcasts of a device
SECOND = 1.0           # s; a companion must ignore its device's broadcasts for this long after the first image
LINK_SILENCE = 3.0          # s; a companion closes the link if nothing arrives for this long


@dataclass
class Shown:
    """Where the kit finds the picture that the companion shows: in a file, or in the output of a command."""

    file: Path | None = None
    command: Sequence[str] = ()

    def __bool__(self) -> bool:
        return bool(self.file or self.command)

    def read(self) -> NDArray[np.uint8] | None:
        """Returns the picture as RGB or RGBA bytes, or None if there is no picture yet."""
        try:
            data = (self.file.read_bytes() if self.file else
                    subprocess.run(self.command, stdout=subprocess.PIPE, check=False).stdout)
            image = Image.open(io.BytesIO(data))
            return np.asarray(image if image.mode in ("RGB", "RGBA") else image.convert("RGBA"))
        except (OSError, ValueError, SyntaxError):  # the picture does not exist yet, or is incomplete
            return None


class CompanionAttempt(Attempt):
    """One attempt to run one case with a companion."""

    def __init__(self, loop: EventLoop, subject: CompanionProcess, shown: Shown):
        super().__init__(loop)
        self.subject, self.shown = subject, shown
        self._fresh = subject.ensure_running()
        self._seen: Pixels | None = None  # the most recent picture that the companion has shown correctly
        if shown.file:
            shown.file.unlink(missing_ok=True)
        self.device = ScriptedDevice(self, DEVICE)

    def other_device(self) -> ScriptedDevice:
        return ScriptedDevice(self, OTHER_DEVICE, b"22222fw1.1")

    # --- used by case.run_once -----------------------------------------------------------------------

    def subject_ended(self) -> bool:
        return not self.subject.alive()

    def crash(self) -> Fault | None:
        if not self.subject_ended():
            self.kept.add("LINK-10")
        return self.subject.crash()

    def gave_up(self) -> str:
        self.loop.until(self.subject_ended, ABOUT_TO_END)
        if self.subject_ended() and self.subject.status == 0:
            return "the companion has ended by itself in the middle of the case"
        return ""

    # --- used by the test cases ----------------------------------------------------------------------

    def find(self) -> None:
        """Broadcasts until the companion answers. If no answer comes, finds out which rule the companion breaks."""
        patience = max(START_PATIENCE, self.loop.patience) if self._fresh else self.loop.patience
        answered = self.device.broadcast_until_answered(patience)
        self._fresh = False
        if answered:
            self.subject.has_answered = True
            self.kept |= {"DISC-3", "DISC-4", "DISC-5"}
            return
        if self.subject_ended():
            if not self.subject.has_answered:
                raise ValueError(f"cannot prove the companion: it ended with {self.subject.end()} before it "
                                 "answered anything; its last lines:\n"
                                 + (self.subject.last_output().strip() or "(none)"))
            self.fail("LINK-10", "the companion has ended")
        probe = UdpSocket(self.loop, (self.device.address, 0))
        probe.send(frame(MessageType.IDENTITY, self.device.identity), (COMPANION, 3152))
        self.loop.until(lambda: probe.arrived or probe.refused)
        self.forbid("DISC-3", probe.refused, "UDP port 3152 is closed (or bound to one address?)")
        if self.device.answers:  # accept a late answer
            return
        self.forbid("DISC-3", probe.arrived, "the companion receives no broadcasts, only what is sent to "
                    "its address")
        self.fail("DISC-5", f"none of {self.device.broadcasts} broadcasts was answered")

    def candidate(self, find: bool = True) -> Connection:
        """Opens a connection, and waits until the companion has sent a ConnectRequest on it.

        If the companion has not yet noticed the end of its previous link, it closes the new connection. The kit then
        broadcasts again after a second, as a device does.
        """
        end = time.monotonic() + self.loop.patience
        while True:
            if find:
                self.find()
            channel = self.device.connect()
            self.kept.add("DISC-7")
            asked = self.loop.until(lambda: channel.count(MessageType.CONNECT_REQUEST) or channel.ended)
            if not channel.ended or time.monotonic() > end or self.subject_ended():
                break
            self.loop.until(lambda: time.monotonic() > self.device.last_broadcast + BROADCAST_INTERVAL)
            find = True
        # LINK-1 applies to the companion's first connection, LINK-3 to all later connections.
        rule = "LINK-3" if self.subject.greeted else "LINK-1"
        self.require(rule, asked and not channel.ended, "no ConnectRequest arrives on the connection"
                     + (", and the companion closes it" if channel.ended else ""))
        self.subject.greeted += 1
        return channel

    def link(self, pixels: Pixels | None = None) -> Connection:
        """Opens a connection, sends an image on it, and repeats the image twice a second."""
        channel = self.candidate()
        self.device.repeat(channel, PLAIN if pixels is None else pixels)
        return channel

    def answer_to_lost_device(self, channel: Connection, identity: bytes) -> str:
        """Lets the device send images for a second, then fall silent on the link and broadcast `identity`. Returns an
        empty string if the companion answers within LINK_SILENCE, and otherwise an error message. A later answer proves
        nothing, because the companion closes every silent link after LINK_SILENCE."""
        began, showing = time.monotonic(), True
        self.loop.every(0.5, lambda: showing and self.device.show(channel, PLAIN))
        self.loop.until(lambda: time.monotonic() > began + SECOND)
        showing = channel.answering = False
        quiet, before = time.monotonic(), self.device.answers
        self.device.show(channel, PLAIN)  # the last message on this link; from now on, the device only broadcasts
        self.device.identity = identity
        self.loop.every(0.5, self.device.broadcast)
        if not self.loop.until(lambda: self.device.answers > before):
            return "is not answered"
        late = time.monotonic() > quiet + LINK_SILENCE
        return f"is answered only after {LINK_SILENCE:.0f} s of silence have ended the link" if late else ""

    def picture(self, height: int = 8, width: int = 12) -> Pixels:
        """Returns a random opaque picture, which differs from all earlier ones."""
        drawn = np.random.default_rng().integers(0xF000, 0xFFFF, (height, width), np.uint16, endpoint=True)
        return shown_of(drawn)

    def keep_alives(self, channel: Channel, more: int = 3) -> bool:
        """Waits for `more` further ControlMessages. By then, the companion has handled everything that the kit had sent
        before this call. Returns whether the connection still exists."""
        before = channel.count(MessageType.CONTROL)
        return self.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) >= before + more,
                               self.loop.patience + more) and not channel.ended

    def must_show(self, rule: str, pixels: Pixels, what: str) -> None:
        if not self.shown:
            raise UntestableError("what the companion shows is unknown; use --picture")
        seen = self.loop.until(lambda: self.shows(pixels) or self.subject_ended())
        seen = seen and (not self.subject_ended() or self.shows(pixels))
        self._seen = pixels if seen else self._seen
        if not seen and self._only_last_differs(pixels):
            rule = "PICT-2"
        self.require(rule, seen, f"{what}: {'' if seen else self._difference(pixels)}")

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
