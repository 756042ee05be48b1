"""Frames, the only thing that travels on the link: how to build one, and how to find them in a stream.

The layout is docs/link-protocol.md, Frames.
"""
from __future__ import annotations

import struct
import zlib
from enum import IntEnum
from typing import NamedTuple

START = bytes.fromhex("5A1E9C03D7B24F6681E0C3A95B7D2E4F0C6A18B3E59D7F2041C8A6E3B9D05F17")
HEADER = struct.Struct("<32sIIH")  # start sequence, checksum, payload length, message type
MAX_PAYLOAD = 0x100000  # bytes that a device sends; a length above it is damage
ID_SIZE = 5             # bytes; the rest of an identity is the firmware's version


class MessageType(IntEnum):
    CONTROL = 0
    BUTTON = 1
    IMAGE = 2
    IDENTITY = 3
    CONNECT_REQUEST = 4
    IDENTITY_REQUEST = 5
    DATA = 6


class Message(NamedTuple):
    type: int  # mostly a MessageType; unknown ones are for the caller to skip
    payload: bytes


class Identity(NamedTuple):
    id: str
    firmware: str


def frame(kind: int, payload: bytes = b"") -> bytes:
    """The bytes of one message."""
    return HEADER.pack(START, zlib.crc32(payload), len(payload), kind) + payload


def identity(payload: bytes) -> Identity | None:
    """What an IdentityMessage says; None if it is too short. Any bytes become text."""
    if len(payload) < ID_SIZE:
        return None
    return Identity(*(part.decode("utf-8", "backslashreplace")
                      for part in (payload[:ID_SIZE], payload[ID_SIZE:])))


def identity_datagram(datagram: bytes) -> Identity | None:
    """The identity in a broadcast, which is one IdentityMessage and nothing besides."""
    match FrameReader().feed(datagram):
        case [Message(MessageType.IDENTITY, payload)] if len(payload) + HEADER.size == len(datagram):
            return identity(payload)
    return None


class FrameReader:
    """Finds the frames in a stream that is cut anywhere, and survives damage.

    Skips what is no frame. A frame with a wrong checksum is skipped by its announced length, so that no
    byte is looked at twice. Holds one incomplete frame, 1 MiB, at most.
    """

    def __init__(self) -> None:
        self._buffer = bytearray()

    def feed(self, data: bytes | memoryview) -> list[Message]:
        """Adds bytes of the stream; returns the messages that they complete."""
        buffer = self._buffer
        buffer += data
        messages = []
        position = 0  # of what has not been looked at
        while (start := buffer.find(START, position)) >= 0:
            position = start
            if len(buffer) < position + HEADER.size:
                break
            _, checksum, length, kind = HEADER.unpack_from(buffer, position)
            if length > MAX_PAYLOAD:
                position += 1
                continue
            end = position + HEADER.size + length
            if len(buffer) < end:
                break
            payload = bytes(buffer[position + HEADER.size:end])
            position = end
            if zlib.crc32(payload) == checksum:
                messages.append(Message(kind, payload))
        else:  # the last bytes may be the beginning of a start sequence
            position = max(position, len(buffer) - (len(START) - 1))
        del buffer[:position]
        return messages
