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
LIMIT = 60  # s; for any event that must come, on a machine however slow


def drawn(count):
    """A run longer than the longest, short ones, transparency, and the last pixel, which is lost."""
    pixels = [0xFF00] * 70000 + [0xF0F0, 0x800F] * 500 + [0x0ABC] * 1000
    return pixels + [0xF123] * (count - 1 - len(pixels)) + [0xFFFF]


def expected(pixels):
    pixels = [0 if pixel <= 0x0FFF else pixel for pixel in pixels[:-1]] + pixels[-2:-1]
    colours = {p: bytes((p >> s & 15) * 17 for s in (8, 4, 0, 12)) for p in set(pixels)}
    return b"".join(colours[pixel] for pixel in pixels)


def draw(address, pixels):
    with open("/dev/mem", "r+b") as memory:
        memory.seek(address)
        memory.write(struct.pack(f"<{len(pixels)}H", *pixels))


class Core:
    """Announces frames."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(LIMIT)
        self.connected = False

    def announce(self, address, size):
        try:
            if not self.connected:
                self.socket.connect("\0ambaipc/70000004/1")
                self.connected = True
        except ConnectionRefusedError:
            return  # the service is still starting
        self.socket.send(bytes(32) + struct.pack("<QI", address, size))
        assert self.socket.recv(100) == bytes(32)


def read_png(name, width, height):
    data, chunks, at = open(name, "rb").read(), {}, 8
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    while at < len(data):
        length, kind = struct.unpack_from(">I4s", data, at)
        body = data[at + 8:at + 8 + length]
        assert struct.unpack_from(">I", data, at + 8 + length)[0] == zlib.crc32(kind + body)
        chunks[kind], at = body, at + 12 + length
    assert chunks[b"IHDR"] == struct.pack(">IIBBBBB", width, height, 8, 6, 0, 0, 0)
    rows, line = zlib.decompress(chunks[b"IDAT"]), 1 + width * 4
    assert len(rows) == height * line and not any(rows[::line])
    return b"".join(rows[at + 1:at + line] for at in range(0, len(rows), line))


def see(core, address, width, height):
    """Draws a frame and announces it until the example has saved it."""
    pixels = drawn(width * height)
    draw(address, pixels)
    with tempfile.TemporaryDirectory() as folder:
        picture = os.path.join(folder, "picture.png")
        example = os.path.join(ROOT, "docs/examples/minimal_companion.py")
        companion = subprocess.Popen(
            [sys.executable, example, "--press", "7", "--timeout", str(LIMIT), picture],
            stdout=subprocess.PIPE, text=True)
        while companion.poll() is None:
            core.announce(address, len(pixels) * 2)
            try:
                companion.wait(0.02)
            except subprocess.TimeoutExpired:
                pass
        output = companion.stdout.read()
        assert companion.returncode == 0, output
        assert read_png(picture, width, height) == expected(pixels)
    # It may have been tried more than once before it became the link.
    assert output.startswith("device 11111, firmware fw1.1\n"), output
    assert f"\n{width} x {height}, " in output, output


def main():
    control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    control.bind(("127.0.0.1", 3426))
    control.settimeout(LIMIT)
    subprocess.run(sys.argv[1], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    core = Core()
    for address, width, height in (0x10000000, 1024, 768), (0x20000000, 1280, 960):
        see(core, address, width, height)
        assert control.recv(100) == b'[{"msg_id":107,"param":"On"}]'


if __name__ == "__main__":
    main()
