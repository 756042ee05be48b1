"""What a script expects of the screen: a part of the screen shows a reference picture or meets a condition."""
from __future__ import annotations

import os
from dataclasses import replace
from typing import Callable, Union

import numpy as np
from numpy.typing import NDArray

from guilink.screen import Box, Difference, Mask, Screen

Predicate = Callable[[Screen], object]
Reference = Union[Screen, str, "os.PathLike[str]", Predicate]


class View:
    """Selects the part of a screen that is compared: inside `region` and outside `mask`. A difference of up to
    `tolerance` counts as equal.

    The mask uses coordinates of the whole screen, even if there is a region.
    """

    def __init__(self, region: Box | None = None, mask: Mask = (), tolerance: int = 0):
        if not 0 <= tolerance <= 15:
            raise ValueError(f"the tolerance is {tolerance}; it must be 0 to 15 steps of a channel")
        self.region, self.tolerance = region and _box(region, "region"), tolerance
        if region and min(region[:2]) < 0:
            raise ValueError(f"the region {region} begins outside the screen")
        self.mask: NDArray[np.bool_] | list[Box] = (mask if isinstance(mask, np.ndarray)
                                                    else [_box(each, "box of a mask") for each in mask])

    def misfit(self, screen: Screen) -> str:
        """Says why this view is impossible on a screen of this size. Returns an empty text if it is possible."""
        size = f"{screen.width} x {screen.height}"
        if self.region and not _inside(self.region, screen):
            return f"the region {self.region} is not within the screen of {size}"
        if isinstance(self.mask, np.ndarray) and self.mask.shape not in (
                screen.pixels.shape, (self.region or ())[:1:-1]):
            return f"the mask has {self.mask.shape[::-1]} pixels, the screen {size}"
        return ""

    def of(self, screen: Screen) -> Screen:
        return screen.crop(self.region) if self.region else screen

    def diff(self, one: Screen, other: Screen) -> Difference:
        """Compares two results of `of`."""
        x, y, width, height = self.region or (0, 0, one.width, one.height)
        if isinstance(self.mask, np.ndarray):
            mask: Mask = self.mask if self.mask.shape == one.pixels.shape else self.mask[y:y + height, x:x + width]
        else:
            mask = [(left - x, top - y, w, h) for left, top, w, h in self.mask]
        return replace(one.diff(other, mask, self.tolerance), origin=(x, y))

    def differs(self, one: Screen, other: Screen) -> bool:
        """Whether two screens differ here. A screen that this view does not fit differs from all others."""
        return bool(self.misfit(one) or self.misfit(other) or self.diff(self.of(one), self.of(other)))

    def explain(self, screen: Screen, difference: Difference) -> list[str]:
        """Says in which parts the view has changed while a script waited."""
        return [f"changed meanwhile: {difference.boxes or 'the size'}"]

    def __str__(self) -> str:
        words = [f"region {self.region}" if self.region else "the whole screen"]
        if len(self.mask):
            words.append("a mask" if isinstance(self.mask, np.ndarray) else f"without {self.mask}")
        if self.tolerance:
            words.append(f"tolerance {self.tolerance} of 15 steps")
        return ", ".join(words)


class Expectation(View):
    """Checks whether a screen shows a reference (a screen or a file) or meets a condition, in a view."""

    def __init__(self, what: Reference, region: Box | None = None, mask: Mask = (), tolerance: int = 0,
                 name: str | None = None):
        super().__init__(region, mask, tolerance)
        self.reference: Screen | None = None  # what the view must show
        self.whole: Screen | None = None      # the same with its surroundings, if they are known
        self._predicate: Predicate | None = None
        if callable(what):
            self._predicate = what
            self.name = name or f"the condition {getattr(what, '__name__', what)}"
            return
        self.name = name or ("the reference" if isinstance(what, Screen) else os.fspath(what))
        self.reference = reference = what if isinstance(what, Screen) else Screen.load(what)
        # A reference is either a picture of the region alone or a screen that contains the region.
        if self.region and (reference.width, reference.height) != self.region[2:]:
            if not _inside(self.region, reference):
                raise ValueError(f"the region {self.region} is not within {self.name}, "
                                 f"which has {reference.width} x {reference.height} pixels")
            self.reference, self.whole = reference.crop(self.region), reference

    def misfit(self, screen: Screen) -> str:
        expected = None if self.region else self.reference
        if expected and expected.pixels.shape != screen.pixels.shape:
            return (f"{self.name} has {expected.width} x {expected.height} pixels, "
                    f"the screen {screen.width} x {screen.height}")
        return super().misfit(screen)

    def met_by(self, screen: Screen) -> bool:
        if self.misfit(screen):
            return False
        part = self.of(screen)
        if self._predicate:
            return bool(self._predicate(part))
        return part == self.reference or not self.difference(screen)

    def difference(self, screen: Screen) -> Difference | None:
        """Returns how the screen differs from the reference, or None if there is no reference."""
        return self.diff(self.of(screen), self.reference) if self.reference else None

    def explain(self, screen: Screen, difference: Difference) -> list[str]:
        """Says how the screen differs from the reference, and whether it differs outside the region, too."""
        lines = [f"last picture: {difference}"]
        if self.region and self.whole and self.whole.pixels.shape == screen.pixels.shape:
            patches = View(None, self.mask, self.tolerance).diff(screen, self.whole).boxes
            if ignored := [box for box in patches if not _touch(box, self.region)]:
                lines.append(f"outside the region, where it does not matter, also in {ignored}")
        return lines

    def __str__(self) -> str:
        return f"{super().__str__()} with {self.name}"


def _box(box: Box, what: str) -> Box:
    try:
        x, y, width, height = box
        if width > 0 and height > 0:
            return x, y, width, height
    except (TypeError, ValueError):
        pass
    raise ValueError(f"{box!r} is no {what}, which is (x, y, width, height)")


def _inside(box: Box, screen: Screen) -> bool:
    x, y, width, height = box
    return x + width <= screen.width and y + height <= screen.height


def _touch(one: Box, other: Box) -> bool:
    return all(one[i] < other[i] + other[i + 2] and other[i] < one[i] + one[i + 2] for i in (0, 1))
