"""The example companion of the docs against the real service: tests/minimal_companion_test.py GUILINKD

Stands in for the rest of the device: draws into /dev/mem, announces frames, is the control service.
Runs in a sandbox; what it starts ends with that.
"""
import os
import socket
import struct
import subprocess
import sys
import tempfile
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ADDRESS, WIDTH, HEIGHT = 0x10000000, 1024, 768
LIMIT = 60  # s; for anything that will happen, however slow the machine

# Of each colour a run, longer than a run can be; a short one; transparency; the last pixel, lost.
PIXELS = [0xFF00] * 70000 + [0xF0F0, 0x800F] * 500 + [0x0ABC] * 1000
PIXELS += [0xF123] * (WIDTH * HEIGHT - 1 - len(PIXELS)) + [0xFFFF]


def expected(pixels):
    pixels = [0 if pixel <= 0x0FFF else pixel for pixel in pixels[:-1]] + pixels[-2:-1]
    colours = {p: bytes((p >> s & 15) * 17 for s in (8, 4, 0, 12)) for p in set(pixels)}
    return b"".join(colours[pixel] for pixel in pixels)


def draw(pixels):
    with open("/dev/mem", "r+b") as memory:
        memory.seek(ADDRESS)
        memory.write(struct.pack(f"<{len(pixels)}H", *pixels))


class Core:
    """Announces what was drawn, as often as it is told to."""

    ARGUMENT = struct.pack("<QI", ADDRESS, WIDTH * HEIGHT * 2)

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(LIMIT)
        self.connected = False

    def announce(self):
        try:
            if not self.connected:
                self.socket.connect("\0ambaipc/70000004/1")
                self.connected = True
        except ConnectionRefusedError:
            return  # the service is about to start
        self.socket.send(bytes(32) + self.ARGUMENT)
        assert self.socket.recv(100) == bytes(32)


def read_png(name):
    data, chunks, at = open(name, "rb").read(), {}, 8
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    while at < len(data):
        length, kind = struct.unpack_from(">I4s", data, at)
        body = data[at + 8:at + 8 + length]
        assert struct.unpack_from(">I", data, at + 8 + length)[0] == zlib.crc32(kind + body)
        chunks[kind], at = body, at + 12 + length
    assert chunks[b"IHDR"] == struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 6, 0, 0, 0)
    rows, line = zlib.decompress(chunks[b"IDAT"]), 1 + WIDTH * 4
    assert len(rows) == HEIGHT * line and not any(rows[::line])
    return b"".join(rows[at + 1:at + line] for at in range(0, len(rows), line))


def main():
    control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    control.bind(("127.0.0.1", 3426))
    control.settimeout(LIMIT)
    draw(PIXELS)
    subprocess.run(sys.argv[1], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)

    with tempfile.TemporaryDirectory() as folder:
        picture = os.path.join(folder, "picture.png")
        example = os.path.join(ROOT, "docs/examples/minimal_companion.py")
        companion = subprocess.Popen(
            [sys.executable, example, "--press", "7", "--timeout", str(LIMIT), picture],
            stdout=subprocess.PIPE, text=True)
        core = Core()
        while companion.poll() is None:
            core.announce()
            try:
                companion.wait(0.02)
            except subprocess.TimeoutExpired:
                pass
        output = companion.stdout.read()
        assert companion.returncode == 0, output
        assert read_png(picture) == expected(PIXELS)
    # It may have been tried more than once before it became the link.
    assert output.startswith("device 11111, firmware fw1.1\n"), output
    assert "\n1024 x 768, " in output, output
    assert control.recv(100) == b'[{"msg_id":107,"param":"On"}]'


if __name__ == "__main__":
    main()
