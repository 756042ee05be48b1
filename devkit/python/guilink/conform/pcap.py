"""Makes a capture file for Wireshark from the recorded bytes of an exchange.

Addresses, ports, order and times are those of the exchange. The sizes of segments, the acknowledgements and
the sequence numbers are made up.
"""
from __future__ import annotations

import socket
import struct
from typing import Iterator

from guilink.conform.exchange import Address, Event, Exchange

MAGIC, RAW_IPV4 = 0xA1B2C3D4, 228
FIN, SYN, RST, PSH, ACK = 1, 2, 4, 8, 16
SEGMENT = 1460  # bytes of data in a TCP segment
UDP, TCP = 17, 6


def capture(exchange: Exchange, wall: float = 0.0) -> bytes:
    """Returns the content of the capture file. Adds `wall` to all times, to turn them into times of day."""
    packets = [struct.pack("<IHHiIII", MAGIC, 2, 4, 0, 0, 0x40000, RAW_IPV4)]
    sent: dict[tuple[int, Address], int] = {}  # number of bytes sent, by connection and sender
    for event in exchange:
        for packet in _packets(event, sent):
            seconds = event.time + wall
            packets.append(struct.pack("<IIII", int(seconds), int(seconds % 1 * 1e6), len(packet), len(packet)))
            packets.append(packet)
    return b"".join(packets)


def _packets(event: Event, sent: dict[tuple[int, Address], int]) -> Iterator[bytes]:
    if event.transport == "udp":
        header = struct.pack(">HHHH", event.source[1], event.target[1], 8 + len(event.data), 0)
        yield _ip(UDP, event.source, event.target, header + event.data)
    else:
        def segment(flags: int, data: bytes = b"", length: int = 0, turned: bool = False) -> bytes:
            source, target = (event.target, event.source) if turned else (event.source, event.target)
            here, there = (sent.get((event.channel, end), 0) for end in (source, target))
            sent[event.channel, source] = here + (length or len(data))
            header = struct.pack(">HHIIBBHHH", source[1], target[1], here & 0xFFFFFFFF, there & 0xFFFFFFFF,
                                 5 << 4, flags, 0xFFFF, 0, 0)
            return _ip(TCP, source, target, header + data)

        if event.kind == "opened":
            yield segment(SYN, length=1)
            yield segment(SYN | ACK, length=1, turned=True)
            yield segment(ACK)
        elif event.kind == "bytes":
            for start in range(0, len(event.data), SEGMENT):
                yield segment(PSH | ACK, event.data[start:start + SEGMENT])
        else:
            yield segment(FIN | ACK if event.kind == "ended" else RST | ACK, length=event.kind == "ended")


def _ip(protocol: int, source: Address, target: Address, data: bytes) -> bytes:
    addresses = [socket.inet_aton(end[0]) for end in (source, target)]
    header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, min(20 + len(data), 0xFFFF), 0, 0x4000, 64, protocol, 0,
                         *addresses)
    total = sum(struct.unpack(">10H", header))
    total = (total & 0xFFFF) + (total >> 16)
    checksum = ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF
    return header[:10] + struct.pack(">H", checksum) + header[12:] + data
