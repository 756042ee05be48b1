"""Converts the run-length code of an ImageMessage to a numpy array, and back.

The section "Images" of docs/link-protocol.md shows the layout. An array has height x width words of 16 bits, ARGB
4:4:4:4.
"""
from __future__ import annotations

import numpy as np
from numpy.typing import NDArray

Pixels = NDArray[np.uint16]

# Limit of a picture's size, three times the largest screen. Without this limit, a payload of 1 MiB could describe
# 17 billion pixels.
MAX_PIXELS = 1 << 22
RUN_MAX = 0xFFFF
OPAQUE_MIN = 0x1000  # the lowest pixel value that is not completely transparent


class DamagedPictureError(ValueError):
    """A payload that is not a complete picture."""


def decode(payload: bytes) -> Pixels:
    """Returns the pixels of an ImageMessage as a read-only array. The message does not contain the last pixel, so this
    pixel gets the value of the pixel before it."""
    if len(payload) < 4 or len(payload) % 4:
        raise DamagedPictureError(f"a picture of {len(payload)} bytes is cut off")
    words = np.frombuffer(payload, "<u2")
    width, height = int(words[0]), int(words[1])
    count = width * height
    if not 0 < count <= MAX_PIXELS:
        raise DamagedPictureError(f"no device has a screen of {width} x {height} pixels")
    lengths, values = words[2::2], words[3::2]
    ends = np.cumsum(lengths, dtype=np.int64)
    described = int(ends[-1]) if ends.size else 0
    if described != count - 1:
        raise DamagedPictureError(f"runs of {described} pixels in a picture of {width} x {height}, "
                                  f"which needs {count - 1}")
    # Drop empty runs, because the code below needs a different start index for each run.
    if not lengths.all():
        ends, values = ends[lengths > 0], values[lengths > 0]
    # At the start of each run, write the XOR of its value and the previous run's value. Then accumulate with XOR, so
    # that each run gets its value. This is three times as fast as np.repeat.
    pixels = np.zeros(count, np.uint16)
    if values.size:
        pixels[0] = values[0]
        pixels[ends[:-1]] = values[1:] ^ values[:-1]
        np.bitwise_xor.accumulate(pixels, out=pixels)
    pixels.flags.writeable = False
    return pixels.reshape(height, width)


def encode(pixels: Pixels) -> bytes:
    """Returns the payload that a device sends. It lacks the last pixel, and has 0 for each transparent pixel."""
    height, width = pixels.shape
    sent = pixels.reshape(-1)[:-1].astype(np.uint16)
    sent[1:][sent[1:] < OPAQUE_MIN] = 0  # a device sends the first pixel unchanged, even if it is transparent
    changes = np.flatnonzero(sent[1:] != sent[:-1]) + 1
    starts = [0, *map(int, changes)] if sent.size else []
    words = [width, height]
    for start, end in zip(starts, [*starts[1:], sent.size]):
        for position in range(start, end, RUN_MAX):
            words += [min(RUN_MAX, end - position), int(sent[start])]
    return np.array(words, "<u2").tobytes()
