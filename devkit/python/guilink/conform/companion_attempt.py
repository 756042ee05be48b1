"""What the test cases for companions use: a scripted device, the companion's process, and the picture that it shows."""
from __future__ import annotations

import io
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Sequence

import numpy as np
from numpy.typing import NDArray
from PIL import Image

from guilink.conform.case import Attempt, UntestableError
from guilink.conform.companion_process import CompanionProcess
from guilink.conform.event_loop import Channel, EventLoop, UdpSocket
from guilink.conform.private_network import COMPANION, DEVICE, OTHER_DEVICE
from guilink.conform.scripted_device import MUST_GAP, Connection, ScriptedDevice
from guilink.conform.strict import Fault
from guilink.picture import Pixels, encode
from guilink.screen import Screen
from guilink.wire import MessageType, frame

START_PATIENCE = 15.0  # s; a newly started companion has at least this long to answer the first broadcast
GRACE = 0.5            # s; how much later than its last connection a process ends, or its last image is shown
BROADCAST_INTERVAL = 1.0  # s between two broadcasts of a device
PRESS_TIMEOUT = 10.0   # s; limit of the command that presses a button
DRAWN = 0.6            # s; by then, a companion has surely seen its first image
SETTLED = 50_000_000   # ns; a file that was last written longer ago has a new time if it is written again
STARVED_POLL = 0.05    # s between two looks at how long the companion has waited for a processor
SECOND = 1.0           # s; a companion must ignore its device's broadcasts for this long after the first image
LINK_SILENCE = 3.0     # s; a companion closes the link if nothing arrives for this long
SILENT = 2.0           # s; a connection on which the kit does not answer stays silent for this long at least
STARVED = 1.5          # s; a companion that has waited for a processor for this long meanwhile gets messages again


@dataclass
class Shown:
    """Where the kit finds the picture that the companion shows: in a file, or in the output of a command."""

    file: Path | None = None
    command: Sequence[str] = ()
    _last: tuple[tuple[int, int], NDArray[np.uint8]] | None = None  # the file's time and size, and its picture

    def __bool__(self) -> bool:
        return bool(self.file or self.command)

    def read(self) -> NDArray[np.uint8] | None:
        """Returns the picture as RGB or RGBA bytes, or None if there is no picture yet."""
        try:
            if self.file:
                state = self.file.stat()
                key = state.st_mtime_ns, state.st_size
                if self._last and self._last[0] == key:
                    return self._last[1]
                data = self.file.read_bytes()
            else:
                data = subprocess.run(self.command, stdout=subprocess.PIPE, check=False).stdout
            image = Image.open(io.BytesIO(data))
            read = np.asarray(image if image.mode in ("RGB", "RGBA") else image.convert("RGBA"))
            if self.file and time.time_ns() > key[0] + SETTLED:
                self._last = key, read
            return read
        except (OSError, ValueError, SyntaxError):  # the picture does not exist yet, or is incomplete
            return None


class CompanionAttempt(Attempt):
    def __init__(self, loop: EventLoop, subject: CompanionProcess, shown: Shown, press: Sequence[str] = ()):
        """`press` is the command that makes the companion press button {}."""
        super().__init__(loop)
        self.subject, self.shown, self._press = subject, shown, press
        loop.clock = self._clock
        self._now, self._starved, self._starved_at = 0.0, 0.0, 0.0
        self._fresh = subject.ensure_running()
        self._seen: Pixels | None = None  # the most recent picture that the companion has shown correctly
        if shown.file:
            shown.file.unlink(missing_ok=True)
        self.device = ScriptedDevice(self, DEVICE)
        self._devices = [self.device]

    def other_device(self, identity: bytes = b"11112fw1.1") -> ScriptedDevice:
        self._devices.append(ScriptedDevice(self, OTHER_DEVICE, identity))
        return self._devices[-1]

    def _clock(self) -> float:
        """A clock that stands still while the companion waits for a processor, and while the kit does not listen, so
        that a busy machine does not make the companion late."""
        now = time.monotonic()
        if now > self._starved_at + STARVED_POLL:
            self._starved, self._starved_at = self.subject.starved(), now
        self._now = max(self._now, now - self._starved - self.loop.busy)
        return self._now

    # --- used by case.run_once -----------------------------------------------------------------------

    def subject_ended(self) -> bool:
        return not self.subject.alive()

    def crash(self, suspected: bool) -> Fault | None:
        if suspected:
            self.loop.until(self.subject_ended, GRACE)
        if not self.subject_ended():
            self.kept.add("LINK-10")
        return self.subject.crash()

    def late(self) -> list[Fault]:
        self.loop.read()  # what has arrived is not late
        for device in self._devices:
            device.check_answers()
        return [fault for device in self._devices for each in device.connections for fault in each.late()]

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
            channel.close()
            self.loop.until(lambda: time.monotonic() > self.device.last_broadcast + BROADCAST_INTERVAL)
            find = True
        # LINK-1 applies to the companion's first connection, LINK-3 to all later connections.
        rule = "LINK-3" if self.subject.greeted else "LINK-1"
        self.final = not asked
        self.require(rule, asked and not channel.ended, "no ConnectRequest arrives on the connection"
                     + (", and the companion closes it" if channel.ended else ""))
        self.subject.greeted += 1
        return channel

    def link(self, pixels: Pixels | None = None) -> Connection:
        """Opens a connection, sends an image on it, and repeats the image twice a second."""
        channel = self.candidate()
        self.device.repeat(channel, PLAIN if pixels is None else pixels)
        return channel

    def answer_to_lost_device(self, searching: ScriptedDevice, identity: bytes, tries: int = 1) -> str:
        """Lets the device send images for more than a second, then fall silent on the link, and `searching` broadcast
        `identity`. Returns an empty string if the companion answers one of the first `tries` broadcasts and closes the
        link, and otherwise an error message."""
        channel = self.candidate()
        began, showing = self.loop.clock(), True
        self.loop.every(0.5, lambda: showing and self.device.show(channel, PLAIN))
        self.loop.until(lambda: self.loop.clock() > began + SECOND + DRAWN)
        showing = channel.answering = False
        self.device.show(channel, PLAIN)  # the last message on this link; from now on, the device only broadcasts
        searching.identity, before, number = identity, searching.answers, 0
        while number < self.loop.patience:
            searching.broadcast()
            number, sent = number + 1, self.loop.clock()
            self.loop.until(lambda: searching.answers > before or self.loop.clock() > sent + BROADCAST_INTERVAL)
            if searching.answers > before:
                # A late answer proves nothing, because the companion closes every link that is silent for 3 s.
                if number > tries:
                    return f"is answered only when it has come {number} times"
                return "" if self.loop.until(lambda: channel.ended) else "is answered, but the link is kept"
        return "is not answered"

    def large_images(self, number: int) -> Iterator[bytes]:
        runs = np.random.default_rng(1).integers(0xF000, 0xFFFF, (number, SIZE[0] * SIZE[1] // RUN), np.uint16)
        return (encode(np.repeat(each, RUN).reshape(SIZE)) for each in runs)

    def picture(self) -> Pixels:
        """Returns an opaque picture of some bands, which differs from all earlier ones."""
        bands = np.random.default_rng().integers(0xF000, 0xFFFF, BANDS, np.uint16, endpoint=True)
        return np.repeat(bands, SIZE[0] * SIZE[1] // BANDS).reshape(SIZE)

    @property
    def can_press(self) -> bool:
        return bool(self._press)

    @property
    def can_choose(self) -> bool:
        return "{}" in " ".join(self._press)

    def press(self, button: int) -> None:
        """Lets the user's command make the companion press a button, if there is such a command."""
        if self._press:
            subprocess.run([word.replace("{}", str(button)) for word in self._press], stdout=subprocess.DEVNULL,
                           timeout=PRESS_TIMEOUT, check=False)

    def keep_alives(self, channel: Channel, more: int = 3) -> bool:
        """Waits for `more` further ControlMessages. By then, the companion has handled everything that the kit had sent
        before this call. Returns whether the connection still exists."""
        before = channel.count(MessageType.CONTROL)
        came = self.loop.until(lambda: channel.ended or channel.count(MessageType.CONTROL) >= before + more,
                               self.loop.patience + more)
        self.require("TIME-2", came, "the companion falls silent on a connection that is still open")
        if channel.over is not None and channel.linked is not None:
            silent = channel.over - max([channel.linked, *channel.times(MessageType.CONTROL)])
            self.forbid("TIME-2", silent > MUST_GAP, f"no ControlMessage on the link for {silent:.1f} s, then its end")
        return not channel.ended

    def must_show(self, rule: str, pixels: Pixels, what: str, channel: Connection) -> None:
        """Waits until the companion shows the picture. If `channel` ends first, waits no longer."""
        if not self.shown:
            raise UntestableError("what the companion shows is unknown; use --picture")

        def over() -> bool:
            return self.shows(pixels) or self.subject_ended() or channel.ended

        began = self.loop.clock()
        if not channel.answering and not self.loop.until(over, SILENT):
            # A later byte may help the companion to find the image, so it gets one only if it needs the time.
            channel.answering = self.loop.clock() < began + SILENT - STARVED
        self.loop.until(over)
        self.loop.until(lambda: self.shows(pixels), GRACE)
        image = self.shown.read()
        if fits(pixels, image):
            self._seen = pixels
            self.kept.add(rule)
            return
        if channel.ended and (image is None or self._seen is not None and self.shows(self._seen)):
            self.fail(rule, f"{what}: the companion closes the connection")
        if image is None:
            self.fail(rule, f"{what}: no picture is shown")
        elif self._seen is not None and self.shows(self._seen):
            self.fail(rule, f"{what}: still the picture before it is shown")
        else:
            self.fail(picture_rule(rule, pixels, image), f"{what}: {difference(pixels, image)}",
                      screens=(Screen(pixels).rgba, image))

    def shows(self, pixels: Pixels) -> bool:
        return fits(pixels, self.shown.read())


def fits(pixels: Pixels, image: NDArray[np.uint8] | None) -> bool:
    return image is not None and image.shape[:2] == pixels.shape and not wrong_pixels(pixels, image).any()


def wrong_pixels(pixels: Pixels, image: NDArray[np.uint8]) -> NDArray[np.bool_]:
    """Returns which pixels of `image`, which has the same size, are not shown as `pixels`."""
    wanted = Screen(pixels).rgba
    wrong: NDArray[np.bool_] = (image != wanted[:, :, :image.shape[2]]).any(axis=2)
    # Without alpha, the companion has chosen a background. With alpha, nobody sees the colour of a transparent pixel.
    seen: NDArray[np.bool_] = wanted[:, :, 3] == 255
    if image.shape[2] == 4:
        seen = (wanted[:, :, 3] > 0) | (image[:, :, 3] > 0)
    return wrong & seen


def picture_rule(rule: str, pixels: Pixels, image: NDArray[np.uint8]) -> str:
    """Returns the rule of a picture that explains why `image` is shown instead of `pixels`, or else `rule`."""
    if image.shape[:2] != pixels.shape:
        return "PICT-4" if rule in PICTURES else rule
    wrong = wrong_pixels(pixels, image).reshape(-1)
    if wrong[-1] and not wrong[:-1].any():
        return "PICT-2"
    if rule not in PICTURES:
        return rule
    colours = np.pad(image, ((0, 0), (0, 0), (0, 4 - image.shape[2]))).view(np.uint32).reshape(-1)[:-1]
    sent = pixels.reshape(-1)[:-1]
    different = len(np.unique(colours))
    mapped = len(np.unique(sent.astype(np.uint64) << 32 | colours)) == len(np.unique(sent))
    return "PICT-3" if mapped and (different > 1 or len(np.unique(sent)) == 1) else "PICT-1"


def difference(pixels: Pixels, image: NDArray[np.uint8]) -> str:
    if image.shape[:2] != pixels.shape:
        return f"{image.shape[1]} x {image.shape[0]} pixels are shown, not {pixels.shape[1]} x {pixels.shape[0]}"
    wrong = np.argwhere(wrong_pixels(pixels, image))
    y, x = wrong[0]
    return (f"{len(wrong)} pixels differ, the first at ({x}, {y}): {image[y, x].tolist()}, not "
            f"{Screen(pixels).rgba[y, x, :image.shape[2]].tolist()}")


LARGE, SIZE = (960, 1280), (768, 1024)  # height and width; only these two are sure to be shown
BANDS = 16  # number of coloured bands in a picture
RUN = 12    # number of pixels of one colour in a large image
PICTURES = ("PICT-1", "PICT-2", "PICT-3")
PLAIN = np.full(SIZE, 0xF123, np.uint16)
