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
        self.region, self.tolerance = region, tolerance
        self._mask: NDArray[np.bool_] | list[Box] = mask if isinstance(mask, np.ndarray) else [*mask]

    def of(self, screen: Screen) -> Screen:
        """Returns the part of the screen inside the region. If the region extends beyond the screen, returns the whole
        screen, so that a comparison with a reference finds different sizes."""
        if self.region is None:
            return screen
        x, y, width, height = self.region
        fits = x + width <= screen.width and y + height <= screen.height
        return screen.crop(self.region) if fits else screen

    def diff(self, one: Screen, other: Screen) -> Difference:
        """Compares two results of `of`."""
        difference = one.diff(other, self._mask_of(one), self.tolerance)
        return replace(difference, origin=self.region[:2]) if self.region else difference

    def _mask_of(self, part: Screen) -> Mask:
        if self.region is None:
            return self._mask
        x, y, width, height = self.region
        if isinstance(self._mask, np.ndarray):
            inside = self._mask.shape == part.pixels.shape
            return self._mask if inside else self._mask[y:y + height, x:x + width]
        return [(left - x, top - y, w, h) for left, top, w, h in self._mask]

    def __str__(self) -> str:
        words = [f"region {self.region}" if self.region else "the whole screen"]
        if len(self._mask):
            words.append("a mask" if isinstance(self._mask, np.ndarray) else f"without {self._mask}")
        if self.tolerance:
            words.append(f"tolerance {self.tolerance} of 15 steps")
        return ", ".join(words)


class Expectation:
    """Checks whether a screen shows a reference (a screen or a file) or meets a condition. `view` selects the part
    to check."""

    def __init__(self, what: Reference, view: View, name: str | None = None):
        self.view = view
        self.reference: Screen | None = None
        self._predicate: Predicate | None = None
        if callable(what):
            self._predicate = what
            self.name = name or f"the condition {getattr(what, '__name__', what)}"
        else:
            self.name = name or ("the reference" if isinstance(what, Screen) else os.fspath(what))
            reference = what if isinstance(what, Screen) else Screen.load(what)
            region = view.region
            # A reference is either a picture of the region alone or a screen that contains the region.
            if region and (reference.width, reference.height) != region[2:]:
                reference = reference.crop(region)
            self.reference = reference

    def met_by(self, part: Screen) -> bool:
        if self._predicate:
            return bool(self._predicate(part))
        return part == self.reference or not self.difference(part)

    def difference(self, part: Screen) -> Difference | None:
        """Returns how `part` differs from the reference, or None if there is no reference."""
        return self.view.diff(part, self.reference) if self.reference else None
