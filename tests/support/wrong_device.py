"""A small device that keeps all rules or, started with a name from WRONG, breaks exactly one of them.

    wrong_device.py NAME COMMAND...    NAME is a key of WRONG, or "right"; runs COMMAND, and exits when COMMAND does
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

from support.fault import NAME, wrong

from guilink.wire import HEADER, MAX_PAYLOAD, START, MessageType, frame

WRONG = {  # key: what the device does wrong; value: the rule that this breaks
    "calls twice": "DISC-1", "calls from another port": "DISC-2", "cuts its call": "DISC-2",
    "connects only to the asking port": "DISC-8", "compares 40 bytes": "DISC-9", "calls while linked": "DISC-12",
    "line feeds": "FRAME-1", "a checksum of 1": "FRAME-2", "a frame a read": "FRAME-13",
    "leaves at noise": "FRAME-14", "reads inside damage": "FRAME-15", "reads behind long lengths": "FRAME-16",
    "waits for the long": "FRAME-16", "reads inside unknown types": "FRAME-18", "sends control": "FRAME-19",
    "keeps all candidates": "LINK-12", "takes the oldest": "LINK-12", "waits for the silent": "LINK-13",
    "answers once": "LINK-14", "answers the link only": "LINK-14", "candidates press": "LINK-15",
    "any number of connections": "LINK-16", "never calls again": "LINK-17", "images for candidates": "LINK-18",
    "one image": "TIME-7", "no gate": "TIME-8", "gate stays shut": "TIME-8", "never leaves": "TIME-9",
    "waits for readers": "TIME-10", "sends the last pixel": "PICT-8", "raw transparency": "PICT-9",
    "short runs": "PICT-10", "640 x 480": "PICT-11", "buttons from 101": "PRESS-3", "ignores button 16": "PRESS-4",
    "calls every 4 s": "DISC-1", "repeats every 2 s": "TIME-7", "leaves after 6 s": "TIME-9", "logs nothing": "PRESS-5",
}
HOST, IDENTITY = os.environ.get("DEVICE_HOST", "10.77.0.1"), b"11111fw1.1"
ANSWER = frame(MessageType.CONNECT_REQUEST)


def image(number):
    """Returns an image for the largest screen, with a transparent run. Each number gives a different image."""
    width, height = (640, 480) if wrong("640 x 480") else (1280, 960)
    rest = width * height - 1 + wrong("sends the last pixel")
    runs = [(1, 0xF000 | number & 0xFFF), (9, 0x0ABC if wrong("raw transparency") else 0)]
    runs += [(5, 0xF111), (5, 0xF111)] if wrong("short runs") else [(10, 0xF111)]
    runs += [(1, 0xF333), (1, 0xF444)] * 5000  # makes the image as large as a real one
    rest -= 10020
    runs += [(0xFFFF, 0xF222)] * (rest // 0xFFFF) + [(rest % 0xFFFF, 0xF222)]
    words = [width, height] + [word for run in runs for word in run]
    return frame(MessageType.IMAGE, struct.pack(f"<{len(words)}H", *words))


class Candidate:
    def __init__(self, host):
        self.socket = socket.create_connection((host, 8399), 3)
        self.socket.settimeout(3)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 18)
        self.buffer, self.heard, self.control, self.answers = bytearray(), time.monotonic(), 0.0, 0


class Device:
    def __init__(self):
        self.udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for option in (socket.SO_BROADCAST, socket.SO_REUSEADDR):
            self.udp.setsockopt(socket.SOL_SOCKET, option, 1)
        self.udp.bind((HOST, 3154 if wrong("calls from another port") else 3153))
        self.control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.candidates, self.link, self.calls, self.linked, self.number = [], None, 0, False, 0
        self.json, self.opened, self.next_call, self.next_image, self.shown = b"", 0, 0.0, 0.0, b""

    def run(self):
        while True:
            now = time.monotonic()
            if now >= self.next_call and (not self.link or wrong("calls while linked")):
                self.call(now)
            if self.link and now >= self.next_image:
                self.show(now)
            every = [*self.candidates, *([self.link] if self.link else [])]
            for ready in select.select([self.udp, *(each.socket for each in every)], [], [], 0.01)[0]:
                if ready is self.udp:
                    self.hear()
                elif each := next((each for each in every if each.socket is ready), None):
                    self.receive(each)
            limit = 6 if wrong("leaves after 6 s") else 3
            if self.link and time.monotonic() > self.link.heard + limit and not wrong("never leaves"):
                self.drop(self.link)

    def call(self, now):
        if not wrong("waits for the silent"):
            for each in list(self.candidates):
                if now > each.heard + 0.5 or self.link:
                    self.drop(each)
        self.next_call, self.opened = now + (4 if wrong("calls every 4 s") else 1), 0
        if wrong("calls twice") and self.calls >= 2 or wrong("never calls again") and self.linked:
            return
        self.calls += 1
        data = frame(MessageType.IDENTITY, IDENTITY)
        self.udp.sendto(data[:-1] if wrong("cuts its call") else data, ("10.77.0.255", 3152))

    def hear(self):
        data, sender = self.udp.recvfrom(100)
        right = data[:40] == ANSWER[:40] if wrong("compares 40 bytes") else data == ANSWER
        if not right or self.link or wrong("connects only to the asking port") and sender[1] != 3152:
            return
        if self.opened < 8 or wrong("any number of connections"):
            self.opened += 1
            try:
                self.candidates.append(Candidate(sender[0]))
            except OSError:
                return
            if wrong("images for candidates"):
                self.say(self.candidates[-1], image(1))

    def drop(self, each):
        each.socket.close()
        if each is self.link:
            self.link, self.next_call = None, 0.0
        elif each in self.candidates:
            self.candidates.remove(each)

    def say(self, each, data):
        try:
            if wrong("waits for readers"):
                each.socket.setblocking(False)
                each.socket.send(data)
            else:
                each.socket.sendall(data)
        except BlockingIOError:
            pass
        except OSError:
            self.drop(each)

    def show(self, now):
        self.next_image = now + 0.02
        open_gate = (now < self.link.control + 2 or wrong("no gate")) and not (
            wrong("gate stays shut") and self.number > 3 and now > self.started + 6)
        if open_gate or now >= self.repeat:
            self.number += open_gate
            if wrong("one image") and self.number > 1:
                return
            self.shown, self.repeat = image(self.number) if open_gate or not self.shown else self.shown, now + 0.5
            self.repeat += 1.5 * wrong("repeats every 2 s")
            self.say(self.link, self.shown)

    def receive(self, each):
        try:
            data = each.socket.recv(1 << 20)
        except OSError:
            data = b""
        if not data:
            self.drop(each)
            return
        each.heard = time.monotonic()
        buffer, linked = each.buffer, each is self.link
        if wrong("a frame a read"):
            buffer.clear()
        buffer += data
        if len(buffer) > MAX_PAYLOAD:
            buffer.clear()
        while (start := buffer.find(START)) >= 0:
            if start and wrong("leaves at noise"):
                self.drop(each)
                return
            del buffer[:start]
            if len(buffer) < HEADER.size:
                return
            _, checksum, length, kind = HEADER.unpack_from(buffer)
            if HEADER.size + length > MAX_PAYLOAD and not wrong("waits for the long"):
                buffer[:] = buffer[1:] if wrong("reads behind long lengths") else b""
                continue
            if len(buffer) < HEADER.size + length:
                return
            payload = bytes(buffer[HEADER.size:HEADER.size + length])
            inside = (wrong("reads inside damage") and zlib.crc32(payload) != checksum
                      or wrong("reads inside unknown types") and kind > 6)
            del buffer[:HEADER.size if inside else HEADER.size + length]
            if zlib.crc32(payload) == checksum:
                self.obey(each, linked, kind, payload)
        if len(buffer) >= len(START):
            buffer.clear()

    def obey(self, each, linked, kind, payload):
        if kind == MessageType.CONNECT_REQUEST and not self.link and each in self.candidates:
            chosen = self.candidates[0] if wrong("takes the oldest") else each
            self.candidates.remove(chosen)
            self.link, self.linked, self.started, self.repeat = chosen, True, time.monotonic(), 0.0
            self.number, self.shown = 0, b""
            if not wrong("keeps all candidates"):
                for other in list(self.candidates):
                    self.drop(other)
        elif kind == MessageType.IDENTITY_REQUEST:
            each.answers += 1
            if wrong("answers once") and each.answers > 1 or wrong("answers the link only") and each is not self.link:
                return
            answer = frame(MessageType.IDENTITY, IDENTITY)
            self.say(each, {"line feeds": answer + b"\n", "sends control": answer + frame(0),
                            "a checksum of 1": answer[:32] + b"\1\0\0\0" + answer[36:]}.get(NAME, answer))
        elif kind == MessageType.DATA and linked and not wrong("logs nothing"):
            Path(os.environ["DEVICE_LOG"]).write_text(f"USER {payload.decode()}\n")
        elif kind == MessageType.CONTROL:
            each.control = time.monotonic()
        elif kind == MessageType.BUTTON and payload and (linked or wrong("candidates press")):
            if payload[0] < 16:
                self.json = b'[{"msg_id":%d,"param":"On"}]' % (payload[0] + 100 + wrong("buttons from 101"))
            if payload[0] < 16 or not wrong("ignores button 16"):
                self.control.sendto(self.json, ("127.0.0.1", 3426))


if __name__ == "__main__":
    if len(sys.argv) > 2:
        device = subprocess.Popen([sys.executable, "-B", __file__, NAME])
        status = subprocess.call(sys.argv[2:])
        device.kill()
        sys.exit(status)
    Device().run()
