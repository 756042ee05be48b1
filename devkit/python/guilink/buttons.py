"""The device's buttons by name."""
from __future__ import annotations

import json
import os
from typing import Mapping

COUNT = 16  # the link protocol has the buttons 0 to 15

# The default labels of the buttons on the viewer's page. Each device decides what a button does.
DEFAULTS = {"Up": 0, "Down": 1, "Left": 2, "Right": 3, "OK": 4, "Back": 5, "Menu": 6, "Power": 7,
            "Zoom in": 8, "Zoom out": 9, "Brighter": 10, "Darker": 11, "Palette": 12, "Hide": 13,
            "Size": 14, "Info": 15}


class Buttons:
    """Translates button names to numbers and back. Names are case-insensitive."""

    def __init__(self, labels: Mapping[str, int] = DEFAULTS):
        self._labels = dict(labels)
        self._numbers = {label.casefold(): number for label, number in labels.items()}

    @classmethod
    def load(cls, path: str | os.PathLike[str]) -> Buttons:
        """Reads button names from a file in the format of `guilink-viewer --labels`."""
        try:
            with open(path, encoding="utf-8") as file:
                return cls({entry["label"]: int(entry["button"]) for entry in json.load(file)})
        except OSError as error:
            raise ValueError(f"cannot read the labels in {os.fspath(path)}: {error.strerror}") from None
        except (ValueError, KeyError, TypeError) as error:
            raise ValueError(f"cannot read the labels in {os.fspath(path)}: {error!r}; it must be a JSON "
                             'array of {"button": NUMBER, "label": TEXT}') from None

    def number(self, button: str | int) -> int:
        """Returns the number of a button that is given by name or number. Raises ValueError if there is none."""
        if isinstance(button, str):
            text = button.strip().casefold()
            number = self._numbers.get(text, int(text) if text.isdecimal() else -1)
        else:
            number = int(button)
        if not 0 <= number < COUNT:
            raise ValueError(f"there is no button {button!r}; there are {', '.join(self._labels)}, "
                             f"and the numbers 0 to {COUNT - 1}")
        return number

    def name(self, number: int) -> str:
        """Returns the button's name, or its number as text if it has no name."""
        return next((label for label, button in self._labels.items() if button == number), str(number))
