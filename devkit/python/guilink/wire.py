"""Builds the link's frames, and finds frames in a stream of bytes.

docs/link-protocol.md, Frames, shows the layout.
"""
from __future__ import annotations

import struct
import zlib
from enum import IntEnum
from typing import NamedTuple

START = bytes.fromhex("5A1E9C03D7B24F6681E0C3A95B7D2E4F0C6A18B3E59D7F2041C8A6E3B9D05F17")
HEADER = struct.Struct("<32sIIH")  # start sequence, checksum, payload length, message type
MAX_PAYLOAD = 0x100000  # bytes; no device sends more, so a greater length means damage
ID_SIZE = 5             # bytes; in an IdentityMessage, the firmware's version follows the identity


class MessageType(IntEnum):
    CONTROL = 0
    BUTTON = 1
    IMAGE = 2
    IDENTITY = 3
    CONNECT_REQUEST = 4
    IDENTITY_REQUEST = 5
    DATA = 6


class Message(NamedTuple):
    type: int  # a MessageType, or an unknown type, which the caller must skip
    payload: bytes


class Identity(NamedTuple):
    id: str
    firmware: str


def frame(kind: int, payload: bytes = b"") -> bytes:
    """Returns the bytes of one message."""
    return HEADER.pack(START, zlib.crc32(payload), len(payload), kind) + payload


def identity(payload: bytes) -> Identity | None:
    """Decodes an IdentityMessage. Returns None if the payload is too short. Accepts any bytes as text."""
    if len(payload) < ID_SIZE:
        return None
    return Identity(*(part.decode("utf-8", "backslashreplace")
                      for part in (payload[:ID_SIZE], payload[ID_SIZE:])))


def identity_datagram(datagram: bytes) -> Identity | None:
    """Decodes a broadcast. Returns None if the datagram is not exactly one IdentityMessage."""
    match FrameReader().feed(datagram):
        case [Message(MessageType.IDENTITY, payload)] if len(payload) + HEADER.size == len(datagram):
            return identity(payload)
    return None


class FrameReader:
    """Finds the frames in a stream that arrives in arbitrary pieces and may be damaged.

    Skips bytes that belong to no frame. Skips the whole announced length of a frame with a wrong checksum,
    to read no byte twice. Keeps at most one incomplete frame: 1 MiB.
    """

    def __init__(self) -> None:
        self._buffer = bytearray()

    def feed(self, data: bytes | memoryview) -> list[Message]:
        """Adds bytes of the stream; returns the messages that they complete."""
        buffer = self._buffer
        buffer += data
        messages = []
        position = 0  # index of the first byte that has not been parsed
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
