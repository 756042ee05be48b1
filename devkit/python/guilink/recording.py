"""Records the device's pictures, and writes a video at the end."""
from __future__ import annotations

import os
import struct
import tempfile
import time
import warnings
from typing import Callable, Iterator, Sequence

from guilink.film import Film, Press, Progress, Shot, can_save
from guilink.link import Link, Picture

ENTRY = struct.Struct("<dI")  # time, length of the payload that follows


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
            Film(self._shots(), self._presses, self._start, end).save(self.path, progress)
        return self.path

    def _keep(self, picture: Picture) -> None:
        if picture.payload is self._last or self._error:
            return
        self._last = picture.payload
        try:
            self._spool.write(ENTRY.pack(picture.time, len(picture.payload)) + picture.payload)
        except OSError as error:  # the disk is full; stop() raises the error, the link continues
            self._error = error

    def _shots(self) -> Iterator[Shot]:
        while entry := self._spool.read(ENTRY.size):
            moment, length = ENTRY.unpack(entry)
            yield Shot(moment, self._spool.read(length))
