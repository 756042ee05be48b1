"""Records the device's pictures and the pressed buttons, and renders them as a video or an animation.

A bar below the picture shows the names of the pressed buttons. Transparent pixels become black.
"""
from __future__ import annotations

import itertools
import os
import shutil
import struct
import subprocess
import tempfile
import time
import warnings
from dataclasses import dataclass
from typing import Callable, Iterable, Iterator, Sequence

from PIL import Image, ImageDraw, ImageFont

from guilink.link import GuilinkError, Link, Picture, Progress
from guilink.picture import DamagedPictureError
from guilink.screen import Screen

VIDEO_FPS = 30
ANIMATION_FPS = 10
ANIMATION_SCALE = 2     # an animation's pictures are smaller by this factor
PRESS_SHOWN = 0.6       # s; how long the bar shows a press
BAR = 40                # pixels; height of the bar below the screen
ANIMATIONS = (".png", ".apng", ".gif")
VIDEOS = (".mp4", ".mkv", ".mov", ".webm", ".avi")
ENTRY = struct.Struct("<dI")  # in a recording's temporary file: a picture's time, and the length of its payload


@dataclass
class Press:
    """A button that was pressed, or a text that was sent."""

    time: float  # time.monotonic()
    name: str
    confirmed: bool = False  # the device has handled the press or text

    def __str__(self) -> str:
        return self.name if self.confirmed else f"{self.name} (not confirmed)"


class Film:
    """Renders `pictures` (oldest first) from `start` to `end`. All times are values of time.monotonic()."""

    def __init__(self, pictures: Iterable[Picture], presses: Sequence[Press], start: float, end: float):
        self._pictures, self._presses, self._start, self._end = pictures, presses, start, max(start, end)
        self._font = _font()

    def save(self, path: str | os.PathLike[str], progress: Progress | None = None) -> None:
        """If `path` ends in .png, .apng or .gif, writes an animation. Otherwise, writes a video with ffmpeg."""
        if os.path.splitext(path)[1].lower() in ANIMATIONS:
            self._save_animation(path, progress)
        else:
            self._save_video(path, progress)

    def _save_animation(self, path: str | os.PathLike[str], progress: Progress | None) -> None:
        pictures: list[Image.Image] = []
        durations: list[int] = []
        for image in self._images(ANIMATION_FPS, ANIMATION_SCALE, progress):
            if pictures and image is pictures[-1]:
                durations[-1] += 1000 // ANIMATION_FPS
            else:
                pictures.append(image)
                durations.append(1000 // ANIMATION_FPS)
        if not pictures:
            raise GuilinkError(f"cannot write {os.fspath(path)}: no picture has arrived")
        if len(pictures) == 1:
            pictures[0].save(path)  # Pillow cannot write an animation of one picture
        else:
            pictures[0].save(path, save_all=True, append_images=pictures[1:], duration=durations, loop=0)

    def _save_video(self, path: str | os.PathLike[str], progress: Progress | None) -> None:
        images = self._images(VIDEO_FPS, 1, progress)
        if not (first := next(images, None)):
            raise GuilinkError(f"cannot write {os.fspath(path)}: no picture has arrived")
        command = ["ffmpeg", "-y", "-loglevel", "error", "-f", "rawvideo", "-pix_fmt", "rgb24",
                   "-s", f"{first.width}x{first.height}", "-r", str(VIDEO_FPS), "-i", "-",
                   "-pix_fmt", "yuv420p", os.fspath(path)]
        with (tempfile.TemporaryFile() as complaint,
              subprocess.Popen(command, stdin=subprocess.PIPE, stderr=complaint) as ffmpeg):
            assert ffmpeg.stdin
            try:
                for image in itertools.chain((first,), images):
                    ffmpeg.stdin.write(image.tobytes())
            except BrokenPipeError:  # ffmpeg has failed; the error is raised below
                pass
            ffmpeg.communicate()
            if ffmpeg.returncode:
                complaint.seek(0)
                raise GuilinkError(f"ffmpeg cannot write {os.fspath(path)}: "
                                   + complaint.read().decode(errors="replace").strip())

    def _images(self, fps: int, scale: int, progress: Progress | None) -> Iterator[Image.Image]:
        """Yields `fps` images per second of film. If nothing has changed, yields the same object again."""
        pictures = iter(self._pictures)
        following = next(pictures, None)
        shown = image = screen = size = None
        said = time.monotonic()
        ticks = int((self._end - self._start) * fps) + 1
        for tick in range(ticks):
            now = self._start + tick / fps
            new = None
            while following and following.time <= now + 1 / fps:
                new, following = following.payload, next(pictures, None)
            if new is not None:
                screen = _rgb(new, scale) or screen
            if screen is None:
                continue
            mark = self._mark(now, fps)
            if image is None or new is not None or mark != shown:
                size = size or (screen.width + screen.width % 2,
                                screen.height + screen.height % 2 + BAR)
                image, shown = self._frame(screen, size, mark), mark
            yield image
            if progress and time.monotonic() > said + 1:
                said = time.monotonic()
                progress(f"rendered {tick + 1} of {ticks} pictures")

    def _mark(self, now: float, fps: int) -> str:
        return ", ".join(str(press) for press in self._presses
                         if now - PRESS_SHOWN < press.time <= now + 1 / fps)

    def _frame(self, screen: Image.Image, size: tuple[int, int], mark: str) -> Image.Image:
        frame = Image.new("RGB", size)
        frame.paste(screen)
        bar = ImageDraw.Draw(frame)
        bar.rectangle((0, size[1] - BAR, *size), fill=(170, 60, 20) if mark else (40, 40, 40))
        bar.text((10, size[1] - BAR + 8), mark, fill="white", font=self._font)
        return frame


class Recording:
    """Records from now until `stop`, or the end of the `with`. Keeps each new picture in a temporary file.

    A video needs ffmpeg. Without it, `path` becomes an animated PNG, with a warning.
    """

    def __init__(self, link: Link, path: str | os.PathLike[str], presses: Sequence[Press],
                 ended: Callable[[Recording], None] = lambda _: None):
        self.path = os.fspath(path)
        if not can_save(self.path):
            self.path = os.path.splitext(self.path)[0] + ".png"
            warnings.warn(f"ffmpeg is not installed: recording an animated PNG, {self.path}", stacklevel=3)
        self._link, self._presses, self._ended = link, presses, ended
        self._spool = tempfile.TemporaryFile()
        self._last: bytes | None = None
        self._start = time.monotonic()
        self._error: OSError | None = None
        if recent := link.pictures.recent():
            self._keep(recent[-1]._replace(time=self._start))
        link.pictures.listen(self._keep)

    def __enter__(self) -> Recording:
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def stop(self, progress: Progress | None = None) -> str:
        """Writes the file and returns its path. A second call does nothing."""
        if self._spool.closed:
            return self.path
        self._link.pictures.unlisten(self._keep)
        self._ended(self)
        end = time.monotonic()
        with self._spool:
            if self._error:
                raise self._error
            self._spool.seek(0)
            Film(self._pictures(), self._presses, self._start, end).save(self.path, progress)
        return self.path

    def _keep(self, picture: Picture) -> None:
        if picture.payload is self._last or self._error:
            return
        self._last = picture.payload
        try:
            self._spool.write(ENTRY.pack(picture.time, len(picture.payload)) + picture.payload)
        except OSError as error:  # the disk is full; stop() raises the error, the link continues
            self._error = error

    def _pictures(self) -> Iterator[Picture]:
        while entry := self._spool.read(ENTRY.size):
            moment, length = ENTRY.unpack(entry)
            yield Picture(0, moment, self._spool.read(length))


def can_save(path: str | os.PathLike[str]) -> bool:
    """Whether a film can be written here. False if a video needs ffmpeg, which is not installed. Raises ValueError if
    `path` can be no film."""
    check_writable(path, (*ANIMATIONS, *VIDEOS))
    return os.path.splitext(path)[1].lower() in ANIMATIONS or shutil.which("ffmpeg") is not None


def check_writable(path: str | os.PathLike[str], endings: Sequence[str] = ()) -> None:
    """Raises ValueError if `path` has none of the endings, or no file can be written there."""
    folder, why = os.path.dirname(path) or ".", ""
    if endings and os.path.splitext(path)[1].lower() not in endings:
        why = f"its name must end in {', '.join(endings[:-1])}{' or ' if endings[1:] else ''}{endings[-1]}"
    elif os.path.isdir(path):
        why = "it is a folder"
    elif not os.path.isdir(folder):
        why = f"there is no folder {folder}"
    elif not os.access(path if os.path.exists(path) else folder, os.W_OK):
        why = "this user may not write there"
    if why:
        raise ValueError(f"cannot write {os.fspath(path)}: {why}")


def _rgb(payload: bytes, scale: int) -> Image.Image | None:
    try:
        image = Screen.decode(payload).image().convert("RGBa")
    except DamagedPictureError:
        return None
    image = image.reduce(scale) if scale > 1 else image
    # The colours of an "RGBa" image are already multiplied by alpha, which has the effect of a black background.
    return Image.merge("RGB", image.split()[:3])


def _font() -> ImageFont.ImageFont | ImageFont.FreeTypeFont:
    try:
        return ImageFont.truetype("DejaVuSans.ttf", 20)
    except OSError:
        return ImageFont.load_default()
