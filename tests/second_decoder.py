"""Decodes the payloads of image_test.cpp with the example companion of the docs, and compares the pixels with
those of the C++ decoder."""
import array
import os
import struct
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "docs/examples"))
from minimal_companion import decode  # noqa: E402

COLOURS = [bytes((pixel >> shift & 15) * 17 for shift in (8, 4, 0, 12)) for pixel in range(0x10000)]

while sizes := sys.stdin.buffer.read(8):
    size, count = struct.unpack("=II", sizes)
    payload = sys.stdin.buffer.read(size)
    pixels = array.array("H", sys.stdin.buffer.read(2 * count))
    width, height, rgba = decode(payload)
    assert struct.pack("<HH", width, height) == payload[:4], payload
    assert rgba == b"".join(map(COLOURS.__getitem__, pixels)), payload
