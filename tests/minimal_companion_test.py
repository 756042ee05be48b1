"""Tests the example companion of the docs with the real service. Usage: tests/minimal_companion_test.py GUILINKD

The test plays the core and the control service: it draws into /dev/mem, announces frames, and receives presses. Run
this test in a sandbox, because the test does not end the service.
"""
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile

import numpy
from PIL import Image

EXAMPLE = pathlib.Path(__file__).parent.parent / "docs/examples/minimal_companion.py"
LIMIT = 60  # s; how long each wait may take, even on a slow machine


def drawn(count):
    """Returns pixels with a run longer than 65535, short runs, transparent pixels, and a unique last pixel. The service
    does not send the last pixel."""
    pixels = [0xFF00] * 70000 + [0xF0F0, 0x800F] * 500 + [0x0ABC] * 1000
    return numpy.array(pixels + [0xF123] * (count - 1 - len(pixels)) + [0xFFFF], "<u2")


def expected(pixels):
    seen = numpy.append(numpy.where(pixels < 0x1000, 0, pixels)[:-1], pixels[-2])
    return numpy.stack([(seen >> shift & 15) * 17 for shift in (8, 4, 0, 12)], axis=-1).astype(numpy.uint8)


def announce(core, address, size):
    try:
        core.send(bytes(32) + struct.pack("<QI", address, size))
    except OSError:  # not connected yet
        core.connect_ex("\0ambaipc/70000004/1")  # fails while the service is starting
    else:
        assert core.recv(100) == bytes(32)


def see(core, address, width, height):
    """Draws a frame, and announces it repeatedly while the example companion runs. Checks the companion's picture and
    output."""
    pixels = drawn(width * height)
    with open("/dev/mem", "r+b") as memory:
        memory.seek(address)
        memory.write(pixels.tobytes())
    with tempfile.NamedTemporaryFile(suffix=".png") as picture:
        companion = subprocess.Popen(
            [sys.executable, EXAMPLE, "--press", "7", "--timeout", str(LIMIT), picture.name],
            stdout=subprocess.PIPE, text=True)
        while companion.poll() is None:
            announce(core, address, pixels.nbytes)
            try:
                companion.wait(0.02)
            except subprocess.TimeoutExpired:
                pass
        output = companion.stdout.read()
        assert companion.returncode == 0, output
        Image.open(picture.name).verify()  # checks the file's checksums
        shown = numpy.asarray(Image.open(picture.name))
    assert numpy.array_equal(shown, expected(pixels).reshape(height, width, 4))
    # The example companion prints the device of each connection that it tries, so there may be lines in between.
    assert output.startswith("device 11111, firmware fw1.1\n"), output
    assert f"\n{width} x {height}, " in output, output


def main():
    control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    control.bind(("127.0.0.1", 3426))
    core = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    for end in (control, core):
        end.settimeout(LIMIT)
    subprocess.run(sys.argv[1], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    for address, width, height in (0x10000000, 1024, 768), (0x20000000, 1280, 960):
        see(core, address, width, height)
        assert control.recv(100) == b'[{"msg_id":107,"param":"On"}]'


if __name__ == "__main__":
    main()
