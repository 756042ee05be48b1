"""Saves the evidence of a failed wait: a folder with pictures and a list of the buttons pressed so far."""
from __future__ import annotations

import time
from datetime import datetime, timedelta
from pathlib import Path
from typing import Sequence

from guilink.link import Picture
from guilink.recording import Film, Press
from guilink.screen import Difference, Screen


def new_folder(parent: Path, name: str) -> Path:
    for number in range(1, 1 << 20):
        folder = parent / f"{name}-{number}"
        try:
            folder.mkdir(parents=True)
            return folder
        except FileExistsError:
            continue
    raise FileExistsError(f"{parent} is full of {name}-...")


def write_evidence(folder: Path, message: str, expected: Screen | None, actual: Screen | None,
                   difference: Difference | None, pictures: Sequence[Picture],
                   presses: Sequence[Press], video: bool) -> None:
    """Writes expected.png, actual.png, difference.png, last-seconds.png (animated, or last-seconds.mp4), keys.txt,
    message.txt."""
    now = time.monotonic()
    if expected:
        expected.save(folder / "expected.png")
    if actual:
        actual.save(folder / "actual.png")
    if difference and difference.where is not None:
        difference.image().save(folder / "difference.png")
    if pictures:
        Film(pictures, presses, pictures[0].time, now).save(folder / f"last-seconds.{'mp4' if video else 'png'}")
    (folder / "keys.txt").write_text(_keys(presses, now), encoding="utf-8")
    (folder / "message.txt").write_text(message + "\n", encoding="utf-8")


def _keys(presses: Sequence[Press], now: float) -> str:
    wall = datetime.now().astimezone()
    lines = ["# time, seconds before the failure, what was pressed"]
    for press in presses:
        moment = wall - timedelta(seconds=now - press.time)
        lines.append(f"{moment:%Y-%m-%d %H:%M:%S.%f%z}  {press.time - now:+9.3f}  {press}")
    return "\n".join(lines) + "\n"
