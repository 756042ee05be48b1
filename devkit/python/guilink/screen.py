"""Represents a picture of a device's screen. Scripts can compare, search, crop and save it."""
from __future__ import annotations

import os
from dataclasses import dataclass, replace
from functools import cache, cached_property
from typing import Iterable, Union

import numpy as np
from numpy.typing import NDArray
from PIL import Image

from guilink.picture import Pixels, decode

Box = tuple[int, int, int, int]  # x, y, width, height; in pixels from the top left
Mask = Union[Iterable[Box], NDArray[np.bool_]]  # boxes to ignore, or an array that is True for ignored pixels

SHIFTS = {"alpha": 12, "red": 8, "green": 4, "blue": 0}  # bit position of each channel in a pixel; a channel has 4 bits
PATCH_GAP = 16    # pixels; differences that are closer than this belong to one patch, such as the digits of a clock
MAX_PATCHES = 12  # more patches are joined, so that a message stays readable
STEP = 17  # factor that converts 4 bits to 8; 15 becomes 255


class Screen:
    """A complete picture from the device. It never changes.

    `pixels` is a numpy array of height x width words of 16 bits, ARGB 4:4:4:4, not premultiplied. Two screens are
    equal if all their pixels are equal.
    """

    def __init__(self, pixels: Pixels):
        pixels = np.asarray(pixels)
        if pixels.ndim != 2 or pixels.dtype != np.uint16 or not pixels.size:
            raise ValueError("a screen is a height x width array of 16-bit pixels")
        self.pixels = pixels.view()
        self.pixels.flags.writeable = False

    @classmethod
    def decode(cls, payload: bytes) -> Screen:
        """Decodes the payload of an ImageMessage."""
        return cls(decode(payload))

    @classmethod
    def load(cls, path: str | os.PathLike[str]) -> Screen:
        """Reads a file that `save` wrote, or any picture whose colours fit into 4 bits per channel. Raises ValueError
        if it cannot."""
        try:
            with Image.open(path) as image:
                rgba: NDArray[np.uint8] = np.asarray(image.convert("RGBA"))
        except (OSError, SyntaxError) as error:  # Pillow raises SyntaxError for a damaged PNG file
            why = getattr(error, "strerror", None) or "it is no picture, or a damaged one"
            raise ValueError(f"cannot read {os.fspath(path)}: {why}; `guilink snapshot` saves the screen") from None
        if (rgba % STEP).any():
            raise ValueError(f"cannot compare with {os.fspath(path)}: it has colours that no device can "
                             "show (4 bits a channel); take it with save, not with another program")
        red, green, blue, alpha = (rgba[..., i].astype(np.uint16) // STEP for i in range(4))
        return cls((alpha << 12 | red << 8 | green << 4 | blue).astype(np.uint16))

    @property
    def width(self) -> int:
        """In pixels."""
        return self.pixels.shape[1]

    @property
    def height(self) -> int:
        """In pixels."""
        return self.pixels.shape[0]

    @cached_property
    def rgba(self) -> NDArray[np.uint8]:
        """An array of height x width x 4 bytes: red, green, blue and alpha, each 0 to 255."""
        return np.take(_colours(), self.pixels).view(np.uint8).reshape(*self.pixels.shape, 4)

    def image(self) -> Image.Image:
        """Returns the screen as a Pillow image, with alpha."""
        return Image.fromarray(self.rgba, "RGBA")

    def save(self, path: str | os.PathLike[str]) -> None:
        """Writes an image file. A PNG file keeps every pixel unchanged."""
        self.image().save(path)

    def crop(self, box: Box) -> Screen:
        """Returns the part of the screen inside the box. Raises ValueError if the box extends beyond the screen."""
        x, y, width, height = box
        if not (0 <= x < x + width <= self.width and 0 <= y < y + height <= self.height):
            raise ValueError(f"the region {box} is not within a screen of {self.width} x {self.height}")
        return Screen(self.pixels[y:y + height, x:x + width])

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Screen) and np.array_equal(self.pixels, other.pixels)

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        return f"<Screen {self.width} x {self.height}>"

    def diff(self, other: Screen, mask: Mask = (), tolerance: int = 0) -> Difference:
        """Returns where the screens differ. Ignores the pixels inside `mask`. Ignores a difference of up to `tolerance`
        (0 to 15) in a channel."""
        if self.pixels.shape != other.pixels.shape:
            return Difference(self, other, None)
        differs = self.pixels != other.pixels
        if tolerance and differs.any():
            differs = steps(self, other) > tolerance
        if isinstance(mask, np.ndarray):
            differs &= ~mask
        else:
            for x, y, width, height in mask:
                differs[max(y, 0):max(y + height, 0), max(x, 0):max(x + width, 0)] = False
        return Difference(self, other, differs)

    def find(self, reference: Screen) -> Box | None:
        """Searches from the top left. Returns the first box in which this screen shows exactly `reference`, or None."""
        height, width = self.height - reference.height + 1, self.width - reference.width + 1
        if height <= 0 or width <= 0:
            return None
        # Choose the pixel value of the reference that is rarest on the screen. Only a few places have this value,
        # so only these places must be compared.
        counts, values = np.bincount(self.pixels.reshape(-1), minlength=1 << 16), np.unique(reference.pixels)
        probe = values[np.argmin(counts[values])]
        py, px = np.argwhere(reference.pixels == probe)[0]
        places = np.argwhere(self.pixels[py:py + height, px:px + width] == probe)
        for y, x in places[self._edges_match(places, reference)]:
            box = (int(x), int(y), reference.width, reference.height)
            if self.crop(box) == reference:
                return box
        return None

    def _edges_match(self, places: NDArray[np.intp], reference: Screen) -> NDArray[np.bool_]:
        """Returns a flag for each of `places`, which is false if the reference is certainly not there. Compares only a
        few pixels, where the reference changes colour, so it is fast."""
        changes = np.argwhere(reference.pixels[:, 1:] != reference.pixels[:, :-1])
        match = np.ones(len(places), bool)
        for y, x in changes[::max(1, len(changes) // 16)]:
            for dx in (x, x + 1):
                match &= self.pixels[places[:, 0] + y, places[:, 1] + dx] == reference.pixels[y, dx]
        return match


@cache
def _colours() -> NDArray[np.uint32]:
    """Returns a table with the four RGBA bytes of each pixel value, as one word."""
    pixels = np.arange(1 << 16)
    channels = [pixels >> SHIFTS[name] & 15 for name in ("red", "green", "blue", "alpha")]
    colours: NDArray[np.uint32] = (np.stack(channels, axis=-1) * STEP).astype(np.uint8).view(np.uint32)
    return colours.reshape(-1)


def steps(one: Screen, other: Screen) -> NDArray[np.uint16]:
    """Returns, for each pixel, the largest difference of any channel, 0 to 15."""
    largest = np.zeros(one.pixels.shape, np.uint16)
    for shift in SHIFTS.values():
        a, b = one.pixels >> shift & 15, other.pixels >> shift & 15
        np.maximum(largest, np.maximum(a, b) - np.minimum(a, b), out=largest)
    return largest


def _patches(where: NDArray[np.bool_], x: int, y: int, gap: int) -> list[Box]:
    """Returns the boxes that remain when `where`, whose top left is at (x, y), is cut along all empty stripes of at
    least `gap` rows or columns, again and again."""
    rows, columns = np.flatnonzero(where.any(axis=1)), np.flatnonzero(where.any(axis=0))
    if not rows.size:
        return []
    where = where[rows[0]:rows[-1] + 1, columns[0]:columns[-1] + 1]
    x, y = x + int(columns[0]), y + int(rows[0])
    for filled, across in ((rows - rows[0], False), (columns - columns[0], True)):
        if (stripes := np.flatnonzero(np.diff(filled) > gap)).size:
            at = int(filled[stripes[0]]) + 1  # cut behind the first part
            if across:
                return _patches(where[:, :at], x, y, gap) + _patches(where[:, at:], x + at, y, gap)
            return _patches(where[:at], x, y, gap) + _patches(where[at:], x, y + at, gap)
    return [(x, y, where.shape[1], where.shape[0])]


@dataclass(frozen=True, eq=False)
class Difference:
    """The difference of two screens. It is true if the screens differ. str() describes where and by how much."""

    one: Screen
    other: Screen
    where: NDArray[np.bool_] | None  # True where the screens differ; None if their sizes differ
    origin: tuple[int, int] = (0, 0)  # x and y of the compared region on the device's screen

    def __bool__(self) -> bool:
        return self.where is None or bool(self.where.any())

    @property
    def count(self) -> int:
        """How many pixels differ."""
        return self.one.pixels.size if self.where is None else int(np.count_nonzero(self.where))

    @cached_property
    def boxes(self) -> list[Box]:
        """A box around each patch that differs, in coordinates of the device's screen. Together, the boxes are a mask
        that covers all differences."""
        if self.where is None:
            return []
        found, gap = _patches(self.where, *self.origin, PATCH_GAP), PATCH_GAP
        while len(found) > MAX_PATCHES:
            found = _patches(self.where, *self.origin, gap := 2 * gap)
        return found

    @property
    def largest(self) -> int:
        """The largest difference in any channel of any pixel, 0 to 15."""
        return int(steps(self.one, self.other)[self.where].max()) if self.boxes else 0

    def __str__(self) -> str:
        if self.where is None:
            return (f"the sizes differ: {self.one.width} x {self.one.height}, "
                    f"not {self.other.width} x {self.other.height}")
        if not self:
            return "no pixel differs"
        changed = int(np.bitwise_or.reduce((self.one.pixels ^ self.other.pixels)[self.where]))
        channels = [name for name, shift in SHIFTS.items() if changed >> shift & 15]
        pixels = "1 pixel differs" if self.count == 1 else f"{self.count} pixels differ"
        return (f"{pixels} ({self.count / self.where.size:.2%}), by up to {self.largest} of 15 steps in "
                f"{', '.join(channels)}, in {self.boxes}")

    def joined(self, earlier: Difference | None) -> Difference:
        """Returns this difference with the pixels of an earlier one."""
        if earlier is None or self.where is None or earlier.where is None or self.where.shape != earlier.where.shape:
            return self
        return replace(self, where=self.where | earlier.where)

    def image(self) -> Image.Image:
        """Returns `one` in dim grey. The pixels that differ are red."""
        grey = self.one.image().convert("RGBa").convert("L").point(lambda level: level // 3)
        picture = np.asarray(grey.convert("RGB")).copy()
        if self.where is not None:
            picture[self.where] = 255, 40, 40
        return Image.fromarray(picture)
