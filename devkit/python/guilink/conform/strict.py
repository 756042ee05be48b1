"""Reads a stream strictly: every byte that breaks a rule of the frame format is a fault.

The package's own reader (guilink.wire) skips damage instead, as a companion must.
"""
from __future__ import annotations

import zlib
from dataclasses import dataclass, field
from typing import NamedTuple

import numpy as np
from numpy.typing import NDArray

from guilink.wire import HEADER, MAX_PAYLOAD, START, Message, frame

Screens = tuple[NDArray[np.uint8], NDArray[np.uint8]]  # the expected and the shown picture, as RGB or RGBA
SENT_BY_COMPANION = frozenset({0, 1, 4, 5, 6})
SENT_BY_DEVICE = frozenset({2, 3, 6})
MAX_TO_DEVICE = MAX_PAYLOAD - HEADER.size


class Fault(NamedTuple):
    rule: str
    text: str
    expected: bytes = b""
    actual: bytes = b""
    screens: Screens | None = None


@dataclass
class StrictReader:
    """Reads what a companion (or a device) sends on one connection."""

    by_companion: bool
    faults: list[Fault] = field(default_factory=list)
    position: int = 0  # position in the stream at which the buffer begins
    _buffer: bytearray = field(default_factory=bytearray)

    @property
    def torn(self) -> bool:
        """Whether the data ends inside a header or right after one. If so, its sender has split the last frame."""
        return 0 < len(self._buffer) <= HEADER.size

    def feed(self, data: bytes) -> list[Message]:
        self._buffer += data
        messages = []
        while self._buffer and (found := self._next()):
            length, message = found
            del self._buffer[:length]
            self.position += length
            if message:
                messages.append(message)
        if self.by_companion and self.torn:
            self._fault("FRAME-11", "a frame arrives in pieces", b"", bytes(self._buffer))
        return messages

    def _next(self) -> tuple[int, Message | None] | None:
        """Returns the length of the next frame and its message. For bytes that are no valid frame, returns their
        length and None. Returns None if more bytes must arrive first."""
        buffer = self._buffer
        known = min(len(buffer), len(START))
        if buffer[:known] != START[:known]:
            self._fault("FRAME-1", "no start sequence", START, bytes(buffer[:64]))
            start = buffer.find(START)
            return (start if start > 0 else len(buffer)), None
        if len(buffer) < HEADER.size:
            return None
        _, checksum, length, kind = HEADER.unpack_from(buffer)
        if length > (MAX_TO_DEVICE if self.by_companion else MAX_PAYLOAD):
            self._fault("FRAME-3", f"a payload of {length} bytes is announced", b"", bytes(buffer[:64]))
            return len(buffer), None
        end = HEADER.size + length
        if len(buffer) < end:
            return None
        payload = bytes(buffer[HEADER.size:end])
        if zlib.crc32(payload) != checksum:
            self._fault("FRAME-2", f"checksum {checksum:08X}, not {zlib.crc32(payload):08X}",
                        frame(kind, payload), bytes(buffer[:end]))
        elif kind not in (SENT_BY_COMPANION if self.by_companion else SENT_BY_DEVICE):
            self._fault("FRAME-10" if self.by_companion else "FRAME-19", f"a message of type {kind}",
                        b"", bytes(buffer[:end]))
        return end, Message(kind, payload)

    def _fault(self, rule: str, text: str, expected: bytes, actual: bytes) -> None:
        self.faults.append(Fault(rule, f"{text}, at byte {self.position} of the stream", expected, actual))
