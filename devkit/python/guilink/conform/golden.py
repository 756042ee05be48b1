"""Writes the example files in docs/examples/golden: frames, pictures with their decoded pixels, and damaged
streams. Authors of companions test their decoders with them, without a network.
"""
from __future__ import annotations

import json
from pathlib import Path

import numpy as np

from guilink.conform.companion_pictures import DAMAGED
from guilink.picture import Pixels, decode, encode
from guilink.screen import Screen
from guilink.wire import HEADER, MAX_PAYLOAD, START, MessageType, frame

EXAMPLE = bytes.fromhex("0300 0200 0100BC0A 01000000 03000FF0")  # the 3 x 2 pixels of docs/link-protocol.md

FRAMES = {
    "control": (MessageType.CONTROL, b""), "button": (MessageType.BUTTON, b"\7"),
    "image": (MessageType.IMAGE, EXAMPLE), "identity": (MessageType.IDENTITY, b"11111fw1.1"),
    "connect_request": (MessageType.CONNECT_REQUEST, b""),
    "identity_request": (MessageType.IDENTITY_REQUEST, b""), "data": (MessageType.DATA, b"hello"),
}
NOTES = """Made by `guilink conform golden`. Use these files to test a decoder without a network.

frames/NAME.bin     one frame each
pictures/NAME.bin   payload of an ImageMessage; NAME.png shows its pixels; NAME.argb holds them as 16-bit words
damaged/NAME.bin    payload of an ImageMessage that must be dropped
streams/NAME.bin    a stream; NAME.json lists the messages in it: type, payload in hexadecimal
"""


def pictures() -> dict[str, Pixels]:
    opaque, clear = np.arange(0xF000, 0x10000), np.arange(0, 0x10000, 0x111)  # all colours, all values of alpha
    colours = np.concatenate([opaque, clear[:240]]).astype(np.uint16).reshape(-1, 16)
    stripes = np.full((48, 64), 0xF123, np.uint16)
    stripes[24:, ::2] = 0x8F00
    return {"document": decode(EXAMPLE), "one_pixel": np.zeros((1, 1), np.uint16),
            "long_runs": np.full((70, 1000), 0xF123, np.uint16),
            "colours": decode(encode(colours)), "stripes": decode(encode(stripes))}


def streams() -> dict[str, tuple[bytes, list[tuple[int, bytes]]]]:
    """Returns, for each stream, its bytes and the messages that a receiver must find in it."""
    image = (int(MessageType.IMAGE), EXAMPLE)
    good = frame(*image)
    wrong = bytearray(good)
    wrong[32] ^= 1
    return {
        "garbage": (bytes(range(100)) + START[:31] + good, [image]),
        "wrong_checksum": (bytes(wrong) + good, [image]),
        "absurd_length": (HEADER.pack(START, 0, 0xFFFFFFFF, 2) + good
                          + HEADER.pack(START, 0, MAX_PAYLOAD + 1, 2) + good, [image, image]),
        "unknown_type": (frame(7, good) + good, [(7, good), image]),
        "cut": (good + good[:-1], [image]),
    }


def files() -> dict[str, bytes]:
    made = {"README.txt": NOTES.encode()}
    made |= {f"frames/{name}.bin": frame(*message) for name, message in FRAMES.items()}
    for name, pixels in pictures().items():
        made[f"pictures/{name}.bin"] = encode(pixels)
        made[f"pictures/{name}.argb"] = pixels.astype("<u2").tobytes()
    made |= {f"damaged/{what.replace(' ', '_')}.bin": payload for what, payload in DAMAGED.items()}
    for name, (stream, messages) in streams().items():
        made[f"streams/{name}.bin"] = stream
        made[f"streams/{name}.json"] = json.dumps(
            [{"type": kind, "payload": payload.hex()} for kind, payload in messages], indent=1).encode() + b"\n"
    return made


def write_golden(folder: Path) -> list[str]:
    for name, data in files().items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(data)
    for name, pixels in pictures().items():
        Screen(pixels).save(folder / "pictures" / f"{name}.png")
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())
