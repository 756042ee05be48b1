"""A small companion that keeps all rules or, started with a name from WRONG, breaks exactly one of them.

    wrong_companion.py NAME PICTURE.png    NAME is a key of WRONG, or "right"
"""
import os
import select
import socket
import struct
import subprocess
import sys
import time
import zlib
from pathlib import Path

import numpy as np
from support.fault import NAME, wrong

from guilink import wire
from guilink.picture import DamagedPictureError, decode
from guilink.screen import Screen
from guilink.wire import HEADER, START, FrameReader, MessageType, frame, identity_datagram

WRONG = {  # key: what the companion does wrong; value: the rule that this breaks
    "listens on one address": "DISC-3", "listens nowhere": "DISC-3", "answers 41 bytes": "DISC-4",
    "answers 43 bytes": "DISC-4", "answers another type": "DISC-4", "answers port 3152": "DISC-4",
    "answers once": "DISC-5", "answers once a second": "DISC-5", "answers until connected": "DISC-5",
    "answers no one as a candidate": "DISC-5", "answers noise": "DISC-6",
    "answers short identities": "DISC-6", "dies of an empty datagram": "LINK-10",
    "has no port": "DISC-7", "answers another device": "DISC-10", "reads 64 bytes": "DISC-11",
    "line feeds": "FRAME-1", "big endian": "FRAME-10", "a checksum of 1": "FRAME-2",
    "a text of 2 MiB": "FRAME-3", "a frame a read": "FRAME-4", "drops what begins wrong": "FRAME-5",
    "ignores checksums": "FRAME-6", "believes lengths": "FRAME-7", "leaves at unknown types": "FRAME-8",
    "reads inside unknown types": "FRAME-8", "takes 512 KiB": "FRAME-9", "sends an identity": "FRAME-10",
    "sends pieces": "FRAME-11", "waits for 4 MiB": "FRAME-12", "says nothing": "LINK-1",
    "control first": "LINK-1", "asks once": "LINK-2", "asks until an identity": "LINK-2",
    "asks until a damaged image": "LINK-2", "one connection in its life": "LINK-3",
    "waits for the silent": "LINK-4", "keeps further connections": "LINK-5", "holds on": "LINK-6",
    "leaves in silence only": "LINK-6", "leaves at any broadcast": "LINK-7",
    "one reader for all": "LINK-8", "knows identities only": "LINK-9",
    "a new identity is another device": "LINK-9", "a new address is another device": "LINK-9",
    "dies of a reset": "LINK-10", "dies of a damaged image": "LINK-10", "falls silent": "TIME-1",
    "control every 4 s": "TIME-2", "control every 1.5 s": "TIME-3", "stops reading": "TIME-4",
    "reads every 4 s": "TIME-4",
    "never asks": "TIME-5", "never leaves": "TIME-6", "column by column": "PICT-1", "short runs": "PICT-1",
    "last pixel black": "PICT-2", "blue is red": "PICT-3", "times 16": "PICT-3", "size of the first": "PICT-4",
    "fills what is missing": "PICT-5", "decodes the newest only": "PICT-5",
    "believes sizes": "PICT-6", "presses early": "PRESS-1",
    "texts early": "PRESS-1", "presses after two requests": "PRESS-1",
    "button 16": "PRESS-2", "two buttons": "PRESS-2",
    "answers 40 times": "DISC-4", "answers every other broadcast": "DISC-5", "listens late": "DISC-7",
    "answers any type": "DISC-6", "answers more than a frame": "DISC-6",
    "compares four characters": "DISC-10", "one frame a read": "FRAME-4",
    "sends presses in two pieces": "FRAME-11",
    "asks late": "LINK-1", "asks five times": "LINK-2", "asks every other time": "LINK-2",
    "ignores a half-close": "LINK-3", "leaves the silent late": "LINK-4", "keeps waiting connections": "LINK-5",
    "answers the second broadcast": "LINK-6", "knows addresses only": "LINK-9", "knows versions only": "LINK-9",
    "dies of long texts": "LINK-10", "keeps damaged images": "LINK-10",
    "is silent in a frame": "TIME-2", "pauses": "TIME-2",
    "leaves after 1 s": "TIME-6", "leaves after 6 s": "TIME-6", "leaves at a damaged image": "PICT-5",
    "opaque": "PICT-3", "presses once in its life": "PRESS-1", "presses at a late answer": "PRESS-1",
    "presses 7 only": "PRESS-2", "ends its texts": "PRESS-6",
}
# Further names, of companions that are wrong in ways that a single rule does not describe:
#   "dies of half a header", "leaves inside a frame": must not make the kit wait for ever
#   "dies of the first reset", "dies of the first end": works after a restart
#   "serves 4 connections": works for a while after each start
#   "closes its port", "has two sizes": keep all rules, but do not do more
#   "leaves a child": has a child in another session
CONNECT, CONTROL, ASK = (frame(kind) for kind in (MessageType.CONNECT_REQUEST, MessageType.CONTROL,
                                                  MessageType.IDENTITY_REQUEST))


class Header(struct.Struct):
    """Reads headers with the fault NAME."""

    def unpack_from(self, buffer, offset=0):
        start, checksum, length, kind = super().unpack_from(buffer, offset)
        if wrong("ignores checksums"):
            checksum = zlib.crc32(buffer[offset + self.size:offset + self.size + length])
        if wrong("reads inside unknown types") and kind > 6:
            length = 0
        if wrong("waits for 4 MiB") and (length, checksum) == (1 << 20, 1):
            wire.MAX_PAYLOAD = length = 4 << 20
        return start, checksum, length, kind


wire.HEADER = Header(HEADER.format)
wire.MAX_PAYLOAD = {"believes lengths": 1 << 32, "takes 512 KiB": 1 << 19}.get(NAME, wire.MAX_PAYLOAD)


class Reader(FrameReader):
    def feed(self, data):
        if wrong("a frame a read"):
            self._buffer.clear()
        if wrong("drops what begins wrong") and not self._buffer and data[:4] != START[:4]:
            return []
        return super().feed(data)


def picture(payload):
    """Returns the pixels of an image, or None for a damaged one."""
    words = np.frombuffer(payload[:len(payload) // 4 * 4], "<u2")
    if wrong("dies of a damaged image"):
        decode(payload)
    if wrong("believes sizes") and len(words) > 1 and int(words[0]) * int(words[1]) > 1 << 22:
        np.ones(700 << 20, np.uint8)
    if wrong("fills what is missing") and len(words) > 2:
        words = words[:len(words) // 2 * 2]
        count = int(words[0]) * int(words[1])
        seen = np.repeat(words[3::2], words[2::2])[:count]
        return np.pad(seen, (0, count - len(seen)), "edge").reshape(words[1], words[0]) if len(seen) else None
    if wrong("has two sizes") and tuple(words[:2]) not in ((1024, 768), (1280, 960)):
        return None
    try:
        pixels = decode(payload).copy()
    except DamagedPictureError:
        if wrong("keeps damaged images"):
            Companion.kept.append(np.ones(2 << 20, np.uint8))
        return None
    if wrong("short runs"):
        return decode(payload) if max(words[2::2], default=0) < 1 << 15 else pixels * 0
    if wrong("column by column"):
        return pixels.reshape(pixels.shape[::-1]).T.copy()
    if wrong("last pixel black"):
        pixels[-1, -1] = 0xF000
    if wrong("blue is red"):
        pixels = pixels & 0xF0F0 | pixels >> 8 & 15 | (pixels & 15) << 8
    if wrong("opaque"):
        pixels = pixels | 0xF000
    if wrong("times 16"):
        pixels = pixels & 0xFFFE
    if wrong("size of the first"):
        Companion.first = Companion.first or pixels.shape
        pixels = np.resize(pixels, Companion.first)
    return pixels


class Companion:
    first, kept = None, []

    def __init__(self, path):
        self.path, self.connection, self.device, self.others = path, None, None, []
        self.served = 0
        self.reader, self.answered, self.once, self.deaf = Reader(), 0.0, False, 0.0
        if wrong("listens nowhere"):
            self.udp, _ = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
        else:
            self.udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.udp.bind(("10.77.0.100" if wrong("listens on one address") else "", 3152))
        self.tcp, self.early, self.calls, self.presses = None, b"", 0, 0
        if not wrong("listens late"):
            self.listen()
        if wrong("leaves a child"):
            child = subprocess.Popen(["sleep", "1000"], start_new_session=True)
            Path(path + ".child").write_text(str(child.pid))

    def listen(self):
        if not self.tcp:
            self.tcp = socket.create_server(("127.0.0.1" if wrong("has no port") else "", 8399), backlog=64)

    def run(self):
        while True:
            now = time.monotonic()
            sources = []
            if self.answered and now > self.answered + 0.3:
                self.listen()
            if self.connection and now > self.deaf and not (self.linked and wrong("stops reading")):
                # Keep this before self.tcp: the end of this connection must be handled before a new connection.
                sources.append(self.connection)
            sources.append(self.udp)
            limit = 4 if wrong("leaves the silent late") else 1
            if not self.connection or self.linked or now > self.heard + limit and not wrong("waits for the silent"):
                sources += [self.tcp] if self.tcp else []
            for ready in select.select(sources, [], [], 0.05)[0]:
                if ready is self.connection:
                    self.receive()
                elif ready in (self.udp, self.tcp):
                    self.hear() if ready is self.udp else self.accept()
            if self.connection:
                self.speak(time.monotonic())

    def hear(self):
        data, sender = self.udp.recvfrom(64 if wrong("reads 64 bytes") else 2048)
        said, now = identity_datagram(data), time.monotonic()
        if wrong("dies of an empty datagram"):
            data[0]
        short = wrong("answers short identities") and data[40:42] == b"\3\0" and len(data) == 46
        any_type = wrong("answers any type") and len(FrameReader().feed(data)) == 1 and len(data) > 46
        more = wrong("answers more than a frame") and [each.type for each in FrameReader().feed(data)] == [3]
        if not said and not (wrong("answers noise") or short or any_type or more and len(data) > 46):
            return
        if self.connection and self.linked and not wrong("answers another device"):
            place, name = sender[0] == self.peer, bool(said and said.id == self.called)
            own = {"leaves in silence only": False, "a new identity is another device": name,
                   "a new address is another device": place}.get(NAME, place or name)
            self.calls += own
            if wrong("answers the second broadcast") and self.calls % 2:
                return
            own |= bool(wrong("compares four characters") and said and said.id[:4] == self.called[:4])
            if not own or wrong("holds on") or now < self.linked + 1 and not wrong("leaves at any broadcast"):
                return
            self.lose(was_reset=False)
        if self.connection and wrong("answers no one as a candidate"):
            return
        if wrong("knows identities only") and said:
            self.device = self.device or said.id
            if said.id != self.device:
                return
        if wrong("knows addresses only", "knows versions only") and said:
            known = sender[0] if wrong("knows addresses only") else said.firmware
            self.device = self.device or known
            if known != self.device:
                return
        self.calls += 1
        if wrong("answers every other broadcast") and self.calls % 2:
            return
        if (wrong("answers once") and self.answered or wrong("answers until connected") and self.once
                or wrong("answers once a second") and now < self.answered + 1):
            return
        self.answered, self.called = now, said and said.id
        answer = {"answers 41 bytes": CONNECT[:41], "answers 43 bytes": CONNECT + b"\0",
                  "answers another type": ASK}.get(NAME, CONNECT)
        for _ in range(40 if wrong("answers 40 times") else 1):
            self.udp.sendto(answer, (sender[0], 3152) if wrong("answers port 3152") else sender)

    def accept(self):
        connected, (peer, _) = self.tcp.accept()
        if self.connection and self.linked:
            kept = wrong("keeps further connections") or (
                wrong("keeps waiting connections") and time.monotonic() < self.linked + 0.5)
            self.others.append(connected) if kept else connected.close()
            return
        if wrong("one connection in its life") and self.once:
            self.others.append(connected)
            return
        self.served += 1
        if wrong("serves 4 connections") and self.served > 4:
            connected.close()
            return
        self.leave()
        self.once, self.connection, self.peer = True, connected, peer
        connected.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connected.settimeout(3)
        self.reader, self.found = self.reader if wrong("one reader for all") else Reader(), []
        self.linked, self.quiet, self.pressed, self.deaf, self.requests = 0.0, False, False, 0.0, 0
        self.early, self.calls = b"", 0
        self.heard, self.next, self.next_control = time.monotonic(), 0.0, 0.0

    def leave(self):
        if self.connection:
            self.connection.close()
        self.connection = None
        self.listen()

    def lose(self, was_reset):
        reset = was_reset and (wrong("dies of a reset") or wrong("dies of the first reset") and first_time(self.path))
        if reset or wrong("dies of the first end") and first_time(self.path):
            sys.exit(3)
        self.leave()

    def receive(self):
        was_reset = False
        try:
            data = self.connection.recv(1 << 16)
        except ConnectionResetError:
            data, was_reset = b"", True
        if not data and wrong("ignores a half-close"):
            self.deaf = time.monotonic() + 9
            return
        if not data:
            self.lose(was_reset)
            return
        self.heard = time.monotonic()
        damaged = wrong("asks until a damaged image") and b"\2\0\0\4\0\3" in data
        self.quiet |= bool(damaged)
        self.found += self.reader.feed(data)
        messages = self.found[:1] if wrong("one frame a read") else self.found
        self.found = self.found[len(messages):]
        inside = START in self.reader._buffer
        if wrong("dies of half a header") and inside and len(self.reader._buffer) < HEADER.size:
            sys.exit(3)
        if wrong("leaves inside a frame") and inside:
            self.leave()
            return
        newest = [each for each in messages if each.type == MessageType.IMAGE][-1:]
        for message in messages:
            if message.type > 6 and wrong("leaves at unknown types"):
                self.leave()
                return
            if len(message.payload) > 2000 and message.type == MessageType.DATA and wrong("dies of long texts"):
                sys.exit(3)
            self.quiet |= wrong("asks until an identity") and message.type == MessageType.IDENTITY
            if message.type == MessageType.IDENTITY:
                self.called = message.payload[:5].decode("latin-1")
            if message.type == MessageType.IDENTITY and (
                    self.requests == 2 and wrong("presses after two requests")
                    or self.requests > 3 and not self.linked and wrong("presses at a late answer")):
                self.early = frame(1, b"\1")
            if message.type == MessageType.IMAGE:
                self.linked = self.linked or time.monotonic()
                if wrong("closes its port") and self.tcp:
                    self.tcp.close()
                    self.tcp = None
                if wrong("reads every 4 s"):
                    self.deaf = self.heard = time.monotonic() + 4
                if wrong("decodes the newest only") and message is not newest[0]:
                    continue
                if (pixels := picture(message.payload)) is not None:
                    Screen(pixels).save(self.path + ".new.png")
                    os.replace(self.path + ".new.png", self.path)
                elif wrong("leaves at a damaged image"):
                    self.leave()
                    return
        self.heard = max(self.heard, time.monotonic())  # on a busy machine, it takes long to save the pictures

    def speak(self, now):
        limit = {"leaves after 1 s": 1, "leaves after 6 s": 6}.get(NAME, 3)
        if now > self.heard + limit and not wrong("never leaves", "holds on", "stops reading"):
            self.leave()
            return
        if now < self.next or wrong("falls silent") and self.linked:
            return
        if (wrong("asks late") and self.next == 0 and now < self.heard + 1.5
                or wrong("pauses") and self.linked and now % 4 < 2.6
                or wrong("is silent in a frame") and START in self.reader._buffer):
            return
        self.requests += 1
        first, self.next = self.next == 0, now + (0.5 if self.linked else 0.2)
        words = b"" if self.linked or self.quiet or wrong("asks once") and not first else CONNECT
        if wrong("asks five times") and self.requests > 5 or wrong("asks every other time") and self.requests % 2 == 0:
            words = b""
        if first:
            words = {"says nothing": b"", "control first": CONTROL + CONNECT,
                     "presses early": CONNECT + frame(1, b"\1"), "texts early": CONNECT + frame(6, b"text"),
                     "presses once in its life": CONNECT + (b"" if self.presses else frame(1, b"\1")),
                     "sends an identity": CONNECT + frame(3, b"11111"), "line feeds": CONNECT + b"\n",
                     "a checksum of 1": CONNECT[:32] + b"\1" + CONNECT[33:],
                     "big endian": CONNECT[:40] + b"\0\4"}.get(NAME, CONNECT)
        if now >= self.next_control:
            words += CONTROL
            self.next_control = now + {"control every 4 s": 4, "control every 1.5 s": 1.5}.get(NAME, 0)
        if not wrong("never asks"):
            words += ASK
        if self.linked and not self.pressed:
            self.pressed = True
            words += {"button 16": frame(1, b"\x10"), "two buttons": frame(1, b"\1\2"),
                      "ends its texts": frame(6, b"text\0"),
                      "a text of 2 MiB": START + bytes(4) + b"\0\0\x20\0" + b"\6\0"}.get(NAME, frame(1, b"\1"))
        if first:
            self.presses += 1
        if self.linked and os.path.exists(self.path + ".press"):
            asked = int(Path(self.path + ".press").read_text() or 7)
            os.unlink(self.path + ".press")
            words += frame(1, bytes([7 if wrong("presses 7 only") else asked]))
        words, self.early = words + self.early, b""
        try:
            if wrong("sends pieces"):
                self.connection.sendall(words[:-20])
                time.sleep(0.1)
                words = words[-20:]
            if wrong("sends presses in two pieces") and words.endswith(b"\1\0\1"):
                self.connection.sendall(words[:-43])
                time.sleep(0.1)
                self.connection.sendall(words[-43:-1])
                words = words[-1:]
            self.connection.sendall(words)
        except OSError as error:
            self.lose(isinstance(error, ConnectionResetError))


def first_time(path):
    """Whether no process has called this before."""
    try:
        open(path + ".once", "x").close()
        return True
    except FileExistsError:
        return False


if __name__ == "__main__":
    Companion(sys.argv[2]).run()
